#pragma once
// TStringList: an ordered list of text lines with the name=value view that settings use (Mappings,
// parameter choices, specification sections).

#include "platform/Classes.h"

#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

namespace kv {

class TStream;

/// A list of strings. Names and values split at the first "="; name lookups ignore case unless
/// CaseSensitive is set.
class TStringList : public TPersistent {
public:
    TStringList() = default;
    TStringList(std::initializer_list<std::string> lines) : items_(lines) {}

    int Count() const { return static_cast<int>(items_.size()); }
    bool Empty() const { return items_.empty(); }
    /// Line `index`; EStringListError "List index out of bounds (%d)" when there is none.
    const std::string& Strings(int index) const;
    void SetStrings(int index, std::string value);
    const std::string& operator[](int index) const { return Strings(index); }

    int Add(std::string line);
    void Insert(int index, std::string line);
    void Delete(int index);
    void Clear() { items_.clear(); }
    void Exchange(int a, int b);
    void AddStrings(const TStringList& other);
    /// Index of the first line equal to `s` (ignoring case unless CaseSensitive), -1 when none.
    int IndexOf(std::string_view s) const;

    /// The part of line `index` before the first "=" ("" when it has none).
    std::string Names(int index) const;
    /// The part of line `index` after the first "=".
    std::string ValueFromIndex(int index) const;
    /// Index of the first line whose name is `name`, -1 when none.
    int IndexOfName(std::string_view name) const;
    /// The value of the first line named `name`, "" when none.
    std::string Values(std::string_view name) const;
    /// Sets the value of the line named `name` (adding one when none); an empty value deletes the line.
    void SetValues(std::string_view name, std::string_view value);

    /// The lines, each followed by CR LF.
    std::string Text() const;
    /// Replaces the lines by those of `text`, split at CR LF, LF or CR.
    void SetText(std::string_view text);
    /// The lines joined by `delimiter`, a line holding the delimiter, a blank or a quote put in quotes.
    std::string DelimitedText(char delimiter = ',', char quote = '"') const;
    /// Replaces the lines by the items of `text` split at `delimiter` (quoted items may hold it).
    void SetDelimitedText(std::string_view text, char delimiter = ',', char quote = '"');

    void LoadFromStream(TStream& stream);
    void SaveToStream(TStream& stream) const;
    void LoadFromFile(const std::string& fileName);
    void SaveToFile(const std::string& fileName) const;

    bool CaseSensitive = false;

    void Assign(const TPersistent& source) override;
    std::string ClassName() const override { return "TStringList"; }
    bool operator==(const TStringList& other) const { return items_ == other.items_; }

    std::vector<std::string>::const_iterator begin() const { return items_.begin(); }
    std::vector<std::string>::const_iterator end() const { return items_.end(); }
    const std::vector<std::string>& Lines() const { return items_; }

private:
    void CheckIndex(int index, bool allowEnd = false) const;
    bool Equal(std::string_view a, std::string_view b) const;

    std::vector<std::string> items_;
};

} // namespace kv
