#pragma once
// Guessing how a delimited text is written from its first lines: the delimiter, and whether the first
// record names the columns. An application gets the same guess the command line makes.

#include <cstdint>
#include <string>
#include <string_view>

namespace kv {

/// How a delimited text looks.
struct TKvTextDialect {
    char32_t Delimiter = U',';
    char32_t Qualifier = U'"';
    bool HasHeader = true; ///< the first record holds the column names
};

/// Bytes of the input enough to sniff from.
constexpr size_t KvTextSniffBytes = 65536;

/// The delimiter a file's name suggests: tab for ".tsv" and ".tab", a comma for ".csv", else 0 (none).
char32_t TextDelimiterForExtension(std::string_view extension);

/// Guesses from `sample` (the first bytes of the input, UTF-8 or Windows-1252; a record cut at the end
/// is ignored). The delimiter is the one of tab, ";", "," and "|" that splits the first records most
/// consistently, else `fallbackDelimiter`; `fixedDelimiter` (when not 0) is taken as it is. The first
/// record is a header unless its values look like the data below it (numbers, dates or booleans in the
/// columns where the rest has them).
TKvTextDialect SniffTextDialect(std::string_view sample, char32_t fallbackDelimiter,
                                char32_t fixedDelimiter = 0);

} // namespace kv
