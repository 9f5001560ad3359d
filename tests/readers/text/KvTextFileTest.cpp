// Loading text: encodings, cutting records, selecting rows, block boundaries, the sources and bad input.

#include "readers/text/KvTextFile.h"
#include "TestSupport.h"
#include "platform/Exceptions.h"
#include "support/ByteStream.h"

#include <fcntl.h>
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
    int64_t Records = 0; // how far the scan went
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
    r.Records = file.RecordCount();
    return r;
}

// Loads from memory, and from a file with block sizes small enough to cut every separator, qualifier and
// character in two somewhere, and restart points every other row; every way must agree.
Loaded LoadEverywhere(const std::string& bytes, const TKvTextFileSettings& settings) {
    TKvTextFile file;
    file.Settings() = settings;
    file.OpenText(bytes);
    const Loaded expected = Collect(file);
    test::TempDir dir;
    test::WriteFile(dir.File("in.txt"), bytes);
    file.Settings().CheckpointRows = 2;
    for (size_t block : {1, 2, 3, 4, 5, 7, 16, 0}) {
        SCOPED_TRACE("block size " + std::to_string(block));
        file.Settings().BlockSize = block;
        file.Open(dir.File("in.txt"));
        EXPECT_EQ(Collect(file), expected);
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

TKvTextFileSettings Fixed(int length) {
    TKvTextFileSettings s = Plain("");
    s.FixedLineLength = length;
    return s;
}

// Small changes to settings, for the tables.
const auto KeepBlank = [](TKvTextFileSettings s = Plain()) { return s.SkipBlankLines = false, s; };
const auto As = [](TTextEncoding e, TKvTextFileSettings s = Plain()) { return s.Encoding = e, s; };
const auto Upto = [](int rowLast, TKvTextFileSettings s = Plain()) { return s.RowLast = rowLast, s; };
// Only the first `bytes` are checked when opening; the rest as the rows are cut.
const auto JudgeFirst = [](size_t bytes, TKvTextFileSettings s = Plain()) { return s.JudgeBytes = bytes, s; };

// A literal's bytes, NULs included.
template <size_t N> std::string Raw(const char (&bytes)[N]) {
    return std::string(bytes, N - 1);
}

std::string Repeat(std::string_view text, int times) {
    std::string out;
    for (int i = 0; i < times; ++i) out += text;
    return out;
}

TEST(TextFile, CutsRecords) {
    struct Case {
        const char* Name;
        std::string Bytes;
        TKvTextFileSettings Settings;
        std::vector<std::string> Rows;
    };
    const Case cases[] = {
        {"mixed line ends", "a\r\nb\nc\r\nd\n", Plain(), {"a", "b", "c", "d"}},
        {"a lone CR ends a record", "a\rb\r\nc", Plain(), {"a", "b", "c"}},
        {"a CR before the end of the text", "a\r\nb\r", Plain(), {"a", "b"}},
        {"blank lines kept", "a\r\n\r\n\nb", KeepBlank(), {"a", "", "", "b"}},
        {"CR CR LF is an empty record between", "a\r\r\nb", KeepBlank(), {"a", "", "b"}},
        {"LF CR is two line ends", "a\n\rb", KeepBlank(), {"a", "", "b"}},
        {"line ends inside qualifiers stay",
         "1,\"x\ry\"\r2,\"p\r\nq\"\r\n3,\"s\nt\"\n4",
         Plain(),
         {"1,\"x\ry\"", "2,\"p\r\nq\"", "3,\"s\nt\"", "4"}},
        {"CR with another separator is text", "a\rb;c", Plain(";"), {"a\rb", "c"}},
        {"blanks before a qualified field", "1, \"x\r\ny\" ,2\r\n3", Plain(), {"1, \"x\r\ny\" ,2", "3"}},
        {"doubled qualifiers keep the state", "\"a\"\"\r\nb\"\r\nc", Plain(), {"\"a\"\"\r\nb\"", "c"}},
        {"without qualifier", "\"a\r\nb\"", Plain("\r\n", 0), {"\"a", "b\""}},
        {"another qualifier", "'a\r\nb',\"c\r\nd", Plain("\r\n", U'\''), {"'a\r\nb',\"c", "d"}},
        {"one-character separator", "a;b;;c", KeepBlank(Plain(";")), {"a", "b", "", "c"}},
        {"two-character separator", "a|b||c||", Plain("||"), {"a|b", "c"}},
        {"separator inside qualifiers", "\"x||y\"||z", Plain("||"), {"\"x||y\"", "z"}},
        {"long separator", "a<EOR>b<EO<EOR>", Plain("<EOR>"), {"a", "b<EO"}},
        {"LF setting keeps the CR", "a\r\nb", Plain("\n"), {"a\r", "b"}},
        {"non-ASCII separator", "a¶b¶", Plain("¶"), {"a", "b"}},
        {"non-ASCII qualifier", "§a\nb§\nc", Plain("\r\n", U'§'), {"§a\nb§", "c"}},
        {"fixed length", "abcdefgh", Fixed(3), {"abc", "def", "gh"}},
        {"fixed length counts characters", "äbcdéf€x", Fixed(3), {"äbc", "déf", "€x"}},
        {"fixed length ignores line breaks", "ab\r\ncd", Fixed(2), {"ab", "\r\n", "cd"}},
        {"no separator: one record", "a\r\nb", Plain(""), {"a\r\nb"}},
        {"unterminated qualifier takes the rest", "a\r\n\"b\r\nc\r\nd", Plain(), {"a", "\"b\r\nc\r\nd"}},
        {"empty text", "", Plain(), {}},
        {"one empty record", "\r\n", KeepBlank(), {""}},
    };
    for (const Case& c : cases) {
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
        int64_t Records;
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
        EXPECT_EQ(r.Records, c.Records);
    }
}

// Blank lines are no rows, and SkipEmptyRows leaves out rows of blanks and delimiters; the numbering stays.
TEST(TextFile, LeavesOutBlankAndEmptyRows) {
    TKvTextFileSettings named = Plain(), skip = KeepBlank();
    named.RowFieldNames = 1, named.RowFirst = 2;
    TKvTextFileSettings otherNamed = named, fixedSkip = skip, skipRange = skip;
    otherNamed.RecordSeparator = ";";
    skip.SkipEmptyRows = fixedSkip.SkipEmptyRows = skipRange.SkipEmptyRows = true;
    fixedSkip.FixedWidth = true; // the delimiter means nothing to fixed-width records
    skipRange.RowFirst = 2, skipRange.RowLast = 5;
    const std::string empties = "a\r\n\r\n  \r\n,,\r\nb\r\n\t";
    struct Case {
        const char* Name;
        std::string Bytes;
        TKvTextFileSettings Settings;
        const char* Header; // nullptr: none
        std::vector<std::string> Rows;
        std::vector<int64_t> Lines;
    };
    const Case cases[] = {
        {"blank lines between and after", "id\n1\n\n \t \n2\r\n\r\n\r\n", named, "id", {"1", "2"}, {2, 5}},
        {"a line of delimiters is a row: SkipEmptyRows decides", "h\n,,\n", named, "h", {",,"}, {2}},
        {"a quoted blank is a value", "h\n\" \"\n", named, "h", {"\" \""}, {2}},
        {"a blank line for the names", "\r\nid\r\n1", named, nullptr, {"id", "1"}, {2, 3}},
        {"blank records with another separator", "h;  ;\t\r;x", otherNamed, "h", {"x"}, {4}},
        {"fixed lengths are no lines", "ab  cd", Fixed(2), nullptr, {"ab", "  ", "cd"}, {1, 2, 3}},
        {"empty rows left out", empties, skip, nullptr, {"a", "b"}, {1, 5}},
        {"fixed width: delimiters", empties, fixedSkip, nullptr, {"a", ",,", "b"}, {1, 4, 5}},
        {"leaving out does not move the range", empties, skipRange, nullptr, {"b"}, {5}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.Name);
        const Loaded r = LoadEverywhere(c.Bytes, c.Settings);
        EXPECT_EQ(r.HasHeader, c.Header != nullptr);
        EXPECT_EQ(r.Header, c.Header ? c.Header : "");
        EXPECT_EQ(r.Rows, c.Rows);
        EXPECT_EQ(r.Lines, c.Lines);
    }
}

TEST(TextFile, DecodesEncodings) {
    const std::string bom = "\xEF\xBB\xBF";
    // Stray bytes of every kind, each read alone, and how Windows-1252 reads them.
    const std::string strays = " \x80 \xE2\x82 \xC0\xAF \xED\xA0\x80",
                      asRead = " € â\xE2\x80\x9A À¯ í\xC2\xA0€";
    struct Case {
        const char* Name;
        std::string Bytes;
        TKvTextFileSettings Settings;
        TTextEncoding Encoding;
        std::vector<std::string> Rows;
    };
    // "set": the encoding comes from the setting; "late": only the first bytes are judged when opening.
    const Case cases[] = {
        {"UTF-16 LE", Raw("\xFF\376a\0,\0\xE9\0\r\0\n\0b\0\n\0"), Plain(), encUtf16LE, {"a,é", "b"}},
        {"UTF-16 BE", Raw("\xFE\xFF\0a\0,\x20\xAC\0\r\0\n\0b"), Plain(), encUtf16BE, {"a,€", "b"}},
        {"UTF-16 with an odd byte", Raw("\xFF\376a\0b"), Plain(), encUtf16LE, {"a�"}},
        {"UTF-8 with BOM", bom + "aé\r\nb", Plain(), encUtf8Bom, {"aé", "b"}},
        {"UTF-8", "aé\r\n\xF0\x9F\x98\x80", Plain(), encUtf8, {"aé", "\xF0\x9F\x98\x80"}},
        {"Windows-1252", "caf\xE9\r\n\x80 5", Plain(), encAnsi, {"café", "€ 5"}},
        {"Windows-1252 late in the text", "éx\r\ny\xE9", Plain(), encAnsi, {"Ã©x", "yé"}},
        // The first bytes read as UTF-8 count "é" as one character; the last byte shows it is not UTF-8,
        // and the records are cut again by bytes.
        {"Windows-1252 fixed length", "éxy\xE9", Fixed(2), encAnsi, {"Ã©", "xy", "é"}},
        {"Windows-1252 with a non-ASCII separator", "a\266b", Plain("¶"), encAnsi, {"a", "b"}},
        {"a separator Windows-1252 lacks", "a\266b", Plain("₭"), encAnsi, {"a¶b"}},
        // A BOM promises UTF-8: the few bytes that are not are Windows-1252 characters.
        {"malformed UTF-8 after a BOM", bom + "a\377b\r\nc", Plain(), encUtf8Mixed, {"aÿb", "c"}},
        {"mostly UTF-8", Repeat("é", 9) + strays, Plain(), encUtf8Mixed, {Repeat("é", 9) + asRead}},
        {"as many stray bytes", Repeat("é", 8) + strays, Plain(), encAnsi, {Repeat("Ã©", 8) + asRead}},
        // Characters of fixed-length records are those the rows decode to.
        {"mixed fixed length", "éé\x80yü", Fixed(2), encUtf8Mixed, {"éé", "€y", "ü"}},
        {"UTF-8, set", bom + "a\xE9\r\n\xE9", As(encUtf8), encUtf8Bom, {"a�", "�"}},
        {"UTF-8, set, fixed length", "a\x80ébc", As(encUtf8, Fixed(2)), encUtf8, {"a�", "éb", "c"}},
        {"Windows-1252, set", bom + "é", As(encAnsi), encAnsi, {"ï»¿Ã©"}},
        {"Windows-1252, set, fixed length", "éx", As(encAnsi, Fixed(2)), encAnsi, {"Ã©", "x"}},
        {"mixed, set", "caf\xE9\r\nét\xE9", As(encUtf8Mixed), encUtf8Mixed, {"café", "été"}},
        {"mixed, set, all UTF-8", "é", As(encUtf8Mixed), encUtf8, {"é"}},
        {"UTF-16 LE, set", Raw("a\0\r\0\r\0\n\0\xE9\0"), As(encUtf16LE), encUtf16LE, {"a", "é"}},
        {"UTF-16 BE, set, BOM", Raw("\xFE\xFF\0a\0\n\x20\xAC"), As(encUtf16BE), encUtf16BE, {"a", "€"}},
        {"UTF-16 BE, set, LE BOM", Raw("\xFF\xFE\0a"), As(encUtf16BE), encUtf16BE, {"\xEF\xBF\276a"}},
        // Only the bytes up to the last wanted record are judged.
        {"UTF-8 to RowLast", "é\r\n\xFF", Upto(1), encUtf8, {"é"}},
        {"UTF-8 to RowLast, late", "abc\r\né\r\n\xFF", Upto(2, JudgeFirst(2)), encUtf8, {"abc", "é"}},
        // The first bytes are UTF-8: a stray byte met later is Windows-1252 from there on, and the rows
        // before it read the same either way.
        {"a stray byte, late", "Zü\r\nM\xFC\r\né", JudgeFirst(4), encUtf8Mixed, {"Zü", "Mü", "é"}},
        {"cut by the end, late", "ab\r\nc\xE2\x82", JudgeFirst(3), encUtf8Mixed, {"ab", "câ\xE2\x80\x9A"}},
        {"fixed length, late", "abcé\x80y", JudgeFirst(2, Fixed(2)), encUtf8Mixed, {"ab", "cé", "€y"}},
        // The first record ends in the first byte of a sequence the bytes checked leave open: the bytes
        // after it break it before the record is decoded.
        {"broken, late", "ab\xE2\x82xy", JudgeFirst(4, Fixed(3)), encUtf8Mixed, {"abâ", "\xE2\x80\x9Axy"}},
        {"open at the end, late", "aa\xF0\xB1", JudgeFirst(2, Fixed(1)), encUtf8Mixed, {"a", "a", "ð", "±"}},
        {"BOM, late", bom + "ab\r\n\xFF", JudgeFirst(1), encUtf8Mixed, {"ab", "ÿ"}},
        {"UTF-8, set, late", "ab\r\nc\xE9", As(encUtf8, JudgeFirst(1)), encUtf8, {"ab", "c�"}},
        {"a sequence cut by RowLast", "a\xE2\x82x", Upto(2, Fixed(1)), encAnsi, {"a", "â"}},
        {"binary", Raw("\x00\x01\xFF\r\n\xFE\x00"), Plain(), encAnsi, {Raw("\x00\x01ÿ"), Raw("þ\x00")}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.Name);
        const Loaded r = LoadEverywhere(c.Bytes, c.Settings);
        EXPECT_EQ(r.Encoding, c.Encoding);
        EXPECT_EQ(r.Rows, c.Rows);
    }
}

TKvTextWarning Unclosed(int64_t line, const char* linesAfter) {
    return {line,
            std::string("the quoted field that starts on this line is never closed: it takes in the ") +
                linesAfter + " after it, to the end of the file",
            true};
}

TKvTextWarning Stray(int64_t line) {
    return {line, "bytes that are not UTF-8 were read as Windows-1252 characters", false};
}

TEST(TextFile, WarnsWithTheLineAUserSees) {
    struct Case {
        const char* Name;
        std::string Bytes;
        TKvTextFileSettings Settings;
        std::vector<TKvTextWarning> Warnings;
    };
    const Case cases[] = {
        {"a clean file", "id,note\r\n1,\"a\r\nb\"\r\n", Plain(), {}},
        {"unclosed", "id\r\n1,\"ok\"\r\n2,\"open\r\n3\r\n4\r\n", Plain(), {Unclosed(3, "2 lines")}},
        {"lines, not records", "id\r\n1,\"a\r\nb\"\r\n2,\"open\r\nx", Plain(), {Unclosed(4, "1 line")}},
        {"a doubled qualifier", "h\n\"x\n\"\"y\nz\n", Plain(), {Unclosed(2, "2 lines")}},
        {"open on the last line", "h\n1,\"x", Plain(), {Unclosed(2, "0 lines")}},
        {"lines ended by CR alone", "h\r1,\"x\r2\r3", Plain("\n"), {Unclosed(2, "2 lines")}},
        {"UTF-16", Raw("\xFF\xFEh\0\r\0\n\0\"\0x\0\n\0y\0"), Plain(), {Unclosed(2, "1 line")}},
        {"the scan stops before it", "h\r\n1\r\n\"open\r\n2", Upto(2), {}},
        {"a header that never closes", "\"id,name\r\n1,a\r\n2,b", Plain(), {Unclosed(1, "2 lines")}},
        {"a stray byte after lines", "id\n1,\"Zü\nZü\"\n2,M\xFC\n", Plain(), {Stray(4)}},
        {"after a BOM", "\xEF\xBB\xBFh\r\n\xE9", Plain(), {Stray(2)}},
        // The stray byte is found when opening, the open quote once the scan gets there.
        {"both, as they are found", "h\néé\n\"open\n\xE9\n", Plain(), {Stray(4), Unclosed(3, "1 line")}},
        {"a stray byte met late", "h\né\n\"a\"\"\nb\"\nM\xFC\n\xE9\n", JudgeFirst(4), {Stray(5)}},
        {"a stray byte after the last wanted record", "h\n1\n2\n\xE9\n", Upto(3, JudgeFirst(4)), {}},
        {"UTF-8 by the setting says nothing", "h\n\xE9", As(encUtf8), {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.Name);
        EXPECT_EQ(LoadEverywhere(c.Bytes, c.Settings).Warnings, c.Warnings);
    }

    // Lines count from where the stream stood.
    TKvTextFile file;
    file.Settings() = Plain();
    TMemoryStream memory("skipped\nh\n\"x");
    memory.SetPosition(8);
    file.OpenStream(memory);
    EXPECT_TRUE(file.Warnings().empty()); // the scan has not been there yet
    EXPECT_EQ(file.RowCount(), 2);
    EXPECT_EQ(file.Warnings(), std::vector{Unclosed(2, "0 lines")});
    // Every open starts afresh, and each warning of the reading is handed out once.
    file.OpenText("a\nb");
    EXPECT_EQ(file.RowCount(), 2);
    EXPECT_TRUE(file.Warnings().empty());
    file.OpenText("\"\n");
    std::vector<TKvTextWarning> taken;
    file.TakeNewWarnings(taken);
    EXPECT_TRUE(taken.empty());
    EXPECT_TRUE(file.HasRow(0));
    file.TakeNewWarnings(taken);
    file.TakeNewWarnings(taken);
    EXPECT_EQ(taken, std::vector{Unclosed(1, "0 lines")});
    // Found when opening, while the header was looked for: a warning of the open, not one to take.
    file.Settings().RowFieldNames = 1;
    file.OpenText("\"\n");
    EXPECT_EQ(file.Warnings().size(), 1u);
    taken.clear();
    file.TakeNewWarnings(taken);
    EXPECT_TRUE(taken.empty());
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
        for (size_t i = 0; i < 4; ++i) EXPECT_EQ(file.StartLine(places[i]), expected[i]) << i;
        for (size_t i = 4; i-- > 0;) EXPECT_EQ(file.StartLine(places[i]), expected[i]) << i;
        EXPECT_EQ(file.Row(0), "1,\"two\nlines\""); // read back through a window of one block
        EXPECT_EQ(file.RowSpan(0).Offset, 3);
        EXPECT_EQ(file.RowSpan(0).Length, 13);
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
    std::string text = "id,note\r\n";
    for (int i = 0; i < 20000; ++i) text += std::to_string(i) + ",\"a\r\nb\"\r\n";
    test::TempDir dir;
    test::WriteFile(dir.File("in.csv"), text);
    TKvTextFile file;
    file.Settings().RowFirst = 2;
    file.Settings().BlockSize = 4096;
    file.Settings().JudgeBytes = 8192;
    file.Settings().CheckpointRows = 100;

    test::TByteStream stream(text); // no TMemoryStream, which would be used in place
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
    TKvTextFile file;
    file.Settings().RowFirst = 2;
    const auto headerAndRows = [&file] {
        Loaded r = Collect(file);
        r.Rows.insert(r.Rows.begin(), r.Header);
        return r.Rows;
    };
    const std::string text = "n\r\n1\r\n2";
    TMemoryStream memory(text); // used in place, from its position
    memory.SetPosition(3);
    file.OpenStream(memory);
    EXPECT_EQ(headerAndRows(), (std::vector<std::string>{"1", "2"}));
    // A stream that cannot seek (a pipe) is read into memory.
    test::TByteStream unseekable(text);
    unseekable.Seekable = false;
    file.OpenStream(unseekable);
    EXPECT_EQ(headerAndRows(), (std::vector<std::string>{"n", "1", "2"}));

    // Standard input: a redirected file is read like a file, a pipe into memory.
    test::TempDir dir;
    test::WriteFile(dir.File("in.csv"), "h\nfrom a file\n");
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    const std::string piped = "h\r\nfrom a pipe\r\n";
    ASSERT_EQ(write(fds[1], piped.data(), piped.size()), static_cast<ssize_t>(piped.size()));
    close(fds[1]);
    const int saved = dup(0);
    for (auto [fd, row] : {std::pair{open(dir.File("in.csv").c_str(), O_RDONLY), "from a file"},
                           std::pair{fds[0], "from a pipe"}}) {
        dup2(fd, 0);
        close(fd);
        file.OpenStdin();
        EXPECT_EQ(headerAndRows(), (std::vector<std::string>{"h", row}));
    }
    dup2(saved, 0);
    close(saved);
}

TEST(TextFile, BadInput) {
    test::TempDir dir;
    TKvTextFile file;
    for (const std::string& name : {dir.File("missing.csv"), dir.Path()}) {
        const std::string reason = name == dir.Path() ? "Is a directory" : "No such file or directory";
        EXPECT_EQ(test::ErrorOf([&] { file.Open(name); }), "Cannot open file \"" + name + "\". " + reason);
        EXPECT_THROW(file.Open(name), EFOpenError);
        EXPECT_FALSE(file.Active());
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
}

} // namespace
} // namespace kv
