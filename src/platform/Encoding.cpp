#include "platform/Encoding.h"

#include "platform/Utf8.h"

#include <array>
#include <iconv.h>
#include <mutex>
#include <unordered_map>

namespace kv {

namespace {

const char* IconvName(TCodePage cp) {
    switch (cp) {
    case cpOEM437:
        return "CP437";
    case cpEBCDIC037:
        return "IBM037";
    default:
        return "WINDOWS-1252";
    }
}

// The UTF-8 text of every byte of a code page. Bytes the code page leaves undefined map to the control
// character of the same number, as the system conversion does.
struct CodePageTable {
    std::array<std::string, 256> chars;
    std::unordered_map<char32_t, unsigned char> reverse;
};

CodePageTable BuildTable(TCodePage cp) {
    CodePageTable table;
    iconv_t cd = iconv_open("UTF-8", IconvName(cp));
    for (int b = 0; b < 256; ++b) {
        std::string& out = table.chars[static_cast<size_t>(b)];
        if (cd != reinterpret_cast<iconv_t>(-1)) {
            char in = static_cast<char>(b);
            char buffer[8];
            char* inPtr = &in;
            size_t inLeft = 1;
            char* outPtr = buffer;
            size_t outLeft = sizeof buffer;
            iconv(cd, nullptr, nullptr, nullptr, nullptr);
            if (iconv(cd, &inPtr, &inLeft, &outPtr, &outLeft) != static_cast<size_t>(-1) && inLeft == 0)
                out.assign(buffer, static_cast<size_t>(outPtr - buffer));
        }
        if (out.empty()) out = Utf8Encode(static_cast<char32_t>(b));
        size_t pos = 0;
        table.reverse.emplace(Utf8Decode(out, pos), static_cast<unsigned char>(b));
    }
    if (cd != reinterpret_cast<iconv_t>(-1)) iconv_close(cd);
    return table;
}

const CodePageTable& Table(TCodePage cp) {
    static std::once_flag once[3];
    static CodePageTable tables[3];
    size_t index = cp <= cpEBCDIC037 ? cp : 0;
    std::call_once(once[index], [&] { tables[index] = BuildTable(static_cast<TCodePage>(index)); });
    return tables[index];
}

} // namespace

TTextEncoding DetectTextEncoding(std::string_view bytes) {
    if (bytes.size() >= 2 && static_cast<unsigned char>(bytes[0]) == 0xFF &&
        static_cast<unsigned char>(bytes[1]) == 0xFE)
        return encUtf16LE;
    if (bytes.size() >= 2 && static_cast<unsigned char>(bytes[0]) == 0xFE &&
        static_cast<unsigned char>(bytes[1]) == 0xFF)
        return encUtf16BE;
    if (bytes.size() >= 3 && bytes.substr(0, 3) == "\xEF\xBB\xBF") return encUtf8Bom;
    return IsValidUtf8(bytes) ? encUtf8 : encAnsi;
}

std::string DecodeText(std::string_view bytes) {
    switch (DetectTextEncoding(bytes)) {
    case encUtf16LE:
        return Utf16ToUtf8(bytes.substr(2), false);
    case encUtf16BE:
        return Utf16ToUtf8(bytes.substr(2), true);
    case encUtf8Bom:
        return Utf8Sanitize(bytes.substr(3)); // a BOM promises UTF-8: bad bytes become U+FFFD
    case encUtf8:
        return std::string(bytes);
    case encUtf8Mixed: {
        std::string out;
        AppendUtf8OrWindows1252(out, bytes);
        return out;
    }
    case encAnsi:
        break;
    }
    return CodePageToUtf8(bytes, cpWindows1252);
}

const std::string& CodePageChar(unsigned char b, TCodePage codePage) {
    return Table(codePage).chars[b];
}

std::string CodePageToUtf8(std::string_view bytes, TCodePage codePage) {
    const CodePageTable& table = Table(codePage);
    std::string out;
    out.reserve(bytes.size() + bytes.size() / 4);
    for (unsigned char b : bytes) {
        if (b < 0x80 && codePage == cpWindows1252)
            out.push_back(static_cast<char>(b));
        else
            out += table.chars[b];
    }
    return out;
}

void AppendUtf8OrWindows1252(std::string& out, std::string_view bytes) {
    const CodePageTable& table = Table(cpWindows1252);
    size_t i = 0;
    while (i < bytes.size()) {
        size_t run = i;
        while (run < bytes.size() && static_cast<unsigned char>(bytes[run]) < 0x80) ++run;
        out.append(bytes.data() + i, run - i);
        if (run == bytes.size()) break;
        i = run;
        Utf8Decode(bytes, i); // a byte that starts no sequence is taken alone
        if (i - run > 1)
            out.append(bytes.data() + run, i - run);
        else
            out += table.chars[static_cast<unsigned char>(bytes[run])];
    }
}

std::string Utf8ToCodePage(std::string_view text, TCodePage codePage) {
    const CodePageTable& table = Table(codePage);
    std::string out;
    out.reserve(text.size());
    for (size_t pos = 0; pos < text.size();) {
        char32_t c = Utf8Decode(text, pos);
        auto it = table.reverse.find(c);
        out.push_back(it == table.reverse.end() ? '?' : static_cast<char>(it->second));
    }
    return out;
}

} // namespace kv
