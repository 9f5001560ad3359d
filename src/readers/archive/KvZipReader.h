#pragma once
// TKvZipReader: our reader of zip archives, for every part of the project that needs the members of one
// (workbooks that are zip packages, the command line). It finds the end record backwards through an
// archive comment, follows Zip64 records and fields, allows bytes before the archive (a self-extracting
// program) and after it, and reads stored and deflated members whole or as a stream that inflates as it
// is read. It knows nothing of what the members hold.
//
// Every offset, length and count read from the archive is checked before it is followed or allocated.
// A member never inflates beyond the size its central directory entry declares, and what it may declare
// is bounded by TKvZipLimits. The directory is read when the reader is made: an archive whose members
// overlap (the layout of a zip bomb) or run into the central directory fails then. A member's local
// header is read, and checked against the central entry, when the member is opened.

#include "platform/DateUtils.h"
#include "platform/Exceptions.h"
#include "platform/Streams.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace kv {

/// The 26 bytes that a local header and a central directory entry share, in their order. The sizes are
/// the 32-bit fields as stored (0xFFFFFFFF where a Zip64 field holds the size).
struct TFileHeader {
    uint16_t VersionNeededToExtract = 0;
    uint16_t GeneralPurposeBitFlag = 0;
    uint16_t CompressionMethod = 0;
    uint16_t LastModFileTime = 0; ///< MS-DOS time
    uint16_t LastModFileDate = 0; ///< MS-DOS date
    uint32_t Crc32 = 0;
    uint32_t CompressedSize = 0;
    uint32_t UncompressedSize = 0;
    uint16_t FileNameLength = 0;
    uint16_t ExtraFieldLength = 0;
};

/// The end of central directory record, as stored in its 22 bytes.
struct TKvZipEndRecord {
    uint32_t Signature = 0;
    uint16_t DiskNumber = 0;
    uint16_t CentralDirectoryDisk = 0;
    uint16_t EntriesOnDisk = 0;
    uint16_t TotalEntries = 0;
    uint32_t CentralDirectorySize = 0;
    uint32_t CentralDirectoryOffset = 0;
    uint16_t CommentLength = 0;
};

inline constexpr uint16_t kZipStored = 0;
inline constexpr uint16_t kZipDeflated = 8;

/// The name of a compression method ("Stored", "Deflate", "Deflate64", "bzip2"), "" for a number no
/// writer is known to use.
std::string_view KvZipMethodName(uint16_t method);
/// The CRC-32 of zip members over `bytes`, continuing from `crc` (0 to start).
uint32_t KvZipCrc32(std::string_view bytes, uint32_t crc = 0);

/// One member as its central directory entry describes it, with Zip64 values resolved.
struct TKvZipEntry {
    /// UTF-8: the bytes stored when they are valid UTF-8 (flagged so or not), else read as code page 437;
    /// a Unicode path field that matches the stored name wins.
    std::string Name;
    std::string RawName; ///< the bytes stored
    std::string Comment; ///< decoded like the name
    uint32_t Index = 0;  ///< the entry's place in the central directory
    uint16_t VersionMadeBy = 0;
    uint16_t VersionNeeded = 0;
    uint16_t Flags = 0; ///< the general purpose bits: 0 encrypted, 3 data descriptor, 11 UTF-8 name
    uint16_t Method = 0;
    uint16_t DosTime = 0;
    uint16_t DosDate = 0;
    uint32_t Crc32 = 0;
    uint64_t CompressedSize = 0;
    uint64_t UncompressedSize = 0;
    uint64_t LocalHeaderOffset = 0; ///< in the stream: the bytes before the archive are counted
    uint64_t CentralOffset = 0;     ///< where the central directory entry lies in the stream
    uint16_t InternalAttributes = 0;
    uint32_t ExternalAttributes = 0;

    /// A folder: the name ends with "/" (or "\\", as some writers store it).
    bool IsDirectory() const;
    bool IsEncrypted() const { return (Flags & 1) != 0; }
    /// The modification time as stored (local time in steps of 2 seconds); 0 when the date is no date.
    TDateTime Modified() const;
};

/// What a member may declare it inflates to. Whatever it declares, it never inflates further: a member
/// whose data gives more bytes than its entry says fails as damaged.
struct TKvZipLimits {
    /// The most a member read whole into memory may hold (ReadMember).
    uint64_t MaxMemberBytes = uint64_t{1} << 30;
    /// The most a member read as a stream may hold (OpenMember): a stream holds one block in memory, so
    /// this bounds time rather than memory.
    uint64_t MaxStreamBytes = uint64_t{16} << 30;
    /// The largest ratio of inflated to compressed size, for members that inflate to more than
    /// RatioFromBytes; 0 for none. Deflate reaches 1032 to 1 at most, on a run of one byte (what zip bombs
    /// are made of); text and workbooks stay far below.
    uint32_t MaxRatio = 1000;
    uint64_t RatioFromBytes = uint64_t{16} << 20;
};

/// What makes a sound member unreadable here.
enum TKvZipErrorKind : uint8_t {
    zekMethod,    ///< compressed by a method other than stored and deflate
    zekEncrypted, ///< encrypted
    zekLimit,     ///< declares more than TKvZipLimits allow
    zekMultiDisk  ///< the archive is one part of a set split over several files
};

/// A member, or an archive, that is not damaged but that this reader will not read. The message names
/// the member and the reason: "Zip: member "x.csv": compressed with method 9 (Deflate64), which this
/// reader does not support". Damage raises EKvFormatError (format "Zip") instead, and a member whose data
/// does not match its checksum EZipFileCRCError.
class EKvZipError : public Exception {
public:
    EKvZipError(TKvZipErrorKind kind, std::string member, const std::string& what);
    TKvZipErrorKind Kind() const noexcept { return kind_; }
    /// The member's name ("" for the archive as a whole).
    const std::string& Member() const noexcept { return member_; }

private:
    TKvZipErrorKind kind_;
    std::string member_;
};

/// The directory of a zip archive and its members.
class TKvZipReader {
public:
    /// The format name in errors: "Zip: damaged file at byte N: ...".
    static constexpr const char* kFormat = "Zip";

    /// True when the stream begins as an archive does (a local header, or the end record of an empty
    /// archive); the position is restored.
    static bool IsZipFile(TStream& stream);

    /// Reads the directory of the archive in `stream`, which must outlive the reader and the member
    /// streams opened from it.
    explicit TKvZipReader(TStream& stream, const TKvZipLimits& limits = {});
    /// The same for a file, opened read-only and kept open while the reader lives.
    explicit TKvZipReader(const std::string& fileName, const TKvZipLimits& limits = {});
    ~TKvZipReader();
    TKvZipReader(const TKvZipReader&) = delete;
    TKvZipReader& operator=(const TKvZipReader&) = delete;

    /// The members in central directory order.
    const std::vector<TKvZipEntry>& Entries() const;
    /// The archive comment, decoded like names.
    const std::string& Comment() const;
    /// Bytes before the archive in the stream (the program of a self-extracting archive).
    uint64_t ArchiveOffset() const;
    /// True when the directory was found through a Zip64 end record.
    bool IsZip64() const;

    const TKvZipLimits& Limits() const;
    void SetLimits(const TKvZipLimits& limits);

    /// The first member named exactly `name`; failing that, the first whose name matches ignoring case
    /// and reading "\\" as "/". nullptr when there is none.
    const TKvZipEntry* Find(std::string_view name) const;

    /// A member's bytes, inflated whole into memory and checked against its CRC. Raises EKvZipError for
    /// a method, an encryption or a size this reader refuses, EKvFormatError for damage.
    std::string ReadMember(const TKvZipEntry& entry) const;
    /// A read-only stream over a member that inflates as it is read, block by block. Its size is the
    /// declared size; reading it to the end checks the data against the CRC (EZipFileCRCError from the
    /// read that reaches the end). Seeking forwards inflates up to the place, backwards starts again.
    /// Valid while the reader lives.
    std::unique_ptr<TStream> OpenMember(const TKvZipEntry& entry) const;

private:
    struct TImpl;
    std::unique_ptr<TImpl> impl_;
};

} // namespace kv
