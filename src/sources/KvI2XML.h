#pragma once
// TKvImportFromXML imports record-shaped XML: every occurrence of the row element is a row, and its
// attributes and child elements are the columns (TKvXMLRows says how values are read). The document is
// streamed: a run holds one row at a time, whatever the document's size. Choosing the row element when
// none is named costs a pass over the document, and so does describing the columns (auto-mapping, a
// preview), which also counts the rows; a run with a row element and mappings given reads it once, and
// a file described and then run unchanged is not passed over twice for the same answer.
//
// Every name in a mapping is a column: a row that lacks it gives Null, since a column may first appear
// in any row of a document read only as far as the run has come.

#include "engine/KvIBase.h"
#include "readers/markup/KvXMLRows.h"

#include <memory>
#include <string>
#include <vector>

namespace kv {

class TKvImportFromXML : public TKvImportBaseComponent {
public:
    explicit TKvImportFromXML(TComponent* owner = nullptr);
    ~TKvImportFromXML() override;

    /// The element each occurrence of which is a row, as the document writes it (prefix included); empty
    /// (the default): the one that most often has attributes or child elements (TKvXMLRows).
    const std::string& RowElement() const { return rowElement_; }
    void SetRowElement(const std::string& v) { rowElement_ = v; }
    /// The row element of the last run, description or preview: RowElement, or the one chosen.
    const std::string& RowElementUsed() const { return used_; }
    /// How the last run read the document's bytes ("utf-8", "utf-16le", "cp1252", "iso-8859-1", ...).
    const std::string& EncodingName() const { return encoding_; }
    /// The rows of the document, once a description or a run to its end has counted them; -1 before.
    int64_t RowCount() const { return rowCount_; }

    std::string Extension() const override { return ".XML"; }
    std::string FillFileFilters() const override;
    /// Describes the columns (into Columns) and gives the first `count` rows as the columns' texts.
    std::vector<std::vector<std::string>> PreviewRows(int count);
    void LoadSpecificationFromStrings(const TStringList& list) override;
    void SaveSpecificationToStream(TStream& stream, const std::string& description) override;
    std::string ClassName() const override { return "TKvImportFromXML"; }

protected:
    bool NotDefined(std::string& propName) override;
    void BeforeImport() override;
    void AfterImport() override;
    void GoFirst() override;
    void GoNext() override { ++row_; }
    bool NeedMore() override;
    /// The line of the row element's start tag, and the row's number.
    TKvISourceLocation SourceLocation() override;
    /// Counting the rows takes a pass, unless a description has counted them.
    bool TotalCountIsCheap() override { return rowCount_ >= 0; }
    int GetTotalCount() override;
    double ReadFraction() override;
    Variant GetFieldValue(const Variant& value) override;
    int ResolveSourceColumn(const std::string& name) override;
    bool ReadSourceColumn(int handle, Variant& value) override;
    bool HasSourceColumn(const std::string& name) override;
    /// Names the columns in the order the document first has them and guesses their types from the
    /// first MaxScanRows rows: a pass over the document, which counts the rows too.
    void DetectAutoMapping() override;

private:
    /// What full passes over a file found, kept while the file stays as it was: describing the columns
    /// and then running (as the command line does) chooses the row element and finds the columns once.
    struct TPassed {
        std::string File, RowElement; ///< the file and the RowElement they were made for
        int64_t Size = -1, Modified = 0;
        std::string Used;                 ///< the row element
        std::vector<std::string> Columns; ///< in order, once described
        int64_t Rows = -1;
    };

    bool ReadRow();
    void ReportWarnings();
    /// The file's size and time of change, for TPassed.
    TPassed Stamp() const;

    std::string rowElement_;
    std::string used_;
    std::string encoding_;
    std::unique_ptr<TStream> file_; ///< the file of a run by name
    TStream* stream_ = nullptr;     ///< what the run reads
    int64_t start_ = 0;             ///< where the document starts in it
    std::unique_ptr<TKvXMLRows> rows_;
    int64_t row_ = 0;  ///< the current row (0-based)
    int64_t read_ = 0; ///< rows the reader has read since it started: row_ + 1 once row_ is read
    bool ended_ = false;
    int64_t rowCount_ = -1;
    std::vector<TKvXMLWarning> found_;
    TPassed passed_;
};

} // namespace kv
