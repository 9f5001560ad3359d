#include "readers/markup/KvIXML.h"

#include "platform/Exceptions.h"
#include "platform/Format.h"
#include "readers/markup/KvXMLScan.h"

namespace kv {

TKvXMLItems::~TKvXMLItems() {
    Clear();
}

TKvXMLItem& TKvXMLItems::Items(int index) const {
    if (index < 0 || index >= Count()) throw EListError(Format("List index out of bounds (%d)", index));
    return *items_[static_cast<size_t>(index)];
}

TKvXMLItem* TKvXMLItems::AddItem(TKvXMLItem* parent) {
    return items_.emplace_back(std::make_unique<TKvXMLItem>(parent)).get();
}

void TKvXMLItems::Clear() {
    // Items are taken apart one level at a time, so that freeing a deep tree needs no deep stack.
    std::vector<std::unique_ptr<TKvXMLItem>> pending = std::move(items_);
    items_.clear();
    while (!pending.empty()) {
        std::unique_ptr<TKvXMLItem> item = std::move(pending.back());
        pending.pop_back();
        std::vector<std::unique_ptr<TKvXMLItem>>& children = item->Items().items_;
        for (std::unique_ptr<TKvXMLItem>& child : children) pending.push_back(std::move(child));
        children.clear();
    }
}

TKvXMLItem* TKvXMLItem::GetChild(std::string_view tagName, int index) const {
    for (int i = 0; i < items_.Count(); ++i) {
        TKvXMLItem& child = items_.Items(i);
        if (child.TagName() == tagName && index-- == 0) return &child;
    }
    return nullptr;
}

void TKvXMLEngine::LoadFromFile(const std::string& fileName) {
    TFileStream stream(fileName, fmOpenRead | fmShareDenyNone);
    LoadFromStream(stream);
}

void TKvXMLEngine::LoadFromStream(TStream& stream) {
    TKvXMLDecoder decoder;
    decoder.Open(stream);
    std::string text;
    while (decoder.Read(text)) {
    }
    if (!text.empty() && text.back() == 27) text.pop_back();
    encoding_ = decoder.EncodingName();
    warnings_ = decoder.Warnings();
    Parse(text);
}

void TKvXMLEngine::ParseXMLFromString(std::string_view text) {
    warnings_.clear();
    Parse(text);
}

void TKvXMLEngine::Parse(std::string_view text) {
    root_.Items().Clear();
    root_.SetKind(ikProperty);
    root_.SetTagName({});
    root_.SetValue({});
    TKvXMLScanner scanner(xdTree);
    scanner.OpenText(text);
    bool rooted = false;
    TKvXMLItem* current = nullptr; // the open item
    TKvXMLItem* comment = nullptr; // the comment being read
    // The text of each open item, by level: set into the item when it closes, so that text split by
    // many children is joined once.
    std::vector<std::string> texts;
    const auto flush = [&texts](TKvXMLItem& item, size_t level) {
        if (!texts[level].empty()) item.SetValue(Variant(std::move(texts[level])));
    };
    const auto add = [&](std::string_view name) {
        TKvXMLItem* item = &root_;
        if (rooted) {
            // Nothing open (the first element has closed): later items go under the first.
            TKvXMLItem* parent = current ? current : &root_;
            item = parent->Items().AddItem(parent);
        }
        rooted = true;
        item->SetTagName(std::string(name));
        return item;
    };
    while (scanner.Next()) {
        switch (scanner.Kind()) {
        case xtkStartTag:
            if (!scanner.Name().empty()) {
                current = add(scanner.Name());
                const auto level = static_cast<size_t>(scanner.Depth() - 1);
                if (texts.size() <= level) texts.resize(level + 1);
                texts[level].clear();
            }
            if (current) {
                ForEachTreeAttribute(scanner.Attributes(),
                                     [current](const std::string& name, const std::string& value) {
                                         TKvXMLItem* attribute = current->Items().AddItem(current);
                                         attribute->SetKind(ikAttribute);
                                         attribute->SetTagName(name);
                                         attribute->SetValue(Variant(value));
                                     });
            }
            break;
        case xtkEndTag:
            flush(*current, static_cast<size_t>(scanner.Depth()));
            current = scanner.Depth() == 0 ? nullptr : current->Parent();
            break;
        case xtkText:
        case xtkCData:
            if (current) texts[static_cast<size_t>(scanner.Depth() - 1)] += scanner.Text();
            break;
        case xtkComment:
            if (scanner.FirstPiece()) {
                comment = add("!--");
                comment->SetKind(ikComment);
                comment->SetValue(Variant(std::string()));
            }
            comment->SetValue(Variant(comment->Value().StringRef() + std::string(scanner.Text())));
            break;
        default:
            break;
        }
    }
    // Items never closed keep their text too.
    int64_t level = scanner.Depth();
    for (TKvXMLItem* open = current; open && level > 0; open = open->Parent())
        flush(*open, static_cast<size_t>(--level));
    warnings_.insert(warnings_.end(), scanner.Warnings().begin(), scanner.Warnings().end());
}

TKvXMLItem* TKvXMLEngine::GetItemByTag(TKvXMLItem* start, std::string_view tag) const {
    if (!start) return nullptr;
    if (start->TagName() == tag) return start;
    // Depth first without recursion: each level remembers the next child to visit.
    std::vector<std::pair<TKvXMLItem*, int>> stack{{start, 0}};
    while (!stack.empty()) {
        auto& [item, next] = stack.back();
        if (next >= item->Items().Count()) {
            stack.pop_back();
            continue;
        }
        TKvXMLItem* child = &item->Items().Items(next++);
        if (child->TagName() == tag) return child;
        if (child->Items().Count() > 0) stack.emplace_back(child, 0);
    }
    return nullptr;
}

} // namespace kv
