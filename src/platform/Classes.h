#pragma once
// The object model the components stand on: TObject, TPersistent with Assign, and TComponent with an owner
// that destroys what it owns and free notification, so that a component holding a reference to another
// hears of its destruction and clears the reference.

#include <cstdint>
#include <string>
#include <vector>

namespace kv {

/// Root of the library's class hierarchy.
class TObject {
public:
    virtual ~TObject() = default;
    /// The class name, as messages and the platform's default Assign show it.
    virtual std::string ClassName() const { return "TObject"; }
};

/// An object whose settings can be copied from another by Assign.
class TPersistent : public TObject {
public:
    /// Copies `source`'s settings; the default asks `source` to AssignTo this, which fails with
    /// EConvertError "Cannot assign a <source class> to a <target class>".
    virtual void Assign(const TPersistent& source);
    /// The object that owns this one (nullptr when none).
    virtual TPersistent* GetOwner() const { return nullptr; }
    std::string ClassName() const override { return "TPersistent"; }

protected:
    virtual void AssignTo(TPersistent& dest) const;
};

enum TOperation : uint8_t {
    opInsert, ///< a component was added to an owner
    opRemove  ///< a component is being destroyed (or leaves its owner)
};

/// A component: owned by another (which destroys it) or free-standing, and able to hear of the
/// destruction of components it refers to. A component with an owner is created with new and never
/// deleted by anyone but its owner or an explicit delete.
class TComponent : public TPersistent {
public:
    explicit TComponent(TComponent* owner = nullptr);
    ~TComponent() override;
    TComponent(const TComponent&) = delete;
    TComponent& operator=(const TComponent&) = delete;

    TComponent* Owner() const { return owner_; }
    const std::string& Name() const { return name_; }
    void SetName(const std::string& name) { name_ = name; }
    int ComponentCount() const { return static_cast<int>(components_.size()); }
    TComponent* Components(int index) const;
    /// The owned component of that name (compared case-insensitively), nullptr when none.
    TComponent* FindComponent(const std::string& name) const;

    /// Takes `component` into this one's ownership (moving it from its previous owner).
    void InsertComponent(TComponent* component);
    /// Releases `component` from this one's ownership without destroying it.
    void RemoveComponent(TComponent* component);

    /// Asks to hear (through Notification) when `component` is destroyed; the ask is mutual.
    void FreeNotification(TComponent* component);
    void RemoveFreeNotification(TComponent* component);
    /// True while the destructor runs.
    bool Destroying() const { return destroying_; }

    TPersistent* GetOwner() const override { return owner_; }
    std::string ClassName() const override { return "TComponent"; }

protected:
    /// `component` was inserted or is going away; a component that refers to it clears the reference here.
    virtual void Notification(TComponent* component, TOperation operation);

private:
    TComponent* owner_ = nullptr;
    std::string name_;
    std::vector<TComponent*> components_;
    std::vector<TComponent*> freeNotifies_;
    bool destroying_ = false;
};

} // namespace kv
