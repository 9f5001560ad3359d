#pragma once
// The kinds of source the command line reads, in one table: each kind registers itself from its own file
// with its name, extensions, name in specification files, how it opens and the options it accepts.
// --format, the help, the messages and the reloading of a saved specification all read this table.

#include "Options.h"
#include "Sources.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kv {
class TStringList;
}

namespace kv::cli {

/// One kind of source.
struct SourceKind {
    std::string Name;                    ///< for --format ("text", "sqlite")
    std::vector<std::string> Extensions; ///< lower case with the dot (".csv"), the first shown in help
    std::string SpecificationName;       ///< the SourceKind= line of a saved specification ("Text")
    std::string Heading;                 ///< the help section's title
    bool ReadsStandardInput = false;     ///< "-" and --clipboard name a source of this kind
    std::vector<OptionSpec> Options;     ///< the options only this kind takes
    /// Opens `file` for `options`; `saved` is the specification being run again (null for import).
    std::function<std::unique_ptr<SourceSetup>(const ImportOptions& options, const std::string& file,
                                               const TStringList* saved, TComponent& root)>
        Open;
};

/// Adds a kind to the table; a file declares one static instance per kind it offers.
struct RegisterSourceKind {
    explicit RegisterSourceKind(SourceKind kind);
};

/// Every kind, by name.
std::vector<const SourceKind*> SourceKinds();
const SourceKind* SourceKindByName(const std::string& name);
const SourceKind* SourceKindByExtension(const std::string& extension);
const SourceKind* SourceKindBySpecificationName(const std::string& name);
/// The kind that reads standard input and the clipboard.
const SourceKind* StandardInputKind();
/// The kind of the source the options name: --format, else "-" or --clipboard, else the extension.
const SourceKind& SourceKindOf(const ImportOptions& options);
/// "sqlite|text", for messages.
std::string SourceKindNames(const char* separator);

} // namespace kv::cli
