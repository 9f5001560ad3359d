#include "platform/StringList.h"

#include "platform/Encoding.h"
#include "platform/Exceptions.h"
#include "platform/Streams.h"
#include "platform/SysUtils.h"

namespace kv {

void TStringList::CheckIndex(int index, bool allowEnd) const {
    if (index < 0 || index > Count() || (index == Count() && !allowEnd))
        throw EStringListError("List index out of bounds (" + IntToStr(index) + ")");
}

bool TStringList::Equal(std::string_view a, std::string_view b) const {
    return CaseSensitive ? a == b : SameText(a, b);
}

const std::string& TStringList::Strings(int index) const {
    CheckIndex(index);
    return items_[static_cast<size_t>(index)];
}

void TStringList::SetStrings(int index, std::string value) {
    CheckIndex(index);
    items_[static_cast<size_t>(index)] = std::move(value);
}

int TStringList::Add(std::string line) {
    items_.push_back(std::move(line));
    return Count() - 1;
}

void TStringList::Insert(int index, std::string line) {
    CheckIndex(index, true);
    items_.insert(items_.begin() + index, std::move(line));
}

void TStringList::Delete(int index) {
    CheckIndex(index);
    items_.erase(items_.begin() + index);
}

void TStringList::Exchange(int a, int b) {
    CheckIndex(a);
    CheckIndex(b);
    std::swap(items_[static_cast<size_t>(a)], items_[static_cast<size_t>(b)]);
}

void TStringList::AddStrings(const TStringList& other) {
    for (const std::string& s : other.items_) items_.push_back(s);
}

int TStringList::IndexOf(std::string_view s) const {
    for (size_t i = 0; i < items_.size(); ++i)
        if (Equal(items_[i], s)) return static_cast<int>(i);
    return -1;
}

std::string TStringList::Names(int index) const {
    const std::string& line = Strings(index);
    size_t eq = line.find('=');
    return eq == std::string::npos ? std::string() : line.substr(0, eq);
}

std::string TStringList::ValueFromIndex(int index) const {
    const std::string& line = Strings(index);
    size_t eq = line.find('=');
    return eq == std::string::npos ? std::string() : line.substr(eq + 1);
}

int TStringList::IndexOfName(std::string_view name) const {
    for (size_t i = 0; i < items_.size(); ++i) {
        size_t eq = items_[i].find('=');
        if (eq != std::string::npos && Equal(std::string_view(items_[i]).substr(0, eq), name))
            return static_cast<int>(i);
    }
    return -1;
}

std::string TStringList::Values(std::string_view name) const {
    int i = IndexOfName(name);
    return i < 0 ? std::string() : ValueFromIndex(i);
}

void TStringList::SetValues(std::string_view name, std::string_view value) {
    int i = IndexOfName(name);
    if (value.empty()) {
        if (i >= 0) Delete(i);
        return;
    }
    std::string line = std::string(name) + "=" + std::string(value);
    if (i < 0)
        Add(std::move(line));
    else
        items_[static_cast<size_t>(i)] = std::move(line);
}

std::string TStringList::Text() const {
    std::string text;
    for (const std::string& s : items_) {
        text += s;
        text += "\r\n";
    }
    return text;
}

void TStringList::SetText(std::string_view text) {
    items_.clear();
    size_t start = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\r' && text[i] != '\n') continue;
        items_.emplace_back(text.substr(start, i - start));
        if (text[i] == '\r' && i + 1 < text.size() && text[i + 1] == '\n') ++i;
        start = i + 1;
    }
    if (start < text.size()) items_.emplace_back(text.substr(start));
}

std::string TStringList::DelimitedText(char delimiter, char quote) const {
    std::string out;
    for (size_t i = 0; i < items_.size(); ++i) {
        if (i) out += delimiter;
        const std::string& s = items_[i];
        bool needsQuote = s.empty() && items_.size() == 1;
        for (char c : s)
            if (c == delimiter || c == quote || static_cast<unsigned char>(c) <= ' ') needsQuote = true;
        if (!needsQuote) {
            out += s;
            continue;
        }
        out += quote;
        for (char c : s) {
            if (c == quote) out += quote;
            out += c;
        }
        out += quote;
    }
    return out;
}

void TStringList::SetDelimitedText(std::string_view text, char delimiter, char quote) {
    items_.clear();
    if (text.empty()) return;
    size_t i = 0;
    while (true) {
        std::string item;
        if (i < text.size() && text[i] == quote) {
            ++i;
            while (i < text.size()) {
                if (text[i] == quote) {
                    if (i + 1 < text.size() && text[i + 1] == quote) {
                        item += quote;
                        i += 2;
                        continue;
                    }
                    ++i;
                    break;
                }
                item += text[i++];
            }
            while (i < text.size() && text[i] != delimiter) ++i;
        } else {
            size_t end = text.find(delimiter, i);
            if (end == std::string_view::npos) end = text.size();
            item = std::string(text.substr(i, end - i));
            i = end;
        }
        items_.push_back(std::move(item));
        if (i >= text.size()) break;
        ++i; // the delimiter
        if (i == text.size()) {
            items_.emplace_back();
            break;
        }
    }
}

void TStringList::LoadFromStream(TStream& stream) {
    SetText(DecodeText(stream.ReadAll()));
}

void TStringList::SaveToStream(TStream& stream) const {
    stream.WriteString(Text());
}

void TStringList::LoadFromFile(const std::string& fileName) {
    TFileStream file(fileName, fmOpenRead | fmShareDenyNone);
    LoadFromStream(file);
}

void TStringList::SaveToFile(const std::string& fileName) const {
    TFileStream file(fileName, fmCreate);
    SaveToStream(file);
}

void TStringList::Assign(const TPersistent& source) {
    if (const auto* other = dynamic_cast<const TStringList*>(&source)) {
        if (other != this) items_ = other->items_;
        return;
    }
    TPersistent::Assign(source);
}

} // namespace kv
