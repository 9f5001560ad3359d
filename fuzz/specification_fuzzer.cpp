// Fuzz target: any bytes as a specification file. Loading keeps or replaces settings by its rules and
// never fails; whatever was loaded saves and loads again to the same settings.

#include "engine/KvI2DS.h"
#include "platform/Streams.h"

#include <cstdint>
#include <cstdlib>
#include <string>

namespace {

std::string Saved(kv::TKvImportBaseComponent& c) {
    kv::TStringStream s;
    c.SaveSpecificationToStream(s, "fuzz");
    return s.DataString();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 65536) return 0;
    kv::TKvImportFromDataSet first, second;
    kv::TStringStream input(std::string(reinterpret_cast<const char*>(data), size));
    first.LoadSpecificationFromStream(input); // raises nothing: garbage keeps or clears settings
    const std::string once = Saved(first);
    kv::TStringStream again(once);
    second.LoadSpecificationFromStream(again);
    // Characters above 255 do not survive the hexadecimal encoding; everything else must.
    const kv::TKvIDataFormats& f = first.DataFormats();
    bool wide = first.FieldDelimiterCustom() > 255 || first.TextQualifierCustom() > 255 ||
                f.DateSeparator > 255 || f.TimeSeparator > 255 || f.ThousandSeparator > 255 ||
                f.DecimalSeparator > 255;
    for (unsigned char c : first.RecordSeparatorCustom())
        wide = wide || c >= 0xC4; // a lead byte above U+00FF
    // Line breaks inside a text value end its line in the file.
    bool multiline = false;
    for (const std::string& line : first.Mappings())
        multiline = multiline || line.find_first_of("\r\n") != std::string::npos;
    if (!wide && !multiline && Saved(second) != once) std::abort();
    return 0;
}
