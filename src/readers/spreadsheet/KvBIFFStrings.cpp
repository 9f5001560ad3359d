#include "readers/spreadsheet/KvBIFFStrings.h"

#include "platform/Exceptions.h"
#include "platform/Format.h"
#include "platform/Utf8.h"
#include "readers/spreadsheet/KvXLS.h"

#include <algorithm>

namespace kv {

void TKvBIFFContinued::AddPiece(std::string_view data, uint64_t offset) {
    pieces_.push_back(data);
    offsets_.push_back(offset);
}

void TKvBIFFContinued::Clear() {
    pieces_.clear();
    offsets_.clear();
    piece_ = pos_ = 0;
}

bool TKvBIFFContinued::AtEnd() {
    // Only between strings: a piece boundary there takes no option byte.
    while (piece_ < pieces_.size() && pos_ >= pieces_[piece_].size()) {
        ++piece_;
        pos_ = 0;
    }
    return piece_ >= pieces_.size();
}

uint64_t TKvBIFFContinued::Remaining() const {
    uint64_t left = 0;
    for (size_t i = piece_; i < pieces_.size(); ++i) left += pieces_[i].size() - (i == piece_ ? pos_ : 0);
    return left;
}

uint64_t TKvBIFFContinued::FileOffset() const {
    if (piece_ >= pieces_.size()) return offsets_.empty() ? 0 : offsets_.back() + pieces_.back().size();
    return offsets_[piece_] + pos_;
}

void TKvBIFFContinued::NeedByte() {
    while (piece_ < pieces_.size() && pos_ >= pieces_[piece_].size()) {
        ++piece_;
        pos_ = 0;
    }
    if (piece_ >= pieces_.size()) throw Exception(strXLSContinueNotFound);
}

uint8_t TKvBIFFContinued::ReadU8() {
    NeedByte();
    return static_cast<uint8_t>(pieces_[piece_][pos_++]);
}

uint16_t TKvBIFFContinued::ReadU16() {
    const uint16_t low = ReadU8();
    return static_cast<uint16_t>(low | ReadU8() << 8);
}

uint32_t TKvBIFFContinued::ReadU32() {
    const uint32_t low = ReadU16();
    return low | static_cast<uint32_t>(ReadU16()) << 16;
}

void TKvBIFFContinued::Skip(uint64_t count) {
    while (count > 0) {
        NeedByte();
        const uint64_t step = std::min<uint64_t>(count, pieces_[piece_].size() - pos_);
        pos_ += step;
        count -= step;
    }
}

void TKvBIFFContinued::ReadChars(uint32_t count, bool highByte, std::string& out) {
    units_.clear();
    bool allNarrow = !highByte;
    while (count > 0) {
        if (piece_ < pieces_.size() && pos_ >= pieces_[piece_].size()) {
            // The characters go on in the next piece, after an option byte of their own.
            NeedByte();
            highByte = pieces_[piece_][pos_++] & 1;
            if (highByte) allNarrow = false;
            continue;
        }
        NeedByte();
        const std::string_view piece = pieces_[piece_];
        if (!highByte) {
            const size_t take = std::min<size_t>(count, piece.size() - pos_);
            for (size_t i = 0; i < take; ++i) units_.push_back(static_cast<unsigned char>(piece[pos_ + i]));
            pos_ += take;
            count -= static_cast<uint32_t>(take);
        } else {
            if (piece.size() - pos_ < 2) {
                // A character split between pieces: a damaged record; take its byte pair across.
                const uint16_t unit = ReadU16();
                units_.push_back(unit);
                --count;
                continue;
            }
            const size_t take = std::min<size_t>(count, (piece.size() - pos_) / 2);
            for (size_t i = 0; i < take; ++i) {
                const auto* p = reinterpret_cast<const unsigned char*>(piece.data() + pos_ + 2 * i);
                units_.push_back(static_cast<char16_t>(p[0] | p[1] << 8));
            }
            pos_ += 2 * take;
            count -= static_cast<uint32_t>(take);
        }
    }
    out.clear();
    out.reserve(units_.size() + (allNarrow ? 0 : units_.size() / 2));
    for (size_t i = 0; i < units_.size(); ++i) {
        char32_t c = units_[i];
        if (c < 0x80) {
            out.push_back(static_cast<char>(c));
            continue;
        }
        if (c >= 0xD800 && c <= 0xDBFF && i + 1 < units_.size() && units_[i + 1] >= 0xDC00 &&
            units_[i + 1] <= 0xDFFF) {
            c = 0x10000 + ((c - 0xD800) << 10) + (units_[++i] - 0xDC00);
        } else if (c >= 0xD800 && c <= 0xDFFF) {
            c = 0xFFFD;
        }
        Utf8Append(out, c);
    }
}

void KvReadBIFF8String(TKvBIFFContinued& in, bool shortCount, std::string& out) {
    const uint32_t count = shortCount ? in.ReadU8() : in.ReadU16();
    const uint8_t options = in.ReadU8();
    const uint16_t runs = options & 0x08 ? in.ReadU16() : 0;
    const uint32_t phonetic = options & 0x04 ? in.ReadU32() : 0;
    in.ReadChars(count, options & 0x01, out);
    in.Skip(uint64_t{runs} * 4 + phonetic);
}

std::vector<std::string> KvReadSST(TKvBIFFContinued& in, uint32_t declaredCount) {
    std::vector<std::string> strings;
    // The smallest string takes 3 bytes: a damaged count cannot reserve more than the data can hold.
    strings.reserve(std::min<uint64_t>(declaredCount, in.Remaining() / 3));
    std::string text;
    for (uint32_t i = 0; i < declaredCount && !in.AtEnd(); ++i) {
        const uint32_t count = in.ReadU16();
        const uint8_t options = in.ReadU8();
        if (options & ~0x0D) throw Exception(Format(strXLSSSTOptionsUnhandled, static_cast<int>(options)));
        const uint16_t runs = options & 0x08 ? in.ReadU16() : 0;
        const uint32_t phonetic = options & 0x04 ? in.ReadU32() : 0;
        in.ReadChars(count, options & 0x01, text);
        in.Skip(uint64_t{runs} * 4 + phonetic);
        strings.push_back(std::move(text));
        text.clear();
    }
    return strings;
}

void KvAppendLatin1(std::string& out, std::string_view bytes) {
    for (char ch : bytes) {
        const auto b = static_cast<unsigned char>(ch);
        if (b < 0x80) {
            out.push_back(ch);
        } else {
            out.push_back(static_cast<char>(0xC0 | b >> 6));
            out.push_back(static_cast<char>(0x80 | (b & 0x3F)));
        }
    }
}

} // namespace kv
