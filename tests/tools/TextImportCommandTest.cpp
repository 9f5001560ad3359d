// kvimport import and preview with text files, as a user runs them.

#include "TestSupport.h"

namespace kv {
namespace {

using test::RunCli;
using test::SqliteQuery;

using TextImport = test::CliFixture;

TEST_F(TextImport, LfOnlyImportsLikeCrLfAndStdinToo) {
    const std::string lf = Write("lf.csv", "a,b\n1,x\n2,\"two\nlines\"\n");
    const std::string crlf = Write("crlf.csv", "a,b\r\n1,x\r\n2,\"two\nlines\"\r\n");
    ASSERT_EQ(RunCli({"import", lf, "--db", db, "--quiet"}).Status, 0);
    ASSERT_EQ(RunCli({"import", crlf, "--db", db, "--quiet"}).Status, 0);
    EXPECT_EQ(SqliteQuery(db, "SELECT * FROM lf"), SqliteQuery(db, "SELECT * FROM crlf"));
    EXPECT_EQ(SqliteQuery(db, "SELECT count(*) FROM lf"), "2");
    test::CliResult r = RunCli({"import", "-", "--db", db, "--quiet"}, "a;b\n5;y\n");
    EXPECT_EQ(r.Status, 0) << r.Err;
    EXPECT_EQ(SqliteQuery(db, "SELECT * FROM stdin"), "5|y"); // the delimiter was found in the first line
}

TEST_F(TextImport, ADecimalCommaAloneMovesTheGroupingToThePoint) {
    const std::string txt = Write("eu.txt", "id;amount\n1;1,5\n2;1.234,25\n");
    test::CliResult r = RunCli(
        {"import", txt, "--db", db, "--delimiter", "semicolon", "--decimal-separator", ",", "--quiet"});
    EXPECT_EQ(r.Status, 0) << r.Err;
    EXPECT_EQ(SqliteQuery(db, "SELECT amount FROM eu"), "1.5\n1234.25");
    r = RunCli({"import", txt, "--db", db, "--decimal-separator", ",", "--thousand-separator", ","});
    EXPECT_EQ(r.Status, 2);
    EXPECT_NE(r.Err.find("--decimal-separator and --thousand-separator must differ"), std::string::npos);
}

TEST_F(TextImport, SavedSpecificationRunsAgain) {
    const std::string csv = Write("p.csv", "k;v\n1;one\n2;two\n");
    const std::string spec = dir.File("p.kvi");
    ASSERT_EQ(RunCli({"import", csv, "--db", db, "--delimiter", "semicolon", "--map", "k=k", "--map",
                      "v=UPPER(v)", "--save-spec", spec, "--quiet"})
                  .Status,
              0);
    test::WriteFile(csv, "k;v\n1;uno\n3;tres\n");
    // The specification names p.csv as given (a path of the temporary folder); run finds it either way.
    test::CliResult r = RunCli({"run", spec, "--db", db, "--mode", "appendupdate", "--keys", "k"});
    EXPECT_EQ(r.Status, 0) << r.Err;
    EXPECT_NE(r.Out.find("Added: 1\nUpdated: 1\n"), std::string::npos) << r.Out;
    EXPECT_EQ(SqliteQuery(db, "SELECT * FROM p ORDER BY k"), "1|UNO\n2|TWO\n3|TRES");
}

TEST_F(TextImport, AFileWithoutHeaderIsSeenAsOne) {
    const std::string csv = Write("nums.csv", "1,2024-01-05,3.5\n2,2024-01-06,4.5\n");
    test::CliResult r = RunCli({"import", csv, "--db", db, "--quiet"});
    EXPECT_EQ(r.Status, 0) << r.Err;
    EXPECT_EQ(SqliteQuery(db, "SELECT group_concat(name, ' ') FROM pragma_table_info('nums')"),
              "Field1 Field2 Field3");
    EXPECT_EQ(SqliteQuery(db, "SELECT count(*) FROM nums"), "2"); // the first row is data
    // Told otherwise, row 1 names the columns.
    r = RunCli({"import", csv, "--db", db, "--table", "named", "--names-row", "1", "--quiet"});
    EXPECT_EQ(SqliteQuery(db, "SELECT count(*) FROM named"), "1");
}

TEST_F(TextImport, PreviewShowsColumnsAndRows) {
    const std::string csv =
        Write("c.csv", "id,name,when\n1,Ada,2024-01-02\n2,\"Lovelace, Ada\",2024-01-03\n");
    test::CliResult r = RunCli({"preview", csv, "--rows", "1"});
    EXPECT_EQ(r.Status, 0) << r.Err;
    EXPECT_EQ(r.Out, "Columns:\n  1   id    integer\n  2   name  string\n  3   when  date\n\nFirst 1 row:\n"
                     "id | name | when\n---+------+-----------\n1  | Ada  | 2024-01-02\n");
}

TEST_F(TextImport, BadInputGivesAClearResult) {
    test::CliResult r = RunCli({"import", dir.File("none.csv"), "--db", db});
    EXPECT_EQ(r.Status, 1);
    EXPECT_EQ(r.Err, "Cannot open file \"" + dir.File("none.csv") + "\". No such file or directory\n");

    std::string binary;
    for (int i = 0; i < 5000; ++i) binary += static_cast<char>((i * 7919) % 256);
    r = RunCli({"import", Write("bin.csv", binary), "--db", db, "--quiet"});
    // Read as Windows-1252 text, its NULs kept out of the column names; its stray quotes leave data in doubt.
    EXPECT_EQ(r.Status, 4) << r.Err;
    EXPECT_NE(SqliteQuery(db, "SELECT count(*) FROM bin"), "0");

    r = RunCli({"import", Write("empty.csv", ""), "--db", db});
    EXPECT_EQ(r.Status, 1);
    EXPECT_NE(r.Err.find("no columns"), std::string::npos) << r.Err;
}

} // namespace
} // namespace kv
