// The BIFF record loop on workbooks built here: generations, number kinds by format, RK values, formula
// results, shared strings, sheets, dimensions, damage, and record mode against a whole load. The cases under
// tests/data/xls cover CONTINUE-split strings, code pages, MULRK and the 1904 date system.

#include "readers/spreadsheet/KvXLS.h"

#include "TestSupport.h"
#include "platform/Streams.h"
#include "support/BiffBuilder.h"
#include "support/DataFiles.h"

namespace kv {
namespace {

using namespace kv::test;

const char* const kTypes[] = {"unknown",   "empty",   "text", "integer", "decimal",
                              "date-time", "boolean", "memo", "date",    "time"};

/// Loads `bytes`; the cells reported, in order: "<sheet>!<cell>=<value> <type>" ("A1=..." on sheet 1).
std::string Cells(const std::string& bytes, TMSExcel* into = nullptr) {
    TMSExcel own;
    TMSExcel& x = into ? *into : own;
    std::string out;
    x.OnCellValue = [&](TObject*, int sheet, int row, int col, int32_t, const Variant& v, TAlignment,
                        TKvICellType type) {
        out += std::string(out.empty() ? "" : " | ") + (sheet ? std::to_string(sheet + 1) + "!" : "") +
               GetSpreadSheetColByID(col + 1) + std::to_string(row + 1) + "=" + DumpCellValue(v) + " " +
               kTypes[type];
    };
    TMemoryStream stream(bytes);
    x.LoadFromStream(stream);
    return out;
}

bool Has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

TEST(XLSReader, BareStreamsTakeTheirGenerationFromTheFirstBOF) {
    for (const auto& [bof, version] :
         {std::pair<uint16_t, TExcelVersion>(0x0009, evExcel2), {0x0209, evExcel3}, {0x0409, evExcel4}}) {
        TMSExcel x;
        const std::string label = bof == 0x0009
                                      ? Rec(0x0004, U16(0) + U16(1) + std::string(3, '\0') + "\x02hi")
                                      : Rec(0x0204, Cell(0, 1, 0) + U16(2) + "hi");
        EXPECT_EQ(Cells(Rec(bof, U16(0) + U16(0x0010)) + label + Eof(), &x), "B1=hi text");
        EXPECT_EQ(x.Version(), version);
    }
    for (const std::string& bytes : {Rec(0x0609, U16(0) + U16(0x10)) + Eof(), std::string("ab"),
                                     Number(0, 0, 0, 1) + Sheet(Number(0, 0, 0, 1))})
        EXPECT_EQ(ErrorOf([&] { Cells(bytes); }), "File is not an Excel file");
}

TEST(XLSReader, NumbersTakeTheKindOfTheirFormat) {
    // XF 1 shows a percent, 2 h:mm, 3 a built-in date, 4 a custom date; the workbook has no XF 99.
    const std::string globals =
        Xf8(0) + Xf8(9) + Xf8(20) + Xf8(14) + Xf8(200) + Rec(0x041E, U16(200) + Str8("yyyy\\-mm\\-dd"));
    EXPECT_EQ(Cells(Sheet(Number(0, 0, 1, 0.25) + Number(0, 1, 2, 0.5) + Number(0, 2, 0, 3.5) +
                              Number(0, 3, 3, 45000) + Number(0, 4, 4, 1) + Number(0, 5, 99, 7),
                          globals)),
              "A1=25 decimal | B1=1899-12-30 12:00:00 date-time | C1=3.5 decimal | D1=2023-03-15 date-time | "
              "E1=1899-12-31 date-time | F1=7 decimal");
}

TEST(XLSReader, RKValues) {
    const std::pair<uint32_t, double> cases[] = {
        {0x00000067, 0.25}, // integer 25, divided by 100
        {0x00000066, 25},
        {0xFFFFFFFE, -1},
        {0x3FF00000, 1},                // the high bits of 1.0
        {0x3FF00001, 0.01},             // 1.0 divided by 100
        {0x405EDD3C, 123.456787109375}, // a double cut to its high 30 bits
    };
    for (const auto& [rk, value] : cases) EXPECT_DOUBLE_EQ(KvDecodeRK(rk), value) << rk;
}

TEST(XLSReader, FormulaResultsAndBoolErrCells) {
    const std::string records =
        Formula(0, 0, 0, std::string("\1\0\1\0\0\0\xFF\xFF", 8)) +
        Formula(0, 1, 0, std::string("\2\0\7\0\0\0\xFF\xFF", 8)) +
        Formula(0, 2, 0, std::string("\3\0\0\0\0\0\xFF\xFF", 8)) + Formula(0, 3, 0, F64(42)) +
        Rec(0x0205, Cell(1, 0, 0) + std::string("\1\0", 2)) + Rec(0x0205, Cell(1, 1, 0) + "\x2A\x01") +
        Rec(0x0205, Cell(1, 2, 0) + "\x63\x01");
    EXPECT_EQ(Cells(Sheet(records)), "A1=true boolean | B1=#DIV/0! text | C1= text | D1=42 decimal | "
                                     "A2=true boolean | B2=#N/A text | C2=Unknown error code 99 text");
}

TEST(XLSReader, SharedStringTables) {
    // A unique count larger than the strings there are ends the table at its data.
    EXPECT_EQ(Cells(Sheet(LabelSst(0, 0, 0, 0), Rec(0x00FC, U32(9) + U32(9) + Str8("only")))),
              "A1=only text");
    // A string cut short with no CONTINUE record after it, and option bits nobody handles.
    EXPECT_EQ(ErrorOf([] { Cells(Sheet("", Rec(0x00FC, U32(1) + U32(1) + U16(9) + '\0' + "abc"))); }),
              "CONTINUE record is not found in the stream");
    EXPECT_EQ(ErrorOf([] { Cells(Sheet("", Rec(0x00FC, U32(1) + U32(1) + U16(1) + '\x20' + "a"))); }),
              "String in SST (Options byte is 0x20) can not be processed.");
}

TEST(XLSReader, SheetsByNameAndFilter) {
    const std::string book = Biff8Book()
                                 .AddSheet("First", Number(0, 0, 0, 1))
                                 .AddSheet("Zweite \xE9", Number(0, 0, 0, 2))
                                 .AddSheet("Third", Number(0, 0, 0, 3))
                                 .Build();
    TMSExcel x;
    EXPECT_EQ(Cells(book, &x), "A1=1 decimal | 2!A1=2 decimal | 3!A1=3 decimal");
    EXPECT_EQ(x.Sheets().at(1).Name, "Zweite \xC3\xA9"); // BIFF8's 8-bit strings are Latin-1
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

TEST(XLSReader, DimensionsAreAnnouncedOnceASheetEnds) {
    const std::string dims = Rec(0x0200, U32(0) + U32(10) + U16(0) + U16(4) + U16(0));
    const std::pair<std::string, std::string> cases[] = {
        {Number(4, 2, 0, 1), "0 5 0 3;"},
        {dims + Number(4, 2, 0, 1), "0 10 0 4;"},
        {dims + Number(20, 2, 0, 1), "0 10 0 4;0 21 0 3;"}, // too small
        {Rec(0x0200, U32(0) + U32(0x7FFFFFFF) + U16(0) + U16(4) + U16(0)) + Number(1, 1, 0, 1), "0 2 0 2;"},
    };
    for (const auto& [records, expected] : cases) {
        TMSExcel x;
        std::string seen;
        x.OnDimensions = [&](TObject*, int, int r0, int r1, int c0, int c1) {
            seen += std::to_string(r0) + " " + std::to_string(r1) + " " + std::to_string(c0) + " " +
                    std::to_string(c1) + ";";
        };
        Cells(Sheet(records), &x);
        EXPECT_EQ(seen, expected);
    }
}

TEST(XLSReader, DamagedStreams) {
    const std::string good = Sheet(Number(0, 0, 0, 1));
    for (const auto& [bytes, message] : std::vector<std::pair<std::string, std::string>>{
             {good.substr(0, good.size() - 10), "Excel: unexpected end of file at byte"},
             {Sheet(Rec(0x0203, std::string(9000, '\0'))),
              "is 9000 bytes long, more than the 8224 a record of this workbook may hold"},
             {Sheet(Rec(0x0203, Cell(0, 0, 0) + "\1\2")),
              "the cell record of type 0x0203 is too short for its layout (8 bytes)"}})
        EXPECT_TRUE(Has(ErrorOf([&] { Cells(bytes); }), message)) << ErrorOf([&] { Cells(bytes); });

    // A workbook cut where a sheet begins: the sheet asked for is an error, another one a warning.
    const std::string two =
        Biff8Book().AddSheet("A", Number(0, 0, 0, 1)).AddSheet("B", Number(0, 0, 0, 2)).Build();
    const std::string cut = two.substr(0, two.size() - (Bof8(0x10) + Number(0, 0, 0, 2) + Eof()).size());
    TMSExcel first;
    first.SetSheetFilter(0);
    first.OnSheet = [](TObject*, const std::string&, int index, bool& skip) { skip = index != 0; };
    Cells(cut, &first);
    ASSERT_EQ(first.Warnings().size(), 1u);
    EXPECT_TRUE(Has(first.Warnings()[0], "The workbook is cut short: sheet 2 (B) should begin at byte"));
    EXPECT_TRUE(Has(ErrorOf([&] { Cells(cut); }), "Excel: unexpected end of file at byte"));

    // Damage that costs single cells is reported as a warning, and the rest is read.
    TMSExcel x;
    EXPECT_EQ(Cells(Sheet(Number(0, 300, 0, 1) + LabelSst(0, 1, 0, 7) + Number(0, 0, 0, 2) +
                          Formula(1, 0, 0) + Number(1, 1, 0, 3)),
                    &x),
              "B1= text | A1=2 decimal | B2=3 decimal");
    ASSERT_EQ(x.Warnings().size(), 3u);
    EXPECT_TRUE(Has(x.Warnings()[0], "beyond column IV"));
    EXPECT_TRUE(Has(x.Warnings()[1], "shared string 7"));
    EXPECT_TRUE(Has(x.Warnings()[2], "a formula whose text result is missing"));
}

TEST(XLSReader, RecordModeGivesTheRowsAWholeLoadKeeps) {
    // Rows are read again from the file where its cells come in row order under the styles the workbook
    // ends with; otherwise the sheet is loaded whole (the last field) and its rows are reported from there.
    const std::string mulRk =
        Rec(0x00BD, U16(2) + U16(1) + U16(0) + U32(0x66) + U16(0) + U32(0x3FF00000) + U16(2));
    const std::string globals = Xf8(0) + Xf8(14) + Sst({"a", "b\nc"});
    const std::string twoSheets = Biff8Book{globals, {}}
                                      .AddSheet("A", Number(0, 0, 0, 1) + Number(1, 0, 0, 2))
                                      .AddSheet("B", LabelSst(0, 0, 0, 0) + Number(3, 2, 1, 45000))
                                      .Build();
    const std::string xf3 = Rec(0x0243, std::string("\0\x0E", 2) + std::string(10, '\0')); // format 14
    const std::tuple<const char*, std::string, bool> cases[] = {
        {"in row order",
         Sheet(Number(0, 0, 1, 45000) + LabelSst(0, 1, 0, 1) + mulRk + Formula(3, 0, 0) +
                   Rec(0x0207, Str8("cached")) + Number(5, 3, 0, 1) + Number(5, 0, 0, 2),
               globals),
         false},
        {"cells lost to damage",
         Sheet(Number(0, 300, 0, 1) + LabelSst(0, 1, 0, 7) + Formula(1, 0, 0) + Number(2, 1, 0, 3) +
               Formula(2, 2, 0)),
         false},
        {"two sheets, the last cut before its end", twoSheets.substr(0, twoSheets.size() - Eof().size()),
         false},
        {"a bare stream with its styles before its cells",
         Rec(0x0209, U16(0) + U16(0x10)) + xf3 + Number(0, 0, 0, 45000) + Number(1, 1, 0, 2) + Eof(), false},
        {"out of row order", Sheet(Number(2, 0, 0, 1) + Number(0, 0, 0, 2) + Number(1, 1, 0, 3)), true},
        {"a style added after a cell",
         Sheet(Number(0, 0, 1, 45000) + Xf8(0) + Xf8(14) + Number(1, 0, 1, 45000)), true},
    };
    for (const auto& [name, bytes, whole] : cases) {
        SCOPED_TRACE(name);
        TMSExcel all;
        TMemoryStream stream(bytes);
        all.LoadFromStream(stream);
        stream.Seek(0, soBeginning);
        EXPECT_EQ(XlsRecordModeDifference(all, stream), "");
        TMSExcel records;
        records.SetRecordMode(true);
        records.SetSheetFilter(0);
        stream.Seek(0, soBeginning);
        records.LoadFromStream(stream);
        records.BeforeLoad();
        EXPECT_EQ(records.SpreadSheets().Spreadsheet(0).Cells().Count() > 0, whole);
    }
}

} // namespace
} // namespace kv
