// Fuzz target: any bytes as an xBase table, under options taken from the first byte. The table is loaded
// whole and record by record, and both must report the same cells; every text must be UTF-8, the record
// count within what the file holds, and a failure only the reader's own damaged-file error.

#include "platform/FormatError.h"
#include "platform/Streams.h"
#include "platform/Utf8.h"
#include "readers/database/KvDBF.h"

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

struct Seen {
    int Row, Column;
    kv::Variant Value;
    kv::TKvICellType Type;
};

void Check(bool condition) {
    if (!condition) std::abort();
}

// Loads `bytes` and returns every cell reported, or false when the reader refused the table.
bool Load(const std::string& bytes, uint8_t options, bool recordMode, std::vector<Seen>& cells,
          kv::TDBF& dbf) {
    dbf.SetRecordMode(recordMode);
    dbf.SetParseBLOB(options & 1);
    dbf.SetLoadRowStatutes(options & 2 ? kv::TKvIRowStatuses{kv::rsNormal, kv::rsDeleted}
                                       : kv::TKvIRowStatuses{kv::rsNormal});
    static const int codePages[] = {0, 866, 932, 65001};
    dbf.SetCodePage(codePages[(options >> 2) & 3]);
    dbf.OnCellValue = [&](kv::TObject*, int, int row, int column, int32_t, const kv::Variant& value,
                          kv::TAlignment, kv::TKvICellType type) {
        cells.push_back({row, column, value, type});
    };
    kv::TMemoryStream stream(bytes);
    try {
        dbf.LoadFromStream(stream);
        if (recordMode) {
            int row = 0;
            for (int64_t i = 0; i < dbf.RecordCount(); ++i) row += dbf.LoadRecord(row);
            dbf.AfterLoad();
        }
    } catch (const kv::EKvFormatError& e) {
        Check(e.Format() == "DBF" && e.Offset() <= bytes.size());
        return false;
    }
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1 || size > 65536) return 0;
    const uint8_t options = data[0];
    const std::string bytes(reinterpret_cast<const char*>(data) + 1, size - 1);

    kv::TDBF whole, records;
    std::vector<Seen> a, b;
    const bool loaded = Load(bytes, options, false, a, whole);
    Check(Load(bytes, options, true, b, records) == loaded);
    if (!loaded) return 0;
    Check(a.size() == b.size());
    for (size_t i = 0; i < a.size(); ++i) {
        Check(a[i].Row == b[i].Row && a[i].Column == b[i].Column && a[i].Type == b[i].Type);
        Check(a[i].Value.VarType() == b[i].Value.VarType());
        if (a[i].Value.IsString()) {
            Check(a[i].Value.StringRef() == b[i].Value.StringRef());
            Check(kv::IsValidUtf8(a[i].Value.StringRef()));
        }
    }
    const uint64_t held = whole.RecordCount();
    Check(held <= bytes.size());
    for (const kv::TKvIDeclaredField& f : whole.DeclaredFields()) Check(kv::IsValidUtf8(f.Name));
    for (const auto& [label, text] : whole.FileProperties()) Check(kv::IsValidUtf8(text));
    return 0;
}
