// Tables of a PostgreSQL database as a source: the source is a postgresql:// address or a key=value
// connection string, --source-table names the table ("schema.table" in a schema).

#include "SourceKinds.h"
#include "datasets/KvPgDataSet.h"
#include "engine/KvI2DS.h"
#include "platform/StringList.h"

namespace kv::cli {

namespace {

/// A table of a PostgreSQL database, read a window of rows at a time by row address, so that memory does
/// not grow with the table.
class PgSource : public SourceSetup {
public:
    PgSource(const std::string& target, const std::string& table, TComponent& root)
        : database_(new TKvPgDatabase(&root)), table_(new TKvPgDataSet(&root)),
          component_(new TKvImportFromDataSet(&root)) {
        database_->Open(target);
        if (!database_->TableExists(table))
            throw Exception("The source database has no table \"" + table + "\".");
        table_->SetDatabase(database_);
        table_->SetTableName(table);
        table_->SetFetchSize(4096); // a round trip per window: fewer, larger ones
        component_->SetSourceDataset(table_);
        // The description names the database without the connection string, which may hold a password.
        component_->SetSourceFileName(database_->Description());
        tableName_ = table;
    }
    TKvImportBaseComponent& Component() override { return *component_; }
    std::vector<std::string> SpecificationLines() const override {
        return {"SourceKind=PostgreSQL", "SourceTable=" + tableName_};
    }
    void Preview(int64_t rows, const PreviewRow& row) override {
        component_->DescribeColumns();
        table_->Open();
        std::vector<std::string> values;
        int64_t done = 0;
        for (table_->First(); !table_->Eof() && done < rows; table_->Next(), ++done) {
            values.clear();
            for (int i = 0; i < table_->FieldCount(); ++i) values.push_back(table_->Fields(i).AsString());
            row(values);
        }
    }
    TFieldType ColumnType(const TKvIColumn& column) const override {
        if (TField* field = table_->FindField(column.FieldName)) {
            if (field->DataType() == ftLargeint || field->DataType() == ftAutoInc) return ftLargeint;
            if (field->IsBlob()) return ftBlob; // bytes, which a text column of PostgreSQL cannot hold
        }
        return SourceSetup::ColumnType(column);
    }

private:
    TKvPgDatabase* database_;
    TKvPgDataSet* table_;
    TKvImportFromDataSet* component_;
    std::string tableName_;
};

const RegisterSourceKind kPostgreSQL({
    "postgresql",
    {},
    "PostgreSQL",
    "PostgreSQL sources (a postgresql:// address or a key=value connection string)",
    false,
    {{"source-table", "NAME", "the table to read (schema.table in a schema)",
      [](ImportOptions& o, const std::string& v) { o.SourceValues["source-table"] = v; }}},
    [](const ImportOptions& o, const std::string& target, const TStringList* saved,
       TComponent& root) -> std::unique_ptr<SourceSetup> {
        std::string table;
        if (const std::string* given = o.SourceValue("source-table"))
            table = *given;
        else if (saved)
            table = saved->Values("SourceTable");
        if (table.empty()) throw UsageError("a PostgreSQL source needs --source-table NAME");
        return std::make_unique<PgSource>(target, table, root);
    },
});

} // namespace

} // namespace kv::cli
