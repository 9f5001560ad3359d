#include "engine/KvIUtils.h"

#include "platform/Encoding.h"
#include "platform/SysUtils.h"
#include "platform/Utf8.h"

#include <filesystem>

namespace kv {

std::string TranslateToHex(std::string_view text) {
    std::string out;
    out.reserve(text.size() * 2);
    for (size_t pos = 0; pos < text.size();) out += IntToHex(Utf8Decode(text, pos), 2);
    return out;
}

std::string TranslateFromHex(std::string_view hex) {
    auto digit = [](char c) -> int {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'A' && c <= 'F') return c - 'A' + 10;
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        return -1;
    };
    std::string out;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) {
        int hi = digit(hex[i]), lo = digit(hex[i + 1]);
        if (hi < 0 || lo < 0) continue;
        Utf8Append(out, static_cast<char32_t>(hi * 16 + lo));
    }
    return out;
}

bool CreateDirIfNotExists(const std::string& dir) {
    if (dir.empty()) return true;
    std::error_code error;
    std::filesystem::create_directories(dir, error);
    return !error && std::filesystem::is_directory(dir, error);
}

namespace {
// The text's bytes as they stood in the file (read as Windows-1252), decoded again by the right table.
std::string Recode(std::string_view text, TCodePage codePage) {
    return CodePageToUtf8(Utf8ToCodePage(text, cpWindows1252), codePage);
}
} // namespace

std::string UECode(std::string_view text) {
    return Recode(text, cpOEM437);
}
std::string EBCDICCode(std::string_view text) {
    return Recode(text, cpEBCDIC037);
}

} // namespace kv
