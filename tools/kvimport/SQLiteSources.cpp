// Tables of another SQLite database as a source: --source-table names the table.

#include "SourceKinds.h"
#include "TableSources.h"
#include "datasets/KvSQLiteDataSet.h"

namespace kv::cli {

namespace {

/// A table of another SQLite database.
class SQLiteSource : public TableSource {
public:
    SQLiteSource(const std::string& file, const std::string& table, TComponent& root)
        : TableSource(new TKvSQLiteDataSet(&root), root), database_(new TKvSQLiteDatabase(&root)) {
        CheckSourceFile(file);
        database_->Open(file);
        if (!database_->TableExists(table))
            throw Exception("The source database has no table \"" + table + "\".");
        auto* dataSet = static_cast<TKvSQLiteDataSet*>(table_);
        dataSet->SetDatabase(database_);
        dataSet->SetTableName(table);
        component_->SetSourceFileName(file);
        tableName_ = table;
    }
    std::vector<std::string> SpecificationLines() const override {
        return {"SourceKind=SQLite", "SourceTable=" + tableName_};
    }

private:
    TKvSQLiteDatabase* database_;
    std::string tableName_;
};

const RegisterSourceKind kSQLite({
    "sqlite",
    {".sqlite", ".sqlite3", ".db", ".db3"},
    "SQLite",
    "SQLite sources (.sqlite .sqlite3 .db .db3)",
    false,
    {SourceTableOption("the table to read")},
    [](const ImportOptions& o, const std::string& file, const TStringList* saved,
       TComponent& root) -> std::unique_ptr<SourceSetup> {
        return std::make_unique<SQLiteSource>(file, SourceTable(o, saved, "an SQLite"), root);
    },
});

} // namespace

} // namespace kv::cli
