#include "cells/KvCells.h"
#include "TestSupport.h"
#include "support/FakeCellReader.h"

#include <cmath>
#include <limits>

namespace kv {
namespace {

TEST(CellNames, ColumnIdsKeepTheirWeighting) {
    struct Case {
        const char* Name;
        int MaxCol, Expected;
    } cases[] = {
        {"A", 512, 0},
        {"z", 512, 25},
        {"AA", 512, 26},
        {"ab", 512, 27},
        {"IV", 512, 255},
        {"", 512, 0},
        {"", 0, -1},
        {"A1", 512, -1},
        {"Ä", 512, -1},
        {"AAA", 512, -1},
        {"AAA", 5000, 1404}, // the weight grows with the position:
                             // not 702
        {"C", 2, -1},
        {"B", 2, 1},
    };
    for (const Case& c : cases) EXPECT_EQ(GetSpreadSheetColID(c.Name, c.MaxCol), c.Expected) << c.Name;
    for (auto [number, name] :
         {std::pair{1, "A"}, {26, "Z"}, {27, "AA"}, {28, "AB"}, {702, "ZZ"}, {703, "AAA"}})
        EXPECT_EQ(GetSpreadSheetColByID(number), name);
    EXPECT_EQ(GetSpreadSheetColByID(0), "");
    EXPECT_EQ(GetSpreadSheetColByID(-3), "");
}

TEST(CellNames, ReferencesKeepTheRowDigitsAsTheyStand) {
    int col = 0, row = 0;
    ParseCellReference("B2", col, row);
    EXPECT_EQ(col, 1);
    EXPECT_EQ(row, 2);
    ParseCellReference("c", col, row);
    EXPECT_EQ(col, 2);
    EXPECT_EQ(row, -1);
    ParseCellReference("B2x", col, row);
    EXPECT_EQ(row, -1);
}

TEST(SpreadSheetCells, ANullValueLeavesNoTrace) {
    TSpreadSheetCells cells;
    cells.SetValue(3, 4, Variant::Null(), taLeftJustify, 0, ictString);
    cells.SetValue(3, 4, Variant(), taLeftJustify, 0, ictString);
    EXPECT_EQ(cells.Count(), 0);
    EXPECT_EQ(cells.RowCount(), 0);
    cells.SetValue(2, 1, Variant("x"), taRightJustify, 7, ictString);
    EXPECT_EQ(cells.Count(), 2); // rows are never holes
    EXPECT_EQ(cells.RowCount(), 2);
    EXPECT_EQ(cells.ColCount(), 3);
    EXPECT_EQ(cells.Row(1)->Cols().GetCell(2)->FormatIndex, 7);
    EXPECT_EQ(cells.Row(1)->Cols().GetCell(1), nullptr);
    EXPECT_EQ(cells.Row(1)->Cols().GetCell(-1), nullptr);
    EXPECT_TRUE(cells.GetValue(0, 9).IsNull());
    EXPECT_EQ(cells.ValueByCell("C1").AsString(), "x");
}

TEST(SpreadSheetCells, AnnouncedDimensionsCountOnlyWithoutAutomaticDimensions) {
    TSpreadSheetCells cells;
    cells.Announce(10, 20);
    cells.SetValue(1, 1, Variant(1), taLeftJustify, 0, ictInteger);
    EXPECT_EQ(cells.ColCount(), 2);
    EXPECT_EQ(cells.LastCol(), 10);
    cells.SetAutoDimensions(false);
    cells.Announce(10, 20);
    cells.SetValue(30, 30, Variant(1), taLeftJustify, 0, ictInteger);
    EXPECT_EQ(cells.ColCount(), 10);
    EXPECT_EQ(cells.RowCount(), 20);
}

TEST(SpreadSheetCells, RangesSortingAndPlainText) {
    TSpreadSheetCells cells;
    cells.SetValue(0, 0, Variant(3), taLeftJustify, 0, ictInteger);
    cells.SetValue(1, 0, Variant(true), taLeftJustify, 0, ictBoolean);
    cells.SetValue(0, 2, Variant(1), taLeftJustify, 0, ictInteger);
    cells.SetValue(1, 1, Variant("b"), taLeftJustify, 0, ictString); // row 1 has no cell in column 0

    const Variant range = cells.ValueByRange("A0:B2");
    ASSERT_TRUE(range.IsArray());
    ASSERT_EQ(range.ItemCount(), 3u);
    EXPECT_EQ(range.Items()[0].Items()[0].AsInteger(), 3);
    const Variant column = cells.ValueByRange("A0:A2");
    EXPECT_EQ(column.Items()[2].AsInteger(), 1); // one column: bare values
    EXPECT_TRUE(cells.ValueByRange("A1").IsNull());
    EXPECT_TRUE(cells.ValueByRange("B2:A1").IsNull());

    TSpreadSheet sheet;
    sheet.Cells().SetValue(0, 0, Variant(true), taLeftJustify, 0, ictBoolean);
    sheet.Cells().SetValue(1, 0, Variant("x"), taLeftJustify, 0, ictString);
    EXPECT_EQ(sheet.PlainText(), "\tTrue\tx\t\r\n\t\t\t\r\n");

    cells.SortByColumn(0, false);
    EXPECT_EQ(cells.Row(0)->LoadPosition(), 1); // without a cell: first
    EXPECT_EQ(cells.Row(1)->LoadPosition(), 2);
    cells.SortByColumn(0, true);
    EXPECT_EQ(cells.Row(0)->LoadPosition(), 0);
    cells.ClearSort();
    for (int i = 0; i < 3; ++i) EXPECT_EQ(cells.Row(i)->LoadPosition(), i);
}

TEST(SpreadSheetRow, ClearValuesKeepsTheCellsAndTheirTypes) {
    TSpreadSheetRow row;
    row.Cols().SetCell(2, {Variant(5), taRightJustify, 4, ictInteger});
    row.ClearValues();
    const TKvICell* cell = row.Cols().GetCell(2);
    ASSERT_NE(cell, nullptr);
    EXPECT_TRUE(cell->Value.IsNull());
    EXPECT_EQ(cell->Alignment, taLeftJustify);
    EXPECT_EQ(cell->FormatIndex, -1);
    EXPECT_EQ(cell->CellType, ictInteger);
}

TEST(SpreadSheets, SheetsAreMadeOnDemandAndFoundByExactName) {
    TSpreadSheets sheets;
    sheets.Spreadsheet(5);
    ASSERT_EQ(sheets.Count(), 6);
    EXPECT_EQ(sheets.Spreadsheet(0).Name(), "Sheet1");
    EXPECT_EQ(sheets.Spreadsheet(-2).Name(), "Sheet1");
    EXPECT_EQ(sheets.Spreadsheet(5).Name(), "Sheet6");
    EXPECT_EQ(sheets.SheetIndexByName("Sheet3"), 2);
    EXPECT_EQ(sheets.SheetIndexByName("sheet3"), -1);
    EXPECT_EQ(sheets.SheetByName("nope"), nullptr);
}

std::vector<test::FakeSheet> ThreeSheets() {
    return {{"One", {{0, 0, Variant("a")}}, 300},
            {"Two", {{0, 0, Variant("b")}}, -1},
            {"Three", {{1, 1, Variant("c")}, {0, 20, Variant("far")}}, -1}};
}

TEST(SpreadSheetFile, StoresWhatTheApplicationLeavesUnhandled) {
    test::FakeCellReader reader(ThreeSheets());
    TKvRange range;
    range.LastCol = 10;
    reader.SetLoadRange(range);
    reader.SetSheetFilter(2);
    TMemoryStream none;
    reader.LoadFromStream(none);
    const TSpreadSheets& sheets = reader.SpreadSheets();
    ASSERT_EQ(sheets.Count(), 3); // skipped sheets keep their numbers
    EXPECT_EQ(const_cast<TSpreadSheets&>(sheets).Spreadsheet(0).Cells().Count(), 0);
    const TSpreadSheetCells& third = const_cast<TSpreadSheets&>(sheets).Spreadsheet(2).Cells();
    EXPECT_EQ(const_cast<TSpreadSheets&>(sheets).Spreadsheet(2).Name(), "Three");
    EXPECT_EQ(third.GetValue(1, 1).AsString(), "c");
    EXPECT_EQ(third.ColCount(), 2); // column 20 is beyond the load range

    test::FakeCellReader all(ThreeSheets());
    all.SetLoadRange(range);
    all.LoadFromStream(none);
    EXPECT_EQ(all.SpreadSheets().Spreadsheet(0).Cells().LastCol(), 10); // 300 announced, cut to the range
}

TEST(SpreadSheetFile, AnOwnCellHandlerGetsEveryCellAndNothingIsStored) {
    test::FakeCellReader reader(ThreeSheets());
    std::vector<std::string> seen;
    reader.OnCellValue = [&](TObject*, int sheet, int row, int col, int32_t, const Variant& value, TAlignment,
                             TKvICellType) {
        seen.push_back(std::to_string(sheet) + ":" + std::to_string(row) + "," + std::to_string(col) + "=" +
                       value.AsString());
    };
    TMemoryStream none;
    reader.LoadFromStream(none);
    EXPECT_EQ(seen, (std::vector<std::string>{"0:0,0=a", "1:0,0=b", "2:1,1=c", "2:0,20=far"}));
    for (int s = 0; s < reader.SpreadSheets().Count(); ++s)
        EXPECT_EQ(reader.SpreadSheets().Spreadsheet(s).Cells().Count(), 0);
}

TEST(SpreadSheetFile, LoadFromFileChecksTheNameFirst) {
    test::FakeCellReader reader({});
    for (auto [name, message] :
         {std::pair{"  ", "File is not defined."}, {"no/such/file.xls", "File does not exist."}}) {
        try {
            reader.LoadFromFile(name);
            ADD_FAILURE() << name;
        } catch (const Exception& e) {
            EXPECT_STREQ(e.what(), message);
        }
    }
    int64_t last = -1;
    reader.ProgressCallback = [&](int64_t position, int64_t) { last = position; };
    reader.UpdateProgress(7, 10);
    EXPECT_EQ(last, 7);
}

TEST(CellHelpers, JulianDaysAndNumbers) {
    // 2000-01-01 is Julian day 2451545.
    EXPECT_EQ(Julian2DMY(2451545), EncodeDate(2000, 1, 1));
    EXPECT_DOUBLE_EQ(DMY2Julian(EncodeDate(2000, 1, 1) + 0.75), 2451545 - 0.5 + 0.75);
    for (int64_t day : {2299161, 2415021, 2460000})
        EXPECT_EQ(std::llround(DMY2Julian(Julian2DMY(day)) + 0.5), day);
    EXPECT_TRUE(IsNan(std::numeric_limits<double>::quiet_NaN()));
    EXPECT_FALSE(IsNan(std::numeric_limits<double>::infinity()));
    EXPECT_FALSE(IsNan(1.5));
    EXPECT_DOUBLE_EQ(BCDToCurr(std::string("\x12\x34\x5C", 3), 2), 123.45);
    EXPECT_DOUBLE_EQ(BCDToCurr(std::string("\x12\x34\x5D", 3), 2), -123.45);
}

} // namespace
} // namespace kv
