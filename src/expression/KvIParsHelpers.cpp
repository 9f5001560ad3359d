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

// Collapses every run of separator characters into its first character.
std::u32string ReduceSeparators(const std::u32string& s, char32_t dateSep, char32_t timeSep) {
    auto isSep = [&](char32_t c) {
        return c == U'/' || c == U':' || c == U' ' || c == dateSep || c == timeSep;
    };
    std::u32string out;
    for (size_t i = 0; i < s.size(); ++i)
        if (!(isSep(s[i]) && i > 0 && isSep(s[i - 1]))) out.push_back(s[i]);
    return out;
}

bool PartNumber(const std::u32string& part, int& out) {
    std::string text = Trim(U32ToUtf8(part));
    return !text.empty() && TryStrToInt(text, out);
}

int MonthByName(const std::u32string& part) {
    static const char* const names[12][2] = {{"JAN", "JANUARY"}, {"FEB", "FEBRUARY"}, {"MAR", "MARCH"},
                                             {"APR", "APRIL"},   {"MAY", "MAY"},      {"JUN", "JUNE"},
                                             {"JUL", "JULY"},    {"AUG", "AUGUST"},   {"SEP", "SEPTEMBER"},
                                             {"OCT", "OCTOBER"}, {"NOV", "NOVEMBER"}, {"DEC", "DECEMBER"}};
    const std::string upper = Utf8UpperCase(Trim(U32ToUtf8(part)));
    for (int m = 0; m < 12; ++m)
        if (upper == names[m][0] || upper == names[m][1]) return m + 1;
    return 0;
}

} // namespace

TDateTime GetDTByMask(const std::string& value, const std::string& mask, char32_t dateSeparator,
                      char32_t timeSeparator) {
    auto isSep = [&](char32_t c) {
        return c == U'/' || c == U':' || c == U' ' || c == dateSeparator || c == timeSeparator;
    };
    const std::u32string v = ReduceSeparators(Utf8ToU32(value), dateSeparator, timeSeparator);
    const std::u32string m = ReduceSeparators(Utf8ToU32(mask), dateSeparator, timeSeparator);
    std::u32string day, month, year, hour, minute, second;
    for (size_t i = 0; i < v.size() && i < m.size(); ++i) {
        if (isSep(m[i])) continue;
        switch (m[i]) {
        case U'D':
        case U'd':
            day.push_back(v[i]);
            break;
        case U'M':
        case U'm':
            month.push_back(v[i]);
            break;
        case U'Y':
        case U'y':
            year.push_back(v[i]);
            break;
        case U'H':
        case U'h':
            hour.push_back(v[i]);
            break;
        case U'N':
        case U'n':
            minute.push_back(v[i]);
            break;
        case U'S':
        case U's':
            second.push_back(v[i]);
            break;
        default:
            break;
        }
    }

    TDateTime result = 0;
    if (!day.empty() && !month.empty() && !year.empty()) {
        int d = 0, mo = 0, y = 0;
        bool ok = PartNumber(day, d) && PartNumber(year, y);
        if (month.size() <= 2)
            ok = ok && PartNumber(month, mo);
        else
            mo = MonthByName(month);
        if (ok && d > 0 && d < 32 && mo > 0 && mo < 13) {
            if (y < 100) y = ExpandTwoDigitYear(y, DefaultFormatSettings);
            TDateTime date;
            if (TryEncodeDate(y, mo, d, date)) result = date;
        }
    }
    if (!hour.empty() && !minute.empty()) {
        int h = 0, n = 0, s = 0;
        if (PartNumber(hour, h) && PartNumber(minute, n) && (second.empty() || PartNumber(second, s))) {
            std::string pm =
                DefaultFormatSettings.TimePMString.empty() ? "PM" : DefaultFormatSettings.TimePMString;
            if (h < 12 && Utf8UpperCase(value).find(Utf8UpperCase(pm)) != std::string::npos) {
                h += 12;
                if (h > 23) h = 0;
            }
            TDateTime time;
            if (h >= 0 && h <= 24 && n >= 0 && n < 60 && s >= 0 && s < 60 && TryEncodeTime(h, n, s, 0, time))
                result += time;
        }
    }
    return result;
}

namespace expr {

bool TryParseInvariantFloat(std::string_view s, double& out) {
    return TryStrToFloat(s, out, InvariantSettings());
}

double NumericCoercion(const Variant& v) {
    if (v.IsNullOrEmpty()) return 0;
    if (v.IsOrdinal()) return static_cast<double>(v.AsInt64());
    const TFormatSettings& fs = DefaultFormatSettings;
    if (v.VarType() == varDouble && fs.DecimalSeparator == U'.' && fs.ThousandSeparator != U'.' &&
        fs.CurrencyString.find_first_of("0123456789.Ee+-") == std::string::npos) {
        // Same result as the text round trip below: the text of a double has 15 significant digits.
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
