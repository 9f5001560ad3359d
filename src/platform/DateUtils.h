#pragma once
// Dates and times as TDateTime: days since 1899-12-30, with the time of day as the fraction. Before that
// day the integral part counts backwards while the fraction still counts forwards (-1.25 is 1899-12-29
// 06:00).

#include "platform/FormatSettings.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace kv {

using TDateTime = double;

constexpr double HoursPerDay = 24;
constexpr double MinsPerDay = 24 * 60;
constexpr double SecsPerDay = 24 * 60 * 60;
constexpr int64_t MSecsPerDay = 24LL * 60 * 60 * 1000;
/// Days from 0001-01-01 (day 1) to 1899-12-30.
constexpr int DateDelta = 693594;

/// The parts of a date-time.
struct TDateTimeParts {
    int Year = 0, Month = 0, Day = 0, Hour = 0, Minute = 0, Second = 0, MSec = 0;
};

/// A date-time as days since 0001-01-01 (Date, counted from 1) and milliseconds of the day (Time).
struct TTimeStamp {
    int Time = 0;
    int Date = 0;
};

bool IsLeapYear(int year);
int DaysInMonth(int year, int month);

bool TryEncodeDate(int year, int month, int day, TDateTime& out);
/// Raises EConvertError "Invalid argument to date encode" for an impossible date.
TDateTime EncodeDate(int year, int month, int day);
bool TryEncodeTime(int hour, int minute, int second, int msec, TDateTime& out);
/// Raises EConvertError "Invalid argument to time encode" for an impossible time.
TDateTime EncodeTime(int hour, int minute, int second, int msec);
TDateTime EncodeDateTime(int year, int month, int day, int hour, int minute, int second, int msec);

/// Splits a date-time into its parts (milliseconds rounded; years outside 1..9999 give all zeros).
TDateTimeParts DecodeDateTime(TDateTime value);
void DecodeDate(TDateTime value, int& year, int& month, int& day);
void DecodeTime(TDateTime value, int& hour, int& minute, int& second, int& msec);
/// 1 = Sunday ... 7 = Saturday.
int DayOfWeek(TDateTime value);

/// The current local date and time, today at midnight, and the time of day alone.
TDateTime Now();
TDateTime Date();
TDateTime Time();

TTimeStamp DateTimeToTimeStamp(TDateTime value);
TDateTime TimeStampToDateTime(const TTimeStamp& stamp);
TTimeStamp MSecsToTimeStamp(int64_t msecs);
int64_t TimeStampToMSecs(const TTimeStamp& stamp);

/// A two-digit year placed by fs.TwoDigitYearCenturyWindow around the current year.
int ExpandTwoDigitYear(int year, const TFormatSettings& fs = DefaultFormatSettings);

/// Formats by a pattern of the date masks: d dd ddd dddd ddddd dddddd, m mm mmm mmmm, yy yyyy, h hh, n nn,
/// s ss, z zzz, t tt, c, am/pm a/p ampm, "/" and ":" for the separators, quoted literals.
std::string FormatDateTime(std::string_view pattern, TDateTime value,
                           const TFormatSettings& fs = DefaultFormatSettings);
std::string DateToStr(TDateTime value, const TFormatSettings& fs = DefaultFormatSettings);
std::string TimeToStr(TDateTime value, const TFormatSettings& fs = DefaultFormatSettings);
/// The short date and the long time; the date is left out when it is day 0 and the time when it is midnight.
std::string DateTimeToStr(TDateTime value, const TFormatSettings& fs = DefaultFormatSettings);

/// Reads a date by the order of fs.ShortDateFormat and fs.DateSeparator: two or three numbers; a missing
/// year is the current one; a first number of more than two digits is read as year-month-day.
bool TryStrToDate(std::string_view s, TDateTime& out, const TFormatSettings& fs = DefaultFormatSettings);
/// Reads a time "h[:n[:s[.zzz]]]" with fs.TimeSeparator (or ":") and an optional AM/PM designator.
bool TryStrToTime(std::string_view s, TDateTime& out, const TFormatSettings& fs = DefaultFormatSettings);
/// A date, a time, or a date followed by a blank or "T" and a time.
bool TryStrToDateTime(std::string_view s, TDateTime& out, const TFormatSettings& fs = DefaultFormatSettings);
/// As the Try forms; raise EConvertError "'%s' is not a valid date" (time, date and time).
TDateTime StrToDate(std::string_view s, const TFormatSettings& fs = DefaultFormatSettings);
TDateTime StrToTime(std::string_view s, const TFormatSettings& fs = DefaultFormatSettings);
TDateTime StrToDateTime(std::string_view s, const TFormatSettings& fs = DefaultFormatSettings);

/// The milliseconds of a decimal fraction whose digits start at `pos` of `text` (after the point),
/// rounded: 1000 when it rounds up to a whole second. `pos` is left after the digits.
int ReadFractionMSecs(std::string_view text, size_t& pos);
/// Reads "yyyy-mm-dd", optionally followed by "T" or a blank and "hh:nn[:ss[.fff]]" (a comma may stand
/// for the point; the fraction is rounded to milliseconds), whatever the regional settings say. No zone
/// and nothing around it.
bool TryISO8601ToDateTime(std::string_view text, TDateTime& out);
/// True when `text`, blanks around it aside, is an ISO 8601 date and time followed by a zone: "Z",
/// "+hh", "+hhmm" or "+hh:mm" (or with "-"). Such a text names an instant that a TDateTime, which has no
/// zone, cannot hold.
bool IsIsoDateTimeWithZone(std::string_view text);
/// True when `text` is exactly "yyyy-mm-dd" of a real day, as DateToISO8601 writes it.
bool IsIsoDate(std::string_view text);
/// "hh:nn", "hh:nn:ss" or "hh:nn:ss.fff" (or with ","): a time of day alone, no zone.
bool TryISO8601ToTime(std::string_view text, TDateTime& out);

/// A date (whole days) and a time of day as one date-time. Before 1899-12-30 the time counts away from
/// zero, as the fraction of a negative date-time does; a time rounded up to a whole day is the next
/// day's midnight.
TDateTime CombineDateTime(TDateTime date, TDateTime time);

/// "yyyy-mm-dd", "hh:nn:ss[.zzz]" or "yyyy-mm-dd hh:nn:ss[.zzz]" (the kinds SQL databases read); the
/// milliseconds are written only when they are not 0.
std::string DateToISO8601(TDateTime value);
std::string TimeToISO8601(TDateTime value);
std::string DateTimeToISO8601(TDateTime value);
/// The same texts written into `out` (room for kISO8601Size characters), returning their length: for
/// callers that write a date for every row and keep their own buffer.
constexpr size_t kISO8601Size = 24;
size_t PutDateISO8601(TDateTime value, char* out);
size_t PutTimeISO8601(TDateTime value, char* out);
size_t PutDateTimeISO8601(TDateTime value, char* out);

} // namespace kv
