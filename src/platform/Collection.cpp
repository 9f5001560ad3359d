#include "platform/Collection.h"

#include "platform/Exceptions.h"
#include "platform/SysUtils.h"

#include <typeinfo>

namespace kv {

int TCollectionItem::Index() const {
    return collection_ ? collection_->IndexOfItem(this) : -1;
}

void TCollectionItem::SetIndex(int index) {
    if (collection_) collection_->MoveItem(Index(), index);
}

TPersistent* TCollectionItem::GetOwner() const {
    return collection_;
}

void TCollectionItem::Changed() {
    if (collection_) collection_->Changed(this);
}

TCollectionItem& TCollectionBase::Item(int index) const {
    if (index < 0 || index >= Count()) throw EListError("List index out of bounds (" + IntToStr(index) + ")");
    return *items_[static_cast<size_t>(index)];
}

int TCollectionBase::IndexOfItem(const TCollectionItem* item) const {
    for (size_t i = 0; i < items_.size(); ++i)
        if (items_[i].get() == item) return static_cast<int>(i);
    return -1;
}

TCollectionItem& TCollectionBase::AddItem() {
    return InsertItem(Count());
}

TCollectionItem& TCollectionBase::InsertItem(int index) {
    if (index < 0 || index > Count()) throw EListError("List index out of bounds (" + IntToStr(index) + ")");
    std::unique_ptr<TCollectionItem> item = CreateItem();
    item->collection_ = this;
    item->id_ = nextId_++;
    TCollectionItem& ref = *item;
    items_.insert(items_.begin() + index, std::move(item));
    Changed(nullptr);
    return ref;
}

void TCollectionBase::Clear() {
    if (items_.empty()) return;
    items_.clear();
    Changed(nullptr);
}

void TCollectionBase::Delete(int index) {
    Item(index);
    items_.erase(items_.begin() + index);
    Changed(nullptr);
}

void TCollectionBase::EndUpdate() {
    if (updateCount_ > 0 && --updateCount_ == 0) Update(nullptr);
}

void TCollectionBase::MoveItem(int from, int to) {
    Item(from);
    if (to < 0) to = 0;
    if (to >= Count()) to = Count() - 1;
    if (from == to) return;
    auto item = std::move(items_[static_cast<size_t>(from)]);
    items_.erase(items_.begin() + from);
    items_.insert(items_.begin() + to, std::move(item));
    Changed(nullptr);
}

void TCollectionBase::Assign(const TPersistent& source) {
    const auto* other = dynamic_cast<const TCollectionBase*>(&source);
    if (!other || typeid(*other) != typeid(*this)) return TPersistent::Assign(source);
    if (other == this) return;
    BeginUpdate();
    try {
        items_.clear();
        for (const auto& item : other->items_) AddItem().Assign(*item);
    } catch (...) {
        EndUpdate();
        throw;
    }
    EndUpdate();
}

} // namespace kv
