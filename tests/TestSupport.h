#pragma once
// Helpers shared by the test files.

#include "platform/FormatSettings.h"

#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace kv {
class TKvMemDataSet;
}

namespace kv::test {

/// Puts fixed regional settings in force for one test and restores the previous ones afterwards.
class ScopedFormatSettings {
public:
    explicit ScopedFormatSettings(const TFormatSettings& fs) : saved_(DefaultFormatSettings) {
        DefaultFormatSettings = fs;
    }
    ~ScopedFormatSettings() { DefaultFormatSettings = saved_; }

private:
    TFormatSettings saved_;
};

/// US-style settings: m/d/yyyy, "." decimals, "," grouping, 12-hour times.
inline TFormatSettings UsSettings() {
    TFormatSettings fs;
    fs.ShortDateFormat = "m/d/yyyy";
    fs.DateSeparator = U'/';
    fs.LongTimeFormat = "h:nn:ss ampm";
    fs.ShortTimeFormat = "h:nn ampm";
    return fs;
}

/// German-style settings: dd.mm.yyyy, "," decimals, "." grouping, euro.
inline TFormatSettings GermanSettings() {
    TFormatSettings fs;
    fs.ShortDateFormat = "dd.mm.yyyy";
    fs.DateSeparator = U'.';
    fs.DecimalSeparator = U',';
    fs.ThousandSeparator = U'.';
    fs.CurrencyString = "€";
    return fs;
}

/// A fresh temporary directory, removed with its contents at the end of the test.
class TempDir {
public:
    TempDir();
    ~TempDir();
    const std::string& Path() const { return path_; }
    std::string File(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

/// The message `action` fails with, "" when it does not fail.
std::string ErrorOf(const std::function<void()>& action);

/// Writes `bytes` to `path`.
void WriteFile(const std::string& path, const std::string& bytes);
std::string ReadFile(const std::string& path);

/// Runs `sql` on an SQLite file (creating it) and gives the rows as "a|b" lines joined by "\n".
std::string SqliteQuery(const std::string& file, const std::string& sql);

/// The rows of an in-memory table as "a|b" lines, each ending in "\n": Null as "null", dates as ISO days.
std::string MemRows(const TKvMemDataSet& table);

/// A temporary folder with an SQLite destination in it, for the tests that run the command line.
class CliFixture : public ::testing::Test {
protected:
    /// Writes `bytes` to a file of the folder; gives its path.
    std::string Write(const std::string& name, const std::string& bytes) {
        const std::string path = dir.File(name);
        WriteFile(path, bytes);
        return path;
    }
    TempDir dir;
    std::string db = dir.File("out.sqlite");
};

/// What a run of the command-line program gave.
struct CliResult {
    int Status = -1;
    std::string Out, Err;
};

/// Runs the kvimport program with `args` (no shell involved), `input` on its standard input and the
/// environment's locale set to "C".
CliResult RunCli(const std::vector<std::string>& args, const std::string& input = {});

} // namespace kv::test
