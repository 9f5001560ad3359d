// The mapping table alone: which lines it keeps, what it knows of each beforehand, where the keys stand.

#include "engine/KvIMappingTable.h"
#include "TestSupport.h"
#include "datasets/KvMemDataSet.h"

namespace kv {
namespace {

TKvIMappingHooks Hooks() {
    TKvIMappingHooks hooks;
    hooks.MakeParser = [](const std::string& text, std::exception_ptr& error) {
        return TKvIMappingTable::ParseOnce(text, nullptr, error);
    };
    hooks.IsWholeReference = [](std::string_view source) { return source.rfind("Text", 0) == 0; };
    hooks.IsPlainColumn = [](const std::string& name) { return name != "COUNTER"; };
    return hooks;
}

TEST(MappingTable, KeepsTheLinesWithASourceSide) {
    TKvMemDataSet dest;
    dest.AddFieldDef("ID", ftInteger);
    dest.AddFieldDef("NAME", ftString, 20);
    dest.Open();
    TStringList lines;
    for (const char* line : {"ID=[Cust No]", "NAME=UPPER(Name)", "EMPTY=", "no equals sign",
                             " EXTRA = COUNTER", "RANGE=Text1-10", "BAD=1 +* 2"})
        lines.Add(line);
    TKvIMappingTable table;
    table.Build(lines, &dest, Hooks());
    ASSERT_EQ(table.Count(), 5u);
    EXPECT_EQ(table.FieldNames(), "ID;NAME;EXTRA;RANGE;BAD");

    const TKvIMapEntry& id = table[0];
    EXPECT_EQ(id.FieldIndex, 0);
    EXPECT_TRUE(id.HostName);
    EXPECT_TRUE(id.PlainColumn);
    EXPECT_EQ(id.NameValue.AsString(), "Cust No"); // the brackets are no part of the column's name
    EXPECT_FALSE(table[1].HostName);               // an expression
    EXPECT_EQ(table[2].FieldIndex, -1);            // no such destination field
    EXPECT_TRUE(table[2].HostName);
    EXPECT_FALSE(table[2].PlainColumn); // the source said COUNTER is none of its columns
    EXPECT_TRUE(table[3].WholeReference);
    EXPECT_TRUE(table[4].ParseError != nullptr); // kept, to be raised for every row
}

TEST(MappingTable, KeysStandWhereTheirLinesStand) {
    TStringList lines;
    lines.Add("A=x");
    lines.Add("B=y");
    TKvIMappingTable table;
    table.SetKeys(" b ; missing;a");
    table.Build(lines, nullptr, Hooks());
    EXPECT_EQ(table.KeyNames(), (std::vector<std::string>{"b", "missing", "a"}));
    std::vector<Variant> keys;
    table.KeyValues({Variant(1), Variant("two")}, keys);
    ASSERT_EQ(keys.size(), 3u);
    EXPECT_EQ(keys[0].AsString(), "two");
    EXPECT_TRUE(keys[1].IsNull()); // no line fills it
    EXPECT_EQ(keys[2].AsInt64(), 1);
    table.SetKeys("A"); // keys set after the lines find their places too
    table.KeyValues({Variant(7), Variant(8)}, keys);
    ASSERT_EQ(keys.size(), 1u);
    EXPECT_EQ(keys[0].AsInt64(), 7);
    EXPECT_EQ(table.FieldItem("b"), 1);
    EXPECT_EQ(table.FieldItem("C"), -1);
}

TEST(MappingTable, NamesLoseOnePairOfQuotes) {
    for (auto [in, out] :
         {std::pair{"[a b]", "a b"}, {"\"q\"", "q"}, {"[\"both\"]", "both"}, {"[", "["}, {"x", "x"}}) {
        Variant v(in);
        TKvIMappingTable::UnquoteName(v);
        EXPECT_EQ(v.AsString(), out) << in;
    }
}

} // namespace
} // namespace kv
