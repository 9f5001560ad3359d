// kvimport import and preview with Excel workbooks, as a user runs them.

#include "TestSupport.h"
#include "support/BiffBuilder.h"

#include <filesystem>
#include <tuple>

namespace kv {
namespace {

using namespace kv::test;

using XlsImport = test::CliFixture;

// Two sheets; the second has captions, whole numbers, decimals, dates and a column of mixed values.
std::string Orders() {
    const std::string globals = Xf8(0) + Xf8(14) + Sst({"id", "amount", "day", "note", "ok", "late"});
    std::string orders =
        LabelSst(0, 0, 0, 0) + LabelSst(0, 1, 0, 1) + LabelSst(0, 2, 0, 2) + LabelSst(0, 3, 0, 3);
    orders += Number(1, 0, 0, 1) + Number(1, 1, 0, 12.5) + Number(1, 2, 1, 45292) + LabelSst(1, 3, 0, 4);
    orders += Number(2, 0, 0, 2) + Number(2, 1, 0, 3) + Number(2, 2, 1, 45293) + Number(2, 3, 0, 7);
    return Biff8Book{globals, {}}.AddSheet("Cover", Number(0, 0, 0, 99)).AddSheet("Orders", orders).Build();
}

TEST_F(XlsImport, ASheetByNameBecomesATypedTableThatPreviewShows) {
    const std::string xls = Write("orders.xls", Orders());
    test::CliResult r =
        RunCli({"import", xls, "--sheet", "Orders", "--db", db, "--table", "orders", "--quiet"});
    ASSERT_EQ(r.Status, 0) << r.Err;
    EXPECT_EQ(
        SqliteQuery(db, "SELECT group_concat(name || ' ' || type, ', ') FROM pragma_table_info('orders')"),
        "id INTEGER, amount REAL, day DATE, note TEXT");
    EXPECT_EQ(SqliteQuery(db, "SELECT * FROM orders"), "1|12.5|2024-01-01|ok\n2|3.0|2024-01-02|7");
    // By number, and without captions: every row is data, columns are named by letters.
    r = RunCli(
        {"import", xls, "--sheet", "1", "--names-row", "0", "--db", db, "--table", "cover", "--quiet"});
    ASSERT_EQ(r.Status, 0) << r.Err;
    EXPECT_EQ(SqliteQuery(db, "SELECT A FROM cover"), "99");

    r = RunCli({"preview", xls, "--sheet", "Orders"});
    ASSERT_EQ(r.Status, 0) << r.Err;
    for (const char* part :
         {"Format: BIFF8 (Excel 97-2003)\n", "Sheet 1: Cover (1 rows, 1 columns)\n",
          "Sheet 2: Orders (3 rows, 4 columns)\n", "(date)", "(whole number)", "2024-01-01"})
        EXPECT_NE(r.Out.find(part), std::string::npos) << part << " in " << r.Out;
}

TEST_F(XlsImport, ARowOfTextOverTypedValuesNamesTheColumns) {
    // A sheet of one row has no names row: its row is data. So is the first row of a sheet of text alone
    // (nothing says it names anything), and a first row holding a number.
    const std::tuple<const char*, std::string, const char*> cases[] = {
        {"one", Sheet(LabelSst(0, 0, 0, 0), Sst({"XYZ"})), "XYZ"},
        {"w", Sheet(LabelSst(0, 0, 0, 0) + LabelSst(1, 0, 0, 1), Sst({"apple", "pear"})), "apple,pear"},
        {"n", Sheet(Number(0, 0, 0, 1) + Number(1, 0, 0, 2)), "1,2"},
    };
    for (const auto& [table, bytes, expected] : cases) {
        const std::string file = Write(std::string(table) + ".xls", bytes);
        ASSERT_EQ(RunCli({"import", file, "--db", db, "--table", table, "--quiet"}).Status, 0);
        EXPECT_EQ(SqliteQuery(db, "SELECT group_concat(A) FROM " + std::string(table)), expected);
    }
}

TEST_F(XlsImport, RowsComeOneAtATimeWhateverTheOrderOfTheCells) {
    // Cells stored column by column make the same typed table as cells stored row by row.
    const std::string globals = Sst({"id", "name", "a", "b"});
    const std::string byColumn = LabelSst(0, 0, 0, 0) + Number(1, 0, 0, 1) + Number(2, 0, 0, 2) +
                                 LabelSst(0, 1, 0, 1) + LabelSst(1, 1, 0, 2) + LabelSst(2, 1, 0, 3);
    const std::string columns = Write("columns.xls", Sheet(byColumn, globals));
    ASSERT_EQ(RunCli({"import", columns, "--db", db, "--table", "c", "--quiet"}).Status, 0);
    EXPECT_EQ(SqliteQuery(db, "SELECT group_concat(name || ' ' || type, ', ') FROM pragma_table_info('c')"),
              "id INTEGER, name TEXT");
    EXPECT_EQ(SqliteQuery(db, "SELECT * FROM c"), "1|a\n2|b");

    // The types come from the rows imported, however far down they begin.
    std::string rows;
    for (int r = 0; r < 150; ++r) rows += r < 120 ? LabelSst(r, 0, 0, 2) : Number(r, 0, 0, r);
    const std::string tall = Write("tall.xls", Sheet(rows, globals));
    const std::vector<std::string> args = {"import", tall, "--first-row", "121",  "--names-row", "0",
                                           "--db",   db,   "--table",     "tall", "--quiet"};
    ASSERT_EQ(RunCli(args).Status, 0);
    EXPECT_EQ(SqliteQuery(db, "SELECT type FROM pragma_table_info('tall')"), "INTEGER");
    EXPECT_EQ(SqliteQuery(db, "SELECT count(*), min(A), max(A) FROM tall"), "30|120|149");
}

TEST_F(XlsImport, BadEncryptedAndXmlWorkbooksSaySo) {
    // No terminal to ask for a password on (the tests' stdin is not one): the run says what to do.
    const std::string encrypted = KV_SHARED_DIR "/corpus/xls/password.xls";
    // The file, its password, the exit status (2: a usage error) and the message.
    const std::tuple<std::string, std::string, int, std::string> cases[] = {
        {Write("notes.xls", "just some text"), "", 1, "notes.xls: File is not an Excel file"},
        {Write("cut.xls", Orders().substr(0, 230)), "", 1, "cut.xls: Excel: unexpected end of file at byte"},
        {Write("book.xlsb", "PK"), "", 1, "book.xlsb: File is not valid Excel Workbook"},
        {encrypted, "", 1, "password.xls: the workbook is encrypted: give its password with --password"},
        {encrypted, "nope", 1, "password.xls: the password given with --password does not open the workbook"},
    };
    for (const auto& [file, password, status, message] : cases) {
        if (!std::filesystem::exists(file)) continue; // the shared corpus is not here
        std::vector<std::string> args = {"import", file, "--db", db, "--table", "t", "--quiet"};
        if (!password.empty()) args.insert(args.end(), {"--password", password});
        const test::CliResult r = RunCli(args);
        EXPECT_EQ(r.Status, status) << message;
        EXPECT_NE(r.Err.find(message), std::string::npos) << r.Err;
    }
    if (!std::filesystem::exists(encrypted)) return;
    const test::CliResult right = RunCli({"import", encrypted, "--password", "password", "--names-row", "0",
                                          "--db", db, "--table", "t", "--quiet"});
    ASSERT_EQ(right.Status, 0) << right.Err;
    EXPECT_NE(SqliteQuery(db, "SELECT D FROM t WHERE D IS NOT NULL").find("A ZIP bomb"), std::string::npos);
}

} // namespace
} // namespace kv
