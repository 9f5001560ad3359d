// kvimport import and preview with Excel 2007+ workbooks, as a user runs them.

#include "TestSupport.h"
#include "support/XlsbBuilder.h"
#include "support/XlsxBuilder.h"

#include <filesystem>

namespace kv {
namespace {

using namespace kv::test;

using XlsxImport = test::CliFixture;

// Two sheets; the second has captions, whole numbers, decimals, dates and a column of mixed values.
std::string Orders() {
    std::string orders = XRow(1, XCell("A1", "0", "s") + XCell("B1", "1", "s") + XCell("C1", "2", "s") +
                                     XCell("D1", "3", "s"));
    orders +=
        XRow(2, XCell("A2", "1") + XCell("B2", "12.5") + XCell("C2", "45292", "", 1) + XCell("D2", "4", "s"));
    orders += XRow(3, XCell("A3", "2") + XCell("B3", "3") + XCell("C3", "45293", "", 1) + XCell("D3", "7"));
    return test::XlsxBuilder()
        .Strings({"id", "amount", "day", "note", "ok"})
        .Styles({}, {0, 14})
        .Sheet("Cover", XRow(1, XCell("A1", "99")))
        .Sheet("Orders", orders)
        .Build();
}

TEST_F(XlsxImport, ASheetByNameBecomesATypedTableThatPreviewShows) {
    const std::string xlsx = Write("orders.xlsx", Orders());
    test::CliResult r =
        RunCli({"import", xlsx, "--sheet", "Orders", "--db", db, "--table", "orders", "--quiet"});
    ASSERT_EQ(r.Status, 0) << r.Err;
    EXPECT_EQ(
        SqliteQuery(db, "SELECT group_concat(name || ' ' || type, ', ') FROM pragma_table_info('orders')"),
        "id INTEGER, amount REAL, day DATE, note TEXT");
    EXPECT_EQ(SqliteQuery(db, "SELECT * FROM orders"), "1|12.5|2024-01-01|ok\n2|3.0|2024-01-02|7");
    r = RunCli(
        {"import", xlsx, "--sheet", "1", "--names-row", "0", "--db", db, "--table", "cover", "--quiet"});
    ASSERT_EQ(r.Status, 0) << r.Err;
    EXPECT_EQ(SqliteQuery(db, "SELECT A FROM cover"), "99");

    r = RunCli({"preview", xlsx, "--sheet", "Orders"});
    ASSERT_EQ(r.Status, 0) << r.Err;
    for (const char* part : {"Format: Office Open XML workbook (Excel 2007+)\n",
                             "Sheet 1: Cover (1 rows, 1 columns)\n", "Sheet 2: Orders (3 rows, 4 columns)\n",
                             "Author: Tester\n", "(date)", "(whole number)", "2024-01-01"})
        EXPECT_NE(r.Out.find(part), std::string::npos) << part << " in " << r.Out;
}

TEST_F(XlsxImport, ABinaryWorkbookImportsLikeAnXMLOne) {
    const std::string records = BRow(0) + BCell(7, 0, BU32(0)) + BCell(7, 1, BU32(1)) + BRow(1) +
                                BCell(2, 0, BU32(1 << 2 | 2)) + BCell(5, 1, BF64(45292), 1);
    const std::string xlsb =
        Write("orders.xlsb",
              XlsbBuilder().Strings({"id", "day"}).Styles({}, {0, 14}).Sheet("Orders", records).Build());
    test::CliResult r =
        RunCli({"import", xlsb, "--sheet", "Orders", "--db", db, "--table", "orders", "--quiet"});
    ASSERT_EQ(r.Status, 0) << r.Err;
    EXPECT_EQ(
        SqliteQuery(db, "SELECT group_concat(name || ' ' || type, ', ') FROM pragma_table_info('orders')"),
        "id INTEGER, day DATE");
    EXPECT_EQ(SqliteQuery(db, "SELECT * FROM orders"), "1|2024-01-01");
    r = RunCli({"preview", xlsb});
    ASSERT_EQ(r.Status, 0) << r.Err;
    EXPECT_NE(r.Out.find("Format: Excel binary workbook (Excel 2007+)\n"), std::string::npos) << r.Out;
}

TEST_F(XlsxImport, DamagedAndEncryptedWorkbooksSaySo) {
    const std::string encrypted = KV_SHARED_DIR "/corpus/xlsx/pass_protected.xlsx";
    const std::tuple<std::string, std::string> cases[] = {
        {Write("notes.xlsx", "just some text"),
         "notes.xlsx: File is not valid Excel Workbook: it is no zip package"},
        {Write("cut.xlsx", test::XlsxBuilder().Sheet("S", "").Without("xl/worksheets/sheet1.xml").Build()),
         "cut.xlsx: Excel workbook: part xl/worksheets/sheet1.xml: the package has no such part"},
        {encrypted, "pass_protected.xlsx: The workbook is encrypted with a password"},
    };
    for (const auto& [file, message] : cases) {
        if (!std::filesystem::exists(file)) continue; // the shared corpus is not here
        const test::CliResult r = RunCli({"import", file, "--db", db, "--table", "t", "--quiet"});
        EXPECT_EQ(r.Status, 1) << message;
        EXPECT_NE(r.Err.find(message), std::string::npos) << r.Err;
    }
}

} // namespace
} // namespace kv
