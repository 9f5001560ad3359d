#pragma once
// UTF-8 text helpers. Text inside the library is UTF-8; wherever behaviour counts or indexes characters it
// counts code points. Every helper takes a fast path for pure ASCII and tolerates malformed input (a byte
// that does not start a valid sequence counts as one character and decodes as U+FFFD).

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace kv {

/// True when every byte is below 0x80.
bool IsAscii(std::string_view s);
/// True when `s` is well-formed UTF-8 (no overlong forms, no surrogates, nothing above U+10FFFF).
bool IsValidUtf8(std::string_view s);

/// `s` with every malformed byte replaced by U+FFFD (`s` itself when it is well-formed).
std::string Utf8Sanitize(std::string_view s);

/// Decodes the character at byte `pos` and advances `pos` past it; malformed bytes give U+FFFD.
char32_t Utf8Decode(std::string_view s, size_t& pos);
/// The UTF-8 bytes of one code point (U+FFFD for surrogates and values above U+10FFFF).
std::string Utf8Encode(char32_t c);
/// The UTF-8 bytes of `c` into `out` (room for 4); returns how many (0 for code 0).
size_t Utf8EncodeTo(char32_t c, char* out);
void Utf8Append(std::string& out, char32_t c);

/// Number of characters.
size_t Utf8Length(std::string_view s);
/// Byte offset of the character with 0-based index `index` (s.size() when beyond the end).
size_t Utf8Offset(std::string_view s, size_t index);
/// `count` characters from the 1-based character position `start`, clamped like the classic Copy: a start
/// below 1 is taken as 1, a count below 1 gives "".
std::string Utf8Copy(std::string_view s, int64_t start, int64_t count);
/// 1-based character position of `needle` in `haystack`, 0 when absent (or when `needle` is empty).
int64_t Utf8Pos(std::string_view needle, std::string_view haystack);

std::u32string Utf8ToU32(std::string_view s);
std::string U32ToUtf8(std::u32string_view s);

/// Unicode simple case mapping, character by character.
std::string Utf8UpperCase(std::string_view s);
std::string Utf8LowerCase(std::string_view s);
char32_t CharUpper(char32_t c);
char32_t CharLower(char32_t c);

/// UTF-16 code units to UTF-8 (`bigEndian` selects the byte order); unpaired surrogates give U+FFFD.
std::string Utf16ToUtf8(std::string_view bytes, bool bigEndian);

} // namespace kv
