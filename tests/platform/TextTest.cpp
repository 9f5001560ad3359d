// UTF-8 helpers, number conversions, Format and code pages.

#include "TestSupport.h"
#include "platform/Encoding.h"
#include "platform/Exceptions.h"
#include "platform/Format.h"
#include "platform/SysUtils.h"
#include "platform/Utf8.h"

#include <cmath>
#include <limits>

namespace kv {
namespace {

TEST(Utf8, CountsAndCutsCodePoints) {
    const std::string s = "h\xC3\xA9llo \xE2\x82\xAC \xF0\x9F\x98\x80!"; // "héllo € 😀!"
    EXPECT_EQ(Utf8Length(s), 10u);
    EXPECT_EQ(Utf8Copy(s, 2, 4), "\xC3\xA9llo");
    EXPECT_EQ(Utf8Copy(s, 9, 5), "\xF0\x9F\x98\x80!");
    EXPECT_EQ(Utf8Copy(s, 0, 1), "h"); // a start below 1 counts from the first character
    EXPECT_EQ(Utf8Copy(s, 11, 3), "");
    EXPECT_EQ(Utf8Copy(s, 3, 0), "");
    EXPECT_EQ(Utf8Pos("\xE2\x82\xAC", s), 7);
    EXPECT_EQ(Utf8Pos("x", s), 0);
    EXPECT_EQ(Utf8Pos("", s), 0);
}

TEST(Utf8, MalformedBytesCountAsOneCharacterEach) {
    const std::string bad = "a\xC3"
                            "b\xFF\xE2\x82"; // truncated and invalid sequences
    EXPECT_FALSE(IsValidUtf8(bad));
    EXPECT_EQ(Utf8Length(bad), 6u);
    EXPECT_FALSE(IsValidUtf8("\xC0\xAF"));     // overlong "/"
    EXPECT_FALSE(IsValidUtf8("\xED\xA0\x80")); // a surrogate
    EXPECT_TRUE(IsValidUtf8("\xEF\xBF\xBD"));  // U+FFFD itself is fine
    EXPECT_EQ(Utf8UpperCase(bad), "A\xC3"
                                  "B\xFF\xE2\x82"); // malformed bytes pass through unchanged
}

TEST(Utf8, CaseMappingAndUtf16) {
    EXPECT_EQ(Utf8UpperCase("stra\xC3\x9F"
                            "e \xC3\xA9t\xC3\xA9"),
              "STRA\xC3\x9F"
              "E \xC3\x89T\xC3\x89");
    EXPECT_EQ(Utf8LowerCase("\xC3\x84PFEL"), "\xC3\xA4pfel");
    // "A€😀" in UTF-16 LE and BE, with a surrogate pair.
    EXPECT_EQ(Utf16ToUtf8(std::string("A\0\xAC\x20\x3D\xD8\x00\xDE", 8), false),
              "A\xE2\x82\xAC\xF0\x9F\x98\x80");
    EXPECT_EQ(Utf16ToUtf8(std::string("\0A\x20\xAC", 4), true), "A\xE2\x82\xAC");
    EXPECT_EQ(Utf16ToUtf8(std::string("\x3D\xD8"
                                      "A\0",
                                      4),
                          false),
              "\xEF\xBF\xBD"
              "A"); // unpaired surrogate
}

TEST(SysUtils, TrimRemovesControlCharacters) {
    EXPECT_EQ(Trim("\t\r\n  a b \x01"), "a b");
    EXPECT_EQ(TrimLeft("  a "), "a ");
    EXPECT_EQ(TrimRight("  a \n"), "  a");
    EXPECT_EQ(Trim(" \xC2\xA0x"), "\xC2\xA0x"); // a no-break space is text, not a blank
}

TEST(SysUtils, TextComparisons) {
    EXPECT_TRUE(SameText("Name", "nAME"));
    EXPECT_TRUE(SameText("\xC3\xA9t\xC3\xA9", "\xC3\x89T\xC3\x89"));
    EXPECT_FALSE(SameText("Name", "Names"));
    EXPECT_LT(CompareText("apple", "Banana"), 0);
    EXPECT_GT(CompareStr("apple", "Banana"), 0); // byte order: lower case after upper case
    EXPECT_TRUE(StartsText("ab", "ABC"));
}

TEST(SysUtils, IntegerParsing) {
    struct Case {
        const char* text;
        bool ok;
        int64_t value;
    };
    const Case cases[] = {
        {"42", true, 42},
        {"  -17", true, -17},
        {"+5", true, 5},
        {"$FF", true, 255},
        {"0x1f", true, 31},
        {"-$10", true, -16},
        {"9223372036854775807", true, INT64_MAX},
        {"-9223372036854775808", true, INT64_MIN},
        {"9223372036854775808", false, 0},
        {"12 ", false, 0},
        {"1.5", false, 0},
        {"", false, 0},
        {"-", false, 0},
        {"$", false, 0},
        {"abc", false, 0},
    };
    for (const Case& c : cases) {
        int64_t v = 0;
        EXPECT_EQ(TryStrToInt64(c.text, v), c.ok) << c.text;
        if (c.ok) {
            EXPECT_EQ(v, c.value) << c.text;
        }
    }
    int i;
    EXPECT_FALSE(TryStrToInt("3000000000", i));
    EXPECT_TRUE(TryStrToInt("$FFFFFFFF", i));
    EXPECT_EQ(i, -1);
    try {
        StrToInt("1x");
        FAIL();
    } catch (const EConvertError& e) {
        EXPECT_STREQ(e.what(), "'1x' is not a valid integer value");
    }
}

TEST(SysUtils, FloatParsingUsesTheDecimalSeparator) {
    const TFormatSettings us = test::UsSettings(), de = test::GermanSettings();
    struct Case {
        const char* text;
        const TFormatSettings* fs;
        bool ok;
        double value;
    };
    const Case cases[] = {
        {"3.25", &us, true, 3.25}, {" -0.5 ", &us, true, -0.5}, {".5", &us, true, 0.5},
        {"5.", &us, true, 5},      {"1e3", &us, true, 1000},    {"2.5E-2", &us, true, 0.025},
        {"3,25", &de, true, 3.25}, {"3.25", &de, false, 0},     {"1,000.5", &us, false, 0},
        {".", &us, false, 0},      {"", &us, false, 0},         {"1e", &us, false, 0},
        {"e5", &us, false, 0},     {"1e999", &us, false, 0},    {"1e-999", &us, true, 0},
        {"nan", &us, false, 0},    {"inf", &us, false, 0},      {"1 2", &us, false, 0},
    };
    for (const Case& c : cases) {
        double v = -1;
        EXPECT_EQ(TryStrToFloat(c.text, v, *c.fs), c.ok) << c.text;
        if (c.ok) {
            EXPECT_DOUBLE_EQ(v, c.value) << c.text;
        }
    }
    std::string longNumber = "0." + std::string(200, '3');
    double v;
    ASSERT_TRUE(TryStrToFloat(longNumber, v, us));
    EXPECT_NEAR(v, 1.0 / 3, 1e-15);
    // The largest double, written with fifteen digits, rounds up past itself and still reads back.
    const double largest = std::numeric_limits<double>::max();
    ASSERT_TRUE(TryStrToFloat(FloatToStr(-largest), v, us));
    EXPECT_EQ(v, -largest);
    EXPECT_FALSE(TryStrToFloat("1.8E308", v, us)); // beyond it is no number
}

TEST(SysUtils, FloatToStrGivesFifteenSignificantDigits) {
    const std::pair<double, const char*> cases[] = {
        {0, "0"},
        {-0.0, "0"},
        {6, "6"},
        {0.1 + 0.2, "0.3"},
        {1.0 / 3, "0.333333333333333"},
        {-2.5, "-2.5"},
        {123456789012345, "123456789012345"},
        {1e15, "1E15"},
        {1.5e20, "1.5E20"},
        {0.00001, "0.00001"},
        {0.000001, "1E-6"},
        {1.25e-7, "1.25E-7"},
        {1234.5678, "1234.5678"},
        {std::numeric_limits<double>::quiet_NaN(), "NAN"},
        {-std::numeric_limits<double>::infinity(), "-INF"},
    };
    for (auto& [value, text] : cases) EXPECT_EQ(FloatToStr(value, test::UsSettings()), text) << text;
    EXPECT_EQ(FloatToStr(1234.5, test::GermanSettings()), "1234,5");
    EXPECT_EQ(FloatToStrInvariant(0.5), "0.5");
    EXPECT_EQ(FloatToStrFixed(2.5, 2, test::GermanSettings()), "2,50");
}

TEST(Format, DirectivesOfTheMessageTexts) {
    EXPECT_EQ(Format("Parse error: illegal character \"%s\" at position %d.", "#", 7),
              "Parse error: illegal character \"#\" at position 7.");
    EXPECT_EQ(Format("%x|%.2x|%.4X|%%", 255, 10, 171), "FF|0A|00AB|%");
    EXPECT_EQ(Format("[%5d][%-4s][%.3d]", 42, "ab", -7), "[   42][ab  ][-007]");
    EXPECT_EQ(Format("%.1f", 2.25), "2.2");
    EXPECT_THROW(Format("%d", "text"), EConvertError);
    EXPECT_THROW(Format("%s %s", "one"), EConvertError);
    EXPECT_THROW(Format("100%"), EConvertError);
}

TEST(Encoding, CodePagesAndDetection) {
    EXPECT_EQ(CodePageToUtf8("\x80\xE9\x81", cpWindows1252), "\xE2\x82\xAC\xC3\xA9\xC2\x81");
    EXPECT_EQ(CodePageToUtf8("\xC9\xCD", cpOEM437), "\xE2\x95\x94\xE2\x95\x90");
    EXPECT_EQ(CodePageToUtf8("\xC1\xF1\x40", cpEBCDIC037), "A1 ");
    EXPECT_EQ(Utf8ToCodePage("\xE2\x82\xAC"
                             "A\xE4\xB8\xAD",
                             cpWindows1252),
              "\x80"
              "A?");

    EXPECT_EQ(DetectTextEncoding("\xFF\xFE"
                                 "a\0"),
              encUtf16LE);
    EXPECT_EQ(DetectTextEncoding("\xFE\xFF"), encUtf16BE);
    EXPECT_EQ(DetectTextEncoding("\xEF\xBB\xBFx"), encUtf8Bom);
    EXPECT_EQ(DetectTextEncoding("caf\xC3\xA9"), encUtf8);
    EXPECT_EQ(DetectTextEncoding("caf\xE9"), encAnsi);
    EXPECT_EQ(DecodeText("caf\xE9"), "caf\xC3\xA9");
    EXPECT_EQ(DecodeText("\xEF\xBB\xBF"
                         "a\xFF"),
              "a\xEF\xBF\xBD"); // a BOM promises UTF-8
    EXPECT_EQ(DecodeText("\xEF\xBB\xBF"
                         "abc"),
              "abc");
    EXPECT_EQ(DecodeText(std::string("\xFF\xFE"
                                     "a\0b\0",
                                     6)),
              "ab");
}

TEST(Encoding, Utf8WithStrayWindows1252Bytes) {
    const std::pair<const char*, const char*> cases[] = {
        {"Z\xC3\xBCrich", "Z\xC3\xBCrich"},                                   // valid sequences stay
        {"M\xFCller", "M\xC3\xBCller"},                                       // a lead byte before ASCII
        {"\x80\x9F", "\xE2\x82\xAC\xC5\xB8"},                                 // continuation bytes alone
        {"\xE2\x82", "\xC3\xA2\xE2\x80\x9A"},                                 // a sequence cut short
        {"\xC0\xAF", "\xC3\x80\xC2\xAF"},                                     // overlong
        {"\xED\xA0\x80", "\xC3\xAD\xC2\xA0\xE2\x82\xAC"},                     // a surrogate
        {"\xE9\xC3\xA9\xF0\x9F\x98\x80", "\xC3\xA9\xC3\xA9\xF0\x9F\x98\x80"}, // a stray byte, then valid
        {"", ""},
    };
    for (const auto& [bytes, text] : cases) {
        std::string out = "x";
        AppendUtf8OrWindows1252(out, bytes);
        EXPECT_EQ(out, std::string("x") + text) << bytes;
    }
}

} // namespace
} // namespace kv
