// Fuzz target: any bytes as the XML of a sheet part, in a package whose shared strings and styles are
// fixed (a date style, a percent style, a custom format), loaded whole and row by row (see xlsx_check.h).
// The input goes in stored, so that every byte reaches the sheet reader as it is.

#include "../tests/support/XlsxBuilder.h"
#include "xlsx_check.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 65536) return 0;
    kv::test::XlsxBuilder book;
    book.Strings({"a", "b &amp; c", "two\nlines", "_x0041_"})
        .Styles({{164, "yyyy-mm-dd hh:mm"}}, {0, 14, 9, 164, 49})
        .Sheet("First", "")
        .Sheet("Second", "");
    book.Stored().Part("xl/worksheets/sheet1.xml", std::string(reinterpret_cast<const char*>(data), size));
    xlsxfuzz::CheckPackage(book.Build(), 0);
    return 0;
}
