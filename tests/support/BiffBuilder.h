#pragma once
// BIFF record streams written in memory, for the Excel reader's tests: bare worksheet streams of the
// early generations, and BIFF8 workbooks whose sheet positions are filled in when built.

#include "support/CompoundFileBuilder.h"

#include <string_view>

namespace kv::test {

/// A record: type, length, data.
inline std::string Rec(uint16_t type, std::string_view data) {
    return U16(type) + U16(static_cast<uint16_t>(data.size())) + std::string(data);
}
/// BIFF8's string with a 16-bit count, stored one byte a character.
inline std::string Str8(std::string_view text) {
    return U16(static_cast<uint16_t>(text.size())) + '\0' + std::string(text);
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
inline std::string LabelSst(int row, int col, int xf, uint32_t index) {
    return Rec(0x00FD, Cell(row, col, xf) + U32(index));
}
/// An XF record of BIFF5/8 using format `format`.
inline std::string Xf8(int format) {
    return Rec(0x00E0, U16(0) + U16(static_cast<uint16_t>(format)) + std::string(16, '\0'));
}
/// A formula cell whose cached result is the 8 bytes given; "" for a text result that a STRING record holds.
inline std::string Formula(int row, int col, int xf, std::string_view result = "") {
    const std::string cached = result.empty() ? std::string("\0\0\0\0\0\0\xFF\xFF", 8) : std::string(result);
    return Rec(0x0006, Cell(row, col, xf) + cached + U16(0) + U32(0) + U16(0));
}
inline std::string Sst(const std::vector<std::string>& strings) {
    std::string data =
        U32(static_cast<uint32_t>(strings.size())) + U32(static_cast<uint32_t>(strings.size()));
    for (const auto& s : strings) data += Str8(s);
    return Rec(0x00FC, data);
}

/// A BIFF8 workbook stream: globals (with one BOUNDSHEET per sheet, positions filled in) and sheets.
struct Biff8Book {
    std::string Globals; ///< records after the globals BOF, before the BOUNDSHEETs
    std::vector<std::pair<std::string, std::string>> Sheets; ///< name, records between BOF and EOF

    Biff8Book& AddSheet(std::string name, std::string records) {
        Sheets.emplace_back(std::move(name), std::move(records));
        return *this;
    }

    std::string Build() const {
        const auto boundSheet = [](size_t pos, const std::string& name) {
            return Rec(0x0085, U32(static_cast<uint32_t>(pos)) + std::string(2, '\0') +
                                   static_cast<char>(name.size()) + '\0' + name);
        };
        size_t pos = Bof8(5).size() + Globals.size() + Eof().size();
        for (const auto& [name, records] : Sheets) pos += boundSheet(0, name).size();
        std::string head = Bof8(5) + Globals, sheets;
        for (const auto& [name, records] : Sheets) {
            head += boundSheet(pos + sheets.size(), name);
            sheets += Bof8(0x10) + records + Eof();
        }
        return head + Eof() + sheets;
    }
};

/// A BIFF8 workbook of one sheet holding `records`.
inline std::string Sheet(std::string records, std::string globals = "") {
    return Biff8Book{std::move(globals), {}}.AddSheet("S", std::move(records)).Build();
}

} // namespace kv::test
