#include "readers/markup/KvXMLRows.h"

#include <algorithm>

namespace kv {

namespace {

bool HasNonBlank(std::string_view s) {
    return std::any_of(s.begin(), s.end(),
                       [](char c) { return c != ' ' && c != '\t' && c != '\r' && c != '\n'; });
}

} // namespace

void TKvXMLRows::Open(TStream& stream) {
    decoder_.Open(stream);
    names_.clear();
    byName_.clear();
    values_.clear();
    stamps_.clear();
    order_.clear();
    taken_.clear();
    ended_.clear();
    element_.clear();
    rows_ = 0;
    Restart();
}

void TKvXMLRows::Restart() {
    decoder_.Rewind();
    scanner_.Open(decoder_);
    rowDepth_ = 0;
    value_ = nullptr;
    // No row is current: no value is stamped with the new stamp.
    if (++stamp_ == 0) {
        std::fill(stamps_.begin(), stamps_.end(), 0);
        stamp_ = 1;
    }
}

std::string TKvXMLRows::ChooseRowElement() {
    Restart();
    // Bounds for documents of endless distinct names, names of endless length or endless depth: what lies
    // beyond them is not counted.
    constexpr size_t kMaxNames = 100000, kMaxNameBytes = 1024, kMaxLevels = 100000;
    std::unordered_map<std::string, int, TNameHash, std::equal_to<>> ids;
    std::vector<std::string> names;
    std::vector<int64_t> counts;
    struct TFrame {
        int Id;
        bool Qualifies; ///< it has attributes or a child element
    };
    std::vector<TFrame> frames; // the open elements, by level
    int documentElement = -1;
    const auto close = [&](const TFrame& frame, size_t level) {
        if (!frame.Qualifies || frame.Id < 0) return;
        if (level > 0)
            ++counts[static_cast<size_t>(frame.Id)];
        else if (documentElement < 0)
            documentElement = frame.Id;
    };
    while (scanner_.Next()) {
        if (scanner_.Kind() == xtkStartTag) {
            const auto level = static_cast<size_t>(scanner_.Depth() - 1);
            if (level > 0 && level - 1 < frames.size()) frames[level - 1].Qualifies = true;
            if (level != frames.size() || level >= kMaxLevels) continue;
            int id = -1;
            if (auto it = ids.find(scanner_.Name()); it != ids.end()) {
                id = it->second;
            } else if (names.size() < kMaxNames && scanner_.Name().size() <= kMaxNameBytes) {
                id = static_cast<int>(names.size());
                names.emplace_back(scanner_.Name());
                counts.push_back(0);
                ids.emplace(names.back(), id);
            }
            frames.push_back({id, HasNonBlank(scanner_.Attributes())});
        } else if (scanner_.Kind() == xtkEndTag) {
            const auto level = static_cast<size_t>(scanner_.Depth());
            if (level + 1 == frames.size()) {
                close(frames.back(), level);
                frames.pop_back();
            }
        }
    }
    while (!frames.empty()) {
        close(frames.back(), frames.size() - 1);
        frames.pop_back();
    }
    int best = -1;
    for (size_t i = 0; i < counts.size(); ++i)
        if (counts[i] > 0 && (best < 0 || counts[i] > counts[static_cast<size_t>(best)]))
            best = static_cast<int>(i);
    if (best < 0) best = documentElement;
    Restart();
    return best < 0 ? std::string() : names[static_cast<size_t>(best)];
}

void TKvXMLRows::Start(const std::string& element) {
    element_ = element;
    rows_ = 0;
    Restart();
}

int TKvXMLRows::ColumnIndex(std::string_view name, bool add) {
    if (auto it = byName_.find(name); it != byName_.end()) return it->second;
    if (!add) return -1;
    const int index = static_cast<int>(names_.size());
    names_.emplace_back(name);
    byName_.emplace(names_.back(), index);
    values_.emplace_back();
    stamps_.push_back(0);
    return index;
}

int TKvXMLRows::ColumnAt(std::string_view name) {
    if (position_ < order_.size() && names_[static_cast<size_t>(order_[position_])] == name)
        return order_[position_++];
    const int column = ColumnIndex(name, true);
    if (position_ >= order_.size()) order_.resize(position_ + 1);
    order_[position_++] = column;
    return column;
}

std::string& TKvXMLRows::Begin(int column) {
    const auto i = static_cast<size_t>(column);
    std::string& value = values_[i];
    if (stamps_[i] == stamp_) {
        value += '\n'; // a second child of the same name
    } else {
        value.clear();
        stamps_[i] = stamp_;
    }
    return value;
}

void TKvXMLRows::EndValue() {
    DecodeXMLEntities(*value_, raw_);
    raw_ = value_->size();
}

void TKvXMLRows::EndRow() {
    EndValue();
    if (HasNonBlank(own_)) Begin(ColumnAt(element_)) += own_;
    ++rows_;
    rowDepth_ = 0;
    value_ = nullptr;
}

bool TKvXMLRows::NextRow() {
    if (++stamp_ == 0) {
        std::fill(stamps_.begin(), stamps_.end(), 0);
        stamp_ = 1;
    }
    while (scanner_.Next()) {
        const TKvXMLTokenKind kind = scanner_.Kind();
        if (rowDepth_ == 0) {
            if (kind != xtkStartTag || scanner_.Name() != element_) continue;
            rowDepth_ = scanner_.Depth();
            rowLine_ = scanner_.Line();
            position_ = 0;
            own_.clear();
            value_ = &own_;
            raw_ = 0;
            ForEachAttribute(scanner_.Attributes(), [this](std::string_view name, std::string_view text) {
                std::string& value = Begin(ColumnAt(name));
                const size_t from = value.size();
                value += text;
                DecodeXMLEntities(value, from);
            });
            continue;
        }
        switch (kind) {
        case xtkStartTag:
            if (scanner_.Depth() == rowDepth_ + 1) {
                EndValue();
                // A child's attributes are columns of their own ("link@href"), so that a child holding
                // its value there (an empty <link href="..."/>) loses nothing.
                ForEachAttribute(scanner_.Attributes(), [this](std::string_view name, std::string_view text) {
                    attributeName_.assign(scanner_.Name()).append(1, '@').append(name);
                    std::string& value = Begin(ColumnAt(attributeName_));
                    const size_t from = value.size();
                    value += text;
                    DecodeXMLEntities(value, from);
                });
                value_ = &Begin(ColumnAt(scanner_.Name()));
                raw_ = value_->size();
            }
            break;
        case xtkText:
            *value_ += scanner_.Text();
            break;
        case xtkCData:
            EndValue();
            *value_ += scanner_.Text();
            raw_ = value_->size();
            break;
        case xtkEndTag:
            if (scanner_.Depth() == rowDepth_) {
                EndValue();
                value_ = &own_;
                raw_ = own_.size();
            } else if (scanner_.Depth() < rowDepth_) {
                EndRow();
                return true;
            }
            break;
        default:
            break;
        }
    }
    if (rowDepth_ == 0) return false;
    // The document ends inside a row: what it holds is a row still, said to be cut short.
    ended_.push_back(
        {rowLine_,
         "the document ends inside the <" + element_ + "> that starts here: its last value may be cut short",
         true});
    EndRow();
    return true;
}

void TKvXMLRows::TakeNewWarnings(std::vector<TKvXMLWarning>& out) {
    const std::vector<TKvXMLWarning>* lists[] = {&decoder_.Warnings(), &scanner_.Warnings(), &ended_};
    for (const std::vector<TKvXMLWarning>* list : lists)
        for (const TKvXMLWarning& warning : *list)
            if (std::find(taken_.begin(), taken_.end(), warning) == taken_.end()) {
                taken_.push_back(warning);
                out.push_back(warning);
            }
}

} // namespace kv
