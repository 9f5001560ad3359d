#include "readers/spreadsheet/KvXLSXPackage.h"

#include "platform/SysUtils.h"
#include "readers/spreadsheet/KvI_Sum.h"
#include "readers/spreadsheet/KvXLS.h"

#include <algorithm>

namespace kv {

namespace {

/// The last segment of a relationship type.
std::string_view TypeSegment(std::string_view type) {
    const size_t slash = type.rfind('/');
    return slash == std::string_view::npos ? type : type.substr(slash + 1);
}

/// Reads the text of each element directly under the document element: `element` gets its local name
/// and its text, entities decoded. Text is cut at `maxText` bytes.
template <class F> void ForEachChildText(TKvXMLScanner& scanner, F&& element) {
    constexpr size_t kMaxText = size_t(1) << 16;
    std::string name, text;
    bool inChild = false;
    while (scanner.Next()) {
        switch (scanner.Kind()) {
        case xtkStartTag:
            if (scanner.Depth() == 2) {
                name = KvXMLLocalName(scanner.Name());
                text.clear();
                inChild = true;
            }
            break;
        case xtkText:
        case xtkCData:
            if (inChild && scanner.Depth() == 2 && text.size() < kMaxText) text += scanner.Text();
            break;
        case xtkEndTag:
            if (inChild && scanner.Depth() == 1) {
                inChild = false;
                DecodeXMLEntities(text);
                element(name, text);
            }
            break;
        default:
            break;
        }
    }
}

} // namespace

std::string KvXMLAttribute(std::string_view attributes, std::string_view name) {
    std::string out;
    bool found = false;
    ForEachAttribute(attributes, [&](std::string_view n, std::string_view value) {
        if (found || KvXMLLocalName(n) != name) return;
        found = true;
        out.assign(value);
    });
    if (out.find('&') != std::string::npos) DecodeXMLEntities(out);
    return out;
}

std::string KvResolvePartName(std::string_view sourcePart, std::string_view target) {
    std::string path(target);
    std::replace(path.begin(), path.end(), '\\', '/');
    if (!path.empty() && path[0] == '/') {
        path.erase(0, 1);
    } else {
        const size_t slash = sourcePart.rfind('/');
        if (slash != std::string_view::npos) path = std::string(sourcePart.substr(0, slash + 1)) + path;
    }
    std::vector<std::string> segments;
    size_t start = 0;
    while (start <= path.size()) {
        size_t end = path.find('/', start);
        if (end == std::string::npos) end = path.size();
        const std::string segment = path.substr(start, end - start);
        if (segment == "..") {
            if (!segments.empty()) segments.pop_back();
        } else if (!segment.empty() && segment != ".") {
            segments.push_back(segment);
        }
        start = end + 1;
    }
    std::string out;
    for (const std::string& s : segments) out += (out.empty() ? "" : "/") + s;
    return out;
}

std::string KvRelationshipsPartName(std::string_view part) {
    const size_t slash = part.rfind('/');
    const std::string_view folder = slash == std::string_view::npos ? "" : part.substr(0, slash + 1);
    const std::string_view name = slash == std::string_view::npos ? part : part.substr(slash + 1);
    return std::string(folder) + "_rels/" + std::string(name) + ".rels";
}

// ---- TKvXLSXPartScanner ----

TKvXLSXPartScanner::TKvXLSXPartScanner(std::unique_ptr<TStream> part) : part_(std::move(part)) {
    decoder_.Open(*part_);
    scanner_.Open(decoder_);
}

// ---- TKvXLSXPackage ----

TKvXLSXPackage::TKvXLSXPackage(TStream& stream) {
    if (!TKvZipReader::IsZipFile(stream)) throw Exception(strXLSNotValidWorkbook + ": it is no zip package");
    zip_ = std::make_unique<TKvZipReader>(stream);
}

TKvXLSXPackage::~TKvXLSXPackage() = default;

Exception TKvXLSXPackage::PartError(std::string_view part, std::string_view what) {
    return Exception(std::string(kFormat) + ": part " + std::string(part) + ": " + std::string(what));
}

const TKvZipEntry* TKvXLSXPackage::FindPart(std::string_view name) const {
    return name.empty() ? nullptr : zip_->Find(name);
}

std::unique_ptr<TStream> TKvXLSXPackage::OpenPart(const std::string& name) const {
    const TKvZipEntry* entry = FindPart(name);
    if (!entry) throw PartError(name.empty() ? "(none)" : name, "the package has no such part");
    try {
        return zip_->OpenMember(*entry);
    } catch (const Exception& e) {
        throw PartError(name, e.what());
    }
}

std::vector<TXLSXRelationship> TKvXLSXPackage::Relationships(const std::string& part) const {
    std::vector<TXLSXRelationship> out;
    const std::string relsName = KvRelationshipsPartName(part);
    if (!FindPart(relsName)) return out;
    // A part of relationships lists a few dozen, each a short name: bounds keep a hostile one from growing
    // without end.
    constexpr size_t kMaxRelationships = 100000, kMaxText = 4096;
    TKvXLSXPartScanner xml(OpenPart(relsName));
    TKvXMLScanner& scanner = xml.Scanner();
    try {
        while (scanner.Next() && out.size() < kMaxRelationships) {
            if (scanner.Kind() != xtkStartTag || KvXMLLocalName(scanner.Name()) != "Relationship") continue;
            TXLSXRelationship r;
            r.Id = KvXMLAttribute(scanner.Attributes(), "Id");
            r.Type = std::string(TypeSegment(KvXMLAttribute(scanner.Attributes(), "Type")));
            r.External = SameText(KvXMLAttribute(scanner.Attributes(), "TargetMode"), "External");
            const std::string target = KvXMLAttribute(scanner.Attributes(), "Target");
            if (r.Id.size() > kMaxText || r.Type.size() > kMaxText || target.size() > kMaxText) continue;
            r.Target = r.External ? target : KvResolvePartName(part, target);
            out.push_back(std::move(r));
        }
    } catch (const Exception& e) {
        throw PartError(relsName, e.what());
    }
    return out;
}

std::string TKvXLSXPackage::MainPart() const {
    for (const TXLSXRelationship& r : Relationships(""))
        if (r.Type == "officeDocument" && !r.External && FindPart(r.Target)) return r.Target;
    if (FindPart("[Content_Types].xml")) {
        TKvXLSXPartScanner xml(OpenPart("[Content_Types].xml"));
        TKvXMLScanner& scanner = xml.Scanner();
        while (scanner.Next()) {
            if (scanner.Kind() != xtkStartTag || KvXMLLocalName(scanner.Name()) != "Override") continue;
            const std::string type = LowerCase(KvXMLAttribute(scanner.Attributes(), "ContentType"));
            const bool workbook =
                (type.find("spreadsheetml.") != std::string::npos ||
                 type.find("ms-excel.") != std::string::npos) &&
                (type.find("sheet.") != std::string::npos || type.find("template.") != std::string::npos) &&
                type.find(".main") != std::string::npos;
            if (!workbook) continue;
            const std::string part = KvResolvePartName("", KvXMLAttribute(scanner.Attributes(), "PartName"));
            if (FindPart(part)) return part;
        }
    }
    return "xl/workbook.xml";
}

std::string TKvXLSXPackage::ReadProperties(TKvISummaryInformation& summary) const {
    // The core properties' elements are named by their own namespaces; the summary takes them under the
    // prefixes the packages written by Excel use.
    static const std::pair<const char*, const char*> kCore[] = {
        {"title", "dc:title"},
        {"subject", "dc:subject"},
        {"creator", "dc:creator"},
        {"description", "dc:description"},
        {"keywords", "cp:keywords"},
        {"lastModifiedBy", "cp:lastModifiedBy"},
        {"revision", "cp:revision"},
        {"created", "dcterms:created"},
        {"modified", "dcterms:modified"},
    };
    std::string problems;
    for (const TXLSXRelationship& r : Relationships("")) {
        const bool core = r.Type == "core-properties";
        if ((!core && r.Type != "extended-properties") || r.External || !FindPart(r.Target)) continue;
        try {
            TKvXLSXPartScanner xml(OpenPart(r.Target));
            ForEachChildText(xml.Scanner(), [&](const std::string& name, const std::string& text) {
                if (!core) {
                    summary.ParseXMLPair(name, text);
                    return;
                }
                for (const auto& [local, prefixed] : kCore)
                    if (name == local) summary.ParseXMLPair(prefixed, text);
            });
        } catch (const Exception& e) {
            problems += (problems.empty() ? "" : "; ") + std::string(e.what());
        }
    }
    return problems;
}

TXLSXWorkbookInfo KvReadXLSXWorkbook(const TKvXLSXPackage& package, const std::string& part) {
    TXLSXWorkbookInfo info;
    const std::vector<TXLSXRelationship> relationships = package.Relationships(part);
    for (const TXLSXRelationship& r : relationships) {
        if (r.External) continue;
        if (r.Type == "sharedStrings" && info.SharedStringsPart.empty()) info.SharedStringsPart = r.Target;
        if (r.Type == "styles" && info.StylesPart.empty()) info.StylesPart = r.Target;
        if (r.Type == "vbaProject" && info.VBAProjectPart.empty()) info.VBAProjectPart = r.Target;
    }
    // A workbook has at most a few thousand sheets; the bound keeps a hostile one from costing more.
    constexpr size_t kMaxSheets = 65536, kMaxName = 1024;
    TKvXLSXPartScanner xml(package.OpenPart(part));
    TKvXMLScanner& scanner = xml.Scanner();
    bool root = true;
    try {
        while (scanner.Next()) {
            if (scanner.Kind() != xtkStartTag) continue;
            const std::string_view name = KvXMLLocalName(scanner.Name());
            if (root) {
                if (name != "workbook")
                    throw Exception("it is not a workbook part (its first element is not "
                                    "a workbook)");
                root = false;
                continue;
            }
            if (name == "workbookPr" && scanner.Depth() == 2) { // not an extension's of the same name
                const std::string flag = KvXMLAttribute(scanner.Attributes(), "date1904");
                info.Date1904 = flag == "1" || SameText(flag, "true");
            } else if (name == "sheet" && info.Sheets.size() < kMaxSheets) {
                TXLSXSheetEntry sheet;
                sheet.Name = KvXMLAttribute(scanner.Attributes(), "name");
                // Excel's names have at most 31 characters; a longer one is cut to a size a name can have.
                if (sheet.Name.size() > kMaxName) {
                    size_t end = kMaxName;
                    while (end > 0 && (static_cast<uint8_t>(sheet.Name[end]) & 0xC0) == 0x80) --end;
                    sheet.Name.resize(end);
                }
                const std::string state = KvXMLAttribute(scanner.Attributes(), "state");
                sheet.Visibility = state == "hidden" ? 1 : state == "veryHidden" ? 2 : 0;
                const std::string id = KvXMLAttribute(scanner.Attributes(), "id");
                for (const TXLSXRelationship& r : relationships) {
                    if (r.Id != id || id.empty() || r.External) continue;
                    sheet.Part = r.Target;
                    sheet.Kind = r.Type;
                    break;
                }
                info.Sheets.push_back(std::move(sheet));
            }
        }
    } catch (const Exception& e) {
        throw TKvXLSXPackage::PartError(part, e.what());
    }
    if (root) throw TKvXLSXPackage::PartError(part, "it is not XML (no workbook element)");
    return info;
}

} // namespace kv
