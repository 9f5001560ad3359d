// How the test of real files reads tests/data/dbf: the table with its memo file beside it, deleted
// records included.

#include "readers/database/KvDBF.h"
#include "support/DataFiles.h"

namespace kv::test {

std::string DumpDbfFile(const std::string& path) {
    TDBF dbf;
    dbf.SetRecordMode(false);
    dbf.SetLoadRowStatutes(TKvIRowStatuses{rsNormal, rsDeleted});
    dbf.LoadFromFile(path);
    std::string out;
    for (const auto& [label, text] : dbf.FileProperties()) out += label + ": " + text + "\n";
    for (const TKvIDeclaredField& f : dbf.DeclaredFields())
        out += "field " + DumpEscape(f.Name) + ": " + f.TypeName + " " + std::to_string(f.Size) + "." +
               std::to_string(f.Decimals) + "\n";
    const TSpreadSheetCells& cells = dbf.SpreadSheets().Spreadsheet(0).Cells();
    for (int row = 0; row < cells.Count(); ++row) {
        const TSpreadSheetRow& r = *cells.Row(row);
        out += std::to_string(row + 1) + (r.Status() == rsDeleted ? " deleted:" : ":");
        for (int col = 0; col < dbf.FieldCount(); ++col) {
            const TKvICell* cell = r.Cols().GetCell(col);
            out += (col == 0 ? " " : "|") + (cell ? DumpCellValue(cell->Value) : std::string("<null>"));
        }
        out += "\n";
    }
    for (const std::string& warning : dbf.Warnings()) out += "warning: " + warning + "\n";
    return out;
}

} // namespace kv::test
