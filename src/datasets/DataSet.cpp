#include "datasets/DataSet.h"

#include "platform/Format.h"
#include "platform/Streams.h"
#include "platform/SysUtils.h"

#include <cmath>

namespace kv {

const char* FieldTypeName(TFieldType type) {
    static const char* const names[] = {
        "Unknown",     "String",    "Smallint",  "Integer",       "Word",     "Boolean",    "Float",
        "Currency",    "BCD",       "Date",      "Time",          "DateTime", "Bytes",      "VarBytes",
        "AutoInc",     "Blob",      "Memo",      "Graphic",       "FmtMemo",  "ParadoxOle", "DBaseOle",
        "TypedBinary", "Cursor",    "FixedChar", "WideString",    "Largeint", "ADT",        "Array",
        "Reference",   "DataSet",   "OraBlob",   "OraClob",       "Variant",  "Interface",  "IDispatch",
        "Guid",        "TimeStamp", "FMTBcd",    "FixedWideChar", "WideMemo"};
    return type < sizeof names / sizeof names[0] ? names[type] : "Unknown";
}

bool IsBlobType(TFieldType type) {
    switch (type) {
    case ftBlob:
    case ftMemo:
    case ftGraphic:
    case ftFmtMemo:
    case ftParadoxOle:
    case ftDBaseOle:
    case ftTypedBinary:
    case ftOraBlob:
    case ftOraClob:
    case ftWideMemo:
        return true;
    default:
        return false;
    }
}

bool IsTextType(TFieldType type) {
    switch (type) {
    case ftString:
    case ftFixedChar:
    case ftWideString:
    case ftFixedWideChar:
    case ftMemo:
    case ftFmtMemo:
    case ftWideMemo:
    case ftOraClob:
    case ftGuid:
        return true;
    default:
        return false;
    }
}

bool IsDateTimeType(TFieldType type) {
    return type == ftDate || type == ftTime || type == ftDateTime || type == ftTimeStamp;
}

namespace {

const Variant& NullValue() {
    static const Variant null = Variant::Null();
    return null;
}

Variant CheckedInteger(const Variant& value, const std::string& fieldName, int64_t low, int64_t high) {
    const int64_t v = value.AsInt64();
    if (v < low || v > high)
        throw EDatabaseError(Format("%d is not a valid value for field '%s'. The allowed range is %d to %d",
                                    v, fieldName, low, high));
    return Variant::FromInt(v);
}

} // namespace

void CoerceToFieldTypeInPlace(Variant& value, TFieldType type, const std::string& fieldName) {
    if (value.IsNullOrEmpty()) {
        value = Variant::Null();
        return;
    }
    if (IsTextType(type)) {
        if (!value.IsString()) value = Variant(value.AsString());
        return;
    }
    switch (type) {
    case ftSmallint:
        value = CheckedInteger(value, fieldName, -32768, 32767);
        return;
    case ftWord:
        value = CheckedInteger(value, fieldName, 0, 65535);
        return;
    case ftInteger:
    case ftAutoInc:
        // Integer columns of the databases this library writes hold 64 bits; only the small types check a
        // range.
        if (value.IsOrdinal()) return;
        try {
            value = Variant::FromInt(value.AsInt64());
        } catch (const EVariantTypeCastError&) {
            RaiseCastError(value.VarType(), varInteger);
        }
        return;
    case ftLargeint:
        if (!value.IsOrdinal()) value = Variant::FromInt(value.AsInt64());
        return;
    case ftBoolean:
        if (value.VarType() != varBoolean) value = Variant(value.AsBoolean());
        return;
    case ftFloat:
    case ftCurrency:
    case ftBCD:
    case ftFMTBcd:
        if (value.VarType() != varDouble) value = Variant(value.AsDouble());
        return;
    case ftDate:
        value = Variant::FromDateTime(std::trunc(value.AsDateTime()));
        return;
    case ftTime: {
        const double t = value.AsDateTime();
        value = Variant::FromDateTime(std::fabs(t - std::trunc(t)));
        return;
    }
    case ftDateTime:
    case ftTimeStamp:
        if (value.VarType() != varDate) value = Variant::FromDateTime(value.AsDateTime());
        return;
    case ftBytes:
    case ftVarBytes:
    case ftBlob:
    case ftGraphic:
    case ftParadoxOle:
    case ftDBaseOle:
    case ftTypedBinary:
    case ftOraBlob:
        if (value.VarType() != varBytes) value = Variant::FromBytes(value.AsString());
        return;
    default:
        return;
    }
}

Variant CoerceToFieldType(Variant value, TFieldType type, const std::string& fieldName) {
    CoerceToFieldTypeInPlace(value, type, fieldName);
    return value;
}

// ---- TField ----

TField::TField(TDataSet& dataSet, const TFieldDef& def, int index)
    : dataSet_(&dataSet), def_(def), index_(index) {
    switch (def.DataType) {
    case ftSmallint:
    case ftInteger:
    case ftWord:
    case ftFloat:
    case ftCurrency:
    case ftBCD:
    case ftAutoInc:
    case ftLargeint:
    case ftFMTBcd:
        alignment_ = taRightJustify;
        break;
    default:
        alignment_ = taLeftJustify;
        break;
    }
}

const Variant& TField::ValueRef() const {
    const TDataSet& ds = *dataSet_;
    if (ds.state_ == dsInsert || ds.state_ == dsEdit) {
        if (ds.assigned_[static_cast<size_t>(index_)]) return ds.buffer_[static_cast<size_t>(index_)];
        if (ds.state_ == dsInsert) return NullValue();
    }
    return ds.CurrentValue(index_);
}

void TField::SetValueAsItStands(Variant&& value) {
    Store(value, !dataSet_->StoresAnyValue());
}

void TField::Store(Variant& value, bool convert) {
    TDataSet& ds = *dataSet_;
    const auto fail = [&ds](const std::string& message) {
        throw EDatabaseError(ds.Name().empty() ? message : ds.Name() + ": " + message);
    };
    if (ds.state_ != dsEdit && ds.state_ != dsInsert) fail("Dataset not in edit or insert mode");
    // Refused here, not when posting, so that every dataset refuses alike and names the field.
    if (def_.ReadOnly) fail("Field '" + def_.Name + "' cannot be modified");
    if (convert) CoerceToFieldTypeInPlace(value, def_.DataType, def_.Name);
    ds.buffer_[static_cast<size_t>(index_)] = std::move(value);
    ds.assigned_[static_cast<size_t>(index_)] = 1;
}

void TField::LoadFromStream(TStream& stream) {
    SetValue(Variant::FromBytes(stream.ReadAll()));
}

// ---- TDataSet ----

TDataSet::TDataSet(TComponent* owner) : TComponent(owner) {}

TDataSet::~TDataSet() = default; // derived classes close their storage in their own destructors

void TDataSet::CheckActive() const {
    if (state_ == dsInactive) throw EDatabaseError("Cannot perform this operation on a closed dataset");
}

void TDataSet::CheckBrowseMode() {
    CheckActive();
    if (state_ == dsEdit || state_ == dsInsert) Post();
}

const Variant& TDataSet::CurrentValue(int index) const {
    if (!hasRecord_ || state_ == dsInactive) return NullValue();
    if (!loaded_) {
        current_.clear();
        const_cast<TDataSet*>(this)->InternalReadRecord(current_);
        current_.resize(fields_.size(), Variant::Null());
        loaded_ = true;
    }
    return current_[static_cast<size_t>(index)];
}

void TDataSet::Open() {
    if (Active()) return;
    std::vector<TFieldDef> defs = InternalOpen();
    fields_.clear();
    locateFields_.clear();
    locateIndexes_.clear();
    for (size_t i = 0; i < defs.size(); ++i)
        fields_.push_back(std::make_unique<TField>(*this, defs[i], static_cast<int>(i)));
    buffer_.assign(fields_.size(), Variant::Null());
    assigned_.assign(fields_.size(), 0);
    state_ = dsBrowse;
    try {
        First();
    } catch (...) {
        Close();
        throw;
    }
}

void TDataSet::Close() {
    if (!Active()) return;
    state_ = dsInactive;
    hasRecord_ = false;
    eof_ = bof_ = true;
    loaded_ = false;
    InternalClose();
}

void TDataSet::First() {
    CheckBrowseMode();
    hasRecord_ = InternalFirst();
    eof_ = !hasRecord_;
    bof_ = true;
    loaded_ = false;
}

void TDataSet::Next() {
    CheckBrowseMode();
    if (eof_) return;
    if (InternalNext()) {
        bof_ = false;
        loaded_ = false;
    } else {
        eof_ = true;
    }
}

int TDataSet::RecordCount() {
    CheckActive();
    return InternalRecordCount();
}

void TDataSet::ClearBuffer() {
    buffer_.resize(fields_.size());
    for (Variant& v : buffer_) v.SetNull();
    assigned_.assign(fields_.size(), 0);
}

void TDataSet::Append() {
    CheckBrowseMode();
    ClearBuffer();
    state_ = dsInsert;
}

void TDataSet::Edit() {
    CheckActive();
    if (state_ == dsEdit || state_ == dsInsert) return;
    if (!hasRecord_) return Append();
    ClearBuffer();
    state_ = dsEdit;
}

void TDataSet::Post() {
    CheckActive();
    if (state_ != dsEdit && state_ != dsInsert) return;
    InternalPost(state_ == dsInsert, buffer_, assigned_); // on failure the dataset stays in its edit state
    state_ = dsBrowse;
    hasRecord_ = true;
    eof_ = false;
    loaded_ = false;
}

void TDataSet::Cancel() {
    if (state_ == dsEdit || state_ == dsInsert) state_ = dsBrowse;
}

void TDataSet::Delete() {
    CheckActive();
    if (state_ == dsInsert) return Cancel();
    Cancel();
    if (!hasRecord_) throw EDatabaseError("Cannot perform this operation on an empty dataset");
    hasRecord_ = InternalDelete();
    loaded_ = false;
    if (!hasRecord_) {
        // The last record went: stand on the one before it, if any, as at the end of the table.
        hasRecord_ = InternalFirst();
        if (hasRecord_)
            while (InternalNext()) {
            }
        eof_ = true;
    }
}

bool TDataSet::Locate(const std::string& keyFields, const Variant& keyValues, TLocateOptions options) {
    CheckBrowseMode();
    // An import locates by the same key fields for every row: they are found once.
    if (keyFields != locateFields_ || locateIndexes_.empty()) {
        locateIndexes_.clear();
        locateFields_.clear();
        size_t start = 0;
        while (start <= keyFields.size()) {
            size_t end = keyFields.find(';', start);
            if (end == std::string::npos) end = keyFields.size();
            const std::string name = Trim(std::string_view(keyFields).substr(start, end - start));
            if (!name.empty()) locateIndexes_.push_back(FieldByName(name).Index());
            start = end + 1;
        }
        locateFields_ = keyFields;
    }
    const std::vector<int>& indexes = locateIndexes_;
    if (indexes.empty()) return false;
    std::vector<Variant>& values = locateValues_;
    values.clear();
    if (indexes.size() == 1) {
        values.push_back(keyValues.IsArray() && keyValues.ItemCount() > 0 ? keyValues.Item(0) : keyValues);
    } else {
        for (size_t i = 0; i < indexes.size(); ++i)
            values.push_back(keyValues.IsArray() && i < keyValues.ItemCount() ? keyValues.Item(i)
                                                                              : Variant::Null());
    }
    // Keys in the fields' own types, so that every implementation compares alike ("1.5" finds 1.5).
    for (size_t i = 0; i < indexes.size(); ++i) {
        const TField& f = Fields(indexes[i]);
        try {
            values[i] = CoerceToFieldType(values[i], f.DataType(), f.FieldName());
        } catch (const Exception&) {
            // A key that cannot be of the field's type is compared as it stands (and so finds nothing).
        }
    }
    if (!InternalLocate(indexes, values, options)) return false;
    hasRecord_ = true;
    eof_ = false;
    bof_ = false;
    loaded_ = false;
    return true;
}

TField& TDataSet::Fields(int index) const {
    if (index < 0 || index >= FieldCount())
        throw EListError("List index out of bounds (" + IntToStr(index) + ")");
    return *fields_[static_cast<size_t>(index)];
}

TField* TDataSet::FindField(std::string_view name) const {
    for (const auto& f : fields_)
        if (SameText(f->FieldName(), name)) return f.get();
    return nullptr;
}

TField& TDataSet::FieldByName(std::string_view name) const {
    TField* f = FindField(name);
    if (!f)
        throw EDatabaseError(Name().empty() ? "Field '" + std::string(name) + "' not found"
                                            : Name() + ": Field '" + std::string(name) + "' not found");
    return *f;
}

bool TDataSet::LocateMatches(const Variant& fieldValue, const Variant& key, TLocateOptions options) {
    if (key.IsNullOrEmpty() || fieldValue.IsNullOrEmpty())
        return key.IsNullOrEmpty() && fieldValue.IsNullOrEmpty();
    if (fieldValue.IsString() || key.IsString()) {
        const std::string a = fieldValue.AsString(), b = key.AsString();
        if (options.Contains(loPartialKey))
            return options.Contains(loCaseInsensitive) ? StartsText(b, a) : a.compare(0, b.size(), b) == 0;
        return options.Contains(loCaseInsensitive) ? SameText(a, b) : a == b;
    }
    try {
        return fieldValue.Compare(key) == vrEqual;
    } catch (const Exception&) {
        return false;
    }
}

} // namespace kv
