#pragma once
// Sizes read from a file are checked against what the file can hold before anything is allocated for
// them, so that a damaged count cannot make a reader ask for gigabytes or loop for hours.

#include <cstdint>
#include <string_view>

namespace kv {

/// The largest single allocation a reader makes from a size read from a file, whatever the file holds
/// (compressed data can claim more than its own size).
inline constexpr uint64_t kKvMaxAllocation = uint64_t{1} << 31;

/// `count` × `elementSize` in bytes, when that neither overflows, nor exceeds `available` (the bytes that
/// can hold the elements: what remains of the file, or a bound the format sets), nor kKvMaxAllocation.
/// Otherwise raises EKvFormatError (fekDamaged) for `format` at `offset`, e.g.
/// "DBF: damaged file at byte 32: the field descriptors need 160000000 bytes, more than the 1234 there are
/// (5000000 × 32)". `what` names the elements, with its article. A zero element size always passes:
/// a loop over a count of empty elements needs its own bound.
uint64_t KvCheckedSize(std::string_view format, uint64_t offset, uint64_t count, uint64_t elementSize,
                       uint64_t available, std::string_view what);

} // namespace kv
