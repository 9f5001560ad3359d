#include "Destination.h"

#include "datasets/KvPgDataSet.h"
#include "datasets/KvSQLiteDataSet.h"
#include "platform/Exceptions.h"
#include "platform/Streams.h"
#include "platform/SysUtils.h"

#include <algorithm>
#include <iostream>

namespace kv::cli {

Destination::Destination(const std::string& target, bool sqlOnly, TComponent& root)
    : root_(root),
      database_(OpenDatabase(sqlOnly && !IsPostgreSQLTarget(target) && (target.empty() || !FileExists(target))
                                 ? ":memory:"
                                 : target,
                             &root)),
      sqlOnly_(sqlOnly) {}

void Destination::Prepare(const std::string& table, SourceSetup& source,
                          const std::vector<std::string>& maps) {
    TKvDatabase* holder = database_;
    if (!database_->TableExists(table)) {
        const std::vector<TFieldDef> columns = ColumnsForNewTable(source, maps);
        if (columns.empty())
            throw Exception("The table \"" + table +
                            "\" does not exist and the source has no columns to create it from.");
        if (sqlOnly_) {
            // Never change the database a script is written for: the script creates the table, and a
            // database in memory holds it meanwhile, so that the run still has its fields.
            createStatement_ = database_->CreateTableStatement(table, columns);
            holder = OpenDatabase(":memory:", &root_);
            holder->CreateTable(table, columns);
        } else {
            createStatement_ = database_->CreateTable(table, columns);
        }
    }
    dataSet_ = holder->OpenDataSet(table, &root_);
}

bool Destination::IsPostgreSQL() const {
    return dynamic_cast<const TKvPgDatabase*>(database_) != nullptr;
}

void Destination::AddLookup(const std::string& name, TKvImportBaseComponent& component) {
    if (!database_->TableExists(name)) throw Exception("The lookup table \"" + name + "\" does not exist.");
    component.RegisterLookupTable(name, database_->OpenDataSet(name, &root_));
}

void Destination::AttachTransactions(TKvImportBaseComponent& component) {
    if (sqlOnly_) return;
    component_ = &component;
    database_->PreferFastCommits();
    // The component's own commit points fall before the row that completes a count, so its first
    // transaction holds one row less than the rest. Commits here follow the rows done instead: every
    // transaction holds exactly CommitCount rows, and a failed run keeps whole ones only.
    component.OnStartTransaction = [this](TObject*) {
        if (!database_->InTransaction()) database_->StartTransaction();
    };
    // Appends into PostgreSQL go by COPY, a batch per transaction; keyed modes look each row up first, so
    // they write row by row, the answer to each write read with the next row's lookup. A row the server
    // refuses is found later; the run reports it then, by the place of its row, and counts it as failed.
    // A run that stops at the first error needs it at once.
    // Appends into SQLite go 32 rows to an INSERT, which costs SQLite a third less than a row at a time.
    auto* sqlite = dynamic_cast<TKvSQLiteDataSet*>(dataSet_);
    if (sqlite && !component.AbortOnProblem() && (component.Mode() == imAppend || component.Mode() == imCopy))
        sqlite->SetAppendBatch(32);
    auto* pg = dynamic_cast<TKvPgDataSet*>(dataSet_);
    if (pg && !component.AbortOnProblem()) {
        const int count = component.CommitCount();
        if (component.Mode() == imAppend || component.Mode() == imCopy)
            pg->SetAppendBatch(count > 0 ? std::min(count, 50000) : 50000);
        else
            pg->SetDeferWrites(true);
    }
    component.OnAfterRecordEvent = [this](TObject*, bool&) {
        const int count = component_->CommitCount();
        if (count > 0 && component_->Statistic().TotalImported % count == 0 && database_->InTransaction()) {
            Commit();
            database_->StartTransaction();
        }
    };
    // The run finishes its last transaction whatever happened; whether that one is kept is decided after
    // the run (committed when it succeeded, rolled back when it failed), so the handler leaves it open.
    component.OnFinishTransaction = [](TObject*) {};
}

int Destination::Writes() const {
    const TKvIStatistic& s = component_->Statistic();
    return s.TotalAdded + s.TotalUpdated + s.TotalDeleted;
}

void Destination::Commit() {
    if (!database_->InTransaction()) return;
    database_->Commit();
    if (component_) committedWrites_ = Writes();
}

void Destination::Rollback() {
    // A lost connection has ended the transaction already; its rows are gone all the same.
    if (component_) rolledBack_ = Writes() - committedWrites_;
    database_->Rollback();
}

} // namespace kv::cli
