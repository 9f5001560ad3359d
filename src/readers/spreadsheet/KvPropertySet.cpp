#include "readers/spreadsheet/KvPropertySet.h"

#include "platform/ByteReader.h"
#include "platform/Encoding.h"
#include "platform/FormatError.h"
#include "platform/Utf8.h"

#include <algorithm>
#include <cstring>

namespace kv {

namespace {

constexpr const char* kFormat = "Property set";

constexpr uint32_t kCodePageId = 1;
constexpr uint32_t kDictionaryId = 0;
constexpr int kUtf16LE = 1200;
constexpr int kUtf16BE = 1201;

enum : uint16_t {
    VT_EMPTY = 0,
    VT_NULL = 1,
    VT_I2 = 2,
    VT_I4 = 3,
    VT_R4 = 4,
    VT_R8 = 5,
    VT_BSTR = 8,
    VT_BOOL = 11,
    VT_I1 = 16,
    VT_UI1 = 17,
    VT_UI2 = 18,
    VT_UI4 = 19,
    VT_I8 = 20,
    VT_UI8 = 21,
    VT_INT = 22,
    VT_UINT = 23,
    VT_LPSTR = 30,
    VT_LPWSTR = 31,
    VT_FILETIME = 64,
};

/// UTF-16 text up to its first NUL unit.
std::string Utf16UpToNul(std::string_view bytes, bool bigEndian) {
    size_t units = bytes.size() / 2;
    for (size_t i = 0; i < units; ++i)
        if (bytes[i * 2] == 0 && bytes[i * 2 + 1] == 0) units = i;
    return Utf16ToUtf8(bytes.substr(0, units * 2), bigEndian);
}

/// An 8-bit string of the section's code page, up to its first NUL.
std::string CodePageText(std::string_view bytes, int codePage) {
    if (codePage == kUtf16LE || codePage == kUtf16BE) return Utf16UpToNul(bytes, codePage == kUtf16BE);
    const size_t nul = bytes.find('\0');
    if (nul != std::string_view::npos) bytes = bytes.substr(0, nul);
    // Code page 0 and the ones the C library lacks read as Windows-1252.
    return DecodeCodePage(bytes, codePage > 0 && CodePageAvailable(codePage) ? codePage : 1252);
}

/// Reads the typed value at `r` into `p`.
void ReadValue(TByteReader& r, int codePage, TKvPropertyValue& p) {
    const uint16_t type = r.ReadU16LE();
    r.Skip(2); // padding
    p.Kind = pkInteger;
    switch (type) {
    case VT_EMPTY:
    case VT_NULL:
        p.Kind = pkEmpty;
        break;
    case VT_I1:
        p.Integer = r.ReadI8();
        break;
    case VT_UI1:
        p.Integer = r.ReadU8();
        break;
    case VT_I2:
        p.Integer = r.ReadI16LE();
        break;
    case VT_UI2:
        p.Integer = r.ReadU16LE();
        break;
    case VT_I4:
    case VT_INT:
        p.Integer = r.ReadI32LE();
        break;
    case VT_UI4:
    case VT_UINT:
        p.Integer = r.ReadU32LE();
        break;
    case VT_I8:
    case VT_UI8: // above 2^63 the value wraps: no property of a document counts so far
        p.Integer = r.ReadI64LE();
        break;
    case VT_BOOL:
        p.Kind = pkBoolean;
        p.Integer = r.ReadU16LE() != 0;
        break;
    case VT_R4: {
        const uint32_t bits = r.ReadU32LE();
        float f;
        std::memcpy(&f, &bits, sizeof f);
        p.Kind = pkDouble;
        p.Double = f;
        break;
    }
    case VT_R8:
        p.Kind = pkDouble;
        p.Double = r.ReadDoubleLE();
        break;
    case VT_LPSTR:
    case VT_BSTR: {
        const uint32_t size = r.ReadU32LE();
        r.CheckedSize(size, 1, "the string's bytes");
        p.Kind = pkString;
        p.Text = CodePageText(r.ReadBytes(size), codePage);
        break;
    }
    case VT_LPWSTR: {
        const uint32_t length = r.ReadU32LE();
        const uint64_t bytes = r.CheckedSize(length, 2, "the string's characters");
        p.Kind = pkString;
        p.Text = Utf16UpToNul(r.ReadBytes(static_cast<size_t>(bytes)), false);
        break;
    }
    case VT_FILETIME:
        p.Kind = pkFileTime;
        p.FileTime = r.ReadU64LE();
        break;
    default:
        p.Kind = pkOther;
        break;
    }
}

TKvPropertySection ReadSection(std::string_view bytes, uint64_t offset, std::string formatId) {
    TKvPropertySection section;
    section.FormatId = std::move(formatId);
    if (offset > bytes.size())
        throw EKvFormatError(
            fekTruncated, kFormat, bytes.size(),
            "a section at byte " + std::to_string(offset) + " of " + std::to_string(bytes.size()), "stream");
    TByteReader head(bytes.substr(offset), kFormat, offset, "section");
    uint32_t size = head.ReadU32LE();
    const uint32_t count = head.ReadU32LE();
    if (size < 8)
        head.CorruptAt(0, "the section's size is " + std::to_string(size) + ", less than its own header");
    // Some writers count a few bytes past the end of the stream: the values are checked against the bytes
    // there are, so a value that really lies outside still fails.
    size = static_cast<uint32_t>(std::min<uint64_t>(size, bytes.size() - offset));
    const std::string_view body = bytes.substr(offset, size);
    TByteReader table(body.substr(8), kFormat, offset + 8, "section");
    table.CheckedSize(count, 8, "the property offsets");

    struct Slot {
        uint32_t Id, Offset;
    };
    std::vector<Slot> slots(count);
    for (Slot& s : slots) {
        s.Id = table.ReadU32LE();
        s.Offset = table.ReadU32LE();
        if (s.Offset > size - 4)
            table.CorruptAt(table.Position() - 4, "property " + std::to_string(s.Id) + " at offset " +
                                                      std::to_string(s.Offset) + ", outside its section of " +
                                                      std::to_string(size) + " bytes");
    }
    // The code page decides how every 8-bit string of the section reads, wherever it is listed.
    int codePage = 1252;
    for (const Slot& s : slots) {
        if (s.Id != kCodePageId) continue;
        TByteReader r(body.substr(s.Offset), kFormat, offset + s.Offset, "property");
        if (r.ReadU16LE() == VT_I2) {
            r.Skip(2);
            codePage = r.ReadU16LE(); // 65001 is stored as a negative VT_I2
        }
    }
    // Values of a sound section never overlap, so their strings fit in it together; a table whose offsets
    // all name one long string would otherwise copy it once per entry.
    uint64_t textBytes = 0;
    section.Properties.reserve(count);
    for (const Slot& s : slots) {
        if (s.Id == kDictionaryId) continue;
        TKvPropertyValue p;
        p.Id = s.Id;
        TByteReader r(body.substr(s.Offset), kFormat, offset + s.Offset, "property");
        ReadValue(r, codePage, p);
        if (p.Kind == pkString && (textBytes += r.Position()) > size)
            r.CorruptAt(0, "the string values take more than the section's " + std::to_string(size) +
                               " bytes: their offsets overlap");
        section.Properties.push_back(std::move(p));
    }
    return section;
}

} // namespace

std::vector<TKvPropertySection> KvReadPropertySet(std::string_view bytes) {
    TByteReader r(bytes, kFormat, 0, "stream");
    if (r.ReadU16LE() != 0xFFFE) r.CorruptAt(0, "the byte order mark is not FFFE");
    r.Skip(2 + 4 + 16); // version, system identifier, CLSID: nothing here depends on them
    const uint32_t count = r.ReadU32LE();
    r.CheckedSize(count, 20, "the section headers");
    std::vector<std::pair<std::string, uint32_t>> headers;
    for (uint32_t i = 0; i < count; ++i) {
        std::string id(r.ReadBytes(16));
        headers.emplace_back(std::move(id), r.ReadU32LE());
    }
    std::vector<TKvPropertySection> sections;
    for (auto& [id, offset] : headers) sections.push_back(ReadSection(bytes, offset, std::move(id)));
    return sections;
}

} // namespace kv
