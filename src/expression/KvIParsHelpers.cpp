#include "expression/KvIParsInternal.h"

#include "platform/Exceptions.h"
#include "platform/SysUtils.h"
#include "platform/Utf8.h"

#include <charconv>
#include <cmath>

namespace kv {

namespace {

const TFormatSettings& InvariantSettings() {
    static const TFormatSettings settings = InvariantFormatSettings();
    return settings;
}

// `s` with every occurrence of the regional decimal separator read as ".".
std::string WithInvariantDecimal(std::string_view s) {
    const char32_t decimal = DefaultFormatSettings.DecimalSeparator;
    std::string text(s);
    if (decimal == U'.' || decimal == 0) return text;
    return ReplaceStr(text, Utf8Encode(decimal), ".", false, true);
}

void RemoveAll(std::string& s, std::string_view what) {
    if (what.empty()) return;
    for (size_t p = s.find(what); p != std::string::npos; p = s.find(what, p)) s.erase(p, what.size());
}

} // namespace

bool StringIsNumeric(std::string_view s) {
    double ignored;
    const char32_t decimal = DefaultFormatSettings.DecimalSeparator;
    if (decimal == U'.' || decimal == 0) return expr::TryParseInvariantFloat(s, ignored);
    return expr::TryParseInvariantFloat(WithInvariantDecimal(s), ignored);
}

std::string ReplaceStr(const std::string& text, const std::string& oldText, const std::string& newText,
                       bool IgnoreCase, bool ReplaceAll) {
    if (oldText.empty()) return text;
    const bool ignoreCase = IgnoreCase && !ReplaceAll;
    if (!ignoreCase) {
        std::string result;
        size_t from = 0;
        for (size_t p = text.find(oldText); p != std::string::npos; p = text.find(oldText, from)) {
            result.append(text, from, p - from).append(newText);
            from = p + oldText.size();
            if (!ReplaceAll) break;
        }
        return result.append(text, from, std::string::npos);
    }
    // Case mapping is per code point, so the lowered text lines up with the original character by character.
    const std::u32string original = Utf8ToU32(text);
    const std::u32string lowered = Utf8ToU32(Utf8LowerCase(text));
    const std::u32string needle = Utf8ToU32(Utf8LowerCase(oldText));
    size_t p = lowered.find(needle);
    if (p == std::u32string::npos || lowered.size() != original.size()) return text;
    std::string result = U32ToUtf8(original.substr(0, p));
    result += newText;
    result += U32ToUtf8(original.substr(p + needle.size()));
    return result;
}

std::string ReplaceWideStr(const std::string& text, const std::string& oldText, const std::string& newText,
                           bool IgnoreCase, bool ReplaceAll) {
    return ReplaceStr(text, oldText, newText, IgnoreCase, ReplaceAll);
}

std::string GetNextItem(std::string& s, std::string_view delimiter) {
    size_t p = delimiter.empty() ? std::string::npos : s.find(delimiter);
    std::string item;
    if (p == std::string::npos) {
        item.swap(s);
        s.clear();
    } else {
        item = s.substr(0, p);
        s.erase(0, p + delimiter.size());
    }
    return item;
}

namespace {

// A part of a date being read: the characters the mask gave it, kept in place (a part longer than any
// real one only has to be told apart from a valid one).
struct DatePart {
    char32_t chars[24];
    size_t size = 0;
    bool overflow = false;
    void Add(char32_t c) {
        if (size < sizeof chars / sizeof chars[0])
            chars[size++] = c;
        else
            overflow = true;
    }
    bool Empty() const { return size == 0 && !overflow; }
    // The part as a number: blanks around it allowed, digits only, at most nine of them.
    bool Number(int& out) const {
        if (overflow) return false;
        size_t b = 0, e = size;
        while (b < e && chars[b] <= U' ') ++b;
        while (e > b && chars[e - 1] <= U' ') --e;
        if (b == e || e - b > 9) return false;
        int v = 0;
        for (size_t i = b; i < e; ++i) {
            if (chars[i] < U'0' || chars[i] > U'9') return false;
            v = v * 10 + static_cast<int>(chars[i] - U'0');
        }
        out = v;
        return true;
    }
    int Month() const {
        static const char* const names[12][2] = {
            {"JAN", "JANUARY"},   {"FEB", "FEBRUARY"}, {"MAR", "MARCH"},    {"APR", "APRIL"},
            {"MAY", "MAY"},       {"JUN", "JUNE"},     {"JUL", "JULY"},     {"AUG", "AUGUST"},
            {"SEP", "SEPTEMBER"}, {"OCT", "OCTOBER"},  {"NOV", "NOVEMBER"}, {"DEC", "DECEMBER"}};
        if (overflow) return 0;
        size_t b = 0, e = size;
        while (b < e && chars[b] <= U' ') ++b;
        while (e > b && chars[e - 1] <= U' ') --e;
        for (int m = 0; m < 12; ++m) {
            for (const char* name : names[m]) {
                size_t n = 0;
                while (name[n] && b + n < e && CharUpper(chars[b + n]) == static_cast<char32_t>(name[n])) ++n;
                if (!name[n] && b + n == e) return m + 1;
            }
        }
        return 0;
    }
};

bool IsDateSeparator(char32_t c, char32_t dateSep, char32_t timeSep) {
    // Digits and letters, the bulk of any date, are never separators unless chosen as one.
    if (c >= U'0' && c <= U'9' && c != dateSep && c != timeSep) return false;
    if ((c | 0x20) >= U'a' && (c | 0x20) <= U'z' && c != dateSep && c != timeSep) return false;
    return c == U'/' || c == U':' || c == U' ' || c == dateSep || c == timeSep;
}

// True when `text` holds `word`, ignoring case.
bool ContainsText(std::string_view text, std::string_view word) {
    if (word.empty() || word.size() > text.size()) return false;
    if (IsAscii(word)) {
        for (size_t i = 0; i + word.size() <= text.size(); ++i)
            if (SameText(text.substr(i, word.size()), word)) return true;
        return false;
    }
    return Utf8UpperCase(text).find(Utf8UpperCase(word)) != std::string::npos;
}

} // namespace

TKvDateMask::TKvDateMask(std::string_view mask, char32_t dateSeparator, char32_t timeSeparator)
    : dateSeparator_(dateSeparator), timeSeparator_(timeSeparator) {
    // The mask's characters with every run of separators reduced to its first one, each by its part.
    bool lastWasSeparator = false;
    for (size_t pos = 0; pos < mask.size();) {
        const char32_t c = Utf8Decode(mask, pos);
        const bool separator = IsDateSeparator(c, dateSeparator, timeSeparator);
        if (separator && lastWasSeparator) continue;
        lastWasSeparator = separator;
        uint8_t role = kNone;
        if (!separator) {
            switch (c) {
            case U'D':
            case U'd':
                role = kDay;
                break;
            case U'M':
            case U'm':
                role = kMonth;
                break;
            case U'Y':
            case U'y':
                role = kYear;
                break;
            case U'H':
            case U'h':
                role = kHour;
                break;
            case U'N':
            case U'n':
                role = kMinute;
                break;
            case U'S':
            case U's':
                role = kSecond;
                break;
            default:
                break; // letters of other kinds
            }
        }
        hasDate_ = hasDate_ || role == kDay || role == kMonth || role == kYear;
        roles_.push_back(role);
    }
}

// What was read into each part of a date: whether anything was, and its number (or the month's name).
struct TKvDateMask::TParts {
    bool Filled[kNone] = {};
    bool IsNumber[kNone] = {};
    int Number[kNone] = {};
    int MonthByName = 0; ///< when the month part is longer than two characters
    int MSec = 0;        ///< the fraction after the seconds
};

template <class Visit> size_t TKvDateMask::Walk(std::string_view value, Visit visit) const {
    // The value's characters, separator runs reduced the same way, go pairwise with the mask's.
    bool lastWasSeparator = false;
    size_t next = 0, pos = 0;
    while (pos < value.size() && next < roles_.size()) {
        const unsigned char b = static_cast<unsigned char>(value[pos]);
        char32_t c = b;
        if (b < 0x80)
            ++pos;
        else
            c = Utf8Decode(value, pos);
        const bool separator = IsDateSeparator(c, dateSeparator_, timeSeparator_);
        if (separator && lastWasSeparator) continue;
        lastWasSeparator = separator;
        const uint8_t role = roles_[next++];
        if (role != kNone && !visit(role, c)) return std::string_view::npos;
    }
    return pos;
}

TDateTime TKvDateMask::Read(std::string_view value) const {
    TDateTime result;
    TryRead(value, result);
    return result;
}

bool TKvDateMask::TryRead(std::string_view value, TDateTime& out) const {
    TParts parts;
    // Parts of digits only, the usual case, are counted as they go by; anything else goes the long way.
    int64_t numbers[kNone] = {};
    size_t counts[kNone] = {};
    bool digits = true;
    size_t end = Walk(value, [&](uint8_t role, char32_t c) {
        if (c < U'0' || c > U'9') return digits = false;
        if (counts[role]++ < 10) numbers[role] = numbers[role] * 10 + (c - U'0');
        return true;
    });
    if (digits) {
        for (int k = 0; k < kNone; ++k) {
            parts.Filled[k] = counts[k] > 0;
            parts.IsNumber[k] = counts[k] > 0 && counts[k] <= 9;
            parts.Number[k] = parts.IsNumber[k] ? static_cast<int>(numbers[k]) : 0;
        }
        // A longer month would have to be a name, which digits never are.
        if (counts[kMonth] > 2) parts.IsNumber[kMonth] = false;
    } else {
        DatePart read[kNone];
        end = Walk(value, [&](uint8_t role, char32_t c) {
            read[role].Add(c);
            return true;
        });
        for (int k = 0; k < kNone; ++k) {
            parts.Filled[k] = !read[k].Empty();
            parts.IsNumber[k] = read[k].Number(parts.Number[k]);
        }
        if (read[kMonth].size > 2 || read[kMonth].overflow) {
            parts.IsNumber[kMonth] = false;
            parts.MonthByName = read[kMonth].Month();
        }
    }
    // The mask has no letter for a fraction of a second: one right after seconds that end the mask is read.
    if (!roles_.empty() && roles_.back() == kSecond && end != std::string_view::npos &&
        end + 1 < value.size() && (value[end] == '.' || value[end] == ',') && value[end + 1] >= '0' &&
        value[end + 1] <= '9') {
        size_t pos = end + 1;
        parts.MSec = ReadFractionMSecs(value, pos);
    }
    return Compose(parts, value, out);
}

bool TKvDateMask::Compose(const TParts& p, std::string_view value, TDateTime& out) const {
    TDateTime result = 0;
    bool found = false;
    if (p.Filled[kDay] && p.Filled[kMonth] && p.Filled[kYear]) {
        const int d = p.Number[kDay], y0 = p.Number[kYear];
        const int mo = p.IsNumber[kMonth] ? p.Number[kMonth] : p.MonthByName;
        const bool ok = p.IsNumber[kDay] && p.IsNumber[kYear] && (p.IsNumber[kMonth] || p.MonthByName);
        if (ok && d > 0 && d < 32 && mo > 0 && mo < 13) {
            const int y = y0 < 100 ? ExpandTwoDigitYear(y0, DefaultFormatSettings) : y0;
            TDateTime date;
            if (TryEncodeDate(y, mo, d, date)) result = date, found = hasDate_;
        }
    }
    if (p.Filled[kHour] && p.Filled[kMinute]) {
        int h = p.Number[kHour];
        const int n = p.Number[kMinute], s = p.Filled[kSecond] ? p.Number[kSecond] : 0;
        if (p.IsNumber[kHour] && p.IsNumber[kMinute] && (!p.Filled[kSecond] || p.IsNumber[kSecond])) {
            const std::string& pm = DefaultFormatSettings.TimePMString;
            if (h < 12 && ContainsText(value, pm.empty() ? std::string_view("PM") : std::string_view(pm))) {
                h += 12;
                if (h > 23) h = 0;
            }
            TDateTime time;
            if (h >= 0 && h <= 24 && n >= 0 && n < 60 && s >= 0 && s < 60 &&
                TryEncodeTime(h, n, s, 0, time)) {
                result = CombineDateTime(result, time + static_cast<double>(p.MSec) /
                                                            static_cast<double>(MSecsPerDay));
                found = found || !hasDate_;
            }
        }
    }
    out = result;
    return found;
}

TDateTime GetDTByMask(std::string_view value, std::string_view mask, char32_t dateSeparator,
                      char32_t timeSeparator) {
    return TKvDateMask(mask, dateSeparator, timeSeparator).Read(value);
}

namespace expr {

bool TryParseInvariantFloat(std::string_view s, double& out) {
    return TryStrToFloat(s, out, InvariantSettings());
}

double NumericCoercion(const Variant& v) {
    if (v.IsNullOrEmpty()) return 0;
    if (v.IsOrdinal()) return static_cast<double>(v.AsInt64());
    const TFormatSettings& fs = DefaultFormatSettings;
    if (v.VarType() == varDouble) {
        // A number (a literal, a computed value) is no text to read by the regional settings; it keeps the
        // 15 significant digits its text would have.
        double d = v.AsDouble();
        if (!std::isfinite(d)) return 0;
        char buffer[40];
        auto written = std::to_chars(buffer, buffer + sizeof buffer, d, std::chars_format::general, 15);
        double rounded = d;
        std::from_chars(buffer, written.ptr, rounded);
        return rounded;
    }
    std::string text = v.AsString();
    RemoveAll(text, ",");
    if (fs.ThousandSeparator != 0) RemoveAll(text, Utf8Encode(fs.ThousandSeparator));
    size_t p = fs.CurrencyString.empty() ? std::string::npos : text.find(fs.CurrencyString);
    if (p != std::string::npos)
        text.erase(p, fs.CurrencyString.size());
    else if ((p = text.find('$')) != std::string::npos)
        text.erase(p, 1);
    double result;
    if (TryParseInvariantFloat(WithInvariantDecimal(text), result)) return result;
    return 0;
}

double Power(double base, double exponent) {
    if (exponent == 0) return 1;
    if (base == 0 && exponent > 0) return 0;
    if (exponent == std::trunc(exponent) && std::fabs(exponent) <= 2147483647.0) {
        uint64_t n = static_cast<uint64_t>(std::fabs(exponent));
        double result = 1, factor = base;
        while (n) {
            if (n & 1) result *= factor;
            n >>= 1;
            if (n) factor *= factor;
        }
        if (exponent < 0) {
            if (result == 0) throw EZeroDivide("Floating point division by zero");
            result = 1 / result;
        }
        if (std::isinf(result) && std::isfinite(base)) throw EOverflow("Floating point overflow");
        return result;
    }
    if (base < 0 || std::isnan(base) || std::isnan(exponent))
        throw EInvalidOp("Invalid floating point operation");
    if (base == 0) throw EZeroDivide("Floating point division by zero");
    double result = std::exp(std::log(base) * exponent);
    if (std::isinf(result) && std::isfinite(base) && std::isfinite(exponent))
        throw EOverflow("Floating point overflow");
    return result;
}

} // namespace expr

} // namespace kv
