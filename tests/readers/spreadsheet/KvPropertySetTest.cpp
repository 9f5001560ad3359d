// Property-set streams: every kept value type, the code page of 8-bit strings, sections, and damage.

#include "readers/spreadsheet/KvPropertySet.h"
#include "platform/FormatError.h"
#include "platform/Streams.h"
#include "readers/spreadsheet/KvCompoundFile.h"

#include "support/CompoundFileBuilder.h"

#include <filesystem>
#include <gtest/gtest.h>

namespace kv {
namespace {

using namespace test;

/// A value as "kind:value".
std::string Describe(const TKvPropertyValue& p) {
    switch (p.Kind) {
    case pkEmpty:
        return "empty";
    case pkInteger:
        return "int:" + std::to_string(p.Integer);
    case pkBoolean:
        return "bool:" + std::to_string(p.Integer);
    case pkDouble:
        return "double:" + std::to_string(p.Double);
    case pkString:
        return "text:" + p.Text;
    case pkFileTime:
        return "filetime:" + std::to_string(p.FileTime);
    case pkOther:
        return "other";
    }
    return "?";
}

/// The properties of a one-section stream: "2=text:a 3=int:5".
std::string Read(const std::vector<RawProperty>& properties) {
    const auto sections = KvReadPropertySet(PropertySetStream({{kSummaryFormatId, properties}}));
    std::string out;
    for (const TKvPropertyValue& p : sections.at(0).Properties)
        out += (out.empty() ? "" : " ") + std::to_string(p.Id) + "=" + Describe(p);
    return out;
}

std::string ErrorOf(const std::string& bytes) {
    try {
        KvReadPropertySet(bytes);
        return "";
    } catch (const EKvFormatError& e) {
        EXPECT_EQ(e.Format(), "Property set");
        return e.what();
    }
}

} // namespace

TEST(KvPropertySet, ValueTypes) {
    const std::vector<std::pair<RawProperty, std::string>> cases = {
        {PropI2(2, -7), "int:-7"},
        {{2, U32(18) + U32(0xFFFF)}, "int:65535"}, // VT_UI2
        {PropI4(2, -100000), "int:-100000"},
        {{2, U32(19) + U32(0xFFFFFFFF)}, "int:4294967295"}, // VT_UI4
        {{2, U32(20) + U64(uint64_t(-5))}, "int:-5"},       // VT_I8
        {{2, U32(16) + U32(0xFF)}, "int:-1"},               // VT_I1
        {{2, U32(17) + U32(0xFF)}, "int:255"},              // VT_UI1
        {PropBool(2, true), "bool:1"},
        {PropBool(2, false), "bool:0"},
        {{2, U32(4) + U32(0x3FC00000)}, "double:1.500000"}, // VT_R4
        {PropR8(2, -2.25), "double:-2.250000"},
        {PropFileTime(2, 128605103697712760), "filetime:128605103697712760"},
        {PropString(2, "Budget"), "text:Budget"},
        {PropString(2, std::string("ab\0cd", 5)), "text:ab"}, // ends at its first NUL
        {PropString(2, "no terminator", false), "text:no terminator"},
        {{2, U32(8) + U32(4) + "bstr"}, "text:bstr"}, // VT_BSTR
        {PropWString(2, "Größe €"), "text:Größe €"},
        {{2, U32(0)}, "empty"},
        {{2, U32(1)}, "empty"},
        {{2, U32(71) + U32(4) + U32(0)}, "other"}, // clipboard data
        {{2, U32(0x101F) + U32(0)}, "other"},      // a vector of strings
    };
    for (const auto& [property, expected] : cases) EXPECT_EQ(Read({property}), "2=" + expected) << expected;
}

TEST(KvPropertySet, EightBitStringsReadInTheSectionsCodePage) {
    const std::string cyrillic = "\xCF\xF0\xE8\xE2\xE5\xF2"; // "Привет" in cp1251
    const std::string utf16 = std::string("O\0K\0\0\0X\0", 8);
    const struct {
        std::vector<RawProperty> Properties;
        std::string Expected;
    } cases[] = {
        {{PropI2(1, 1251), PropString(2, cyrillic)}, "1=int:1251 2=text:Привет"},
        // the code page may come after the strings it applies to
        {{PropString(2, cyrillic), PropI2(1, 1251)}, "2=text:Привет 1=int:1251"},
        {{PropString(2, "caf\xE9")}, "2=text:café"}, // none: Windows-1252
        {{PropI2(1, 1252), PropString(2, "\x80")}, "1=int:1252 2=text:€"},
        {{PropI2(1, 12345), PropString(2, "caf\xE9")}, "1=int:12345 2=text:café"}, // unknown
        {{PropI2(1, 0), PropString(2, "caf\xE9")}, "1=int:0 2=text:café"},
        {{PropI2(1, 1200), PropString(2, utf16, false)}, "1=int:1200 2=text:OK"},    // UTF-16LE bytes
        {{PropI2(1, -535), PropString(2, "caf\xC3\xA9")}, "1=int:-535 2=text:café"}, // 65001 as VT_I2
        {{PropI4(1, 1251), PropString(2, "caf\xE9")}, "1=int:1251 2=text:café"},     // not a VT_I2: ignored
        // the dictionary (ID 0) is left out
        {{{0, U32(1) + U32(5) + U32(4) + "abc\0"}, PropI4(5, 9)}, "5=int:9"},
    };
    for (const auto& c : cases) EXPECT_EQ(Read(c.Properties), c.Expected);
}

TEST(KvPropertySet, SectionsInOrderWithTheirFormatIds) {
    const auto sections = KvReadPropertySet(PropertySetStream(
        {{kDocSummaryFormatId, {PropI4(4, 100)}}, {std::string(16, 'u'), {PropString(2, "user")}}}));
    ASSERT_EQ(sections.size(), 2u);
    EXPECT_EQ(sections[0].FormatId, kDocSummaryFormatId);
    EXPECT_EQ(Describe(sections[0].Properties.at(0)), "int:100");
    EXPECT_EQ(sections[1].FormatId, std::string(16, 'u'));
    EXPECT_EQ(Describe(sections[1].Properties.at(0)), "text:user");
    EXPECT_TRUE(KvReadPropertySet(PropertySetStream({})).empty());
}

TEST(KvPropertySet, SectionSizePastTheStreamIsCutToIt) {
    // A writer counted 4 bytes past the end: the values lie inside, so they read.
    std::string bytes = PropertySetStream({{kSummaryFormatId, {PropString(2, "Title")}}});
    PutU32(bytes, 48, static_cast<uint32_t>(bytes.size() - 48 + 4));
    EXPECT_EQ(Describe(KvReadPropertySet(bytes).at(0).Properties.at(0)), "text:Title");
}

TEST(KvPropertySet, DamageIsNamed) {
    const std::string good = PropertySetStream({{kSummaryFormatId, {PropString(2, "Title"), PropI4(14, 3)}}});
    // The section starts at 48: size, count, then (ID, offset) pairs from 56, values from 72.
    const struct {
        const char* Name;
        std::function<void(std::string&)> Patch;
        const char* Message;
    } cases[] = {
        {"byte order", [](std::string& b) { b[0] = 0; },
         "damaged file at byte 0: the byte order mark is not FFFE"},
        {"too short for a header", [](std::string& b) { b.resize(20); },
         "unexpected end of stream at byte 2: reading 22 bytes, 18 left"},
        {"section count past the stream", [](std::string& b) { PutU32(b, 24, 1000000); },
         "the section headers need 20000000 bytes"},
        {"section offset past the stream", [](std::string& b) { PutU32(b, 44, 5000); },
         "a section at byte 5000"},
        {"section size under its header", [](std::string& b) { PutU32(b, 48, 4); },
         "the section's size is 4"},
        {"property count past the section", [](std::string& b) { PutU32(b, 52, 0x10000000); },
         "the property offsets need"},
        {"property offset outside the section", [](std::string& b) { PutU32(b, 60, 400); },
         "property 2 at offset 400, outside its section"},
        {"string longer than the section", [](std::string& b) { PutU32(b, 48 + 24 + 4, 0x7FFFFFFF); },
         "the string's bytes need 2147483647 bytes"},
        {"value cut by the section's end",
         [](std::string& b) {
             PutU32(b, 48 + 16 + 4,
                    static_cast<uint32_t>(b.size() - 48 - 4)); // the count's offset: its last 4 bytes
         },
         "unexpected end of property"},
        {"every offset naming one string",
         [](std::string& b) {
             // 8 entries of the table all point at the one 12-byte string value of an 84-byte section.
             std::string s =
                 U16(0xFFFE) + U16(0) + U32(0) + std::string(16, '\0') + U32(1) + kSummaryFormatId + U32(48);
             std::string table;
             for (int i = 0; i < 8; ++i) table += U32(2 + i) + U32(72);
             const std::string value = U32(30) + U32(4) + "abc" + '\0';
             b = s + U32(8 + 64 + 12) + U32(8) + table + value;
         },
         "the string values take more than the section's"},
    };
    ASSERT_EQ(ErrorOf(good), "");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.Name);
        std::string bytes = good;
        c.Patch(bytes);
        const std::string message = ErrorOf(bytes);
        EXPECT_NE(message.find(c.Message), std::string::npos) << message;
    }
}

TEST(KvPropertySet, CorpusPropertySetStreamsRead) {
    const std::string dir = KV_SHARED_DIR "/corpus/xls";
    if (!std::filesystem::exists(dir)) GTEST_SKIP() << "no corpus at " << dir;
    int streams = 0;
    for (const auto& f : std::filesystem::directory_iterator(dir)) {
        if (!f.is_regular_file()) continue;
        TMemoryStream stream(ReadFileBytes(f.path().string()));
        if (!TKvCompoundFile::IsCompoundFile(stream)) continue;
        std::unique_ptr<TKvCompoundFile> file;
        try {
            file = std::make_unique<TKvCompoundFile>(stream);
        } catch (const EKvFormatError&) {
            continue; // the files damaged on purpose
        }
        for (const TKvCompoundEntry& e : file->Entries()) {
            if (e.Type != cetStream || e.Name.rfind("\x05", 0) != 0) continue;
            SCOPED_TRACE(f.path().filename().string() + ": " + e.Name.substr(1));
            const auto sections = KvReadPropertySet(file->ReadStream(e));
            ASSERT_FALSE(sections.empty());
            EXPECT_EQ(sections[0].FormatId,
                      e.Name == "\x05SummaryInformation" ? kSummaryFormatId : kDocSummaryFormatId);
            ++streams;
        }
    }
    EXPECT_GT(streams, 100);
}

} // namespace kv
