// Reading SPSS system files written in memory: the three ways cases are stored in both byte orders, with
// and without a case count; the dictionary's labels, missing values, long names, very long strings and
// encodings with the choices they serve; and damaged files, which fail with what is wrong and where.

#include "readers/archive/KvISPSS.h"

#include "TestSupport.h"
#include "platform/DateUtils.h"
#include "platform/Utf8.h"
#include "support/SavBuilder.h"

#include <cmath>
#include <functional>

namespace kv {
namespace {

using test::SavFile;
using test::SavFormat;
using test::SavValue;
using test::SavVar;

std::string Describe(const Variant& v) {
    switch (v.VarType()) {
    case varNull:
    case varEmpty:
        return "null";
    case varInt64:
    case varInteger:
        return "i:" + v.AsString();
    case varDouble:
        return "d:" + v.AsString();
    case varDate: {
        const TDateTime t = v.AsDateTime();
        return "t:" + (t == std::floor(t) ? DateToISO8601(t) : DateTimeToISO8601(t));
    }
    default:
        return "s:" + v.AsString();
    }
}

/// A file's rows, each cell described, and the error that ended the reading ("" for none).
struct Loaded {
    std::vector<std::string> Rows;
    std::string Error;
};

/// Reads `bytes` case by case as the import source does, and checks that a whole load reports the same.
Loaded Load(const std::string& bytes, const std::function<void(TSPSSFile&)>& setup = {},
            TSPSSFile* reader = nullptr) {
    Loaded result[2];
    for (int whole = 0; whole < 2; ++whole) {
        TSPSSFile own;
        TSPSSFile& f = reader && !whole ? *reader : own;
        if (setup) setup(f);
        f.SetRecordMode(!whole);
        Loaded& out = result[whole];
        f.OnCellValue = [&](TObject*, int, int row, int column, int32_t, const Variant& value, TAlignment,
                            TKvICellType) {
            if (static_cast<size_t>(row) >= out.Rows.size()) out.Rows.resize(static_cast<size_t>(row) + 1);
            out.Rows[static_cast<size_t>(row)] += (column ? " " : "") + Describe(value);
        };
        TMemoryStream stream(bytes);
        out.Error = test::ErrorOf([&] {
            f.LoadFromStream(stream);
            for (int i = 0; !whole && f.HasRecord(i); ++i) f.LoadRecord(i);
        });
    }
    EXPECT_EQ(result[0].Rows, result[1].Rows);
    EXPECT_EQ(result[0].Error, result[1].Error);
    return result[0];
}

// Seconds since 1582-10-14 for dates the corpus's CSV twins give both ways.
constexpr double k20180506 = 13744944000.0;
constexpr double k20180506At101010 = 13744980610.0;
constexpr double k18800506 = 9390124800.0;
constexpr double k15830101 = 6825600.0;

SavFile Mixed() {
    SavFile f;
    f.Vars = {{"id", 0, SavFormat(5, 8)},
              {"amount"},
              {"name", 12},
              {"note", 600},
              {"day", 0, SavFormat(20, 11)},
              {"stamp", 0, SavFormat(22, 20)},
              {"clock", 0, SavFormat(21, 8)}};
    std::string note;
    for (int i = 0; i < 600; ++i) note += static_cast<char>('a' + (i * 7) % 26);
    f.Cases = {{1, 2.5, "Ann", note, k20180506, k20180506At101010, 36610},
               {1000, -1.25, "", "short", k18800506, SavValue::Missing(), 83410},
               {SavValue::Missing(), 151, "Zoë Ünal", "", k15830101, k15830101, 0.5},
               // What no date or time of day holds comes as shown, not cut: a day and more, past 9999.
               {2, 0, "x", "", k20180506, 3.2e11, 90610.5},
               {3, 0, "y", "", k20180506, k20180506, -3600}};
    return f;
}

TEST(SPSSCases, EveryStorageAndByteOrderGivesTheSameValues) {
    std::string note;
    for (int i = 0; i < 600; ++i) note += static_cast<char>('a' + (i * 7) % 26);
    const std::vector<std::string> expected = {
        "i:1 d:2.5 s:Ann s:" + note + " t:2018-05-06 t:2018-05-06 10:10:10 t:1899-12-30 10:10:10",
        "i:1000 d:-1.25 s: s:short t:1880-05-06 null t:1899-12-30 23:10:10",
        "null d:151 s:Zoë Ünal s: t:1583-01-01 t:1583-01-01 t:1899-12-30 00:00:00.500",
        "i:2 d:0 s:x s: t:2018-05-06 d:320000000000 s:25:10:10.500",
        "i:3 d:0 s:y s: t:2018-05-06 t:2018-05-06 s:-01:00:00"};
    for (int compression = 0; compression < 3; ++compression)
        for (bool bigEndian : {false, true})
            for (bool declared : {true, false}) {
                SCOPED_TRACE(std::to_string(compression) + (bigEndian ? " big-endian" : "") +
                             (declared ? "" : " without a count"));
                SavFile f = Mixed();
                f.Compression = compression;
                f.BigEndian = bigEndian;
                f.DeclareCount = declared;
                f.EndCode = declared;
                f.ZBlock = 40; // several blocks, each ending inside a case
                TSPSSFile reader;
                const Loaded loaded = Load(f.Build(), {}, &reader);
                EXPECT_EQ(loaded.Error, "");
                EXPECT_EQ(loaded.Rows, expected);
                EXPECT_EQ(reader.RecordCount(), 5);
                EXPECT_EQ(reader.Header().Compression, compression);
                EXPECT_EQ(reader.Header().BigEndian, bigEndian);
                // Going back reads the first case again.
                std::string first;
                reader.OnCellValue = [&](TObject*, int, int, int column, int32_t, const Variant& value,
                                         TAlignment,
                                         TKvICellType) { first += (column ? " " : "") + Describe(value); };
                reader.BeforeLoad();
                EXPECT_TRUE(reader.LoadRecord(0));
                EXPECT_EQ(first, expected[0]);
            }
}

TEST(SPSSDictionary, LabelsMissingValuesAndTheChoicesTheyServe) {
    SavFile f;
    f.Vars = {
        {.Name = "sex",
         .Format = SavFormat(5, 1),
         .Label = "Gender",
         .MissingCode = 1,
         .Missing = {9},
         .Labels = {{1, "Male"}, {2, "Female"}}},
        {.Name = "score", .MissingCode = -3, .Missing = {0, 10, 99}},
        {.Name = "code", .Width = 3, .MissingCode = 1, .MissingTexts = {"ZZ"}, .Labels = {{"ab", "Alpha"}}},
        {.Name = "A comment",
         .Width = 20,
         .Label = "What they said",
         .MissingCode = 1,
         .MissingTexts = {"n/a"},
         .Labels = {{"long value", "Long"}}}};
    f.Documents = {"first note", "second note"};
    f.Cases = {{1, 15, "ab", "long value"}, {9, 99, "ZZ", "n/a"}, {2, 5, "cd", "other"}};
    const std::string bytes = f.Build();

    TSPSSFile reader;
    Load(bytes, {}, &reader);
    ASSERT_EQ(reader.Variables().size(), 4u);
    const TSPSSVariable& sex = reader.Variables()[0];
    EXPECT_EQ(sex.Name, "sex");
    EXPECT_EQ(sex.ShortName, "V1");
    EXPECT_EQ(sex.Label, "Gender");
    EXPECT_EQ(sex.Print.Text(), "F1.0");
    EXPECT_EQ(sex.Missing.Numbers, std::vector<double>{9});
    const TSPSSMissingValues& score = reader.Variables()[1].Missing;
    EXPECT_TRUE(score.HasRange && score.Low == 0 && score.High == 10 &&
                score.Numbers == std::vector<double>{99});
    EXPECT_EQ(reader.Variables()[3].Name, "A comment");
    EXPECT_EQ(reader.Variables()[3].Print.Text(), "A20");
    EXPECT_EQ(reader.Variables()[3].Missing.Texts, std::vector<std::string>{"n/a"});
    EXPECT_EQ(reader.Documents(), (std::vector<std::string>{"first note", "second note"}));

    const struct {
        const char* Name;
        bool Labels;
        TSPSSUserMissing Missing;
        std::vector<std::string> Rows;
    } cases[] = {
        {"codes, missing as null",
         false,
         umNull,
         {"i:1 d:15 s:ab s:long value", "null null null null", "i:2 null s:cd s:other"}},
        {"codes, missing kept",
         false,
         umKeep,
         {"i:1 d:15 s:ab s:long value", "i:9 d:99 s:ZZ s:n/a", "i:2 d:5 s:cd s:other"}},
        {"labels, missing kept",
         true,
         umKeep,
         {"s:Male d:15 s:Alpha s:Long", "i:9 d:99 s:ZZ s:n/a", "s:Female d:5 s:cd s:other"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.Name);
        const Loaded loaded = Load(bytes, [&](TSPSSFile& r) {
            r.SetValueLabels(c.Labels);
            r.SetUserMissing(c.Missing);
        });
        EXPECT_EQ(loaded.Rows, c.Rows);
    }

    // Labelled columns declare text; labels name the columns where a variable has one.
    TSPSSFile labelled;
    Load(
        bytes,
        [](TSPSSFile& r) {
            r.SetValueLabels(true);
            r.SetCaptions(spcLabels);
        },
        &labelled);
    std::string declared;
    for (const TKvIDeclaredField& d : labelled.DeclaredFields())
        declared += d.Name + ":" + std::to_string(d.CellType) + ":" + d.TypeName + " ";
    EXPECT_EQ(declared, "Gender:2:F1.0 score:4:F8.2 code:2:A3 What they said:2:A20 ");
}

TEST(SPSSDictionary, TextIsDecodedByTheFilesOwnEncoding) {
    const struct {
        const char* Encoding;
        int32_t CharacterCode;
        std::string Raw, Text;
        int CodePage;
        bool Warns;
    } cases[] = {
        {"windows-1251", 65001, "\xCF\xF0\xE8", "При", 1251, false},
        {"", 1251, "\xCF\xF0\xE8", "При", 1251, false},
        {"", 2, "caf\xE9", "café", 1252, false},
        {"x-no-such", 65001, "caf\xC3\xA9", "café", 65001, true},
        {"UTF-8", 65001, "ab\xE0\xB0", "ab", 65001, false}, // a character cut by the width is dropped
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.Raw);
        SavFile f;
        f.Encoding = c.Encoding;
        f.CharacterCode = c.CharacterCode;
        f.Vars = {{.Name = "v", .Width = 8, .Label = c.Raw}};
        f.Cases = {{c.Raw}};
        TSPSSFile reader;
        EXPECT_EQ(Load(f.Build(), {}, &reader).Rows, std::vector<std::string>{"s:" + c.Text});
        EXPECT_EQ(reader.Variables()[0].Label, c.Text);
        EXPECT_EQ(reader.CodePage(), c.CodePage);
        EXPECT_EQ(reader.Warnings().size(), c.Warns ? 1u : 0u);
    }
}

TEST(SPSSDamaged, FailsWithWhatIsWrongAfterTheCasesBefore) {
    const auto withRecords = [](const std::string& records) {
        return [records](SavFile& f) { f.Records = records; };
    };
    SavFile shape; // the byte order of records written by hand
    const auto i32 = [&](int32_t v) { return shape.I32(v); };
    const std::string numberLabel = i32(3) + i32(1) + shape.F64(1) + std::string("\x03one    ", 8);
    const struct {
        const char* Name;
        std::function<void(SavFile&)> Change;
        std::function<void(std::string&, size_t dataStart)> Patch;
        size_t Rows;
        const char* Error;
    } cases[] = {
        {"magic",
         {},
         [](std::string& b, size_t) { b.replace(0, 4, "$FL9"); },
         0,
         "SPSS: damaged file at byte 0: not an SPSS system file"},
        {"layout code",
         {},
         [](std::string& b, size_t) { b.replace(64, 4, std::string("\x07\0\0\x07", 4)); },
         0,
         "at byte 64: the layout code is neither 2 nor 3"},
        {"case size",
         [](SavFile& f) { f.CaseSize = 5; },
         {},
         0,
         "at byte 68: the header counts 5 8-byte elements per case, the variable records 3"},
        {"width",
         withRecords(i32(2) + i32(300) + i32(0) + i32(0) + i32(0) + i32(0) + "BAD     "),
         {},
         0,
         "variable BAD has width 300"},
        {"very long width 0",
         withRecords(shape.Extension(14, 1, std::string("V2=0\0\t", 6))),
         {},
         0,
         "very long string V2 has width \"0\""},
        {"very long width 40000",
         withRecords(shape.Extension(14, 1, std::string("V2=40000\0\t", 10))),
         {},
         0,
         "has width \"40000\" (1 to 32767)"},
        {"continuation alone",
         withRecords(i32(2) + i32(-1) + i32(0) + i32(0) + i32(0) + i32(0) + "        "),
         {},
         0,
         "a continuation record that follows no string variable"},
        {"labels of a long string",
         withRecords(numberLabel + i32(4) + i32(1) + i32(2)),
         {},
         0,
         "value labels (record 3) for V2, a string of width 12"},
        {"labels past the dictionary",
         withRecords(numberLabel + i32(4) + i32(1) + i32(9)),
         {},
         0,
         "value labels for dictionary index 9, beyond the 3 variable records"},
        {"labels of a continuation",
         withRecords(numberLabel + i32(4) + i32(1) + i32(3)),
         {},
         0,
         "dictionary index 3, a continuation record"},
        {"labels without variables",
         withRecords(numberLabel + i32(999)),
         {},
         0,
         "value labels (record 3) not followed by the variables"},
        {"no end record",
         [](SavFile& f) {
             f.End = f.EndCode = false;
             f.Cases.clear();
         },
         {},
         0,
         "the dictionary has no end record (999)"},
        {"extension overflows",
         withRecords(i32(7) + i32(99) + i32(0x40000000) + i32(0x40000000)),
         {},
         0,
         "the data of extension record 99 need"},
        {"extension past the end",
         withRecords(i32(7) + i32(99) + i32(1) + i32(1000) + "abc"),
         {},
         0,
         "more than the"},
        {"bytecode cut in a case", [](SavFile& f) { f.EndCode = false; },
         [](std::string& b, size_t) { b.resize(b.size() - 8); }, 2,
         "the data ends inside case 3, after 2 of"},
        {"fewer cases than announced",
         [](SavFile& f) { f.CaseCount = 4; },
         {},
         3,
         "the header announces 4 cases, the data ends after 3"},
        {"uncompressed cut", [](SavFile& f) { f.Compression = 0; },
         [](std::string& b, size_t) { b.resize(b.size() - 4); }, 2,
         "the data ends inside case 3, after 2 of"},
        {"zlib size lies", [](SavFile& f) { f.Compression = 2; },
         [](std::string& b, size_t) { b[b.size() - 8] += 1; }, 0, "zlib block 1 inflates to less than"},
        {"zlib trailer outside", [](SavFile& f) { f.Compression = 2; },
         [](std::string& b, size_t start) { b[start + 8 + 3] = 0x7F; }, 0, "the zlib trailer offset"},
        {"zlib block moved", [](SavFile& f) { f.Compression = 2; },
         [](std::string& b, size_t) { b[b.size() - 16] += 1; }, 0, "zlib block 1 starts at"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.Name);
        SavFile f;
        f.Vars = {{"n"}, {"s", 12}};
        f.Cases = {{1, "one"}, {2.5, "two"}, {3, "three"}};
        if (c.Change) c.Change(f);
        size_t dataStart = 0;
        std::string bytes = f.Build(&dataStart);
        if (c.Patch) c.Patch(bytes, dataStart);
        const Loaded loaded = Load(bytes);
        EXPECT_EQ(loaded.Rows.size(), c.Rows);
        EXPECT_NE(loaded.Error.find(c.Error), std::string::npos) << loaded.Error;
    }
}

} // namespace
} // namespace kv
