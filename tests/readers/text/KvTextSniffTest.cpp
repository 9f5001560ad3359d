// Guessing the delimiter and the header from the first lines, as an application and the command line do.

#include "readers/text/KvTextSniff.h"

#include <gtest/gtest.h>

namespace kv {
namespace {

TEST(TextSniff, DelimiterAndHeader) {
    struct Case {
        const char* sample;
        char32_t fallback, fixed;
        char32_t delimiter;
        bool header;
    };
    const Case cases[] = {
        {"id,name\n1,Ada\n2,Bob\n", U',', 0, U',', true},
        {"id;amount\n1;1,5\n2;2,25\n", U',', 0, U';', true}, // the comma inside the numbers is no delimiter
        {"a\tb\tc\n1\t2\t3\n", U',', 0, U'\t', true},
        {"\"x,y\"|z\n\"1,2\"|3\n", U',', 0, U'|', true}, // commas inside quotes do not count
        {"name,note\n\"Doe, J\",\"two\nlines\"\nAnn,x\n", U'\t', 0, U',', true},
        {"1,2019-01-05,3.5\n2,2019-01-06,4.5\n", U',', 0, U',', false}, // numbers and dates all the way
        {"year,2019\n2019,2019\n2020,5\n", U',', 0, U',', true},  // one column says header, one says data
        {"name,city\nAda,Rome\nBob,Oslo\n", U',', 0, U',', true}, // text everywhere: the usual header
        {"single\n", U',', 0, U',', true},                        // nothing to compare with
        {"", U'\t', 0, U'\t', true},
        {"a,b;c\n1,2;3\n", U',', U';', U';', true},       // a delimiter given is taken
        {"\xEF\xBB\xBFid;x\n1;2\n", U',', 0, U';', true}, // the BOM is no part of the first name
        {"\n\nid|v\n\n1|2\n", U',', 0, U'|', true},       // blank lines are not records
        {"one\rtwo\rthree\r", U',', 0, U',', true},
    };
    for (const Case& c : cases) {
        const TKvTextDialect d = SniffTextDialect(c.sample, c.fallback, c.fixed);
        EXPECT_EQ(d.Delimiter, c.delimiter) << c.sample;
        EXPECT_EQ(d.HasHeader, c.header) << c.sample;
    }
}

TEST(TextSniff, ARecordCutByTheEndOfTheSampleIsNotJudged) {
    // The last line of a full sample may be cut anywhere; "3,4" alone would look like a differently split
    // record if it were counted.
    std::string sample = "a;b\n";
    while (sample.size() < KvTextSniffBytes - 8) sample += "1;2\n";
    sample.resize(KvTextSniffBytes, 'x');
    EXPECT_EQ(SniffTextDialect(sample, U',').Delimiter, U';');
}

TEST(TextSniff, ExtensionsThatTellTheDelimiter) {
    EXPECT_EQ(TextDelimiterForExtension(".CSV"), U',');
    EXPECT_EQ(TextDelimiterForExtension(".tsv"), U'\t');
    EXPECT_EQ(TextDelimiterForExtension(".tab"), U'\t');
    EXPECT_EQ(TextDelimiterForExtension(".txt"), 0u);
}

} // namespace
} // namespace kv
