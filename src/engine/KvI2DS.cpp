#include "engine/KvI2DS.h"

#include "engine/Impcnst.h"
#include "platform/SysUtils.h"

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
    knownNames_.clear();
    resolved_.clear();
}

void TKvImportFromDataSet::GoFirst() {
    sourceDataset_->ReadAhead(DataSet());
    sourceDataset_->First();
}

void TKvImportFromDataSet::AfterImport() {
    if (sourceDataset_) sourceDataset_->StopReadAhead();
}

int TKvImportFromDataSet::ResolveSourceColumn(const std::string& name) {
    TField* field = SourceField(name);
    if (!field) return -1; // a name no field has reads as itself, row by row
    resolved_.push_back(field);
    return static_cast<int>(resolved_.size()) - 1;
}

bool TKvImportFromDataSet::ReadSourceColumn(int handle, Variant& value) {
    value = resolved_[static_cast<size_t>(handle)]->ValueRef();
    // Only a text (or bytes) has anything to finish: trimming, an empty one made Null, a conversion.
    return !value.IsString() && value.VarType() != varBytes && !value.IsNullOrEmpty();
}

Variant TKvImportFromDataSet::GetFieldValue(const Variant& value) {
    // A mapping line hands over the same name, at the same address, for every row: found by that address
    // (and its text, since a temporary may take an address another name had), the name is hashed once per
    // run rather than once per value.
    if (value.IsString()) {
        const std::string& name = value.StringRef();
        for (const TKnownName& known : knownNames_)
            if (known.Address == name.data() && known.Name == name)
                return known.Field ? known.Field->Value() : TKvImportBaseComponent::GetFieldValue(value);
        TField* field = SourceField(name);
        if (knownNames_.size() < 64) knownNames_.push_back({name.data(), name, field});
        return field ? field->Value() : TKvImportBaseComponent::GetFieldValue(value);
    }
    TField* field = SourceField(value.AsString());
    return field ? field->Value() : TKvImportBaseComponent::GetFieldValue(value);
}

bool TKvImportFromDataSet::HasSourceColumn(const std::string& name) {
    return sourceDataset_ && SourceField(name);
}

TField* TKvImportFromDataSet::SourceField(const std::string& name) {
    auto it = fieldsByName_.find(name);
    if (it == fieldsByName_.end()) {
        TField* field = sourceDataset_->FindField(name);
        // "Field3" names the third field, for a name no mapping line can spell (GetColumnFieldName).
        if (!field && name.size() > strField.size() && SameText(name.substr(0, strField.size()), strField)) {
            int64_t number = 0;
            for (size_t i = strField.size(); i < name.size() && number <= sourceDataset_->FieldCount(); ++i)
                number = name[i] >= '0' && name[i] <= '9' ? number * 10 + (name[i] - '0') : INT64_MAX;
            if (number >= 1 && number <= sourceDataset_->FieldCount())
                field = &sourceDataset_->Fields(static_cast<int>(number - 1));
        }
        it = fieldsByName_.emplace(name, field).first;
    }
    return it->second;
}

} // namespace kv
