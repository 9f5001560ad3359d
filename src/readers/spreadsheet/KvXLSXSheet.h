#pragma once
// TKvXLSXSheetReader reads the cells of one sheet part of an Excel 2007+ workbook as a stream of rows:
// what it holds at any time is one row, however long the sheet. It gives the cells as written (the kind
// of value and its text) and leaves their meaning (shared string, date by style) to the workbook reader.

#include "readers/spreadsheet/KvXLSXPackage.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kv {

/// What a cell's "t" attribute says its value is.
enum TXLSXValueKind : uint8_t {
    xvNumber,        ///< a number (no "t", or "n")
    xvSharedString,  ///< an index into the shared strings ("s")
    xvInlineString,  ///< text inside the cell ("inlineStr"): its "is" element, not its "v"
    xvFormulaString, ///< a formula's cached text ("str")
    xvBoolean,       ///< "b"
    xvError,         ///< "e": the error's text
    xvDate           ///< "d": an ISO 8601 date, date-time or time
};

struct TXLSXCell {
    int Column = 0;
    int Style = 0;
    TXLSXValueKind Kind = xvNumber;
    bool HasValue = false; ///< a "v" (or for inline text an "is") was there
    std::string Text;      ///< the value as written; text kinds decoded
};

/// One row: its first Count cells are the row's, in the order written.
struct TXLSXRow {
    int Index = 0; ///< 0-based
    std::vector<TXLSXCell> Cells;
    size_t Count = 0;
};

class TKvXLSXSheetReader {
public:
    /// The largest sheet a workbook can have; cells beyond it are left out and counted.
    static constexpr int kMaxRows = 1048576, kMaxColumns = 16384;
    /// The most cells one row may give (a column written again counts again), the longest cell text and
    /// the most text of one row.
    static constexpr size_t kMaxRowCells = 65536, kMaxCellText = size_t(32) << 20,
                            kMaxRowText = size_t(128) << 20;

    /// Reads `part`, named `partName` in errors.
    TKvXLSXSheetReader(std::unique_ptr<TStream> part, std::string partName);

    /// The next row with at least one cell; false after the last. A row without a number follows the one
    /// before it, and so does a cell without a reference.
    bool NextRow(TXLSXRow& row);
    /// Reads up to the cell data and gives the used area the sheet announces ("A1:J100"; "" for none).
    std::string ReadDimension();

    /// Cells left out because they lie beyond the sheet's limits or a row's cell bound.
    int64_t CellsLeftOut() const { return leftOut_; }
    /// Cell texts cut at kMaxCellText or at the row's kMaxRowText.
    int64_t TextsCut() const { return textsCut_; }
    /// The part ended inside its cell data (a cut or damaged file).
    bool EndedEarly() const { return endedEarly_; }

private:
    void StartRow(std::string_view attributes, TXLSXRow& row);
    void StartCell(std::string_view attributes, TXLSXRow& row);
    void AddText(std::string_view text, TXLSXRow& row);
    void EndCell(TXLSXRow& row);

    TKvXLSXPartScanner xml_;
    std::string partName_;
    bool rooted_ = false;
    bool ended_ = false;
    std::string dimension_;
    int64_t sheetDataDepth_ = -1, rowDepth_ = -1, cellDepth_ = -1;
    int64_t valueDepth_ = -1, inlineDepth_ = -1, textDepth_ = -1, phoneticDepth_ = -1;
    bool rowKept_ = false;  ///< the open row lies inside the sheet's limits
    bool cellKept_ = false; ///< the open cell has a place in the row buffer
    int lastRow_ = -1;
    int lastColumn_ = -1;
    int64_t leftOut_ = 0;
    int64_t textsCut_ = 0;
    size_t rowText_ = 0;   ///< text held by the open row
    bool cellCut_ = false; ///< the open cell's text was cut
    bool endedEarly_ = false;
};

/// A reference such as "AB12" as a 0-based column and row: the column is -1 without letters and
/// kMaxColumns beyond the last; the row is -1 when missing or out of range.
void KvParseXLSXReference(std::string_view ref, int& column, int& row);

} // namespace kv
