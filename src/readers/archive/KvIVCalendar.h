#pragma once
// TKvIVCalendar: reads a calendar text file (".vcs", ".ics") and delivers each event block, BEGIN:VEVENT
// to END:VEVENT, as one row of sheet 0, with one column per property name met in the file. Whatever lies
// outside the events (the calendar header, to-dos, time zones) is passed over.

#include "cells/KvCells.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace kv {

/// One property name of the events: a column.
struct TKvIVCField {
    /// The text before the first ":" of the line, parameters included ("DTSTART;TZID=Europe/Berlin").
    std::string FieldName;
    /// The longest value seen under this name, in characters.
    int32_t Size = 0;
    /// ictDateTime or ictString, fixed when the name is first met.
    TKvICellType CellType = ictString;
};

/// The fields in order of first appearance; owns them.
class TKvIVCFields {
public:
    int Count() const { return static_cast<int>(items_.size()); }
    /// Field `index`; EListError "List index out of bounds (%d)" when there is none.
    TKvIVCField& Items(int index);
    const TKvIVCField& Items(int index) const;
    TKvIVCField& operator[](int index) { return Items(index); }
    const TKvIVCField& operator[](int index) const { return Items(index); }
    /// Appends a field with size 0; returns its index.
    int Add(std::string fieldName, TKvICellType cellType);
    /// The index of the first field named `name`, ignoring case; -1 when none.
    int GetIndexByFieldName(std::string_view name) const;
    void Clear();

private:
    std::vector<std::unique_ptr<TKvIVCField>> items_;
    /// Case-folded name to the first index, so that a file of many names is not read in quadratic time.
    std::unordered_map<std::string, int> byName_;
};

/// The calendar reader. Lines are read as the file has them (CR LF, LF or a lone CR), with folded lines
/// joined, a byte-order mark skipped and UTF-16 decoded. Values of DTSTAMP, LAST-MODIFIED, DTSTART... and
/// DTEND... are date-times read by the mask "yyyymmddThhnnssZ"; the rest are texts with their escapes
/// (\n, \N, \, \; \\) decoded.
class TKvIVCalendar : public TSpreadSheetFile {
public:
    explicit TKvIVCalendar(TComponent* owner = nullptr);
    ~TKvIVCalendar() override;
    TKvIVCalendar(const TKvIVCalendar&) = delete;
    TKvIVCalendar& operator=(const TKvIVCalendar&) = delete;

    /// The property names met so far, in order: column i of the rows is field i.
    TKvIVCFields& Fields() { return fields_; }
    const TKvIVCFields& Fields() const { return fields_; }

    /// Opens the file read-only and loads it through LoadFromStream.
    void LoadFromFile(const std::string& fileName) override;
    /// Reads the stream from its position to the end and delivers every event as row 0, 1, 2...
    void LoadFromStream(TStream& stream) override;
    /// Names sheet 0 after the file, empties the field list and starts an empty line list.
    void BeforeLoad() override;
    /// Frees the lines.
    void AfterLoad() override;
    /// Takes lines up to the next event and through its end, and delivers the event's properties as row
    /// `index`. Lines before the event are dropped; at the end of the lines nothing is delivered.
    bool LoadRecord(int index) override;

    std::vector<TKvIDeclaredField> DeclaredFields() const override;
    /// The number of events once the file is loaded; -1 before.
    int64_t RecordCount() const override;
    /// ("Events", n) and ("Fields", n).
    std::vector<std::pair<std::string, std::string>> FileProperties() const override;

    std::string ClassName() const override { return "TKvIVCalendar"; }

private:
    /// Takes the next line off the front; false when none is left.
    bool TakeLine(std::string_view& line);
    void DeliverProperty(int row, std::string_view name, std::string_view value);

    TKvIVCFields fields_;
    /// The logical lines, each ended by "\n", folds already joined; taken from `next_` on.
    std::string lines_;
    size_t next_ = 0;
    int64_t events_ = 0;
    int64_t unreadDates_ = 0; ///< date-time values that held no date
    bool loaded_ = false;
};

/// The calendar's text (UTF-8, line ends as they come) as logical lines, each ended by "\n": a line that
/// begins with a blank or a tab continues the one before, without that first character.
std::string UnfoldVCalendarLines(std::string text);
/// A text value with its escapes decoded: \n and \N as a line break, \, \; and \\ as the character;
/// any other backslash stays.
std::string DecodeVCalendarText(std::string_view value);

} // namespace kv
