#pragma once
// TKvImportFromDataSet: imports the rows of another open table of the application into the destination,
// with all the engine's mapping, condition, key and mode rules.

#include "engine/KvIBase.h"

#include <unordered_map>

namespace kv {

class TKvImportFromDataSet : public TKvImportBaseComponent {
public:
    explicit TKvImportFromDataSet(TComponent* owner = nullptr);

    /// The table read from (not owned; cleared when it is destroyed).
    TDataSet* SourceDataset() const { return sourceDataset_; }
    void SetSourceDataset(TDataSet* dataSet);

    std::string ClassName() const override { return "TKvImportFromDataSet"; }

protected:
    bool NotDefined(std::string& propName) override;
    void DetectAutoMapping() override;
    /// Opens the source when it is closed. The regional settings are not reloaded here, even with
    /// UseRegionalSettings: this source reads typed values, not text.
    void BeforeImport() override;
    /// Reads ahead where the source can, while the run writes to the destination.
    void GoFirst() override;
    void AfterImport() override;
    void GoNext() override { sourceDataset_->Next(); }
    bool NeedMore() override { return !sourceDataset_->Eof(); }
    int GetTotalCount() override { return sourceDataset_->RecordCount(); }
    Variant GetFieldValue(const Variant& value) override;
    int ResolveSourceColumn(const std::string& name) override;
    bool ReadSourceColumn(int handle, Variant& value) override;
    bool HasSourceColumn(const std::string& name) override;
    /// Bracketed when the name is no plain identifier; strField + its number when brackets cannot hold it.
    std::string GetColumnFieldName(int index) const override { return ColumnReference(index, true); }
    void Notification(TComponent* component, TOperation operation) override;

private:
    /// The source's field a mapping names ("Field3" the third), null when none.
    TField* SourceField(const std::string& name);

    TDataSet* sourceDataset_ = nullptr;
    // Fields by the names mappings use, found once per run rather than once per value.
    std::unordered_map<std::string, TField*> fieldsByName_;
    struct TKnownName {
        const char* Address;
        std::string Name;
        TField* Field;
    };
    std::vector<TKnownName> knownNames_; ///< the same, by where the name's text lies
    std::vector<TField*> resolved_;      ///< fields resolved for the run, by handle
};

} // namespace kv
