// How the test of real files reads tests/data/ics.

#include "platform/DateUtils.h"
#include "platform/FormatSettings.h"
#include "readers/archive/KvIVCalendar.h"
#include "support/DataFiles.h"

namespace kv::test {

static std::string DumpCell(const TKvICell& cell) {
    if (cell.CellType == ictDateTime)
        return FormatDateTime("yyyy-mm-dd hh:nn:ss", cell.Value.AsDateTime(), InvariantFormatSettings());
    return DumpEscape(cell.Value.AsString());
}

std::string DumpVCalendarFile(const std::string& path) {
    TKvIVCalendar calendar;
    calendar.LoadFromFile(path);
    return DumpVCalendar(calendar);
}

std::string DumpVCalendar(TKvIVCalendar& calendar) {
    std::string out = "events: " + std::to_string(calendar.RecordCount()) + "\n";
    for (const TKvIDeclaredField& field : calendar.DeclaredFields())
        out += "field: " + DumpEscape(field.Name) + " " + field.TypeName + " " + std::to_string(field.Size) +
               "\n";
    const TSpreadSheetCells& cells = calendar.SpreadSheets().Spreadsheet(0).Cells();
    const auto& fields = calendar.Fields();
    for (int row = 0; row < cells.Count(); ++row) {
        out += std::to_string(row) + ":";
        const TSpreadSheetCols& cols = cells.Row(row)->Cols();
        const char* separator = " ";
        for (int col = 0; col < cols.Count(); ++col) {
            if (const TKvICell* cell = cols.GetCell(col)) {
                out += separator + DumpEscape(fields[col].FieldName) + "=" + DumpCell(*cell);
                separator = "|";
            }
        }
        out += "\n";
    }
    return out;
}

} // namespace kv::test
