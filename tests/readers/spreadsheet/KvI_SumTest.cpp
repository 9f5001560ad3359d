// Summary information: which property ID or XML name fills which property, the date conversions in a
// known time zone, and the two property-set streams of a compound file (built, and of the corpus).

#include "readers/spreadsheet/KvI_Sum.h"
#include "platform/Streams.h"
#include "readers/spreadsheet/KvCompoundFile.h"

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
using Getter = std::function<std::string(const S&)>;
Getter G(const std::string& (S::*get)() const) {
    return [get](const S& s) { return (s.*get)(); };
}
Getter G(int (S::*get)() const) {
    return [get](const S& s) { return std::to_string((s.*get)()); };
}
Getter G(TDateTime (S::*get)() const) {
    return [get](const S& s) { return (s.*get)() == 0 ? std::string() : DateTimeToISO8601((s.*get)()); };
}

/// Every property as "Name=value" for the ones that are not empty or 0.
std::string Filled(const S& s) {
    const std::vector<std::pair<const char*, Getter>> all = {
        {"AppName", G(&S::AppName)},
        {"Author", G(&S::Author)},
        {"CharCount", G(&S::CharCount)},
        {"Comments", G(&S::Comments)},
        {"Created", G(&S::Created)},
        {"EditTime", G(&S::EditTime)},
        {"Keywords", G(&S::Keywords)},
        {"LastAuthor", G(&S::LastAuthor)},
        {"LastPrinted", G(&S::LastPrinted)},
        {"LastSaved", G(&S::LastSaved)},
        {"PageCount", G(&S::PageCount)},
        {"RevNumber", G(&S::RevNumber)},
        {"Subject", G(&S::Subject)},
        {"Template", G(&S::Template)},
        {"Title", G(&S::Title)},
        {"WordCount", G(&S::WordCount)},
        {"Category", G(&S::Category)},
        {"PresentationTarget", G(&S::PresentationTarget)},
        {"ByteCount", G(&S::ByteCount)},
        {"LineCount", G(&S::LineCount)},
        {"ParagraphCount", G(&S::ParagraphCount)},
        {"SlideCount", G(&S::SlideCount)},
        {"NoteCount", G(&S::NoteCount)},
        {"HiddenSlideCount", G(&S::HiddenSlideCount)},
        {"MMClipCount", G(&S::MMClipCount)},
        {"Manager", G(&S::Manager)},
        {"Company", G(&S::Company)},
        {"CharCount2", G(&S::CharCount2)}};
    std::string out;
    for (const auto& [name, get] : all) {
        const std::string v = get(s);
        if (!v.empty() && v != "0") out += (out.empty() ? "" : " ") + std::string(name) + "=" + v;
    }
    return out;
}

} // namespace

TEST(KvI_Sum, EachPropertyIdFillsItsProperty) {
    // The IDs 1 to 19 of each set with a text, a count or a date as its kind wants: IDs of neither table
    // (1 the code page, 17 and 19 of the summary set, 11 to 13 of the document set...) change nothing.
    TKvISummaryInformation summary, document;
    for (uint32_t id = 1; id <= 19; ++id) {
        const bool isDate = id >= 11 && id <= 13;
        const bool isCount = id == 10 || (id >= 14 && id <= 16);
        const Variant v = isDate    ? Variant(39521.5 + id)
                          : isCount ? Variant(int(id * 10))
                                    : Variant("s" + std::to_string(id));
        summary.ParseProperty(id, v, false);
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
    // ParseDocProperty is the document set's column itself.
    TKvISummaryInformation direct;
    direct.ParseDocProperty(15, Variant("Acme"));
    EXPECT_EQ(Filled(direct), "Company=Acme");
}

TEST(KvI_Sum, ValuesOfTheWrongKindGiveEmptyOrZero) {
    TKvISummaryInformation s;
    s.ParseProperty(14, Variant("many"), false); // a count given as text that is no number
    s.ParseProperty(15, Variant("12"), false);   // one that is
    s.ParseProperty(12, Variant("yesterday"), false);
    s.ParseProperty(2, Variant(42), false); // a title given as a number is its text
    s.ParseProperty(4, Variant(), false);
    s.ParseProperty(16, Variant(1e12), false); // beyond an integer
    EXPECT_EQ(Filled(s), "Title=42 WordCount=12");
}

TEST(KvI_Sum, XMLPairs) {
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
    EXPECT_EQ(Filled(all),
              "AppName=Calc Author=Ann CharCount=120 Comments=Notes EditTime=35 Keywords=a, b "
              "LastAuthor=Bob PageCount=3 RevNumber=7 Subject=Sales Template=Normal Title=Budget "
              "WordCount=-4 LineCount=9 ParagraphCount=2 Company=Acme CharCount2=140");
    const std::vector<std::tuple<const char*, const char*, const char*>> cases = {
        {"Pages", "x", ""}, // bad text is 0
        {"dcterms:created", "2008-03-14T10:05:30Z", "Created=2008-03-14 10:05:30"},
        {"dcterms:modified", "2008-03-14T10:05:30+05:00", "LastSaved=2008-03-14 10:05:30"}, // zone ignored
        {"dcterms:created", "2008-13-01T06:00:00Z", "Created=1899-12-30 06:00:00"},         // time only
        {"dcterms:created", "2008-02-00T06:00:00Z", "Created=1899-12-30 06:00:00"},
        {"dcterms:created", "2008-02-31T06:00:00Z", "Created=1899-12-30 06:00:00"}, // no such day
        {"dcterms:created", "2008-03-14", "Created=2008-03-14 00:00:00"},           // no time
        {"dcterms:created", "1850-06-01T12:00:00Z", "Created=1850-06-01 12:00:00"},
        {"dcterms:created", "garbage", ""},
        {"dcterms:created", "", ""}};
    for (const auto& [name, value, expected] : cases) {
        S s;
        s.ParseXMLPair(name, value);
        EXPECT_EQ(Filled(s), expected) << name << " " << value;
    }
}

TEST(KvI_Sum, ClearAndAssign) {
    S a, b;
    a.ParseXMLPair("dc:title", "T");
    a.ParseXMLPair("Pages", "4");
    a.ParseXMLPair("dcterms:created", "2008-03-14T10:05:30Z");
    a.ParseProperty(15, Variant("Acme"), true);
    b.ParseXMLPair("dc:creator", "other");
    b.Assign(a);
    EXPECT_EQ(Filled(b), "Created=2008-03-14 10:05:30 PageCount=4 Title=T Company=Acme");
    b.Clear();
    EXPECT_EQ(Filled(b), "");
    EXPECT_EQ(b.Created(), 0);
}

TEST(KvI_Sum, FileTimesGoThroughLocalTime) {
    // Dates in two-second steps from 1980 to 2107; elapsed times as the minutes of a local time.
    const uint64_t at = FileTimeOfUnix(1205489131),
                   early = FileTimeOfUnix(315532799); // 10:05:31, 1979's last
    const uint64_t ninetyMinutes = 90ULL * 60 * 10000000;
    const std::vector<std::tuple<const char*, uint64_t, const char*, int>> cases = {
        {"UTC0", at, "2008-03-14 10:05:30", 5}, // the odd second dropped
        {"<+03>-3", at, "2008-03-14 13:05:30", 5},
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

namespace {

const std::string kDocStream = "\005DocumentSummaryInformation";

/// The properties and the warning read from a workbook with these property-set streams.
std::string ReadSets(const std::string& summary, const std::string& document, bool damage = false) {
    CompoundFileBuilder b;
    b.Stream("Workbook", std::string(100, 'w'));
    if (!summary.empty()) b.Stream("\x05SummaryInformation", summary);
    if (!document.empty()) b.Stream(kDocStream, document);
    std::string bytes = b.Build();
    if (damage) PutU32(bytes, b.MiniFatEntry(b.Start(kDocStream)), 20);
    TMemoryStream stream(bytes);
    TKvCompoundFile file(stream);
    S s;
    const std::string warning = s.ReadPropertySets(file);
    return Filled(s) + (warning.empty() ? "" : " | " + warning);
}

} // namespace

TEST(KvI_Sum, ReadsBothPropertySetsOfACompoundFile) {
    ScopedTimeZone tz("UTC0");
    const std::string summary = PropertySetStream(
        {{kSummaryFormatId,
          {PropI2(1, 1251), PropString(2, "\xCE\xF2\xF7\xE5\xF2"), PropString(4, "Ann"),
           PropFileTime(12, FileTimeOfUnix(1205489131)), PropFileTime(10, 90ULL * 60 * 10000000),
           PropI4(14, 3), Prop(17, 71, U32(4) + U32(0))}}});
    const std::string document = PropertySetStream(
        {{kDocSummaryFormatId, {PropWString(15, "Acme"), PropI4(4, 0), PropI4(5, 12), PropBool(11, true)}},
         // user-defined properties: their IDs mean nothing to the table
         {std::string(16, 'u'), {PropString(2, "user category"), PropI4(4, 99)}}});
    // The edit time, a duration, reads as a date before 1980 and so as 0.
    EXPECT_EQ(ReadSets(summary, document),
              "Author=Ann Created=2008-03-14 10:05:30 PageCount=3 Title=Отчет LineCount=12 Company=Acme");
    // A summary stream of another FMTID is not read; neither is a first document section of another.
    EXPECT_EQ(ReadSets(PropertySetStream({{std::string(16, 'x'), {PropString(2, "other")}}}),
                       PropertySetStream({{std::string(16, 'u'), {PropString(15, "user")}}})),
              "");
    EXPECT_EQ(ReadSets("", ""), "");
}

TEST(KvI_Sum, DamagedPropertySetIsAWarning) {
    std::string summary = PropertySetStream({{kSummaryFormatId, {PropString(2, "Title")}}});
    PutU32(summary, 44, 5000);
    const std::string document = PropertySetStream({{kDocSummaryFormatId, {PropString(15, "Acme")}}});
    EXPECT_EQ(ReadSets(summary, document),
              "Company=Acme | The document properties in SummaryInformation could not be read: Property set: "
              "unexpected end of stream at byte 80: a section at byte 5000 of 80");
    // The stream itself damaged in the compound file.
    EXPECT_NE(ReadSets("", document, true)
                  .find("| The document properties in DocumentSummaryInformation could not be read: "
                        "Compound file: damaged file at byte"),
              std::string::npos);
}

TEST(KvI_Sum, CorpusStringFormulas) {
    const std::string path = KV_SHARED_DIR "/corpus/xls/StringFormulas.xls";
    if (!FileExists(path)) GTEST_SKIP() << "no " << path;
    ScopedTimeZone tz("UTC0");
    TFileStream stream(path, fmOpenRead);
    TKvCompoundFile file(stream);
    S s;
    EXPECT_EQ(s.ReadPropertySets(file), "");
    EXPECT_EQ(
        Filled(s),
        "AppName=Microsoft Excel Author=Avik Sengupta Created=2002-08-03 12:36:16 LastAuthor=Avik Sengupta "
        "LastSaved=2002-08-03 12:41:32 Company=Dresdner Kleinwort Benson");
}

} // namespace kv
