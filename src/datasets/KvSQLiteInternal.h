#pragma once
// What the SQLite dataset and its read-ahead share: how a column is read as a field, how an error is raised.

#include "datasets/DataSet.h"

#include <string>

struct sqlite3_stmt;

namespace kv {

/// Column `column` of the row `statement` stands on, as a field of `type` reads it: text dates of date
/// fields as dates, "true"/"false" of boolean ones as booleans, anything else as SQLite stored it.
Variant SQLiteColumnValue(sqlite3_stmt* statement, int column, TFieldType type);
/// EDatabaseUnwritable for the codes that refuse every further write (busy, read-only, full, damaged,
/// ...), EDatabaseError for the rest.
[[noreturn]] void RaiseSQLiteError(int code, const std::string& message);

} // namespace kv
