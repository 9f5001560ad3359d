// Date-time encoding, formatting by pattern, and reading by the regional settings.

#include "platform/DateUtils.h"
#include "TestSupport.h"
#include "expression/KvIPars.h"
#include "platform/Exceptions.h"

namespace kv {
namespace {

TEST(DateUtils, EncodesDaysSince18991230) {
    EXPECT_EQ(EncodeDate(1899, 12, 30), 0);
    EXPECT_EQ(EncodeDate(1900, 1, 1), 2);
    EXPECT_EQ(EncodeDate(2000, 1, 1), 36526);
    EXPECT_EQ(EncodeDate(1, 1, 1), -693593);
    EXPECT_EQ(EncodeDate(9999, 12, 31), 2958465);
    TDateTime d;
    EXPECT_FALSE(TryEncodeDate(2023, 2, 29, d));
    EXPECT_TRUE(TryEncodeDate(2024, 2, 29, d));
    EXPECT_FALSE(TryEncodeDate(0, 1, 1, d));
    EXPECT_THROW(EncodeDate(2020, 13, 1), EConvertError);
    EXPECT_DOUBLE_EQ(EncodeTime(6, 0, 0, 0), 0.25);
    EXPECT_FALSE(TryEncodeTime(24, 0, 1, 0, d));
}

TEST(DateUtils, DecodesBothSidesOfDayZero) {
    TDateTimeParts p = DecodeDateTime(-1.25); // the day before day 0, at 06:00
    EXPECT_EQ(p.Year, 1899);
    EXPECT_EQ(p.Month, 12);
    EXPECT_EQ(p.Day, 29);
    EXPECT_EQ(p.Hour, 6);
    p = DecodeDateTime(EncodeDateTime(2024, 2, 29, 23, 59, 59, 999));
    EXPECT_EQ(p.Day, 29);
    EXPECT_EQ(p.MSec, 999);
    p = DecodeDateTime(36526.9999999999); // rounds up to the next midnight
    EXPECT_EQ(p.Day, 2);
    EXPECT_EQ(p.Hour, 0);
    EXPECT_EQ(DecodeDateTime(1e300).Year, 0); // out of range gives zeros, not garbage
    EXPECT_EQ(DayOfWeek(0), 7);               // 1899-12-30 was a Saturday
    EXPECT_EQ(DayOfWeek(EncodeDate(2026, 11, 23)), 2);
    // Before day 0 the time of day counts away from zero; the first day of year 1 has times too.
    EXPECT_DOUBLE_EQ(TKvDateMask("yyyy-mm-dd hh:nn:ss", U'-', U':').Read("1899-12-29 06:00:00"), -1.25);
    EXPECT_DOUBLE_EQ(CombineDateTime(-1, 1.0), 0);
    EXPECT_EQ(DateTimeToISO8601(EncodeDateTime(1, 1, 1, 10, 0, 0, 0)), "0001-01-01 10:00:00");
}

TEST(DateUtils, TimeStamps) {
    TTimeStamp s = DateTimeToTimeStamp(EncodeDateTime(2000, 1, 1, 12, 0, 0, 0));
    EXPECT_EQ(s.Date, 36526 + DateDelta);
    EXPECT_EQ(s.Time, 43200000);
    EXPECT_DOUBLE_EQ(TimeStampToDateTime(s), 36526.5);
    TTimeStamp m = MSecsToTimeStamp(TimeStampToMSecs(s));
    EXPECT_EQ(m.Date, s.Date);
    EXPECT_EQ(m.Time, s.Time);
}

TEST(DateUtils, FormatsByPattern) {
    const TFormatSettings us = test::UsSettings();
    const TDateTime v = EncodeDateTime(2026, 3, 7, 14, 5, 9, 42);
    const std::pair<const char*, const char*> cases[] = {
        {"yyyy-mm-dd", "2026-03-07"},
        {"d/m/yy", "7/3/26"},
        {"ddd dddd mmm mmmm", "Sat Saturday Mar March"},
        {"hh:mm:ss.zzz", "14:05:09.042"}, // m right after h is the minute
        {"h:nn ampm", "2:05 PM"},
        {"h:nn am/pm", "2:05 pm"},
        {"h a/p", "2 p"},
        {"\"at\" h 'o''clock'", "at 14 oclock"},
        {"c", "3/7/2026 2:05:09 PM"},
        {"ddddd t", "3/7/2026 2:05 PM"},
    };
    for (auto& [pattern, text] : cases) EXPECT_EQ(FormatDateTime(pattern, v, us), text) << pattern;
    EXPECT_EQ(DateTimeToStr(EncodeDate(2026, 3, 7), us), "3/7/2026"); // no time at midnight
    EXPECT_EQ(DateTimeToStr(0.5, us), "12:00:00 PM");                 // no date on day 0
    EXPECT_EQ(FormatDateTime("h:nn ampm", EncodeTime(0, 30, 0, 0), us), "12:30 AM");
    TFormatSettings selfReferring = us;
    selfReferring.ShortDateFormat = "ddddd";
    EXPECT_NO_THROW(DateToStr(v, selfReferring));
}

TEST(DateUtils, ReadsDatesInTheRegionalOrder) {
    const TFormatSettings us = test::UsSettings(), de = test::GermanSettings(),
                          iso = InvariantFormatSettings();
    struct Case {
        const char* text;
        const TFormatSettings* fs;
        int y, m, d; // 0: not a date
    };
    const Case cases[] = {
        {"3/7/2026", &us, 2026, 3, 7},    {"07.03.2026", &de, 2026, 3, 7}, {"2026-03-07", &iso, 2026, 3, 7},
        {"2026/03/07", &us, 2026, 3, 7}, // a four-digit first number is a year
        {"  3/7/2026 ", &us, 2026, 3, 7}, {"2/30/2026", &us, 0, 0, 0},     {"3/7/", &us, 0, 0, 0},
        {"3-7/2026", &us, 0, 0, 0},       {"abc", &us, 0, 0, 0},           {"", &us, 0, 0, 0},
    };
    for (const Case& c : cases) {
        TDateTime v;
        bool ok = TryStrToDate(c.text, v, *c.fs);
        EXPECT_EQ(ok, c.y != 0) << c.text;
        if (ok) {
            EXPECT_EQ(v, EncodeDate(c.y, c.m, c.d)) << c.text;
        }
    }
    try {
        StrToDate("x", us);
        FAIL();
    } catch (const EConvertError& e) {
        EXPECT_STREQ(e.what(), "'x' is not a valid date");
    }
}

TEST(DateUtils, TwoDigitYearsFollowTheCenturyWindow) {
    TFormatSettings fs = test::UsSettings();
    const int current = DecodeDateTime(Now()).Year;
    fs.TwoDigitYearCenturyWindow = 50;
    const int pivot = current - 50;
    EXPECT_EQ(ExpandTwoDigitYear(pivot % 100, fs), pivot);
    EXPECT_EQ(ExpandTwoDigitYear((pivot - 1) % 100, fs), pivot + 99);
    fs.TwoDigitYearCenturyWindow = 0;
    EXPECT_EQ(ExpandTwoDigitYear(5, fs), current / 100 * 100 + 5);
    TDateTime v;
    ASSERT_TRUE(TryStrToDate("1/2/05", v, fs));
    EXPECT_EQ(DecodeDateTime(v).Year, current / 100 * 100 + 5);
}

TEST(DateUtils, ReadsTimesAndDateTimes) {
    const TFormatSettings us = test::UsSettings();
    TDateTime v;
    ASSERT_TRUE(TryStrToTime("14:05", v, us));
    EXPECT_DOUBLE_EQ(v, EncodeTime(14, 5, 0, 0));
    ASSERT_TRUE(TryStrToTime("2:05:09 pm", v, us));
    EXPECT_DOUBLE_EQ(v, EncodeTime(14, 5, 9, 0));
    ASSERT_TRUE(TryStrToTime("12:00 AM", v, us));
    EXPECT_DOUBLE_EQ(v, 0);
    ASSERT_TRUE(TryStrToTime("10:00:00.5", v, us));
    EXPECT_DOUBLE_EQ(v, EncodeTime(10, 0, 0, 500));
    EXPECT_FALSE(TryStrToTime("25:00", v, us));
    EXPECT_FALSE(TryStrToTime("13:00 PM", v, us));
    EXPECT_FALSE(TryStrToTime("7", v, us));
    ASSERT_TRUE(TryStrToDateTime("2026-03-07T14:05:09", v, InvariantFormatSettings()));
    EXPECT_DOUBLE_EQ(v, EncodeDateTime(2026, 3, 7, 14, 5, 9, 0));
    ASSERT_TRUE(TryStrToDateTime("3/7/2026 2:05 PM", v, us));
    EXPECT_DOUBLE_EQ(v, EncodeDateTime(2026, 3, 7, 14, 5, 0, 0));
    EXPECT_FALSE(TryStrToDateTime("3/7/2026 soon", v, us));
    EXPECT_EQ(DateTimeToISO8601(EncodeDateTime(2026, 3, 7, 14, 5, 9, 42)), "2026-03-07 14:05:09.042");
    EXPECT_EQ(DateToISO8601(EncodeDate(33, 1, 2)), "0033-01-02");
}

TEST(DateUtils, ReadsIso8601WhateverTheSettings) {
    test::ScopedFormatSettings us(test::UsSettings());
    struct Case {
        const char* text;
        const char* read; // as DateTimeToISO8601 writes it back; nullptr: no ISO date-time
    };
    const Case cases[] = {
        {"2024-01-31", "2024-01-31 00:00:00"},
        {"2024-01-31T10:05", "2024-01-31 10:05:00"},
        {"2024-01-31 10:05:09", "2024-01-31 10:05:09"},
        {"2024-01-31t10:05:09.25", "2024-01-31 10:05:09.250"},
        {"2024-01-31T10:05:09,125", "2024-01-31 10:05:09.125"},
        {"2024-01-31T10:05:09.12349", "2024-01-31 10:05:09.123"},
        {"2024-01-31T23:59:59.9995", "2024-02-01 00:00:00"}, // rounded up into the next day
        {"1899-12-29T06:00:00", "1899-12-29 06:00:00"},      // before day 0 the time still counts on
        {"1899-12-29 23:59:59.9999", "1899-12-30 00:00:00"},
        {"2024-02-30", nullptr},
        {"2024-1-31", nullptr},
        {"2024-01-31T24:00", nullptr},
        {"2024-01-31T10:05:09.", nullptr},
        {"2024-01-31T10:05.5", nullptr}, // a fraction only after seconds
        {"2024-01-31T10:05:09Z", nullptr},
        {" 2024-01-31", nullptr},
        {"2024-01-31T", nullptr},
        {"31/01/2024", nullptr},
    };
    TDateTime t;
    ASSERT_TRUE(TryISO8601ToDateTime("1899-12-29 06:00:00", t));
    EXPECT_DOUBLE_EQ(t, -1.25);
    for (const Case& c : cases) {
        TDateTime v = -12345;
        const bool read = TryISO8601ToDateTime(c.text, v);
        EXPECT_EQ(read ? DateTimeToISO8601(v) : std::string("-"), c.read ? c.read : "-") << c.text;
        if (!read) {
            EXPECT_EQ(v, -12345) << c.text << " left the output alone";
        }
    }
}

TEST(DateUtils, TellsIsoDateTimesWithAZone) {
    const std::pair<const char*, bool> cases[] = {
        {"2024-01-01T10:00:00Z", true},
        {"2024-01-01T10:00:00z", true},
        {"2024-01-01 10:00:00+02:00", true},
        {"2024-01-01T10:00:00.250-0530", true},
        {"2024-01-01T10:00+02", true},
        {"  2024-01-01T10:00:00,5Z \t", true},
        {"2024-01-01T10:00:00", false},
        {"2024-01-01", false},
        {"2024-01-01Z", false}, // a zone needs a time
        {"2024-01-01T10:00:00 +02:00", false},
        {"2024-01-01T10:00:00+2", false},
        {"2024-01-01T10:00:00+0200Z", false},
        {"2024-01-01T10:00:00+24:00", false},
        {"2024-01-01T10:00:00+02:60", false},
        {"2024-13-01T10:00:00Z", false},
        {"2024-01-01T10:00:00UTC", false},
        {"", false},
    };
    for (const auto& [text, zoned] : cases) EXPECT_EQ(IsIsoDateTimeWithZone(text), zoned) << text;
}

TEST(DateUtils, IsoTextsReadBackWhatWasWritten) {
    for (const TDateTime v :
         {EncodeDateTime(2026, 3, 7, 14, 5, 9, 0), EncodeDateTime(2026, 3, 7, 14, 5, 9, 1),
          EncodeDateTime(2026, 3, 7, 0, 0, 0, 999), EncodeDateTime(2, 1, 1, 23, 59, 59, 500),
          EncodeDateTime(1850, 6, 1, 12, 0, 0, 250)}) {
        const std::string text = DateTimeToISO8601(v);
        TDateTime back;
        ASSERT_TRUE(TryISO8601ToDateTime(text, back)) << text;
        EXPECT_EQ(DateTimeToISO8601(back), text);
        EXPECT_NEAR(back, v, 0.5 / static_cast<double>(MSecsPerDay)) << text;
    }
    EXPECT_EQ(TimeToISO8601(EncodeTime(10, 0, 0, 0)), "10:00:00"); // no fraction when there is none
    EXPECT_EQ(TimeToISO8601(EncodeTime(10, 0, 0, 50)), "10:00:00.050");
}

} // namespace
} // namespace kv
