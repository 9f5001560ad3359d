#include "readers/archive/KvZipReader.h"

#include "platform/AllocationGuard.h"
#include "platform/BinaryReader.h"
#include "platform/Format.h"
#include "platform/FormatError.h"
#include "platform/Utf8.h"
#include "readers/archive/KvZipInternal.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <exception>
#include <new>
#include <numeric>
#include <optional>
#include <unordered_map>

namespace kv {

// ---- the pieces KvIZipFile shares ----

namespace zip {

TInflater::TInflater() {
    if (inflateInit2(&z_, -MAX_WBITS) != Z_OK) throw std::bad_alloc();
}

TInflater::~TInflater() {
    inflateEnd(&z_);
}

void TInflater::Reset() {
    inflateReset(&z_);
    totalIn_ = 0;
}

TInflater::TStatus TInflater::Inflate(const char*& in, size_t& inSize, char*& out, size_t& outSize) {
    // zlib counts in uInt: larger pieces go in turns.
    const auto inChunk = static_cast<uInt>(std::min<size_t>(inSize, UINT_MAX));
    const auto outChunk = static_cast<uInt>(std::min<size_t>(outSize, UINT_MAX));
    z_.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(in));
    z_.avail_in = inChunk;
    z_.next_out = reinterpret_cast<Bytef*>(out);
    z_.avail_out = outChunk;
    const int rc = inflate(&z_, Z_NO_FLUSH);
    const size_t used = inChunk - z_.avail_in, made = outChunk - z_.avail_out;
    in += used;
    inSize -= used;
    out += made;
    outSize -= made;
    totalIn_ += used;
    switch (rc) {
    case Z_STREAM_END:
        return isEnd;
    case Z_OK:
    case Z_BUF_ERROR: // nothing could move: the caller sees which side is empty
        return isProgress;
    case Z_MEM_ERROR:
        throw std::bad_alloc();
    default:
        return isDamaged;
    }
}

std::string TInflater::Message() const {
    return z_.msg ? z_.msg : "invalid deflate data";
}

} // namespace zip

using namespace zip;

std::string_view KvZipMethodName(uint16_t method) {
    switch (method) {
    case 0:
        return "Stored";
    case 1:
        return "Shrink";
    case 2:
    case 3:
    case 4:
    case 5:
        return "Reduce";
    case 6:
        return "Implode";
    case 8:
        return "Deflate";
    case 9:
        return "Deflate64";
    case 10:
        return "PKWARE DCL Implode";
    case 12:
        return "bzip2";
    case 14:
        return "LZMA";
    case 16:
        return "IBM z/OS CMPSC";
    case 18:
        return "IBM TERSE";
    case 19:
        return "IBM LZ77";
    case 20:
    case 93:
        return "Zstandard";
    case 94:
        return "MP3";
    case 95:
        return "XZ";
    case 96:
        return "JPEG";
    case 97:
        return "WavPack";
    case 98:
        return "PPMd";
    case 99:
        return "AES";
    default:
        return "";
    }
}

uint32_t KvZipCrc32(std::string_view bytes, uint32_t crc) {
    return static_cast<uint32_t>(
        crc32_z(crc, reinterpret_cast<const Bytef*>(bytes.data()), static_cast<z_size_t>(bytes.size())));
}

bool TKvZipEntry::IsDirectory() const {
    return !Name.empty() && (Name.back() == '/' || Name.back() == '\\');
}

TDateTime TKvZipEntry::Modified() const {
    TDateTime date = 0, time = 0;
    if (!TryEncodeDate(1980 + (DosDate >> 9), (DosDate >> 5) & 15, DosDate & 31, date)) return 0;
    if (!TryEncodeTime(DosTime >> 11, (DosTime >> 5) & 63, (DosTime & 31) * 2, 0, time)) time = 0;
    return date + time;
}

EKvZipError::EKvZipError(TKvZipErrorKind kind, std::string member, const std::string& what)
    : Exception(std::string(TKvZipReader::kFormat) + ": " + what), kind_(kind), member_(std::move(member)) {}

namespace {

constexpr uint32_t k32 = 0xFFFFFFFF;
constexpr size_t kInputBlock = 256 * 1024;

/// The body of the first extra field block with `id`, if any. Blocks that run past the field end the
/// walk: writers pad extra fields, and only the blocks before the padding mean anything.
std::optional<std::string_view> ExtraBlock(std::string_view extra, uint16_t id) {
    size_t at = 0;
    while (extra.size() - at >= 4) {
        const auto blockId = KvLoadLE<uint16_t>(extra.data() + at);
        const auto size = KvLoadLE<uint16_t>(extra.data() + at + 2);
        if (size > extra.size() - at - 4) break;
        if (blockId == id) return extra.substr(at + 4, size);
        at += 4 + size;
    }
    return std::nullopt;
}

std::string Hex(uint32_t v) {
    return Format("%.8x", v);
}

/// The end record chosen, with where its central directory lies.
struct TEnd {
    uint64_t Position = 0; ///< of the end record
    uint64_t CentralStart = 0, CentralSize = 0, Entries = 0, EntriesOnDisk = 0, Junk = 0;
    bool Zip64 = false;
    bool MultiDisk = false;
    uint32_t Disk = 0;
    int Fit = 0; ///< 0: the comment ends the file, 1: bytes follow it, 2: it runs past the end
    size_t CommentAt = 0, CommentLength = 0; ///< in the window the end record was found in
    std::string Comment;
};

} // namespace

struct TKvZipReader::TImpl {
    TImpl(std::unique_ptr<TStream> owned, TStream& stream, const TKvZipLimits& limits)
        : Owned(std::move(owned)), Reader(stream, kFormat), Limits(limits) {}

    std::unique_ptr<TStream> Owned;
    mutable TKvBinaryReader Reader;
    TKvZipLimits Limits;
    uint64_t FileSize = 0;
    TEnd End;
    std::vector<TKvZipEntry> Entries;
    /// Per entry: where its data must end (the next member's local header, or the central directory).
    std::vector<uint64_t> DataBound;
    std::unordered_map<std::string, uint32_t> ByName, ByFoldedName;

    class TMemberStream;

    [[noreturn]] void Damaged(uint64_t offset, const std::string& what) const {
        throw EKvFormatError(fekDamaged, kFormat, offset, what);
    }
    /// The 32-bit value at `offset`, 0 when the file ends before it.
    uint32_t U32At(uint64_t offset) const {
        if (offset > FileSize || FileSize - offset < 4) return 0;
        Reader.Seek(offset);
        return Reader.ReadU32LE();
    }

    void Read();
    /// True when the first entry of the directory at `start`, moved by `junk` bytes, leads to a local
    /// header: bytes before an archive move every offset alike, a damaged offset only one.
    bool LocalHeaderAfter(uint64_t start, uint64_t junk) const {
        if (FileSize - start < kCentralHeaderSize) return true;
        const uint64_t local = U32At(start + 42);
        return local == 0xFFFFFFFF || U32At(local + junk) == kLocalSignature;
    }
    std::optional<TEnd> TryEnd(std::string_view window, uint64_t windowStart, uint64_t position,
                               std::string& why, uint64_t& whyAt) const;
    void ReadCentralDirectory();
    void CheckExtents();
    static std::string Fold(std::string_view name) {
        std::string folded = Utf8UpperCase(name);
        std::replace(folded.begin(), folded.end(), '\\', '/');
        return folded;
    }

    const TKvZipEntry& Own(const TKvZipEntry& entry) const {
        if (entry.Index >= Entries.size() || Entries[entry.Index].RawName != entry.RawName ||
            Entries[entry.Index].LocalHeaderOffset != entry.LocalHeaderOffset)
            throw Exception(std::string(kFormat) + ": " + MemberText(entry.Name) + " is not in this archive");
        return Entries[entry.Index];
    }
    /// Checks what the member may be read as, then its local header; gives where its data starts.
    uint64_t Prepare(const TKvZipEntry& e, uint64_t maxBytes, const char* how) const;
};

// ---- the end record and the central directory ----

std::optional<TEnd> TKvZipReader::TImpl::TryEnd(std::string_view window, uint64_t windowStart,
                                                uint64_t position, std::string& why, uint64_t& whyAt) const {
    TByteReader r(window.substr(position - windowStart, kEndRecordSize), kFormat, position, "end record");
    const TKvZipEndRecord rec = ReadEndRecord(r);
    TEnd end;
    end.Position = position;
    const uint64_t commentEnd = position + kEndRecordSize + rec.CommentLength;
    end.Fit = commentEnd == FileSize ? 0 : commentEnd < FileSize ? 1 : 2;
    end.CommentAt = position - windowStart + kEndRecordSize;
    end.CommentLength = std::min<size_t>(rec.CommentLength, window.size() - end.CommentAt);
    end.Entries = rec.TotalEntries;
    end.CentralSize = rec.CentralDirectorySize;
    uint64_t offset = rec.CentralDirectoryOffset;
    uint64_t directoryEnd = position;
    end.Disk = rec.DiskNumber;
    end.EntriesOnDisk = rec.EntriesOnDisk;
    end.MultiDisk = rec.DiskNumber != 0 || rec.CentralDirectoryDisk != 0;

    // A Zip64 end record lies before its locator, which lies right before the end record. Its offset counts
    // from the start of the archive, which bytes before it move: failing there, it is looked for where it
    // would lie without data of its own after the fixed part.
    if (position >= kZip64LocatorSize && U32At(position - kZip64LocatorSize) == kZip64LocatorSignature) {
        Reader.Seek(position - kZip64LocatorSize + 4);
        const uint32_t recordDisk = Reader.ReadU32LE();
        const uint64_t recordOffset = Reader.ReadU64LE();
        const uint32_t disks = Reader.ReadU32LE();
        const uint64_t locator = position - kZip64LocatorSize;
        for (uint64_t at : {recordOffset, locator >= kZip64EndSize ? locator - kZip64EndSize : UINT64_MAX}) {
            if (at > locator || locator - at < kZip64EndSize || at < recordOffset) continue;
            Reader.Seek(at);
            const std::string bytes = Reader.ReadBytes(kZip64EndSize);
            TByteReader z(bytes, kFormat, at, "Zip64 end record");
            if (z.ReadU32LE() != kZip64EndSignature) continue;
            const uint64_t size = z.ReadU64LE();
            if (size > locator - at - 12 || at + 12 + size != locator) continue;
            z.Skip(4); // versions
            const uint32_t disk = z.ReadU32LE();
            const uint32_t directoryDisk = z.ReadU32LE();
            const uint64_t onDisk = z.ReadU64LE();
            end.EntriesOnDisk = onDisk;
            end.Entries = z.ReadU64LE();
            end.CentralSize = z.ReadU64LE();
            offset = z.ReadU64LE();
            directoryEnd = at;
            end.Zip64 = true;
            end.Disk = disk;
            end.MultiDisk = disk != 0 || directoryDisk != 0 || recordDisk != 0 || disks > 1;
            break;
        }
    }
    if (end.MultiDisk) return end;
    // The reason a record fails is kept for the one nearest the end, the likeliest to be the archive's.
    const bool first = why.empty();
    if (end.CentralSize > directoryEnd) {
        if (!first) return std::nullopt;
        whyAt = position;
        why = "the end record at byte " + std::to_string(position) + " gives a central directory of " +
              std::to_string(end.CentralSize) + " bytes, more than the " + std::to_string(directoryEnd) +
              " before it";
        return std::nullopt;
    }
    // The directory lies at its offset, or, when bytes precede the archive, right before the end records.
    const auto directoryAt = [&](uint64_t at) {
        return end.CentralSize == 0 ? end.Entries == 0 : U32At(at) == kCentralSignature;
    };
    if (offset <= directoryEnd - end.CentralSize && directoryAt(offset)) {
        end.CentralStart = offset;
    } else if (const uint64_t start = directoryEnd - end.CentralSize;
               start >= offset && directoryAt(start) && LocalHeaderAfter(start, start - offset)) {
        end.CentralStart = start;
        end.Junk = start - offset;
    } else {
        if (!first) return std::nullopt;
        whyAt = position;
        why = "the end record at byte " + std::to_string(position) + " puts the central directory at byte " +
              std::to_string(offset) + ", where there is none";
        return std::nullopt;
    }
    return end;
}

void TKvZipReader::TImpl::Read() {
    FileSize = Reader.Size();
    if (FileSize < kEndRecordSize)
        Damaged(0, "not a zip archive: " + std::to_string(FileSize) +
                       " bytes, fewer than an end of central directory record takes");
    // The end record is the last thing in an archive but for its comment (65535 bytes at most); bytes
    // after the comment are allowed. Of the records found, one whose comment ends the file wins, the
    // earliest when several do (an archive in the comment of another is a comment); else the last.
    const uint64_t windowStart = FileSize - std::min<uint64_t>(FileSize, 0xFFFF + kEndRecordSize);
    Reader.Seek(windowStart);
    const std::string window = Reader.ReadBytes(static_cast<size_t>(FileSize - windowStart));
    std::optional<TEnd> best;
    std::string why;
    uint64_t whyAt = 0;
    for (size_t p = window.size() - kEndRecordSize + 1; p-- > 0;) {
        if (window[p] != 'P' || KvLoadLE<uint32_t>(window.data() + p) != kEndSignature) continue;
        std::optional<TEnd> end = TryEnd(window, windowStart, windowStart + p, why, whyAt);
        if (!end) continue;
        if (!best || end->Fit < best->Fit || (end->Fit == 0 && best->Fit == 0)) best = std::move(end);
    }
    if (!best) {
        if (why.empty() && U32At(0) == kLocalSignature) {
            whyAt = FileSize;
            why = "no end of central directory record: the archive is cut short or damaged";
        } else if (why.empty()) {
            why = "not a zip archive: no end of central directory record";
        }
        Damaged(whyAt, why);
    }
    End = std::move(*best);
    End.Comment = DecodeZipText(std::string_view(window).substr(End.CommentAt, End.CommentLength));
    if (End.MultiDisk)
        throw EKvZipError(zekMultiDisk, "",
                          "the archive is disk " + std::to_string(End.Disk + 1) +
                              " of a set split over several files, which this reader does not support");
    if (End.EntriesOnDisk != End.Entries)
        Damaged(End.Position, "the end record counts " + std::to_string(End.EntriesOnDisk) +
                                  " members on this disk and " + std::to_string(End.Entries) +
                                  " in all, in an archive of one disk");
    ReadCentralDirectory();
    CheckExtents();
    for (uint32_t i = 0; i < Entries.size(); ++i) {
        ByName.emplace(Entries[i].Name, i);
        ByFoldedName.emplace(Fold(Entries[i].Name), i);
    }
}

void TKvZipReader::TImpl::ReadCentralDirectory() {
    const uint64_t start = End.CentralStart;
    if (End.Entries > End.CentralSize / kCentralHeaderSize)
        Damaged(End.Position, "the end record counts " + std::to_string(End.Entries) +
                                  " members, more than the " + std::to_string(End.CentralSize) +
                                  "-byte central directory can hold");
    KvCheckedSize(kFormat, start, End.CentralSize, 1, FileSize - start, "the central directory");
    Reader.Seek(start);
    const std::string directory = Reader.ReadBytes(static_cast<size_t>(End.CentralSize));
    TByteReader r(directory, kFormat, start, "central directory");
    Entries.reserve(static_cast<size_t>(End.Entries));
    for (uint64_t i = 0; i < End.Entries; ++i) {
        const size_t at = r.Position();
        if (r.ReadU32LE() != kCentralSignature)
            r.CorruptAt(at, "central directory entry " + std::to_string(i + 1) + " of " +
                                std::to_string(End.Entries) + " has no signature");
        TKvZipEntry e;
        e.Index = static_cast<uint32_t>(i);
        e.CentralOffset = start + at;
        e.VersionMadeBy = r.ReadU16LE();
        const TFileHeader h = ReadFileHeader(r);
        const uint16_t commentLength = r.ReadU16LE();
        r.Skip(2); // the disk it starts on: one disk only
        e.InternalAttributes = r.ReadU16LE();
        e.ExternalAttributes = r.ReadU32LE();
        uint64_t offset = r.ReadU32LE();
        e.RawName = std::string(r.ReadBytes(h.FileNameLength));
        const std::string_view extra = r.ReadBytes(h.ExtraFieldLength);
        e.Comment = DecodeZipText(r.ReadBytes(commentLength));
        e.Name = DecodeZipText(e.RawName);
        if (const auto unicode = ExtraBlock(extra, 0x7075);
            unicode && unicode->size() > 5 && (*unicode)[0] == 1 &&
            KvLoadLE<uint32_t>(unicode->data() + 1) == KvZipCrc32(e.RawName) &&
            IsValidUtf8(unicode->substr(5)))
            e.Name = std::string(unicode->substr(5));
        e.VersionNeeded = h.VersionNeededToExtract;
        e.Flags = h.GeneralPurposeBitFlag;
        e.Method = h.CompressionMethod;
        e.DosTime = h.LastModFileTime;
        e.DosDate = h.LastModFileDate;
        e.Crc32 = h.Crc32;
        e.CompressedSize = h.CompressedSize;
        e.UncompressedSize = h.UncompressedSize;
        // A size or offset too large for 32 bits is 0xFFFFFFFF here and follows in the Zip64 field, in this
        // order, with only the values that need it.
        if (h.UncompressedSize == k32 || h.CompressedSize == k32 || offset == k32) {
            const auto z64 = ExtraBlock(extra, 0x0001);
            TByteReader z(z64.value_or(""), kFormat, e.CentralOffset, "Zip64 field");
            try {
                if (h.UncompressedSize == k32) e.UncompressedSize = z.ReadU64LE();
                if (h.CompressedSize == k32) e.CompressedSize = z.ReadU64LE();
                if (offset == k32) offset = z.ReadU64LE();
            } catch (const EKvFormatError&) {
                Damaged(e.CentralOffset, MemberText(e.Name) +
                                             ": a size or offset of 0xFFFFFFFF with no Zip64 "
                                             "field to hold its value");
            }
        }
        e.LocalHeaderOffset = offset > UINT64_MAX - End.Junk ? UINT64_MAX : offset + End.Junk;
        Entries.push_back(std::move(e));
    }
}

void TKvZipReader::TImpl::CheckExtents() {
    // Each member's local header (which repeats its name) and data must end before the next member starts,
    // and the last before the central directory: members that share bytes are how zip bombs multiply a
    // small file, and a size that reaches past its member is damage either way.
    std::vector<uint32_t> order(Entries.size());
    std::iota(order.begin(), order.end(), 0u);
    std::stable_sort(order.begin(), order.end(), [this](uint32_t a, uint32_t b) {
        return Entries[a].LocalHeaderOffset < Entries[b].LocalHeaderOffset;
    });
    DataBound.assign(Entries.size(), End.CentralStart);
    for (size_t k = 0; k < order.size(); ++k) {
        const TKvZipEntry& e = Entries[order[k]];
        const TKvZipEntry* next = k + 1 < order.size() ? &Entries[order[k + 1]] : nullptr;
        const uint64_t bound = next ? next->LocalHeaderOffset : End.CentralStart;
        const uint64_t header = kLocalHeaderSize + e.RawName.size();
        if (e.LocalHeaderOffset >= End.CentralStart)
            Damaged(e.CentralOffset, MemberText(e.Name) + ": its local header at byte " +
                                         std::to_string(e.LocalHeaderOffset) +
                                         " lies past the start of the central directory at byte " +
                                         std::to_string(End.CentralStart));
        const uint64_t room = bound - e.LocalHeaderOffset;
        if (header > room || e.CompressedSize > room - header) {
            const std::string span = "bytes " + std::to_string(e.LocalHeaderOffset) + " to " +
                                     (e.CompressedSize > FileSize
                                          ? std::string("beyond the end")
                                          : std::to_string(e.LocalHeaderOffset + header + e.CompressedSize));
            if (next)
                Damaged(e.CentralOffset, MemberText(e.Name) + " takes " + span + ", into " +
                                             MemberText(next->Name) + " at byte " +
                                             std::to_string(next->LocalHeaderOffset) +
                                             " (members that overlap are the mark of a zip bomb)");
            Damaged(e.CentralOffset, MemberText(e.Name) + " takes " + span +
                                         ", into the central directory at byte " +
                                         std::to_string(End.CentralStart));
        }
        DataBound[order[k]] = bound;
    }
}

// ---- members ----

uint64_t TKvZipReader::TImpl::Prepare(const TKvZipEntry& e, uint64_t maxBytes, const char* how) const {
    const std::string member = MemberText(e.Name);
    if (e.IsEncrypted()) {
        const char* cipher = e.Method == 99          ? "AES"
                             : (e.Flags & 0x40) != 0 ? "PKWARE strong encryption"
                                                     : "the traditional PKWARE cipher";
        throw EKvZipError(zekEncrypted, e.Name,
                          member + " is encrypted with " + cipher + ", which this reader does not support");
    }
    if (e.Method != kZipStored && e.Method != kZipDeflated) {
        const std::string_view name = KvZipMethodName(e.Method);
        throw EKvZipError(zekMethod, e.Name,
                          member + ": compressed with method " + std::to_string(e.Method) +
                              (name.empty() ? std::string() : " (" + std::string(name) + ")") +
                              ", which this reader does not support");
    }
    if (e.Method == kZipStored && e.CompressedSize != e.UncompressedSize)
        Damaged(e.CentralOffset, member + " is stored, yet its entry gives " +
                                     std::to_string(e.CompressedSize) + " bytes of data and a size of " +
                                     std::to_string(e.UncompressedSize));
    if (e.Method == kZipDeflated && e.UncompressedSize / kMaxDeflateRatio > e.CompressedSize)
        Damaged(e.CentralOffset, member + " declares " + std::to_string(e.UncompressedSize) +
                                     " bytes, more than its " + std::to_string(e.CompressedSize) +
                                     " compressed bytes can inflate to");
    if (e.UncompressedSize > maxBytes)
        throw EKvZipError(zekLimit, e.Name,
                          member + " would inflate to " + std::to_string(e.UncompressedSize) +
                              " bytes, more than the " + std::to_string(maxBytes) +
                              " allowed for a member read " + how);
    if (Limits.MaxRatio != 0 && e.UncompressedSize > Limits.RatioFromBytes &&
        e.UncompressedSize / Limits.MaxRatio > e.CompressedSize)
        throw EKvZipError(zekLimit, e.Name,
                          member + " would inflate from " + std::to_string(e.CompressedSize) + " to " +
                              std::to_string(e.UncompressedSize) + " bytes, more than the " +
                              std::to_string(Limits.MaxRatio) +
                              " times its size allowed (a zip bomb's ratio)");

    // The local header repeats the name, the method and, unless a data descriptor follows the data, the
    // CRC and sizes: where they disagree, one of the two is damaged and neither can be trusted.
    const uint64_t at = e.LocalHeaderOffset;
    Reader.Seek(at);
    const std::string bytes = Reader.ReadBytes(kLocalHeaderSize);
    TByteReader l(bytes, kFormat, at, "local header");
    if (l.ReadU32LE() != kLocalSignature)
        Damaged(at, member + ": no local header where the central directory puts it");
    const TFileHeader h = ReadFileHeader(l);
    const uint64_t bound = DataBound[e.Index];
    if (uint64_t{h.FileNameLength} + h.ExtraFieldLength > bound - at - kLocalHeaderSize - e.CompressedSize)
        Damaged(at + 26, member + ": its local name and extra field (" +
                             std::to_string(h.FileNameLength + h.ExtraFieldLength) +
                             " bytes) push its data past byte " + std::to_string(bound));
    const std::string name = Reader.ReadBytes(h.FileNameLength);
    if (name != e.RawName)
        Damaged(at + kLocalHeaderSize,
                member + ": its local header names it \"" + DecodeZipText(name) + "\"");
    const auto disagree = [&](const char* what, const std::string& local, const std::string& central) {
        Damaged(at, member + ": its local header gives " + what + " " + local + ", the central directory " +
                        central);
    };
    if (h.CompressionMethod != e.Method)
        disagree("method", std::to_string(h.CompressionMethod), std::to_string(e.Method));
    const bool described = (h.GeneralPurposeBitFlag & 8) == 0 &&
                           (h.Crc32 != 0 || h.CompressedSize != 0 || h.UncompressedSize != 0);
    if (described) {
        if (h.Crc32 != e.Crc32) disagree("CRC", Hex(h.Crc32), Hex(e.Crc32));
        if (h.CompressedSize != k32 && h.CompressedSize != e.CompressedSize)
            disagree("compressed size", std::to_string(h.CompressedSize), std::to_string(e.CompressedSize));
        if (h.UncompressedSize != k32 && h.UncompressedSize != e.UncompressedSize)
            disagree("size", std::to_string(h.UncompressedSize), std::to_string(e.UncompressedSize));
    }
    return at + kLocalHeaderSize + h.FileNameLength + h.ExtraFieldLength;
}

/// A member's bytes as they inflate. Input comes in blocks of kInputBlock from the archive and output goes
/// straight into the caller's memory; nothing is inflated past the declared size, and reaching it checks
/// that the data ends there and matches the CRC. Errors stay: every later read raises them again.
class TKvZipReader::TImpl::TMemberStream : public TStream {
public:
    TMemberStream(const TImpl& zip, const TKvZipEntry& entry, uint64_t dataStart)
        : zip_(zip), entry_(entry), dataStart_(dataStart), stored_(entry.Method == kZipStored),
          input_(stored_ ? 0 : static_cast<size_t>(std::min<uint64_t>(entry.CompressedSize, kInputBlock))) {
        // Some writers store an empty member as no deflate data at all.
        ended_ = entry.CompressedSize == 0 && entry.UncompressedSize == 0;
    }

    size_t Read(void* buffer, size_t count) override {
        if (failed_) std::rethrow_exception(failed_);
        try {
            if (position_ >= entry_.UncompressedSize) {
                if (!finished_) Finish();
                return 0;
            }
            const auto n =
                static_cast<size_t>(std::min<uint64_t>(count, entry_.UncompressedSize - position_));
            char* out = static_cast<char*>(buffer);
            Produce(out, n);
            crc_ = KvZipCrc32(std::string_view(out, n), crc_);
            position_ += n;
            if (position_ == entry_.UncompressedSize) Finish();
            return n;
        } catch (...) {
            failed_ = std::current_exception();
            throw;
        }
    }
    size_t Write(const void*, size_t) override { return 0; }
    int64_t Seek(int64_t offset, TSeekOrigin origin) override {
        const uint64_t size = entry_.UncompressedSize;
        const int64_t base = origin == soBeginning ? 0
                             : origin == soCurrent ? static_cast<int64_t>(position_)
                                                   : static_cast<int64_t>(size);
        const int64_t wanted = offset > INT64_MAX - base ? INT64_MAX : base + offset;
        const uint64_t target = wanted <= 0 ? 0 : std::min<uint64_t>(static_cast<uint64_t>(wanted), size);
        if (target < position_) Restart();
        if (target > position_) {
            std::string scratch(static_cast<size_t>(std::min<uint64_t>(target - position_, 64 * 1024)), '\0');
            while (position_ < target)
                Read(scratch.data(),
                     static_cast<size_t>(std::min<uint64_t>(target - position_, scratch.size())));
        }
        return static_cast<int64_t>(position_);
    }
    int64_t Size() override { return static_cast<int64_t>(entry_.UncompressedSize); }
    std::string ClassName() const override { return "TKvZipMemberStream"; }

private:
    void Restart() {
        inflater_.Reset();
        position_ = used_ = 0;
        avail_ = 0;
        crc_ = 0;
        ended_ = entry_.CompressedSize == 0 && entry_.UncompressedSize == 0;
        finished_ = false;
    }
    [[noreturn]] void Damaged(uint64_t offset, const std::string& what) const {
        zip_.Damaged(offset, MemberText(entry_.Name) + ": " + what);
    }
    void FillInput() {
        const uint64_t left = entry_.CompressedSize - used_;
        const auto n = static_cast<size_t>(std::min<uint64_t>(left, input_.size()));
        zip_.Reader.Seek(dataStart_ + used_);
        zip_.Reader.ReadBuffer(input_.data(), n);
        used_ += n;
        next_ = input_.data();
        avail_ = n;
    }
    /// One call of the inflater with `room` > 0. With the input used up it is still called: it may hold
    /// output of a match not yet given out.
    TInflater::TStatus Step(char*& out, size_t& room) {
        if (avail_ == 0 && used_ < entry_.CompressedSize) FillInput();
        const size_t before = room, had = avail_;
        const TInflater::TStatus status = inflater_.Inflate(next_, avail_, out, room);
        if (status == TInflater::isDamaged)
            Damaged(dataStart_ + inflater_.TotalIn(),
                    "its deflate data is damaged (" + inflater_.Message() + ")");
        if (status == TInflater::isProgress && room == before && avail_ == had)
            Damaged(dataStart_ + used_, "its deflate data ends before its last block");
        return status;
    }
    void Produce(char* out, size_t count) {
        if (stored_) {
            zip_.Reader.Seek(dataStart_ + position_);
            zip_.Reader.ReadBuffer(out, count);
            return;
        }
        while (count > 0) {
            if (Step(out, count) == TInflater::isEnd) {
                ended_ = true;
                if (count > 0)
                    Damaged(dataStart_ + inflater_.TotalIn(),
                            "inflates to " + std::to_string(entry_.UncompressedSize - count) +
                                " bytes, fewer than the " + std::to_string(entry_.UncompressedSize) +
                                " its entry declares");
            }
        }
    }
    void Finish() {
        // The declared size is reached: the data must end here rather than give more.
        while (!stored_ && !ended_) {
            char probe;
            char* out = &probe;
            size_t room = 1;
            ended_ = Step(out, room) == TInflater::isEnd;
            if (room == 0)
                Damaged(dataStart_ + inflater_.TotalIn(), "inflates past the " +
                                                              std::to_string(entry_.UncompressedSize) +
                                                              " bytes its entry declares");
        }
        if (crc_ != entry_.Crc32) throw EZipFileCRCError(Format("CRC Error in \"%s\".", entry_.Name));
        finished_ = true;
    }

    const TImpl& zip_;
    const TKvZipEntry& entry_;
    uint64_t dataStart_;
    bool stored_;
    std::vector<char> input_;
    TInflater inflater_;
    const char* next_ = nullptr;
    size_t avail_ = 0;
    uint64_t used_ = 0; ///< compressed bytes taken into the input
    uint64_t position_ = 0;
    uint32_t crc_ = 0;
    bool ended_ = false;
    bool finished_ = false;
    std::exception_ptr failed_;
};

// ---- TKvZipReader ----

bool TKvZipReader::IsZipFile(TStream& stream) {
    const int64_t saved = stream.Position();
    char head[4] = {};
    bool match = false;
    if (stream.Seek(0, soBeginning) == 0) {
        try {
            match =
                stream.ReadUpTo(head, sizeof head) == sizeof head &&
                (KvLoadLE<uint32_t>(head) == kLocalSignature || KvLoadLE<uint32_t>(head) == kEndSignature);
        } catch (const EReadError&) {
            match = false;
        }
    }
    stream.Seek(saved, soBeginning);
    return match;
}

TKvZipReader::TKvZipReader(TStream& stream, const TKvZipLimits& limits)
    : impl_(std::make_unique<TImpl>(nullptr, stream, limits)) {
    impl_->Read();
}

TKvZipReader::TKvZipReader(const std::string& fileName, const TKvZipLimits& limits) {
    auto file = std::make_unique<TFileStream>(fileName, fmOpenRead | fmShareDenyWrite);
    TStream& stream = *file;
    impl_ = std::make_unique<TImpl>(std::move(file), stream, limits);
    impl_->Read();
}

TKvZipReader::~TKvZipReader() = default;

const std::vector<TKvZipEntry>& TKvZipReader::Entries() const {
    return impl_->Entries;
}
const std::string& TKvZipReader::Comment() const {
    return impl_->End.Comment;
}
uint64_t TKvZipReader::ArchiveOffset() const {
    return impl_->End.Junk;
}
bool TKvZipReader::IsZip64() const {
    return impl_->End.Zip64;
}
const TKvZipLimits& TKvZipReader::Limits() const {
    return impl_->Limits;
}
void TKvZipReader::SetLimits(const TKvZipLimits& limits) {
    impl_->Limits = limits;
}

const TKvZipEntry* TKvZipReader::Find(std::string_view name) const {
    if (const auto it = impl_->ByName.find(std::string(name)); it != impl_->ByName.end())
        return &impl_->Entries[it->second];
    if (const auto it = impl_->ByFoldedName.find(TImpl::Fold(name)); it != impl_->ByFoldedName.end())
        return &impl_->Entries[it->second];
    return nullptr;
}

std::string TKvZipReader::ReadMember(const TKvZipEntry& entry) const {
    const TKvZipEntry& e = impl_->Own(entry);
    const uint64_t dataStart = impl_->Prepare(e, impl_->Limits.MaxMemberBytes, "whole");
    TImpl::TMemberStream stream(*impl_, e, dataStart);
    std::string out(static_cast<size_t>(e.UncompressedSize), '\0');
    // One read fills it, checking the end and the CRC (an empty member's too).
    stream.Read(out.data(), out.size());
    return out;
}

std::unique_ptr<TStream> TKvZipReader::OpenMember(const TKvZipEntry& entry) const {
    const TKvZipEntry& e = impl_->Own(entry);
    const uint64_t dataStart = impl_->Prepare(e, impl_->Limits.MaxStreamBytes, "as a stream");
    return std::make_unique<TImpl::TMemberStream>(*impl_, e, dataStart);
}

} // namespace kv
