#pragma once
// TKvDatabase: what a destination database offers an import: transactions, its tables, its SQL dialect
// for creating one, and a TDataSet over a table. OpenDatabase picks the implementation from the target a
// user names (a file name or a connection string).

#include "datasets/DataSet.h"

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace kv {

class TKvDatabase : public TComponent {
public:
    explicit TKvDatabase(TComponent* owner = nullptr) : TComponent(owner) {}

    /// Which database this is, for messages ("SQLite database \"sales.db\""); never holds a password.
    virtual std::string Description() const = 0;

    /// EDatabaseError when a transaction is already open.
    virtual void StartTransaction() = 0;
    /// EDatabaseError when no transaction is open.
    virtual void Commit() = 0;
    /// Does nothing when no transaction is open (some errors end one inside the database already).
    virtual void Rollback() = 0;
    virtual bool InTransaction() const = 0;
    /// Runs one or more statements that return no rows. A failed statement leaves an open transaction
    /// open and usable, so that one bad row does not cost the rows before it.
    virtual void Execute(const std::string& sql) = 0;

    /// Lets commits cost less where every commit still survives the process being killed. A bulk run
    /// calls it before its first write; the base changes nothing.
    virtual void PreferFastCommits() {}

    /// True when a table or view of that name exists.
    virtual bool TableExists(const std::string& name) = 0;
    /// `name` as an identifier of this database's SQL, quoted, its quote characters doubled inside.
    std::string QuoteIdentifier(std::string_view name) const { return QuotedIdentifier(name); }
    /// The declared type a column holding values of `type` gets in a created table ("" for none, where
    /// the database keeps each value as it comes); EDatabaseError for a type no column can hold.
    virtual std::string TypeName(TFieldType type) const = 0;
    /// The CREATE TABLE statement CreateTable runs: each column quoted, with its TypeName, NOT NULL when
    /// Required, and the first ftAutoInc column as the primary key.
    virtual std::string CreateTableStatement(const std::string& name,
                                             const std::vector<TFieldDef>& columns) const;
    /// Creates the table and gives the statement it ran, so that a script can start with the same one.
    std::string CreateTable(const std::string& name, const std::vector<TFieldDef>& columns);
    /// The table as an open dataset owned by `owner` (the caller's, to delete, when nullptr); nothing is
    /// left behind when it cannot be opened.
    virtual TDataSet* OpenDataSet(const std::string& table, TComponent* owner) = 0;

    std::string ClassName() const override { return "TKvDatabase"; }

protected:
    virtual std::string QuotedIdentifier(std::string_view name) const = 0;
};

/// True when `target` names a PostgreSQL database: a postgresql:// or postgres:// address, or a
/// connection string of key=value settings ("host=db1 dbname=sales").
bool IsPostgreSQLTarget(std::string_view target);

/// The database `target` names, connected and owned by `owner` (the caller's when nullptr): a PostgreSQL
/// connection string or address (see IsPostgreSQLTarget), otherwise an SQLite file (created when missing)
/// or ":memory:". EDatabaseError when it cannot be opened.
TKvDatabase* OpenDatabase(const std::string& target, TComponent* owner);

// What the table datasets of each database share.

/// Refuses a change that only a closed dataset may take.
void KvCheckClosed(const TDataSet& dataSet);

/// Moves `dataSet` from the datasets of the database `current` to those of `next` (each database's list
/// `list`), while it is closed.
template <class TDatabase, class TSet>
void KvMoveDataSet(TSet& dataSet, TDatabase*& current, TDatabase* next, std::vector<TSet*> TDatabase::*list) {
    if (next == current) return;
    KvCheckClosed(dataSet);
    if (current) std::erase(current->*list, &dataSet);
    current = next;
    if (current) (current->*list).push_back(&dataSet);
}

/// A new dataset of type TSet on `table` of `database`, set up by `prepare`, opened and owned by `owner`
/// (the caller's when nullptr); nothing is left behind when it cannot be opened.
template <class TSet, class TDatabase, class TPrepare>
TDataSet* KvOpenTableDataSet(TDatabase* database, const std::string& table, TComponent* owner,
                             TPrepare&& prepare) {
    auto dataSet = std::make_unique<TSet>();
    dataSet->SetDatabase(database);
    dataSet->SetTableName(table);
    prepare(*dataSet);
    dataSet->Open();
    if (owner) owner->InsertComponent(dataSet.get());
    return dataSet.release();
}

} // namespace kv
