// The OpenDocument spreadsheet reader on documents written here: values of every type, text as a sheet
// shows it, repeats that cost nothing while empty and are bounded while not, sheets, styles, metadata,
// record mode, and the documents it refuses.

#include "readers/archive/KvIOO.h"

#include "TestSupport.h"
#include "platform/DateUtils.h"
#include "platform/Format.h"
#include "platform/Streams.h"
#include "support/DataFiles.h"
#include "support/OdsBuilder.h"

#include <gtest/gtest.h>

namespace kv {
namespace {

using namespace kv::test;

/// Every sheet: "name: A1=value|B1=value / A2=..." with the cell types after the values.
std::string Cells(TKvIOpenOfficeSpreadsheet& reader) {
    std::string out;
    for (int s = 0; s < reader.SpreadSheets().Count(); ++s) {
        const TSpreadSheet& sheet = reader.SpreadSheets().Spreadsheet(s);
        out += (s ? "\n" : "") + sheet.Name() + ":";
        for (int r = 0; r < sheet.Cells().Count(); ++r) {
            const TSpreadSheetRow* row = sheet.Cells().Row(r);
            out += r ? " /" : "";
            for (int c = 0; row && c < row->Cols().Count(); ++c)
                if (const TKvICell* cell = row->Cols().GetCell(c))
                    out += " " + GetSpreadSheetColByID(c + 1) + "=" + DumpCellValue(cell->Value) + "(" +
                           std::to_string(cell->CellType) + ")";
        }
    }
    return out;
}

std::string Load(TKvIOpenOfficeSpreadsheet& reader, const std::string& bytes) {
    TMemoryStream stream(bytes);
    reader.LoadFromStream(stream);
    return Cells(reader);
}

std::string LoadBoth(const OdsBuilder& book) {
    TKvIOpenOfficeSpreadsheet package, flat;
    const std::string fromPackage = Load(package, book.Build());
    EXPECT_EQ(Load(flat, book.Flat()), fromPackage);
    EXPECT_FALSE(package.IsFlat());
    EXPECT_TRUE(flat.IsFlat());
    return fromPackage;
}

TEST(OOReader, EachValueTypeGivesItsCell) {
    const std::string string = "office:value-type=\"string\"";
    const struct {
        std::string Cell, Expected;
    } cases[] = {
        {OdsFloat("1.5"), "1.5(4)"},
        {OdsFloat("-2E+3"), "-2000(4)"},
        {OdsCell("office:value-type=\"percentage\" office:value=\"0.25\"", "<text:p>25%</text:p>"), "25(4)"},
        {OdsCell("office:value-type=\"currency\" office:currency=\"EUR\" office:value=\"3\""), "3(4)"},
        {OdsCell("office:value-type=\"date\" office:date-value=\"2021-01-01\""), "2021-01-01(5)"},
        {OdsCell("office:value-type=\"date\" office:date-value=\"2021-01-01T10:10:10Z\""),
         "2021-01-01 10:10:10(5)"},
        {OdsCell("office:value-type=\"time\" office:time-value=\"PT10H10M10S\""), "1899-12-30 10:10:10(9)"},
        // A duration of a day or more is no time of day: its hours, minutes and seconds.
        {OdsCell("office:value-type=\"time\" office:time-value=\"P1DT12H0M0.5S\""), "36:00:00.500(2)"},
        {OdsCell("office:value-type=\"boolean\" office:boolean-value=\"true\""), "true(6)"},
        {OdsCell(string, "<text:p>a</text:p><text:p>b</text:p>"), "a\\r\\nb(2)"},
        {OdsCell(string + " office:string-value=\"x&amp;y\"", "<text:p>shown</text:p>"), "x&y(2)"},
        {OdsText("a<text:s text:c=\"3\"/>b<text:tab/>c<text:line-break/>d"), "a   b\\tc\\r\\nd(2)"},
        {OdsText("<text:span text:style-name=\"T1\">rich</text:span> <text:a xlink:href=\"x\">link</text:a>"),
         "rich link(2)"},
        // White space as the sheet shows it: runs are one blank, none at the start of a paragraph.
        {OdsText("  two \n  words "), "two words (2)"},
        {OdsCell(string, "<office:annotation><text:p>note</text:p></office:annotation><text:p>v</text:p>"),
         "v(2)"},
        // A cell that names no type is text when it holds some, and empty when not.
        {OdsCell("", "<text:p>untyped</text:p>"), "untyped(2)"},
        {OdsCell(string, "<text:p></text:p>"), ""},
        {OdsCell("office:value-type=\"float\" office:value=\"0\" calcext:value-type=\"error\"",
                 "<text:p>#DIV/0!</text:p>"),
         "#DIV/0!(2)"},
        // A value attribute that says nothing leaves the text the sheet shows.
        {OdsCell("office:value-type=\"float\" office:value=\"n/a\"", "<text:p>n/a</text:p>"), "n/a(2)"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.Cell);
        const std::string got = LoadBoth(OdsBuilder().Sheet("S", OdsRow(OdsEmpty() + c.Cell)));
        EXPECT_EQ(got, "S:" + (c.Expected.empty() ? "" : " B=" + c.Expected));
    }
}

TEST(OOReader, DatesAreTheDateTimesOfTheExcelReaders) {
    TKvIOpenOfficeSpreadsheet reader;
    Load(reader,
         OdsBuilder()
             .Sheet("S",
                    OdsRow(OdsCell("office:value-type=\"date\" office:date-value=\"1899-12-29T06:00:00\"") +
                           OdsCell("office:value-type=\"date\" office:date-value=\"2024-02-29\"")))
             .Build());
    const TSpreadSheetCells& cells = reader.SpreadSheets().Spreadsheet(0).Cells();
    EXPECT_DOUBLE_EQ(cells.GetValue(0, 0).AsDateTime(), -1.25);
    EXPECT_DOUBLE_EQ(cells.GetValue(1, 0).AsDateTime(), EncodeDate(2024, 2, 29));
}

TEST(OOReader, RepeatsCostNothingWhileEmptyAndAreBoundedWhileNot) {
    // Empty repeats of two thousand million cells and rows, and the million empty rows a sheet ends with.
    // A count of forty digits saturates instead of overflowing.
    const std::string rows = OdsRow(OdsEmpty(2000000000) + OdsFloat("1")) + OdsRow(OdsEmpty(), 2000000000) +
                             "<table:table-row table:number-rows-repeated=\"" + std::string(40, '9') +
                             "\"><table:table-cell/></table:table-row>" +
                             OdsRow(OdsText("x") + OdsEmpty(16383), 1048000);
    TKvIOpenOfficeSpreadsheet reader;
    EXPECT_EQ(Load(reader, OdsBuilder().Sheet("S", rows).Build()), "S:");
    EXPECT_EQ(
        reader.Warnings(),
        (std::vector<std::string>{"content.xml, line 2: sheet \"S\" has values past column 16384, which "
                                  "are not read",
                                  "content.xml, line 2: sheet \"S\" has values past row 1048576, which are "
                                  "not read"}));
    EXPECT_EQ(reader.Sheets()[0].Rows, 0);

    // Repeated values are delivered.
    EXPECT_EQ(LoadBoth(OdsBuilder().Sheet(
                  "S", OdsRow(OdsCell("table:number-columns-repeated=\"2\" office:value-type=\"float\" "
                                      "office:value=\"7\""),
                              2) +
                           OdsRow(OdsEmpty(), 3) + OdsRow(OdsEmpty(2) + OdsText("z")))),
              "S: A=7(4) B=7(4) / A=7(4) B=7(4) / / / / C=z(2)");

    // Copies past what a document may claim fail the load, whichever way it is read.
    for (const bool record : {false, true}) {
        TKvIOpenOfficeSpreadsheet bounded;
        bounded.SetRecordMode(record);
        bounded.SetMaxRepeatedCells(1000);
        const std::string bomb =
            OdsBuilder()
                .Sheet("Bomb", OdsRow(OdsCell("table:number-columns-repeated=\"999999999\" "
                                              "office:value-type=\"string\"",
                                              "<text:p>X</text:p>"),
                                      999999999))
                .Build();
        EXPECT_EQ(
            ErrorOf([&] { Load(bounded, bomb); }),
            "OpenDocument: content.xml, line 2: sheet \"Bomb\" repeats its cells more than the 1000 copies "
            "a document may claim (a row of 16384 values repeated 1048576 times)");
    }
}

TEST(OOReader, CoveredCellsTakeTheirPlace) {
    const std::string rows =
        OdsRow(OdsCell("table:number-columns-spanned=\"2\" table:number-rows-spanned=\"2\" "
                       "office:value-type=\"string\"",
                       "<text:p>merged</text:p>") +
               "<table:covered-table-cell/>" + OdsText("c")) +
        OdsRow("<table:covered-table-cell table:number-columns-repeated=\"2\"/>" +
               std::string("<table:covered-table-cell office:value-type=\"string\"><text:p>hidden</text:p>"
                           "</table:covered-table-cell>"));
    EXPECT_EQ(LoadBoth(OdsBuilder().Sheet("S", rows)), "S: A=merged(2) C=c(2) / C=hidden(2)");
}

TEST(OOReader, SheetsByFilterWithTheirNamesAndVisibility) {
    const OdsBuilder book =
        OdsBuilder()
            .AutomaticStyles("<style:style style:name=\"ta2\" style:family=\"table\"><style:table-properties "
                             "table:display=\"false\"/></style:style>")
            .Sheet("One", OdsRow(OdsFloat("1")))
            .Sheet("Two &amp; hidden", OdsRow(OdsFloat("2")), "table:style-name=\"ta2\"")
            .Sheet("Three", OdsRow(OdsFloat("3")));
    TKvIOpenOfficeSpreadsheet reader;
    reader.SetSheetFilter(2);
    EXPECT_EQ(Load(reader, book.Build()), "One:\nTwo & hidden:\nThree: A=3(4)");
    ASSERT_EQ(reader.Sheets().size(), 3u);
    EXPECT_TRUE(reader.Sheets()[1].Hidden);
    EXPECT_FALSE(reader.Sheets()[2].Hidden);
    const auto properties = reader.FileProperties();
    EXPECT_EQ(properties[0],
              std::make_pair(std::string("Format"), std::string("OpenDocument spreadsheet (ODF 1.3)")));
    EXPECT_EQ(properties[2].second, "Two & hidden (1 rows, 1 columns, hidden)");
}

TEST(OOReader, RecordModeGivesEachRowAsTheWholeLoadKeepsIt) {
    const OdsBuilder book =
        OdsBuilder()
            .AutomaticStyles("<style:style style:name=\"ce1\" style:family=\"table-cell\"><style:paragraph-"
                             "properties fo:text-align=\"end\"/></style:style>")
            .Sheet("Cover", OdsRow(OdsText("cover")))
            .Sheet("Data", OdsRow(OdsText("id") + OdsText("name")) +
                               OdsRow(OdsCell("table:style-name=\"ce1\" office:value-type=\"float\" "
                                              "office:value=\"1\"") +
                                          OdsText("a"),
                                      2) +
                               OdsRow(OdsEmpty(5), 3) + OdsRow(OdsEmpty() + OdsText("b")) +
                               OdsRow(OdsEmpty(1024), 1000000));
    for (const std::string& bytes : {book.Build(), book.Flat()}) {
        TKvIOpenOfficeSpreadsheet whole, records;
        Load(whole, bytes);
        records.SetRecordMode(true);
        TMemoryStream stream(bytes);
        records.LoadFromStream(stream);
        EXPECT_EQ(records.FileProperties(), whole.FileProperties());
        const TSpreadSheetCells& kept = whole.SpreadSheets().Spreadsheet(1).Cells();
        EXPECT_EQ(records.SpreadSheets().Spreadsheet(1).Cells().RowCount(), kept.RowCount());
        EXPECT_EQ(records.SpreadSheets().Spreadsheet(1).Cells().ColCount(), kept.ColCount());
        EXPECT_EQ(kept.RowCount(), 7);
        std::string got, expected;
        records.OnCellValue = [&](TObject*, int sheet, int row, int col, int32_t style, const Variant& v,
                                  TAlignment align, TKvICellType type) {
            got += Format("%d:%d:%d=%s(%d,%d,%d) ", sheet, row, col, DumpCellValue(v).c_str(),
                          static_cast<int>(type), static_cast<int>(style), static_cast<int>(align));
        };
        // The sheet is chosen after the load, as by name; rows are asked in order, then again from an
        // earlier one.
        records.SetSheetFilter(1);
        records.BeforeLoad();
        for (const int row : {0, 1, 2, 3, 4, 5, 6, 7, 2, 6}) records.LoadRecord(row);
        for (const int row : {0, 1, 2, 3, 4, 5, 6, 7, 2, 6}) {
            const TSpreadSheetRow* r = kept.Row(row);
            for (int c = 0; r && c < r->Cols().Count(); ++c)
                if (const TKvICell* cell = r->Cols().GetCell(c))
                    expected += Format("1:%d:%d=%s(%d,%d,%d) ", row, c, DumpCellValue(cell->Value).c_str(),
                                       static_cast<int>(cell->CellType), static_cast<int>(cell->FormatIndex),
                                       static_cast<int>(cell->Alignment));
        }
        EXPECT_EQ(got, expected);
        EXPECT_NE(got.find("1:2:0=1(4,0,1)"), std::string::npos) << "the style's alignment";
    }
}

TEST(OOReader, RefusesWhatIsNoSpreadsheetAndSaysWhy) {
    const OdsBuilder book = OdsBuilder().Sheet("S", OdsRow(OdsFloat("1")));
    std::string noContent =
        ZipBuilder().Add("mimetype", "application/vnd.oasis.opendocument.spreadsheet", 0).Build();
    const struct {
        std::string Bytes, Error;
    } cases[] = {
        {OdsBuilder(book)
             .ManifestEntries(
                 "<manifest:file-entry manifest:full-path=\"content.xml\"><manifest:encryption-data "
                 "manifest:checksum=\"x\"/></manifest:file-entry>")
             .Build(),
         strOOEncrypted + " (META-INF/manifest.xml lists its parts as encrypted)"},
        {OdsBuilder(book).MediaType("application/vnd.oasis.opendocument.text").Build(),
         strOONotSpreadsheet + ": the package is an OpenDocument document of the type "
                               "application/vnd.oasis.opendocument.text"},
        {noContent, strOONotSpreadsheet + ": the package has no content.xml"},
        {"<html><body>not a spreadsheet</body></html>",
         strOONotSpreadsheet + ": the document holds no office:body"},
        {"<office:document><office:body><office:text/></office:body></office:document>",
         strOONotSpreadsheet + ": the document holds another kind of document"},
    };
    for (const auto& c : cases) {
        TKvIOpenOfficeSpreadsheet reader;
        EXPECT_EQ(ErrorOf([&] { Load(reader, c.Bytes); }), c.Error);
    }
    TKvIOpenOfficeSpreadsheet reader;
    ErrorOf([&] { Load(reader, cases[0].Bytes); });
    EXPECT_TRUE(reader.IsEncrypted());
    // A document cut inside a sheet gives what it holds, and says so.
    const std::string flat = book.Flat();
    EXPECT_EQ(Load(reader, flat.substr(0, flat.find("</table:table-row>"))), "S: A=1(4)");
    EXPECT_EQ(reader.Warnings(),
              std::vector<std::string>{"the document ends inside sheet \"S\": its last rows "
                                       "may be missing"});
}

TEST(OOReader, MetadataFillsTheSummaryAndTheProperties) {
    const std::string meta =
        "<meta:generator>Calc/7.5</meta:generator><dc:title>Budget &amp; plan</dc:title>"
        "<meta:initial-creator>Ann</meta:initial-creator><dc:creator>Bob</dc:creator>"
        "<meta:creation-date>2021-03-04T05:06:07.123456789</"
        "meta:creation-date><dc:date>2022-01-02T03:04:05Z</dc:date>"
        "<meta:keyword>a</meta:keyword><meta:keyword>b</meta:keyword><meta:editing-duration>PT1H30M"
        "</meta:editing-duration><meta:document-statistic meta:page-count=\"3\" meta:cell-count=\"9\"/>"
        "<meta:user-defined meta:name=\"Company\">Acme</meta:user-defined>";
    const OdsBuilder book = OdsBuilder().Meta(meta).Sheet("S", OdsRow(OdsFloat("1")));
    for (const std::string& bytes : {book.Build(), book.Flat()}) {
        TKvIOpenOfficeSpreadsheet reader;
        Load(reader, bytes);
        const TKvISummaryInformation& s = reader.SummaryInformation();
        EXPECT_EQ(s.Title(), "Budget & plan");
        EXPECT_EQ(s.Author(), "Ann");
        EXPECT_EQ(s.LastAuthor(), "Bob");
        EXPECT_EQ(s.AppName(), "Calc/7.5");
        EXPECT_EQ(s.Keywords(), "a, b");
        EXPECT_EQ(s.EditTime(), 90);
        EXPECT_EQ(s.PageCount(), 3);
        EXPECT_EQ(s.Company(), "Acme");
        EXPECT_EQ(FormatDateTime("yyyy-mm-dd hh:nn:ss", s.Created()), "2021-03-04 05:06:07");
        const auto properties = reader.FileProperties();
        EXPECT_EQ(properties.back(),
                  std::make_pair(std::string("Last saved"), std::string("2022-01-02 03:04:05")));
        // The next load starts from nothing.
        Load(reader, OdsBuilder().Sheet("S", "").Build());
        EXPECT_EQ(reader.SummaryInformation().Title(), "");
    }
}

TEST(OOReader, StylesAreListedAndFoundByExactName) {
    const std::string styles =
        "<style:style style:name=\"Base\" style:family=\"table-cell\"><style:paragraph-properties "
        "fo:text-align=\"center\"/><style:text-properties style:font-name=\"Arial\" fo:font-size=\"11pt\" "
        "fo:font-weight=\"bold\"/></style:style>"
        "<style:style style:name=\"ce1\" style:family=\"table-cell\" style:parent-style-name=\"Base\">"
        "<style:table-cell-properties fo:background-color=\"#ff8000\"/></style:style>"
        "<style:style style:name=\"gr1\" style:family=\"graphic\"/>";
    TKvIOpenOfficeSpreadsheet reader;
    Load(reader, OdsBuilder().AutomaticStyles(styles).Sheet("S", "").Build());
    const TKvIOOStyles& list = reader.Styles();
    ASSERT_EQ(list.Count(), 3);
    EXPECT_EQ(list.GetStyle(-1), nullptr);
    EXPECT_EQ(list.GetStyle(3), nullptr);
    EXPECT_EQ(list.FindByStyleName("CE1"), nullptr);
    const auto* cell = dynamic_cast<const TKvIOOStyleText*>(list.FindByStyleName("ce1"));
    ASSERT_NE(cell, nullptr);
    EXPECT_EQ(cell->StyleParent(), list.GetStyle(0));
    EXPECT_EQ(cell->Alignment(), taCenter);
    EXPECT_EQ(cell->Color(), 0x0080FF);
    EXPECT_EQ(cell->TextFont().Name, "Arial");
    EXPECT_TRUE(cell->TextFont().Bold);
    EXPECT_EQ(list.GetStyle(2)->ClassName(), "TKvIOOStyleGraphic");
    EXPECT_EQ(TKvIOOStyleNumList().BulletChar(), "\x07");
}

} // namespace
} // namespace kv
