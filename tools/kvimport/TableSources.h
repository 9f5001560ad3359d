#pragma once
// What the table sources of databases share: a dataset read through TKvImportFromDataSet, its preview and
// the types it describes its columns by.

#include "Options.h"
#include "Sources.h"
#include "datasets/DataSet.h"
#include "engine/KvI2DS.h"
#include "platform/StringList.h"

#include <string>

namespace kv::cli {

class TableSource : public SourceSetup {
public:
    TKvImportBaseComponent& Component() override { return *component_; }
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

protected:
    /// `table`, owned by `root` like the component made here, is read from.
    TableSource(TDataSet* table, TComponent& root)
        : table_(table), component_(new TKvImportFromDataSet(&root)) {
        component_->SetSourceDataset(table_);
    }

    TDataSet* table_;
    TKvImportFromDataSet* component_;
};

/// The --source-table option of a database source.
inline OptionSpec SourceTableOption(const char* help) {
    return {"source-table", "NAME", help,
            [](ImportOptions& o, const std::string& v) { o.SourceValues["source-table"] = v; }};
}

/// The table --source-table names, or the specification run again (`saved`); UsageError "a `kind`
/// source needs --source-table NAME" when neither does.
inline std::string SourceTable(const ImportOptions& o, const TStringList* saved, const std::string& kind) {
    std::string table;
    if (const std::string* given = o.SourceValue("source-table"))
        table = *given;
    else if (saved)
        table = saved->Values("SourceTable");
    if (table.empty()) throw UsageError(kind + " source needs --source-table NAME");
    return table;
}

} // namespace kv::cli
