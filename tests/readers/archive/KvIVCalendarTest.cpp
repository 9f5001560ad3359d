// Reading calendars: events to rows, property names to columns, folded lines, escapes, encodings,
// date-times, bad input and the calendars of the shared corpus. The files of tests/data/ics, walked by
// the data-file test, add folding, escapes, lone-CR line ends and a file without events.

#include "readers/archive/KvIVCalendar.h"
#include "TestSupport.h"
#include "platform/DateUtils.h"
#include "platform/Encoding.h"
#include "platform/StringList.h"
#include "platform/Utf8.h"
#include "support/DataFiles.h"

#include <filesystem>
#include <map>
#include <sstream>

namespace kv {
namespace {

// The calendar as the data-file test dumps it, and how often the load read a record.
std::string Dump(const std::string& bytes) {
    struct TCounting : TKvIVCalendar {
        int Records = 0;
        bool LoadRecord(int index) override {
            ++Records;
            return TKvIVCalendar::LoadRecord(index);
        }
    } calendar;
    TStringStream stream(bytes);
    calendar.LoadFromStream(stream);
    return test::DumpVCalendar(calendar) + "records: " + std::to_string(calendar.Records) + "\n";
}

std::string ToUtf16(std::string_view utf8, bool bigEndian) { // the texts here stay in the basic plane
    std::string out = bigEndian ? "\xFE\xFF" : "\xFF\xFE";
    for (char32_t c : Utf8ToU32(utf8)) {
        const char high = static_cast<char>(c >> 8), low = static_cast<char>(c & 0xFF);
        out += bigEndian ? std::string{high, low} : std::string{low, high};
    }
    return out;
}

TEST(VCalendarFields, FindNamesIgnoringCaseAndKeepTheFirst) {
    TKvIVCFields fields;
    fields.Add("DTSTART", ictDateTime);
    fields.Add("Größe", ictString);
    EXPECT_EQ(fields.Add("dtstart", ictString), 2); // only a lookup ignores case; Add takes what it gets
    EXPECT_EQ(fields.GetIndexByFieldName("DtStart"), 0);
    EXPECT_EQ(fields.GetIndexByFieldName("GRÖßE"), 1);
    EXPECT_EQ(fields.GetIndexByFieldName("GRÖSSE"), -1);
    EXPECT_EQ(fields.GetIndexByFieldName("DTSTART;TZID=X"), -1);
    EXPECT_EQ(test::ErrorOf([&] { fields.Items(3); }), "List index out of bounds (3)");
}

TEST(VCalendarText, UnfoldsLinesAndDecodesOnlyItsEscapes) {
    const std::pair<const char*, const char*> unfold[] = {
        {"", ""},
        {"a\rb\nc", "a\nb\nc\n"}, // every line gets its line end, the last one too
        {"a\r\r\n\nb", "a\n\n\nb\n"},
        {"a\n\n b", "a\nb\n"}, // continues the empty line
        {" a\nb", "a\nb\n"},   // nothing to continue at the start
        {"a\n \n \n", "a\n"},  // folds of nothing at the end
    };
    for (const auto& [text, lines] : unfold)
        EXPECT_EQ(UnfoldVCalendarLines(text), lines) << test::DumpEscape(text);
    const std::pair<const char*, const char*> decode[] = {
        {"c:\\\\new", "c:\\new"}, // an escaped backslash does not start another escape
        {"\\\\\\,", "\\,"},
        {"\\:\\t\\ x", "\\:\\t\\ x"}, // not escapes
        {"end\\", "end\\"},
    };
    for (const auto& [value, text] : decode) EXPECT_EQ(DecodeVCalendarText(value), text) << value;
}

// Each text is read with every line end, plain, after a UTF-8 byte-order mark and as UTF-16 of both
// byte orders.
TEST(VCalendarReader, EventsBecomeRowsAndNamesColumns) {
    const struct {
        const char* Name;
        const char* Text;
        const char* Dump;
    } cases[] = {
        {"the type follows the name as first met, which the lookup finds in any case",
         "BEGIN:VEVENT\ndtstart:20240101T100000Z\nDTSTAMP:20161201T000000Z\nDTSTAMPX:20161203\n"
         "CREATED:20161204\nDTEND:20240103T100000Z\nEND:VEVENT\n"
         "BEGIN:VEVENT\nDTSTART:20240102T100000Z\ndtend:20240104\nEND:VEVENT\n",
         "events: 2\nfield: dtstart String 16\nfield: DTSTAMP DateTime 16\nfield: DTSTAMPX String 8\n"
         "field: CREATED String 8\nfield: DTEND DateTime 16\n0: dtstart=20240101T100000Z|"
         "DTSTAMP=2016-12-01 00:00:00|DTSTAMPX=20161203|CREATED=20161204|DTEND=2024-01-03 10:00:00\n"
         "1: dtstart=20240102T100000Z|DTEND=2024-01-04 00:00:00\nrecords: 2\n"},
        {"the value is all after the first colon, parameters quoted or not; a line without one is skipped",
         "BEGIN:VEVENT\nURL:http://example.org:8080/a\nORGANIZER;CN=\"Doe, Jane\":mailto:j@example.org\n"
         "ATTENDEE;DELEGATED-FROM=\"mailto:a@example.org\":mailto:b@example.org\n:no "
         "name\nX-NONE\nEND:VEVENT\n",
         "events: 1\nfield: URL String 25\nfield: ORGANIZER;CN=\"Doe, Jane\" String 20\n"
         "field: ATTENDEE;DELEGATED-FROM=\"mailto String 35\nfield:  String 7\n"
         "0: URL=http://example.org:8080/a|ORGANIZER;CN=\"Doe, Jane\"=mailto:j@example.org|"
         "ATTENDEE;DELEGATED-FROM=\"mailto=a@example.org\":mailto:b@example.org|=no name\nrecords: 1\n"},
        {"event lines match exactly; an empty event is counted; an event without its end runs to the end",
         "BEGIN:VEVENT\nEND:VEVENT\nbegin:vevent\nSUMMARY:a\nend:vevent\nBEGIN:VEVENT \nSUMMARY:b\n"
         "BEGIN:VEVENT\nSUMMARY:c\nEND:VEVENT \nSUMMARY:d\nEND:VEVENT\nSUMMARY:e\n"
         "BEGIN:VEVENT\nSUMMARY:f\nEND:VCALENDAR",
         "events: 3\nfield: SUMMARY String 1\nfield: END String 9\n0:\n1: SUMMARY=d|END=VEVENT \n"
         "2: SUMMARY=f|END=VCALENDAR\nrecords: 3\n"},
        {"folds anywhere, escapes; the last record read takes the lines after the last event",
         "BEGIN:VCALENDAR\nBEGIN:VEV\n ENT\nSUMMARY:Caf\xC3\xA9\\, bar\n\t\\Nbaz\nDTSTART:20240315T\n "
         "093000Z\n"
         "END:VEVENT\nEND:VCALENDAR\n",
         "events: 1\nfield: SUMMARY String 13\nfield: DTSTART DateTime 16\n"
         "0: SUMMARY=Café, bar\\nbaz|DTSTART=2024-03-15 09:30:00\nrecords: 2\n"},
        {"a file without events reads one record", "BEGIN:VCALENDAR\nVERSION:2.0\nEND:VCALENDAR\n",
         "events: 0\nrecords: 1\n"},
    };
    for (const auto& c : cases) {
        for (const char* end : {"\r\n", "\n", "\r"}) {
            std::string text;
            for (const char* p = c.Text; *p; ++p) text += *p == '\n' ? std::string(end) : std::string(1, *p);
            for (const std::string& bytes :
                 {text, "\xEF\xBB\xBF" + text, ToUtf16(text, false), ToUtf16(text, true)})
                EXPECT_EQ(Dump(bytes), c.Dump)
                    << c.Name << ": " << test::DumpEscape(bytes.substr(0, 4)) << " " << test::DumpEscape(end);
        }
    }
}

TEST(VCalendarReader, OwnCellHandlerGetsTypedValuesAndLeavesTheWorkbookEmpty) {
    // One event per value, after one with a text. A value that holds no valid date is null, never
    // 1899-12-30, and only the first such one is warned of.
    const std::pair<const char*, const char*> dates[] = {
        {"20100226T080000Z", "2010-02-26 08:00:00"},
        {"19870405T020000", "1987-04-05 02:00:00"},
        {"20021226", "2002-12-26 00:00:00"},
        {"20240229T235959Z", "2024-02-29 23:59:59"},
        {"20240115T250000Z", "2024-01-15 00:00:00"}, // the date holds; the impossible time reads as 0
        {"", "null"},                                // nothing to warn of
        {"20240230T120000Z", "null"},                // event 8: the one warned of
        {"2024-01-15", "null"},
        {"not a date", "null"}};
    std::string text = "BEGIN:VEVENT\nSUMMARY:a\\,b\nEND:VEVENT\n";
    std::vector<std::string> expected = {"0 0 S a,b"}, seen;
    for (const auto& [value, read] : dates) {
        text += std::string("BEGIN:VEVENT\nDTSTART:") + value + "\nEND:VEVENT\n";
        expected.push_back(std::to_string(expected.size()) + " 1 D " + read);
    }
    TKvIVCalendar calendar;
    calendar.OnCellValue = [&](TObject* sender, int sheet, int row, int column, int32_t format,
                               const Variant& value, TAlignment alignment, TKvICellType type) {
        EXPECT_TRUE(sender == &calendar && sheet == 0 && format == 0 && alignment == taLeftJustify);
        seen.push_back(
            std::to_string(row) + " " + std::to_string(column) + (type == ictDateTime ? " D " : " S ") +
            (value.IsNull()               ? "null"
             : value.VarType() == varDate ? FormatDateTime("yyyy-mm-dd hh:nn:ss", value.AsDateTime())
                                          : value.AsString()));
    };
    TStringStream stream(text);
    calendar.LoadFromStream(stream);
    EXPECT_EQ(seen, expected);
    EXPECT_EQ(calendar.SpreadSheets().Spreadsheet(0).Cells().Count(), 0);
    EXPECT_EQ(calendar.RecordCount(), 10);
    ASSERT_EQ(calendar.Warnings().size(), 1u);
    EXPECT_TRUE(calendar.Warnings()[0].starts_with("event 8: DTSTART \"20240230T120000Z\""))
        << calendar.Warnings()[0];
}

TEST(VCalendarReader, BadInputNeitherFailsNorHangs) {
    static const char kNuls[] = "BEGIN:VEVENT\nSUM\0:a\0b\nEND:VEVENT\n";
    const std::string longText(1 << 22, 'x');
    std::string folds = "BEGIN:VEVENT\nDESCRIPTION:";
    for (int i = 0; i < 100000; ++i) folds += "\r\n y";
    const struct {
        const char* Name;
        std::string Bytes;
        std::string Dump; ///< "" when only the lack of failure counts
    } cases[] = {
        {"empty", "", "events: 0\nrecords: 0\n"},
        {"a byte-order mark and line ends", "\xEF\xBB\xBF\r\n\r\n\n\r", "events: 0\nrecords: 1\n"},
        {"NUL bytes", std::string(kNuls, sizeof kNuls - 1),
         "events: 1\nfield: SUM\\x00 String 3\n0: SUM\\x00=a\\x00b\nrecords: 1\n"},
        {"bytes that are no UTF-8 read as Windows-1252", "BEGIN:VEVENT\nSUMMARY:\xC3(\x80\nEND:VEVENT\n",
         "events: 1\nfield: SUMMARY String 3\n0: SUMMARY=Ã(€\nrecords: 1\n"},
        {"an odd byte of UTF-16", std::string("\377\376B\0E\0G", 7), ""},
        {"a huge line", "BEGIN:VEVENT\nSUMMARY:" + longText + "\nEND:VEVENT",
         "events: 1\nfield: SUMMARY String 4194304\n0: SUMMARY=" + longText + "\nrecords: 1\n"},
        {"endless folding", folds,
         "events: 1\nfield: DESCRIPTION String 100000\n0: DESCRIPTION=" + std::string(100000, 'y') +
             "\nrecords: 1\n"},
    };
    for (const auto& c : cases) {
        std::string dump;
        EXPECT_EQ(test::ErrorOf([&] { dump = Dump(c.Bytes); }), "") << c.Name;
        EXPECT_TRUE(IsValidUtf8(dump)) << c.Name;
        if (!c.Dump.empty()) {
            EXPECT_EQ(dump, c.Dump) << c.Name;
        }
    }
}

TEST(VCalendarReader, DescribesTheFileAndNamesTheSheetAfterIt) {
    test::TempDir dir;
    const std::string path = dir.File("team.ics");
    test::WriteFile(path, "BEGIN:VEVENT\nDTSTART:20240101\nSUMMARY:Ski\\, trip\nEND:VEVENT\n");
    TKvIVCalendar calendar;
    EXPECT_EQ(calendar.RecordCount(), -1);
    calendar.LoadFromFile(path);
    EXPECT_EQ(calendar.SpreadSheets().Spreadsheet(0).Name(), "team.ics");
    EXPECT_EQ(calendar.FileProperties(),
              (std::vector<std::pair<std::string, std::string>>{{"Events", "1"}, {"Fields", "2"}}));
    std::string declared;
    for (const TKvIDeclaredField& d : calendar.DeclaredFields())
        declared += d.Name + " " + d.TypeName + (d.CellType == ictDateTime ? " D " : " S ") +
                    std::to_string(d.Size) + "\n";
    EXPECT_EQ(declared, "DTSTART DateTime D 8\nSUMMARY String S 9\n");
    // Every load starts again from nothing: the name found before at 1 is now at 0.
    test::WriteFile(path, "BEGIN:VEVENT\nSUMMARY:u\nEND:VEVENT\n");
    calendar.LoadFromFile(path);
    EXPECT_EQ(test::DumpVCalendar(calendar), "events: 1\nfield: SUMMARY String 1\n0: SUMMARY=u\n");
    EXPECT_EQ(test::ErrorOf([&] { calendar.LoadFromFile(dir.File("missing.ics")); }), "File does not exist.");
}

// ---- the shared corpus ----

std::string CorpusDir() {
    return KV_SHARED_DIR "/corpus/ics/";
}

#define SKIP_WITHOUT_CORPUS()                                                                                \
    if (!std::filesystem::is_directory(CorpusDir())) GTEST_SKIP() << "no calendar corpus at " << CorpusDir()

// Every file loads; the known ones hold the events and values given here, and those with a twin in
// expected/ (the first event as another program saw it, in sections of "key = value" lines) agree with
// it on what both name.
TEST(VCalendarCorpus, FilesReadAsExpected) {
    SKIP_WITHOUT_CORPUS();
    // big_bad_calendar: empty events, counted; calendar_with_unicode: only the calendar's properties;
    // 02.vcs: a to-do; issue_1050: two calendars of one event each.
    std::map<std::string, int64_t> events; // the file, then the events it holds
    std::istringstream counts(
        "issue_1050_multiple_calendars.ics 2 k770.vcs 2 2445.ics 6 UK32Holidays.ics 69 "
        "large.ics 1458 big_bad_calendar.ics 20 small_bad_calendar.ics 1 bom_calendar.ics 0 "
        "calendar_with_unicode.ics 0 02.vcs 0");
    for (std::string file; counts >> file;) counts >> events[file];
    const struct {
        const char* File;
        int Row;
        const char* Column;
        const char* Value;
    } values[] = {
        {"issue_1050_multiple_calendars.ics", 1, "SUMMARY", "Event 2"},
        {"issue_101_icalendar_chokes_on_umlauts_in_organizer.ics", 0, "ORGANIZER;CN=\"acme, ädmin\"",
         "mailto:adm-acme@mydomain.de"},
        // The escaped colon inside the parameter ends the name: the rest, colon first, is the value.
        {"event_with_escaped_characters.ics", 0, "ORGANIZER;CN=that\\, that\\; %th%%at%\\ that\\",
         ":это, то; that\\ %th%%at%\\:"},
        // Joined from four folded lines, a fold's second blank kept, its escapes decoded.
        {"issue_53_description_parsed_properly.ics", 0, "DESCRIPTION",
         "DevOpsDC\nThursday, July 12 at 6:30 PM\n\nThis will be a joint meetup / hack night with the DC "
         "jQuery Users Group.   The idea behind the hack night:  Small teams consisting of at least 1 "
         "member...\n\nDetails: http://www.meetup.com/DevOpsDC/events/47635522/"}};
    const std::pair<const char*, const char*> twinKeys[] = {
        {"StartTime", "DTSTART"}, {"StopTime", "DTEND"},          {"LastModified", "LAST-MODIFIED"},
        {"Text", "SUMMARY"},      {"Description", "DESCRIPTION"}, {"EventLocation", "LOCATION"}};
    size_t files = 0, checked = 0, twins = 0;
    for (const auto& entry : std::filesystem::directory_iterator(CorpusDir())) {
        if (!entry.is_regular_file()) continue;
        ++files;
        const std::string name = entry.path().filename().string();
        SCOPED_TRACE(name);
        TKvIVCalendar calendar;
        EXPECT_EQ(test::ErrorOf([&] { calendar.LoadFromFile(entry.path().string()); }), "");
        TSpreadSheetCells& cells = calendar.SpreadSheets().Spreadsheet(0).Cells();
        EXPECT_LE(cells.Count(), calendar.RecordCount());
        if (const auto it = events.find(name); it != events.end()) {
            EXPECT_EQ(calendar.RecordCount(), it->second);
            events.erase(it);
        }
        for (const auto& v : values) {
            if (name != v.File) continue;
            ++checked;
            const int column = calendar.Fields().GetIndexByFieldName(v.Column);
            ASSERT_GE(column, 0) << v.Column;
            EXPECT_EQ(cells.GetValue(column, v.Row).AsString(), v.Value) << v.Column;
        }
        const std::string twin = CorpusDir() + "expected/" + entry.path().stem().string() + ".backup";
        if (!std::filesystem::exists(twin)) continue;
        TStringList backup;
        backup.SetText(DecodeText(ReadFileBytes(twin)));
        std::map<std::string, std::string> event; // the "key = value" lines of the first event
        for (int i = backup.IndexOf("[Calendar001]") + 1;
             i > 0 && i < backup.Count() && !backup[i].starts_with("["); ++i)
            if (const size_t eq = backup[i].find(" = "); eq != std::string::npos)
                event.emplace(backup[i].substr(0, eq), backup[i].substr(eq + 3));
        if (event.empty()) continue; // a to-do only
        ++twins;
        int compared = 0;
        for (const auto& [key, property] : twinKeys) {
            const auto it = event.find(key);
            int column = -1; // the property's, with or without parameters (not the quoted-printable one)
            for (int i = 0; it != event.end() && column < 0 && i < calendar.Fields().Count(); ++i) {
                const std::string& field = calendar.Fields()[i].FieldName;
                if (field.substr(0, field.find(';')) == property &&
                    field.find("ENCODING=") == std::string::npos)
                    column = i;
            }
            if (column < 0) continue;
            SCOPED_TRACE(key);
            const TKvICell* cell = cells.Row(0)->Cols().GetCell(column);
            ASSERT_NE(cell, nullptr);
            std::string expected = it->second;
            if (cell->CellType == ictDateTime) {
                if (expected.ends_with("Z")) expected.pop_back();
                EXPECT_EQ(FormatDateTime("yyyymmdd\"T\"hhnnss", cell->Value.AsDateTime()), expected);
            } else { // quoted, with the calendar's escapes
                EXPECT_EQ(cell->Value.AsString(),
                          DecodeVCalendarText(expected.substr(1, expected.size() - 2)));
            }
            ++compared;
        }
        EXPECT_GE(compared, 1);
    }
    EXPECT_GT(files, 0u);
    EXPECT_TRUE(events.empty()) << events.begin()->first;
    EXPECT_EQ(checked, std::size(values));
    EXPECT_GE(twins, 8u);
}

} // namespace
} // namespace kv
