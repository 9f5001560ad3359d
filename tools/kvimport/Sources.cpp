#include "Sources.h"

#include "SourceKinds.h"

#include "engine/Impcnst.h"
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

std::unique_ptr<SourceSetup> Open(const SourceKind& kind, const ImportOptions& o, const std::string& file,
                                  const TStringList* saved, TComponent& root) {
    std::unique_ptr<SourceSetup> source = kind.Open(o, file, saved, root);
    source->Component().SetCommitCount(DefaultCommitCount);
    return source;
}

} // namespace

std::unique_ptr<SourceSetup> OpenSource(const ImportOptions& o, TComponent& root) {
    std::unique_ptr<SourceSetup> source = Open(SourceKindOf(o), o, o.Source, nullptr, root);
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
    // Specifications written before the kind was saved are text imports.
    const std::string saved = spec.Values("SourceKind");
    const SourceKind* kind = SourceKindBySpecificationName(saved.empty() ? "Text" : saved);
    if (!kind) throw Exception("The specification names a source of an unknown kind: \"" + saved + "\".");
    ImportOptions options = o;
    options.Source = file;
    std::unique_ptr<SourceSetup> source = Open(*kind, options, file, &spec, root);
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
