#pragma once
// What both Excel 2007+ fuzz targets check of a package: it loads or fails with one of the library's own
// errors; every cell lies inside a sheet's limits with UTF-8 text; and the sheet read row by row in record
// mode gives each row as the whole load keeps it.

#include "platform/Exceptions.h"
#include "platform/Streams.h"
#include "platform/Utf8.h"
#include "readers/spreadsheet/KvXLS.h"
#include "record_mode_check.h"

#include <cstdint>
#include <string>

namespace xlsxfuzz {

using fuzzcheck::Check;

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
    fuzzcheck::CompareRecords(whole, records, whole.SheetFilter() >= 0 ? whole.SheetFilter() : 0);
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
        // Row by row over the cells kept: a sheet may hold a cell far down and one far right.
        for (int r = 0; r < sheet.Cells().Count(); ++r) {
            const kv::TSpreadSheetRow* row = sheet.Cells().Row(r);
            for (int c = 0; row && c < row->Cols().Count(); ++c)
                if (const kv::TKvICell* cell = row->Cols().GetCell(c); cell && cell->Value.IsString())
                    Check(kv::IsValidUtf8(cell->Value.StringRef()));
        }
    }
    for (const auto& [label, text] : excel.FileProperties()) Check(kv::IsValidUtf8(text));
    CheckRecordMode(bytes, options, excel);
}

} // namespace xlsxfuzz
