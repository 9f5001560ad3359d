#pragma once
// The options of the import, run and preview commands, read from the command line and applied to an
// import component. Options left out keep what a specification file (or the defaults) gave. The options
// every source takes are declared here; a source kind declares its own beside it (SourceKinds.h).

#include "CommandLine.h"
#include "engine/KvIBase.h"

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kv::cli {

struct ImportOptions {
    std::string Source; ///< the source file ("-" for standard input), or the specification for run
    bool Clipboard = false;
    std::optional<std::string> Format;
    std::optional<std::string> Member; ///< of the zip archive Source
    std::string Database;
    std::optional<std::string> Table;
    std::optional<std::string> Spec, SaveSpec, Description;

    std::vector<std::string> Maps;
    std::optional<TImportMode> Mode;
    std::optional<std::string> Keys, LoadWhen, SkipIf;
    std::vector<std::pair<std::string, std::string>> Params;
    std::optional<int> CommitCount;
    std::optional<TKvITrimSpaces> Trim;
    bool SkipEmptyRows = false;
    std::optional<TKvICharacterSet> Charset;
    std::optional<TKvIDateOrder> DateOrder;
    std::optional<char32_t> DateSeparator, TimeSeparator, DecimalSeparator, ThousandSeparator;
    std::optional<std::string> Currency, DateFormat, TrueText, FalseText;
    std::optional<std::string> SqlFile;
    std::vector<std::string> Lookups;
    bool AbortOnError = false;
    bool AllowErrors = false;
    bool Quiet = false;
    int64_t PreviewRows = 10;

    /// The values of options a source kind declares, by option name, as the kind's table stored them.
    std::map<std::string, std::string> SourceValues;
    const std::string* SourceValue(const std::string& name) const {
        auto it = SourceValues.find(name);
        return it == SourceValues.end() ? nullptr : &it->second;
    }
};

enum class CommandKind { Import, Run, Preview };

/// Reads the options of `kind`; positional arguments fill Source. Raises UsageError.
ImportOptions ParseImportOptions(const std::vector<std::string>& args, CommandKind kind);
/// Puts the options every source takes into the component (after any specification was loaded).
void ApplyImportOptions(const ImportOptions& options, TKvImportBaseComponent& component);
/// A source's warning as the program prints it: "Warning: line N: message".
std::string WarningText(const TKvIWarning& warning);
/// The help texts, with the options of every source kind.
std::string ImportUsage();
std::string RunUsage();
/// The options of `command` (import, run, preview), every source kind's included, as help lines.
std::string ImportOptionHelp(unsigned command);

} // namespace kv::cli
