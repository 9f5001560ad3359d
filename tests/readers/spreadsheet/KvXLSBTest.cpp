// TMSExcelX on binary workbooks: the corpus twins of XML workbooks give the same cells, each kind of cell
// record reads as its XML form does, and damaged records fail naming their part.

#include "readers/spreadsheet/KvXLS.h"

#include "TestSupport.h"
#include "platform/Streams.h"
#include "support/DataFiles.h"
#include "support/XlsbBuilder.h"
#include "support/XlsxBuilder.h"

#include <filesystem>
#include <map>

namespace kv {
namespace {

using namespace kv::test;

const test::TCorpusFolder CorpusFile("xlsx");

/// Each sheet's visibility by "<sheet name>", and every cell that is not empty by "<sheet name>!<cell>" as
/// "<variant type> <value>": twins may list their sheets in another order.
std::map<std::string, std::string> Cells(TMSExcelX& x) {
    std::map<std::string, std::string> out;
    for (const TXLSSheetInfo& sheet : x.Sheets()) out[sheet.Name] = std::to_string(sheet.Visibility);
    for (int s = 0; s < x.SpreadSheets().Count(); ++s) {
        const TSpreadSheetCells& cells = x.SpreadSheets().Spreadsheet(s).Cells();
        for (int r = 0; r < cells.Count(); ++r)
            for (int c = 0; c < cells.ColCount(); ++c)
                if (const Variant v = cells.GetValue(c, r); !v.IsNullOrEmpty())
                    out[x.SpreadSheets().Spreadsheet(s).Name() + "!" + GetSpreadSheetColByID(c + 1) +
                        std::to_string(r + 1)] = std::to_string(v.VarType()) + " " + DumpCellValue(v);
    }
    return out;
}

TEST(XLSB, EachCorpusTwinGivesTheCellsOfItsXMLWorkbookWholeAndRowByRow) {
    if (!CorpusFile.Here()) GTEST_SKIP() << "the shared corpus is not here";
    int files = 0;
    size_t cells = 0;
    for (const auto& entry : std::filesystem::directory_iterator(CorpusFile(""))) {
        if (entry.path().extension() != ".xlsb") continue;
        const std::string name = entry.path().filename().string();
        SCOPED_TRACE(name);
        ++files;
        TMSExcelX binary, xml;
        const std::string error = ErrorOf([&] { binary.LoadFromFile(entry.path().string()); });
        if (name == "pass_protected.xlsb") {
            EXPECT_EQ(error,
                      "The workbook is encrypted with a password, which this reader cannot remove: save "
                      "it without one");
            EXPECT_TRUE(binary.IsEncrypted());
            continue;
        }
        ASSERT_EQ(error, "");
        EXPECT_EQ(binary.Version(), evExcel12Bin);
        xml.LoadFromFile(CorpusFile(entry.path().stem().string() + ".xlsx"));
        std::map<std::string, std::string> expected = Cells(xml);
        // The XML twin of this one has an empty sheet.
        if (name == "sample.xlsb") expected["Sheet1!A1"] = std::to_string(varDate) + " 2013-01-12";
        EXPECT_EQ(Cells(binary), expected);
        cells += Cells(binary).size();
        TFileStream file(entry.path().string(), fmOpenRead);
        EXPECT_EQ(XlsxRecordModeDifference(binary, file), "");
    }
    EXPECT_GE(files, 9);
    EXPECT_GT(cells, 80u);
}

TEST(XLSB, EachCellRecordReadsAsItsXMLFormDoes) {
    const auto formula = [](const std::string& value) { return value + BU16(0) + BU32(0); };
    const auto inlineText = [](const std::string& ref, const std::string& text) {
        return "<c r=\"" + ref + "\" t=\"inlineStr\"><is><t>" + text + "</t></is></c>";
    };
    struct {
        int Type;
        std::string Value;
        uint32_t Style;
        std::string XML; ///< the cell's twin, "@" standing for its reference
        std::string Shown;
    } const cases[] = {
        {2, BU32(5 << 2 | 2), 0, "n 5", "5"},                   // an integer RK
        {2, BU32(123 << 2 | 3), 0, "n 1.23", "1.23"},           // an RK of hundredths
        {2, BU32(0x3FE00000), 0, "n 0.5", "0.5"},               // the high bits of a double
        {5, BF64(-2.75e-3), 0, "n -0.00275", "-0.00275"},       // a double
        {4, std::string(1, '\1'), 0, "b 1", "true"},            // a boolean
        {3, std::string(1, '\x07'), 0, "e #DIV/0!", "#DIV/0!"}, // an error
        {6, BWide("h\xC3\xA9llo \xF0\x9F\x98\x80"), 0, "i h\xC3\xA9llo \xF0\x9F\x98\x80",
         "h\xC3\xA9llo \xF0\x9F\x98\x80"}, // inline text, a surrogate pair in it
        {62, std::string(1, '\1') + BWide("rich") + BU32(0), 0, "i rich", "rich"},
        {7, BU32(1), 0, "s 1", "b"},               // a shared string
        {8, formula(BWide("f")), 0, "str f", "f"}, // cached formula results
        {9, formula(BF64(9.5)), 0, "n 9.5", "9.5"},
        {10, formula(std::string(1, '\0')), 0, "b 0", "false"},
        {11, formula(std::string(1, '\x2A')), 0, "e #N/A", "#N/A"},
        {5, BF64(44197), 1, "n 44197", "2021-01-01"},              // a built-in date format
        {5, BF64(44197.5), 2, "n 44197.5", "2021-01-01 12:00:00"}, // a custom one
        {2, BU32(42 << 2 | 2), 3, "n 42", "42"},                   // a style the workbook lacks
    };
    std::string records = BRow(0), rows;
    for (size_t i = 0; i < std::size(cases); ++i) {
        const auto& c = cases[i];
        const std::string ref = GetSpreadSheetColByID(static_cast<int>(i) + 1) + "1";
        records += BCell(c.Type, static_cast<uint32_t>(i), c.Value, c.Style);
        const size_t space = c.XML.find(' ');
        const std::string kind = c.XML.substr(0, space), value = c.XML.substr(space + 1);
        rows += kind == "i" ? inlineText(ref, value)
                            : XCell(ref, value, kind == "n" ? "" : kind, static_cast<int>(c.Style));
    }
    // A row header with no cells, then one further down: cells go to the row last named.
    records += BRow(2) + BRow(5) + BCell(1, 0) + BCell(2, 1, BU32(7 << 2 | 2));
    rows = XRow(1, rows) + XRow(6, XCell("B6", "7"));
    const std::vector<std::pair<int, std::string>> formats = {{164, "yyyy-mm-dd hh:mm"}};
    TMemoryStream binary(
        XlsbBuilder().Strings({"a", "b"}).Styles(formats, {0, 14, 164}).Sheet("S", records).Build());
    TMemoryStream xml(
        XlsxBuilder().Strings({"a", "b"}).Styles(formats, {0, 14, 164}).Sheet("S", rows).Build());
    TMSExcelX fromBinary, fromXML;
    fromBinary.LoadFromStream(binary);
    fromXML.LoadFromStream(xml);
    EXPECT_EQ(Cells(fromBinary), Cells(fromXML));
    EXPECT_EQ(fromBinary.Warnings(), fromXML.Warnings());
    const TSpreadSheetCells& cells = fromBinary.SpreadSheets().Spreadsheet(0).Cells();
    for (size_t i = 0; i < std::size(cases); ++i)
        EXPECT_EQ(DumpCellValue(cells.GetValue(static_cast<int>(i), 0)), cases[i].Shown) << "column " << i;
    EXPECT_EQ(DumpCellValue(cells.GetValue(1, 5)), "7");
    EXPECT_EQ(fromBinary.Version(), evExcel12Bin);
    binary.SetPosition(0);
    EXPECT_EQ(XlsxRecordModeDifference(fromBinary, binary), "");
}

TEST(XLSB, TheWorkbookPartGivesSheetsStatesAndTheDateSystem) {
    TMemoryStream stream(XlsbBuilder()
                             .Date1904()
                             .Sheet("First", BRow(0) + BCell(5, 0, BF64(0), 1))
                             .Sheet("Secret \xC3\xA9", "", 1)
                             .Sheet("Deep", "", 2)
                             .Styles({}, {0, 14})
                             .Build());
    TMSExcelX x;
    x.LoadFromStream(stream);
    const std::map<std::string, std::string> expected = {
        {"First", "0"},
        {"Secret \xC3\xA9", "1"},
        {"Deep", "2"},
        {"First!A1", std::to_string(varDate) + " 1904-01-01"}};
    EXPECT_EQ(Cells(x), expected);
}

TEST(XLSB, DamagedRecordsFailNamingTheirPart) {
    const std::string sheet = "Excel workbook: part xl/worksheets/sheet1.bin: ";
    const std::string data = BRecord(145, "");
    const std::pair<std::string, std::string> cases[] = {
        {data + "\x80\x80\x01", sheet + "a record's type has more than 2 bytes"},
        {data + "\x01\xFF\xFF\xFF\xFF\x01", sheet + "a record's size has more than 4 bytes"},
        {data + "\x05", sheet + "the part ends inside a record's size"},
        {data + "\x85", sheet + "the part ends inside a record's type"},
        {data + "\x05\xFF\xFF\xFF\x7F" + "abc",
         sheet + "record 5 of 268435455 bytes runs past the end of the part"},
        {data + BCell(5, 0, "abc"), sheet + "record 5 is too short for what it holds"},
        {data + BCell(6, 0, BU32(1000) + "ab"), sheet + "record 6 holds a string longer than the record"},
        {data + BRecord(0, "ab"), sheet + "record 0 is too short for what it holds"},
    };
    for (const auto& [part, message] : cases) {
        TMemoryStream stream(XlsbBuilder().Sheet("S", "").Part("xl/worksheets/sheet1.bin", part).Build());
        for (const bool records : {false, true}) {
            TMSExcelX x;
            x.SetRecordMode(records);
            EXPECT_EQ(ErrorOf([&] { x.LoadFromStream(stream); }), message);
            stream.SetPosition(0);
        }
    }
    const std::pair<std::string, std::string> parts[] = {
        {"xl/workbook.bin", "record 156 of 127 bytes runs past the end of the part"},
        {"xl/styles.bin", "record 156 of 127 bytes runs past the end of the part"},
        {"xl/sharedStrings.bin", "record 156 of 127 bytes runs past the end of the part"},
    };
    for (const auto& [name, message] : parts) {
        TMemoryStream stream(XlsbBuilder().Sheet("S", "").Part(name, "\x9C\x01\x7F").Build());
        TMSExcelX x;
        EXPECT_EQ(ErrorOf([&] { x.LoadFromStream(stream); }),
                  "Excel workbook: part " + name + ": " + message);
    }
}

TEST(XLSB, CellsBeyondTheSheetsLimitsAreLeftOutAndSaidSo) {
    TMemoryStream stream(XlsbBuilder()
                             .Sheet("S", BRow(0) + BCell(2, 16384, BU32(6)) + BCell(2, 1, BU32(6)) +
                                             BRow(1048576) + BCell(2, 0, BU32(6)))
                             .Build());
    TMSExcelX x;
    x.LoadFromStream(stream);
    EXPECT_EQ(Cells(x),
              (std::map<std::string, std::string>{{"S", "0"}, {"S!B1", std::to_string(varDouble) + " 1"}}));
    ASSERT_EQ(x.Warnings().size(), 1u);
    EXPECT_EQ(x.Warnings()[0].find("Sheet 1 holds cells beyond"), 0u) << x.Warnings()[0];
}

TEST(XLSB, ProcessBIFF12RecordReportsOneRecordAtTheRowLastNamed) {
    TMemoryStream stream(BRow(2) + BCell(5, 1, BF64(1.5)) + BRecord(999, "x") + BCell(7, 3, BU32(0)) +
                         BRow(1 << 20) + BCell(5, 1, BF64(2)) + BRecord(5, "abc"));
    TMSExcelX x;
    std::vector<std::string> seen;
    x.OnCellValue = [&](TObject*, int, int row, int col, int32_t, const Variant& value, TAlignment,
                        TKvICellType) {
        seen.push_back(std::to_string(row) + "," + std::to_string(col) + "=" + DumpCellValue(value));
    };
    for (int i = 0; i < 6; ++i) x.ProcessBIFF12Record(stream);
    // No shared strings are loaded: the string cell is empty; a row past the last is left out.
    EXPECT_EQ(seen, (std::vector<std::string>{"2,1=1.5", "2,3="}));
    EXPECT_EQ(ErrorOf([&] { x.ProcessBIFF12Record(stream); }), "record 5 is too short for what it holds");
    x.ProcessBIFF12Record(stream); // the end: nothing
}

} // namespace
} // namespace kv
