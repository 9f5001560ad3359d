// The cases of a system file: uncompressed elements, the bytecode stream, or the bytecode stream in
// zlib blocks, one case at a time through a buffer of fixed size.

#include "readers/archive/KvISPSSInternal.h"

#include "platform/FormatError.h"

#include <algorithm>
#include <cstring>
#include <zlib.h>

namespace kv {

namespace {

using spss::kFormat;

constexpr size_t kBufferSize = 64 * 1024;

/// The data as the file holds it, from the end of the dictionary to the end of the file.
class TFileInput : public TSPSSInput {
public:
    TFileInput(TKvBinaryReader& in, uint64_t start) : in_(in), start_(start), pos_(start) {}

    size_t Read(char* out, size_t max) override {
        const size_t count = static_cast<size_t>(std::min<uint64_t>(max, in_.Size() - pos_));
        if (count == 0) return 0;
        if (in_.Position() != pos_) in_.Seek(pos_);
        in_.ReadBuffer(out, count);
        pos_ += count;
        return count;
    }
    void Rewind() override { pos_ = start_; }
    uint64_t Offset() const override { return pos_; }

private:
    TKvBinaryReader& in_;
    uint64_t start_, pos_;
};

/// The zlib blocks of a .zsav, inflated one after the other. The block index in the trailer is checked
/// against the file before anything is read, and every block must inflate to exactly the size it gives.
class TZlibInput : public TSPSSInput {
public:
    TZlibInput(TKvBinaryReader& in, uint64_t start, bool bigEndian) : in_(in), bigEndian_(bigEndian) {
        ReadIndex(start);
        if (inflateInit(&z_) != Z_OK) throw EKvFormatError(fekDamaged, kFormat, start, "zlib cannot start");
    }
    ~TZlibInput() override { inflateEnd(&z_); }
    TZlibInput(const TZlibInput&) = delete;
    TZlibInput& operator=(const TZlibInput&) = delete;

    size_t Read(char* out, size_t max) override {
        for (;;) {
            if (!inBlock_) {
                if (block_ == blocks_.size()) return 0;
                inflateReset(&z_);
                z_.avail_in = 0;
                next_ = blocks_[block_].CompressedOffset;
                inflated_ = 0;
                inBlock_ = true;
            }
            const TBlock& b = blocks_[block_];
            const uint64_t end = b.CompressedOffset + b.CompressedSize;
            if (z_.avail_in == 0 && next_ < end) {
                const size_t count = static_cast<size_t>(std::min<uint64_t>(input_.size(), end - next_));
                in_.Seek(next_);
                in_.ReadBuffer(input_.data(), count);
                next_ += count;
                z_.next_in = reinterpret_cast<Bytef*>(input_.data());
                z_.avail_in = static_cast<uInt>(count);
            }
            z_.next_out = reinterpret_cast<Bytef*>(out);
            z_.avail_out = static_cast<uInt>(std::min<size_t>(max, UINT32_MAX));
            const int rc = inflate(&z_, Z_NO_FLUSH);
            const size_t produced = static_cast<size_t>(reinterpret_cast<char*>(z_.next_out) - out);
            inflated_ += produced;
            if (inflated_ > b.UncompressedSize) Lie("inflates to more than");
            if (rc == Z_STREAM_END) {
                if (inflated_ != b.UncompressedSize) Lie("inflates to less than");
                if (z_.avail_in != 0 || next_ != end)
                    Damaged("zlib block " + std::to_string(block_ + 1) + " ends before its " +
                            std::to_string(b.CompressedSize) + " compressed bytes");
                inBlock_ = false;
                ++block_;
            } else if (rc == Z_BUF_ERROR && z_.avail_in == 0 && next_ == end) {
                Damaged("zlib block " + std::to_string(block_ + 1) + " ends inside its compressed stream");
            } else if (rc != Z_OK && rc != Z_BUF_ERROR) {
                Damaged("zlib block " + std::to_string(block_ + 1) + ": " +
                        (z_.msg ? z_.msg : "inflate failed"));
            }
            if (produced > 0) return produced;
        }
    }

    void Rewind() override {
        block_ = 0;
        inBlock_ = false;
    }

    uint64_t Offset() const override {
        if (!inBlock_) return block_ < blocks_.size() ? blocks_[block_].CompressedOffset : trailer_;
        return next_ - z_.avail_in;
    }

private:
    struct TBlock {
        uint64_t CompressedOffset = 0;
        uint32_t UncompressedSize = 0, CompressedSize = 0;
    };

    int64_t I64() { return bigEndian_ ? in_.ReadI64BE() : in_.ReadI64LE(); }
    int32_t I32() { return bigEndian_ ? in_.ReadI32BE() : in_.ReadI32LE(); }
    [[noreturn]] void Damaged(const std::string& what) const {
        throw EKvFormatError(fekDamaged, kFormat, Offset(), what);
    }
    [[noreturn]] void Lie(const char* how) const {
        const TBlock& b = blocks_[block_];
        Damaged("zlib block " + std::to_string(block_ + 1) + " " + how + " the " +
                std::to_string(b.UncompressedSize) + " bytes its index gives");
    }

    void ReadIndex(uint64_t start) {
        in_.Seek(start);
        if (!in_.Has(24))
            throw EKvFormatError(fekTruncated, kFormat, start, "the zlib data header needs 24 bytes");
        const int64_t header = I64();
        const int64_t trailer = I64();
        const int64_t length = I64();
        const uint64_t size = in_.Size();
        if (header != static_cast<int64_t>(start))
            in_.CorruptAt(start, "the zlib data header gives its own offset as " + std::to_string(header) +
                                     ", it is at " + std::to_string(start));
        if (trailer < static_cast<int64_t>(start + 24) || static_cast<uint64_t>(trailer) > size)
            in_.CorruptAt(start + 8, "the zlib trailer offset " + std::to_string(trailer) +
                                         " lies outside the data, bytes " + std::to_string(start + 24) +
                                         " to " + std::to_string(size));
        if (length < 24 || static_cast<uint64_t>(length) > size - static_cast<uint64_t>(trailer) ||
            (length - 24) % 24 != 0)
            in_.CorruptAt(start + 16, "the zlib trailer length " + std::to_string(length) +
                                          " does not fit the " +
                                          std::to_string(size - static_cast<uint64_t>(trailer)) +
                                          " bytes after its offset");
        trailer_ = static_cast<uint64_t>(trailer);
        in_.Seek(trailer_);
        in_.Skip(16); // the bias, negated, and a zero
        I32();        // the block size the writer used
        const int32_t count = I32();
        if (count < 0 || static_cast<int64_t>(count) != (length - 24) / 24)
            in_.CorruptAt(trailer_ + 20, "the zlib trailer lists " + std::to_string(count) +
                                             " blocks in room for " + std::to_string((length - 24) / 24));
        uint64_t next = start + 24;
        blocks_.resize(static_cast<size_t>(count));
        for (int32_t i = 0; i < count; ++i) {
            const uint64_t at = in_.Position();
            TBlock& b = blocks_[static_cast<size_t>(i)];
            I64(); // where the block would start uncompressed
            const int64_t offset = I64();
            b.UncompressedSize = static_cast<uint32_t>(I32());
            b.CompressedSize = static_cast<uint32_t>(I32());
            if (offset != static_cast<int64_t>(next))
                in_.CorruptAt(at + 8, "zlib block " + std::to_string(i + 1) + " starts at " +
                                          std::to_string(offset) + ", not at " + std::to_string(next) +
                                          " where the data before it ends");
            if (b.CompressedSize > trailer_ - next)
                in_.CorruptAt(at + 20, "zlib block " + std::to_string(i + 1) + " of " +
                                           std::to_string(b.CompressedSize) +
                                           " bytes runs past the trailer at " + std::to_string(trailer_));
            b.CompressedOffset = next;
            next += b.CompressedSize;
        }
    }

    TKvBinaryReader& in_;
    bool bigEndian_;
    std::vector<TBlock> blocks_;
    uint64_t trailer_ = 0;
    size_t block_ = 0;
    bool inBlock_ = false;
    uint64_t next_ = 0;     ///< the next compressed byte to read
    uint64_t inflated_ = 0; ///< bytes the current block gave so far
    std::vector<char> input_ = std::vector<char>(kBufferSize);
    z_stream z_{};
};

} // namespace

TSPSSData::TSPSSData(TKvBinaryReader& in, const spss::TDictionary& dictionary)
    : compression_(dictionary.Header.Compression), bigEndian_(dictionary.Header.BigEndian),
      slots_(dictionary.Slots), strings_(static_cast<size_t>(dictionary.Slots)),
      bias_(dictionary.Header.Bias), buffer_(kBufferSize) {
    for (const TSPSSVariable& v : dictionary.Variables)
        for (const auto& [slot, bytes] : v.Segments)
            for (int k = 0; k < (bytes + 7) / 8 && slot + k < slots_; ++k)
                strings_[static_cast<size_t>(slot + k)] = true;
    spss::PutNumber(sysmis_, dictionary.Header.SystemMissing, bigEndian_);
    if (compression_ == scZlib)
        input_ = std::make_unique<TZlibInput>(in, dictionary.DataStart, bigEndian_);
    else
        input_ = std::make_unique<TFileInput>(in, dictionary.DataStart);
}

TSPSSData::~TSPSSData() = default;

void TSPSSData::Rewind() {
    input_->Rewind();
    pos_ = end_ = 0;
    command_ = 8;
    ended_ = false;
}

bool TSPSSData::Ensure(size_t count) {
    if (end_ - pos_ >= count) return true;
    std::memmove(buffer_.data(), buffer_.data() + pos_, end_ - pos_);
    end_ -= pos_;
    pos_ = 0;
    while (end_ < count) {
        const size_t got = input_->Read(buffer_.data() + end_, buffer_.size() - end_);
        if (got == 0) return false;
        end_ += got;
    }
    return true;
}

void TSPSSData::EndsInside(int64_t caseNumber, int slot, bool endCode) const {
    throw EKvFormatError(fekTruncated, kFormat, input_->Offset(),
                         std::string(endCode ? "the data's end code comes" : "the data ends") +
                             " inside case " + std::to_string(caseNumber) + ", after " +
                             std::to_string(slot) + " of its " + std::to_string(slots_) + " 8-byte elements");
}

bool TSPSSData::Next(char* out, int64_t caseNumber) {
    if (ended_ || slots_ == 0) return false;
    return compression_ == scNone ? NextRaw(out, caseNumber) : NextBytecode(out, caseNumber);
}

bool TSPSSData::NextRaw(char* out, int64_t caseNumber) {
    const size_t need = static_cast<size_t>(slots_) * 8;
    size_t done = 0;
    while (done < need) {
        if (pos_ == end_ && !Ensure(1)) {
            ended_ = true;
            if (done == 0) return false;
            EndsInside(caseNumber, static_cast<int>(done / 8), false);
        }
        const size_t count = std::min(need - done, end_ - pos_);
        std::memcpy(out + done, buffer_.data() + pos_, count);
        pos_ += count;
        done += count;
    }
    return true;
}

bool TSPSSData::NextBytecode(char* out, int64_t caseNumber) {
    for (int slot = 0; slot < slots_;) {
        if (command_ == 8) {
            if (!Ensure(8)) {
                ended_ = true;
                if (slot == 0) return false;
                EndsInside(caseNumber, slot, false);
            }
            std::memcpy(commands_, buffer_.data() + pos_, 8);
            pos_ += 8;
            command_ = 0;
        }
        const unsigned char code = commands_[command_++];
        char* value = out + static_cast<size_t>(slot) * 8;
        const bool text = strings_[static_cast<size_t>(slot)];
        switch (code) {
        case 0: // padding
            continue;
        case 252:
            ended_ = true;
            if (slot == 0) return false;
            EndsInside(caseNumber, slot, true);
        case 253:
            if (!Ensure(8)) {
                ended_ = true;
                EndsInside(caseNumber, slot, false);
            }
            std::memcpy(value, buffer_.data() + pos_, 8);
            pos_ += 8;
            break;
        case 254: // eight blanks; a number cannot be blank: system-missing
        case 255: // system-missing; text cannot be missing: blanks
            if (text)
                std::memset(value, ' ', 8);
            else
                std::memcpy(value, sysmis_, 8);
            break;
        default: // a small whole number; in text, NUL bytes
            if (text)
                std::memset(value, 0, 8);
            else
                spss::PutNumber(value, code - bias_, bigEndian_);
            break;
        }
        ++slot;
    }
    return true;
}

} // namespace kv
