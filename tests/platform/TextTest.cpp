// UTF-8 helpers, number conversions, Format and code pages.

#include "TestSupport.h"
#include "platform/Encoding.h"
#include "platform/Exceptions.h"
#include "platform/Format.h"
#include "platform/SysUtils.h"
#include "platform/Utf8.h"

#include <cmath>
#include <limits>
#include <optional>

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
    EXPECT_THROW(Format("%99999999999999999999d", 1), EConvertError);
    EXPECT_THROW(Format("%.99999999999999999999s", "a"), EConvertError);
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

TEST(Encoding, CodePagesByNumber) {
    const struct {
        int CodePage;
        std::string Bytes, Text;
    } cases[] = {
        {866, "\x8F\xE0\xA8\xA2\xA5\xE2", "Привет"},
        {1251, "\xCF\xF0\xE8\xE2\xE5\xF2", "Привет"},
        {437, "\x84\xC9\xE1", "ä╔ß"},
        {850, "\x90\xD5", "Éı"},
        {1250, "\x8A\xE8", "Šč"},
        {10000, "\x8A", "ä"},
        {932, "\x93\xFA\x96\x7B", "日本"},
        {936, "\xD6\xD0\xCE\xC4", "中文"},
        {950, "\xA4\xA4\xA4\xE5", "中文"},
        {949, "\xC7\xD1\xB1\xDB", "한글"},
        {932, "a\x93", "a\xEF\xBF\xBD"}, // a lead byte cut by the end
        {65001, "\xC3\xA9\xFF", "é\xEF\xBF\xBD"},
        {1252, "\x80\x81", "€\xC2\x81"}, // undefined bytes keep their number
        {99999, "\xE9", "é"},            // not available: Windows-1252
        {866, "", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.CodePage);
        EXPECT_EQ(DecodeCodePage(c.Bytes, c.CodePage), c.Text);
        std::string out = "x";
        TKvCodePageDecoder(c.CodePage).Append(out, c.Bytes);
        EXPECT_EQ(out, "x" + c.Text);
    }
    EXPECT_EQ(TKvCodePageDecoder(99999).CodePage(), 1252);
    EXPECT_TRUE(CodePageAvailable(kCodePageUtf8));
    EXPECT_FALSE(CodePageAvailable(0));
    EXPECT_FALSE(CodePageAvailable(-1252));
}

TEST(Encoding, CodePageNamesAndDisplay) {
    const std::pair<const char*, std::optional<int>> names[] = {
        {"cp1251", 1251},
        {"1251", 1251},
        {"windows-1251", 1251},
        {"CP866", 866},
        {" ibm437 ", 437},
        {"utf-8", 65001},
        {"UTF8", 65001},
        {"latin1", 28591},
        {"iso-8859-5", 28595},
        {"koi8-r", 20866},
        {"mac", 10000},
        {"cp", std::nullopt},
        {"cp1251x", std::nullopt},
        {"", std::nullopt},
        {"cp99999", std::nullopt},
        {"-866", std::nullopt},
    };
    for (const auto& [name, cp] : names) EXPECT_EQ(ParseCodePageName(name), cp) << name;
    for (int cp : {1251, 866, 65001, 28591, 932, 20866}) {
        const std::string shown = CodePageDisplayName(cp);
        EXPECT_EQ(ParseCodePageName(shown), cp) << shown; // what is shown can be given back
    }
    EXPECT_EQ(CodePageDisplayName(1251), "cp1251");
    EXPECT_EQ(CodePageDisplayName(65001), "utf-8");
}

} // namespace
} // namespace kv
