#pragma once
// Binary Excel 2007+ workbooks written in memory for the tests: the package of XlsxBuilder with parts of
// binary records (workbook, styles, shared strings, sheets), each of which a test may replace or damage.

#include "ZipBuilder.h"

#include "platform/Utf8.h"

#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace kv::test {

inline std::string BU32(uint32_t v) {
    return std::string{static_cast<char>(v), static_cast<char>(v >> 8), static_cast<char>(v >> 16),
                       static_cast<char>(v >> 24)};
}
inline std::string BU16(uint16_t v) {
    return std::string{static_cast<char>(v), static_cast<char>(v >> 8)};
}
inline std::string BF64(double v) {
    uint64_t bits = 0;
    std::memcpy(&bits, &v, sizeof v);
    return BU32(static_cast<uint32_t>(bits)) + BU32(static_cast<uint32_t>(bits >> 32));
}
/// A length-prefixed UTF-16 string of UTF-8 `text`.
inline std::string BWide(const std::string& text) {
    std::string units;
    for (const char32_t c : Utf8ToU32(text)) {
        if (c < 0x10000) {
            units += BU16(static_cast<uint16_t>(c));
        } else {
            units += BU16(static_cast<uint16_t>(0xD800 + ((c - 0x10000) >> 10)));
            units += BU16(static_cast<uint16_t>(0xDC00 + ((c - 0x10000) & 0x3FF)));
        }
    }
    return BU32(static_cast<uint32_t>(units.size() / 2)) + units;
}
/// A record: its type and size in 7-bit groups, then `data`.
inline std::string BRecord(int type, const std::string& data) {
    std::string out;
    uint32_t t = static_cast<uint32_t>(type);
    do {
        out += static_cast<char>((t & 0x7F) | (t > 0x7F ? 0x80 : 0));
        t >>= 7;
    } while (t);
    uint32_t size = static_cast<uint32_t>(data.size());
    do {
        out += static_cast<char>((size & 0x7F) | (size > 0x7F ? 0x80 : 0));
        size >>= 7;
    } while (size);
    return out + data;
}
/// A row header for 0-based row `row`.
inline std::string BRow(uint32_t row) {
    return BRecord(0, BU32(row) + BU32(0) + BU16(300) + BU16(0) + std::string(1, '\0') + BU32(0));
}
/// A cell record of `type` at 0-based `column` with `style`, its value `value` as laid out.
inline std::string BCell(int type, uint32_t column, const std::string& value = "", uint32_t style = 0) {
    return BRecord(type, BU32(column) + BU32(style) + value);
}

class XlsbBuilder {
public:
    /// A worksheet whose cell data holds `records` (rows and cells); `state` 0 visible, 1 hidden, 2 very.
    XlsbBuilder& Sheet(const std::string& name, const std::string& records, uint32_t state = 0) {
        sheets_.push_back({name, records, state});
        return *this;
    }
    XlsbBuilder& Strings(std::vector<std::string> items) {
        strings_ = std::move(items);
        return *this;
    }
    /// Custom formats and the format number of each cell style.
    XlsbBuilder& Styles(std::vector<std::pair<int, std::string>> formats, std::vector<int> cellStyles) {
        formats_ = std::move(formats);
        cellStyles_ = std::move(cellStyles);
        return *this;
    }
    XlsbBuilder& Date1904() {
        date1904_ = true;
        return *this;
    }
    /// A part that replaces the one built under that name, or is added.
    XlsbBuilder& Part(const std::string& name, std::string data) {
        parts_[name] = std::move(data);
        return *this;
    }
    XlsbBuilder& Stored() {
        method_ = 0;
        return *this;
    }

    std::string Build() const {
        std::map<std::string, std::string> parts;
        const std::string head = "<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"yes\"?>\n";
        const std::string rel = "http://schemas.openxmlformats.org/officeDocument/2006/relationships/";
        const auto relation = [&](const std::string& id, const std::string& type, const std::string& target) {
            return "<Relationship Id=\"" + id + "\" Type=\"" + rel + type + "\" Target=\"" + target + "\"/>";
        };
        const std::string rels = "<Relationships xmlns=\"http://schemas.openxmlformats.org/package/2006/"
                                 "relationships\">";
        parts["_rels/.rels"] =
            head + rels + relation("rId1", "officeDocument", "xl/workbook.bin") + "</Relationships>";
        std::string workbook = BRecord(131, "") + BRecord(153, BU32(date1904_ ? 1 : 0) + BU32(0) + BWide(""));
        std::string workbookRels = head + rels;
        workbook += BRecord(143, "");
        for (size_t i = 0; i < sheets_.size(); ++i) {
            const std::string n = std::to_string(i + 1);
            workbook += BRecord(156, BU32(sheets_[i].State) + BU32(static_cast<uint32_t>(i + 1)) +
                                         BWide("rId" + n) + BWide(sheets_[i].Name));
            workbookRels += relation("rId" + n, "worksheet", "worksheets/sheet" + n + ".bin");
            parts["xl/worksheets/sheet" + n + ".bin"] = BRecord(129, "") + BRecord(145, "") +
                                                        sheets_[i].Records + BRecord(146, "") +
                                                        BRecord(130, "");
        }
        parts["xl/workbook.bin"] = workbook + BRecord(144, "") + BRecord(132, "");
        parts["xl/_rels/workbook.bin.rels"] = workbookRels +
                                              relation("rIdS", "sharedStrings", "sharedStrings.bin") +
                                              relation("rIdY", "styles", "styles.bin") + "</Relationships>";
        std::string sst = BRecord(159, BU32(0) + BU32(static_cast<uint32_t>(strings_.size())));
        for (const std::string& s : strings_) sst += BRecord(19, std::string(1, '\0') + BWide(s));
        parts["xl/sharedStrings.bin"] = sst + BRecord(160, "");
        std::string styles = BRecord(615, "");
        for (const auto& [number, code] : formats_)
            styles += BRecord(44, BU16(static_cast<uint16_t>(number)) + BWide(code));
        styles += BRecord(616, "") + BRecord(617, BU32(static_cast<uint32_t>(cellStyles_.size())));
        for (const int format : cellStyles_)
            styles += BRecord(47, BU16(0) + BU16(static_cast<uint16_t>(format)) + std::string(8, '\0') +
                                      std::string(4, '\0'));
        parts["xl/styles.bin"] = styles + BRecord(618, "");
        for (const auto& [name, data] : parts_) parts[name] = data;
        ZipBuilder zip;
        for (const auto& [name, data] : parts) zip.Add(name, data, method_);
        return zip.Build();
    }

private:
    struct TSheet {
        std::string Name, Records;
        uint32_t State;
    };
    std::vector<TSheet> sheets_;
    std::vector<std::string> strings_;
    std::vector<std::pair<int, std::string>> formats_;
    std::vector<int> cellStyles_ = {0};
    bool date1904_ = false;
    uint16_t method_ = 8;
    std::map<std::string, std::string> parts_;
};

} // namespace kv::test
