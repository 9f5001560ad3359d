#pragma once
// The strings of BIFF records: 8-bit text in the workbook's code page before BIFF8, and BIFF8's Unicode
// strings (compressed to one byte a character or UTF-16), whose characters may run on into CONTINUE
// records, each of which then starts with a fresh option byte.

#include "platform/Encoding.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kv {

/// A record and the CONTINUE records after it, read as one run of bytes. Reading past the last piece
/// raises strXLSContinueNotFound; a read inside the pieces never fails otherwise.
class TKvBIFFContinued {
public:
    /// `offsets` are where each piece's data lies in the workbook stream, for errors.
    void AddPiece(std::string_view data, uint64_t offset);
    void Clear();
    /// True when every piece is read; moves past used-up pieces, so call it between strings only.
    bool AtEnd();
    /// Bytes left in all pieces from the position.
    uint64_t Remaining() const;
    uint64_t FileOffset() const;

    uint8_t ReadU8();
    uint16_t ReadU16();
    uint32_t ReadU32();
    void Skip(uint64_t count);
    /// `count` characters into `out` as UTF-8: one byte each (Latin-1) while `highByte` is false, else
    /// UTF-16LE. Where the characters cross into the next piece, that piece's first byte is a new option
    /// byte whose bit 0 tells how the rest is stored.
    void ReadChars(uint32_t count, bool highByte, std::string& out);

private:
    /// Moves to the next piece when the current one is used up; raises when there is none.
    void NeedByte();

    std::vector<std::string_view> pieces_;
    std::vector<uint64_t> offsets_;
    size_t piece_ = 0;
    size_t pos_ = 0;
    std::u16string units_; ///< reused between strings
};

/// Reads BIFF8's Unicode string with its 16-bit or 8-bit character count (XLUnicodeString and its short
/// form); rich-text runs and phonetic data, where its options announce them, are skipped.
void KvReadBIFF8String(TKvBIFFContinued& in, bool shortCount, std::string& out);

/// The shared string table of an SST record and its CONTINUE records. `declaredCount` is the record's
/// unique-string count: reading stops early, without error, when the data ends at a string boundary.
std::vector<std::string> KvReadSST(TKvBIFFContinued& in, uint32_t declaredCount);

/// Latin-1 bytes (a compressed BIFF8 string) as UTF-8.
void KvAppendLatin1(std::string& out, std::string_view bytes);

} // namespace kv
