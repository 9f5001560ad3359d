#pragma once
// TCollection: an owned, ordered list of settings items (columns, parameters), copied item by item with
// Assign. Items know their collection and their index.

#include "platform/Classes.h"

#include <memory>
#include <vector>

namespace kv {

class TCollectionBase;

/// An item of a collection.
class TCollectionItem : public TPersistent {
public:
    TCollectionBase* Collection() const { return collection_; }
    /// Position in the collection (-1 when in none).
    int Index() const;
    /// Moves the item to another position.
    void SetIndex(int index);
    /// A number unique within the collection, given when the item is added.
    int ID() const { return id_; }
    TPersistent* GetOwner() const override;
    std::string ClassName() const override { return "TCollectionItem"; }

protected:
    /// Tells the collection that this item changed (ignored between BeginUpdate and EndUpdate).
    void Changed();

private:
    friend class TCollectionBase;
    TCollectionBase* collection_ = nullptr;
    int id_ = 0;
};

/// The untyped part of a collection.
class TCollectionBase : public TPersistent {
public:
    explicit TCollectionBase(TPersistent* owner = nullptr) : owner_(owner) {}
    TCollectionBase(const TCollectionBase&) = delete;
    TCollectionBase& operator=(const TCollectionBase&) = delete;

    int Count() const { return static_cast<int>(items_.size()); }
    void Clear();
    void Delete(int index);
    void BeginUpdate() { ++updateCount_; }
    void EndUpdate();
    int UpdateCount() const { return updateCount_; }
    TCollectionItem& Item(int index) const;
    int IndexOfItem(const TCollectionItem* item) const;
    void MoveItem(int from, int to);

    /// Replaces the items by copies of `source`'s (same collection class), between BeginUpdate and EndUpdate.
    void Assign(const TPersistent& source) override;
    TPersistent* GetOwner() const override { return owner_; }
    std::string ClassName() const override { return "TCollection"; }

protected:
    virtual std::unique_ptr<TCollectionItem> CreateItem() const = 0;
    /// Called when items change (nullptr: the whole collection), unless an update is under way.
    virtual void Update(TCollectionItem* item) { (void)item; }
    TCollectionItem& AddItem();
    TCollectionItem& InsertItem(int index);

private:
    friend class TCollectionItem;
    void Changed(TCollectionItem* item) {
        if (updateCount_ == 0) Update(item);
    }

    TPersistent* owner_;
    std::vector<std::unique_ptr<TCollectionItem>> items_;
    int updateCount_ = 0;
    int nextId_ = 0;
};

/// A collection of items of class T (default-constructible, derived from TCollectionItem).
template <class T> class TCollection : public TCollectionBase {
public:
    using TCollectionBase::TCollectionBase;

    T& Add() { return static_cast<T&>(AddItem()); }
    T& Insert(int index) { return static_cast<T&>(InsertItem(index)); }
    T& Items(int index) const { return static_cast<T&>(Item(index)); }
    /// Copies `value` into item `index`.
    void SetItems(int index, const T& value) { Items(index).Assign(value); }

    template <class Item, class Collection> class Iterator {
    public:
        Iterator(Collection* c, int i) : c_(c), i_(i) {}
        Item& operator*() const { return c_->Items(i_); }
        Iterator& operator++() {
            ++i_;
            return *this;
        }
        bool operator!=(const Iterator& o) const { return i_ != o.i_; }

    private:
        Collection* c_;
        int i_;
    };
    Iterator<T, const TCollection> begin() const { return {this, 0}; }
    Iterator<T, const TCollection> end() const { return {this, Count()}; }

protected:
    std::unique_ptr<TCollectionItem> CreateItem() const override { return std::make_unique<T>(); }
};

} // namespace kv
