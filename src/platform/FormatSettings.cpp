#include "platform/FormatSettings.h"

#include "platform/Utf8.h"

#include <cstdlib>
#include <langinfo.h>
#include <locale.h>

namespace kv {

TFormatSettings DefaultFormatSettings;

TFormatSettings InvariantFormatSettings() {
    return TFormatSettings{};
}

std::string TranslateStrftimePattern(std::string_view pattern) {
    std::string out, literal;
    auto flushLiteral = [&] {
        if (literal.empty()) return;
        // Letters would read as specifiers of their own; quote any run that holds one.
        bool needsQuotes = literal.find_first_of("abcdeghmnstyzABCDEGHMNSTYZ\"'") != std::string::npos;
        if (needsQuotes && literal.find('"') == std::string::npos)
            out += '"' + literal + '"';
        else if (needsQuotes)
            out += '\'' + literal + '\'';
        else
            out += literal;
        literal.clear();
    };
    for (size_t i = 0; i < pattern.size(); ++i) {
        char c = pattern[i];
        if (c != '%' || i + 1 >= pattern.size()) {
            literal += c;
            continue;
        }
        char spec = pattern[++i];
        while ((spec == 'E' || spec == 'O' || spec == '-' || spec == '_' || spec == '0' || spec == '^' ||
                spec == '#') &&
               i + 1 < pattern.size())
            spec = pattern[++i];
        const char* mask = nullptr;
        switch (spec) {
        case 'd':
            mask = "dd";
            break;
        case 'e':
            mask = "d";
            break;
        case 'm':
            mask = "mm";
            break;
        case 'Y':
        case 'G':
            mask = "yyyy";
            break;
        case 'y':
        case 'g':
            mask = "yy";
            break;
        case 'b':
        case 'h':
            mask = "mmm";
            break;
        case 'B':
            mask = "mmmm";
            break;
        case 'a':
            mask = "ddd";
            break;
        case 'A':
            mask = "dddd";
            break;
        case 'H':
        case 'I':
            mask = "hh";
            break;
        case 'k':
        case 'l':
            mask = "h";
            break;
        case 'M':
            mask = "nn";
            break;
        case 'S':
            mask = "ss";
            break;
        case 'p':
        case 'P':
            mask = "ampm";
            break;
        case 'D':
            mask = "mm/dd/yy";
            break;
        case 'F':
            mask = "yyyy-mm-dd";
            break;
        case 'T':
            mask = "hh:nn:ss";
            break;
        case 'R':
            mask = "hh:nn";
            break;
        case 'r':
            mask = "hh:nn:ss ampm";
            break;
        case 'n':
        case 't':
            literal += ' ';
            break;
        case '%':
            literal += '%';
            break;
        default:
            break; // week numbers, time zones and the like have no mask letter
        }
        if (mask) {
            flushLiteral();
            out += mask;
        }
    }
    flushLiteral();
    return out;
}

namespace {

// The first character of a pattern that is not a mask letter: the separator the pattern uses.
char32_t SeparatorOf(const std::string& pattern, char32_t fallback) {
    for (size_t pos = 0; pos < pattern.size();) {
        char32_t c = Utf8Decode(pattern, pos);
        if (c == U' ' || c == U'"' || c == U'\'') continue;
        if ((c >= U'a' && c <= U'z') || (c >= U'A' && c <= U'Z')) continue;
        return c;
    }
    return fallback;
}

char32_t FirstChar(const char* s, char32_t fallback) {
    if (!s || !*s) return fallback;
    std::string_view v(s);
    size_t pos = 0;
    return Utf8Decode(v, pos);
}

bool IsPlainCLocale(const char* name) {
    if (!name || !*name) return true;
    std::string_view n(name);
    return n == "C" || n == "POSIX" || n.rfind("C.", 0) == 0;
}

// The locale name a category takes from the environment, as setlocale would resolve it.
const char* EnvironmentLocale(const char* category) {
    for (const char* var : {"LC_ALL", category, "LANG"}) {
        const char* v = std::getenv(var);
        if (v && *v) return v;
    }
    return nullptr;
}

} // namespace

TFormatSettings GetLocaleFormatSettings(const char* localeName) {
    TFormatSettings fs = InvariantFormatSettings();
    const bool fromEnvironment = !localeName || !*localeName;
    const char* timeName = fromEnvironment ? EnvironmentLocale("LC_TIME") : localeName;
    const char* numericName = fromEnvironment ? EnvironmentLocale("LC_NUMERIC") : localeName;
    const char* monetaryName = fromEnvironment ? EnvironmentLocale("LC_MONETARY") : localeName;

    if (!IsPlainCLocale(timeName)) {
        locale_t l = newlocale(LC_TIME_MASK, timeName, static_cast<locale_t>(nullptr));
        if (l) {
            std::string date = TranslateStrftimePattern(nl_langinfo_l(D_FMT, l));
            std::string time = TranslateStrftimePattern(nl_langinfo_l(T_FMT, l));
            if (!date.empty()) {
                fs.ShortDateFormat = date;
                fs.DateSeparator = SeparatorOf(date, fs.DateSeparator);
            }
            if (!time.empty()) {
                fs.LongTimeFormat = time;
                fs.TimeSeparator = SeparatorOf(time, fs.TimeSeparator);
                // The short time is the long one without its seconds.
                std::string shortTime = time;
                size_t s = shortTime.find("ss");
                if (s != std::string::npos && s > 0) shortTime.erase(s - 1, 3);
                fs.ShortTimeFormat = shortTime;
            }
            if (const char* am = nl_langinfo_l(AM_STR, l)) fs.TimeAMString = am;
            if (const char* pm = nl_langinfo_l(PM_STR, l)) fs.TimePMString = pm;
            for (int m = 0; m < 12; ++m) {
                fs.ShortMonthNames[static_cast<size_t>(m)] =
                    nl_langinfo_l(static_cast<nl_item>(ABMON_1 + m), l);
                fs.LongMonthNames[static_cast<size_t>(m)] = nl_langinfo_l(static_cast<nl_item>(MON_1 + m), l);
            }
            for (int d = 0; d < 7; ++d) {
                fs.ShortDayNames[static_cast<size_t>(d)] =
                    nl_langinfo_l(static_cast<nl_item>(ABDAY_1 + d), l);
                fs.LongDayNames[static_cast<size_t>(d)] = nl_langinfo_l(static_cast<nl_item>(DAY_1 + d), l);
            }
            freelocale(l);
        }
    }
    if (!IsPlainCLocale(numericName)) {
        locale_t l = newlocale(LC_NUMERIC_MASK, numericName, static_cast<locale_t>(nullptr));
        if (l) {
            fs.DecimalSeparator = FirstChar(nl_langinfo_l(RADIXCHAR, l), U'.');
            fs.ThousandSeparator = FirstChar(nl_langinfo_l(THOUSEP, l), 0);
            // A narrow no-break space groups digits in several locales; a plain blank reads the same to
            // users.
            if (fs.ThousandSeparator == 0x202F || fs.ThousandSeparator == 0xA0) fs.ThousandSeparator = U' ';
            freelocale(l);
        }
    }
    if (!IsPlainCLocale(monetaryName)) {
        locale_t l = newlocale(LC_MONETARY_MASK, monetaryName, static_cast<locale_t>(nullptr));
        if (l) {
            // CRNCYSTR starts with a sign that tells where the symbol goes.
            std::string currency = nl_langinfo_l(CRNCYSTR, l);
            if (!currency.empty() && (currency[0] == '-' || currency[0] == '+' || currency[0] == '.'))
                currency.erase(0, 1);
            if (!currency.empty()) fs.CurrencyString = currency;
            freelocale(l);
        }
    }
    return fs;
}

} // namespace kv
