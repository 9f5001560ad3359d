// Fuzz target: any bytes as one part of a binary Excel 2007+ package whose other parts are fixed (two
// sheets, shared strings, a date style, a custom format), loaded whole and row by row (see xlsx_check.h).
// The first byte picks the part (the first sheet, the workbook, the styles or the shared strings) and the
// load's options; the part goes in stored, so that every byte reaches the record reader as it is.

#include "../tests/support/XlsbBuilder.h"
#include "xlsx_check.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace kv::test;
    if (size < 1 || size > 65536) return 0;
    static const char* const kParts[] = {"xl/worksheets/sheet1.bin", "xl/workbook.bin", "xl/styles.bin",
                                         "xl/sharedStrings.bin"};
    XlsbBuilder book;
    book.Strings({"a", "two\nlines", "\xC3\xA9"})
        .Styles({{164, "yyyy-mm-dd hh:mm"}}, {0, 14, 9, 164})
        .Sheet("First", BRow(0) + BCell(7, 0, BU32(1)) + BCell(5, 1, BF64(44197.25), 3))
        .Sheet("Second", BRow(3) + BCell(2, 2, BU32(7 << 2 | 2)), 1)
        .Stored()
        .Part(kParts[data[0] & 3], std::string(reinterpret_cast<const char*>(data) + 1, size - 1));
    xlsxfuzz::CheckPackage(book.Build(), static_cast<uint8_t>(data[0] >> 2));
    return 0;
}
