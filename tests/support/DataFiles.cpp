#include "support/DataFiles.h"

#include "TestSupport.h"

#include <algorithm>
#include <exception>
#include <filesystem>

namespace kv::test {

namespace fs = std::filesystem;

namespace {

bool IsCase(const fs::directory_entry& entry) {
    const std::string name = entry.path().filename().string();
    return entry.is_regular_file() && name[0] != '.' && name.rfind("README", 0) != 0 &&
           entry.path().extension() != ".expected";
}

std::string WithoutFinalNewline(std::string text) {
    if (!text.empty() && text.back() == '\n') text.pop_back();
    return text;
}

} // namespace

std::vector<TDataCase> DiscoverDataCases(const std::string& root) {
    std::vector<TDataCase> cases;
    std::error_code error;
    for (const auto& folder : fs::directory_iterator(root, error)) {
        if (!folder.is_directory()) continue;
        for (const auto& entry : fs::directory_iterator(folder.path())) {
            if (!IsCase(entry)) continue;
            TDataCase c;
            c.Reader = folder.path().filename().string();
            c.File = entry.path().filename().string();
            c.Path = entry.path().string();
            c.Expected = fs::path(entry.path()).replace_extension(".expected").string();
            c.MustFail = c.File.rfind("bad-", 0) == 0;
            cases.push_back(std::move(c));
        }
    }
    std::sort(cases.begin(), cases.end(), [](const TDataCase& a, const TDataCase& b) {
        return std::tie(a.Reader, a.File) < std::tie(b.Reader, b.File);
    });
    return cases;
}

std::string DataCaseName(const TDataCase& c) {
    std::string name = c.Reader + "_" + c.File;
    for (char& ch : name)
        if (!std::isalnum(static_cast<unsigned char>(ch))) ch = '_';
    return name;
}

std::string CheckDataCase(const TDataCase& c, const TDataDump& dump, bool update) {
    if (!dump) return "no dump is registered for the folder \"" + c.Reader + "\" (see DataReaders)";
    std::string actual;
    bool failed = false;
    try {
        actual = dump(c.Path);
    } catch (const std::exception& e) {
        actual = e.what();
        failed = true;
    }
    if (failed != c.MustFail)
        return failed ? "reading failed: " + actual
                      : "reading should have failed (the name starts with \"bad-\") but gave:\n" + actual;
    if (failed) actual += "\n";
    if (update) {
        WriteFile(c.Expected, actual);
        return "";
    }
    if (!fs::exists(c.Expected))
        return "there is no " + fs::path(c.Expected).filename().string() + "; reading gave:\n" + actual;
    const std::string expected = ReadFile(c.Expected);
    if (failed ? WithoutFinalNewline(expected) == WithoutFinalNewline(actual) : expected == actual) return "";
    return "expected:\n" + expected + "\nbut reading gave:\n" + actual;
}

std::string DumpEscape(const std::string& value) {
    static const char* hex = "0123456789ABCDEF";
    std::string out;
    out.reserve(value.size());
    for (char ch : value) {
        const auto byte = static_cast<unsigned char>(ch);
        switch (ch) {
        case '\\':
            out += "\\\\";
            break;
        case '|':
            out += "\\|";
            break;
        case '\n':
            out += "\\n";
            break;
        case '\r':
            out += "\\r";
            break;
        case '\t':
            out += "\\t";
            break;
        default:
            if (byte < 0x20 || byte == 0x7F) {
                out += "\\x";
                out += hex[byte >> 4];
                out += hex[byte & 15];
            } else {
                out += ch;
            }
        }
    }
    return out;
}

} // namespace kv::test
