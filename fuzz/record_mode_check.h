#pragma once
// What the workbook fuzz targets check of record mode: a sheet read record by record gives each row as the
// whole load keeps it, with the same size and warnings.

#include "cells/KvCells.h"

#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>

namespace fuzzcheck {

inline void Check(bool condition) {
    if (!condition) std::abort();
}

inline std::string CellText(const kv::Variant& value, kv::TKvICellType type, int32_t xf,
                            kv::TAlignment alignment) {
    return std::to_string(value.VarType()) + ":" + value.AsString() + ":" + std::to_string(type) + ":" +
           std::to_string(xf) + ":" + std::to_string(alignment);
}

/// `records` holds the same bytes as `whole`, loaded in record mode; sheet `sheet` of both must agree row
/// by row.
inline void CompareRows(kv::TSpreadSheetFile& whole, kv::TSpreadSheetFile& records, int sheet) {
    if (sheet >= whole.SpreadSheets().Count()) return;
    records.SetSheetFilter(sheet);
    const kv::TSpreadSheetCells& kept = whole.SpreadSheets().Spreadsheet(sheet).Cells();
    Check(records.SpreadSheets().Spreadsheet(sheet).Cells().RowCount() == kept.RowCount());
    Check(records.SpreadSheets().Spreadsheet(sheet).Cells().ColCount() == kept.ColCount());
    int atRow = 0;
    std::map<int, std::string> row;
    records.OnCellValue = [&](kv::TObject*, int s, int r, int column, int32_t xf, const kv::Variant& value,
                              kv::TAlignment alignment, kv::TKvICellType type) {
        Check(s == sheet && r == atRow);
        row[column] = CellText(value, type, xf, alignment);
    };
    records.BeforeLoad();
    for (; atRow < kept.RowCount(); ++atRow) {
        row.clear();
        records.LoadRecord(atRow);
        std::map<int, std::string> expected;
        if (const kv::TSpreadSheetRow* r = kept.Row(atRow))
            for (int column = 0; column < r->Cols().Count(); ++column)
                if (const kv::TKvICell* cell = r->Cols().GetCell(column))
                    expected[column] =
                        CellText(cell->Value, cell->CellType, cell->FormatIndex, cell->Alignment);
        Check(row == expected);
    }
}

/// As CompareRows, `records` loaded with the same options as `whole`: their warnings agree too.
inline void CompareRecords(kv::TSpreadSheetFile& whole, kv::TSpreadSheetFile& records, int sheet) {
    Check(records.Warnings() == whole.Warnings());
    CompareRows(whole, records, sheet);
}

} // namespace fuzzcheck
