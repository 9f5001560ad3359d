#pragma once
// TKvISQLWriter: the statements a run writes instead of changing the destination. Field and table names
// stand between the SQL options' name quotes, texts between the value quote with that quote doubled
// inside, numbers in invariant form, dates as quoted ISO-8601, Null as NULL; no value can leave its quotes.

#include "datasets/DataSet.h"
#include "engine/KvISettings.h"

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
    std::string Terminate(std::string statement) const;
    std::string Quoted(const std::string& text) const;

    const TKvISQLOptions& options_;
    std::string table_;
};

} // namespace kv
