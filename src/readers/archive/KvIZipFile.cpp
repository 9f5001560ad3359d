#include "readers/archive/KvIZipFile.h"

#include "platform/BinaryReader.h"
#include "platform/Format.h"
#include "platform/FormatError.h"
#include "platform/SysUtils.h"
#include "readers/archive/KvZipInternal.h"

#include <algorithm>

namespace kv {

using namespace zip;

void TLocalFile::Assign(const TPersistent& source) {
    const auto* other = dynamic_cast<const TLocalFile*>(&source);
    if (!other) {
        TCollectionItem::Assign(source);
        return;
    }
    LocalFileHeaderSignature = other->LocalFileHeaderSignature;
    LocalHeader = other->LocalHeader;
    FileName = other->FileName;
    ExtraField = other->ExtraField;
    CompressedData = other->CompressedData;
    CentralFileHeaderSignature = other->CentralFileHeaderSignature;
    CentralVersionMadeBy = other->CentralVersionMadeBy;
    CentralHeader = other->CentralHeader;
    CentralFileCommentLength = other->CentralFileCommentLength;
    CentralDiskNumberStart = other->CentralDiskNumberStart;
    CentralInternalFileAttributes = other->CentralInternalFileAttributes;
    CentralExternalFileAttributes = other->CentralExternalFileAttributes;
    CentralRelativeOffsetOfLocalHeader = other->CentralRelativeOffsetOfLocalHeader;
    CentralFileName = other->CentralFileName;
    CentralExtraField = other->CentralExtraField;
    CentralFileComment = other->CentralFileComment;
    Loaded = other->Loaded;
}

TZipArchive::TZipArchive(TComponent* owner) : TComponent(owner), localFiles_(this) {}

TZipArchive::~TZipArchive() = default;

void TZipArchive::LoadFromFile(const std::string& fileName) {
    TFileStream stream(fileName, fmOpenRead | fmShareDenyWrite);
    LoadFromStream(stream);
}

namespace {

TFileHeader ReadHeader(TKvBinaryReader& r) {
    const uint64_t at = r.Position();
    const std::string bytes = r.ReadBytes(26);
    TByteReader h(bytes, r.Format(), at);
    return ReadFileHeader(h);
}

} // namespace

void TZipArchive::LoadFromStream(TStream& stream) {
    localFiles_.Clear();
    endOfCentralDir_ = {};
    TKvBinaryReader r(stream, TKvZipReader::kFormat);
    const uint64_t start = r.Position();
    const uint64_t size = r.Size();
    // The end record is looked for in the last 22 bytes only: an archive with a comment reads as empty.
    r.Seek(size >= kEndRecordSize ? size - kEndRecordSize : 0);
    const std::string endBytes = r.ReadBytes(kEndRecordSize);
    TByteReader e(endBytes, TKvZipReader::kFormat, size - kEndRecordSize, "end record");
    endOfCentralDir_ = ReadEndRecord(e);
    if (endOfCentralDir_.Signature != kEndSignature) {
        endOfCentralDir_ = {};
        endOfCentralDir_.CentralDirectoryOffset = static_cast<uint32_t>(start);
    }
    r.Seek(endOfCentralDir_.CentralDirectoryOffset);
    // Each member's data is copied: members that share bytes would make a small archive fill memory, so
    // what is copied may not add up to more than the archive holds.
    uint64_t copied = 0;
    for (int i = 0; i < endOfCentralDir_.TotalEntries; ++i) {
        if (r.ReadU32LE() != kCentralSignature) continue; // still one of the counted entries
        TLocalFile& f = localFiles_.Add();
        f.CentralVersionMadeBy = r.ReadU16LE();
        f.CentralHeader = ReadHeader(r);
        f.CentralFileCommentLength = r.ReadU16LE();
        f.CentralDiskNumberStart = r.ReadU16LE();
        f.CentralInternalFileAttributes = r.ReadU16LE();
        f.CentralExternalFileAttributes = r.ReadU32LE();
        f.CentralRelativeOffsetOfLocalHeader = r.ReadU32LE();
        f.CentralFileName = r.ReadBytes(f.CentralHeader.FileNameLength);
        f.CentralExtraField = r.ReadBytes(f.CentralHeader.ExtraFieldLength);
        f.CentralFileComment = r.ReadBytes(f.CentralFileCommentLength);
        if (f.Loaded) continue;
        const uint64_t back = r.Position();
        const uint64_t at = f.CentralRelativeOffsetOfLocalHeader;
        // A header the file is too short to hold has no signature, like one that is wrong.
        if (at <= size && size - at >= 4) {
            r.Seek(at);
            f.LocalFileHeaderSignature = r.ReadU32LE();
        }
        if (f.LocalFileHeaderSignature == kLocalSignature) {
            f.LocalHeader = ReadHeader(r);
            // Sizes in a data descriptor after the data leave the local one 0.
            const uint32_t dataSize = f.LocalHeader.CompressedSize != 0 ? f.LocalHeader.CompressedSize
                                                                        : f.CentralHeader.CompressedSize;
            f.FileName = r.ReadBytes(f.LocalHeader.FileNameLength);
            f.ExtraField = r.ReadBytes(f.LocalHeader.ExtraFieldLength);
            // Data longer than the file fails as a short read below; data that fits counts towards the whole.
            copied += f.FileName.size() + f.ExtraField.size() + (dataSize <= r.Remaining() ? dataSize : 0);
            if (copied > size)
                throw EKvFormatError(fekDamaged, TKvZipReader::kFormat, at,
                                     MemberText(DecodeZipText(f.CentralFileName)) +
                                         ": the members' headers and data add up to more than the " +
                                         std::to_string(size) + " bytes of the archive (members overlap)");
            f.CompressedData = r.ReadBytes(dataSize);
            f.Loaded = true;
        }
        r.Seek(back);
    }
}

void TZipArchive::GetFileNames(TStringList& list) const {
    for (const TLocalFile& f : localFiles_) list.Add(f.FileName);
}

int TZipArchive::GetIndexByFileName(std::string_view name) const {
    for (int i = 0; i < localFiles_.Count(); ++i)
        if (SameText(localFiles_.Items(i).FileName, name)) return i;
    return -1;
}

void TZipArchive::GetUncompressed(int index, std::string& result) const {
    if (index < 0 || index >= GetCount()) throw Exception("Index out of range.");
    const TLocalFile& f = localFiles_.Items(index);
    const std::string name = DecodeZipText(f.FileName);
    // The method is not looked at: the data is inflated as deflate data, whose end may be the end of the
    // input (what was inflated is then judged by its CRC). It may not inflate past what either header
    // declares (the local one is 0 with a data descriptor), nor past the cap.
    const uint64_t declared = std::max(f.LocalHeader.UncompressedSize, f.CentralHeader.UncompressedSize);
    const uint64_t limit = std::min(declared, maxUncompressedSize_);
    const uint64_t dataAt = uint64_t{f.CentralRelativeOffsetOfLocalHeader} + kLocalHeaderSize +
                            f.LocalHeader.FileNameLength + f.LocalHeader.ExtraFieldLength;
    const auto damaged = [&](uint64_t offset, const std::string& what) {
        throw EKvFormatError(fekDamaged, TKvZipReader::kFormat, offset, MemberText(name) + ": " + what);
    };
    TInflater inflater;
    const char* in = f.CompressedData.data();
    size_t inSize = f.CompressedData.size();
    result.assign(static_cast<size_t>(std::min<uint64_t>(limit, 64 * 1024)), '\0');
    size_t made = 0;
    for (;;) {
        char probe;
        char* out = result.data() + made;
        size_t room = result.size() - made;
        if (room == 0 && result.size() < limit) {
            result.resize(static_cast<size_t>(std::min<uint64_t>(limit, uint64_t{result.size()} * 2)));
            continue;
        }
        const bool probing = room == 0; // at the limit: any more output is too much
        if (probing) {
            out = &probe;
            room = 1;
        }
        const size_t before = room, had = inSize;
        const TInflater::TStatus status = inflater.Inflate(in, inSize, out, room);
        if (status == TInflater::isDamaged)
            damaged(dataAt + inflater.TotalIn(), "its deflate data is damaged (" + inflater.Message() + ")");
        if (probing && room == 0) {
            if (limit == declared)
                damaged(dataAt + inflater.TotalIn(),
                        "inflates past the " + std::to_string(declared) + " bytes its headers declare");
            throw EKvZipError(zekLimit, name,
                              MemberText(name) + " inflates to more than the " + std::to_string(limit) +
                                  " bytes allowed (TZipArchive::MaxUncompressedSize)");
        }
        made += before - room;
        if (status == TInflater::isEnd || (room == before && inSize == had)) break;
    }
    result.resize(made);
    const uint32_t crc = KvZipCrc32(result);
    if (crc != f.LocalHeader.Crc32 && crc != f.CentralHeader.Crc32)
        throw EZipFileCRCError(Format("CRC Error in \"%s\".", name));
}

void TZipArchive::DecompressFileName(std::string_view name, std::string& result) const {
    result.clear();
    const int index = GetIndexByFileName(name);
    if (index >= 0) GetUncompressed(index, result);
}

} // namespace kv
