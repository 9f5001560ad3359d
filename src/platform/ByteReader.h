#pragma once
// TByteReader: the one bounds-checked cursor binary readers use over bytes held in memory. Every read
// checks what remains and raises EReadError "Stream read error" on a short read; nothing is ever read
// by casting a structure over the buffer.

#include "platform/Exceptions.h"

#include <cstdint>
#include <cstring>
#include <string_view>

namespace kv {

class TByteReader {
public:
    explicit TByteReader(std::string_view bytes) : data_(bytes) {}

    size_t Size() const { return data_.size(); }
    size_t Position() const { return pos_; }
    size_t Remaining() const { return data_.size() - pos_; }
    bool AtEnd() const { return pos_ >= data_.size(); }
    /// Moves to an absolute offset (at most the size).
    void Seek(size_t offset) {
        if (offset > data_.size()) Fail();
        pos_ = offset;
    }
    void Skip(size_t count) { Take(count); }
    /// True when `count` bytes remain; use it before a loop over a count read from the data.
    bool Has(size_t count) const { return count <= Remaining(); }

    uint8_t ReadU8() { return static_cast<uint8_t>(*Take(1)); }
    int8_t ReadI8() { return static_cast<int8_t>(ReadU8()); }
    uint16_t ReadU16LE() { return static_cast<uint16_t>(LE(Take(2), 2)); }
    uint16_t ReadU16BE() { return static_cast<uint16_t>(BE(Take(2), 2)); }
    int16_t ReadI16LE() { return static_cast<int16_t>(ReadU16LE()); }
    uint32_t ReadU32LE() { return static_cast<uint32_t>(LE(Take(4), 4)); }
    uint32_t ReadU32BE() { return static_cast<uint32_t>(BE(Take(4), 4)); }
    int32_t ReadI32LE() { return static_cast<int32_t>(ReadU32LE()); }
    uint64_t ReadU64LE() { return LE(Take(8), 8); }
    uint64_t ReadU64BE() { return BE(Take(8), 8); }
    int64_t ReadI64LE() { return static_cast<int64_t>(ReadU64LE()); }
    double ReadDoubleLE() {
        uint64_t bits = ReadU64LE();
        double d;
        std::memcpy(&d, &bits, sizeof d);
        return d;
    }
    double ReadDoubleBE() {
        uint64_t bits = ReadU64BE();
        double d;
        std::memcpy(&d, &bits, sizeof d);
        return d;
    }
    /// The next `count` bytes (a view into the buffer).
    std::string_view ReadBytes(size_t count) { return std::string_view(Take(count), count); }

    /// Raises the short-read error.
    [[noreturn]] static void Fail() { throw EReadError("Stream read error"); }

private:
    const char* Take(size_t count) {
        if (count > Remaining()) Fail();
        const char* p = data_.data() + pos_;
        pos_ += count;
        return p;
    }
    static uint64_t LE(const char* p, int n) {
        uint64_t v = 0;
        for (int i = n - 1; i >= 0; --i) v = (v << 8) | static_cast<unsigned char>(p[i]);
        return v;
    }
    static uint64_t BE(const char* p, int n) {
        uint64_t v = 0;
        for (int i = 0; i < n; ++i) v = (v << 8) | static_cast<unsigned char>(p[i]);
        return v;
    }

    std::string_view data_;
    size_t pos_ = 0;
};

} // namespace kv
