// Fuzz target: any bytes as a bare BIFF record stream (the form of Excel 2-4 worksheets, and the workbook
// stream inside a compound file), under options taken from the last byte, so that real workbooks seed it
// as they are. Every cell must lie inside a
// sheet's limits with UTF-8 text, and a failure must be one of the reader's own errors. The workbook is
// also read record by record, which must give each row of a sheet as the whole load keeps it.

#include "platform/FormatError.h"
#include "platform/Streams.h"
#include "platform/Utf8.h"
#include "readers/spreadsheet/KvXLS.h"
#include "record_mode_check.h"

#include <cstdint>
#include <cstdlib>
#include <string>

namespace {

void Check(bool condition) {
    if (!condition) std::abort();
}

bool IsReaderMessage(const std::string& message) {
    for (const std::string* text : {&kv::strXLSNotExcelFile, &kv::strXLSNotValidWorkbook,
                                    &kv::strXLSPasswordProtected, &kv::strXLSContinueNotFound})
        if (message.rfind(*text, 0) == 0) return true;
    return message.rfind("String in SST (Options byte is 0x", 0) == 0;
}

void Configure(kv::TMSExcel& excel, uint8_t options, int& asked) {
    excel.SetLoadNULLs(options & 1);
    excel.SetSheetFilter(options & 2 ? (options >> 2) & 3 : -1);
    if (options & 0x10) {
        excel.OnPassword = [&asked](kv::TObject*, std::string& password, bool& go) {
            password = "password";
            go = ++asked < 3;
        };
    }
}

// Loads the workbook whole into the cell model and record by record; both must agree on every row of the
// sheet read (the filtered one, else the second, chosen after the load as a sheet named by the user is).
void CheckRecordMode(const std::string& bytes, uint8_t options) {
    int askedWhole = 0, askedRecords = 0;
    kv::TMSExcel whole, records;
    Configure(whole, options, askedWhole);
    Configure(records, options, askedRecords);
    records.SetRecordMode(true);
    kv::TMemoryStream wholeStream(bytes), recordStream(bytes);
    try {
        whole.LoadFromStream(wholeStream);
    } catch (const kv::Exception&) {
        return;
    }
    records.LoadFromStream(recordStream); // the same bytes must load again
    fuzzcheck::CompareRecords(whole, records, whole.SheetFilter() >= 0 ? whole.SheetFilter() : 1);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1 || size > 65536) return 0;
    const uint8_t options = data[size - 1];
    const std::string bytes(reinterpret_cast<const char*>(data), size - 1);
    kv::TMSExcel excel;
    int asked = 0;
    Configure(excel, options, asked);
    excel.OnCellValue = [](kv::TObject*, int sheet, int row, int column, int32_t, const kv::Variant& value,
                           kv::TAlignment, kv::TKvICellType) {
        Check(sheet >= 0 && row >= 0 && row < 65536 && column >= 0 && column < 256);
        if (value.IsString()) Check(kv::IsValidUtf8(value.StringRef()));
    };
    kv::TMemoryStream stream(bytes);
    try {
        excel.LoadFromStream(stream);
    } catch (const kv::EKvFormatError& e) {
        Check(e.Offset() <= bytes.size());
        return 0;
    } catch (const kv::Exception& e) {
        Check(IsReaderMessage(e.what()));
        return 0;
    }
    for (const kv::TXLSSheetInfo& sheet : excel.Sheets()) Check(kv::IsValidUtf8(sheet.Name));
    for (const auto& [label, text] : excel.FileProperties()) Check(kv::IsValidUtf8(text));
    CheckRecordMode(bytes, options);
    return 0;
}
