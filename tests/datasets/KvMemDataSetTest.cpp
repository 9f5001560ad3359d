// The memory table's own behaviour: stored rows, automatic numbers, required fields and the post hook.

#include "datasets/KvMemDataSet.h"
#include "TestSupport.h"

namespace kv {
namespace {

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

TEST(KvMemDataSet, NumbersAutoIncFieldsAndChecksRequiredOnes) {
    TKvMemDataSet ds;
    ds.AddFieldDef("ID", ftAutoInc);
    ds.AddFieldDef("Name", ftString, 10, true);
    ds.AppendRecord({10, "a"}); // an explicit number moves the counter on
    ds.Open();
    ds.AppendRecord({Variant::Null(), "b"});
    EXPECT_EQ(ds.FieldByName("ID").Value().AsInteger(), 11); // the cursor is on the new row
    EXPECT_THROW(ds.AppendRecord({"x", "y"}), EVariantTypeCastError);
    EXPECT_EQ(ds.State(), dsBrowse); // all or nothing

    ds.Append();
    try {
        ds.Post();
        ADD_FAILURE() << "a Null required field was posted";
    } catch (const EDatabaseError& e) {
        EXPECT_STREQ(e.what(), "Field 'Name' must have a value");
    }
    ds.FieldByName("Name").SetValue("c");
    ds.Post();
    EXPECT_EQ(ds.Row(2)[0].AsInteger(), 12); // the failed post used no number
    ds.Edit();                               // an edit that leaves the required field alone is fine
    ds.FieldByName("ID").SetValue(99);
    ds.Post();
    ds.Edit();
    ds.FieldByName("Name").Clear();
    EXPECT_THROW(ds.Post(), EDatabaseError);
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

    EXPECT_FALSE(ds.PublishedProperty("TableName")); // published only when set
    ds.SetTableName("Customers");
    ds.SetIndexFieldName("Country;Code");
    EXPECT_EQ(ds.PublishedProperty("TableName"), "Customers");
    EXPECT_EQ(ds.PublishedProperty("IndexFieldName"), "Country;Code");
}

} // namespace
} // namespace kv
