#pragma once
// TDataSet and TField: the abstract table the engine reads and writes. The base class keeps the cursor
// and editing state (browse, edit, insert) and the edit buffer; an implementation supplies the storage
// through the Internal... operations. Values written to a field are converted to the field's type here,
// so that every destination reports the same errors for the same bad value.

#include "platform/Classes.h"
#include "platform/Exceptions.h"
#include "platform/Set.h"
#include "platform/Variant.h"

#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kv {

class TStream;

/// Failures of dataset operations ("Field 'X' not found", "Dataset not in edit or insert mode", ...).
KV_DECLARE_EXCEPTION(EDatabaseError, Exception)
/// The database refuses every write (read-only, locked, full, damaged): no further row can succeed.
KV_DECLARE_EXCEPTION(EDatabaseUnwritable, EDatabaseError)

/// The data types of fields.
enum TFieldType : uint8_t {
    ftUnknown,
    ftString, ///< text of bounded size
    ftSmallint,
    ftInteger,
    ftWord,
    ftBoolean,
    ftFloat,
    ftCurrency,
    ftBCD,
    ftDate,
    ftTime,
    ftDateTime,
    ftBytes,
    ftVarBytes,
    ftAutoInc,
    ftBlob,
    ftMemo,
    ftGraphic,
    ftFmtMemo,
    ftParadoxOle,
    ftDBaseOle,
    ftTypedBinary,
    ftCursor,
    ftFixedChar,
    ftWideString,
    ftLargeint,
    ftADT,
    ftArray,
    ftReference,
    ftDataSet,
    ftOraBlob,
    ftOraClob,
    ftVariant,
    ftInterface,
    ftIDispatch,
    ftGuid,
    ftTimeStamp,
    ftFMTBcd,
    ftFixedWideChar,
    ftWideMemo
};

enum TAlignment : uint8_t { taLeftJustify, taRightJustify, taCenter };

enum TDataSetState : uint8_t {
    dsInactive, ///< closed
    dsBrowse,   ///< open, not editing
    dsEdit,     ///< editing the current record
    dsInsert,   ///< editing a new record
    dsSetKey    ///< entering search keys (not used by this library's datasets)
};

enum TLocateOption : uint8_t {
    loCaseInsensitive, ///< texts compare ignoring case
    loPartialKey       ///< a text key matches the start of the field's text
};
using TLocateOptions = TSet<TLocateOption>;

/// What an implementation declares for each field when it opens.
struct TFieldDef {
    std::string Name;
    TFieldType DataType = ftString;
    int Size = 0;      ///< characters for texts, digits for BCD
    int Precision = 0; ///< decimals for BCD and floats
    bool ReadOnly = false;
    bool Visible = true;
    bool Required = false;
    std::string DisplayLabel; ///< empty: the name
};

/// Which fields of an edit buffer were set: one byte a field, cheap to test and to compare.
using TAssignedFields = std::vector<uint8_t>;

/// Name of a field type ("String", "Integer", ...), for messages.
const char* FieldTypeName(TFieldType type);
/// True for the types that hold large or binary content.
bool IsBlobType(TFieldType type);
/// True for the types that hold text (of any length).
bool IsTextType(TFieldType type);
/// True for dates, times and date-times.
bool IsDateTimeType(TFieldType type);
/// `value` as a field of `type` stores it: Null and unassigned give Null; otherwise the value converted by
/// the variant rules, raising their errors (and EDatabaseError for numbers outside a small type's range).
Variant CoerceToFieldType(Variant value, TFieldType type, const std::string& fieldName);
/// The same, converting `value` where it stands.
void CoerceToFieldTypeInPlace(Variant& value, TFieldType type, const std::string& fieldName);

class TDataSet;

/// One field (column) of a dataset; its value is that of the dataset's current record.
class TField {
public:
    TField(TDataSet& dataSet, const TFieldDef& def, int index);

    TDataSet& DataSet() const { return *dataSet_; }
    const std::string& FieldName() const { return def_.Name; }
    const std::string& DisplayLabel() const {
        return def_.DisplayLabel.empty() ? def_.Name : def_.DisplayLabel;
    }
    void SetDisplayLabel(const std::string& label) { def_.DisplayLabel = label; }
    int Index() const { return index_; }
    TFieldType DataType() const { return def_.DataType; }
    int Size() const { return def_.Size; }
    int Precision() const { return def_.Precision; }
    TAlignment Alignment() const { return alignment_; }
    void SetAlignment(TAlignment alignment) { alignment_ = alignment; }
    bool ReadOnly() const { return def_.ReadOnly; }
    void SetReadOnly(bool value) { def_.ReadOnly = value; }
    bool Visible() const { return def_.Visible; }
    void SetVisible(bool value) { def_.Visible = value; }
    bool Required() const { return def_.Required; }
    bool IsBlob() const { return IsBlobType(def_.DataType); }

    /// The current record's value (Null when there is no current record).
    Variant Value() const { return ValueRef(); }
    /// The same, valid until the dataset moves or changes.
    const Variant& ValueRef() const;
    /// Sets the value in the edit buffer, converted to the field's type; EDatabaseError "Dataset not in
    /// edit or insert mode" when the dataset is not editing, "Field 'X' cannot be modified" when ReadOnly.
    void SetValue(Variant value) { Store(value, true); }
    /// Sets the value in the edit buffer as it is, not converted to the field's type: for a dataset that
    /// StoresAnyValue, to keep text that fits no number or date as the text it is.
    void SetValueAsItStands(Variant&& value);
    void SetValueAsItStands(const Variant& value) { SetValueAsItStands(Variant(value)); }
    void Clear() { SetValue(Variant::Null()); }
    bool IsNull() const { return Value().IsNullOrEmpty(); }
    std::string AsString() const { return Value().AsString(); }
    /// Reads the rest of `stream` as the field's (binary) content.
    void LoadFromStream(TStream& stream);

private:
    void Store(Variant& value, bool convert);

    TDataSet* dataSet_;
    TFieldDef def_;
    int index_;
    TAlignment alignment_;
};

/// A table with a cursor.
class TDataSet : public TComponent {
public:
    explicit TDataSet(TComponent* owner = nullptr);
    ~TDataSet() override;

    bool Active() const { return state_ != dsInactive; }
    void SetActive(bool value) { value ? Open() : Close(); }
    void Open();
    void Close();
    TDataSetState State() const { return state_; }

    /// Nested: controls are disabled until as many EnableControls calls have been made.
    void DisableControls() { ++disableCount_; }
    void EnableControls() {
        if (disableCount_ > 0) --disableCount_;
    }
    bool ControlsDisabled() const { return disableCount_ > 0; }

    void First();
    void Next();
    bool Eof() const { return eof_; }
    bool Bof() const { return bof_; }
    bool IsEmpty() const { return !hasRecord_ && state_ != dsInsert; }
    /// Number of records, -1 when the dataset cannot tell.
    int RecordCount();

    void Append();
    void Edit();
    void Post();
    void Cancel();
    void Delete();
    /// Moves to the first record whose `keyFields` (names separated by ";") equal `keyValues` (one value for
    /// one field, an array of values for several); false, and the cursor stays, when there is none.
    bool Locate(const std::string& keyFields, const Variant& keyValues, TLocateOptions options);

    int FieldCount() const { return static_cast<int>(fields_.size()); }
    TField& Fields(int index) const;
    /// The field of that name (ignoring case), nullptr when none.
    TField* FindField(std::string_view name) const;
    /// The field of that name; EDatabaseError "Field 'X' not found" when none.
    TField& FieldByName(std::string_view name) const;
    Variant GetFieldValue(std::string_view name) const { return FieldByName(name).Value(); }

    /// Asks the dataset to read the records after the current one on a thread of its own while the caller
    /// works through them with First and Next; `writtenMeanwhile` is the dataset the caller writes to in the
    /// meantime. True when it does. Any other use of the dataset (a write, a Locate, Close) ends it, as
    /// does StopReadAhead; the records read stay the same either way.
    virtual bool ReadAhead(const TDataSet* writtenMeanwhile) {
        (void)writtenMeanwhile;
        return false;
    }
    virtual void StopReadAhead() {}
    /// True when any value can be stored in any field, whatever its type (SetValueAsItStands).
    virtual bool StoresAnyValue() const { return false; }
    /// Deletes every record with one statement and gives how many there were; nullopt where the dataset
    /// offers nothing faster than deleting them one by one.
    virtual std::optional<int64_t> DeleteAll() { return std::nullopt; }

    /// A dataset that sends some writes later (rows appended in batches) tells of a write the storage then
    /// refused through OnDeferredError, with the tag the row was posted under (SetRowTag). Without a
    /// handler it raises the error itself. A dataset that writes at once never defers, and ignores tags.
    std::function<void(int64_t tag, const std::exception& error)> OnDeferredError;
    /// The tag of the records posted from now on.
    virtual void SetRowTag(int64_t tag) { (void)tag; }
    /// The tag of the oldest posted record still waiting to be written (which may yet be refused);
    /// nullopt when none waits.
    virtual std::optional<int64_t> OldestDeferredTag() const { return std::nullopt; }

    /// What a published property of that name would give ("TableName", "IndexFieldName", ...).
    virtual std::optional<std::string> PublishedProperty(const std::string& name) const {
        (void)name;
        return std::nullopt;
    }
    std::string ClassName() const override { return "TDataSet"; }

protected:
    /// Opens the storage and declares the fields.
    virtual std::vector<TFieldDef> InternalOpen() = 0;
    virtual void InternalClose() = 0;
    /// Moves to the first record; false when there is none.
    virtual bool InternalFirst() = 0;
    /// Moves to the next record; false (position unchanged) at the end.
    virtual bool InternalNext() = 0;
    /// The current record's values, one per field, into `values`, which comes empty (nothing for no record).
    virtual void InternalReadRecord(std::vector<Variant>& values) = 0;
    /// Writes a new record (`inserting`) or the current one from `values`; `assigned[i]` marks the fields
    /// that were set. Afterwards the cursor is on the written record. Once nothing can fail any more, the
    /// dataset may move the values out (the record is not read after a post that succeeds).
    virtual void InternalPost(bool inserting, std::vector<Variant>& values,
                              const TAssignedFields& assigned) = 0;
    /// Deletes the current record and moves to the one after it; false when there is none after it.
    virtual bool InternalDelete() = 0;
    /// Moves to the first record whose fields `fields` equal `values`; false (position unchanged) when none.
    virtual bool InternalLocate(const std::vector<int>& fields, const std::vector<Variant>& values,
                                TLocateOptions options) = 0;
    /// Number of records, or -1.
    virtual int InternalRecordCount() = 0;

    /// True when `fieldValue` matches the search value `key` under `options` (for implementations that
    /// compare in memory).
    static bool LocateMatches(const Variant& fieldValue, const Variant& key, TLocateOptions options);
    /// Forgets the cached values of the current record (after the storage moved the cursor itself).
    void RecordChanged() { loaded_ = false; }

private:
    friend class TField;
    void CheckActive() const;
    void CheckBrowseMode();
    void ClearBuffer();
    const Variant& CurrentValue(int index) const;

    std::vector<std::unique_ptr<TField>> fields_;
    TDataSetState state_ = dsInactive;
    bool eof_ = true, bof_ = true, hasRecord_ = false;
    int disableCount_ = 0;
    mutable bool loaded_ = false;
    mutable std::vector<Variant> current_;
    std::vector<Variant> buffer_;
    TAssignedFields assigned_;
    std::string locateFields_;          ///< the key fields of the last Locate
    std::vector<int> locateIndexes_;    ///< and their indexes
    std::vector<Variant> locateValues_; ///< the keys of the last Locate, its storage kept for the next
};

} // namespace kv
