#include "datasets/KvKeyAddressMap.h"

#include <algorithm>
#include <functional>

namespace kv {

namespace {

uint32_t HashOf(std::string_view key) {
    const uint64_t h = std::hash<std::string_view>{}(key);
    return static_cast<uint32_t>(h ^ (h >> 32));
}

// The bytes a key's length takes before it: seven bits a byte.
void AppendLength(std::string& out, size_t length) {
    for (; length >= 0x80; length >>= 7) out += static_cast<char>(0x80 | (length & 0x7F));
    out += static_cast<char>(length);
}

} // namespace

std::string_view TKvKeyAddressMap::KeyAt(uint32_t offset) const {
    size_t length = 0, at = offset;
    for (int shift = 0;; shift += 7) {
        const auto byte = static_cast<unsigned char>(keys_[at++]);
        length |= static_cast<size_t>(byte & 0x7F) << shift;
        if (byte < 0x80) break;
    }
    return std::string_view(keys_).substr(at, length);
}

size_t TKvKeyAddressMap::Slot(std::string_view key, uint32_t hash) const {
    // The hash scaled onto the slots (any number of them), then the next free or matching one.
    const size_t size = slots_.size();
    for (size_t i = static_cast<size_t>((uint64_t{hash} * size) >> 32);; i = i + 1 == size ? 0 : i + 1) {
        const TSlot& slot = slots_[i];
        if (slot.Empty()) return i;
        if (slot.Hash == hash && KeyAt(slot.Offset) == key) return i;
    }
}

bool TKvKeyAddressMap::Resize(size_t size) {
    if ((slots_.size() + size) * sizeof(TSlot) + keys_.capacity() > limit_) return false;
    std::vector<TSlot> old(size);
    old.swap(slots_);
    for (const TSlot& slot : old)
        if (!slot.Empty()) slots_[Slot(KeyAt(slot.Offset), slot.Hash)] = slot;
    return true;
}

bool TKvKeyAddressMap::Reserve(size_t keys, size_t keyBytes) {
    const size_t bytes = keys * (keyBytes + 1);
    if (bytes > limit_) return false;
    keys_.reserve(bytes);
    const size_t size = keys + keys / 4 + 1;
    return size <= slots_.size() || Resize(size);
}

uint64_t TKvKeyAddressMap::Find(std::string_view key) const {
    if (slots_.empty()) return kAbsent;
    const TSlot& slot = slots_[Slot(key, HashOf(key))];
    return slot.Empty() ? kAbsent : slot.Address;
}

bool TKvKeyAddressMap::Add(std::string_view key, uint64_t address) {
    // At most four fifths of the slots are used: a miss stays a short walk.
    if ((count_ + 1) * 5 > slots_.size() * 4 && !Resize(std::max<size_t>(1024, slots_.size() * 3 / 2)))
        return false;
    const uint32_t hash = HashOf(key);
    TSlot& slot = slots_[Slot(key, hash)];
    if (!slot.Empty()) {
        if (address == kUnknown || slot.Address == kAbsent ||
            (slot.Address != kUnknown && address < slot.Address))
            slot.Address = address;
        return true;
    }
    const size_t need = keys_.size() + key.size() + 10;
    if (need >= kEmpty) return false;
    // The key bytes grow by half again when full: that too stays within the limit.
    if (need > keys_.capacity()) {
        const size_t grown = std::max(need, keys_.capacity() * 3 / 2);
        if (slots_.capacity() * sizeof(TSlot) + keys_.capacity() + grown > limit_) return false;
        keys_.reserve(grown);
    }
    slot.Hash = hash;
    slot.Offset = static_cast<uint32_t>(keys_.size());
    slot.Address = address;
    AppendLength(keys_, key.size());
    keys_.append(key);
    ++count_;
    return true;
}

bool TKvKeyAddressMap::Set(std::string_view key, uint64_t address) {
    if (!slots_.empty()) {
        TSlot& slot = slots_[Slot(key, HashOf(key))];
        if (!slot.Empty()) {
            slot.Address = address;
            return true;
        }
    }
    return Add(key, address);
}

} // namespace kv
