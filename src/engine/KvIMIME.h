#pragma once
// Base64, for BLOB content that a source delivers as MIME text.

#include <string>
#include <string_view>

namespace kv {

/// Decodes base64 text; characters outside the alphabet (line breaks, blanks) are passed over and
/// decoding stops at the first "=".
std::string Decode64(std::string_view text);
std::string Encode64(std::string_view bytes);

} // namespace kv
