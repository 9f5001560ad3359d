// Fuzz target: any bytes as the XML of an OpenDocument spreadsheet (a flat .fods document, or content.xml
// alone), the first byte choosing the sheet: sheets, rows, repeats, cells, text, styles and metadata. See
// OdsFuzzCheck.h for what must hold.

#include "OdsFuzzCheck.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1 || size > 65536) return 0;
    ods_fuzz::CheckDocument(std::string(reinterpret_cast<const char*>(data) + 1, size - 1), data[0]);
    return 0;
}
