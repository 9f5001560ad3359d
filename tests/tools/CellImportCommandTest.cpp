// kvimport import and preview with files a cell reader loads (calendars, tables), as a user runs them.

#include "TestSupport.h"
#include "support/DbfBuilder.h"

namespace kv {
namespace {

using test::RunCli;
using test::SqliteQuery;

using CellImport = test::CliFixture;

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

TEST_F(CellImport, ANameNoBracketsHoldIsReadByItsNumber) {
    const std::string ics =
        Write("quoted.ics", "BEGIN:VEVENT\nORGANIZER;CN=\"Doe, J\":mailto:j@x\nEND:VEVENT\n");
    test::CliResult r = RunCli({"import", ics, "--db", db, "--table", "events", "--quiet"});
    ASSERT_EQ(r.Status, 0) << r.Err;
    EXPECT_EQ(SqliteQuery(db, "SELECT * FROM events"), "mailto:j@x");
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

// A dBase III table in code page 866 with a deleted record, and its memo file.
std::string Accounts() {
    test::Table t;
    t.Version = 0x83;
    t.Driver = 0x26; // cp866
    t.Fields = {{"ID", 'N', 5, 0},  {"NAME", 'C', 12},  {"AMOUNT", 'N', 8, 2},
                {"OPENED", 'D', 8}, {"ACTIVE", 'L', 1}, {"NOTE", 'M', 10}};
    t.Add({"    1", "\x8F\xE0\xA8\xA2\xA5\xE2", "   12.50", "20240105", "T", "         1"});
    t.Add({"    2", "Gone", "    1.00", "20240106", "F", ""}, '*');
    t.Add({"    3", "Third", "   -3.25", "        ", "F", ""});
    return t.Build();
}

std::string DbtMemo(const std::string& text) {
    std::string memo(512, '\0');
    memo[0] = 2; // the next free block
    return memo + text + "\x1A\x1A";
}

TEST_F(CellImport, ATableWithItsMemoFileAndCodePage) {
    const std::string dbf = Write("accounts.dbf", Accounts());
    Write("accounts.dbt", DbtMemo("first note"));
    test::CliResult r = RunCli({"import", dbf, "--db", db});
    ASSERT_EQ(r.Status, 0) << r.Err;
    EXPECT_NE(r.Out.find("Processed: 3\nAdded: 2\nUpdated: 0\nDeleted: 0\nSkipped: 1\n"), std::string::npos)
        << r.Out;
    EXPECT_EQ(
        SqliteQuery(db, "SELECT group_concat(name || ' ' || type, ', ') FROM pragma_table_info('accounts')"),
        "ID INTEGER, NAME TEXT, AMOUNT REAL, OPENED DATE, ACTIVE BOOLEAN, NOTE TEXT");
    EXPECT_EQ(SqliteQuery(db, "SELECT * FROM accounts"),
              "1|\xD0\x9F\xD1\x80\xD0\xB8\xD0\xB2\xD0\xB5\xD1\x82|12.5|2024-01-05|1|first note\n"
              "3|Third|-3.25|null|0|null");

    ASSERT_EQ(RunCli({"import", dbf, "--db", db, "--table", "all", "--include-deleted", "--encoding",
                      "cp1252", "--quiet"})
                  .Status,
              0);
    EXPECT_EQ(SqliteQuery(db, "SELECT group_concat(NAME, ',') FROM \"all\""),
              "\xC2\x8F\xC3\xA0\xC2\xA8\xC2\xA2\xC2\xA5\xC3\xA2,Gone,Third");

    test::CliResult preview = RunCli({"preview", dbf, "--rows", "1"});
    ASSERT_EQ(preview.Status, 0) << preview.Err;
    EXPECT_NE(preview.Out.find("Version: dBase III (memo)\nRecords: 3\nCode page: cp866\n"),
              std::string::npos)
        << preview.Out;
    EXPECT_NE(preview.Out.find("AMOUNT  float     (Number, 8.2)"), std::string::npos) << preview.Out;
    EXPECT_NE(preview.Out.find("1  | \xD0\x9F"), std::string::npos) << preview.Out;

    test::CliResult bad = RunCli({"import", dbf, "--db", db, "--encoding", "klingon"});
    EXPECT_EQ(bad.Status, 2);
    EXPECT_NE(bad.Err.find("--encoding expects a code page such as cp1252"), std::string::npos) << bad.Err;
}

TEST_F(CellImport, ASavedTableImportRunsAgainWithItsSettings) {
    const std::string dbf = Write("accounts.dbf", Accounts());
    const std::string spec = dir.File("accounts.kvi");
    ASSERT_EQ(RunCli({"import", dbf, "--db", db, "--encoding", "cp437", "--first-row", "3", "--save-spec",
                      spec, "--quiet"})
                  .Status,
              0);
    EXPECT_NE(test::ReadFile(spec).find("SourceKind=DBF"), std::string::npos);
    test::CliResult again = RunCli({"run", spec, "--db", db, "--table", "again", "--quiet"});
    ASSERT_EQ(again.Status, 0) << again.Err;
    EXPECT_EQ(SqliteQuery(db, "SELECT ID, NAME FROM again"), "3|Third");
}

} // namespace
} // namespace kv
