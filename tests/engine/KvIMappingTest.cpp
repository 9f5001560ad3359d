// Proposed mappings (by name, the unmatched, by position), the mapping table alone (which lines it keeps,
// what it knows of each beforehand, where the keys stand) and the lines a run computes with.

#include "EngineTestSupport.h"
#include "engine/KvIMappingTable.h"

namespace kv {
namespace {

class Mapping : public test::EngineFixture {
protected:
    void Destination(std::initializer_list<TFieldDef> defs) {
        dest.Close();
        dest.FieldDefs() = defs;
        dest.Open();
    }
    void Columns(std::initializer_list<std::pair<const char*, const char*>> names) {
        imp.Columns().Clear();
        for (auto [name, caption] : names) {
            TKvIColumn& c = imp.Columns().Add();
            c.FieldName = name;
            c.Caption = caption;
        }
    }
    std::vector<std::string> Lines() { return {imp.Mappings().begin(), imp.Mappings().end()}; }
};

TFieldDef Def(const char* name, bool readOnly = false, bool visible = true, const char* label = "") {
    TFieldDef d;
    d.Name = name;
    d.ReadOnly = readOnly;
    d.Visible = visible;
    d.DisplayLabel = label;
    return d;
}

TEST_F(Mapping, ByNameThenTheUnmatchedInPlace) {
    Destination({Def("ID"), Def("LAST NAME"), Def("CITY"), Def("SECRET", true), Def("HIDDEN", false, false),
                 Def("ZIP", false, true, "Postal code")});
    Columns({{"Last Name", ""}, {"id", ""}, {"Secret", ""}, {"Postal code", "Postal code"}, {"Extra", ""}});
    imp.Columns2Mapping();
    // The unmatched go in at their place among the eligible fields (CITY third, ZIP fourth).
    EXPECT_EQ(Lines(), (std::vector<std::string>{"LAST NAME=[Last Name]", "ID=id", "CITY=", "ZIP="}));

    imp.SetUseDisplayNames(true);
    imp.Columns2Mapping();
    EXPECT_EQ(Lines(),
              (std::vector<std::string>{"LAST NAME=[Last Name]", "ID=id", "CITY=", "ZIP=[Postal code]"}));
}

TEST_F(Mapping, BracketedAndQuotedColumnNames) {
    Destination({Def("FIRST NAME"), Def("SECOND ONE"), Def("THIRD")});
    Columns({{"[first name]", ""}, {"\"Second One\"", ""}, {"[third]", ""}});
    imp.Columns2Mapping();
    // Only names with a blank are compared in brackets or quotes; names that brackets cannot hold are
    // named by their number, so that the line reads back as the column.
    EXPECT_EQ(Lines(), (std::vector<std::string>{"FIRST NAME=Field1", "SECOND ONE=Field2", "THIRD="}));
}

TEST_F(Mapping, ByPositionWhenNoFieldCanTakeALine) {
    Destination({Def("A", true), Def("B", false, false)});
    Columns({{"x", ""}, {"y y", ""}, {"z", ""}});
    imp.Columns2Mapping();
    EXPECT_EQ(Lines(), (std::vector<std::string>{"A=x", "B=[y y]"}));
}

TEST_F(Mapping, ColumnNamesThatWouldReadAsExpressionsGoInBrackets) {
    // A column named "2019" is no number literal, nor "Qty-2" a subtraction: each is read as its column.
    source.Close();
    source.FieldDefs().clear();
    source.AddFieldDef("2019", ftString, 10);
    source.AddFieldDef("Qty-2", ftString, 10);
    source.AddFieldDef("Qty", ftString, 10);
    source.AddFieldDef("a.b", ftString, 10);
    source.AppendRecord({"2020", "5", "9", "x"});
    Destination({Def("2019"), Def("Qty-2"), Def("Qty"), Def("a.b")});
    imp.DescribeColumns();
    imp.Columns2Mapping();
    EXPECT_EQ(Lines(), (std::vector<std::string>{"2019=[2019]", "Qty-2=[Qty-2]", "Qty=Qty", "a.b=a.b"}));
    imp.Execute();
    EXPECT_EQ(DestRows(), std::vector<std::string>{"2020|5|9|x"});
}

TEST_F(Mapping, TwoColumnsMayMatchOneField) {
    Destination({Def("NAME")});
    Columns({{"name", ""}, {"NAME", ""}});
    imp.Columns2Mapping();
    EXPECT_EQ(Lines(), (std::vector<std::string>{"NAME=name", "NAME=NAME"}));
}

TEST_F(Mapping, LinesWithoutASourceSideLeaveTheFieldAlone) {
    dest.AppendRecord({1, "kept", 5.0});
    SourceRows({{1, "new", "9"}});
    imp.Mappings().Add("ID=ID");
    imp.Mappings().Add("NAME=");
    imp.Mappings().Add(" PRICE = PRICE * 2");
    imp.Mappings().Add("NOSUCHFIELD=NAME");
    imp.SetMode(imUpdate);
    imp.SetDatasetKeys("ID");
    imp.Execute();
    EXPECT_EQ(DestRows(), std::vector<std::string>{"1|kept|18"});
    EXPECT_EQ(imp.GetFieldItem("price"), 1);
    EXPECT_EQ(imp.GetFieldItem("NAME"), -1);
}

TEST_F(Mapping, AnExpressionThatDoesNotParseFailsEveryRow) {
    SourceRows({{1, "a", "1"}, {2, "b", "2"}});
    imp.Mappings().Add("NAME=UPPER(NAME");
    imp.Mappings().Add("ID=ID");
    std::vector<std::string> errors;
    imp.OnErrorEvent = [&](TObject*, const std::exception& e, bool& abort) {
        errors.push_back(e.what());
        abort = false;
    };
    imp.Execute();
    EXPECT_EQ(errors,
              (std::vector<std::string>{"Compile error: syntax fault.", "Compile error: syntax fault."}));
    EXPECT_EQ(dest.RowCount(), 0);
}

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
