#pragma once
// TZipArchive: the small zip reader of the component library. It keeps every member's headers and stored
// data in memory, lists the members, finds one by name without regard to case and inflates it after
// checking its CRC-32. It is deliberately simple: the end record is read from the last 22 bytes only (an
// archive with a comment, or anything that is no archive, has no members), every member is inflated as
// deflate data whatever its method, and nothing of Zip64 or encryption is known.
//
// For archives as other programs write them (comments, stored members, Zip64, bytes before the archive)
// and for members read as streams, use TKvZipReader (KvZipReader.h), which this class shares its record
// layouts and its inflater with.

#include "platform/Classes.h"
#include "platform/Collection.h"
#include "platform/StringList.h"
#include "readers/archive/KvZipReader.h"

#include <cstdint>
#include <string>

namespace kv {

/// One member: its local header and its central directory entry, with the data as stored.
class TLocalFile : public TCollectionItem {
public:
    uint32_t LocalFileHeaderSignature = 0;
    TFileHeader LocalHeader;
    std::string FileName;       ///< the local header's name, as stored
    std::string ExtraField;     ///< the local header's extra field
    std::string CompressedData; ///< the member's data as stored
    uint32_t CentralFileHeaderSignature = 0x02014B50;
    uint16_t CentralVersionMadeBy = 0;
    TFileHeader CentralHeader;
    uint16_t CentralFileCommentLength = 0;
    uint16_t CentralDiskNumberStart = 0;
    uint16_t CentralInternalFileAttributes = 0;
    uint32_t CentralExternalFileAttributes = 0;
    uint32_t CentralRelativeOffsetOfLocalHeader = 0;
    std::string CentralFileName;
    std::string CentralExtraField;
    std::string CentralFileComment;
    bool Loaded = false; ///< the local header and data have been read

    /// Copies every field from another TLocalFile; anything else goes to the platform's Assign.
    void Assign(const TPersistent& source) override;
    std::string ClassName() const override { return "TLocalFile"; }
};

/// The members of an archive, owned by it.
class TLocalFiles : public TCollection<TLocalFile> {
public:
    explicit TLocalFiles(TPersistent* owner) : TCollection<TLocalFile>(owner) {}
    TLocalFile& GetLocalFile(int index) const { return Items(index); }
    void SetLocalFile(int index, const TLocalFile& value) { Items(index).Assign(value); }
    TLocalFile& LocalFile(int index) const { return GetLocalFile(index); }
    std::string ClassName() const override { return "TLocalFiles"; }
};

/// A zip archive held in memory.
class TZipArchive : public TComponent {
public:
    explicit TZipArchive(TComponent* owner = nullptr);
    ~TZipArchive() override;

    /// Opens the file read-only and reads it through LoadFromStream.
    void LoadFromFile(const std::string& fileName);
    /// Clears the members and reads the archive from the stream. Stream errors propagate; a short read
    /// is EKvFormatError naming "Zip" and the byte.
    void LoadFromStream(TStream& stream);

    int GetCount() const { return localFiles_.Count(); }
    /// Adds each member's FileName, in archive order.
    void GetFileNames(TStringList& list) const;
    /// The first member whose FileName equals `name` ignoring case; -1 when none.
    int GetIndexByFileName(std::string_view name) const;
    /// The member's content, inflated and checked against its CRC-32: Exception "Index out of range." for
    /// a bad index, EZipFileCRCError "CRC Error in "name"." for a mismatch, EKvFormatError for data that
    /// does not inflate or inflates past its declared size or MaxUncompressedSize.
    void GetUncompressed(int index, std::string& result) const;
    /// GetUncompressed of the member named `name`; an empty result when there is none.
    void DecompressFileName(std::string_view name, std::string& result) const;

    TLocalFiles& LocalFiles() { return localFiles_; }
    const TLocalFiles& LocalFiles() const { return localFiles_; }
    /// The end record as read (zeroed, with the central directory offset at the stream's start position,
    /// when the last 22 bytes hold none).
    const TKvZipEndRecord& EndOfCentralDir() const { return endOfCentralDir_; }

    /// The most a member may inflate to (1 GiB unless set): a guard of our own, for a member whose data
    /// would otherwise fill memory.
    uint64_t MaxUncompressedSize() const { return maxUncompressedSize_; }
    void SetMaxUncompressedSize(uint64_t bytes) { maxUncompressedSize_ = bytes; }

    std::string ClassName() const override { return "TZipArchive"; }

private:
    TLocalFiles localFiles_;
    TKvZipEndRecord endOfCentralDir_;
    uint64_t maxUncompressedSize_ = uint64_t{1} << 30;
};

} // namespace kv
