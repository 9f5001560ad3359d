// Guessing column types from values and from the first rows of a text.

#include "readers/text/KvTextTypes.h"
#include "TestSupport.h"

namespace kv {
namespace {

struct KindCase {
    std::vector<std::string> Values;
    TKvTextColumnKind Kind;
    bool Grouping = true;
};

TKvTextColumnKind Guess(const std::vector<std::string>& values, const TKvTextTypeOptions& options,
                        bool grouping = true) {
    TKvTextTypeGuesser guesser(options);
    for (const std::string& v : values) guesser.Add(0, v, grouping);
    return guesser.Columns().at(0).Kind;
}

TEST(TextTypes, VotesPerColumn) {
    const KindCase cases[] = {
        {{"1", "-2", "0", " 4 "}, tckInteger},
        {{"9223372036854775807", "-9223372036854775808"}, tckInteger},
        {{"9007199254740993", "1"}, tckInteger}, // more than a double holds, but 64 bits
        {{"1", "2.5"}, tckFloat},
        {{"1e5", "-.5", "5.", "2.5E-3"}, tckFloat},
        {{"1e"}, tckString},
        {{"."}, tckString},
        {{"1,234.56", "12,345,678.9", "999"}, tckFloat},
        {{"1,234.56"}, tckString, false}, // grouping not allowed here
        {{"1,23"}, tckString},
        {{"1234,567"}, tckString},
        {{"2024-01-31", "2023-12-01 10:20:30", "2023-12-01T10:20:30.125Z"}, tckDateTime},
        {{"2024-01-01 10:00:00.250", "2024-01-01T10:00:00,5"}, tckDateTime},
        {{"2024-01-01T10:00:00Z", "2024-01-01 10:00:00+02:00", "2024-01-01 10:00-0530", "2024-01-01T10:00+02",
          "2024-01-01 10:00:00.1 +01:00"},
         tckDateTime},
        {{"2024-01-01 10:00+2"}, tckString},
        {{"2024-01-01 10:00+15:00"}, tckString},
        {{"2024-01-01 10:00+02:60"}, tckString},
        {{"2024-01-01 10:00+02:00x"}, tckString},
        {{"2024-02-30"}, tckString},
        {{"2024-01-31 25:00"}, tckString},
        {{"2024-01-31 12:00 PM", "2024/1/5"}, tckDateTime},
        {{"2024-01-31", "2024/01/31"}, tckDateTime},
        {{"2024-01/31"}, tckString}, // two different separators
        {{"24-01-31"}, tckDateTime},
        {{"true", "FALSE", "True", "False"}, tckBoolean},
        {{"true", "No", "YES", "False"}, tckString}, // yes and no would be kept as text
        {{"0", "1"}, tckInteger},
        {{"true", "1"}, tckString},
        {{"", " ", ""}, tckString},
        {{"", "7", ""}, tckInteger},
        {{"abc", "1"}, tckString},
        {{"NaN"}, tckString},
    };
    const TKvTextTypeOptions options;
    for (const KindCase& c : cases) {
        SCOPED_TRACE(c.Values.front());
        EXPECT_EQ(Guess(c.Values, options, c.Grouping), c.Kind);
    }
}

// Values a number column would change: codes lose their zeros or plus, long numbers get rounded.
TEST(TextTypes, KeepsWhatANumberWouldChange) {
    const KindCase cases[] = {
        {{"1", "01234"}, tckString},              // a postal code
        {{"000009102615"}, tckString},            // an id
        {{"+318855443322"}, tckString},           // a phone number
        {{"-012"}, tckString},                    // a zero after the sign
        {{"+1.5"}, tckString},                    // the plus goes for decimals too
        {{"00.5"}, tckString},                    // "0" then a digit
        {{"-0.5", "0", "0.25", "0e3"}, tckFloat}, // zero alone and zero point something are numbers
        {{"0", "-0", "10"}, tckInteger},
        {{"12345678901234567890"}, tckString}, // beyond 64 bits, not a float
        {{"1", "-99999999999999999999"}, tckString},
        {{"9223372036854775808", "1.5"}, tckString},
        {{"9007199254740993", "1.5"}, tckString}, // a float column would round the integer
        {{"0.1234567890123456"}, tckString},      // 16 significant digits
        {{"123456789012.345"}, tckFloat},         // 15
        {{"0.000000000000000012345"}, tckFloat},  // leading zeros are not significant
        {{"1.50000000000000000000"}, tckFloat},   // nor trailing ones
        {{"1.2345678901234567e10"}, tckString},
        {{"1,234,567,890,123,456.5"}, tckString},
    };
    const TKvTextTypeOptions options;
    for (const KindCase& c : cases) {
        SCOPED_TRACE(c.Values.back());
        EXPECT_EQ(Guess(c.Values, options, c.Grouping), c.Kind);
    }
    TKvTextTypeOptions dmy;
    dmy.DateOrder = tdoDMY;
    EXPECT_EQ(Guess({"01.02.2024", "01.03.2024 08:05"}, dmy), tckDateTime); // dates keep their zeros anyway
}

TEST(TextTypes, FollowsTheCallersFormats) {
    TKvTextTypeOptions dmy;
    dmy.DateOrder = TextDateOrderOf("dd/mm/yyyy");
    EXPECT_EQ(dmy.DateOrder, tdoDMY);
    EXPECT_EQ(Guess({"31/12/2024", "1/2/2024 8:05"}, dmy), tckDateTime);
    EXPECT_EQ(Guess({"2024-12-31"}, dmy), tckDateTime); // a four-digit first part is the year
    TKvTextTypeOptions mdy;
    mdy.DateOrder = TextDateOrderOf("m/d/yyyy");
    EXPECT_EQ(Guess({"31/12/2024"}, mdy), tckString);
    EXPECT_EQ(Guess({"12/31/2024 11:59 PM"}, mdy), tckDateTime);
    EXPECT_EQ(Guess({"12/31/2024 13:59 PM"}, mdy), tckString);
    EXPECT_EQ(TextDateOrderOf("yyyy.mm.dd"), tdoYMD);

    TKvTextTypeOptions german;
    german.DecimalSeparator = U',';
    german.ThousandSeparator = U'.';
    german.DateSeparators = ".";
    german.DateOrder = tdoDMY;
    german.TrueText = "Ja";
    german.FalseText = "Nein";
    EXPECT_EQ(Guess({"1.234,5", "-0,25"}, german), tckFloat);
    EXPECT_EQ(Guess({"1.5"}, german), tckString);
    EXPECT_EQ(Guess({"31.12.2024"}, german), tckDateTime);
    EXPECT_EQ(Guess({"31-12-2024"}, german), tckString); // "-" is not one of its separators
    EXPECT_EQ(Guess({"ja", "NEIN"}, german), tckBoolean);

    TKvTextTypeOptions noGrouping;
    noGrouping.ThousandSeparator = 0;
    EXPECT_EQ(Guess({"1,234"}, noGrouping), tckString);
}

TEST(TextTypes, MeasuresLengthsInCharacters) {
    TKvTextTypeGuesser guesser({});
    guesser.Add(0, "\xC3\xA9t\xC3\xA9", true);
    guesser.Add(0, "", true);
    guesser.Add(2, "12", true);
    guesser.EnsureColumns(4);
    const auto columns = guesser.Columns();
    ASSERT_EQ(columns.size(), 4u);
    EXPECT_EQ(columns[0].MaxLength, 3);
    EXPECT_EQ(columns[0].Values, 1);
    EXPECT_EQ(columns[1].Kind, tckString); // never seen
    EXPECT_EQ(columns[2].Kind, tckInteger);
    EXPECT_EQ(columns[3].Values, 0);
}

TEST(TextTypes, GuessesFromTheFirstRows) {
    TKvTextFile file;
    file.Settings().FieldDelimiter = U',';
    // The header is record 1 and, with RowFirst 1, also a data row: it does not vote.
    file.OpenText("id,amount,day,name,flag,extra\r\n"
                  "1,\"1,234.50\",2024-01-02,\"Smith, J\",true\r\n"
                  "2,7,2024-01-03,Ann,FALSE\r\n"
                  "x,8,2024-01-04,Bo,True\r\n");
    TKvTextFields format;
    format.SetDelimiter(U',');
    TKvTextTypeOptions options;
    auto columns = GuessTextColumnTypes(file, format, options);
    ASSERT_EQ(columns.size(), 6u);
    const TKvTextColumnKind all[] = {tckString, tckFloat, tckDateTime, tckString, tckBoolean, tckString};
    for (size_t i = 0; i < 6; ++i) EXPECT_EQ(columns[i].Kind, all[i]) << i;
    EXPECT_EQ(columns[1].MaxLength, 8);
    EXPECT_EQ(columns[3].MaxLength, 8);

    options.MaxScanRows = 2; // the "x" lies beyond
    columns = GuessTextColumnTypes(file, format, options);
    EXPECT_EQ(columns[0].Kind, tckInteger);

    // Fixed-width columns are given by references.
    file.Settings().RowFieldNames = 0;
    file.OpenText("0012024-05-06\r\n0022024-05-07\r\n");
    format.SetFixedWidth(true);
    columns = GuessTextColumnTypes(file, format, {}, {"Text1-3", "Text4-13", "Text"});
    ASSERT_EQ(columns.size(), 3u);
    EXPECT_EQ(columns[0].Kind, tckString); // "001" keeps its zeros
    EXPECT_EQ(columns[1].Kind, tckDateTime);
    EXPECT_EQ(columns[2].Kind, tckString);
    EXPECT_EQ(columns[2].MaxLength, 13);
}

} // namespace
} // namespace kv
