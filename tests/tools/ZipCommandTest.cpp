// kvimport zip list: the table a user sees, and the messages of archives it cannot read.

#include "TestSupport.h"
#include "support/ZipBuilder.h"

namespace kv {
namespace {

using namespace kv::test;

using ZipCommand = test::CliFixture;

TEST_F(ZipCommand, ListsMembersWithTheirSizesMethodsAndTimes) {
    ZipMember secret{"secret.txt", "x", 8, {}, {}, {}, false, false, 1};
    ZipMember undated{"line\nbreak.txt", "", 0};
    undated.DosDate = 0;
    ZipBuilder b;
    b.Add("orders.csv", std::string(20000, 'a')).Add("docs/", "", 0).Add({"notes.txt", "ab", 9, "ab"});
    b.Add(secret).Add(undated).Comment("exported nightly");
    const std::string archive = Write("exports.zip", b.Build());
    CliResult r = RunCli({"zip", "list", archive});
    ASSERT_EQ(r.Status, 0) << r.Err;
    EXPECT_EQ(r.Out, " Size  Compressed  Method              Modified             Name\n"
                     "20000          37  Deflate             2024-03-05 14:30:20  orders.csv\n"
                     "    0           0  Stored              2024-03-05 14:30:20  docs/\n"
                     "    2           2  Deflate64           2024-03-05 14:30:20  notes.txt\n"
                     "    1           3  Deflate, encrypted  2024-03-05 14:30:20  secret.txt\n"
                     "    0           0  Stored              -                    line?break.txt\n"
                     "-----  ----------\n"
                     "20003          42  5 members\n"
                     "Comment: exported nightly\n");
    EXPECT_EQ(r.Err, "");
}

TEST_F(ZipCommand, FailuresNameTheArchive) {
    std::string cut = ZipBuilder().Add("a.csv", "1;2").Build();
    cut.resize(cut.size() - 5);
    const std::string damaged = Write("cut.zip", cut);
    CliResult r = RunCli({"zip", "list", damaged});
    EXPECT_EQ(r.Status, 1);
    EXPECT_EQ(r.Err, damaged + ": Zip: damaged file at byte " + std::to_string(cut.size()) +
                         ": no end of central directory record: the archive is cut short or damaged\n");

    r = RunCli({"zip", "list", dir.File("missing.zip")});
    EXPECT_EQ(r.Status, 1);
    EXPECT_EQ(r.Err.rfind("Cannot open file \"" + dir.File("missing.zip") + "\".", 0), 0u) << r.Err;

    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {"zip"}, {"zip", "show", "a.zip"}, {"zip", "list"}, {"zip", "list", "a", "b"}, {"zip", "--x"}}) {
        r = RunCli(args);
        EXPECT_EQ(r.Status, 2) << args.back();
        EXPECT_NE(r.Err.find("Usage: kvimport zip list ARCHIVE"), std::string::npos) << r.Err;
    }
    r = RunCli({"zip", "--help"});
    EXPECT_EQ(r.Status, 0);
    EXPECT_NE(r.Out.find("Lists the members"), std::string::npos);
}

TEST_F(ZipCommand, ImportsAMemberByTheSourceOfItsExtension) {
    const std::string archive = Write("exports.zip", ZipBuilder()
                                                         .Add("docs/", "", 0)
                                                         .Add("docs/orders.csv", "id,item\n1,pen\n2,ink\n")
                                                         .Add("readme.md", "not a source", 0)
                                                         .Build());
    CliResult r = RunCli({"import", archive, "--db", db, "--quiet"}); // its only member a source reads
    ASSERT_EQ(r.Status, 0) << r.Err;
    EXPECT_EQ(SqliteQuery(db, "SELECT id || ' ' || item FROM orders"), "1 pen\n2 ink");

    const std::string two =
        Write("two.zip", ZipBuilder().Add("a.csv", "x\n1\n").Add("B.CSV", "y\n2\n").Build());
    r = RunCli({"import", two, "--member", "b.csv", "--db", db, "--table", "b", "--quiet"});
    ASSERT_EQ(r.Status, 0) << r.Err;
    EXPECT_EQ(SqliteQuery(db, "SELECT y FROM b"), "2");

    const struct {
        std::vector<std::string> Args;
        int Status;
        std::string Error;
    } failures[] = {
        {{"import", two, "--db", db},
         2,
         "two.zip holds 2 members a source can read (a.csv, B.CSV): name one with --member"},
        {{"import", two, "--member", "c.csv", "--db", db},
         1,
         "two.zip: no member named \"c.csv\" (kvimport zip list two.zip shows them)"},
        {{"preview", archive, "--member", "readme.md"},
         2,
         "cannot tell the format of the member 'readme.md'"},
        {{"import", two, "--member", "a.csv", "--db", db, "--save-spec", dir.File("s.kvi")},
         2,
         "--save-spec records a source file, not a member"},
    };
    for (const auto& f : failures) {
        r = RunCli(f.Args);
        EXPECT_EQ(r.Status, f.Status) << f.Error;
        EXPECT_NE(r.Err.find(f.Error), std::string::npos) << r.Err;
    }
}

} // namespace
} // namespace kv
