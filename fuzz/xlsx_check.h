#pragma once
// What both Excel 2007+ fuzz targets check of a package: it loads or fails with one of the library's own
// errors; every cell lies inside a sheet's limits with UTF-8 text; and the sheet read row by row in record
// mode gives each row as the whole load keeps it.

#include "platform/Exceptions.h"
#include "platform/Streams.h"
#include "platform/Utf8.h"
#include "readers/spreadsheet/KvXLS.h"

#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>

namespace xlsxfuzz {

inline void Check(bool condition) {
    if (!condition) std::abort();
}

inline std::string CellText(const kv::Variant& value, kv::TKvICellType type, int32_t xf,
                            kv::TAlignment alignment) {
    return std::to_string(value.VarType()) + ":" + value.AsString() + ":" + std::to_string(type) + ":" +
           std::to_string(xf) + ":" + std::to_string(alignment);
}

inline void Configure(kv::TMSExcelX& excel, uint8_t options) {
    excel.SetLoadNULLs(options & 1);
    excel.SetSheetFilter(options & 2 ? (options >> 2) & 3 : -1);
    // Small enough that a string repeated by every cell stops the load soon.
    excel.SetMaxSheetText(uint64_t{1} << 24);
}

inline void CheckRecordMode(const std::string& bytes, uint8_t options, kv::TMSExcelX& whole) {
    kv::TMSExcelX records;
    Configure(records, options);
    records.SetRecordMode(true);
    kv::TMemoryStream stream(bytes);
    records.LoadFromStream(stream); // the same bytes must load again
    Check(records.Warnings() == whole.Warnings());
    const int sheet = whole.SheetFilter() >= 0 ? whole.SheetFilter() : 0;
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

/// Loads the package whole and row by row; the readers' own errors end it quietly.
inline void CheckPackage(const std::string& bytes, uint8_t options) {
    kv::TMSExcelX excel;
    Configure(excel, options);
    kv::TMemoryStream stream(bytes);
    try {
        excel.LoadFromStream(stream);
    } catch (const kv::Exception&) {
        return;
    }
    for (int s = 0; s < excel.SpreadSheets().Count(); ++s) {
        const kv::TSpreadSheet& sheet = excel.SpreadSheets().Spreadsheet(s);
        Check(kv::IsValidUtf8(sheet.Name()));
        Check(sheet.Cells().RowCount() <= 1048576 && sheet.Cells().ColCount() <= 16384);
        for (int r = 0; r < sheet.Cells().Count(); ++r)
            for (int c = 0; c < sheet.Cells().ColCount(); ++c)
                if (const kv::Variant v = sheet.Cells().GetValue(c, r); v.IsString())
                    Check(kv::IsValidUtf8(v.StringRef()));
    }
    for (const auto& [label, text] : excel.FileProperties()) Check(kv::IsValidUtf8(text));
    CheckRecordMode(bytes, options, excel);
}

} // namespace xlsxfuzz
