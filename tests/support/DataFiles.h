#pragma once
// The test of real files: tests/data/<reader>/<case>.<ext> beside <case>.expected. Each reader folder has
// a dump function that turns a file into text; a case passes when the dump equals the expected file. A
// case whose name starts with "bad-" must fail, and its expected file holds the error message.

#include <functional>
#include <string>
#include <vector>

namespace kv::test {

/// Turns a file into text, or throws the reader's error.
using TDataDump = std::function<std::string(const std::string& path)>;

/// How the files of one folder under tests/data are read.
struct TDataReader {
    std::string Folder; ///< the folder's name, the reader's family ("text", "dbf")
    TDataDump Dump;
};

/// Every reader that has files under tests/data.
const std::vector<TDataReader>& DataReaders();

/// One input file and what reading it must give.
struct TDataCase {
    std::string Reader;   ///< the folder it is in
    std::string File;     ///< its name ("quoted-multiline.csv")
    std::string Path;     ///< the input
    std::string Expected; ///< the expected output beside it
    bool MustFail = false;
};

/// The cases under `root`, by folder and name: every file but the .expected ones, hidden files and
/// READMEs.
std::vector<TDataCase> DiscoverDataCases(const std::string& root);

/// A name for the case that a test may carry: its folder and file with everything but letters and digits
/// made "_" ("text_quoted_multiline_csv").
std::string DataCaseName(const TDataCase& c);

/// "" when the case gives what it expects, else what went wrong. With `update`, a passing dump or error
/// is written to the expected file instead of compared (to add or refresh cases).
std::string CheckDataCase(const TDataCase& c, const TDataDump& dump, bool update = false);

/// A field or value as one line of a dump: "\" and "|" escaped, control characters as \n, \r, \t, \xNN.
std::string DumpEscape(const std::string& value);

/// The dump of a delimited text file read with default settings (comma-delimited when it is a .csv):
/// "encoding: <name>", one line a record ("<record number>: <field>|<field>"), then the reader's
/// warnings ("warning line <n>: <message>").
std::string DumpTextFile(const std::string& path);

} // namespace kv::test
