#include "engine/KvI2DS.h"

namespace kv {

TKvImportFromDataSet::TKvImportFromDataSet(TComponent* owner) : TKvImportBaseComponent(owner) {
    SetDefaultSpecificationFileName("KvImport" + Extension());
}

void TKvImportFromDataSet::SetSourceDataset(TDataSet* dataSet) {
    if (sourceDataset_ == dataSet) return;
    if (sourceDataset_) RemoveFreeNotification(sourceDataset_);
    sourceDataset_ = dataSet;
    if (sourceDataset_) FreeNotification(sourceDataset_);
}

void TKvImportFromDataSet::Notification(TComponent* component, TOperation operation) {
    TKvImportBaseComponent::Notification(component, operation);
    if (operation == opRemove && component == sourceDataset_) sourceDataset_ = nullptr;
}

bool TKvImportFromDataSet::NotDefined(std::string& propName) {
    if (TKvImportBaseComponent::NotDefined(propName)) return true;
    if (sourceDataset_) return false;
    propName = "SourceDataset";
    return true;
}

void TKvImportFromDataSet::DetectAutoMapping() {
    if (!sourceDataset_->Active()) sourceDataset_->Open();
    for (int i = 0; i < sourceDataset_->FieldCount(); ++i) AddColumnFor(sourceDataset_->Fields(i), false);
}

void TKvImportFromDataSet::BeforeImport() {
    if (!sourceDataset_->Active()) sourceDataset_->Open();
    fieldsByName_.clear();
}

Variant TKvImportFromDataSet::GetFieldValue(const Variant& value) {
    const std::string name = value.AsString();
    auto it = fieldsByName_.find(name);
    if (it == fieldsByName_.end()) it = fieldsByName_.emplace(name, sourceDataset_->FindField(name)).first;
    if (it->second) return it->second->Value();
    return TKvImportBaseComponent::GetFieldValue(value);
}

} // namespace kv
