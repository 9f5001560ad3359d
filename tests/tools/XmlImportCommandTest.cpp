// kvimport import and preview with XML documents, as a user runs them.

#include "TestSupport.h"

#include <filesystem>

namespace kv {
namespace {

using test::RunCli;
using test::SqliteQuery;

using XmlImport = test::CliFixture;

const char* const kFeed =
    "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\n"
    "<rss version=\"2.0\" xmlns:dc=\"http://purl.org/dc/elements/1.1/\">\n"
    "<channel><title>News</title><link>http://example.org/</link>\n"
    "<image><url>http://example.org/logo.png</url><title>News</title></image>\n"
    "<item><title>Caf\xE9 opens</title><link>http://example.org/1</link>\n"
    "  <description><![CDATA[<p>Fresh & hot</p>]]></description><dc:creator>Ann</dc:creator>\n"
    "  <pubDate>2024-03-01</pubDate><category>food</category><category>town</category></item>\n"
    "<item><title>Rain &amp; wind</title><link>http://example.org/2</link>\n"
    "  <pubDate>2024-03-02</pubDate></item>\n"
    "</channel></rss>\n";

TEST_F(XmlImport, AFeedNeedsNoOptions) {
    test::CliResult r = RunCli({"import", Write("feed.xml", kFeed), "--db", db, "--quiet"});
    ASSERT_EQ(r.Status, 0) << r.Err;
    EXPECT_EQ(
        SqliteQuery(db, "SELECT group_concat(name || ' ' || type, ', ') FROM pragma_table_info('feed')"),
        "title TEXT, link TEXT, description TEXT, dc:creator TEXT, pubDate DATE, category TEXT");
    EXPECT_EQ(SqliteQuery(db, "SELECT * FROM feed"),
              "Café opens|http://example.org/1|<p>Fresh & hot</p>|Ann|2024-03-01|food\ntown\n"
              "Rain & wind|http://example.org/2|null|null|2024-03-02|null");
}

TEST_F(XmlImport, APurchaseOrderNeedsNoOptions) {
    const std::string po = std::string(KV_SHARED_DIR) + "/corpus/xml/po1_0.xml";
    if (!std::filesystem::exists(po)) GTEST_SKIP() << "the shared corpus is not here";
    test::CliResult r = RunCli({"import", po, "--db", db, "--quiet"});
    ASSERT_EQ(r.Status, 0) << r.Err;
    EXPECT_EQ(SqliteQuery(db, "SELECT * FROM po1_0"),
              "872-AA|Lawnmower|1|148.95|Confirm this is electric|null\n926-AA|Baby "
              "Monitor|1|39.98|null|1999-05-21");
}

TEST_F(XmlImport, ARowElementByNameAndItsSpecification) {
    const std::string xml = Write("feed.txt", kFeed);
    const std::string spec = dir.File("feed.kvi");
    test::CliResult r = RunCli({"import", xml, "--format", "xml", "--row-element", "image", "--db", db,
                                "--table", "images", "--save-spec", spec, "--quiet"});
    ASSERT_EQ(r.Status, 0) << r.Err;
    EXPECT_EQ(SqliteQuery(db, "SELECT * FROM images"), "http://example.org/logo.png|News");
    r = RunCli({"run", spec, "--db", db, "--quiet"});
    ASSERT_EQ(r.Status, 0) << r.Err;
    EXPECT_EQ(SqliteQuery(db, "SELECT count(*) FROM images"), "2");
}

TEST_F(XmlImport, PreviewShowsTheElementItsColumnsAndRows) {
    test::CliResult r =
        RunCli({"preview",
                Write("p.xml", "<r><row id='1'><v>a</v></row><row id='2'/><row id='3'><w>x</w></row></r>"),
                "--rows", "2"});
    ASSERT_EQ(r.Status, 0) << r.Err;
    EXPECT_EQ(
        r.Out,
        "Row element: row\nRows: 3\nEncoding: utf-8\nColumns:\n  1   id    integer\n  2   v     string\n"
        "  3   w     string\n\nFirst 2 rows:\nid | v | w\n---+---+--\n1  | a |\n2  |   |\n");
}

TEST_F(XmlImport, DocumentsWithoutRowsSaySo) {
    test::CliResult r = RunCli({"import", Write("t.xml", "<note>only text</note>"), "--db", db});
    EXPECT_EQ(r.Status, 1);
    EXPECT_NE(
        r.Err.find("t.xml: no element of the document has attributes or child elements to make rows of"),
        std::string::npos)
        << r.Err;
    r = RunCli({"import", Write("u.xml", "<r><a/></r>"), "--row-element", "row", "--db", db});
    EXPECT_EQ(r.Status, 1);
    EXPECT_NE(r.Err.find("no columns"), std::string::npos) << r.Err;
}

} // namespace
} // namespace kv
