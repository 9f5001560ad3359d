#pragma once
// BIFF record streams written in memory, for the Excel reader's tests: bare worksheet streams of the
// early generations, and BIFF8 workbooks whose sheet positions are filled in when built.

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace kv::test {

inline std::string U16(uint16_t v) {
    return {static_cast<char>(v & 0xFF), static_cast<char>(v >> 8)};
}
inline std::string U32(uint32_t v) {
    return U16(static_cast<uint16_t>(v & 0xFFFF)) + U16(static_cast<uint16_t>(v >> 16));
}
inline std::string F64(double d) {
    uint64_t bits;
    std::memcpy(&bits, &d, sizeof bits);
    return U32(static_cast<uint32_t>(bits)) + U32(static_cast<uint32_t>(bits >> 32));
}
/// A record: type, length, data.
inline std::string Rec(uint16_t type, std::string_view data) {
    return U16(type) + U16(static_cast<uint16_t>(data.size())) + std::string(data);
}
/// BIFF8's string with a 16-bit count, stored one byte a character (ASCII text).
inline std::string Str8(std::string_view text) {
    return U16(static_cast<uint16_t>(text.size())) + '\0' + std::string(text);
}
/// The same stored as UTF-16 (text given as UTF-16 code units).
inline std::string Str16(std::u16string_view text) {
    std::string out = U16(static_cast<uint16_t>(text.size())) + '\x01';
    for (char16_t c : text) out += U16(c);
    return out;
}
/// The header of a BIFF3+ cell record.
inline std::string Cell(int row, int col, int xf) {
    return U16(static_cast<uint16_t>(row)) + U16(static_cast<uint16_t>(col)) + U16(static_cast<uint16_t>(xf));
}

inline std::string Bof8(uint16_t substream) {
    return Rec(0x0809, U16(0x0600) + U16(substream) + U16(0x0DBB) + U16(0x07CC) + U32(0) + U32(6));
}
inline std::string Eof() {
    return Rec(0x000A, "");
}
inline std::string Number(int row, int col, int xf, double v) {
    return Rec(0x0203, Cell(row, col, xf) + F64(v));
}
inline std::string Rk(int row, int col, int xf, uint32_t rk) {
    return Rec(0x027E, Cell(row, col, xf) + U32(rk));
}
inline std::string LabelSst(int row, int col, int xf, uint32_t index) {
    return Rec(0x00FD, Cell(row, col, xf) + U32(index));
}
/// An XF record of BIFF5/8 using format `format`.
inline std::string Xf8(int format, uint8_t align = 0) {
    std::string data =
        U16(0) + U16(static_cast<uint16_t>(format)) + U16(0) + std::string(1, static_cast<char>(align));
    data.resize(20, '\0');
    return Rec(0x00E0, data);
}
inline std::string Format8(int number, std::string_view text) {
    return Rec(0x041E, U16(static_cast<uint16_t>(number)) + Str8(text));
}
/// A formula cell whose cached result is the 8 bytes given.
inline std::string Formula(int row, int col, int xf, std::string_view result) {
    return Rec(0x0006, Cell(row, col, xf) + std::string(result) + U16(0) + U32(0) + U16(0));
}
inline std::string Sst(const std::vector<std::string>& strings) {
    std::string data =
        U32(static_cast<uint32_t>(strings.size())) + U32(static_cast<uint32_t>(strings.size()));
    for (const auto& s : strings) data += Str8(s);
    return Rec(0x00FC, data);
}

/// A BIFF8 workbook stream: globals (with one BOUNDSHEET per sheet, positions filled in) and sheets.
struct Biff8Book {
    struct Sheet {
        std::string Name;
        std::string Records; ///< between the sheet's BOF and EOF
    };
    std::string Globals; ///< records after the globals BOF, before the BOUNDSHEETs
    std::vector<Sheet> Sheets;

    Biff8Book& AddSheet(std::string name, std::string records) {
        Sheets.push_back({std::move(name), std::move(records)});
        return *this;
    }

    std::string Build() const {
        const auto boundSheet = [](uint32_t pos, const std::string& name) {
            return Rec(0x0085,
                       U32(pos) + std::string(2, '\0') + static_cast<char>(name.size()) + '\0' + name);
        };
        std::string head = Bof8(0x0005) + Globals;
        size_t size = head.size() + Eof().size();
        for (const Sheet& s : Sheets) size += boundSheet(0, s.Name).size();
        std::string out = head;
        size_t pos = size;
        for (const Sheet& s : Sheets) {
            out += boundSheet(static_cast<uint32_t>(pos), s.Name);
            pos += Bof8(0x0010).size() + s.Records.size() + Eof().size();
        }
        out += Eof();
        for (const Sheet& s : Sheets) out += Bof8(0x0010) + s.Records + Eof();
        return out;
    }
};

} // namespace kv::test
