#pragma once
// TKvImportFromXLS imports a sheet of an Excel workbook. Binary workbooks (.xls, every BIFF generation,
// encrypted ones too) are read by TMSExcel; the XML workbook extensions go to TMSExcelX.

#include "readers/spreadsheet/KvXLS.h"
#include "sources/KvI2Cell.h"

namespace kv {

class TKvImportFromXLS : public TKvImportFromCell {
public:
    explicit TKvImportFromXLS(TComponent* owner = nullptr);

    /// Tried on an encrypted workbook after the default password.
    const std::string& Password() const { return password_; }
    void SetPassword(std::string v) { password_ = std::move(v); }
    /// Asked for a password while the one tried is refused. Without it, a front end that was installed
    /// is asked; without either, a refused password ends the load.
    TMSExcel::TPasswordEvent OnPassword;

    std::string Extension() const override { return ".XLS"; }
    std::string FillFileFilters() const override;
    std::string ClassName() const override { return "TKvImportFromXLS"; }

protected:
    std::unique_ptr<TSpreadSheetFile> WorkBookCreation() override;
    std::optional<std::string> WorkBookSettings() const override { return password_; }
    void BeforeImport() override;
    /// Each cell already carries its type: no rows are scanned to guess one.
    void ProcessRowsForColumnTypes() override {}

private:
    std::string password_;
};

} // namespace kv
