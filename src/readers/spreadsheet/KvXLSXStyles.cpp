#include "readers/spreadsheet/KvXLSXStyles.h"

#include "platform/SysUtils.h"
#include "readers/spreadsheet/KvXLSXPackage.h"

namespace kv {

namespace {

int NumberOr0(const std::string& text) {
    int value = 0;
    return TryStrToInt(text, value) ? value : 0;
}

TAlignment AlignmentOf(const std::string& horizontal) {
    if (horizontal == "center" || horizontal == "centerContinuous") return taCenter;
    if (horizontal == "right") return taRightJustify;
    return taLeftJustify;
}

} // namespace

TXLSXStyles KvReadXLSXStyles(std::unique_ptr<TStream> part) {
    // Excel keeps at most 64000 cell styles and 250 custom formats; the bounds leave room beyond both.
    constexpr size_t kMaxStyles = 1 << 20, kMaxFormats = 1 << 16, kMaxFormatBytes = 1024;
    TXLSXStyles styles;
    TKvXLSXPartScanner xml(std::move(part));
    TKvXMLScanner& scanner = xml.Scanner();
    int64_t cellXfsDepth = -1; // the depth inside "cellXfs", -1 outside it
    int64_t xfDepth = -1;      // inside one of its "xf" elements
    while (scanner.Next()) {
        if (scanner.Kind() == xtkEndTag) {
            if (xfDepth >= 0 && scanner.Depth() < xfDepth) xfDepth = -1;
            if (cellXfsDepth >= 0 && scanner.Depth() < cellXfsDepth) cellXfsDepth = -1;
            continue;
        }
        if (scanner.Kind() != xtkStartTag) continue;
        const std::string_view name = KvXMLLocalName(scanner.Name());
        if (name == "numFmt" && styles.Formats.size() < kMaxFormats) {
            // Excel writes at most 255 characters; what is longer is no format anyone wrote.
            std::string code = KvXMLAttribute(scanner.Attributes(), "formatCode");
            if (code.size() > kMaxFormatBytes) code.resize(kMaxFormatBytes);
            styles.Formats.emplace_back(NumberOr0(KvXMLAttribute(scanner.Attributes(), "numFmtId")),
                                        std::move(code));
        } else if (name == "cellXfs") {
            cellXfsDepth = scanner.Depth();
        } else if (name == "xf" && cellXfsDepth >= 0 && scanner.Depth() == cellXfsDepth + 1 &&
                   styles.CellStyles.size() < kMaxStyles) {
            styles.CellStyles.push_back(
                {NumberOr0(KvXMLAttribute(scanner.Attributes(), "numFmtId")), taLeftJustify});
            xfDepth = scanner.Depth();
        } else if (name == "alignment" && xfDepth >= 0 && scanner.Depth() == xfDepth + 1) {
            styles.CellStyles.back().Alignment =
                AlignmentOf(KvXMLAttribute(scanner.Attributes(), "horizontal"));
        }
    }
    return styles;
}

} // namespace kv
