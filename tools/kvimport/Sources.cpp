#include "Sources.h"

#include "ArchiveMember.h"
#include "SourceKinds.h"

#include "engine/Impcnst.h"
#include "platform/Format.h"
#include "platform/Streams.h"
#include "platform/StringList.h"
#include "platform/SysUtils.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>

namespace kv::cli {

TFieldType SourceSetup::ColumnType(const TKvIColumn& column) const {
    switch (column.DataType) {
    case itInteger:
        return ftLargeint;
    case itFloat:
        return ftFloat;
    case itDateTime:
        return ftDateTime;
    case itDate:
        return ftDate;
    case itTime:
        return ftTime;
    case itBoolean:
        return ftBoolean;
    case itBLOB:
    case itGraphic:
        return ftBlob;
    default:
        return ftString;
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
    if (NamesArchiveMember(o))
        return OpenArchiveMember(o,
                                 [&root](const ImportOptions& member) { return OpenSource(member, root); });
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

std::vector<TFieldDef> ColumnsForNewTable(SourceSetup& source, const std::vector<std::string>& maps) {
    TKvImportBaseComponent& c = source.Component();
    c.DescribeColumns();
    std::vector<TFieldDef> defs;
    const auto def = [](std::string name, TFieldType type) {
        TFieldDef d;
        d.Name = std::move(name);
        d.DataType = type;
        return d;
    };
    if (maps.empty()) {
        // A mapping line cannot name a field with "=" in it (a calendar's "DTSTART;TZID=Europe/Berlin"),
        // and a table cannot have two columns of one name (a dBase table may): such a column gets "_" for
        // "=" and a number after a name taken, and then every column is mapped by a line of its own.
        bool renamed = false;
        for (int i = 0; i < c.Columns().Count(); ++i) {
            const std::string& given = c.Columns().Columns(i).FieldName;
            std::string name = given;
            std::replace(name.begin(), name.end(), '=', '_');
            const auto taken = [&defs](const std::string& n) {
                return std::any_of(defs.begin(), defs.end(),
                                   [&n](const TFieldDef& d) { return SameText(d.Name, n); });
            };
            for (int n = 2; taken(name); ++n) name = given + "_" + std::to_string(n);
            renamed = renamed || name != given;
            defs.push_back(def(std::move(name), source.ColumnType(c.Columns().Columns(i))));
        }
        if (renamed)
            for (size_t i = 0; i < defs.size(); ++i)
                c.Mappings().Add(defs[i].Name + "=" + c.GetColumnFieldName(static_cast<int>(i)));
        return defs;
    }
    for (const std::string& line : maps) {
        const size_t eq = line.find('=');
        TFieldDef d = def(Trim(std::string_view(line).substr(0, eq)), ftVariant);
        const std::string expression =
            eq == std::string::npos ? "" : Trim(std::string_view(line).substr(eq + 1));
        for (int i = 0; i < c.Columns().Count(); ++i) {
            if (expression == c.GetColumnFieldName(i) ||
                SameText(expression, c.Columns().Columns(i).FieldName)) {
                d.DataType = source.ColumnType(c.Columns().Columns(i));
                break;
            }
        }
        if (!d.Name.empty()) defs.push_back(d);
    }
    return defs;
}

} // namespace kv::cli
