// Fuzz target: any bytes as an SPSS system file, under options taken from the last byte (which stays part
// of the file, so that real files seed it as they are). The cases are read whole and case by case, and
// both must report the same cells and the same failure; every text must be UTF-8, and a failure only the
// reader's own error, at a byte inside the file.

#include "platform/FormatError.h"
#include "platform/Streams.h"
#include "platform/Utf8.h"
#include "readers/archive/KvISPSS.h"

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

/// Cases read at most: a few bytes of zlib data can stand for millions.
constexpr int kMaxCases = 5000;

struct Seen {
    int Row, Column;
    kv::Variant Value;
    kv::TKvICellType Type;
};

void Check(bool condition) {
    if (!condition) std::abort();
}

// Loads `bytes` and returns the cells reported and the failure's message ("" for none).
std::string Load(const std::string& bytes, uint8_t options, bool recordMode, std::vector<Seen>& cells,
                 kv::TSPSSFile& spss) {
    spss.SetRecordMode(recordMode);
    spss.SetValueLabels(options & 1);
    spss.SetUserMissing(options & 2 ? kv::umKeep : kv::umNull);
    spss.SetCaptions(options & 4 ? kv::spcLabels : kv::spcNames);
    kv::TKvRange range;
    range.LastRow = kMaxCases - 1;
    spss.SetLoadRange(range);
    spss.OnCellValue = [&](kv::TObject*, int, int row, int column, int32_t, const kv::Variant& value,
                           kv::TAlignment, kv::TKvICellType type) {
        cells.push_back({row, column, value, type});
    };
    kv::TMemoryStream stream(bytes);
    try {
        spss.LoadFromStream(stream);
        for (int i = 0; recordMode && i < kMaxCases && spss.HasRecord(i); ++i) Check(spss.LoadRecord(i));
    } catch (const kv::EKvFormatError& e) {
        Check(e.Format() == "SPSS" && e.Offset() <= bytes.size());
        return e.what();
    }
    return "";
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1 || size > 65536) return 0;
    const uint8_t options = data[size - 1];
    const std::string bytes(reinterpret_cast<const char*>(data), size);

    kv::TSPSSFile whole, records;
    std::vector<Seen> a, b;
    const std::string failure = Load(bytes, options, false, a, whole);
    Check(Load(bytes, options, true, b, records) == failure);
    Check(a.size() == b.size());
    for (size_t i = 0; i < a.size(); ++i) {
        Check(a[i].Row == b[i].Row && a[i].Column == b[i].Column && a[i].Type == b[i].Type);
        Check(a[i].Value.VarType() == b[i].Value.VarType());
        if (a[i].Value.IsString()) {
            Check(a[i].Value.StringRef() == b[i].Value.StringRef());
            Check(kv::IsValidUtf8(a[i].Value.StringRef()));
        }
    }
    for (const kv::TKvIDeclaredField& f : records.DeclaredFields()) Check(kv::IsValidUtf8(f.Name));
    for (const auto& [label, text] : records.FileProperties()) Check(kv::IsValidUtf8(text));
    return 0;
}
