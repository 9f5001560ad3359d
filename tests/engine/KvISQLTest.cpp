// SQL generation: the statements a run writes instead of changing the table.

#include "engine/KvISQL.h"
#include "EngineTestSupport.h"
#include "platform/DateUtils.h"

namespace kv {
namespace {

class SQL : public test::EngineFixture {
protected:
    SQL() {
        imp.SetActionKind(akGenerateSQL);
        dest.AppendRecord({1, "one", 1.0});
    }
    std::vector<std::string> Script() { return {imp.SQLScript().begin(), imp.SQLScript().end()}; }
};

TEST_F(SQL, OneStatementPerRowAndTheTableStaysAsItWas) {
    SourceRows({{1, "It's \"new\"", "1.5"}, {2, "two", ""}});
    imp.SetMode(imAppendUpdate);
    imp.SetDatasetKeys("ID");
    imp.Execute();
    EXPECT_EQ(Script(),
              (std::vector<std::string>{
                  "UPDATE [ITEMS] SET [ID] = 1, [NAME] = \"It's \"\"new\"\"\", [PRICE] = 1.5 WHERE [ID] = 1;",
                  "INSERT INTO [ITEMS] ([ID], [NAME], [PRICE]) VALUES (2, \"two\", NULL);"}));
    EXPECT_EQ(DestRows(), std::vector<std::string>{"1|one|1"});
    EXPECT_EQ(Counts(), "2 1 1 0 0 0");
}

TEST_F(SQL, DeleteCopyAndOptions) {
    SourceRows({{1, "x", "0"}, {7, "y", "0"}});
    imp.SetMode(imDelete);
    imp.SetDatasetKeys("ID");
    imp.SQLOptions().FieldNameCharCase = ifcLowerCase;
    imp.SQLOptions().FieldNameOptions().SQLQuoteOpen = U'"';
    imp.SQLOptions().FieldNameOptions().SQLQuoteClose = U'"';
    imp.SQLOptions().SQLTerm = "\nGO";
    imp.Execute();
    EXPECT_EQ(Script(), std::vector<std::string>{"DELETE FROM \"items\" WHERE \"id\" = 1\nGO"});

    imp.SetMode(imCopy);
    imp.SQLOptions() = TKvISQLOptions();
    imp.SQLOptions().SQLQuote = U'\'';
    imp.Execute();
    EXPECT_EQ(Script(),
              (std::vector<std::string>{"DELETE FROM [ITEMS];",
                                        "INSERT INTO [ITEMS] ([ID], [NAME], [PRICE]) VALUES (1, 'x', 0);",
                                        "INSERT INTO [ITEMS] ([ID], [NAME], [PRICE]) VALUES (7, 'y', 0);"}));
    EXPECT_EQ(imp.Statistic().TotalDeleted, 1);
    EXPECT_EQ(dest.RowCount(), 1);
}

TEST_F(SQL, ScriptIsWrittenToAFile) {
    test::TempDir dir;
    SourceRows({{3, "z", "3"}});
    imp.SetSQLFileName(dir.File("out.sql"));
    imp.Execute();
    EXPECT_EQ(test::ReadFile(dir.File("out.sql")),
              "INSERT INTO [ITEMS] ([ID], [NAME], [PRICE]) VALUES (3, \"z\", 3);\r\n");
}

TEST(SQLWriter, NoValueLeavesItsQuotes) {
    TKvISQLOptions options;
    options.SQLQuote = U'\'';
    TKvISQLWriter w(options, "T]; DROP TABLE x; --");
    EXPECT_EQ(w.Name("we]ird"), "[we]]ird]");
    EXPECT_EQ(w.DeleteAll(), "DELETE FROM [T]]; DROP TABLE x; --];");
    const std::pair<Variant, const char*> literals[] = {
        {Variant("'); DROP TABLE t; --"), "'''); DROP TABLE t; --'"},
        {Variant("a\\'b"), "'a\\''b'"},
        {Variant::Null(), "NULL"},
        {Variant(true), "1"},
        {Variant(2.5e-7), "2.5E-7"},
        {Variant::FromDateTime(EncodeDateTime(2026, 3, 7, 14, 5, 9, 0)), "'2026-03-07 14:05:09'"},
        {Variant::FromBytes(std::string("\x01\xFF", 2)), "X'01FF'"},
    };
    for (auto& [value, literal] : literals) EXPECT_EQ(w.Literal(value, ftString), literal);
    EXPECT_EQ(w.Literal(Variant::FromDateTime(EncodeDate(2026, 3, 7)), ftDate), "'2026-03-07'");
    options.SQLQuote = 0; // no quote of its own: apostrophes still keep a text in
    EXPECT_EQ(w.Literal(Variant("x'y"), ftString), "'x''y'");
    EXPECT_EQ(w.Condition({"A", "B"}, {"1", "NULL"}), "[A] = 1 AND [B] IS NULL");
    options.FieldNameCharCase = ifcProper;
    EXPECT_EQ(w.Name("last name_x"), "[Last Name_X]");
    options.PostgreSQL = true; // as PostgreSQL reads them
    EXPECT_EQ(w.Literal(Variant(false), ftBoolean), "FALSE");
    EXPECT_EQ(w.Literal(Variant::FromBytes(std::string("\x01\xFF", 2)), ftBlob), "'\\x01FF'");
    EXPECT_EQ(TKvISQLWriter(options, "Shop.Order Lines").DeleteAll(),
              "DELETE FROM \"Shop\".\"Order Lines\";");
}

// The output alone: the prologue first, the file written in blocks and closed at the end, and the copy in
// memory kept or not.
TEST(SQLOutput, FileAndMemory) {
    test::TempDir dir;
    const std::string file = dir.File("out.sql");
    TKvISQLOptions options;
    for (bool keep : {true, false}) {
        TKvISQLOutput output;
        output.Begin(options, "T", file, keep, {"CREATE TABLE T (A);"});
        EXPECT_TRUE(output.Active());
        const std::string big(700 * 1024, 'x'); // two of them pass the block size: one write before the end
        output.Add("INSERT 1;");
        output.Add(big);
        output.Add(big);
        EXPECT_GT(test::ReadFile(file).size(), 0u);
        output.Finish();
        EXPECT_FALSE(output.Active());
        EXPECT_EQ(test::ReadFile(file), "CREATE TABLE T (A);\r\nINSERT 1;\r\n" + big + "\r\n" + big + "\r\n");
        EXPECT_EQ(output.Script().Count(), keep ? 4 : 0);
    }
    TKvISQLOutput memoryOnly;
    memoryOnly.Begin(options, "T", "", false, {});
    memoryOnly.Add("DELETE FROM T;");
    memoryOnly.Finish();
    EXPECT_EQ(memoryOnly.Script().Count(), 1); // with no file there is nowhere else to keep it
}

} // namespace
} // namespace kv
