#pragma once
// Options by table: each option is a row (its name, how its value is shown, its help line and what it
// does with the value), read by one loop, shown by one help printer, and misspellings answered with the
// nearest name.

#include "CommandLine.h"
#include "platform/SysUtils.h"

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kv::cli {

struct ImportOptions;

/// The commands an option belongs to, as bits.
enum CommandBits : unsigned { ForImport = 1, ForRun = 2, ForPreview = 4, ForAll = 7 };

/// One option.
struct OptionSpec {
    const char* Name;  ///< without dashes
    const char* Value; ///< how its value is shown in the help ("N", "C"); nullptr for a flag
    const char* Help;  ///< one line
    std::function<void(ImportOptions& options, const std::string& value)> Apply; ///< checks and stores
    unsigned Commands = ForAll;
};

/// A titled group of options in the help.
struct OptionSection {
    std::string Title;
    const std::vector<OptionSpec>* Options;
};

/// The help lines of `sections`, for the options of `command` (a CommandBits value).
std::string OptionHelp(const std::vector<OptionSection>& sections, unsigned command);
/// The name among `names` nearest to `name` when it is close enough to be a misspelling, else "".
std::string NearestName(const std::string& name, const std::vector<std::string>& names);

/// Value readers that raise UsageError naming the option.
char32_t OptionChar(const std::string& option, const std::string& value);
int OptionNumber(const std::string& option, const std::string& value, int minimum, const char* what);
/// `value` as one of the named choices (compared ignoring case).
template <class T>
T OptionChoice(const std::string& option, const std::string& value,
               const std::vector<std::pair<const char*, T>>& choices) {
    for (const auto& [name, v] : choices)
        if (SameText(value, name)) return v;
    std::string list;
    for (const auto& c : choices) list += (list.empty() ? "" : ", ") + std::string(c.first);
    throw UsageError("--" + option + " expects one of " + list + "; got '" + value + "'");
}

/// The Apply of an option whose value is one of `choices`, stored in `field`.
template <class Options, class T>
auto SetChoice(std::optional<T> Options::*field, const char* option,
               std::vector<std::pair<const char*, T>> choices) {
    return [=](Options& o, const std::string& v) { o.*field = OptionChoice<T>(option, v, choices); };
}

} // namespace kv::cli
