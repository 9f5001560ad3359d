#pragma once
// EKvFormatError: what every binary reader raises on a damaged or truncated file, so that all of them
// fail alike and a user learns the format and the byte where reading stopped.

#include "platform/Exceptions.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace kv {

/// The two ways binary input goes wrong.
enum TKvFormatErrorKind : uint8_t {
    fekTruncated, ///< the data ends before something it announces
    fekDamaged    ///< a value read from the data is impossible: a link out of range, a loop, a size too big
};

/// A binary file that cannot be read. The message has one shape:
/// "<format>: <problem> at byte <offset>: <detail>", where the problem is "unexpected end of <unit>" for a
/// truncation and "damaged file" otherwise; without a format name the "<format>: " prefix is left out.
/// It derives from EReadError so that code catching short stream reads catches it too.
class EKvFormatError : public EReadError {
public:
    /// `unit` names what ended early in a truncation ("file", "record"); a damaged file ignores it.
    EKvFormatError(TKvFormatErrorKind kind, std::string format, uint64_t offset, std::string detail,
                   std::string_view unit = "file");

    /// A truncated read of `wanted` bytes with `left` remaining: "... at byte N: reading 4 bytes, 2 left".
    static EKvFormatError ShortRead(std::string_view format, uint64_t offset, uint64_t wanted, uint64_t left,
                                    std::string_view unit = "file");

    TKvFormatErrorKind Kind() const noexcept { return kind_; }
    /// The format's name as the reader gave it ("DBF").
    const std::string& Format() const noexcept { return format_; }
    /// The byte offset where the problem was found.
    uint64_t Offset() const noexcept { return offset_; }
    /// The message after "at byte N: ".
    const std::string& Detail() const noexcept { return detail_; }

private:
    TKvFormatErrorKind kind_;
    std::string format_;
    uint64_t offset_;
    std::string detail_;
};

} // namespace kv
