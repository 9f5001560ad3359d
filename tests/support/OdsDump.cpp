// How the test of real files reads tests/data/ods: the properties, every sheet with each cell's letters,
// value, type and style, the warnings; and each sheet read again row by row in record mode, which must
// agree.

#include "platform/Streams.h"
#include "readers/archive/KvIOO.h"
#include "support/DataFiles.h"

namespace kv::test {

namespace {

std::string CellText(int col, const Variant& value, TKvICellType type, int style) {
    return GetSpreadSheetColByID(col + 1) + "=" + DumpCellValue(value) + " (" + std::to_string(type) +
           (style >= 0 ? ", style " + std::to_string(style) : std::string()) + ")";
}

} // namespace

std::string DumpOdsFile(const std::string& path) {
    TKvIOpenOfficeSpreadsheet whole;
    whole.LoadFromFile(path);
    std::string out;
    for (const auto& [label, text] : whole.FileProperties()) out += label + ": " + text + "\n";
    std::vector<std::string> rows; // each sheet's rows as whole keeps them, one text per row
    for (int s = 0; s < whole.SpreadSheets().Count(); ++s) {
        const TSpreadSheet& sheet = whole.SpreadSheets().Spreadsheet(s);
        out += "sheet " + std::to_string(s + 1) + ": " + DumpEscape(sheet.Name()) + "\n";
        for (int row = 0; row < sheet.Cells().Count(); ++row) {
            const TSpreadSheetRow* r = sheet.Cells().Row(row);
            std::string line;
            for (int col = 0; r && col < r->Cols().Count(); ++col)
                if (const TKvICell* cell = r->Cols().GetCell(col))
                    line += (line.empty() ? "" : "|") +
                            CellText(col, cell->Value, cell->CellType, cell->FormatIndex);
            out += std::to_string(row + 1) + ": " + line + "\n";
            rows.push_back(std::to_string(s) + "/" + std::to_string(row) + ": " + line);
        }
    }
    for (const std::string& warning : whole.Warnings()) out += "warning: " + warning + "\n";

    TKvIOpenOfficeSpreadsheet records;
    records.SetRecordMode(true);
    TFileStream file(path, fmOpenRead);
    records.LoadFromStream(file);
    std::string line;
    records.OnCellValue = [&](TObject*, int, int, int col, int32_t style, const Variant& value, TAlignment,
                              TKvICellType type) {
        line += (line.empty() ? "" : "|") + CellText(col, value, type, style);
    };
    std::vector<std::string> read;
    for (int s = 0; s < records.SpreadSheets().Count(); ++s) {
        records.SetSheetFilter(s);
        records.BeforeLoad();
        for (int row = 0; row < records.SpreadSheets().Spreadsheet(s).Cells().RowCount(); ++row) {
            line.clear();
            records.LoadRecord(row);
            read.push_back(std::to_string(s) + "/" + std::to_string(row) + ": " + line);
        }
    }
    for (size_t i = 0; i < std::max(rows.size(), read.size()); ++i) {
        const std::string kept = i < rows.size() ? rows[i] : "", got = i < read.size() ? read[i] : "";
        if (kept != got) return out + "record mode: " + got + ", not " + kept + "\n";
    }
    return out;
}

} // namespace kv::test
