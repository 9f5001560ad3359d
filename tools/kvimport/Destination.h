#pragma once
// The destination of a command-line import: a table of the database --db names (OpenDatabase chooses the
// kind by what it is given), created from the source's columns when missing, with the tables LOOKUP may
// use, and the transactions the run asks for.

#include "Sources.h"
#include "datasets/KvDatabase.h"

#include <string>
#include <vector>

namespace kv::cli {

class Destination {
public:
    /// `sqlOnly`: the run writes SQL statements; the database is only read (and a missing table is made
    /// in a database in memory, so that it still gives the fields).
    Destination(const std::string& target, bool sqlOnly, TComponent& root);

    /// Opens `table`, creating it from the source's columns (or the mapping's fields) when it is missing.
    void Prepare(const std::string& table, SourceSetup& source, const std::vector<std::string>& maps);
    /// The table was created by Prepare (its column types are a guess from the source).
    bool Created() const { return !createStatement_.empty(); }
    /// The destination is a PostgreSQL database: scripts for it write its literals.
    bool IsPostgreSQL() const;
    /// The statement that created it, in the destination's own SQL ("" when it existed).
    const std::string& CreateStatement() const { return createStatement_; }
    /// Table `name` of the database becomes findable by LOOKUP under that name.
    void AddLookup(const std::string& name, TKvImportBaseComponent& component);
    TDataSet& DataSet() { return *dataSet_; }
    /// Runs the import in transactions of exactly CommitCount rows each (the first one too); the last one
    /// is left to Commit or Rollback after the run.
    void AttachTransactions(TKvImportBaseComponent& component);
    void Commit();
    /// Rolls back the open transaction (after a failed run).
    void Rollback();
    /// Rows written since the last commit that a rollback (or a lost connection) took away.
    int RolledBackRows() const { return rolledBack_; }
    /// Rows the run wrote and committed.
    int CommittedRows() const { return committedWrites_; }

private:
    int Writes() const;

    TComponent& root_;
    TKvDatabase* database_;
    TDataSet* dataSet_ = nullptr;
    bool sqlOnly_;
    TKvImportBaseComponent* component_ = nullptr;
    int committedWrites_ = 0;
    int rolledBack_ = 0;
    std::string createStatement_;
};

} // namespace kv::cli
