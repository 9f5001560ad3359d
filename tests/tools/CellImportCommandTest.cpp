// kvimport import and preview with files a cell reader loads (calendars, tables), as a user runs them.

#include "TestSupport.h"

namespace kv {
namespace {

using test::RunCli;
using test::SqliteQuery;

class CellImport : public ::testing::Test {
protected:
    std::string Write(const std::string& name, const std::string& bytes) {
        const std::string path = dir.File(name);
        test::WriteFile(path, bytes);
        return path;
    }
    test::TempDir dir;
    std::string db = dir.File("out.sqlite");
};

const char* kCalendar = "BEGIN:VCALENDAR\r\n"
                        "BEGIN:VEVENT\r\n"
                        "DTSTART:20240105T093000Z\r\n"
                        "SUMMARY:Stand-up\\, daily\r\n"
                        "END:VEVENT\r\n"
                        "BEGIN:VEVENT\r\n"
                        "DTSTART;TZID=Europe/Berlin:20240106T100000\r\n"
                        "SUMMARY:Review\r\n"
                        "  of the plan\r\n" // unfolding takes one blank away
                        "END:VEVENT\r\n"
                        "END:VCALENDAR\r\n";

TEST_F(CellImport, ACalendarBecomesATableOfEvents) {
    const std::string ics = Write("plan.ics", kCalendar);
    test::CliResult r = RunCli({"import", ics, "--db", db, "--table", "events"});
    ASSERT_EQ(r.Status, 0) << r.Err;
    EXPECT_NE(r.Out.find("Added: 2\n"), std::string::npos);
    // A parameter stays part of the column's name; "=" cannot stand in a mapping line's field name.
    EXPECT_EQ(
        SqliteQuery(db, "SELECT group_concat(name || ' ' || type, ', ') FROM pragma_table_info('events')"),
        "DTSTART DATETIME, SUMMARY TEXT, DTSTART;TZID_Europe/Berlin DATETIME");
    EXPECT_EQ(SqliteQuery(db, "SELECT * FROM events"),
              "2024-01-05 09:30:00|Stand-up, daily|null\nnull|Review of the plan|2024-01-06 10:00:00");

    test::CliResult preview = RunCli({"preview", ics, "--rows", "all"});
    ASSERT_EQ(preview.Status, 0) << preview.Err;
    EXPECT_NE(preview.Out.find("Events: 2\n"), std::string::npos) << preview.Out;
    EXPECT_NE(preview.Out.find("SUMMARY                     string    (String, 18)"), std::string::npos)
        << preview.Out;
    EXPECT_NE(preview.Out.find("2024-01-05 09:30:00 | Stand-up, daily"), std::string::npos) << preview.Out;
}

TEST_F(CellImport, RowOptionsAndTheirLimits) {
    const std::string ics = Write("plan.ics", kCalendar);
    test::CliResult r =
        RunCli({"import", ics, "--db", db, "--table", "events", "--first-row", "2", "--quiet"});
    ASSERT_EQ(r.Status, 0) << r.Err;
    EXPECT_EQ(SqliteQuery(db, "SELECT SUMMARY FROM events"), "Review of the plan");
    test::CliResult bad = RunCli({"import", ics, "--db", db, "--delimiter", ";"});
    EXPECT_EQ(bad.Status, 2);
    EXPECT_NE(bad.Err.find("--delimiter is not an option of vcalendar sources"), std::string::npos)
        << bad.Err;
}

} // namespace
} // namespace kv
