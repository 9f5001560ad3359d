#pragma once
// The parts of the zip format that the archive reader (KvZipReader) and the small in-memory reader
// (KvIZipFile) share: record layouts, the raw-deflate inflater and the texts of their messages.

#include "platform/ByteReader.h"
#include "platform/Encoding.h"
#include "platform/Utf8.h"
#include "readers/archive/KvZipReader.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <zlib.h>

namespace kv::zip {

inline constexpr uint32_t kLocalSignature = 0x04034B50;
inline constexpr uint32_t kCentralSignature = 0x02014B50;
inline constexpr uint32_t kEndSignature = 0x06054B50;
inline constexpr uint32_t kZip64EndSignature = 0x06064B50;
inline constexpr uint32_t kZip64LocatorSignature = 0x07064B50;
inline constexpr size_t kLocalHeaderSize = 30;
inline constexpr size_t kCentralHeaderSize = 46;
inline constexpr size_t kEndRecordSize = 22;
inline constexpr size_t kZip64LocatorSize = 20;
inline constexpr size_t kZip64EndSize = 56;
/// Deflate codes at best 258 bytes in 2 bits: no member inflates to more than this times its data.
inline constexpr uint64_t kMaxDeflateRatio = 1032;

/// The 26-byte record after a local header's signature, or after a central entry's version made by.
inline TFileHeader ReadFileHeader(TByteReader& r) {
    TFileHeader h;
    h.VersionNeededToExtract = r.ReadU16LE();
    h.GeneralPurposeBitFlag = r.ReadU16LE();
    h.CompressionMethod = r.ReadU16LE();
    h.LastModFileTime = r.ReadU16LE();
    h.LastModFileDate = r.ReadU16LE();
    h.Crc32 = r.ReadU32LE();
    h.CompressedSize = r.ReadU32LE();
    h.UncompressedSize = r.ReadU32LE();
    h.FileNameLength = r.ReadU16LE();
    h.ExtraFieldLength = r.ReadU16LE();
    return h;
}

/// The end record, signature included, from its 22 bytes.
inline TKvZipEndRecord ReadEndRecord(TByteReader& r) {
    TKvZipEndRecord e;
    e.Signature = r.ReadU32LE();
    e.DiskNumber = r.ReadU16LE();
    e.CentralDirectoryDisk = r.ReadU16LE();
    e.EntriesOnDisk = r.ReadU16LE();
    e.TotalEntries = r.ReadU16LE();
    e.CentralDirectorySize = r.ReadU32LE();
    e.CentralDirectoryOffset = r.ReadU32LE();
    e.CommentLength = r.ReadU16LE();
    return e;
}

/// A name or comment as UTF-8: the bytes when they are valid UTF-8, else read as code page 437, the one
/// zip writers used before names were flagged as UTF-8.
inline std::string DecodeZipText(std::string_view raw) {
    return IsValidUtf8(raw) ? std::string(raw) : CodePageToUtf8(raw, cpOEM437);
}

/// `member "name"`, the way messages name a member.
inline std::string MemberText(std::string_view name) {
    return "member \"" + std::string(name) + "\"";
}

/// A raw deflate stream (no zlib header, no Adler-32), inflated piece by piece into the caller's memory.
class TInflater {
public:
    enum TStatus : uint8_t {
        isProgress, ///< input used or output made; call again with more of either
        isEnd,      ///< the final block is done
        isDamaged   ///< Message() says what zlib found
    };

    TInflater();
    ~TInflater();
    TInflater(const TInflater&) = delete;
    TInflater& operator=(const TInflater&) = delete;

    /// Starts a new stream.
    void Reset();
    /// Inflates from `in` into `out`, advancing both by what was used and made.
    TStatus Inflate(const char*& in, size_t& inSize, char*& out, size_t& outSize);
    /// zlib's reason for isDamaged ("invalid block type").
    std::string Message() const;
    /// Input bytes used since the last Reset.
    uint64_t TotalIn() const { return totalIn_; }

private:
    z_stream z_{};
    uint64_t totalIn_ = 0;
};

} // namespace kv::zip
