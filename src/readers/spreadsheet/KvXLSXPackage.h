#pragma once
// The package side of Excel 2007+ workbooks: a zip archive of parts joined by relationships. This knows how
// parts are named and found (relationships resolved against their source part, content types as the
// fallback for the main part), the document properties and the helpers every part reader here shares. It
// knows nothing of cells, so that the XML and the binary form of the workbook both build on it.

#include "readers/archive/KvZipReader.h"
#include "readers/markup/KvXMLScan.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace kv {

class TKvISummaryInformation;

/// One relationship of a part, its target resolved to a part name.
struct TXLSXRelationship {
    std::string Id;
    /// The last segment of the type ("worksheet", "sharedStrings", "officeDocument"): the transitional
    /// and the strict namespaces differ only before it.
    std::string Type;
    std::string Target;
    bool External = false;
};

/// A sheet as the workbook part lists it, in tab order.
struct TXLSXSheetEntry {
    std::string Name;
    std::string Part;       ///< "" when its relationship is missing
    std::string Kind;       ///< the relationship's type: "worksheet", "chartsheet", "dialogsheet", ...
    uint8_t Visibility = 0; ///< 0 visible, 1 hidden, 2 very hidden
};

/// What a workbook part says besides its cells.
struct TXLSXWorkbookInfo {
    std::vector<TXLSXSheetEntry> Sheets;
    bool Date1904 = false;
    std::string SharedStringsPart; ///< "" when it has none
    std::string StylesPart;
    std::string VBAProjectPart; ///< the macro project (a compound file), "" when it has none
};

/// The local part of a qualified XML name ("x:row" -> "row").
inline std::string_view KvXMLLocalName(std::string_view name) {
    const size_t colon = name.rfind(':');
    return colon == std::string_view::npos ? name : name.substr(colon + 1);
}

/// The value of the attribute whose local name is `name` in a start tag's text, entities decoded; "" when
/// there is none.
std::string KvXMLAttribute(std::string_view attributes, std::string_view name);

/// `target` of a relationship read from `sourcePart`'s relationships, as a part name: relative to the
/// source part's folder, "/" from the package root, "." and ".." resolved, "\\" read as "/".
std::string KvResolvePartName(std::string_view sourcePart, std::string_view target);
/// Where the relationships of `part` are ("xl/workbook.xml" -> "xl/_rels/workbook.xml.rels"; "" -> the
/// package's "_rels/.rels").
std::string KvRelationshipsPartName(std::string_view part);

/// A workbook package in a stream that outlives it.
class TKvXLSXPackage {
public:
    /// The format named in errors.
    static constexpr const char* kFormat = "Excel workbook";

    /// Reads the zip directory; a stream that is no zip archive fails with the reader's "not valid" text.
    explicit TKvXLSXPackage(TStream& stream);
    ~TKvXLSXPackage();
    TKvXLSXPackage(const TKvXLSXPackage&) = delete;
    TKvXLSXPackage& operator=(const TKvXLSXPackage&) = delete;

    /// The part of that name (case and "\\" as the zip reader allows), nullptr when missing.
    const TKvZipEntry* FindPart(std::string_view name) const;
    /// A stream over the part that inflates as it is read; a missing part fails naming it.
    std::unique_ptr<TStream> OpenPart(const std::string& name) const;
    /// The relationships of `part` ("" for the package's own); none when it has no relationships part.
    std::vector<TXLSXRelationship> Relationships(const std::string& part) const;
    /// The main part (the workbook): the package's officeDocument relationship, else the content type
    /// override of a workbook, else "xl/workbook.xml".
    std::string MainPart() const;
    /// The core and extended properties, by the package's relationships; what cannot be read is said in
    /// the returned text ("" when nothing failed).
    std::string ReadProperties(TKvISummaryInformation& summary) const;

    /// An exception whose text names the part: "xl/worksheets/sheet1.xml: <what>".
    static Exception PartError(std::string_view part, std::string_view what);

private:
    std::unique_ptr<TKvZipReader> zip_;
};

/// The sheets, the date system and the shared parts of the workbook part `part`.
TXLSXWorkbookInfo KvReadXLSXWorkbook(const TKvXLSXPackage& package, const std::string& part);

/// Reads the XML of a part token by token: a decoder and a scanner in the records dialect over a stream
/// it keeps.
class TKvXLSXPartScanner {
public:
    explicit TKvXLSXPartScanner(std::unique_ptr<TStream> part);
    TKvXLSXPartScanner(const TKvXLSXPartScanner&) = delete;
    TKvXLSXPartScanner& operator=(const TKvXLSXPartScanner&) = delete;
    TKvXMLScanner& Scanner() { return scanner_; }

private:
    std::unique_ptr<TStream> part_;
    TKvXMLDecoder decoder_;
    TKvXMLScanner scanner_{xdRecords};
};

} // namespace kv
