#pragma once
// TKvImportFromSPSS imports the cases of an SPSS system file (.sav, .zsav), one row per case, with the
// user's choices of value labels, user-missing values and column captions.

#include "readers/archive/KvISPSS.h"
#include "sources/KvI2Cell.h"

namespace kv {

class TKvImportFromSPSS : public TKvImportFromCell {
public:
    explicit TKvImportFromSPSS(TComponent* owner = nullptr) : TKvImportFromCell(owner) {
        SetTableType(teSPSS);
    }

    /// Values with a label arrive as their label (off by default: the codes).
    bool ValueLabels() const { return valueLabels_; }
    void SetValueLabels(bool v) { valueLabels_ = v; }
    /// User-missing values arrive as null (umNull, the default) or as stored.
    TSPSSUserMissing UserMissing() const { return userMissing_; }
    void SetUserMissing(TSPSSUserMissing v) { userMissing_ = v; }
    /// Columns are named after the variables' names (the default) or their labels.
    TSPSSCaptions Captions() const { return captions_; }
    void SetCaptions(TSPSSCaptions v) { captions_ = v; }

    std::string Extension() const override { return ".SAV"; }
    std::string FillFileFilters() const override;
    std::string ClassName() const override { return "TKvImportFromSPSS"; }

    void LoadSpecificationFromStrings(const TStringList& list) override;
    void SaveSpecificationToStream(TStream& stream, const std::string& description) override;

protected:
    std::unique_ptr<TSpreadSheetFile> WorkBookCreation() override;
    /// A file that does not declare its case count is counted by reading it.
    bool TotalCountIsCheap() override { return !WorkBook() || WorkBook()->RecordCount() >= 0; }

private:
    bool valueLabels_ = false;
    TSPSSUserMissing userMissing_ = umNull;
    TSPSSCaptions captions_ = spcNames;
};

} // namespace kv
