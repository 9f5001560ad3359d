#pragma once
// TKvImportFromVCalendar imports the events of a vCalendar or iCalendar file, one row per event.

#include "engine/Impcnst.h"
#include "readers/archive/KvIVCalendar.h"
#include "sources/KvI2Cell.h"

namespace kv {

class TKvImportFromVCalendar : public TKvImportFromCell {
public:
    explicit TKvImportFromVCalendar(TComponent* owner = nullptr) : TKvImportFromCell(owner) {
        SetTableType(teVCalendar);
    }

    std::string Extension() const override { return ".VCS"; }
    std::string FillFileFilters() const override {
        return "iCalendar files|*.ICS|vCalendar files|*.VCS|" + strAllFiles;
    }
    std::string ClassName() const override { return "TKvImportFromVCalendar"; }

protected:
    std::unique_ptr<TSpreadSheetFile> WorkBookCreation() override {
        return std::make_unique<TKvIVCalendar>();
    }
};

} // namespace kv
