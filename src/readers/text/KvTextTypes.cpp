#include "readers/text/KvTextTypes.h"

#include "platform/DateUtils.h"
#include "platform/SysUtils.h"
#include "platform/Utf8.h"

#include <algorithm>
#include <charconv>

namespace kv {

namespace {

bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

bool Take(std::string_view s, size_t& i, std::string_view what) {
    if (what.empty() || s.compare(i, what.size(), what) != 0) return false;
    i += what.size();
    return true;
}

// Up to `maxDigits` digits from `i`; how many were read.
size_t Digits(std::string_view s, size_t& i, size_t maxDigits, int& value) {
    size_t n = 0;
    value = 0;
    while (i < s.size() && IsDigit(s[i]) && n < maxDigits) value = value * 10 + (s[i++] - '0'), ++n;
    return n;
}

// Digits a double holds exactly, whatever they are.
constexpr size_t kExactDigits = 15;

// A value written the way identifiers, postal codes and phone numbers are: a leading "+", or a zero
// followed by another digit. As a number it would lose its zeros or its plus.
bool LooksLikeCode(std::string_view s) {
    if (!s.empty() && s[0] == '+') return true;
    if (!s.empty() && s[0] == '-') s.remove_prefix(1);
    return s.size() >= 2 && s[0] == '0' && IsDigit(s[1]);
}

// Optional sign and digits only.
bool IsDigitString(std::string_view s) {
    if (!s.empty() && (s[0] == '+' || s[0] == '-')) s.remove_prefix(1);
    return !s.empty() && std::all_of(s.begin(), s.end(), IsDigit);
}

// Digits from the first non-zero one to the last of the mantissa (before any exponent).
size_t SignificantDigits(std::string_view s) {
    size_t first = std::string_view::npos, last = 0, index = 0;
    for (char c : s) {
        if (c == 'e' || c == 'E') break;
        if (!IsDigit(c)) continue;
        if (c != '0') {
            if (first == std::string_view::npos) first = index;
            last = index;
        }
        ++index;
    }
    return first == std::string_view::npos ? 0 : last - first + 1;
}

} // namespace

TKvTextDateOrder TextDateOrderOf(std::string_view pattern) {
    for (char c : pattern) {
        switch (c) {
        case 'd':
        case 'D':
            return tdoDMY;
        case 'm':
        case 'M':
            return tdoMDY;
        case 'y':
        case 'Y':
            return tdoYMD;
        default:
            break;
        }
    }
    return tdoYMD;
}

TKvTextTypeGuesser::TKvTextTypeGuesser(const TKvTextTypeOptions& options) : options_(options) {
    if (options_.DecimalSeparator) decimal_ = Utf8Encode(options_.DecimalSeparator);
    if (options_.ThousandSeparator && options_.ThousandSeparator != options_.DecimalSeparator)
        thousand_ = Utf8Encode(options_.ThousandSeparator);
    if (options_.TimeSeparator && options_.TimeSeparator != U':') time_ = Utf8Encode(options_.TimeSeparator);
}

void TKvTextTypeGuesser::EnsureColumns(size_t count) {
    if (columns_.size() < count) columns_.resize(count);
}

bool TKvTextTypeGuesser::IsInteger(std::string_view value) const {
    std::string_view s = TrimView(value);
    if (!s.empty() && s[0] == '+') s.remove_prefix(1);
    if (s.empty() || s == "-") return false;
    int64_t v;
    const auto r = std::from_chars(s.data(), s.data() + s.size(), v);
    return r.ec == std::errc() && r.ptr == s.data() + s.size();
}

bool TKvTextTypeGuesser::IsFloat(std::string_view value, bool groupingAllowed) const {
    const std::string_view s = TrimView(value);
    size_t i = 0;
    if (i < s.size() && (s[i] == '+' || s[i] == '-')) ++i;
    size_t digits = 0, group = 0;
    bool grouped = false;
    for (;;) {
        if (i < s.size() && IsDigit(s[i])) {
            ++i, ++digits, ++group;
        } else if (groupingAllowed && group > 0 && group <= 3 && (!grouped || group == 3) &&
                   Take(s, i, thousand_)) {
            grouped = true;
            group = 0;
        } else {
            break;
        }
    }
    if (grouped && group != 3) return false; // "1,23" is no number
    if (Take(s, i, decimal_))
        while (i < s.size() && IsDigit(s[i])) ++i, ++digits;
    if (digits == 0) return false;
    if (i < s.size() && (s[i] == 'e' || s[i] == 'E')) {
        ++i;
        if (i < s.size() && (s[i] == '+' || s[i] == '-')) ++i;
        size_t exponent = 0;
        while (i < s.size() && IsDigit(s[i])) ++i, ++exponent;
        if (exponent == 0) return false;
    }
    return i == s.size();
}

bool TKvTextTypeGuesser::IsBoolean(std::string_view value) const {
    const std::string_view s = TrimView(value);
    // Only what an import reads as a boolean: "yes" in a boolean column would stay the text it is.
    for (std::string_view word : {std::string_view(options_.TrueText), std::string_view(options_.FalseText),
                                  std::string_view("true"), std::string_view("false")})
        if (!word.empty() && SameText(s, word)) return true;
    return false;
}

bool TKvTextTypeGuesser::IsDateTime(std::string_view value) const {
    const std::string_view s = TrimView(value);
    size_t i = 0;
    int parts[3];
    size_t lengths[3];
    std::string_view separator;
    for (int k = 0; k < 3; ++k) {
        if (k > 0) {
            if (separator.empty()) {
                // The first separator must be one of the allowed characters; the second repeats it.
                if (i >= s.size()) return false;
                size_t next = i;
                Utf8Decode(s, next);
                separator = s.substr(i, next - i);
                if (options_.DateSeparators.find(separator) == std::string::npos) return false;
                i = next;
            } else if (!Take(s, i, separator)) {
                return false;
            }
        }
        lengths[k] = Digits(s, i, 4, parts[k]);
        if (lengths[k] == 0) return false;
    }
    // A first part of more than two digits is a year, whatever the order.
    int y = 0, m = 1, d = 2;
    if (lengths[0] <= 2 && options_.DateOrder == tdoDMY)
        d = 0, m = 1, y = 2;
    else if (lengths[0] <= 2 && options_.DateOrder == tdoMDY)
        m = 0, d = 1, y = 2;
    if ((lengths[y] != 2 && lengths[y] != 4) || lengths[m] > 2 || lengths[d] > 2) return false;
    const int year = lengths[y] == 2 ? ExpandTwoDigitYear(parts[y]) : parts[y];
    TDateTime date;
    if (!TryEncodeDate(year, parts[m], parts[d], date)) return false;
    if (i == s.size()) return true;
    if (s[i] != ' ' && s[i] != 'T') return false;
    return IsTime(TrimView(s.substr(i + 1)));
}

// h:nn[:ss[.zzz]] with an optional AM/PM, or with a zone: "Z", +hh, +hhmm or +hh:mm (or "-").
bool TKvTextTypeGuesser::IsTime(std::string_view s) const {
    size_t i = 0;
    int hour, minute, second = 0, unused;
    const auto separator = [&] { return Take(s, i, ":") || Take(s, i, time_); };
    if (Digits(s, i, 2, hour) == 0 || !separator() || Digits(s, i, 2, minute) != 2) return false;
    if (separator()) {
        if (Digits(s, i, 2, second) != 2) return false;
        if (Take(s, i, ".") || Take(s, i, ",")) {
            if (Digits(s, i, 9, unused) == 0) return false;
        }
    }
    while (i < s.size() && s[i] == ' ') ++i;
    bool twelveHour = false;
    const std::string_view rest = s.substr(i);
    if (SameText(rest, "AM") || SameText(rest, "PM")) {
        twelveHour = true;
        i = s.size();
    } else if (rest == "Z") {
        i = s.size();
    } else if (!rest.empty() && (rest[0] == '+' || rest[0] == '-')) {
        int zoneHour, zoneMinute = 0;
        ++i;
        if (Digits(s, i, 2, zoneHour) != 2 || zoneHour > 14) return false;
        if (i < s.size()) {
            Take(s, i, ":");
            if (Digits(s, i, 2, zoneMinute) != 2 || zoneMinute > 59) return false;
        }
    }
    if (i != s.size()) return false;
    if (twelveHour ? (hour < 1 || hour > 12) : hour > 23) return false;
    return minute <= 59 && second <= 59;
}

void TKvTextTypeGuesser::Add(size_t column, std::string_view value, bool groupingAllowed) {
    EnsureColumns(column + 1);
    TColumn& c = columns_[column];
    c.Type.MaxLength = std::max(c.Type.MaxLength, static_cast<int64_t>(Utf8Length(value)));
    const std::string_view s = TrimView(value);
    if (s.empty()) return;
    ++c.Type.Values;
    if (LooksLikeCode(s)) c.CanInteger = c.CanFloat = false;
    const bool integer = (c.CanInteger || c.CanFloat) && IsInteger(s);
    c.CanInteger = c.CanInteger && integer;
    // A number the destination could only round is kept as the text it is: an integer beyond 64 bits, or
    // more digits than a double holds (a float column would round the long integers of the column too).
    if (c.CanFloat && ((!integer && IsDigitString(s)) || SignificantDigits(s) > kExactDigits))
        c.CanFloat = false;
    c.CanFloat = c.CanFloat && (integer || IsFloat(s, groupingAllowed));
    c.CanBoolean = c.CanBoolean && IsBoolean(s);
    c.CanDate = c.CanDate && IsDateTime(s);
    // A date-time holds a blank or "T" before its time; a date alone has neither.
    if (c.CanDate && s.find_first_of(" T") != std::string_view::npos) c.Type.HasTime = true;
}

std::vector<TKvTextColumnType> TKvTextTypeGuesser::Columns() const {
    std::vector<TKvTextColumnType> out;
    out.reserve(columns_.size());
    for (const TColumn& c : columns_) {
        TKvTextColumnType t = c.Type;
        t.Kind = t.Values == 0  ? tckString
                 : c.CanInteger ? tckInteger
                 : c.CanFloat   ? tckFloat
                 : c.CanBoolean ? tckBoolean
                 : c.CanDate    ? tckDateTime
                                : tckString;
        out.push_back(t);
    }
    return out;
}

std::vector<TKvTextColumnType> GuessTextColumnTypes(TKvTextFile& file, const TKvTextFields& format,
                                                    const TKvTextTypeOptions& options,
                                                    const std::vector<std::string>& references) {
    TKvTextTypeGuesser guesser(options);
    TKvTextFields fields = format;
    const int64_t headerRecord = file.HasHeader() ? file.Settings().RowFieldNames : 0;
    if (references.empty() && file.HasHeader()) {
        fields.SetLine(file.HeaderLine());
        guesser.EnsureColumns(static_cast<size_t>(fields.Count()));
    }
    guesser.EnsureColumns(references.size());
    std::vector<TKvTextRef> refs;
    for (const std::string& r : references) refs.push_back(fields.ParseReference(r));
    // A thousand separator that is also the delimiter can only stand inside a qualified value.
    const bool groupingClashes = !format.FixedWidth() && options.ThousandSeparator == format.Delimiter();
    const int64_t limit = options.MaxScanRows == 0  ? KvTextDefaultScanRows
                          : options.MaxScanRows < 0 ? INT64_MAX
                                                    : options.MaxScanRows;
    std::string value;
    int64_t scanned = 0;
    for (int64_t row = 0; scanned < limit && file.HasRow(row); ++row) {
        if (headerRecord && file.LineNumber(row) == headerRecord) continue;
        ++scanned;
        fields.SetLine(file.Row(row));
        if (refs.empty()) {
            for (int i = 1; i <= fields.Count(); ++i) {
                fields.FieldValue(i, value);
                guesser.Add(static_cast<size_t>(i - 1), value, !groupingClashes || fields.Qualified(i));
            }
        } else {
            for (size_t i = 0; i < refs.size(); ++i) {
                fields.GetValue(refs[i], value);
                guesser.Add(i, value, !groupingClashes);
            }
        }
    }
    return guesser.Columns();
}

} // namespace kv
