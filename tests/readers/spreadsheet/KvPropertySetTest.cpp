// Property-set streams: every kept value type, the code page of 8-bit strings, sections, and damage.

#include "readers/spreadsheet/KvPropertySet.h"
#include "platform/FormatError.h"
#include "platform/Streams.h"
#include "readers/spreadsheet/KvCompoundFile.h"

#include "support/CompoundFileBuilder.h"

#include <filesystem>
#include <functional>
#include <gtest/gtest.h>

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
        {{PropBool(2, true), PropBool(3, false)}, "2=bool:1 3=bool:0"},
        {{Prop(2, 4, U32(0x3FC00000)), PropR8(3, -2.25)}, "2=double:1.500000 3=double:-2.250000"},
        {{PropFileTime(2, 128605103697712760)}, "2=filetime:128605103697712760"},
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
    for (const auto& [properties, expected] : cases) EXPECT_EQ(Read(properties), expected);
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
    // A section size 4 bytes past the stream's end is cut to it: the values lie inside.
    std::string bytes = PropertySetStream({{kSummaryFormatId, {PropString(2, "Title")}}});
    PutU32(bytes, 48, static_cast<uint32_t>(bytes.size() - 48 + 4));
    EXPECT_EQ(Describe(KvReadPropertySet(bytes).at(0).Properties.at(0)), "text:Title");
}

TEST(KvPropertySet, DamageIsNamed) {
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
    };
    ASSERT_EQ(ErrorOf(good), "");
    for (const auto& [name, patch, message] : cases) {
        std::string bytes = good;
        patch(bytes);
        EXPECT_NE(ErrorOf(bytes).find(message), std::string::npos) << name << ": " << ErrorOf(bytes);
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
