#pragma once
// Small helpers of the import engine: the hexadecimal character encoding of specification files, folder
// creation, and the OEM and EBCDIC conversions of source text.

#include <string>
#include <string_view>

namespace kv {

/// Every character as its code in upper-case hexadecimal of at least two digits ("\t;" gives "093B").
std::string TranslateToHex(std::string_view text);
/// Two digits at a time back into characters (codes up to 255); an odd last digit is ignored, and so
/// is a pair that is not hexadecimal.
std::string TranslateFromHex(std::string_view hex);
/// Creates the folder and every missing folder above it; false when that fails.
bool CreateDirIfNotExists(const std::string& dir);
/// Text read as the system code page that really was OEM (code page 437) or EBCDIC (037), corrected.
std::string UECode(std::string_view text);
std::string EBCDICCode(std::string_view text);

} // namespace kv
