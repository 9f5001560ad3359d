// Reading xBase tables: versions and descriptor layouts, every field decoding, deleted records, the three
// memo layouts, code pages, damaged headers, and the shared corpus.

#include "readers/database/KvDBF.h"
#include "TestSupport.h"
#include "platform/FormatError.h"

#include "support/DbfBuilder.h"
#include <cstring>
#include <filesystem>

#include <map>
#include <set>

namespace kv {
namespace {

using test::Field;
using test::Table;

struct Cell {
    Variant Value;
    TAlignment Alignment = taLeftJustify;
    TKvICellType Type = ictUnknown;
};

/// The cells a load reports, by row.
using Rows = std::map<int, std::vector<Cell>>;

/// Loads the whole table from memory, collecting every cell reported.
Rows LoadCells(TDBF& dbf, const std::string& bytes) {
    Rows rows;
    dbf.OnCellValue = [&](TObject*, int, int row, int, int32_t, const Variant& value, TAlignment alignment,
                          TKvICellType type) {
        rows[row].push_back({value, alignment, type});
    };
    dbf.SetRecordMode(false);
    TMemoryStream stream(bytes);
    dbf.LoadFromStream(stream);
    return rows;
}

Rows LoadCells(const std::string& bytes) {
    TDBF dbf;
    return LoadCells(dbf, bytes);
}

bool Same(const Variant& got, const Variant& want) {
    return got.VarType() == want.VarType() && (got.IsNullOrEmpty() || got.Equals(want));
}

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
    uint64_t bits;
    std::memcpy(&bits, &value, 8);
    std::string out;
    for (int i = 7; i >= 0; --i) out += static_cast<char>(bits >> (8 * i));
    return out;
}

TEST(DBFVersion, FirstEntryOfAByteWinsAndUnknownBytesReadAsDBase3) {
    const struct {
        uint8_t Byte;
        TDBFVersion Version;
        const char* Text;
    } cases[] = {
        {0x03, dBase3, "dBase III"},
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
        {0x32, dBase3, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.Text);
        EXPECT_EQ(TDBF::VersionOf(c.Byte), c.Version);
        EXPECT_EQ(TDBF::GetStrFileType(c.Byte), c.Text);
        Table t;
        t.Version = c.Byte;
        t.Fields = {{"NAME", 'C', 4}};
        t.Add({"abcd"});
        TDBF dbf;
        const Rows rows = LoadCells(dbf, t.Build());
        EXPECT_EQ(dbf.DBFVersion(), c.Version);
        ASSERT_EQ(rows.size(), 1u);
        EXPECT_EQ(rows.at(0)[0].Value.StringRef(), "abcd");
    }
    const std::pair<char, const char*> names[] = {
        {'C', "String"},        {'N', "Number"},  {'I', "AutoInc"},   {'+', "AutoInc"},  {'4', "Integer"},
        {'2', "Short Integer"}, {'P', "Graphic"}, {'Q', "<unknown>"}, {'X', "<unknown>"}};
    for (const auto& [type, name] : names) EXPECT_EQ(TDBF::GetStrFieldType(type), name) << type;
}

TEST(DBFLayout, Level7TablesUse48ByteDescriptorsAndCutNamesToTen) {
    Table t;
    t.Version = 0x04;
    t.Fields = {{"A_LONG_NAME_", 'C', 3}, {"N", 'N', 4, 1}};
    t.Add({"xyz", "12.5"});
    TDBF dbf;
    const Rows rows = LoadCells(dbf, t.Build());
    EXPECT_EQ(dbf.DBFVersion(), dBase5);
    ASSERT_EQ(dbf.FieldCount(), 2);
    EXPECT_EQ(dbf.Fields()[0].Name, "A_LONG_NAM");
    EXPECT_EQ(dbf.Fields()[1].Offset, 4);
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows.at(0)[0].Value.StringRef(), "xyz");
    EXPECT_EQ(rows.at(0)[1].Value.AsDouble(), 12.5);

    // The 32-byte layout keeps all 11 name bytes; a FoxPro table's backlink area is no field.
    Table f;
    f.Version = 0x30;
    f.Fields = {{"ELEVENCHARS", 'C', 2}};
    f.Add({"ok"});
    TDBF vfp;
    LoadCells(vfp, f.Build());
    ASSERT_EQ(vfp.FieldCount(), 1);
    EXPECT_EQ(vfp.Fields()[0].Name, "ELEVENCHARS");
}

TEST(DBFLayout, DescriptorsStopAtTheTerminatorAndWideCharacterFieldsFitTheRecord) {
    // 0x31 keeps a backlink area after the terminator too, which the header size counts.
    Table t;
    t.Version = 0x31;
    t.Fields = {{"A", 'C', 2}};
    t.HeaderSize = static_cast<uint16_t>(32 + 32 + 1 + 263);
    t.Add({"ab"});
    TDBF dbf;
    LoadCells(dbf, t.Build());
    EXPECT_EQ(dbf.FieldCount(), 1);

    // A character field of 300 bytes keeps its high byte in the decimal count.
    Table w;
    w.Fields = {{"NOTE", 'C', 44, 1}, {"N", 'N', 2}};
    w.RecordSize = 1 + 300 + 2;
    std::string record = " " + std::string(299, 'x') + "y" + "42";
    w.Records = {record};
    TDBF wide;
    const Rows rows = LoadCells(wide, w.Build());
    EXPECT_EQ(wide.Fields()[0].Length, 300);
    EXPECT_EQ(rows.at(0)[0].Value.StringRef().back(), 'y');
    EXPECT_EQ(rows.at(0)[1].Value.AsDouble(), 42);
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
        TAlignment Alignment;
    } cases[] = {
        {"C untrimmed", 0x03, 'C', 4, 0, "ab  ", "ab  ", ictString, taLeftJustify},
        {"unknown type as C", 0x03, 'X', 3, 0, " x ", " x ", ictString, taLeftJustify},
        {"blank C", 0x03, 'C', 3, 0, std::string("  \0", 3), null, ictEmpty, taLeftJustify},
        {"N with decimals", 0x03, 'N', 7, 2, "  12.25", 12.25, ictDecimal, taRightJustify},
        {"N rounded without", 0x03, 'N', 4, 0, " 2.6", 3.0, ictDecimal, taRightJustify},
        {"N partial", 0x03, 'N', 5, 0, "12abc", 12.0, ictDecimal, taRightJustify},
        {"N none", 0x03, 'N', 3, 0, "abc", 0.0, ictDecimal, taRightJustify},
        {"F exponent", 0x03, 'F', 7, 0, "-1.5e2 ", -150.0, ictDecimal, taRightJustify},
        {"F too small", 0x03, 'F', 6, 2, "1e-999", 0.0, ictDecimal, taRightJustify},
        {"N blank", 0x03, 'N', 3, 0, "   ", null, ictEmpty, taRightJustify},
        {"D", 0x03, 'D', 8, 0, "19870301", Variant::FromDateTime(EncodeDate(1987, 3, 1)), ictDateTime,
         taLeftJustify},
        {"D impossible", 0x03, 'D', 8, 0, "19870230", null, ictDateTime, taLeftJustify},
        {"D text", 0x03, 'D', 8, 0, "NotAYear", null, ictDateTime, taLeftJustify},
        {"L T", 0x03, 'L', 1, 0, "T", true, ictBoolean, taLeftJustify},
        {"L t", 0x03, 'L', 1, 0, "t", false, ictBoolean, taLeftJustify},
        {"L Y", 0x03, 'L', 1, 0, "Y", false, ictBoolean, taLeftJustify},
        {"L y", 0x03, 'L', 1, 0, "y", false, ictBoolean, taLeftJustify},
        {"I dBase", 0x03, 'I', 4, 0, Bytes({1, 0, 0, 0x80}), 1, ictInteger, taRightJustify},
        {"I dBase low", 0x03, 'I', 4, 0, Bytes({1, 0, 0, 0}), -2147483647, ictInteger, taRightJustify},
        {"I FoxPro", 0x05, 'I', 4, 0, Bytes({1, 0, 0, 0x80}), -2147483647, ictInteger, taRightJustify},
        {"I Visual FoxPro", 0x30, 'I', 4, 0, Bytes({7, 0, 0, 0}), 7, ictInteger, taRightJustify},
        {"I auto increment table", 0x31, 'I', 4, 0, Bytes({7, 0, 0, 0}), -2147483641, ictInteger,
         taRightJustify},
        {"I zero is empty", 0x03, 'I', 4, 0, Bytes({0, 0, 0, 0}), null, ictEmpty, taRightJustify},
        {"+", 0x03, '+', 4, 0, Bytes({1, 0, 0, 0}), 1, ictInteger, taRightJustify},
        {"4", 0x03, '4', 4, 0, LE<int32_t>(-5), -5, ictInteger, taRightJustify},
        {"2 alone", 0x03, '2', 2, 0, Bytes({0xFE, 0xFF}), 65534, ictInteger, taRightJustify},
        {"8", 0x03, '8', 8, 0, LE<double>(2.5), 2.5, ictDecimal, taRightJustify},
        {"O positive", 0x04, 'O', 8, 0, Bytes({0xC0, 0x45, 0xD3, 0x33, 0x33, 0x33, 0x33, 0x33}), 43.65,
         ictDecimal, taRightJustify},
        // A negative value arrives as the integer of the complemented bits.
        {"O negative", 0x04, 'O', 8, 0, Bytes({0x3F, 0x97, 0x00, 0x51, 0xEB, 0x85, 0x1E, 0xB7}),
         Variant::FromInt(static_cast<int64_t>(~uint64_t{0x3F970051EB851EB7})), ictDecimal, taRightJustify},
        {"@", 0x04, '@', 8, 0, Bytes({0x42, 0xCB, 0x40, 0x62, 0xAA, 0x88, 0, 0}),
         Variant::FromDateTime(EncodeDate(1900, 1, 1)), ictDateTime, taLeftJustify},
        {"@ out of range", 0x04, '@', 8, 0, BE64(-1e300), null, ictDateTime, taLeftJustify},
        {"T julian", 0x30, 'T', 8, 0, LE<int32_t>(2440589) + LE<int32_t>(3600000),
         Variant::FromDateTime(EncodeDateTime(1970, 1, 2, 1, 0, 0, 0)), ictDateTime, taLeftJustify},
        {"T day out of range", 0x30, 'T', 8, 0, LE<int32_t>(INT32_MIN) + LE<int32_t>(0), null, ictDateTime,
         taLeftJustify},
        {"T HHMMSS", 0x03, 'T', 6, 0, "133539", Variant::FromDateTime(EncodeTime(13, 35, 39, 0)), ictDateTime,
         taLeftJustify},
        {"T HHMMSS invalid", 0x03, 'T', 6, 0, "256161", null, ictDateTime, taLeftJustify},
        {"T space first", 0x30, 'T', 8, 0, " " + LE<int32_t>(5) + "xyz", null, ictDateTime, taLeftJustify},
        {"Y", 0x30, 'Y', 8, 0, LE<int64_t>(-200000), -20.0, ictDecimal, taRightJustify},
        {"0 always null", 0x30, '0', 1, 0, "\x03", null, ictEmpty, taLeftJustify},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.Name);
        Table t;
        t.Version = c.Version;
        t.Fields = {{"F", c.Type, c.Length, c.Decimals}};
        t.Records = {" " + c.Bytes};
        const Rows rows = LoadCells(t.Build());
        ASSERT_EQ(rows.size(), 1u);
        const Cell& cell = rows.at(0).at(0);
        EXPECT_TRUE(Same(cell.Value, c.Value))
            << cell.Value.AsString() << " (" << VarTypeName(cell.Value.VarType()) << ")";
        EXPECT_EQ(cell.Type, c.CellType);
        if (c.CellType != ictEmpty) {
            EXPECT_EQ(cell.Alignment, c.Alignment);
        }
    }
}

TEST(DBFFields, ShortIntegersKeepTheUpperBytesOfTheRecordsLastInteger) {
    Table t;
    t.Fields = {{"A", '4', 4}, {"B", '2', 2}, {"C", '+', 4}, {"D", '2', 2}};
    t.Records = {" " + LE<int32_t>(-1) + Bytes({1, 0}) + LE<int32_t>(0x00050000) + Bytes({2, 0}),
                 " " + std::string(4, '\0') + Bytes({3, 0}) + std::string(4, '\0') + Bytes({4, 0})};
    const Rows rows = LoadCells(t.Build());
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(rows.at(0)[1].Value.AsInteger(), -65535);  // 0xFFFF0001
    EXPECT_EQ(rows.at(0)[3].Value.AsInteger(), 0x50002); // after the "+" field
    // Each record starts from zero; a blank field overwrites nothing.
    EXPECT_TRUE(rows.at(1)[0].Value.IsNull());
    EXPECT_EQ(rows.at(1)[1].Value.AsInteger(), 3);
    EXPECT_EQ(rows.at(1)[3].Value.AsInteger(), 4);
}

TEST(DBFRecords, DeletedRecordsAreSkippedUnlessAskedForAndTakeNoRowNumber) {
    Table t;
    t.Fields = {{"NAME", 'C', 5}};
    t.Add({"one"}).Add({"two"}, '*').Add({"three"});
    const std::string bytes = t.Build();
    {
        TDBF dbf;
        dbf.SetRecordMode(false);
        TMemoryStream stream(bytes);
        dbf.LoadFromStream(stream);
        const TSpreadSheetCells& cells = dbf.SpreadSheets().Spreadsheet(0).Cells();
        ASSERT_EQ(cells.Count(), 2);
        EXPECT_EQ(cells.GetValue(0, 1).StringRef(), "three");
    }
    {
        TDBF dbf;
        dbf.SetRecordMode(false);
        dbf.SetLoadRowStatutes(TKvIRowStatuses{rsNormal, rsDeleted});
        TMemoryStream stream(bytes);
        dbf.LoadFromStream(stream);
        const TSpreadSheetCells& cells = dbf.SpreadSheets().Spreadsheet(0).Cells();
        ASSERT_EQ(cells.Count(), 3);
        EXPECT_EQ(cells.Row(1)->Status(), rsDeleted);
        EXPECT_EQ(cells.Row(2)->Status(), rsNormal);
    }
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

TEST(DBFRecords, RecordModeFromAFileKeepsItOpenAndDescribesTheTable) {
    test::TempDir dir;
    Table t;
    t.Driver = 0xC9;
    t.Fields = {{"NAME", 'C', 6}, {"QTY", 'N', 5}, {"PRICE", 'N', 7, 2}, {"DAY", 'D', 8}, {"NOTE", 'M', 10}};
    t.Add({"\xCC\xE8\xF0", "7", "1.50", "20240229"});
    test::WriteFile(dir.File("stock.dbf"), t.Build());
    TDBF dbf;
    dbf.LoadFromFile(dir.File("stock.dbf"));
    EXPECT_EQ(dbf.SpreadSheets().Spreadsheet(0).Name(), "stock.dbf");
    ASSERT_TRUE(dbf.LoadRecord(0));
    const TSpreadSheetCells& cells = dbf.SpreadSheets().Spreadsheet(0).Cells();
    EXPECT_EQ(cells.GetValue(0, 0).StringRef(), "Мир   ");
    EXPECT_EQ(cells.GetValue(1, 0).AsDouble(), 7);
    dbf.AfterLoad();

    std::string declared;
    for (const TKvIDeclaredField& f : dbf.DeclaredFields())
        declared += f.Name + ":" + std::to_string(f.CellType) + ":" + f.TypeName + ":" +
                    std::to_string(f.Size) + "." + std::to_string(f.Decimals) + " ";
    EXPECT_EQ(declared,
              "NAME:2:String:6.0 QTY:3:Number:5.0 PRICE:4:Number:7.2 DAY:8:Date:8.0 NOTE:7:MEMO:10.0 ");
    using P = std::pair<std::string, std::string>;
    EXPECT_EQ(
        dbf.FileProperties(),
        (std::vector<P>{
            {"Version", "dBase III"}, {"Records", "1"}, {"Code page", "cp1251"}, {"Memo file", "none"}}));
}

/// A memo file of `blockSize`-byte blocks: `header` at 0, then each block's bytes at its number.
std::string MemoFile(std::string header, size_t blockSize, const std::map<int, std::string>& blocks) {
    header.resize(std::max(header.size(), size_t{512}), '\0');
    std::string out = header;
    for (const auto& [number, bytes] : blocks) {
        out.resize(std::max(out.size(), static_cast<size_t>(number) * blockSize), '\0');
        out.replace(static_cast<size_t>(number) * blockSize, bytes.size(), bytes);
        out.resize(std::max(out.size(), static_cast<size_t>(number) * blockSize + bytes.size()), '\0');
    }
    return out;
}

std::vector<std::string> Memos(uint8_t version, const std::string& memo, const std::vector<std::string>& refs,
                               TDBFMemoType type = dmDBT, bool parse = true) {
    Table t;
    t.Version = version;
    t.Fields = {{"M", 'M', version == 0x30 ? 4 : 10}};
    for (const std::string& r : refs) t.Add({r});
    TDBF dbf;
    dbf.SetDBFMemoType(type);
    dbf.SetParseBLOB(parse);
    TMemoryStream memoStream(memo);
    dbf.SetMemoStream(&memoStream);
    const Rows rows = LoadCells(dbf, t.Build());
    std::vector<std::string> out;
    for (const auto& [row, cells] : rows)
        out.push_back(cells[0].Type == ictEmpty ? "<empty>" : cells[0].Value.AsString());
    return out;
}

TEST(DBFMemo, DBaseIIIReadsToTheTerminatorOrTheEnd) {
    std::string header(512, '\0');
    header[20] = '\x01'; // a low byte set: the block size stays 512
    header[21] = '\x01';
    const std::string memo = MemoFile(header, 512,
                                      {{1, "first\x1A\x1A"},
                                       {2, "one\x1A"
                                           "and\x1A\x1Atwo"},
                                       {3, "single\x1Arest"},
                                       {4, std::string(600, 'a') + "\x1A"},
                                       {6, "no end"}});
    EXPECT_EQ(Memos(0x83, memo, {"         1", "         2", "3", "4", "         6", "0", "99", "x"}),
              (std::vector<std::string>{"first",
                                        "one\x1A"
                                        "and",
                                        "single", std::string(600, 'a'), std::string("no end"), "", "", ""}));
    EXPECT_EQ(Memos(0x83, memo, {"2"}, dmDBT, false), std::vector<std::string>{"2"});
}

TEST(DBFMemo, DBaseIVBlocksCountTheirHeaderInTheirLength) {
    std::string header(512, '\0');
    header[20] = '\x00';
    header[21] = '\x01'; // 256-byte blocks
    const std::string text = "First memo\r\n";
    const std::string memo =
        MemoFile(header, 256,
                 {{2, Bytes({0xFF, 0xFF, 8, 0}) + LE<uint32_t>(static_cast<uint32_t>(8 + text.size())) +
                          text + "junk"},
                  {3, Bytes({0xFF, 0xFF, 8, 0}) + LE<uint32_t>(1000000) + "tail"},
                  {4, Bytes({1, 2, 3, 4}) + LE<uint32_t>(4) + "12345678rest"}});
    for (uint8_t version : {0x8B, 0x8C}) {
        const std::vector<std::string> memos = Memos(version, memo, {"2", "3"});
        EXPECT_EQ(memos[0], text) << int(version);
        EXPECT_EQ(memos[1].substr(0, 4), "tail")
            << int(version); // a length past the file reads what is there
    }
    // A block without the signature keeps the older dBase IV rule: 8 more bytes skipped.
    EXPECT_EQ(Memos(0x8B, memo, {"4"})[0], "rest");
}

TEST(DBFMemo, FptUsesBigEndianSizesAndVisualFoxProBlockNumbersAreBinary) {
    std::string header(512, '\0');
    header[6] = '\x00';
    header[7] = '\x40'; // 64-byte blocks
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

TEST(DBFMemo, FindsTheMemoFileBesideTheTableInEitherCase) {
    test::TempDir dir;
    Table t;
    t.Version = 0xF5;
    t.Fields = {{"M", 'M', 10}};
    t.Add({"8"});
    std::string header(512, '\0');
    header[7] = '\x40';
    const std::string memo = MemoFile(header, 64, {{8, Bytes({0, 0, 0, 1, 0, 0, 0, 2}) + "ok"}});
    const struct {
        const char* Table;
        const char* Memo; ///< nullptr: none
        const char* Read;
    } cases[] = {
        {"calls.dbf", "calls.FPT", "ok"},
        {"UPPER.DBF", "UPPER.FPT", "ok"},
        {"lower.DBF", "lower.fpt", "ok"},
        {"alone.dbf", nullptr, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.Table);
        test::WriteFile(dir.File(c.Table), t.Build());
        if (c.Memo) test::WriteFile(dir.File(c.Memo), memo);
        TDBF dbf;
        dbf.SetRecordMode(false);
        dbf.LoadFromFile(dir.File(c.Table));
        EXPECT_EQ(dbf.SpreadSheets().Spreadsheet(0).Cells().GetValue(0, 0).AsString(), c.Read);
        EXPECT_EQ(dbf.FileProperties().back().second, c.Memo ? c.Memo : "none");
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
        {0xF0, 0, "caf\xE9  ", "café  ", 1252}, // unknown
        {0x03, 866, "\x8F\xE0\xA8\xA2\xA5\xE2", "Привет", 866},
        {0x03, 65001, "caf\xC3\xA9 ", "café ", 65001},
        {0x13, 0, "\x93\xFA\x96\x7B", "日本", 932},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.Text);
        Table t;
        t.Driver = c.Driver;
        t.Fields = {{c.Bytes.substr(0, 4), 'C', static_cast<int>(c.Bytes.size())}};
        t.Add({c.Bytes});
        TDBF dbf;
        dbf.SetCodePage(c.Override);
        const Rows rows = LoadCells(dbf, t.Build());
        EXPECT_EQ(dbf.CodePage(), c.CodePage);
        EXPECT_EQ(rows.at(0)[0].Value.StringRef(), c.Text);
        EXPECT_EQ(dbf.Fields()[0].Name, DecodeCodePage(c.Bytes.substr(0, 4), c.CodePage));
    }
    // Level 7 tables name theirs in the language driver name; memos decode alike.
    Table t;
    t.Version = 0x8C;
    t.DriverName = "DB866RU0";
    t.Fields = {{"M", 'M', 10}};
    t.Add({"1"});
    std::string header(512, '\0');
    const std::string memo = MemoFile(
        header, 512, {{1, Bytes({0xFF, 0xFF, 8, 0}) + LE<uint32_t>(14) + "\x8F\xE0\xA8\xA2\xA5\xE2"}});
    TDBF dbf;
    TMemoryStream memoStream(memo);
    dbf.SetMemoStream(&memoStream);
    EXPECT_EQ(LoadCells(dbf, t.Build()).at(0)[0].Value.StringRef(), "Привет");
    EXPECT_EQ(dbf.CodePage(), 866);
    // A code page this system lacks reads as a neighbour, and says so.
    Table m;
    m.Driver = 0x69;
    m.Fields = {{"A", 'C', 1}};
    m.Add({"a"});
    TDBF mazovia;
    LoadCells(mazovia, m.Build());
    EXPECT_EQ(mazovia.CodePage(), 852);
    EXPECT_EQ(mazovia.Warnings(),
              std::vector<std::string>{"code page 620 cannot be decoded here; reading the text as cp852"});
}

TEST(DBFBadInput, DamagedHeadersFailNamingTheByte) {
    Table good;
    good.Fields = {{"A", 'C', 4}, {"B", 'N', 3}};
    good.Add({"abcd", "1"});
    const std::string bytes = good.Build();
    Table level7 = good;
    level7.Version = 0x04;
    const auto with = [](Table t, auto change) {
        change(t);
        return t.Build();
    };
    const struct {
        const char* Name;
        std::string Bytes;
        std::string Error;
    } cases[] = {
        {"truncated header", bytes.substr(0, 20),
         "DBF: unexpected end of file at byte 0: reading 32 bytes, 20 left"},
        {"truncated level 7 header", level7.Build().substr(0, 50),
         "DBF: unexpected end of file at byte 32: reading 32 bytes, 18 left"},
        {"header size past the file",
         with(good,
              [](Table& t) {
                  t.HeaderSize = 5000;
                  t.Pad = false;
              }),
         "DBF: damaged file at byte 8: the header size 5000 runs past the end of the 106-byte file"},
        {"record size 0", with(good, [](Table& t) { t.RecordSize = 0; }),
         "DBF: damaged file at byte 10: the record size 0 is less than the 8 bytes the status byte and the "
         "fields "
         "need"},
        {"record size too small", with(good, [](Table& t) { t.RecordSize = 5; }),
         "DBF: damaged file at byte 10: the record size 5 is less than the 8 bytes the status byte and the "
         "fields "
         "need"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.Name);
        for (bool recordMode : {false, true}) {
            TDBF dbf;
            dbf.SetRecordMode(recordMode);
            TMemoryStream stream(c.Bytes);
            EXPECT_EQ(test::ErrorOf([&] { dbf.LoadFromStream(stream); }), c.Error);
            EXPECT_FALSE(dbf.LoadRecord(0)); // nothing kept of a failed load
        }
    }
}

TEST(DBFBadInput, RecordCountsAreCutToTheRecordsTheFileHolds) {
    Table t;
    t.Fields = {{"A", 'C', 4}};
    t.Add({"one"}).Add({"two"});
    t.Count = 4000000000u;
    TDBF dbf;
    const Rows rows = LoadCells(dbf, t.Build());
    EXPECT_EQ(rows.size(), 2u);
    EXPECT_EQ(dbf.RecordCount(), 2);
    EXPECT_EQ(
        dbf.Warnings(),
        std::vector<std::string>{"the header announces 4000000000 records, but the file holds 2; reading 2"});

    // Asked for more records than there are, record mode names the record.
    t.Count = 2;
    TDBF more;
    more.OnCellValue = [](TObject*, int, int, int, int32_t, const Variant&, TAlignment, TKvICellType) {};
    TMemoryStream stream(t.Build());
    more.LoadFromStream(stream);
    EXPECT_TRUE(more.Warnings().empty());
    EXPECT_TRUE(more.LoadRecord(0) && more.LoadRecord(1));
    EXPECT_EQ(test::ErrorOf([&] { more.LoadRecord(2); }),
              "DBF: unexpected end of file at byte 75: record 3: reading 5 bytes, 1 left");
}

// ---- the shared corpus ----

std::string CorpusFile(const std::string& name) {
    return std::string(KV_SHARED_DIR "/corpus/dbf/") + name;
}

bool HaveCorpus() {
    return std::filesystem::is_directory(CorpusFile(""));
}

/// The workbook of a whole-file load, with deleted records and memo files of the given layout.
struct Corpus {
    TDBF Dbf;
    explicit Corpus(const std::string& name, TDBFMemoType memo = dmDBT, int codePage = 0) {
        Dbf.SetRecordMode(false);
        Dbf.SetDBFMemoType(memo);
        Dbf.SetCodePage(codePage);
        Dbf.LoadFromFile(CorpusFile(name));
    }
    const TSpreadSheetCells& Cells() { return Dbf.SpreadSheets().Spreadsheet(0).Cells(); }
    std::string Text(int col, int row) { return Cells().GetValue(col, row).AsString(); }
    std::string Names() const {
        std::string out;
        for (const TDBFField& f : Dbf.Fields()) out += (out.empty() ? "" : ",") + f.Name;
        return out;
    }
};

TEST(DBFCorpus, EveryTableLoadsWholeAndRecordByRecord) {
    if (!HaveCorpus()) GTEST_SKIP() << "the shared corpus is not here";
    // dBase II keeps another header layout, which no version of the table describes.
    const std::set<std::string> unreadable = {"dbase_02.dbf"};
    int tables = 0;
    for (const auto& entry : std::filesystem::directory_iterator(CorpusFile(""))) {
        std::string ext = entry.path().extension().string();
        for (char& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        if (ext != ".dbf" && ext != ".dbc") continue;
        const std::string name = entry.path().filename().string();
        SCOPED_TRACE(name);
        ++tables;
        TDBF whole;
        whole.SetRecordMode(false);
        const std::string error = test::ErrorOf([&] { whole.LoadFromFile(entry.path().string()); });
        if (unreadable.count(name)) {
            EXPECT_NE(error, "");
            continue;
        }
        EXPECT_EQ(error, "");
        TDBF records;
        records.SetDBFMemoType(dmFPT);
        int rows = 0;
        records.OnCellValue = [&](TObject*, int, int, int, int32_t, const Variant&, TAlignment,
                                  TKvICellType) {};
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
    if (!HaveCorpus()) GTEST_SKIP() << "the shared corpus is not here";
    {
        Corpus c("dbase_03.dbf");
        EXPECT_EQ(c.Dbf.RecordCount(), 14);
        EXPECT_EQ(c.Dbf.FieldCount(), 31);
        EXPECT_EQ(c.Dbf.Fields()[0].Name, "Point_ID");
        EXPECT_EQ(c.Dbf.Fields()[0].Length, 12);
        EXPECT_EQ(c.Text(0, 0), "0507121     ");
    }
    {
        Corpus c("memotest.dbf", dmFPT);
        c.Dbf.SetLoadRowStatutes(TKvIRowStatuses{rsNormal, rsDeleted});
        c.Dbf.LoadFromFile(CorpusFile("memotest.dbf"));
        EXPECT_EQ(c.Names(), "NAME,BIRTHDATE,MEMO");
        EXPECT_EQ(c.Text(2, 0), "Alice memo");
        EXPECT_EQ(c.Text(2, 1), "Bob memo");
        EXPECT_EQ(c.Text(2, 2), "Deleted Guy memo");
        EXPECT_EQ(c.Cells().Row(2)->Status(), rsDeleted);
        EXPECT_EQ(c.Cells().GetValue(1, 0).AsDateTime(), EncodeDate(1987, 3, 1));
    }
    {
        Corpus c("no_memofile.dbf", dmFPT);
        EXPECT_EQ(c.Text(2, 0), "");
    }
    {
        Corpus c("people.dbf");
        EXPECT_EQ(c.Cells().Count(), 2);
        Corpus invalid("invalid_value.dbf");
        EXPECT_TRUE(invalid.Cells().GetValue(1, 0).IsNullOrEmpty()); // "NotAYear"
        EXPECT_EQ(invalid.Cells().GetValue(1, 1).AsDateTime(), EncodeDate(1980, 11, 12));
    }
    {
        Corpus c("dBaseVII.dbf");
        EXPECT_EQ(c.Dbf.FieldCount(), 12);
        std::string offsets;
        for (const TDBFField& f : c.Dbf.Fields()) offsets += std::to_string(f.Offset) + " ";
        EXPECT_EQ(offsets, "1 21 29 30 40 60 70 74 78 98 106 116 ");
        EXPECT_EQ(c.Text(0, 0), "Groot" + std::string(15, ' '));
        EXPECT_EQ(c.Cells().GetValue(1, 1).AsDateTime(), EncodeDate(1976, 6, 1));
        EXPECT_EQ(c.Cells().GetValue(4, 1).AsDouble(), 325.32);
        EXPECT_EQ(c.Cells().GetValue(9, 2).AsDateTime(), EncodeDateTime(2020, 2, 20, 20, 20, 20, 0));
        EXPECT_TRUE(c.Text(3, 0).starts_with("Groot (")); // a memo
    }
    {
        Corpus c("dBaseVII_ts.dbf");
        const TDateTime live[] = {EncodeDate(1900, 1, 1), EncodeDate(1900, 1, 2), EncodeDate(1900, 1, 3),
                                  EncodeDate(2000, 1, 1), EncodeDate(2000, 1, 2), EncodeDate(2000, 1, 3),
                                  EncodeDate(2000, 1, 4), EncodeDate(2000, 1, 5), EncodeDate(2000, 1, 10)};
        ASSERT_EQ(c.Cells().Count(), 9);
        for (int i = 0; i < 9; ++i) EXPECT_EQ(c.Cells().GetValue(0, i).AsDateTime(), live[i]) << i;
    }
    {
        // Positive doubles read right; negative ones give integers on purpose (see the decoding test).
        Corpus c("dBaseVII_double.dbf");
        EXPECT_EQ(c.Cells().GetValue(0, 2).AsDouble(), 43.65);
        EXPECT_EQ(c.Cells().GetValue(0, 3).AsDouble(), 150.48);
        EXPECT_EQ(c.Cells().GetValue(0, 4).AsDouble(), 0.0);
    }
    {
        Corpus c("foxpro_currency_01.dbf");
        EXPECT_EQ(c.Names(), "currencyp,currencyn");
        const double values[][2] = {{20, -20}, {50, -50}, {1, -1}};
        for (int r = 0; r < 3; ++r)
            for (int col = 0; col < 2; ++col)
                EXPECT_EQ(c.Cells().GetValue(col, r).AsDouble(), values[r][col]);
    }
    {
        Corpus c("cp1251.dbf");
        EXPECT_EQ(c.Dbf.CodePage(), 1251);
        EXPECT_EQ(c.Text(1, 1).substr(0, 20), "больничное");
    }
    {
        Corpus c("dbase_03_cyrillic.dbf", dmDBT, kCodePageUtf8);
        EXPECT_EQ(c.Names(), "ШАР,ПЛОЩА");
    }
    {
        Corpus c("pr90.dbf");
        EXPECT_EQ(c.Dbf.Fields()[3].Length, 300); // wide character field
        EXPECT_EQ(c.Text(11, 2), "108581");
        EXPECT_EQ(c.Text(12, 2), "First note main field");
    }
    {
        Corpus c("dbase_f5.dbf");
        EXPECT_EQ(c.Dbf.RecordCount(), 975);
        EXPECT_EQ(c.Dbf.FieldCount(), 59);
    }
    {
        Corpus c("visual_fox_pro6.dbf");
        EXPECT_EQ(c.Dbf.RecordCount(), 0);
        EXPECT_EQ(c.Dbf.FieldCount(), 15);
    }
}

} // namespace
} // namespace kv
