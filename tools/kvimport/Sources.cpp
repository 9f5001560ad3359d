#include "Sources.h"

#include "datasets/KvSQLiteDataSet.h"
#include "engine/Impcnst.h"
#include "engine/KvI2DS.h"
#include "platform/Format.h"
#include "platform/Streams.h"
#include "platform/StringList.h"
#include "platform/SysUtils.h"

#include <cerrno>
#include <filesystem>

namespace kv::cli {

std::string SourceSetup::SqlType(const TKvIColumn& column) const {
    switch (column.DataType) {
    case itInteger:
        return "INTEGER";
    case itFloat:
        return "REAL";
    case itDateTime:
        return "DATETIME";
    case itDate:
        return "DATE";
    case itTime:
        return "TIME";
    case itBoolean:
        return "BOOLEAN";
    case itBLOB:
    case itGraphic:
        return "BLOB";
    default:
        return "TEXT";
    }
}

void CheckSourceFile(const std::string& file) {
    std::error_code error;
    if (std::filesystem::is_directory(file, error))
        throw EFOpenError("Cannot open file \"" + file + "\". " + SysErrorMessage(EISDIR));
    if (!FileExists(file)) throw EFOpenError("Cannot open file \"" + file + "\". " + SysErrorMessage(ENOENT));
}

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
    std::vector<std::vector<std::string>> Preview(int rows) override {
        component_->DescribeColumns();
        std::vector<std::vector<std::string>> out;
        table_->Open();
        for (table_->First(); !table_->Eof() && static_cast<int>(out.size()) < rows; table_->Next()) {
            std::vector<std::string>& row = out.emplace_back();
            for (int i = 0; i < table_->FieldCount(); ++i) row.push_back(table_->Fields(i).AsString());
        }
        return out;
    }
    std::string SqlType(const TKvIColumn& column) const override {
        // Large integers are described as text; the source field still knows they are numbers.
        if (TField* field = table_->FindField(column.FieldName))
            if (field->DataType() == ftLargeint || field->DataType() == ftAutoInc) return "INTEGER";
        return SourceSetup::SqlType(column);
    }

private:
    TKvSQLiteDatabase* database_;
    TKvSQLiteDataSet* table_;
    TKvImportFromDataSet* component_;
    std::string file_, tableName_;
};

std::string Lower(std::string s) {
    return LowerCase(s);
}

std::string FormatOf(const ImportOptions& o) {
    if (o.Format) {
        const std::string f = Lower(*o.Format);
        if (f != "sqlite" && f != "text")
            throw UsageError("--format expects sqlite or text, got '" + *o.Format + "'");
        return f;
    }
    if (o.Clipboard || o.Source == "-") return "text";
    const std::string ext = Lower(std::filesystem::path(o.Source).extension().string());
    if (ext == ".sqlite" || ext == ".sqlite3" || ext == ".db" || ext == ".db3") return "sqlite";
    if (ext == ".csv" || ext == ".tsv" || ext == ".txt" || ext == ".dat" || ext == ".prn" || ext == ".tab" ||
        ext == ".asc")
        return "text";
    throw UsageError("cannot tell the format of '" + o.Source +
                     "' from its extension; use --format sqlite|text");
}

// Rows per transaction unless a specification or --commit-count says otherwise: a commit of an SQLite
// database waits for the disk, and a few hundred rows per commit would spend most of a run waiting.
constexpr int DefaultCommitCount = 10000;

std::unique_ptr<SourceSetup> MakeSource(const std::string& format, const ImportOptions& o,
                                        const std::string& file,
                                        const std::optional<std::string>& sourceTable, TComponent& root) {
    std::unique_ptr<SourceSetup> source;
    if (format == "sqlite") {
        if (!sourceTable) throw UsageError("an SQLite source needs --source-table NAME");
        source = std::make_unique<SQLiteSource>(file, *sourceTable, root);
    } else {
        source = OpenTextSource(o, file, root);
    }
    source->Component().SetCommitCount(DefaultCommitCount);
    return source;
}

} // namespace

std::unique_ptr<SourceSetup> OpenSource(const ImportOptions& o, TComponent& root) {
    std::unique_ptr<SourceSetup> source = MakeSource(FormatOf(o), o, o.Source, o.SourceTable, root);
    if (o.Spec) source->Component().LoadSpecification(*o.Spec);
    return source;
}

std::unique_ptr<SourceSetup> OpenSpecificationSource(const ImportOptions& o, TComponent& root) {
    if (!FileExists(o.Source)) throw Exception(Format(strSpecFileNotExist, o.Source));
    TStringList spec;
    spec.LoadFromFile(o.Source);
    std::string file = spec.Values("SourceFileName");
    // A relative source that is not beside the current folder is looked for beside the specification.
    const std::filesystem::path besideSpec = std::filesystem::path(o.Source).parent_path() / file;
    if (!file.empty() && std::filesystem::path(file).is_relative() && !FileExists(file) &&
        FileExists(besideSpec.string()))
        file = besideSpec.string();
    std::unique_ptr<SourceSetup> source;
    if (SameText(spec.Values("SourceKind"), "SQLite")) {
        std::optional<std::string> table = o.SourceTable;
        if (!table) table = spec.Values("SourceTable");
        source = MakeSource("sqlite", o, file, table, root);
    } else {
        ImportOptions textOptions = o;
        textOptions.Source = file;
        source = MakeSource("text", textOptions, file, std::nullopt, root);
    }
    source->Component().LoadSpecification(o.Source);
    source->Component().SetSourceFileName(file); // as found, beside the specification or not
    return source;
}

std::vector<ColumnDef> ColumnsForNewTable(SourceSetup& source, const std::vector<std::string>& maps) {
    TKvImportBaseComponent& c = source.Component();
    c.DescribeColumns();
    std::vector<ColumnDef> defs;
    if (maps.empty()) {
        for (int i = 0; i < c.Columns().Count(); ++i)
            defs.push_back({c.Columns().Columns(i).FieldName, source.SqlType(c.Columns().Columns(i))});
        return defs;
    }
    for (const std::string& line : maps) {
        const size_t eq = line.find('=');
        ColumnDef def{Trim(std::string_view(line).substr(0, eq)), ""};
        const std::string expression =
            eq == std::string::npos ? "" : Trim(std::string_view(line).substr(eq + 1));
        for (int i = 0; i < c.Columns().Count(); ++i) {
            if (expression == c.GetColumnFieldName(i) ||
                SameText(expression, c.Columns().Columns(i).FieldName)) {
                def.Type = source.SqlType(c.Columns().Columns(i));
                break;
            }
        }
        if (!def.Name.empty()) defs.push_back(def);
    }
    return defs;
}

} // namespace kv::cli
