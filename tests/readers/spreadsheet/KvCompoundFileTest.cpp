// The compound-file reader: both sector sizes, the DIFAT, the mini stream, storages and case-blind lookup,
// the stream object, and every kind of damage the reader must name. The corpus walk in KvXLSCorpusTest reads
// every stream of the shared corpus.

#include "readers/spreadsheet/KvCompoundFile.h"
#include "TestSupport.h"
#include "platform/FormatError.h"

#include "support/ByteStream.h"
#include "support/CompoundFileBuilder.h"

namespace kv {
namespace {

using test::PutU32;
using Builder = test::CompoundFileBuilder;
constexpr uint32_t kEnd = Builder::kEnd, kFree = Builder::kFree;

/// A pattern that tells every byte's place: a stream read from the wrong sector or offset shows.
std::string Pattern(size_t size, int seed = 0) {
    std::string out(size, '\0');
    for (size_t i = 0; i < size; ++i) out[i] = static_cast<char>((i * 7 + i / 251 + seed) & 0xFF);
    return out;
}

/// The error of opening `bytes` and reading every stream in the order listed, "" when none.
std::string Failure(const std::string& bytes, TKvFormatErrorKind* kind = nullptr) {
    try {
        TMemoryStream stream(bytes);
        TKvCompoundFile file(stream);
        for (const TKvCompoundEntry& e : file.Entries())
            if (e.Type == cetStream) file.ReadStream(e);
        return "";
    } catch (const EKvFormatError& e) {
        if (kind) *kind = e.Kind();
        return e.what();
    }
}

/// A workbook in 10 sectors, a small stream in the mini stream, a storage with a stream; listed in this
/// order.
Builder Standard() {
    Builder b;
    b.Stream("Workbook", Pattern(5000, 1))
        .Stream("Small", Pattern(300, 2))
        .Stream("Dir/Inner", Pattern(100, 3));
    return b;
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
        TMemoryStream stream(bytes);
        TKvCompoundFile file(stream);
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
    // clang-format off
    const std::pair<const char*, const char*> found[] = {
        {"book", "BOOK"}, {"Book", "BOOK"}, {"übersicht/GRÖSSE", ""}, {"ÜBERSICHT/GRÖßE", "Übersicht/Größe"},
        {"übersicht/größe", "Übersicht/Größe"}, {"лист1", "Лист1"}, {"Workbook", ""}, {"", ""} /* the root */,
        {"Übersicht/", ""}, {"Größe", ""}};
    // clang-format on
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
    EXPECT_NE(Failure(bytes).find("the storages nest so deep that the paths of the 4004 entries"),
              std::string::npos);
}

TEST(KvCompoundFile, DamageIsNamed) {
    // Each case patches 4 bytes (or 1) of the standard file, or with Difat of one whose FAT a DIFAT sector
    // lists, or cuts it; the streams listed before the one that fails must read.
    Builder s = Standard(), d;
    d.SetHeaderFatIds(0).Stream("Workbook", Pattern(300 * 512)).Stream("Small", "abc");
    const std::string standard = s.Build(), difatFile = d.Build();
    const uint32_t book = s.Start("Workbook"), small = s.Start("Small"), dir = s.Where().Directory[0];
    const uint32_t top = static_cast<uint8_t>(standard[s.Entry(0u) + 76]); // the root's child
    const size_t at = s.SectorOffset(book), difat = d.SectorOffset(d.Where().Difat[0]);
    const auto past = [](uint32_t sector) {
        return "links to sector " + std::to_string(sector) + ", past the end of the file";
    };
    struct Patch {
        size_t At;
        uint32_t Value;
        int Width = 4;
    };
    const struct {
        std::vector<Patch> Patches;
        std::string Message; ///< "" when the file still reads whole
        bool Difat = false;
        size_t Cut = 0;
        TKvFormatErrorKind Kind = fekDamaged;
    } cases[] = {
        {{{s.FatEntry(book + 5), book + 1}}, "links back to sector"},
        {{{s.FatEntry(book + 2), 100000}}, "links to sector 100000, out of range"},
        {{{s.FatEntry(book + 2), kFree}}, "links to a free sector"},
        {{{s.FatEntry(book + 8), kEnd}},
         "stream Workbook declares 5000 bytes, its chain of 9 sectors holds 4608"},
        {{{s.Entry("Workbook") + 120, 0xFFFFFFF0}},
         "declares 4294967280 bytes, its chain of 10 sectors holds 5120"},
        {{{s.Entry("Workbook") + 124, 0x12345678}}, ""}, // version 3: no high half
        {{{s.MiniFatEntry(small + 3), small}}, "links back to mini sector"},
        {{{s.MiniFatEntry(small + 1), 20}}, "links to mini sector 20, past the end of the mini stream"},
        {{{s.Entry(0u) + 116, kFree}}, "the mini stream starts at a free sector"},
        {{{s.Entry(top) + 72, top}}, "which the directory reaches twice (a cycle)"},
        {{{s.Entry("Dir") + 76, 0}}, "links to entry 0, which the directory reaches twice"},
        {{{s.Entry("Dir/Inner") + 68, 77}}, "has the left sibling 77, past the 8 entries"},
        {{{s.Entry("Dir/Inner") + 66, 0, 1}}, "in the tree has type 0"},
        {{{s.Entry(0u) + 66, 1, 1}}, "the first directory entry is not the root"},
        {{{s.FatEntry(dir), dir}}, "a loop in the chain from sector"},
        {{{7, 0, 1}}, "no compound file signature"},
        {{{0x1A, 5, 1}}, "major version 5, not 3 or 4"},
        {{{0x1C, 0, 1}}, "byte order mark"},
        {{{0x1E, 12, 1}}, "sector shift 12 in a version 3 file"},
        {{{0x20, 7, 1}}, "mini sector shift"},
        {{{0x38, 512}}, "mini stream cutoff 512"},
        {{{0x4C, kFree}}, "the chain starts at sector 1, out of range (0 sectors)"},
        // A loop past what the size needs is never followed.
        {{{s.Entry("Workbook") + 120, 4600}, {s.FatEntry(book + 9), book}}, ""},
        // Chains may overlap (the workbook's last eight sectors here) as long as each is sound.
        {{{s.Entry("Small") + 116, book + 2}, {s.Entry("Small") + 120, 4096}}, ""},
        {{{s.Entry("Small") + 116, book + 2}, {s.Entry("Small") + 120, 4100}},
         "declares 4100 bytes, its chain of 8 sectors holds 4096"},
        // The workbook's sectors come last: cutting the file shortens its chain only.
        {{}, "unexpected end of file at byte 0: reading 512 bytes, 300 left", false, 300, fekTruncated},
        {{}, "", false, at + 5000}, // the last sector cut short after the stream's end: common
        {{}, "unexpected end of file at byte ", false, at + 4999, fekTruncated},
        {{}, "unexpected end of file at byte ", false, at + 4608, fekTruncated},
        {{}, past(book + 9), false, at + 4607, fekTruncated},
        {{}, past(book + 6), false, at + 3000, fekTruncated},
        {{{difat, 0xFFFFFFFD}}, "FAT sector 0 of 3 is a FAT sector", true},
        // More FAT sectors than the DIFAT lists: its chain must end by itself, and may end with a free link.
        {{{difat + 508, d.Where().Difat[0]}, {0x2C, 1000}}, "a loop in the chain from sector", true},
        {{{difat + 508, 0xFFFFFFF0}, {0x2C, 1000}}, "out of range", true},
        {{{difat + 508, kFree}, {0x2C, 1000}}, "", true},
        // The third FAT sector past the end loses the links of sectors 256 and up.
        {{{difat + 8, static_cast<uint32_t>(difatFile.size() / 512 + 50)}},
         "the FAT sector that links sector 256 lies past the end",
         true,
         0,
         fekTruncated},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        std::string bytes = c.Difat ? difatFile : standard;
        for (const Patch& p : c.Patches) bytes.replace(p.At, p.Width, test::U32(p.Value).substr(0, p.Width));
        if (c.Cut) bytes.resize(c.Cut);
        TKvFormatErrorKind kind = fekDamaged;
        const std::string message = Failure(bytes, &kind);
        EXPECT_EQ(message.empty(), c.Message.empty()) << message;
        EXPECT_EQ(message.rfind("Compound file: ", 0) == 0 && message.find(c.Message) != std::string::npos &&
                      kind == c.Kind,
                  !c.Message.empty())
            << message;
    }
}

TEST(KvCompoundFile, ErrorsNameTheByteOfTheBadLinkAndSpareTheOtherStreams) {
    Builder b = Standard();
    std::string bytes = b.Build();
    const uint32_t book = b.Start("Workbook");
    PutU32(bytes, b.FatEntry(book + 5), book + 1);
    TMemoryStream stream(bytes);
    TKvCompoundFile file(stream);
    EXPECT_EQ(file.Find("Workbook")->Size, 6u * 512); // what the chain holds before it loops
    try {
        file.ReadStream(*file.Find("Workbook"));
        ADD_FAILURE();
    } catch (const EKvFormatError& e) {
        EXPECT_EQ(e.Offset(), b.FatEntry(book + 5));
    }
    EXPECT_EQ(file.ReadStream(*file.Find("Dir/Inner")), Pattern(100, 3));
}

} // namespace kv
