// Regional settings from C library locales.

#include "platform/FormatSettings.h"

#include <gtest/gtest.h>

namespace kv {
namespace {

TEST(FormatSettings, StrftimePatternsBecomeDateMasks) {
    const std::pair<const char*, const char*> cases[] = {
        {"%m/%d/%y", "mm/dd/yy"},
        {"%d.%m.%Y", "dd.mm.yyyy"},
        {"%Y-%m-%d", "yyyy-mm-dd"},
        {"%e %B %Y", "d mmmm yyyy"},
        {"%H:%M:%S", "hh:nn:ss"},
        {"%I:%M:%S %p", "hh:nn:ss ampm"},
        {"%r", "hh:nn:ss ampm"},
        {"%Y\xE5\xB9\xB4%m\xE6\x9C\x88%d\xE6\x97\xA5", "yyyy\xE5\xB9\xB4mm\xE6\x9C\x88"
                                                       "dd\xE6\x97\xA5"},
        {"%d de %B de %Y", "dd\" de \"mmmm\" de \"yyyy"}, // letters are quoted so they stay text
        {"%Ey %Od", "yy dd"},
        {"100%%", "100%"},
    };
    for (auto& [pattern, mask] : cases) EXPECT_EQ(TranslateStrftimePattern(pattern), mask) << pattern;
}

TEST(FormatSettings, PlainCLocaleGivesTheInvariantSettings) {
    for (const char* name : {"C", "POSIX", "C.UTF-8", "no_SUCH.locale"}) {
        TFormatSettings fs = GetLocaleFormatSettings(name);
        EXPECT_EQ(fs.ShortDateFormat, "yyyy-mm-dd") << name;
        EXPECT_EQ(fs.DecimalSeparator, U'.') << name;
        EXPECT_EQ(fs.DateSeparator, U'-') << name;
        EXPECT_EQ(fs.TwoDigitYearCenturyWindow, 50) << name;
    }
}

} // namespace
} // namespace kv
