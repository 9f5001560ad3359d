#pragma once
// Text and number conversions with the classic library's rules: Trim removes every control character and
// blank, integers read decimal or "$"/"0x" hexadecimal, floats read with the regional decimal separator and
// print with up to 15 significant digits.

#include "platform/FormatSettings.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace kv {

/// Removes leading and trailing characters up to and including the blank (codes 0 to 32).
std::string Trim(std::string_view s);
std::string TrimLeft(std::string_view s);
std::string TrimRight(std::string_view s);
std::string_view TrimView(std::string_view s);
std::string_view TrimLeftView(std::string_view s);
std::string_view TrimRightView(std::string_view s);

/// ASCII-only case mapping (the rest is left as it is).
std::string UpperCase(std::string_view s);
std::string LowerCase(std::string_view s);
/// Case-insensitive equality (Unicode simple case folding; ASCII fast path).
bool SameText(std::string_view a, std::string_view b);
/// The value of a hexadecimal digit (either case), -1 for any other character.
int HexDigitValue(char c);
/// Byte-wise (code point order) comparison: negative, zero or positive.
int CompareStr(std::string_view a, std::string_view b);
/// Case-insensitive comparison: negative, zero or positive.
int CompareText(std::string_view a, std::string_view b);
/// True when `s` starts with `prefix`, compared case-insensitively.
bool StartsText(std::string_view prefix, std::string_view s);

std::string IntToStr(int64_t value);
/// Upper-case hexadecimal, zero-padded to at least `digits` digits.
std::string IntToHex(uint64_t value, int digits);

/// Reads an integer: optional blanks, sign, then decimal digits or a "$", "0x" or "x" hexadecimal number.
bool TryStrToInt64(std::string_view s, int64_t& out);
bool TryStrToInt(std::string_view s, int& out);
/// As TryStrToInt64; raises EConvertError "'%s' is not a valid integer value".
int64_t StrToInt64(std::string_view s);
int StrToInt(std::string_view s);
int StrToIntDef(std::string_view s, int fallback);

/// Reads a float: optional blanks, sign, digits with at most one decimal separator (at least one digit),
/// an optional exponent "E[+-]digits", optional blanks. No grouping.
bool TryStrToFloat(std::string_view s, double& out, const TFormatSettings& fs = DefaultFormatSettings);
/// As TryStrToFloat; raises EConvertError "'%s' is not a valid floating point value".
double StrToFloat(std::string_view s, const TFormatSettings& fs = DefaultFormatSettings);

/// How a source writes its numbers, for TryReadDecimalInt64 and TryReadDecimalFloat.
struct TDecimalText {
    char32_t DecimalSeparator = U'.';
    /// Removed wherever it stands; 0 when numbers have no grouping.
    char32_t ThousandSeparator = 0;
    /// Removed once, wherever it stands; empty for none.
    std::string_view CurrencyString;
};

/// Reads a decimal number strictly: blanks around it, an optional sign, digits with at most one decimal
/// separator (at least one digit), an optional exponent "E[+-]digits"; grouping and currency as `format`
/// says. No hexadecimal, no other characters. A value that is a whole number is read exactly ("12.0",
/// "1e3"); a fraction or a whole number beyond 64 bits is no integer.
bool TryReadDecimalInt64(std::string_view s, int64_t& out, const TDecimalText& format);
/// As TryReadDecimalInt64, for a floating-point value (an overflow is no number, an underflow is 0).
bool TryReadDecimalFloat(std::string_view s, double& out, const TDecimalText& format);

/// The shortest text of `value` with up to 15 significant digits: fixed notation while the integral part
/// has at most 15 digits and the value is at least 0.00001, scientific ("1.5E20", "1E-7") otherwise.
std::string FloatToStr(double value, const TFormatSettings& fs = DefaultFormatSettings);
/// `value` in fixed notation with exactly `decimals` decimals (no grouping).
std::string FloatToStrFixed(double value, int decimals, const TFormatSettings& fs = DefaultFormatSettings);
/// FloatToStr with "." as the decimal separator, whatever the regional settings say (for SQL and files).
std::string FloatToStrInvariant(double value);

/// "True" or "False".
std::string BoolToStr(bool value);

/// Text of a system error number (strerror).
std::string SysErrorMessage(int errorCode);

} // namespace kv
