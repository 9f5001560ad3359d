// Reading xBase tables: versions and descriptor layouts, every field decoding, deleted records, the three
// memo layouts, code pages, damaged headers, and the shared corpus. The plain values, file properties, row
// statuses and warnings the tables in tests/data/dbf show are left to the test that walks them.

#include "readers/database/KvDBF.h"
#include "TestSupport.h"
#include "platform/FormatError.h"
#include "support/DataFiles.h"

#include "support/DbfBuilder.h"
#include <cstring>
#include <filesystem>

#include <map>
#include <set>

namespace kv {
namespace {

using test::Table;

struct Cell {
    Variant Value;
    TAlignment Alignment = taLeftJustify;
    TKvICellType Type = ictUnknown;
};

/// The cells a whole-table load from memory reports, by row.
std::map<int, std::vector<Cell>> LoadCells(TDBF& dbf, const std::string& bytes) {
    std::map<int, std::vector<Cell>> rows;
    dbf.OnCellValue = [&](TObject*, int, int row, int, int32_t, const Variant& value, TAlignment alignment,
                          TKvICellType type) {
        rows[row].push_back({value, alignment, type});
    };
    dbf.SetRecordMode(false);
    TMemoryStream stream(bytes);
    dbf.LoadFromStream(stream);
    return rows;
}

std::string Names(const TDBF& dbf) {
    std::string out;
    for (const TDBFField& f : dbf.Fields()) out += (out.empty() ? "" : ",") + f.Name;
    return out;
}

/// The field names and the first record's cells of a table loaded whole: "A,B: x y".
std::string Describe(const Table& t, TDBF* into = nullptr) {
    TDBF own;
    TDBF& dbf = into ? *into : own;
    const auto rows = LoadCells(dbf, t.Build());
    std::string out = Names(dbf) + ":";
    if (!rows.empty())
        for (const Cell& c : rows.begin()->second) out += " " + c.Value.AsString();
    return out;
}

void Ignore(TObject*, int, int, int, int32_t, const Variant&, TAlignment, TKvICellType) {}

std::string Bytes(std::initializer_list<int> bytes) {
    std::string out;
    for (int b : bytes) out += static_cast<char>(b);
    return out;
}

template <class T> std::string LE(T value) {
    std::string out(sizeof value, '\0');
    std::memcpy(out.data(), &value, sizeof value);
    return out;
}

std::string BE64(double value) {
    const std::string le = LE(value);
    return {le.rbegin(), le.rend()};
}

TEST(DBFVersion, FirstEntryOfAByteWinsAndUnknownBytesReadAsDBase3) {
    const struct {
        uint8_t Byte;
        TDBFVersion Version;
        const char* Text;
    } cases[] = {{0x03, dBase3, "dBase III"},
                 {0x83, dBase3Memo, "dBase III (memo)"},
                 {0x8A, dBase3PlusMemo, "dBase III Plus (no memo)"},
                 {0xF5, FoxProMemo, "FoxPro (memo)"},
                 {0x8B, dBase4Memo, "dBase IV (memo)"},
                 {0x30, VFP3, "Visual FoxPro 3"},
                 {0x04, dBase5, "dBase V"},
                 {0x8C, dBase7Memo, "dBase VII (memo)"},
                 {0x31, VFP3AutoIncrement, "Visual FoxPro 3 (auto increment)"},
                 {0xE5, HyperSix, "Hyper Six"},
                 {0xFA, FoxPro2, "FoxPro 2.x or earlier (memo)"},
                 {0x32, dBase3, ""}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.Text);
        EXPECT_EQ(TDBF::VersionOf(c.Byte), c.Version);
        EXPECT_EQ(TDBF::GetStrFileType(c.Byte), c.Text);
        TDBF dbf;
        EXPECT_EQ(Describe({.Version = c.Byte, .Fields = {{"NAME", 'C', 4}}, .Records = {" abcd"}}, &dbf),
                  "NAME: abcd");
        EXPECT_EQ(dbf.DBFVersion(), c.Version);
    }
    // The other type names show in the declared fields below and in the data files.
    const std::pair<char, const char*> names[] = {
        {'4', "Integer"}, {'2', "Short Integer"}, {'P', "Graphic"}, {'Q', "<unknown>"}, {'X', "<unknown>"}};
    for (const auto& [type, name] : names) EXPECT_EQ(TDBF::GetStrFieldType(type), name) << type;
}

TEST(DBFLayout, DescriptorsFitEachVersionAndDeclareTheirCellTypes) {
    // Level 7: 48-byte descriptors, names cut to ten.
    EXPECT_EQ(Describe({.Version = 0x04,
                        .Fields = {{"A_LONG_NAME_", 'C', 3}, {"N", 'N', 4, 1}},
                        .Records = {" xyz12.5"}}),
              "A_LONG_NAM,N: xyz 12.5");
    // The 32-byte layout keeps all 11 name bytes; a FoxPro table's backlink area is no field.
    EXPECT_EQ(Describe({.Version = 0x30, .Fields = {{"ELEVENCHARS", 'C', 2}}, .Records = {" ok"}}),
              "ELEVENCHARS: ok");
    // 0x31 keeps a backlink area after the terminator too, which the header size counts.
    EXPECT_EQ(Describe({.Version = 0x31,
                        .Fields = {{"A", 'C', 2}},
                        .Records = {" ab"},
                        .HeaderSize = 32 + 32 + 1 + 263}),
              "A: ab");
    // A character field of 300 bytes keeps its high byte in the decimal count.
    const std::string note = std::string(299, 'x') + "y";
    EXPECT_EQ(Describe({.Fields = {{"NOTE", 'C', 44, 1}, {"N", 'N', 2}},
                        .Records = {" " + note + "42"},
                        .RecordSize = 1 + 300 + 2}),
              "NOTE,N: " + note + " 42");
    // Declared cell types follow the field types.
    TDBF dbf;
    Describe(
        {.Fields =
             {{"NAME", 'C', 6}, {"QTY", 'N', 5}, {"PRICE", 'N', 7, 2}, {"DAY", 'D', 8}, {"NOTE", 'M', 10}}},
        &dbf);
    std::string declared;
    for (const TKvIDeclaredField& f : dbf.DeclaredFields())
        declared += f.Name + ":" + std::to_string(f.CellType) + ":" + f.TypeName + " ";
    EXPECT_EQ(declared, "NAME:2:String QTY:3:Number PRICE:4:Number DAY:8:Date NOTE:7:MEMO ");
}

TEST(DBFFields, EachTypeDecodes) {
    const Variant null = Variant::Null();
    const struct {
        const char* Name;
        uint8_t Version;
        char Type;
        int Length, Decimals;
        std::string Bytes;
        Variant Value;
        TKvICellType CellType;
    } cases[] = {
        // Plain values (text kept untrimmed, numbers, dates, true, a timestamp) are in the data files.
        {"unknown type as C", 0x03, 'X', 3, 0, " x ", " x ", ictString},
        {"blank C", 0x03, 'C', 3, 0, std::string("  \0", 3), null, ictEmpty},
        {"N rounded without", 0x03, 'N', 4, 0, " 2.6", 3.0, ictDecimal},
        {"N partial", 0x03, 'N', 5, 0, "12abc", 12.0, ictDecimal},
        {"N none", 0x03, 'N', 3, 0, "abc", 0.0, ictDecimal},
        {"F exponent", 0x03, 'F', 7, 0, "-1.5e2 ", -150.0, ictDecimal},
        {"F too small", 0x03, 'F', 6, 2, "1e-999", 0.0, ictDecimal},
        {"D impossible", 0x03, 'D', 8, 0, "19870230", null, ictDateTime},
        {"D text", 0x03, 'D', 8, 0, "NotAYear", null, ictDateTime},
        {"L t", 0x03, 'L', 1, 0, "t", false, ictBoolean},
        {"L Y", 0x03, 'L', 1, 0, "Y", false, ictBoolean},
        {"L y", 0x03, 'L', 1, 0, "y", false, ictBoolean},
        {"I dBase low", 0x03, 'I', 4, 0, Bytes({1, 0, 0, 0}), -2147483647, ictInteger},
        {"I FoxPro", 0x05, 'I', 4, 0, Bytes({1, 0, 0, 0x80}), -2147483647, ictInteger},
        {"I auto increment table", 0x31, 'I', 4, 0, Bytes({7, 0, 0, 0}), -2147483641, ictInteger},
        {"I zero is empty", 0x03, 'I', 4, 0, Bytes({0, 0, 0, 0}), null, ictEmpty},
        {"+", 0x03, '+', 4, 0, Bytes({1, 0, 0, 0}), 1, ictInteger},
        {"4", 0x03, '4', 4, 0, LE<int32_t>(-5), -5, ictInteger},
        {"2 alone", 0x03, '2', 2, 0, Bytes({0xFE, 0xFF}), 65534, ictInteger},
        {"8", 0x03, '8', 8, 0, LE<double>(2.5), 2.5, ictDecimal},
        // A negative value arrives as the integer of the complemented bits.
        {"O negative", 0x04, 'O', 8, 0, Bytes({0x3F, 0x97, 0x00, 0x51, 0xEB, 0x85, 0x1E, 0xB7}),
         Variant::FromInt(static_cast<int64_t>(~uint64_t{0x3F970051EB851EB7})), ictDecimal},
        {"@ out of range", 0x04, '@', 8, 0, BE64(-1e300), null, ictDateTime},
        {"T day out of range", 0x30, 'T', 8, 0, LE<int32_t>(INT32_MIN) + LE<int32_t>(0), null, ictDateTime},
        {"T HHMMSS", 0x03, 'T', 6, 0, "133539", Variant::FromDateTime(EncodeTime(13, 35, 39, 0)),
         ictDateTime},
        {"T HHMMSS invalid", 0x03, 'T', 6, 0, "256161", null, ictDateTime},
        {"T space first", 0x30, 'T', 8, 0, " " + LE<int32_t>(5) + "xyz", null, ictDateTime},
        {"Y", 0x30, 'Y', 8, 0, LE<int64_t>(-200000), -20.0, ictDecimal},
        {"0 always null", 0x30, '0', 1, 0, "\x03", null, ictEmpty},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.Name);
        TDBF dbf;
        const auto rows = LoadCells(dbf, Table{.Version = c.Version,
                                               .Fields = {{"F", c.Type, c.Length, c.Decimals}},
                                               .Records = {" " + c.Bytes}}
                                             .Build());
        ASSERT_EQ(rows.size(), 1u);
        const Cell& cell = rows.at(0).at(0);
        EXPECT_TRUE(cell.Value.VarType() == c.Value.VarType() &&
                    (c.Value.IsNullOrEmpty() || cell.Value.Equals(c.Value)))
            << cell.Value.AsString() << " (" << VarTypeName(cell.Value.VarType()) << ")";
        EXPECT_EQ(cell.Type, c.CellType);
        // Numbers stand to the right, everything else to the left.
        const bool number = c.CellType == ictInteger || c.CellType == ictDecimal;
        EXPECT_TRUE(c.CellType == ictEmpty || cell.Alignment == (number ? taRightJustify : taLeftJustify));
    }
}

TEST(DBFFields, ShortIntegersKeepTheUpperBytesOfTheRecordsLastInteger) {
    const Table t{
        .Fields = {{"A", '4', 4}, {"B", '2', 2}, {"C", '+', 4}, {"D", '2', 2}},
        .Records = {" " + LE<int32_t>(-1) + Bytes({1, 0}) + LE<int32_t>(0x00050000) + Bytes({2, 0}),
                    " " + std::string(4, '\0') + Bytes({3, 0}) + std::string(4, '\0') + Bytes({4, 0})}};
    TDBF dbf;
    const auto rows = LoadCells(dbf, t.Build());
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(rows.at(0)[1].Value.AsInteger(), -65535);  // 0xFFFF0001
    EXPECT_EQ(rows.at(0)[3].Value.AsInteger(), 0x50002); // after the "+" field
    // Each record starts from zero; a blank field overwrites nothing.
    EXPECT_EQ(rows.at(1)[1].Value.AsInteger(), 3);
    EXPECT_EQ(rows.at(1)[3].Value.AsInteger(), 4);
}

TEST(DBFRecords, DeletedRecordsAreSkippedUnlessAskedForAndTakeNoRowNumber) {
    const std::string bytes =
        Table{.Fields = {{"NAME", 'C', 5}}}.Add({"one"}).Add({"two"}, '*').Add({"three"}).Build();
    TDBF whole;
    const auto rows = LoadCells(whole, bytes);
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(rows.at(1)[0].Value.StringRef(), "three");

    // Record by record: the deleted one delivers nothing and says so.
    TDBF dbf;
    int delivered = 0;
    dbf.OnCellValue = [&](TObject*, int, int, int, int32_t, const Variant&, TAlignment, TKvICellType) {
        ++delivered;
    };
    TMemoryStream stream(bytes);
    dbf.LoadFromStream(stream);
    EXPECT_EQ(dbf.RecordCount(), 3);
    EXPECT_TRUE(dbf.LoadRecord(0));
    EXPECT_FALSE(dbf.LoadRecord(1));
    EXPECT_TRUE(dbf.LoadRecord(1));
    EXPECT_EQ(delivered, 2);
    EXPECT_EQ(dbf.CurrentRecord(), 1);
    dbf.AfterLoad();
    EXPECT_FALSE(dbf.LoadRecord(2)); // the stream is forgotten
}

/// A memo file of `blockSize`-byte blocks: `header` (made 512 bytes) at 0, then each block at its number.
std::string MemoFile(std::string header, size_t blockSize, const std::map<int, std::string>& blocks) {
    header.resize(512, '\0');
    for (const auto& [number, bytes] : blocks) {
        const size_t at = static_cast<size_t>(number) * blockSize;
        header.resize(std::max(header.size(), at + bytes.size()), '\0');
        header.replace(at, bytes.size(), bytes);
    }
    return header;
}

/// The memo cells of a table of block references `refs` read against `memo`.
std::vector<std::string> Memos(uint8_t version, const std::string& memo, const std::vector<std::string>& refs,
                               TDBFMemoType type = dmDBT, bool parse = true) {
    Table t{.Version = version, .Fields = {{"M", 'M', version == 0x30 ? 4 : 10}}};
    for (const std::string& r : refs) t.Add({r});
    TDBF dbf;
    dbf.SetDBFMemoType(type);
    dbf.SetParseBLOB(parse);
    TMemoryStream memoStream(memo);
    dbf.SetMemoStream(&memoStream);
    std::vector<std::string> out;
    for (const auto& [row, cells] : LoadCells(dbf, t.Build())) out.push_back(cells[0].Value.AsString());
    return out;
}

TEST(DBFMemo, DBaseIIIReadsToTheTerminatorOrTheEnd) {
    // A low byte set in the block size: it stays 512.
    const std::string memo = MemoFile(std::string(20, '\0') + "\x01\x01", 512,
                                      {{1, "first\x1A\x1A"},
                                       {2, "one\032and\032\032two"},
                                       {3, "single\x1Arest"},
                                       {4, std::string(600, 'a') + "\x1A"},
                                       {6, "no end"}});
    EXPECT_EQ(Memos(0x83, memo, {"         1", "         2", "3", "4", "         6", "0", "99", "x"}),
              (std::vector<std::string>{"first", "one\032and", "single", std::string(600, 'a'), "no end", "",
                                        "", ""}));
    EXPECT_EQ(Memos(0x83, memo, {"2"}, dmDBT, false), std::vector<std::string>{"2"});
}

TEST(DBFMemo, DBaseIVBlocksCountTheirHeaderInTheirLength) {
    const std::string text = "First memo\r\n";
    const std::string memo =
        MemoFile(std::string(20, '\0') + Bytes({0, 1}), 256, // 256-byte blocks
                 {{2, Bytes({0xFF, 0xFF, 8, 0}) + LE<uint32_t>(8 + text.size()) + text + "junk"},
                  {3, Bytes({0xFF, 0xFF, 8, 0}) + LE<uint32_t>(1000000) + "tail"},
                  {4, Bytes({1, 2, 3, 4}) + LE<uint32_t>(4) + "12345678rest"}});
    for (uint8_t version : {0x8B, 0x8C}) {
        const std::vector<std::string> memos = Memos(version, memo, {"2", "3"});
        EXPECT_EQ(memos[0], text) << int(version);
        EXPECT_EQ(memos[1].substr(0, 4), "tail") << int(version); // a length past the file: what is there
    }
    // A block without the signature keeps the older dBase IV rule: 8 more bytes skipped.
    EXPECT_EQ(Memos(0x8B, memo, {"4"})[0], "rest");
}

TEST(DBFMemo, FptUsesBigEndianSizesAndVisualFoxProBlockNumbersAreBinary) {
    const std::string header = std::string(6, '\0') + Bytes({0, 0x40}); // 64-byte blocks
    const std::string memo = MemoFile(header, 64,
                                      {{8, Bytes({0, 0, 0, 1, 0, 0, 0, 5}) + "hello world"},
                                       {9, Bytes({0, 0, 0, 1, 0, 0, 0, 100}) + std::string(100, 'z')}});
    EXPECT_EQ(Memos(0xF5, memo, {"8", "9", "500"}),
              (std::vector<std::string>{"hello", std::string(100, 'z'), ""}));
    EXPECT_EQ(Memos(0x30, memo, {LE<int32_t>(8), LE<int32_t>(-1)}, dmFPT),
              (std::vector<std::string>{"hello", ""}));
    // A length past the end of the file reads what is there.
    const std::string cut = MemoFile(header, 64, {{8, Bytes({0, 0, 0, 1, 0x7F, 0, 0, 0}) + "short"}});
    EXPECT_EQ(Memos(0xF5, cut, {"8"}), std::vector<std::string>{"short"});
}

TEST(DBFMemo, FindsTheMemoFileBesideTheTableInEitherCaseAndKeepsBothOpen) {
    test::TempDir dir;
    const std::string table = Table{.Version = 0xF5, .Fields = {{"M", 'M', 10}}}.Add({"8"}).Build();
    const std::string memo =
        MemoFile(std::string(7, '\0') + "\x40", 64, {{8, Bytes({0, 0, 0, 1, 0, 0, 0, 2}) + "ok"}});
    const std::pair<const char*, const char*> cases[] = {{"calls.dbf", "calls.FPT"},
                                                         {"UPPER.DBF", "UPPER.FPT"},
                                                         {"lower.DBF", "lower.fpt"},
                                                         {"alone.dbf", nullptr}};
    for (const auto& [name, memoName] : cases) {
        SCOPED_TRACE(name);
        test::WriteFile(dir.File(name), table);
        if (memoName) test::WriteFile(dir.File(memoName), memo);
        TDBF dbf; // record by record: the table stays open after the load
        dbf.LoadFromFile(dir.File(name));
        ASSERT_TRUE(dbf.LoadRecord(0));
        EXPECT_EQ(dbf.SpreadSheets().Spreadsheet(0).Name(), name);
        EXPECT_EQ(dbf.SpreadSheets().Spreadsheet(0).Cells().GetValue(0, 0).AsString(), memoName ? "ok" : "");
        EXPECT_EQ(dbf.FileProperties().back().second, memoName ? memoName : "none");
    }
}

TEST(DBFCodePage, TextAndNamesDecodeFromTheLanguageDriverOrTheOverride) {
    const struct {
        uint8_t Driver;
        int Override;
        std::string Bytes;
        const char* Text;
        int CodePage;
    } cases[] = {
        {0x26, 0, "\x8F\xE0\xA8\xA2\xA5\xE2", "Привет", 866},
        {0x65, 0, "\x8F\xE0\xA8\xA2\xA5\xE2", "Привет", 866},
        {0xC9, 0, "\xCF\xF0\xE8\xE2\xE5\xF2", "Привет", 1251},
        {0x01, 0, "\x84\x94\x81\xE1\xC9\xCD", "äöüß╔═", 437},
        {0x00, 0, "caf\xE9  ", "café  ", 1252},
        {0xF0, 0, "caf\xE9  ", "café  ", 1252},    // unknown
        {0x00, 0, "caf\xC3\xA9 ", "café ", 65001}, // no code page named, and the records read as UTF-8
        {0x03, 866, "\x8F\xE0\xA8\xA2\xA5\xE2", "Привет", 866},
        {0x03, 65001, "caf\xC3\xA9 ", "café ", 65001},
        {0x13, 0, "\x93\xFA\x96\x7B", "日本", 932}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.Text);
        TDBF dbf;
        dbf.SetCodePage(c.Override);
        const std::string name = c.Bytes.substr(0, 4);
        const Table t{
            .Driver = c.Driver, .Fields = {{name, 'C', int(c.Bytes.size())}}, .Records = {" " + c.Bytes}};
        EXPECT_EQ(Describe(t, &dbf), DecodeCodePage(name, c.CodePage) + ": " + c.Text);
        EXPECT_EQ(dbf.CodePage(), c.CodePage);
    }
    // Level 7 tables name theirs in the language driver name; memos decode alike.
    TDBF dbf;
    TMemoryStream memo(
        MemoFile("", 512, {{1, Bytes({0xFF, 0xFF, 8, 0}) + LE<uint32_t>(14) + "\x8F\xE0\xA8\xA2\xA5\xE2"}}));
    dbf.SetMemoStream(&memo);
    EXPECT_EQ(Describe({.Version = 0x8C,
                        .Fields = {{"M", 'M', 10}},
                        .Records = {" 1         "},
                        .DriverName = "DB866RU0"},
                       &dbf),
              "M: Привет");
    EXPECT_EQ(dbf.CodePage(), 866);
    // A code page this system lacks reads as a neighbour, and says so.
    TDBF mazovia;
    Describe({.Driver = 0x69, .Fields = {{"A", 'C', 1}}}, &mazovia);
    EXPECT_EQ(mazovia.CodePage(), 852);
    EXPECT_EQ(mazovia.Warnings(),
              std::vector<std::string>{"code page 620 cannot be decoded here; reading the text as cp852"});
}

TEST(DBFBadInput, DamagedHeadersFailNamingTheByte) {
    // A record size below what the fields need, other than 0, is among the data files.
    const std::vector<test::Field> fields = {{"A", 'C', 4}, {"B", 'N', 3}};
    const std::vector<std::string> records = {" abcd1  "};
    const std::pair<std::string, std::string> cases[] = {
        {Table{.Fields = fields, .Records = records}.Build().substr(0, 20),
         "DBF: unexpected end of file at byte 0: reading 32 bytes, 20 left"},
        {Table{.Version = 0x04, .Fields = fields, .Records = records}.Build().substr(0, 50),
         "DBF: unexpected end of file at byte 32: reading 32 bytes, 18 left"},
        {Table{.Fields = fields, .Records = records, .HeaderSize = 5000, .Pad = false}.Build(),
         "DBF: damaged file at byte 8: the header size 5000 runs past the end of the 106-byte file"},
        {Table{.Fields = fields, .Records = records, .RecordSize = 0}.Build(),
         "DBF: damaged file at byte 10: the record size 0 is less than the 8 bytes "
         "the status byte and the fields need"}};
    for (const auto& [bytes, error] : cases) {
        for (bool recordMode : {false, true}) {
            SCOPED_TRACE(error + (recordMode ? " (record mode)" : ""));
            TDBF dbf;
            dbf.SetRecordMode(recordMode);
            TMemoryStream stream(bytes);
            EXPECT_EQ(test::ErrorOf([&] { dbf.LoadFromStream(stream); }), error);
            EXPECT_FALSE(dbf.LoadRecord(0)); // nothing kept of a failed load
        }
    }
}

TEST(DBFBadInput, RecordCountsAreCutToTheRecordsTheFileHolds) {
    // A count past what a signed 32-bit number holds; the warning is among the data files.
    Table t = Table{.Fields = {{"A", 'C', 4}}, .Count = 4000000000u}.Add({"one"}).Add({"two"});
    TDBF dbf;
    EXPECT_EQ(LoadCells(dbf, t.Build()).size(), 2u);
    EXPECT_EQ(dbf.RecordCount(), 2);
    EXPECT_EQ(
        dbf.Warnings(),
        std::vector<std::string>{"the header announces 4000000000 records, but the file holds 2; reading 2"});
    // Asked for more records than there are, record mode names the record.
    t.Count = 2;
    TDBF more;
    more.OnCellValue = Ignore;
    TMemoryStream stream(t.Build());
    more.LoadFromStream(stream);
    EXPECT_TRUE(more.Warnings().empty());
    EXPECT_TRUE(more.LoadRecord(0) && more.LoadRecord(1));
    EXPECT_EQ(test::ErrorOf([&] { more.LoadRecord(2); }),
              "DBF: unexpected end of file at byte 75: record 3: reading 5 bytes, 1 left");
}

// ---- the shared corpus ----

const test::TCorpusFolder CorpusFile("dbf");

/// A whole-file load of a corpus table.
struct Corpus {
    TDBF Dbf;
    explicit Corpus(const std::string& name, TDBFMemoType memo = dmDBT, bool deleted = false,
                    int codePage = 0) {
        Dbf.SetRecordMode(false);
        Dbf.SetDBFMemoType(memo);
        Dbf.SetCodePage(codePage);
        if (deleted) Dbf.SetLoadRowStatutes(TKvIRowStatuses{rsNormal, rsDeleted});
        Dbf.LoadFromFile(CorpusFile(name));
    }
    const TSpreadSheetCells& Cells() { return Dbf.SpreadSheets().Spreadsheet(0).Cells(); }
    Variant At(int col, int row) { return Cells().GetValue(col, row); }
    std::string Text(int col, int row) { return At(col, row).AsString(); }
    TDateTime Date(int col, int row) { return At(col, row).AsDateTime(); }
    std::string Shape() const {
        return std::to_string(Dbf.RecordCount()) + " records, " + std::to_string(Dbf.FieldCount()) +
               " fields";
    }
    std::string Names() const { return kv::Names(Dbf); }
};

TEST(DBFCorpus, EveryTableLoadsWholeAndRecordByRecord) {
    if (!CorpusFile.Here()) GTEST_SKIP() << "the shared corpus is not here";
    // dBase II keeps another header layout, which no version of the table describes.
    const std::set<std::string> unreadable = {"dbase_02.dbf"};
    int tables = 0;
    for (const auto& entry : std::filesystem::directory_iterator(CorpusFile(""))) {
        if (!std::set<std::string>{".dbf", ".DBF", ".dbc", ".DBC"}.count(entry.path().extension().string()))
            continue;
        const std::string name = entry.path().filename().string();
        SCOPED_TRACE(name);
        ++tables;
        const std::string error = test::ErrorOf([&] { Corpus whole(name); });
        EXPECT_EQ(error.empty(), !unreadable.count(name)) << error;
        if (unreadable.count(name)) continue;
        TDBF records;
        records.SetDBFMemoType(dmFPT);
        records.OnCellValue = Ignore;
        int rows = 0;
        EXPECT_EQ(test::ErrorOf([&] {
                      records.LoadFromFile(entry.path().string());
                      for (int64_t i = 0; i < records.RecordCount(); ++i) rows += records.LoadRecord(rows);
                      records.AfterLoad();
                  }),
                  "");
        EXPECT_LE(rows, records.RecordCount());
    }
    EXPECT_GT(tables, 40);
}

TEST(DBFCorpus, FieldsAndValuesMatchWhatTheSourcesRecord) {
    if (!CorpusFile.Here()) GTEST_SKIP() << "the shared corpus is not here";
    Corpus dbase03("dbase_03.dbf");
    EXPECT_EQ(dbase03.Shape(), "14 records, 31 fields");
    EXPECT_EQ(dbase03.Dbf.Fields()[0].Name, "Point_ID");
    EXPECT_EQ(dbase03.Dbf.Fields()[0].Length, 12);
    EXPECT_EQ(dbase03.Text(0, 0), "0507121     ");

    Corpus memotest("memotest.dbf", dmFPT, true);
    EXPECT_EQ(memotest.Names(), "NAME,BIRTHDATE,MEMO");
    EXPECT_EQ(memotest.Text(2, 0) + "|" + memotest.Text(2, 1) + "|" + memotest.Text(2, 2),
              "Alice memo|Bob memo|Deleted Guy memo");
    EXPECT_EQ(memotest.Cells().Row(2)->Status(), rsDeleted);
    EXPECT_EQ(memotest.Date(1, 0), EncodeDate(1987, 3, 1));
    EXPECT_EQ(Corpus("no_memofile.dbf", dmFPT).Text(2, 0), "");
    EXPECT_EQ(Corpus("people.dbf").Cells().Count(), 2);

    Corpus invalid("invalid_value.dbf");
    EXPECT_TRUE(invalid.At(1, 0).IsNullOrEmpty()); // "NotAYear"
    EXPECT_EQ(invalid.Date(1, 1), EncodeDate(1980, 11, 12));

    Corpus dbase7("dBaseVII.dbf");
    std::string offsets;
    for (const TDBFField& f : dbase7.Dbf.Fields()) offsets += std::to_string(f.Offset) + " ";
    EXPECT_EQ(offsets, "1 21 29 30 40 60 70 74 78 98 106 116 ");
    EXPECT_EQ(dbase7.Text(0, 0), "Groot" + std::string(15, ' '));
    EXPECT_EQ(dbase7.Date(1, 1), EncodeDate(1976, 6, 1));
    EXPECT_EQ(dbase7.At(4, 1).AsDouble(), 325.32);
    EXPECT_EQ(dbase7.Date(9, 2), EncodeDateTime(2020, 2, 20, 20, 20, 20, 0));
    EXPECT_TRUE(dbase7.Text(3, 0).starts_with("Groot (")); // a memo

    Corpus stamps("dBaseVII_ts.dbf"); // the live records only
    const TDateTime live[] = {EncodeDate(1900, 1, 1), EncodeDate(1900, 1, 2), EncodeDate(1900, 1, 3),
                              EncodeDate(2000, 1, 1), EncodeDate(2000, 1, 2), EncodeDate(2000, 1, 3),
                              EncodeDate(2000, 1, 4), EncodeDate(2000, 1, 5), EncodeDate(2000, 1, 10)};
    ASSERT_EQ(stamps.Cells().Count(), 9);
    for (int i = 0; i < 9; ++i) EXPECT_EQ(stamps.Date(0, i), live[i]) << i;

    // Positive doubles read right; negative ones give integers on purpose (see the decoding test).
    Corpus doubles("dBaseVII_double.dbf");
    for (const auto& [row, value] : {std::pair{2, 43.65}, {3, 150.48}, {4, 0.0}})
        EXPECT_EQ(doubles.At(0, row).AsDouble(), value) << row;

    Corpus currency("foxpro_currency_01.dbf");
    EXPECT_EQ(currency.Names(), "currencyp,currencyn");
    for (const auto& [row, value] : {std::pair{0, 20.0}, {1, 50.0}, {2, 1.0}}) {
        EXPECT_EQ(currency.At(0, row).AsDouble(), value);
        EXPECT_EQ(currency.At(1, row).AsDouble(), -value);
    }

    Corpus cp1251("cp1251.dbf");
    EXPECT_EQ(cp1251.Dbf.CodePage(), 1251);
    EXPECT_EQ(cp1251.Text(1, 1).substr(0, 20), "больничное");
    EXPECT_EQ(Corpus("dbase_03_cyrillic.dbf").Names(),
              "ШАР,ПЛОЩА"); // UTF-8 under a driver byte of no code page

    Corpus pr90("pr90.dbf");
    EXPECT_EQ(pr90.Dbf.Fields()[3].Length, 300); // wide character field
    EXPECT_EQ(pr90.Text(11, 2), "108581");
    EXPECT_EQ(pr90.Text(12, 2), "First note main field");

    EXPECT_EQ(Corpus("dbase_f5.dbf").Shape(), "975 records, 59 fields");
    EXPECT_EQ(Corpus("visual_fox_pro6.dbf").Shape(), "0 records, 15 fields");
}

} // namespace
} // namespace kv
