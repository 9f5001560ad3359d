#pragma once
// Decoding of 8-bit and UTF-16 text into the library's UTF-8. The single-byte code pages are read through
// the C library's iconv once, into a table per code page, and then mapped byte by byte.

#include <cstdint>
#include <optional>
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

// ---- code pages by number (as files declare them: 1251, 866, 932, 65001 for UTF-8) ----

inline constexpr int kCodePageUtf8 = 65001;

/// True when text in `codePage` can be decoded: the C library's iconv knows it, or it is UTF-8.
bool CodePageAvailable(int codePage);
/// A user's name of a code page ("cp1251", "1251", "windows-1251", "CP866", "ibm866", "utf-8",
/// "latin1" = ISO-8859-1 = 28591, "iso-8859-5" = 28595) as its number; nothing when the name is not one
/// or the code page is not available.
std::optional<int> ParseCodePageName(std::string_view name);
/// The short name a user sees: "cp1251", "utf-8" for 65001, "iso-8859-1" for 28591.
std::string CodePageDisplayName(int codePage);

/// Decodes text of one code page to UTF-8. Single-byte code pages go through a table of the 256
/// characters, built once per code page and shared by every thread; multi-byte ones (932, 936, 949, 950)
/// and UTF-8 take the whole text, a byte that starts no character becoming U+FFFD. A code page that is
/// not available decodes as Windows-1252. Cheap to copy.
class TKvCodePageDecoder {
public:
    explicit TKvCodePageDecoder(int codePage = 1252);
    /// The code page it decodes (1252 when the one asked for is not available).
    int CodePage() const { return codePage_; }
    void Append(std::string& out, std::string_view bytes) const;
    std::string Decode(std::string_view bytes) const {
        std::string out;
        Append(out, bytes);
        return out;
    }

private:
    int codePage_;
    const std::string* chars_ = nullptr; ///< the 256 characters of a single-byte code page
    bool asciiSame_ = false;             ///< bytes below 0x80 are ASCII (the fast path)
};

/// `bytes` of `codePage` as UTF-8 (see TKvCodePageDecoder).
std::string DecodeCodePage(std::string_view bytes, int codePage);

} // namespace kv
