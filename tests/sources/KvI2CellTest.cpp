#include "sources/KvI2Cell.h"
#include "TestSupport.h"
#include "engine/EngineTestSupport.h"
#include "platform/StringList.h"
#include "support/FakeCellReader.h"

namespace kv {
namespace {

/// A cell source over a reader made in code.
class FakeCellSource : public TKvImportFromCell {
public:
    using TKvImportFromCell::TKvImportFromCell;
    std::function<std::unique_ptr<test::FakeCellReader>()> Make;
    int AfterLoads = 0; ///< of the readers made so far (a reader is freed with its run)

protected:
    std::unique_ptr<TSpreadSheetFile> WorkBookCreation() override {
        auto reader = Make();
        reader->AfterLoadCounter = &AfterLoads;
        return reader;
    }
};

class CellSource : public ::testing::Test {
protected:
    CellSource() {
        dest.AddFieldDef("NAME", ftString, 20);
        dest.AddFieldDef("QTY", ftInteger);
        source.SetAnimatedStatus(false);
        source.SetDataSet(&dest);
        test::WriteFile(dir.File("book"), "");
        source.SetSourceFileName(dir.File("book"));
    }
    std::vector<std::string> Rows() const { return test::RowLines(dest); }

    TComponent root;
    TKvMemDataSet& dest = *new TKvMemDataSet(&root);
    FakeCellSource& source = *new FakeCellSource(&root);
    test::TempDir dir;
};

std::vector<test::FakeCell> Grid(const std::vector<std::vector<Variant>>& rows) {
    std::vector<test::FakeCell> cells;
    for (size_t r = 0; r < rows.size(); ++r)
        for (size_t c = 0; c < rows[r].size(); ++c)
            cells.push_back({static_cast<int>(r), static_cast<int>(c), rows[r][c],
                             rows[r][c].IsString() ? ictString : ictInteger});
    return cells;
}

TEST_F(CellSource, ASheetIsReadByLettersFromRowFirst) {
    source.Make = [] {
        return std::make_unique<test::FakeCellReader>(
            std::vector<test::FakeSheet>{{"Other", Grid({{Variant("no"), Variant(0)}})},
                                         {"Data", Grid({{Variant("NAME"), Variant("QTY")},
                                                        {Variant("a"), Variant(1)},
                                                        {Variant("b"), Variant(2)},
                                                        {Variant("c"), Variant(3)}})}});
    };
    source.Mappings().Add("NAME=A");
    source.Mappings().Add("QTY=B");
    source.SetSheetName("Data");
    source.SetRowFirst(3); // the stored row of index 2
    source.Execute();
    EXPECT_EQ(Rows(), (std::vector<std::string>{"b|2", "c|3"}));
    EXPECT_EQ(source.SheetIndex(), 1);
    EXPECT_EQ(source.AfterLoads, 1);
}

TEST_F(CellSource, CaptionsNameColumnsAndMappingsUseLetters) {
    source.Make = [] {
        return std::make_unique<test::FakeCellReader>(
            std::vector<test::FakeSheet>{{"S", Grid({{Variant("Qty"), Variant(""), Variant("Name")},
                                                     {Variant(4), Variant("x"), Variant("d")}})}});
    };
    source.DescribeColumns();
    ASSERT_EQ(source.Columns().Count(), 3);
    EXPECT_EQ(source.Columns().Columns(0).FieldName, "Qty");
    EXPECT_EQ(source.Columns().Columns(0).DataType, itInteger);
    EXPECT_EQ(source.Columns().Columns(1).FieldName, "B"); // no caption: its letters
    source.SetRowFirst(2);
    source.Execute(); // mapped by captions, read by letters
    EXPECT_EQ(Rows(), (std::vector<std::string>{"d|4"}));
}

TEST_F(CellSource, AnEmptySheetOrAnUnknownNameEndsTheRunAtOnce) {
    source.Make = [] {
        return std::make_unique<test::FakeCellReader>(std::vector<test::FakeSheet>{{"S", {}}});
    };
    source.Mappings().Add("NAME=A");
    source.Execute();
    EXPECT_EQ(dest.RowCount(), 0);
    EXPECT_EQ(source.AfterLoads, 1);
    source.SetSheetName("Missing");
    source.Execute();
    EXPECT_EQ(source.SheetIndex(), -1);
    EXPECT_EQ(dest.RowCount(), 0);
}

TEST_F(CellSource, ANameThatIsNoColumnIsAConstant) {
    source.Make = [] {
        return std::make_unique<test::FakeCellReader>(
            std::vector<test::FakeSheet>{{"S", Grid({{Variant(7)}})}});
    };
    source.Mappings().Add("NAME=HELLO");
    source.Mappings().Add("QTY=A");
    source.Execute();
    EXPECT_EQ(Rows(), (std::vector<std::string>{"HELLO|7"}));
}

std::vector<TKvIDeclaredField> NameAndQty() {
    return {{"Name", ictString, 10, 0, "String"}, {"Qty", ictInteger, 4, 0, "Number"}};
}

TEST_F(CellSource, ARecordReaderIsReadRecordByRecordAndFieldsByName) {
    source.Make = [] {
        return std::make_unique<test::FakeCellReader>(
            std::vector<test::FakeSheet>{{"T", Grid({{Variant("a"), Variant(1)},
                                                     {Variant("deleted"), Variant(2)},
                                                     {Variant("c")},
                                                     {Variant("d"), Variant(4)}})}},
            true, NameAndQty());
    };
    source.Mappings().Add("NAME=name");
    source.Mappings().Add("QTY=QTY");
    source.Execute();
    // The deleted record is skipped; a value the next record lacks is not carried over from the last.
    EXPECT_EQ(Rows(), (std::vector<std::string>{"a|1", "c|null", "d|4"}));
    EXPECT_EQ(source.Statistic().TotalSkipped, 1);
    EXPECT_EQ(source.Statistic().TotalCount, 4);

    dest.EmptyTable();
    source.SetRowFirst(3); // records are skipped, not renumbered
    source.SetLoadRowStatutes({rsNormal, rsDeleted});
    source.Execute();
    EXPECT_EQ(Rows(), (std::vector<std::string>{"c|null", "d|4"}));

    source.DescribeColumns();
    ASSERT_EQ(source.Columns().Count(), 2);
    EXPECT_EQ(source.Columns().Columns(1).DataType, itInteger);
    EXPECT_EQ(source.Columns().Columns(1).Alignment, taRightJustify);
}

TEST(CellSourceSettings, SheetIndexAndNameGoToSpecificationFiles) {
    FakeCellSource source;
    source.SetSheetName("Q3 figures");
    EXPECT_EQ(source.SheetIndex(), -1);
    TStringStream saved;
    source.SaveSpecificationToStream(saved, "d");
    FakeCellSource again;
    TStringList lines;
    lines.SetText(saved.DataString());
    again.LoadSpecificationFromStrings(lines);
    EXPECT_EQ(again.SheetName(), "Q3 figures");
    EXPECT_EQ(again.SheetIndex(), -1);
    again.SetSheetIndex(2);
    EXPECT_EQ(again.SheetName(), "");
    EXPECT_EQ(KvICellType2KvIDataType(ictDate), itString); // date-only cells stay text
    EXPECT_EQ(KvICellType2KvIDataType(ictMemo), itMEMO);
}

} // namespace
} // namespace kv
