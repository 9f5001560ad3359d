#pragma once
// Key to row address, in memory: lookups by key without a round trip to the server.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kv {

/// The rows of a table by key: each key (the bytes of its values, as the caller joins them) to the
/// address of the first row holding it. Open addressing over one block of key bytes, sixteen bytes a
/// slot, so that a million short keys take some thirty megabytes; Add refuses a key once the map would
/// pass its byte limit, counting the moment it grows, when old and new slots are both held.
class TKvKeyAddressMap {
public:
    /// An address the map does not know: the key is held by some row, which must be looked up.
    static constexpr uint64_t kUnknown = ~uint64_t{0};
    /// No row holds the key (a key found to have gone).
    static constexpr uint64_t kAbsent = ~uint64_t{0} - 1;

    explicit TKvKeyAddressMap(size_t byteLimit) : limit_(byteLimit) {}

    /// Room for `keys` keys of about `keyBytes` bytes each, so that a map whose size is known ahead is
    /// not grown on the way. False when that would pass the limit already.
    bool Reserve(size_t keys, size_t keyBytes);
    /// The key's address: kAbsent for a key never added.
    uint64_t Find(std::string_view key) const;
    /// Adds the key at `address`, or keeps the lower of the two addresses when it is there already
    /// (kUnknown wins over any). False when the map would pass its byte limit (nothing added).
    bool Add(std::string_view key, uint64_t address);
    /// Sets the key's address, adding the key when it is not there.
    bool Set(std::string_view key, uint64_t address);
    size_t Size() const { return count_; }
    size_t Bytes() const { return slots_.capacity() * sizeof(TSlot) + keys_.capacity(); }

private:
    static constexpr uint32_t kEmpty = ~uint32_t{0};
    struct TSlot {
        uint32_t Hash = 0;
        uint32_t Offset = kEmpty; // of the key's length and bytes in keys_
        uint64_t Address = kAbsent;
        bool Empty() const { return Offset == kEmpty; }
    };

    std::string_view KeyAt(uint32_t offset) const;
    size_t Slot(std::string_view key, uint32_t hash) const;
    bool Resize(size_t slots);

    size_t limit_;
    std::vector<TSlot> slots_;
    std::string keys_;
    size_t count_ = 0;
};

} // namespace kv
