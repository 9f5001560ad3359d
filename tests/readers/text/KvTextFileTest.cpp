// Loading text: encodings, cutting records, selecting rows, block boundaries, the sources and bad input.

#include "readers/text/KvTextFile.h"
#include "TestSupport.h"
#include "platform/Exceptions.h"
#include "support/ByteStream.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kv {
namespace {

struct Loaded {
    std::vector<std::string> Rows;
    std::vector<int64_t> Lines;
    bool HasHeader = false;
    std::string Header;
    TTextEncoding Encoding = encUtf8;
    std::vector<TKvTextWarning> Warnings;
    bool operator==(const Loaded&) const = default;
};

// Reads the rows in order, then once more backwards: each step back starts the scan again from a restart
// point, and must cut the same rows with the same numbers, and notice nothing twice.
Loaded Collect(TKvTextFile& file) {
    Loaded r;
    for (int64_t i = 0; file.HasRow(i); ++i) {
        r.Rows.push_back(file.Row(i));
        r.Lines.push_back(file.LineNumber(i));
    }
    r.HasHeader = file.HasHeader();
    r.Header = file.HeaderLine();
    r.Encoding = file.Encoding();
    r.Warnings = file.Warnings();
    for (auto i = static_cast<int64_t>(r.Rows.size()) - 1; i >= 0; --i) {
        EXPECT_EQ(file.Row(i), r.Rows[static_cast<size_t>(i)]) << "row " << i << " read again";
        EXPECT_EQ(file.LineNumber(i), r.Lines[static_cast<size_t>(i)]) << "row " << i << " read again";
    }
    EXPECT_EQ(file.RowCount(), static_cast<int64_t>(r.Rows.size()));
    EXPECT_EQ(file.Warnings(), r.Warnings);
    return r;
}

Loaded LoadText(const std::string& bytes, const TKvTextFileSettings& settings) {
    TKvTextFile file;
    file.Settings() = settings;
    file.OpenText(bytes);
    return Collect(file);
}

Loaded LoadFile(const std::string& bytes, TKvTextFileSettings settings, size_t blockSize) {
    test::TempDir dir;
    test::WriteFile(dir.File("in.txt"), bytes);
    settings.BlockSize = blockSize;
    settings.CheckpointRows = 2;
    TKvTextFile file;
    file.Settings() = settings;
    file.Open(dir.File("in.txt"));
    return Collect(file);
}

// Loads from memory, and from a file with block sizes small enough to cut every separator, qualifier and
// character in two somewhere, and restart points every other row; every way must agree.
Loaded LoadEverywhere(const std::string& bytes, const TKvTextFileSettings& settings) {
    const Loaded expected = LoadText(bytes, settings);
    for (size_t block : {1, 2, 3, 4, 5, 7, 16, 0}) {
        SCOPED_TRACE("block size " + std::to_string(block));
        EXPECT_EQ(LoadFile(bytes, settings, block), expected);
    }
    return expected;
}

TKvTextFileSettings Plain(std::string separator = "\r\n", char32_t qualifier = U'"') {
    TKvTextFileSettings s;
    s.RecordSeparator = std::move(separator);
    s.TextQualifier = qualifier;
    s.FieldDelimiter = U',';
    s.RowFieldNames = 0;
    return s;
}

struct RecordCase {
    const char* Name;
    std::string Bytes;
    TKvTextFileSettings Settings;
    std::vector<std::string> Rows;
};

TKvTextFileSettings FixedLength(int length) {
    TKvTextFileSettings s = Plain("");
    s.FixedLineLength = length;
    return s;
}

TKvTextFileSettings KeepBlank(TKvTextFileSettings s) {
    s.SkipBlankLines = false;
    return s;
}

std::string Repeat(std::string_view text, int times) {
    std::string out;
    for (int i = 0; i < times; ++i) out += text;
    return out;
}

TKvTextFileSettings Forced(TKvTextFileSettings s, TTextEncoding encoding) {
    s.Encoding = encoding;
    return s;
}

TKvTextFileSettings Upto(TKvTextFileSettings s, int rowLast) {
    s.RowLast = rowLast;
    return s;
}

// Only the first `bytes` are checked when opening; the rest as the rows are cut.
TKvTextFileSettings CheckingFirst(TKvTextFileSettings s, size_t bytes) {
    s.JudgeBytes = bytes;
    return s;
}

TEST(TextFile, CutsRecords) {
    const RecordCase cases[] = {
        {"CR LF", "a,b\r\nc,d\r\n", Plain(), {"a,b", "c,d"}},
        {"LF alone with the CR LF setting", "a,b\nc,d\n", Plain(), {"a,b", "c,d"}},
        {"mixed line ends", "a\r\nb\nc\r\n", Plain(), {"a", "b", "c"}},
        {"a CR before the end of the text", "a\r\nb\r", Plain(), {"a", "b"}},
        {"no final line break", "a\r\nb", Plain(), {"a", "b"}},
        {"blank lines kept", "a\r\n\r\n\nb", KeepBlank(Plain()), {"a", "", "", "b"}},
        {"a lone CR ends a record", "a\rb\r\nc", Plain(), {"a", "b", "c"}},
        {"CR lines (old Mac)", "id,name\r1,Ann\r2,Bo\r", Plain(), {"id,name", "1,Ann", "2,Bo"}},
        {"CR CR LF is an empty record between", "a\r\r\nb", KeepBlank(Plain()), {"a", "", "b"}},
        {"LF CR is two line ends", "a\n\rb", KeepBlank(Plain()), {"a", "", "b"}},
        {"a CR inside qualifiers stays",
         "1,\"x\ry\"\r2,\"p\r\nq\"\r\n3",
         Plain(),
         {"1,\"x\ry\"", "2,\"p\r\nq\"", "3"}},
        {"CR with another separator is text", "a\rb;c", Plain(";"), {"a\rb", "c"}},
        {"qualified field across lines", "1,\"x\r\ny\"\r\n2,z", Plain(), {"1,\"x\r\ny\"", "2,z"}},
        {"qualified field across LF lines", "1,\"x\ny\"\n2", Plain(), {"1,\"x\ny\"", "2"}},
        {"blanks before a qualified field across lines",
         "1, \"x\r\ny\" ,2\r\n3",
         Plain(),
         {"1, \"x\r\ny\" ,2", "3"}},
        {"doubled qualifiers keep the state", "\"a\"\"\r\nb\"\r\nc", Plain(), {"\"a\"\"\r\nb\"", "c"}},
        {"without qualifier", "\"a\r\nb\"", Plain("\r\n", 0), {"\"a", "b\""}},
        {"another qualifier", "'a\r\nb',\"c\r\nd", Plain("\r\n", U'\''), {"'a\r\nb',\"c", "d"}},
        {"two-character separator", "a|b||c||", Plain("||"), {"a|b", "c"}},
        {"separator inside qualifiers", "\"x||y\"||z", Plain("||"), {"\"x||y\"", "z"}},
        {"long separator", "a<EOR>b<EO<EOR>", Plain("<EOR>"), {"a", "b<EO"}},
        {"LF setting keeps the CR", "a\r\nb", Plain("\n"), {"a\r", "b"}},
        {"one-character separator", "a;b;;c", KeepBlank(Plain(";")), {"a", "b", "", "c"}},
        {"non-ASCII separator", "a\xC2\266b\xC2\xB6", Plain("\xC2\xB6"), {"a", "b"}},
        {"non-ASCII qualifier",
         "\xC2\247a\nb\xC2\xA7\nc",
         Plain("\r\n", U'\u00A7'),
         {"\xC2\247a\nb\xC2\xA7", "c"}},
        {"fixed length", "abcdefgh", FixedLength(3), {"abc", "def", "gh"}},
        {"fixed length counts characters",
         "\xC3\244bcd\xC3\251f\xE2\x82\xACx",
         FixedLength(3),
         {"\xC3\244bc", "d\xC3\251f", "\xE2\x82\xACx"}},
        {"fixed length ignores line breaks", "ab\r\ncd", FixedLength(2), {"ab", "\r\n", "cd"}},
        {"no separator: one record", "a\r\nb", Plain(""), {"a\r\nb"}},
        {"unterminated qualifier takes the rest", "a\r\n\"b\r\nc\r\nd", Plain(), {"a", "\"b\r\nc\r\nd"}},
        {"empty text", "", Plain(), {}},
        {"one empty record", "\r\n", KeepBlank(Plain()), {""}},
    };
    for (const RecordCase& c : cases) {
        SCOPED_TRACE(c.Name);
        EXPECT_EQ(LoadEverywhere(c.Bytes, c.Settings).Rows, c.Rows);
    }
}

TEST(TextFile, SelectsRows) {
    const std::string text = "h\r\n1\r\n2\r\n3\r\n4\r\n5";
    struct Case {
        int First, Last, Names;
        const char* Header; // nullptr: none
        std::vector<std::string> Rows;
        std::vector<int64_t> Lines;
        int64_t Records; // how far the scan went
    };
    const Case cases[] = {
        {1, 2147483647, 1, "h", {"h", "1", "2", "3", "4", "5"}, {1, 2, 3, 4, 5, 6}, 6},
        {2, 2147483647, 1, "h", {"1", "2", "3", "4", "5"}, {2, 3, 4, 5, 6}, 6},
        {3, 4, 1, "h", {"2", "3"}, {3, 4}, 4},
        {2, 3, 5, "4", {"1", "2"}, {2, 3}, 5}, // the scan goes on to the header
        {1, 2, 0, nullptr, {"h", "1"}, {1, 2}, 2},
        {2, 2147483647, 9, nullptr, {"1", "2", "3", "4", "5"}, {2, 3, 4, 5, 6}, 6},
        {7, 9, 0, nullptr, {}, {}, 6},
        {5, 3, 0, nullptr, {}, {}, 0},
        {1, 0, 0, nullptr, {}, {}, 0},
        {0, 1, 0, nullptr, {"h"}, {1}, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.First) + ".." + std::to_string(c.Last) + " names " +
                     std::to_string(c.Names));
        TKvTextFileSettings s = Plain();
        s.RowFirst = c.First, s.RowLast = c.Last, s.RowFieldNames = c.Names;
        const Loaded r = LoadEverywhere(text, s);
        EXPECT_EQ(r.HasHeader, c.Header != nullptr);
        EXPECT_EQ(r.Header, c.Header ? c.Header : "");
        EXPECT_EQ(r.Rows, c.Rows);
        EXPECT_EQ(r.Lines, c.Lines);
        TKvTextFile file;
        file.Settings() = s;
        file.OpenText(text);
        EXPECT_EQ(file.RecordCount(), c.Records);
    }
}

TEST(TextFile, SkipsEmptyRowsButKeepsTheirNumbers) {
    const std::string text = "a\r\n\r\n  \r\n,,\r\nb\r\n\t";
    TKvTextFileSettings s = KeepBlank(Plain());
    EXPECT_EQ(LoadEverywhere(text, s).Rows, (std::vector<std::string>{"a", "", "  ", ",,", "b", "\t"}));
    s.SkipEmptyRows = true;
    Loaded r = LoadEverywhere(text, s);
    EXPECT_EQ(r.Rows, (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(r.Lines, (std::vector<int64_t>{1, 5}));
    s.FixedWidth = true; // the delimiter means nothing to fixed-width records
    r = LoadEverywhere(text, s);
    EXPECT_EQ(r.Rows, (std::vector<std::string>{"a", ",,", "b"}));
    EXPECT_EQ(r.Lines, (std::vector<int64_t>{1, 4, 5}));
    s.FixedWidth = false;
    s.RowFirst = 2, s.RowLast = 5; // skipping does not move the range
    EXPECT_EQ(LoadEverywhere(text, s).Lines, (std::vector<int64_t>{5}));
}

TEST(TextFile, BlankLinesAreNotRows) {
    struct Case {
        const char* Name;
        std::string Bytes;
        const char* Header; // nullptr: none
        std::vector<std::string> Rows;
        std::vector<int64_t> Lines;
        std::string Separator = "\r\n";
    };
    const Case cases[] = {
        {"an export ending in blank lines",
         "id,name\r\n1,Ann\r\n2,Bo\r\n\r\n\r\n",
         "id,name",
         {"1,Ann", "2,Bo"},
         {2, 3}},
        {"blank lines between records keep the numbering",
         "id,name\n1,Ann\n\n \t \n2,Bo\n",
         "id,name",
         {"1,Ann", "2,Bo"},
         {2, 5}},
        {"a line of delimiters is a row: SkipEmptyRows decides", "h\n,,\n", "h", {",,"}, {2}},
        {"a quoted blank is a value", "h\n\" \"\n", "h", {"\" \""}, {2}},
        {"a blank record where the names should be",
         "\r\nid,name\r\n1,Ann",
         nullptr,
         {"id,name", "1,Ann"},
         {2, 3}},
        {"blank records with another separator", "h;  ;\t\r;x", "h", {"x"}, {4}, ";"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.Name);
        TKvTextFileSettings s = Plain(c.Separator);
        s.RowFieldNames = 1;
        s.RowFirst = 2;
        const Loaded r = LoadEverywhere(c.Bytes, s);
        EXPECT_EQ(r.HasHeader, c.Header != nullptr);
        EXPECT_EQ(r.Header, c.Header ? c.Header : "");
        EXPECT_EQ(r.Rows, c.Rows);
        EXPECT_EQ(r.Lines, c.Lines);
    }
    // Records of a fixed length are not lines.
    EXPECT_EQ(LoadEverywhere("ab  cd", FixedLength(2)).Rows, (std::vector<std::string>{"ab", "  ", "cd"}));
}

TEST(TextFile, DecodesEncodings) {
    struct Case {
        const char* Name;
        std::string Bytes;
        TKvTextFileSettings Settings;
        TTextEncoding Encoding;
        std::vector<std::string> Rows;
    };
    const Case cases[] = {
        {"UTF-16 LE",
         std::string("\xFF\376a\0,\0\xE9\0\r\0\n\0b\0\n\0", 16),
         Plain(),
         encUtf16LE,
         {"a,\xC3\xA9", "b"}},
        {"UTF-16 BE",
         std::string("\xFE\xFF\0a\0,\x20\xAC\0\r\0\n\0b", 14),
         Plain(),
         encUtf16BE,
         {"a,\xE2\x82\xAC", "b"}},
        {"UTF-16 with an odd byte", std::string("\xFF\376a\0b", 5), Plain(), encUtf16LE, {"a\xEF\xBF\xBD"}},
        {"UTF-8 with BOM", "\xEF\xBB\277a\xC3\xA9\r\nb", Plain(), encUtf8Bom, {"a\xC3\xA9", "b"}},
        {"UTF-8", "a\xC3\xA9\r\n\xF0\x9F\x98\x80", Plain(), encUtf8, {"a\xC3\xA9", "\xF0\x9F\x98\x80"}},
        {"Windows-1252", "caf\xE9\r\n\x80 5", Plain(), encAnsi, {"caf\xC3\xA9", "\xE2\x82\xAC 5"}},
        {"Windows-1252 late in the text",
         "\xC3\xA9x\r\ny\xE9",
         Plain(),
         encAnsi,
         {"\xC3\x83\xC2\xA9x", "y\xC3\xA9"}},
        // The first bytes read as UTF-8 count "é" as one character; the last byte shows it is not UTF-8,
        // and the records are cut again by bytes.
        {"Windows-1252 fixed length",
         "\xC3\xA9xy\xE9",
         FixedLength(2),
         encAnsi,
         {"\xC3\x83\xC2\xA9", "xy", "\xC3\xA9"}},
        {"Windows-1252 with a non-ASCII separator", "a\266b", Plain("\xC2\xB6"), encAnsi, {"a", "b"}},
        {"a separator Windows-1252 lacks", "a\266b", Plain("\xE2\x82\xAD"), encAnsi, {"a\xC2\266b"}},
        // A BOM promises UTF-8: the few bytes that are not are Windows-1252 characters.
        {"malformed UTF-8 after a BOM",
         "\xEF\xBB\277a\377b\r\nc",
         Plain(),
         encUtf8Mixed,
         {"a\xC3\277b", "c"}},
        {"a UTF-8 export edited once in a Windows-1252 editor",
         "name,city\r\nJos\xC3\xA9,Z\xC3\xBCrich\r\nM\xFCller,K\xC3\xB6ln",
         Plain(),
         encUtf8Mixed,
         {"name,city", "Jos\xC3\xA9,Z\xC3\xBCrich", "M\xC3\xBCller,K\xC3\xB6ln"}},
        // Eight stray bytes, each read alone, against nine valid sequences.
        {"stray bytes of every kind",
         Repeat("\xC3\xA9", 9) + " \x80 \xE2\x82 \xC0\xAF \xED\xA0\x80",
         Plain(),
         encUtf8Mixed,
         {Repeat("\xC3\xA9", 9) +
          " \xE2\x82\xAC \xC3\xA2\xE2\x80\x9A \xC3\x80\xC2\xAF \xC3\xAD\xC2\xA0\xE2\x82\xAC"}},
        {"as many stray bytes as sequences",
         Repeat("\xC3\xA9", 8) + " \x80 \xE2\x82 \xC0\xAF \xED\xA0\x80",
         Plain(),
         encAnsi,
         {Repeat("\xC3\x83\xC2\xA9", 8) +
          " \xE2\x82\xAC \xC3\xA2\xE2\x80\x9A \xC3\x80\xC2\xAF \xC3\xAD\xC2\xA0\xE2\x82\xAC"}},
        // Characters of fixed-length records are those the rows decode to.
        {"mixed fixed length",
         "\xC3\xA9\xC3\xA9\x80y\xC3\xBC",
         FixedLength(2),
         encUtf8Mixed,
         {"\xC3\xA9\xC3\xA9", "\xE2\x82\xACy", "\xC3\xBC"}},
        {"UTF-8 by the setting",
         "\xEF\xBB\277a\xE9\r\n\xE9",
         Forced(Plain(), encUtf8),
         encUtf8Bom,
         {"a\xEF\xBF\xBD", "\xEF\xBF\xBD"}},
        {"UTF-8 by the setting, fixed length",
         "a\x80\xC3\251bc",
         Forced(FixedLength(2), encUtf8),
         encUtf8,
         {"a\xEF\xBF\xBD", "\xC3\251b", "c"}},
        {"Windows-1252 by the setting",
         "\xEF\xBB\xBF\xC3\xA9",
         Forced(Plain(), encAnsi),
         encAnsi,
         {"\xC3\xAF\xC2\xBB\xC2\xBF\xC3\x83\xC2\xA9"}},
        {"Windows-1252 by the setting, fixed length",
         "\xC3\xA9x",
         Forced(FixedLength(2), encAnsi),
         encAnsi,
         {"\xC3\x83\xC2\xA9", "x"}},
        {"mixed by the setting",
         "caf\xE9\r\n\xC3\xA9t\xE9",
         Forced(Plain(), encUtf8Mixed),
         encUtf8Mixed,
         {"caf\xC3\xA9", "\xC3\xA9t\xC3\xA9"}},
        {"mixed by the setting, all UTF-8", "\xC3\xA9", Forced(Plain(), encUtf8Mixed), encUtf8, {"\xC3\xA9"}},
        {"UTF-16 LE by the setting",
         std::string("a\0\r\0\r\0\n\0\xE9\0", 10),
         Forced(Plain(), encUtf16LE),
         encUtf16LE,
         {"a", "\xC3\xA9"}},
        {"UTF-16 BE by the setting, with its BOM",
         std::string("\xFE\xFF\0a\0\n\x20\xAC", 8),
         Forced(Plain(), encUtf16BE),
         encUtf16BE,
         {"a", "\xE2\x82\xAC"}},
        {"UTF-16 the other way round than its BOM",
         std::string("\xFF\xFE\0a", 4),
         Forced(Plain(), encUtf16BE),
         encUtf16BE,
         {"\xEF\xBF\276a"}},
        // Only the bytes up to the last wanted record are judged.
        {"UTF-8 up to RowLast", "\xC3\xA9\r\n\xFF", Upto(Plain(), 1), encUtf8, {"\xC3\xA9"}},
        {"UTF-8 up to RowLast, checked late",
         "abc\r\n\xC3\xA9\r\n\xFF",
         Upto(CheckingFirst(Plain(), 2), 2),
         encUtf8,
         {"abc", "\xC3\xA9"}},
        // The first bytes are UTF-8: a stray byte met later is Windows-1252 from there on, and the rows
        // before it read the same either way.
        {"a stray byte after the bytes checked",
         "Z\xC3\xBCrich\r\nM\xFCller\r\n\xC3\xA9",
         CheckingFirst(Plain(), 4),
         encUtf8Mixed,
         {"Z\xC3\xBCrich", "M\xC3\xBCller", "\xC3\xA9"}},
        {"a Windows-1252 text with an ASCII start",
         "name\r\ncaf\xE9\r\n\xC3\xA9",
         CheckingFirst(Plain(), 4),
         encUtf8Mixed,
         {"name", "caf\xC3\xA9", "\xC3\xA9"}},
        {"a sequence cut by the end, checked late",
         "ab\r\nc\xE2\x82",
         CheckingFirst(Plain(), 3),
         encUtf8Mixed,
         {"ab", "c\xC3\xA2\xE2\x80\x9A"}},
        {"fixed length, checked late",
         "abc\xC3\xA9\x80y",
         CheckingFirst(FixedLength(2), 2),
         encUtf8Mixed,
         {"ab", "c\xC3\xA9", "\xE2\x82\xACy"}},
        // The first record ends in the first byte of a sequence the bytes checked leave open: the bytes
        // after it break it before the record is decoded.
        {"a record ending in a broken sequence, checked late",
         "ab\xE2\x82xy",
         CheckingFirst(FixedLength(3), 4),
         encUtf8Mixed,
         {"ab\xC3\xA2", "\xE2\x80\x9Axy"}},
        {"a record ending in a sequence the text ends in, checked late",
         "aa\xF0\xB1",
         CheckingFirst(FixedLength(1), 2),
         encUtf8Mixed,
         {"a", "a", "\xC3\xB0", "\xC2\xB1"}},
        {"a late stray byte after a BOM",
         "\xEF\xBB\277ab\r\n\xFF",
         CheckingFirst(Plain(), 1),
         encUtf8Mixed,
         {"ab", "\xC3\xBF"}},
        {"UTF-8 by the setting, late",
         "ab\r\nc\xE9",
         Forced(CheckingFirst(Plain(), 1), encUtf8),
         encUtf8,
         {"ab", "c\xEF\xBF\xBD"}},
        {"a sequence cut by RowLast", "a\xE2\x82x", Upto(FixedLength(1), 2), encAnsi, {"a", "\xC3\xA2"}},
        {"binary",
         std::string("\x00\x01\xFF\r\n\xFE\x00", 7),
         Plain(),
         encAnsi,
         {std::string("\x00\x01\xC3\xBF", 4), std::string("\xC3\xBE\x00", 3)}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.Name);
        const Loaded r = LoadEverywhere(c.Bytes, c.Settings);
        EXPECT_EQ(r.Encoding, c.Encoding);
        EXPECT_EQ(r.Rows, c.Rows);
    }
}

TEST(TextFile, WarnsWithTheLineAUserSees) {
    const std::string notUtf8 = "bytes that are not UTF-8 were read as Windows-1252 characters";
    const auto unclosed = [](const char* lines) {
        return std::string("the quoted field that starts on this line is never closed: it takes in the ") +
               lines + " after it, to the end of the file";
    };
    struct Case {
        const char* Name;
        std::string Bytes;
        TKvTextFileSettings Settings;
        std::vector<TKvTextWarning> Warnings;
    };
    const Case cases[] = {
        {"a clean file", "id,note\r\n1,\"a\r\nb\"\r\n", Plain(), {}},
        {"an unclosed quote takes in the rest",
         "id,note\r\n1,\"fine\"\r\n2,\"broken\r\n3,x\r\n4,y\r\n",
         Plain(),
         {{3, unclosed("2 lines"), true}}},
        {"lines, not records: a field over two lines comes before",
         "id,note\r\n1,\"a\r\nb\"\r\n2,\"open\r\nx",
         Plain(),
         {{4, unclosed("1 line"), true}}},
        {"a doubled qualifier goes on with its field",
         "h\n\"x\n\"\"y\nz\n",
         Plain(),
         {{2, unclosed("2 lines"), true}}},
        {"open on the last line", "h\n1,\"x", Plain(), {{2, unclosed("0 lines"), true}}},
        {"lines ended by CR alone", "h\r1,\"x\r2\r3", Plain("\n"), {{2, unclosed("2 lines"), true}}},
        {"the scan stops before it", "h\r\n1\r\n\"open\r\n2", Upto(Plain(), 2), {}},
        {"a header that never closes", "\"id,name\r\n1,a\r\n2,b", Plain(), {{1, unclosed("2 lines"), true}}},
        {"a stray byte after a field over two lines",
         "id,note\n1,\"Z\xC3\xBCrich\nZ\xC3\xBCrich\"\n2,M\xFCller\n",
         Plain(),
         {{4, notUtf8, false}}},
        {"after a BOM", "\xEF\xBB\xBFh\r\n\xE9", Plain(), {{2, notUtf8, false}}},
        // The stray byte is found when opening, the open quote once the scan gets there.
        {"both, as they are found",
         "h\n\xC3\xA9\xC3\xA9\n\"open\n\xE9\n",
         Plain(),
         {{4, notUtf8, false}, {3, unclosed("1 line"), true}}},
        {"a stray byte met late",
         "h\n\xC3\xA9\n\"a\"\"\nb\"\nM\xFCller\n\xE9\n",
         CheckingFirst(Plain(), 4),
         {{5, notUtf8, false}}},
        {"a stray byte after the last wanted record",
         "h\n1\n2\n\xE9\n",
         Upto(CheckingFirst(Plain(), 4), 3),
         {}},
        {"UTF-8 by the setting says nothing", "h\n\xE9", Forced(Plain(), encUtf8), {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.Name);
        EXPECT_EQ(LoadEverywhere(c.Bytes, c.Settings).Warnings, c.Warnings);
    }

    // Lines count from where the stream stood, and in the decoded text of UTF-16.
    TKvTextFile file;
    file.Settings() = Plain();
    TMemoryStream memory("skipped\nh\n\"x");
    memory.SetPosition(8);
    file.OpenStream(memory);
    EXPECT_TRUE(file.Warnings().empty()); // the scan has not been there yet
    EXPECT_EQ(file.RowCount(), 2);
    EXPECT_EQ(file.Warnings(), (std::vector<TKvTextWarning>{{2, unclosed("0 lines"), true}}));
    file.OpenText(std::string("\xFF\xFEh\0\r\0\n\0\"\0x\0\n\0y\0", 16));
    file.RowCount();
    EXPECT_EQ(file.Warnings(), (std::vector<TKvTextWarning>{{2, unclosed("1 line"), true}}));
    // Every open starts afresh, and each warning of the reading is handed out once.
    file.OpenText("a\nb");
    EXPECT_EQ(file.RowCount(), 2);
    EXPECT_TRUE(file.Warnings().empty());
    file.Settings().RowFieldNames = 0;
    file.OpenText("\"\n");
    std::vector<TKvTextWarning> taken;
    file.TakeNewWarnings(taken);
    EXPECT_TRUE(taken.empty());
    EXPECT_TRUE(file.HasRow(0));
    file.TakeNewWarnings(taken);
    file.TakeNewWarnings(taken);
    EXPECT_EQ(taken, (std::vector<TKvTextWarning>{{1, unclosed("0 lines"), true}}));
    // Found when opening, while the header was looked for: a warning of the open, not one to take.
    file.Settings().RowFieldNames = 1;
    file.OpenText("\"\n");
    EXPECT_EQ(file.Warnings().size(), 1u);
    taken.clear();
    file.TakeNewWarnings(taken);
    EXPECT_TRUE(taken.empty());
    file.Close();
    EXPECT_TRUE(file.Warnings().empty());
}

// The line a record starts on, as an editor numbers lines, whatever spans lines before it and in whatever
// order the rows are asked, from memory and from a file read through its own stream.
TEST(TextFile, StartLinesAreTheLinesAUserSees) {
    const std::string bytes = "h\r\n1,\"two\nlines\"\r\n\r\n2,x\r3,\"a\r\nb\r\nc\"\n4,y\n";
    const std::vector<int64_t> expected = {2, 5, 6, 9}; // records 2, 4, 5 and 6 (the blank line is no row)
    test::TempDir dir;
    test::WriteFile(dir.File("lines.csv"), bytes);
    for (bool fromFile : {false, true}) {
        TKvTextFile file;
        file.Settings().BlockSize = 4; // lines counted across block boundaries
        file.Settings().RowFirst = 2;
        fromFile ? file.Open(dir.File("lines.csv")) : file.OpenText(bytes);
        ASSERT_EQ(file.RowCount(), 4);
        std::vector<TKvTextRowPlace> places;
        for (int64_t i = 0; i < 4; ++i) places.push_back(file.RowPlace(i));
        for (int64_t i = 0; i < 4; ++i)
            EXPECT_EQ(file.StartLine(places[size_t(i)]), expected[static_cast<size_t>(i)]) << i;
        for (int64_t i = 3; i >= 0; --i)
            EXPECT_EQ(file.StartLine(places[size_t(i)]), expected[static_cast<size_t>(i)]) << i;
        EXPECT_EQ(file.Row(0), "1,\"two\nlines\""); // read back through a window of one block
        EXPECT_EQ(file.RowSpan(0).Offset, 3);
        EXPECT_EQ(file.RowSpan(0).Length, 13);
        EXPECT_EQ(file.LineNumber(3), 6); // the record number differs
    }
    // A stream the caller handed in may be read by its reader alone: no line is told.
    TFileStream stream(dir.File("lines.csv"), fmOpenRead);
    TKvTextFile file;
    file.OpenStream(stream);
    EXPECT_EQ(file.StartLine(file.RowPlace(1)), 0);
}

// Opening checks the first bytes and finds the header; rows are cut only as far as they are asked for,
// and a step back scans again from the restart point before the row, not from the start.
TEST(TextFile, ReadsNoFurtherThanAsked) {
    // Seekable bytes that count what is read of them (no TMemoryStream, which would be used in place).
    std::string text = "id,note\r\n";
    for (int i = 0; i < 20000; ++i) text += std::to_string(i) + ",\"a\r\nb\"\r\n";
    test::TempDir dir;
    test::WriteFile(dir.File("in.csv"), text);
    TKvTextFile file;
    file.Settings().RowFirst = 2;
    file.Settings().BlockSize = 4096;
    file.Settings().JudgeBytes = 8192;
    file.Settings().CheckpointRows = 100;

    test::TByteStream stream(text);
    file.OpenStream(stream);
    EXPECT_EQ(file.HeaderLine(), "id,note");
    EXPECT_LE(stream.Furthest, 8192 + 4096);
    EXPECT_FALSE(file.CanCountApart()); // only the reader may read a stream it was handed

    const auto rowAt = [&](int64_t i) {
        return static_cast<int64_t>(text.find("\r\n" + std::to_string(i) + ",")) + 2;
    };
    ASSERT_TRUE(file.HasRow(999));
    EXPECT_LE(stream.Furthest, rowAt(1000) + 4096);
    stream.Bytes = 0;
    EXPECT_EQ(file.Row(950), "950,\"a\r\nb\"");
    EXPECT_EQ(file.LineNumber(950), 952);
    EXPECT_EQ(file.RowSpan(950).Offset, rowAt(950));
    EXPECT_LE(stream.Bytes, rowAt(1000) - rowAt(900) + 4096); // from the restart point at row 900
    EXPECT_FALSE(file.HasRow(20000));
    EXPECT_EQ(file.RowCount(), 20000);
    EXPECT_EQ(file.RecordCount(), 20001);

    // The same count by a scan of its own, from memory or through a file's own stream.
    file.OpenText(text);
    EXPECT_TRUE(file.CanCountApart());
    EXPECT_EQ(file.CountRows(), 20000);
    file.Open(dir.File("in.csv"));
    EXPECT_TRUE(file.HasRow(5));
    EXPECT_EQ(file.CountRows(), 20000);
    EXPECT_EQ(file.Row(5), "5,\"a\r\nb\""); // the row scan was not disturbed
    EXPECT_DOUBLE_EQ(file.ReadFraction(file.RowPlace(0)), 9.0 / static_cast<double>(text.size()));
    file.Close();
    EXPECT_EQ(file.CountRows(), 0);
}

TEST(TextFile, OpensEveryKindOfSource) {
    const std::string text = "n\r\n1\r\n2";
    TKvTextFile file;
    file.Settings().RowFirst = 2;

    TMemoryStream memory(text); // used in place, from its position
    memory.SetPosition(3);
    file.OpenStream(memory);
    EXPECT_EQ(file.HeaderLine(), "1");
    ASSERT_EQ(file.RowCount(), 1);
    EXPECT_EQ(file.Row(0), "2");

    // A stream that cannot seek (a pipe) is read into memory.
    test::TByteStream unseekable(text);
    unseekable.Seekable = false;
    file.OpenStream(unseekable);
    EXPECT_EQ(file.HeaderLine(), "n");
    ASSERT_EQ(file.RowCount(), 2);
    EXPECT_EQ(file.Row(1), "2");

    file.OpenText("x\r\ny\r\nz");
    EXPECT_EQ(file.HeaderLine(), "x");
    EXPECT_EQ(file.RowCount(), 2);
    file.Close();
    EXPECT_FALSE(file.Active());
    EXPECT_EQ(file.RowCount(), 0);
}

// Runs `body` with standard input taken from `fd`.
template <class Body> void WithStdin(int fd, Body body) {
    const int saved = dup(0);
    dup2(fd, 0);
    close(fd);
    body();
    dup2(saved, 0);
    close(saved);
}

TEST(TextFile, ReadsStandardInput) {
    test::TempDir dir;
    test::WriteFile(dir.File("in.csv"), "h\nfrom a file\n");
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    const std::string text = "h\r\nfrom a pipe\r\n";
    ASSERT_EQ(write(fds[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
    close(fds[1]);
    for (auto [fd, row] : {std::pair{open(dir.File("in.csv").c_str(), O_RDONLY), "from a file"},
                           std::pair{fds[0], "from a pipe"}}) {
        WithStdin(fd, [row] {
            TKvTextFile file;
            file.Settings().RowFirst = 2;
            file.OpenStdin();
            ASSERT_EQ(file.RowCount(), 1);
            EXPECT_EQ(file.Row(0), row);
        });
    }
}

TEST(TextFile, BadInput) {
    test::TempDir dir;
    TKvTextFile file;
    for (const std::string& name : {dir.File("missing.csv"), dir.Path()}) {
        try {
            file.Open(name);
            FAIL() << name;
        } catch (const EFOpenError& e) {
            const std::string reason = name == dir.Path() ? "Is a directory" : "No such file or directory";
            EXPECT_EQ(std::string(e.what()), "Cannot open file \"" + name + "\". " + reason);
        }
        EXPECT_FALSE(file.Active());
    }
    if (geteuid() != 0) { // root reads anything
        test::WriteFile(dir.File("locked.csv"), "a");
        chmod(dir.File("locked.csv").c_str(), 0);
        EXPECT_THROW(file.Open(dir.File("locked.csv")), EFOpenError);
    }

    // An enormous line is one row, read back whole.
    const std::string huge(3 * 1024 * 1024 + 17, 'x');
    test::WriteFile(dir.File("huge.csv"), "a\r\n" + huge + "\r\nb");
    file.Settings().RowFieldNames = 0;
    file.Open(dir.File("huge.csv"));
    ASSERT_EQ(file.RowCount(), 3);
    EXPECT_EQ(file.Row(1), huge);
    EXPECT_EQ(file.Row(2), "b");

    EXPECT_THROW(file.Row(3), EListError);
    EXPECT_THROW(file.Row(-1), EListError);
    EXPECT_THROW(file.LineNumber(3), EListError);

    // The file shrinks after it was opened: reading what is gone is a read error.
    test::WriteFile(dir.File("huge.csv"), "a\r\n");
    EXPECT_THROW(file.Row(1), EReadError);

    test::WriteFile(dir.File("empty.csv"), "");
    file.Open(dir.File("empty.csv"));
    EXPECT_EQ(file.RowCount(), 0);
    EXPECT_FALSE(file.HasHeader());
}

} // namespace
} // namespace kv
