// Splitting records into fields, column references and their values, column names.

#include "readers/text/KvTextFields.h"
#include "TestSupport.h"

namespace kv {
namespace {

struct SplitCase {
    const char* Line;
    char32_t Delimiter, Qualifier;
    std::vector<std::string> Values;        // post-processed
    std::vector<TKvTextFieldPos> Positions; // characters
};

TEST(TextFields, SplitsByTheWalk) {
    const SplitCase cases[] = {
        {"a,,b", U',', U'"', {"a", "", "b"}, {{1, 1}, {4, 2}, {4, 4}}},
        {"a,b,", U',', U'"', {"a", "b", ""}, {{1, 1}, {3, 3}, {5, 4}}},
        {"\"x,y\",z", U',', U'"', {"x,y", "z"}, {{2, 4}, {7, 7}}},
        {"\"a\"\"b\"", U',', U'"', {"a\"b"}, {{2, 5}}},
        {"", U',', U'"', {}, {}},
        {",", U',', U'"', {"", ""}, {{2, 0}, {2, 1}}},
        {",a", U',', U'"', {"", "a"}, {{2, 0}, {2, 2}}},
        {"a,\"\"", U',', U'"', {"a", ""}, {{1, 1}, {4, 3}}},
        {"\"", U',', U'"', {""}, {{2, 0}}},
        {"ab\"", U',', U'"', {"ab"}, {{1, 2}}},                 // a closing qualifier alone is dropped
        {"ab\"c,d", U',', U'"', {"ab\"c,d"}, {{1, 6}}},         // and a stray one opens a section
        {"\"a,b", U',', U'"', {"a,b"}, {{2, 4}}},               // unterminated
        {"\"a,", U',', U'"', {"a", ""}, {{2, 2}, {4, 3}}},      // the last delimiter counts even inside
        {"\"a\"\"\"\"b\"", U',', U'"', {"a\"b"}, {{2, 7}}},     // a run of qualifiers becomes one
        {"\"a,b\"", U',', 0, {"\"a", "b\""}, {{1, 2}, {4, 5}}}, // no qualifier
        {"\"a,b\"", 0, U'"', {"a,b"}, {{2, 4}}},                // no delimiter
        {"abc", 0, 0, {"abc"}, {{1, 3}}},
        {"a\tb\t", U'\t', U'"', {"a", "b", ""}, {{1, 1}, {3, 3}, {5, 4}}},
        {"'it''s';x", U';', U'\'', {"it's", "x"}, {{2, 6}, {9, 9}}},
        {"\xC3\xA9,\"\xC3\xBC,x\",\xE2\x82\xAC",
         U',',
         U'"',
         {"\xC3\xA9", "\xC3\xBC,x", "\xE2\x82\xAC"},
         {{1, 1}, {4, 6}, {9, 9}}},
        {"a\xC2\xA7\"b\xC2\xA7"
         "c\"\xC2\xA7\xC3\xA9",
         U'\u00A7',
         U'"',
         {"a",
          "b\xC2\xA7"
          "c",
          "\xC3\xA9"},
         {{1, 1}, {4, 6}, {9, 9}}},
        {"\xC2\xAB"
         "a,b\xC2\xAB,c",
         U',',
         U'\u00AB',
         {"a,b", "c"},
         {{2, 4}, {7, 7}}},
        {"a\xC2\xA7", U'\u00A7', 0, {"a", ""}, {{1, 1}, {3, 2}}},
        // Blanks before an opening and after a closing qualifier are layout.
        {"a, \"b, c\",d", U',', U'"', {"a", "b, c", "d"}, {{1, 1}, {5, 8}, {11, 11}}},
        {"a,\t \"b\"  \t,d", U',', U'"', {"a", "b", "d"}, {{1, 1}, {6, 6}, {12, 12}}},
        {"1, \"\", 2", U',', U'"', {"1", "", " 2"}, {{1, 1}, {5, 4}, {7, 8}}},
        {"a, b ,c", U',', U'"', {"a", " b ", "c"}, {{1, 1}, {3, 5}, {7, 7}}},     // no qualifier: kept
        {"a, \" b \" ", U',', U'"', {"a", " b "}, {{1, 1}, {5, 7}}},              // inside: kept
        {"a, \"b  ", U',', U'"', {"a", "b  "}, {{1, 1}, {5, 7}}},                 // unterminated: kept
        {"x \"y\" z", U',', U'"', {"x \"y\" z"}, {{1, 7}}},                       // not at the start
        {"a \"b c\" d", U' ', U'"', {"a", "b c", "d"}, {{1, 1}, {4, 6}, {9, 9}}}, // blank delimiter
        {"a;  \xC2\xAB"
         "b;c\xC2\xAB ;d",
         U';',
         U'\u00AB',
         {"a", "b;c", "d"},
         {{1, 1}, {6, 8}, {12, 12}}},
    };
    for (const SplitCase& c : cases) {
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
    const std::pair<const char*, const char*> delimited[] = {
        {"Text", "10,\"Smith, J\",x\"y"}, // the whole line, post-processed too
        {"Field1", "10"},
        {"Field2", "Smith, J"},
        {"Field3", "x\"y"},
        {"Field4", ""},
        {"Field5", ""},
        {"Field0", ""},
        {"Field99999999999999999999", ""},
        {"Field", "Field"},
        {"Field2a", "Field2a"},
        {"field1", "field1"},
        {"Text1-3", "Text1-3"}, // positions only in fixed-width mode
        {"'const',", "'const'"},
        {"a\"\"b", "a\"b"},
        {"", ""},
    };
    for (const auto& [ref, value] : delimited) EXPECT_EQ(fields.GetFieldValue(ref), value) << ref;

    fields.SetFixedWidth(true);
    fields.SetLine("ABC\xC3\xA9"
                   "DEFGH");
    EXPECT_EQ(fields.Count(), 0);
    const std::pair<const char*, const char*> fixed[] = {
        {"Text", "ABC\xC3\xA9"
                 "DEFGH"},
        {"Text1-3", "ABC"},
        {"Text4-4", "\xC3\xA9"},
        {"Text3-5", "C\xC3\xA9"
                    "D"},
        {"Text8-20", "GH"},
        {"Text20-30", ""},
        {"Text3-1", ""},
        {"Text5", ""}, // no end: empty
        {"Text5-x", ""},
        {"Text0-3", "Text0-3"}, // no start: the reference itself
        {"Text-3", "Text-3"},
        {"Textual", "Textual"},
        {"Field1", ""},
    };
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
    EXPECT_EQ(ref.Kind, trkField);
    std::string value;
    for (const char* line : {"x,y", "", "z"}) {
        fields.SetLine(line);
        fields.GetValue(ref, value);
        EXPECT_EQ(value, std::string(line).substr(0, 1));
    }
}

TEST(TextFields, PostProcessing) {
    struct Case {
        const char* Value;
        char32_t Delimiter, Qualifier;
        const char* Expected;
    };
    const Case cases[] = {
        {"a,", U',', U'"', "a"},
        {"a,,", U',', U'"', "a,"},     // one delimiter only
        {"a\"\",", U',', U'"', "a\""}, // the delimiter goes first
        {"\"\"\"", U',', U'"', "\""},
        {"a\"\"b\"\"c", U',', U'"', "a\"b\"c"},
        {"a,", 0, U'"', "a,"},
        {"a\"\"", U',', 0, "a\"\""},
        {"a\xC2\xA7", U'\u00A7', 0, "a"},
        {"\xC2\xAB\xC2\xAB"
         "x",
         0, U'\u00AB',
         "\xC2\xAB"
         "x"},
        {"", U',', U'"', ""},
    };
    for (const Case& c : cases)
        EXPECT_EQ(PostProcessTextValue(c.Value, c.Delimiter, c.Qualifier), c.Expected) << c.Value;
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
