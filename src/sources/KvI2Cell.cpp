#include "sources/KvI2Cell.h"

#include "engine/Impcnst.h"
#include "platform/FormatError.h"
#include "platform/StringList.h"
#include "platform/SysUtils.h"

#include <algorithm>
#include <cmath>
#include <filesystem>

namespace kv {

TKvIDataType KvICellType2KvIDataType(TKvICellType cellType) {
    switch (cellType) {
    case ictInteger:
        return itInteger;
    case ictDecimal:
        return itFloat;
    case ictDateTime:
        return itDateTime;
    case ictBoolean:
        return itBoolean;
    case ictMemo:
        return itMEMO;
    default:
        return itString;
    }
}

TKvImportFromCell::TKvImportFromCell(TComponent* owner) : TKvImportBaseComponent(owner) {}

TKvImportFromCell::~TKvImportFromCell() {
    workBook_.reset(); // before the stream it reads
    stream_.reset();
    keptWorkBook_.reset();
    keptStream_.reset();
}

std::string TKvImportFromCell::WorkBookKey() const {
    const std::optional<std::string> settings = WorkBookSettings();
    if (!settings || SourceStream() || SourceFileName().empty()) return {};
    std::error_code error;
    const auto size = std::filesystem::file_size(SourceFileName(), error);
    if (error) return {};
    const auto written = std::filesystem::last_write_time(SourceFileName(), error);
    if (error) return {};
    return SourceFileName() + '\n' + std::to_string(size) + '\n' +
           std::to_string(written.time_since_epoch().count()) + '\n' + std::to_string(sheetIndex_) + '\n' +
           sheetName_ + '\n' + std::to_string(loadRowStatutes_.Bits()) + '\n' + *settings;
}

void TKvImportFromCell::SetSheetIndex(int v) {
    sheetIndex_ = v;
    if (v != -1) sheetName_.clear();
}

void TKvImportFromCell::SetSheetName(const std::string& v) {
    sheetName_ = v;
    if (!v.empty()) sheetIndex_ = -1;
}

bool TKvImportFromCell::NotDefined(std::string& propName) {
    if (TKvImportBaseComponent::NotDefined(propName)) return true;
    if (!SourceFileName().empty() || SourceStream()) return false;
    propName = "SourceFileName";
    return true;
}

void TKvImportFromCell::BeforeImport() {
    TKvImportBaseComponent::BeforeImport();
    workBook_.reset();
    stream_.reset();
    const bool kept = keptWorkBook_ && !keptKey_.empty() && keptKey_ == WorkBookKey();
    if (kept) {
        workBook_ = std::move(keptWorkBook_);
        stream_ = std::move(keptStream_);
    }
    keptWorkBook_.reset();
    keptStream_.reset();
    keptKey_.clear();
    if (!kept) workBook_ = WorkBookCreation();
    if (!workBook_) throw Exception(ClassName() + " has no reader");
    workBook_->SetSheetFilter(sheetIndex_);
    workBook_->SetLoadRowStatutes(loadRowStatutes_);
    rowBuffer_ = TSpreadSheetRow();
    ended_ = false;
    row_ = 0;
    current_ = nullptr;
    resolved_.clear();
    fieldNames_.clear();

    if (workBook_->RecordMode()) {
        workBook_->OnCellValue = [this](TObject*, int, int row, int column, int32_t formatIndex,
                                        const Variant& value, TAlignment alignment, TKvICellType cellType) {
            const TKvRange& range = workBook_->LoadRange();
            if (column < 0 || row < range.FirstRow - 1 || row > range.LastRow) return;
            TKvICell& cell = rowBuffer_.Cols().Cell(column);
            cell.Value = value;
            cell.Alignment = alignment;
            cell.FormatIndex = formatIndex;
            cell.CellType = cellType;
        };
    }
    try {
        if (kept) {
            // loaded by DescribeColumns from the same file, sheet and settings
        } else if (TStream* stream = SourceStream()) {
            workBook_->LoadFromStream(*stream);
        } else if (workBook_->RecordMode()) {
            // The reader reads from the stream record by record for the whole run: the source keeps it open.
            if (Trim(SourceFileName()).empty()) throw Exception(strFileNotDefined);
            if (!FileExists(SourceFileName())) throw Exception(strEFileNotExist);
            workBook_->SetFileName(SourceFileName());
            stream_ = std::make_unique<TFileStream>(SourceFileName(), fmOpenRead | fmShareDenyNone);
            workBook_->LoadFromStream(*stream_);
        } else {
            workBook_->LoadFromFile(SourceFileName());
        }
    } catch (const EKvFormatError& e) {
        // The reader names the format and the byte; the user also needs to know which file.
        if (SourceFileName().empty()) throw;
        throw EKvFormatError(e.Kind(), SourceFileName() + ": " + e.Format(), e.Offset(), e.Detail());
    }
    if (!sheetName_.empty() && sheetIndex_ < 0) {
        sheetIndex_ = workBook_->SpreadSheets().SheetIndexByName(sheetName_);
        workBook_->SetSheetFilter(sheetIndex_);
    }
    // A record reader that names columns by letters reads a sheet too: its rows are read ahead.
    if (guessNames_ && (!workBook_->RecordMode() || workBook_->NameKind() == nkAlphabet)) GuessNamesRow();
    for (const std::string& warning : workBook_->Warnings()) AddWarning({0, warning, true});
    byFieldName_ = workBook_->NameKind() == nkFieldName;
    if (ByFieldName())
        for (const TKvIDeclaredField& field : workBook_->DeclaredFields()) fieldNames_.push_back(field.Name);
}

void TKvImportFromCell::GuessNamesRow() {
    // Row 1 names the columns when it is all text and a row below holds a value of another type under one
    // of its names. A sheet of text alone gives no sign either way: its first row stays data, so that no
    // row is lost to a guess.
    constexpr int kRowsBelow = 100;
    const TSpreadSheet* sheet = Sheet();
    const TSpreadSheetCells* cells = sheet ? &sheet->Cells() : nullptr;
    TSpreadSheetCells ahead;
    if (cells && workBook_->RecordMode()) {
        ReadAhead(0, kRowsBelow + 1, ahead);
        cells = &ahead;
    }
    const TSpreadSheetRow* first = cells && cells->Count() >= 2 ? cells->Row(0) : nullptr;
    const auto filled = [](const TKvICell* cell) { return cell && !cell->Value.IsNullOrEmpty(); };
    bool allText = first != nullptr, any = false, typedBelow = false;
    for (int col = 0; first && col < first->Cols().Count(); ++col) {
        const TKvICell* cell = first->Cols().GetCell(col);
        if (!filled(cell)) continue;
        any = true;
        allText = allText && cell->CellType == ictString;
        for (int row = 1; allText && !typedBelow && row < cells->Count() && row <= kRowsBelow; ++row) {
            const TSpreadSheetRow* r = cells->Row(row);
            const TKvICell* below = r ? r->Cols().GetCell(col) : nullptr;
            typedBelow = filled(below) && below->CellType != ictString;
        }
    }
    const bool names = allText && any && typedBelow;
    SetRowFieldNames(names ? 1 : 0);
    if (names && RowFirst() <= 1) SetRowFirst(2);
}

void TKvImportFromCell::ReadAhead(int first, int end, TSpreadSheetCells& rows) {
    workBook_->BeforeLoad();
    const int total = GetTotalCount();
    for (int record = 0; record < end && record < total; ++record) {
        rowBuffer_.ClearValues();
        const bool loaded = workBook_->LoadRecord(record);
        if (record < first) continue;
        rows.AddRow(record - first);
        for (int col = 0; loaded && col < rowBuffer_.Cols().Count(); ++col)
            if (const TKvICell* cell = rowBuffer_.Cols().GetCell(col))
                rows.SetValue(col, record - first, cell->Value, cell->Alignment, cell->FormatIndex,
                              cell->CellType);
    }
}

void TKvImportFromCell::AfterImport() {
    if (workBook_ && !ended_) workBook_->AfterLoad();
    if (Describing() && workBook_ && workBook_->RecordMode()) keptKey_ = WorkBookKey();
    if (!keptKey_.empty()) {
        keptWorkBook_ = std::move(workBook_);
        keptStream_ = std::move(stream_);
    }
    workBook_.reset();
    stream_.reset();
    current_ = nullptr;
    TKvImportBaseComponent::AfterImport();
}

void TKvImportFromCell::Inspect(const std::function<void(TSpreadSheetFile& reader)>& inspect) {
    BeforeImport();
    try {
        inspect(*workBook_);
    } catch (...) {
        AfterImport();
        throw;
    }
    AfterImport();
}

void TKvImportFromCell::GoFirst() {
    row_ = std::max(RowFirst(), 1) - 1;
    if (!workBook_ || !workBook_->RecordMode()) return;
    // A record reader reads the file in order: the records before the first row are read and dropped,
    // so that RowFirst skips records rather than renumbering them.
    workBook_->BeforeLoad();
    for (int record = 0; record < row_ && (record < GetTotalCount() || workBook_->HasRecord(record));
         ++record) {
        rowBuffer_.ClearValues();
        workBook_->LoadRecord(record);
    }
}

TSpreadSheet* TKvImportFromCell::Sheet() const {
    if (!workBook_ || sheetIndex_ < 0 || sheetIndex_ >= workBook_->SpreadSheets().Count()) return nullptr;
    return &workBook_->SpreadSheets().Spreadsheet(sheetIndex_);
}

bool TKvImportFromCell::NeedMore() {
    if (!workBook_ || ended_) return false;
    bool more = row_ < RowLast();
    if (more && workBook_->RecordMode()) {
        more = GetTotalCount() > row_ || workBook_->HasRecord(row_);
    } else if (more) {
        const TSpreadSheet* sheet = Sheet();
        more = sheet && row_ < sheet->Cells().RowCount() && row_ < sheet->Cells().Count();
    }
    if (!more) {
        workBook_->AfterLoad();
        ended_ = true;
    }
    return more;
}

bool TKvImportFromCell::ReadCurrentRow() {
    if (workBook_ && workBook_->RecordMode()) {
        rowBuffer_.ClearValues();
        current_ = nullptr;
        if (!workBook_->LoadRecord(row_)) return false;
        current_ = &rowBuffer_;
    } else {
        const TSpreadSheet* sheet = Sheet();
        current_ = sheet ? sheet->Cells().Row(row_) : nullptr;
    }
    return true;
}

bool TKvImportFromCell::LoadRecord() {
    return ReadCurrentRow() && TKvImportBaseComponent::LoadRecord();
}

void TKvImportFromCell::ReadRows(int64_t count,
                                 const std::function<void(const std::vector<Variant>& values)>& row,
                                 const std::function<void(TSpreadSheetFile& reader)>& opened) {
    BeforeImport();
    try {
        if (opened) opened(*workBook_);
        Columns().Clear();
        DetectAutoMapping();
        std::vector<Variant> values(static_cast<size_t>(Columns().Count()));
        GoFirst();
        for (int64_t done = 0; done < count && NeedMore(); GoNext()) {
            if (!ReadCurrentRow()) continue;
            for (size_t i = 0; i < values.size(); ++i) {
                const TKvICell* cell = CurrentCell(static_cast<int>(i));
                values[i] = cell ? cell->Value : Variant::Null();
            }
            row(values);
            ++done;
        }
    } catch (...) {
        AfterImport();
        throw;
    }
    AfterImport();
}

int TKvImportFromCell::GetTotalCount() {
    if (!workBook_) return TKvImportBaseComponent::GetTotalCount();
    if (workBook_->RecordMode() && workBook_->RecordCount() >= 0)
        return static_cast<int>(std::min<int64_t>(workBook_->RecordCount(), INT32_MAX));
    const TSpreadSheet* sheet = Sheet();
    return sheet ? std::max(sheet->Cells().RowCount(), sheet->Cells().Count()) : 0;
}

double TKvImportFromCell::ReadFraction() {
    const int total = GetTotalCount();
    return total > 0 ? std::min(1.0, static_cast<double>(row_) / total) : -1;
}

TKvISourceLocation TKvImportFromCell::SourceLocation() {
    TKvISourceLocation location;
    location.Record = row_ + 1;
    if (!ByFieldName())
        if (const TSpreadSheet* sheet = Sheet()) location.Sheet = sheet->Name();
    return location;
}

int TKvImportFromCell::ColumnOf(const std::string& name) const {
    if (ByFieldName()) {
        for (size_t i = 0; i < fieldNames_.size(); ++i)
            if (SameText(fieldNames_[i], name)) return static_cast<int>(i);
        // Field<n> names the n-th field, for a field whose name an earlier one also has.
        int number = 0;
        if (name.size() > strField.size() &&
            SameText(std::string_view(name).substr(0, strField.size()), strField) &&
            TryStrToInt(std::string_view(name).substr(strField.size()), number) && number >= 1 &&
            static_cast<size_t>(number) <= fieldNames_.size())
            return number - 1;
        return -1;
    }
    const TSpreadSheet* sheet = Sheet();
    return GetSpreadSheetColID(name, sheet ? sheet->Cells().ColCount() : 0);
}

const TKvICell* TKvImportFromCell::CurrentCell(int column) const {
    return current_ ? current_->Cols().GetCell(column) : nullptr;
}

Variant TKvImportFromCell::GetFieldValue(const Variant& value) {
    const Variant name = TKvImportBaseComponent::GetFieldValue(value);
    const int column = ColumnOf(name.AsString());
    // A name that is no column is deliberately the value itself: a mapping can carry a constant.
    if (column < 0) return name;
    const TKvICell* cell = CurrentCell(column);
    return cell ? cell->Value : Variant::Null();
}

int TKvImportFromCell::ResolveSourceColumn(const std::string& name) {
    const int column = ColumnOf(name);
    resolved_.push_back({column, column < 0 ? Variant(name) : Variant::Null()});
    return static_cast<int>(resolved_.size()) - 1;
}

bool TKvImportFromCell::ReadSourceColumn(int handle, Variant& value) {
    const TResolved& resolved = resolved_[static_cast<size_t>(handle)];
    if (resolved.Column < 0) {
        value = resolved.Constant;
    } else if (const TKvICell* cell = CurrentCell(resolved.Column)) {
        value = cell->Value;
    } else {
        value.SetNull();
    }
    return false;
}

bool TKvImportFromCell::HasSourceColumn(const std::string& name) {
    return ColumnOf(name) >= 0;
}

std::string TKvImportFromCell::GetColumnFieldName(int index) const {
    // Sheets are addressed by column letters whatever their captions say.
    if (ByFieldName() && index >= 0 && index < Columns().Count()) {
        const std::string& name = Columns().Columns(index).FieldName;
        for (int i = 0; i < index; ++i)
            if (SameText(Columns().Columns(i).FieldName, name)) return strField + IntToStr(index + 1);
    }
    // A name brackets cannot hold (a calendar's CN="acme") is read as Field<n>.
    if (ByFieldName() || index < 0) return ColumnReference(index, ByFieldName());
    return GetSpreadSheetColByID(index + 1);
}

void TKvImportFromCell::DetectAutoMapping() {
    if (!workBook_) return;
    if (ByFieldName()) {
        for (const TKvIDeclaredField& field : workBook_->DeclaredFields()) {
            TKvIColumn& c = Columns().Add();
            c.FieldName = field.Name;
            c.Caption = field.Name;
            // A declared date is a date: only cells of a date alone are deliberately read as text.
            c.DataType = field.CellType == ictDate   ? itDate
                         : field.CellType == ictTime ? itTime
                                                     : KvICellType2KvIDataType(field.CellType);
            c.Size = field.Size;
            c.Precision = field.Decimals;
            c.Alignment = c.DataType == itInteger || c.DataType == itFloat ? taRightJustify : taLeftJustify;
        }
        return;
    }
    if (!Sheet()) return;
    const int captionRow = RowFieldNames() - 1;
    const int firstData = std::max(RowFirst() - 1, captionRow + 1);
    const int scanned = MaxScanRows() > 0 ? MaxScanRows() : 100;
    // A record reader keeps no rows: the caption row and the scanned rows are read ahead, to index 0
    // (before the sheet is looked at: going back to the first row, a reader may load it anew).
    const bool ahead = workBook_->RecordMode();
    TSpreadSheetCells captionRows, scanRows;
    if (ahead) {
        if (captionRow >= 0) ReadAhead(captionRow, captionRow + 1, captionRows);
        ReadAhead(firstData, firstData + scanned, scanRows);
    }
    const TSpreadSheetCells& cells = Sheet()->Cells();
    const TSpreadSheetCells& captions = ahead ? captionRows : cells;
    const TSpreadSheetCells& scan = ahead ? scanRows : cells;
    const int captionAt = ahead ? 0 : captionRow;
    const int scanFirst = ahead ? 0 : firstData;
    for (int col = 0; col < cells.ColCount(); ++col) {
        TKvIColumn& c = Columns().Add();
        const std::string letters = GetSpreadSheetColByID(col + 1);
        std::string caption =
            captionRow >= 0 ? Trim(captions.GetValue(col, captionAt).AsString()) : std::string();
        c.FieldName = caption.empty() ? letters : caption;
        c.Caption = c.FieldName;
        c.DataType = ScanColumnType(scan, col, scanFirst, scanFirst + scanned, c.Alignment);
    }
}

TKvIDataType TKvImportFromCell::ScanColumnType(const TSpreadSheetCells& cells, int col, int firstRow,
                                               int endRow, TAlignment& alignment) {
    // The type every value below the captions fits: each cell carries the type its file gave it. Whole
    // numbers make an integer column and whole days a date column; a mixture is text.
    bool any = false, whole = true, wholeDays = true;
    TKvICellType type = ictUnknown;
    for (int row = firstRow; row < cells.Count() && row < endRow; ++row) {
        const TSpreadSheetRow* r = cells.Row(row);
        const TKvICell* cell = r ? r->Cols().GetCell(col) : nullptr;
        if (!cell || cell->Value.IsNullOrEmpty()) continue;
        if (!any) alignment = cell->Alignment;
        TKvICellType t = cell->CellType;
        if (t == ictInteger) t = ictDecimal;
        if (any && t != type) return itString;
        any = true;
        type = t;
        if (t == ictDecimal || t == ictDateTime) {
            const double v = cell->Value.AsDouble();
            const bool isWhole = v == std::floor(v) && std::fabs(v) < 9.0e15;
            whole = whole && isWhole;
            wholeDays = wholeDays && isWhole;
        }
    }
    if (!any) return itString;
    if (type == ictDecimal) return whole ? itInteger : itFloat;
    if (type == ictDateTime) return wholeDays ? itDate : itDateTime;
    return KvICellType2KvIDataType(type);
}

void TKvImportFromCell::LoadSpecificationFromStrings(const TStringList& list) {
    TKvImportBaseComponent::LoadSpecificationFromStrings(list);
    const std::string index = list.Values("SheetIndex");
    int value = 0;
    if (!index.empty() && TryStrToInt(index, value)) SetSheetIndex(value);
    const std::string name = list.Values("SheetName");
    if (!name.empty()) SetSheetName(name);
}

void TKvImportFromCell::SaveSpecificationToStream(TStream& stream, const std::string& description) {
    TKvImportBaseComponent::SaveSpecificationToStream(stream, description);
    TStringList l;
    l.Add("[Sheet]");
    l.Add("SheetIndex=" + IntToStr(sheetIndex_));
    l.Add("SheetName=" + sheetName_);
    l.SaveToStream(stream);
}

} // namespace kv
