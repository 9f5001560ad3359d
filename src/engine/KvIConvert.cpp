// Value conversion: the evaluation handler that resolves the names of mappings and conditions (LOOKUP,
// SUBSTITUTE, system variables, parameters, source columns) and turns source text into the type of the
// destination field by the data formats.

#include "engine/Impcnst.h"
#include "engine/KvIBase.h"
#include "engine/KvIMIME.h"
#include "platform/DateUtils.h"
#include "platform/Exceptions.h"
#include "platform/Format.h"
#include "platform/FormatSettings.h"
#include "platform/SysUtils.h"
#include "platform/Utf8.h"

namespace kv {

namespace {

void StripPair(std::string& s, char open, char close) {
    if (s.size() >= 2 && s.front() == open && s.back() == close) s = s.substr(1, s.size() - 2);
}

std::string CharText(char32_t c) {
    return c ? Utf8Encode(c) : std::string();
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

bool IsIntegerType(TFieldType t) {
    return t == ftSmallint || t == ftInteger || t == ftWord || t == ftAutoInc || t == ftLargeint;
}

} // namespace

std::string TKvImportBaseComponent::BuildTimeFormat(bool withT) const {
    const std::string sep = CharText(dataFormats_.TimeSeparator);
    return std::string(withT ? "T" : "") + "HH" + sep + "NN" + sep + "SS";
}

std::string TKvImportBaseComponent::BuildDTFormat() const {
    if (!dataFormats_.CustomDateTimeFormat.empty()) return Utf8UpperCase(dataFormats_.CustomDateTimeFormat);
    const std::string sep = CharText(dataFormats_.DateSeparator);
    const std::string y = dataFormats_.FourDigitYear ? "YYYY" : "YY";
    const char* order[6][3] = {{"MM", "DD", "Y"}, {"DD", "MM", "Y"}, {"Y", "MM", "DD"},
                               {"Y", "DD", "MM"}, {"DD", "Y", "MM"}, {"MM", "Y", "DD"}};
    std::string date;
    for (int i = 0; i < 3; ++i) {
        const std::string part = order[dataFormats_.DateOrder][i];
        if (i) date += sep;
        date += part == "Y" ? y : part;
    }
    return date + " " + BuildTimeFormat(DateTimeHasT());
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

void TKvImportBaseComponent::UnquoteName(Variant& value) {
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

void TKvImportBaseComponent::ParserEvaluate(TObject* sender, const std::string& eval,
                                            const std::vector<Variant>& args, int argCount, bool isChild,
                                            Variant& value, bool& done) {
    done = argCount == 0;
    UnquoteName(value);
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
    if (value.IsString()) {
        switch (trimSpaces_) {
        case tsTrimRight:
            value = Variant(TrimRight(value.StringRef()));
            break;
        case tsTrimLeft:
            value = Variant(TrimLeft(value.StringRef()));
            break;
        case tsTrimLeftRight:
            value = Variant(Trim(value.StringRef()));
            break;
        case tsNoTrim:
            break;
        }
    }
    // Only texts (and byte strings) can have an empty text; a number or a date never does.
    const bool textual = value.IsString() || value.VarType() == varBytes;
    if (value.IsNullOrEmpty() || (textual && value.StringRef().empty())) {
        value = Variant::Null();
        return;
    }
    if (!isChild && convertingField_) ConvertForField(*convertingField_, value, isChild, sender);
}

namespace {

// The reader of `mask`, made again only when the separators it was made with have changed.
const TKvDateMask& MaskReader(std::unique_ptr<TKvDateMask>& reader, const std::string& mask,
                              char32_t dateSeparator, char32_t timeSeparator) {
    if (!reader || reader->DateSeparator() != dateSeparator || reader->TimeSeparator() != timeSeparator)
        reader = std::make_unique<TKvDateMask>(mask, dateSeparator, timeSeparator);
    return *reader;
}

} // namespace

TDateTime TKvImportBaseComponent::ReadByMask(std::string_view text, const std::string& mask,
                                             std::unique_ptr<TKvDateMask>& reader) {
    return MaskReader(reader, mask, dataFormats_.DateSeparator, dataFormats_.TimeSeparator).Read(text);
}

void TKvImportBaseComponent::ConvertForField(TField& field, Variant& value, bool isChild, TObject* sender) {
    (void)sender;
    (void)isChild; // only the whole expression's value comes here
    const TFieldType type = field.DataType();
    if (value.IsString()) {
        const std::string& s = value.StringRef();
        if (!BLOBIsMIME()) {
            if (s.rfind("[CDATA[", 0) == 0)
                value = Variant(s.size() >= 9 ? s.substr(7, s.size() - 9) : std::string());
        } else if (s.rfind("[CDATA[", 0) == 0) {
            value = Variant::FromBytes(
                Decode64(s.size() >= 9 ? std::string_view(s).substr(7, s.size() - 9) : ""));
        } else if (field.IsBlob()) {
            value = Variant::FromBytes(Decode64(s));
        }
    }
    if (!value.IsString()) return;

    // Every branch reads the text before it replaces the value, and never after. Text that fits no value
    // of the field's type is a row error, or stays the text it is for a destination that keeps it.
    const std::string& text = value.StringRef();
    const std::string_view trimmed = TrimView(text);
    const auto unconverted = [&](const std::string& message) {
        if (!keepUnconverted_) throw EConvertError(Format(message, text));
    };
    if (type == ftBoolean) {
        if (text == dataFormats_.BooleanTrue || text == "True" || text == "1" || text == "T" || text == "Y")
            value = Variant(true);
        else if (text == dataFormats_.BooleanFalse || text == "False" || text == "0" || text == "F" ||
                 text == "N")
            value = Variant(false);
        else if (text == "-1")
            value = Variant::Null(); // deliberately: "-1" is no answer
    } else if (IsIntegerType(type) || type == ftFloat || type == ftCurrency || type == ftBCD) {
        if (trimmed.empty()) {
            value = Variant::Null(); // blanks are no number
            return;
        }
        TDecimalText format;
        format.DecimalSeparator = dataFormats_.DecimalSeparator;
        format.ThousandSeparator = dataFormats_.ThousandSeparator;
        format.CurrencyString = dataFormats_.CurrencyString;
        if (IsIntegerType(type)) {
            int64_t n;
            if (TryReadDecimalInt64(trimmed, n, format))
                value = Variant::FromInt(n);
            else
                unconverted(strNotAnInteger);
            return;
        }
        double d;
        if (TryReadDecimalFloat(trimmed, d, format))
            value = Variant(d);
        else if (IsWord(trimmed, "NULL"))
            value = Variant::Null();
        else
            unconverted(strNotAFloat);
    } else if (type == ftDate || type == ftDateTime) {
        bool onlySeparators = true;
        for (size_t pos = 0; pos < text.size() && onlySeparators;) {
            const char32_t c = Utf8Decode(text, pos);
            onlySeparators = c <= U' ' || c == U'/' || c == U':' || c == dataFormats_.DateSeparator ||
                             c == dataFormats_.TimeSeparator;
        }
        if (onlySeparators) {
            value = Variant::Null();
            return;
        }
        // A zone is no part of a date-time value: the text goes on whole, to be stored as it is.
        if (trimmed.size() > 10 && IsIsoDateTimeWithZone(trimmed)) return; // a date alone has no zone
        if (dateMask_.empty()) dateMask_ = BuildDTFormat();
        TDateTime dt;
        if (MaskReader(dateReader_, dateMask_, dataFormats_.DateSeparator, dataFormats_.TimeSeparator)
                .TryRead(trimmed, dt) ||
            TryISO8601ToDateTime(trimmed, dt))
            value = Variant::FromDateTime(dt);
        else
            unconverted(strNotADate);
    } else if (type == ftTime) {
        if (trimmed.empty()) {
            value = Variant::Null();
            return;
        }
        if (timeMask_.empty()) timeMask_ = BuildTimeFormat(false);
        TDateTime dt;
        if (!MaskReader(timeReader_, timeMask_, dataFormats_.DateSeparator, dataFormats_.TimeSeparator)
                 .TryRead(trimmed, dt))
            dt = 0; // unreadable time text is midnight, unlike dates
        value = Variant::FromDateTime(dt);
    }
}

} // namespace kv
