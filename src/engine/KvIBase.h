#pragma once
// TKvImportBaseComponent: the abstract import source. It owns the settings of an import, runs it
// (Execute) through virtual source operations that each source class overrides, converts source values
// into destination field values, proposes mappings, and saves and loads specification files.

#include "datasets/DataSet.h"
#include "engine/KvIConverter.h"
#include "engine/KvIMappingTable.h"
#include "engine/KvISQL.h"
#include "engine/KvISettings.h"
#include "expression/KvIParams.h"
#include "expression/KvIPars.h"
#include "platform/StringList.h"

#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kv {

class TStream;

using TNotifyEvent = std::function<void(TObject* Sender)>;
using TErrorEvent = std::function<void(TObject* Sender, const std::exception& Error, bool& Abort)>;
using TGetCellParamsEvent = std::function<void(TObject* Sender, TField* Field, Variant& Value)>;
using TKvIParsedValue = std::function<void(TObject* Sender, TField* Field, Variant& Value)>;
using TBeforeRecordEvent =
    std::function<void(TObject* Sender, const std::string& Fields, const Variant& Values, bool& Accept)>;
using TAfterRecordEvent = std::function<void(TObject* Sender, bool& Abort)>;
using TKvIGetRowMode = std::function<void(TObject* Sender, const Variant& Values, TImportMode& AModeForRow)>;
using TBeforeFieldEvent = std::function<void(TObject* Sender, TField* Field, Variant& Value, bool& Accept)>;
using TKvISpecificationEvent = std::function<void(TObject* Sender, const std::string& AFileName)>;
using TLocateRecordEvent = std::function<void(TObject* Sender, const std::string& KeyFields,
                                              const Variant& Values, bool& Exist, bool& ExecuteLocate)>;
using TKvIOnCreateStructure = std::function<void(TObject* Sender, TKvIColumns& Columns)>;

/// Something a source noticed that a user should hear of, though no single row failed.
struct TKvIWarning {
    int64_t Line = 0;     ///< where in the source (a text file's line), 0 when nowhere in particular
    std::string Message;  ///< the source's own text, without the place
    bool Problem = false; ///< data may be lost or changed: the run finishes with problems
};
using TKvIWarningEvent = std::function<void(TObject* Sender, const TKvIWarning& Warning)>;

/// Where in the source a row comes from, as a user finds it there. Each source fills what it knows.
struct TKvISourceLocation {
    int64_t Line = 0;   ///< a text file's line where the record starts (0: not a text)
    int64_t Record = 0; ///< the record, or row of a sheet, 1-based
    std::string Sheet;  ///< a workbook's sheet ("" for none)
    std::string Cell;   ///< and the cell ("B7")
    /// The most precise place known: "line 12", "Sheet1!B7", "record 5".
    std::string Text() const;
    /// The row a user looks for: the line of a text, else the record.
    int64_t Row() const { return Line > 0 ? Line : Record; }
};

/// Where the error being reported happened.
struct TKvIErrorPlace {
    TKvISourceLocation Location;
    std::string Field; ///< the destination field being filled, "" when the row failed as a whole
};

/// The abstract import source.
class TKvImportBaseComponent : public TComponent {
public:
    explicit TKvImportBaseComponent(TComponent* owner = nullptr);
    ~TKvImportBaseComponent() override;

    // ---- published settings ----
    std::string About() const;
    void SetAbout(const std::string&) {}
    bool AbortOnProblem() const { return abortOnProblem_; }
    void SetAbortOnProblem(bool v) { abortOnProblem_ = v; }
    TKvIActionKind ActionKind() const { return actionKind_; }
    void SetActionKind(TKvIActionKind v) { actionKind_ = v; }
    bool AnimatedStatus() const { return animatedStatus_; }
    void SetAnimatedStatus(bool v) { animatedStatus_ = v; }
    TKvICharacterSet CharacterSet() const { return characterSet_; }
    void SetCharacterSet(TKvICharacterSet v) { characterSet_ = v; }
    TKvIDataFormats& DataFormats() { return dataFormats_; }
    const TKvIDataFormats& DataFormats() const { return dataFormats_; }
    void SetDataFormats(const TKvIDataFormats& v) { dataFormats_.Assign(v); }
    TDataSet* DataSet() const { return dataSet_; }
    /// Keeps the destination (not owned; cleared when it is destroyed) and, when DatasetKeys is empty,
    /// takes the keys from the dataset's "IndexFieldName".
    void SetDataSet(TDataSet* dataSet);
    const std::string& DatasetKeys() const { return datasetKeys_; }
    void SetDatasetKeys(const std::string& v) { datasetKeys_ = v; }
    TKvILoadCondition& LoadCondition() { return loadCondition_; }
    const TKvILoadCondition& LoadCondition() const { return loadCondition_; }
    void SetLoadCondition(const TKvILoadCondition& v) { loadCondition_.Assign(v); }
    TKvISQLOptions& SQLOptions() { return sqlOptions_; }
    const TKvISQLOptions& SQLOptions() const { return sqlOptions_; }
    void SetSQLOptions(const TKvISQLOptions& v) { sqlOptions_.Assign(v); }
    TStringList& Mappings() { return mappings_; }
    const TStringList& Mappings() const { return mappings_; }
    void SetMappings(const TStringList& v) { mappings_.Assign(v); }
    TImportMode Mode() const { return mode_; }
    void SetMode(TImportMode v) { mode_ = v; }
    TKvIOptions Options() const { return options_; }
    void SetOptions(TKvIOptions v) { options_ = v; }
    TKvIParameters& Parameters() { return parameters_; }
    const TKvIParameters& Parameters() const { return parameters_; }
    void SetParameters(const TKvIParameters& v) { parameters_.Assign(v); }
    const std::string& TableName() const { return tableName_; }
    void SetTableName(const std::string& v) { tableName_ = v; }
    const std::string& TitleStatus() const { return titleStatus_; }
    void SetTitleStatus(const std::string& v) { titleStatus_ = v; }
    TKvIStatistic& Statistic() { return statistic_; }
    const TKvIStatistic& Statistic() const { return statistic_; }
    const std::string& SpecificationDir() const { return specificationDir_; }
    void SetSpecificationDir(const std::string& v) { specificationDir_ = v; }
    bool UseDisplayNames() const { return useDisplayNames_; }
    void SetUseDisplayNames(bool v) { useDisplayNames_ = v; }
    TKvITrimSpaces TrimSpaces() const { return trimSpaces_; }
    void SetTrimSpaces(TKvITrimSpaces v) { trimSpaces_ = v; }
    int CommitCount() const { return commitCount_; }
    void SetCommitCount(int v) { commitCount_ = v; }
    /// Source text that cannot be read into its field's type is stored as the text it is, for a
    /// destination that keeps any value in any column (a table created from types guessed over part of
    /// the source). Off (the default): such text is a row error.
    bool KeepUnconvertedValues() const { return keepUnconverted_; }
    void SetKeepUnconvertedValues(bool v) { keepUnconverted_ = v; }

    // ---- settings held here and published by the sources that use them ----
    TTableTypeImport TableType() const { return tableType_; }
    void SetTableType(TTableTypeImport v) { tableType_ = v; }
    const std::string& SourceFileName() const { return sourceFileName_; }
    void SetSourceFileName(const std::string& v) { sourceFileName_ = v; }
    TKvIFieldDelimiter FieldDelimiter() const { return fieldDelimiter_; }
    void SetFieldDelimiter(TKvIFieldDelimiter kind);
    char32_t FieldDelimiterCustom() const { return fieldDelimiterCustom_; }
    void SetFieldDelimiterCustom(char32_t c);
    TKvITextQualifier TextQualifier() const { return textQualifier_; }
    void SetTextQualifier(TKvITextQualifier kind);
    char32_t TextQualifierCustom() const { return textQualifierCustom_; }
    void SetTextQualifierCustom(char32_t c);
    TKvIRecordSeparator RecordSeparator() const { return recordSeparator_; }
    void SetRecordSeparator(TKvIRecordSeparator kind);
    const std::string& RecordSeparatorCustom() const { return recordSeparatorCustom_; }
    void SetRecordSeparatorCustom(const std::string& text);
    int RowFirst() const { return rowFirst_; }
    void SetRowFirst(int v) { rowFirst_ = v; }
    int RowLast() const { return rowLast_; }
    void SetRowLast(int v) { rowLast_ = v; }
    int RowFieldNames() const { return rowFieldNames_; }
    void SetRowFieldNames(int v) { rowFieldNames_ = v; }
    bool Fixed() const { return fixed_; }
    void SetFixed(bool v) { fixed_ = v; }
    int MaxScanRows() const { return maxScanRows_; }
    void SetMaxScanRows(int v) { maxScanRows_ = v; }
    const std::string& DefaultSpecificationFileName() const { return specFileName_; }
    void SetDefaultSpecificationFileName(const std::string& v) { specFileName_ = v; }

    // ---- events ----
    TErrorEvent OnErrorEvent;
    TGetCellParamsEvent OnGetCellParams;
    TKvIParsedValue OnParsedValue;
    TOnEvaluate OnParserEvaluate;
    TNotifyEvent OnBeforeExecute, OnAfterExecute;
    TBeforeRecordEvent OnBeforeRecordEvent;
    TAfterRecordEvent OnAfterRecordEvent;
    TKvIGetRowMode OnGetRowMode;
    TNotifyEvent OnBeforeUpdate;
    TBeforeFieldEvent OnBeforeFieldUpdate;
    TKvISpecificationEvent OnBeforeLoadSpecification, OnAfterLoadSpecification, OnBeforeSaveSpecification,
        OnAfterSaveSpecification;
    TLocateRecordEvent OnLocateRecord;
    TNotifyEvent OnStartTransaction, OnFinishTransaction;
    TKvIOnCreateStructure OnCreateStructure;
    /// A source's warning, as it is raised (it is kept in Warnings() too).
    TKvIWarningEvent OnWarning;

    // ---- running ----
    /// Runs one import; the outcome is in Statistic().Result, the message in LastMessage().
    void Execute();
    /// Imports from `stream` (not owned) instead of the source file.
    virtual void LoadFromStream(TStream& stream);
    /// The message of the last run (finished, finished with problems, canceled, or the error).
    const std::string& LastMessage() const { return lastMessage_; }
    /// The warnings of the last run.
    const std::vector<TKvIWarning>& Warnings() const { return warnings_; }
    /// The last run failed rows or raised a warning that puts data in doubt.
    bool HadProblems() const;
    /// Where the error now being handed to OnErrorEvent happened.
    const TKvIErrorPlace& ErrorPlace() const { return errorPlace_; }
    /// Makes `table` findable by LOOKUP under `name` (before the owner's components are searched); the
    /// table is not owned and is forgotten when it is destroyed. nullptr forgets the name.
    void RegisterLookupTable(const std::string& name, TDataSet* table);
    /// The source's columns, as the last DetectAutoMapping found them.
    TKvIColumns& Columns() { return columns_; }
    const TKvIColumns& Columns() const { return columns_; }
    /// Opens the source, describes its columns into Columns() and closes it again (for an application that
    /// needs them before a run, for example to create the destination table).
    void DescribeColumns();
    /// Computes or asks the parameters; false when the user cancels.
    virtual bool AskParameters();

    /// The SQL statements of the last run with ActionKind akGenerateSQL.
    TStringList& SQLScript() { return sqlOutput_.Script(); }
    /// When set, the statements are also written to this file (each followed by CR LF) as they are made.
    const std::string& SQLFileName() const { return sqlFileName_; }
    void SetSQLFileName(const std::string& v) { sqlFileName_ = v; }
    /// False: statements written to SQLFileName are not kept in SQLScript as well (for scripts larger
    /// than memory should hold).
    bool KeepSQLScript() const { return keepSqlScript_; }
    void SetKeepSQLScript(bool v) { keepSqlScript_ = v; }
    /// Statements that open the script, before those of the rows (the CREATE TABLE of a table the script
    /// fills, for example).
    const std::vector<std::string>& SQLPrologue() const { return sqlPrologue_; }
    void SetSQLPrologue(std::vector<std::string> v) { sqlPrologue_ = std::move(v); }

    // ---- specification files ----
    void LoadSpecification(const std::string& fileName);
    void SaveSpecification(const std::string& fileName, const std::string& description, bool ask);
    void LoadSpecificationFromStream(TStream& stream);
    virtual void LoadSpecificationFromStrings(const TStringList& list);
    virtual void SaveSpecificationToStream(TStream& stream, const std::string& description);

    // ---- helpers ----
    /// The destination field type as an import data type.
    static TKvIDataType GetKvIDataType(TFieldType type);
    /// The default file extension of a format index (".DBF", ".TXT", ...).
    static std::string GetDefExt(int index);
    static TImportFormatTypes GetAvailableImportFormats();
    /// TableName when set, else the table name the dataset gives.
    std::string GetTableName() const;
    /// The table name of a dataset: its "TableName", else "CommandText", else the name after "FROM " in
    /// its "SQL"; cut before the first ".".
    static std::string GetParsedTableName(const TDataSet* dataSet);
    /// The date-time mask by which source text is read into date fields.
    std::string BuildDTFormat() const;
    std::string BuildTimeFormat(bool withT) const;
    /// Index of the mapping entry for destination field `name`, -1 when none.
    int GetFieldItem(const std::string& name) const;
    /// How a source column is named in a mapping line: its name, in brackets when it holds a blank.
    virtual std::string GetColumnFieldName(int index) const;
    virtual std::string Extension() const { return ".KvI"; }
    virtual std::string FillFileFilters() const;
    /// Rebuilds Mappings from Columns and the destination's fields.
    virtual void Columns2Mapping();

    void Assign(const TPersistent& source) override;
    std::string ClassName() const override { return "TKvImportBaseComponent"; }

protected:
    // ---- the virtual source operations ----
    virtual void Prepare();
    virtual void BeforeImport();
    virtual void AfterImport() {}
    virtual void BuildArrayIntersection();
    virtual void BuildFieldMapping();
    virtual bool LoadRecord();
    virtual void GoFirst() {}
    virtual void GoNext() {}
    virtual bool NeedMore() { return false; }
    /// Where the current row comes from in the source; the base knows the count of rows read.
    virtual TKvISourceLocation SourceLocation() {
        TKvISourceLocation location;
        location.Record = statistic_.TotalImported;
        return location;
    }
    /// Where the current row comes from, kept for a write of it that the dataset sends late and that may
    /// be refused after the run moved on: the location itself, unless the source keeps something cheaper.
    struct TKvISourceMark {
        TKvISourceLocation Location;
        int64_t Offset = -1; ///< a text's record start, its line found only when asked
    };
    virtual TKvISourceMark SourceMark() { return {SourceLocation(), -1}; }
    /// The location of a row marked earlier.
    virtual TKvISourceLocation MarkedLocation(const TKvISourceMark& mark) { return mark.Location; }
    virtual int GetTotalCount() { return 0; }
    /// False when GetTotalCount costs a pass over the source: the run then asks for the count only when
    /// an expression reads STATTOTALCOUNT, and at its end.
    virtual bool TotalCountIsCheap() { return true; }
    /// How far through the source the current row lies, from 0 to 1, for the progress display while the
    /// count is not known; below 0 when the source cannot tell.
    virtual double ReadFraction() { return -1; }
    virtual Variant GetValues(const std::string& columnName) {
        (void)columnName;
        return Variant::Null();
    }
    /// The value of the source column a name refers to; the base gives the name itself.
    virtual Variant GetFieldValue(const Variant& value) { return value; }
    /// Resolves `name` once per run for the mapping lines that read one source column and nothing else,
    /// so that each row reads it without a lookup: a handle of 0 or more, or -1 when the source resolves
    /// names only through GetFieldValue (the base). A source that answers promises that ReadSourceColumn
    /// gives what GetFieldValue gives for the name.
    virtual int ResolveSourceColumn(const std::string& name) {
        (void)name;
        return -1;
    }
    /// The current row's value of a column that ResolveSourceColumn resolved (each call gives a handle of
    /// its own). True when the value has been finished already (see FinishColumnsAhead).
    virtual bool ReadSourceColumn(int handle, Variant& value) {
        (void)handle;
        value.SetNull();
        return false;
    }
    /// Offers a source that reads ahead on a thread of its own to finish the values of the resolved
    /// columns there (trimmed, converted for their fields, errors kept for the row's turn); the base
    /// leaves them to the run.
    virtual void FinishColumnsAhead(std::shared_ptr<TKvIColumnFinisher> finisher) { (void)finisher; }
    /// True when a mapping's source side is a reference the source resolves as one name, never parsed as
    /// an expression (a text source's "Text1-10", where the minus is no subtraction); the base has none.
    virtual bool IsWholeReference(std::string_view source) const {
        (void)source;
        return false;
    }
    /// True when the source's date-times put a "T" between date and time (XML); the base's do not.
    virtual bool DateTimeHasT() const { return false; }
    /// True when `name` refers to a column of the source (a column wins over a user function of the same
    /// name: its values are the data); the base knows no columns.
    virtual bool HasSourceColumn(const std::string& name) {
        (void)name;
        return false;
    }
    /// The value of a mapping's source side for the current row (`index` >= 0: mapping entry `index`;
    /// -1: a condition).
    virtual Variant GetParsedValue(const Variant& value, int index);
    virtual bool FieldIsTruncated() { return false; }
    /// True, with the property's name, when a required property is missing.
    virtual bool NotDefined(std::string& propName);
    virtual bool BLOBIsMIME() { return false; }
    virtual void ProcessRowsForColumnTypes() {}
    /// Fills Columns; the base describes the destination's fields.
    virtual void DetectAutoMapping();
    /// How column `index` is named in a mapping line so that it reads back as that column: its name when
    /// that is a plain identifier, else in brackets; with `byNumber`, a name brackets cannot hold (a quote
    /// or "]" in it) is strField + its number, for a source that resolves such references.
    std::string ColumnReference(int index, bool byNumber) const;
    /// Adds a column describing `field` (the caption too when `withCaption`).
    void AddColumnFor(const TField& field, bool withCaption);
    void FillKey4Locate();
    void FillKey4Values();

    /// The evaluation handler every mapping and condition computes with.
    void ParserEvaluate(TObject* sender, const std::string& eval, const std::vector<Variant>& args,
                        int argCount, bool isChild, Variant& value, bool& done);

    void Notification(TComponent* component, TOperation operation) override;
    /// Keeps a warning of the source and hands it to OnWarning.
    void AddWarning(TKvIWarning warning);

    /// The stream LoadFromStream gave for the current run (nullptr: read the source file).
    TStream* SourceStream() const { return sourceStream_; }
    /// True between the BeforeImport and AfterImport of DescribeColumns, which a run usually follows.
    bool Describing() const { return describing_; }
    /// The field delimiter, qualifier and record separator as characters and text.
    char32_t FieldDelimiterChar() const { return fieldDelimiterCustom_; }
    char32_t TextQualifierChar() const { return textQualifierCustom_; }
    bool Canceled() const { return canceled_; }

    /// The mapping lines of the run.
    const TKvIMappingTable& Intersection() const { return mappingTable_; }
    const std::vector<Variant>& RowValues() const { return rowValues_; }

private:
    void RunRows();
    void ResolveSourceColumns();
    void ApplyRow();
    void HandleError(const std::exception& error);
    void CheckSomethingMapped() const;
    /// The text conversion left in `value` is stored as it stands rather than converted by the field.
    bool KeepsAsText(const TField& field, const Variant& value);
    void StoreValue(TField& field, Variant& value);
    bool EvaluateCondition(const std::string& text, std::unique_ptr<TKvIParser>& kept,
                           std::exception_ptr& error);
    Variant Compute(TKvIParser& parser, std::exception_ptr error);
    std::unique_ptr<TKvIParser> MakeParser(const std::string& text, std::exception_ptr& error);
    /// The counter a name such as STATTOTALADDED stands for; null for any other name.
    const int* StatisticCounter(std::string_view name) const;
    /// What the handler does with every value it resolved: trimming, empty texts to Null, the field's type.
    void FinishValue(Variant& value, bool isChild, TObject* sender);
    void RollbackCounter(bool exist);
    Variant LookupValue(const std::vector<Variant>& args);
    TDataSet* FindLookupDataSet(const std::string& name) const;
    void ResetRunState();
    /// A write the dataset sent late and the storage refused: reported and counted as the failure of the
    /// row it was posted for, by the place noted when the row was posted.
    void DeferredWriteFailed(int64_t tag, const std::exception& error);
    /// Notes where the row just written came from while the dataset may still refuse it.
    void NoteDeferredRow();
    /// Raises what a handler asked for (an abort) while a deferred failure was reported.
    void RaiseDeferredFailure();

    // settings
    bool abortOnProblem_ = true;
    TKvIActionKind actionKind_ = akDatasetApply;
    bool animatedStatus_ = true;
    TKvICharacterSet characterSet_ = csiANSI_WINDOWS;
    TKvIDataFormats dataFormats_;
    TKvIValueConverter converter_{dataFormats_};
    TDataSet* dataSet_ = nullptr;
    std::string datasetKeys_;
    TKvILoadCondition loadCondition_;
    TKvISQLOptions sqlOptions_;
    TStringList mappings_;
    TImportMode mode_ = imAppend;
    TKvIOptions options_ = TKvIOptions::FromBits(59);
    TKvIParameters parameters_;
    std::string tableName_;
    std::string titleStatus_;
    TKvIStatistic statistic_;
    std::string specificationDir_;
    bool useDisplayNames_ = false;
    TKvITrimSpaces trimSpaces_ = tsNoTrim;
    int commitCount_ = 300;
    bool keepUnconverted_ = false;
    TTableTypeImport tableType_ = teText;
    std::string sourceFileName_;
    TKvIFieldDelimiter fieldDelimiter_ = fdTab;
    char32_t fieldDelimiterCustom_ = 9;
    TKvITextQualifier textQualifier_ = tqQuot;
    char32_t textQualifierCustom_ = 34;
    TKvIRecordSeparator recordSeparator_ = rsCRLF;
    std::string recordSeparatorCustom_ = "\r\n";
    int rowFirst_ = 1;
    int rowLast_ = 2147483647;
    int rowFieldNames_ = 1;
    bool fixed_ = false;
    int maxScanRows_ = 0;
    std::string specFileName_;
    std::string sqlFileName_;

    // run state
    TKvIColumns columns_;
    TStream* sourceStream_ = nullptr;
    bool describing_ = false;
    bool canceled_ = false;
    bool inTransaction_ = false;
    std::string lastMessage_;
    TKvIMappingTable mappingTable_;
    std::vector<Variant> rowValues_;
    std::vector<Variant> keyValues_;
    TField* convertingField_ = nullptr;
    std::unique_ptr<TKvIParser> loadWhenParser_, skipIfParser_;
    std::exception_ptr loadWhenError_, skipIfError_;
    std::string runTableName_;
    bool keepSqlScript_ = true;
    std::vector<std::string> sqlPrologue_;
    TKvISQLOutput sqlOutput_;
    std::vector<TKvIWarning> warnings_;
    TKvIErrorPlace errorPlace_;
    const TField* applyingField_ = nullptr; ///< the field ApplyRow is filling, for the error's place
    std::vector<std::pair<std::string, TDataSet*>> lookupTables_;
    // The rows whose writes the dataset still holds, oldest first, by the tag they were posted under.
    struct TDeferredRow {
        int64_t Tag = 0;
        TKvIAction Action = iaUnknown;
        TKvISourceMark Mark;
    };
    std::deque<TDeferredRow> deferredRows_;
    std::exception_ptr deferredFailure_;
};

} // namespace kv
