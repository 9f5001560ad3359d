#include "Destination.h"

#include "platform/Exceptions.h"
#include "platform/Streams.h"

namespace kv::cli {

Destination::Destination(const std::string& databaseFile, bool sqlOnly, TComponent& root)
    : root_(root), database_(new TKvSQLiteDatabase(&root)), dataSet_(new TKvSQLiteDataSet(&root)),
      sqlOnly_(sqlOnly) {
    if (sqlOnly && (databaseFile.empty() || !FileExists(databaseFile)))
        database_->Open(":memory:");
    else
        database_->Open(databaseFile);
    dataSet_->SetDatabase(database_);
}

void Destination::Prepare(const std::string& table, SourceSetup& source,
                          const std::vector<std::string>& maps) {
    if (!database_->TableExists(table)) {
        const std::vector<ColumnDef> columns = ColumnsForNewTable(source, maps);
        if (columns.empty())
            throw Exception("The table \"" + table +
                            "\" does not exist and the source has no columns to create it from.");
        if (sqlOnly_ && database_->FileName() != ":memory:") {
            // Never change the database a script is written for: describe the table in memory instead.
            database_->Close();
            database_->Open(":memory:");
        }
        std::string sql = "CREATE TABLE " + TKvSQLiteDatabase::QuoteIdentifier(table) + " (";
        for (size_t i = 0; i < columns.size(); ++i) {
            if (i) sql += ", ";
            sql += TKvSQLiteDatabase::QuoteIdentifier(columns[i].Name);
            if (!columns[i].Type.empty()) sql += " " + columns[i].Type;
        }
        sql += ")";
        database_->Execute(sql);
        createStatement_ = sql;
    }
    dataSet_->SetTableName(table);
    dataSet_->Open();
}

void Destination::AddLookup(const std::string& name, TKvImportBaseComponent& component) {
    if (!database_->TableExists(name)) throw Exception("The lookup table \"" + name + "\" does not exist.");
    auto* lookup = new TKvSQLiteDataSet(&root_);
    lookup->SetDatabase(database_);
    lookup->SetTableName(name);
    component.RegisterLookupTable(name, lookup);
}

void Destination::AttachTransactions(TKvImportBaseComponent& component) {
    if (sqlOnly_) return;
    component_ = &component;
    // The component's own commit points fall before the row that completes a count, so its first
    // transaction holds one row less than the rest. Commits here follow the rows done instead: every
    // transaction holds exactly CommitCount rows, and a failed run keeps whole ones only.
    component.OnStartTransaction = [this](TObject*) {
        if (!database_->InTransaction()) database_->StartTransaction();
    };
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
    if (!database_->InTransaction()) return;
    database_->Rollback();
    if (component_) rolledBack_ = Writes() - committedWrites_;
}

} // namespace kv::cli
