// Fuzz target: the number readers. The first byte picks the decimal and thousand separators and the
// currency, the next eight an integer (and a double of the same bits), the rest is text. An integer the
// strict reader takes is the float it reads too; what the regional float reader takes, the strict one
// and StringIsNumeric take as well; digits alone read as std::from_chars reads them, whatever the
// separators; integers and doubles written out read back.

#include "expression/KvIPars.h"
#include "platform/FormatSettings.h"
#include "platform/SysUtils.h"
#include "platform/Utf8.h"

#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

namespace {

// The line of a failed check goes with the crash report.
void Check(bool condition, int line = __builtin_LINE()) {
    if (condition) return;
    std::fprintf(stderr, "check failed at line %d\n", line);
    std::abort();
}

constexpr double kTwo53 = 9007199254740992.0;

// `digits` (an optional "-", then digits) with `separator` every three digits from the right.
std::string Grouped(const std::string& digits, const std::string& separator) {
    const size_t first = digits[0] == '-' ? 1 : 0;
    std::string out = digits.substr(0, first);
    for (size_t i = first; i < digits.size(); ++i) {
        if (i > first && (digits.size() - i) % 3 == 0) out += separator;
        out += digits[i];
    }
    return out;
}

std::string Replaced(std::string text, char what, const std::string& by) {
    const size_t p = text.find(what);
    if (p != std::string::npos) text.replace(p, 1, by);
    return text;
}

} // namespace

// StringIsNumeric reads by the process-wide settings: set their separator for one check.
struct DecimalSeparator {
    explicit DecimalSeparator(char32_t separator) : saved(kv::DefaultFormatSettings.DecimalSeparator) {
        kv::DefaultFormatSettings.DecimalSeparator = separator;
    }
    ~DecimalSeparator() { kv::DefaultFormatSettings.DecimalSeparator = saved; }
    char32_t saved;
};

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 9 || size > 4096) return 0;
    static const char32_t decimals[] = {U'.', U',', U'\u066B', U'\'', U'\u00B7', 0, U'.', U','};
    static const char32_t thousands[] = {0, U',', U'.', U' ', U'\u00A0', U'\'', U'\u202F', U'_'};
    static const char* const currencies[] = {"", "$", "\xE2\x82\xAC", "EUR"};
    kv::TDecimalText format;
    format.DecimalSeparator = decimals[data[0] & 7];
    format.ThousandSeparator = thousands[(data[0] >> 3) & 7];
    format.CurrencyString = currencies[data[0] >> 6];
    kv::TFormatSettings fs = kv::InvariantFormatSettings();
    fs.DecimalSeparator = format.DecimalSeparator;
    const std::string decimal = format.DecimalSeparator ? kv::Utf8Encode(format.DecimalSeparator) : "";
    const std::string thousand = format.ThousandSeparator ? kv::Utf8Encode(format.ThousandSeparator) : "";
    int64_t bits;
    std::memcpy(&bits, data + 1, sizeof bits);
    const std::string_view text(reinterpret_cast<const char*>(data) + 9, size - 9);

    // Any text.
    int64_t integer = 0;
    double number = 0, strict = 0;
    const bool isInteger = kv::TryReadDecimalInt64(text, integer, format);
    const bool isNumber = kv::TryReadDecimalFloat(text, number, format);
    if (isInteger) {
        Check(isNumber);
        const double whole = static_cast<double>(integer);
        if (std::fabs(whole) < kTwo53)
            Check(number == whole);
        else
            Check(std::fabs(number - whole) <= std::fabs(whole) * 0x1p-52);
    }
    if (kv::TryStrToFloat(text, number, fs)) {
        kv::TDecimalText plain;
        plain.DecimalSeparator = format.DecimalSeparator;
        Check(kv::TryReadDecimalFloat(text, strict, plain) && strict == number);
        const DecimalSeparator swap(fs.DecimalSeparator);
        Check(kv::StringIsNumeric(text));
    }
    if (format.DecimalSeparator == U'.') {
        const DecimalSeparator swap(U'.');
        Check(kv::StringIsNumeric(text) == kv::TryStrToFloat(text, number, fs));
    }

    // Digits from the text, with a sign and a point placed by the integer's bits.
    std::string digits = bits & 1 ? "-" : "";
    for (size_t i = 0; i < text.size() && i < 40; ++i) digits += static_cast<char>('0' + data[9 + i] % 10);
    int64_t expectedInteger = 0, readInteger = 0;
    const auto intResult = std::from_chars(digits.data(), digits.data() + digits.size(), expectedInteger);
    const bool fits = intResult.ec == std::errc() && intResult.ptr == digits.data() + digits.size();
    Check(kv::TryStrToInt64(digits, readInteger) == fits && (!fits || readInteger == expectedInteger));
    Check(kv::TryReadDecimalInt64(digits, readInteger, format) == fits &&
          (!fits || readInteger == expectedInteger));
    if (!digits.empty() && (bits & 2)) {
        const size_t at = (static_cast<uint64_t>(bits) >> 8) % (digits.size() + 1);
        if (at > 0 || digits[0] != '-') digits.insert(at, ".");
    }
    double expected = 0;
    const auto floatResult = std::from_chars(digits.data(), digits.data() + digits.size(), expected);
    if (floatResult.ec == std::errc() && floatResult.ptr == digits.data() + digits.size() &&
        format.DecimalSeparator != 0) {
        const std::string regional = Replaced(digits, '.', decimal);
        Check(kv::TryStrToFloat(regional, number, fs) && number == expected);
        Check(kv::TryReadDecimalFloat(regional, number, format) && number == expected);
    } else if (floatResult.ec == std::errc::invalid_argument) {
        Check(!kv::TryStrToFloat(digits, number, fs));
    }

    // An integer written out, grouped and with the currency too.
    const std::string written = kv::IntToStr(bits);
    Check(kv::TryStrToInt64(written, readInteger) && readInteger == bits);
    Check(kv::TryReadDecimalInt64(written, readInteger, format) && readInteger == bits);
    Check(kv::TryReadDecimalFloat(written, number, format) && number == static_cast<double>(bits));
    if (!thousand.empty() && thousand != decimal) {
        const std::string grouped = std::string(format.CurrencyString) + Grouped(written, thousand);
        Check(kv::TryReadDecimalInt64(grouped, readInteger, format) && readInteger == bits);
        Check(kv::TryReadDecimalFloat(grouped, number, format) && number == static_cast<double>(bits));
    }

    // A double written with 15 significant digits reads back within their precision.
    double value;
    std::memcpy(&value, &bits, sizeof value);
    if (std::isfinite(value) && format.DecimalSeparator != 0) {
        const std::string shown = kv::FloatToStr(value, fs);
        Check(kv::TryStrToFloat(shown, number, fs));
        Check(std::fabs(number - value) <= std::fabs(value) * 1e-14 || std::fabs(number - value) < 1e-300);
    }
    return 0;
}
