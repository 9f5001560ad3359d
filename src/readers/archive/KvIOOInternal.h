#pragma once
// The walk of an OpenDocument part (content.xml, styles.xml, meta.xml, or the whole flat document) over
// the XML token scanner: the styles and the metadata it meets on the way, then the sheets one at a time
// and their rows one at a time. A row comes as runs of equal cells, so that a repeated cell is one run
// however often it repeats; empty cells are no run at all.

#include "readers/archive/KvIOO.h"
#include "readers/markup/KvXMLInput.h"
#include "readers/markup/KvXMLScan.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace kv::oo {

inline constexpr const char* kFormat = "OpenDocument";

/// `count` equal cells of a row from column `Column` on.
struct TCellRun {
    int Column = 0;
    int Count = 0;
    Variant Value;
    TKvICellType Type = ictString;
    int32_t Style = -1; ///< the cell's style in the reader's list, -1 for none
    TAlignment Alignment = taLeftJustify;
    size_t Bytes = 0; ///< of its text, which each copy costs again
};

/// One table-row element: the rows it stands for and the cells that hold a value.
struct TRow {
    int64_t Repeat = 1;
    std::vector<TCellRun> Runs; ///< the first Count are this row's, by column
    size_t Count = 0;
    bool CutColumns = false; ///< it holds values past the last column of a sheet
};

struct TNameHash {
    using is_transparent = void;
    size_t operator()(std::string_view s) const { return std::hash<std::string_view>{}(s); }
};
using TNameSet = std::unordered_set<std::string, TNameHash, std::equal_to<>>;
template <class T> using TNameMap = std::unordered_map<std::string, T, TNameHash, std::equal_to<>>;

/// What cells and sheets need of the styles: found by name once per load.
struct TStyleIndex {
    TNameMap<int> Cells;           ///< table-cell styles: the list index
    std::vector<TAlignment> Align; ///< by list index
    TNameSet HiddenTables;         ///< table styles that hide their sheet
};

/// The document properties and settings a walk fills in (those it is given).
struct TDocumentSinks {
    TKvIOOStyles* Styles = nullptr; ///< styles met are added here (and to Index)
    TStyleIndex* Index = nullptr;
    TKvISummaryInformation* Summary = nullptr; ///< office:meta goes here
    std::string* NullDate = nullptr;
    std::string* Version = nullptr; ///< office:version of the document element
};

/// Raises the reader's error about `part` ("content.xml, line 12: ...").
[[noreturn]] void Fail(const std::string& part, int64_t line, const std::string& what);

class TDocumentReader {
public:
    TDocumentReader() = default;
    TDocumentReader(const TDocumentReader&) = delete;
    TDocumentReader& operator=(const TDocumentReader&) = delete;

    /// Starts on `stream` at its position; `part` names it in errors and warnings.
    void Open(TStream& stream, std::string part, const TDocumentSinks& sinks);
    /// Goes to the next sheet (past the rest of the current one); false when the document has no more.
    bool NextTable(std::string& name, std::string& styleName);
    /// Reads the next row element of the current sheet; false at the sheet's end.
    bool NextRow(TRow& row);

    const std::string& Part() const { return part_; }
    /// The line of the last token read (counted only when asked: counting costs a pass over the text).
    int64_t Line() { return scanner_.Line(); }
    int64_t BytesRead() const { return decoder_.BytesRead(); }
    /// The body element was met, and a spreadsheet in it.
    bool SawBody() const { return bodySeen_; }
    bool SawSpreadsheet() const { return spreadsheetSeen_; }
    /// The document ended inside a sheet.
    bool EndedInTable() const { return endedInTable_; }
    /// What the decoder and the scanner noticed, as lines for the reader's warnings.
    std::vector<std::string> Warnings() const;

private:
    void SkipElement();
    void ReadStyles();
    void ReadStyle(std::string_view element, std::string_view attributes);
    void ReadMeta();
    void ReadRow(TRow& row);
    void ReadCell(TRow& row, int64_t& column);
    void ReadCellText();
    void FlushText();
    void AppendText(std::string_view text);
    void AppendSpaces(int64_t count, char c);

    TKvXMLDecoder decoder_;
    TKvXMLScanner scanner_{xdRecords};
    std::string part_;
    TDocumentSinks sinks_;
    bool bodySeen_ = false, spreadsheetSeen_ = false, endedInTable_ = false;
    int64_t bodyDepth_ = -1;
    bool inTable_ = false;
    int64_t tableDepth_ = 0;
    bool rootSeen_ = false;

    // The cell being read; kept between cells so that its buffers are reused.
    std::string number_, date_, time_, boolean_, stringValue_, style_, raw_, text_;
    size_t expanded_ = 0; ///< characters spaces and tabs elements added to text_
    bool paraStart_ = false, lastBlank_ = false;
    // Text of a cell under this many levels is skipped (an annotation, a drawing); 0 for none.
    int64_t skipBelow_ = 0;
};

/// "2021-01-01" or "2021-01-01T10:10:10.5" (a zone is ignored) as a date-time; false when it is none.
bool ParseDate(std::string_view text, TDateTime& out);
/// An ISO duration ("PT10H10M10.5S", "-P1DT2H") in seconds; false when it is none.
bool ParseDuration(std::string_view text, double& seconds);
/// "1.5", "-2E+3" in the C locale; false when it is no number.
bool ParseNumber(std::string_view text, double& out);
/// A repeat count: 1 when missing or bad, and no more than `limit`.
int64_t ParseCount(std::string_view text, int64_t limit);

} // namespace kv::oo
