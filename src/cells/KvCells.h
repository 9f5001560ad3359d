#pragma once
// The cell model every file reader loads into (sheets of rows of typed cells), and TSpreadSheetFile, the
// base of those readers. A reader reports what it parses through events; whatever event the application
// leaves unhandled is stored in the workbook, so one reader serves both a stream of cells and a loaded
// workbook. A reader knows its format and nothing of the import engine.

#include "datasets/DataSet.h"
#include "platform/Classes.h"
#include "platform/DateUtils.h"
#include "platform/Set.h"
#include "platform/Streams.h"
#include "platform/Variant.h"

#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kv {

enum TKvICellType : uint8_t {
    ictUnknown,
    ictEmpty,
    ictString,
    ictInteger,
    ictDecimal,
    ictDateTime,
    ictBoolean,
    ictMemo,
    ictDate,
    ictTime
};

enum TKvIRowStatus : uint8_t { rsNormal, rsDeleted, rsError };
using TKvIRowStatuses = TSet<TKvIRowStatus>;

/// How the cell source names a reader's columns: by letters (A, B, ..., AA) or by the file's field names.
enum TKvIColumnNameKind : uint8_t { nkAlphabet, nkFieldName };

/// One cell: its value and what the file says of it.
struct TKvICell {
    Variant Value;
    TAlignment Alignment = taLeftJustify;
    int32_t FormatIndex = 0;
    TKvICellType CellType = ictUnknown;

    void Assign(const TKvICell& source) { *this = source; }
};

/// A row's cells by column from 0; a column never stored is an empty slot.
class TSpreadSheetCols {
public:
    int Count() const { return static_cast<int>(cells_.size()); }
    /// The cell at `index`, nullptr for an empty slot or an index outside 0..Count-1.
    const TKvICell* GetCell(int index) const;
    TKvICell* GetCell(int index);
    /// Grows the list up to `index` and assigns `cell` there.
    void SetCell(int index, const TKvICell& cell) { Cell(index) = cell; }
    /// The cell at `index`, created (and the list grown) when missing; `index` must be 0 or more.
    TKvICell& Cell(int index);
    void Clear() { cells_.clear(); }

private:
    std::vector<std::optional<TKvICell>> cells_;
};

class TSpreadSheetRow {
public:
    explicit TSpreadSheetRow(int32_t loadPosition = 0) : loadPosition_(loadPosition) {}

    /// Where the row stood when it was loaded: ClearSort restores this order.
    int32_t LoadPosition() const { return loadPosition_; }
    TKvIRowStatus Status() const { return status_; }
    void SetStatus(TKvIRowStatus status) { status_ = status; }
    TSpreadSheetCols& Cols() { return cols_; }
    const TSpreadSheetCols& Cols() const { return cols_; }
    /// Keeps the cells, empties their values: null, left-aligned, format index -1, type as it was.
    void ClearValues();

private:
    int32_t loadPosition_;
    TKvIRowStatus status_ = rsNormal;
    TSpreadSheetCols cols_;
};

/// A sheet's rows from 0 (never with holes) and its dimensions.
class TSpreadSheetCells {
public:
    int Count() const { return static_cast<int>(rows_.size()); }
    /// Columns and rows seen in the data (past the highest index stored), or, with AutoDimensions off,
    /// those announced.
    int ColCount() const { return colCount_; }
    int RowCount() const { return rowCount_; }
    int LastCol() const { return lastCol_; }
    int LastRow() const { return lastRow_; }
    bool AutoDimensions() const { return autoDimensions_; }
    void SetAutoDimensions(bool v) { autoDimensions_ = v; }
    /// The dimensions event's figures; with AutoDimensions off they become the counts.
    void Announce(int lastCol, int lastRow);

    /// The row at `index`, nullptr outside 0..Count-1.
    TSpreadSheetRow* Row(int index);
    const TSpreadSheetRow* Row(int index) const;
    /// Appends empty rows until `index` exists; returns it.
    TSpreadSheetRow& AddRow(int index);
    void RemoveRow(int index);
    void Clear();

    /// Null when the row or the cell is missing.
    Variant GetValue(int col, int row) const;
    /// Stores a cell; a null or unassigned value stores nothing at all.
    void SetValue(int col, int row, const Variant& value, TAlignment alignment, int32_t formatIndex,
                  TKvICellType cellType);
    /// Grows the dimensions as SetValue would, storing nothing: the size of a sheet whose rows a reader
    /// delivers one at a time later.
    void CountValue(int col, int row, const Variant& value);
    /// The value at a reference such as "C12" (column C, row index 12).
    Variant ValueByCell(std::string_view ref) const;
    /// "A1:C5" as an array by row of arrays by column (a bare value per row for one column); null
    /// without ":".
    Variant ValueByRange(std::string_view ref) const;
    /// Rows ordered by the values in column `col`; a row without that cell comes first.
    void SortByColumn(int col, bool descending);
    /// Back to the load order.
    void ClearSort();

private:
    std::vector<TSpreadSheetRow> rows_;
    int colCount_ = 0;
    int rowCount_ = 0;
    int lastCol_ = 0;
    int lastRow_ = 0;
    bool autoDimensions_ = true;
};

class TSpreadSheet {
public:
    TSpreadSheetCells& Cells() { return cells_; }
    const TSpreadSheetCells& Cells() const { return cells_; }
    const std::string& Name() const { return name_; }
    void SetName(std::string name) { name_ = std::move(name); }
    /// Widths by column, 0 where none was read.
    const std::vector<int>& ColumnWidths() const { return widths_; }
    void SetColumnWidth(int column, int width);
    /// Tab before each value, CR LF after each row, for rows and columns 0 up to and including the counts.
    std::string PlainText() const;

private:
    TSpreadSheetCells cells_;
    std::string name_;
    std::vector<int> widths_;
};

/// The workbook: sheets made on demand.
class TSpreadSheets {
public:
    int Count() const { return static_cast<int>(sheets_.size()); }
    /// Adds a sheet named "Sheet<n>"; returns its index.
    int Add();
    /// The sheet at `index` (0 for a negative one), creating sheets until it exists.
    TSpreadSheet& Spreadsheet(int index);
    /// Exact, case-sensitive names.
    TSpreadSheet* SheetByName(std::string_view name);
    int SheetIndexByName(std::string_view name) const;
    void Remove(int index);
    void Clear() { sheets_.clear(); }

private:
    std::vector<std::unique_ptr<TSpreadSheet>> sheets_;
};

/// Rows and columns to load, 1-based.
struct TKvRange {
    int32_t FirstRow = 1;
    int32_t LastRow = INT32_MAX;
    int32_t FirstCol = 1;
    int32_t LastCol = INT32_MAX;

    void Assign(const TKvRange& source) { *this = source; }
};

/// A field a record-structured file declares, as readers that name columns by field name describe it.
struct TKvIDeclaredField {
    std::string Name;
    /// What the declaration says the values are (a number without decimals: ictInteger).
    TKvICellType CellType = ictString;
    int Size = 0;
    int Decimals = 0;
    /// The file's own name of the type ("Number", "Date").
    std::string TypeName;
};

class TCustomSpreadSheetFile : public TComponent {
public:
    using TColumnWidthEvent = std::function<void(TObject* sender, int sheetNo, int columnNo, int width)>;
    using TRowHeightEvent = std::function<void(TObject* sender, int sheetNo, int rowNo, int height)>;
    using TDimensionsEvent = std::function<void(TObject* sender, int sheetNo, int firstRow, int lastRow,
                                                int firstColumn, int lastColumn)>;
    using TCellValueEvent =
        std::function<void(TObject* sender, int sheetNo, int row, int column, int32_t formatIndex,
                           const Variant& value, TAlignment alignment, TKvICellType cellType)>;
    using TGetCellValueEvent =
        std::function<void(TObject* sender, int sheetNo, int row, int column, Variant& value)>;
    using TSheetEvent =
        std::function<void(TObject* sender, const std::string& caption, int index, bool& skip)>;
    using TRecordEvent = std::function<void(TObject* sender, std::string_view header, std::string_view data)>;
    using TErrorProcessEvent = std::function<void(TObject* sender, const std::exception& error, bool& abort)>;

    explicit TCustomSpreadSheetFile(TComponent* owner = nullptr);

    const std::string& FileName() const { return fileName_; }
    void SetFileName(std::string v) { fileName_ = std::move(v); }
    /// Whether readers report empty database values as null cells.
    bool LoadNULLs() const { return loadNULLs_; }
    void SetLoadNULLs(bool v) { loadNULLs_ = v; }
    /// The only sheet to load; -1 (the default) loads every sheet.
    int SheetFilter() const { return sheetFilter_; }
    void SetSheetFilter(int v) { sheetFilter_ = v; }
    const TKvRange& LoadRange() const { return loadRange_; }
    void SetLoadRange(const TKvRange& range) { loadRange_.Assign(range); }
    /// A reader that can deliver one record at a time sets this in its constructor; a caller that wants
    /// the whole file loaded at once clears it before loading.
    bool RecordMode() const { return recordMode_; }
    void SetRecordMode(bool v) { recordMode_ = v; }

    TColumnWidthEvent OnColumnWidth;
    TRowHeightEvent OnRowHeight;
    TDimensionsEvent OnDimensions;
    TCellValueEvent OnCellValue;
    TGetCellValueEvent OnGetCellValue;
    TSheetEvent OnSheet;
    TRecordEvent OnRecord;
    TErrorProcessEvent OnErrorProcess;

    std::string ClassName() const override { return "TCustomSpreadSheetFile"; }

private:
    std::string fileName_;
    bool loadNULLs_ = false;
    int sheetFilter_ = -1;
    TKvRange loadRange_;
    bool recordMode_ = false;
};

class TSpreadSheetFile : public TCustomSpreadSheetFile {
public:
    using TLoadProgressEvent = std::function<void(TObject* sender, int64_t position, int64_t totalSize)>;

    explicit TSpreadSheetFile(TComponent* owner = nullptr);

    TKvIColumnNameKind NameKind() const { return nameKind_; }
    void SetNameKind(TKvIColumnNameKind v) { nameKind_ = v; }
    /// The record statuses database readers load; a record of another status is skipped.
    TKvIRowStatuses LoadRowStatutes() const { return loadRowStatutes_; }
    void SetLoadRowStatutes(TKvIRowStatuses v) { loadRowStatutes_ = v; }
    /// Whether readers decode binary and memo values.
    bool ParseBLOB() const { return parseBLOB_; }
    void SetParseBLOB(bool v) { parseBLOB_ = v; }
    TLoadProgressEvent OnLoadProgress;

    TSpreadSheets& SpreadSheets() { return sheets_; }
    const TSpreadSheets& SpreadSheets() const { return sheets_; }
    /// Whether LoadFromFile checks the name and the file's existence first (on by default).
    bool CheckFileName() const { return checkFileName_; }
    void SetCheckFileName(bool v) { checkFileName_ = v; }
    /// A plain progress callback, called before OnLoadProgress.
    std::function<void(int64_t position, int64_t totalSize)> ProgressCallback;
    /// The record LoadRecord read last; -1 before loading.
    int CurrentRecord() const { return currentRecord_; }

    virtual bool IsEncrypted() { return false; }
    /// Clears the workbook and puts the storing handlers into every event the application left empty.
    virtual void ApplyEvents();
    /// Fetches memo or binary text on demand; empty in the base.
    virtual void ReadBLOBValue(int64_t offset, int64_t size, std::string& text);
    /// Checks the name (when asked), sets FileName and hooks the events; readers then open and parse.
    virtual void LoadFromFile(const std::string& fileName);
    virtual void LoadFromStream(TStream& stream);
    virtual void BeforeLoad() { currentRecord_ = -1; }
    virtual void AfterLoad() {}
    /// Reads and reports record `index` in record mode; false when the record is skipped.
    virtual bool LoadRecord(int index);

    /// The fields a record-structured file declares, in order (readers with nkFieldName); empty otherwise.
    virtual std::vector<TKvIDeclaredField> DeclaredFields() const { return {}; }
    /// The number of records the file announces, -1 when it announces none.
    virtual int64_t RecordCount() const { return -1; }
    /// In record mode, whether record `index` is there to read: below RecordCount() in the base. A reader
    /// whose file announces no count finds out by reading ahead.
    virtual bool HasRecord(int index) { return index < RecordCount(); }
    /// What a preview shows of the file besides its rows, as (label, text) pairs: version, code page...
    virtual std::vector<std::pair<std::string, std::string>> FileProperties() const { return {}; }

    /// What the last load noticed that puts data in doubt (a record count cut to the file, a code page
    /// read as another): the import source reports each as a warning of the run.
    const std::vector<std::string>& Warnings() const { return warnings_; }

    /// Sets the status of an existing row; a row beyond the sheet's rows is ignored.
    void SetRowStatus(int sheetNo, int row, TKvIRowStatus status);
    void UpdateProgress(int64_t position, int64_t totalSize);

    std::string ClassName() const override { return "TSpreadSheetFile"; }

protected:
    void SetCurrentRecord(int index) { currentRecord_ = index; }
    void AddWarning(std::string warning) { warnings_.push_back(std::move(warning)); }
    void ClearWarnings() { warnings_.clear(); }

private:
    TKvIColumnNameKind nameKind_ = nkAlphabet;
    TKvIRowStatuses loadRowStatutes_{rsNormal};
    bool parseBLOB_ = true;
    bool checkFileName_ = true;
    int currentRecord_ = -1;
    TSpreadSheets sheets_;
    std::vector<std::string> warnings_;
};

// ---- helpers ----

/// The 0-based column of a letter name, or -1; see the weighting note in the source.
int GetSpreadSheetColID(std::string_view name, int maxCol);
/// The letter name of 1-based column `number` (A, ..., Z, AA, ...); empty for 0 or less.
std::string GetSpreadSheetColByID(int number);
/// A reference such as "C12" split into column (GetSpreadSheetColID of the letters, 512 the largest) and
/// row (the digits as they stand, -1 when missing or bad).
void ParseCellReference(std::string_view ref, int& col, int& row);
/// A date from a Julian day number.
TDateTime Julian2DMY(int64_t julianDay);
/// The Julian day of a date-time, with the fraction of the day.
double DMY2Julian(TDateTime dateTime);
/// Packed decimal of `size` bytes (two digits a byte, the last nibble the sign) with `scale` decimals.
double BCDToCurr(std::string_view bytes, int scale);
/// The 17-byte packed decimal of database formats (sign-and-exponent byte and 16 digit bytes).
double KvBCDToCurr(std::string_view bytes, int scale);
/// True when the exponent bits are all ones and the mantissa is not zero.
bool IsNan(double value);

} // namespace kv
