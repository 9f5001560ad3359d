#pragma once
// A small option reader shared by the subcommands: "--name value", "--name=value", flags, and positionals.

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace kv::cli {

/// A mistake in how the program was called; reported with exit status 2.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// --help was asked for; the command prints its usage.
class HelpRequested : public std::exception {};

class ArgReader {
public:
    explicit ArgReader(std::vector<std::string> args) : args_(std::move(args)) {}

    bool AtEnd() const { return pos_ >= args_.size(); }
    /// True when the next argument is an option ("--x" or "-x" with a letter); "--" ends the options.
    bool NextIsOption();
    /// Takes the next option's name (without dashes); a "--name=value" keeps its value for TakeValue.
    std::string TakeOption();
    /// The value of the option just taken.
    std::string TakeValue(const std::string& option);
    std::string TakePositional() { return args_[pos_++]; }

private:
    std::vector<std::string> args_;
    size_t pos_ = 0;
    bool optionsEnded_ = false;
    std::optional<std::string> inlineValue_;
};

/// Exit statuses of the program.
enum ExitCode {
    ExitOk = 0,       ///< every row imported or deliberately skipped
    ExitFailed = 1,   ///< the run could not be done (the reason on stderr)
    ExitUsage = 2,    ///< the program was called wrongly
    ExitCanceled = 3, ///< canceled by Ctrl-C or at the parameter prompt
    ExitProblems = 4  ///< finished, but rows failed or data is in doubt (unless --allow-errors)
};

} // namespace kv::cli
