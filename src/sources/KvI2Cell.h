#pragma once
// TKvImportFromCell imports whatever a cell reader loads: it creates the format's reader, lets it load
// the file (or, for readers that can, read one record at a time), picks the sheet and hands the run one
// row at a time. Each format's source is a thin subclass that names its reader.

#include "cells/KvCells.h"
#include "engine/KvIBase.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kv {

/// The engine's data type of a cell type; date-only and time-only cells are text on purpose.
TKvIDataType KvICellType2KvIDataType(TKvICellType cellType);

class TKvImportFromCell : public TKvImportBaseComponent {
public:
    explicit TKvImportFromCell(TComponent* owner = nullptr);
    ~TKvImportFromCell() override;

    /// The 0-based sheet to import; any value but -1 also clears the sheet name.
    int SheetIndex() const { return sheetIndex_; }
    void SetSheetIndex(int v);
    /// A sheet by its exact name instead of its index (sets SheetIndex to -1 when not empty).
    const std::string& SheetName() const { return sheetName_; }
    void SetSheetName(const std::string& v);
    /// The record statuses a database reader loads (normal records only by default).
    TKvIRowStatuses LoadRowStatutes() const { return loadRowStatutes_; }
    void SetLoadRowStatutes(TKvIRowStatuses v) { loadRowStatutes_ = v; }

    /// Decide RowFieldNames when the file is loaded: row 1 names the columns when every value in it is
    /// text and a row below holds a number, date or boolean under one of them; the first row imported
    /// then comes after it.
    bool GuessFieldNamesRow() const { return guessNames_; }
    void SetGuessFieldNamesRow(bool v) { guessNames_ = v; }

    /// The reader of the current run (created by BeforeImport, freed by AfterImport); nullptr between runs.
    TSpreadSheetFile* WorkBook() const { return workBook_.get(); }
    /// Opens the source as a run would, hands the reader to `inspect`, and closes it again.
    void Inspect(const std::function<void(TSpreadSheetFile& reader)>& inspect);
    /// Describes the columns (into Columns) and hands the values of up to `count` rows to `row`, one row
    /// at a time, the way a run would read them (deleted records skipped unless LoadRowStatutes says);
    /// `opened`, when given, sees the reader first.
    void ReadRows(int64_t count, const std::function<void(const std::vector<Variant>& values)>& row,
                  const std::function<void(TSpreadSheetFile& reader)>& opened = nullptr);

    std::string GetColumnFieldName(int index) const override;
    void LoadSpecificationFromStrings(const TStringList& list) override;
    void SaveSpecificationToStream(TStream& stream, const std::string& description) override;
    std::string ClassName() const override { return "TKvImportFromCell"; }

protected:
    /// The reader of the source's format; the source owns it for one run.
    virtual std::unique_ptr<TSpreadSheetFile> WorkBookCreation() { return nullptr; }
    /// What else than the file, the sheet and the row statuses the workbook's load depends on, for a
    /// source whose workbook may be kept from DescribeColumns for the run; nullopt (the base) loads again.
    virtual std::optional<std::string> WorkBookSettings() const { return std::nullopt; }

    bool NotDefined(std::string& propName) override;
    void BeforeImport() override;
    void AfterImport() override;
    void GoFirst() override;
    void GoNext() override { ++row_; }
    bool NeedMore() override;
    bool LoadRecord() override;
    int GetTotalCount() override;
    double ReadFraction() override;
    TKvISourceLocation SourceLocation() override;
    Variant GetFieldValue(const Variant& value) override;
    int ResolveSourceColumn(const std::string& name) override;
    bool ReadSourceColumn(int handle, Variant& value) override;
    bool HasSourceColumn(const std::string& name) override;
    void DetectAutoMapping() override;

    /// The data type of column `col` that fits every value of rows firstRow..endRow-1; the first value's
    /// alignment goes to `alignment`.
    static TKvIDataType ScanColumnType(const TSpreadSheetCells& cells, int col, int firstRow, int endRow,
                                       TAlignment& alignment);

private:
    void GuessNamesRow();
    /// Rows first..end-1 of a record reader's sheet into `rows` from index 0, read as a run reads them
    /// (GoFirst rewinds the reader again).
    void ReadAhead(int first, int end, TSpreadSheetCells& rows);
    /// Makes the row at the current index current; false when the reader skips it.
    bool ReadCurrentRow();
    /// Where `name` is in a row: a declared field's position, or a column letter's; -1 for neither.
    int ColumnOf(const std::string& name) const;
    /// The reader names columns by the file's field names (kept between runs for GetColumnFieldName).
    bool ByFieldName() const { return byFieldName_; }
    TSpreadSheet* Sheet() const;
    /// What a kept workbook must match to serve again; "" when none may be kept.
    std::string WorkBookKey() const;
    const TKvICell* CurrentCell(int column) const;

    int sheetIndex_ = 0;
    std::string sheetName_;
    TKvIRowStatuses loadRowStatutes_{rsNormal};
    std::unique_ptr<TSpreadSheetFile> workBook_;
    std::unique_ptr<TStream> stream_; ///< the file a record reader reads from, kept for the run
    // The workbook DescribeColumns loaded, kept for the run that follows while nothing it was loaded
    // from (the file, the sheet, the settings) has changed: a second pass over a large sheet saved.
    std::unique_ptr<TStream> keptStream_;
    std::unique_ptr<TSpreadSheetFile> keptWorkBook_;
    std::string keptKey_;
    TSpreadSheetRow rowBuffer_; ///< the record a record reader delivered last
    std::vector<std::string> fieldNames_;
    bool byFieldName_ = false;
    bool guessNames_ = false;
    bool ended_ = false;
    int row_ = 0;
    const TSpreadSheetRow* current_ = nullptr;
    struct TResolved {
        int Column;
        Variant Constant; ///< what a name that is no column gives
    };
    std::vector<TResolved> resolved_;
};

} // namespace kv
