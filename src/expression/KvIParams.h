#pragma once
// User parameters: named values computed or asked once before a run, then used by name in mappings and
// conditions.

#include "platform/Classes.h"
#include "platform/Collection.h"
#include "platform/StringList.h"
#include "platform/Variant.h"

#include <functional>
#include <string>

namespace kv {

enum TKvIParameterEditor : uint8_t { ipeEdit, ipeMemo, ipeCheckBox, ipeCombobox, ipeListBox };
enum TKvIParameterMode : uint8_t {
    ipmCalculate,       ///< the expression is computed, nothing is asked
    ipmCalculateAndAsk, ///< computed, then offered to the user
    ipmAsk              ///< the expression text is offered as it stands
};

/// One parameter of an import.
class TKvIParameter : public TCollectionItem {
public:
    const std::string& Caption() const { return caption_; }
    void SetCaption(const std::string& v) { caption_ = v; }
    const std::string& Name() const { return name_; }
    /// The caption follows the name as long as it was equal to it.
    void SetName(const std::string& v);
    const std::string& Expression() const { return expression_; }
    void SetExpression(const std::string& v) { expression_ = v; }
    const std::string& Description() const { return description_; }
    void SetDescription(const std::string& v) { description_ = v; }
    TStringList& ParamPromptValues() { return promptValues_; }
    const TStringList& ParamPromptValues() const { return promptValues_; }
    void SetParamPromptValues(const TStringList& v) { promptValues_.Assign(v); }
    TKvIParameterEditor ParameterEditor() const { return editor_; }
    void SetParameterEditor(TKvIParameterEditor v) { editor_ = v; }
    TKvIParameterMode ParameterMode() const { return mode_; }
    void SetParameterMode(TKvIParameterMode v) { mode_ = v; }
    bool Required() const { return required_; }
    void SetRequired(bool v) { required_ = v; }

    /// The value of the current run (not stored).
    Variant Value;

    void Assign(const TPersistent& source) override;
    std::string ClassName() const override { return "TKvIParameter"; }

private:
    std::string caption_, name_, expression_, description_;
    TStringList promptValues_;
    TKvIParameterEditor editor_ = ipeEdit;
    TKvIParameterMode mode_ = ipmCalculateAndAsk;
    bool required_ = false;
};

/// The parameters of an import component.
class TKvIParameters : public TCollection<TKvIParameter> {
public:
    using TCollection<TKvIParameter>::TCollection;
    /// A new parameter named "Parameter" followed by the count after insertion.
    TKvIParameter& Add();
    /// The first parameter whose name equals `name` exactly (case-sensitive), or nullptr.
    TKvIParameter* ParamByName(std::string_view name);
    const TKvIParameter* ParamByName(std::string_view name) const;
    std::string ClassName() const override { return "TKvIParameters"; }
};

/// Gives every parameter its value before a run: computed by `evaluate`, taken as text, or asked through
/// the front end's prompt. False when the user cancels (or a prompt is needed and nobody can answer).
bool AskParameters(TKvIParameters& parameters, const std::function<Variant(const std::string&)>& evaluate);

} // namespace kv
