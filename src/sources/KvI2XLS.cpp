#include "sources/KvI2XLS.h"

#include "engine/Impcnst.h"
#include "platform/FormatError.h"
#include "platform/FrontEnd.h"

#include <filesystem>

namespace kv {

TKvImportFromXLS::TKvImportFromXLS(TComponent* owner) : TKvImportFromCell(owner) {
    SetTableType(teXLS);
}

std::string TKvImportFromXLS::FillFileFilters() const {
    return "Excel files|*.XLS;*.XLSX;*.XLSM;*.XLSB;*.XLTX;*.XLTM|" + strAllFiles;
}

std::unique_ptr<TSpreadSheetFile> TKvImportFromXLS::WorkBookCreation() {
    if (TMSExcelX::ServesExtension(std::filesystem::path(SourceFileName()).extension().string())) {
        auto reader = std::make_unique<TMSExcelX>();
        reader->SetRecordMode(true); // rows read as the run asks for them, the sheet never held whole
        return reader;
    }
    auto reader = std::make_unique<TMSExcel>();
    // Row by row: a sheet loaded whole takes several times the file's size.
    reader->SetRecordMode(true);
    reader->SetPassword(password_);
    if (OnPassword) {
        reader->OnPassword = OnPassword;
    } else if (HasFrontEnd()) {
        const std::string file = std::filesystem::path(SourceFileName()).filename().string();
        reader->OnPassword = [file, asked = 0](TObject*, std::string& password, bool& go) mutable {
            std::vector<TPromptField> fields(1);
            fields[0].Caption = "Password";
            fields[0].Required = true;
            fields[0].Secret = true;
            const std::string caption =
                (asked++ ? "The password does not open " : "Password to open ") + file;
            go = FrontEnd().PromptValues(caption, fields);
            password = fields[0].Text;
        };
    }
    return reader;
}

void TKvImportFromXLS::BeforeImport() {
    try {
        TKvImportFromCell::BeforeImport();
    } catch (const EKvFormatError&) {
        throw; // already names the file
    } catch (const Exception& e) {
        // The reader's own texts ("File is not an Excel file") say what, not which file.
        if (SourceFileName().empty()) throw;
        throw Exception(SourceFileName() + ": " + e.what());
    }
    if (auto* excel = dynamic_cast<TMSExcel*>(WorkBook())) password_ = excel->Password();
}

} // namespace kv
