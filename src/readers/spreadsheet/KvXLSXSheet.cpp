#include "readers/spreadsheet/KvXLSXSheet.h"

#include "readers/spreadsheet/KvXLSXStrings.h"

#include <algorithm>

namespace kv {

namespace {

bool Blank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

/// A positive decimal number of at most 9 digits, else -1.
int SmallNumber(std::string_view digits) {
    if (digits.empty() || digits.size() > 9) return -1;
    int value = 0;
    for (const char c : digits) {
        if (c < '0' || c > '9') return -1;
        value = value * 10 + (c - '0');
    }
    return value;
}

/// Calls `pair` with each attribute's local name and raw value; faster than the general parser for the
/// few short attributes of rows and cells.
template <class F> void ForEachCellAttribute(std::string_view text, F&& pair) {
    ForEachAttribute(
        text, [&](std::string_view name, std::string_view value) { pair(KvXMLLocalName(name), value); });
}

} // namespace

void KvParseXLSXReference(std::string_view ref, int& column, int& row) {
    size_t i = 0;
    int col = 0;
    while (i < ref.size() && i < 4) {
        char c = ref[i];
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
        if (c < 'A' || c > 'Z') break;
        col = col * 26 + (c - 'A' + 1);
        ++i;
    }
    if (i < ref.size() && ref[i] == '$') ++i; // "$A$1" as a defined name writes it
    const int number = SmallNumber(ref.substr(i));
    column = i == 0 ? -1 : std::min(col - 1, TKvXLSXSheetReader::kMaxColumns);
    row = number < 1 || number > TKvXLSXSheetReader::kMaxRows ? -1 : number - 1;
}

TKvXLSXSheetReader::TKvXLSXSheetReader(std::unique_ptr<TStream> part, std::string partName)
    : xml_(std::move(part)), partName_(std::move(partName)) {}

std::string TKvXLSXSheetReader::ReadDimension() {
    TKvXMLScanner& scanner = xml_.Scanner();
    while (sheetDataDepth_ < 0 && !ended_ && scanner.Next()) {
        if (scanner.Kind() != xtkStartTag) continue;
        const std::string_view name = KvXMLLocalName(scanner.Name());
        if (name == "dimension") dimension_ = KvXMLAttribute(scanner.Attributes(), "ref");
        if (name == "sheetData") sheetDataDepth_ = scanner.Depth();
    }
    return dimension_;
}

void TKvXLSXSheetReader::StartRow(std::string_view attributes, TXLSXRow& row) {
    int number = -1;
    ForEachCellAttribute(attributes, [&](std::string_view name, std::string_view value) {
        if (name == "r") number = SmallNumber(value);
    });
    // A row numbered wrongly (0, or no number) follows the one before it.
    int index = number >= 1 ? number - 1 : lastRow_ + 1;
    if (index >= kMaxRows) index = kMaxRows;
    row.Index = index;
    row.Count = 0;
    rowText_ = 0;
    rowKept_ = index < kMaxRows;
    lastRow_ = index;
    lastColumn_ = -1;
}

void TKvXLSXSheetReader::StartCell(std::string_view attributes, TXLSXRow& row) {
    int column = -2, style = 0;
    TXLSXValueKind kind = xvNumber;
    ForEachCellAttribute(attributes, [&](std::string_view name, std::string_view value) {
        if (name == "r") {
            int refRow = 0;
            KvParseXLSXReference(value, column, refRow);
        } else if (name == "s") {
            style = SmallNumber(value);
        } else if (name == "t") {
            if (value == "s")
                kind = xvSharedString;
            else if (value == "inlineStr")
                kind = xvInlineString;
            else if (value == "str")
                kind = xvFormulaString;
            else if (value == "b")
                kind = xvBoolean;
            else if (value == "e")
                kind = xvError;
            else if (value == "d")
                kind = xvDate;
        }
    });
    if (column < 0) column = lastColumn_ + 1;
    lastColumn_ = std::min(column, kMaxColumns);
    cellKept_ = rowKept_ && column < kMaxColumns && row.Count < kMaxRowCells;
    if (!cellKept_) {
        ++leftOut_;
        return;
    }
    if (row.Count == row.Cells.size()) row.Cells.emplace_back();
    TXLSXCell& cell = row.Cells[row.Count++];
    cell.Column = column;
    cell.Style = style;
    cell.Kind = kind;
    cell.HasValue = false;
    cell.Text.clear();
    cellCut_ = false;
}

void TKvXLSXSheetReader::AddText(std::string_view text, TXLSXRow& row) {
    TXLSXCell& cell = row.Cells[row.Count - 1];
    cell.HasValue = true;
    // Each cell's text and the row's together are bounded: a row is held whole until it is handed out.
    const size_t room = std::min(kMaxCellText - std::min(kMaxCellText, cell.Text.size()),
                                 kMaxRowText - std::min(kMaxRowText, rowText_));
    if (text.size() > room) {
        if (!cellCut_) ++textsCut_;
        cellCut_ = true;
        text = text.substr(0, room);
    }
    cell.Text += text;
    rowText_ += text.size();
}

void TKvXLSXSheetReader::EndCell(TXLSXRow& row) {
    if (!cellKept_) return;
    TXLSXCell& cell = row.Cells[row.Count - 1];
    if (cell.Kind != xvNumber && cell.Kind != xvSharedString && cell.Kind != xvBoolean)
        KvDecodeXLSXText(cell.Text);
    else
        while (!cell.Text.empty() && Blank(cell.Text.back())) cell.Text.pop_back();
}

bool TKvXLSXSheetReader::NextRow(TXLSXRow& row) {
    TKvXMLScanner& scanner = xml_.Scanner();
    while (!ended_ && scanner.Next()) {
        switch (scanner.Kind()) {
        case xtkStartTag: {
            const std::string_view name = KvXMLLocalName(scanner.Name());
            const int64_t depth = scanner.Depth();
            if (!rooted_) {
                if (name != "worksheet" && name != "dialogsheet" && name != "macrosheet" &&
                    name != "chartsheet")
                    throw TKvXLSXPackage::PartError(partName_,
                                                    "it is not a worksheet (its first element is " +
                                                        std::string(name.substr(0, 64)) + ")");
                rooted_ = true;
            } else if (sheetDataDepth_ < 0) {
                if (name == "sheetData") sheetDataDepth_ = depth;
                if (name == "dimension") dimension_ = KvXMLAttribute(scanner.Attributes(), "ref");
            } else if (rowDepth_ < 0) {
                if (name == "row" && depth == sheetDataDepth_ + 1) {
                    rowDepth_ = depth;
                    StartRow(scanner.Attributes(), row);
                }
            } else if (cellDepth_ < 0) {
                if (name == "c" && depth == rowDepth_ + 1) {
                    cellDepth_ = depth;
                    StartCell(scanner.Attributes(), row);
                }
            } else if (!cellKept_) {
                break;
            } else if (depth == cellDepth_ + 1) {
                if (name == "v") valueDepth_ = depth;
                if (name == "is") inlineDepth_ = depth;
            } else if (inlineDepth_ >= 0) {
                if (name == "rPh" && phoneticDepth_ < 0) phoneticDepth_ = depth;
                if (name == "t" && phoneticDepth_ < 0 && textDepth_ < 0) textDepth_ = depth;
            }
            break;
        }
        case xtkText:
        case xtkCData: {
            if (!cellKept_ || cellDepth_ < 0) break;
            const int64_t depth = scanner.Depth();
            TXLSXCell& cell = row.Cells[row.Count - 1];
            // An inline string's text is its "is"; the "v" some writers add beside it is ignored.
            const bool inlineText = cell.Kind == xvInlineString;
            if ((!inlineText && depth == valueDepth_) || (inlineText && depth == textDepth_))
                AddText(scanner.Text(), row);
            break;
        }
        case xtkEndTag: {
            const int64_t depth = scanner.Depth();
            if (textDepth_ > depth) textDepth_ = -1;
            if (phoneticDepth_ > depth) phoneticDepth_ = -1;
            if (inlineDepth_ > depth) {
                inlineDepth_ = -1;
                if (cellKept_) row.Cells[row.Count - 1].HasValue = true;
            }
            if (valueDepth_ > depth) valueDepth_ = -1;
            if (cellDepth_ > depth) {
                cellDepth_ = -1;
                EndCell(row);
                cellKept_ = false;
            }
            if (rowDepth_ > depth) {
                rowDepth_ = -1;
                if (row.Count > 0) return true;
            }
            if (sheetDataDepth_ > depth) ended_ = true;
            break;
        }
        default:
            break;
        }
    }
    if (!ended_ && sheetDataDepth_ >= 0) endedEarly_ = true;
    ended_ = true;
    if (rowDepth_ >= 0) {
        // The part ends inside a row: what it gave is kept.
        rowDepth_ = cellDepth_ = -1;
        if (cellKept_) EndCell(row);
        cellKept_ = false;
        return row.Count > 0;
    }
    if (!rooted_) throw TKvXLSXPackage::PartError(partName_, "it is not XML (no worksheet element)");
    return false;
}

} // namespace kv
