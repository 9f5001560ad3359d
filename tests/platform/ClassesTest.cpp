// Components, string lists and collections.

#include "platform/Collection.h"
#include "platform/Exceptions.h"
#include "platform/StringList.h"

#include <gtest/gtest.h>

namespace kv {
namespace {

// Counts its destructions and keeps a reference that free notification must clear.
class Probe : public TComponent {
public:
    Probe(TComponent* owner, int* destroyed) : TComponent(owner), destroyed_(destroyed) {}
    ~Probe() override {
        if (destroyed_) ++*destroyed_;
    }
    void Watch(TComponent* other) {
        watched = other;
        if (other) other->FreeNotification(this);
    }
    TComponent* watched = nullptr;
    int inserted = 0;

protected:
    void Notification(TComponent* component, TOperation operation) override {
        if (operation == opRemove && component == watched) watched = nullptr;
        if (operation == opInsert) ++inserted;
    }

private:
    int* destroyed_;
};

TEST(Component, OwnerDestroysWhatItOwns) {
    int destroyed = 0;
    auto* owner = new Probe(nullptr, &destroyed);
    auto* child = new Probe(owner, &destroyed);
    new Probe(child, &destroyed); // a grandchild
    child->SetName("Child");
    EXPECT_EQ(owner->ComponentCount(), 1);
    EXPECT_EQ(owner->inserted, 1);
    EXPECT_EQ(owner->FindComponent("child"), child);
    delete new Probe(owner, &destroyed); // deleting a child leaves its owner
    EXPECT_EQ(owner->ComponentCount(), 1);
    EXPECT_THROW(owner->Components(1), EListError);
    delete owner;
    EXPECT_EQ(destroyed, 4);
}

TEST(Component, FreeNotificationClearsReferencesBothWays) {
    Probe holder(nullptr, nullptr);
    {
        Probe target(nullptr, nullptr);
        holder.Watch(&target);
        target.Watch(&holder);
    }
    EXPECT_EQ(holder.watched, nullptr);

    auto* other = new Probe(nullptr, nullptr);
    other->Watch(&holder);
    holder.Watch(other);
    holder.RemoveFreeNotification(other);
    delete other; // no longer notified: the reference stays (and is not touched)
    EXPECT_NE(holder.watched, nullptr);
}

TEST(StringList, NamesAndValues) {
    TStringList list{"Name=Smith", "City=Paris=France", "plain"};
    EXPECT_EQ(list.Values("name"), "Smith");
    EXPECT_EQ(list.Values("CITY"), "Paris=France"); // split at the first "="
    EXPECT_EQ(list.Names(2), "");
    EXPECT_EQ(list.IndexOfName("plain"), -1);
    list.SetValues("Zip", "75001");
    EXPECT_EQ(list.Strings(3), "Zip=75001");
    list.SetValues("name", "Jones");
    EXPECT_EQ(list.Strings(0), "name=Jones");
    list.SetValues("City", "");
    EXPECT_EQ(list.Count(), 3);
    EXPECT_EQ(list.IndexOf("PLAIN"), 1);
    list.CaseSensitive = true;
    EXPECT_EQ(list.IndexOf("PLAIN"), -1);
    try {
        list.Strings(7);
        FAIL();
    } catch (const EStringListError& e) {
        EXPECT_STREQ(e.what(), "List index out of bounds (7)");
    }
}

TEST(StringList, TextAndDelimitedText) {
    TStringList list;
    list.SetText("a\r\nb\nc\rd\r\n");
    ASSERT_EQ(list.Count(), 4);
    EXPECT_EQ(list.Text(), "a\r\nb\r\nc\r\nd\r\n");
    list.SetText("x\n\ny");
    EXPECT_EQ(list.Count(), 3);

    TStringList items{"plain", "with,comma", "say \"hi\"", ""};
    const std::string text = items.DelimitedText();
    EXPECT_EQ(text, "plain,\"with,comma\",\"say \"\"hi\"\"\",");
    TStringList back;
    back.SetDelimitedText(text);
    EXPECT_EQ(back, items);
    back.SetDelimitedText("A;B", ';');
    EXPECT_EQ(back.Count(), 2);
}

class Column : public TCollectionItem {
public:
    std::string Name;
    int Size = 0;
    void Assign(const TPersistent& source) override {
        if (auto* c = dynamic_cast<const Column*>(&source)) {
            Name = c->Name, Size = c->Size;
            return;
        }
        TCollectionItem::Assign(source);
    }
};

class Columns : public TCollection<Column> {
public:
    using TCollection::TCollection;
    int updates = 0;

protected:
    void Update(TCollectionItem*) override { ++updates; }
};

TEST(Collection, ItemsAssignAndUpdates) {
    Columns a, b;
    a.Add().Name = "ID";
    a.Add().Name = "Name";
    a.Items(1).Size = 40;
    EXPECT_EQ(a.Items(1).Index(), 1);
    a.Items(1).SetIndex(0);
    EXPECT_EQ(a.Items(0).Name, "Name");

    b.Add().Name = "old";
    b.updates = 0;
    b.Assign(a);
    EXPECT_EQ(b.updates, 1); // one update for the whole copy
    ASSERT_EQ(b.Count(), 2);
    EXPECT_EQ(b.Items(0).Size, 40);
    EXPECT_NE(&b.Items(0), &a.Items(0));
    EXPECT_EQ(b.Items(0).Collection(), &b);

    int names = 0;
    for (Column& c : b) names += static_cast<int>(c.Name.size());
    EXPECT_EQ(names, 6);
    b.Delete(0);
    EXPECT_THROW(b.Items(1), EListError);

    TStringList notAColumn;
    EXPECT_THROW(a.Items(0).Assign(notAColumn), EConvertError);
}

} // namespace
} // namespace kv
