// The run into a table of each database in DatabaseTargets, in transactions of a few rows: every mode by
// one key and by two, a row the database refuses, and the statistic come out the same whatever the
// database.

#include "EngineTestSupport.h"
#include "datasets/DatabaseTargets.h"
#include "datasets/KvDatabase.h"
#include "datasets/KvPgDataSet.h"
#include "datasets/KvSQLiteDataSet.h"

#include <algorithm>

namespace kv {
namespace {

using Rows = std::vector<std::vector<Variant>>;

class DatabaseRun : public ::testing::TestWithParam<test::DatabaseTarget> {
protected:
    DatabaseRun() : settings_(InvariantFormatSettings()), db(*OpenTarget(GetParam(), dir, &root)) {
        source.AddFieldDef("REGION", ftString, 10);
        source.AddFieldDef("ID", ftInteger);
        source.AddFieldDef("NAME", ftString, 40);
        source.AddFieldDef("PRICE", ftString, 20);
        imp.SetAnimatedStatus(false);
        imp.SetSourceDataset(&source);
        imp.SetCommitCount(2);
        imp.OnStartTransaction = [this](TObject*) {
            if (db.InTransaction()) db.Commit();
            db.StartTransaction();
        };
        imp.OnFinishTransaction = [this](TObject*) { db.Commit(); };
    }

    /// A fresh destination table holding `rows` (REGION, ID, NAME, PRICE; NAME required), and the
    /// source's `sourceRows`.
    void Tables(const Rows& rows, const Rows& sourceRows) {
        if (destination) delete destination;
        if (db.TableExists("items")) db.Execute("DROP TABLE " + db.QuoteIdentifier("items"));
        db.CreateTable("items", {test::Field("REGION", ftString), test::Field("ID", ftInteger),
                                 test::Field("NAME", ftString, true), test::Field("PRICE", ftFloat)});
        destination = db.OpenDataSet("items", &root);
        for (const auto& row : rows) test::Insert(*destination, row);
        imp.SetDataSet(destination);
        source.EmptyTable();
        for (const auto& row : sourceRows) source.AppendRecord(row);
    }
    void Execute() {
        imp.Execute();
        if (db.InTransaction()) db.Commit();
    }
    /// Runs on past row errors; the rows that failed, each once.
    std::vector<int64_t> ExecuteKeepingOn() {
        std::vector<int64_t> failed;
        imp.OnErrorEvent = [&](TObject*, const std::exception&, bool& abort) {
            if (failed.empty() || failed.back() != imp.ErrorPlace().Location.Row())
                failed.push_back(imp.ErrorPlace().Location.Row());
            abort = false;
        };
        Execute();
        imp.OnErrorEvent = nullptr;
        EXPECT_EQ(imp.Statistic().Result, irExecuted);
        return failed;
    }
    /// The table's rows as "REGION|ID|NAME|PRICE" lines, sorted (databases walk in their own order).
    std::vector<std::string> DestRows() {
        std::unique_ptr<TDataSet> ds(db.OpenDataSet("items", nullptr));
        std::vector<std::string> rows;
        for (; !ds->Eof(); ds->Next()) {
            std::string line;
            for (int i = 0; i < ds->FieldCount(); ++i) line += (i ? "|" : "") + ds->Fields(i).AsString();
            rows.push_back(line);
        }
        std::sort(rows.begin(), rows.end());
        return rows;
    }
    std::string Counts() const { return test::CountsOf(imp.Statistic()); }

    test::ScopedFormatSettings settings_;
    test::TempDir dir;
    TComponent root;
    TKvDatabase& db;
    TKvMemDataSet& source = *new TKvMemDataSet(&root);
    TKvImportFromDataSet& imp = *new TKvImportFromDataSet(&root);
    TDataSet* destination = nullptr;
};

TEST_P(DatabaseRun, ModesByOneKeyAndByTwo) {
    struct Case {
        TImportMode mode;
        const char* keys;
        std::vector<std::string> rows;
        const char* counts;
    };
    // The table holds EU 1, EU 2 and US 2; the source brings EU 2, US 3 and EU 4.
    const Case cases[] = {
        {imAppend,
         "ID",
         {"EU|1|a|1", "EU|2|b|2", "EU|2|new2|20", "EU|4|new4|40", "US|2|c|3", "US|3|new3|30"},
         "3 3 0 0 0 0"},
        // A key found twice updates the row found first.
        {imUpdate, "ID", {"EU|1|a|1", "EU|2|new2|20", "US|2|c|3"}, "3 0 1 0 0 0"},
        {imAppendUpdate,
         "ID",
         {"EU|1|a|1", "EU|2|new2|20", "EU|4|new4|40", "US|2|c|3", "US|3|new3|30"},
         "3 2 1 0 0 0"},
        {imDelete, "ID", {"EU|1|a|1", "US|2|c|3"}, "3 0 0 1 0 0"},
        {imCopy, "ID", {"EU|2|new2|20", "EU|4|new4|40", "US|3|new3|30"}, "3 3 0 3 0 0"},
        {imAppendNewOnly,
         "ID",
         {"EU|1|a|1", "EU|2|b|2", "EU|4|new4|40", "US|2|c|3", "US|3|new3|30"},
         "3 2 0 0 0 0"},
        {imUpdate, "REGION;ID", {"EU|1|a|1", "EU|2|new2|20", "US|2|c|3"}, "3 0 1 0 0 0"},
        {imAppendUpdate,
         "ID;REGION",
         {"EU|1|a|1", "EU|2|new2|20", "EU|4|new4|40", "US|2|c|3", "US|3|new3|30"},
         "3 2 1 0 0 0"},
        {imDelete, "REGION;ID", {"EU|1|a|1", "US|2|c|3"}, "3 0 0 1 0 0"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.mode) + " by " + c.keys);
        Tables({{"EU", 1, "a", 1.0}, {"EU", 2, "b", 2.0}, {"US", 2, "c", 3.0}},
               {{"EU", 2, "new2", "20"}, {"US", 3, "new3", "30"}, {"EU", 4, "new4", "40"}});
        imp.SetMode(c.mode);
        imp.SetDatasetKeys(c.keys);
        Execute();
        EXPECT_EQ(imp.Statistic().Result, irExecuted);
        EXPECT_EQ(DestRows(), c.rows);
        EXPECT_EQ(Counts(), c.counts);
    }
}

TEST_P(DatabaseRun, ARowTheDatabaseRefusesIsReportedAndTheRowsAroundItStay) {
    // Appends in batches too (PostgreSQL by COPY, SQLite by INSERTs of several rows), where the refusal
    // comes rows later, at the end of the batch or the commit.
    const std::pair<TImportMode, int> runs[] = {{imAppend, 0}, {imAppendUpdate, 0}, {imAppend, 3},
                                                {imCopy, 5},   {imAppend, 64},      {imAppend, 2}};
    for (const auto& [mode, batch] : runs) {
        SCOPED_TRACE(std::to_string(mode) + " batch " + std::to_string(batch));
        Rows rows;
        for (int i = 1; i <= 7; ++i) rows.push_back({"EU", i, i == 4 ? Variant::Null() : Variant("n"), "1"});
        Tables({}, rows);
        if (auto* pg = dynamic_cast<TKvPgDataSet*>(destination)) pg->SetAppendBatch(batch);
        if (auto* sqlite = dynamic_cast<TKvSQLiteDataSet*>(destination)) sqlite->SetAppendBatch(batch);
        imp.SetMode(mode);
        imp.SetDatasetKeys("ID");
        const std::vector<int64_t> failed = ExecuteKeepingOn();
        EXPECT_EQ(failed, std::vector<int64_t>{4});
        EXPECT_EQ(Counts(), "7 6 0 0 0 1");
        EXPECT_EQ(DestRows().size(), 6u);
    }
}

TEST_P(DatabaseRun, KeyedWritesSentLateGiveTheSameRowsErrorsAndCounts) {
    // PostgreSQL reads the answer to each write with the next row's lookup: a refused write is found one row
    // late, and a lookup must see the rows written before it.
    const Rows sourceRows = {
        {"EU", 1, "x", "10"},
        {"EU", 2, Variant::Null(), "20"}, // refused: the first of the two rows with ID 2 keeps its values
        {"EU", 2, "y", "30"},             // and is the one updated
        {"EU", 5, "z", "50"},             // added
        {"EU", 5, "w", "55"},             // found: the row just added
        {"EU", 6, Variant::Null(), "60"}, // refused
        {"EU", 6, "v", "66"},             // not found: added
    };
    for (int commitCount : {2, 100}) {
        SCOPED_TRACE(commitCount);
        Tables({{"EU", 1, "a", 1.0}, {"EU", 2, "b", 2.0}, {"US", 2, "c", 3.0}}, sourceRows);
        if (auto* pg = dynamic_cast<TKvPgDataSet*>(destination)) pg->SetDeferWrites(true);
        imp.SetCommitCount(commitCount);
        imp.SetMode(imAppendUpdate);
        imp.SetDatasetKeys("ID");
        const std::vector<int64_t> failed = ExecuteKeepingOn();
        EXPECT_EQ(failed, (std::vector<int64_t>{2, 6}));
        EXPECT_EQ(Counts(), "7 2 3 0 0 2");
        EXPECT_EQ(DestRows(),
                  (std::vector<std::string>{"EU|1|x|10", "EU|2|y|30", "EU|5|w|55", "EU|6|v|66", "US|2|c|3"}));
    }
}

INSTANTIATE_TEST_SUITE_P(Databases, DatabaseRun, ::testing::ValuesIn(test::DatabaseTargets()),
                         test::TargetName);

} // namespace
} // namespace kv
