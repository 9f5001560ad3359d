#pragma once
// What the PostgreSQL dataset and the PostgreSQL table source share.

#include "platform/Variant.h"

#include <cstdint>
#include <string_view>

namespace kv {

/// A value in PostgreSQL's text form as a column of type `type` (an oid) holds it: numbers, booleans,
/// dates and times (ISO, the session in UTC) and bytea as such; anything else, and a date a TDateTime
/// cannot hold (infinity, years BC), as its text.
Variant PgTextValue(std::string_view text, uint32_t type);

} // namespace kv
