// The text source joined to the engine: header names, references, layouts, encodings, the clipboard.

#include "sources/KvI2TXT.h"
#include "TestSupport.h"
#include "datasets/KvMemDataSet.h"
#include "datasets/KvSQLiteDataSet.h"
#include "platform/Clipboard.h"
#include "platform/FrontEnd.h"
#include "platform/Streams.h"

namespace kv {
namespace {

// The source, with the reader it loads the text with in reach.
struct TTextSource : TKvImportFromText {
    using TKvImportFromText::File;
};

class TextSource : public ::testing::Test {
protected:
    TextSource() : settings_(InvariantFormatSettings()) {
        text.SetAnimatedStatus(false);
        text.SetDataSet(&dest);
        text.SetFieldDelimiterCustom(U',');
        text.OnErrorEvent = [this](TObject*, const std::exception& e, bool& abort) {
            errors.push_back(e.what());
            abort = false;
        };
    }
    void Fields(std::initializer_list<std::pair<const char*, TFieldType>> defs) {
        for (auto [name, type] : defs) dest.AddFieldDef(name, type, 50);
    }
    void Map(std::initializer_list<const char*> mappings) {
        for (const char* m : mappings) text.Mappings().Add(m);
    }
    std::string Import(const std::string& bytes) {
        const std::string file = dir.File("in.csv");
        test::WriteFile(file, bytes);
        text.SetSourceFileName(file);
        dest.EmptyTable();
        text.Execute();
        return Rows();
    }
    std::string Rows() { return test::MemRows(dest); }

    test::ScopedFormatSettings settings_;
    test::TempDir dir;
    TKvMemDataSet dest;
    TTextSource text;
    std::vector<std::string> errors;
};

TEST_F(TextSource, HeaderNamesMapByName) {
    Fields({{"Qty", ftInteger}, {"Last Name", ftString}, {"Price", ftFloat}, {"When", ftDate}});
    text.SetRowFirst(2);
    // LF ends the records, and a CR LF inside qualifiers is part of the value.
    EXPECT_EQ(Import("when,last name,qty,price,unused\n2024-03-01,\"Doe, Jane\",3,\"1,234.5\",x\n"
                     "2024-03-02,\"O\"\"Brien\r\nJr\",4,.5,y\n"),
              "3|Doe, Jane|1234.5|2024-03-01\n4|O\"Brien\r\nJr|0.5|2024-03-02\n");
    EXPECT_TRUE(errors.empty());
    EXPECT_EQ(text.Statistic().Result, irExecuted);
}

TEST_F(TextSource, TheHeaderRowReadAsDataIsARowError) {
    Fields({{"Qty", ftInteger}, {"When", ftDate}, {"Name", ftString}});
    // RowFirst stays 1: the header is the first data row, and its texts are data like any other.
    EXPECT_EQ(Import("Qty,When,Name\n7,2024-01-02,a\n"), "7|2024-01-02|a\n");
    EXPECT_EQ(errors, std::vector<std::string>{"'Qty' is not a valid integer value"});
}

TEST_F(TextSource, FieldReferencesAndConstants) {
    Fields({{"A", ftString}, {"B", ftString}, {"C", ftString}});
    text.SetRowFieldNames(0);
    Map({"A=Field2", "B=Field9", "C=Field1 + '-' + Field3"});
    EXPECT_EQ(Import("x,y,z\n1,,3\n"), "y|null|x-z\nnull|null|1-3\n");
}

TEST_F(TextSource, FixedWidthRangesAreNotSubtractions) {
    Fields({{"Code", ftString}, {"Amount", ftFloat}, {"Line", ftString}});
    text.SetFixed(true);
    text.SetRowFieldNames(0);
    Map({"Code=Text1-3", "Amount=Text4-9", "Line=Text"});
    EXPECT_EQ(Import("AB1  12.5\r\nZ9Z100000\r\n"), "AB1|12.5|AB1  12.5\nZ9Z|100000|Z9Z100000\n");
}

// The reading thread finishes the values: a conversion error there comes with its own row.
TEST_F(TextSource, ReadingAheadImportsWhatReadingRowByRowImports) {
    Fields({{"id", ftInteger}, {"name", ftString}, {"again", ftString}, {"line", ftString}, {"n", ftFloat}});
    text.SetRowFirst(2);
    Map({"id=id", "name=name", "again=UPPER(name)", "line=Text", "n=n"}); // name asked twice in a row
    std::string bytes = "id,name,n\n";
    for (int i = 0; i < 2500; ++i)
        bytes +=
            std::to_string(i) + ",\"n\"\"" + std::to_string(i) + "\"," + (i % 500 == 7 ? "x" : "1.5") + "\n";
    text.SetReadAhead(false);
    const std::string rowByRow = Import(bytes);
    const std::vector<std::string> rowByRowErrors = errors;
    ASSERT_EQ(rowByRowErrors.size(), 5u);
    errors.clear();
    text.SetReadAhead(true);
    EXPECT_EQ(Import(bytes), rowByRow);
    EXPECT_EQ(errors, rowByRowErrors);
    EXPECT_EQ(dest.RowCount(), 2495); // the rows with "x" for a number fail
}

TEST_F(TextSource, DatesReachAnSqliteTableAlikeWhetherAHandlerLooksOrNot) {
    const std::string db = dir.File("dates.sqlite");
    TKvSQLiteDatabase database;
    database.Open(db);
    database.Execute("CREATE TABLE t(id INTEGER, day DATE)");
    TKvSQLiteDataSet table;
    table.SetDatabase(&database);
    table.SetTableName("t");
    text.SetDataSet(&table);
    text.SetRowFirst(2);
    text.DataFormats().DateOrder = doDMY;
    std::string seen;
    std::string stored[2];
    for (const bool handler : {false, true}) {
        if (handler) {
            database.Execute("DELETE FROM t");
            text.OnGetCellParams = [&](TObject*, TField* field, Variant& value) {
                if (field && field->FieldName() == "day")
                    seen += VarTypeName(value.VarType()) + std::string(" ");
            };
        }
        Import("id,day\n1,2024-03-01\n2,02/03/2024\n3,2024-02-30\n4,0999-12-31\n");
        stored[handler] = test::SqliteQuery(db, "SELECT id, day, typeof(day) FROM t ORDER BY id");
    }
    EXPECT_EQ(stored[0], "1|2024-03-01|text\n2|2024-03-02|text\n4|0999-12-31|text");
    EXPECT_EQ(stored[1], stored[0]);
    EXPECT_EQ(seen, "Date Date Date ");
    EXPECT_EQ(errors, (std::vector<std::string>{"'2024-02-30' is not a valid date",
                                                "'2024-02-30' is not a valid date"}));
}

// The rows are not counted before the first is imported: the progress tells how far through the text
// the run is, an expression that reads STATTOTALCOUNT has the rows counted when it first asks (beside the
// reading thread, or with it stopped for a stream only it may read), and the count is there at the end.
TEST_F(TextSource, TheRowsAreCountedWhenAsked) {
    Fields({{"id", ftInteger}, {"of", ftInteger}});
    text.SetRowFirst(2);
    std::string bytes = "id\n", expected;
    for (int i = 1; i <= 3000; ++i) {
        bytes += std::to_string(i) + "\n";
        expected += std::to_string(i) + "|3000\n";
    }
    struct Progress : IKvFrontEnd {
        std::vector<TProgressState> States;
        void UpdateProgressDlg(const TProgressState& state) override { States.push_back(state); }
    } ui;
    SetFrontEnd(&ui);
    text.SetAnimatedStatus(true);
    Import(bytes);
    SetFrontEnd(nullptr);
    EXPECT_EQ(text.Statistic().TotalCount, 3000);
    ASSERT_GT(ui.States.size(), 3000u);
    EXPECT_EQ(ui.States.back().Total, 3000);
    double fraction = 0;
    for (size_t i = 0; i + 1 < ui.States.size(); ++i) {
        EXPECT_EQ(ui.States[i].Total, 0) << i;
        EXPECT_GE(ui.States[i].Fraction, fraction) << i;
        fraction = ui.States[i].Fraction;
    }
    EXPECT_GT(ui.States[1500].Fraction, 0.4);
    EXPECT_LT(ui.States[1500].Fraction, 0.6);
    EXPECT_LT(fraction, 1);

    Map({"id=id", "of=STATTOTALCOUNT"});
    for (bool readAhead : {true, false}) {
        SCOPED_TRACE(readAhead ? "reading ahead" : "row by row");
        text.SetReadAhead(readAhead);
        EXPECT_EQ(Import(bytes), expected);
        dest.EmptyTable();
        TFileStream stream(dir.File("in.csv"), fmOpenRead);
        text.LoadFromStream(stream);
        EXPECT_EQ(Rows(), expected);
    }
    EXPECT_TRUE(errors.empty());
}

// What the reading notices as it goes (a stray byte past the bytes checked when opening, a quote never
// closed) is raised while the rows are imported, as the row where it was found comes, and only then.
TEST_F(TextSource, WarningsOfTheReadingComeInTheirTurn) {
    Fields({{"name", ftString}});
    text.SetRowFirst(2);
    text.File().Settings().JudgeBytes = 16;
    text.Mappings().Add("name=name"); // no type guess reads the rows first
    std::vector<std::string> heard;
    text.OnWarning = [&](TObject*, const TKvIWarning& w) {
        heard.push_back(std::to_string(w.Line) + " after " + std::to_string(text.Statistic().TotalImported) +
                        " rows: " + w.Message);
    };
    std::string bytes = "name\n";
    for (int i = 0; i < 50; ++i) bytes += "a" + std::to_string(i) + "\n";
    bytes += "M\xFCller\n";
    for (int i = 0; i < 50; ++i) bytes += "b" + std::to_string(i) + "\n";
    bytes += "\"open\nx\n";
    const std::string notUtf8 =
        "52 after 50 rows: bytes that are not UTF-8 were read as Windows-1252 characters";
    for (bool readAhead : {true, false}) {
        SCOPED_TRACE(readAhead ? "reading ahead" : "row by row");
        text.SetReadAhead(readAhead);
        // A run stopped early hears what it reached; the next hears everything once.
        text.OnAfterRecordEvent = [&](TObject*, bool& stop) { stop = text.Statistic().TotalImported == 60; };
        heard.clear();
        Import(bytes);
        EXPECT_EQ(heard, std::vector<std::string>{notUtf8});
        text.OnAfterRecordEvent = nullptr;
        heard.clear();
        Import(bytes);
        EXPECT_EQ(heard,
                  (std::vector<std::string>{
                      notUtf8, "103 after 101 rows: the quoted field that starts on this line is never "
                               "closed: it takes in the 1 line after it, to the end of the file"}));
        ASSERT_EQ(dest.RowCount(), 102);
        EXPECT_EQ(dest.Row(50)[0].AsString(), "Müller");
        EXPECT_TRUE(text.HadProblems());
    }
}

TEST_F(TextSource, Utf16WithBomAndWindows1252) {
    Fields({{"name", ftString}});
    text.SetRowFirst(2);
    EXPECT_EQ(Import(std::string("\xFF\xFEn\0a\0m\0e\0\r\0\n\0Z\0o\0\xEB\0\r\0\n\0", 24)), "Zoë\n");
    EXPECT_EQ(Import("name\r\ncaf\xE9\r\n"), "café\n");
}

TEST_F(TextSource, ProposedColumnsAndTheirTypes) {
    text.SetRowFirst(2);
    test::WriteFile(dir.File("t.csv"),
                    "id,Qty-2,when,stamp,ok,price,name,it's\n1,5,2024-01-02,2024-01-02 10:00,true,1.5,a,x\n"
                    "2,6,2024-01-03,2024-01-03 11:00,false,2,b,y\n");
    text.SetSourceFileName(dir.File("t.csv"));
    text.DescribeColumns();
    std::string columns;
    for (int i = 0; i < text.Columns().Count(); ++i)
        columns += text.Columns().Columns(i).FieldName + ":" +
                   std::to_string(text.Columns().Columns(i).DataType) + " ";
    EXPECT_EQ(columns, "id:1 Qty-2:1 when:4 stamp:3 ok:6 price:2 name:0 it's:0 ");
    EXPECT_EQ(text.GetColumnFieldName(1), "[Qty-2]"); // would be a subtraction without brackets
    EXPECT_EQ(text.GetColumnFieldName(0), "id");
    EXPECT_EQ(text.GetColumnFieldName(7), "Field8"); // its quote would end the brackets early
    const auto preview = text.PreviewRows(5);
    ASSERT_EQ(preview.size(), 2u);
    EXPECT_EQ(preview[1][1], "6");
}

TEST_F(TextSource, StreamsClipboardAndMissingFiles) {
    Fields({{"v", ftString}});
    text.SetRowFieldNames(0);
    text.Mappings().Add("v=Field1"); // no header: the column is Field1, which names no field
    TStringStream stream("a\r\nb\r\n");
    text.LoadFromStream(stream);
    EXPECT_EQ(Rows(), "a\nb\n");

    struct FakeClipboard : IKvClipboard {
        std::string GetText() override { return "v\nfrom the clipboard\n"; }
    } clipboard;
    SetClipboard(&clipboard);
    TKvImportFromClipboard paste;
    paste.SetAnimatedStatus(false);
    paste.SetDataSet(&dest);
    paste.SetRowFirst(2);
    paste.SetFieldDelimiterCustom(U',');
    dest.EmptyTable();
    paste.Execute();
    SetClipboard(nullptr);
    EXPECT_EQ(Rows(), "from the clipboard\n");

    TKvImportFromText none;
    none.SetDataSet(&dest);
    EXPECT_EQ(test::ErrorOf([&] { none.Execute(); }), "Property SourceFileName wasn't specified.");
    text.SetSourceFileName(dir.File("missing.csv"));
    text.Execute();
    EXPECT_EQ(text.Statistic().Result, irFailed);
    EXPECT_EQ(text.LastMessage(),
              "An error has occurred during the data import process.\r\nCannot open file \"" +
                  dir.File("missing.csv") + "\". No such file or directory");
}

} // namespace
} // namespace kv
