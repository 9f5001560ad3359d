// Fuzz target: any bytes as a calendar file. The load must not fail; every cell must be delivered to a
// field of its type, date-times as dates and texts as UTF-8 no longer than the field's size; rows must
// stay within the events counted; a second load by the same reader must give the same cells; and the
// unfolded lines must hold no line-end character and never outgrow the text.

#include "platform/Encoding.h"
#include "platform/Streams.h"
#include "platform/Utf8.h"
#include "readers/archive/KvIVCalendar.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

void Check(bool condition, int line = __builtin_LINE()) {
    if (condition) return;
    std::fprintf(stderr, "check failed at line %d\n", line);
    std::abort();
}

struct TDelivered {
    int Row, Column;
    kv::Variant Value;
    kv::TKvICellType Type;
};

std::vector<TDelivered> Load(kv::TKvIVCalendar& calendar, const std::string& bytes) {
    std::vector<TDelivered> cells;
    calendar.OnCellValue = [&](kv::TObject*, int sheet, int row, int column, int32_t format,
                               const kv::Variant& value, kv::TAlignment alignment, kv::TKvICellType type) {
        Check(sheet == 0 && format == 0 && alignment == kv::taLeftJustify);
        cells.push_back({row, column, value, type});
    };
    kv::TMemoryStream stream(bytes);
    calendar.LoadFromStream(stream);
    return cells;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    kv::TKvIVCalendar calendar;
    const std::vector<TDelivered> cells = Load(calendar, bytes);
    const kv::TKvIVCFields& fields = calendar.Fields();
    Check(calendar.RecordCount() >= 0);
    int lastRow = -1;
    for (const TDelivered& cell : cells) {
        Check(cell.Row >= lastRow && cell.Row < calendar.RecordCount() + 1);
        lastRow = cell.Row;
        Check(cell.Column >= 0 && cell.Column < fields.Count());
        const kv::TKvIVCField& field = fields[cell.Column];
        Check(cell.Type == field.CellType);
        if (cell.Type == kv::ictDateTime) {
            Check(cell.Value.VarType() == kv::varDate || cell.Value.IsNull()); // null: an empty value
        } else {
            const std::string& text = cell.Value.AsString();
            Check(kv::IsValidUtf8(text) && static_cast<int64_t>(kv::Utf8Length(text)) <= field.Size);
        }
    }
    for (int i = 0; i < fields.Count(); ++i) {
        Check(kv::IsValidUtf8(fields[i].FieldName));
        Check(fields.GetIndexByFieldName(fields[i].FieldName) <= i);
    }
    Check(static_cast<int>(calendar.DeclaredFields().size()) == fields.Count());

    // A second load starts from nothing and gives the same.
    const int64_t events = calendar.RecordCount();
    const int count = fields.Count();
    const std::vector<TDelivered> again = Load(calendar, bytes);
    Check(calendar.RecordCount() == events && fields.Count() == count && again.size() == cells.size());
    for (size_t i = 0; i < cells.size(); ++i) {
        const kv::Variant& first = cells[i].Value;
        const kv::Variant& second = again[i].Value;
        Check(again[i].Row == cells[i].Row && again[i].Column == cells[i].Column &&
              second.VarType() == first.VarType());
        if (first.IsNull()) continue;
        Check(cells[i].Type == kv::ictDateTime ? second.AsDateTime() == first.AsDateTime()
                                               : second.AsString() == first.AsString());
    }

    const std::string text = kv::DecodeText(bytes);
    const std::string lines = kv::UnfoldVCalendarLines(text);
    Check(lines.size() <= text.size() + 1 && lines.find('\r') == std::string::npos);
    Check(lines.empty() || lines.back() == '\n');
    Check(kv::DecodeVCalendarText(text).size() <= text.size());
    return 0;
}
