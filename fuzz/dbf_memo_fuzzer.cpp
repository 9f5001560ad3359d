// Fuzz target: any bytes as the memo file of a small fixed table. The first byte picks the table's
// version (and so the memo layout and how block numbers are written), the next six the block numbers of
// its memo fields; the rest is the memo file. Every memo must come out as UTF-8 no longer than the memo
// file can make, and nothing may fail: a damaged memo file only gives empty or short memos.

#include "platform/Streams.h"
#include "platform/Utf8.h"
#include "readers/database/KvDBF.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

void Check(bool condition) {
    if (!condition) std::abort();
}

// A table of two memo fields and three records whose block numbers are `blocks`.
std::string Table(uint8_t version, const uint8_t* blocks) {
    const bool binary = version == 0x30 || version == 0xE5;
    const int length = binary ? 4 : 10;
    const bool level7 = version == 0x8C;
    std::string out(32, '\0');
    out[0] = static_cast<char>(version);
    const uint32_t count = 3;
    const uint16_t header =
        static_cast<uint16_t>(32 + (level7 ? 36 + 2 * 48 : 2 * 32) + 1 + (version == 0x30 ? 263 : 0));
    const uint16_t recordSize = static_cast<uint16_t>(1 + 2 * length);
    std::memcpy(&out[4], &count, 4);
    std::memcpy(&out[8], &header, 2);
    std::memcpy(&out[10], &recordSize, 2);
    if (level7) out += std::string(36, '\0');
    for (const char* name : {"A", "B"}) {
        std::string d(level7 ? 48 : 32, '\0');
        d[0] = name[0];
        d[level7 ? 32 : 11] = 'M';
        d[level7 ? 33 : 16] = static_cast<char>(length);
        out += d;
    }
    out += '\x0D';
    out.resize(header, '\0');
    for (int r = 0; r < 3; ++r) {
        out += ' ';
        for (int f = 0; f < 2; ++f) {
            const uint32_t block = blocks[r * 2 + f];
            std::string field;
            if (binary) {
                field.assign(4, '\0');
                std::memcpy(field.data(), &block, 4);
            } else {
                field = std::to_string(block);
                field.insert(0, static_cast<size_t>(length) - field.size(), ' ');
            }
            out += field;
        }
    }
    return out + '\x1A';
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 7 || size > 65536) return 0;
    static const uint8_t versions[] = {0x83, 0x03, 0x8B, 0x8C, 0xF5, 0x30, 0xE5, 0x05};
    const uint8_t version = versions[data[0] & 7];
    const std::string table = Table(version, data + 1);
    const std::string memo(reinterpret_cast<const char*>(data) + 7, size - 7);

    kv::TDBF dbf;
    dbf.SetRecordMode(false);
    dbf.SetDBFMemoType(static_cast<kv::TDBFMemoType>((data[0] >> 3) % 3));
    if (data[0] & 0x20) dbf.SetCodePage(932);
    kv::TMemoryStream memoStream(memo);
    dbf.SetMemoStream(&memoStream);
    int memos = 0;
    dbf.OnCellValue = [&](kv::TObject*, int, int, int, int32_t, const kv::Variant& value, kv::TAlignment,
                          kv::TKvICellType type) {
        if (type != kv::ictMemo) return;
        ++memos;
        Check(value.IsString() && kv::IsValidUtf8(value.StringRef()));
        Check(value.StringRef().size() <= 3 * memo.size());
    };
    kv::TMemoryStream stream(table);
    dbf.LoadFromStream(stream);
    Check(memos <= 6);
    return 0;
}
