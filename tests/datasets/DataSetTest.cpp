// The base dataset's rules that hold whatever the storage: values take the field's type when assigned.
// (What every implementation does alike is in DataSetConformanceTest.cpp.)

#include "TestSupport.h"
#include "datasets/KvMemDataSet.h"

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

} // namespace
} // namespace kv
