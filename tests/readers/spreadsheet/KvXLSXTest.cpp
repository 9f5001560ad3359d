// The Excel 2007+ reader on packages written here: how each kind of cell reads, how sheets are found, what
// record mode gives, and what damaged packages say.

#include "readers/spreadsheet/KvXLS.h"
#include "readers/spreadsheet/KvXLSXPackage.h"
#include "readers/spreadsheet/KvXLSXStrings.h"

#include "TestSupport.h"
#include "platform/Streams.h"
#include "sources/KvI2XLS.h"
#include "support/DataFiles.h"
#include "support/XlsxBuilder.h"

#include <tuple>

namespace kv {
namespace {

using test::XCell;
using test::XlsxBuilder;
using test::XRow;

/// Every sheet's cells as "<sheet>!<cell>=<value> (<type>)", then the warnings.
std::string Dump(TMSExcelX& x) {
    std::string out;
    for (int s = 0; s < x.SpreadSheets().Count(); ++s) {
        const TSpreadSheetCells& cells = x.SpreadSheets().Spreadsheet(s).Cells();
        for (int r = 0; r < cells.Count(); ++r) {
            const TSpreadSheetRow* row = cells.Row(r);
            for (int c = 0; row && c < row->Cols().Count(); ++c)
                if (const TKvICell* cell = row->Cols().GetCell(c))
                    out += std::to_string(s + 1) + "!" + GetSpreadSheetColByID(c + 1) +
                           std::to_string(r + 1) + "=" + test::DumpCellValue(cell->Value) + " (" +
                           std::to_string(cell->CellType) + ") ";
        }
    }
    for (const std::string& w : x.Warnings()) out += "| " + w;
    return out;
}

/// Loads `bytes` whole; checks that record mode gives the same rows.
std::string Load(const std::string& bytes, TMSExcelX& x) {
    TMemoryStream stream(bytes);
    x.LoadFromStream(stream);
    TMemoryStream again(bytes);
    const std::string difference = test::XlsxRecordModeDifference(x, again);
    return difference.empty() ? Dump(x) : "record mode: " + difference;
}

std::string Load(const std::string& bytes) {
    TMSExcelX x;
    return Load(bytes, x);
}

std::string LoadError(const std::string& bytes) {
    TMSExcelX x;
    TMemoryStream stream(bytes);
    return test::ErrorOf([&] { x.LoadFromStream(stream); });
}

TEST(XLSX, EachKindOfCellReadsAsTheBinaryReaderGivesIt) {
    // Styles: 0 General, 1 built-in date 14, 2 a custom date, 3 percent, 4 a time format.
    const auto book = [](const std::string& cells) {
        return XlsxBuilder()
            .Strings({"plain", "a &amp; b", "two\nlines"})
            .Styles({{164, "yyyy\\-mm\\-dd"}, {165, "h:mm"}}, {0, 14, 164, 9, 165})
            .Sheet("S", XRow(1, cells))
            .Build();
    };
    // clang-format off
    const std::tuple<std::string, std::string> cases[] = {
        {XCell("A1", "42"), "1!A1=42 (4) "},
        {XCell("A1", " 2.5E1 "), "1!A1=25 (4) "},
        {XCell("A1", "45292", "", 1), "1!A1=2024-01-01 (5) "},
        {XCell("A1", "45292.5", "", 2), "1!A1=2024-01-01 12:00:00 (5) "},
        {XCell("A1", "0.25", "", 3), "1!A1=25 (4) "},
        {XCell("A1", "0.75", "", 4), "1!A1=1899-12-30 18:00:00 (5) "},
        {XCell("A1", "1", "s"), "1!A1=a & b (2) "},
        {XCell("A1", "2", "s"), "1!A1=two\\r\\nlines (2) "},
        {XCell("A1", "x_x0041__x005F_y", "str"), "1!A1=xA_y (2) "},
        {XCell("A1", "1", "b") + XCell("B1", "0", "b"), "1!A1=true (6) 1!B1=false (6) "},
        {XCell("A1", "#DIV/0!", "e"), "1!A1=#DIV/0! (2) "},
        {XCell("A1", "2021-01-01T10:10:10", "d") + XCell("B1", "10:10:10", "d"),
         "1!A1=2021-01-01 10:10:10 (5) 1!B1=1899-12-30 10:10:10 (5) "},
        {XCell("A1", "n/a"), "1!A1=n/a (2) "},
        // Rich runs are joined, phonetic text is left out, the "v" beside the inline text is ignored.
        {"<c r=\"A1\" t=\"inlineStr\"><v>9</v><is><r><t>ab</t></r><r><t xml:space=\"preserve\"> c</t></r>"
         "<rPh><t>x</t></rPh></is></c>", "1!A1=ab c (2) "},
        // Cells without a reference follow the one before; a formula's text is not its value.
        {XCell("C1", "1") + XCell("", "2") + "<c><f>A1</f><v>3</v></c>", "1!C1=1 (4) 1!D1=2 (4) 1!E1=3 (4) "},
        // No value: nothing, unless empty cells are asked for.
        {"<c r=\"A1\" s=\"1\"/>" + XCell("B1", "1"), "1!B1=1 (4) "},
    };
    // clang-format on
    for (const auto& [cells, expected] : cases) EXPECT_EQ(Load(book(cells)), expected) << cells;
}

TEST(XLSX, DatesCountFrom1904WhenTheWorkbookSays) {
    const std::string book =
        XlsxBuilder().Date1904().Styles({}, {0, 14}).Sheet("S", XRow(1, XCell("A1", "0", "", 1))).Build();
    TMSExcelX x;
    EXPECT_EQ(Load(book, x), "1!A1=1904-01-01 (5) ");
    EXPECT_EQ(x.DateOffset(), EncodeDate(1904, 1, 1));
}

TEST(XLSX, SheetsComeInWorkbookOrderThroughTheirRelationships) {
    // The relationships send the first sheet to the second part and back: the names follow them.
    XlsxBuilder b;
    b.Sheet("First", XRow(1, XCell("A1", "1"))).Sheet("Second", XRow(3, XCell("B3", "2")), "hidden");
    b.Part(
        "xl/_rels/workbook.xml.rels",
        "<Relationships><Relationship Id=\"rId1\" Type=\"x/worksheet\" Target=\"worksheets/sheet2.xml\"/>"
        "<Relationship Id=\"rId2\" Type=\"x/worksheet\" Target=\"/xl/worksheets/../worksheets/sheet1.xml\"/>"
        "</Relationships>");
    b.Title("Budget");
    TMSExcelX x;
    EXPECT_EQ(Load(b.Build(), x), "1!B3=2 (4) 2!A1=1 (4) ");
    ASSERT_EQ(x.SpreadSheets().Count(), 2);
    EXPECT_EQ(x.SpreadSheets().Spreadsheet(0).Name(), "First");
    EXPECT_EQ(x.SummaryInformation().Title(), "Budget");
    EXPECT_EQ(x.SummaryInformation().Author(), "Tester");
    const auto properties = x.FileProperties();
    EXPECT_NE(std::find(properties.begin(), properties.end(),
                        std::pair<std::string, std::string>("Sheet 2", "Second (1 rows, 1 columns, hidden)")),
              properties.end());
}

TEST(XLSX, DamagedPackagesReadWhatTheyCanAndSayWhat) {
    const std::string sheet1 = "xl/worksheets/sheet1.xml";
    // clang-format off
    const std::tuple<const char*, XlsxBuilder, std::string> cases[] = {
        {"a shared string past the table", XlsxBuilder().Strings({"a"}).Sheet("S", XRow(1, XCell("A1", "7", "s") + XCell("B1", "0", "s"))),
         "1!A1= (2) 1!B1=a (2) | Sheet 1 refers to shared string 7, which the workbook does not hold: such cells are left empty"},
        {"a style past the styles", XlsxBuilder().Sheet("S", XRow(1, XCell("A1", "1", "", 9))),
         "1!A1=1 (4) | Sheet 1 uses cell style 9, which the workbook does not hold: such cells are read without a style"},
        {"references beyond the sheet", XlsxBuilder().Sheet("S", XRow(1, XCell("XFE1", "1") + XCell("A1", "2")) + XRow(1048577, XCell("A1", "3"))),
         "1!A1=2 (4) | Sheet 1 holds cells beyond the last row or column a workbook can have: 2 were left out"},
        {"rows out of order, one twice", XlsxBuilder().Sheet("S", XRow(3, XCell("A3", "3")) + XRow(1, XCell("A1", "1")) + XRow(3, XCell("B3", "4"))),
         "1!A1=1 (4) 1!A3=3 (4) 1!B3=4 (4) "},
        {"rows without numbers, a row numbered 0", XlsxBuilder().Sheet("S", XRow(0, XCell("", "1")) + "<row r=\"0\">" + XCell("", "2") + "</row>"),
         "1!A1=1 (4) 1!A2=2 (4) "},
        {"a part cut inside its cells", XlsxBuilder().Sheet("S", "").Part(sheet1, "<worksheet><sheetData><row r=\"1\"><c><v>5</v></c>"),
         "1!A1=5 (4) | The part of sheet 1 (xl/worksheets/sheet1.xml) ends inside its cells: its last rows may be missing"},
        {"no shared strings part", XlsxBuilder().Without("xl/sharedStrings.xml").Sheet("S", XRow(1, XCell("A1", "1"))),
         "1!A1=1 (4) | The shared strings part xl/sharedStrings.xml is missing"},
    };
    // clang-format on
    for (const auto& [what, builder, expected] : cases) EXPECT_EQ(Load(builder.Build()), expected) << what;
}

TEST(XLSX, PackagesThatCannotBeReadFailNamingThePart) {
    const std::string sheet1 = "xl/worksheets/sheet1.xml";
    const XlsxBuilder one = XlsxBuilder().Sheet("S", XRow(1, XCell("A1", "1")));
    // clang-format off
    const std::tuple<const char*, std::string, std::string> cases[] = {
        {"not a zip", "just text", "File is not valid Excel Workbook: it is no zip package"},
        {"a missing sheet part", XlsxBuilder(one).Without(sheet1).Build(),
         "Excel workbook: part xl/worksheets/sheet1.xml: the package has no such part"},
        {"a sheet part that is not XML", XlsxBuilder(one).Part(sheet1, std::string("\x89PNG\x01\x02", 6)).Build(),
         "Excel workbook: part xl/worksheets/sheet1.xml: it is not XML (no worksheet element)"},
        {"a sheet part of another kind", XlsxBuilder(one).Part(sheet1, "<html><body/></html>").Build(),
         "Excel workbook: part xl/worksheets/sheet1.xml: it is not a worksheet (its first element is html)"},
        {"a workbook part that is no workbook", XlsxBuilder(one).Part("xl/workbook.xml", "<x/>").Build(),
         "Excel workbook: part xl/workbook.xml: it is not a workbook part (its first element is not a workbook)"},
        {"no workbook part", XlsxBuilder(one).Without("xl/workbook.xml").Build(),
         "Excel workbook: part xl/workbook.xml: the package has no such part"},
    };
    // clang-format on
    for (const auto& [what, bytes, message] : cases) EXPECT_EQ(LoadError(bytes), message) << what;
}

TEST(XLSX, ASheetGivesNoMoreTextThanItsBound) {
    // One long shared string used by every cell: the bound stops the load, in record mode too.
    std::string rows;
    for (int r = 1; r <= 20; ++r) rows += XRow(r, XCell("", "0", "s"));
    const std::string book = XlsxBuilder().Strings({std::string(1000, 'x')}).Sheet("S", rows).Build();
    for (const bool records : {false, true}) {
        TMSExcelX x;
        x.SetRecordMode(records);
        x.SetMaxSheetText(10000);
        TMemoryStream stream(book);
        EXPECT_EQ(
            test::ErrorOf([&] { x.LoadFromStream(stream); }),
            "Excel workbook: part xl/worksheets/sheet1.xml: sheet 1 gives more than 0 MiB of text (a shared "
            "string repeated without end?)");
    }
}

TEST(XLSX, TextEscapesAndPartNames) {
    // clang-format off
    const std::tuple<std::string, std::string> texts[] = {
        {"a_x000D_b", "a\rb"}, {"_x005F_x0041_", "_x0041_"}, {"_xD83D__xDE00_", "\xF0\x9F\x98\x80"},
        {"_x00zz_", "_x00zz_"}, {"a\r\nb\rc", "a\nb\nc"}, {"&lt;&#13;&amp;", "<\r&"},
    };
    // clang-format on
    for (auto [text, expected] : texts) {
        KvDecodeXLSXText(text);
        EXPECT_EQ(text, expected);
    }
    EXPECT_EQ(KvResolvePartName("xl/workbook.xml", "worksheets/sheet1.xml"), "xl/worksheets/sheet1.xml");
    EXPECT_EQ(KvResolvePartName("xl/workbook.xml", "/xl/../x.xml"), "x.xml");
    EXPECT_EQ(KvResolvePartName("xl/workbook.xml", "..\\..\\..\\a.xml"), "a.xml");
    EXPECT_EQ(KvRelationshipsPartName(""), "_rels/.rels");
    EXPECT_EQ(KvRelationshipsPartName("xl/workbook.xml"), "xl/_rels/workbook.xml.rels");
}

TEST(XLSX, TheImportSourceReadsRowsOnDemandWithTypedColumns) {
    std::string rows = XRow(1, XCell("A1", "0", "s") + XCell("B1", "1", "s"));
    for (int r = 2; r <= 500; ++r)
        rows += XRow(r, XCell("", std::to_string(r)) + XCell("", std::to_string(45290 + r), "", 1));
    test::TempDir dir;
    const std::string file = dir.File("rows.xlsx");
    test::WriteFile(file, XlsxBuilder().Strings({"id", "day"}).Styles({}, {0, 14}).Sheet("S", rows).Build());
    TKvImportFromXLS source;
    source.SetSourceFileName(file);
    source.SetGuessFieldNamesRow(true);
    std::vector<std::string> got;
    source.ReadRows(3, [&](const std::vector<Variant>& values) {
        got.push_back(values[0].AsString() + "," + test::DumpCellValue(values[1]));
    });
    ASSERT_EQ(source.Columns().Count(), 2);
    EXPECT_EQ(source.Columns().Columns(0).FieldName, "id");
    EXPECT_EQ(source.Columns().Columns(0).DataType, itInteger);
    EXPECT_EQ(source.Columns().Columns(1).DataType, itDate);
    EXPECT_EQ(got, (std::vector<std::string>{"2,2024-01-01", "3,2024-01-02", "4,2024-01-03"}));
}

TEST(XLSX, ARunAfterDescribingReadsTheFileAsItIsThen) {
    // The workbook described is kept for the run only while the file and the sheet are what they were.
    const auto book = [](int rows, int sheets) {
        std::string cells;
        for (int r = 1; r <= rows; ++r) cells += XRow(r, XCell("", std::to_string(r * 10)));
        XlsxBuilder builder;
        for (int s = 0; s < sheets; ++s)
            builder.Sheet("S" + std::to_string(s), s ? XRow(1, XCell("", "7")) : cells);
        return builder.Build();
    };
    test::TempDir dir;
    const std::string file = dir.File("book.xlsx");
    const auto firstColumn = [&](TKvImportFromXLS& source) {
        std::vector<std::string> got;
        source.ReadRows(100,
                        [&](const std::vector<Variant>& values) { got.push_back(values[0].AsString()); });
        return got;
    };
    test::WriteFile(file, book(2, 2));
    TKvImportFromXLS source;
    source.SetSourceFileName(file);
    source.DescribeColumns();
    test::WriteFile(file, book(3, 2));
    EXPECT_EQ(firstColumn(source), (std::vector<std::string>{"10", "20", "30"}));
    source.DescribeColumns();
    source.SetSheetName("S1");
    EXPECT_EQ(firstColumn(source), (std::vector<std::string>{"7"}));
}

} // namespace
} // namespace kv
