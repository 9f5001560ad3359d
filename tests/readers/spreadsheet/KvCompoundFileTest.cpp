// The compound-file reader: layouts of both sector sizes, the mini stream, storages and case-blind
// lookup, the stream object, every kind of damage the reader must name, and the shared corpus of
// workbooks.

#include "readers/spreadsheet/KvCompoundFile.h"
#include "TestSupport.h"
#include "platform/FormatError.h"

#include "support/ByteStream.h"
#include "support/CompoundFileBuilder.h"

#include <filesystem>
#include <map>

namespace kv {
namespace {

using test::CompoundFileBuilder;
using test::PutU32;

/// A pattern that tells every byte's place: a stream read from the wrong sector or offset shows.
std::string Pattern(size_t size, int seed = 0) {
    std::string out(size, '\0');
    for (size_t i = 0; i < size; ++i) out[i] = static_cast<char>((i * 7 + i / 251 + seed) & 0xFF);
    return out;
}

/// The paths of the entries, and for each stream its size: "a(3) S S/b(5)".
std::string Listing(const TKvCompoundFile& file) {
    std::string out;
    for (const TKvCompoundEntry& e : file.Entries()) {
        if (e.Type == cetRoot) continue;
        out += (out.empty() ? "" : " ") + e.Path;
        if (e.Type == cetStream) out += "(" + std::to_string(e.Size) + ")";
    }
    return out;
}

/// The message of the EKvFormatError that opening `bytes` and reading every stream raises, "" when none.
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

} // namespace

TEST(KvCompoundFile, ReadsStreamsOfBothSectorSizes) {
    for (uint32_t sectorSize : {512u, 4096u}) {
        SCOPED_TRACE(sectorSize);
        CompoundFileBuilder b;
        b.SetSectorSize(sectorSize)
            .Stream("Workbook", Pattern(10000, 1))
            .Stream("\x05SummaryInformation", Pattern(200, 2))
            .Stream("Empty", "")
            .Stream("Just4096", Pattern(4096, 3))
            .Stream("Just4095", Pattern(4095, 4))
            .Stream("_VBA_PROJECT_CUR/VBA/dir", Pattern(700, 5));
        const std::string bytes = b.Build();
        TMemoryStream stream(bytes);
        ASSERT_TRUE(TKvCompoundFile::IsCompoundFile(stream));
        TKvCompoundFile file(stream);
        EXPECT_EQ(file.MajorVersion(), sectorSize == 4096 ? 4 : 3);
        EXPECT_EQ(file.SectorSize(), sectorSize);
        EXPECT_EQ(Listing(file), "Empty(0) Just4095(4095) Just4096(4096) Workbook(10000) "
                                 "_VBA_PROJECT_CUR \x05SummaryInformation(200) _VBA_PROJECT_CUR/VBA "
                                 "_VBA_PROJECT_CUR/VBA/dir(700)");
        EXPECT_EQ(file.ReadStream(*file.Find("Workbook")), Pattern(10000, 1));
        EXPECT_EQ(file.ReadStream(*file.Find("\x05SummaryInformation")), Pattern(200, 2));
        EXPECT_EQ(file.ReadStream(*file.Find("Just4096")), Pattern(4096, 3));
        EXPECT_EQ(file.ReadStream(*file.Find("Just4095")), Pattern(4095, 4));
        EXPECT_EQ(file.ReadStream(*file.Find("_VBA_PROJECT_CUR/VBA/dir")), Pattern(700, 5));
        EXPECT_EQ(file.ReadStream(*file.Find("Empty")), "");
    }
}

TEST(KvCompoundFile, FatSectorsListedInADifatChain) {
    // 300 sectors of data need three FAT sectors; with one id in the header the other two are found
    // through a chain of two DIFAT sectors (each of 512 bytes holds 127 ids and the link).
    for (uint32_t headerIds : {0u, 1u}) {
        CompoundFileBuilder b;
        b.SetHeaderFatIds(headerIds).Stream("Workbook", Pattern(300 * 512, 9)).Stream("Small", "abc");
        const std::string bytes = b.Build();
        ASSERT_EQ(b.Where().Fat.size(), 3u);
        ASSERT_EQ(b.Where().Difat.size(), 1u);
        TMemoryStream stream(bytes);
        TKvCompoundFile file(stream);
        EXPECT_EQ(file.ReadStream(*file.Find("Workbook")), Pattern(300 * 512, 9));
        EXPECT_EQ(file.ReadStream(*file.Find("Small")), "abc");
    }
}

TEST(KvCompoundFile, FindIgnoresCaseOfLatinAndOtherLetters) {
    CompoundFileBuilder b;
    b.Stream("BOOK", "b").Stream("Übersicht/Größe", "g").Stream("Лист1", "c");
    const std::string bytes = b.Build();
    TMemoryStream stream(bytes);
    TKvCompoundFile file(stream);
    const std::map<std::string, std::string> found = {
        {"book", "BOOK"},
        {"Book", "BOOK"},
        {"übersicht/GRÖSSE", ""},
        {"ÜBERSICHT/GRÖßE", "Übersicht/Größe"},
        {"übersicht/größe", "Übersicht/Größe"},
        {"лист1", "Лист1"},
        {"Workbook", ""},
        {"", ""}, // the root is no stream to find
        {"Übersicht/", ""},
        {"Größe", ""},
    };
    for (const auto& [path, expected] : found) {
        const TKvCompoundEntry* e = file.Find(path);
        EXPECT_EQ(e ? e->Path : "", expected) << path;
    }
}

TEST(KvCompoundFile, OpenStreamReadsAndSeeksAcrossSectors) {
    for (size_t size : {1000u, 5000u}) { // in the mini stream, then in 512-byte sectors
        CompoundFileBuilder b;
        b.Stream("S", Pattern(size, 3)).Stream("Other", Pattern(size, 4));
        const std::string bytes = b.Build();
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
        EXPECT_EQ(other->ReadString(300) + s->ReadString(300),
                  Pattern(size, 4).substr(0, 300) + expected.substr(0, 300));
    }
}

TEST(KvCompoundFile, IsCompoundFileLooksAtTheSignatureAndRestoresThePosition) {
    const std::string good = CompoundFileBuilder().Stream("A", "a").Build();
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

TEST(KvCompoundFile, StorageTreeAsDeepAsItHasEntries) {
    // 3000 streams whose left links make one long list: walked without recursion.
    CompoundFileBuilder b;
    for (int i = 0; i < 3000; ++i) b.Stream("S" + std::to_string(i), "");
    std::string bytes = b.Build();
    PutU32(bytes, b.Entry(0u) + 76, 1);
    for (uint32_t id = 1; id <= 3000; ++id) {
        PutU32(bytes, b.Entry(id) + 68, id < 3000 ? id + 1 : 0xFFFFFFFF);
        PutU32(bytes, b.Entry(id) + 72, 0xFFFFFFFF);
    }
    TMemoryStream stream(bytes);
    TKvCompoundFile file(stream);
    ASSERT_EQ(file.Entries().size(), 3001u);
    EXPECT_EQ(file.Entries()[1].Path, "S2999"); // in order: the deepest left first
}

TEST(KvCompoundFile, StoragesNestedDeepFailBeforeTheirPathsFillMemory) {
    // 4000 storages named with 31 characters, each made the only child of the one before: the paths
    // would take 250 MB.
    CompoundFileBuilder b;
    for (int i = 0; i < 4000; ++i) b.Storage(std::to_string(1000000 + i) + std::string(24, 'x'));
    std::string bytes = b.Build();
    for (uint32_t id = 0; id <= 4000; ++id) {
        PutU32(bytes, b.Entry(id) + 68, 0xFFFFFFFF);
        PutU32(bytes, b.Entry(id) + 72, 0xFFFFFFFF);
        PutU32(bytes, b.Entry(id) + 76, id < 4000 ? id + 1 : 0xFFFFFFFF);
    }
    const std::string message = Failure(bytes);
    EXPECT_NE(message.find("the storages nest so deep that the paths of the 4004 entries exceed"),
              std::string::npos)
        << message;
}

namespace {

/// A file built from `b`, damaged by `patch`.
struct Damage {
    const char* Name;
    std::function<void(CompoundFileBuilder&)> Setup;
    std::function<void(std::string&, const CompoundFileBuilder&)> Patch;
    const char* Message; ///< "" when the file still reads whole
    TKvFormatErrorKind Kind = fekDamaged;
};

/// A workbook in 10 sectors, a small stream in the mini stream, a storage with a stream.
void Standard(CompoundFileBuilder& b) {
    b.Stream("Workbook", Pattern(5000, 1))
        .Stream("Small", Pattern(300, 2))
        .Stream("Dir/Inner", Pattern(100, 3));
}

uint32_t Start(const CompoundFileBuilder& b, const std::string& path) {
    return b.Where().Starts.at(path);
}

} // namespace

TEST(KvCompoundFile, DamageIsNamed) {
    constexpr uint32_t kEnd = CompoundFileBuilder::kEnd;
    const std::vector<Damage> cases = {
        {"chain loops", Standard,
         [](std::string& f, const CompoundFileBuilder& b) {
             PutU32(f, b.FatEntry(Start(b, "Workbook") + 5), Start(b, "Workbook") + 1);
         },
         "links back to sector"},
        {"chain points outside the FAT", Standard,
         [](std::string& f, const CompoundFileBuilder& b) {
             PutU32(f, b.FatEntry(Start(b, "Workbook") + 2), 100000);
         },
         "links to sector 100000, out of range"},
        {"chain reaches a free sector", Standard,
         [](std::string& f, const CompoundFileBuilder& b) {
             PutU32(f, b.FatEntry(Start(b, "Workbook") + 2), CompoundFileBuilder::kFree);
         },
         "links to a free sector"},
        {"chain ends before the size", Standard,
         [](std::string& f, const CompoundFileBuilder& b) {
             PutU32(f, b.FatEntry(Start(b, "Workbook") + 8), kEnd);
         },
         "stream Workbook declares 5000 bytes, its chain of 9 sectors holds 4608"},
        {"size beyond the file", Standard,
         [](std::string& f, const CompoundFileBuilder& b) {
             PutU32(f, b.Entry("Workbook") + 120, 0xFFFFFFF0);
         },
         "declares 4294967280 bytes, its chain of 10 sectors holds 5120"},
        {"version 3 ignores the high half of the size", Standard,
         [](std::string& f, const CompoundFileBuilder& b) {
             PutU32(f, b.Entry("Workbook") + 124, 0x12345678);
         },
         ""},
        {"mini chain loops", Standard,
         [](std::string& f, const CompoundFileBuilder& b) {
             PutU32(f, b.MiniFatEntry(Start(b, "Small") + 3), Start(b, "Small"));
         },
         "links back to mini sector"},
        {"mini chain leaves the mini stream", Standard,
         [](std::string& f, const CompoundFileBuilder& b) {
             PutU32(f, b.MiniFatEntry(Start(b, "Small") + 1), 20);
         },
         "links to mini sector 20, past the end of the mini stream"},
        {"mini stream in no sector", Standard,
         [](std::string& f, const CompoundFileBuilder& b) {
             PutU32(f, b.Entry(0u) + 116, CompoundFileBuilder::kFree);
         },
         "the mini stream starts at a free sector"},
        {"directory cycle through a sibling", Standard,
         [](std::string& f, const CompoundFileBuilder& b) {
             const size_t root = b.Entry(0u);
             const uint32_t top = static_cast<uint32_t>(static_cast<unsigned char>(f[root + 76]));
             PutU32(f, b.Entry(top) + 72, top);
         },
         "which the directory reaches twice (a cycle)"},
        {"directory cycle through a storage's child", Standard,
         [](std::string& f, const CompoundFileBuilder& b) { PutU32(f, b.Entry("Dir") + 76, 0); },
         "links to entry 0, which the directory reaches twice"},
        {"directory link out of range", Standard,
         [](std::string& f, const CompoundFileBuilder& b) { PutU32(f, b.Entry("Dir/Inner") + 68, 77); },
         "has the left sibling 77, past the 8 entries"},
        {"unallocated entry in the tree", Standard,
         [](std::string& f, const CompoundFileBuilder& b) { f[b.Entry("Dir/Inner") + 66] = 0; },
         "in the tree has type 0"},
        {"first entry no root", Standard,
         [](std::string& f, const CompoundFileBuilder& b) { f[b.Entry(0u) + 66] = 1; },
         "the first directory entry is not the root"},
        {"directory chain loops", Standard,
         [](std::string& f, const CompoundFileBuilder& b) {
             PutU32(f, b.FatEntry(b.Where().Directory[0]), b.Where().Directory[0]);
         },
         "a loop in the chain from sector"},
        {"no signature", Standard, [](std::string& f, const CompoundFileBuilder&) { f[7] = 0; },
         "no compound file signature"},
        {"version 5", Standard, [](std::string& f, const CompoundFileBuilder&) { f[0x1A] = 5; },
         "major version 5, not 3 or 4"},
        {"big-endian mark", Standard,
         [](std::string& f, const CompoundFileBuilder&) { test::PutU16(f, 0x1C, 0xFEFF); },
         "byte order mark"},
        {"4096-byte sectors in version 3", Standard,
         [](std::string& f, const CompoundFileBuilder&) { f[0x1E] = 12; },
         "sector shift 12 in a version 3 file"},
        {"mini sectors of 128 bytes", Standard,
         [](std::string& f, const CompoundFileBuilder&) { f[0x20] = 7; }, "mini sector shift"},
        {"other cutoff", Standard, [](std::string& f, const CompoundFileBuilder&) { PutU32(f, 0x38, 512); },
         "mini stream cutoff 512"},
        {"under 512 bytes", Standard, [](std::string& f, const CompoundFileBuilder&) { f.resize(300); },
         "unexpected end of file at byte 0: reading 512 bytes, 300 left", fekTruncated},
        {"header FAT id is free", Standard,
         [](std::string& f, const CompoundFileBuilder&) { PutU32(f, 0x4C, CompoundFileBuilder::kFree); },
         "the chain starts at sector 1, out of range (0 sectors)"},
        {"FAT id in the DIFAT is a FAT marker",
         [](CompoundFileBuilder& b) { b.SetHeaderFatIds(0).Stream("Workbook", Pattern(5000)); },
         [](std::string& f, const CompoundFileBuilder& b) {
             PutU32(f, b.SectorOffset(b.Where().Difat[0]), 0xFFFFFFFD);
         },
         "FAT sector 0 of 1 is a FAT sector"},
        {"DIFAT loops",
         [](CompoundFileBuilder& b) { b.SetHeaderFatIds(0).Stream("Workbook", Pattern(300 * 512)); },
         [](std::string& f, const CompoundFileBuilder& b) {
             PutU32(f, b.SectorOffset(b.Where().Difat[0]) + 508, b.Where().Difat[0]);
             PutU32(f, 0x2C, 1000); // more FAT sectors than the chain lists: it must end by itself
         },
         "a loop in the chain from sector"},
        {"DIFAT links out of range",
         [](CompoundFileBuilder& b) { b.SetHeaderFatIds(0).Stream("Workbook", Pattern(300 * 512)); },
         [](std::string& f, const CompoundFileBuilder& b) {
             PutU32(f, b.SectorOffset(b.Where().Difat[0]) + 508, 0xFFFFFFF0);
             PutU32(f, 0x2C, 1000);
         },
         "out of range"},
        {"DIFAT ended by a free link",
         [](CompoundFileBuilder& b) { b.SetHeaderFatIds(0).Stream("Workbook", Pattern(5000)); },
         [](std::string& f, const CompoundFileBuilder& b) {
             PutU32(f, b.SectorOffset(b.Where().Difat[0]) + 508, CompoundFileBuilder::kFree);
         },
         ""},
        {"loop past what the size needs", Standard,
         [](std::string& f, const CompoundFileBuilder& b) {
             PutU32(f, b.Entry("Workbook") + 120, 4600);
             PutU32(f, b.FatEntry(Start(b, "Workbook") + 9), Start(b, "Workbook"));
         },
         ""},
        {"chains that overlap", Standard,
         [](std::string& f, const CompoundFileBuilder& b) {
             // A second stream whose chain is the workbook's last eight sectors: each chain is sound.
             PutU32(f, b.Entry("Small") + 116, Start(b, "Workbook") + 2);
             PutU32(f, b.Entry("Small") + 120, 4096);
         },
         ""},
        {"a size past the end of its chain", Standard,
         [](std::string& f, const CompoundFileBuilder& b) {
             PutU32(f, b.Entry("Small") + 116, Start(b, "Workbook") + 2);
             PutU32(f, b.Entry("Small") + 120, 4100);
         },
         "declares 4100 bytes, its chain of 8 sectors holds 4096"},
    };
    for (const Damage& c : cases) {
        SCOPED_TRACE(c.Name);
        CompoundFileBuilder b;
        c.Setup(b);
        std::string bytes = b.Build();
        c.Patch(bytes, b);
        TKvFormatErrorKind kind = fekDamaged;
        const std::string message = Failure(bytes, &kind);
        if (*c.Message == '\0') {
            EXPECT_EQ(message, "");
            continue;
        }
        EXPECT_NE(message.find(c.Message), std::string::npos) << message;
        EXPECT_EQ(message.rfind("Compound file: ", 0), 0u) << message;
        EXPECT_EQ(kind, c.Kind) << message;
    }
}

TEST(KvCompoundFile, ErrorsNameTheByteOfTheBadLink) {
    CompoundFileBuilder b;
    Standard(b);
    std::string bytes = b.Build();
    PutU32(bytes, b.FatEntry(Start(b, "Workbook") + 5), Start(b, "Workbook") + 1);
    TMemoryStream stream(bytes);
    TKvCompoundFile file(stream);
    EXPECT_EQ(file.Find("Small")->Size, 300u); // the other streams still read
    try {
        file.ReadStream(*file.Find("Workbook"));
        FAIL();
    } catch (const EKvFormatError& e) {
        EXPECT_EQ(e.Offset(), b.FatEntry(Start(b, "Workbook") + 5));
        EXPECT_EQ(file.Find("Workbook")->Size, 6u * 512); // what the chain holds before it loops
    }
    EXPECT_EQ(file.ReadStream(*file.Find("Small")), Pattern(300, 2));
}

TEST(KvCompoundFile, TruncatedFiles) {
    // The workbook's sectors come last; cutting the file shortens only its chain.
    CompoundFileBuilder b;
    Standard(b);
    const std::string whole = b.Build();
    const size_t workbook = b.SectorOffset(Start(b, "Workbook"));
    struct Cut {
        size_t Size;
        std::string Message; ///< of reading the workbook; "" when it reads
    };
    for (const Cut& cut : std::initializer_list<Cut>{
             {workbook + 5000, ""}, // the last sector is cut short after the stream's end: common
             {workbook + 4999, "unexpected end of file at byte "},
             {workbook + 4608, "unexpected end of file at byte "},
             {workbook + 4607,
              "links to sector " + std::to_string(Start(b, "Workbook") + 9) + ", past the end of the file"},
             {workbook + 3000,
              "links to sector " + std::to_string(Start(b, "Workbook") + 6) + ", past the end of the file"},
         }) {
        SCOPED_TRACE(cut.Size);
        TMemoryStream stream(whole.substr(0, cut.Size));
        TKvCompoundFile file(stream);
        EXPECT_EQ(file.ReadStream(*file.Find("Small")), Pattern(300, 2));
        TKvFormatErrorKind kind = fekDamaged;
        std::string message;
        try {
            EXPECT_EQ(file.ReadStream(*file.Find("Workbook")), Pattern(5000, 1));
        } catch (const EKvFormatError& e) {
            message = e.what();
            kind = e.Kind();
        }
        if (cut.Message.empty()) {
            EXPECT_EQ(message, "");
        } else {
            EXPECT_NE(message.find(cut.Message), std::string::npos) << message;
            EXPECT_EQ(kind, fekTruncated);
        }
    }
}

TEST(KvCompoundFile, FatSectorPastTheEndFailsOnlyTheChainsThatNeedIt) {
    // Three FAT sectors, the last written at the end of the file; cutting it off loses the links of
    // sectors 256 and up, which only the workbook's tail uses.
    CompoundFileBuilder b;
    b.Stream("Workbook", Pattern(300 * 512, 1)).Stream("Small", "abc");
    std::string bytes = b.Build();
    const uint32_t lastFat = b.Where().Fat[2];
    const uint32_t moved = static_cast<uint32_t>(bytes.size() / 512 - 1) + 50;
    bytes.resize(bytes.size() + 50 * 512, '\0');
    bytes.replace(b.SectorOffset(moved), 512, bytes.substr(b.SectorOffset(lastFat), 512));
    PutU32(bytes, 0x4C + 8, moved);
    bytes.resize(b.SectorOffset(moved)); // the FAT sector is gone, the data all there
    TMemoryStream stream(bytes);
    TKvCompoundFile file(stream);
    EXPECT_EQ(file.ReadStream(*file.Find("Small")), "abc");
    try {
        file.ReadStream(*file.Find("Workbook"));
        FAIL();
    } catch (const EKvFormatError& e) {
        EXPECT_EQ(e.Kind(), fekTruncated);
        EXPECT_NE(std::string(e.what()).find("the FAT sector that links sector 256 lies past the end"),
                  std::string::npos)
            << e.what();
    }
}

// ---- the shared corpus ----

namespace {

std::string CorpusDir() {
    return KV_SHARED_DIR "/corpus/xls";
}

} // namespace

TEST(KvCompoundFile, CorpusWorkbooksOpenAndEveryStreamReads) {
    if (!std::filesystem::exists(CorpusDir())) GTEST_SKIP() << "no corpus at " << CorpusDir();
    // The files damaged on purpose, and what becomes of them here.
    const std::map<std::string, std::string> damaged = {
        // a tree link of the root's child reaches an entry of garbage in the directory's short last sector
        {"OOM_alloc3.xls", "sector 268 links to sector 4294967039, out of range"},
        // the mini stream cutoff is 0 and the FAT sector count 8389121: nothing else is read
        {"xls2csv_ole_ole2_fread_327.xls", "mini stream cutoff 0"},
        // a workbook entry's left sibling is a text's bytes
        {"xls2csv_ole_read_MSAT_772.xls", "entry 6 has the left sibling 1634890867"},
        // no compound file at all: 68 bytes of text
        {"too_small.xls", "no compound file signature"},
        // readable: its directory entries are all red, which breaks the balancing rules and nothing a
        // reader needs; the tree's links are sound
        {"phpexcel_bad_cfb_dir.xls", ""},
        // readable: sector chains of different streams overlap, but each stream's own chain is sound and as
        // long as its size. The streams are read by their own chains, as the format's own readers do when
        // told to ignore overlaps; checking that chains are disjoint would lose the workbook for nothing.
        {"corrupted_error.xls", ""},
    };
    int compound = 0;
    for (const auto& f : std::filesystem::directory_iterator(CorpusDir())) {
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
            if (known->second.empty()) {
                EXPECT_EQ(message, "");
            } else {
                EXPECT_NE(message.find(known->second), std::string::npos) << message;
            }
            if (!message.empty()) continue;
        }
        ASSERT_EQ(message, "");
        ++compound;
        TKvCompoundFile file(stream);
        const TKvCompoundEntry* book = file.Find("Workbook") ? file.Find("Workbook") : file.Find("Book");
        ASSERT_NE(book, nullptr);
        EXPECT_EQ(book->Type, cetStream);
        EXPECT_GT(file.ReadStream(*book).size(), 16u);
    }
    EXPECT_GE(compound, 55);
}

TEST(KvCompoundFile, CorpusStreamNamedBook) {
    const std::string path = CorpusDir() + "/capitalized_wbook_stream.xls";
    if (!FileExists(path)) GTEST_SKIP() << "no " << path;
    TFileStream stream(path, fmOpenRead);
    TKvCompoundFile file(stream);
    ASSERT_NE(file.Find("Book"), nullptr);
    EXPECT_EQ(file.Find("Book")->Name, "BOOK");
    EXPECT_EQ(file.Find("Workbook"), nullptr);
    EXPECT_EQ(file.ReadStream(*file.Find("book")).substr(0, 2), "\x09\x08"); // a BOF record
}

} // namespace kv
