#include "platform/Classes.h"

#include "platform/Exceptions.h"
#include "platform/SysUtils.h"

#include <algorithm>

namespace kv {

void TPersistent::Assign(const TPersistent& source) {
    source.AssignTo(*this);
}

void TPersistent::AssignTo(TPersistent& dest) const {
    throw EConvertError("Cannot assign a " + ClassName() + " to a " + dest.ClassName());
}

TComponent::TComponent(TComponent* owner) {
    if (owner) owner->InsertComponent(this);
}

TComponent::~TComponent() {
    destroying_ = true;
    // Tell everyone who asked; they must not call back into this one's lists.
    while (!freeNotifies_.empty()) {
        TComponent* other = freeNotifies_.back();
        freeNotifies_.pop_back();
        auto& theirs = other->freeNotifies_;
        theirs.erase(std::remove(theirs.begin(), theirs.end(), this), theirs.end());
        other->Notification(this, opRemove);
    }
    while (!components_.empty()) {
        TComponent* child = components_.back();
        components_.pop_back();
        child->owner_ = nullptr;
        delete child;
    }
    if (owner_) owner_->RemoveComponent(this);
}

TComponent* TComponent::Components(int index) const {
    if (index < 0 || index >= ComponentCount())
        throw EListError("List index out of bounds (" + IntToStr(index) + ")");
    return components_[static_cast<size_t>(index)];
}

TComponent* TComponent::FindComponent(const std::string& name) const {
    if (name.empty()) return nullptr;
    for (TComponent* c : components_)
        if (SameText(c->name_, name)) return c;
    return nullptr;
}

void TComponent::InsertComponent(TComponent* component) {
    if (!component || component->owner_ == this) return;
    if (component->owner_) component->owner_->RemoveComponent(component);
    components_.push_back(component);
    component->owner_ = this;
    Notification(component, opInsert);
}

void TComponent::RemoveComponent(TComponent* component) {
    auto it = std::find(components_.begin(), components_.end(), component);
    if (it == components_.end()) return;
    components_.erase(it);
    component->owner_ = nullptr;
    if (!destroying_) Notification(component, opRemove);
}

void TComponent::FreeNotification(TComponent* component) {
    if (!component || component == this) return;
    if (std::find(freeNotifies_.begin(), freeNotifies_.end(), component) == freeNotifies_.end())
        freeNotifies_.push_back(component);
    auto& theirs = component->freeNotifies_;
    if (std::find(theirs.begin(), theirs.end(), this) == theirs.end()) theirs.push_back(this);
}

void TComponent::RemoveFreeNotification(TComponent* component) {
    if (!component) return;
    freeNotifies_.erase(std::remove(freeNotifies_.begin(), freeNotifies_.end(), component),
                        freeNotifies_.end());
    auto& theirs = component->freeNotifies_;
    theirs.erase(std::remove(theirs.begin(), theirs.end(), this), theirs.end());
}

void TComponent::Notification(TComponent*, TOperation) {}

} // namespace kv
