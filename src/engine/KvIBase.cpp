// The base component's settings: construction, setters that keep kinds and characters in step, Assign,
// and the static helpers.

#include "engine/KvIBase.h"

#include "engine/Impcnst.h"
#include "platform/Streams.h"
#include "platform/SysUtils.h"

#include <algorithm>

namespace kv {

TKvImportBaseComponent::TKvImportBaseComponent(TComponent* owner)
    : TComponent(owner), parameters_(this), columns_(this) {
    dataFormats_.LoadRegionalSettings();
    dataFormats_.BooleanTrue = strTrue;
    dataFormats_.BooleanFalse = strFalse;
    titleStatus_ = strImporting;
    specFileName_ = "KvImport" + Extension();
}

TKvImportBaseComponent::~TKvImportBaseComponent() = default;

std::string TKvImportBaseComponent::About() const {
    return "kvimport data import components 0.1";
}

void TKvImportBaseComponent::SetDataSet(TDataSet* dataSet) {
    if (dataSet_ == dataSet) return;
    if (dataSet_) RemoveFreeNotification(dataSet_);
    dataSet_ = dataSet;
    if (!dataSet_) return;
    FreeNotification(dataSet_);
    if (datasetKeys_.empty()) {
        if (std::optional<std::string> keys = dataSet_->PublishedProperty("IndexFieldName"))
            datasetKeys_ = *keys;
    }
}

void TKvImportBaseComponent::Notification(TComponent* component, TOperation operation) {
    TComponent::Notification(component, operation);
    if (operation != opRemove) return;
    if (component == dataSet_) dataSet_ = nullptr;
    std::erase_if(lookupTables_, [component](const auto& entry) { return entry.second == component; });
}

void TKvImportBaseComponent::RegisterLookupTable(const std::string& name, TDataSet* table) {
    for (auto it = lookupTables_.begin(); it != lookupTables_.end(); ++it) {
        if (!SameText(it->first, name)) continue;
        TDataSet* old = it->second;
        lookupTables_.erase(it);
        const bool stillUsed =
            old == dataSet_ || std::any_of(lookupTables_.begin(), lookupTables_.end(),
                                           [old](const auto& e) { return e.second == old; });
        if (!stillUsed) RemoveFreeNotification(old);
        break;
    }
    if (!table) return;
    FreeNotification(table);
    lookupTables_.emplace_back(name, table);
}

std::string TKvISourceLocation::Text() const {
    if (!Sheet.empty()) return Sheet + (Cell.empty() ? " row " + IntToStr(Record) : "!" + Cell);
    if (Line > 0) return "line " + IntToStr(Line);
    return "record " + IntToStr(Record);
}

std::string TKvImportBaseComponent::ColumnReference(int index, bool byNumber) const {
    const std::string& name = columns_.Columns(index).FieldName;
    // A name of letters, digits, "_" and "." that starts with neither a digit nor "." reads as itself; any
    // other ("2019", "Qty-2", "Last Name") would be read as a number or an expression.
    bool plain = !name.empty() && !(name[0] >= '0' && name[0] <= '9') && name[0] != '.';
    bool bracketable = !name.empty();
    for (unsigned char c : name) {
        if (!(c >= 0x80 || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
              c == '_' || c == '.'))
            plain = false;
        if (c == '"' || c == '\'' || c == ']') bracketable = false;
    }
    if (plain) return name;
    if (bracketable || !byNumber) return "[" + name + "]";
    return strField + IntToStr(static_cast<int64_t>(index) + 1);
}

void TKvImportBaseComponent::AddWarning(TKvIWarning warning) {
    warnings_.push_back(std::move(warning));
    if (OnWarning) OnWarning(this, warnings_.back());
}

bool TKvImportBaseComponent::HadProblems() const {
    if (statistic_.TotalErrors > 0) return true;
    for (const TKvIWarning& w : warnings_)
        if (w.Problem) return true;
    return false;
}

void TKvImportBaseComponent::SetFieldDelimiter(TKvIFieldDelimiter kind) {
    fieldDelimiter_ = kind;
    switch (kind) {
    case fdNone:
        fieldDelimiterCustom_ = 0;
        break;
    case fdTab:
        fieldDelimiterCustom_ = 9;
        break;
    case fdSemicolon:
        fieldDelimiterCustom_ = U';';
        break;
    case fdComma:
        fieldDelimiterCustom_ = U',';
        break;
    case fdSpace:
        fieldDelimiterCustom_ = U' ';
        break;
    case fdCustom:
        break;
    }
}

void TKvImportBaseComponent::SetFieldDelimiterCustom(char32_t c) {
    fieldDelimiterCustom_ = c;
    switch (c) {
    case 0:
        fieldDelimiter_ = fdNone;
        break;
    case 9:
        fieldDelimiter_ = fdTab;
        break;
    case U';':
        fieldDelimiter_ = fdSemicolon;
        break;
    case U',':
        fieldDelimiter_ = fdComma;
        break;
    case U' ':
        fieldDelimiter_ = fdSpace;
        break;
    default:
        fieldDelimiter_ = fdCustom;
        break;
    }
}

void TKvImportBaseComponent::SetTextQualifier(TKvITextQualifier kind) {
    textQualifier_ = kind;
    switch (kind) {
    case tqNone:
        textQualifierCustom_ = 0;
        break;
    case tqQuot:
        textQualifierCustom_ = 34;
        break;
    case tqApos:
        textQualifierCustom_ = 39;
        break;
    case tqCustom:
        break;
    }
}

void TKvImportBaseComponent::SetTextQualifierCustom(char32_t c) {
    textQualifierCustom_ = c;
    textQualifier_ = c == 0 ? tqNone : c == 34 ? tqQuot : c == 39 ? tqApos : tqCustom;
}

void TKvImportBaseComponent::SetRecordSeparator(TKvIRecordSeparator kind) {
    recordSeparator_ = kind;
    switch (kind) {
    case rsCRLF:
        recordSeparatorCustom_ = "\r\n";
        break;
    case rsCR:
        recordSeparatorCustom_ = "\r";
        break;
    case rsLF:
        recordSeparatorCustom_ = "\n";
        break;
    case rsCustom:
        break;
    }
}

void TKvImportBaseComponent::SetRecordSeparatorCustom(const std::string& text) {
    recordSeparatorCustom_ = text;
    recordSeparator_ = text == "\r\n" ? rsCRLF : text == "\r" ? rsCR : text == "\n" ? rsLF : rsCustom;
}

void TKvImportBaseComponent::Assign(const TPersistent& source) {
    const auto* s = dynamic_cast<const TKvImportBaseComponent*>(&source);
    if (!s) return TComponent::Assign(source);
    tableType_ = s->tableType_;
    animatedStatus_ = s->animatedStatus_;
    actionKind_ = s->actionKind_;
    SetDataSet(s->dataSet_);
    datasetKeys_ = s->datasetKeys_;
    fixed_ = s->fixed_;
    useDisplayNames_ = s->useDisplayNames_;
    SetRecordSeparatorCustom(s->recordSeparatorCustom_);
    SetFieldDelimiterCustom(s->fieldDelimiterCustom_);
    SetTextQualifierCustom(s->textQualifierCustom_);
    rowFirst_ = s->rowFirst_;
    rowLast_ = s->rowLast_;
    rowFieldNames_ = s->rowFieldNames_;
    mappings_.Clear();
    for (const std::string& line : s->mappings_) mappings_.Add(line);
    parameters_.Assign(s->parameters_);
    mode_ = s->mode_;
    options_ = s->options_;
    specFileName_ = s->specFileName_;
    characterSet_ = s->characterSet_;
    trimSpaces_ = s->trimSpaces_;
    titleStatus_ = s->titleStatus_;
    OnCreateStructure = s->OnCreateStructure;
    OnErrorEvent = s->OnErrorEvent;
    OnGetCellParams = s->OnGetCellParams;
    OnParsedValue = s->OnParsedValue;
    OnParserEvaluate = s->OnParserEvaluate;
    OnBeforeRecordEvent = s->OnBeforeRecordEvent;
    OnAfterRecordEvent = s->OnAfterRecordEvent;
    OnLocateRecord = s->OnLocateRecord;
    OnBeforeUpdate = s->OnBeforeUpdate;
    OnBeforeFieldUpdate = s->OnBeforeFieldUpdate;
    statistic_.Assign(s->statistic_);
    dataFormats_.Assign(s->dataFormats_);
    loadCondition_.Assign(s->loadCondition_);
    sqlOptions_.Assign(s->sqlOptions_);
    commitCount_ = s->commitCount_;
    OnStartTransaction = s->OnStartTransaction;
    OnFinishTransaction = s->OnFinishTransaction;
}

TKvIDataType TKvImportBaseComponent::GetKvIDataType(TFieldType type) {
    switch (type) {
    case ftSmallint:
    case ftInteger:
    case ftWord:
    case ftAutoInc:
        return itInteger;
    case ftBoolean:
        return itBoolean;
    case ftFloat:
    case ftCurrency:
    case ftBCD:
        return itFloat;
    case ftDate:
        return itDate;
    case ftTime:
        return itTime;
    case ftDateTime:
        return itDateTime;
    default:
        return itString;
    }
}

std::string TKvImportBaseComponent::GetDefExt(int index) {
    // One behind the format list from 10 on: the file dialogs have no entry for ADO connections.
    static const char* const extensions[] = {".DB",  ".DBF", ".TXT", ".HTM", ".XLS", ".WK1", ".WQ1",
                                             ".XML", ".MDB", "",     ".SAV", ".ADT", ".DAT", ".DAT"};
    if (index < 0 || index >= static_cast<int>(sizeof extensions / sizeof extensions[0])) return {};
    return extensions[index];
}

TImportFormatTypes TKvImportBaseComponent::GetAvailableImportFormats() {
    TImportFormatTypes all;
    for (int t = 0; t < TableTypeCount; ++t) all.Include(static_cast<TTableTypeImport>(t));
    return all;
}

std::string TKvImportBaseComponent::GetTableName() const {
    return tableName_.empty() ? GetParsedTableName(dataSet_) : tableName_;
}

std::string TKvImportBaseComponent::GetParsedTableName(const TDataSet* dataSet) {
    if (!dataSet) return {};
    std::string name;
    if (auto table = dataSet->PublishedProperty("TableName")) {
        name = *table;
    } else if (auto command = dataSet->PublishedProperty("CommandText")) {
        name = *command;
    } else if (auto sql = dataSet->PublishedProperty("SQL")) {
        const std::string upper = UpperCase(*sql);
        size_t from = upper.find("FROM ");
        if (from != std::string::npos) {
            name = sql->substr(from + 5);
            size_t end = name.size();
            for (const char* stop : {" ", "\r", "\n"}) end = std::min(end, name.find(stop));
            end = std::min(end, UpperCase(name).find("WHERE "));
            name = name.substr(0, end);
        }
    }
    size_t dot = name.find('.');
    return dot == std::string::npos ? name : name.substr(0, dot);
}

std::string TKvImportBaseComponent::FillFileFilters() const {
    return strAllFiles;
}

bool TKvImportBaseComponent::NotDefined(std::string& propName) {
    if (dataSet_) return false;
    propName = "DataSet";
    return true;
}

void TKvImportBaseComponent::BeforeImport() {
    if (dataFormats_.UseRegionalSettings) dataFormats_.LoadRegionalSettings();
}

bool TKvImportBaseComponent::AskParameters() {
    return kv::AskParameters(parameters_, [this](const std::string& expression) {
        std::exception_ptr error;
        std::unique_ptr<TKvIParser> parser = MakeParser(expression, error);
        TField* saved = convertingField_;
        convertingField_ = nullptr;
        try {
            Variant v = Compute(*parser, error);
            convertingField_ = saved;
            return v;
        } catch (...) {
            convertingField_ = saved;
            throw;
        }
    });
}

void TKvImportBaseComponent::LoadFromStream(TStream& stream) {
    sourceStream_ = &stream;
    try {
        Execute();
    } catch (...) {
        sourceStream_ = nullptr;
        throw;
    }
    sourceStream_ = nullptr;
}

void TKvImportBaseComponent::DescribeColumns() {
    describing_ = true;
    try {
        BeforeImport();
    } catch (...) {
        describing_ = false;
        throw;
    }
    try {
        columns_.Clear();
        DetectAutoMapping();
    } catch (...) {
        describing_ = false;
        AfterImport();
        throw;
    }
    AfterImport();
    describing_ = false;
}

} // namespace kv
