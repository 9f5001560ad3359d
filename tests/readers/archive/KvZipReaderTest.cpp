// The zip reader: the layouts writers use, the choice of end record, lookup by name, the member stream,
// and every kind of damage and refusal it must name.

#include "readers/archive/KvZipReader.h"

#include "platform/FormatError.h"
#include "support/ByteStream.h"
#include "support/ZipBuilder.h"

#include <functional>
#include <gtest/gtest.h>

namespace kv {
namespace {

using test::ZipBuilder;
using test::ZipMember;

/// Text that deflates but not to nothing, different for each seed.
std::string Lines(size_t size, int seed) {
    std::string out;
    for (int i = 0; out.size() < size; ++i)
        out += std::to_string(i * 7919 % 10007 + seed) + ";row " + std::to_string(i) + "\n";
    out.resize(size);
    return out;
}

/// Each member read whole, and through its stream in uneven pieces, which must agree.
std::string ReadBoth(const TKvZipReader& zip, const TKvZipEntry& e) {
    const std::string whole = zip.ReadMember(e);
    std::unique_ptr<TStream> s = zip.OpenMember(e);
    EXPECT_EQ(s->Size(), static_cast<int64_t>(whole.size()));
    std::string pieces;
    char buffer[4099];
    for (size_t n; (n = s->Read(buffer, 1 + pieces.size() % sizeof buffer)) > 0;) pieces.append(buffer, n);
    EXPECT_EQ(pieces, whole) << e.Name;
    return whole;
}

/// "format: ", "zip: " or "crc: " and the message of what `f` raises; "" when it raises nothing.
std::string Failure(const std::function<void()>& f) {
    try {
        f();
    } catch (const EKvFormatError& e) {
        return std::string("format: ") + e.what();
    } catch (const EKvZipError& e) {
        return std::string("zip: ") + e.what();
    } catch (const EZipFileCRCError& e) {
        return std::string("crc: ") + e.what();
    }
    return "";
}

/// The failure of opening `bytes` and reading every member.
std::string Failure(const std::string& bytes, const TKvZipLimits& limits = {}) {
    return Failure([&] {
        TMemoryStream stream(bytes);
        TKvZipReader zip(stream, limits);
        for (const TKvZipEntry& e : zip.Entries()) ReadBoth(zip, e);
    });
}

ZipBuilder Standard() {
    ZipBuilder b;
    b.Add("a.txt", Lines(100000, 1)).Add("b.bin", Lines(3000, 2), kZipStored).Add("c.txt", Lines(500, 3));
    return b;
}

} // namespace

TEST(KvZipReader, ReadsTheLayoutsWritersUse) {
    const std::string comment(300, 'c');
    for (int variant = 0; variant < 6; ++variant) {
        SCOPED_TRACE(variant);
        ZipBuilder b;
        const auto member = [&](std::string name, std::string data, uint16_t method) {
            ZipMember m{std::move(name), std::move(data), method};
            m.Descriptor = variant == 1;
            m.Zip64 = variant == 2;
            b.Add(m);
        };
        member("a.txt", Lines(200000, 1), kZipDeflated);
        member("b.bin", Lines(70000, 2), kZipStored);
        member("empty.txt", "", kZipDeflated);
        member("dir/", "", kZipStored);
        member("dir/c.txt", Lines(10, 3), kZipDeflated);
        b.Zip64End(variant == 2);
        if (variant == 3) b.Prefix(std::string(1000, 'x')).Suffix("trailing junk");
        if (variant == 4) b.Comment(comment);
        if (variant == 5) b.Prefix(Lines(100, 9)).Comment(comment);
        const std::string bytes = b.Build();
        test::TByteStream stream(bytes);
        EXPECT_EQ(TKvZipReader::IsZipFile(stream), variant != 3 && variant != 5);
        TKvZipReader zip(stream);
        EXPECT_EQ(zip.IsZip64(), variant == 2);
        EXPECT_EQ(zip.ArchiveOffset(), variant == 3 ? 1000u : variant == 5 ? 100u : 0u);
        EXPECT_EQ(zip.Comment(), variant >= 4 ? comment : "");
        std::string listing;
        for (const TKvZipEntry& e : zip.Entries()) {
            listing += e.Name + (e.IsDirectory() ? "(dir) " : " ");
            EXPECT_EQ(ReadBoth(zip, e), e.Name == "a.txt"       ? Lines(200000, 1)
                                        : e.Name == "b.bin"     ? Lines(70000, 2)
                                        : e.Name == "dir/c.txt" ? Lines(10, 3)
                                                                : "");
        }
        EXPECT_EQ(listing, "a.txt b.bin empty.txt dir/(dir) dir/c.txt ");
        const TKvZipEntry& a = zip.Entries()[0];
        EXPECT_EQ(a.UncompressedSize, 200000u);
        EXPECT_EQ(a.Method, kZipDeflated);
        EXPECT_EQ(a.LocalHeaderOffset, variant == 3 ? 1000u : variant == 5 ? 100u : 0u);
        EXPECT_DOUBLE_EQ(a.Modified(), EncodeDateTime(2024, 3, 5, 14, 30, 20, 0));
    }
}

TEST(KvZipReader, ChoosesTheEndRecordThatEndsTheFile) {
    // An archive in the comment of another is a comment; a stray signature in a comment is passed over;
    // a comment that claims more bytes than there are is cut.
    const std::string inner = ZipBuilder().Add("inner.txt", "in").Build();
    const std::string outer = ZipBuilder().Add("outer.txt", "out").Comment(inner).Build();
    TMemoryStream s1(outer);
    TKvZipReader zip1(s1);
    ASSERT_EQ(zip1.Entries().size(), 1u);
    EXPECT_EQ(zip1.Entries()[0].Name, "outer.txt");
    EXPECT_EQ(zip1.Comment().rfind("PK\x03\x04", 0), 0u); // binary, so read as code page 437

    std::string stray = ZipBuilder().Add("x", "x").Comment("PK\x05\x06 and more").Build();
    TMemoryStream s2(stray);
    EXPECT_EQ(TKvZipReader(s2).Comment(), std::string("PK\x05\x06 and more"));

    ZipBuilder b;
    std::string cut = b.Add("x", "x").Comment("ten bytes!").Build();
    cut.resize(cut.size() - 4);
    TMemoryStream s3(cut);
    TKvZipReader zip3(s3);
    EXPECT_EQ(zip3.Comment(), "ten by");
    EXPECT_EQ(zip3.ReadMember(zip3.Entries()[0]), "x");
}

TEST(KvZipReader, FindsExactNamesFirstThenIgnoringCaseAndSlashes) {
    ZipBuilder b;
    b.Add("Data.csv", "1").Add("data.csv", "2").Add("xl\\workbook.xml", "3").Add("Übersicht.txt", "4");
    const std::string bytes = b.Build();
    TMemoryStream stream(bytes);
    TKvZipReader zip(stream);
    const std::pair<const char*, const char*> cases[] = {
        {"Data.csv", "1"},         {"data.csv", "2"},      {"DATA.CSV", "1"}, {"xl/workbook.xml", "3"},
        {"XL\\Workbook.xml", "3"}, {"übersicht.TXT", "4"}, {"Data", ""},      {"", ""}};
    for (const auto& [name, content] : cases) {
        const TKvZipEntry* e = zip.Find(name);
        EXPECT_EQ(e ? zip.ReadMember(*e) : "", content) << name;
    }
}

TEST(KvZipReader, NamesAreUtf8) {
    ZipMember unicodePath{"caf\x82.txt", "x"};
    unicodePath.Extra = ZipBuilder::Le(0x7075, 2) + ZipBuilder::Le(5 + 5, 2) + "\x01" +
                        ZipBuilder::Le(KvZipCrc32("caf\x82.txt"), 4) + "caf\xC3\xA9";
    ZipMember staleUnicodePath = unicodePath;
    staleUnicodePath.Name = "other\x82";
    ZipBuilder b;
    b.Add({"\x8E\x99\x9A.txt", "x"})    // code page 437: Ä Ö Ü
        .Add({"\xC3\x84rger.txt", "x"}) // UTF-8 without the flag
        .Add({"\xC3\x84rger2.txt", "x", 8, {}, {}, {}, false, false, 0x800})
        .Add(unicodePath)
        .Add(staleUnicodePath);
    const std::string bytes = b.Build();
    TMemoryStream stream(bytes);
    TKvZipReader zip(stream);
    std::vector<std::string> names;
    for (const TKvZipEntry& e : zip.Entries()) names.push_back(e.Name);
    EXPECT_EQ(names, (std::vector<std::string>{"ÄÖÜ.txt", "Ärger.txt", "Ärger2.txt", "café", "otheré"}));
    EXPECT_EQ(zip.Entries()[0].RawName, "\x8E\x99\x9A.txt");
}

TEST(KvZipReader, MemberStreamSeeksAndReportsItsEnd) {
    const std::string content = Lines(300000, 4);
    ZipBuilder b;
    b.Add("big.txt", content).Add({"bad.txt", content, 8, {}, 0x12345678u});
    const std::string bytes = b.Build();
    test::TByteStream source(bytes);
    TKvZipReader zip(source);
    std::unique_ptr<TStream> s = zip.OpenMember(zip.Entries()[0]);
    EXPECT_EQ(s->Seek(250000, soBeginning), 250000);
    EXPECT_EQ(s->ReadString(10), content.substr(250000, 10));
    EXPECT_EQ(s->Seek(-100, soCurrent), 249910); // backwards: inflates again from the start
    EXPECT_EQ(s->ReadString(50), content.substr(249910, 50));
    EXPECT_EQ(s->Seek(-5, soEnd), 299995);
    EXPECT_EQ(s->ReadAll(), content.substr(299995));
    EXPECT_EQ(s->Seek(10, soEnd), 300000);

    // The read that reaches the end raises the CRC error, and every read after it again.
    std::unique_ptr<TStream> bad = zip.OpenMember(zip.Entries()[1]);
    std::string got(content.size(), '\0');
    EXPECT_EQ(bad->Read(got.data(), 1000), 1000u);
    EXPECT_EQ(Failure([&] { bad->Read(got.data(), got.size()); }), "crc: CRC Error in \"bad.txt\".");
    EXPECT_EQ(Failure([&] { bad->Read(got.data(), 1); }), "crc: CRC Error in \"bad.txt\".");
}

TEST(KvZipReader, DamageIsNamedWithItsPlace) {
    const std::string lines = Lines(5000, 5);
    const std::string deflated = test::Deflate(lines);
    struct Case {
        std::function<void(ZipBuilder&)> setup;
        std::function<void(std::string&, const ZipBuilder::Layout&)> damage;
        std::string expected;
    };
    const auto none = [](std::string&, const ZipBuilder::Layout&) {};
    const auto standard = [](ZipBuilder& b) { b = Standard(); };
    const auto one = [&](ZipMember m) { return [m](ZipBuilder& b) { b.Add(m); }; };
    const Case cases[] = {
        {[](ZipBuilder&) {}, [](std::string& s, auto&) { s = "PK\x03\x04 too short"; },
         "format: Zip: damaged file at byte 0: not a zip archive: 14 bytes, fewer than an end of central "
         "directory record takes"},
        {[](ZipBuilder&) {}, [](std::string& s, auto&) { s = std::string(100, 'x'); },
         "format: Zip: damaged file at byte 0: not a zip archive: no end of central directory record"},
        {standard, [](std::string& s, auto& w) { ZipBuilder::Put32(s, w.End + 16, 7); },
         "format: Zip: damaged file at byte 37100: the end record at byte 37100 puts the central "
         "directory at byte 7, where there is none"},
        {standard,
         [](std::string& s, auto& w) {
             ZipBuilder::Put16(s, w.End + 10, 4), ZipBuilder::Put16(s, w.End + 8, 4);
         },
         "format: Zip: damaged file at byte 37100: the end record counts 4 members, more than the 153-byte "
         "central directory can hold"},
        {standard, [](std::string& s, auto& w) { ZipBuilder::Put16(s, w.Central[2] + 28, 60000); },
         "format: Zip: unexpected end of central directory at byte 37095: reading 60000 bytes, 5 left"},
        {standard, [](std::string& s, auto& w) { s[w.Central[1]] = 'X'; },
         "format: Zip: damaged file at byte 36998: central directory entry 2 of 3 has no signature"},
        {standard, [](std::string& s, auto& w) { ZipBuilder::Put32(s, w.Central[2] + 42, 0x7FFFFFF0); },
         "member \"c.txt\": its local header at byte 2147483632 lies past the start of the central "
         "directory"},
        {standard, [](std::string& s, auto& w) { ZipBuilder::Put32(s, w.Central[2] + 42, 0); },
         "format: Zip: damaged file at byte 36947: member \"a.txt\" takes bytes 0 to 33667, into member "
         "\"c.txt\" at byte 0 (members that overlap are the mark of a zip bomb)"},
        {standard, [](std::string& s, auto& w) { ZipBuilder::Put32(s, w.Central[2] + 20, 2000); },
         "format: Zip: damaged file at byte 37049: member \"c.txt\" takes bytes 36702 to 38737, into the "
         "central directory at byte 36947"},
        {standard, [](std::string& s, auto& w) { ZipBuilder::Put16(s, w.Local[2] + 28, 1000); },
         "format: Zip: damaged file at byte 36728: member \"c.txt\": its local name and extra field (1005 "
         "bytes) push its data past byte 36947"},
        {standard, [](std::string& s, auto& w) { s[w.Local[2]] = 'X'; },
         "format: Zip: damaged file at byte 36702: member \"c.txt\": no local header where the central "
         "directory puts it"},
        {standard, [](std::string& s, auto& w) { ZipBuilder::Put32(s, w.Local[1] + 22, 1); },
         "member \"b.bin\": its local header gives size 1, the central directory 3000"},
        {one({"x", lines, 8, std::string(deflated.size(), '\xFF')}), none,
         "member \"x\": its deflate data is damaged (invalid block type)"},
        {one({"x", lines, 8, deflated.substr(0, deflated.size() / 2)}), none,
         "member \"x\": its deflate data ends before its last block"},
        {one({"x", lines, 8, {}, {}, 4000}), none,
         "member \"x\": inflates past the 4000 bytes its entry declares"},
        {one({"x", lines, 8, {}, {}, 6000}), none,
         "member \"x\": inflates to 5000 bytes, fewer than the 6000 its entry declares"},
        {one({"x", lines, 8, {}, 0}), none, "crc: CRC Error in \"x\"."},
        {one({"x", lines, 8, std::string("\x03\x00", 2), {}, 10000}), none,
         "format: Zip: damaged file at byte 33: member \"x\" declares 10000 bytes, more than its 2 "
         "compressed bytes can inflate to"},
        {one({"x", "", 8, ""}), none, ""}, // no deflate data at all for an empty member: allowed
        {one({"x", "a", 8, {}, {}, {}, false, true}),
         [](std::string& s, auto& w) {
             s.erase(w.Central[0] + 46 + 1, 28), ZipBuilder::Put16(s, w.Central[0] + 30, 0),
                 ZipBuilder::Put32(s, s.size() - 10, 47);
         },
         "member \"x\": a size or offset of 0xFFFFFFFF with no Zip64 field to hold its value"},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        ZipBuilder b;
        cases[i].setup(b);
        std::string bytes = b.Build();
        cases[i].damage(bytes, b.Where());
        const std::string failure = Failure(bytes);
        if (cases[i].expected.empty())
            EXPECT_EQ(failure, "") << i;
        else
            EXPECT_NE(failure.find(cases[i].expected), std::string::npos) << i << ": " << failure;
    }
}

TEST(KvZipReader, RefusesWhatItDoesNotReadByName) {
    TKvZipLimits small;
    small.MaxMemberBytes = 4000;
    small.MaxStreamBytes = 8000;
    TKvZipLimits ratio;
    ratio.RatioFromBytes = 0;
    ratio.MaxRatio = 50;
    const std::string zeros(200000, '\0');
    struct Case {
        ZipMember member;
        TKvZipLimits limits;
        std::string expected;
    };
    const Case cases[] = {
        {{"x.csv", "data", 9, "data"},
         {},
         "zip: Zip: member \"x.csv\": compressed with method 9 (Deflate64), which this reader does not "
         "support"},
        {{"x", "data", 77, "data"},
         {},
         "zip: Zip: member \"x\": compressed with method 77, which this reader does not support"},
        {{"s", "data", 8, {}, {}, {}, false, false, 1},
         {},
         "zip: Zip: member \"s\" is encrypted with the traditional PKWARE cipher, which this reader does not "
         "support"},
        {{"s", "data", 99, "data", {}, {}, false, false, 1},
         {},
         "zip: Zip: member \"s\" is encrypted with AES, which this reader does not support"},
        {{"big", Lines(5000, 1)},
         small,
         "zip: Zip: member \"big\" would inflate to 5000 bytes, more than the 4000 allowed for a member read "
         "whole"},
        {{"zeros", zeros},
         ratio,
         "zip: Zip: member \"zeros\" would inflate from 211 to 200000 bytes, more than the 50 times its size "
         "allowed (a zip bomb's ratio)"},
    };
    for (const Case& c : cases) {
        const std::string bytes = ZipBuilder().Add(c.member).Build();
        EXPECT_EQ(Failure(bytes, c.limits), c.expected);
    }
    // A stream may hold more than a whole read.
    const std::string bytes = ZipBuilder().Add("big", Lines(6000, 1)).Build();
    TMemoryStream stream(bytes);
    TKvZipReader zip(stream, small);
    EXPECT_EQ(zip.OpenMember(zip.Entries()[0])->ReadAll(), Lines(6000, 1));
    small.MaxStreamBytes = 5999;
    zip.SetLimits(small);
    EXPECT_EQ(
        Failure([&] { zip.OpenMember(zip.Entries()[0]); }),
        "zip: Zip: member \"big\" would inflate to 6000 bytes, more than the 5999 allowed for a member read "
        "as a stream");

    std::string split = ZipBuilder().Add("x", "x").Build();
    ZipBuilder::Put16(split, split.size() - 18, 1);
    EXPECT_EQ(Failure(split), "zip: Zip: the archive is disk 2 of a set split over several files, which this "
                              "reader does not support");
}

} // namespace kv
