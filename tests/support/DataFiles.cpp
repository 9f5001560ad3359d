#include "support/DataFiles.h"

#include "TestSupport.h"
#include "platform/DateUtils.h"
#include "platform/Variant.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <exception>
#include <filesystem>

namespace kv::test {
namespace fs = std::filesystem;

std::vector<TDataCase> DiscoverDataCases(const std::string& root) {
    std::vector<TDataCase> cases;
    std::error_code error;
    for (const auto& folder : fs::directory_iterator(root, error)) {
        if (!folder.is_directory()) continue;
        for (const auto& entry : fs::directory_iterator(folder.path())) {
            const std::string name = entry.path().filename().string();
            if (!entry.is_regular_file() || name[0] == '.' || name.starts_with("README") ||
                entry.path().extension() == ".expected")
                continue;
            cases.push_back({folder.path().filename().string(), name, entry.path().string(),
                             fs::path(entry.path()).replace_extension(".expected").string(),
                             name.starts_with("bad-")});
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
        actual = e.what() + std::string("\n");
        failed = true;
    }
    if (failed != c.MustFail)
        return failed ? "reading failed: " + actual.substr(0, actual.size() - 1)
                      : "reading should have failed (the name starts with \"bad-\") but gave:\n" + actual;
    if (update) {
        WriteFile(c.Expected, actual);
        return "";
    }
    if (!fs::exists(c.Expected))
        return "there is no " + fs::path(c.Expected).filename().string() + "; reading gave:\n" + actual;
    const std::string expected = ReadFile(c.Expected);
    // An error message may be kept with or without a final newline.
    if (expected == actual || (failed && expected + "\n" == actual)) return "";
    return "expected:\n" + expected + "\nbut reading gave:\n" + actual;
}

std::string DumpEscape(const std::string& value) {
    constexpr std::string_view escaped = "\\|\n\r\t", as = "\\|nrt";
    std::string out;
    for (char ch : value) {
        const auto byte = static_cast<unsigned char>(ch);
        if (const size_t i = escaped.find(ch); i != escaped.npos) {
            out += '\\';
            out += as[i];
        } else if (byte < 0x20 || byte == 0x7F) {
            out += "\\x";
            out += "0123456789ABCDEF"[byte >> 4];
            out += "0123456789ABCDEF"[byte & 15];
        } else {
            out += ch;
        }
    }
    return out;
}

std::string DumpCellValue(const Variant& value) {
    switch (value.VarType()) {
    case varEmpty:
    case varNull:
        return "<null>";
    case varBoolean:
        return value.AsBoolean() ? "true" : "false";
    case varDouble: {
        char buffer[32];
        const auto end = std::to_chars(buffer, buffer + sizeof buffer, value.AsDouble()).ptr;
        return std::string(buffer, end);
    }
    case varDate: {
        const TDateTime dt = value.AsDateTime();
        return dt == std::floor(dt) ? DateToISO8601(dt) : DateTimeToISO8601(dt);
    }
    case varString:
        return DumpEscape(value.StringRef());
    default:
        return value.AsString();
    }
}

} // namespace kv::test
