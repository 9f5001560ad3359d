#pragma once
// A CSV imported into an SQLite table in the command line's transactions, with the Nth write of the
// table or the Nth read of the source failing; CheckFaultRun says whether what is left is allowed.
// Shared by the test and the fuzz target.

#include "../support/ByteStream.h"
#include "datasets/KvSQLiteDataSet.h"
#include "engine/KvISettings.h"
#include "platform/Exceptions.h"
#include "platform/Streams.h"
#include "sources/KvI2TXT.h"

#include <algorithm>
#include <cstring>
#include <sqlite3.h>
#include <string>
#include <string_view>
#include <vector>

namespace kv::test {

/// Write number FailAt (from 1) fails: a row error, or a database refusing every write from then on.
class TFaultyTable : public TKvSQLiteDataSet {
public:
    using TKvSQLiteDataSet::TKvSQLiteDataSet;
    int FailAt = 0;
    bool Unwritable = false;
    int Posts = 0;

protected:
    void InternalPost(bool inserting, std::vector<Variant>& values,
                      const TAssignedFields& assigned) override {
        if (++Posts == FailAt) {
            if (Unwritable) throw EDatabaseUnwritable("attempt to write a readonly database");
            throw EDatabaseError("constraint failed");
        }
        TKvSQLiteDataSet::InternalPost(inserting, values, assigned);
    }
};

struct TFaultPlan {
    std::string Csv;
    int CommitCount = 3;
    int FailPost = 0; ///< 0: no write fails
    bool Unwritable = false;
    int FailRead = 0; ///< 0: no read fails
    bool AbortOnError = false;
    bool ReadAhead = true;
    size_t BlockSize = 16;
};

struct TFaultRun {
    TKvIResult Result = irUnknown;
    TKvIStatistic Statistic;
    std::vector<int> FailedRows; ///< as the error handler met them, each once
    int RolledBack = 0;          ///< rows written since the last commit that the rollback took away
    std::vector<int> Table;      ///< the row number column of the table, in the order of the rows
    int Posts = 0, Reads = 0;
};

/// Imports plan.Csv (columns a and b; a column n takes the row number) into a new table in memory.
inline TFaultRun RunWithFault(const TFaultPlan& plan) {
    TComponent root;
    auto* database = new TKvSQLiteDatabase(&root);
    database->Open(":memory:");
    database->Execute("CREATE TABLE t (n INTEGER, a, b)");
    auto* table = new TFaultyTable(&root);
    table->SetDatabase(database);
    table->SetTableName("t");
    table->FailAt = plan.FailPost;
    table->Unwritable = plan.Unwritable;
    struct TSmallBlockText : TKvImportFromText { // small blocks: a small text takes many reads
        TSmallBlockText(TComponent* owner, size_t size) : TKvImportFromText(owner) {
            File().Settings().BlockSize = size;
        }
    };
    auto* text = new TSmallBlockText(&root, plan.BlockSize);
    text->SetAnimatedStatus(false);
    text->SetDataSet(table);
    text->SetFieldDelimiterCustom(U',');
    text->SetRowFieldNames(0);
    text->SetReadAhead(plan.ReadAhead);
    text->SetCommitCount(plan.CommitCount);
    text->SetAbortOnProblem(plan.AbortOnError);
    text->Mappings().Add("n=STATTOTALIMPORTED");
    text->Mappings().Add("a=Field1");
    text->Mappings().Add("b=Field2");

    TFaultRun run;
    // Commits follow the rows done, whatever the rows' outcome.
    const TKvIStatistic& s = text->Statistic();
    int committedWrites = 0;
    const auto writes = [&] { return s.TotalAdded + s.TotalUpdated + s.TotalDeleted; };
    text->OnStartTransaction = [&](TObject*) {
        if (!database->InTransaction()) database->StartTransaction();
    };
    text->OnAfterRecordEvent = [&](TObject*, bool&) {
        if (plan.CommitCount > 0 && s.TotalImported % plan.CommitCount == 0 && database->InTransaction()) {
            database->Commit();
            committedWrites = writes();
            database->StartTransaction();
        }
    };
    text->OnFinishTransaction = [](TObject*) {};
    text->OnErrorEvent = [&](TObject*, const std::exception&, bool& abort) {
        if (run.FailedRows.empty() || run.FailedRows.back() != s.TotalImported)
            run.FailedRows.push_back(s.TotalImported);
        abort = plan.AbortOnError;
    };

    test::TByteStream stream(plan.Csv);
    stream.FailAt = plan.FailRead;
    text->LoadFromStream(stream);
    run.Result = s.Result;
    if (database->InTransaction()) {
        if (run.Result == irFailed) {
            database->Rollback();
            run.RolledBack = writes() - committedWrites;
        } else {
            database->Commit();
        }
    }
    run.Statistic.Assign(s);
    run.Posts = table->Posts;
    run.Reads = stream.Reads;
    TSQLiteStatement rows = database->Prepare("SELECT n FROM t ORDER BY rowid");
    while (sqlite3_step(rows.get()) == SQLITE_ROW) run.Table.push_back(sqlite3_column_int(rows.get(), 0));
    return run;
}

/// What is wrong with `run` given `clean`, the run without the fault ("" when nothing): a run that went
/// on keeps every row but the failed ones, a failed one its committed rows only; the statistic matches.
inline std::string CheckFaultRun(const TFaultPlan& plan, const TFaultRun& clean, const TFaultRun& run) {
    const TKvIStatistic& s = run.Statistic;
    const auto list = [](const std::vector<int>& rows) {
        std::string out;
        for (int row : rows) out += (out.empty() ? "" : " ") + std::to_string(row);
        return "[" + out + "]";
    };
    if (run.Result != irExecuted && run.Result != irFailed)
        return "the run neither finished nor failed: " + std::to_string(run.Result);
    if (s.TotalErrors != static_cast<int>(run.FailedRows.size()))
        return std::to_string(s.TotalErrors) + " errors counted for the failed rows " + list(run.FailedRows);
    if (run.FailedRows.size() > 1) return "one fault failed the rows " + list(run.FailedRows);
    int last = clean.Statistic.TotalImported;
    if (run.Result == irFailed) {
        last = s.TotalImported == 0   ? 0
               : plan.CommitCount > 0 ? (s.TotalImported - 1) / plan.CommitCount * plan.CommitCount
                                      : 0;
        if (!run.FailedRows.empty() && run.FailedRows.back() != s.TotalImported)
            return "the run failed at row " + std::to_string(s.TotalImported) + " after the failed rows " +
                   list(run.FailedRows);
    }
    std::vector<int> expected;
    for (int row : clean.Table)
        if (row <= last &&
            std::find(run.FailedRows.begin(), run.FailedRows.end(), row) == run.FailedRows.end())
            expected.push_back(row);
    if (run.Table != expected)
        return "the table holds " + list(run.Table) + " where " + list(expected) + " were due";
    if (s.TotalAdded - run.RolledBack != static_cast<int>(run.Table.size()))
        return std::to_string(s.TotalAdded) + " rows added, " + std::to_string(run.RolledBack) +
               " rolled back, " + std::to_string(run.Table.size()) + " in the table";
    if (run.Result == irExecuted && s.TotalImported != clean.Statistic.TotalImported)
        return "the run went on but processed " + std::to_string(s.TotalImported) + " rows of " +
               std::to_string(clean.Statistic.TotalImported);
    return "";
}

} // namespace kv::test
