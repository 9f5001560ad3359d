#include "platform/Encoding.h"

#include "platform/Utf8.h"

#include <array>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <iconv.h>
#include <memory>
#include <mutex>
#include <unordered_map>

namespace kv {

namespace {

// The UTF-8 text of every byte of a code page. Bytes the code page leaves undefined map to the control
// character of the same number, as the system conversion does.
struct CodePageTable {
    std::array<std::string, 256> chars;
    std::unordered_map<char32_t, unsigned char> reverse;
};

const CodePageTable& Table(TCodePage cp);

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

// ---- code pages by number ----

namespace {

const iconv_t kNoIconv = reinterpret_cast<iconv_t>(-1);

// The multi-byte code pages: their characters span bytes, so no table of 256 serves.
bool IsMultiByte(int cp) {
    return cp == 932 || cp == 936 || cp == 949 || cp == 950 || cp == 1361 || cp == 20932 || cp == 54936 ||
           cp == kCodePageUtf8;
}

std::string IconvNameOf(int cp) {
    switch (cp) {
    case 37:
        return "IBM037";
    case 10000:
        return "MACINTOSH";
    case 10007:
        return "MAC-CYRILLIC";
    case 10029:
        return "MAC-CENTRALEUROPE";
    case 20866:
        return "KOI8-R";
    case 21866:
        return "KOI8-U";
    case 54936:
        return "GB18030";
    default:
        break;
    }
    if (cp >= 28591 && cp <= 28606) return "ISO-8859-" + std::to_string(cp - 28590);
    return "CP" + std::to_string(cp);
}

struct ByteTable {
    std::array<std::string, 256> chars;
    bool asciiSame = true;
};

std::unique_ptr<ByteTable> BuildByteTable(int cp) {
    iconv_t cd = iconv_open("UTF-8", IconvNameOf(cp).c_str());
    if (cd == kNoIconv) return nullptr;
    auto table = std::make_unique<ByteTable>();
    for (int b = 0; b < 256; ++b) {
        std::string& out = table->chars[static_cast<size_t>(b)];
        char in = static_cast<char>(b);
        char buffer[16];
        char* inPtr = &in;
        size_t inLeft = 1;
        char* outPtr = buffer;
        size_t outLeft = sizeof buffer;
        iconv(cd, nullptr, nullptr, nullptr, nullptr);
        const bool converted = iconv(cd, &inPtr, &inLeft, &outPtr, &outLeft) != static_cast<size_t>(-1);
        iconv(cd, nullptr, nullptr, &outPtr, &outLeft); // a code page that composes holds characters back
        if (converted && inLeft == 0) out.assign(buffer, static_cast<size_t>(outPtr - buffer));
        // Undefined bytes keep their number, as the system conversion does.
        if (out.empty()) out = Utf8Encode(static_cast<char32_t>(b));
        if (b < 0x80 && out != std::string(1, static_cast<char>(b))) table->asciiSame = false;
    }
    iconv_close(cd);
    return table;
}

std::mutex& CodePageMutex() {
    static std::mutex mutex;
    return mutex;
}

// A table per single-byte code page (nullptr when iconv lacks it), built on first use and kept for the
// life of the process, so a reference stays valid without the lock.
const ByteTable* ByteTableOf(int cp) {
    static std::unordered_map<int, std::unique_ptr<ByteTable>> tables;
    std::lock_guard<std::mutex> lock(CodePageMutex());
    auto it = tables.find(cp);
    if (it == tables.end()) it = tables.emplace(cp, BuildByteTable(cp)).first;
    return it->second.get();
}

const CodePageTable& Table(TCodePage cp) {
    static std::once_flag once[3];
    static CodePageTable tables[3];
    const size_t index = cp <= cpEBCDIC037 ? cp : 0;
    std::call_once(once[index], [&] {
        const ByteTable* bytes = ByteTableOf(index == cpOEM437 ? 437 : index == cpEBCDIC037 ? 37 : 1252);
        CodePageTable& table = tables[index];
        for (int b = 0; b < 256; ++b) {
            std::string& out = table.chars[static_cast<size_t>(b)];
            out = bytes ? bytes->chars[static_cast<size_t>(b)] : Utf8Encode(static_cast<char32_t>(b));
            size_t pos = 0;
            table.reverse.emplace(Utf8Decode(out, pos), static_cast<unsigned char>(b));
        }
    });
    return tables[index];
}

bool IconvKnows(int cp) {
    static std::unordered_map<int, bool> known;
    std::lock_guard<std::mutex> lock(CodePageMutex());
    auto it = known.find(cp);
    if (it == known.end()) {
        iconv_t cd = iconv_open("UTF-8", IconvNameOf(cp).c_str());
        if (cd != kNoIconv) iconv_close(cd);
        it = known.emplace(cp, cd != kNoIconv).first;
    }
    return it->second;
}

// iconv handles are not to be shared between threads: each thread keeps its own per code page.
struct IconvHandles {
    std::unordered_map<int, iconv_t> handles;
    IconvHandles() = default;
    IconvHandles(const IconvHandles&) = delete;
    IconvHandles& operator=(const IconvHandles&) = delete;
    ~IconvHandles() {
        for (auto& entry : handles)
            if (entry.second != kNoIconv) iconv_close(entry.second);
    }
};

iconv_t HandleOf(int cp) {
    thread_local IconvHandles local;
    auto it = local.handles.find(cp);
    if (it == local.handles.end())
        it = local.handles.emplace(cp, iconv_open("UTF-8", IconvNameOf(cp).c_str())).first;
    return it->second;
}

void AppendThroughIconv(std::string& out, std::string_view bytes, iconv_t cd) {
    iconv(cd, nullptr, nullptr, nullptr, nullptr);
    char* in = const_cast<char*>(bytes.data()); // iconv's signature; it does not write the input
    size_t inLeft = bytes.size();
    char buffer[1024];
    while (inLeft > 0) {
        char* o = buffer;
        size_t oLeft = sizeof buffer;
        const size_t r = iconv(cd, &in, &inLeft, &o, &oLeft);
        out.append(buffer, static_cast<size_t>(o - buffer));
        if (r == static_cast<size_t>(-1) && errno != E2BIG) {
            // A byte that starts no character (or a character cut by the end): skip it alone.
            out += "\xEF\xBF\xBD";
            ++in;
            --inLeft;
            iconv(cd, nullptr, nullptr, nullptr, nullptr);
        }
    }
    char* o = buffer;
    size_t oLeft = sizeof buffer;
    iconv(cd, nullptr, nullptr, &o, &oLeft);
    out.append(buffer, static_cast<size_t>(o - buffer));
}

std::string Lower(std::string_view s) {
    std::string out(s);
    for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

std::optional<int> Digits(std::string_view s) {
    int value = 0;
    if (s.empty() || s.size() > 6) return std::nullopt;
    const auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), value);
    if (ec != std::errc() || end != s.data() + s.size() || value <= 0) return std::nullopt;
    return value;
}

} // namespace

bool CodePageAvailable(int codePage) {
    if (codePage <= 0) return false;
    return codePage == kCodePageUtf8 || IconvKnows(codePage);
}

std::optional<int> ParseCodePageName(std::string_view name) {
    while (!name.empty() && (name.front() == ' ' || name.front() == '\t')) name.remove_prefix(1);
    while (!name.empty() && (name.back() == ' ' || name.back() == '\t')) name.remove_suffix(1);
    const std::string s = Lower(name);
    std::optional<int> cp;
    if (s == "utf-8" || s == "utf8") {
        cp = kCodePageUtf8;
    } else if (s == "latin1" || s == "latin-1") {
        cp = 28591;
    } else if (s == "mac" || s == "macroman" || s == "mac-roman" || s == "macintosh") {
        cp = 10000;
    } else if (s == "koi8-r" || s == "koi8r") {
        cp = 20866;
    } else if (s == "koi8-u" || s == "koi8u") {
        cp = 21866;
    } else {
        for (std::string_view prefix : {"iso-8859-", "iso8859-", "iso_8859-"})
            if (s.starts_with(prefix)) {
                const std::optional<int> part = Digits(std::string_view(s).substr(prefix.size()));
                if (part && *part <= 16) cp = 28590 + *part;
                return cp && CodePageAvailable(*cp) ? cp : std::nullopt;
            }
        std::string_view digits = s;
        for (std::string_view prefix :
             {"windows-", "windows", "win-", "win", "cp-", "cp", "ibm-", "ibm", "dos"})
            if (digits.starts_with(prefix)) {
                digits.remove_prefix(prefix.size());
                break;
            }
        cp = Digits(digits);
    }
    return cp && CodePageAvailable(*cp) ? cp : std::nullopt;
}

std::string CodePageDisplayName(int codePage) {
    if (codePage == kCodePageUtf8) return "utf-8";
    if (codePage >= 28591 && codePage <= 28606) return "iso-8859-" + std::to_string(codePage - 28590);
    if (codePage == 20866) return "koi8-r";
    if (codePage == 21866) return "koi8-u";
    return "cp" + std::to_string(codePage);
}

TKvCodePageDecoder::TKvCodePageDecoder(int codePage) : codePage_(codePage) {
    if (!CodePageAvailable(codePage_)) codePage_ = 1252;
    if (!IsMultiByte(codePage_)) {
        const ByteTable* table = ByteTableOf(codePage_);
        if (!table) table = ByteTableOf(codePage_ = 1252);
        if (table) {
            chars_ = table->chars.data();
            asciiSame_ = table->asciiSame;
        }
    }
}

void TKvCodePageDecoder::Append(std::string& out, std::string_view bytes) const {
    if (chars_) {
        for (unsigned char b : bytes) {
            if (b < 0x80 && asciiSame_)
                out.push_back(static_cast<char>(b));
            else
                out += chars_[b];
        }
        return;
    }
    if (IsAscii(bytes)) {
        out.append(bytes);
        return;
    }
    if (codePage_ == kCodePageUtf8) {
        out += Utf8Sanitize(bytes);
        return;
    }
    iconv_t cd = HandleOf(codePage_);
    if (cd == kNoIconv)
        AppendUtf8OrWindows1252(out, bytes);
    else
        AppendThroughIconv(out, bytes, cd);
}

std::string DecodeCodePage(std::string_view bytes, int codePage) {
    return TKvCodePageDecoder(codePage).Decode(bytes);
}

} // namespace kv
