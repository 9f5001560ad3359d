#pragma once
// Cell text of Excel 2007+ workbooks: the shared string table, read once per load and kept in one buffer,
// and the reading of a text element (entities, the "_xHHHH_" escapes of characters XML cannot carry).

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace kv {

class TStream;

/// Reads CR LF and CR as LF (as XML does), decodes the predefined entities and character references, then
/// "_xHHHH_" escapes (the UTF-16 unit HHHH; "_x005F_" escapes an underscore), in place.
void KvDecodeXLSXText(std::string& text);

class TKvXLSXSharedStrings {
public:
    /// The most text the table may hold: a table is kept whole for the load.
    static constexpr uint64_t kDefaultMaxBytes = uint64_t{1} << 30;

    /// Reads a shared strings part: each item's text runs joined, phonetic runs left out.
    void Load(std::unique_ptr<TStream> part, uint64_t maxBytes = kDefaultMaxBytes);
    void Clear();
    /// Adds an item; fails when the table would hold more than `maxBytes` (each item's offset counted).
    void Add(std::string_view item, uint64_t maxBytes = kDefaultMaxBytes);
    size_t Count() const { return ends_.size(); }
    /// Item `index`; it must be below Count.
    std::string_view Item(size_t index) const {
        const uint64_t start = index == 0 ? 0 : ends_[index - 1];
        return std::string_view(text_).substr(start, ends_[index] - start);
    }

private:
    std::string text_;           ///< every item, one after another
    std::vector<uint64_t> ends_; ///< where each ends in text_
};

} // namespace kv
