#include "readers/archive/KvIVCalendar.h"

#include "expression/KvIPars.h"
#include "platform/Encoding.h"
#include "platform/Exceptions.h"
#include "platform/SysUtils.h"
#include "platform/Utf8.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <utility>

namespace kv {

namespace {

// The key under which CompareText finds two names equal: each character upper-cased.
std::string FoldedName(std::string_view name) {
    if (IsAscii(name)) return UpperCase(name);
    std::string key;
    key.reserve(name.size());
    for (size_t pos = 0; pos < name.size();) Utf8Append(key, CharUpper(Utf8Decode(name, pos)));
    return key;
}

// The type is decided once, by the name as first met: "dtstart" in lower case stays a text column.
TKvICellType CellTypeOfName(std::string_view name) {
    if (name == "DTSTAMP" || name == "LAST-MODIFIED" || name.starts_with("DTSTART") ||
        name.starts_with("DTEND"))
        return ictDateTime;
    return ictString;
}

const TKvDateMask& DateTimeMask() {
    static const TKvDateMask mask("yyyymmddThhnnssZ", 0, 0);
    return mask;
}

} // namespace

// ---- TKvIVCFields ----

TKvIVCField& TKvIVCFields::Items(int index) {
    return const_cast<TKvIVCField&>(std::as_const(*this).Items(index));
}

const TKvIVCField& TKvIVCFields::Items(int index) const {
    if (index < 0 || index >= Count()) throw EListError("List index out of bounds (" + IntToStr(index) + ")");
    return *items_[static_cast<size_t>(index)];
}

int TKvIVCFields::Add(std::string fieldName, TKvICellType cellType) {
    const int index = Count();
    byName_.emplace(FoldedName(fieldName), index); // an earlier field of the same name stays the one found
    items_.push_back(std::make_unique<TKvIVCField>(TKvIVCField{std::move(fieldName), 0, cellType}));
    return index;
}

int TKvIVCFields::GetIndexByFieldName(std::string_view name) const {
    const auto it = byName_.find(FoldedName(name));
    return it == byName_.end() ? -1 : it->second;
}

void TKvIVCFields::Clear() {
    items_.clear();
    byName_.clear();
}

// ---- helpers ----

std::string UnfoldVCalendarLines(std::string text) {
    // Done in place: a line never grows, and a joined one loses its line end and its first character,
    // so what is written never overtakes what is still to be read.
    size_t read = 0, write = 0;
    bool hasLine = false;
    while (read < text.size()) {
        size_t end = read;
        while (end < text.size() && text[end] != '\r' && text[end] != '\n') ++end;
        size_t from = read;
        if (from < end && (text[from] == ' ' || text[from] == '\t')) {
            ++from;
            if (hasLine) --write; // the "\n" that ended the line it continues
        }
        std::memmove(text.data() + write, text.data() + from, end - from);
        write += end - from;
        read = end;
        if (read < text.size() && text[read] == '\r') ++read; // CR, CR LF or LF
        if (read < text.size() && text[read] == '\n') ++read;
        if (write == read) {
            // The last line, without a line end of its own, and nothing joined before it: no room.
            text.resize(write);
            text.push_back('\n');
            return text;
        }
        text[write++] = '\n';
        hasLine = true;
    }
    text.resize(write);
    return text;
}

std::string DecodeVCalendarText(std::string_view value) {
    size_t slash = value.find('\\');
    if (slash == std::string_view::npos) return std::string(value);
    std::string out(value.substr(0, slash));
    out.reserve(value.size());
    for (size_t i = slash; i < value.size(); ++i) {
        const char c = value[i];
        if (c != '\\' || i + 1 == value.size()) {
            out.push_back(c);
            continue;
        }
        switch (const char next = value[i + 1]) {
        case 'n':
        case 'N':
            out.push_back('\n');
            ++i;
            break;
        case ',':
        case ';':
        case '\\':
            out.push_back(next);
            ++i;
            break;
        default:
            out.push_back('\\'); // not an escape: kept, and the next character read as it stands
        }
    }
    return out;
}

// ---- TKvIVCalendar ----

TKvIVCalendar::TKvIVCalendar(TComponent* owner) : TSpreadSheetFile(owner) {
    SetNameKind(nkFieldName);
}

TKvIVCalendar::~TKvIVCalendar() {
    if (RecordMode()) TKvIVCalendar::AfterLoad();
}

void TKvIVCalendar::LoadFromFile(const std::string& fileName) {
    TSpreadSheetFile::LoadFromFile(fileName);
    TFileStream stream(fileName, fmOpenRead | fmShareDenyNone);
    stream.SetPosition(0);
    LoadFromStream(stream);
}

void TKvIVCalendar::LoadFromStream(TStream& stream) {
    // The base hooks the storing handlers; a load from a file has done so already, and doing it again
    // changes nothing.
    TSpreadSheetFile::LoadFromStream(stream);
    BeforeLoad();
    lines_ = UnfoldVCalendarLines(DecodeText(stream.ReadAll()));
    for (int row = 0; next_ < lines_.size(); ++row) LoadRecord(row);
    loaded_ = true;
    if (!RecordMode()) AfterLoad();
}

void TKvIVCalendar::BeforeLoad() {
    TSpreadSheetFile::BeforeLoad();
    // Without a file name (a stream) the sheet keeps its own name.
    if (!FileName().empty())
        SpreadSheets().Spreadsheet(0).SetName(std::filesystem::path(FileName()).filename().string());
    else
        SpreadSheets().Spreadsheet(0);
    fields_.Clear();
    lines_.clear();
    next_ = 0;
    events_ = 0;
    unreadDates_ = 0;
    ClearWarnings();
    loaded_ = false;
}

void TKvIVCalendar::AfterLoad() {
    std::string().swap(lines_);
    next_ = 0;
    TSpreadSheetFile::AfterLoad();
}

bool TKvIVCalendar::TakeLine(std::string_view& line) {
    if (next_ >= lines_.size()) return false;
    const size_t end = lines_.find('\n', next_); // every line ends with one
    line = std::string_view(lines_).substr(next_, end - next_);
    next_ = end + 1;
    return true;
}

bool TKvIVCalendar::LoadRecord(int index) {
    const bool result = TSpreadSheetFile::LoadRecord(index);
    std::string_view line;
    bool inEvent = false;
    while (!inEvent && TakeLine(line)) inEvent = line == "BEGIN:VEVENT";
    if (!inEvent) return result;
    ++events_;
    // Blocks inside the event (an alarm) are not recognised: their BEGIN and END lines are properties.
    while (TakeLine(line) && line != "END:VEVENT") {
        const size_t colon = line.find(':');
        if (colon != std::string_view::npos)
            DeliverProperty(index, line.substr(0, colon), line.substr(colon + 1));
    }
    UpdateProgress(static_cast<int64_t>(next_), static_cast<int64_t>(lines_.size()));
    return result;
}

void TKvIVCalendar::DeliverProperty(int row, std::string_view name, std::string_view value) {
    int column = fields_.GetIndexByFieldName(name);
    if (column < 0) column = fields_.Add(std::string(name), CellTypeOfName(name));
    TKvIVCField& field = fields_[column];

    Variant cell;
    size_t length;
    if (field.CellType == ictDateTime) {
        // A date alone fits the mask (midnight). A value that holds no valid date is left empty rather
        // than read as the mask's 1899-12-30, and the load says so once.
        TDateTime dt = 0;
        if (!Trim(value).empty() && DateTimeMask().TryRead(value, dt)) {
            cell = Variant::FromDateTime(dt);
        } else {
            cell = Variant::Null();
            if (!Trim(value).empty() && unreadDates_++ == 0)
                AddWarning("event " + IntToStr(row + 1) + ": " + std::string(name) + " \"" +
                           std::string(value.substr(0, 40)) +
                           "\" is no date of the form yyyymmddThhnnssZ and is left empty, as is any other "
                           "such value");
        }
        length = Utf8Length(value);
    } else {
        std::string text = DecodeVCalendarText(value);
        length = Utf8Length(text);
        cell = Variant(std::move(text));
    }
    const auto size = static_cast<int32_t>(std::min<size_t>(length, INT32_MAX));
    if (size > field.Size) field.Size = size;
    if (OnCellValue) OnCellValue(this, 0, row, column, 0, cell, taLeftJustify, field.CellType);
}

std::vector<TKvIDeclaredField> TKvIVCalendar::DeclaredFields() const {
    std::vector<TKvIDeclaredField> declared;
    declared.reserve(static_cast<size_t>(fields_.Count()));
    for (int i = 0; i < fields_.Count(); ++i) {
        const TKvIVCField& field = fields_[i];
        TKvIDeclaredField d;
        d.Name = field.FieldName;
        d.CellType = field.CellType;
        d.Size = field.Size;
        d.TypeName = field.CellType == ictDateTime ? "DateTime" : "String";
        declared.push_back(std::move(d));
    }
    return declared;
}

int64_t TKvIVCalendar::RecordCount() const {
    return loaded_ ? events_ : -1;
}

std::vector<std::pair<std::string, std::string>> TKvIVCalendar::FileProperties() const {
    return {{"Events", IntToStr(events_)}, {"Fields", IntToStr(fields_.Count())}};
}

} // namespace kv
