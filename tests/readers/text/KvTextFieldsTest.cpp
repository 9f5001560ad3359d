// Splitting records into fields, column references and their values, column names.

#include "readers/text/KvTextFields.h"
#include "TestSupport.h"

namespace kv {
namespace {

TEST(TextFields, SplitsByTheWalk) {
    struct Case {
        const char* Line;
        std::vector<std::string> Values;        // post-processed
        std::vector<TKvTextFieldPos> Positions; // characters
        char32_t Delimiter = U',', Qualifier = U'"';
    };
    const Case cases[] = {
        {"a,,b", {"a", "", "b"}, {{1, 1}, {4, 2}, {4, 4}}},
        {"a,b,", {"a", "b", ""}, {{1, 1}, {3, 3}, {5, 4}}},
        {"\"x,y\",z", {"x,y", "z"}, {{2, 4}, {7, 7}}},
        {"\"a\"\"b\"", {"a\"b"}, {{2, 5}}},
        {"", {}, {}},
        {",", {"", ""}, {{2, 0}, {2, 1}}},
        {",a", {"", "a"}, {{2, 0}, {2, 2}}},
        {"a,\"\"", {"a", ""}, {{1, 1}, {4, 3}}},
        {"\"", {""}, {{2, 0}}},
        {"ab\"", {"ab"}, {{1, 2}}},                             // a closing qualifier alone is dropped
        {"ab\"c,d", {"ab\"c,d"}, {{1, 6}}},                     // and a stray one opens a section
        {"\"a,b", {"a,b"}, {{2, 4}}},                           // unterminated
        {"\"a,", {"a", ""}, {{2, 2}, {4, 3}}},                  // the last delimiter counts even inside
        {"\"a\"\"\"\"b\"", {"a\"b"}, {{2, 7}}},                 // a run of qualifiers becomes one
        {"\"a,b\"", {"\"a", "b\""}, {{1, 2}, {4, 5}}, U',', 0}, // no qualifier
        {"\"a,b\"", {"a,b"}, {{2, 4}}, 0},                      // no delimiter
        {"abc", {"abc"}, {{1, 3}}, 0, 0},
        {"a\tb\t", {"a", "b", ""}, {{1, 1}, {3, 3}, {5, 4}}, U'\t'},
        {"'it''s';x", {"it's", "x"}, {{2, 6}, {9, 9}}, U';', U'\''},
        {"é,\"ü,x\",€", {"é", "ü,x", "€"}, {{1, 1}, {4, 6}, {9, 9}}},
        {"a§\"b§c\"§é", {"a", "b§c", "é"}, {{1, 1}, {4, 6}, {9, 9}}, U'§'},
        {"«a,b«,c", {"a,b", "c"}, {{2, 4}, {7, 7}}, U',', U'«'},
        {"a§", {"a", ""}, {{1, 1}, {3, 2}}, U'§', 0},
        // Blanks before an opening and after a closing qualifier are layout.
        {"a, \"b, c\",d", {"a", "b, c", "d"}, {{1, 1}, {5, 8}, {11, 11}}},
        {"a,\t \"b\"  \t,d", {"a", "b", "d"}, {{1, 1}, {6, 6}, {12, 12}}},
        {"1, \"\", 2", {"1", "", " 2"}, {{1, 1}, {5, 4}, {7, 8}}},
        {"a, b ,c", {"a", " b ", "c"}, {{1, 1}, {3, 5}, {7, 7}}},           // no qualifier: kept
        {"a, \" b \" ", {"a", " b "}, {{1, 1}, {5, 7}}},                    // inside: kept
        {"a, \"b  ", {"a", "b  "}, {{1, 1}, {5, 7}}},                       // unterminated: kept
        {"x \"y\" z", {"x \"y\" z"}, {{1, 7}}},                             // not at the start
        {"a \"b c\" d", {"a", "b c", "d"}, {{1, 1}, {4, 6}, {9, 9}}, U' '}, // blank delimiter
        {"a;  «b;c« ;d", {"a", "b;c", "d"}, {{1, 1}, {6, 8}, {12, 12}}, U';', U'«'},
        // Past sixteen bytes, where the walk looks at many at a time.
        {"\"0123456789abcdefghij\",\"x\"\"y\"", {"0123456789abcdefghij", "x\"y"}, {{2, 21}, {25, 28}}},
        {"0123456789abcdefg,0123456789abcdef\"",
         {"0123456789abcdefg", "0123456789abcdef"},
         {{1, 17}, {19, 34}}},
        {"a\"\"b,c", {"a\"b", "c"}, {{1, 4}, {6, 6}}},
        {"\"a\" x,c", {"a\" x", "c"}, {{2, 5}, {7, 7}}},
        {"a|b|c", {"a|b", "c"}, {{1, 3}, {5, 5}}, U'|', U'|'}, // one character for both
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.Line);
        TKvTextFields fields;
        fields.SetDelimiter(c.Delimiter);
        fields.SetQualifier(c.Qualifier);
        fields.SetLine(c.Line);
        std::vector<std::string> values;
        std::vector<TKvTextFieldPos> positions;
        for (int i = 1; i <= fields.Count(); ++i) {
            values.push_back(fields.FieldValue(i));
            positions.push_back(fields.Position(i));
            // The walk tells which values hold a qualifier; collapsing every one must change nothing.
            EXPECT_EQ(values.back(), PostProcessTextValue(fields.RawField(i), c.Delimiter, c.Qualifier)) << i;
        }
        EXPECT_EQ(values, c.Values);
        EXPECT_EQ(positions, c.Positions);
        EXPECT_EQ(SplitTextFieldPositions(c.Line, c.Delimiter, c.Qualifier), c.Positions);
    }
}

TEST(TextFields, ResolvesReferences) {
    TKvTextFields fields;
    fields.SetDelimiter(U',');
    fields.SetLine("10,\"Smith, J\",x\"\"y,");
    ASSERT_EQ(fields.Count(), 4);
    EXPECT_TRUE(fields.Qualified(2));
    EXPECT_FALSE(fields.Qualified(1));
    EXPECT_EQ(fields.RawField(3), "x\"\"y");
    // Beyond the fields a value is empty; what is no reference (character positions too, outside
    // fixed-width mode) is a constant, post-processed like a value.
    const std::pair<const char*, const char*> delimited[] = {
        {"Field1", "10"},       {"Field2", "Smith, J"},  {"Field3", "x\"y"},     {"Field4", ""},
        {"Field5", ""},         {"Field0", ""},          {"Field2a", "Field2a"}, {"field1", "field1"},
        {"Text1-3", "Text1-3"}, {"'const',", "'const'"}, {"a\"\"b", "a\"b"},     {"", ""}};
    for (const auto& [ref, value] : delimited) EXPECT_EQ(fields.GetFieldValue(ref), value) << ref;
    EXPECT_EQ(fields.GetFieldValue("Text"), "10,\"Smith, J\",x\"y"); // the whole line, post-processed
    EXPECT_EQ(fields.GetFieldValue("Field99999999999999999999"), "");

    fields.SetFixedWidth(true);
    fields.SetLine("ABCéDEFGH");
    EXPECT_EQ(fields.Count(), 0);
    // Without an end the value is empty, without a start the reference is a constant.
    const std::pair<const char*, const char*> fixed[] = {
        {"Text", "ABCéDEFGH"}, {"Text1-3", "ABC"},     {"Text4-4", "é"},     {"Text3-5", "CéD"},
        {"Text8-20", "GH"},    {"Text20-30", ""},      {"Text3-1", ""},      {"Text5-x", ""},
        {"Text5", ""},         {"Text0-3", "Text0-3"}, {"Text-3", "Text-3"}, {"Textual", "Textual"},
        {"Field1", ""}};
    for (const auto& [ref, value] : fixed) EXPECT_EQ(fields.GetFieldValue(ref), value) << ref;
    fields.SetLine("AB");
    EXPECT_EQ(fields.GetFieldValue("Text2-9"), "B");

    // The words come from the translated messages.
    fields.SetFixedWidth(false);
    fields.SetFieldWord("Feld");
    fields.SetTextWord("Zeile");
    fields.SetLine("a,b");
    EXPECT_EQ(fields.GetFieldValue("Feld2"), "b");
    EXPECT_EQ(fields.GetFieldValue("Field2"), "Field2");
    EXPECT_EQ(fields.GetFieldValue("Zeile"), "a,b");
    EXPECT_EQ(fields.GetFieldValue("Text"), "Text");

    // A parsed reference is reused for every record.
    const TKvTextRef ref = fields.ParseReference("Feld1");
    std::string value;
    for (const char* line : {"x,y", "", "z"}) {
        fields.SetLine(line);
        fields.GetValue(ref, value);
        EXPECT_EQ(value, std::string(line).substr(0, 1));
    }
}

// One trailing delimiter goes first, then any run of qualifiers becomes one.
TEST(TextFields, PostProcessing) {
    const auto post = [](const char* value, char32_t delimiter = U',', char32_t qualifier = U'"') {
        return PostProcessTextValue(value, delimiter, qualifier);
    };
    EXPECT_EQ(post("a,"), "a");
    EXPECT_EQ(post("a,,"), "a,");
    EXPECT_EQ(post("a\"\","), "a\"");
    EXPECT_EQ(post("\"\"\""), "\"");
    EXPECT_EQ(post("a\"\"b\"\"c"), "a\"b\"c");
    EXPECT_EQ(post("a,", 0), "a,");
    EXPECT_EQ(post("a\"\"", U',', 0), "a\"\"");
    EXPECT_EQ(post("a§", U'§', 0), "a");
    EXPECT_EQ(post("««x", 0, U'«'), "«x");
    EXPECT_EQ(post(""), "");
}

TEST(TextFields, ColumnNames) {
    EXPECT_EQ(TextColumnNames("id, Name ,,name,\"Last Name\",Field3", U',', U'"'),
              (std::vector<std::string>{"id", "Name", "Field3", "name_2", "Last Name", "Field3_2"}));
    EXPECT_EQ(TextColumnNames("id, \"Last, First\" , \"Zip\"", U',', U'"'),
              (std::vector<std::string>{"id", "Last, First", "Zip"}));
    EXPECT_EQ(TextColumnNames("a;a;A;a_2", U';', U'"', "Feld"),
              (std::vector<std::string>{"a", "a_2", "A_3", "a_2_2"}));
    EXPECT_EQ(TextColumnNames(";", U';', U'"', "Feld"), (std::vector<std::string>{"Feld1", "Feld2"}));
    EXPECT_TRUE(TextColumnNames("", U',', U'"').empty());
    EXPECT_EQ(TextColumnNames(std::string("a\0b,\x01\t,\x7F,x=y", 13), U',', U'"'),
              (std::vector<std::string>{"a b", "Field2", "\x7F", "x_y"})); // a binary file's header
    EXPECT_EQ(BracketColumnName("Last Name"), "[Last Name]");
    EXPECT_EQ(BracketColumnName("Tab\there"), "[Tab\there]");
    EXPECT_EQ(BracketColumnName("Id"), "Id");
}

} // namespace
} // namespace kv
