// The evaluation handler that resolves the names of mappings and conditions (LOOKUP, SUBSTITUTE, system
// variables, parameters, source columns), trims what it resolved and hands text to the value converter.

#include "engine/Impcnst.h"
#include "engine/KvIBase.h"
#include "platform/SysUtils.h"

namespace kv {

namespace {

void StripPair(std::string& s, char open, char close) {
    if (s.size() >= 2 && s.front() == open && s.back() == close) s = s.substr(1, s.size() - 2);
}

// `name` is `word` (upper-case ASCII) in any case of its ASCII letters.
bool IsWord(std::string_view name, std::string_view word) {
    if (name.size() != word.size()) return false;
    for (size_t i = 0; i < name.size(); ++i) {
        const char c = name[i];
        if ((c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c) != word[i]) return false;
    }
    return true;
}

} // namespace

std::string TKvImportBaseComponent::BuildTimeFormat(bool withT) const {
    return converter_.TimeMask(withT);
}

std::string TKvImportBaseComponent::BuildDTFormat() const {
    return converter_.DateTimeMask(DateTimeHasT());
}

TDataSet* TKvImportBaseComponent::FindLookupDataSet(const std::string& name) const {
    for (const auto& [registered, table] : lookupTables_)
        if (SameText(registered, name)) return table;
    TComponent* found = nullptr;
    const size_t dot = name.find('.');
    // Owners from the nearest outwards: the component's owner, the owner's owner (its form), ...
    for (TComponent* scope = Owner(); scope && !found; scope = scope->Owner()) {
        if (dot == std::string::npos) {
            found = scope->FindComponent(name);
        } else {
            const std::string form = name.substr(0, dot);
            TComponent* container = SameText(scope->Name(), form) ? scope : scope->FindComponent(form);
            if (container) found = container->FindComponent(name.substr(dot + 1));
        }
    }
    if (!found) return nullptr;
    auto* dataSet = dynamic_cast<TDataSet*>(found);
    if (!dataSet) throw EInvalidCast("Invalid class typecast");
    return dataSet;
}

Variant TKvImportBaseComponent::LookupValue(const std::vector<Variant>& args) {
    TDataSet* table = FindLookupDataSet(args[0].AsString());
    if (!table) return Variant::Null();
    if (!table->Active()) table->Open();
    if (!table->Locate(args[1].AsString(), args[2], TLocateOptions{})) return Variant::Null();
    std::string returnField = args[3].AsString();
    StripPair(returnField, '~', '~');
    return table->FieldByName(returnField).Value();
}

void TKvImportBaseComponent::ParserEvaluate(TObject* sender, const std::string& eval,
                                            const std::vector<Variant>& args, int argCount, bool isChild,
                                            Variant& value, bool& done) {
    done = argCount == 0;
    TKvIMappingTable::UnquoteName(value);
    // Only names starting with L or S are the handler's own; the rest skip the comparisons.
    const char first = eval.empty() ? '\0' : static_cast<char>(eval[0] & ~0x20);
    bool own = first == 'L' || first == 'S';
    if (own) {
        if (IsWord(eval, "LOOKUP") && argCount >= 4) {
            value = LookupValue(args);
        } else if (IsWord(eval, "SUBSTITUTE") && argCount >= 3) {
            const std::string text = args[0].AsString();
            std::string sources = args[1].AsString(), results = args[2].AsString();
            value = Variant::Null();
            while (!sources.empty()) {
                const std::string source = GetNextItem(sources, ";");
                const std::string result = GetNextItem(results, ";");
                if (source == text) {
                    value = Variant(result);
                    break;
                }
            }
        } else if (const int* counter = StatisticCounter(eval)) {
            // A count that costs a pass is made the first time an expression needs it.
            if (counter == &statistic_.TotalCount && statistic_.TotalCount == 0 && !TotalCountIsCheap())
                statistic_.TotalCount = std::min(GetTotalCount(), rowLast_);
            value = Variant(*counter);
        } else {
            own = false;
        }
    }
    bool userFunction = false;
    if (!own) {
        if (const TKvIParameter* parameter = parameters_.ParamByName(eval)) {
            value = parameter->Value;
        } else if (lstKvIRegFunctions.FunctionByName(eval) && !HasSourceColumn(eval)) {
            // The parser computes a user function once the handler leaves the name to it.
            userFunction = true;
            done = false;
        } else {
            value = GetFieldValue(value);
        }
        if (OnParsedValue && !userFunction) OnParsedValue(this, convertingField_, value);
    }
    if (OnParserEvaluate) OnParserEvaluate(sender, eval, args, argCount, isChild, value, done);
    // The name is no value to finish: the function's result takes its place.
    if (userFunction && !done) return;
    FinishValue(value, isChild, sender);
}

const int* TKvImportBaseComponent::StatisticCounter(std::string_view name) const {
    if (name.size() < 14 || static_cast<char>(name[0] & ~0x20) != 'S') return nullptr;
    if (IsWord(name, "STATTOTALCOUNT")) return &statistic_.TotalCount;
    if (IsWord(name, "STATTOTALIMPORTED")) return &statistic_.TotalImported;
    if (IsWord(name, "STATTOTALADDED")) return &statistic_.TotalAdded;
    if (IsWord(name, "STATTOTALDELETED")) return &statistic_.TotalDeleted;
    if (IsWord(name, "STATTOTALUPDATED")) return &statistic_.TotalUpdated;
    if (IsWord(name, "STATERRORCOUNT")) return &statistic_.TotalErrors;
    if (IsWord(name, "STATTOTALSKIPPED")) return &statistic_.TotalSkipped;
    return nullptr;
}

void TKvImportBaseComponent::FinishValue(Variant& value, bool isChild, TObject* sender) {
    (void)sender;
    converter_.Finish(value, trimSpaces_,
                      !isChild && convertingField_ ? std::optional(convertingField_->DataType())
                                                   : std::nullopt);
}

} // namespace kv
