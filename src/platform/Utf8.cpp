#include "platform/Utf8.h"

#include <clocale>
#include <cwctype>
#include <locale.h>

namespace kv {

namespace {

constexpr char32_t kReplacement = 0xFFFD;

// Case mapping of non-ASCII characters uses the C library's tables of a UTF-8 locale, without touching the
// process locale.
locale_t Utf8Locale() {
    static locale_t locale = [] {
        locale_t l = newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(nullptr));
        if (!l) l = newlocale(LC_CTYPE_MASK, "C.utf8", static_cast<locale_t>(nullptr));
        return l;
    }();
    return locale;
}

} // namespace

bool IsAscii(std::string_view s) {
    for (unsigned char c : s)
        if (c >= 0x80) return false;
    return true;
}

char32_t Utf8Decode(std::string_view s, size_t& pos) {
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(s[i]); };
    const unsigned char c = byte(pos);
    if (c < 0x80) {
        ++pos;
        return c;
    }
    int extra;
    char32_t cp, min;
    if ((c & 0xE0) == 0xC0) {
        extra = 1, cp = c & 0x1F, min = 0x80;
    } else if ((c & 0xF0) == 0xE0) {
        extra = 2, cp = c & 0x0F, min = 0x800;
    } else if ((c & 0xF8) == 0xF0) {
        extra = 3, cp = c & 0x07, min = 0x10000;
    } else {
        ++pos;
        return kReplacement;
    }
    if (pos + static_cast<size_t>(extra) >= s.size()) {
        ++pos;
        return kReplacement;
    }
    for (int i = 1; i <= extra; ++i) {
        unsigned char d = byte(pos + static_cast<size_t>(i));
        if ((d & 0xC0) != 0x80) {
            ++pos;
            return kReplacement;
        }
        cp = (cp << 6) | (d & 0x3F);
    }
    if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
        ++pos;
        return kReplacement;
    }
    pos += static_cast<size_t>(extra) + 1;
    return cp;
}

bool IsValidUtf8(std::string_view s) {
    size_t pos = 0;
    while (pos < s.size()) {
        if (static_cast<unsigned char>(s[pos]) < 0x80) {
            ++pos;
            continue;
        }
        size_t before = pos;
        char32_t c = Utf8Decode(s, pos);
        // A decoded U+FFFD is genuine only when it took its three bytes.
        if (c == kReplacement && pos - before != 3) return false;
    }
    return true;
}

std::string Utf8Sanitize(std::string_view s) {
    if (IsValidUtf8(s)) return std::string(s);
    std::string out;
    out.reserve(s.size() + 16);
    for (size_t pos = 0; pos < s.size();) Utf8Append(out, Utf8Decode(s, pos));
    return out;
}

void Utf8Append(std::string& out, char32_t c) {
    if (c < 0x80) {
        out.push_back(static_cast<char>(c));
        return;
    }
    if ((c >= 0xD800 && c <= 0xDFFF) || c > 0x10FFFF) c = kReplacement;
    if (c < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (c >> 6)));
    } else if (c < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (c >> 12)));
        out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (c >> 18)));
        out.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
    }
    out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
}

size_t Utf8EncodeTo(char32_t c, char* out) {
    if (c == 0) return 0;
    if (c < 0x80) {
        out[0] = static_cast<char>(c);
        return 1;
    }
    const std::string s = Utf8Encode(c);
    for (size_t i = 0; i < s.size(); ++i) out[i] = s[i];
    return s.size();
}

std::string Utf8Encode(char32_t c) {
    std::string s;
    Utf8Append(s, c);
    return s;
}

size_t Utf8Length(std::string_view s) {
    if (IsAscii(s)) return s.size();
    size_t count = 0;
    for (size_t pos = 0; pos < s.size(); ++count) Utf8Decode(s, pos);
    return count;
}

size_t Utf8Offset(std::string_view s, size_t index) {
    size_t pos = 0;
    for (size_t i = 0; i < index && pos < s.size(); ++i) {
        if (static_cast<unsigned char>(s[pos]) < 0x80)
            ++pos;
        else
            Utf8Decode(s, pos);
    }
    return pos;
}

std::string Utf8Copy(std::string_view s, int64_t start, int64_t count) {
    if (count < 1) return {};
    if (start < 1) start = 1;
    if (IsAscii(s)) {
        if (static_cast<uint64_t>(start - 1) >= s.size()) return {};
        return std::string(s.substr(static_cast<size_t>(start - 1), static_cast<size_t>(count)));
    }
    size_t from = Utf8Offset(s, static_cast<size_t>(start - 1));
    std::string_view rest = s.substr(from);
    size_t to = static_cast<uint64_t>(count) >= rest.size() ? rest.size()
                                                            : Utf8Offset(rest, static_cast<size_t>(count));
    return std::string(rest.substr(0, to));
}

int64_t Utf8Pos(std::string_view needle, std::string_view haystack) {
    if (needle.empty()) return 0;
    size_t p = haystack.find(needle);
    if (p == std::string_view::npos) return 0;
    return static_cast<int64_t>(Utf8Length(haystack.substr(0, p))) + 1;
}

std::u32string Utf8ToU32(std::string_view s) {
    std::u32string out;
    out.reserve(s.size());
    for (size_t pos = 0; pos < s.size();) out.push_back(Utf8Decode(s, pos));
    return out;
}

std::string U32ToUtf8(std::u32string_view s) {
    std::string out;
    out.reserve(s.size());
    for (char32_t c : s) Utf8Append(out, c);
    return out;
}

char32_t CharUpper(char32_t c) {
    if (c < 0x80) return (c >= 'a' && c <= 'z') ? c - 32 : c;
    locale_t l = Utf8Locale();
    return l ? static_cast<char32_t>(towupper_l(static_cast<wint_t>(c), l)) : c;
}

char32_t CharLower(char32_t c) {
    if (c < 0x80) return (c >= 'A' && c <= 'Z') ? c + 32 : c;
    locale_t l = Utf8Locale();
    return l ? static_cast<char32_t>(towlower_l(static_cast<wint_t>(c), l)) : c;
}

namespace {
template <class Map> std::string MapCase(std::string_view s, Map map) {
    std::string out;
    out.reserve(s.size());
    for (size_t pos = 0; pos < s.size();) {
        unsigned char c = static_cast<unsigned char>(s[pos]);
        if (c < 0x80) {
            out.push_back(static_cast<char>(map(c)));
            ++pos;
        } else {
            size_t before = pos;
            char32_t cp = Utf8Decode(s, pos);
            if (cp == kReplacement && pos - before != 3)
                out.append(s.substr(before, pos - before)); // keep malformed bytes as they are
            else
                Utf8Append(out, map(cp));
        }
    }
    return out;
}
} // namespace

std::string Utf8UpperCase(std::string_view s) {
    return MapCase(s, CharUpper);
}
std::string Utf8LowerCase(std::string_view s) {
    return MapCase(s, CharLower);
}

std::string Utf16ToUtf8(std::string_view bytes, bool bigEndian) {
    std::string out;
    out.reserve(bytes.size());
    const size_t units = bytes.size() / 2;
    auto unit = [&](size_t i) -> char32_t {
        unsigned char a = static_cast<unsigned char>(bytes[2 * i]),
                      b = static_cast<unsigned char>(bytes[2 * i + 1]);
        return bigEndian ? (char32_t(a) << 8 | b) : (char32_t(b) << 8 | a);
    };
    for (size_t i = 0; i < units; ++i) {
        char32_t u = unit(i);
        if (u >= 0xD800 && u <= 0xDBFF && i + 1 < units) {
            char32_t low = unit(i + 1);
            if (low >= 0xDC00 && low <= 0xDFFF) {
                Utf8Append(out, 0x10000 + ((u - 0xD800) << 10) + (low - 0xDC00));
                ++i;
                continue;
            }
        }
        Utf8Append(out, u); // an unpaired surrogate becomes U+FFFD there
    }
    if (bytes.size() % 2) Utf8Append(out, kReplacement);
    return out;
}

} // namespace kv
