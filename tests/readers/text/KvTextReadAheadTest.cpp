// Reading ahead on a second thread serves exactly what reading row by row serves: the same lines, fields,
// values and places, in any order of asking, and a read error in its row's turn. The warnings met on the
// way are checked through the text source, which hands them on.

#include "readers/text/KvTextReadAhead.h"
#include "TestSupport.h"
#include "platform/Exceptions.h"
#include "platform/Utf8.h"
#include "support/ByteStream.h"

#include <numeric>

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
        std::string value;
        fields.GetValue(fields.ParseReference("Field" + std::to_string(i)), value);
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
        TKvTextRowPlace place;
        if (ahead) {
            EXPECT_TRUE(reader.Has(file, r, fields));
            reader.Take(file, r, fields, place);
        } else {
            place = file.RowPlace(r);
            fields.SetLine(file.Row(r));
        }
        rows.push_back(Current(fields));
        rows.back().Values.push_back(std::to_string(place.Record) + "@" + std::to_string(place.Offset));
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
        file.Settings().CheckpointRows = 64;
        file.Open(dir.File("in.csv"));
        ASSERT_EQ(file.RowCount(), 3000);
        const TKvTextFields layout = Layout(Utf8ToU32(delimiter)[0]);

        std::vector<int64_t> all(3000);
        std::iota(all.begin(), all.end(), 0);
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
    TKvTextRowPlace place;
    for (int64_t row : {2000, 2000, -1}) { // asked twice, after the end has been met
        EXPECT_FALSE(reader.Has(file, row, fields)) << row;
        EXPECT_THROW(reader.Take(file, row, fields, place), EListError) << row;
    }
    EXPECT_TRUE(reader.Has(file, 1999, fields));

    // Stopping while the reading thread waits for room, and again when it has already stopped.
    reader.Take(file, 0, fields, place);
    EXPECT_TRUE(reader.Running());
    reader.Stop();
    EXPECT_FALSE(reader.Running());
    reader.Stop();
    reader.Take(file, 1999, fields, place);
    EXPECT_EQ(fields.FieldValue(1), "1999");
    EXPECT_EQ(place.Record, 2000);
}

// How reading every row as an import does went: the rows that failed, and where the rows ended, because
// there were no more or because the file could not tell.
struct TReadOutcome {
    std::vector<int64_t> FailedRows;
    int64_t End = 0;
    bool EndFailed = false;
    bool operator==(const TReadOutcome&) const = default;
};

TReadOutcome ReadAll(TKvTextFile& file, bool ahead) {
    TKvTextFields fields = Layout(U',');
    TKvTextReadAhead reader;
    const auto has = [&](int64_t row) { return ahead ? reader.Has(file, row, fields) : file.HasRow(row); };
    TReadOutcome outcome;
    for (;; ++outcome.End) {
        try {
            if (!has(outcome.End)) break;
        } catch (const EReadError&) {
            outcome.EndFailed = true;
            EXPECT_THROW(has(outcome.End), EReadError); // asked again, it fails again
            break;
        }
        try {
            TKvTextRowPlace place;
            if (ahead)
                reader.Take(file, outcome.End, fields, place);
            else
                fields.SetLine(file.Row(outcome.End));
            EXPECT_EQ(fields.Line(), "row " + std::to_string(outcome.End));
        } catch (const EReadError&) {
            outcome.FailedRows.push_back(outcome.End);
        }
    }
    return outcome;
}

// A read that fails once fails the row being cut, and the rows after it come; reads that keep failing
// end the rows with the error. Reading ahead meets both at the same row as reading row by row.
TEST(TextReadAhead, AReadErrorComesInItsRowsTurn) {
    std::string text;
    for (int i = 0; i < 5000; ++i) text += "row " + std::to_string(i) + "\n";
    for (bool persistent : {false, true}) {
        SCOPED_TRACE(persistent ? "every read from a place on fails" : "one read fails");
        std::vector<TReadOutcome> outcomes;
        for (bool ahead : {true, false}) {
            test::TByteStream stream(text);
            TKvTextFile file;
            file.Settings().RowFieldNames = 0;
            file.Settings().BlockSize = 4096;
            file.OpenStream(stream);
            if (persistent)
                stream.FailFrom = text.find("row 3000\n");
            else
                stream.FailAt = stream.Reads + 3;
            outcomes.push_back(ReadAll(file, ahead));
        }
        EXPECT_EQ(outcomes[0], outcomes[1]);
        const TReadOutcome& outcome = outcomes[0];
        EXPECT_EQ(outcome.EndFailed, persistent);
        if (persistent) {
            EXPECT_TRUE(outcome.FailedRows.empty());
            EXPECT_GT(outcome.End, 2500);
            EXPECT_LE(outcome.End, 3000);
        } else {
            EXPECT_EQ(outcome.FailedRows.size(), 1u);
            EXPECT_EQ(outcome.End, 5000);
        }
    }
}

} // namespace
} // namespace kv
