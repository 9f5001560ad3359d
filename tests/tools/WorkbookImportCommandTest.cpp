// kvimport import and preview with workbooks (Excel, Excel 2007+, OpenDocument), as a user runs them.

#include "TestSupport.h"
#include "support/BiffBuilder.h"
#include "support/OdsBuilder.h"
#include "support/XlsbBuilder.h"
#include "support/XlsxBuilder.h"

#include <filesystem>
#include <tuple>

namespace kv {
namespace {

using namespace kv::test;

using WorkbookImport = test::CliFixture;

// Each format's workbook: a cover sheet, then orders with captions, whole numbers, decimals, dates and a
// column of mixed values (OpenDocument: text over two paragraphs, and booleans).
std::string XlsOrders() {
    const std::string globals = Xf8(0) + Xf8(14) + Sst({"id", "amount", "day", "note", "ok", "late"});
    std::string orders =
        LabelSst(0, 0, 0, 0) + LabelSst(0, 1, 0, 1) + LabelSst(0, 2, 0, 2) + LabelSst(0, 3, 0, 3);
    orders += Number(1, 0, 0, 1) + Number(1, 1, 0, 12.5) + Number(1, 2, 1, 45292) + LabelSst(1, 3, 0, 4);
    orders += Number(2, 0, 0, 2) + Number(2, 1, 0, 3) + Number(2, 2, 1, 45293) + Number(2, 3, 0, 7);
    return Biff8Book{globals, {}}.AddSheet("Cover", Number(0, 0, 0, 99)).AddSheet("Orders", orders).Build();
}

std::string XlsxOrders() {
    std::string orders = XRow(1, XCell("A1", "0", "s") + XCell("B1", "1", "s") + XCell("C1", "2", "s") +
                                     XCell("D1", "3", "s"));
    orders +=
        XRow(2, XCell("A2", "1") + XCell("B2", "12.5") + XCell("C2", "45292", "", 1) + XCell("D2", "4", "s"));
    orders += XRow(3, XCell("A3", "2") + XCell("B3", "3") + XCell("C3", "45293", "", 1) + XCell("D3", "7"));
    return XlsxBuilder()
        .Strings({"id", "amount", "day", "note", "ok"})
        .Styles({}, {0, 14})
        .Sheet("Cover", XRow(1, XCell("A1", "99")))
        .Sheet("Orders", orders)
        .Build();
}

OdsBuilder OdsOrders() {
    const auto date = [](const std::string& iso) {
        return OdsCell("office:value-type=\"date\" office:date-value=\"" + iso + "\"");
    };
    const auto boolean = [](const char* value) {
        return OdsCell(std::string("office:value-type=\"boolean\" office:boolean-value=\"") + value + "\"");
    };
    const std::string rows =
        OdsRow(OdsText("id") + OdsText("amount") + OdsText("day") + OdsText("note") + OdsText("paid")) +
        OdsRow(OdsFloat("1") + OdsFloat("12.5") + date("2024-01-01") + OdsText("ok") + boolean("true")) +
        OdsRow(OdsFloat("2") + OdsFloat("3") + date("2024-01-02") +
               OdsText("two<text:s/> lines</text:p><text:p>x") + boolean("false")) +
        OdsRow(OdsEmpty(1024), 1048573);
    return OdsBuilder()
        .Meta("<dc:title>Orders</dc:title>")
        .Sheet("Cover", OdsRow(OdsFloat("99")))
        .Sheet("Orders", rows);
}

TEST_F(WorkbookImport, ASheetByNameBecomesATypedTableThatPreviewShows) {
    const std::string excelTypes = "id INTEGER, amount REAL, day DATE, note TEXT",
                      excelRows = "1|12.5|2024-01-01|ok\n2|3.0|2024-01-02|7",
                      odsTypes = excelTypes + ", paid BOOLEAN",
                      odsRows = "1|12.5|2024-01-01|ok|1\n2|3.0|2024-01-02|two  lines\r\nx|0";
    const std::vector<const char*> odsPreview = {"Sheet 2: Orders (3 rows, 5 columns)\n", "Title: Orders\n",
                                                 "(boolean)"};
    const struct {
        const char* file;
        std::string bytes, types, rows;
        std::vector<const char*> preview;
    } cases[] = {
        {"orders.xls",
         XlsOrders(),
         excelTypes,
         excelRows,
         {"Format: BIFF8 (Excel 97-2003)\n", "Sheet 2: Orders (3 rows, 4 columns)\n"}},
        {"orders.xlsx",
         XlsxOrders(),
         excelTypes,
         excelRows,
         {"Format: Office Open XML workbook (Excel 2007+)\n", "Sheet 2: Orders (3 rows, 4 columns)\n",
          "Author: Tester\n"}},
        {"orders.ods", OdsOrders().Build(), odsTypes, odsRows, odsPreview},
        {"orders.fods", OdsOrders().Flat(), odsTypes, odsRows, odsPreview},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file);
        const std::string file = Write(c.file, c.bytes), out = dir.File(std::string(c.file) + ".sqlite");
        CliResult r =
            RunCli({"import", file, "--sheet", "Orders", "--db", out, "--table", "orders", "--quiet"});
        ASSERT_EQ(r.Status, 0) << r.Err;
        EXPECT_EQ(SqliteQuery(
                      out, "SELECT group_concat(name || ' ' || type, ', ') FROM pragma_table_info('orders')"),
                  c.types);
        EXPECT_EQ(SqliteQuery(out, "SELECT * FROM orders"), c.rows);
        // By number, and without captions: every row is data, columns are named by letters.
        r = RunCli(
            {"import", file, "--sheet", "1", "--names-row", "0", "--db", out, "--table", "cover", "--quiet"});
        ASSERT_EQ(r.Status, 0) << r.Err;
        EXPECT_EQ(SqliteQuery(out, "SELECT A FROM cover"), "99");

        r = RunCli({"preview", file, "--sheet", "Orders"});
        ASSERT_EQ(r.Status, 0) << r.Err;
        std::vector<const char*> parts = {"Sheet 1: Cover (1 rows, 1 columns)\n", "(date)", "(whole number)",
                                          "2024-01-01"};
        parts.insert(parts.end(), c.preview.begin(), c.preview.end());
        for (const char* part : parts)
            EXPECT_NE(r.Out.find(part), std::string::npos) << part << " in " << r.Out;
    }
}

TEST_F(WorkbookImport, ABinaryWorkbookImportsLikeAnXMLOne) {
    const std::string records = BRow(0) + BCell(7, 0, BU32(0)) + BCell(7, 1, BU32(1)) + BRow(1) +
                                BCell(2, 0, BU32(1 << 2 | 2)) + BCell(5, 1, BF64(45292), 1);
    const std::string xlsb =
        Write("orders.xlsb",
              XlsbBuilder().Strings({"id", "day"}).Styles({}, {0, 14}).Sheet("Orders", records).Build());
    CliResult r = RunCli({"import", xlsb, "--sheet", "Orders", "--db", db, "--table", "orders", "--quiet"});
    ASSERT_EQ(r.Status, 0) << r.Err;
    EXPECT_EQ(
        SqliteQuery(db, "SELECT group_concat(name || ' ' || type, ', ') FROM pragma_table_info('orders')"),
        "id INTEGER, day DATE");
    EXPECT_EQ(SqliteQuery(db, "SELECT * FROM orders"), "1|2024-01-01");
    r = RunCli({"preview", xlsb});
    ASSERT_EQ(r.Status, 0) << r.Err;
    EXPECT_NE(r.Out.find("Format: Excel binary workbook (Excel 2007+)\n"), std::string::npos) << r.Out;
}

TEST_F(WorkbookImport, ARowOfTextOverTypedValuesNamesTheColumns) {
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

TEST_F(WorkbookImport, RowsComeOneAtATimeWhateverTheOrderOfTheCells) {
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

TEST_F(WorkbookImport, BadEncryptedAndMisnamedWorkbooksSaySo) {
    // No terminal to ask for a password on (the tests' stdin is not one): the run says what to do.
    const std::string xls = KV_SHARED_DIR "/corpus/xls/password.xls";
    const std::string xlsx = KV_SHARED_DIR "/corpus/xlsx/pass_protected.xlsx";
    const std::string ods = KV_SHARED_DIR "/corpus/ods/pass_protected.ods";
    // The file, its password, the exit status (2: a usage error) and the message.
    const std::tuple<std::string, std::string, int, std::string> cases[] = {
        {Write("notes.xls", "just some text"), "", 1, "notes.xls: File is not an Excel file"},
        {Write("cut.xls", XlsOrders().substr(0, 230)), "", 1,
         "cut.xls: Excel: unexpected end of file at byte"},
        {Write("book.xlsb", "PK"), "", 1, "book.xlsb: File is not valid Excel Workbook"},
        {xls, "", 1, "password.xls: the workbook is encrypted: give its password with --password"},
        {xls, "nope", 1, "password.xls: the password given with --password does not open the workbook"},
        {Write("notes.xlsx", "just some text"), "", 1,
         "notes.xlsx: File is not valid Excel Workbook: it is no zip package"},
        {Write("cut.xlsx", XlsxBuilder().Sheet("S", "").Without("xl/worksheets/sheet1.xml").Build()), "", 1,
         "cut.xlsx: Excel workbook: part xl/worksheets/sheet1.xml: the package has no such part"},
        {xlsx, "", 1, "pass_protected.xlsx: The workbook is encrypted with a password"},
        {Write("notes.ods", "just some text"), "", 1,
         "notes.ods: File is not an OpenDocument spreadsheet: the document holds no office:body"},
        {Write("cut.ods", OdsOrders().Build().substr(0, 300)), "", 1, "cut.ods: Zip: damaged file"},
        {Write("unknown.sheet", OdsOrders().Flat()), "", 2, "cannot tell the format"},
        {ods, "", 1, "pass_protected.ods: The document is encrypted with a password"},
    };
    for (const auto& [file, password, status, message] : cases) {
        if (!std::filesystem::exists(file)) continue; // the shared corpus is not here
        std::vector<std::string> args = {"import", file, "--db", db, "--table", "t", "--quiet"};
        if (!password.empty()) args.insert(args.end(), {"--password", password});
        const CliResult r = RunCli(args);
        EXPECT_EQ(r.Status, status) << message;
        EXPECT_NE(r.Err.find(message), std::string::npos) << r.Err;
    }
    // Named by --format, any file name does.
    CliResult r = RunCli({"import", dir.File("unknown.sheet"), "--format", "ods", "--sheet", "Orders", "--db",
                          db, "--table", "t", "--quiet"});
    ASSERT_EQ(r.Status, 0) << r.Err;
    EXPECT_EQ(SqliteQuery(db, "SELECT count(*) FROM t"), "2");
    if (!std::filesystem::exists(xls)) return;
    r = RunCli(
        {"import", xls, "--password", "password", "--names-row", "0", "--db", db, "--table", "x", "--quiet"});
    ASSERT_EQ(r.Status, 0) << r.Err;
    EXPECT_NE(SqliteQuery(db, "SELECT D FROM x WHERE D IS NOT NULL").find("A ZIP bomb"), std::string::npos);
}

} // namespace
} // namespace kv
