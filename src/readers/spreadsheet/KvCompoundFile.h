#pragma once
// TKvCompoundFile: our reader of the compound file binary format, the small FAT file system inside one
// file that holds the streams of Office 97-2003 documents. It knows nothing of what the streams hold.
// Every link, size and offset read from the file is checked before it is followed or allocated.
//
// What is damage, and when it is raised: the header, the FAT and the directory tree are read when the file
// is opened, so a bad header, a DIFAT or directory chain that loops or leaves the FAT, and a directory
// whose links form a cycle (an entry reached twice) fail the constructor. A stream's own chain is followed
// when the stream is read, and only as far as its size needs: a loop, a bad link or a size larger than
// the chain fails that stream alone (and the mini FAT, the streams in the mini stream). Chains of
// different streams may share sectors: each is checked on its own. A link to a sector past the end of a
// truncated file is a truncation error (fekTruncated); a last sector cut short reads as far as it goes.

#include "platform/Streams.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace kv {

enum TKvCompoundEntryType : uint8_t { cetUnknown, cetStorage, cetStream, cetRoot };

/// One directory entry reachable from the root.
struct TKvCompoundEntry {
    std::string Name; ///< UTF-8, as stored (property-set streams begin with the character of code 5)
    std::string Path; ///< the names of the storages above it and its own, joined by '/'; "" for the root
    TKvCompoundEntryType Type = cetUnknown;
    uint64_t Size = 0; ///< of a stream: never more than its sector chain holds
    uint32_t StartSector = 0;
    uint32_t Id = 0; ///< the entry's number in the directory
};

class TKvCompoundFile {
public:
    /// The format name in errors: "Compound file: damaged file at byte N: ...".
    static constexpr const char* kFormat = "Compound file";

    /// True when the stream begins with the compound file signature; the position is restored.
    static bool IsCompoundFile(TStream& stream);

    /// Reads the header, the FAT with its DIFAT chain, the mini FAT and the directory. Damage raises
    /// EKvFormatError naming kFormat. The stream must outlive the object and streams opened from it.
    explicit TKvCompoundFile(TStream& stream);
    ~TKvCompoundFile();
    TKvCompoundFile(const TKvCompoundFile&) = delete;
    TKvCompoundFile& operator=(const TKvCompoundFile&) = delete;

    /// 3 (512-byte sectors) or 4 (4096-byte sectors).
    uint16_t MajorVersion() const;
    uint32_t SectorSize() const;

    /// Every entry reachable from the root, the root first, then storage by storage in tree order.
    const std::vector<TKvCompoundEntry>& Entries() const;
    /// The entry at `path` ("Workbook", "_VBA_PROJECT_CUR/VBA/dir"), names compared without regard to
    /// case; nullptr when there is none.
    const TKvCompoundEntry* Find(std::string_view path) const;
    /// The bytes of a stream entry (or of the root: the mini stream). Damage to its chain, or a declared
    /// size its chain cannot hold, raises EKvFormatError.
    std::string ReadStream(const TKvCompoundEntry& entry) const;
    /// A read-only, seekable stream over a stream entry that reads sector by sector as it is asked;
    /// valid while this object lives.
    std::unique_ptr<TStream> OpenStream(const TKvCompoundEntry& entry) const;

private:
    struct TImpl;
    std::unique_ptr<TImpl> impl_;
};

} // namespace kv
