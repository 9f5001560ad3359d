// Text files imported as a user would, on which an import could change or lose data without a word: each
// case checks the table, what was said, and the status.

#include "TestSupport.h"

namespace kv {
namespace {

using test::RunCli;
using test::SqliteQuery;

struct TrustCase {
    const char* name;
    const char* file;    ///< the file's name (its extension chooses the defaults)
    std::string bytes;   ///< its content
    const char* prepare; ///< SQL run on the database first ("" for none)
    std::vector<std::string> options;
    int status;
    const char* query;    ///< run on the database afterwards
    std::string expected; ///< its result
    const char* err;      ///< a text stderr must hold ("" for nothing at all)
};

std::string Lines(int from, int to) {
    std::string out;
    for (int i = from; i <= to; ++i) out += std::to_string(i) + ",x\n";
    return out;
}

class TextTrust : public ::testing::TestWithParam<TrustCase> {
protected:
    test::TempDir dir;
};

TEST_P(TextTrust, ImportsWithoutSilentChanges) {
    const TrustCase& c = GetParam();
    const std::string file = dir.File(c.file), db = dir.File("out.sqlite");
    test::WriteFile(file, c.bytes);
    if (*c.prepare) SqliteQuery(db, c.prepare);
    std::vector<std::string> args{"import", file, "--db", db, "--table", "t", "--quiet"};
    args.insert(args.end(), c.options.begin(), c.options.end());
    const test::CliResult r = RunCli(args);
    EXPECT_EQ(r.Status, c.status) << r.Err;
    EXPECT_EQ(SqliteQuery(db, c.query), c.expected);
    if (*c.err)
        EXPECT_NE(r.Err.find(c.err), std::string::npos) << r.Err;
    else
        EXPECT_EQ(r.Err, "");
}

const char* const kOrders = "id,amount,day,name,paid\r\n1,\"1,234.50\",2024-01-05,\"Doe, J\",true\r\n"
                            "2,7,2024-02-29,\"say \"\"hi\"\"\",false\r\n";

// One case a line: name, file, bytes, SQL first, options, status, query, its result, what stderr holds.
// clang-format off
const TrustCase kCases[] = {
    {"ACommonCsvNeedsNoOptions", "orders.csv", kOrders, "", {}, 0, "SELECT * FROM t",
     "1|1234.5|2024-01-05|Doe, J|1\n2|7.0|2024-02-29|say \"hi\"|0", ""},
    {"ACommonCsvGetsTypedColumns", "orders.csv", kOrders, "", {}, 0,
     "SELECT group_concat(name || ' ' || type, ', ') FROM pragma_table_info('t')",
     "id INTEGER, amount REAL, day DATE, name TEXT, paid BOOLEAN", ""},
    {"FixedWidthWithMappings", "codes.txt", "AB1  12.5\r\nZ9Z100000\r\n", "CREATE TABLE t(code TEXT, amount REAL)",
     {"--fixed", "--names-row", "0", "--map", "code=Text1-3", "--map", "amount=Text4-9"}, 0, "SELECT * FROM t",
     "AB1|12.5\nZ9Z|100000.0", ""},
    {"ValueEqualToItsColumnsName", "years.csv", "year,2019\n2019,2019\n2020,5\n", "", {}, 0,
     "SELECT \"2019\" FROM t", "2019\n5", ""},
    {"AColumnNamedLikeAFunction", "pi.csv", "PI,x\n7,1\n", "", {}, 0, "SELECT PI FROM t", "7", ""},
    {"NoHexadecimalByAccident", "codes.csv", "n\n10\nx10\n$10\n0x10\n", "CREATE TABLE t(n INTEGER)", {}, 4,
     "SELECT group_concat(n) FROM t", "10,10", // "$" is the currency
     "Row 3, column n: 'x10' is not a valid integer value\nRow 5, column n: '0x10' is not a valid integer value\n"},
    {"CodesKeepTheirZerosAndPlus", "contacts.csv", "zip,phone,id\n01234,+318855443322,\"000009102615\"\n9,1,2\n",
     "", {}, 0, "SELECT zip || ' ' || phone || ' ' || id || ' ' || typeof(zip) FROM t LIMIT 1",
     "01234 +318855443322 000009102615 text", ""},
    {"IntegersBeyondADouble", "ids.csv", "id,big\n9007199254740993,12345678901234567890\n1,2\n", "", {}, 0,
     "SELECT id || ' ' || typeof(id) || ' ' || big || ' ' || typeof(big) FROM t LIMIT 1",
     "9007199254740993 integer 12345678901234567890 text", ""},
    {"DecimalsBeyondADouble", "pi.csv", "x\n3.14159265358979323846\n2.5\n", "", {}, 0,
     "SELECT group_concat(x, ' ') FROM t", "3.14159265358979323846 2.5", ""},
    {"FractionalSecondsAndTimeZones", "times.csv",
     "ts,z\n2024-01-01 10:00:00.250,2024-01-01T10:00:00Z\n2024-01-01 10:00:01,2024-01-01T10:00:00+02:00\n",
     "", {}, 0, "SELECT ts || ' ' || z FROM t",
     "2024-01-01 10:00:00.250 2024-01-01T10:00:00Z\n2024-01-01 10:00:01 2024-01-01T10:00:00+02:00", ""},
    {"ALateValueOutsideTheGuessedTypeKeepsItsRow", "late.csv", "n\n1\n2\n3.5\nabc\n", "",
     {"--max-scan-rows", "2"}, 0, "SELECT group_concat(n || ':' || typeof(n), ' ') FROM t",
     "1:integer 2:integer 3.5:real abc:text", ""},
    {"OneBadByteDoesNotDecideTheEncoding", "names.csv", "name\ncaf\xC3\xA9\nr\xC3\xA9sum\xC3\xA9\nna\xEFve\n", "",
     {}, 0, "SELECT group_concat(name, ' ') FROM t", "caf\xC3\xA9 r\xC3\xA9sum\xC3\xA9 na\xC3\xAFve",
     "Warning: line 4: bytes that are not UTF-8 were read as Windows-1252 characters\n"},
    {"AFileMostlyNotUtf8StaysWindows1252", "latin.csv", "name\nna\xEFve\ncaf\xE9\n", "", {}, 0,
     "SELECT group_concat(name, ' ') FROM t", "na\xC3\xAFve caf\xC3\xA9", ""},
    {"AnEncodingForced", "forced.csv", "name\ncaf\xC3\xA9\n", "", {"--encoding", "windows-1252"}, 0,
     "SELECT name FROM t", "caf\xC3\x83\xC2\xA9", ""},
    {"AnUnterminatedQuoteIsReported", "open.csv", "id,name\n1,a\n2,\"b\n" + Lines(3, 1000), "", {}, 4,
     "SELECT count(*) FROM t", "2",
     "Warning: line 3: the quoted field that starts on this line is never closed: it takes in the 998 lines "
     "after it, to the end of the file\n"},
    {"BooleansAsTheImportReadsThem", "flags.csv", "a,b\ntrue,yes\nFALSE,no\n", "", {}, 0,
     "SELECT group_concat(a || '/' || typeof(a) || '/' || b, ' ') FROM t", "1/integer/yes 0/integer/no", ""},
    {"BlankLinesAreNotRows", "blank.csv", "a,b\n1,2\n\n3,4\n\n\n", "", {}, 0, "SELECT count(*) FROM t", "2", ""},
    {"BlankLinesKeptWhenAsked", "blank.csv", "a,b\n1,2\n\n3,4\n", "", {"--keep-empty-rows"}, 0,
     "SELECT count(*) FROM t", "3", ""},
    {"LinesEndingInCarriageReturns", "mac.csv", "one\rtwo\rthree\r", "", {}, 0,
     "SELECT group_concat(one) FROM t", "two,three", ""},
    {"BlanksBeforeAnOpeningQuote", "spaced.csv", "a,b,c\nx, \"b, c\" ,d\n", "", {}, 0, "SELECT * FROM t",
     "x|b, c|d", ""},
    {"TabSeparatedByItsName", "data.tsv", "a\tb\n1,5\t2\n", "", {}, 0, "SELECT a || '/' || b FROM t", "1,5/2", ""},
    {"NothingMappedFailsBeforeTheFirstRow", "other.csv", "a,b\n1,2\n", "CREATE TABLE t(x INTEGER, y TEXT)", {},
     1, "SELECT count(*) FROM t", "0",
     "No source column matches a field of t. Source columns: a, b. Fields: x, y.\n"},
    {"RowErrorsNameTheLineAndTheColumn", "qty.csv", "id,qty\n1,5\n\n2,12A\n",
     "CREATE TABLE t(id INTEGER, qty INTEGER)", {}, 4, "SELECT group_concat(qty) FROM t", "5",
     "Row 4, column qty: '12A' is not a valid integer value\n"},
    {"RowErrorsNameTheLineAfterFieldsSpanningLines", "notes.csv", "id,note,qty\n1,\"two\nlines\",5\n2,x,12A\n",
     "CREATE TABLE t(id INTEGER, note TEXT, qty INTEGER)", {}, 4, "SELECT group_concat(qty) FROM t", "5",
     "Row 4, column qty: '12A' is not a valid integer value\n"},
    {"ErrorsAcceptedWhenAsked", "qty.csv", "id,qty\n1,5\n2,12A\n", "CREATE TABLE t(id INTEGER, qty INTEGER)",
     {"--allow-errors"}, 0, "SELECT group_concat(qty) FROM t", "5", "Row 3, column qty: "},
};
// clang-format on

void PrintTo(const TrustCase& c, std::ostream* out) {
    *out << c.name;
}

INSTANTIATE_TEST_SUITE_P(Cases, TextTrust, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<TrustCase>& c) { return c.param.name; });

TEST(TextTrustUsage, SmallMistakesAreSaidClearly) {
    test::TempDir dir;
    const std::string db = dir.File("out.sqlite");
    test::CliResult r = RunCli({"import", dir.Path(), "--db", db, "--format", "text"});
    EXPECT_EQ(r.Status, 1);
    EXPECT_EQ(r.Err, "Cannot open file \"" + dir.Path() + "\". Is a directory\n");
    const std::string csv = dir.File("a.csv");
    test::WriteFile(csv, "a\n1\n");
    r = RunCli({"preview", csv, "--rows", "-1"});
    EXPECT_EQ(r.Status, 2);
    EXPECT_NE(r.Err.find("--rows expects a number of rows, 0 or more"), std::string::npos) << r.Err;
}

} // namespace
} // namespace kv
