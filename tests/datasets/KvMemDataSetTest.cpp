// The memory table's own behaviour, and the base dataset's rules whatever the storage (what every
// implementation does alike is in DataSetConformanceTest.cpp).

#include "datasets/KvMemDataSet.h"
#include "TestSupport.h"

namespace kv {
namespace {

using test::ErrorOf;

TEST(DataSet, AssignedValuesTakeTheFieldType) {
    const TDateTime noon = EncodeDateTime(2024, 2, 29, 12, 0, 0, 0);
    struct Case {
        TFieldType type;
        Variant value, expected;
        std::string error;
    } cases[] = {{ftInteger, "42", 42, ""},
                 {ftInteger, "abc", {}, "Could not convert variant of type (String) into type (Integer)"},
                 {ftInteger, 5000000000LL, 5000000000LL, ""}, // integer columns hold 64 bits
                 {ftSmallint,
                  40000,
                  {},
                  "40000 is not a valid value for field 'F'. The allowed range is -32768 to 32767"},
                 {ftWord, -1, {}, "-1 is not a valid value for field 'F'. The allowed range is 0 to 65535"},
                 {ftLargeint, "5000000000", 5000000000LL, ""},
                 {ftBoolean, "true", true, ""},
                 {ftFloat, 3, 3.0, ""},
                 {ftDate, Variant::FromDateTime(noon), Variant::FromDateTime(EncodeDate(2024, 2, 29)), ""},
                 {ftTime, Variant::FromDateTime(noon), Variant::FromDateTime(0.5), ""},
                 {ftDateTime, "x", {}, "Could not convert variant of type (String) into type (Date)"},
                 {ftString, 12, "12", ""},
                 {ftBlob, "ab", Variant::FromBytes("ab"), ""},
                 {ftInteger, Variant(), Variant::Null(), ""}};
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(FieldTypeName(c.type)) + " from " + c.value.AsString());
        TKvMemDataSet ds;
        ds.AddFieldDef("F", c.type);
        ds.Open();
        ds.Append();
        TField& f = ds.Fields(0);
        EXPECT_EQ(ErrorOf([&] { f.SetValue(c.value); }), c.error);
        // A failed assignment leaves the buffer as it was.
        EXPECT_TRUE(f.Value().Identical(c.error.empty() ? c.expected : Variant::Null())) << f.AsString();
    }
}

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
