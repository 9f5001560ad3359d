// The folders under tests/data and how each is read. A new reader adds its line here and its dump
// function beside the others.

#include "support/DataFiles.h"

namespace kv::test {

const std::vector<TDataReader>& DataReaders() {
    static const std::vector<TDataReader> readers = {
        {"text", DumpTextFile}, {"dbf", DumpDbfFile}, {"ics", DumpVCalendarFile}, {"xls", DumpXlsFile},
        {"xlsx", DumpXlsxFile}, {"xml", DumpXmlFile}, {"ods", DumpOdsFile},
    };
    return readers;
}

} // namespace kv::test
