// kvimport eval: output, exit status and messages as a user sees them.

#include "TestSupport.h"

namespace kv {
namespace {

using test::RunCli;

TEST(EvalCommand, PrintsValues) {
    const std::pair<std::vector<std::string>, const char*> cases[] = {
        {{"eval", "8 - 4 - 2"}, "6\n"},
        {{"eval", "--typed", "COUNT(5, 6, 7)"}, "integer:2\n"},
        {{"eval", "--typed", "1 = 1"}, "boolean:True\n"},
        {{"eval", "--typed", "1/3"}, "double:0.333333333333333\n"},
        {{"eval", "--typed", "STRTODATE('2026-03-07')"}, "datetime:2026-03-07\n"},
        {{"eval", "--typed", "'a' + 'b'"}, "string:ab\n"},
        {{"eval", "--typed", ""}, "unassigned:\n"},
        {{"eval", "--typed", "--param", "RATE=1.5", "RATE"}, "string:1.5\n"},
        {{"eval", "--param", "RATE=1.5", "--param", "QTY=10", "QTY * RATE"}, "15\n"},
        {{"eval", "--function", "TWICE(X)=X*2", "--function", "QUAD(X)=TWICE(TWICE(X))", "QUAD(3)"}, "12\n"},
        {{"eval", "--", "-5 * 2"}, "-10\n"},
    };
    for (const auto& [args, out] : cases) {
        test::CliResult r = RunCli(args);
        EXPECT_EQ(r.Status, 0) << args.back() << r.Err;
        EXPECT_EQ(r.Out, out) << args.back();
    }
}

TEST(EvalCommand, ErrorsAndUsage) {
    test::CliResult r = RunCli({"eval", "12ab"});
    EXPECT_EQ(r.Status, 1);
    EXPECT_EQ(r.Err, "Compile error: syntax fault.\n");
    EXPECT_EQ(r.Out, "");

    r = RunCli({"eval", "--function", "BROKEN", "1"});
    EXPECT_EQ(r.Status, 1);
    EXPECT_EQ(r.Err, "Function \"BROKEN\" is not valid.\n");

    for (const std::vector<std::string>& args :
         std::vector<std::vector<std::string>>{{"eval"},
                                               {"eval", "a", "b"},
                                               {"eval", "--bogus", "1"},
                                               {"eval", "--param", "NOEQUALS", "1"},
                                               {"eval", "--param"},
                                               {"frobnicate"},
                                               {}}) {
        r = RunCli(args);
        EXPECT_EQ(r.Status, 2) << (args.empty() ? "" : args.back());
        EXPECT_NE(r.Err.find("Usage: kvimport"), std::string::npos);
    }

    r = RunCli({"eval", "--help"});
    EXPECT_EQ(r.Status, 0);
    EXPECT_NE(r.Out.find("--typed"), std::string::npos);
}

} // namespace
} // namespace kv
