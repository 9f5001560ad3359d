#pragma once
// The bounds-checked reads every binary reader uses instead of casting structures over file data:
// TKvEndianReads gives the fixed-width reads to any cursor that can hand out a few contiguous bytes, and
// TByteReader is that cursor over bytes held in memory (a record, a block). TKvBinaryReader
// (platform/BinaryReader.h) is the same over a stream.

#include "platform/AllocationGuard.h"
#include "platform/Exceptions.h"
#include "platform/FormatError.h"

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>

namespace kv {

/// The unsigned value of the sizeof(T) bytes at `p`, least significant first (no alignment needed).
template <class T> T KvLoadLE(const char* p) {
    static_assert(std::is_unsigned_v<T>);
    T v = 0;
    for (size_t i = sizeof(T); i-- > 0;) v = static_cast<T>((v << 8) | static_cast<unsigned char>(p[i]));
    return v;
}

/// The unsigned value of the sizeof(T) bytes at `p`, most significant first.
template <class T> T KvLoadBE(const char* p) {
    static_assert(std::is_unsigned_v<T>);
    T v = 0;
    for (size_t i = 0; i < sizeof(T); ++i) v = static_cast<T>((v << 8) | static_cast<unsigned char>(p[i]));
    return v;
}

/// The fixed-width reads, for a cursor `Derived` whose `Take(n)` (n at most 8) returns the next n bytes
/// and moves past them, or raises its error and moves nothing.
template <class Derived> class TKvEndianReads {
public:
    uint8_t ReadU8() { return static_cast<uint8_t>(*Self().Take(1)); }
    int8_t ReadI8() { return static_cast<int8_t>(ReadU8()); }
    uint16_t ReadU16LE() { return KvLoadLE<uint16_t>(Self().Take(2)); }
    uint16_t ReadU16BE() { return KvLoadBE<uint16_t>(Self().Take(2)); }
    int16_t ReadI16LE() { return static_cast<int16_t>(ReadU16LE()); }
    int16_t ReadI16BE() { return static_cast<int16_t>(ReadU16BE()); }
    uint32_t ReadU32LE() { return KvLoadLE<uint32_t>(Self().Take(4)); }
    uint32_t ReadU32BE() { return KvLoadBE<uint32_t>(Self().Take(4)); }
    int32_t ReadI32LE() { return static_cast<int32_t>(ReadU32LE()); }
    int32_t ReadI32BE() { return static_cast<int32_t>(ReadU32BE()); }
    uint64_t ReadU64LE() { return KvLoadLE<uint64_t>(Self().Take(8)); }
    uint64_t ReadU64BE() { return KvLoadBE<uint64_t>(Self().Take(8)); }
    int64_t ReadI64LE() { return static_cast<int64_t>(ReadU64LE()); }
    int64_t ReadI64BE() { return static_cast<int64_t>(ReadU64BE()); }
    double ReadDoubleLE() { return BitsToDouble(ReadU64LE()); }
    double ReadDoubleBE() { return BitsToDouble(ReadU64BE()); }

private:
    Derived& Self() { return static_cast<Derived&>(*this); }
    static double BitsToDouble(uint64_t bits) {
        double d;
        std::memcpy(&d, &bits, sizeof d);
        return d;
    }
};

/// A bounds-checked cursor over bytes in memory.
///
/// Made with the bytes alone, a short read raises EReadError "Stream read error". Made with a format name,
/// every failure is an EKvFormatError naming the format and the byte offset in the file (`base` is where
/// the bytes start in it), so a record cut out of a file reports where it lay.
class TByteReader : public TKvEndianReads<TByteReader> {
public:
    explicit TByteReader(std::string_view bytes) : data_(bytes) {}
    /// `format` and `unit` must outlive the reader (literals, or the stream reader's Format()); `unit`
    /// names what ends early in a truncation: "unexpected end of record at byte ...".
    TByteReader(std::string_view bytes, std::string_view format, uint64_t base = 0,
                std::string_view unit = "data")
        : data_(bytes), format_(format), unit_(unit), base_(base), named_(true) {}

    size_t Size() const { return data_.size(); }
    size_t Position() const { return pos_; }
    size_t Remaining() const { return data_.size() - pos_; }
    bool AtEnd() const { return pos_ >= data_.size(); }
    /// The file offset of the position (`base` + Position()).
    uint64_t FileOffset() const { return base_ + pos_; }
    /// True when `count` bytes remain; use it before a loop over a count read from the data.
    bool Has(size_t count) const { return count <= Remaining(); }

    /// Moves to an absolute position (at most the size).
    void Seek(size_t offset) {
        if (offset > data_.size()) {
            if (!named_) Fail();
            throw EKvFormatError(fekTruncated, std::string(format_), FileOffset(),
                                 "seeking to byte " + std::to_string(base_ + offset) + " of " +
                                     std::to_string(base_ + data_.size()),
                                 unit_);
        }
        pos_ = offset;
    }
    void Skip(size_t count) { Take(count); }
    /// The next `count` bytes (a view into the buffer).
    std::string_view ReadBytes(size_t count) { return std::string_view(Take(count), count); }

    /// Raises the damaged-file error at the position: "<format>: damaged file at byte N: <what>".
    [[noreturn]] void Corrupt(std::string_view what) const { CorruptAt(pos_, what); }
    /// The same at an earlier position, where the bad value was read.
    [[noreturn]] void CorruptAt(size_t position, std::string_view what) const {
        throw EKvFormatError(fekDamaged, std::string(format_), base_ + position, std::string(what));
    }
    /// `count` × `elementSize` when the remaining bytes can hold them, else the damaged-file error.
    uint64_t CheckedSize(uint64_t count, uint64_t elementSize, std::string_view what) const {
        return KvCheckedSize(format_, FileOffset(), count, elementSize, Remaining(), what);
    }

    /// Raises the short-read error of a reader without a format name.
    [[noreturn]] static void Fail() { throw EReadError("Stream read error"); }

private:
    friend class TKvEndianReads<TByteReader>;

    const char* Take(size_t count) {
        if (count > Remaining()) ShortRead(count);
        const char* p = data_.data() + pos_;
        pos_ += count;
        return p;
    }
    [[noreturn]] void ShortRead(size_t count) const {
        if (!named_) Fail();
        throw EKvFormatError::ShortRead(format_, FileOffset(), count, Remaining(), unit_);
    }

    std::string_view data_;
    std::string_view format_;
    std::string_view unit_;
    uint64_t base_ = 0;
    size_t pos_ = 0;
    bool named_ = false;
};

} // namespace kv
