// Tables of a PostgreSQL database as a source: the source is a postgresql:// address or a key=value
// connection string, --source-table names the table ("schema.table" in a schema).

#include "SourceKinds.h"
#include "TableSources.h"
#include "datasets/KvPgDataSet.h"

namespace kv::cli {

namespace {

/// A table of a PostgreSQL database, read a window of rows at a time by row address, so that memory does
/// not grow with the table.
class PgSource : public TableSource {
public:
    PgSource(const std::string& target, const std::string& table, TComponent& root)
        : TableSource(new TKvPgDataSet(&root), root), database_(new TKvPgDatabase(&root)) {
        database_->Open(target);
        if (!database_->TableExists(table))
            throw Exception("The source database has no table \"" + table + "\".");
        auto* dataSet = static_cast<TKvPgDataSet*>(table_);
        dataSet->SetDatabase(database_);
        dataSet->SetTableName(table);
        dataSet->SetFetchSize(4096); // a round trip per window: fewer, larger ones
        // The description names the database without the connection string, which may hold a password.
        component_->SetSourceFileName(database_->Description());
        tableName_ = table;
    }
    std::vector<std::string> SpecificationLines() const override {
        return {"SourceKind=PostgreSQL", "SourceTable=" + tableName_};
    }

private:
    TKvPgDatabase* database_;
    std::string tableName_;
};

const RegisterSourceKind kPostgreSQL({
    "postgresql",
    {},
    "PostgreSQL",
    "PostgreSQL sources (a postgresql:// address or a key=value connection string)",
    false,
    {SourceTableOption("the table to read (schema.table in a schema)")},
    [](const ImportOptions& o, const std::string& target, const TStringList* saved,
       TComponent& root) -> std::unique_ptr<SourceSetup> {
        return std::make_unique<PgSource>(target, SourceTable(o, saved, "a PostgreSQL"), root);
    },
});

} // namespace

} // namespace kv::cli
