// TZipArchive: members listed, found without regard to case and inflated with their CRC checked, the
// limitations it keeps on purpose, and the bounds it adds.

#include "readers/archive/KvIZipFile.h"

#include "platform/FormatError.h"
#include "support/ZipBuilder.h"

#include <functional>
#include <gtest/gtest.h>

namespace kv {
namespace {

using test::ZipBuilder;
using test::ZipMember;

std::string Failure(const std::function<void()>& f) {
    try {
        f();
    } catch (const Exception& e) {
        return e.what();
    }
    return "";
}

/// The content of member `index` of `bytes`, or the message it fails with.
std::string Content(const std::string& bytes, int index, uint64_t cap = uint64_t{1} << 30) {
    TZipArchive zip;
    TMemoryStream stream(bytes);
    zip.LoadFromStream(stream);
    zip.SetMaxUncompressedSize(cap);
    std::string result;
    const std::string failure = Failure([&] { zip.GetUncompressed(index, result); });
    return failure.empty() ? result : "! " + failure;
}

} // namespace

TEST(TZipArchive, ListsFindsAndInflatesMembers) {
    ZipBuilder b;
    b.Add("Readme.txt", "first").Add("data/DATA.csv", "a;b\r\n1;2\r\n").Add("README.TXT", "second");
    b.Add({"empty", "", 8, std::string("\x03\x00", 2)});
    const std::string bytes = b.Build();
    TZipArchive zip;
    TMemoryStream stream(bytes);
    zip.LoadFromStream(stream);
    ASSERT_EQ(zip.GetCount(), 4);
    TStringList names;
    zip.GetFileNames(names);
    EXPECT_EQ(names.Text(), "Readme.txt\r\ndata/DATA.csv\r\nREADME.TXT\r\nempty\r\n");
    EXPECT_EQ(zip.GetIndexByFileName("readme.txt"), 0); // the first of two that differ in case
    EXPECT_EQ(zip.GetIndexByFileName("DATA/data.CSV"), 1);
    EXPECT_EQ(zip.GetIndexByFileName("data.csv"), -1);
    std::string result = "old";
    zip.DecompressFileName("README.txt", result);
    EXPECT_EQ(result, "first");
    zip.DecompressFileName("missing", result);
    EXPECT_EQ(result, "");
    zip.GetUncompressed(3, result); // an empty member has CRC 0
    EXPECT_EQ(result, "");
    EXPECT_EQ(Failure([&] { zip.GetUncompressed(4, result); }), "Index out of range.");
    EXPECT_EQ(Failure([&] { zip.GetUncompressed(-1, result); }), "Index out of range.");

    const TLocalFile& f = zip.LocalFiles().LocalFile(1);
    EXPECT_TRUE(f.Loaded);
    EXPECT_EQ(f.LocalFileHeaderSignature, 0x04034B50u);
    EXPECT_EQ(f.CentralFileHeaderSignature, 0x02014B50u);
    EXPECT_EQ(f.CentralFileName, "data/DATA.csv");
    EXPECT_EQ(f.CentralRelativeOffsetOfLocalHeader, b.Where().Local[1]);
    EXPECT_EQ(f.CentralExternalFileAttributes, 0100644u << 16);
    EXPECT_EQ(f.LocalHeader.CompressionMethod, 8);
    EXPECT_EQ(f.CompressedData, test::Deflate("a;b\r\n1;2\r\n"));
    EXPECT_EQ(zip.EndOfCentralDir().TotalEntries, 4);
    EXPECT_EQ(zip.EndOfCentralDir().CentralDirectoryOffset, b.Where().Directory);
    EXPECT_EQ(zip.LocalFiles().GetOwner(), &zip);

    TLocalFile copy;
    copy.Assign(f);
    EXPECT_EQ(copy.CompressedData, f.CompressedData);
    EXPECT_EQ(copy.CentralHeader.Crc32, f.CentralHeader.Crc32);
    EXPECT_TRUE(copy.Loaded);
    EXPECT_EQ(Failure([&] { copy.Assign(zip.LocalFiles()); }), "Cannot assign a TLocalFiles to a TLocalFile");
}

TEST(TZipArchive, KeepsItsLimitationsAndAddsBounds) {
    const std::string text = "some text, some text, some text";
    const auto one = [](ZipMember m) { return ZipBuilder().Add(std::move(m)).Build(); };
    ZipMember descriptor{"d.txt", text};
    descriptor.Descriptor = true;
    std::string badLocal = one({"x", text});
    badLocal[0] = 'X';
    // Members that share one member's data: copied for each, a small archive would fill memory.
    ZipBuilder sharing;
    std::string shared =
        sharing.Add("a", std::string(1000, 'a'), kZipStored).Add("b", "b").Add("c", "c").Build();
    for (int i : {1, 2}) ZipBuilder::Put32(shared, sharing.Where().Central[i] + 42, 0);

    // A comment hides the end record: no members, and the directory "starts" where the stream stood.
    TZipArchive zip;
    TMemoryStream commented(ZipBuilder().Add("x", text).Comment("hello").Build());
    commented.SetPosition(3);
    zip.LoadFromStream(commented);
    EXPECT_EQ(zip.GetCount(), 0);
    EXPECT_EQ(zip.EndOfCentralDir().CentralDirectoryOffset, 3u);
    EXPECT_EQ(zip.EndOfCentralDir().Signature, 0u);

    TMemoryStream wrong(badLocal);
    zip.LoadFromStream(wrong);
    ASSERT_EQ(zip.GetCount(), 1);
    EXPECT_EQ(zip.LocalFiles().LocalFile(0).CentralFileName, "x");
    EXPECT_EQ(zip.LocalFiles().LocalFile(0).FileName, "");
    EXPECT_FALSE(zip.LocalFiles().LocalFile(0).Loaded);

    const std::pair<std::string, std::string> cases[] = {
        {Content(one(descriptor), 0), text}, // sizes from the central directory
        {Content(one({"s.txt", text, kZipStored}), 0),
         "! Zip: damaged file at byte 43: member \"s.txt\": its deflate data is damaged (invalid distance "
         "too far back)"},
        {Content(one({"c.txt", text, 8, {}, 7}), 0), "! CRC Error in \"c.txt\"."},
        {Content(one({"big.txt", text, 8, {}, {}, 10}), 0),
         "! Zip: damaged file at byte 50: member \"big.txt\": inflates past the 10 bytes its headers "
         "declare"},
        {Content(one({"big.txt", text}), 0, 20), "! Zip: member \"big.txt\" inflates to more than the 20 "
                                                 "bytes allowed (TZipArchive::MaxUncompressedSize)"},
        {Failure([&] {
             TMemoryStream s(shared);
             TZipArchive().LoadFromStream(s);
         }),
         "Zip: damaged file at byte 0: member \"b\": the members' headers and data add up to more than "
         "the 1262 bytes of the archive (members overlap)"},
        {Failure([] {
             TMemoryStream s("PK\x05\x06");
             TZipArchive().LoadFromStream(s);
         }),
         "Zip: unexpected end of file at byte 0: reading 22 bytes, 4 left"},
    };
    for (const auto& [got, expected] : cases) EXPECT_EQ(got, expected);
}

} // namespace kv
