#pragma once
// Guessing column types from the first data rows, for creating a destination table: integer, float,
// date-time, boolean, or string when the values disagree.

#include "readers/text/KvTextFields.h"
#include "readers/text/KvTextFile.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kv {

/// What a column's values look like.
enum TKvTextColumnKind : uint8_t {
    tckString,   ///< anything else, or no value at all; also numbers with a leading "+" or leading zeros
                 ///< (codes), and numbers a 64-bit integer or a double cannot hold exactly
    tckInteger,  ///< optional sign and digits, within 64 bits
    tckFloat,    ///< decimals, grouping or exponent (integers mixed with floats too), up to 15 digits
    tckDateTime, ///< dates by the given order and separators, with an optional time and zone
    tckBoolean   ///< the true/false texts, or true/false in any case
};

/// Order of day, month and year in a date.
enum TKvTextDateOrder : uint8_t {
    tdoYMD, ///< 2024-03-31
    tdoDMY, ///< 31/03/2024
    tdoMDY  ///< 03/31/2024
};

/// Data rows looked at when TKvTextTypeOptions::MaxScanRows is 0: enough to get past a few untypical
/// first rows, and still only milliseconds of reading.
constexpr int KvTextDefaultScanRows = 1000;

/// How values are read while guessing.
struct TKvTextTypeOptions {
    /// Data rows looked at: 0 = KvTextDefaultScanRows, below 0 = every row.
    int MaxScanRows = 0;
    char32_t DecimalSeparator = U'.';
    /// 0 = numbers are never grouped. Grouping counts in a qualified value, or wherever the separator is
    /// not the field delimiter; the groups must be of three digits.
    char32_t ThousandSeparator = U',';
    TKvTextDateOrder DateOrder = tdoYMD;
    /// Characters that may separate the parts of a date (the same one twice).
    std::string DateSeparators = "-/.";
    /// Besides ":".
    char32_t TimeSeparator = U':';
    /// Besides true/false (any case).
    std::string TrueText = "True";
    std::string FalseText = "False";
};

/// The guess for one column.
struct TKvTextColumnType {
    TKvTextColumnKind Kind = tckString;
    int64_t MaxLength = 0; ///< longest value, in characters
    int64_t Values = 0;    ///< values that were not empty
    bool HasTime = false;  ///< a date-time column had a time of day in some value
};

/// The date order of a date pattern ("dd/mm/yyyy" is day-month-year): whichever of d, m, y comes first.
TKvTextDateOrder TextDateOrderOf(std::string_view pattern);

/// Collects values column by column and votes on their kind. Empty values do not vote.
class TKvTextTypeGuesser {
public:
    explicit TKvTextTypeGuesser(const TKvTextTypeOptions& options);

    /// Makes sure at least `count` columns are reported.
    void EnsureColumns(size_t count);
    /// One value of column `column` (0-based); `groupingAllowed` when thousand separators may occur in it.
    void Add(size_t column, std::string_view value, bool groupingAllowed);
    std::vector<TKvTextColumnType> Columns() const;

    bool IsInteger(std::string_view value) const;
    bool IsFloat(std::string_view value, bool groupingAllowed) const;
    bool IsDateTime(std::string_view value) const;
    bool IsBoolean(std::string_view value) const;

private:
    struct TColumn {
        TKvTextColumnType Type;
        bool CanInteger = true, CanFloat = true, CanDate = true, CanBoolean = true;
    };
    bool IsTime(std::string_view value) const;

    TKvTextTypeOptions options_;
    std::string decimal_, thousand_, time_;
    std::vector<TColumn> columns_;
};

/// Guesses the columns of the first data rows of `file`, split by `format`. Without `references` the
/// columns are Field1..FieldN (N the most fields of any row, or of the header); with them, one column per
/// reference (how fixed-width columns are given). The header line is not counted when it is also a data row.
std::vector<TKvTextColumnType> GuessTextColumnTypes(TKvTextFile& file, const TKvTextFields& format,
                                                    const TKvTextTypeOptions& options,
                                                    const std::vector<std::string>& references = {});

} // namespace kv
