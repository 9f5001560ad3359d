#include "platform/BinaryReader.h"

#include <algorithm>
#include <cstring>

namespace kv {

TKvBinaryReader::TKvBinaryReader(TStream& stream, std::string format, size_t blockSize)
    : stream_(stream), format_(std::move(format)), buffer_(std::max(blockSize, kMinBlockSize)) {
    const int64_t position = stream.Position();
    const int64_t size = stream.Size();
    pos_ = static_cast<uint64_t>(std::max<int64_t>(position, 0));
    size_ = std::max(static_cast<uint64_t>(std::max<int64_t>(size, 0)), pos_);
}

void TKvBinaryReader::Seek(uint64_t offset) {
    if (offset > size_)
        throw EKvFormatError(fekTruncated, format_, pos_,
                             "seeking to byte " + std::to_string(offset) + " of " + std::to_string(size_));
    pos_ = offset;
}

void TKvBinaryReader::Skip(uint64_t count) {
    if (count > Remaining()) ShortRead(count, Remaining());
    pos_ += count;
}

std::string TKvBinaryReader::ReadBytes(size_t count) {
    std::string out;
    ReadBytes(count, out);
    return out;
}

void TKvBinaryReader::ReadBytes(size_t count, std::string& out) {
    if (count > Remaining()) ShortRead(count, Remaining());
    out.resize(count);
    ReadBuffer(out.data(), count);
}

void TKvBinaryReader::ReadBuffer(void* buffer, size_t count) {
    if (count > Remaining()) ShortRead(count, Remaining());
    char* out = static_cast<char*>(buffer);
    const uint64_t start = pos_;
    size_t done = 0;
    if (pos_ >= bufStart_ && pos_ < bufEnd_) {
        done = static_cast<size_t>(std::min<uint64_t>(count, bufEnd_ - pos_));
        std::memcpy(out, buffer_.data() + (pos_ - bufStart_), done);
    }
    if (done < count) {
        const size_t rest = count - done;
        if (rest >= buffer_.size()) {
            // Large reads go straight to the caller's memory rather than through the buffer.
            const size_t got = ReadAt(start + done, out + done, rest);
            if (got < rest) ShortRead(count, done + got);
        } else {
            const size_t got = Fill(start + done);
            if (got < rest) ShortRead(count, done + got);
            std::memcpy(out + done, buffer_.data(), rest);
        }
    }
    pos_ = start + count;
}

void TKvBinaryReader::CorruptAt(uint64_t offset, std::string_view what) const {
    throw EKvFormatError(fekDamaged, format_, offset, std::string(what));
}

const char* TKvBinaryReader::TakeSlow(size_t count) {
    if (count > Remaining()) ShortRead(count, Remaining());
    // Refill from the position, so that the bytes wanted are contiguous in the buffer.
    const size_t got = Fill(pos_);
    if (got < count) ShortRead(count, got); // the stream holds less than its size said
    const char* p = buffer_.data();
    pos_ += count;
    return p;
}

size_t TKvBinaryReader::Fill(uint64_t offset) {
    const size_t want = static_cast<size_t>(std::min<uint64_t>(buffer_.size(), size_ - offset));
    bufStart_ = bufEnd_ = offset;
    bufEnd_ = offset + ReadAt(offset, buffer_.data(), want);
    return static_cast<size_t>(bufEnd_ - offset);
}

size_t TKvBinaryReader::ReadAt(uint64_t offset, char* out, size_t count) {
    if (stream_.Seek(static_cast<int64_t>(offset), soBeginning) != static_cast<int64_t>(offset)) return 0;
    return stream_.ReadUpTo(out, count);
}

void TKvBinaryReader::ShortRead(uint64_t count, uint64_t left) const {
    throw EKvFormatError::ShortRead(format_, pos_, count, left);
}

} // namespace kv
