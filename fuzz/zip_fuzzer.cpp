// Fuzz target: any bytes as a zip archive, through both readers. The archive reader lists the members,
// finds each by its name and reads it whole and through its stream in uneven pieces from an uneven start,
// which must agree, under limits small enough that no input makes it work long; the small reader loads
// the same bytes and inflates every member. A failure may only be one of the readers' own errors.

#include "platform/FormatError.h"
#include "platform/Streams.h"
#include "platform/Utf8.h"
#include "readers/archive/KvIZipFile.h"
#include "readers/archive/KvZipReader.h"

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <string>

namespace {

void Check(bool condition) {
    if (!condition) std::abort();
}

/// Runs `f`; the readers' own errors end it quietly, anything else escapes (and the fuzzer reports it).
void Guarded(size_t size, const std::function<void()>& f) {
    try {
        f();
    } catch (const kv::EKvFormatError& e) {
        Check(e.Format() == kv::TKvZipReader::kFormat && e.Offset() <= size);
    } catch (const kv::EKvZipError&) {
    } catch (const kv::EZipFileCRCError&) {
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 65536) return 0;
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    kv::TMemoryStream stream(bytes);
    kv::TKvZipReader::IsZipFile(stream);
    Check(stream.Position() == 0);
    kv::TKvZipLimits limits;
    limits.MaxMemberBytes = 1 << 20;
    limits.MaxStreamBytes = 2 << 20;
    limits.RatioFromBytes = 64 * 1024;
    Guarded(size, [&] {
        kv::TKvZipReader zip(stream, limits);
        Check(kv::IsValidUtf8(zip.Comment()) && zip.ArchiveOffset() <= size);
        for (const kv::TKvZipEntry& e : zip.Entries()) {
            Check(kv::IsValidUtf8(e.Name) && zip.Find(e.Name) != nullptr);
            Check(e.LocalHeaderOffset < size && e.CompressedSize <= size);
            std::string whole;
            bool read = false;
            Guarded(size, [&] {
                whole = zip.ReadMember(e);
                read = true;
            });
            if (!read) continue;
            Check(whole.size() == e.UncompressedSize);
            // What reads whole must read as a stream too.
            try {
                const std::unique_ptr<kv::TStream> s = zip.OpenMember(e);
                Check(s->Size() == static_cast<int64_t>(whole.size()));
                const size_t from = whole.size() / 3;
                s->Seek(static_cast<int64_t>(from), kv::soBeginning);
                std::string pieces;
                char buffer[97];
                for (size_t n; (n = s->Read(buffer, 1 + pieces.size() % sizeof buffer)) > 0;)
                    pieces.append(buffer, n);
                Check(pieces == whole.substr(from));
            } catch (const kv::Exception&) {
                Check(false);
            }
        }
    });
    Guarded(size, [&] {
        kv::TZipArchive small;
        small.SetMaxUncompressedSize(1 << 20);
        stream.SetPosition(0);
        small.LoadFromStream(stream);
        std::string content;
        for (int i = 0; i < small.GetCount(); ++i) Guarded(size, [&] { small.GetUncompressed(i, content); });
    });
    return 0;
}
