#pragma once
// The styles part of an Excel 2007+ workbook, as far as cells need it: the custom number formats and,
// for each cell style, its number format and horizontal alignment. The date test then runs on these as it
// does for binary workbooks.

#include "datasets/DataSet.h"

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace kv {

class TStream;

struct TXLSXStyles {
    /// Custom formats by number (164 and up; a workbook may also redefine a built-in one).
    std::vector<std::pair<int, std::string>> Formats;
    struct TCellStyle {
        int Format = 0;
        TAlignment Alignment = taLeftJustify;
    };
    /// The cell styles ("cellXfs") in order: a cell's style index points here.
    std::vector<TCellStyle> CellStyles;
};

/// Reads a styles part. Numbers that are no numbers read as 0; styles past a generous bound are dropped
/// (a cell that names one then has no style).
TXLSXStyles KvReadXLSXStyles(std::unique_ptr<TStream> part);

} // namespace kv
