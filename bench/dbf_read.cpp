// Reads every record of a dBase table with its memos through the library's reader, each value typed (a
// number, a date, a boolean, the memo's text), and prints how many records it read: the reading half of
// a dBase import, for the side-by-side comparison with other readers (bench/compare.py dbf).

#include "readers/database/KvDBF.h"

#include <cstdio>
#include <exception>
#include <vector>

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: dbf_read TABLE.dbf\n");
        return 2;
    }
    try {
        kv::TDBF table;
        std::vector<kv::Variant> row;
        int64_t values = 0;
        table.OnCellValue = [&](kv::TObject*, int, int, int column, int32_t, const kv::Variant& value,
                                kv::TAlignment, kv::TKvICellType) {
            if (static_cast<size_t>(column) >= row.size()) row.resize(static_cast<size_t>(column) + 1);
            row[static_cast<size_t>(column)] = value;
            ++values;
        };
        table.LoadFromFile(argv[1]);
        int64_t records = 0;
        for (int64_t i = 0; i < table.RecordCount(); ++i)
            if (table.LoadRecord(static_cast<int>(i))) ++records;
        table.AfterLoad();
        std::printf("%lld records, %lld values\n", static_cast<long long>(records),
                    static_cast<long long>(values));
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s\n", e.what());
        return 1;
    }
    return 0;
}
