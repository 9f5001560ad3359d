// Mappings: the proposal of a mapping from the source's columns, the table of mapping entries a run
// computes with, the key positions, and the value of one mapping line for the current row.

#include "engine/Impcnst.h"
#include "engine/KvIBase.h"
#include "platform/SysUtils.h"

namespace kv {

std::string TKvImportBaseComponent::GetColumnFieldName(int index) const {
    return ColumnReference(index, false);
}

void TKvImportBaseComponent::DetectAutoMapping() {
    if (!dataSet_) return;
    if (!dataSet_->Active()) dataSet_->Open();
    for (int i = 0; i < dataSet_->FieldCount(); ++i) AddColumnFor(dataSet_->Fields(i), true);
}

void TKvImportBaseComponent::AddColumnFor(const TField& field, bool withCaption) {
    TKvIColumn& c = columns_.Add();
    c.FieldName = field.FieldName();
    if (withCaption) c.Caption = field.DisplayLabel();
    c.DataType = GetKvIDataType(field.DataType());
    c.Alignment = field.Alignment();
    c.Size = field.Size();
    if (field.DataType() == ftFloat) c.Precision = field.Precision(); // only floats carry a precision here
}

void TKvImportBaseComponent::Columns2Mapping() {
    mappings_.Clear();
    if (!dataSet_) return;
    if (!dataSet_->Active()) dataSet_->Open();
    const int fieldCount = dataSet_->FieldCount();

    for (int c = 0; c < columns_.Count(); ++c) {
        const TKvIColumn& column = columns_.Columns(c);
        const bool hasBlank = column.FieldName.find(' ') != std::string::npos;
        for (int f = 0; f < fieldCount; ++f) {
            const TField& field = dataSet_->Fields(f);
            if (field.ReadOnly()) continue;
            bool match = CompareText(column.FieldName, field.FieldName()) == 0;
            if (!match && hasBlank)
                match = SameText(column.FieldName, "[" + field.FieldName() + "]") ||
                        SameText(column.FieldName, "\"" + field.FieldName() + "\"");
            if (!match && useDisplayNames_)
                match = SameText(column.FieldName.empty() ? column.Caption : column.FieldName,
                                 field.DisplayLabel());
            if (match) {
                mappings_.Add(field.FieldName() + "=" + GetColumnFieldName(c));
                break;
            }
        }
    }

    if (mappings_.Count() < fieldCount) {
        int k = 0;
        for (int f = 0; f < fieldCount; ++f) {
            const TField& field = dataSet_->Fields(f);
            if (!field.Visible() || field.ReadOnly()) continue;
            if (mappings_.IndexOfName(field.FieldName()) < 0)
                mappings_.Insert(std::min(k, mappings_.Count()), field.FieldName() + "=");
            ++k;
        }
    }

    if (mappings_.Empty())
        for (int c = 0; c < columns_.Count() && c < fieldCount; ++c)
            mappings_.Add(dataSet_->Fields(c).FieldName() + "=" + GetColumnFieldName(c));
}

int TKvImportBaseComponent::GetFieldItem(const std::string& name) const {
    return mappingTable_.FieldItem(name);
}

void TKvImportBaseComponent::BuildFieldMapping() {
    FillKey4Locate();
    FillKey4Values();
}

void TKvImportBaseComponent::FillKey4Locate() {
    mappingTable_.SetKeys(datasetKeys_);
}

void TKvImportBaseComponent::FillKey4Values() {
    mappingTable_.KeyValues(rowValues_, keyValues_);
}

std::unique_ptr<TKvIParser> TKvImportBaseComponent::MakeParser(const std::string& text,
                                                               std::exception_ptr& error) {
    return TKvIMappingTable::ParseOnce(
        text,
        [this](TObject* sender, const std::string& eval, const std::vector<Variant>& args, int argCount,
               bool isChild, Variant& value,
               bool& done) { ParserEvaluate(sender, eval, args, argCount, isChild, value, done); },
        error);
}

Variant TKvImportBaseComponent::Compute(TKvIParser& parser, std::exception_ptr error) {
    if (error) std::rethrow_exception(error);
    return parser.Calculate();
}

void TKvImportBaseComponent::BuildArrayIntersection() {
    TKvIMappingHooks hooks;
    hooks.MakeParser = [this](const std::string& text, std::exception_ptr& error) {
        return MakeParser(text, error);
    };
    hooks.IsWholeReference = [this](std::string_view source) { return IsWholeReference(source); };
    // A user function's name is computed by the function, not read from the source, unless the source has a
    // column of that name.
    hooks.IsPlainColumn = [this](const std::string& name) {
        return !StatisticCounter(name) && (!lstKvIRegFunctions.FunctionByName(name) || HasSourceColumn(name));
    };
    mappingTable_.Build(mappings_, dataSet_, hooks);
    loadWhenParser_.reset();
    skipIfParser_.reset();
    rowValues_.assign(mappingTable_.Count(), Variant::Null());
}

Variant TKvImportBaseComponent::GetParsedValue(const Variant& value, int index) {
    std::string converted;
    const std::string& text = value.IsString() ? value.StringRef() : (converted = value.AsString());
    // A mapping entry's own text was looked at once, when the entry was made.
    const bool ownText =
        index >= 0 && static_cast<size_t>(index) < mappingTable_.Count() &&
        text.data() == mappingTable_[static_cast<size_t>(index)].SourceValue.StringRef().data();
    const bool wholeReference =
        ownText ? mappingTable_[static_cast<size_t>(index)].WholeReference : IsWholeReference(text);
    if (wholeReference) {
        // "Text1-10" is a column reference, not a subtraction: resolve it as one name.
        Variant v(text);
        bool done = false;
        ParserEvaluate(this, text, {}, 0, false, v, done);
        return v;
    }
    if (index >= 0 && static_cast<size_t>(index) < mappingTable_.Count()) {
        TKvIMapEntry& entry = mappingTable_[static_cast<size_t>(index)];
        const bool same = ownText || text == entry.Source;
        if (same && entry.PlainColumn && !OnParserEvaluate && !OnParsedValue &&
            !parameters_.ParamByName(entry.Name)) {
            // A source column and nothing else to ask: the handler's own steps for it, done directly.
            Variant v = GetFieldValue(entry.NameValue);
            FinishValue(v, false, entry.Parser.get());
            return v;
        }
        if (same && entry.HostName) {
            // A plain column name: what the tree would do for its one name, without walking it. The
            // parser asks this component's handler first; a name the handler claims needs nothing else.
            static const std::vector<Variant> noArguments;
            Variant v(entry.Name);
            bool done = false;
            ParserEvaluate(entry.Parser.get(), entry.Name, noArguments, 0, false, v, done);
            if (!done) { // the handler left the name to the user functions, as the parser would
                if (TKvIParserFunction* function = lstKvIRegFunctions.FunctionByName(entry.Name)) {
                    function->ApplyArguments({}, 0);
                    v = function->Calculate(entry.Parser.get());
                }
            }
            return v;
        }
        if (same) return Compute(*entry.Parser, entry.ParseError);
    }
    if (index < 0 && loadWhenParser_ && loadWhenParser_->Text() == text)
        return Compute(*loadWhenParser_, loadWhenError_);
    if (index < 0 && skipIfParser_ && skipIfParser_->Text() == text)
        return Compute(*skipIfParser_, skipIfError_);
    std::exception_ptr error;
    std::unique_ptr<TKvIParser> parser = MakeParser(text, error);
    return Compute(*parser, error);
}

} // namespace kv
