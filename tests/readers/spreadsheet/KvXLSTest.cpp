#include "readers/spreadsheet/KvXLS.h"

#include "platform/DateUtils.h"
#include "platform/FormatError.h"
#include "platform/Streams.h"
#include "support/BiffBuilder.h"
#include "support/DataFiles.h"

#include <gtest/gtest.h>

#include <map>

namespace kv {
namespace {

using namespace kv::test;

struct Seen {
    Variant Value;
    TKvICellType Type;
    int XF;
};

/// Loads `bytes` and returns the cells reported, keyed "sheet:row:col".
std::map<std::string, Seen> Load(TMSExcel& x, const std::string& bytes) {
    std::map<std::string, Seen> cells;
    x.OnCellValue = [&](TObject*, int sheet, int row, int col, int32_t xf, const Variant& v, TAlignment,
                        TKvICellType t) {
        cells[std::to_string(sheet) + ":" + std::to_string(row) + ":" + std::to_string(col)] = {v, t, xf};
    };
    TMemoryStream stream(bytes);
    x.LoadFromStream(stream);
    return cells;
}

std::map<std::string, Seen> Load(const std::string& bytes) {
    TMSExcel x;
    return Load(x, bytes);
}

std::string Sheet(std::string records) {
    return Biff8Book().AddSheet("S", std::move(records)).Build();
}

std::string Message(const std::function<void()>& f) {
    try {
        f();
    } catch (const std::exception& e) {
        return e.what();
    }
    return "";
}

TEST(MSExcel, BareStreamsTakeTheirVersionFromTheFirstBOF) {
    struct Case {
        uint16_t Bof;
        TExcelVersion Version;
    };
    for (const Case c : {Case{0x0009, evExcel2}, Case{0x0209, evExcel3}, Case{0x0409, evExcel4}}) {
        SCOPED_TRACE(c.Bof);
        TMSExcel x;
        const std::string label = c.Bof == 0x0009
                                      ? Rec(0x0004, U16(0) + U16(1) + std::string(3, '\0') + "\x02hi")
                                      : Rec(0x0204, Cell(0, 1, 0) + U16(2) + "hi");
        const auto cells = Load(x, Rec(c.Bof, U16(0) + U16(0x0010)) + label + Eof());
        EXPECT_EQ(x.Version(), c.Version);
        ASSERT_EQ(cells.count("0:0:1"), 1u);
        EXPECT_EQ(cells.at("0:0:1").Value.AsString(), "hi");
    }
    EXPECT_EQ(Message([] { Load(Rec(0x0609, U16(0) + U16(0x10)) + Eof()); }), "File is not an Excel file");
    EXPECT_EQ(Message([] { Load(Rec(0x0203, Cell(0, 0, 0) + F64(1)) + Eof()); }),
              "File is not an Excel file");
    EXPECT_EQ(Message([] { Load("ab"); }), "File is not an Excel file");
}

TEST(MSExcel, NumbersBecomeDatesPercentsOrDecimalsByTheirFormat) {
    const std::string globals =
        Xf8(0) + Xf8(9) + Xf8(20) + Xf8(14) + Xf8(200) + Format8(200, "yyyy\\-mm\\-dd");
    const auto cells =
        Load(Biff8Book{globals, {}}
                 .AddSheet("S", Number(0, 0, 1, 0.25) + Number(0, 1, 2, 0.5) + Number(0, 2, 0, 3.5) +
                                    Number(0, 3, 3, 45000) + Number(0, 4, 4, 1) + Number(0, 5, 99, 7))
                 .Build());
    EXPECT_DOUBLE_EQ(cells.at("0:0:0").Value.AsDouble(), 25);
    EXPECT_EQ(cells.at("0:0:0").Type, ictDecimal);
    EXPECT_EQ(cells.at("0:0:1").Type, ictDateTime); // h:mm
    EXPECT_DOUBLE_EQ(cells.at("0:0:1").Value.AsDouble(), 0.5);
    EXPECT_EQ(cells.at("0:0:2").Type, ictDecimal);
    EXPECT_EQ(cells.at("0:0:3").Type, ictDateTime);
    EXPECT_EQ(cells.at("0:0:4").Type, ictDateTime); // a custom format
    EXPECT_EQ(cells.at("0:0:5").Type, ictDecimal);  // an XF the workbook does not have
}

TEST(MSExcel, TheDateSystemOf1904ShiftsDates) {
    const std::string globals = Rec(0x0022, U16(1)) + Xf8(14);
    const auto cells = Load(Biff8Book{globals, {}}.AddSheet("S", Number(0, 0, 0, 0)).Build());
    EXPECT_EQ(cells.at("0:0:0").Type, ictDateTime);
    EXPECT_DOUBLE_EQ(cells.at("0:0:0").Value.AsDouble(), EncodeDate(1904, 1, 1));
}

TEST(MSExcel, RKValues) {
    struct Case {
        uint32_t Rk;
        double Value;
    };
    const Case cases[] = {
        {0x00000067, 0.25},             // integer 25, divided by 100
        {0x00000066, 25},               // integer 25
        {0xFFFFFFFE, -1},               // negative integer
        {0x3FF00000, 1},                // the high bits of 1.0
        {0x3FF00001, 0.01},             // 1.0 divided by 100
        {0x405EDD3C, 123.456787109375}, // a double cut to its high 30 bits
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.Rk);
        EXPECT_DOUBLE_EQ(KvDecodeRK(c.Rk), c.Value);
    }
    const auto cells = Load(Sheet(Rk(0, 0, 0, 0x67) + Rec(0x00BD, U16(1) + U16(2) + U16(0) + U32(0x66) +
                                                                      U16(0) + U32(0x3FF00000) + U16(3))));
    EXPECT_DOUBLE_EQ(cells.at("0:0:0").Value.AsDouble(), 0.25);
    EXPECT_DOUBLE_EQ(cells.at("0:1:2").Value.AsDouble(), 25);
    EXPECT_DOUBLE_EQ(cells.at("0:1:3").Value.AsDouble(), 1);
}

TEST(MSExcel, TextCellsOfEveryKind) {
    const std::string formulaString = std::string("\0\0\0\0\0\0\xFF\xFF", 8);
    const std::string records =
        LabelSst(0, 0, 0, 0) + LabelSst(0, 1, 0, 1) +
        Rec(0x0204, Cell(1, 0, 0) + Str16(u"\u041c\u0438\u0440")) + Formula(2, 0, 0, formulaString) +
        Rec(0x0207, Str8("cached")) + Formula(2, 1, 0, std::string("\1\0\1\0\0\0\xFF\xFF", 8)) +
        Formula(2, 2, 0, std::string("\2\0\7\0\0\0\xFF\xFF", 8)) +
        Formula(2, 3, 0, std::string("\3\0\0\0\0\0\xFF\xFF", 8)) + Formula(2, 4, 0, F64(42)) +
        Rec(0x0205, Cell(3, 0, 0) + std::string("\x01\x00", 2)) + Rec(0x0205, Cell(3, 1, 0) + "\x2A\x01") +
        Rec(0x0205, Cell(3, 2, 0) + "\x63\x01");
    const auto cells = Load(Biff8Book{Sst({"plain", "a\nb"}), {}}.AddSheet("S", records).Build());
    EXPECT_EQ(cells.at("0:0:0").Value.AsString(), "plain");
    EXPECT_EQ(cells.at("0:0:1").Value.AsString(), "a\r\nb");
    EXPECT_EQ(cells.at("0:1:0").Value.AsString(), "\xD0\x9C\xD0\xB8\xD1\x80");
    EXPECT_EQ(cells.at("0:2:0").Value.AsString(), "cached");
    EXPECT_EQ(cells.at("0:2:1").Type, ictBoolean);
    EXPECT_TRUE(cells.at("0:2:1").Value.AsBoolean());
    EXPECT_EQ(cells.at("0:2:2").Value.AsString(), "#DIV/0!");
    EXPECT_EQ(cells.at("0:2:3").Value.AsString(), "");
    EXPECT_DOUBLE_EQ(cells.at("0:2:4").Value.AsDouble(), 42);
    EXPECT_EQ(cells.at("0:3:0").Type, ictBoolean);
    EXPECT_EQ(cells.at("0:3:1").Value.AsString(), "#N/A");
    EXPECT_EQ(cells.at("0:3:2").Value.AsString(), "Unknown error code 99");
}

TEST(MSExcel, SharedStringsRunOnIntoContinueRecords) {
    // The second string starts in the SST record and ends in a CONTINUE record that switches to UTF-16.
    std::string sst = U32(3) + U32(3) + Str8("first") + U16(6) + '\0' + "abc";
    const std::string cont = std::string("\x01", 1) + U16(u'd') + U16(0x00E9) + U16(u'f') + Str8("third");
    const auto cells = Load(Biff8Book{Rec(0x00FC, sst) + Rec(0x003C, cont), {}}
                                .AddSheet("S", LabelSst(0, 0, 0, 1) + LabelSst(0, 1, 0, 2))
                                .Build());
    EXPECT_EQ(cells.at("0:0:0").Value.AsString(), "abcd\xC3\xA9"
                                                  "f");
    EXPECT_EQ(cells.at("0:0:1").Value.AsString(), "third");

    // Strings cut short with no CONTINUE record after them, and option bits nobody handles.
    EXPECT_EQ(Message([&] {
                  Load(Biff8Book{Rec(0x00FC, U32(1) + U32(1) + U16(9) + '\0' + "abc"), {}}.Build());
              }),
              "CONTINUE record is not found in the stream");
    EXPECT_EQ(Message([&] {
                  Load(Biff8Book{Rec(0x00FC, U32(1) + U32(1) + U16(1) + '\x20' + "a"), {}}.Build());
              }),
              "String in SST (Options byte is 0x20) can not be processed.");
    // A unique count larger than the strings there are ends the table at its data.
    const auto counted = Load(Biff8Book{Rec(0x00FC, U32(9) + U32(9) + Str8("only")), {}}
                                  .AddSheet("S", LabelSst(0, 0, 0, 0))
                                  .Build());
    EXPECT_EQ(counted.at("0:0:0").Value.AsString(), "only");
}

TEST(MSExcel, SheetsByNameAndFilter) {
    const std::string book = Biff8Book()
                                 .AddSheet("First", Number(0, 0, 0, 1))
                                 .AddSheet("Zweite \xE9", Number(0, 0, 0, 2))
                                 .AddSheet("Third", Number(0, 0, 0, 3))
                                 .Build();
    TMSExcel x;
    auto cells = Load(x, book);
    ASSERT_EQ(x.Sheets().size(), 3u);
    EXPECT_EQ(x.Sheets()[1].Name, "Zweite \xC3\xA9");
    EXPECT_DOUBLE_EQ(cells.at("2:0:0").Value.AsDouble(), 3);

    // The storing handlers keep the sheets by name; the filter loads one of them.
    TMSExcel stored;
    stored.SetSheetFilter(1);
    TMemoryStream stream(book);
    stored.LoadFromStream(stream);
    ASSERT_EQ(stored.SpreadSheets().Count(), 3);
    EXPECT_EQ(stored.SpreadSheets().SheetIndexByName("Third"), 2);
    EXPECT_EQ(stored.SpreadSheets().Spreadsheet(0).Cells().Count(), 0);
    EXPECT_DOUBLE_EQ(stored.SpreadSheets().Spreadsheet(1).Cells().GetValue(0, 0).AsDouble(), 2);
}

TEST(MSExcel, DimensionsAreAnnouncedOnceASheetEnds) {
    struct Case {
        std::string Name;
        std::string Records;
        std::vector<std::string> Expected;
    };
    const std::string dims = Rec(0x0200, U32(0) + U32(10) + U16(0) + U16(4) + U16(0));
    const Case cases[] = {
        {"none", Number(4, 2, 0, 1), {"0 5 0 3"}},
        {"covering", dims + Number(4, 2, 0, 1), {"0 10 0 4"}},
        {"too small", dims + Number(20, 2, 0, 1), {"0 10 0 4", "0 21 0 3"}},
        {"beyond a sheet",
         Rec(0x0200, U32(0) + U32(0x7FFFFFFF) + U16(0) + U16(4) + U16(0)) + Number(1, 1, 0, 1),
         {"0 2 0 2"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.Name);
        TMSExcel x;
        std::vector<std::string> seen;
        x.OnDimensions = [&](TObject*, int, int r0, int r1, int c0, int c1) {
            seen.push_back(std::to_string(r0) + " " + std::to_string(r1) + " " + std::to_string(c0) + " " +
                           std::to_string(c1));
        };
        Load(x, Sheet(c.Records));
        EXPECT_EQ(seen, c.Expected);
    }
}

TEST(MSExcel, EightBitTextIsReadInTheWorkbooksCodePage) {
    // BIFF5: LABEL text and sheet names in the CODEPAGE record's code page (1251 here).
    const auto bof5 = [](uint16_t substream) {
        return Rec(0x0809, U16(0x0500) + U16(substream) + U16(0x0DBB) + U16(0x07CC));
    };
    const std::string name = "\xCC\xE8\xF0"; // "Мир" in 1251
    std::string globals = bof5(0x0005) + Rec(0x0042, U16(1251));
    const std::string sheet = Rec(0x0085, U32(0) + U16(0) + static_cast<char>(name.size()) + name);
    const size_t sheetPos = globals.size() + sheet.size() + Eof().size();
    globals +=
        Rec(0x0085, U32(static_cast<uint32_t>(sheetPos)) + U16(0) + static_cast<char>(name.size()) + name) +
        Eof();
    globals += bof5(0x0010) + Rec(0x0204, Cell(0, 0, 0) + U16(3) + name) + Eof();
    TMSExcel x;
    const auto cells = Load(x, globals);
    EXPECT_EQ(x.CodePage(), 1251);
    ASSERT_EQ(x.Sheets().size(), 1u);
    EXPECT_EQ(x.Sheets()[0].Name, "\xD0\x9C\xD0\xB8\xD1\x80");
    EXPECT_EQ(cells.at("0:0:0").Value.AsString(), "\xD0\x9C\xD0\xB8\xD1\x80");
}

TEST(MSExcel, DamagedStreams) {
    const std::string good = Sheet(Number(0, 0, 0, 1));
    struct Case {
        std::string Name;
        std::string Bytes;
        std::string Message;
    };
    const Case cases[] = {
        {"cut inside a record", good.substr(0, good.size() - 10), "Excel: unexpected end of file at byte"},
        {"a record longer than any", Sheet(Rec(0x0203, std::string(9000, '\0'))),
         "is 9000 bytes long, more than the 8224 a record of this workbook may hold"},
        {"a cell record too short", Sheet(Rec(0x0203, Cell(0, 0, 0) + "\1\2")),
         "the cell record of type 0x0203 is too short for its layout (8 bytes)"},
        {"a first record that is no BOF", Number(0, 0, 0, 1) + good, "File is not an Excel file"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.Name);
        EXPECT_NE(Message([&] { Load(c.Bytes); }).find(c.Message), std::string::npos)
            << Message([&] { Load(c.Bytes); });
    }

    // A workbook cut where a sheet begins: the sheet asked for is an error, another one a warning.
    const std::string twoSheets =
        Biff8Book().AddSheet("A", Number(0, 0, 0, 1)).AddSheet("B", Number(0, 0, 0, 2)).Build();
    const std::string cut =
        twoSheets.substr(0, twoSheets.size() - (Bof8(0x10) + Number(0, 0, 0, 2) + Eof()).size());
    TMSExcel first;
    first.SetSheetFilter(0);
    first.OnSheet = [](TObject*, const std::string&, int index, bool& skip) { skip = index != 0; };
    Load(first, cut);
    ASSERT_EQ(first.Warnings().size(), 1u);
    EXPECT_NE(first.Warnings()[0].find("The workbook is cut short: sheet 2 (B) should begin at byte"),
              std::string::npos);
    EXPECT_NE(Message([&] { Load(cut); }).find("Excel: unexpected end of file at byte"), std::string::npos);

    // Damage that costs single cells is reported as a warning, and the rest is read.
    TMSExcel x;
    const std::string stringResult = std::string("\0\0\0\0\0\0\xFF\xFF", 8);
    const auto cells = Load(x, Sheet(Number(0, 300, 0, 1) + LabelSst(0, 1, 0, 7) + Number(0, 0, 0, 2) +
                                     Formula(1, 0, 0, stringResult) + Number(1, 1, 0, 3)));
    EXPECT_DOUBLE_EQ(cells.at("0:0:0").Value.AsDouble(), 2);
    EXPECT_EQ(cells.count("0:0:300"), 0u);
    ASSERT_EQ(x.Warnings().size(), 3u);
    EXPECT_NE(x.Warnings()[0].find("beyond column IV"), std::string::npos);
    EXPECT_NE(x.Warnings()[1].find("shared string 7"), std::string::npos);
    EXPECT_NE(x.Warnings()[2].find("a formula whose text result is missing"), std::string::npos);
}

TEST(MSExcel, RecordModeGivesTheRowsAWholeLoadKeeps) {
    // Rows are read again from the file where its cells come in row order under the styles the workbook
    // ends with; otherwise the sheet is loaded whole (Whole) and its rows are reported from there.
    const std::string text = std::string("\0\0\0\0\0\0\xFF\xFF", 8);
    const std::string mulRk =
        Rec(0x00BD, U16(2) + U16(1) + U16(0) + U32(0x66) + U16(0) + U32(0x3FF00000) + U16(2));
    const std::string globals = Xf8(0) + Xf8(14) + Sst({"a", "b\nc"});
    const std::string twoSheets = Biff8Book{globals, {}}
                                      .AddSheet("A", Number(0, 0, 0, 1) + Number(1, 0, 0, 2))
                                      .AddSheet("B", LabelSst(0, 0, 0, 0) + Number(3, 2, 1, 45000))
                                      .Build();
    const std::string xf3 = Rec(0x0243, std::string("\0\x0E", 2) + std::string(10, '\0')); // format 14
    struct Case {
        std::string Name, Bytes;
        bool Whole;
    };
    const Case cases[] = {
        {"in row order",
         Biff8Book{globals, {}}
             .AddSheet("S", Number(0, 0, 1, 45000) + LabelSst(0, 1, 0, 1) + mulRk + Formula(3, 0, 0, text) +
                                Rec(0x0207, Str8("cached")) + Number(5, 3, 0, 1) + Number(5, 0, 0, 2))
             .Build(),
         false},
        {"cells lost to damage",
         Sheet(Number(0, 300, 0, 1) + LabelSst(0, 1, 0, 7) + Formula(1, 0, 0, text) + Number(2, 1, 0, 3) +
               Formula(2, 2, 0, text)),
         false},
        {"two sheets, the last cut before its end", twoSheets.substr(0, twoSheets.size() - Eof().size()),
         false},
        {"a bare stream with its styles before its cells",
         Rec(0x0209, U16(0) + U16(0x10)) + xf3 + Number(0, 0, 0, 45000) + Number(1, 1, 0, 2) + Eof(), false},
        {"out of row order", Sheet(Number(2, 0, 0, 1) + Number(0, 0, 0, 2) + Number(1, 1, 0, 3)), true},
        {"a style added after a cell",
         Sheet(Number(0, 0, 1, 45000) + Xf8(0) + Xf8(14) + Number(1, 0, 1, 45000)), true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.Name);
        TMSExcel whole;
        TMemoryStream stream(c.Bytes);
        whole.LoadFromStream(stream);
        TMemoryStream again(c.Bytes);
        EXPECT_EQ(XlsRecordModeDifference(whole, again), "");

        TMSExcel records;
        records.SetRecordMode(true);
        records.SetSheetFilter(0);
        again.Seek(0, soBeginning);
        records.LoadFromStream(again);
        records.BeforeLoad();
        EXPECT_EQ(records.SpreadSheets().Spreadsheet(0).Cells().Count() > 0, c.Whole);
    }
}

TEST(MSExcelX, IsAShellThatKnowsItsVariantAndFormats) {
    EXPECT_TRUE(TMSExcelX::ServesExtension(".xlsm"));
    EXPECT_TRUE(TMSExcelX::ServesExtension(".XLAB"));
    EXPECT_FALSE(TMSExcelX::ServesExtension(".xls"));
    TMSExcelX x;
    TMemoryStream stream(std::string("PK\3\4"));
    x.LoadFromStream(stream);
    EXPECT_EQ(x.SpreadSheets().Count(), 0);
    EXPECT_EQ(x.FormatByNumber(8)->Format, "$#,##0.00_);[Red]($#,##0.00)");
    TMSExcel biff;
    biff.ApplyEvents();
    EXPECT_EQ(biff.FormatByNumber(8)->Format, "($#,##0.00_);[Red]($#,##0.00)");
    EXPECT_EQ(biff.FormatByNumber(43)->Format, "_(* #,##0.00_);_(* (#,##0.00);_(* \"-\"??_);_(@_)");
    EXPECT_TRUE(x.ValueIsDateTime(14));
    EXPECT_FALSE(x.ValueIsDateTime(0));
    EXPECT_TRUE(x.ValueIsPercent(10));
}

} // namespace
} // namespace kv
