#pragma once
// Bytes behind a stream that is no TMemoryStream, so that readers take them block by block as from a
// file, with the faults and the counts tests ask for.

#include "platform/Exceptions.h"
#include "platform/Streams.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>

namespace kv::test {

class TByteStream : public TStream {
public:
    explicit TByteStream(std::string_view bytes) : bytes_(bytes) {}

    bool Seekable = true;       ///< false: a pipe, which answers every Seek with -1
    int FailAt = 0;             ///< the read number that fails (0: none)
    size_t FailFrom = SIZE_MAX; ///< every read reaching past this byte fails
    int Reads = 0;              ///< reads asked for
    int64_t Bytes = 0;          ///< bytes read in all
    int64_t Furthest = 0;       ///< the furthest byte read

    size_t Read(void* buffer, size_t count) override {
        if (++Reads == FailAt || position_ + count > FailFrom) throw EReadError("Stream read error");
        const size_t n = std::min(count, bytes_.size() - std::min(position_, bytes_.size()));
        bytes_.copy(static_cast<char*>(buffer), n, position_);
        position_ += n;
        Bytes += static_cast<int64_t>(n);
        Furthest = std::max(Furthest, static_cast<int64_t>(position_));
        return n;
    }
    size_t Write(const void*, size_t) override { return 0; }
    int64_t Seek(int64_t offset, TSeekOrigin origin) override {
        if (!Seekable) return -1;
        const int64_t base = origin == soBeginning ? 0
                             : origin == soCurrent ? static_cast<int64_t>(position_)
                                                   : static_cast<int64_t>(bytes_.size());
        position_ = static_cast<size_t>(std::max<int64_t>(base + offset, 0));
        return static_cast<int64_t>(position_);
    }

private:
    std::string bytes_;
    size_t position_ = 0;
};

} // namespace kv::test
