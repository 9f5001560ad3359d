// The run of an import: Execute, the row loop with its modes, key lookup, transactions, error rule and
// statistic, and the loading of one record.

#include "engine/Impcnst.h"
#include "engine/KvIBase.h"
#include "engine/KvIUtils.h"
#include "platform/DateUtils.h"
#include "platform/Format.h"
#include "platform/FrontEnd.h"
#include "platform/Streams.h"
#include "platform/SysUtils.h"

#include <algorithm>

namespace kv {

namespace {

bool IsKeyedMode(TImportMode mode) {
    return mode == imUpdate || mode == imAppendUpdate || mode == imDelete || mode == imAppendNewOnly;
}

// A value of the kind a field of `type` holds, which storing it would leave as it is.
bool OfFieldKind(const Variant& value, TFieldType type) {
    switch (value.VarType()) {
    case varString:
        return IsTextType(type);
    case varBoolean:
        return type == ftBoolean;
    case varInteger:
    case varInt64:
        return type == ftInteger || type == ftAutoInc;
    case varDouble:
        return type == ftFloat || type == ftCurrency || type == ftBCD || type == ftFMTBcd;
    case varDate:
        return type == ftDateTime || type == ftTimeStamp;
    default:
        return false;
    }
}

TProgressState ProgressOf(const TKvIStatistic& s, double fraction = -1) {
    TProgressState p;
    p.Processed = s.TotalImported;
    p.Total = s.TotalCount;
    p.Fraction = s.TotalCount > 0 ? -1 : fraction;
    p.Added = s.TotalAdded;
    p.Updated = s.TotalUpdated;
    p.Deleted = s.TotalDeleted;
    p.Errors = s.TotalErrors;
    p.Skipped = s.TotalSkipped;
    return p;
}

// The failure of one guarded block: its exception, kept so that it can be passed on unchanged.
struct Failure {
    std::exception_ptr error;
    const std::exception* what = nullptr;
};

} // namespace

void TKvImportBaseComponent::Execute() {
    statistic_.Result = irUnknown;
    if (OnBeforeExecute) OnBeforeExecute(this);

    std::string propName;
    if (NotDefined(propName)) throw Exception(Format(strPropertyError, propName));
    if (datasetKeys_.empty() && IsKeyedMode(mode_)) throw Exception(Format(strPropertyError, datasetKeys_));

    warnings_.clear();
    errorPlace_ = {};
    if (!AskParameters()) {
        // A user who canceled the prompt knows; a prompt nobody could answer is said, so that the caller
        // is not left guessing.
        if (!HasFrontEnd()) {
            statistic_.Result = irCanceled;
            lastMessage_ = strNoParameterPrompt;
        }
        return;
    }

    IKvFrontEnd& ui = FrontEnd();
    std::string message;
    bool madeMapping = false;
    try {
        BeforeImport();
        if (!dataSet_->Active()) dataSet_->Open();
        if (animatedStatus_)
            ui.CreateProgressDlg(titleStatus_, strImporting, options_.Contains(soExtendedStatistic));
        if (mappings_.Empty()) {
            columns_.Clear();
            DetectAutoMapping();
            if (OnCreateStructure) OnCreateStructure(this, columns_);
            if (mappings_.Empty()) {
                Columns2Mapping();
                madeMapping = true;
            }
        }
        try {
            CheckSomethingMapped();
            Prepare();
        } catch (...) {
            if (madeMapping) mappings_.Clear();
            throw;
        }
        if (madeMapping) mappings_.Clear();
        if (ui.ProgressCanceled() || canceled_) {
            message = strImportCanceled;
            statistic_.Result = irCanceled;
        } else {
            message = HadProblems() ? strImportProblems : strImportFinished;
            statistic_.Result = irExecuted;
        }
    } catch (const std::exception& e) {
        message = strImportError + "\r\n" +
                  (dynamic_cast<const Exception*>(&e) ? static_cast<const Exception&>(e).Message()
                                                      : std::string(e.what()));
        statistic_.Result = irFailed;
    }
    lastMessage_ = message;
    if (animatedStatus_) {
        ui.FinishProgressDlg(message, ProgressOf(statistic_), !options_.Contains(soAutoCloseStatistic));
        ui.DestroyProgressDlg();
    } else if (options_.Contains(soShowMessage)) {
        ui.ShowMessage(message);
    }
    AfterImport();
    if (OnAfterExecute) OnAfterExecute(this);
}

void TKvImportBaseComponent::ResetRunState() {
    statistic_.TotalCount = statistic_.TotalImported = statistic_.TotalAdded = statistic_.TotalDeleted = 0;
    statistic_.TotalUpdated = statistic_.TotalErrors = statistic_.TotalSkipped = 0;
    statistic_.LastAction = iaUnknown;
    sqlOutput_.Script().Clear();
}

void TKvImportBaseComponent::Prepare() {
    if (OnStartTransaction) OnStartTransaction(this);
    // The first start leaves the flag clear: the first commit point starts again without finishing.
    inTransaction_ = false;
    BuildFieldMapping();
    BuildArrayIntersection();
    dataSet_->DisableControls();
    // Writes the dataset sends late are reported as the failures of their rows, until the run ends.
    struct TDeferredHandler {
        TDataSet& dataSet;
        decltype(TDataSet::OnDeferredError) previous;
        ~TDeferredHandler() { dataSet.OnDeferredError = std::move(previous); }
    } deferredHandler{*dataSet_, std::move(dataSet_->OnDeferredError)};
    deferredRows_.clear();
    deferredFailure_ = nullptr;
    if (actionKind_ == akDatasetApply)
        dataSet_->OnDeferredError = [this](int64_t tag, const std::exception& error) {
            DeferredWriteFailed(tag, error);
        };
    try {
        RunRows();
    } catch (...) {
        if (inTransaction_ && OnFinishTransaction) OnFinishTransaction(this);
        inTransaction_ = false;
        try {
            dataSet_->First();
        } catch (...) {
        }
        dataSet_->EnableControls();
        try {
            sqlOutput_.Finish(); // the statements of the rows done so far
        } catch (...) {
        }
        throw;
    }
    if (inTransaction_ && OnFinishTransaction) OnFinishTransaction(this);
    inTransaction_ = false;
    dataSet_->First(); // sends what the dataset still holds
    dataSet_->EnableControls();
    deferredRows_.clear();
    RaiseDeferredFailure();
    sqlOutput_.Finish();
}

void TKvImportBaseComponent::RunRows() {
    ResetRunState();
    // ISO dates may stay the text they are where the destination stores that very text for a date, and no
    // handler is there to see the value as a date.
    const bool isoDatesAsText = actionKind_ == akDatasetApply && dataSet_->StoresAnyValue() &&
                                !OnGetCellParams && !OnBeforeRecordEvent && !OnGetRowMode &&
                                !OnBeforeFieldUpdate && !OnParsedValue && !OnParserEvaluate;
    converter_.Start(DateTimeHasT(), BLOBIsMIME(), keepUnconverted_, isoDatesAsText);
    ResolveSourceColumns();
    auto finisher = std::make_shared<TKvIColumnFinisher>(dataFormats_, trimSpaces_);
    finisher->Converter().Start(DateTimeHasT(), BLOBIsMIME(), keepUnconverted_, isoDatesAsText);
    bool resolved = false;
    for (size_t i = 0; i < mappingTable_.Count(); ++i) {
        const TKvIMapEntry& entry = mappingTable_[i];
        if (entry.SourceHandle < 0) continue;
        finisher->SetColumn(entry.SourceHandle,
                            entry.Field ? std::optional(entry.Field->DataType()) : std::nullopt);
        resolved = true;
    }
    if (resolved) FinishColumnsAhead(std::move(finisher));
    runTableName_ = GetTableName();
    if (actionKind_ == akGenerateSQL)
        sqlOutput_.Begin(sqlOptions_, runTableName_, sqlFileName_, keepSqlScript_, sqlPrologue_);
    IKvFrontEnd& ui = FrontEnd();

    if (mode_ == imCopy) {
        // One statement where the dataset offers it, rather than one per row.
        const std::optional<int64_t> deleted =
            actionKind_ == akDatasetApply ? dataSet_->DeleteAll() : std::nullopt;
        if (deleted) statistic_.TotalDeleted = static_cast<int>(*deleted);
        if (!deleted) dataSet_->First();
        if (actionKind_ == akGenerateSQL) sqlOutput_.Add(sqlOutput_.Writer().DeleteAll());
        while (!deleted && !dataSet_->Eof()) {
            if (actionKind_ == akDatasetApply)
                dataSet_->Delete();
            else
                dataSet_->Next();
            ++statistic_.TotalDeleted;
        }
    }

    GoFirst();
    // A count that costs a pass waits until an expression asks for it (and the end of the run).
    const bool cheapCount = TotalCountIsCheap();
    if (cheapCount) statistic_.TotalCount = std::min(GetTotalCount(), rowLast_);
    const auto progress = [&] { return ProgressOf(statistic_, ReadFraction()); };
    if (animatedStatus_) ui.UpdateProgressDlg(progress());
    canceled_ = false;

    const int updateStep = statistic_.UpdateStep > 0 ? statistic_.UpdateStep : 1;
    while (!canceled_ && !ui.ProgressCanceled() && NeedMore()) {
        RaiseDeferredFailure();
        if (animatedStatus_ && statistic_.TotalImported % updateStep == 0) ui.UpdateProgressDlg(progress());
        ++statistic_.TotalImported;
        statistic_.LastAction = iaUnknown;
        if (commitCount_ > 0 && statistic_.TotalImported % commitCount_ == 0) {
            if (inTransaction_) {
                if (OnFinishTransaction) OnFinishTransaction(this);
                inTransaction_ = false;
            }
            if (OnStartTransaction) {
                OnStartTransaction(this);
                inTransaction_ = true;
            }
        }

        bool counted = false; // a failed write is counted where it failed
        try {
            if (!LoadRecord()) {
                ++statistic_.TotalSkipped;
            } else {
                TImportMode rowMode = mode_;
                if (OnGetRowMode) OnGetRowMode(this, Variant::FromArray(rowValues_), rowMode);
                bool exist = false;
                std::string keyCondition;
                if (IsKeyedMode(rowMode) && !datasetKeys_.empty()) {
                    Variant lookup = keyValues_.size() == 1 ? keyValues_[0] : Variant::FromArray(keyValues_);
                    exist = true;
                    bool executeLocate = true;
                    if (OnLocateRecord) OnLocateRecord(this, datasetKeys_, lookup, exist, executeLocate);
                    if (exist && executeLocate)
                        exist = dataSet_->Locate(datasetKeys_, lookup, TLocateOptions{});
                }
                if (OnBeforeUpdate) OnBeforeUpdate(this);
                switch (rowMode) {
                case imAppend:
                case imCopy:
                    statistic_.LastAction = iaAdd;
                    break;
                case imUpdate:
                    statistic_.LastAction = exist ? iaUpdate : iaUnknown;
                    break;
                case imAppendUpdate:
                    statistic_.LastAction = exist ? iaUpdate : iaAdd;
                    break;
                case imDelete:
                    statistic_.LastAction = exist ? iaDelete : iaUnknown;
                    break;
                case imAppendNewOnly:
                    statistic_.LastAction = exist ? iaUnknown : iaAdd;
                    break;
                }
                applyingField_ = nullptr;
                try {
                    if (actionKind_ == akDatasetApply) dataSet_->SetRowTag(statistic_.TotalImported);
                    ApplyRow();
                    if (actionKind_ == akDatasetApply) NoteDeferredRow();
                } catch (const std::exception& e) {
                    if (applyingField_) errorPlace_.Field = applyingField_->FieldName();
                    if (actionKind_ == akDatasetApply &&
                        (dataSet_->State() == dsEdit || dataSet_->State() == dsInsert))
                        dataSet_->Cancel();
                    ++statistic_.TotalErrors;
                    counted = true;
                    RollbackCounter(exist);
                    HandleError(e);
                }
            }
        } catch (const std::exception& e) {
            // A row that could not be read or located failed as surely as one that could not be written.
            if (!counted) ++statistic_.TotalErrors;
            HandleError(e);
        }
        errorPlace_ = {};

        canceled_ = false;
        if (OnAfterRecordEvent) OnAfterRecordEvent(this, canceled_);
        GoNext();
    }
    RaiseDeferredFailure();
    if (!cheapCount) statistic_.TotalCount = std::min(GetTotalCount(), rowLast_);
    if (animatedStatus_) ui.UpdateProgressDlg(progress());
}

void TKvImportBaseComponent::NoteDeferredRow() {
    const std::optional<int64_t> oldest = dataSet_->OldestDeferredTag();
    while (!deferredRows_.empty() && (!oldest || deferredRows_.front().Tag < *oldest))
        deferredRows_.pop_front();
    if (oldest && statistic_.LastAction != iaUnknown)
        deferredRows_.push_back({statistic_.TotalImported, statistic_.LastAction, SourceMark()});
}

void TKvImportBaseComponent::DeferredWriteFailed(int64_t tag, const std::exception& error) {
    TKvIAction action = statistic_.LastAction;
    TKvISourceLocation location;
    const auto noted = std::lower_bound(deferredRows_.begin(), deferredRows_.end(), tag,
                                        [](const TDeferredRow& r, int64_t t) { return r.Tag < t; });
    if (noted != deferredRows_.end() && noted->Tag == tag) {
        action = noted->Action;
        location = MarkedLocation(noted->Mark);
    } else if (tag == statistic_.TotalImported) { // the row being posted, refused with its batch
        location = SourceLocation();
    }
    switch (action) {
    case iaAdd:
        --statistic_.TotalAdded;
        break;
    case iaUpdate:
        --statistic_.TotalUpdated;
        break;
    case iaDelete:
        --statistic_.TotalDeleted;
        break;
    case iaUnknown:
        break;
    }
    ++statistic_.TotalErrors;
    const TKvIErrorPlace current = errorPlace_;
    errorPlace_ = {location, {}};
    try {
        HandleError(error);
    } catch (...) {
        // Raised between rows, not from inside the dataset's write.
        if (!deferredFailure_) deferredFailure_ = std::current_exception();
    }
    errorPlace_ = current;
}

void TKvImportBaseComponent::RaiseDeferredFailure() {
    if (!deferredFailure_) return;
    std::exception_ptr failure = deferredFailure_;
    deferredFailure_ = nullptr;
    std::rethrow_exception(failure);
}

void TKvImportBaseComponent::ResolveSourceColumns() {
    // The conditions under which GetParsedValue reads a plain column directly, settled once for the run.
    const bool asked = OnParserEvaluate || OnParsedValue;
    for (size_t i = 0; i < mappingTable_.Count(); ++i) {
        TKvIMapEntry& entry = mappingTable_[i];
        entry.SourceHandle = -1;
        if (asked || !entry.PlainColumn || entry.WholeReference || parameters_.ParamByName(entry.Name))
            continue;
        entry.SourceHandle = ResolveSourceColumn(entry.NameValue.AsString());
    }
}

void TKvImportBaseComponent::HandleError(const std::exception& error) {
    if (errorPlace_.Location.Record == 0 && errorPlace_.Location.Line == 0)
        errorPlace_.Location = SourceLocation();
    // A destination that refuses every write ends the run at the first row, whatever a handler prefers.
    const bool fatal = dynamic_cast<const EDatabaseUnwritable*>(&error) != nullptr;
    if (!OnErrorEvent) {
        if (fatal) throw;
        return; // swallowed: the loop goes on with the next row
    }
    canceled_ = abortOnProblem_;
    OnErrorEvent(this, error, canceled_);
    if (canceled_ || fatal) throw;
}

void TKvImportBaseComponent::CheckSomethingMapped() const {
    for (const std::string& line : mappings_) {
        const size_t eq = line.find('=');
        if (eq != std::string::npos && !TrimView(std::string_view(line).substr(eq + 1)).empty()) return;
    }
    std::string columns, fields;
    for (int i = 0; i < columns_.Count(); ++i) columns += (i ? ", " : "") + columns_.Columns(i).FieldName;
    for (int i = 0; i < dataSet_->FieldCount(); ++i)
        fields += (i ? ", " : "") + dataSet_->Fields(i).FieldName();
    const std::string table = GetTableName();
    throw Exception(Format(strNothingMapped, table.empty() ? std::string("the destination") : table,
                           columns.empty() ? std::string("none") : columns,
                           fields.empty() ? std::string("none") : fields));
}

void TKvImportBaseComponent::RollbackCounter(bool exist) {
    // Chosen by the component's mode, not the row's: a row that changed its mode rolls back by the run's.
    switch (mode_) {
    case imAppend:
    case imCopy:
        --statistic_.TotalAdded;
        break;
    case imUpdate:
        if (exist) --statistic_.TotalUpdated;
        break;
    case imAppendUpdate:
        if (exist)
            --statistic_.TotalUpdated;
        else
            --statistic_.TotalAdded;
        break;
    case imDelete:
        if (exist) --statistic_.TotalDeleted;
        break;
    case imAppendNewOnly:
        if (!exist) --statistic_.TotalAdded;
        break;
    }
}

void TKvImportBaseComponent::ApplyRow() {
    const bool apply = actionKind_ == akDatasetApply;
    const TKvIAction action = statistic_.LastAction;
    switch (action) {
    case iaAdd:
        if (apply) dataSet_->Append();
        ++statistic_.TotalAdded;
        break;
    case iaUpdate:
        if (apply) dataSet_->Edit();
        ++statistic_.TotalUpdated;
        break;
    case iaDelete:
        if (apply) dataSet_->Delete();
        ++statistic_.TotalDeleted;
        break;
    case iaUnknown:
        break;
    }
    const bool editing = dataSet_->State() == dsEdit || dataSet_->State() == dsInsert;
    std::vector<std::string> names, literals;
    if (apply ? editing : true) {
        for (size_t i = 0; i < mappingTable_.Count(); ++i) {
            const TKvIMapEntry& entry = mappingTable_[i];
            TField* field = entry.Field ? entry.Field : dataSet_->FindField(entry.FieldName);
            if (!field) continue;
            Variant& value = rowValues_[i]; // the row's values are not needed after its write: moved on
            bool accept = !(actionKind_ == akGenerateSQL && field->IsBlob() && field->DataType() != ftMemo &&
                            field->DataType() != ftFmtMemo);
            if (OnBeforeFieldUpdate) OnBeforeFieldUpdate(this, field, value, accept);
            if (!accept) continue;
            applyingField_ = field;
            if (apply) {
                StoreValue(*field, value);
            } else if (action == iaAdd || action == iaUpdate) {
                names.push_back(field->FieldName());
                literals.push_back(sqlOutput_.Writer().Literal(
                    KeepsAsText(*field, value)
                        ? value
                        : CoerceToFieldType(value, field->DataType(), field->FieldName()),
                    field->DataType()));
            }
        }
    }
    applyingField_ = nullptr;
    if (apply) {
        if (dataSet_->State() == dsEdit || dataSet_->State() == dsInsert) dataSet_->Post();
        return;
    }
    std::string condition;
    if (action == iaUpdate || action == iaDelete) {
        const std::vector<std::string>& keys = mappingTable_.KeyNames();
        std::vector<std::string> keyLiterals;
        for (size_t k = 0; k < keys.size(); ++k) {
            TField* keyField = dataSet_->FindField(keys[k]);
            const TFieldType type = keyField ? keyField->DataType() : ftUnknown;
            const Variant& v = k < keyValues_.size() ? keyValues_[k] : Variant::Null();
            keyLiterals.push_back(
                sqlOutput_.Writer().Literal(keyField ? CoerceToFieldType(v, type, keys[k]) : v, type));
        }
        condition = sqlOutput_.Writer().Condition(keys, keyLiterals);
    }
    switch (action) {
    case iaAdd:
        sqlOutput_.Add(sqlOutput_.Writer().Insert(names, literals));
        break;
    case iaUpdate:
        sqlOutput_.Add(sqlOutput_.Writer().Update(names, literals, condition));
        break;
    case iaDelete:
        sqlOutput_.Add(sqlOutput_.Writer().Delete(condition));
        break;
    case iaUnknown:
        break;
    }
}

bool TKvImportBaseComponent::KeepsAsText(const TField& field, const Variant& value) {
    // Text the conversion left as it stands goes in as text where the destination keeps any value.
    if (!value.IsString()) return false;
    const TFieldType type = field.DataType();
    if (IsTextType(type) || !dataSet_->StoresAnyValue()) return false;
    if (keepUnconverted_) return true;
    const std::string& text = value.StringRef();
    return converter_.KeepsIsoDate(type, text) || (IsDateTimeType(type) && IsIsoDateTimeWithZone(text));
}

void TKvImportBaseComponent::StoreValue(TField& field, Variant& value) {
    if (value.IsNullOrEmpty()) {
        field.Clear();
    } else if (OfFieldKind(value, field.DataType())) {
        field.SetValueAsItStands(std::move(value)); // what the conversion gave: nothing to convert again
    } else if (value.IsString() && KeepsAsText(field, value)) {
        // As written: the variant rules would round "3.5" into an integer field. A destination that keeps
        // any value reads "12" into its integer column as the number by itself. Booleans are the
        // exception: the dataset reads "true" and "yes" in any case, which the conversion leaves to it.
        if (field.DataType() == ftBoolean) {
            try {
                field.SetValue(value);
                return;
            } catch (const EVariantError&) {
            }
        }
        field.SetValueAsItStands(std::move(value));
    } else if (field.DataType() == ftLargeint) {
        field.SetValue(Variant::FromInt(value.AsInt64()));
    } else {
        field.SetValue(std::move(value));
    }
}

bool TKvImportBaseComponent::LoadRecord() {
    bool result = true;
    rowValues_.resize(mappingTable_.Count());
    for (size_t i = 0; i < mappingTable_.Count(); ++i) {
        const TKvIMapEntry& entry = mappingTable_[i];
        TField* field = entry.Field ? entry.Field : dataSet_->FindField(entry.FieldName);
        convertingField_ = field;
        Variant& value = rowValues_[i];
        try {
            if (entry.SourceHandle >= 0) {
                // What GetParsedValue does for a plain column, with the column found once for the run.
                if (!ReadSourceColumn(entry.SourceHandle, value))
                    FinishValue(value, false, entry.Parser.get());
            } else {
                value = GetParsedValue(entry.SourceValue, static_cast<int>(i));
            }
        } catch (...) {
            errorPlace_.Location = SourceLocation();
            errorPlace_.Field = entry.FieldName;
            convertingField_ = nullptr;
            for (size_t rest = i; rest < rowValues_.size(); ++rest) rowValues_[rest].SetNull();
            throw;
        }
        if (!value.IsNullOrEmpty() && value.IsString()) {
            if (characterSet_ == csiASCII_MSDOS)
                value = Variant(UECode(value.StringRef()));
            else if (characterSet_ == csiEBCDIC)
                value = Variant(EBCDICCode(value.StringRef()));
        }
        if (OnGetCellParams) OnGetCellParams(this, field, value);
    }
    convertingField_ = nullptr;

    if (!loadCondition_.LoadWhen.empty())
        result = EvaluateCondition(loadCondition_.LoadWhen, loadWhenParser_, loadWhenError_);
    if (result && !loadCondition_.SkipIf.empty())
        result = !EvaluateCondition(loadCondition_.SkipIf, skipIfParser_, skipIfError_);
    if (result && options_.Contains(soSkipEmptyRow)) {
        result = false;
        for (const Variant& v : rowValues_) {
            if (!v.IsArray() && !TrimView(v.AsString()).empty()) {
                result = true;
                break;
            }
        }
    }
    if (OnBeforeRecordEvent)
        OnBeforeRecordEvent(this, mappingTable_.FieldNames(), Variant::FromArray(rowValues_), result);
    if (result && (IsKeyedMode(mode_) || OnGetRowMode)) FillKey4Values();
    return result;
}

bool TKvImportBaseComponent::EvaluateCondition(const std::string& text, std::unique_ptr<TKvIParser>& kept,
                                               std::exception_ptr& error) {
    if (!kept || kept->Text() != text) kept = MakeParser(text, error);
    return GetParsedValue(Variant(text), -1).AsBoolean();
}

} // namespace kv
