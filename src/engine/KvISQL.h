#pragma once
// TKvISQLWriter: the statements a run writes instead of changing the destination. Field and table names
// stand between the SQL options' name quotes, texts between the value quote with that quote doubled
// inside, numbers in invariant form, dates as quoted ISO-8601, Null as NULL; no value can leave its quotes.
// TKvISQLOutput: where a run's statements go, a list in memory, a file, or both.

#include "datasets/DataSet.h"
#include "engine/KvISettings.h"
#include "platform/StringList.h"

#include <memory>

#include <string>
#include <vector>

namespace kv {

class TKvISQLWriter {
public:
    TKvISQLWriter(const TKvISQLOptions& options, std::string tableName);

    /// A field or table name with the character case and quotes of the options.
    std::string Name(const std::string& name) const;
    /// A value as an SQL literal; `type` decides how dates are written.
    std::string Literal(const Variant& value, TFieldType type) const;
    /// "[name] = literal" pairs joined by " AND ", with "IS NULL" for a Null literal.
    std::string Condition(const std::vector<std::string>& names,
                          const std::vector<std::string>& literals) const;

    std::string Insert(const std::vector<std::string>& names, const std::vector<std::string>& literals) const;
    std::string Update(const std::vector<std::string>& names, const std::vector<std::string>& literals,
                       const std::string& condition) const;
    std::string Delete(const std::string& condition) const;
    std::string DeleteAll() const;

private:
    /// The table's name as the statements name it.
    std::string Table() const;
    std::string Terminate(std::string statement) const;
    std::string Quoted(const std::string& text) const;

    const TKvISQLOptions& options_;
    std::string table_;
};

class TStream;

/// The statements of one run: kept in Script() and, when a file is named, written to it as they come in
/// blocks, so that a script larger than memory should hold never is.
class TKvISQLOutput {
public:
    TKvISQLOutput();
    ~TKvISQLOutput();

    /// Starts a run's script for `tableName`: the file (when `fileName` is not empty) is created, and the
    /// `prologue` statements come first. `keep`: statements written to the file stay in Script() too.
    void Begin(const TKvISQLOptions& options, const std::string& tableName, const std::string& fileName,
               bool keep, const std::vector<std::string>& prologue);
    bool Active() const { return writer_ != nullptr; }
    /// The statement maker of the running script (Begin first).
    const TKvISQLWriter& Writer() const { return *writer_; }
    void Add(std::string statement);
    /// Writes what is pending and closes the file: the statements of the rows done so far stay, also when
    /// the run failed.
    void Finish();
    /// The statements kept in memory.
    TStringList& Script() { return script_; }

private:
    void Flush();

    std::unique_ptr<TKvISQLWriter> writer_;
    std::unique_ptr<TStream> file_;
    std::string pending_; ///< statements not yet written to the file
    TStringList script_;
    bool keep_ = true;
};

} // namespace kv
