// kvimport import and preview with Excel workbooks, as a user runs them.

#include "TestSupport.h"
#include "support/BiffBuilder.h"

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
