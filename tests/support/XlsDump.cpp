// How the test of real files reads tests/data/xls and tests/data/xlsx: every sheet of the workbook, each
// cell with its letters, and the same sheets read row by row in record mode, which must agree.

#include "platform/Streams.h"
#include "readers/spreadsheet/KvXLS.h"
#include "support/DataFiles.h"

#include <functional>
#include <map>

namespace kv::test {

namespace {

template <class TReader>
std::string RecordModeDifference(TReader& whole, TStream& workbook,
                                 const std::function<void(TReader&)>& configure);

template <class TReader> std::string DumpExcelFile(const std::string& path) {
    TReader excel;
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
    TFileStream file(path, fmOpenRead);
    const std::string difference = RecordModeDifference<TReader>(excel, file, nullptr);
    if (!difference.empty()) out += "record mode: " + difference + "\n";
    return out;
}

} // namespace

std::string DumpXlsFile(const std::string& path) {
    return DumpExcelFile<TMSExcel>(path);
}

std::string DumpXlsxFile(const std::string& path) {
    return DumpExcelFile<TMSExcelX>(path);
}

namespace {

std::string CellText(int col, const Variant& value, TKvICellType type, int xf, TAlignment alignment) {
    return GetSpreadSheetColByID(col + 1) + "=" + DumpCellValue(value) + " (" + std::to_string(type) + "," +
           std::to_string(xf) + "," + std::to_string(alignment) + ")";
}

template <class TReader>
std::string RecordModeDifference(TReader& whole, TStream& workbook,
                                 const std::function<void(TReader&)>& configure) {
    const int64_t start = workbook.Position();
    for (int s = 0; s < whole.SpreadSheets().Count(); ++s) {
        const TSpreadSheetCells& kept = whole.SpreadSheets().Spreadsheet(s).Cells();
        for (const bool late : {false, true}) {
            const std::string where = "sheet " + std::to_string(s + 1) + (late ? ", chosen late" : "") + ": ";
            TReader records;
            records.SetRecordMode(true);
            if (configure) configure(records);
            records.SetFileName(whole.FileName());
            records.SetSheetFilter(late ? -1 : s);
            int atRow = -1;
            std::map<int, std::string> row; // by column: a later cell in one place replaces the earlier
            std::string problem;
            records.OnCellValue = [&](TObject*, int sheet, int r, int col, int32_t xf, const Variant& value,
                                      TAlignment alignment, TKvICellType type) {
                if (sheet != s || r != atRow)
                    problem = "a cell of sheet " + std::to_string(sheet + 1) + ", row " +
                              std::to_string(r + 1) + " reported";
                row[col] = CellText(col, value, type, xf, alignment);
            };
            workbook.Seek(start, soBeginning);
            records.LoadFromStream(workbook);
            if (late) {
                if (records.Warnings() != whole.Warnings()) return where + "other warnings";
                if (records.FileProperties() != whole.FileProperties()) return where + "other properties";
                records.SetSheetFilter(s);
            }
            const TSpreadSheetCells& counted = records.SpreadSheets().Spreadsheet(s).Cells();
            if (counted.RowCount() != kept.RowCount() || counted.ColCount() != kept.ColCount())
                return where + "other sizes";
            for (int pass = 0; pass < 2; ++pass) {
                records.BeforeLoad();
                for (atRow = 0; atRow < kept.RowCount(); ++atRow) {
                    row.clear();
                    records.LoadRecord(atRow);
                    std::string got, expected;
                    for (const auto& [col, cell] : row) got += (got.empty() ? "" : "|") + cell;
                    const TSpreadSheetRow* r = kept.Row(atRow);
                    for (int col = 0; r && col < r->Cols().Count(); ++col)
                        if (const TKvICell* cell = r->Cols().GetCell(col))
                            expected +=
                                (expected.empty() ? "" : "|") + CellText(col, cell->Value, cell->CellType,
                                                                         cell->FormatIndex, cell->Alignment);
                    if (!problem.empty()) return where + problem;
                    if (got != expected)
                        return where + "row " + std::to_string(atRow + 1) + " gives " + got + ", not " +
                               expected;
                }
            }
        }
    }
    return "";
}

} // namespace

std::string XlsRecordModeDifference(TMSExcel& whole, TStream& workbook, const std::string& password) {
    return RecordModeDifference<TMSExcel>(whole, workbook, [&](TMSExcel& r) { r.SetPassword(password); });
}

std::string XlsxRecordModeDifference(TMSExcelX& whole, TStream& workbook) {
    return RecordModeDifference<TMSExcelX>(whole, workbook, nullptr);
}

} // namespace kv::test
