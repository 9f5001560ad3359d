// The memory table's own behaviour: rows stored while closed, the post hook, its own messages.

#include "datasets/KvMemDataSet.h"
#include "TestSupport.h"

namespace kv {
namespace {

using test::ErrorOf;

TEST(KvMemDataSet, BeforePostCanFailOneRowAndTheNextStillGoesIn) {
    TKvMemDataSet ds;
    ds.AddFieldDef("Code", ftInteger);
    ds.Open();
    std::vector<Variant> seen;
    ds.BeforePost = [&](bool inserting, const std::vector<Variant>& values) {
        EXPECT_TRUE(inserting);
        seen.push_back(values[0]);
        if (seen.size() == 2) throw EDatabaseError("injected");
    };
    for (int code = 1; code <= 3; ++code) {
        ds.Append();
        ds.Fields(0).SetValue(code);
        try {
            ds.Post();
        } catch (const EDatabaseError& e) {
            EXPECT_STREQ(e.what(), "injected");
            EXPECT_EQ(ds.State(), dsInsert); // the failed row is still being edited until the caller drops it
            ds.Cancel();
        }
    }
    ASSERT_EQ(ds.RowCount(), 2);
    EXPECT_EQ(ds.Row(1)[0].AsInteger(), 3);
    ASSERT_EQ(seen.size(), 3u);
    EXPECT_TRUE(seen[1].Identical(Variant(2))); // the hook sees converted values

    ds.BeforePost = [](bool inserting, const std::vector<Variant>&) { EXPECT_FALSE(inserting); };
    ds.Edit();
    ds.Fields(0).SetValue(30);
    ds.Post();
    EXPECT_EQ(ds.Row(1)[0].AsInteger(), 30);
}

TEST(KvMemDataSet, AppendRecordIsAllOrNothingAndAFailedPostUsesNoNumber) {
    TKvMemDataSet ds;
    ds.AddFieldDef("ID", ftAutoInc);
    ds.AddFieldDef("Name", ftString, 10, true);
    ds.AppendRecord({10, "a"}); // stored directly, and still moves the counter on
    ds.Open();
    EXPECT_THROW(ds.AppendRecord({"x", "y"}), EVariantTypeCastError);
    EXPECT_EQ(ds.State(), dsBrowse);
    EXPECT_EQ(ds.RowCount(), 1);

    ds.Append();
    EXPECT_EQ(ErrorOf([&] { ds.Post(); }), "Field 'Name' must have a value");
    ds.FieldByName("Name").SetValue("c");
    ds.Post();
    EXPECT_EQ(ds.Row(1)[0].AsInteger(), 11);
}

TEST(KvMemDataSet, RowsAreStoredConvertedAndOutliveClose) {
    TKvMemDataSet ds;
    ds.AddFieldDef("N", ftInteger);
    ds.AddFieldDef("D", ftDate);
    ds.AppendRecord({"7", Variant::FromDateTime(EncodeDateTime(2024, 1, 2, 3, 4, 5, 0))});
    ds.AppendRecord({8}); // missing values are Null
    EXPECT_TRUE(ds.Row(0)[0].Identical(Variant(7)));
    EXPECT_TRUE(ds.Row(0)[1].Identical(Variant::FromDateTime(EncodeDate(2024, 1, 2))));
    EXPECT_TRUE(ds.Row(1)[1].IsNull());
    EXPECT_THROW(ds.Row(2), EListError);

    ds.Open();
    ds.Close();
    ds.AddFieldDef("Extra", ftString); // rows grow to the new definitions at the next Open
    ds.Open();
    EXPECT_EQ(ds.RecordCount(), 2);
    EXPECT_TRUE(ds.FieldByName("Extra").IsNull());
    ds.EmptyTable();
    EXPECT_TRUE(ds.IsEmpty());
}

} // namespace
} // namespace kv
