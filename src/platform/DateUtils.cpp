#include "platform/DateUtils.h"

#include "platform/Exceptions.h"
#include "platform/SysUtils.h"
#include "platform/Utf8.h"

#include <cmath>
#include <ctime>

namespace kv {

namespace {

// Days from 1970-01-01 to a civil date (proleptic Gregorian), and back.
int64_t DaysFromCivil(int64_t y, unsigned m, unsigned d) {
    y -= m <= 2;
    const int64_t era = (y >= 0 ? y : y - 399) / 400;
    const unsigned yoe = static_cast<unsigned>(y - era * 400);
    const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + static_cast<int64_t>(doe) - 719468;
}

void CivilFromDays(int64_t z, int& year, int& month, int& day) {
    z += 719468;
    const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    const unsigned doe = static_cast<unsigned>(z - era * 146097);
    const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const int64_t y = static_cast<int64_t>(yoe) + era * 400;
    const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const unsigned mp = (5 * doy + 2) / 153;
    day = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
    month = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
    year = static_cast<int>(y + (month <= 2));
}

constexpr int64_t kDaysFrom1970To1899 = 25569; // 1899-12-30 is 25569 days before 1970-01-01
constexpr double kMinDateTime = -693593;       // 0001-01-01
constexpr double kMaxDateTime = 2958466;       // 10000-01-01

// Whole days and milliseconds of the day, the time of day rounded to the millisecond.
bool SplitDateTime(TDateTime value, int64_t& days, int64_t& msecs) {
    // The first day's times lie between it and the day before: its whole days are what is checked.
    if (!std::isfinite(value) || std::trunc(value) < kMinDateTime || value >= kMaxDateTime) return false;
    days = static_cast<int64_t>(std::trunc(value));
    msecs = std::llround(std::fabs(value - static_cast<double>(days)) * static_cast<double>(MSecsPerDay));
    if (msecs >= MSecsPerDay) {
        msecs -= MSecsPerDay;
        ++days;
    }
    return true;
}

std::string PadN(int v, size_t n) {
    std::string digits = std::to_string(v);
    std::string s;
    if (digits.size() < n) s.assign(n - digits.size(), '0');
    s += digits;
    return s;
}

std::string Pad2(int v) {
    return PadN(v, 2);
}

} // namespace

bool IsLeapYear(int year) {
    return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
}

int DaysInMonth(int year, int month) {
    static const int days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (month < 1 || month > 12) return 0;
    return month == 2 && IsLeapYear(year) ? 29 : days[month - 1];
}

bool TryEncodeDate(int year, int month, int day, TDateTime& out) {
    if (year < 1 || year > 9999 || month < 1 || month > 12 || day < 1 || day > DaysInMonth(year, month))
        return false;
    out = static_cast<double>(DaysFromCivil(year, static_cast<unsigned>(month), static_cast<unsigned>(day)) +
                              kDaysFrom1970To1899);
    return true;
}

TDateTime EncodeDate(int year, int month, int day) {
    TDateTime d;
    if (!TryEncodeDate(year, month, day, d)) throw EConvertError("Invalid argument to date encode");
    return d;
}

bool TryEncodeTime(int hour, int minute, int second, int msec, TDateTime& out) {
    if (hour < 0 || minute < 0 || minute > 59 || second < 0 || second > 59 || msec < 0 || msec > 999)
        return false;
    if (hour > 24 || (hour == 24 && (minute || second || msec))) return false;
    out = (hour * 3600000.0 + minute * 60000.0 + second * 1000.0 + msec) / static_cast<double>(MSecsPerDay);
    return true;
}

TDateTime EncodeTime(int hour, int minute, int second, int msec) {
    TDateTime t;
    if (!TryEncodeTime(hour, minute, second, msec, t)) throw EConvertError("Invalid argument to time encode");
    return t;
}

TDateTime EncodeDateTime(int year, int month, int day, int hour, int minute, int second, int msec) {
    TDateTime d = EncodeDate(year, month, day);
    TDateTime t = EncodeTime(hour, minute, second, msec);
    return d >= 0 ? d + t : d - t;
}

TDateTimeParts DecodeDateTime(TDateTime value) {
    TDateTimeParts p;
    int64_t days, msecs;
    if (!SplitDateTime(value, days, msecs)) return p;
    CivilFromDays(days - kDaysFrom1970To1899, p.Year, p.Month, p.Day);
    if (p.Year < 1 || p.Year > 9999) return TDateTimeParts{};
    p.Hour = static_cast<int>(msecs / 3600000);
    p.Minute = static_cast<int>(msecs / 60000 % 60);
    p.Second = static_cast<int>(msecs / 1000 % 60);
    p.MSec = static_cast<int>(msecs % 1000);
    return p;
}

void DecodeDate(TDateTime value, int& year, int& month, int& day) {
    TDateTimeParts p = DecodeDateTime(value);
    year = p.Year, month = p.Month, day = p.Day;
}

void DecodeTime(TDateTime value, int& hour, int& minute, int& second, int& msec) {
    TDateTimeParts p = DecodeDateTime(value);
    hour = p.Hour, minute = p.Minute, second = p.Second, msec = p.MSec;
}

int DayOfWeek(TDateTime value) {
    TTimeStamp stamp = DateTimeToTimeStamp(value);
    return stamp.Date % 7 + 1;
}

TDateTime Now() {
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    tm local{};
    localtime_r(&ts.tv_sec, &local);
    TDateTime d = 0, t = 0;
    TryEncodeDate(local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, d);
    TryEncodeTime(local.tm_hour, local.tm_min, local.tm_sec > 59 ? 59 : local.tm_sec,
                  static_cast<int>(ts.tv_nsec / 1000000), t);
    return d + t;
}

TDateTime Date() {
    return std::trunc(Now());
}
TDateTime Time() {
    TDateTime n = Now();
    return n - std::trunc(n);
}

TTimeStamp DateTimeToTimeStamp(TDateTime value) {
    TTimeStamp stamp;
    int64_t days, msecs;
    if (!SplitDateTime(value, days, msecs)) return stamp;
    stamp.Date = static_cast<int>(days + DateDelta);
    stamp.Time = static_cast<int>(msecs);
    return stamp;
}

TDateTime TimeStampToDateTime(const TTimeStamp& stamp) {
    double days = static_cast<double>(stamp.Date - DateDelta);
    double time = static_cast<double>(stamp.Time) / static_cast<double>(MSecsPerDay);
    return days >= 0 ? days + time : days - time;
}

TTimeStamp MSecsToTimeStamp(int64_t msecs) {
    TTimeStamp stamp;
    stamp.Date = static_cast<int>(msecs / MSecsPerDay);
    stamp.Time = static_cast<int>(msecs % MSecsPerDay);
    return stamp;
}

int64_t TimeStampToMSecs(const TTimeStamp& stamp) {
    return static_cast<int64_t>(stamp.Date) * MSecsPerDay + stamp.Time;
}

int ExpandTwoDigitYear(int year, const TFormatSettings& fs) {
    int current = DecodeDateTime(Now()).Year;
    int pivot = current - fs.TwoDigitYearCenturyWindow;
    year += pivot / 100 * 100;
    if (fs.TwoDigitYearCenturyWindow > 0 && year < pivot) year += 100;
    return year;
}

// ---- formatting ----

namespace {

bool HasAmPmAhead(std::string_view pattern, size_t from) {
    char quote = 0;
    for (size_t i = from; i < pattern.size(); ++i) {
        char c = pattern[i];
        if (quote) {
            if (c == quote) quote = 0;
            continue;
        }
        if (c == '"' || c == '\'') {
            quote = c;
            continue;
        }
        if (c == 'a' || c == 'A') {
            std::string_view rest = pattern.substr(i);
            if (StartsText("am/pm", rest) || StartsText("a/p", rest) || StartsText("ampm", rest)) return true;
        }
    }
    return false;
}

void AppendFormatted(std::string& out, std::string_view pattern, TDateTime value, const TFormatSettings& fs,
                     int depth) {
    if (depth > 2) return; // a regional pattern that names itself
    const TDateTimeParts p = DecodeDateTime(value);
    char lastToken = ' ';
    size_t i = 0;
    auto runLength = [&](char letter) {
        size_t n = 0;
        while (i + n < pattern.size() && (pattern[i + n] | 0x20) == letter) ++n;
        return n;
    };
    while (i < pattern.size()) {
        const char c = pattern[i];
        const char lower = static_cast<char>(c | 0x20);
        if (c == '"' || c == '\'') {
            size_t end = pattern.find(c, i + 1);
            if (end == std::string_view::npos) end = pattern.size();
            out.append(pattern.substr(i + 1, end - i - 1));
            i = end + 1;
            continue;
        }
        if (c == '/') {
            Utf8Append(out, fs.DateSeparator);
            ++i;
            continue;
        }
        if (c == ':') {
            Utf8Append(out, fs.TimeSeparator);
            ++i;
            continue;
        }
        if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'))) {
            out += c;
            ++i;
            continue;
        }
        switch (lower) {
        case 'y': {
            size_t n = runLength('y');
            out += n <= 2 ? Pad2(p.Year % 100) : PadN(p.Year, 4);
            i += n;
            lastToken = 'y';
            break;
        }
        case 'm': {
            size_t n = runLength('m');
            if (lastToken == 'h' && n <= 2) {
                out += n == 1 ? std::to_string(p.Minute) : Pad2(p.Minute);
                lastToken = 'n';
            } else {
                if (n == 1)
                    out += std::to_string(p.Month);
                else if (n == 2)
                    out += Pad2(p.Month);
                else if (p.Month >= 1)
                    out +=
                        (n == 3 ? fs.ShortMonthNames : fs.LongMonthNames)[static_cast<size_t>(p.Month - 1)];
                lastToken = 'm';
            }
            i += n;
            break;
        }
        case 'd': {
            size_t n = runLength('d');
            if (n == 1)
                out += std::to_string(p.Day);
            else if (n == 2)
                out += Pad2(p.Day);
            else if (n == 3 || n == 4) {
                if (p.Year)
                    out += (n == 3 ? fs.ShortDayNames
                                   : fs.LongDayNames)[static_cast<size_t>(DayOfWeek(value) - 1)];
            } else if (n == 5)
                AppendFormatted(out, fs.ShortDateFormat, value, fs, depth + 1);
            else
                AppendFormatted(out, fs.LongDateFormat, value, fs, depth + 1);
            i += n;
            lastToken = 'd';
            break;
        }
        case 'h': {
            size_t n = runLength('h');
            int hour = p.Hour;
            if (HasAmPmAhead(pattern, i + n)) {
                hour %= 12;
                if (hour == 0) hour = 12;
            }
            out += n == 1 ? std::to_string(hour) : Pad2(hour);
            i += n;
            lastToken = 'h';
            break;
        }
        case 'n': {
            size_t n = runLength('n');
            out += n == 1 ? std::to_string(p.Minute) : Pad2(p.Minute);
            i += n;
            lastToken = 'n';
            break;
        }
        case 's': {
            size_t n = runLength('s');
            out += n == 1 ? std::to_string(p.Second) : Pad2(p.Second);
            i += n;
            lastToken = 's';
            break;
        }
        case 'z': {
            size_t n = runLength('z');
            out += n <= 2 ? std::to_string(p.MSec) : PadN(p.MSec, 3);
            i += n;
            lastToken = 'z';
            break;
        }
        case 't': {
            size_t n = runLength('t');
            AppendFormatted(out, n == 1 ? fs.ShortTimeFormat : fs.LongTimeFormat, value, fs, depth + 1);
            i += n;
            lastToken = 't';
            break;
        }
        case 'c': {
            const bool hasDate = std::trunc(value) != 0;
            const bool hasTime = value != std::trunc(value);
            if (hasDate || !hasTime) AppendFormatted(out, fs.ShortDateFormat, value, fs, depth + 1);
            if (hasTime) {
                if (hasDate) out += ' ';
                AppendFormatted(out, fs.LongTimeFormat, value, fs, depth + 1);
            }
            ++i;
            lastToken = 'c';
            break;
        }
        case 'a': {
            std::string_view rest = pattern.substr(i);
            const bool pm = p.Hour >= 12;
            if (StartsText("am/pm", rest)) {
                std::string_view word = pm ? rest.substr(3, 2) : rest.substr(0, 2);
                out.append(word);
                i += 5;
            } else if (StartsText("a/p", rest)) {
                out += pm ? rest[2] : rest[0];
                i += 3;
            } else if (StartsText("ampm", rest)) {
                out += pm ? fs.TimePMString : fs.TimeAMString;
                i += 4;
            } else {
                out += c;
                ++i;
            }
            break;
        }
        default:
            out += c;
            ++i;
            break;
        }
    }
}

} // namespace

std::string FormatDateTime(std::string_view pattern, TDateTime value, const TFormatSettings& fs) {
    std::string out;
    AppendFormatted(out, pattern.empty() ? std::string_view("c") : pattern, value, fs, 0);
    return out;
}

std::string DateToStr(TDateTime value, const TFormatSettings& fs) {
    return FormatDateTime(fs.ShortDateFormat, value, fs);
}

std::string TimeToStr(TDateTime value, const TFormatSettings& fs) {
    return FormatDateTime(fs.LongTimeFormat, value, fs);
}

std::string DateTimeToStr(TDateTime value, const TFormatSettings& fs) {
    return FormatDateTime("c", value, fs);
}

// ---- reading ----

namespace {

enum class Order { MDY, DMY, YMD };

Order DateOrderOf(std::string_view format) {
    for (char c : format) {
        switch (c | 0x20) {
        case 'y':
            return Order::YMD;
        case 'd':
            return Order::DMY;
        case 'm':
            return Order::MDY;
        default:
            break;
        }
    }
    return Order::MDY;
}

struct Scanner {
    std::string_view s;
    size_t i = 0;
    void SkipBlanks() {
        while (i < s.size() && s[i] == ' ') ++i;
    }
    bool Number(int& value, int& digits) {
        value = 0, digits = 0;
        while (i < s.size() && s[i] >= '0' && s[i] <= '9') {
            if (digits < 9) value = value * 10 + (s[i] - '0');
            ++digits, ++i;
        }
        return digits > 0 && digits <= 9;
    }
    bool Char(char32_t c) {
        if (i >= s.size()) return false;
        size_t p = i;
        if (Utf8Decode(s, p) != c) return false;
        i = p;
        return true;
    }
    bool Text(std::string_view word) {
        if (word.empty() || !StartsText(word, s.substr(i))) return false;
        i += word.size();
        return true;
    }
    bool AtEnd() const { return i >= s.size(); }
};

bool ScanDate(Scanner& sc, TDateTime& out, const TFormatSettings& fs) {
    int n[3], len[3], count = 0;
    sc.SkipBlanks();
    if (!sc.Number(n[0], len[0])) return false;
    count = 1;
    char32_t separator = 0;
    for (char32_t candidate : {fs.DateSeparator, U'-', U'/', U'.'}) {
        if (candidate && sc.Char(candidate)) {
            separator = candidate;
            break;
        }
    }
    if (!separator) return false;
    if (!sc.Number(n[1], len[1])) return false;
    count = 2;
    size_t before = sc.i;
    if (sc.Char(separator)) {
        if (sc.Number(n[2], len[2]))
            count = 3;
        else
            sc.i = before;
    }
    int y, m, d, ylen = 4;
    Order order = DateOrderOf(fs.ShortDateFormat);
    if (count == 2) {
        y = DecodeDateTime(Now()).Year;
        if (order == Order::DMY)
            d = n[0], m = n[1];
        else
            m = n[0], d = n[1];
    } else if (len[0] > 2 || order == Order::YMD) {
        y = n[0], m = n[1], d = n[2], ylen = len[0];
    } else if (order == Order::DMY) {
        d = n[0], m = n[1], y = n[2], ylen = len[2];
    } else {
        m = n[0], d = n[1], y = n[2], ylen = len[2];
    }
    if (ylen <= 2 && y <= 99) y = ExpandTwoDigitYear(y, fs);
    return TryEncodeDate(y, m, d, out);
}

bool ScanTime(Scanner& sc, TDateTime& out, const TFormatSettings& fs) {
    sc.SkipBlanks();
    int h, mi = 0, s = 0, ms = 0, len;
    if (!sc.Number(h, len)) return false;
    bool hasMinutes = false;
    auto separator = [&] { return sc.Char(fs.TimeSeparator) || sc.Char(U':'); };
    if (separator()) {
        if (!sc.Number(mi, len)) return false;
        hasMinutes = true;
        if (separator()) {
            if (!sc.Number(s, len)) return false;
            if (sc.Char(U'.') || sc.Char(fs.DecimalSeparator)) {
                int frac, fracLen;
                if (!sc.Number(frac, fracLen)) return false;
                while (fracLen > 3) frac /= 10, --fracLen;
                while (fracLen < 3) frac *= 10, ++fracLen;
                ms = frac;
            }
        }
    }
    sc.SkipBlanks();
    int designator = 0; // 1 AM, 2 PM
    if (!sc.AtEnd()) {
        if (sc.Text(fs.TimeAMString) || sc.Text("AM"))
            designator = 1;
        else if (sc.Text(fs.TimePMString) || sc.Text("PM"))
            designator = 2;
        else
            return false;
    }
    if (!hasMinutes && !designator) return false;
    if (designator) {
        if (h < 1 || h > 12) return false;
        if (designator == 1 && h == 12) h = 0;
        if (designator == 2 && h < 12) h += 12;
    }
    if (h > 23) return false;
    return TryEncodeTime(h, mi, s, ms, out);
}

} // namespace

bool TryStrToDate(std::string_view s, TDateTime& out, const TFormatSettings& fs) {
    Scanner sc{s};
    TDateTime d;
    if (!ScanDate(sc, d, fs)) return false;
    sc.SkipBlanks();
    if (!sc.AtEnd()) return false;
    out = d;
    return true;
}

bool TryStrToTime(std::string_view s, TDateTime& out, const TFormatSettings& fs) {
    Scanner sc{s};
    TDateTime t;
    if (!ScanTime(sc, t, fs)) return false;
    sc.SkipBlanks();
    if (!sc.AtEnd()) return false;
    out = t;
    return true;
}

bool TryStrToDateTime(std::string_view s, TDateTime& out, const TFormatSettings& fs) {
    if (TryStrToDate(s, out, fs) || TryStrToTime(s, out, fs)) return true;
    Scanner sc{s};
    TDateTime d, t;
    if (!ScanDate(sc, d, fs)) return false;
    if (!sc.Char(U'T') && !sc.Char(U't') && !sc.Char(U' ')) return false;
    Scanner rest{s.substr(sc.i)};
    if (!ScanTime(rest, t, fs)) return false;
    rest.SkipBlanks();
    if (!rest.AtEnd()) return false;
    out = d >= 0 ? d + t : d - t;
    return true;
}

TDateTime StrToDate(std::string_view s, const TFormatSettings& fs) {
    TDateTime v;
    if (!TryStrToDate(s, v, fs)) throw EConvertError("'" + std::string(s) + "' is not a valid date");
    return v;
}

TDateTime StrToTime(std::string_view s, const TFormatSettings& fs) {
    TDateTime v;
    if (!TryStrToTime(s, v, fs)) throw EConvertError("'" + std::string(s) + "' is not a valid time");
    return v;
}

TDateTime StrToDateTime(std::string_view s, const TFormatSettings& fs) {
    TDateTime v;
    if (!TryStrToDateTime(s, v, fs))
        throw EConvertError("'" + std::string(s) + "' is not a valid date and time");
    return v;
}

int ReadFractionMSecs(std::string_view text, size_t& pos) {
    // The fourth digit decides the rounding; the ones after it cannot change it.
    int msec = 0, digits = 0;
    for (; pos < text.size() && text[pos] >= '0' && text[pos] <= '9'; ++pos, ++digits) {
        if (digits < 3)
            msec = msec * 10 + (text[pos] - '0');
        else if (digits == 3 && text[pos] >= '5')
            ++msec;
    }
    for (; digits < 3; ++digits) msec *= 10;
    return msec;
}

namespace {

// Exactly `width` digits at `pos`.
bool IsoDigits(std::string_view s, size_t pos, size_t width, int& out) {
    if (pos + width > s.size()) return false;
    out = 0;
    for (size_t i = pos; i < pos + width; ++i) {
        if (s[i] < '0' || s[i] > '9') return false;
        out = out * 10 + (s[i] - '0');
    }
    return true;
}

// "yyyy-mm-dd[(T| )hh:nn[:ss[(.|,)f...]]]" from the start of `s`; `pos` is left after what was read.
// "hh:nn[:ss[.fff]]" at `pos`: isNone when no "hh:nn" stands there, isBad when a part is out of range.
enum TIsoTimeScan { isNone, isBad, isTime };

TIsoTimeScan ScanIsoTime(std::string_view s, size_t& pos, TDateTime& out) {
    int hour, minute, second = 0;
    if (!IsoDigits(s, pos, 2, hour) || pos + 2 >= s.size() || s[pos + 2] != ':' ||
        !IsoDigits(s, pos + 3, 2, minute))
        return isNone;
    size_t at = pos + 5;
    int64_t msec = 0;
    if (at < s.size() && s[at] == ':') {
        if (!IsoDigits(s, at + 1, 2, second)) return isBad;
        at += 3;
        if (at + 1 < s.size() && (s[at] == '.' || s[at] == ',') && s[at + 1] >= '0' && s[at + 1] <= '9')
            msec = ReadFractionMSecs(s, ++at);
    }
    if (hour > 23 || minute > 59 || second > 59) return isBad;
    const int64_t ms = ((hour * 60LL + minute) * 60 + second) * 1000 + msec;
    out = static_cast<double>(ms) / static_cast<double>(MSecsPerDay);
    pos = at;
    return isTime;
}

bool ScanIsoDateTime(std::string_view s, size_t& pos, TDateTime& out, bool& hasTime) {
    int year, month, day;
    if (!IsoDigits(s, 0, 4, year) || s.size() < 10 || s[4] != '-' || !IsoDigits(s, 5, 2, month) ||
        s[7] != '-' || !IsoDigits(s, 8, 2, day))
        return false;
    TDateTime date;
    if (!TryEncodeDate(year, month, day, date)) return false;
    pos = 10;
    hasTime = false;
    out = date;
    if (pos == s.size() || (s[pos] != 'T' && s[pos] != 't' && s[pos] != ' ')) return true;
    size_t at = pos + 1;
    TDateTime time;
    const TIsoTimeScan scan = ScanIsoTime(s, at, time);
    if (scan == isNone) return true; // the date alone; what follows is for the caller to judge
    if (scan == isBad) return false;
    pos = at;
    out = CombineDateTime(date, time);
    hasTime = true;
    return true;
}

} // namespace

TDateTime CombineDateTime(TDateTime date, TDateTime time) {
    if (time >= 1.0) {
        date += 1;
        time -= 1;
    }
    return date >= 0 ? date + time : date - time;
}

bool TryISO8601ToDateTime(std::string_view text, TDateTime& out) {
    size_t pos = 0;
    bool hasTime;
    TDateTime value;
    if (!ScanIsoDateTime(text, pos, value, hasTime) || pos != text.size()) return false;
    out = value;
    return true;
}

bool TryISO8601ToTime(std::string_view text, TDateTime& out) {
    size_t pos = 0;
    TDateTime value;
    if (ScanIsoTime(text, pos, value) != isTime || pos != text.size()) return false;
    out = value;
    return true;
}

bool IsIsoDateTimeWithZone(std::string_view text) {
    text = TrimView(text);
    size_t pos = 0;
    bool hasTime;
    TDateTime ignored;
    if (!ScanIsoDateTime(text, pos, ignored, hasTime) || !hasTime || pos == text.size()) return false;
    const std::string_view zone = text.substr(pos);
    if (zone == "Z" || zone == "z") return true;
    if (zone[0] != '+' && zone[0] != '-') return false;
    int hours, minutes = 0;
    if (!IsoDigits(zone, 1, 2, hours) || hours > 23) return false;
    if (zone.size() == 3) return true;
    const size_t at = zone[3] == ':' ? 4 : 3;
    return zone.size() == at + 2 && IsoDigits(zone, at, 2, minutes) && minutes <= 59;
}

namespace {

// Digits written straight into a buffer: ISO texts are made for every date a database receives.
template <int Width> char* PutDigits(char* p, int value) {
    for (int i = Width - 1; i >= 0; --i, value /= 10) p[i] = static_cast<char>('0' + value % 10);
    return p + Width;
}

char* PutDate(char* p, const TDateTimeParts& d) {
    p = PutDigits<4>(p, d.Year);
    *p++ = '-';
    p = PutDigits<2>(p, d.Month);
    *p++ = '-';
    return PutDigits<2>(p, d.Day);
}

char* PutTime(char* p, const TDateTimeParts& d) {
    p = PutDigits<2>(p, d.Hour);
    *p++ = ':';
    p = PutDigits<2>(p, d.Minute);
    *p++ = ':';
    p = PutDigits<2>(p, d.Second);
    if (d.MSec) {
        *p++ = '.';
        p = PutDigits<3>(p, d.MSec);
    }
    return p;
}

} // namespace

bool IsIsoDate(std::string_view text) {
    int year, month, day;
    return text.size() == 10 && IsoDigits(text, 0, 4, year) && text[4] == '-' &&
           IsoDigits(text, 5, 2, month) && text[7] == '-' && IsoDigits(text, 8, 2, day) && year >= 1 &&
           day >= 1 && day <= DaysInMonth(year, month);
}

size_t PutDateISO8601(TDateTime value, char* out) {
    return static_cast<size_t>(PutDate(out, DecodeDateTime(value)) - out);
}

size_t PutTimeISO8601(TDateTime value, char* out) {
    return static_cast<size_t>(PutTime(out, DecodeDateTime(value)) - out);
}

size_t PutDateTimeISO8601(TDateTime value, char* out) {
    const TDateTimeParts d = DecodeDateTime(value);
    char* p = PutDate(out, d);
    *p++ = ' ';
    return static_cast<size_t>(PutTime(p, d) - out);
}

std::string DateToISO8601(TDateTime value) {
    char buffer[kISO8601Size];
    return std::string(buffer, PutDateISO8601(value, buffer));
}

std::string TimeToISO8601(TDateTime value) {
    char buffer[kISO8601Size];
    return std::string(buffer, PutTimeISO8601(value, buffer));
}

std::string DateTimeToISO8601(TDateTime value) {
    char buffer[kISO8601Size];
    return std::string(buffer, PutDateTimeISO8601(value, buffer));
}

} // namespace kv
