// Reads every case of an SPSS system file through the library's reader, each value typed (a number, a
// date, the text of a string), and prints how many cases and values it read: the reading half of an SPSS
// import, for the side-by-side comparison with pspp-convert (bench/compare.py sav).

#include "readers/archive/KvISPSS.h"

#include <cstdio>
#include <exception>
#include <vector>

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: sav_read FILE.sav\n");
        return 2;
    }
    try {
        kv::TSPSSFile file;
        std::vector<kv::Variant> row;
        int64_t values = 0;
        file.OnCellValue = [&](kv::TObject*, int, int, int column, int32_t, const kv::Variant& value,
                               kv::TAlignment, kv::TKvICellType) {
            if (static_cast<size_t>(column) >= row.size()) row.resize(static_cast<size_t>(column) + 1);
            row[static_cast<size_t>(column)] = value;
            ++values;
        };
        file.LoadFromFile(argv[1]);
        int64_t cases = 0;
        while (file.LoadNextCase()) ++cases;
        file.AfterLoad();
        std::printf("%lld cases, %lld values\n", static_cast<long long>(cases),
                    static_cast<long long>(values));
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s\n", e.what());
        return 1;
    }
    return 0;
}
