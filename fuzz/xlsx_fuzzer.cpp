// Fuzz target: any bytes as an Excel 2007+ package (a zip archive of XML parts), under options taken from
// the last byte, loaded whole and row by row (see xlsx_check.h).

#include "xlsx_check.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1 || size > 65536) return 0;
    xlsxfuzz::CheckPackage(std::string(reinterpret_cast<const char*>(data), size - 1), data[size - 1]);
    return 0;
}
