#pragma once
// The property-set streams of compound files ("\x05SummaryInformation", "\x05DocumentSummaryInformation"):
// sections of (ID, typed value) pairs. Generic: what an ID means is the caller's business.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kv {

enum TKvPropertyKind : uint8_t {
    pkEmpty,    ///< VT_EMPTY, VT_NULL
    pkInteger,  ///< VT_I2, VT_I4, VT_UI2, VT_UI4, VT_I8, VT_UI8, VT_INT, VT_UINT, VT_I1, VT_UI1
    pkDouble,   ///< VT_R4, VT_R8
    pkBoolean,  ///< VT_BOOL
    pkString,   ///< VT_LPSTR (in the section's code page), VT_LPWSTR, VT_BSTR: held as UTF-8
    pkFileTime, ///< VT_FILETIME: 100-ns intervals since 1601-01-01 UTC
    pkOther     ///< a type read past but not kept (vectors, blobs, clipboard data...)
};

struct TKvPropertyValue {
    uint32_t Id = 0;
    TKvPropertyKind Kind = pkEmpty;
    int64_t Integer = 0; ///< pkInteger, and pkBoolean as 0 or 1
    double Double = 0;
    std::string Text; ///< pkString
    uint64_t FileTime = 0;
};

struct TKvPropertySection {
    std::string FormatId; ///< the 16 bytes of the section's FMTID
    std::vector<TKvPropertyValue> Properties;
};

/// The sections of a property-set stream. Damage raises EKvFormatError ("Property set"); a value of a type
/// not listed above is pkOther.
std::vector<TKvPropertySection> KvReadPropertySet(std::string_view bytes);

} // namespace kv
