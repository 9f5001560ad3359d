#pragma once
// Regional settings: how numbers and dates are written and read. The library keeps one process-wide
// DefaultFormatSettings; the command-line program fills it from the environment's locale, tests set it
// explicitly, and nothing inside the library reads the machine's locale behind their back.

#include <array>
#include <string>
#include <string_view>

namespace kv {

/// Separators, patterns and names of one set of regional settings. Patterns use the letters of the date
/// masks ("dd/mm/yyyy", "hh:nn:ss"); in a pattern "/" stands for DateSeparator and ":" for TimeSeparator.
struct TFormatSettings {
    std::string CurrencyString = "$";
    int CurrencyDecimals = 2;
    char32_t DateSeparator = U'-';
    char32_t TimeSeparator = U':';
    char32_t ListSeparator = U',';
    std::string ShortDateFormat = "yyyy-mm-dd";
    std::string LongDateFormat = "dddd, mmmm d, yyyy";
    std::string TimeAMString = "AM";
    std::string TimePMString = "PM";
    std::string ShortTimeFormat = "hh:nn";
    std::string LongTimeFormat = "hh:nn:ss";
    std::array<std::string, 12> ShortMonthNames{"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    std::array<std::string, 12> LongMonthNames{"January",   "February", "March",    "April",
                                               "May",       "June",     "July",     "August",
                                               "September", "October",  "November", "December"};
    std::array<std::string, 7> ShortDayNames{"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    std::array<std::string, 7> LongDayNames{"Sunday",   "Monday", "Tuesday", "Wednesday",
                                            "Thursday", "Friday", "Saturday"};
    /// 0 when numbers are written without grouping.
    char32_t ThousandSeparator = U',';
    char32_t DecimalSeparator = U'.';
    /// Two-digit years fall within this many years before the current year and 100 minus it after.
    int TwoDigitYearCenturyWindow = 50;
};

/// The settings used when no locale applies ("C" or "POSIX"): ISO dates, 24-hour times, "." decimals.
TFormatSettings InvariantFormatSettings();

/// The settings of a C library locale: `localeName` as setlocale takes it, or "" for the environment's
/// (LC_ALL, LC_NUMERIC, LC_TIME, LANG). The "C" and "POSIX" locales give the invariant settings.
/// An unknown locale name gives the invariant settings too.
TFormatSettings GetLocaleFormatSettings(const char* localeName = "");

/// A strftime pattern ("%d/%m/%Y", "%H:%M:%S") in the letters of the date masks ("dd/mm/yyyy", "hh:nn:ss").
std::string TranslateStrftimePattern(std::string_view pattern);

/// The process-wide settings every conversion without explicit settings uses.
extern TFormatSettings DefaultFormatSettings;

} // namespace kv
