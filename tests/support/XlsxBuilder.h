#pragma once
// Excel 2007+ workbooks written in memory for the tests: a package with a workbook, its relationships,
// sheets, shared strings, styles and core properties, each of which a test may replace, damage or leave
// out.

#include "ZipBuilder.h"

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace kv::test {

/// A cell element: `type` is its "t" ("" for a number), `value` the text of its "v".
inline std::string XCell(const std::string& ref, const std::string& value, const std::string& type = "",
                         int style = -1) {
    std::string c = "<c";
    if (!ref.empty()) c += " r=\"" + ref + "\"";
    if (style >= 0) c += " s=\"" + std::to_string(style) + "\"";
    if (!type.empty()) c += " t=\"" + type + "\"";
    return c + "><v>" + value + "</v></c>";
}

/// A row element numbered `number` (1-based; 0 writes none) around `cells`.
inline std::string XRow(int number, const std::string& cells) {
    return (number > 0 ? "<row r=\"" + std::to_string(number) + "\">" : std::string("<row>")) + cells +
           "</row>";
}

class XlsxBuilder {
public:
    static constexpr const char* kMain = "http://schemas.openxmlformats.org/spreadsheetml/2006/main";
    static constexpr const char* kRel = "http://schemas.openxmlformats.org/officeDocument/2006/relationships";

    /// A worksheet whose sheetData holds `rows`; `state` is "", "hidden" or "veryHidden".
    XlsxBuilder& Sheet(const std::string& name, const std::string& rows, const std::string& state = "") {
        sheets_.push_back({name, rows, state});
        return *this;
    }
    XlsxBuilder& Strings(std::vector<std::string> items) {
        strings_ = std::move(items);
        return *this;
    }
    /// Custom formats and the format number of each cell style.
    XlsxBuilder& Styles(std::vector<std::pair<int, std::string>> formats, std::vector<int> cellStyles) {
        formats_ = std::move(formats);
        cellStyles_ = std::move(cellStyles);
        return *this;
    }
    XlsxBuilder& Date1904() {
        date1904_ = true;
        return *this;
    }
    XlsxBuilder& Title(std::string title) {
        title_ = std::move(title);
        return *this;
    }
    /// A part that replaces the one built under that name, or is added.
    XlsxBuilder& Part(const std::string& name, std::string data) {
        parts_[name] = std::move(data);
        return *this;
    }
    /// Stores every part as it is, not deflated.
    XlsxBuilder& Stored() {
        method_ = 0;
        return *this;
    }
    /// Leaves a part out.
    XlsxBuilder& Without(const std::string& name) {
        parts_[name] = kLeftOut;
        return *this;
    }

    std::string Build() const {
        std::map<std::string, std::string> parts;
        const std::string head = "<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"yes\"?>\n";
        parts["[Content_Types].xml"] =
            head + "<Types xmlns=\"http://schemas.openxmlformats.org/package/2006/content-types\">"
                   "<Override PartName=\"/xl/workbook.xml\" ContentType=\"application/"
                   "vnd.openxmlformats-officedocument.spreadsheetml.sheet.main+xml\"/></Types>";
        parts["_rels/.rels"] =
            head + "<Relationships xmlns=\"http://schemas.openxmlformats.org/package/2006/relationships\">" +
            Relation("rId1", "officeDocument", "xl/workbook.xml") +
            "<Relationship Id=\"rId2\" Type=\"http://schemas.openxmlformats.org/package/2006/relationships/"
            "metadata/core-properties\" Target=\"docProps/core.xml\"/></Relationships>";
        parts["docProps/core.xml"] =
            head +
            "<cp:coreProperties xmlns:cp=\"http://schemas.openxmlformats.org/package/2006/metadata/"
            "core-properties\" xmlns:dc=\"http://purl.org/dc/elements/1.1/\"><dc:title>" +
            title_ + "</dc:title><dc:creator>Tester</dc:creator></cp:coreProperties>";
        std::string workbook = head + "<workbook xmlns=\"" + kMain + "\" xmlns:r=\"" + kRel + "\">";
        if (date1904_) workbook += "<workbookPr date1904=\"1\"/>";
        workbook += "<sheets>";
        std::string rels = head + "<Relationships xmlns=\"http://schemas.openxmlformats.org/package/2006/"
                                  "relationships\">";
        for (size_t i = 0; i < sheets_.size(); ++i) {
            const std::string n = std::to_string(i + 1);
            workbook += "<sheet name=\"" + sheets_[i].Name + "\" sheetId=\"" + n + "\" r:id=\"rId" + n +
                        "\"" + (sheets_[i].State.empty() ? "" : " state=\"" + sheets_[i].State + "\"") + "/>";
            rels += Relation("rId" + n, "worksheet", "worksheets/sheet" + n + ".xml");
            parts["xl/worksheets/sheet" + n + ".xml"] = head + "<worksheet xmlns=\"" + kMain +
                                                        "\"><sheetData>" + sheets_[i].Rows +
                                                        "</sheetData></worksheet>";
        }
        workbook += "</sheets></workbook>";
        rels += Relation("rIdS", "sharedStrings", "sharedStrings.xml") +
                Relation("rIdY", "styles", "/xl/styles.xml") + "</Relationships>";
        parts["xl/workbook.xml"] = workbook;
        parts["xl/_rels/workbook.xml.rels"] = rels;
        std::string sst = head + "<sst xmlns=\"" + kMain + "\">";
        for (const std::string& s : strings_) sst += "<si><t xml:space=\"preserve\">" + s + "</t></si>";
        parts["xl/sharedStrings.xml"] = sst + "</sst>";
        std::string styles = head + "<styleSheet xmlns=\"" + kMain + "\"><numFmts>";
        for (const auto& [number, code] : formats_)
            styles += "<numFmt numFmtId=\"" + std::to_string(number) + "\" formatCode=\"" + code + "\"/>";
        styles += "</numFmts><cellXfs>";
        for (const int format : cellStyles_) styles += "<xf numFmtId=\"" + std::to_string(format) + "\"/>";
        parts["xl/styles.xml"] = styles + "</cellXfs></styleSheet>";
        for (const auto& [name, data] : parts_) parts[name] = data;
        ZipBuilder zip;
        for (const auto& [name, data] : parts)
            if (data != kLeftOut) zip.Add(name, data, method_);
        return zip.Build();
    }

private:
    static constexpr const char* kLeftOut = "\x01left out";

    static std::string Relation(const std::string& id, const std::string& type, const std::string& target) {
        return "<Relationship Id=\"" + id + "\" Type=\"" + kRel + "/" + type + "\" Target=\"" + target +
               "\"/>";
    }

    struct TSheet {
        std::string Name, Rows, State;
    };
    std::vector<TSheet> sheets_;
    std::vector<std::string> strings_;
    std::vector<std::pair<int, std::string>> formats_;
    std::vector<int> cellStyles_ = {0};
    bool date1904_ = false;
    std::string title_;
    uint16_t method_ = 8;
    std::map<std::string, std::string> parts_;
};

} // namespace kv::test
