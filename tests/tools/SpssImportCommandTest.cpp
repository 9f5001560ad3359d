// kvimport import, preview and run with SPSS system files, as a user runs them.

#include "TestSupport.h"
#include "support/SavBuilder.h"

namespace kv {
namespace {

using test::RunCli;
using test::SavFormat;
using test::SqliteQuery;

using SpssImport = test::CliFixture;

std::string Survey(int compression) {
    test::SavFile f;
    f.Compression = compression;
    f.Vars = {{"id", 0, SavFormat(5, 8)},
              {.Name = "sex",
               .Format = SavFormat(5, 1),
               .Label = "Gender",
               .MissingCode = 1,
               .Missing = {9},
               .Labels = {{1, "Male"}, {2, "Female"}}},
              {"weight"},
              {"town", 10},
              {"born", 0, SavFormat(20, 11)},
              {"seen", 0, SavFormat(22, 20)},
              {"took", 0, SavFormat(21, 8)}};
    f.Documents = {"Pilot wave"};
    f.Cases = {{1, 1, 71.5, "Ulm", 13744944000.0, 13744980610.0, 36610},
               {2, 9, 80.25, "Köln", 9390124800.0, test::SavValue::Missing(), 83410},
               {3, 2, test::SavValue::Missing(), "", 6825600.0, 6825600.0, 0}};
    return f.Build();
}

TEST_F(SpssImport, ASurveyBecomesATypedTable) {
    for (int compression : {0, 1, 2}) {
        SCOPED_TRACE(compression);
        const std::string sav = Write(compression == 2 ? "survey.zsav" : "survey.sav", Survey(compression));
        const std::string table = "t" + std::to_string(compression);
        test::CliResult r = RunCli({"import", sav, "--db", db, "--table", table});
        ASSERT_EQ(r.Status, 0) << r.Err;
        EXPECT_NE(r.Out.find("Added: 3\n"), std::string::npos) << r.Out;
        EXPECT_EQ(SqliteQuery(db, "SELECT group_concat(name || ' ' || type, ', ') FROM pragma_table_info('" +
                                      table + "')"),
                  "id INTEGER, sex INTEGER, weight REAL, town TEXT, born DATE, seen DATETIME, took TIME");
        EXPECT_EQ(SqliteQuery(db, "SELECT * FROM " + table),
                  "1|1|71.5|Ulm|2018-05-06|2018-05-06 10:10:10|10:10:10\n"
                  "2|null|80.25|Köln|1880-05-06|null|23:10:10\n"
                  "3|2|null|null|1583-01-01|1583-01-01 00:00:00|00:00:00");
    }

    test::CliResult preview = RunCli({"preview", dir.File("survey.zsav")});
    ASSERT_EQ(preview.Status, 0) << preview.Err;
    for (const char* line :
         {"Cases: 3\n", "Compression: zlib\n", "Encoding: utf-8\n", "Document: Pilot wave\n",
          "sex     integer   (F1.0, label \"Gender\", missing 9, labels 1 \"Male\", 2 \"Female\")\n",
          "took    time      (TIME8)\n", "3  | 2   |        |      | 1583-01-01"})
        EXPECT_NE(preview.Out.find(line), std::string::npos) << line << "\n" << preview.Out;
}

TEST_F(SpssImport, ChoicesGoIntoTheSpecification) {
    const std::string sav = Write("survey.sav", Survey(1));
    const std::string spec = dir.File("survey.kvi");
    test::CliResult r =
        RunCli({"import", sav, "--db", db, "--table", "labelled", "--value-labels", "--user-missing", "keep",
                "--captions", "labels", "--first-row", "2", "--save-spec", spec, "--quiet"});
    ASSERT_EQ(r.Status, 0) << r.Err;
    EXPECT_EQ(SqliteQuery(db, "SELECT id, Gender FROM labelled"), "2|9\n3|Female");
    test::CliResult again = RunCli({"run", spec, "--db", db, "--table", "again", "--quiet"});
    ASSERT_EQ(again.Status, 0) << again.Err;
    EXPECT_EQ(SqliteQuery(db, "SELECT id, Gender FROM again"), "2|9\n3|Female");

    test::CliResult bad = RunCli({"import", sav, "--db", db, "--user-missing", "drop"});
    EXPECT_EQ(bad.Status, 2);
    EXPECT_NE(bad.Err.find("--user-missing expects one of null, keep; got 'drop'"), std::string::npos)
        << bad.Err;
    const std::string full = Survey(1);
    const std::string cut = Write("cut.sav", full.substr(0, full.size() - 20));
    test::CliResult partial = RunCli({"import", cut, "--db", db, "--table", "partial"});
    EXPECT_EQ(partial.Status, 4);
    EXPECT_EQ(SqliteQuery(db, "SELECT count(*) FROM partial"), "2");
    EXPECT_NE(partial.Err.find("Row 3: " + cut + ": SPSS: unexpected end of file at byte"), std::string::npos)
        << partial.Err;
    const std::string broken = Write("broken.sav", Survey(1).substr(0, 300));
    test::CliResult damaged = RunCli({"import", broken, "--db", db});
    EXPECT_NE(damaged.Status, 0);
    EXPECT_NE(damaged.Err.find("broken.sav: SPSS: unexpected end of file at byte"), std::string::npos)
        << damaged.Err;
}

} // namespace
} // namespace kv
