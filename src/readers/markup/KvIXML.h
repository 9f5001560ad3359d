#pragma once
// TKvXMLEngine: a small, tolerant XML scanner that turns a document into a tree of TKvXMLItem objects,
// for readers that find their elements by searching the tree by tag name. It does not validate, does not
// check that closing tags match (each one closes one level), and decodes no entities: attribute values
// keep their quotes, and an entity a document declares is never expanded, so that no document costs
// more than its own size. The text is decoded as TKvXMLDecoder says (by its byte-order mark, by the
// encoding its declaration names, else UTF-8 when it is and Windows-1252 when it is not).
//
// The tree is built and freed without recursion, and searched without it, however deep the document.

#include "platform/Classes.h"
#include "platform/Streams.h"
#include "platform/Variant.h"
#include "readers/markup/KvXMLInput.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace kv {

/// What an item of the tree is.
enum TKvXMLItemKind : uint8_t {
    ikProperty,  ///< an element (or a declaration, which reads as one named "?xml")
    ikAttribute, ///< an attribute of the item above it; the value keeps its quotes
    ikComment,   ///< a comment, named "!--"; the value is its text
    ikCDATA      ///< never made by the scanner: a CDATA section's text goes into its element's value
};

class TKvXMLItem;

/// The children of an item, in document order; owns them.
class TKvXMLItems {
public:
    TKvXMLItems() = default;
    ~TKvXMLItems();
    TKvXMLItems(const TKvXMLItems&) = delete;
    TKvXMLItems& operator=(const TKvXMLItems&) = delete;

    int Count() const { return static_cast<int>(items_.size()); }
    /// Child `index`; EListError "List index out of bounds (%d)" when there is none.
    TKvXMLItem& Items(int index) const;
    TKvXMLItem& operator[](int index) const { return Items(index); }
    /// Creates an item under `parent` at the end of the list and returns it.
    TKvXMLItem* AddItem(TKvXMLItem* parent);
    /// Frees every item and everything below them.
    void Clear();

private:
    std::vector<std::unique_ptr<TKvXMLItem>> items_;
};

/// One node of the tree. Items are owned by their parent's Items, not by a component owner: a document
/// of millions of elements would otherwise pay for an owner list and notifications it never uses.
class TKvXMLItem : public TPersistent {
public:
    explicit TKvXMLItem(TKvXMLItem* parent = nullptr) : parent_(parent) {}

    TKvXMLItemKind Kind() const { return kind_; }
    void SetKind(TKvXMLItemKind v) { kind_ = v; }
    const std::string& TagName() const { return tagName_; }
    void SetTagName(std::string v) { tagName_ = std::move(v); }
    /// The text content, unassigned until text is met.
    const Variant& Value() const { return value_; }
    void SetValue(Variant v) { value_ = std::move(v); }
    TKvXMLItems& Items() { return items_; }
    const TKvXMLItems& Items() const { return items_; }
    /// The item this one is a child of (nullptr for the root).
    TKvXMLItem* Parent() const { return parent_; }

    /// The direct child with exactly this tag name, any kind; `index` counts the ones before it to pass
    /// (0: the first). nullptr when there is none.
    TKvXMLItem* GetChild(std::string_view tagName, int index = 0) const;
    /// The value as text ("" while unassigned).
    std::string GetTagValue() const { return value_.AsString(); }
    std::string ClassName() const override { return "TKvXMLItem"; }

private:
    TKvXMLItemKind kind_ = ikProperty;
    std::string tagName_;
    Variant value_;
    TKvXMLItems items_;
    TKvXMLItem* parent_;
};

class TKvXMLEngine : public TComponent {
public:
    explicit TKvXMLEngine(TComponent* owner = nullptr) : TComponent(owner) {}

    /// The document's first element (its declaration, when it has one); empty before a load.
    TKvXMLItem& RootItem() { return root_; }
    const TKvXMLItem& RootItem() const { return root_; }

    /// Opens the file read-only and loads it through LoadFromStream.
    void LoadFromFile(const std::string& fileName);
    /// Reads the stream from its position to its end, decodes it, drops a last character of code 27 and
    /// parses the text.
    void LoadFromStream(TStream& stream);
    /// Builds the tree of `text` (UTF-8) in place of the one held.
    void ParseXMLFromString(std::string_view text);
    /// The first item whose tag name is exactly `tag`, depth first from `start` (itself first, then its
    /// children in order); nullptr when none.
    TKvXMLItem* GetItemByTag(TKvXMLItem* start, std::string_view tag) const;

    /// How the last load decoded its bytes ("utf-8", "cp1252", ...).
    const std::string& EncodingName() const { return encoding_; }
    /// What the last load noticed: an encoding named but unknown, bytes that are not UTF-8, a NUL
    /// character that ended the text.
    const std::vector<TKvXMLWarning>& Warnings() const { return warnings_; }
    std::string ClassName() const override { return "TKvXMLEngine"; }

private:
    void Parse(std::string_view text);

    TKvXMLItem root_;
    std::string encoding_ = "utf-8";
    std::vector<TKvXMLWarning> warnings_;
};

} // namespace kv
