#pragma once
// TKvXMLRows: record-shaped XML read one row at a time. Every occurrence of the row element is a row; its
// attributes and its child elements are the columns, named as the document writes them (namespace
// prefixes kept). A child's value is its text content, its descendants' text included, with the
// predefined entities and character references decoded and CDATA taken as written; a child met twice in
// a row gives its values joined by a line feed; text of the row element itself goes into a column named
// after the element. Only the current row is held, so memory follows the largest row, not the document.

#include "readers/markup/KvXMLInput.h"
#include "readers/markup/KvXMLScan.h"

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace kv {

class TKvXMLRows {
public:
    /// `blockSize`: bytes read at a time (0 = 1 MiB); tests make it tiny.
    explicit TKvXMLRows(size_t blockSize = 0) : decoder_(blockSize) {}

    /// Opens `stream` at its position (not owned; it must outlive the reader). Every pass after the first
    /// (ChooseRowElement, a second Start) seeks back to that position. Columns are forgotten.
    void Open(TStream& stream);

    /// The element rows are made of when none is named: the element that most often has attributes or
    /// child elements, the first met on a tie, and the document element only when no other has either.
    /// "" when no element has either. Costs a pass over the document.
    std::string ChooseRowElement();
    /// Starts at the first row of the elements named `element` (the name as written, prefix included).
    /// Columns met before stay, with their numbers.
    void Start(const std::string& element);
    /// Reads the next row; false at the end of the document.
    bool NextRow();

    /// Rows read since Start.
    int64_t RowCount() const { return rows_; }
    /// The line of the text where the current row's start tag is.
    int64_t RowLine() const { return rowLine_; }
    int ColumnCount() const { return static_cast<int>(names_.size()); }
    /// The columns in the order they were first met.
    const std::string& ColumnName(int index) const { return names_[static_cast<size_t>(index)]; }
    /// The column named exactly `name`; -1 when none was met, unless `add` makes it a column now, which
    /// rows lack until one holds it.
    int ColumnIndex(std::string_view name, bool add);
    /// The current row's value of column `index`; nullptr when the row lacks it.
    const std::string* Value(int index) const {
        const auto i = static_cast<size_t>(index);
        return i < stamps_.size() && stamps_[i] == stamp_ ? &values_[i] : nullptr;
    }

    /// How the bytes are decoded.
    const TKvXMLDecoder& Decoder() const { return decoder_; }
    /// Appends what the reading noticed since the last call (the decoder's and the scanner's).
    void TakeNewWarnings(std::vector<TKvXMLWarning>& out);
    /// How far through the document the reading is, from 0 to 1 (below 0 when unknown).
    double ReadFraction() const { return decoder_.ReadFraction(); }

private:
    struct TNameHash {
        using is_transparent = void;
        size_t operator()(std::string_view s) const { return std::hash<std::string_view>{}(s); }
    };

    void Restart();
    int ColumnAt(std::string_view name);
    std::string& Begin(int column);
    void EndValue();
    void EndRow();

    TKvXMLDecoder decoder_;
    TKvXMLScanner scanner_{xdRecords};
    std::string element_;

    std::vector<std::string> names_;
    std::unordered_map<std::string, int, TNameHash, std::equal_to<>> byName_;
    std::vector<std::string> values_; ///< by column; a row's are those stamped with its stamp
    std::vector<uint32_t> stamps_;
    uint32_t stamp_ = 0;
    // The columns of the last row in the order met: the next row most often names them in that order.
    std::vector<int> order_;
    size_t position_ = 0;

    int64_t rows_ = 0;
    int64_t rowLine_ = 0;
    int64_t rowDepth_ = 0;         ///< levels open inside the current row's element, 0 between rows
    std::string* value_ = nullptr; ///< the value being read: a child's, or the row's own text
    size_t raw_ = 0;               ///< where its text not yet decoded starts
    std::string own_;              ///< the row element's own text

    std::vector<TKvXMLWarning> taken_;
    std::string attributeName_;        ///< "child@attribute", built in place
    std::vector<TKvXMLWarning> ended_; ///< a row the document ended inside
};

} // namespace kv
