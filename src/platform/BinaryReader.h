#pragma once
// TKvBinaryReader: the bounds-checked cursor over a stream. It reads the stream in blocks through a small
// buffer, so a file of gigabytes is never held in memory, and every failure names the format and the byte
// where it happened.

#include "platform/ByteReader.h"
#include "platform/Streams.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kv {

/// A bounds-checked little- and big-endian reader over a stream.
///
/// Positions are offsets in the stream; the reader starts where the stream stands and may seek anywhere
/// in it. The size is taken once, at construction. While the reader is used it owns the stream's
/// position. Reads past the end raise EKvFormatError "<format>: unexpected end of file at byte N: reading
/// 4 bytes, 2 left" and move nothing; Corrupt raises the damaged-file error for checks of the reader's own.
class TKvBinaryReader : public TKvEndianReads<TKvBinaryReader> {
public:
    static constexpr size_t kDefaultBlockSize = 64 * 1024;
    static constexpr size_t kMinBlockSize = 16;

    /// `format` names the format in errors ("DBF"); `blockSize` (at least kMinBlockSize) is how much one
    /// read of the stream asks for.
    TKvBinaryReader(TStream& stream, std::string format, size_t blockSize = kDefaultBlockSize);

    const std::string& Format() const { return format_; }
    uint64_t Size() const { return size_; }
    uint64_t Position() const { return pos_; }
    uint64_t Remaining() const { return size_ - pos_; }
    bool AtEnd() const { return pos_ >= size_; }
    /// True when `count` bytes remain; use it before a loop over a count read from the file.
    bool Has(uint64_t count) const { return count <= Remaining(); }

    /// Moves to an absolute offset (at most the size).
    void Seek(uint64_t offset);
    void Skip(uint64_t count);
    /// The next `count` bytes. The count is checked before anything is allocated.
    std::string ReadBytes(size_t count);
    /// The same into `out`, whose capacity is reused.
    void ReadBytes(size_t count, std::string& out);
    /// The next `count` bytes into `buffer`.
    void ReadBuffer(void* buffer, size_t count);

    /// Raises the damaged-file error at the position: "<format>: damaged file at byte N: <what>".
    [[noreturn]] void Corrupt(std::string_view what) const { CorruptAt(pos_, what); }
    /// The same at an earlier offset, where the bad value was read.
    [[noreturn]] void CorruptAt(uint64_t offset, std::string_view what) const;
    /// `count` × `elementSize` when the remaining bytes can hold them, else the damaged-file error.
    uint64_t CheckedSize(uint64_t count, uint64_t elementSize, std::string_view what) const {
        return KvCheckedSize(format_, pos_, count, elementSize, Remaining(), what);
    }
    /// The same against a bound of the format's own (a decompressed size, a declared length).
    uint64_t CheckedSize(uint64_t count, uint64_t elementSize, uint64_t available,
                         std::string_view what) const {
        return KvCheckedSize(format_, pos_, count, elementSize, available, what);
    }

private:
    friend class TKvEndianReads<TKvBinaryReader>;

    const char* Take(size_t count) {
        if (pos_ >= bufStart_ && pos_ <= bufEnd_ && count <= bufEnd_ - pos_) {
            const char* p = buffer_.data() + (pos_ - bufStart_);
            pos_ += count;
            return p;
        }
        return TakeSlow(count);
    }
    const char* TakeSlow(size_t count);
    /// Fills the buffer from `offset` (at most the size); returns how many bytes it holds.
    size_t Fill(uint64_t offset);
    /// Reads up to `count` bytes at `offset` from the stream, as many as it gives.
    size_t ReadAt(uint64_t offset, char* out, size_t count);
    [[noreturn]] void ShortRead(uint64_t count, uint64_t left) const;

    TStream& stream_;
    std::string format_;
    uint64_t size_ = 0;
    uint64_t pos_ = 0;
    std::vector<char> buffer_;
    uint64_t bufStart_ = 0; ///< the stream offset of buffer_[0]
    uint64_t bufEnd_ = 0;   ///< and of the end of what it holds
};

} // namespace kv
