#pragma once
// TKvImportFromOpenOfficeCalc imports a sheet of an OpenDocument spreadsheet (.ods, and the flat .fods),
// read row by row by TKvIOpenOfficeSpreadsheet.

#include "readers/archive/KvIOO.h"
#include "sources/KvI2Cell.h"

namespace kv {

class TKvImportFromOpenOfficeCalc : public TKvImportFromCell {
public:
    explicit TKvImportFromOpenOfficeCalc(TComponent* owner = nullptr) : TKvImportFromCell(owner) {
        SetTableType(teODS);
    }

    std::string Extension() const override { return ".ODS"; }
    std::string FillFileFilters() const override;
    std::string ClassName() const override { return "TKvImportFromOpenOfficeCalc"; }

protected:
    std::unique_ptr<TSpreadSheetFile> WorkBookCreation() override;
    std::optional<std::string> WorkBookSettings() const override { return std::string(); }
    void BeforeImport() override;
    /// Each cell already carries its type: no rows are scanned to guess one.
    void ProcessRowsForColumnTypes() override {}
};

} // namespace kv
