#include "readers/spreadsheet/KvCompoundFile.h"

#include "platform/BinaryReader.h"
#include "platform/ByteReader.h"
#include "platform/ChainWalker.h"
#include "platform/FormatError.h"
#include "platform/Utf8.h"

#include <algorithm>
#include <cstring>
#include <deque>
#include <exception>

namespace kv {

namespace {

constexpr char kSignature[8] = {'\xD0', '\xCF', '\x11', '\xE0', '\xA1', '\xB1', '\x1A', '\xE1'};
constexpr size_t kHeaderSize = 512;
constexpr size_t kHeaderDifatEntries = 109;
constexpr uint32_t kEntrySize = 128;
constexpr uint32_t kMiniSectorSize = 64;
constexpr uint32_t kMiniStreamCutoff = 4096;
/// Path bytes allowed per directory entry, on average: four times what the 128-byte entries take.
constexpr uint64_t kPathBytesPerEntry = 512;

constexpr uint32_t kMaxRegSect = 0xFFFFFFFA;
constexpr uint32_t kDifSect = 0xFFFFFFFC;
constexpr uint32_t kFatSect = 0xFFFFFFFD;
constexpr uint32_t kEndOfChain = 0xFFFFFFFE;
constexpr uint32_t kFreeSect = 0xFFFFFFFF;
constexpr uint32_t kNoStream = 0xFFFFFFFF;
// Our own mark in the FAT for a link we could not read (its FAT sector lies past the end of the file),
// reported only when a chain needs it: the reserved value 0xFFFFFFFB is never a link of a sound file.
constexpr uint32_t kLinkPastEnd = 0xFFFFFFFB;

/// A table of links (the FAT or the mini FAT) with, for every link, how many distinct links its chain
/// reaches before it ends or breaks. Computed once in linear time, it gives every stream's capacity
/// without walking each chain, which a hostile directory of many entries sharing one long chain would
/// make quadratic.
struct TLinkTable {
    std::vector<uint32_t> Next;
    std::vector<uint32_t> Reach;

    void ComputeReach() {
        const uint64_t n = Next.size();
        Reach.assign(Next.size(), 0);
        // 0: not seen, 1: on the path being followed (Reach holds its index there), 2: done.
        std::vector<uint8_t> state(Next.size(), 0);
        std::vector<uint32_t> path;
        for (uint64_t s = 0; s < n; ++s) {
            if (state[s]) continue;
            path.clear();
            uint64_t x = s;
            while (x < n && state[x] == 0) {
                state[x] = 1;
                Reach[x] = static_cast<uint32_t>(path.size());
                path.push_back(static_cast<uint32_t>(x));
                x = Next[x];
            }
            uint32_t base = 0;
            if (x < n && state[x] == 1) {
                // A loop: every link on it reaches the loop's links and no more.
                const size_t from = Reach[x];
                const auto loop = static_cast<uint32_t>(path.size() - from);
                for (size_t i = from; i < path.size(); ++i) {
                    Reach[path[i]] = loop;
                    state[path[i]] = 2;
                }
                path.resize(from);
                base = loop;
            } else if (x < n) {
                base = Reach[x];
            }
            for (size_t i = path.size(); i-- > 0;) {
                Reach[path[i]] = ++base;
                state[path[i]] = 2;
            }
        }
    }
    /// The links the chain from `start` reaches, 0 for a start that is no link of the table.
    uint64_t ReachFrom(uint32_t start) const { return start < Reach.size() ? Reach[start] : 0; }
};

struct TNode {
    std::string Name;
    uint8_t Type = 0;
    uint32_t Left = kNoStream, Right = kNoStream, Child = kNoStream;
    uint32_t Start = 0;
    uint64_t Size = 0;    ///< as declared
    bool Missing = false; ///< in the part of a short last sector that the file lacks
};

std::string LinkText(uint32_t v) {
    switch (v) {
    case kFreeSect:
        return "a free sector";
    case kFatSect:
        return "a FAT sector";
    case kDifSect:
        return "a DIFAT sector";
    default:
        return "sector " + std::to_string(v);
    }
}

} // namespace

struct TKvCompoundFile::TImpl {
    explicit TImpl(TStream& stream) : Reader(stream, kFormat) {}

    mutable TKvBinaryReader Reader;
    uint64_t FileSize = 0;
    uint16_t Major = 0;
    uint32_t Shift = 0;
    uint32_t SectorSize = 0;
    uint64_t SectorsInFile = 0;   ///< sectors that begin before the end of the file (the last may be short)
    uint64_t FatCapacity = 0;     ///< links the FAT sectors named by the DIFAT hold
    std::vector<uint32_t> FatIds; ///< the FAT's sectors, in order
    TLinkTable Fat;               ///< min(SectorsInFile, FatCapacity) links

    TLinkTable MiniFat;               ///< links of mini sectors that lie inside the mini stream
    std::vector<uint32_t> MiniFatIds; ///< the mini FAT's sectors
    uint64_t MiniFatLinks = 0;        ///< links the mini FAT holds (more than the mini stream may)
    std::vector<uint32_t> MiniStream; ///< the root entry's sectors, as many as its size needs
    uint64_t MiniStreamSize = 0;      ///< bytes of the mini stream those sectors hold
    std::exception_ptr MiniError;     ///< why the mini FAT could not be read, raised by mini streams

    std::vector<uint32_t> DirSectors;
    std::vector<TNode> Nodes;
    std::vector<TKvCompoundEntry> Entries;
    std::vector<std::string> UpperPaths;

    uint64_t SectorOffset(uint64_t sector) const { return (sector + 1) << Shift; }
    uint64_t FatEntryOffset(uint64_t link) const {
        const uint64_t per = SectorSize / 4;
        return link / per < FatIds.size() ? SectorOffset(FatIds[link / per]) + link % per * 4 : 0;
    }
    uint64_t MiniFatEntryOffset(uint64_t link) const {
        const uint64_t per = SectorSize / 4;
        return link / per < MiniFatIds.size() ? SectorOffset(MiniFatIds[link / per]) + link % per * 4 : 0;
    }
    uint64_t EntryOffset(uint32_t id) const {
        const uint32_t per = SectorSize / kEntrySize;
        return id / per < DirSectors.size() ? SectorOffset(DirSectors[id / per]) + id % per * kEntrySize : 0;
    }

    [[noreturn]] void Damaged(uint64_t offset, const std::string& what) const {
        throw EKvFormatError(fekDamaged, kFormat, offset, what);
    }
    [[noreturn]] void Truncated(uint64_t offset, const std::string& what) const {
        throw EKvFormatError(fekTruncated, kFormat, offset, what);
    }

    /// Reads up to `count` bytes at `offset`; returns how many the file holds there.
    size_t ReadAvailable(uint64_t offset, char* out, size_t count) const {
        if (offset >= FileSize) return 0;
        const auto n = static_cast<size_t>(std::min<uint64_t>(count, FileSize - offset));
        Reader.Seek(offset);
        Reader.ReadBuffer(out, n);
        return n;
    }
    /// Reads `count` bytes at `from` of a sector, which the file must hold.
    void ReadSector(uint32_t sector, uint64_t from, char* out, size_t count) const {
        const uint64_t offset = SectorOffset(sector) + from;
        if (offset > FileSize || count > FileSize - offset)
            throw EKvFormatError::ShortRead(kFormat, std::min(offset, FileSize), count,
                                            offset < FileSize ? FileSize - offset : 0);
        Reader.Seek(offset);
        Reader.ReadBuffer(out, count);
    }

    /// The successor of a FAT link for TKvChainWalker: links the file cannot show raise the truncation
    /// error, markers that are not links the damaged-file error; out-of-range links are the walker's.
    uint64_t FatNext(uint64_t link) const {
        const uint32_t v = Fat.Next[link];
        if (v == kEndOfChain) return kEndOfChain;
        if (v == kLinkPastEnd)
            Truncated(FileSize, "the FAT sector that links sector " + std::to_string(link) +
                                    " lies past the end of the file");
        if (v > kMaxRegSect)
            Damaged(FatEntryOffset(link), "sector " + std::to_string(link) + " links to " + LinkText(v));
        if (v >= Fat.Next.size() && v < FatCapacity)
            Truncated(FileSize, "sector " + std::to_string(link) + " links to sector " + std::to_string(v) +
                                    ", past the end of the file (" + std::to_string(SectorsInFile) +
                                    " sectors)");
        return v;
    }
    /// The first `limit` links of the FAT chain from `start` (the whole chain when it ends sooner). The
    /// walk is not disjoint from the others: a file whose streams' chains overlap (one of the corpus's)
    /// still reads when every stream's own chain is sound, which is what its user wants.
    std::vector<uint32_t> FatChain(uint32_t start, uint64_t startOffset, uint64_t limit,
                                   const char* what) const {
        std::vector<uint32_t> chain;
        if (start == kEndOfChain || limit == 0) return chain;
        if (start > kMaxRegSect) Damaged(startOffset, std::string(what) + " starts at " + LinkText(start));
        if (start >= Fat.Next.size() && start < FatCapacity)
            Truncated(FileSize, std::string(what) + " starts at sector " + std::to_string(start) +
                                    ", past the end of the file (" + std::to_string(SectorsInFile) +
                                    " sectors)");
        TKvChainWalker walker(kFormat, "sector", Fat.Next.size(), kEndOfChain);
        walker.SetLocator([this](uint64_t link) { return FatEntryOffset(link); });
        walker.Walk(
            start, startOffset, [this](uint64_t link) { return FatNext(link); },
            [&](uint64_t link) {
                chain.push_back(static_cast<uint32_t>(link));
                return chain.size() < limit;
            });
        return chain;
    }

    uint64_t MiniNext(uint64_t link) const {
        const uint32_t v = MiniFat.Next[link];
        if (v == kEndOfChain) return kEndOfChain;
        if (v == kLinkPastEnd)
            Truncated(FileSize, "the mini FAT sector that links mini sector " + std::to_string(link) +
                                    " lies past the end of the file");
        if (v > kMaxRegSect)
            Damaged(MiniFatEntryOffset(link),
                    "mini sector " + std::to_string(link) + " links to " + LinkText(v));
        if (v >= MiniFat.Next.size() && v < MiniFatLinks)
            Damaged(MiniFatEntryOffset(link), "mini sector " + std::to_string(link) +
                                                  " links to mini sector " + std::to_string(v) +
                                                  ", past the end of the mini stream (" +
                                                  std::to_string(MiniFat.Next.size()) + " mini sectors)");
        return v;
    }
    std::vector<uint32_t> MiniChain(uint32_t start, uint64_t startOffset, uint64_t limit) const {
        if (MiniError) std::rethrow_exception(MiniError);
        std::vector<uint32_t> chain;
        if (start == kEndOfChain || limit == 0) return chain;
        if (start > kMaxRegSect) Damaged(startOffset, "the stream starts at " + LinkText(start));
        TKvChainWalker walker(kFormat, "mini sector", MiniFat.Next.size(), kEndOfChain);
        walker.SetLocator([this](uint64_t link) { return MiniFatEntryOffset(link); });
        walker.Walk(
            start, startOffset, [this](uint64_t link) { return MiniNext(link); },
            [&](uint64_t link) {
                chain.push_back(static_cast<uint32_t>(link));
                return chain.size() < limit;
            });
        return chain;
    }

    void ReadHeader();
    void ReadFat(TByteReader& header, uint32_t fatCount, uint32_t firstDifat);
    void ReadMiniFat(uint32_t first, uint64_t startOffset);
    void ReadDirectory(uint32_t first);
    void BuildTree();

    bool IsMini(const TNode& node, uint32_t id) const { return id != 0 && node.Size < kMiniStreamCutoff; }
    /// The size a stream's chain can hold of its declared size.
    uint64_t HeldSize(const TNode& node, uint32_t id) const {
        if (IsMini(node, id))
            return MiniError ? 0 : std::min(node.Size, MiniFat.ReachFrom(node.Start) * kMiniSectorSize);
        return std::min(node.Size, Fat.ReachFrom(node.Start) * SectorSize);
    }

    class TStreamReader;

    const TNode& StreamNode(const TKvCompoundEntry& entry) const {
        if (entry.Id >= Nodes.size() || Nodes[entry.Id].Type == 0 || Nodes[entry.Id].Type == 1)
            throw EKvFormatError(fekDamaged, kFormat, 0,
                                 "entry " + std::to_string(entry.Id) + " (" + entry.Path + ") is no stream");
        return Nodes[entry.Id];
    }
};

void TKvCompoundFile::TImpl::ReadHeader() {
    FileSize = Reader.Size();
    Reader.Seek(0);
    const size_t sigBytes = static_cast<size_t>(std::min<uint64_t>(FileSize, sizeof kSignature));
    if (Reader.ReadBytes(sigBytes) != std::string_view(kSignature, sigBytes))
        Damaged(0, "no compound file signature");
    Reader.Seek(0);
    const std::string headerBytes = Reader.ReadBytes(kHeaderSize);
    TByteReader h(headerBytes, kFormat, 0, "header");
    h.Seek(0x1A);
    Major = h.ReadU16LE();
    if (Major != 3 && Major != 4)
        h.CorruptAt(0x1A, "major version " + std::to_string(Major) + ", not 3 or 4");
    if (h.ReadU16LE() != 0xFFFE) h.CorruptAt(0x1C, "the byte order mark is not FFFE");
    Shift = h.ReadU16LE();
    if (Shift != (Major == 3 ? 9u : 12u))
        h.CorruptAt(0x1E, "sector shift " + std::to_string(Shift) + " in a version " + std::to_string(Major) +
                              " file (" + (Major == 3 ? "9" : "12") + " expected)");
    SectorSize = uint32_t{1} << Shift;
    if (h.ReadU16LE() != 6) h.CorruptAt(0x20, "the mini sector shift is not 6");
    h.Seek(0x2C);
    const uint32_t fatCount = h.ReadU32LE();
    const uint32_t firstDir = h.ReadU32LE();
    h.Skip(4); // transaction signature
    const uint32_t cutoff = h.ReadU32LE();
    if (cutoff != kMiniStreamCutoff)
        h.CorruptAt(0x38, "mini stream cutoff " + std::to_string(cutoff) + ", not 4096");
    const uint32_t firstMiniFat = h.ReadU32LE();
    h.Skip(4); // the mini FAT sector count: only the sectors covering the mini stream are read
    const uint32_t firstDifat = h.ReadU32LE();
    h.Skip(4); // the DIFAT sector count: the chain itself says where it ends

    // The header sector is a whole sector (4096 bytes in version 4); a short last sector still counts.
    SectorsInFile = FileSize > SectorSize ? (FileSize - SectorSize + SectorSize - 1) >> Shift : 0;
    ReadFat(h, fatCount, firstDifat);
    ReadDirectory(firstDir);
    ReadMiniFat(firstMiniFat, 0x3C);
    BuildTree();
}

void TKvCompoundFile::TImpl::ReadFat(TByteReader& header, uint32_t fatCount, uint32_t firstDifat) {
    // The FAT's sectors: the header's 109, then the DIFAT chain, each of whose sectors ends with the link
    // to the next. Every id is kept (4 bytes each, never more than the sectors that hold them).
    const uint64_t perSector = SectorSize / 4;
    // Free slots of the header's list are passed over: a writer may list every FAT sector in the chain.
    header.Seek(0x4C);
    for (size_t i = 0; i < kHeaderDifatEntries && FatIds.size() < fatCount; ++i)
        if (const uint32_t id = header.ReadU32LE(); id != kFreeSect) FatIds.push_back(id);
    if (FatIds.size() < fatCount && firstDifat != kEndOfChain && firstDifat != kFreeSect) {
        if (firstDifat >= SectorsInFile && firstDifat < uint64_t{fatCount} * perSector)
            Truncated(FileSize, "the DIFAT starts at sector " + std::to_string(firstDifat) +
                                    ", past the end of the file");
        TKvChainWalker walker(kFormat, "sector", SectorsInFile, kEndOfChain);
        walker.SetLocator([this](uint64_t link) { return SectorOffset(link) + SectorSize - 4; });
        std::string sector(SectorSize, '\0');
        walker.Walk(
            firstDifat, 0x44,
            [&](uint64_t link) -> uint64_t {
                const uint32_t next = KvLoadLE<uint32_t>(sector.data() + SectorSize - 4);
                if (next == kFreeSect) return kEndOfChain; // some writers end the chain so
                if (next >= SectorsInFile && next < uint64_t{fatCount} * perSector)
                    Truncated(FileSize, "DIFAT sector " + std::to_string(link) + " links to sector " +
                                            std::to_string(next) + ", past the end of the file");
                return next;
            },
            [&](uint64_t link) {
                ReadSector(static_cast<uint32_t>(link), 0, sector.data(), SectorSize);
                for (uint64_t i = 0; i + 1 < perSector && FatIds.size() < fatCount; ++i)
                    FatIds.push_back(KvLoadLE<uint32_t>(sector.data() + i * 4));
                return FatIds.size() < fatCount;
            });
    }
    FatCapacity = FatIds.size() * perSector;
    // Links past the last sector of the file can never be followed, so the table stops there; a chain
    // that reaches one is cut short by a truncated file.
    const uint64_t links = std::min(SectorsInFile, FatCapacity);
    Fat.Next.assign(links, kLinkPastEnd);
    std::string sector(SectorSize, '\0');
    for (uint64_t i = 0; i < FatIds.size() && i * perSector < links; ++i) {
        const uint32_t id = FatIds[i];
        if (id > kMaxRegSect)
            Damaged(0x4C, "FAT sector " + std::to_string(i) + " of " + std::to_string(FatIds.size()) +
                              " is " + LinkText(id));
        // A FAT sector past the end (or the cut part of a short last one) leaves its links unknown:
        // only a chain that needs them fails.
        const size_t got = ReadAvailable(SectorOffset(id), sector.data(), SectorSize);
        const uint64_t first = i * perSector;
        for (uint64_t j = 0; j < perSector && first + j < links && (j + 1) * 4 <= got; ++j)
            Fat.Next[first + j] = KvLoadLE<uint32_t>(sector.data() + j * 4);
    }
    Fat.ComputeReach();
}

void TKvCompoundFile::TImpl::ReadDirectory(uint32_t first) {
    if (first == kEndOfChain) Damaged(0x30, "the file has no directory");
    DirSectors = FatChain(first, 0x30, UINT64_MAX, "the directory");
    const uint32_t per = SectorSize / kEntrySize;
    std::string sector(SectorSize, '\0');
    for (size_t i = 0; i < DirSectors.size(); ++i) {
        // The short last sector of a file holds only some entries: the others stay as placeholders, so
        // that the ids of the entries after them are right, and are damage only when the tree links them.
        const size_t got = ReadAvailable(SectorOffset(DirSectors[i]), sector.data(), SectorSize);
        for (uint32_t j = 0; j < per; ++j) {
            TNode node;
            if ((j + 1) * kEntrySize > got) {
                node.Missing = true;
                Nodes.push_back(std::move(node));
                continue;
            }
            TByteReader e(std::string_view(sector).substr(j * kEntrySize, kEntrySize), kFormat,
                          SectorOffset(DirSectors[i]) + j * kEntrySize, "directory entry");
            const std::string_view rawName = e.ReadBytes(64);
            const uint16_t nameBytes = e.ReadU16LE();
            size_t units = std::min<size_t>(nameBytes, 64) / 2;
            if (units > 0) --units; // the length counts the terminating NUL
            for (size_t u = 0; u < units; ++u)
                if (rawName[u * 2] == 0 && rawName[u * 2 + 1] == 0) units = u;
            node.Name = Utf16ToUtf8(rawName.substr(0, units * 2), false);
            node.Type = e.ReadU8();
            e.Skip(1); // colour: the tree is walked, never rebalanced
            node.Left = e.ReadU32LE();
            node.Right = e.ReadU32LE();
            node.Child = e.ReadU32LE();
            e.Skip(16 + 4 + 16); // CLSID, state bits, creation and modification times
            node.Start = e.ReadU32LE();
            node.Size = e.ReadU64LE();
            if (Major == 3) node.Size &= 0xFFFFFFFF; // version 3 writers leave the high half undefined
            Nodes.push_back(std::move(node));
        }
    }
    if (Nodes.empty() || Nodes[0].Missing)
        Truncated(FileSize, "the directory's first sector lies past the end of the file");
    if (Nodes[0].Type != 5)
        Damaged(SectorOffset(DirSectors[0]) + 66, "the first directory entry is not the root");
}

void TKvCompoundFile::TImpl::ReadMiniFat(uint32_t first, uint64_t startOffset) {
    const TNode& root = Nodes[0];
    // The mini stream is the root entry's chain; damage past what its size needs is not looked at.
    try {
        const uint64_t needed = (root.Size + SectorSize - 1) >> Shift;
        MiniStream = FatChain(root.Start, EntryOffset(0) + 116, needed, "the mini stream");
        MiniStreamSize = std::min<uint64_t>(root.Size, uint64_t{MiniStream.size()} << Shift);
        // Links of mini sectors past the mini stream could never be followed: the mini FAT's sectors
        // that hold them are not read, nor is its chain past them.
        const uint64_t miniSectors = (MiniStreamSize + kMiniSectorSize - 1) / kMiniSectorSize;
        MiniFatIds =
            FatChain(first, startOffset, (miniSectors * 4 + SectorSize - 1) >> Shift, "the mini FAT");
    } catch (const EKvFormatError&) {
        // Only the streams that live in the mini stream need it: they raise this when read.
        MiniError = std::current_exception();
        return;
    }
    const uint64_t perSector = SectorSize / 4;
    MiniFatLinks = MiniFatIds.size() * perSector;
    const uint64_t links =
        std::min(MiniFatLinks, MiniStreamSize / kMiniSectorSize + (MiniStreamSize % kMiniSectorSize ? 1 : 0));
    MiniFat.Next.assign(links, kLinkPastEnd);
    std::string sector(SectorSize, '\0');
    for (uint64_t i = 0; i < MiniFatIds.size() && i * perSector < links; ++i) {
        const size_t got = ReadAvailable(SectorOffset(MiniFatIds[i]), sector.data(), SectorSize);
        for (uint64_t j = 0; j < perSector && i * perSector + j < links && (j + 1) * 4 <= got; ++j)
            MiniFat.Next[i * perSector + j] = KvLoadLE<uint32_t>(sector.data() + j * 4);
    }
    MiniFat.ComputeReach();
}

void TKvCompoundFile::TImpl::BuildTree() {
    // Each storage's children form a binary tree through their left and right links, walked in order with
    // a stack of our own (a hostile file can make it as deep as it has entries). An entry reached a second
    // time is damage: the links form a cycle, or two storages share an entry.
    const auto count = static_cast<uint32_t>(Nodes.size());
    std::vector<bool> seen(count, false);
    seen[0] = true;
    Entries.push_back({Nodes[0].Name, "", cetRoot, 0, Nodes[0].Start, 0});
    Entries.back().Size = std::min(Nodes[0].Size, uint64_t{MiniStream.size()} << Shift);
    std::deque<std::pair<uint32_t, std::string>> storages{{0u, ""}};
    std::vector<uint32_t> stack;
    uint64_t pathBytes = 0;
    auto check = [&](uint32_t from, uint32_t id, const char* how) {
        const std::string what = "entry " + std::to_string(from) + " has " + how + " " + std::to_string(id);
        if (id >= count)
            Damaged(EntryOffset(from), what + ", past the " + std::to_string(count) + " entries");
        if (Nodes[id].Missing) Truncated(FileSize, what + ", which lies past the end of the file");
    };
    while (!storages.empty()) {
        const auto [storage, prefix] = storages.front();
        storages.pop_front();
        uint32_t from = storage;
        const char* how = "the child";
        uint32_t id = Nodes[storage].Child;
        while (id != kNoStream || !stack.empty()) {
            while (id != kNoStream) {
                check(from, id, how);
                if (seen[id])
                    Damaged(EntryOffset(from), "entry " + std::to_string(from) + " links to entry " +
                                                   std::to_string(id) +
                                                   ", which the directory reaches twice (a cycle)");
                seen[id] = true;
                stack.push_back(id);
                from = id;
                how = "the left sibling";
                id = Nodes[id].Left;
            }
            const uint32_t at = stack.back();
            stack.pop_back();
            const TNode& node = Nodes[at];
            if (node.Type != 1 && node.Type != 2)
                Damaged(EntryOffset(at) + 66, "entry " + std::to_string(at) + " in the tree has type " +
                                                  std::to_string(node.Type) + ", no storage or stream");
            TKvCompoundEntry entry;
            entry.Name = node.Name;
            entry.Path = prefix.empty() ? node.Name : prefix + "/" + node.Name;
            // Storages nested thousands deep would make the paths grow with the square of the entries.
            pathBytes += entry.Path.size();
            if (pathBytes > kPathBytesPerEntry * count)
                Damaged(EntryOffset(at), "the storages nest so deep that the paths of the " +
                                             std::to_string(count) + " entries exceed " +
                                             std::to_string(kPathBytesPerEntry * count) + " bytes");
            entry.Type = node.Type == 1 ? cetStorage : cetStream;
            entry.StartSector = node.Start;
            entry.Size = node.Type == 2 ? HeldSize(node, at) : 0;
            entry.Id = at;
            if (node.Type == 1) storages.emplace_back(at, entry.Path);
            Entries.push_back(std::move(entry));
            from = at;
            how = "the right sibling";
            id = node.Right;
        }
    }
    UpperPaths.reserve(Entries.size());
    for (const TKvCompoundEntry& e : Entries) UpperPaths.push_back(Utf8UpperCase(e.Path));
}

// ---- the stream of one entry ----

class TKvCompoundFile::TImpl::TStreamReader : public TStream {
public:
    TStreamReader(const TImpl& file, std::vector<uint32_t> chain, bool mini, uint64_t size)
        : file_(file), chain_(std::move(chain)), mini_(mini), size_(size),
          unit_(mini ? kMiniSectorSize : file.SectorSize) {}

    size_t Read(void* buffer, size_t count) override {
        if (position_ >= size_) return 0;
        const auto n = static_cast<size_t>(std::min<uint64_t>(count, size_ - position_));
        char* out = static_cast<char*>(buffer);
        for (size_t done = 0; done < n;) {
            const uint64_t index = position_ / unit_;
            const uint64_t within = position_ % unit_;
            const auto part = static_cast<size_t>(std::min<uint64_t>(unit_ - within, n - done));
            if (mini_)
                ReadMini(chain_[index] * uint64_t{kMiniSectorSize} + within, out + done, part);
            else
                file_.ReadSector(chain_[index], within, out + done, part);
            done += part;
            position_ += part;
        }
        return n;
    }
    size_t Write(const void*, size_t) override { return 0; }
    int64_t Seek(int64_t offset, TSeekOrigin origin) override {
        const int64_t base = origin == soBeginning ? 0
                             : origin == soCurrent ? static_cast<int64_t>(position_)
                                                   : static_cast<int64_t>(size_);
        position_ = static_cast<uint64_t>(std::max<int64_t>(base + offset, 0));
        return static_cast<int64_t>(position_);
    }
    int64_t Size() override { return static_cast<int64_t>(size_); }
    std::string ClassName() const override { return "TKvCompoundStream"; }

private:
    // Bytes at `offset` of the mini stream (never across one of its sectors: a mini sector lies in one).
    void ReadMini(uint64_t offset, char* out, size_t count) const {
        const uint64_t index = offset >> file_.Shift;
        if (index >= file_.MiniStream.size())
            throw EKvFormatError(fekDamaged, TKvCompoundFile::kFormat, 0,
                                 "mini stream byte " + std::to_string(offset) + " lies past its " +
                                     std::to_string(file_.MiniStreamSize) + " bytes");
        file_.ReadSector(file_.MiniStream[index], offset & (file_.SectorSize - 1), out, count);
    }

    const TImpl& file_;
    std::vector<uint32_t> chain_;
    bool mini_;
    uint64_t size_;
    uint32_t unit_;
    uint64_t position_ = 0;
};

// ---- TKvCompoundFile ----

bool TKvCompoundFile::IsCompoundFile(TStream& stream) {
    const int64_t saved = stream.Position();
    char head[sizeof kSignature] = {};
    bool match = false;
    if (stream.Seek(0, soBeginning) == 0) {
        try {
            match = stream.ReadUpTo(head, sizeof head) == sizeof head &&
                    std::memcmp(head, kSignature, sizeof head) == 0;
        } catch (const EReadError&) {
            match = false;
        }
    }
    stream.Seek(saved, soBeginning);
    return match;
}

TKvCompoundFile::TKvCompoundFile(TStream& stream) : impl_(std::make_unique<TImpl>(stream)) {
    impl_->ReadHeader();
}

TKvCompoundFile::~TKvCompoundFile() = default;

uint16_t TKvCompoundFile::MajorVersion() const {
    return impl_->Major;
}
uint32_t TKvCompoundFile::SectorSize() const {
    return impl_->SectorSize;
}
const std::vector<TKvCompoundEntry>& TKvCompoundFile::Entries() const {
    return impl_->Entries;
}

const TKvCompoundEntry* TKvCompoundFile::Find(std::string_view path) const {
    const std::string upper = Utf8UpperCase(path);
    for (size_t i = 0; i < impl_->Entries.size(); ++i)
        if (impl_->UpperPaths[i] == upper) return &impl_->Entries[i];
    return nullptr;
}

std::unique_ptr<TStream> TKvCompoundFile::OpenStream(const TKvCompoundEntry& entry) const {
    const TImpl& f = *impl_;
    const TNode& node = f.StreamNode(entry);
    const bool mini = f.IsMini(node, entry.Id);
    const uint32_t unit = mini ? kMiniSectorSize : f.SectorSize;
    const uint64_t needed = node.Size / unit + (node.Size % unit ? 1 : 0);
    const uint64_t startOffset = f.EntryOffset(entry.Id) + 116;
    // The chain is followed only as far as the size needs: links past that are never read.
    std::vector<uint32_t> chain = mini ? f.MiniChain(node.Start, startOffset, needed)
                                       : f.FatChain(node.Start, startOffset, needed, "the stream");
    if (chain.size() < needed)
        f.Damaged(f.EntryOffset(entry.Id) + 120, "stream " + entry.Path + " declares " +
                                                     std::to_string(node.Size) + " bytes, its chain of " +
                                                     std::to_string(chain.size()) +
                                                     (mini ? " mini sectors" : " sectors") + " holds " +
                                                     std::to_string(chain.size() * unit));
    return std::make_unique<TImpl::TStreamReader>(f, std::move(chain), mini, node.Size);
}

std::string TKvCompoundFile::ReadStream(const TKvCompoundEntry& entry) const {
    const std::unique_ptr<TStream> stream = OpenStream(entry);
    std::string out(static_cast<size_t>(stream->Size()), '\0');
    stream->ReadBuffer(out.data(), out.size());
    return out;
}

} // namespace kv
