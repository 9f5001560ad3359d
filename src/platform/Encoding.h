#pragma once
// Decoding of 8-bit and UTF-16 text into the library's UTF-8. The single-byte code pages are read through
// the C library's iconv once, into a table per code page, and then mapped byte by byte.

#include <cstdint>
#include <string>
#include <string_view>

namespace kv {

/// The single-byte code pages the library meets.
enum TCodePage : uint8_t {
    cpWindows1252, ///< the "system ANSI code page" of the files this library reads
    cpOEM437,      ///< MS-DOS text (OEM)
    cpEBCDIC037    ///< IBM mainframe text
};

/// How a text file's bytes were found to be encoded.
enum TTextEncoding : uint8_t {
    encUtf8,
    encUtf8Bom,
    encUtf16LE,
    encUtf16BE,
    encAnsi,     ///< Windows-1252
    encUtf8Mixed ///< UTF-8 with stray bytes of Windows-1252 (see AppendUtf8OrWindows1252)
};

/// Looks at the first bytes (and, for 8-bit text, at the whole sample): a UTF-16 BOM selects UTF-16, a
/// UTF-8 BOM or valid UTF-8 is UTF-8, anything else is Windows-1252.
TTextEncoding DetectTextEncoding(std::string_view bytes);
/// Bytes in the detected encoding as UTF-8 (without BOM).
std::string DecodeText(std::string_view bytes);
/// One single-byte code page to UTF-8.
std::string CodePageToUtf8(std::string_view bytes, TCodePage codePage);
/// The UTF-8 text of byte `b` in `codePage`.
const std::string& CodePageChar(unsigned char b, TCodePage codePage);
/// Appends `bytes` as UTF-8: valid UTF-8 sequences as they are, and every byte that starts none as its
/// Windows-1252 character. A UTF-8 file edited once with a Windows-1252 tool reads right everywhere.
void AppendUtf8OrWindows1252(std::string& out, std::string_view bytes);
/// UTF-8 back to a single-byte code page; characters it lacks become "?".
std::string Utf8ToCodePage(std::string_view text, TCodePage codePage);

} // namespace kv
