#include "datasets/KvMemDataSet.h"

#include "platform/SysUtils.h"

#include <algorithm>

namespace kv {

namespace {

// Numbers the auto-increment fields of `row` left Null, going on from `last`; the largest number then
// in use.
int64_t NumberRow(std::vector<Variant>& row, const std::vector<TFieldDef>& defs, int64_t last) {
    for (size_t i = 0; i < row.size(); ++i) {
        if (defs[i].DataType != ftAutoInc) continue;
        if (row[i].IsNullOrEmpty())
            row[i] = Variant::FromInt(++last);
        else
            last = std::max(last, row[i].AsInt64());
    }
    return last;
}

} // namespace

TKvMemDataSet::TKvMemDataSet(TComponent* owner) : TDataSet(owner) {}

TKvMemDataSet::~TKvMemDataSet() {
    Close();
}

TFieldDef& TKvMemDataSet::AddFieldDef(const std::string& name, TFieldType type, int size, bool required) {
    TFieldDef def;
    def.Name = name;
    def.DataType = type;
    def.Size = size;
    def.Required = required;
    fieldDefs_.push_back(std::move(def));
    return fieldDefs_.back();
}

void TKvMemDataSet::AppendRecord(const std::vector<Variant>& values) {
    if (Active()) {
        Append();
        try {
            const size_t n = std::min(values.size(), static_cast<size_t>(FieldCount()));
            for (size_t i = 0; i < n; ++i) Fields(static_cast<int>(i)).SetValue(values[i]);
            Post();
        } catch (...) {
            Cancel(); // all or nothing, as when closed
            throw;
        }
        return;
    }
    std::vector<Variant> row(fieldDefs_.size(), Variant::Null());
    for (size_t i = 0; i < row.size() && i < values.size(); ++i)
        row[i] = CoerceToFieldType(values[i], fieldDefs_[i].DataType, fieldDefs_[i].Name);
    lastAutoInc_ = NumberRow(row, fieldDefs_, lastAutoInc_);
    rows_.push_back(std::move(row));
}

const std::vector<Variant>& TKvMemDataSet::Row(int index) const {
    if (index < 0 || index >= RowCount())
        throw EListError("List index out of bounds (" + IntToStr(index) + ")");
    return rows_[static_cast<size_t>(index)];
}

void TKvMemDataSet::EmptyTable() {
    rows_.clear();
    current_ = 0;
    lastAutoInc_ = 0;
    if (Active()) {
        Cancel();
        First();
    }
}

std::optional<std::string> TKvMemDataSet::PublishedProperty(const std::string& name) const {
    if (SameText(name, "TableName") && !tableName_.empty()) return tableName_;
    if (SameText(name, "IndexFieldName") && !indexFieldName_.empty()) return indexFieldName_;
    return std::nullopt;
}

std::vector<TFieldDef> TKvMemDataSet::InternalOpen() {
    openDefs_ = fieldDefs_;
    lastAutoInc_ = 0;
    for (auto& row : rows_) {
        row.resize(openDefs_.size(), Variant::Null());
        for (size_t i = 0; i < row.size(); ++i)
            if (openDefs_[i].DataType == ftAutoInc && !row[i].IsNullOrEmpty())
                lastAutoInc_ = std::max(lastAutoInc_, row[i].AsInt64());
    }
    current_ = 0;
    return openDefs_;
}

void TKvMemDataSet::InternalClose() {
    current_ = 0;
}

bool TKvMemDataSet::InternalFirst() {
    current_ = 0;
    return !rows_.empty();
}

bool TKvMemDataSet::InternalNext() {
    if (current_ + 1 >= rows_.size()) return false;
    ++current_;
    return true;
}

void TKvMemDataSet::InternalReadRecord(std::vector<Variant>& values) {
    if (current_ < rows_.size()) values = rows_[current_];
}

void TKvMemDataSet::CheckRequired(const std::vector<Variant>& row, const TAssignedFields* assigned) const {
    for (size_t i = 0; i < openDefs_.size(); ++i) {
        if (!openDefs_[i].Required || (assigned && !(*assigned)[i])) continue;
        if (row[i].IsNullOrEmpty())
            throw EDatabaseError("Field '" + openDefs_[i].Name + "' must have a value");
    }
}

void TKvMemDataSet::InternalPost(bool inserting, std::vector<Variant>& values,
                                 const TAssignedFields& assigned) {
    if (BeforePost) BeforePost(inserting, values);
    if (inserting) {
        std::vector<Variant> row = values;
        row.resize(openDefs_.size(), Variant::Null());
        const int64_t autoInc = NumberRow(row, openDefs_, lastAutoInc_);
        CheckRequired(row, nullptr);
        lastAutoInc_ = autoInc; // only once the row is sure to be stored
        rows_.push_back(std::move(row));
        current_ = rows_.size() - 1;
        return;
    }
    if (current_ >= rows_.size()) throw EDatabaseError("Cannot perform this operation on an empty dataset");
    CheckRequired(values, &assigned);
    std::vector<Variant>& row = rows_[current_];
    for (size_t i = 0; i < row.size() && i < values.size(); ++i)
        if (assigned[i]) row[i] = values[i];
}

bool TKvMemDataSet::InternalDelete() {
    if (current_ >= rows_.size()) return false;
    rows_.erase(rows_.begin() + static_cast<std::ptrdiff_t>(current_));
    return current_ < rows_.size();
}

bool TKvMemDataSet::InternalLocate(const std::vector<int>& fields, const std::vector<Variant>& values,
                                   TLocateOptions options) {
    for (size_t r = 0; r < rows_.size(); ++r) {
        bool match = true;
        for (size_t k = 0; k < fields.size() && match; ++k)
            match = LocateMatches(rows_[r][static_cast<size_t>(fields[k])], values[k], options);
        if (match) {
            current_ = r;
            return true;
        }
    }
    return false;
}

int TKvMemDataSet::InternalRecordCount() {
    return RowCount();
}

} // namespace kv
