#pragma once
// TKvIMappingTable: the mapping lines of one run as the row loop uses them: per line the destination
// field, the source side parsed once, and what is known of it beforehand (one name, a whole reference,
// a plain source column); and where the key fields stand among the lines.

#include "datasets/DataSet.h"
#include "expression/KvIPars.h"
#include "platform/StringList.h"

#include <exception>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace kv {

/// One line of the mapping, as the run uses it.
struct TKvIMapEntry {
    std::string FieldName;              ///< destination field
    int FieldIndex = -1;                ///< its index in the destination, -1 when unknown
    TField* Field = nullptr;            ///< and the field itself
    std::string Source;                 ///< source column reference or expression
    std::unique_ptr<TKvIParser> Parser; ///< the source side parsed once per run
    std::exception_ptr ParseError;      ///< raised again for every row when the text does not parse
    Variant SourceValue;                ///< Source as the value handed to GetParsedValue
    bool HostName = false;              ///< the source side is one name the handler resolves
    bool WholeReference = false;        ///< a reference the source resolves as one name ("Text1-10")
    std::string Name;                   ///< that name
    Variant NameValue;                  ///< the name as the handler hands it to GetFieldValue
    bool PlainColumn = false;           ///< a host name that reads a source column (or a parameter)
    int SourceHandle = -1;              ///< that column as the source resolved it for the run, or -1
};

/// What building the table asks of the import component.
struct TKvIMappingHooks {
    /// Parses a source side; a text that does not parse leaves its error in `error`.
    std::function<std::unique_ptr<TKvIParser>(const std::string& text, std::exception_ptr& error)> MakeParser;
    /// A source side the source resolves as one name, never parsed (a text source's "Text1-10").
    std::function<bool(std::string_view source)> IsWholeReference;
    /// A name a source side consists of reads a source column (not a counter or a user function).
    std::function<bool(const std::string& name)> IsPlainColumn;
};

class TKvIMappingTable {
public:
    /// The lines of `mappings` with a source side, fields found in `dataSet` (which may be null).
    void Build(const TStringList& mappings, TDataSet* dataSet, const TKvIMappingHooks& hooks);
    /// The key fields, ";"-separated as DatasetKeys gives them.
    void SetKeys(const std::string& datasetKeys);

    size_t Count() const { return entries_.size(); }
    TKvIMapEntry& operator[](size_t index) { return entries_[index]; }
    const TKvIMapEntry& operator[](size_t index) const { return entries_[index]; }
    /// The index of the line for destination field `name` (ignoring case), -1 when none.
    int FieldItem(const std::string& name) const;
    /// The destination fields of the lines, ";"-separated.
    const std::string& FieldNames() const { return fieldNames_; }
    const std::vector<std::string>& KeyNames() const { return keyNames_; }
    /// The key values of a row (the values of the lines, in order), in key order; Null for a key no line
    /// fills.
    void KeyValues(const std::vector<Variant>& rowValues, std::vector<Variant>& out) const;

    /// A name in brackets or double quotes without them (one pair of each).
    static void UnquoteName(Variant& value);
    /// `text` parsed once for every row, evaluating names with `handler`; a text that does not parse
    /// leaves its error in `error`, to be raised for every row as a fresh parse would.
    static std::unique_ptr<TKvIParser> ParseOnce(const std::string& text, TOnEvaluate handler,
                                                 std::exception_ptr& error);

private:
    void PlaceKeys();

    std::vector<TKvIMapEntry> entries_;
    std::string fieldNames_;
    std::vector<std::string> keyNames_;
    std::vector<int> keyPositions_;
};

} // namespace kv
