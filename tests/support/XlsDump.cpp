// How the test of real files reads tests/data/xls: every sheet of the workbook, each cell with its letters.

#include "readers/spreadsheet/KvXLS.h"
#include "support/DataFiles.h"

namespace kv::test {

std::string DumpXlsFile(const std::string& path) {
    TMSExcel excel;
    excel.LoadFromFile(path);
    std::string out;
    for (const auto& [label, text] : excel.FileProperties()) out += label + ": " + text + "\n";
    for (int s = 0; s < excel.SpreadSheets().Count(); ++s) {
        const TSpreadSheet& sheet = excel.SpreadSheets().Spreadsheet(s);
        out += "sheet " + std::to_string(s + 1) + ": " + DumpEscape(sheet.Name()) + "\n";
        for (int row = 0; row < sheet.Cells().Count(); ++row) {
            const TSpreadSheetRow* r = sheet.Cells().Row(row);
            if (!r) continue;
            std::string line;
            for (int col = 0; col < r->Cols().Count(); ++col)
                if (const TKvICell* cell = r->Cols().GetCell(col))
                    line += (line.empty() ? "" : "|") + GetSpreadSheetColByID(col + 1) + "=" +
                            DumpCellValue(cell->Value);
            out += std::to_string(row + 1) + ": " + line + "\n";
        }
    }
    for (const std::string& warning : excel.Warnings()) out += "warning: " + warning + "\n";
    return out;
}

} // namespace kv::test
