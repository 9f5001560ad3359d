#pragma once
// TSet: a "set of" an enumeration as a small bit set, convertible to and from its byte (bit n = value n).

#include <cstdint>
#include <initializer_list>

namespace kv {

template <class E> class TSet {
public:
    constexpr TSet() = default;
    constexpr TSet(std::initializer_list<E> values) {
        for (E v : values) bits_ |= Bit(v);
    }
    static constexpr TSet FromBits(uint64_t bits) {
        TSet s;
        s.bits_ = bits;
        return s;
    }
    constexpr uint64_t Bits() const { return bits_; }
    constexpr uint8_t ToByte() const { return static_cast<uint8_t>(bits_); }

    constexpr bool Contains(E v) const { return (bits_ & Bit(v)) != 0; }
    constexpr TSet& Include(E v) {
        bits_ |= Bit(v);
        return *this;
    }
    constexpr TSet& Exclude(E v) {
        bits_ &= ~Bit(v);
        return *this;
    }
    constexpr bool Empty() const { return bits_ == 0; }
    constexpr TSet operator|(TSet o) const { return FromBits(bits_ | o.bits_); }
    constexpr TSet operator&(TSet o) const { return FromBits(bits_ & o.bits_); }
    constexpr bool operator==(const TSet& o) const = default;

private:
    static constexpr uint64_t Bit(E v) { return uint64_t{1} << static_cast<unsigned>(v); }
    uint64_t bits_ = 0;
};

} // namespace kv
