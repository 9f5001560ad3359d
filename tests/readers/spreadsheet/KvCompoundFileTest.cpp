// The compound-file reader: both sector sizes, the DIFAT, the mini stream, storages and case-blind lookup,
// the stream object, every kind of damage the reader must name, and the shared corpus of workbooks.

#include "readers/spreadsheet/KvCompoundFile.h"
#include "TestSupport.h"
#include "platform/FormatError.h"

#include "support/ByteStream.h"
#include "support/CompoundFileBuilder.h"

#include <filesystem>
#include <functional>
#include <map>

namespace kv {
namespace {

using test::CompoundFileBuilder;
using test::PutU32;
using Builder = CompoundFileBuilder;
constexpr uint32_t kEnd = Builder::kEnd, kFree = Builder::kFree;

/// A pattern that tells every byte's place: a stream read from the wrong sector or offset shows.
std::string Pattern(size_t size, int seed = 0) {
    std::string out(size, '\0');
    for (size_t i = 0; i < size; ++i) out[i] = static_cast<char>((i * 7 + i / 251 + seed) & 0xFF);
    return out;
}

testing::AssertionResult Has(const std::string& text, const std::string& part) {
    if (text.find(part) != std::string::npos) return testing::AssertionSuccess();
    return testing::AssertionFailure() << "\"" << text << "\" lacks \"" << part << "\"";
}

/// The message of the EKvFormatError that `f` raises, "" when none.
std::string ErrorOf(const std::function<void()>& f, TKvFormatErrorKind* kind = nullptr) {
    try {
        f();
        return "";
    } catch (const EKvFormatError& e) {
        if (kind) *kind = e.Kind();
        return e.what();
    }
}

/// The error of opening `bytes` and reading every stream.
std::string Failure(const std::string& bytes, TKvFormatErrorKind* kind = nullptr) {
    return ErrorOf(
        [&] {
            TMemoryStream stream(bytes);
            TKvCompoundFile file(stream);
            for (const TKvCompoundEntry& e : file.Entries())
                if (e.Type == cetStream) file.ReadStream(e);
        },
        kind);
}

/// A workbook in 10 sectors, a small stream in the mini stream, a storage with a stream.
Builder Standard() {
    Builder b;
    b.Stream("Workbook", Pattern(5000, 1))
        .Stream("Small", Pattern(300, 2))
        .Stream("Dir/Inner", Pattern(100, 3));
    return b;
}
uint32_t Book(const Builder& b) {
    return b.Start("Workbook");
}
uint32_t Small(const Builder& b) {
    return b.Start("Small");
}

void Link(std::string& bytes, const Builder& b, uint32_t id, uint32_t left, uint32_t right, uint32_t child) {
    for (uint32_t k = 0; k < 3; ++k)
        PutU32(bytes, b.Entry(id) + 68 + 4 * k, k == 0 ? left : k == 1 ? right : child);
}

} // namespace

TEST(KvCompoundFile, ReadsStreamsOfBothSectorSizesAndThroughADifat) {
    // 300 sectors of 512 bytes need three FAT sectors: with fewer ids in the header, a DIFAT sector lists
    // them.
    for (auto [sectorSize, headerIds] : {std::pair(512u, 109u), {4096u, 109u}, {512u, 1u}, {512u, 0u}}) {
        SCOPED_TRACE(testing::Message() << sectorSize << " " << headerIds);
        Builder b;
        b.SetSectorSize(sectorSize)
            .SetHeaderFatIds(headerIds)
            .Stream("Workbook", Pattern(300 * 512, 'k'))
            .Stream("\x05SummaryInformation", Pattern(200, 'n'))
            .Stream("Empty", "")
            .Stream("Just4096", Pattern(4096, '6'))
            .Stream("Just4095", Pattern(4095, '5'))
            .Stream("_VBA_PROJECT_CUR/VBA/dir", Pattern(700, 'r'));
        const std::string bytes = b.Build();
        ASSERT_EQ(b.Where().Difat.size(), headerIds < 109 ? 1u : 0u);
        TMemoryStream stream(bytes);
        ASSERT_TRUE(TKvCompoundFile::IsCompoundFile(stream));
        TKvCompoundFile file(stream);
        EXPECT_EQ(file.MajorVersion(), sectorSize == 4096 ? 4 : 3);
        EXPECT_EQ(file.SectorSize(), sectorSize);
        std::string listing;
        for (const TKvCompoundEntry& e : file.Entries()) {
            if (e.Type == cetRoot) continue;
            listing += " " + e.Path;
            if (e.Type != cetStream) continue;
            listing += "(" + std::to_string(e.Size) + ")";
            EXPECT_EQ(file.ReadStream(e), Pattern(e.Size, e.Path.back())) << e.Path;
        }
        EXPECT_EQ(listing, " Empty(0) Just4095(4095) Just4096(4096) Workbook(153600) _VBA_PROJECT_CUR "
                           "\x05SummaryInformation(200) _VBA_PROJECT_CUR/VBA _VBA_PROJECT_CUR/VBA/dir(700)");
    }
}

TEST(KvCompoundFile, FindIgnoresCaseOfLatinAndOtherLetters) {
    const std::string bytes =
        Builder().Stream("BOOK", "b").Stream("Übersicht/Größe", "g").Stream("Лист1", "c").Build();
    TMemoryStream stream(bytes);
    TKvCompoundFile file(stream);
    const std::map<std::string, std::string> found = {{"book", "BOOK"},
                                                      {"Book", "BOOK"},
                                                      {"übersicht/GRÖSSE", ""},
                                                      {"ÜBERSICHT/GRÖßE", "Übersicht/Größe"},
                                                      {"übersicht/größe", "Übersicht/Größe"},
                                                      {"лист1", "Лист1"},
                                                      {"Workbook", ""},
                                                      {"", ""} /* the root */,
                                                      {"Übersicht/", ""},
                                                      {"Größe", ""}};
    for (const auto& [path, expected] : found) {
        const TKvCompoundEntry* e = file.Find(path);
        EXPECT_EQ(e ? e->Path : "", expected) << path;
    }
}

TEST(KvCompoundFile, OpenStreamReadsAndSeeksAcrossSectors) {
    for (size_t size : {1000u, 5000u}) { // in the mini stream, then in 512-byte sectors
        const std::string bytes =
            Builder().Stream("S", Pattern(size, 3)).Stream("Other", Pattern(size, 4)).Build();
        test::TByteStream source(bytes);
        TKvCompoundFile file(source);
        std::unique_ptr<TStream> s = file.OpenStream(*file.Find("S"));
        const std::string expected = Pattern(size, 3);
        EXPECT_EQ(s->Size(), static_cast<int64_t>(size));
        std::string got;
        char chunk[77];
        for (size_t n; (n = s->Read(chunk, sizeof chunk)) > 0;) got.append(chunk, n);
        EXPECT_EQ(got, expected);
        EXPECT_EQ(s->Seek(-100, soEnd), static_cast<int64_t>(size - 100));
        EXPECT_EQ(s->ReadString(1000), expected.substr(size - 100));
        s->Seek(60, soBeginning);
        s->Seek(10, soCurrent);
        EXPECT_EQ(s->ReadString(600), expected.substr(70, 600));
        EXPECT_EQ(s->Seek(10, soEnd), static_cast<int64_t>(size + 10));
        EXPECT_EQ(s->Read(chunk, 1), 0u);
        EXPECT_EQ(s->Write("x", 1), 0u);
        EXPECT_THROW(s->WriteBuffer("x", 1), EWriteError);
        // Two streams open at once share the file.
        std::unique_ptr<TStream> other = file.OpenStream(*file.Find("Other"));
        s->SetPosition(0);
        EXPECT_EQ(other->ReadString(300) + s->ReadString(300), Pattern(300, 4) + expected.substr(0, 300));
    }
}

TEST(KvCompoundFile, IsCompoundFileLooksAtTheSignatureAndRestoresThePosition) {
    const std::string good = Builder().Stream("A", "a").Build();
    for (const auto& [bytes, expected] : std::vector<std::pair<std::string, bool>>{
             {good, true},
             {good.substr(0, 8), true},
             {good.substr(0, 7), false},
             {"", false},
             {std::string("\x09\x08\x10\x00\x00\x06\x05\x00", 8) + std::string(600, '\0'), false}}) {
        TMemoryStream stream(bytes);
        stream.Seek(std::min<int64_t>(5, stream.Size()), soBeginning);
        EXPECT_EQ(TKvCompoundFile::IsCompoundFile(stream), expected);
        EXPECT_EQ(stream.Position(), std::min<int64_t>(5, stream.Size()));
    }
}

TEST(KvCompoundFile, DeepTreesAreWalkedWithoutRecursionAndTheirPathsCapped) {
    // 3000 streams whose left links make one list: the deepest left comes first.
    Builder b;
    for (int i = 0; i < 3000; ++i) b.Stream("S" + std::to_string(i), "");
    std::string bytes = b.Build();
    Link(bytes, b, 0, kFree, kFree, 1);
    for (uint32_t id = 1; id <= 3000; ++id) Link(bytes, b, id, id < 3000 ? id + 1 : kFree, kFree, kFree);
    TMemoryStream stream(bytes);
    TKvCompoundFile file(stream);
    ASSERT_EQ(file.Entries().size(), 3001u);
    EXPECT_EQ(file.Entries()[1].Path, "S2999");
    // 4000 storages of 31-character names, each the only child of the one before: the paths would take 250
    // MB.
    Builder nest;
    for (int i = 0; i < 4000; ++i) nest.Storage(std::to_string(1000000 + i) + std::string(24, 'x'));
    bytes = nest.Build();
    for (uint32_t id = 0; id <= 4000; ++id) Link(bytes, nest, id, kFree, kFree, id < 4000 ? id + 1 : kFree);
    EXPECT_TRUE(Has(Failure(bytes), "the storages nest so deep that the paths of the 4004 entries"));
}

TEST(KvCompoundFile, DamageIsNamed) {
    // Each case damages the standard file, or with Difat one whose FAT a DIFAT sector lists.
    const struct {
        std::function<void(std::string&, const Builder&)> Damage;
        std::string Message; ///< "" when the file still reads whole
        bool Difat = false;
        size_t Workbook = 5000;
        TKvFormatErrorKind Kind = fekDamaged;
    } cases[] = {
        {[](auto& f, auto& b) { PutU32(f, b.FatEntry(Book(b) + 5), Book(b) + 1); }, "links back to sector"},
        {[](auto& f, auto& b) { PutU32(f, b.FatEntry(Book(b) + 2), 100000); },
         "links to sector 100000, out of range"},
        {[](auto& f, auto& b) { PutU32(f, b.FatEntry(Book(b) + 2), kFree); }, "links to a free sector"},
        {[](auto& f, auto& b) { PutU32(f, b.FatEntry(Book(b) + 8), kEnd); },
         "stream Workbook declares 5000 bytes, its chain of 9 sectors holds 4608"},
        {[](auto& f, auto& b) { PutU32(f, b.Entry("Workbook") + 120, 0xFFFFFFF0); },
         "declares 4294967280 bytes, its chain of 10 sectors holds 5120"},
        {[](auto& f, auto& b) { PutU32(f, b.Entry("Workbook") + 124, 0x12345678); },
         ""}, // version 3: no high half
        {[](auto& f, auto& b) { PutU32(f, b.MiniFatEntry(Small(b) + 3), Small(b)); },
         "links back to mini sector"},
        {[](auto& f, auto& b) { PutU32(f, b.MiniFatEntry(Small(b) + 1), 20); },
         "links to mini sector 20, past the end of the mini stream"},
        {[](auto& f, auto& b) { PutU32(f, b.Entry(0u) + 116, kFree); },
         "the mini stream starts at a free sector"},
        {[](auto& f, auto& b) {
             PutU32(f, b.Entry(uint8_t(f[b.Entry(0u) + 76])) + 72, uint8_t(f[b.Entry(0u) + 76]));
         },
         "which the directory reaches twice (a cycle)"},
        {[](auto& f, auto& b) { PutU32(f, b.Entry("Dir") + 76, 0); },
         "links to entry 0, which the directory reaches twice"},
        {[](auto& f, auto& b) { PutU32(f, b.Entry("Dir/Inner") + 68, 77); },
         "has the left sibling 77, past the 8 entries"},
        {[](auto& f, auto& b) { f[b.Entry("Dir/Inner") + 66] = 0; }, "in the tree has type 0"},
        {[](auto& f, auto& b) { f[b.Entry(0u) + 66] = 1; }, "the first directory entry is not the root"},
        {[](auto& f, auto& b) { PutU32(f, b.FatEntry(b.Where().Directory[0]), b.Where().Directory[0]); },
         "a loop in the chain from sector"},
        {[](auto& f, auto&) { f[7] = 0; }, "no compound file signature"},
        {[](auto& f, auto&) { f[0x1A] = 5; }, "major version 5, not 3 or 4"},
        {[](auto& f, auto&) { test::PutU16(f, 0x1C, 0xFEFF); }, "byte order mark"},
        {[](auto& f, auto&) { f[0x1E] = 12; }, "sector shift 12 in a version 3 file"},
        {[](auto& f, auto&) { f[0x20] = 7; }, "mini sector shift"},
        {[](auto& f, auto&) { PutU32(f, 0x38, 512); }, "mini stream cutoff 512"},
        {[](auto& f, auto&) { f.resize(300); },
         "unexpected end of file at byte 0: reading 512 bytes, 300 left", false, 0, fekTruncated},
        {[](auto& f, auto&) { PutU32(f, 0x4C, kFree); },
         "the chain starts at sector 1, out of range (0 sectors)"},
        {[](auto& f, auto& b) { PutU32(f, b.SectorOffset(b.Where().Difat[0]), 0xFFFFFFFD); },
         "FAT sector 0 of 1 is a FAT sector", true},
        // More FAT sectors than the DIFAT lists: its chain must end by itself.
        {[](auto& f, auto& b) {
             PutU32(f, b.SectorOffset(b.Where().Difat[0]) + 508, b.Where().Difat[0]), PutU32(f, 0x2C, 1000);
         },
         "a loop in the chain from sector", true, 300 * 512},
        {[](auto& f, auto& b) {
             PutU32(f, b.SectorOffset(b.Where().Difat[0]) + 508, 0xFFFFFFF0), PutU32(f, 0x2C, 1000);
         },
         "out of range", true, 300 * 512},
        {[](auto& f, auto& b) { PutU32(f, b.SectorOffset(b.Where().Difat[0]) + 508, kFree); }, "", true},
        // A loop past what the size needs is never followed.
        {[](auto& f, auto& b) {
             PutU32(f, b.Entry("Workbook") + 120, 4600), PutU32(f, b.FatEntry(Book(b) + 9), Book(b));
         },
         ""},
        // Chains may overlap (the workbook's last eight sectors here) as long as each is sound.
        {[](auto& f, auto& b) {
             PutU32(f, b.Entry("Small") + 116, Book(b) + 2), PutU32(f, b.Entry("Small") + 120, 4096);
         },
         ""},
        {[](auto& f, auto& b) {
             PutU32(f, b.Entry("Small") + 116, Book(b) + 2), PutU32(f, b.Entry("Small") + 120, 4100);
         },
         "declares 4100 bytes, its chain of 8 sectors holds 4096"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        Builder b = Standard();
        if (c.Difat) b = Builder().SetHeaderFatIds(0).Stream("Workbook", Pattern(c.Workbook));
        std::string bytes = b.Build();
        c.Damage(bytes, b);
        TKvFormatErrorKind kind = fekDamaged;
        const std::string message = Failure(bytes, &kind);
        if (c.Message.empty()) {
            EXPECT_EQ(message, "");
            continue;
        }
        EXPECT_EQ(message.rfind("Compound file: ", 0), 0u) << message;
        EXPECT_TRUE(Has(message, c.Message));
        EXPECT_EQ(kind, c.Kind) << message;
    }
}

TEST(KvCompoundFile, ErrorsNameTheByteOfTheBadLinkAndSpareTheOtherStreams) {
    Builder b = Standard();
    std::string bytes = b.Build();
    PutU32(bytes, b.FatEntry(Book(b) + 5), Book(b) + 1);
    TMemoryStream stream(bytes);
    TKvCompoundFile file(stream);
    EXPECT_EQ(file.Find("Small")->Size, 300u);
    try {
        file.ReadStream(*file.Find("Workbook"));
        FAIL();
    } catch (const EKvFormatError& e) {
        EXPECT_EQ(e.Offset(), b.FatEntry(Book(b) + 5));
        EXPECT_EQ(file.Find("Workbook")->Size, 6u * 512); // what the chain holds before it loops
    }
    EXPECT_EQ(file.ReadStream(*file.Find("Small")), Pattern(300, 2));
}

TEST(KvCompoundFile, TruncatedFiles) {
    // The workbook's sectors come last; cutting the file shortens only its chain.
    Builder b = Standard();
    const std::string whole = b.Build();
    const size_t at = b.SectorOffset(Book(b));
    const std::string past = ", past the end of the file";
    for (const auto& [size, message] : std::vector<std::pair<size_t, std::string>>{
             {at + 5000, ""}, // the last sector cut short after the stream's end: common
             {at + 4999, "unexpected end of file at byte "},
             {at + 4608, "unexpected end of file at byte "},
             {at + 4607, "links to sector " + std::to_string(Book(b) + 9) + past},
             {at + 3000, "links to sector " + std::to_string(Book(b) + 6) + past}}) {
        SCOPED_TRACE(size);
        TMemoryStream stream(whole.substr(0, size));
        TKvCompoundFile file(stream);
        EXPECT_EQ(file.ReadStream(*file.Find("Small")), Pattern(300, 2));
        TKvFormatErrorKind kind = fekDamaged;
        const std::string got =
            ErrorOf([&] { EXPECT_EQ(file.ReadStream(*file.Find("Workbook")), Pattern(5000, 1)); }, &kind);
        if (message.empty()) {
            EXPECT_EQ(got, "");
        } else {
            EXPECT_TRUE(Has(got, message));
            EXPECT_EQ(kind, fekTruncated);
        }
    }
}

TEST(KvCompoundFile, FatSectorPastTheEndFailsOnlyTheChainsThatNeedIt) {
    // The third FAT sector moved past the end of the file loses the links of sectors 256 and up.
    Builder b;
    b.Stream("Workbook", Pattern(300 * 512, 1)).Stream("Small", "abc");
    std::string bytes = b.Build();
    const auto moved = static_cast<uint32_t>(bytes.size() / 512 - 1) + 50;
    PutU32(bytes, 0x4C + 8, moved);
    TMemoryStream stream(bytes);
    TKvCompoundFile file(stream);
    EXPECT_EQ(file.ReadStream(*file.Find("Small")), "abc");
    TKvFormatErrorKind kind = fekDamaged;
    EXPECT_TRUE(Has(ErrorOf([&] { file.ReadStream(*file.Find("Workbook")); }, &kind),
                    "the FAT sector that links sector 256 lies past the end"));
    EXPECT_EQ(kind, fekTruncated);
}

TEST(KvCompoundFile, CorpusWorkbooksOpenAndEveryStreamReads) {
    const std::string dir = KV_SHARED_DIR "/corpus/xls";
    if (!std::filesystem::exists(dir)) GTEST_SKIP() << "no corpus at " << dir;
    // The files damaged on purpose, and what becomes of them here.
    const std::map<std::string, std::string> damaged = {
        // a tree link of the root's child reaches garbage in the directory's short last sector
        {"OOM_alloc3.xls", "sector 268 links to sector 4294967039, out of range"},
        // the mini stream cutoff is 0 and the FAT sector count 8389121: nothing else is read
        {"xls2csv_ole_ole2_fread_327.xls", "mini stream cutoff 0"},
        {"xls2csv_ole_read_MSAT_772.xls", "entry 6 has the left sibling 1634890867"}, // text's bytes
        {"too_small.xls", "no compound file signature"},                              // 68 bytes of text
        // all entries red, which breaks balancing rules a reader needs nothing of
        {"phpexcel_bad_cfb_dir.xls", ""},
        // chains of different streams overlap, each sound and as long as its size: checking that chains
        // are disjoint would lose the workbook for nothing
        {"corrupted_error.xls", ""},
    };
    int compound = 0;
    for (const auto& f : std::filesystem::directory_iterator(dir)) {
        if (!f.is_regular_file()) continue;
        const std::string name = f.path().filename().string();
        SCOPED_TRACE(name);
        const std::string bytes = ReadFileBytes(f.path().string());
        const auto known = damaged.find(name);
        TMemoryStream stream(bytes);
        if (!TKvCompoundFile::IsCompoundFile(stream) && known == damaged.end()) {
            EXPECT_NE(bytes.substr(0, 1), "\xD0"); // a bare BIFF stream
            continue;
        }
        const std::string message = Failure(bytes);
        if (known != damaged.end()) {
            EXPECT_TRUE(known->second.empty() ? message.empty() : Has(message, known->second)) << message;
            if (!message.empty()) continue;
        }
        ASSERT_EQ(message, "");
        ++compound;
        TKvCompoundFile file(stream);
        const TKvCompoundEntry* book = file.Find("Workbook") ? file.Find("Workbook") : file.Find("Book");
        ASSERT_NE(book, nullptr);
        EXPECT_EQ(book->Type, cetStream);
        EXPECT_GT(file.ReadStream(*book).size(), 16u);
        if (name == "capitalized_wbook_stream.xls") {
            EXPECT_EQ(book->Name, "BOOK");
            EXPECT_EQ(file.ReadStream(*book).substr(0, 2), "\x09\x08"); // a BOF record
        }
    }
    EXPECT_GE(compound, 55);
}

} // namespace kv
