// Reads every cell of an Excel workbook (binary, or Excel 2007+ by its extension) through the library's
// reader and touches each value (counts the cells, sums the numbers, adds up the texts' lengths) without
// storing it: the reading half of a workbook import, for the side-by-side comparison with other readers
// (bench/compare.py xls and workbook).

#include "readers/spreadsheet/KvXLS.h"

#include <cstdio>
#include <exception>
#include <filesystem>
#include <memory>

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: xls_read WORKBOOK.xls|WORKBOOK.xlsx\n");
        return 2;
    }
    try {
        std::unique_ptr<kv::TCustomMSExcel> reader;
        if (kv::TMSExcelX::ServesExtension(std::filesystem::path(argv[1]).extension().string()))
            reader = std::make_unique<kv::TMSExcelX>();
        else
            reader = std::make_unique<kv::TMSExcel>();
        kv::TCustomMSExcel& book = *reader;
        long long cells = 0, numbers = 0, texts = 0, others = 0, textBytes = 0;
        double sum = 0;
        book.OnCellValue = [&](kv::TObject*, int, int, int, int32_t, const kv::Variant& value, kv::TAlignment,
                               kv::TKvICellType) {
            ++cells;
            switch (value.VarType()) {
            case kv::varInteger:
            case kv::varInt64:
            case kv::varDouble:
            case kv::varDate:
                ++numbers;
                sum += value.AsDouble();
                break;
            case kv::varString:
                ++texts;
                textBytes += static_cast<long long>(value.StringRef().size());
                break;
            default:
                ++others;
            }
        };
        book.LoadFromFile(argv[1]);
        // The sum is printed so that the compiler cannot drop the reading of the numbers.
        std::printf("%lld cells: %lld numbers (sum %.2f), %lld texts (%lld bytes), %lld others\n", cells,
                    numbers, sum, texts, textBytes, others);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s\n", e.what());
        return 1;
    }
    return 0;
}
