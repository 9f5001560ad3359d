// Fuzz target: any bytes as a compound file. The file is opened, its entries listed and every stream read
// whole and through its stream object, which must agree; every property-set stream goes through the
// property-set reader and the summary information. A failure may only be the readers' damaged-file error.

#include "platform/FormatError.h"
#include "platform/Streams.h"
#include "platform/Utf8.h"
#include "readers/spreadsheet/KvCompoundFile.h"
#include "readers/spreadsheet/KvI_Sum.h"
#include "readers/spreadsheet/KvPropertySet.h"

#include <cstdint>
#include <cstdlib>
#include <string>

namespace {

void Check(bool condition) {
    if (!condition) std::abort();
}

void ReadPropertySet(const std::string& bytes) {
    try {
        for (const kv::TKvPropertySection& s : kv::KvReadPropertySet(bytes)) {
            Check(s.FormatId.size() == 16);
            for (const kv::TKvPropertyValue& p : s.Properties) Check(kv::IsValidUtf8(p.Text));
        }
    } catch (const kv::EKvFormatError& e) {
        Check(e.Format() == "Property set" && e.Offset() <= bytes.size());
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 65536) return 0;
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    kv::TMemoryStream stream(bytes);
    const bool signature = kv::TKvCompoundFile::IsCompoundFile(stream);
    Check(stream.Position() == 0);
    try {
        kv::TKvCompoundFile file(stream);
        Check(signature);
        Check(!file.Entries().empty() && file.Entries()[0].Type == kv::cetRoot);
        for (const kv::TKvCompoundEntry& e : file.Entries()) {
            Check(kv::IsValidUtf8(e.Path));
            Check(file.Find(e.Path) != nullptr);
            if (e.Type != kv::cetStream) continue;
            std::string whole;
            try {
                whole = file.ReadStream(e);
            } catch (const kv::EKvFormatError& error) {
                Check(error.Format() == kv::TKvCompoundFile::kFormat && error.Offset() <= bytes.size());
                continue;
            }
            Check(whole.size() == e.Size);
            // The stream object in uneven pieces, from an uneven start, reads the same bytes.
            const std::unique_ptr<kv::TStream> s = file.OpenStream(e);
            Check(s->Size() == static_cast<int64_t>(whole.size()));
            const size_t from = whole.size() / 3;
            s->Seek(static_cast<int64_t>(from), kv::soBeginning);
            std::string pieces;
            char buffer[97];
            for (size_t n; (n = s->Read(buffer, 1 + pieces.size() % sizeof buffer)) > 0;)
                pieces.append(buffer, n);
            Check(pieces == whole.substr(from));
            if (!e.Name.empty() && e.Name[0] == '\x05') ReadPropertySet(whole);
        }
        kv::TKvISummaryInformation summary;
        summary.ReadPropertySets(file);
    } catch (const kv::EKvFormatError& e) {
        Check(e.Format() == kv::TKvCompoundFile::kFormat && e.Offset() <= bytes.size());
    }
    return 0;
}
