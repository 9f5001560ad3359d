// kvimport import and preview with Excel workbooks, as a user runs them.

#include "TestSupport.h"
#include "support/BiffBuilder.h"

#include <filesystem>

namespace kv {
namespace {

using namespace kv::test;

using XlsImport = test::CliFixture;

std::string Sheet(std::string records) {
    return Biff8Book().AddSheet("S", std::move(records)).Build();
}

// Two sheets; the second has captions, whole numbers, decimals, dates and a column of mixed values.
std::string Orders() {
    const std::string globals = Xf8(0) + Xf8(14) + Sst({"id", "amount", "day", "note", "ok", "late"});
    std::string orders =
        LabelSst(0, 0, 0, 0) + LabelSst(0, 1, 0, 1) + LabelSst(0, 2, 0, 2) + LabelSst(0, 3, 0, 3);
    orders += Number(1, 0, 0, 1) + Number(1, 1, 0, 12.5) + Number(1, 2, 1, 45292) + LabelSst(1, 3, 0, 4);
    orders += Number(2, 0, 0, 2) + Number(2, 1, 0, 3) + Number(2, 2, 1, 45293) + Number(2, 3, 0, 7);
    return Biff8Book{globals, {}}.AddSheet("Cover", Number(0, 0, 0, 99)).AddSheet("Orders", orders).Build();
}

TEST_F(XlsImport, ASheetByNameBecomesATypedTable) {
    const std::string xls = Write("orders.xls", Orders());
    test::CliResult r =
        RunCli({"import", xls, "--sheet", "Orders", "--db", db, "--table", "orders", "--quiet"});
    ASSERT_EQ(r.Status, 0) << r.Err;
    EXPECT_EQ(
        SqliteQuery(db, "SELECT group_concat(name || ' ' || type, ', ') FROM pragma_table_info('orders')"),
        "id INTEGER, amount REAL, day DATE, note TEXT");
    EXPECT_EQ(SqliteQuery(db, "SELECT * FROM orders"), "1|12.5|2024-01-01|ok\n2|3.0|2024-01-02|7");

    // By number, and without captions: every row is data, columns are named by letters.
    test::CliResult byNumber = RunCli(
        {"import", xls, "--sheet", "1", "--names-row", "0", "--db", db, "--table", "cover", "--quiet"});
    ASSERT_EQ(byNumber.Status, 0) << byNumber.Err;
    EXPECT_EQ(SqliteQuery(db, "SELECT A FROM cover"), "99");
}

TEST_F(XlsImport, PreviewListsSheetsAndColumnTypes) {
    const std::string xls = Write("orders.xls", Orders());
    test::CliResult r = RunCli({"preview", xls, "--sheet", "Orders"});
    ASSERT_EQ(r.Status, 0) << r.Err;
    EXPECT_NE(r.Out.find("Format: BIFF8 (Excel 97-2003)\n"), std::string::npos) << r.Out;
    EXPECT_NE(r.Out.find("Sheet 1: Cover (1 rows, 1 columns)\n"), std::string::npos) << r.Out;
    EXPECT_NE(r.Out.find("Sheet 2: Orders (3 rows, 4 columns)\n"), std::string::npos) << r.Out;
    EXPECT_NE(r.Out.find("(date)"), std::string::npos) << r.Out;
    EXPECT_NE(r.Out.find("(whole number)"), std::string::npos) << r.Out;
    EXPECT_NE(r.Out.find("2024-01-01"), std::string::npos) << r.Out;
}

TEST_F(XlsImport, ARowOfTextOverTypedValuesNamesTheColumns) {
    // A sheet of one row has no names row: its row is data.
    const std::string one =
        Write("one.xls", Biff8Book{Sst({"XYZ"}), {}}.AddSheet("S", LabelSst(0, 0, 0, 0)).Build());
    ASSERT_EQ(RunCli({"import", one, "--db", db, "--table", "one", "--quiet"}).Status, 0);
    EXPECT_EQ(SqliteQuery(db, "SELECT A FROM one"), "XYZ");
    // So is the first row of a sheet of text alone: nothing says it names anything.
    const std::string words = Write("w.xls", Biff8Book{Sst({"apple", "pear"}), {}}
                                                 .AddSheet("S", LabelSst(0, 0, 0, 0) + LabelSst(1, 0, 0, 1))
                                                 .Build());
    ASSERT_EQ(RunCli({"import", words, "--db", db, "--table", "w", "--quiet"}).Status, 0);
    EXPECT_EQ(SqliteQuery(db, "SELECT group_concat(A) FROM w"), "apple,pear");
    // A first row holding a number is data too.
    const std::string numbers = Write("n.xls", Sheet(Number(0, 0, 0, 1) + Number(1, 0, 0, 2)));
    ASSERT_EQ(RunCli({"import", numbers, "--db", db, "--table", "n", "--quiet"}).Status, 0);
    EXPECT_EQ(SqliteQuery(db, "SELECT group_concat(A) FROM n"), "1,2");
}

TEST_F(XlsImport, RowsComeOneAtATimeWhateverTheOrderOfTheCells) {
    // Cells stored column by column make the same typed table as cells stored row by row.
    const std::string globals = Sst({"id", "name", "a", "b"});
    const std::string byColumn = LabelSst(0, 0, 0, 0) + Number(1, 0, 0, 1) + Number(2, 0, 0, 2) +
                                 LabelSst(0, 1, 0, 1) + LabelSst(1, 1, 0, 2) + LabelSst(2, 1, 0, 3);
    const std::string columns = Write("columns.xls", Biff8Book{globals, {}}.AddSheet("S", byColumn).Build());
    ASSERT_EQ(RunCli({"import", columns, "--db", db, "--table", "c", "--quiet"}).Status, 0);
    EXPECT_EQ(SqliteQuery(db, "SELECT group_concat(name || ' ' || type, ', ') FROM pragma_table_info('c')"),
              "id INTEGER, name TEXT");
    EXPECT_EQ(SqliteQuery(db, "SELECT * FROM c"), "1|a\n2|b");

    // The types come from the rows imported, however far down they begin.
    std::string rows;
    for (int r = 0; r < 150; ++r) rows += r < 120 ? LabelSst(r, 0, 0, 2) : Number(r, 0, 0, r);
    const std::string tall = Write("tall.xls", Biff8Book{globals, {}}.AddSheet("S", rows).Build());
    ASSERT_EQ(RunCli({"import", tall, "--first-row", "121", "--names-row", "0", "--db", db, "--table", "tall",
                      "--quiet"})
                  .Status,
              0);
    EXPECT_EQ(SqliteQuery(db, "SELECT type FROM pragma_table_info('tall')"), "INTEGER");
    EXPECT_EQ(SqliteQuery(db, "SELECT count(*), min(A), max(A) FROM tall"), "30|120|149");
}

TEST_F(XlsImport, AnEncryptedWorkbookNeedsItsPassword) {
    const std::string xls = KV_SHARED_DIR "/corpus/xls/password.xls";
    if (!std::filesystem::exists(xls)) GTEST_SKIP() << "the shared corpus is not here";
    // No terminal to ask on (the tests' stdin is not one): the run says what to do.
    test::CliResult none = RunCli({"import", xls, "--db", db, "--table", "t", "--quiet"});
    EXPECT_EQ(none.Status, 1);
    EXPECT_NE(none.Err.find("password.xls: the workbook is encrypted: give its password with --password"),
              std::string::npos)
        << none.Err;
    test::CliResult wrong =
        RunCli({"import", xls, "--password", "nope", "--db", db, "--table", "t", "--quiet"});
    EXPECT_NE(wrong.Err.find("the password given with --password does not open the workbook"),
              std::string::npos)
        << wrong.Err;
    test::CliResult right = RunCli(
        {"import", xls, "--password", "password", "--names-row", "0", "--db", db, "--table", "t", "--quiet"});
    ASSERT_EQ(right.Status, 0) << right.Err;
    EXPECT_NE(SqliteQuery(db, "SELECT D FROM t WHERE D IS NOT NULL").find("A ZIP bomb"), std::string::npos);
}

TEST_F(XlsImport, BadWorkbooksAndXmlWorkbooksSaySo) {
    struct Case {
        std::string File, Bytes, Message;
    };
    const Case cases[] = {
        {"notes.xls", "just some text", "notes.xls: File is not an Excel file"},
        {"cut.xls", Orders().substr(0, 230), "cut.xls: Excel: unexpected end of file at byte"},
        {"book.xlsx", "PK", "XML workbooks (.xlsx, .xlsm, .xlsb) cannot be read yet"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.File);
        test::CliResult r = RunCli({"import", Write(c.File, c.Bytes), "--db", db, "--table", "t", "--quiet"});
        EXPECT_NE(r.Status, 0);
        EXPECT_NE(r.Err.find(c.Message), std::string::npos) << r.Err;
    }
}

} // namespace
} // namespace kv
