#include "sources/KvI2OO.h"

#include "engine/Impcnst.h"
#include "platform/FormatError.h"

namespace kv {

std::string TKvImportFromOpenOfficeCalc::FillFileFilters() const {
    return "OpenDocument spreadsheets|*.ODS;*.FODS;*.OTS|" + strAllFiles;
}

std::unique_ptr<TSpreadSheetFile> TKvImportFromOpenOfficeCalc::WorkBookCreation() {
    // Whatever the file is called: the reader tells the package from the flat document by its bytes.
    auto reader = std::make_unique<TKvIOpenOfficeSpreadsheet>();
    // Row by row: memory follows the largest row, not the sheet.
    reader->SetRecordMode(true);
    return reader;
}

void TKvImportFromOpenOfficeCalc::BeforeImport() {
    try {
        TKvImportFromCell::BeforeImport();
    } catch (const EKvFormatError&) {
        throw; // the cell source has named the file
    } catch (const Exception& e) {
        // The reader says what is wrong with which part; the user also needs to know which file.
        if (SourceFileName().empty()) throw;
        throw Exception(SourceFileName() + ": " + e.what());
    }
}

} // namespace kv
