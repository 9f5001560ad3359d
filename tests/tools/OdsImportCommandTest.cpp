// kvimport import and preview with OpenDocument spreadsheets, as a user runs them.

#include "TestSupport.h"
#include "support/OdsBuilder.h"

#include <filesystem>

namespace kv {
namespace {

using namespace kv::test;

using OdsImport = test::CliFixture;

std::string Date(const std::string& iso) {
    return OdsCell("office:value-type=\"date\" office:date-value=\"" + iso + "\"");
}

// A cover sheet, then orders with captions, whole numbers, decimals, dates, text and booleans.
OdsBuilder Orders() {
    const std::string rows =
        OdsRow(OdsText("id") + OdsText("amount") + OdsText("day") + OdsText("note") + OdsText("paid")) +
        OdsRow(OdsFloat("1") + OdsFloat("12.5") + Date("2024-01-01") + OdsText("ok") +
               OdsCell("office:value-type=\"boolean\" office:boolean-value=\"true\"")) +
        OdsRow(OdsFloat("2") + OdsFloat("3") + Date("2024-01-02") +
               OdsText("two<text:s/> lines</text:p><text:p>x") +
               OdsCell("office:value-type=\"boolean\" office:boolean-value=\"false\"")) +
        OdsRow(OdsEmpty(1024), 1048573);
    return OdsBuilder()
        .Meta("<dc:title>Orders</dc:title>")
        .Sheet("Cover", OdsRow(OdsFloat("99")))
        .Sheet("Orders", rows);
}

TEST_F(OdsImport, ASheetByNameBecomesATypedTableThatPreviewShows) {
    for (const auto& [name, bytes] :
         {std::pair("orders.ods", Orders().Build()), {"orders.fods", Orders().Flat()}}) {
        SCOPED_TRACE(name);
        const std::string file = Write(name, bytes), out = dir.File(std::string(name) + ".sqlite");
        test::CliResult r =
            RunCli({"import", file, "--sheet", "Orders", "--db", out, "--table", "orders", "--quiet"});
        ASSERT_EQ(r.Status, 0) << r.Err;
        EXPECT_EQ(SqliteQuery(out, "SELECT group_concat(name || ' ' || type, ', ') FROM "
                                   "pragma_table_info('orders')"),
                  "id INTEGER, amount REAL, day DATE, note TEXT, paid BOOLEAN");
        EXPECT_EQ(
            SqliteQuery(out, "SELECT id, amount, day, replace(note, char(13, 10), '/'), paid FROM orders"),
            "1|12.5|2024-01-01|ok|1\n2|3.0|2024-01-02|two  lines/x|0");
        // By number, and without captions: every row is data, columns are named by letters.
        r = RunCli(
            {"import", file, "--sheet", "1", "--names-row", "0", "--db", out, "--table", "cover", "--quiet"});
        ASSERT_EQ(r.Status, 0) << r.Err;
        EXPECT_EQ(SqliteQuery(out, "SELECT A FROM cover"), "99");

        r = RunCli({"preview", file, "--sheet", "Orders"});
        ASSERT_EQ(r.Status, 0) << r.Err;
        for (const char* part :
             {"Sheet 1: Cover (1 rows, 1 columns)\n", "Sheet 2: Orders (3 rows, 5 columns)\n",
              "Title: Orders\n", "(date)", "(whole number)", "(boolean)", "2024-01-01"})
            EXPECT_NE(r.Out.find(part), std::string::npos) << part << " in " << r.Out;
    }
}

TEST_F(OdsImport, BadAndEncryptedDocumentsSaySo) {
    const std::string encrypted = KV_SHARED_DIR "/corpus/ods/pass_protected.ods";
    const std::pair<std::string, std::string> cases[] = {
        {Write("notes.ods", "just some text"),
         "notes.ods: File is not an OpenDocument spreadsheet: the document "
         "holds no office:body"},
        {Write("cut.ods", Orders().Build().substr(0, 300)), "cut.ods: Zip: damaged file"},
        {Write("unknown.sheet", Orders().Flat()), "cannot tell the format"},
        {encrypted, "pass_protected.ods: The document is encrypted with a password"},
    };
    for (const auto& [file, message] : cases) {
        if (!std::filesystem::exists(file)) continue; // the shared corpus is not here
        const test::CliResult r = RunCli({"import", file, "--db", db, "--table", "t", "--quiet"});
        EXPECT_NE(r.Status, 0) << message;
        EXPECT_NE(r.Err.find(message), std::string::npos) << r.Err;
    }
    // Named by --format, any file name does.
    const test::CliResult r = RunCli({"import", dir.File("unknown.sheet"), "--format", "ods", "--sheet",
                                      "Orders", "--db", db, "--table", "t", "--quiet"});
    ASSERT_EQ(r.Status, 0) << r.Err;
    EXPECT_EQ(SqliteQuery(db, "SELECT count(*) FROM t"), "2");
}

} // namespace
} // namespace kv
