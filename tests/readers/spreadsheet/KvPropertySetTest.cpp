// Property-set streams (every kept value type, the code page of 8-bit strings, sections, damage) and the
// summary information read from them: which property ID or XML name fills which property, and the date
// conversions in a known time zone.

#include "readers/spreadsheet/KvPropertySet.h"
#include "platform/FormatError.h"
#include "platform/Streams.h"
#include "readers/spreadsheet/KvCompoundFile.h"
#include "readers/spreadsheet/KvI_Sum.h"

#include "support/CompoundFileBuilder.h"

#include <cstdlib>
#include <ctime>
#include <functional>
#include <gtest/gtest.h>
#include <optional>
#include <tuple>

namespace kv {
namespace {

using namespace test;

/// A value as "kind:value".
std::string Describe(const TKvPropertyValue& p) {
    if (p.Kind == pkInteger || p.Kind == pkBoolean)
        return (p.Kind == pkInteger ? "int:" : "bool:") + std::to_string(p.Integer);
    if (p.Kind == pkDouble) return "double:" + std::to_string(p.Double);
    if (p.Kind == pkString) return "text:" + p.Text;
    if (p.Kind == pkFileTime) return "filetime:" + std::to_string(p.FileTime);
    return p.Kind == pkEmpty ? "empty" : p.Kind == pkOther ? "other" : "?";
}

/// The sections of a stream: "<n>: 2=text:a 3=int:5" a line, <n> the FMTID's first byte; else the error.
std::string Read(const std::string& bytes) {
    try {
        std::string out;
        for (const TKvPropertySection& s : KvReadPropertySet(bytes)) {
            out += std::to_string(static_cast<uint8_t>(s.FormatId.at(0))) + ":";
            for (const TKvPropertyValue& p : s.Properties)
                out += " " + std::to_string(p.Id) + "=" + Describe(p);
            out += "\n";
        }
        return out;
    } catch (const EKvFormatError& e) {
        EXPECT_EQ(e.Format(), "Property set");
        return e.what();
    }
}

} // namespace

TEST(KvPropertySet, ValueTypesAndTheCodePageOf8BitStrings) {
    const std::string cyrillic = "\xCF\xF0\xE8\xE2\xE5\xF2"; // "Привет" in cp1251
    const std::vector<std::pair<std::vector<RawProperty>, std::string>> cases = {
        {{PropI2(2, -7)}, "2=int:-7"},
        {{Prop(2, 18, U32(0xFFFF))}, "2=int:65535"}, // VT_UI2
        {{PropI4(2, -100000)}, "2=int:-100000"},
        {{Prop(2, 19, U32(0xFFFFFFFF))}, "2=int:4294967295"}, // VT_UI4
        {{Prop(2, 20, U64(uint64_t(-5)))}, "2=int:-5"},       // VT_I8
        {{Prop(2, 16, U32(0xFF))}, "2=int:-1"},               // VT_I1
        {{Prop(2, 17, U32(0xFF))}, "2=int:255"},              // VT_UI1
        {{Prop(2, 11, U16(0xFFFF)), Prop(3, 11, U16(0))}, "2=bool:1 3=bool:0"},
        {{Prop(2, 4, U32(0x3FC00000)), Prop(3, 5, F64(-2.25))}, "2=double:1.500000 3=double:-2.250000"},
        {{Prop(2, 64, U64(128605103697712760))}, "2=filetime:128605103697712760"},
        {{PropString(2, std::string("ab\0cd", 5))}, "2=text:ab"}, // ends at its first NUL
        {{PropString(2, "no terminator", false)}, "2=text:no terminator"},
        {{Prop(2, 8, U32(4) + "bstr")}, "2=text:bstr"}, // VT_BSTR
        {{PropWString(2, "Größe €")}, "2=text:Größe €"},
        {{Prop(2, 0, ""), Prop(3, 1, "")}, "2=empty 3=empty"},
        {{Prop(2, 71, U32(4) + U32(0)), Prop(3, 0x101F, U32(0))}, "2=other 3=other"}, // clipboard, vector
        {{PropI2(1, 1251), PropString(2, cyrillic)}, "1=int:1251 2=text:Привет"},
        // the code page may come after the strings it applies to
        {{PropString(2, cyrillic), PropI2(1, 1251)}, "2=text:Привет 1=int:1251"},
        {{PropString(2, "caf\xE9")}, "2=text:café"}, // none: Windows-1252
        {{PropI2(1, 1252), PropString(2, "\x80")}, "1=int:1252 2=text:€"},
        {{PropI2(1, 12345), PropString(2, "caf\xE9")}, "1=int:12345 2=text:café"}, // unknown
        {{PropI2(1, 0), PropString(2, "caf\xE9")}, "1=int:0 2=text:café"},
        {{PropI2(1, 1200), PropString(2, std::string("O\0K\0\0\0X\0", 8), false)}, "1=int:1200 2=text:OK"},
        {{PropI2(1, -535), PropString(2, "caf\xC3\xA9")}, "1=int:-535 2=text:café"}, // 65001 as VT_I2
        {{PropI4(1, 1251), PropString(2, "caf\xE9")}, "1=int:1251 2=text:café"},     // not a VT_I2: ignored
        {{{0, U32(1) + U32(5) + U32(4) + "abc\0"}, PropI4(5, 9)}, "5=int:9"}, // the dictionary left out
    };
    for (const auto& [properties, expected] : cases)
        EXPECT_EQ(Read(PropertySetStream({{kSummaryFormatId, properties}})), "224: " + expected + "\n");
}

TEST(KvPropertySet, SectionsInOrderAndDamage) {
    EXPECT_EQ(Read(PropertySetStream({{kDocSummaryFormatId, {PropI4(4, 100)}},
                                      {std::string(16, 'u'), {PropString(2, "user")}}})),
              "2: 4=int:100\n117: 2=text:user\n");
    EXPECT_EQ(Read(PropertySetStream({})), "");
    const std::string good = PropertySetStream({{kSummaryFormatId, {PropString(2, "Title"), PropI4(14, 3)}}});
    // The section starts at 48: size, count, then (ID, offset) pairs from 56, values from 72.
    const std::vector<std::tuple<const char*, std::function<void(std::string&)>, const char*>> cases = {
        {"byte order", [](auto& b) { b[0] = 0; }, "damaged file at byte 0: the byte order mark is not FFFE"},
        {"short header", [](auto& b) { b.resize(20); },
         "unexpected end of stream at byte 2: reading 22 bytes, 18 left"},
        {"section count", [](auto& b) { PutU32(b, 24, 1000000); }, "the section headers need 20000000 bytes"},
        {"section offset", [](auto& b) { PutU32(b, 44, 5000); }, "a section at byte 5000"},
        {"section size", [](auto& b) { PutU32(b, 48, 4); }, "the section's size is 4"},
        {"property count", [](auto& b) { PutU32(b, 52, 0x10000000); }, "the property offsets need"},
        {"property offset", [](auto& b) { PutU32(b, 60, 400); },
         "property 2 at offset 400, outside its section"},
        {"string length", [](auto& b) { PutU32(b, 76, 0x7FFFFFFF); },
         "the string's bytes need 2147483647 bytes"},
        // the count's offset at its section's last 4 bytes
        {"value cut", [](auto& b) { PutU32(b, 68, static_cast<uint32_t>(b.size() - 52)); },
         "unexpected end of property"},
        // 8 offsets all naming the one 12-byte string of an 84-byte section
        {"every offset naming one string",
         [](auto& b) {
             std::vector<RawProperty> eight;
             for (uint32_t i = 0; i < 8; ++i) eight.push_back(PropString(2 + i, "abc"));
             b = PropertySetStream({{kSummaryFormatId, eight}});
             for (int i = 0; i < 8; ++i) PutU32(b, 60 + 8 * i, 72);
             PutU32(b, 48, 84);
         },
         "the string values take more than the section's"},
        // A section size 4 bytes past the stream's end is cut to it: the values lie inside.
        {"size past the end", [](auto& b) { PutU32(b, 48, static_cast<uint32_t>(b.size() - 48 + 4)); },
         "224: 2=text:Title 14=int:3\n"},
    };
    for (const auto& [name, patch, message] : cases) {
        std::string bytes = good;
        patch(bytes);
        EXPECT_NE(Read(bytes).find(message), std::string::npos) << name << ": " << Read(bytes);
    }
}

// ---- summary information ----

namespace {

/// Sets TZ for one test and restores it afterwards.
struct ScopedTimeZone {
    std::optional<std::string> saved;
    explicit ScopedTimeZone(const char* tz) {
        if (const char* old = std::getenv("TZ")) saved = old;
        setenv("TZ", tz, 1);
        tzset();
    }
    ~ScopedTimeZone() {
        saved ? setenv("TZ", saved->c_str(), 1) : unsetenv("TZ");
        tzset();
    }
};

uint64_t FileTimeOfUnix(int64_t seconds) {
    return static_cast<uint64_t>(seconds + 11644473600LL) * 10000000;
}

using S = TKvISummaryInformation;

/// Every property as "Name=value" for the ones that are not empty or 0.
std::string Filled(const S& s) {
    const auto text = [](const auto& v) -> std::string {
        if constexpr (std::is_same_v<std::decay_t<decltype(v)>, std::string>)
            return v;
        else if constexpr (std::is_same_v<std::decay_t<decltype(v)>, int>)
            return v ? std::to_string(v) : "";
        else
            return v ? DateTimeToISO8601(v) : "";
    };
    // clang-format off
#define F(name) std::pair(#name, text(s.name()))
    const std::pair<const char*, std::string> all[] = {
        F(AppName), F(Author), F(CharCount), F(Comments), F(Created), F(EditTime), F(Keywords), F(LastAuthor),
        F(LastPrinted), F(LastSaved), F(PageCount), F(RevNumber), F(Subject), F(Template), F(Title), F(WordCount),
        F(Category), F(PresentationTarget), F(ByteCount), F(LineCount), F(ParagraphCount), F(SlideCount),
        F(NoteCount), F(HiddenSlideCount), F(MMClipCount), F(Manager), F(Company), F(CharCount2)};
#undef F
    // clang-format on
    std::string out;
    for (const auto& [name, v] : all)
        if (!v.empty()) out += (out.empty() ? "" : " ") + std::string(name) + "=" + v;
    return out;
}

} // namespace

TEST(KvI_Sum, EachPropertyIdFillsItsPropertyWithAValueOfItsKind) {
    // The IDs 1 to 19 of each set with a text, a count or a date as its kind wants: IDs of neither table
    // (1 the code page, 17 and 19 of the summary set, 11 to 13 of the document set...) change nothing.
    S summary, document;
    for (uint32_t id = 1; id <= 19; ++id) {
        const bool isDate = id >= 11 && id <= 13, isCount = id == 10 || (id >= 14 && id <= 16);
        summary.ParseProperty(id,
                              isDate    ? Variant(39521.5 + id)
                              : isCount ? Variant(int(id * 10))
                                        : Variant("s" + std::to_string(id)),
                              false);
        const bool docCount = (id >= 4 && id <= 10) || id == 17;
        document.ParseProperty(id, docCount ? Variant(int(id * 10)) : Variant("d" + std::to_string(id)),
                               true);
    }
    EXPECT_EQ(Filled(summary), "AppName=s18 Author=s4 CharCount=160 Comments=s6 Created=2008-03-26 12:00:00 "
                               "EditTime=100 Keywords=s5 LastAuthor=s8 LastPrinted=2008-03-25 12:00:00 "
                               "LastSaved=2008-03-27 12:00:00 PageCount=140 RevNumber=s9 Subject=s3 "
                               "Template=s7 Title=s2 WordCount=150");
    EXPECT_EQ(Filled(document), "Category=d2 PresentationTarget=d3 ByteCount=40 LineCount=50 "
                                "ParagraphCount=60 SlideCount=70 NoteCount=80 HiddenSlideCount=90 "
                                "MMClipCount=100 Manager=d14 Company=d15 CharCount2=170");
    // Values of the wrong kind give empty or 0.
    S s;
    s.ParseProperty(14, Variant("many"), false); // a count given as text that is no number
    s.ParseProperty(15, Variant("12"), false);   // one that is
    s.ParseProperty(12, Variant("yesterday"), false);
    s.ParseProperty(2, Variant(42), false); // a title given as a number is its text
    s.ParseProperty(4, Variant(), false);
    s.ParseProperty(16, Variant(1e12), false); // beyond an integer
    s.ParseDocProperty(15, Variant("Acme"));   // the document set's column itself
    EXPECT_EQ(Filled(s), "Title=42 WordCount=12 Company=Acme");
}

TEST(KvI_Sum, XMLPairsAssignAndClear) {
    // Names are compared exactly: the last two change nothing.
    const std::string pairs =
        "dc:title=Budget;Application=Calc;dc:creator=Ann;dc:description=Notes;cp:keywords=a, "
        "b;cp:lastModifiedBy=Bob;cp:revision=7;dc:subject=Sales;Template=Normal;Company=Acme;Characters=120;"
        "TotalTime=35;Pages=3;Words=-4;Lines=9;Paragraphs=2;CharactersWithSpaces=140;DC:TITLE=x;dc:title =x";
    S all;
    for (size_t at = 0, eq, end; at < pairs.size(); at = end + 1) {
        eq = pairs.find('=', at), end = std::min(pairs.find(';', at), pairs.size());
        all.ParseXMLPair(pairs.substr(at, eq - at), pairs.substr(eq + 1, end - eq - 1));
    }
    const std::string filled =
        "AppName=Calc Author=Ann CharCount=120 Comments=Notes EditTime=35 Keywords=a, b "
        "LastAuthor=Bob PageCount=3 RevNumber=7 Subject=Sales Template=Normal Title=Budget "
        "WordCount=-4 LineCount=9 ParagraphCount=2 Company=Acme CharCount2=140";
    EXPECT_EQ(Filled(all), filled);
    S copy;
    copy.ParseXMLPair("dcterms:created", "2008-03-14T10:05:30Z");
    EXPECT_EQ(Filled(copy), "Created=2008-03-14 10:05:30");
    copy.Assign(all);
    EXPECT_EQ(Filled(copy), filled);
    copy.Clear();
    EXPECT_EQ(Filled(copy), "");
    copy.ParseXMLPair("Pages", "x"); // bad text is 0
    copy.ParseXMLPair("dcterms:modified", "2008-03-14T10:05:30+05:00");
    EXPECT_EQ(Filled(copy), "LastSaved=2008-03-14 10:05:30"); // the zone ignored
    const std::pair<const char*, const char*> dates[] = {
        {"2008-13-01T06:00:00Z", "1899-12-30 06:00:00"}, // time only
        {"2008-02-00T06:00:00Z", "1899-12-30 06:00:00"},
        {"2008-02-31T06:00:00Z", "1899-12-30 06:00:00"}, // no such day
        {"2008-03-14", "2008-03-14 00:00:00"},           // no time
        {"1850-06-01T12:00:00Z", "1850-06-01 12:00:00"},
        {"garbage", "1899-12-30 00:00:00"},
        {"", "1899-12-30 00:00:00"}};
    for (const auto& [text, date] : dates)
        EXPECT_EQ(DateTimeToISO8601(S::XMLDateToDateTime(text)), date) << text;
}

TEST(KvI_Sum, FileTimesGoThroughLocalTime) {
    // Dates in two-second steps from 1980 to 2107; elapsed times as the minutes of a local time.
    const uint64_t at = FileTimeOfUnix(1205489131),
                   early = FileTimeOfUnix(315532799); // 10:05:31, 1979's last
    const uint64_t ninetyMinutes = 90ULL * 60 * 10000000;
    const std::vector<std::tuple<const char*, uint64_t, const char*, int>> cases = {
        {"UTC0", at, "2008-03-14 10:05:30", 5}, // the odd second dropped
        {"<-0530>5:30", at, "2008-03-14 04:35:30", 35},
        {"UTC0", early, "1899-12-30 00:00:00", 59},
        {"<+01>-1", early, "1980-01-01 00:59:58", 59},                    // the same instant, an hour east
        {"UTC0", FileTimeOfUnix(4354819200LL), "1899-12-30 00:00:00", 0}, // 2108-01-01: past the packed years
        {"UTC0", 0, "1899-12-30 00:00:00", 0},
        {"UTC0", ninetyMinutes, "1899-12-30 00:00:00", 30},
        {"<-05>5", ninetyMinutes, "1899-12-30 00:00:00", 30},      // whole hours leave the minutes alone
        {"<+0530>-5:30", ninetyMinutes, "1899-12-30 00:00:00", 0}, // 1:30 + 5:30
        {"UTC0", 3ULL * 3600 * 10000000, "1899-12-30 00:00:00", 0},
    };
    for (const auto& [zone, fileTime, date, minutes] : cases) {
        ScopedTimeZone tz(zone);
        EXPECT_EQ(DateTimeToISO8601(S::FileTimeToDateTime(fileTime)), date) << zone << " " << fileTime;
        EXPECT_EQ(S::FileTimeToElapsedTime(fileTime), minutes) << zone << " " << fileTime;
    }
}

TEST(KvI_Sum, ReadsBothPropertySetsOfACompoundFile) {
    ScopedTimeZone tz("UTC0");
    const std::string kDoc = "\005DocumentSummaryInformation";
    // The properties and the warning read from a workbook with these property-set streams.
    const auto read = [&](const std::string& summary, const std::string& document, bool damage = false) {
        CompoundFileBuilder b;
        b.Stream("Workbook", std::string(100, 'w'));
        if (!summary.empty()) b.Stream("\x05SummaryInformation", summary);
        if (!document.empty()) b.Stream(kDoc, document);
        std::string bytes = b.Build();
        if (damage) PutU32(bytes, b.MiniFatEntry(b.Start(kDoc)), 20);
        TMemoryStream stream(bytes);
        TKvCompoundFile file(stream);
        S s;
        const std::string warning = s.ReadPropertySets(file);
        return Filled(s) + (warning.empty() ? "" : " | " + warning);
    };
    const std::string summary = PropertySetStream(
        {{kSummaryFormatId,
          {PropI2(1, 1251), PropString(2, "\xCE\xF2\xF7\xE5\xF2"), PropString(4, "Ann"),
           Prop(12, 64, U64(FileTimeOfUnix(1205489131))), Prop(10, 64, U64(90ULL * 60 * 10000000)),
           PropI4(14, 3), Prop(17, 71, U32(4) + U32(0))}}});
    const std::string document = PropertySetStream(
        {{kDocSummaryFormatId, {PropWString(15, "Acme"), PropI4(4, 0), PropI4(5, 12), Prop(11, 11, U16(1))}},
         // user-defined properties: their IDs mean nothing to the table
         {std::string(16, 'u'), {PropString(2, "user category"), PropI4(4, 99)}}});
    // The edit time, a duration, reads as a date before 1980 and so as 0.
    EXPECT_EQ(read(summary, document),
              "Author=Ann Created=2008-03-14 10:05:30 PageCount=3 Title=Отчет LineCount=12 Company=Acme");
    // A summary stream of another FMTID is not read; neither is a first document section of another.
    EXPECT_EQ(read(PropertySetStream({{std::string(16, 'x'), {PropString(2, "other")}}}),
                   PropertySetStream({{std::string(16, 'u'), {PropString(15, "user")}}})),
              "");
    EXPECT_EQ(read("", ""), "");
    // Damage is a warning, and the other set is still read.
    std::string cut = PropertySetStream({{kSummaryFormatId, {PropString(2, "Title")}}});
    PutU32(cut, 44, 5000);
    const std::string acme = PropertySetStream({{kDocSummaryFormatId, {PropString(15, "Acme")}}});
    EXPECT_EQ(read(cut, acme),
              "Company=Acme | The document properties in SummaryInformation could not be read: Property set: "
              "unexpected end of stream at byte 80: a section at byte 5000 of 80");
    EXPECT_NE(read("", acme, true)
                  .find("| The document properties in DocumentSummaryInformation could not be "
                        "read: Compound file: damaged file at byte"),
              std::string::npos);
}

} // namespace kv
