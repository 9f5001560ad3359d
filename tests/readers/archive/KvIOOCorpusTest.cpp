// Spreadsheets written by other programs: every OpenDocument file of the shared corpus loads (or fails
// with the error that fits it) the same way whole and row by row, and gives the values other readers
// assert.

#include "readers/archive/KvIOO.h"
#include "readers/spreadsheet/KvXLS.h"

#include "TestSupport.h"
#include "platform/DateUtils.h"
#include "platform/Streams.h"
#include "support/DataFiles.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <map>

namespace kv {
namespace {

using namespace kv::test;

const test::TCorpusFolder CorpusFile("ods");

/// Sheet `sheet` as rows of values, "|" between cells, "/" between rows.
std::string Rows(TKvIOpenOfficeSpreadsheet& reader, int sheet) {
    const TSpreadSheetCells& cells = reader.SpreadSheets().Spreadsheet(sheet).Cells();
    std::string out;
    for (int r = 0; r < cells.RowCount(); ++r) {
        out += r ? " / " : "";
        for (int c = 0; c < cells.ColCount(); ++c) {
            const Variant v = cells.GetValue(c, r);
            out += (c ? "|" : "") + (v.IsNullOrEmpty() ? std::string() : DumpCellValue(v));
        }
    }
    return out;
}

std::unique_ptr<TKvIOpenOfficeSpreadsheet> Load(const std::string& file) {
    auto reader = std::make_unique<TKvIOpenOfficeSpreadsheet>();
    reader->LoadFromFile(CorpusFile(file));
    return reader;
}

TEST(OOCorpus, EveryFileLoadsOrGivesItsErrorWholeAndRowByRow) {
    if (!CorpusFile.Here()) GTEST_SKIP() << "the shared corpus is not here";
    const std::map<std::string, std::string> errors = {
        {"pass_protected.ods", strOOEncrypted + " (META-INF/manifest.xml lists its parts as encrypted)"},
        {"issue_594_dos.ods",
         "OpenDocument: content.xml, line 1: sheet \"Sheet1\" repeats its cells more than the "
         "16777216 copies a document may claim (a row of 16384 values repeated 1048576 times)"},
    };
    int files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(CorpusFile(""))) {
        const std::string name = entry.path().filename().string();
        if (!entry.is_regular_file()) continue;
        SCOPED_TRACE(name);
        ++files;
        TKvIOpenOfficeSpreadsheet whole, records;
        const std::string error = ErrorOf([&] { whole.LoadFromFile(entry.path().string()); });
        const auto expected = errors.find(name);
        EXPECT_EQ(error, expected == errors.end() ? "" : expected->second);
        if (!error.empty()) continue;
        records.SetRecordMode(true);
        TFileStream stream(entry.path().string(), fmOpenRead);
        records.LoadFromStream(stream);
        EXPECT_EQ(records.FileProperties(), whole.FileProperties());
        for (int s = 0; s < whole.SpreadSheets().Count(); ++s) {
            const TSpreadSheetCells& kept = whole.SpreadSheets().Spreadsheet(s).Cells();
            TSpreadSheetCells read;
            records.OnCellValue = [&](TObject*, int, int row, int col, int32_t style, const Variant& v,
                                      TAlignment align,
                                      TKvICellType type) { read.SetValue(col, row, v, align, style, type); };
            records.SetSheetFilter(s);
            records.BeforeLoad();
            for (int row = 0; row < records.SpreadSheets().Spreadsheet(s).Cells().RowCount(); ++row)
                records.LoadRecord(row);
            EXPECT_EQ(read.RowCount(), kept.RowCount()) << "sheet " << s;
            for (int row = 0; row < kept.RowCount(); ++row)
                for (int col = 0; col < kept.ColCount(); ++col)
                    EXPECT_EQ(DumpCellValue(read.GetValue(col, row)), DumpCellValue(kept.GetValue(col, row)));
        }
    }
    EXPECT_EQ(files, 15);
}

TEST(OOCorpus, ValuesOtherReadersAssert) {
    if (!CorpusFile.Here()) GTEST_SKIP() << "the shared corpus is not here";
    auto issues = Load("issues.ods");
    const TSpreadSheets& sheets = issues->SpreadSheets();
    EXPECT_EQ(Rows(*issues, sheets.SheetIndexByName("datatypes")),
              "1 / 1.5 / ab / false / test / 2016-10-20");
    EXPECT_EQ(Rows(*issues, sheets.SheetIndexByName("issue2")), "1|a / 2|b / 3|c");
    EXPECT_EQ(Rows(*issues, sheets.SheetIndexByName("issue5")), "0.5");

    auto date = Load("date.ods");
    const TSpreadSheetCells& d = date->SpreadSheets().Spreadsheet(0).Cells();
    EXPECT_EQ(d.GetValue(0, 0).AsDateTime(), EncodeDate(2021, 1, 1));
    EXPECT_DOUBLE_EQ(d.GetValue(0, 1).AsDateTime(), EncodeDate(2021, 1, 1) + EncodeTime(10, 10, 10, 0));
    EXPECT_NEAR(d.GetValue(0, 2).AsDateTime(), (10 * 3600 + 10 * 60 + 10) / 86400.0, 1e-12);
    EXPECT_NEAR(d.GetValue(0, 3).AsDateTime(), (10 * 3600 + 10 * 60 + 10.123456) / 86400.0, 1e-12);
    EXPECT_EQ(date->SpreadSheets().Spreadsheet(0).Cells().Row(2)->Cols().GetCell(0)->CellType, ictTime);

    EXPECT_EQ(Rows(*Load("covered.ods"), 0), "a1 / a2 / a3");
    EXPECT_EQ(Rows(*Load("merged_cells.ods"), 0), "A|B|C / A|B|C / ||C");
    EXPECT_EQ(Rows(*Load("special_cells.ods"), 0),
              "Split\\r\\nLine / Value  With spaces / Value   With 3 spaces / "
              " Value   With spaces before and after  /   Value   With 2 spaces before and after  ");
    EXPECT_EQ(Rows(*Load("richtext_issue.ods"), 0), "abc");
    // Sheets 1 and 2 are sheet 0 after one and two empty rows.
    auto repeated = Load("number_rows_repeated.ods");
    const std::string rows = "A|B / C|D / C|D / | / | / C|D / | / C|D";
    EXPECT_EQ(Rows(*repeated, 0), rows);
    EXPECT_EQ(Rows(*repeated, 1), "| / " + rows);
    EXPECT_EQ(Rows(*repeated, 2), "| / | / " + rows);

    auto visibility = Load("any_sheets.ods");
    std::string shown;
    for (const TKvIOOSheetInfo& s : visibility->Sheets())
        shown += s.Name + (s.Hidden ? " hidden, " : " visible, ");
    EXPECT_EQ(shown, "Visible visible, Hidden hidden, VeryHidden hidden, Chart visible, ");

    auto crlf = Load("crlf.ods"), flat = Load("crlf.fods");
    EXPECT_EQ(Rows(*crlf, 0), "Normal|abc\\r\\nDef / Formula|abc\\r\\ndef / Test|");
    EXPECT_EQ(Rows(*flat, 0), Rows(*crlf, 0));
    EXPECT_TRUE(flat->IsFlat());

    auto epoch = Load("1904.ods");
    EXPECT_EQ(epoch->NullDate(), "1904-01-01");
    EXPECT_EQ(epoch->SpreadSheets().Spreadsheet(0).Cells().GetValue(1, 0).AsDateTime(),
              EncodeDate(1904, 1, 2));
    EXPECT_EQ(epoch->SummaryInformation().Author(), "Sheet");

    // The same workbook as the Excel corpus's SampleSS.
    auto sample = Load("SampleSS.ods");
    EXPECT_EQ(sample->SpreadSheets().Count(), 3);
}

TEST(OOCorpus, TwinsReadAsTheExcelReaderReadsThem) {
    if (!CorpusFile.Here()) GTEST_SKIP() << "the shared corpus is not here";
    // The same workbooks saved as .xls: every cell has the value and the type the Excel reader gives it,
    // dates the same date-times.
    for (const char* name : {"1904", "SampleSS"}) {
        SCOPED_TRACE(name);
        auto ods = Load(std::string(name) + ".ods");
        TMSExcel xls;
        xls.LoadFromFile(std::string(KV_SHARED_DIR "/corpus/xls/") + name + ".xls");
        ASSERT_EQ(ods->SpreadSheets().Count(), xls.SpreadSheets().Count());
        for (int s = 0; s < xls.SpreadSheets().Count(); ++s) {
            const TSpreadSheetCells& theirs = xls.SpreadSheets().Spreadsheet(s).Cells();
            const TSpreadSheetCells& ours = ods->SpreadSheets().Spreadsheet(s).Cells();
            EXPECT_EQ(ours.RowCount(), theirs.RowCount());
            EXPECT_EQ(ours.ColCount(), theirs.ColCount());
            for (int r = 0; r < theirs.Count(); ++r)
                for (int c = 0; theirs.Row(r) && c < theirs.Row(r)->Cols().Count(); ++c) {
                    const TKvICell* cell = theirs.Row(r)->Cols().GetCell(c);
                    const TKvICell* mine = ours.Row(r) ? ours.Row(r)->Cols().GetCell(c) : nullptr;
                    if (!cell) continue;
                    ASSERT_NE(mine, nullptr) << "row " << r << ", column " << c;
                    EXPECT_EQ(DumpCellValue(mine->Value), DumpCellValue(cell->Value));
                    EXPECT_EQ(mine->CellType, cell->CellType);
                }
        }
    }
}

} // namespace
} // namespace kv
