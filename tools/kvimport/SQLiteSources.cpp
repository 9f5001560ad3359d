// Tables of another SQLite database as a source: --source-table names the table.

#include "SourceKinds.h"
#include "datasets/KvSQLiteDataSet.h"
#include "engine/KvI2DS.h"
#include "platform/StringList.h"

namespace kv::cli {

namespace {

/// A table of another SQLite database.
class SQLiteSource : public SourceSetup {
public:
    SQLiteSource(const std::string& file, const std::string& table, TComponent& root)
        : database_(new TKvSQLiteDatabase(&root)), table_(new TKvSQLiteDataSet(&root)),
          component_(new TKvImportFromDataSet(&root)), file_(file) {
        CheckSourceFile(file);
        database_->Open(file);
        if (!database_->TableExists(table))
            throw Exception("The source database has no table \"" + table + "\".");
        table_->SetDatabase(database_);
        table_->SetTableName(table);
        component_->SetSourceDataset(table_);
        component_->SetSourceFileName(file);
        tableName_ = table;
    }
    TKvImportBaseComponent& Component() override { return *component_; }
    std::vector<std::string> SpecificationLines() const override {
        return {"SourceKind=SQLite", "SourceTable=" + tableName_};
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
        // Large integers are described as text; the source field still knows they are numbers.
        if (TField* field = table_->FindField(column.FieldName)) {
            if (field->DataType() == ftLargeint || field->DataType() == ftAutoInc) return ftLargeint;
            if (field->IsBlob()) return ftBlob; // bytes, which a text column of PostgreSQL cannot hold
        }
        return SourceSetup::ColumnType(column);
    }

private:
    TKvSQLiteDatabase* database_;
    TKvSQLiteDataSet* table_;
    TKvImportFromDataSet* component_;
    std::string file_, tableName_;
};

const RegisterSourceKind kSQLite({
    "sqlite",
    {".sqlite", ".sqlite3", ".db", ".db3"},
    "SQLite",
    "SQLite sources (.sqlite .sqlite3 .db .db3)",
    false,
    {{"source-table", "NAME", "the table to read",
      [](ImportOptions& o, const std::string& v) { o.SourceValues["source-table"] = v; }}},
    [](const ImportOptions& o, const std::string& file, const TStringList* saved,
       TComponent& root) -> std::unique_ptr<SourceSetup> {
        std::string table;
        if (const std::string* given = o.SourceValue("source-table"))
            table = *given;
        else if (saved)
            table = saved->Values("SourceTable");
        if (table.empty()) throw UsageError("an SQLite source needs --source-table NAME");
        return std::make_unique<SQLiteSource>(file, table, root);
    },
});

} // namespace

} // namespace kv::cli
