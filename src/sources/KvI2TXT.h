#pragma once
// TKvImportFromText imports delimited or fixed-width text files; TKvImportFromClipboard imports the
// clipboard's text the same way. Column references are "Field<n>", "Text<a>-<b>", "Text", or the names
// of the header line.

#include "engine/KvIBase.h"
#include "readers/text/KvTextFields.h"
#include "readers/text/KvTextFile.h"
#include "readers/text/KvTextReadAhead.h"
#include "readers/text/KvTextSniff.h"
#include "readers/text/KvTextTypes.h"

#include <optional>
#include <unordered_map>

namespace kv {

/// How a type guess reads values under an import's data formats, looking at `maxScanRows` rows (0: the
/// default number, below 0: every row).
TKvTextTypeOptions TextTypeOptions(const TKvIDataFormats& formats, int maxScanRows);
/// Puts a guessed type into a column's description: its data type, size and alignment.
void DescribeTextColumn(TKvIColumn& column, const TKvTextColumnType& type);

class TKvImportFromText : public TKvImportBaseComponent {
public:
    explicit TKvImportFromText(TComponent* owner = nullptr);

    /// Fixed record length in characters when there is no record separator.
    int FixedLineLength() const { return fixedLineLength_; }
    void SetFixedLineLength(int v) { fixedLineLength_ = v; }
    /// Rows are read and split on a second thread while the rows before them are imported (default on).
    bool ReadAhead() const { return readAhead_; }
    void SetReadAhead(bool v) { readAhead_ = v; }
    /// Blank lines (empty, or blanks only) are rows too; by default they are not.
    bool KeepEmptyRows() const { return keepEmptyRows_; }
    void SetKeepEmptyRows(bool v) { keepEmptyRows_ = v; }
    /// The encoding the text is read in; none (the default) recognises it by its BOM and its bytes.
    const std::optional<TTextEncoding>& Encoding() const { return encoding_; }
    void SetEncoding(std::optional<TTextEncoding> v) { encoding_ = v; }
    /// Text to import instead of the file (for text already in memory, such as standard input's).
    const std::optional<std::string>& SourceText() const { return sourceText_; }
    void SetSourceText(std::optional<std::string> text) { sourceText_ = std::move(text); }

    std::string Extension() const override { return ".CSV"; }
    std::string FillFileFilters() const override;
    /// A column's name in a mapping: bracketed unless it reads as one name by itself.
    std::string GetColumnFieldName(int index) const override;

    /// Guesses from the first bytes of the source how it is written (see SniffTextDialect) and sets the
    /// delimiter, the qualifier, RowFieldNames and RowFirst to match. The file name's extension gives the
    /// fallback delimiter (a comma for .csv, a tab otherwise) or, for .tsv and .tab, the delimiter itself;
    /// `delimiter` (when not 0) is taken as it is.
    TKvTextDialect DetectFormat(char32_t delimiter = 0);
    /// The first `count` data rows as the columns' values (opening and closing the source).
    std::vector<std::vector<std::string>> PreviewRows(int count);
    std::string ClassName() const override { return "TKvImportFromText"; }

protected:
    bool NotDefined(std::string& propName) override;
    void BeforeImport() override;
    void AfterImport() override;
    void GoFirst() override { row_ = 0; }
    void GoNext() override { ++row_; }
    /// Asks for the row, not for the count: the reading thread cuts rows no further than it reads them.
    bool NeedMore() override;
    /// The line where the current record starts, and the record's number.
    TKvISourceLocation SourceLocation() override;
    /// The record's start: its line is counted only when a refused write asks for it.
    TKvISourceMark SourceMark() override;
    TKvISourceLocation MarkedLocation(const TKvISourceMark& mark) override;
    /// Counting the rows takes a scan of the text: the run asks only when it needs the count.
    bool TotalCountIsCheap() override { return false; }
    int GetTotalCount() override;
    /// Where the current row lies in the input.
    double ReadFraction() override;
    bool LoadRecord() override;
    Variant GetFieldValue(const Variant& value) override;
    int ResolveSourceColumn(const std::string& name) override;
    bool ReadSourceColumn(int handle, Variant& value) override;
    /// While reading ahead, the reading thread finishes the resolved columns' values.
    void FinishColumnsAhead(std::shared_ptr<TKvIColumnFinisher> finisher) override;
    bool HasSourceColumn(const std::string& name) override;
    /// "Text", "Text1-10": read as one reference, never as a subtraction.
    bool IsWholeReference(std::string_view source) const override;
    void DetectAutoMapping() override;

    /// The text to read when it is not a file (the clipboard's, for the clipboard source).
    virtual std::optional<std::string> TextToRead() { return sourceText_; }
    /// The loaded text; during a run, its rows are the read-ahead's.
    TKvTextFile& File() { return file_; }

private:
    void SetCurrentRow(int64_t row, bool readAhead);
    void ReportWarnings();
    Variant ValueOf(const TKvTextRef& ref) const;
    /// What `name` refers to: a header name first; otherwise Field<n>, Text<a>-<b>, Text, or a constant.
    TKvTextRef ReferenceTo(const std::string& name) const;

    int fixedLineLength_ = 0;
    bool readAhead_ = true;
    bool keepEmptyRows_ = false;
    std::optional<TTextEncoding> encoding_;
    std::optional<std::string> sourceText_;
    TKvTextFile file_;
    TKvTextFields fields_;
    TKvTextReadAhead reader_; ///< after file_, so that it stops before the file goes
    int64_t row_ = 0;
    TKvTextRowPlace place_;             ///< of the current row, as the reading handed it over
    int64_t rowCount_ = -1;             ///< once counted, or once the rows have ended
    std::vector<TKvTextWarning> found_; ///< warnings of the reading, on their way to AddWarning
    std::vector<std::string> headerNames_;
    std::unordered_map<std::string, TKvTextRef> references_; ///< by the names mappings use, per run
    // The references of one row in the order they were asked for: the next row asks in the same order.
    std::vector<const std::pair<const std::string, TKvTextRef>*> rowOrder_;
    size_t rowPosition_ = 0;
    std::vector<TKvTextRef> resolved_; ///< the columns resolved for the run, by handle
    std::string scratch_;
};

/// The clipboard's text as a source.
class TKvImportFromClipboard : public TKvImportFromText {
public:
    explicit TKvImportFromClipboard(TComponent* owner = nullptr);
    std::string ClassName() const override { return "TKvImportFromClipboard"; }

protected:
    bool NotDefined(std::string& propName) override { return TKvImportBaseComponent::NotDefined(propName); }
    std::optional<std::string> TextToRead() override;
};

} // namespace kv
