#include "expression/KvIParams.h"

#include "expression/KvIParsConst.h"
#include "platform/FrontEnd.h"
#include "platform/SysUtils.h"

namespace kv {

void TKvIParameter::SetName(const std::string& v) {
    if (caption_ == name_) caption_ = v;
    name_ = v;
}

void TKvIParameter::Assign(const TPersistent& source) {
    const auto* other = dynamic_cast<const TKvIParameter*>(&source);
    if (!other) return TCollectionItem::Assign(source);
    caption_ = other->caption_;
    name_ = other->name_;
    expression_ = other->expression_;
    description_ = other->description_;
    promptValues_.Assign(other->promptValues_);
    editor_ = other->editor_;
    mode_ = other->mode_;
    required_ = other->required_;
}

TKvIParameter& TKvIParameters::Add() {
    TKvIParameter& parameter = TCollection<TKvIParameter>::Add();
    parameter.SetName("Parameter" + IntToStr(Count()));
    return parameter;
}

TKvIParameter* TKvIParameters::ParamByName(std::string_view name) {
    for (int i = 0; i < Count(); ++i)
        if (Items(i).Name() == name) return &Items(i);
    return nullptr;
}

const TKvIParameter* TKvIParameters::ParamByName(std::string_view name) const {
    return const_cast<TKvIParameters*>(this)->ParamByName(name);
}

bool AskParameters(TKvIParameters& parameters, const std::function<Variant(const std::string&)>& evaluate) {
    std::vector<TPromptField> fields;
    std::vector<TKvIParameter*> asked;
    for (int i = 0; i < parameters.Count(); ++i) {
        TKvIParameter& p = parameters.Items(i);
        if (p.Expression().empty())
            p.Value = Variant::Null();
        else if (p.ParameterMode() == ipmAsk)
            p.Value = Variant(p.Expression());
        else
            p.Value = evaluate(p.Expression());
        if (p.ParameterMode() == ipmCalculate) continue;

        TPromptField field;
        field.Caption = p.Caption();
        field.Hint = p.Description();
        field.Editor = static_cast<TPromptEditor>(p.ParameterEditor());
        for (const std::string& choice : p.ParamPromptValues()) field.Choices.push_back(choice);
        field.Required = p.Required();
        field.Text = p.Value.AsString();
        field.Checked = SameText(field.Text, strTrue) || SameText(field.Text, "True");
        fields.push_back(std::move(field));
        asked.push_back(&p);
    }
    if (asked.empty()) return true;
    if (!FrontEnd().PromptValues(strAPCaption, fields)) return false;
    for (size_t i = 0; i < asked.size(); ++i) {
        const TPromptField& field = fields[i];
        std::string text = field.Editor == peCheckBox ? (field.Checked ? strTrue : strFalse) : field.Text;
        if (field.Required && text.empty()) return false;
        asked[i]->Value = Variant(text);
    }
    return true;
}

} // namespace kv
