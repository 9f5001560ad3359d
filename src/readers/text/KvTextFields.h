#pragma once
// Splitting one record into fields, and reading a value by column reference: "Text" (the whole record),
// "Text<a>-<b>" (characters a..b, fixed-width mode), "Field<n>" (field n); anything else is a constant.
// The words "Field" and "Text" are settable, since they come from the translatable messages.

#include "platform/Variant.h"

#include <cstdint>
#include <exception>
#include <string>
#include <string_view>
#include <vector>

namespace kv {

/// Where a field lies in its record: 1-based inclusive character positions. An empty field has its start
/// after its end.
struct TKvTextFieldPos {
    int64_t Start = 0;
    int64_t End = 0;
    bool operator==(const TKvTextFieldPos&) const = default;
};

/// The field positions of `line` by delimiter and qualifier (0 = none for either), walking characters.
std::vector<TKvTextFieldPos> SplitTextFieldPositions(std::string_view line, char32_t delimiter,
                                                     char32_t qualifier);

/// A value as the reader hands it out: a trailing delimiter is dropped, then doubled qualifiers are reduced
/// to one until none is left (so any run of qualifiers becomes one).
std::string PostProcessTextValue(std::string_view value, char32_t delimiter, char32_t qualifier);

/// The kinds of column reference.
enum TKvTextRefKind : uint8_t {
    trkLine,    ///< the whole record
    trkRange,   ///< characters First..Last of the record (fixed-width mode)
    trkField,   ///< field number First
    trkConstant ///< the reference's own text
};

/// Where one field lies in its record: 1-based byte positions as the field walk gives them.
struct TKvTextRawField {
    int64_t Start;
    int64_t End;
    bool Qualified;
    bool HoldsQualifier; ///< a qualifier within the value, for post-processing to collapse
};

/// One record cut into fields, as handed from a reading thread to the one importing: the line, where its
/// fields lie and, when prepared, every field's post-processed value.
struct TKvTextSplit {
    std::string Line;
    std::vector<TKvTextRawField> Fields;
    std::vector<std::string> Values; ///< when prepared, the first Fields.size() are the values
    bool Prepared = false;
    /// What a hook of the reading thread made of the values (TKvTextReadAhead::SetRowHook), and the
    /// error of each it could not make; empty for a record no hook has seen.
    std::vector<Variant> Finished;
    std::vector<std::exception_ptr> FinishErrors;

    /// Member by member: a record changes hands twice a row, and std::swap would move each member thrice.
    void Swap(TKvTextSplit& other) noexcept {
        Line.swap(other.Line);
        Fields.swap(other.Fields);
        Values.swap(other.Values);
        std::swap(Prepared, other.Prepared);
        Finished.swap(other.Finished);
        FinishErrors.swap(other.FinishErrors);
    }
};

/// A column reference, read once and used for every record.
struct TKvTextRef {
    TKvTextRefKind Kind = trkConstant;
    int64_t First = 0; ///< first character, or the field number
    int64_t Last = 0;  ///< last character (below 1: an empty value)
    std::string Text;  ///< the reference as written
};

/// The current record cut into fields, and values by reference.
class TKvTextFields {
public:
    char32_t Delimiter() const { return delimiter_; }
    void SetDelimiter(char32_t delimiter);
    char32_t Qualifier() const { return qualifier_; }
    void SetQualifier(char32_t qualifier);
    /// Fixed-width records are not split; their values come from "Text<a>-<b>".
    bool FixedWidth() const { return fixedWidth_; }
    void SetFixedWidth(bool fixedWidth) { fixedWidth_ = fixedWidth; }
    /// The word of "Field<n>" (the catalogue's strField).
    const std::string& FieldWord() const { return fieldWord_; }
    void SetFieldWord(std::string word) { fieldWord_ = std::move(word); }
    /// The word of "Text" and "Text<a>-<b>" (the catalogue's strTextFieldName).
    const std::string& TextWord() const { return textWord_; }
    void SetTextWord(std::string word) { textWord_ = std::move(word); }

    /// Makes `line` (UTF-8) the current record and, unless fixed-width, splits it.
    void SetLine(std::string_view line);
    const std::string& Line() const { return split_.Line; }
    /// Computes every field's value now, so that GetValue only hands them out.
    void PrepareValues();
    /// Exchanges the current record with `split` (a record split and prepared elsewhere); `split` gets the
    /// old record's buffers, for reuse.
    void Swap(TKvTextSplit& split);
    /// What a row hook made of the current record's values (empty when none did), and their errors.
    std::vector<Variant>& Finished() { return split_.Finished; }
    std::vector<std::exception_ptr>& FinishErrors() { return split_.FinishErrors; }

    /// Number of fields of the current record.
    int Count() const { return static_cast<int>(split_.Fields.size()); }
    /// Character positions of field `index` (1-based).
    TKvTextFieldPos Position(int index) const;
    /// True when field `index` (1-based) starts with the qualifier.
    bool Qualified(int index) const;
    /// Field `index` (1-based) as it stands in the record, qualifiers removed but not post-processed;
    /// "" outside 1..Count.
    std::string_view RawField(int index) const;
    /// The post-processed value of field `index` (1-based); "" outside 1..Count.
    void FieldValue(int index, std::string& out) const;
    std::string FieldValue(int index) const;

    /// Reads a column reference under the current words and mode.
    TKvTextRef ParseReference(std::string_view reference) const;
    /// The value of a reference for the current record, into `out` (no allocation once it has grown).
    void GetValue(const TKvTextRef& ref, std::string& out) const;
    /// The value of a field reference when it was prepared (PrepareValues), else null.
    const std::string* PreparedValue(const TKvTextRef& ref) const {
        if (ref.Kind != trkField || !split_.Prepared || ref.First < 1 || ref.First > Count()) return nullptr;
        return &split_.Values[static_cast<size_t>(ref.First - 1)];
    }
    /// ParseReference and GetValue in one call.
    std::string GetFieldValue(std::string_view reference) const;

private:
    std::string_view Bytes(const TKvTextRawField& f) const;
    void PostProcess(std::string_view value, std::string& out, bool holdsQualifier = true) const;
    bool LineIsAscii() const;

    char32_t delimiter_ = U'\t';
    char32_t qualifier_ = U'"';
    std::string delimiterBytes_ = "\t";
    std::string qualifierBytes_ = "\"";
    bool fixedWidth_ = false;
    std::string fieldWord_ = "Field";
    std::string textWord_ = "Text";
    TKvTextSplit split_;
    mutable int lineAscii_ = -1;  ///< unknown, false, true
    std::u32string chars_;        ///< the line's characters, when the walk needs them
    std::vector<size_t> offsets_; ///< and where each one starts
};

/// Column names from a header record: split like data, control characters made blanks and "=" (which
/// ends a mapping line's field name) "_", each name trimmed, an empty one named `fieldWord` + its
/// number, duplicates (ignoring case) made unique with "_2", "_3", ...
std::vector<std::string> TextColumnNames(std::string_view headerLine, char32_t delimiter, char32_t qualifier,
                                         const std::string& fieldWord = "Field");

/// A column name as the mapping syntax needs it: "[name]" when it holds a blank.
std::string BracketColumnName(std::string_view name);

} // namespace kv
