#include "engine/KvIMappingTable.h"

#include "platform/SysUtils.h"

namespace kv {

namespace {

void StripPair(std::string& s, char open, char close) {
    if (s.size() >= 2 && s.front() == open && s.back() == close) s = s.substr(1, s.size() - 2);
}

} // namespace

void TKvIMappingTable::UnquoteName(Variant& value) {
    if (value.IsString() && value.StringRef().size() >= 2) {
        const std::string& s = value.StringRef();
        if ((s.front() == '[' && s.back() == ']') || (s.front() == '"' && s.back() == '"')) {
            std::string stripped = s;
            StripPair(stripped, '[', ']');
            StripPair(stripped, '"', '"');
            value = Variant(std::move(stripped));
        }
    }
}

std::unique_ptr<TKvIParser> TKvIMappingTable::ParseOnce(const std::string& text, TOnEvaluate handler,
                                                        std::exception_ptr& error) {
    auto parser = std::make_unique<TKvIParser>();
    parser->OnEvaluate = std::move(handler);
    parser->SetText(text);
    error = nullptr;
    try {
        parser->Parse();
    } catch (...) {
        error = std::current_exception();
    }
    return parser;
}

void TKvIMappingTable::Build(const TStringList& mappings, TDataSet* dataSet, const TKvIMappingHooks& hooks) {
    entries_.clear();
    fieldNames_.clear();
    for (int i = 0; i < mappings.Count(); ++i) {
        const std::string& line = mappings[i];
        const size_t eq = line.find('=');
        if (eq == std::string::npos) continue;
        TKvIMapEntry entry;
        entry.FieldName = Trim(std::string_view(line).substr(0, eq));
        entry.Source = line.substr(eq + 1);
        // A line without a source side names a field that receives nothing.
        if (entry.FieldName.empty() || TrimView(entry.Source).empty()) continue;
        entry.Field = dataSet ? dataSet->FindField(entry.FieldName) : nullptr;
        if (entry.Field) entry.FieldIndex = entry.Field->Index();
        entry.Parser = hooks.MakeParser(entry.Source, entry.ParseError);
        entry.SourceValue = Variant(entry.Source);
        entry.WholeReference = hooks.IsWholeReference(entry.Source);
        if (!entry.ParseError && entry.Parser->Tree())
            entry.HostName = entry.Parser->Tree()->IsHostName(entry.Name);
        if (entry.HostName) {
            entry.NameValue = Variant(entry.Name);
            UnquoteName(entry.NameValue);
            entry.PlainColumn = hooks.IsPlainColumn(entry.Name);
        }
        if (!fieldNames_.empty()) fieldNames_ += ';';
        fieldNames_ += entry.FieldName;
        entries_.push_back(std::move(entry));
    }
    PlaceKeys();
}

void TKvIMappingTable::SetKeys(const std::string& datasetKeys) {
    keyNames_.clear();
    size_t start = 0;
    while (start <= datasetKeys.size()) {
        size_t end = datasetKeys.find(';', start);
        if (end == std::string::npos) end = datasetKeys.size();
        std::string name = Trim(std::string_view(datasetKeys).substr(start, end - start));
        if (!name.empty()) keyNames_.push_back(std::move(name));
        start = end + 1;
    }
    PlaceKeys();
}

void TKvIMappingTable::PlaceKeys() {
    keyPositions_.resize(keyNames_.size());
    for (size_t k = 0; k < keyNames_.size(); ++k) keyPositions_[k] = FieldItem(keyNames_[k]);
}

int TKvIMappingTable::FieldItem(const std::string& name) const {
    for (size_t i = 0; i < entries_.size(); ++i)
        if (SameText(entries_[i].FieldName, name)) return static_cast<int>(i);
    return -1;
}

void TKvIMappingTable::KeyValues(const std::vector<Variant>& rowValues, std::vector<Variant>& out) const {
    out.assign(keyNames_.size(), Variant::Null());
    for (size_t k = 0; k < keyNames_.size(); ++k) {
        const int position = keyPositions_[k];
        if (position >= 0 && static_cast<size_t>(position) < rowValues.size())
            out[k] = rowValues[static_cast<size_t>(position)];
    }
}

} // namespace kv
