// Fuzz target: any bytes as an OpenDocument package (a zip archive of content.xml, styles.xml, meta.xml and
// the manifest), the last byte choosing the sheet, so that real packages seed it as they are. See
// OdsFuzzCheck.h for what must hold.

#include "OdsFuzzCheck.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1 || size > 65536) return 0;
    ods_fuzz::CheckDocument(std::string(reinterpret_cast<const char*>(data), size - 1), data[size - 1]);
    return 0;
}
