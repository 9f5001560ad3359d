// Reading calendars: events to rows, property names to columns, folded lines, escapes, encodings,
// date-times, bad input and the calendars of the shared corpus.

#include "readers/archive/KvIVCalendar.h"
#include "TestSupport.h"
#include "platform/DateUtils.h"
#include "platform/Encoding.h"
#include "platform/Exceptions.h"
#include "platform/StringList.h"
#include "platform/Utf8.h"
#include "support/DataFiles.h"

#include <filesystem>
#include <map>

namespace kv {
namespace {

std::string Dump(const std::string& bytes) {
    TKvIVCalendar calendar;
    TStringStream stream(bytes);
    calendar.LoadFromStream(stream);
    return test::DumpVCalendar(calendar);
}

std::string ToUtf16(std::string_view utf8, bool bigEndian) {
    std::string out = bigEndian ? "\xFE\xFF" : "\xFF\xFE";
    for (char32_t c : Utf8ToU32(utf8)) {
        const auto unit = static_cast<char16_t>(c); // the texts here stay in the basic plane
        const char high = static_cast<char>(unit >> 8), low = static_cast<char>(unit & 0xFF);
        out += bigEndian ? std::string{high, low} : std::string{low, high};
    }
    return out;
}

TEST(VCalendarFields, FindNamesIgnoringCaseAndKeepTheFirst) {
    TKvIVCFields fields;
    EXPECT_EQ(fields.Add("DTSTART", ictDateTime), 0);
    EXPECT_EQ(fields.Add("Größe", ictString), 1);
    EXPECT_EQ(fields.Add("dtstart", ictString), 2); // only a lookup ignores case; Add takes what it gets
    EXPECT_EQ(fields.GetIndexByFieldName("DtStart"), 0);
    EXPECT_EQ(fields.GetIndexByFieldName("GRÖSSE"), -1);
    EXPECT_EQ(fields.GetIndexByFieldName("GRÖßE"), 1);
    EXPECT_EQ(fields.GetIndexByFieldName("DTSTART;TZID=X"), -1);
    EXPECT_EQ(fields[1].FieldName, "Größe");
    EXPECT_EQ(test::ErrorOf([&] { fields.Items(3); }), "List index out of bounds (3)");
    fields.Clear();
    EXPECT_EQ(fields.Count(), 0);
    EXPECT_EQ(fields.GetIndexByFieldName("DTSTART"), -1);
}

TEST(VCalendarLines, UnfoldJoinsContinuationsAndEndsEveryLine) {
    const struct {
        const char* Text;
        const char* Lines;
    } cases[] = {
        {"", ""},
        {"a\r\nb\r\n", "a\nb\n"},
        {"a\rb\nc", "a\nb\nc\n"},
        {"a\r\r\n\nb", "a\n\n\nb\n"},
        {"a\r\n b\r\n\tc\r\nd", "abc\nd\n"},
        {"a\n  b", "a b\n"},   // one blank is the fold; the next is text
        {"a\n\n b", "a\nb\n"}, // continues the empty line
        {" a\nb", "a\nb\n"},   // nothing to continue at the start
        {"a\n \n \n", "a\n"},  // folds of nothing at the end
        {"a\r\n\t", "a\n"},
    };
    for (const auto& c : cases) EXPECT_EQ(UnfoldVCalendarLines(c.Text), c.Lines) << test::DumpEscape(c.Text);
}

TEST(VCalendarText, DecodesOnlyItsEscapes) {
    const struct {
        const char* Value;
        const char* Text;
    } cases[] = {
        {"plain: text", "plain: text"},
        {"a\\, b\\; c", "a, b; c"},
        {"one\\ntwo\\Nthree", "one\ntwo\nthree"},
        {"c:\\\\new", "c:\\new"}, // an escaped backslash does not start another escape
        {"\\\\\\,", "\\,"},
        {"\\:\\t\\ x", "\\:\\t\\ x"}, // not escapes
        {"end\\", "end\\"},
    };
    for (const auto& c : cases) EXPECT_EQ(DecodeVCalendarText(c.Value), c.Text) << c.Value;
}

TEST(VCalendarReader, EventsBecomeRowsAndNamesColumns) {
    const struct {
        const char* Name;
        const char* Text;
        const char* Dump;
    } cases[] = {
        {"a property of the second event adds a column the first row lacks",
         "BEGIN:VCALENDAR\nBEGIN:VEVENT\nUID:1\nSUMMARY:one\nEND:VEVENT\n"
         "BEGIN:VEVENT\nUID:2\nLOCATION:here\nSUMMARY:two\nEND:VEVENT\nEND:VCALENDAR\n",
         "events: 2\nfield: UID String 1\nfield: SUMMARY String 3\nfield: LOCATION String 4\n"
         "0: UID=1|SUMMARY=one\n1: UID=2|SUMMARY=two|LOCATION=here\n"},
        {"the lookup ignores case, the type takes the name as first met",
         "BEGIN:VEVENT\ndtstart:20240101T100000Z\nEND:VEVENT\nBEGIN:VEVENT\nDTSTART:20240102T100000Z\n"
         "END:VEVENT\nBEGIN:VEVENT\nDTEND:20240103T100000Z\nEND:VEVENT\n"
         "BEGIN:VEVENT\ndtend:20240104T100000Z\nEND:VEVENT\n",
         "events: 4\nfield: dtstart String 16\nfield: DTEND DateTime 16\n0: dtstart=20240101T100000Z\n"
         "1: dtstart=20240102T100000Z\n2: DTEND=2024-01-03 10:00:00\n3: DTEND=2024-01-04 10:00:00\n"},
        {"parameters stay in the name; a name beginning DTSTART or DTEND is a date-time",
         "BEGIN:VEVENT\nDTSTART;TZID=Europe/Berlin:20161229T113000\nDTSTART:20161229T103000Z\n"
         "DTEND;VALUE=DATE:20161230\nDTSTAMP:20161201T000000Z\nLAST-MODIFIED:20161202T000000Z\n"
         "DTSTAMPX:20161203T000000Z\nCREATED:20161204T000000Z\nEND:VEVENT\n",
         "events: 1\nfield: DTSTART;TZID=Europe/Berlin DateTime 15\nfield: DTSTART DateTime 16\n"
         "field: DTEND;VALUE=DATE DateTime 8\nfield: DTSTAMP DateTime 16\nfield: LAST-MODIFIED DateTime 16\n"
         "field: DTSTAMPX String 16\nfield: CREATED String 16\n"
         "0: DTSTART;TZID=Europe/Berlin=2016-12-29 11:30:00|DTSTART=2016-12-29 10:30:00|"
         "DTEND;VALUE=DATE=2016-12-30 00:00:00|DTSTAMP=2016-12-01 00:00:00|"
         "LAST-MODIFIED=2016-12-02 00:00:00|DTSTAMPX=20161203T000000Z|CREATED=20161204T000000Z\n"},
        {"the value is all after the first colon, parameters quoted or not",
         "BEGIN:VEVENT\nURL:http://example.org:8080/a\nORGANIZER;CN=\"Doe, Jane\":mailto:j@example.org\n"
         "ATTENDEE;DELEGATED-FROM=\"mailto:a@example.org\":mailto:b@example.org\n:no name\nEND:VEVENT\n",
         "events: 1\nfield: URL String 25\nfield: ORGANIZER;CN=\"Doe, Jane\" String 20\n"
         "field: ATTENDEE;DELEGATED-FROM=\"mailto String 35\nfield:  String 7\n"
         "0: URL=http://example.org:8080/a|ORGANIZER;CN=\"Doe, Jane\"=mailto:j@example.org|"
         "ATTENDEE;DELEGATED-FROM=\"mailto=a@example.org\":mailto:b@example.org|=no name\n"},
        {"the event lines are matched exactly",
         "begin:vevent\nSUMMARY:a\nend:vevent\nBEGIN:VEVENT \nSUMMARY:b\nBEGIN:VEVENT\nSUMMARY:c\n"
         "END:VEVENT \nSUMMARY:d\nEND:VEVENT\nSUMMARY:e\n",
         "events: 1\nfield: SUMMARY String 1\nfield: END String 7\n0: SUMMARY=d|END=VEVENT \n"},
        {"an event without its end runs to the end of the file",
         "BEGIN:VEVENT\nSUMMARY:a\nEND:VEVENT\nBEGIN:VEVENT\nSUMMARY:b\nEND:VCALENDAR",
         "events: 2\nfield: SUMMARY String 1\nfield: END String 9\n0: SUMMARY=a\n1: "
         "SUMMARY=b|END=VCALENDAR\n"},
        {"an empty event is counted and has no cells; the rows keep their numbers",
         "BEGIN:VEVENT\nEND:VEVENT\nBEGIN:VEVENT\nUID:x\nEND:VEVENT\nBEGIN:VEVENT\nEND:VEVENT\n",
         "events: 3\nfield: UID String 1\n0:\n1: UID=x\n"},
    };
    for (const auto& c : cases) EXPECT_EQ(Dump(c.Text), c.Dump) << c.Name;
}

TEST(VCalendarReader, FileWithoutEventsReadsOneRecord) {
    struct TCounting : TKvIVCalendar {
        std::vector<int> Calls;
        bool LoadRecord(int index) override {
            Calls.push_back(index);
            return TKvIVCalendar::LoadRecord(index);
        }
    };
    const struct {
        const char* Text;
        std::vector<int> Calls;
    } cases[] = {
        {"BEGIN:VCALENDAR\r\nVERSION:2.0\r\nEND:VCALENDAR\r\n", {0}},
        {"BEGIN:VEVENT\nEND:VEVENT\nEND:VCALENDAR\n", {0, 1}}, // the last call takes the trailer
        {"", {}},
    };
    for (const auto& c : cases) {
        TCounting calendar;
        TStringStream stream(c.Text);
        calendar.LoadFromStream(stream);
        EXPECT_EQ(calendar.Calls, c.Calls) << c.Text;
        EXPECT_EQ(calendar.SpreadSheets().Spreadsheet(0).Cells().Count(), 0);
    }
}

TEST(VCalendarReader, DateTimesAreReadByTheMask) {
    const struct {
        const char* Value;
        TDateTime Expected;
    } cases[] = {
        {"20100226T080000Z", EncodeDateTime(2010, 2, 26, 8, 0, 0, 0)},
        {"19870405T020000", EncodeDateTime(1987, 4, 5, 2, 0, 0, 0)},
        {"20021226", EncodeDate(2002, 12, 26)},
        {"20240229T235959Z", EncodeDateTime(2024, 2, 29, 23, 59, 59, 0)},
        // A value that holds no valid date is null (and the load warns), never 1899-12-30.
        {"20240115T250000Z", EncodeDate(2024, 1, 15)}, // the date holds; the impossible time reads as 0
        {"20240230T120000Z", -1},
        {"2024-01-15", -1},
        {"not a date", -1},
        {"", -1},
    };
    for (const auto& c : cases) {
        TKvIVCalendar calendar;
        std::vector<Variant> values;
        calendar.OnCellValue = [&](TObject*, int, int, int, int32_t, const Variant& value, TAlignment,
                                   TKvICellType type) {
            EXPECT_EQ(type, ictDateTime);
            values.push_back(value);
        };
        TStringStream stream(std::string("BEGIN:VEVENT\nDTSTART:") + c.Value + "\nEND:VEVENT\n");
        calendar.LoadFromStream(stream);
        ASSERT_EQ(values.size(), 1u) << c.Value;
        EXPECT_EQ(calendar.Warnings().size(), c.Expected < 0 && *c.Value ? 1u : 0u) << c.Value;
        if (c.Expected < 0) {
            EXPECT_TRUE(values[0].IsNull());
            continue;
        }
        EXPECT_EQ(values[0].VarType(), varDate) << c.Value;
        EXPECT_DOUBLE_EQ(values[0].AsDateTime(), c.Expected) << c.Value;
    }
}

TEST(VCalendarReader, FoldsEscapesLineEndsAndEncodings) {
    // One calendar, written in every way a file may come: each must read the same.
    const std::string lines[] = {
        "BEGIN:VCALENDAR",
        "BEGIN:VEV",
        " ENT",
        "SUMMARY:Caf\xC3\xA9\\, bar\\; and \\\\ more",
        "DESCRIPTION:first\\nsecond",
        "\t\\Nthird",
        "DTSTART:20240315T",
        " 093000Z",
        "END:VEVENT",
        "END:VCALENDAR",
    };
    const std::string expected = "events: 1\nfield: SUMMARY String 21\nfield: DESCRIPTION String 18\n"
                                 "field: DTSTART DateTime 16\n"
                                 "0: SUMMARY=Café, bar; and \\\\ more|DESCRIPTION=first\\nsecond\\nthird|"
                                 "DTSTART=2024-03-15 09:30:00\n";
    for (const char* end : {"\r\n", "\n", "\r"}) {
        std::string text;
        for (const std::string& line : lines) text += line + end;
        SCOPED_TRACE(test::DumpEscape(end));
        EXPECT_EQ(Dump(text), expected);
        EXPECT_EQ(Dump("\xEF\xBB\xBF" + text), expected);
        EXPECT_EQ(Dump(ToUtf16(text, false)), expected);
        EXPECT_EQ(Dump(ToUtf16(text, true)), expected);
    }
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
        {"empty", "", "events: 0\n"},
        {"only a byte-order mark", "\xEF\xBB\xBF", "events: 0\n"},
        {"only line ends", "\r\n\r\n\n\r", "events: 0\n"},
        {"NUL bytes", std::string(kNuls, sizeof kNuls - 1),
         "events: 1\nfield: SUM\\x00 String 3\n0: SUM\\x00=a\\x00b\n"},
        {"bytes that are no UTF-8 read as Windows-1252", "BEGIN:VEVENT\nSUMMARY:\xC3(\x80\nEND:VEVENT\n",
         "events: 1\nfield: SUMMARY String 3\n0: SUMMARY=Ã(€\n"},
        {"an odd byte of UTF-16",
         std::string("\xFF\xFE"
                     "B\0E\0G",
                     7),
         ""},
        {"folds at the start and the end", " x\nBEGIN:VEVENT\nSUMMARY:a\n b\n ",
         "events: 1\nfield: SUMMARY String 2\n0: SUMMARY=ab\n"},
        {"a huge line", "BEGIN:VEVENT\nSUMMARY:" + longText + "\nEND:VEVENT",
         "events: 1\nfield: SUMMARY String 4194304\n0: SUMMARY=" + longText + "\n"},
        {"endless folding", folds,
         "events: 1\nfield: DESCRIPTION String 100000\n0: DESCRIPTION=" + std::string(100000, 'y') + "\n"},
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

TEST(VCalendarReader, ApplicationThatTakesTheCellsLeavesTheWorkbookEmpty) {
    TKvIVCalendar calendar;
    std::vector<std::string> seen;
    calendar.OnCellValue = [&](TObject* sender, int sheet, int row, int column, int32_t format,
                               const Variant& value, TAlignment alignment, TKvICellType type) {
        EXPECT_EQ(sender, &calendar);
        EXPECT_EQ(alignment, taLeftJustify);
        seen.push_back(
            std::to_string(sheet) + "," + std::to_string(row) + "," + std::to_string(column) + "," +
            std::to_string(format) + "," + (type == ictDateTime ? "D:" : "S:") +
            (type == ictDateTime ? FormatDateTime("yyyymmdd", value.AsDateTime()) : value.AsString()));
    };
    TStringStream stream("BEGIN:VEVENT\nSUMMARY:a\nDTSTART:20240101\nEND:VEVENT\n"
                         "BEGIN:VEVENT\nDTSTART:20240102\nEND:VEVENT\n");
    calendar.LoadFromStream(stream);
    EXPECT_EQ(seen, (std::vector<std::string>{"0,0,0,0,S:a", "0,0,1,0,D:20240101", "0,1,1,0,D:20240102"}));
    EXPECT_EQ(calendar.SpreadSheets().Spreadsheet(0).Cells().Count(), 0);
    EXPECT_EQ(calendar.RecordCount(), 2);
}

TEST(VCalendarReader, DescribesTheFileAndNamesTheSheetAfterIt) {
    test::TempDir dir;
    const std::string path = dir.File("team.ics");
    test::WriteFile(path, "BEGIN:VEVENT\nDTSTART:20240101\nSUMMARY:Ski\\, trip\nEND:VEVENT\n");
    TKvIVCalendar calendar;
    EXPECT_EQ(calendar.NameKind(), nkFieldName);
    EXPECT_EQ(calendar.RecordCount(), -1);
    calendar.LoadFromFile(path);
    EXPECT_EQ(calendar.SpreadSheets().Spreadsheet(0).Name(), "team.ics");
    EXPECT_EQ(calendar.RecordCount(), 1);
    EXPECT_EQ(calendar.FileProperties(),
              (std::vector<std::pair<std::string, std::string>>{{"Events", "1"}, {"Fields", "2"}}));
    const std::vector<TKvIDeclaredField> declared = calendar.DeclaredFields();
    ASSERT_EQ(declared.size(), 2u);
    EXPECT_EQ(declared[0].Name + " " + declared[0].TypeName + " " + std::to_string(declared[0].Size),
              "DTSTART DateTime 8");
    EXPECT_EQ(declared[1].CellType, ictString);
    EXPECT_EQ(declared[1].Size, 9);
    // Every load starts again from nothing.
    test::WriteFile(path, "BEGIN:VEVENT\nUID:u\nEND:VEVENT\n");
    calendar.LoadFromFile(path);
    EXPECT_EQ(test::DumpVCalendar(calendar), "events: 1\nfield: UID String 1\n0: UID=u\n");
    EXPECT_EQ(test::ErrorOf([&] { calendar.LoadFromFile(dir.File("missing.ics")); }), "File does not exist.");
}

// ---- the shared corpus ----

std::string CorpusDir() {
    return KV_SHARED_DIR "/corpus/ics/";
}

#define SKIP_WITHOUT_CORPUS()                                                                                \
    if (!std::filesystem::is_directory(CorpusDir())) GTEST_SKIP() << "no calendar corpus at " << CorpusDir()

// The corpus file loaded into its workbook, with a way to find a cell by its column's name.
struct TCorpusCalendar {
    TKvIVCalendar Calendar;
    explicit TCorpusCalendar(const std::string& name) { Calendar.LoadFromFile(CorpusDir() + name); }
    TSpreadSheetCells& Cells() { return Calendar.SpreadSheets().Spreadsheet(0).Cells(); }
    Variant Value(int row, std::string_view column) {
        const int index = Calendar.Fields().GetIndexByFieldName(column);
        return index < 0 ? Variant::Null() : Cells().GetValue(index, row);
    }
};

TEST(VCalendarCorpus, EveryFileLoads) {
    SKIP_WITHOUT_CORPUS();
    int files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(CorpusDir())) {
        if (!entry.is_regular_file()) continue;
        ++files;
        const std::string name = entry.path().filename().string();
        TKvIVCalendar calendar;
        EXPECT_EQ(test::ErrorOf([&] { calendar.LoadFromFile(entry.path().string()); }), "") << name;
        EXPECT_GE(calendar.RecordCount(), 0) << name;
        EXPECT_LE(calendar.SpreadSheets().Spreadsheet(0).Cells().Count(), calendar.RecordCount()) << name;
    }
    EXPECT_GT(files, 0);
}

TEST(VCalendarCorpus, EventCounts) {
    SKIP_WITHOUT_CORPUS();
    const std::pair<const char*, int> counts[] = {
        {"issue_1050_multiple_calendars.ics", 2}, // two calendars of one event each
        {"k770.vcs", 2},
        {"2445.ics", 6},
        {"UK32Holidays.ics", 69},
        {"large.ics", 1458},
        {"big_bad_calendar.ics", 20}, // empty events: counted, no cells
        {"small_bad_calendar.ics", 1},
        {"bom_calendar.ics", 0},
        {"calendar_with_unicode.ics", 0}, // the calendar's properties only
        {"02.vcs", 0},                    // a to-do
    };
    for (const auto& [name, events] : counts) {
        TCorpusCalendar c(name);
        EXPECT_EQ(c.Calendar.RecordCount(), events) << name;
    }
    TCorpusCalendar multiple("issue_1050_multiple_calendars.ics");
    EXPECT_EQ(multiple.Value(0, "SUMMARY").AsString(), "Event 1");
    EXPECT_EQ(multiple.Value(1, "SUMMARY").AsString(), "Event 2");
}

TEST(VCalendarCorpus, PropertyValues) {
    SKIP_WITHOUT_CORPUS();
    const struct {
        const char* File;
        const char* Column;
        const char* Value;
    } cases[] = {
        {"event_with_unicode_fields.ics", "SUMMARY", "Non-ASCII Test: ÄÖÜ äöü €"},
        {"event_with_unicode_fields.ics", "DESCRIPTION",
         "icalendar should be able to handle non-ascii: €äüöÄÜÖ."},
        {"event_with_unicode_fields.ics", "LOCATION", "Tribstrül"},
        {"issue_64_event_with_non_ascii_summary.ics", "SUMMARY", "åäö"},
        {"issue_101_icalendar_chokes_on_umlauts_in_organizer.ics", "ORGANIZER;CN=\"acme, ädmin\"",
         "mailto:adm-acme@mydomain.de"},
        // The escaped colon inside the parameter ends the name: the rest, colon first, is the value.
        {"event_with_escaped_characters.ics", "ORGANIZER;CN=that\\, that\\; %th%%at%\\ that\\",
         ":это, то; that\\ %th%%at%\\:"},
        // The three categories keep their escaped commas as commas.
        {"issue_127_categories_with_commas.ics", "CATEGORIES", "Meeting, John,Work, Sarah,Project"},
        {"outlook.vcs", "LOCATION", "Cromwell, CT"},
        {"date-time.vcs", "SUMMARY", "Coffee with Jason"},
    };
    for (const auto& c : cases) {
        TCorpusCalendar calendar(c.File);
        EXPECT_EQ(calendar.Value(0, c.Column).AsString(), c.Value) << c.File << " " << c.Column;
    }
    // Joined from three folded lines, its escapes decoded.
    TCorpusCalendar issue53("issue_53_description_parsed_properly.ics");
    const std::string description = issue53.Value(0, "DESCRIPTION").AsString();
    EXPECT_NE(description.find("DevOpsDC\nThursday, July 12 at 6:30 PM\n\nThis will be a joint meetup"),
              std::string::npos)
        << description;
    EXPECT_NE(description.find("1 member...\n\nDetails: http"), std::string::npos) << description;
}

// The twins in expected/ hold the first event as another program saw it, in sections of "key = value"
// lines: compare what both name.
TEST(VCalendarCorpus, FirstEventAgreesWithItsTwin) {
    SKIP_WITHOUT_CORPUS();
    const std::pair<const char*, const char*> keys[] = {
        {"StartTime", "DTSTART"}, {"StopTime", "DTEND"},          {"LastModified", "LAST-MODIFIED"},
        {"Text", "SUMMARY"},      {"Description", "DESCRIPTION"}, {"EventLocation", "LOCATION"},
    };
    int twins = 0;
    for (const auto& entry : std::filesystem::directory_iterator(CorpusDir() + "expected")) {
        const std::string stem = entry.path().stem().string();
        std::string calendarFile;
        for (const char* extension : {".ics", ".vcs"})
            if (std::filesystem::exists(CorpusDir() + stem + extension)) calendarFile = stem + extension;
        if (entry.path().extension() != ".backup" || calendarFile.empty()) continue;
        TStringList backup;
        backup.SetText(DecodeText(ReadFileBytes(entry.path().string())));
        std::map<std::string, std::string> event;
        bool inEvent = false;
        for (const std::string& line : backup) {
            if (line.starts_with("[")) inEvent = line == "[Calendar001]";
            const size_t eq = line.find(" = ");
            if (inEvent && eq != std::string::npos) event.emplace(line.substr(0, eq), line.substr(eq + 3));
        }
        if (event.empty()) continue; // a to-do only
        ++twins;
        TCorpusCalendar calendar(calendarFile);
        int compared = 0;
        for (const auto& [key, property] : keys) {
            const auto it = event.find(key);
            if (it == event.end()) continue;
            // The column is the property's, with or without parameters (not the quoted-printable one).
            int column = -1;
            for (int i = 0; i < calendar.Calendar.Fields().Count() && column < 0; ++i) {
                const std::string& name = calendar.Calendar.Fields()[i].FieldName;
                if ((name == property || name.starts_with(std::string(property) + ";")) &&
                    name.find("ENCODING=") == std::string::npos)
                    column = i;
            }
            if (column < 0) continue;
            SCOPED_TRACE(calendarFile + " " + key);
            const TKvICell* cell = calendar.Cells().Row(0)->Cols().GetCell(column);
            ASSERT_NE(cell, nullptr);
            std::string expected = it->second;
            if (cell->CellType == ictDateTime) {
                if (expected.ends_with("Z")) expected.pop_back();
                EXPECT_EQ(FormatDateTime("yyyymmdd\"T\"hhnnss", cell->Value.AsDateTime()), expected);
            } else {
                // Quoted, with the same escapes as the calendar.
                EXPECT_EQ(cell->Value.AsString(),
                          DecodeVCalendarText(expected.substr(1, expected.size() - 2)));
            }
            ++compared;
        }
        EXPECT_GE(compared, 1) << calendarFile;
    }
    EXPECT_GE(twins, 8);
}

} // namespace
} // namespace kv
