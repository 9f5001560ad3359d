// Reading ahead on a second thread serves exactly what reading row by row serves: the same lines, fields
// and values, in any order of asking, with a read error in its row's turn.

#include "readers/text/KvTextReadAhead.h"
#include "TestSupport.h"
#include "platform/Exceptions.h"
#include "platform/Utf8.h"

namespace kv {
namespace {

struct Row {
    std::string Line;
    std::vector<std::string> Values;
    bool operator==(const Row&) const = default;
};

Row Current(const TKvTextFields& fields) {
    Row r{fields.Line(), {}};
    for (int i = 1; i <= fields.Count(); ++i) {
        TKvTextRef ref;
        ref.Kind = trkField;
        ref.First = i;
        std::string value;
        fields.GetValue(ref, value);
        EXPECT_EQ(value, fields.FieldValue(i)) << "row " << r.Line << ", field " << i; // prepared or not
        r.Values.push_back(value);
    }
    return r;
}

TKvTextFields Layout(char32_t delimiter) {
    TKvTextFields fields;
    fields.SetDelimiter(delimiter);
    fields.SetQualifier(U'"');
    return fields;
}

// A text of `rows` rows mixing what splitting has to get right: qualified delimiters, doubled
// qualifiers, line breaks inside qualifiers, empty fields, characters beyond ASCII, and now and then a
// line longer than a whole batch.
std::string MixedText(int rows, const std::string& delimiter) {
    std::string text;
    for (int i = 0; i < rows; ++i) {
        text += std::to_string(i) + delimiter + "\"a" + delimiter + " \"\"q\"\" " + std::to_string(i % 7) +
                "\"" + delimiter + delimiter + "Zoë " + std::to_string(i * 31 % 1000);
        if (i % 97 == 0) text += delimiter + "\"two\r\nlines\"";
        if (i % 1500 == 0) text += delimiter + std::string(TKvTextReadAhead::kBatchBytes + 3, 'w');
        text += i % 3 ? "\r\n" : "\n";
    }
    return text;
}

std::vector<Row> ReadInOrder(TKvTextFile& file, const TKvTextFields& layout, std::vector<int64_t> order,
                             bool ahead) {
    TKvTextFields fields = layout;
    TKvTextReadAhead reader;
    std::vector<Row> rows;
    for (int64_t r : order) {
        if (ahead)
            reader.Take(file, r, fields);
        else
            fields.SetLine(file.Row(r));
        rows.push_back(Current(fields));
    }
    return rows;
}

TEST(TextReadAhead, ServesWhatRowByRowReadingServes) {
    test::TempDir dir;
    for (const std::string delimiter : {",", "¦"}) { // bytes, and code points beyond ASCII
        SCOPED_TRACE("delimiter " + delimiter);
        test::WriteFile(dir.File("in.csv"), MixedText(3000, delimiter));
        TKvTextFile file;
        file.Settings().RowFieldNames = 0;
        file.Open(dir.File("in.csv"));
        ASSERT_EQ(file.RowCount(), 3000);
        const TKvTextFields layout = Layout(Utf8ToU32(delimiter)[0]);

        std::vector<int64_t> all(3000);
        for (int64_t i = 0; i < 3000; ++i) all[static_cast<size_t>(i)] = i;
        const std::vector<Row> expected = ReadInOrder(file, layout, all, false);
        EXPECT_EQ(ReadInOrder(file, layout, all, true), expected);

        // Jumps back and forth restart the reading where they land.
        const std::vector<int64_t> jumps = {5, 6, 2, 3, 2999, 0, 1, 1, 700, 701, 702};
        std::vector<Row> jumped;
        for (int64_t r : jumps) jumped.push_back(expected[static_cast<size_t>(r)]);
        EXPECT_EQ(ReadInOrder(file, layout, jumps, true), jumped);
    }
}

TEST(TextReadAhead, RowsOutsideTheFileAndStopping) {
    test::TempDir dir;
    test::WriteFile(dir.File("in.csv"), MixedText(2000, ","));
    TKvTextFile file;
    file.Settings().RowFieldNames = 0;
    file.Open(dir.File("in.csv"));
    TKvTextFields fields = Layout(U',');
    TKvTextReadAhead reader;
    EXPECT_THROW(reader.Take(file, 2000, fields), EListError);
    EXPECT_THROW(reader.Take(file, -1, fields), EListError);

    // Stopping while the reading thread waits for room, and again when it has already stopped.
    reader.Take(file, 0, fields);
    EXPECT_TRUE(reader.Running());
    reader.Stop();
    EXPECT_FALSE(reader.Running());
    reader.Stop();
    reader.Take(file, 1999, fields);
    EXPECT_EQ(fields.FieldValue(1), "1999");
}

TEST(TextReadAhead, AReadErrorComesInItsRowsTurn) {
    test::TempDir dir;
    std::string text;
    for (int i = 0; i < 5000; ++i) text += "row " + std::to_string(i) + "\n";
    test::WriteFile(dir.File("in.csv"), text);
    TKvTextFile file;
    file.Settings().RowFieldNames = 0;
    file.Settings().BlockSize = 4096;
    file.Open(dir.File("in.csv"));
    // The file shrinks after the scan: the rows that are gone fail, the ones before them do not.
    test::WriteFile(dir.File("in.csv"), text.substr(0, text.find("row 3000\n")));

    TKvTextFields fields = Layout(U',');
    TKvTextReadAhead reader;
    int64_t row = 0;
    for (; row < file.RowCount(); ++row) {
        try {
            reader.Take(file, row, fields);
        } catch (const EReadError&) {
            break;
        }
        ASSERT_EQ(fields.Line(), "row " + std::to_string(row));
    }
    EXPECT_EQ(row, 3000);
    EXPECT_THROW(reader.Take(file, row + 1, fields), EReadError); // asked again, it fails again
}

} // namespace
} // namespace kv
