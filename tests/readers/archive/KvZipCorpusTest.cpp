// Archives written by other programs: every file of the shared corpus opens and reads or fails with the
// error that fits what is wrong with it, and the values other readers assert are read.

#include "readers/archive/KvIZipFile.h"
#include "readers/archive/KvZipReader.h"

#include "platform/Format.h"
#include "platform/Utf8.h"
#include "support/DataFiles.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <map>

namespace kv {
namespace {

const test::TCorpusFolder CorpusFile("zip");

std::string Prefix(const std::string& text, const std::string& prefix) {
    return text.rfind(prefix, 0) == 0 ? prefix : text;
}

} // namespace

TEST(ZipCorpus, EveryArchiveReadsOrGivesItsError) {
    if (!CorpusFile.Here()) GTEST_SKIP() << "the shared corpus is not here";
    // Archives that do not open.
    const std::map<std::string, std::string> archives = {
        {"bogus.zip", "Zip: damaged file at byte 0: not a zip archive: 11 bytes"},
        {"deflate64_issue_25.zip", "Zip: damaged file at byte 42: the end record at byte 42 gives a central "
                                   "directory of 3801277 bytes, more than the 42 before it"},
        {"incons-eocd-magic-bad.zip",
         "Zip: damaged file at byte 153: no end of central directory record: the "
         "archive is cut short or damaged"},
        {"incons-file-count-high.zip",
         "Zip: damaged file at byte 131: the end record counts 32 members, more than "
         "the 71-byte central directory can hold"},
        {"invalid_offset.zip", "Zip: damaged file at byte 1219: the end record at byte 1219 puts the central "
                               "directory at byte 1406, where there is none"},
        {"multidisk.zip",
         "Zip: the archive is disk 2 of a set split over several files, which this reader does "
         "not support"},
        {"testfile-truncated.zip", "Zip: damaged file at byte 100: no end of central directory record"},
    };
    // Members that do not read; "*" for every member of the archive.
    const std::map<std::string, std::string> members = {
        {"aes_archive.zip/*", "is encrypted with AES, which this reader does not support"},
        {"encrypt-aes128.zip/encrypted", "is encrypted with AES"},
        {"encrypt.zip/encrypted", "is encrypted with the traditional PKWARE cipher"},
        {"implode.zip/*", ": compressed with method 6 (Implode), which this reader does not support"},
        {"reduce.zip/*", ": compressed with method 5 (Reduce)"},
        {"shrink.zip/*", ": compressed with method 1 (Shrink)"},
        {"testbzip2.zip/*", ": compressed with method 12 (bzip2)"},
        {"testfile-lzma.zip/*", ": compressed with method 14 (LZMA)"},
        {"testfile-xz.zip/*", ": compressed with method 95 (XZ)"},
        {"testfile-zstd.zip/*", ": compressed with method 93 (Zstandard)"},
        {"incons-central-compsize-larger.zip/*",
         " is stored, yet its entry gives 2 bytes of data and a size of 1"},
        {"incons-central-crc.zip/*", ": its local header gives CRC E8B7BE43, the central directory F8B7BE43"},
        {"incons-local-crc.zip/*", ": its local header gives CRC F8B7BE43, the central directory E8B7BE43"},
        {"incons-local-filename-missing.zip/*", ": its local header names it \"\""},
        {"incons-data.zip/*", "CRC Error in \"a\"."},
    };
    int files = 0;
    for (const auto& file : std::filesystem::directory_iterator(CorpusFile(""))) {
        const std::string name = file.path().filename().string();
        SCOPED_TRACE(name);
        ++files;
        // The small reader must not crash whatever the archive; its errors are its own.
        try {
            TZipArchive small;
            small.LoadFromFile(file.path().string());
            std::string content;
            for (int i = 0; i < small.GetCount(); ++i) try {
                    small.GetUncompressed(i, content);
                } catch (const Exception&) {
                }
        } catch (const Exception&) {
        }

        std::string error;
        try {
            TKvZipReader zip(file.path().string());
            for (const TKvZipEntry& e : zip.Entries()) {
                ASSERT_TRUE(IsValidUtf8(e.Name));
                std::string failure;
                try {
                    EXPECT_EQ(zip.ReadMember(e).size(), e.UncompressedSize);
                } catch (const Exception& x) {
                    failure = x.what();
                }
                auto expected = members.find(name + "/" + e.Name);
                if (expected == members.end()) expected = members.find(name + "/*");
                if (expected == members.end())
                    EXPECT_EQ(failure, "") << e.Name;
                else
                    EXPECT_NE(failure.find(expected->second), std::string::npos) << e.Name << ": " << failure;
            }
        } catch (const Exception& x) {
            error = x.what();
        }
        const auto expected = archives.find(name);
        EXPECT_EQ(Prefix(error, expected == archives.end() ? "" : expected->second),
                  expected == archives.end() ? "" : expected->second);
    }
    EXPECT_GE(files, 58);
}

TEST(ZipCorpus, ValuesOthersAssert) {
    if (!CorpusFile.Here()) GTEST_SKIP() << "the shared corpus is not here";
    const auto entry = [](const TKvZipReader& zip, size_t i) {
        const TKvZipEntry& e = zip.Entries().at(i);
        return e.Name + " " + std::to_string(e.UncompressedSize) + "/" + std::to_string(e.CompressedSize) +
               " " + std::string(KvZipMethodName(e.Method)) + " " +
               FormatDateTime("yyyy-mm-dd hh:nn:ss", e.Modified()) + " " + Format("%.8x", e.Crc32);
    };
    TKvZipReader test(CorpusFile("test.zip"));
    EXPECT_EQ(test.Entries().size(), 3u);
    EXPECT_EQ(entry(test, 0), "test 5/5 Stored 2003-10-06 15:46:42 3BB935C6");
    for (const char* streamed : {"streamed.zip", "streamed-zip64.zip"}) {
        TKvZipReader zip(CorpusFile(streamed));
        EXPECT_EQ(entry(zip, 0), "- 2/4 Deflate 2012-04-25 10:20:38 DDEAA107");
    }
    for (const char* name : {"junk-at-start.zip", "junk-at-end.zip"})
        EXPECT_EQ(TKvZipReader(CorpusFile(name)).Entries().size(), 3u) << name;
    EXPECT_EQ(TKvZipReader(CorpusFile("junk-at-start.zip")).ArchiveOffset(), 4u);
    TKvZipReader comments(CorpusFile("testcomment.zip"));
    EXPECT_EQ(comments.Comment().rfind("This is the archive comment for the file.", 0), 0u);
    std::string fileComments;
    for (const TKvZipEntry& e : comments.Entries()) fileComments += e.Comment + "|";
    EXPECT_EQ(fileComments, "|First one had no comment.|Third one.|Last.|");
    TKvZipReader described(CorpusFile("data_descriptor.zip"));
    EXPECT_EQ(described.ReadMember(described.Entries()[0]).size(), 12u);
    EXPECT_EQ(TKvZipReader(CorpusFile("test-cp437.zip")).Entries().at(9).Name, "æÆôöòûùÿÖÜ¢£¥₧ƒá");
    for (const char* name : {"test-utf8.zip", "test-utf8-unmarked.zip"})
        EXPECT_EQ(TKvZipReader(CorpusFile(name)).Entries().at(0).Name, "ÄÖÜäöüßćçĉéèêëē") << name;
    EXPECT_EQ(TKvZipReader(CorpusFile("zip-in-archive-comment.zip")).Entries().at(0).Name, "test");
    EXPECT_EQ(TKvZipReader(CorpusFile("mimetype.zip")).Entries().at(0).CentralOffset, 77u);
    EXPECT_EQ(TKvZipReader(CorpusFile("comment_garbage.zip")).Comment(), "short.");
    EXPECT_EQ(TKvZipReader(CorpusFile("misaligned_comment.zip")).Comment(), "short.");

    // The nested bomb: the outer member reads, the 4 GiB of zeros in it is refused before any is inflated,
    // whole or as a stream.
    TKvZipReader outer(CorpusFile("bigzero-zip.zip"));
    TMemoryStream inner(outer.ReadMember(*outer.Find("bigzero.zip")));
    TKvZipReader bomb(inner);
    const TKvZipEntry& zeros = *bomb.Find("bigzero");
    EXPECT_EQ(zeros.UncompressedSize, uint64_t{1} << 32);
    for (int stream = 0; stream < 2; ++stream) {
        std::string error;
        try {
            if (stream)
                bomb.OpenMember(zeros);
            else
                bomb.ReadMember(zeros);
        } catch (const EKvZipError& e) {
            EXPECT_EQ(e.Kind(), zekLimit);
            error = e.what();
        }
        EXPECT_EQ(error, stream
                             ? "Zip: member \"bigzero\" would inflate from 4168157 to 4294967296 bytes, more "
                               "than the 1000 times its size allowed (a zip bomb's ratio)"
                             : "Zip: member \"bigzero\" would inflate to 4294967296 bytes, more than the "
                               "1073741824 allowed for a member read whole");
    }
}

} // namespace kv
