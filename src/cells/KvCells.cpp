#include "cells/KvCells.h"

#include "engine/Impcnst.h"
#include "platform/DateUtils.h"
#include "platform/Exceptions.h"
#include "platform/SysUtils.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace kv {

// ---- TSpreadSheetCols, TSpreadSheetRow ----

const TKvICell* TSpreadSheetCols::GetCell(int index) const {
    if (index < 0 || index >= Count() || !cells_[static_cast<size_t>(index)]) return nullptr;
    return &*cells_[static_cast<size_t>(index)];
}

TKvICell* TSpreadSheetCols::GetCell(int index) {
    return const_cast<TKvICell*>(std::as_const(*this).GetCell(index));
}

TKvICell& TSpreadSheetCols::Cell(int index) {
    if (index >= Count()) cells_.resize(static_cast<size_t>(index) + 1);
    std::optional<TKvICell>& slot = cells_[static_cast<size_t>(index)];
    if (!slot) slot.emplace();
    return *slot;
}

void TSpreadSheetRow::ClearValues() {
    for (int i = 0; i < cols_.Count(); ++i) {
        if (TKvICell* cell = cols_.GetCell(i)) {
            cell->Value = Variant::Null();
            cell->Alignment = taLeftJustify;
            cell->FormatIndex = -1;
        }
    }
}

// ---- TSpreadSheetCells ----

void TSpreadSheetCells::Announce(int lastCol, int lastRow) {
    lastCol_ = lastCol;
    lastRow_ = lastRow;
    if (!autoDimensions_) {
        colCount_ = lastCol;
        rowCount_ = lastRow;
    }
}

TSpreadSheetRow* TSpreadSheetCells::Row(int index) {
    return index < 0 || index >= Count() ? nullptr : &rows_[static_cast<size_t>(index)];
}

const TSpreadSheetRow* TSpreadSheetCells::Row(int index) const {
    return index < 0 || index >= Count() ? nullptr : &rows_[static_cast<size_t>(index)];
}

TSpreadSheetRow& TSpreadSheetCells::AddRow(int index) {
    while (Count() <= index) rows_.emplace_back(Count());
    return rows_[static_cast<size_t>(index)];
}

void TSpreadSheetCells::RemoveRow(int index) {
    if (index >= 0 && index < Count()) rows_.erase(rows_.begin() + index);
}

void TSpreadSheetCells::Clear() {
    rows_.clear();
    colCount_ = rowCount_ = lastCol_ = lastRow_ = 0;
}

Variant TSpreadSheetCells::GetValue(int col, int row) const {
    const TSpreadSheetRow* r = Row(row);
    const TKvICell* cell = r ? r->Cols().GetCell(col) : nullptr;
    return cell ? cell->Value : Variant::Null();
}

void TSpreadSheetCells::SetValue(int col, int row, const Variant& value, TAlignment alignment,
                                 int32_t formatIndex, TKvICellType cellType) {
    if (value.IsNullOrEmpty() || col < 0 || row < 0) return;
    TKvICell& cell = AddRow(row).Cols().Cell(col);
    cell.Value = value;
    cell.Alignment = alignment;
    cell.FormatIndex = formatIndex;
    cell.CellType = cellType;
    CountValue(col, row, value);
}

void TSpreadSheetCells::CountValue(int col, int row, const Variant& value) {
    if (!autoDimensions_ || value.IsNullOrEmpty() || col < 0 || row < 0) return;
    colCount_ = std::max(colCount_, col + 1);
    rowCount_ = std::max(rowCount_, row + 1);
}

Variant TSpreadSheetCells::ValueByCell(std::string_view ref) const {
    int col = -1, row = -1;
    ParseCellReference(ref, col, row);
    return GetValue(col, row);
}

Variant TSpreadSheetCells::ValueByRange(std::string_view ref) const {
    const size_t colon = ref.find(':');
    if (colon == std::string_view::npos) return Variant::Null();
    int firstCol = -1, firstRow = -1, lastCol = -1, lastRow = -1;
    ParseCellReference(ref.substr(0, colon), firstCol, firstRow);
    ParseCellReference(ref.substr(colon + 1), lastCol, lastRow);
    if (firstRow < 0 || firstCol < 0 || firstRow > lastRow || firstCol > lastCol) return Variant::Null();
    lastRow = std::min(lastRow, rowCount_);
    lastCol = std::min(lastCol, colCount_);
    std::vector<Variant> rows;
    for (int r = firstRow; r <= lastRow; ++r) {
        const TSpreadSheetRow* row = Row(r);
        if (!row) {
            rows.emplace_back(); // a missing row leaves its element empty
            continue;
        }
        if (firstCol == lastCol) {
            rows.push_back(GetValue(firstCol, r));
            continue;
        }
        std::vector<Variant> cols;
        for (int c = firstCol; c <= lastCol; ++c) cols.push_back(GetValue(c, r));
        rows.push_back(Variant::FromArray(std::move(cols)));
    }
    return Variant::FromArray(std::move(rows));
}

void TSpreadSheetCells::SortByColumn(int col, bool descending) {
    std::stable_sort(rows_.begin(), rows_.end(),
                     [col, descending](const TSpreadSheetRow& a, const TSpreadSheetRow& b) {
                         const TKvICell* ca = a.Cols().GetCell(col);
                         const TKvICell* cb = b.Cols().GetCell(col);
                         int order;
                         if (!ca || !cb) {
                             order = (ca ? 1 : 0) - (cb ? 1 : 0);
                         } else {
                             switch (ca->Value.Compare(cb->Value)) {
                             case vrLessThan:
                                 order = -1;
                                 break;
                             case vrGreaterThan:
                                 order = 1;
                                 break;
                             default:
                                 order = 0;
                                 break;
                             }
                         }
                         return descending ? order > 0 : order < 0;
                     });
}

void TSpreadSheetCells::ClearSort() {
    std::stable_sort(rows_.begin(), rows_.end(), [](const TSpreadSheetRow& a, const TSpreadSheetRow& b) {
        return a.LoadPosition() < b.LoadPosition();
    });
}

// ---- TSpreadSheet, TSpreadSheets ----

void TSpreadSheet::SetColumnWidth(int column, int width) {
    if (column < 0) return;
    if (static_cast<size_t>(column) >= widths_.size()) widths_.resize(static_cast<size_t>(column) + 1, 0);
    widths_[static_cast<size_t>(column)] = width;
}

std::string TSpreadSheet::PlainText() const {
    std::string text;
    for (int r = 0; r <= cells_.RowCount(); ++r) {
        for (int c = 0; c <= cells_.ColCount(); ++c) {
            const Variant value = cells_.GetValue(c, r);
            text += '\t';
            if (value.VarType() == varBoolean)
                text += value.AsBoolean() ? "True" : "False";
            else if (!value.IsNullOrEmpty())
                text += value.AsString();
        }
        text += "\r\n";
    }
    return text;
}

int TSpreadSheets::Add() {
    sheets_.push_back(std::make_unique<TSpreadSheet>());
    sheets_.back()->SetName(strSheetName + std::to_string(sheets_.size()));
    return Count() - 1;
}

TSpreadSheet& TSpreadSheets::Spreadsheet(int index) {
    index = std::max(index, 0);
    while (Count() <= index) Add(); // deliberately never nothing: callers address sheets before they exist
    return *sheets_[static_cast<size_t>(index)];
}

TSpreadSheet* TSpreadSheets::SheetByName(std::string_view name) {
    const int index = SheetIndexByName(name);
    return index < 0 ? nullptr : sheets_[static_cast<size_t>(index)].get();
}

int TSpreadSheets::SheetIndexByName(std::string_view name) const {
    for (size_t i = 0; i < sheets_.size(); ++i)
        if (sheets_[i]->Name() == name) return static_cast<int>(i);
    return -1;
}

void TSpreadSheets::Remove(int index) {
    if (index >= 0 && index < Count()) sheets_.erase(sheets_.begin() + index);
}

// ---- TCustomSpreadSheetFile, TSpreadSheetFile ----

TCustomSpreadSheetFile::TCustomSpreadSheetFile(TComponent* owner) : TComponent(owner) {}

TSpreadSheetFile::TSpreadSheetFile(TComponent* owner) : TCustomSpreadSheetFile(owner) {}

void TSpreadSheetFile::ApplyEvents() {
    sheets_.Clear();
    if (!OnDimensions) {
        OnDimensions = [this](TObject*, int sheetNo, int, int lastRow, int, int lastColumn) {
            // Only the column is cut to the load range: the row count stays as announced.
            sheets_.Spreadsheet(sheetNo).Cells().Announce(std::min(lastColumn, LoadRange().LastCol), lastRow);
        };
    }
    if (!OnCellValue) {
        OnCellValue = [this](TObject*, int sheetNo, int row, int column, int32_t formatIndex,
                             const Variant& value, TAlignment alignment, TKvICellType cellType) {
            // The lower bounds are the import source's to apply.
            if (column > LoadRange().LastCol || row > LoadRange().LastRow) return;
            sheets_.Spreadsheet(sheetNo).Cells().SetValue(column, row, value, alignment, formatIndex,
                                                          cellType);
        };
    }
    if (!OnGetCellValue) {
        OnGetCellValue = [this](TObject*, int sheetNo, int row, int column, Variant& value) {
            value = sheetNo < sheets_.Count() ? sheets_.Spreadsheet(sheetNo).Cells().GetValue(column, row)
                                              : Variant::Null();
        };
    }
    if (!OnSheet) {
        OnSheet = [this](TObject*, const std::string& caption, int index, bool& skip) {
            if (SheetFilter() >= 0) skip = SheetFilter() != index;
            // Skipped sheets are added too, so that sheet numbers stay the file's.
            sheets_.Spreadsheet(sheets_.Add()).SetName(caption);
        };
    }
    if (!OnColumnWidth) {
        OnColumnWidth = [this](TObject*, int sheetNo, int columnNo, int width) {
            sheets_.Spreadsheet(sheetNo).SetColumnWidth(columnNo, width);
        };
    }
}

void TSpreadSheetFile::ReadBLOBValue(int64_t, int64_t, std::string& text) {
    text.clear();
}

void TSpreadSheetFile::LoadFromFile(const std::string& fileName) {
    if (checkFileName_) {
        if (Trim(fileName).empty()) throw Exception(strFileNotDefined);
        if (!FileExists(fileName)) throw Exception(strEFileNotExist);
    }
    SetFileName(fileName);
    ApplyEvents();
}

void TSpreadSheetFile::LoadFromStream(TStream&) {
    ApplyEvents();
}

bool TSpreadSheetFile::LoadRecord(int index) {
    currentRecord_ = index;
    return true;
}

void TSpreadSheetFile::SetRowStatus(int sheetNo, int row, TKvIRowStatus status) {
    if (sheetNo < 0 || sheetNo >= sheets_.Count()) return;
    if (TSpreadSheetRow* r = sheets_.Spreadsheet(sheetNo).Cells().Row(row)) r->SetStatus(status);
}

void TSpreadSheetFile::UpdateProgress(int64_t position, int64_t totalSize) {
    if (ProgressCallback) ProgressCallback(position, totalSize);
    if (OnLoadProgress) OnLoadProgress(this, position, totalSize);
}

// ---- helpers ----

int GetSpreadSheetColID(std::string_view name, int maxCol) {
    const std::string upper = UpperCase(name);
    for (char c : upper)
        if (c < 'A' || c > 'Z') return -1;
    if (upper.empty()) return maxCol >= 1 ? 0 : -1;
    // Exact for one and two letters; from the third letter on the weight grows with the position
    // (AAA is 1404, not 702). Stored specifications name columns by this rule, so it stays.
    int64_t value = upper[0] - 'A' + 1;
    for (size_t k = 2; k <= upper.size(); ++k) {
        value = (upper[k - 1] - 'A' + 1) + static_cast<int64_t>(k - 1) * 26 * value;
        if (value > maxCol) return -1;
    }
    if (value > maxCol) return -1;
    return static_cast<int>(value - 1);
}

std::string GetSpreadSheetColByID(int number) {
    std::string name;
    while (number > 0) {
        --number;
        name.insert(name.begin(), static_cast<char>('A' + number % 26));
        number /= 26;
    }
    return name;
}

void ParseCellReference(std::string_view ref, int& col, int& row) {
    size_t letters = 0;
    while (letters < ref.size() && std::isalpha(static_cast<unsigned char>(ref[letters]))) ++letters;
    col = GetSpreadSheetColID(ref.substr(0, letters), 512);
    const std::string_view digits = ref.substr(letters);
    row = -1;
    if (digits.empty() || digits.size() > 9) return;
    int value = 0;
    for (char c : digits) {
        if (c < '0' || c > '9') return;
        value = value * 10 + (c - '0');
    }
    row = value; // as it stands: A1 is row index 1, unlike the letters, which count from 0
}

TDateTime Julian2DMY(int64_t julianDay) {
    // Fliegel and Van Flandern.
    int64_t l = julianDay + 68569;
    const int64_t n = 4 * l / 146097;
    l = l - (146097 * n + 3) / 4;
    const int64_t i = 4000 * (l + 1) / 1461001;
    l = l - 1461 * i / 4 + 31;
    const int64_t j = 80 * l / 2447;
    const int64_t day = l - 2447 * j / 80;
    l = j / 11;
    const int64_t month = j + 2 - 12 * l;
    const int64_t year = 100 * (n - 49) + i + l;
    TDateTime result = 0;
    if (year < 1 || year > 9999 ||
        !TryEncodeDate(static_cast<int>(year), static_cast<int>(month), static_cast<int>(day), result))
        throw EConvertError("Invalid Julian day " + std::to_string(julianDay));
    return result;
}

double DMY2Julian(TDateTime dateTime) {
    int y = 0, m = 0, d = 0;
    DecodeDate(dateTime, y, m, d);
    const int64_t a = (m - 14) / 12;
    const int64_t whole =
        (1461 * (y + 4800 + a)) / 4 + (367 * (m - 2 - 12 * a)) / 12 - (3 * ((y + 4900 + a) / 100)) / 4 + d;
    return static_cast<double>(whole) - 32075.5 + (dateTime - std::floor(dateTime));
}

double BCDToCurr(std::string_view bytes, int scale) {
    std::string digits;
    bool negative = false;
    for (size_t i = 0; i < bytes.size(); ++i) {
        const auto b = static_cast<unsigned char>(bytes[i]);
        const int high = b >> 4, low = b & 15;
        digits += static_cast<char>('0' + std::min(high, 9));
        if (i + 1 == bytes.size()) {
            negative = low == 0x0D || low == 0x0B;
        } else {
            digits += static_cast<char>('0' + std::min(low, 9));
        }
    }
    double value = 0;
    for (char c : digits) value = value * 10 + (c - '0');
    value /= std::pow(10.0, scale);
    return negative ? -value : value;
}

double KvBCDToCurr(std::string_view bytes, int scale) {
    if (bytes.size() < 17) return 0;
    const auto sign = static_cast<unsigned char>(bytes[0]);
    const bool negative = sign >= 64 && sign <= 127;
    std::string text = "+" + std::string(static_cast<size_t>(std::max(scale, 0)), '0');
    for (size_t i = 1; i < 17; ++i) {
        auto b = static_cast<unsigned char>(bytes[i]);
        if (negative) b = static_cast<unsigned char>(~b);
        text += static_cast<char>('0' + std::min(b >> 4, 9));
        text += static_cast<char>('0' + std::min(b & 15, 9));
    }
    const int64_t point = static_cast<int64_t>(scale) + 2 - (sign & 63);
    if (point >= 0 && static_cast<size_t>(point) < text.size())
        text.insert(static_cast<size_t>(point) + 1, "."); // counted in digits, after the sign
    double value = 0;
    TFormatSettings fs = DefaultFormatSettings;
    fs.DecimalSeparator = '.';
    TryStrToFloat(text, value, fs);
    return negative ? -value : value;
}

bool IsNan(double value) {
    uint64_t bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    return ((bits >> 52) & 0x7FF) == 0x7FF && (bits & ((uint64_t{1} << 52) - 1)) != 0;
}

} // namespace kv
