// The base dataset's cursor, editing states and value conversions, seen through the memory table.

#include "TestSupport.h"
#include "datasets/KvMemDataSet.h"
#include "platform/SysUtils.h"

#include <functional>

namespace kv {
namespace {

using test::ErrorOf;

// ID, Name and Age, one row per name (ages 20, 21, ...).
void MakePeople(TKvMemDataSet& ds, const std::vector<std::string>& names) {
    ds.AddFieldDef("ID", ftAutoInc);
    ds.AddFieldDef("Name", ftString, 20);
    ds.AddFieldDef("Age", ftSmallint);
    int age = 20;
    for (const std::string& name : names) ds.AppendRecord({Variant::Null(), name, age++});
    ds.Open();
}

TEST(DataSet, EditStatesBufferValuesUntilPost) {
    TKvMemDataSet ds;
    MakePeople(ds, {"Ada"});
    TField& name = ds.FieldByName("name"); // names ignore case
    ds.Edit();
    EXPECT_EQ(ds.State(), dsEdit);
    EXPECT_EQ(name.AsString(), "Ada"); // not assigned yet: the record's value
    name.SetValue("Bob");
    EXPECT_EQ(name.AsString(), "Bob");
    ds.Cancel();
    EXPECT_EQ(name.AsString(), "Ada");

    ds.Append();
    EXPECT_TRUE(name.IsNull());
    name.SetValue("Cy");
    ds.Next(); // moving posts the edit first
    EXPECT_EQ(ds.State(), dsBrowse);
    EXPECT_EQ(ds.Row(1)[1].AsString(), "Cy");

    ds.Close();
    EXPECT_EQ(ErrorOf([&] { ds.First(); }), "Cannot perform this operation on a closed dataset");

    TKvMemDataSet empty;
    MakePeople(empty, {});
    empty.Edit(); // nothing to edit: a new record
    EXPECT_EQ(empty.State(), dsInsert);
    empty.Cancel();
    EXPECT_EQ(ErrorOf([&] { empty.Delete(); }), "Cannot perform this operation on an empty dataset");
}

TEST(DataSet, ErrorsNameTheFieldAndTheDataSet) {
    TKvMemDataSet ds;
    MakePeople(ds, {"Ada"});
    EXPECT_EQ(ErrorOf([&] { ds.FieldByName("Nope"); }), "Field 'Nope' not found");
    EXPECT_EQ(ErrorOf([&] { ds.FieldByName("Name").SetValue("x"); }), "Dataset not in edit or insert mode");
    ds.SetName("People");
    EXPECT_EQ(ErrorOf([&] { ds.FieldByName("Nope"); }), "People: Field 'Nope' not found");
    EXPECT_EQ(ErrorOf([&] { ds.FieldByName("Name").SetValue("x"); }),
              "People: Dataset not in edit or insert mode");
}

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

TEST(DataSet, DeleteMovesToTheNextRecordOrBackFromTheEnd) {
    TKvMemDataSet ds;
    MakePeople(ds, {"Ada", "Bob", "Cy"});
    ds.Next();
    ds.Delete();
    EXPECT_EQ(ds.FieldByName("Name").AsString(), "Cy");
    EXPECT_FALSE(ds.Eof());
    ds.Delete();
    EXPECT_EQ(ds.FieldByName("Name").AsString(), "Ada");
    EXPECT_TRUE(ds.Eof());
    ds.Delete();
    EXPECT_TRUE(ds.IsEmpty());
}

TEST(DataSet, LocateFindsTheFirstMatchAndStaysPutOtherwise) {
    TKvMemDataSet ds;
    MakePeople(ds, {"Ada", "Bob", "bobby", "Bob"});
    ds.AppendRecord({Variant::Null(), Variant::Null(), 30});
    const auto keys = [](Variant a, Variant b) { return Variant::FromArray({a, b}); };
    struct Case {
        std::string fields;
        Variant values;
        TLocateOptions options;
        int expectedId; // 0: not found
    } cases[] = {{"Name", "Bob", {}, 2},
                 {"name ; AGE", keys("Bob", 23), {}, 4},
                 {"Age", "22", {}, 3},
                 {"Name", "BOBBY", {}, 0},
                 {"Name", "BOBBY", {loCaseInsensitive}, 3},
                 {"Name", "bo", {loPartialKey}, 3},
                 {"Name", "BO", {loPartialKey, loCaseInsensitive}, 2},
                 {"Name", Variant::Null(), {}, 5},
                 {"Name;Age", Variant::FromArray({"Bob"}), {}, 0}}; // a missing value is Null
    for (const Case& c : cases) {
        SCOPED_TRACE(c.fields + " -> " + IntToStr(c.expectedId));
        ds.First();
        ds.Next();
        EXPECT_EQ(ds.Locate(c.fields, c.values, c.options), c.expectedId != 0);
        EXPECT_EQ(ds.FieldByName("ID").Value().AsInteger(), c.expectedId ? c.expectedId : 2);
    }
    EXPECT_THROW(ds.Locate("Nope", 1, {}), EDatabaseError);
}

} // namespace
} // namespace kv
