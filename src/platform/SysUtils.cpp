#include "platform/SysUtils.h"

#include "platform/Exceptions.h"
#include "platform/Utf8.h"

#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <system_error>

namespace kv {

namespace {
bool IsTrimmed(char c) {
    return static_cast<unsigned char>(c) <= ' ';
}
char AsciiUpper(char c) {
    return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 32) : c;
}
char AsciiLower(char c) {
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c;
}
// A magnitude and its sign as a 64-bit integer; false beyond its range.
bool SignedMagnitude(uint64_t magnitude, bool negative, int64_t& out) {
    if (negative) {
        if (magnitude > 9223372036854775808ull) return false;
        out = magnitude == 9223372036854775808ull ? INT64_MIN : -static_cast<int64_t>(magnitude);
    } else {
        if (magnitude > 9223372036854775807ull) return false;
        out = static_cast<int64_t>(magnitude);
    }
    return true;
}
} // namespace

std::string_view TrimView(std::string_view s) {
    size_t b = 0, e = s.size();
    while (b < e && IsTrimmed(s[b])) ++b;
    while (e > b && IsTrimmed(s[e - 1])) --e;
    return s.substr(b, e - b);
}

std::string Trim(std::string_view s) {
    return std::string(TrimView(s));
}

std::string_view TrimLeftView(std::string_view s) {
    size_t b = 0;
    while (b < s.size() && IsTrimmed(s[b])) ++b;
    return s.substr(b);
}

std::string_view TrimRightView(std::string_view s) {
    size_t e = s.size();
    while (e > 0 && IsTrimmed(s[e - 1])) --e;
    return s.substr(0, e);
}

std::string TrimLeft(std::string_view s) {
    return std::string(TrimLeftView(s));
}

std::string TrimRight(std::string_view s) {
    return std::string(TrimRightView(s));
}

std::string UpperCase(std::string_view s) {
    std::string r(s);
    for (char& c : r) c = AsciiUpper(c);
    return r;
}

std::string LowerCase(std::string_view s) {
    std::string r(s);
    for (char& c : r) c = AsciiLower(c);
    return r;
}

int CompareText(std::string_view a, std::string_view b) {
    size_t i = 0, j = 0;
    while (i < a.size() && j < b.size()) {
        unsigned char ca = static_cast<unsigned char>(a[i]), cb = static_cast<unsigned char>(b[j]);
        char32_t x, y;
        if (ca < 0x80 && cb < 0x80) {
            x = static_cast<unsigned char>(AsciiUpper(static_cast<char>(ca)));
            y = static_cast<unsigned char>(AsciiUpper(static_cast<char>(cb)));
            ++i, ++j;
        } else {
            x = CharUpper(Utf8Decode(a, i));
            y = CharUpper(Utf8Decode(b, j));
        }
        if (x != y) return x < y ? -1 : 1;
    }
    if (i < a.size()) return 1;
    if (j < b.size()) return -1;
    return 0;
}

bool SameText(std::string_view a, std::string_view b) {
    // Two different ASCII first letters settle it at once (the usual case when names are compared).
    if (!a.empty() && !b.empty()) {
        const unsigned char x = static_cast<unsigned char>(a[0]), y = static_cast<unsigned char>(b[0]);
        if (x < 0x80 && y < 0x80 && AsciiUpper(static_cast<char>(x)) != AsciiUpper(static_cast<char>(y)))
            return false;
    }
    if (a.size() == b.size()) {
        bool ascii = true;
        for (size_t i = 0; i < a.size(); ++i) {
            if ((static_cast<unsigned char>(a[i]) | static_cast<unsigned char>(b[i])) >= 0x80) {
                ascii = false;
                break;
            }
            if (AsciiUpper(a[i]) != AsciiUpper(b[i])) return false;
        }
        if (ascii) return true;
    } else if (IsAscii(a) && IsAscii(b)) {
        return false;
    }
    return CompareText(a, b) == 0;
}

int HexDigitValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

int CompareStr(std::string_view a, std::string_view b) {
    int c = a.compare(b);
    return c < 0 ? -1 : c > 0 ? 1 : 0;
}

bool StartsText(std::string_view prefix, std::string_view s) {
    if (IsAscii(prefix) && IsAscii(s))
        return s.size() >= prefix.size() && SameText(prefix, s.substr(0, prefix.size()));
    size_t n = Utf8Length(prefix);
    return SameText(prefix, s.substr(0, Utf8Offset(s, n)));
}

std::string IntToStr(int64_t value) {
    char buffer[24];
    auto r = std::to_chars(buffer, buffer + sizeof buffer, value);
    return std::string(buffer, r.ptr);
}

std::string IntToHex(uint64_t value, int digits) {
    char buffer[24];
    auto r = std::to_chars(buffer, buffer + sizeof buffer, value, 16);
    std::string s(buffer, r.ptr);
    for (char& c : s) c = AsciiUpper(c);
    if (static_cast<int>(s.size()) < digits) s.insert(0, static_cast<size_t>(digits) - s.size(), '0');
    return s;
}

bool TryStrToInt64(std::string_view s, int64_t& out) {
    size_t i = 0;
    while (i < s.size() && s[i] == ' ') ++i;
    bool negative = false;
    if (i < s.size() && (s[i] == '-' || s[i] == '+')) negative = s[i++] == '-';
    int base = 10;
    if (i < s.size() && s[i] == '$') {
        base = 16, ++i;
    } else if (i + 1 < s.size() && s[i] == '0' && (s[i + 1] == 'x' || s[i + 1] == 'X')) {
        base = 16, i += 2;
    } else if (i < s.size() && (s[i] == 'x' || s[i] == 'X')) {
        base = 16, ++i;
    }
    if (i >= s.size()) return false;
    uint64_t magnitude = 0;
    const char* first = s.data() + i;
    const char* last = s.data() + s.size();
    auto r = std::from_chars(first, last, magnitude, base);
    if (r.ec != std::errc() || r.ptr != last) return false;
    if (base == 16) {
        // Hexadecimal texts are bit patterns: "$FFFFFFFFFFFFFFFF" is -1.
        out = negative ? -static_cast<int64_t>(magnitude) : static_cast<int64_t>(magnitude);
        return true;
    }
    return SignedMagnitude(magnitude, negative, out);
}

bool TryStrToInt(std::string_view s, int& out) {
    int64_t v;
    if (!TryStrToInt64(s, v)) return false;
    if (v < INT32_MIN || v > INT32_MAX) {
        // A hexadecimal text of eight digits is a 32-bit pattern.
        if (v > INT32_MAX && v <= static_cast<int64_t>(UINT32_MAX) &&
            s.find_first_of("$xX") != std::string_view::npos) {
            out = static_cast<int>(static_cast<uint32_t>(v));
            return true;
        }
        return false;
    }
    out = static_cast<int>(v);
    return true;
}

int64_t StrToInt64(std::string_view s) {
    int64_t v;
    if (!TryStrToInt64(s, v)) throw EConvertError("'" + std::string(s) + "' is not a valid integer value");
    return v;
}

int StrToInt(std::string_view s) {
    int v;
    if (!TryStrToInt(s, v)) throw EConvertError("'" + std::string(s) + "' is not a valid integer value");
    return v;
}

int StrToIntDef(std::string_view s, int fallback) {
    int v;
    return TryStrToInt(s, v) ? v : fallback;
}

namespace {

// Validates a float text and writes it with "." as the decimal point into `out` (which needs room for
// s.size() + 1 characters); returns the written length, or 0 when the text is not a float.
size_t NormalizeFloat(std::string_view s, const char* decimal, size_t decimalLen, char* out) {
    size_t n = 0, i = 0;
    const size_t len = s.size();
    while (i < len && s[i] == ' ') ++i;
    if (i < len && s[i] == '-') out[n++] = '-';
    if (i < len && (s[i] == '-' || s[i] == '+')) ++i;
    size_t digits = 0;
    bool point = false;
    while (i < len) {
        char c = s[i];
        if (c >= '0' && c <= '9') {
            out[n++] = c;
            ++digits, ++i;
        } else if (!point && decimalLen && len - i >= decimalLen &&
                   std::memcmp(s.data() + i, decimal, decimalLen) == 0) {
            out[n++] = '.';
            point = true;
            i += decimalLen;
        } else {
            break;
        }
    }
    if (digits == 0) return 0;
    if (i < len && (s[i] == 'e' || s[i] == 'E')) {
        out[n++] = 'e';
        ++i;
        if (i < len && (s[i] == '-' || s[i] == '+')) out[n++] = s[i++];
        size_t expDigits = 0;
        while (i < len && s[i] >= '0' && s[i] <= '9') out[n++] = s[i++], ++expDigits;
        if (expDigits == 0) return 0;
    }
    while (i < len && s[i] == ' ') ++i;
    return i == len ? n : 0;
}

} // namespace

namespace {

// Exact powers of ten: a decimal of at most 15 digits divided by one of them is correctly rounded.
constexpr double kPowersOfTen[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,  1e8,  1e9,  1e10, 1e11,
                                   1e12, 1e13, 1e14, 1e15, 1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};

// The common case read directly: optional blanks and sign, at most 15 digits with an ASCII decimal
// separator, no exponent; a `thousand` separator (when not 0) between the digits before the decimal is
// skipped. False when the text needs the general reading.
bool TryPlainDecimal(std::string_view s, char decimal, double& out, char thousand = 0) {
    size_t i = 0, n = s.size();
    while (i < n && s[i] == ' ') ++i;
    while (n > i && s[n - 1] == ' ') --n;
    bool negative = false;
    if (i < n && (s[i] == '-' || s[i] == '+')) negative = s[i++] == '-';
    uint64_t mantissa = 0;
    int digits = 0, decimals = 0;
    bool point = false;
    for (; i < n; ++i) {
        const char c = s[i];
        if (c >= '0' && c <= '9') {
            if (++digits > 15) return false;
            mantissa = mantissa * 10 + static_cast<uint64_t>(c - '0');
            if (point) ++decimals;
        } else if (c == decimal && !point) {
            point = true;
        } else if (thousand && c == thousand && !point && digits > 0) {
            continue;
        } else {
            return false;
        }
    }
    if (digits == 0) return false;
    const double value = static_cast<double>(mantissa) / kPowersOfTen[decimals];
    out = negative ? -value : value;
    return true;
}

} // namespace

bool TryStrToFloat(std::string_view s, double& out, const TFormatSettings& fs) {
    if (fs.DecimalSeparator > 0 && fs.DecimalSeparator < 0x80 &&
        TryPlainDecimal(s, static_cast<char>(fs.DecimalSeparator), out))
        return true;
    char decimal[4] = {'.'};
    size_t decimalLen = 1;
    if (fs.DecimalSeparator >= 0x80) {
        std::string enc = Utf8Encode(fs.DecimalSeparator);
        decimalLen = enc.size();
        std::memcpy(decimal, enc.data(), decimalLen);
    } else {
        decimal[0] = static_cast<char>(fs.DecimalSeparator);
        decimalLen = fs.DecimalSeparator ? 1 : 0;
    }
    char small[64];
    std::string large;
    char* buffer = small;
    if (s.size() + 1 > sizeof small) {
        large.resize(s.size() + 1);
        buffer = large.data();
    }
    const size_t n = NormalizeFloat(s, decimal, decimalLen, buffer);
    if (n == 0) return false;
    const std::string_view text(buffer, n);
    double value;
    auto r = std::from_chars(text.data(), text.data() + n, value);
    if (r.ec == std::errc::result_out_of_range) {
        // Underflow reads as zero. Overflow is no number at all, unless the text is the largest double
        // written with fewer digits (as FloatToStr writes it) and rounded up past it.
        if (text.find("e-") == std::string_view::npos) {
            long double wide;
            const auto w = std::from_chars(text.data(), text.data() + n, wide);
            const long double largest = std::numeric_limits<double>::max();
            if (w.ec != std::errc() || std::fabs(wide) > largest * (1 + 1e-14L)) return false;
            out = wide < 0 ? -std::numeric_limits<double>::max() : std::numeric_limits<double>::max();
            return true;
        }
        out = text[0] == '-' ? -0.0 : 0.0;
        return true;
    }
    if (r.ec != std::errc() || r.ptr != text.data() + n) return false;
    out = value;
    return true;
}

double StrToFloat(std::string_view s, const TFormatSettings& fs) {
    double v;
    if (!TryStrToFloat(s, v, fs))
        throw EConvertError("'" + std::string(s) + "' is not a valid floating point value");
    return v;
}

namespace {

// A decimal text as TryReadDecimal* take it apart: the digits on either side of the point, the exponent.
struct DecimalNumber {
    bool Negative = false;
    std::string_view Whole, Fraction, Plain; ///< Plain: sign, digits, "." and exponent, nothing else
    int64_t Exponent = 0;
};

// Writes `s` without grouping and currency, with "." for the decimal separator, into `buffer` (room for
// s.size() bytes) and takes it apart. A "." that is not the decimal separator becomes a character no
// number has, so that it cannot pass for one.
bool SplitDecimal(std::string_view s, const TDecimalText& format, char* buffer, DecimalNumber& number) {
    char decimal[4] = {}, thousand[4] = {};
    const size_t decimalLen = format.DecimalSeparator ? Utf8EncodeTo(format.DecimalSeparator, decimal) : 0;
    size_t thousandLen = format.ThousandSeparator ? Utf8EncodeTo(format.ThousandSeparator, thousand) : 0;
    if (thousandLen == decimalLen && std::memcmp(thousand, decimal, decimalLen) == 0) {
        thousandLen = 0;
        thousand[0] = 0;
    }
    s = TrimView(s);
    const size_t currency =
        format.CurrencyString.empty() ? std::string_view::npos : s.find(format.CurrencyString);
    // Separators are compared by their first byte before the rest: this runs for every source value.
    const auto at = [&](size_t i, const char* what, size_t len) {
        return len && s[i] == what[0] && (len == 1 || s.compare(i, len, what, len) == 0);
    };
    size_t n = 0;
    for (size_t i = 0; i < s.size();) {
        const char c = s[i];
        if (i == currency) {
            i += format.CurrencyString.size();
        } else if (c >= '0' && c <= '9' && c != thousand[0] && c != decimal[0]) {
            buffer[n++] = c;
            ++i;
        } else if (at(i, thousand, thousandLen)) {
            i += thousandLen;
        } else if (at(i, decimal, decimalLen)) {
            buffer[n++] = '.';
            i += decimalLen;
        } else {
            buffer[n++] = c == '.' ? '#' : c;
            ++i;
        }
    }
    std::string_view t = TrimView(std::string_view(buffer, n));
    number.Plain = t;
    size_t i = 0;
    if (i < t.size() && (t[i] == '-' || t[i] == '+')) number.Negative = t[i++] == '-';
    const size_t wholeStart = i;
    while (i < t.size() && t[i] >= '0' && t[i] <= '9') ++i;
    number.Whole = t.substr(wholeStart, i - wholeStart);
    if (i < t.size() && t[i] == '.') {
        const size_t fractionStart = ++i;
        while (i < t.size() && t[i] >= '0' && t[i] <= '9') ++i;
        number.Fraction = t.substr(fractionStart, i - fractionStart);
    }
    if (number.Whole.empty() && number.Fraction.empty()) return false;
    if (i < t.size() && (t[i] == 'e' || t[i] == 'E')) {
        bool negative = false;
        if (++i < t.size() && (t[i] == '-' || t[i] == '+')) negative = t[i++] == '-';
        const size_t exponentStart = i;
        for (; i < t.size() && t[i] >= '0' && t[i] <= '9'; ++i)
            if (number.Exponent < 100000) number.Exponent = number.Exponent * 10 + (t[i] - '0');
        if (i == exponentStart) return false;
        if (negative) number.Exponent = -number.Exponent;
    }
    return i == t.size();
}

// A buffer on the stack for the texts numbers usually are, on the heap for longer ones.
class DecimalBuffer {
public:
    explicit DecimalBuffer(size_t size) {
        if (size > sizeof small_) large_.resize(size);
    }
    char* Data() { return large_.empty() ? small_ : large_.data(); }

private:
    char small_[64];
    std::string large_;
};

} // namespace

namespace {

// Blanks, an optional sign and up to 18 digits: most integer texts, read without rewriting them.
bool TryPlainInt64(std::string_view s, int64_t& out) {
    s = TrimView(s);
    size_t i = 0;
    const bool negative = !s.empty() && s[0] == '-';
    if (negative || (!s.empty() && s[0] == '+')) ++i;
    if (i == s.size() || s.size() - i > 18) return false;
    int64_t value = 0;
    for (; i < s.size(); ++i) {
        if (s[i] < '0' || s[i] > '9') return false;
        value = value * 10 + (s[i] - '0');
    }
    out = negative ? -value : value;
    return true;
}

} // namespace

bool TryReadDecimalInt64(std::string_view s, int64_t& out, const TDecimalText& format) {
    if (TryPlainInt64(s, out)) return true;
    DecimalBuffer buffer(s.size());
    DecimalNumber number;
    if (!SplitDecimal(s, format, buffer.Data(), number)) return false;
    // The value is digits * 10^scale, the digits being the whole and the fraction digits together.
    std::string_view whole = number.Whole, fraction = number.Fraction;
    int64_t scale = number.Exponent - static_cast<int64_t>(fraction.size());
    while (!whole.empty() && whole.front() == '0') whole.remove_prefix(1);
    if (whole.empty())
        while (!fraction.empty() && fraction.front() == '0') fraction.remove_prefix(1);
    while (scale < 0 && !fraction.empty() && fraction.back() == '0') fraction.remove_suffix(1), ++scale;
    if (fraction.empty())
        while (scale < 0 && !whole.empty() && whole.back() == '0') whole.remove_suffix(1), ++scale;
    const size_t digits = whole.size() + fraction.size();
    if (digits == 0) {
        out = 0;
        return true;
    }
    if (scale < 0 || static_cast<int64_t>(digits) + scale > 19) return false;
    uint64_t magnitude = 0;
    for (std::string_view part : {whole, fraction})
        for (char c : part) magnitude = magnitude * 10 + static_cast<uint64_t>(c - '0');
    for (int64_t k = 0; k < scale; ++k)
        if (__builtin_mul_overflow(magnitude, uint64_t{10}, &magnitude)) return false;
    return SignedMagnitude(magnitude, number.Negative, out);
}

bool TryReadDecimalFloat(std::string_view s, double& out, const TDecimalText& format) {
    static const TFormatSettings invariant = InvariantFormatSettings();
    // Digits and the decimal separator alone, the usual case, need no rewriting.
    if (format.DecimalSeparator > 0 && format.DecimalSeparator < 0x80 && format.ThousandSeparator < 0x80 &&
        TryPlainDecimal(TrimView(s), static_cast<char>(format.DecimalSeparator), out,
                        static_cast<char>(format.ThousandSeparator)))
        return true;
    DecimalBuffer buffer(s.size());
    DecimalNumber number;
    return SplitDecimal(s, format, buffer.Data(), number) && TryStrToFloat(number.Plain, out, invariant);
}

namespace {

std::string DecimalText(char32_t separator) {
    return separator < 0x80 ? std::string(1, static_cast<char>(separator)) : Utf8Encode(separator);
}

std::string GeneralFloat(double value, const std::string& decimal) {
    if (std::isnan(value)) return "NAN";
    if (std::isinf(value)) return value < 0 ? "-INF" : "INF";
    if (value == 0) return "0";
    char buffer[40];
    auto r = std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::scientific, 14);
    std::string_view text(buffer, static_cast<size_t>(r.ptr - buffer));
    bool negative = text[0] == '-';
    if (negative) text.remove_prefix(1);
    size_t e = text.find('e');
    std::string digits;
    digits += text[0];
    digits.append(text.substr(2, e - 2));
    int exponent = 0;
    std::from_chars(text.data() + e + (text[e + 1] == '+' ? 2 : 1), text.data() + text.size(), exponent);
    while (digits.size() > 1 && digits.back() == '0') digits.pop_back();

    std::string out = negative ? "-" : "";
    if (exponent >= -5 && exponent < 15) {
        if (exponent >= 0) {
            size_t intDigits = static_cast<size_t>(exponent) + 1;
            if (digits.size() <= intDigits) {
                out += digits;
                out.append(intDigits - digits.size(), '0');
            } else {
                out.append(digits, 0, intDigits);
                out += decimal;
                out.append(digits, intDigits, std::string::npos);
            }
        } else {
            out += '0';
            out += decimal;
            out.append(static_cast<size_t>(-exponent - 1), '0');
            out += digits;
        }
        return out;
    }
    out += digits[0];
    if (digits.size() > 1) {
        out += decimal;
        out.append(digits, 1, std::string::npos);
    }
    out += 'E';
    out += std::to_string(exponent);
    return out;
}

} // namespace

std::string FloatToStr(double value, const TFormatSettings& fs) {
    return GeneralFloat(value, DecimalText(fs.DecimalSeparator ? fs.DecimalSeparator : U'.'));
}

std::string FloatToStrInvariant(double value) {
    return GeneralFloat(value, ".");
}

std::string FloatToStrFixed(double value, int decimals, const TFormatSettings& fs) {
    if (!std::isfinite(value)) return GeneralFloat(value, ".");
    if (decimals < 0) decimals = 0;
    if (decimals > 18) decimals = 18;
    char buffer[400];
    auto r = std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::fixed, decimals);
    std::string s(buffer, r.ptr);
    size_t point = s.find('.');
    if (point != std::string::npos && fs.DecimalSeparator != U'.')
        s.replace(point, 1, DecimalText(fs.DecimalSeparator));
    return s;
}

std::string BoolToStr(bool value) {
    return value ? "True" : "False";
}

std::string SysErrorMessage(int errorCode) {
    char buffer[256];
    // The GNU strerror_r returns the text, which may or may not be the buffer.
    const char* text = strerror_r(errorCode, buffer, sizeof buffer);
    return text ? text : "Unknown error";
}

} // namespace kv
