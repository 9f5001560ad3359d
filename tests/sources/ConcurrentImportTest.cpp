// Two components importing at the same time in two threads, each into its own database: what the README
// promises of threads. Run under ThreadSanitizer by CI.

#include "TestSupport.h"
#include "datasets/KvSQLiteDataSet.h"
#include "sources/KvI2TXT.h"

#include <thread>

namespace kv {
namespace {

struct OneRun {
    std::string csv, db;
    int errors = 0;
    TKvIResult result = irUnknown;
};

void Import(OneRun& run) {
    TKvSQLiteDatabase database;
    database.Open(run.db);
    database.Execute("CREATE TABLE t(id INTEGER, amount REAL, day DATE, name TEXT)");
    TKvSQLiteDataSet table;
    table.SetDatabase(&database);
    table.SetTableName("t");
    TKvImportFromText source;
    source.SetAnimatedStatus(false);
    source.SetSourceText(run.csv);
    source.SetFieldDelimiterCustom(U',');
    source.SetRowFirst(2);
    source.DataFormats().DateOrder = doYMD;
    source.DataFormats().DateSeparator = U'-';
    source.DataFormats().DecimalSeparator = U'.';
    source.SetDataSet(&table);
    source.SetCommitCount(100);
    source.OnStartTransaction = [&](TObject*) {
        if (database.InTransaction()) database.Commit();
        database.StartTransaction();
    };
    source.Execute();
    if (database.InTransaction()) database.Commit();
    run.errors = source.Statistic().TotalErrors;
    run.result = source.Statistic().Result;
}

TEST(ConcurrentImport, TwoComponentsInTwoThreads) {
    test::TempDir dir;
    OneRun runs[2];
    for (int r = 0; r < 2; ++r) {
        std::string csv = "id,amount,day,name\n";
        for (int i = 1; i <= 3000; ++i)
            csv += std::to_string(i) + "," + std::to_string(i * (r + 1)) + ".5,2024-01-" +
                   std::to_string(i % 28 + 1) + ",\"row " + std::to_string(i) + "\"\n";
        csv += "bad,x,y,z\n"; // one row error each
        runs[r].csv = csv;
        runs[r].db = dir.File("db" + std::to_string(r) + ".sqlite");
    }
    std::thread first(Import, std::ref(runs[0])), second(Import, std::ref(runs[1]));
    first.join();
    second.join();
    for (int r = 0; r < 2; ++r) {
        EXPECT_EQ(runs[r].result, irExecuted);
        EXPECT_EQ(runs[r].errors, 1);
        EXPECT_EQ(test::SqliteQuery(runs[r].db, "SELECT count(*), sum(amount) FROM t"),
                  r == 0 ? "3000|4503000.0" : "3000|9004500.0");
    }
}

} // namespace
} // namespace kv
