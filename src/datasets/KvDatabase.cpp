#include "datasets/KvDatabase.h"

#include "datasets/KvPgDataSet.h"
#include "datasets/KvSQLiteDataSet.h"
#include "platform/SysUtils.h"

#include <memory>

namespace kv {

void KvCheckClosed(const TDataSet& dataSet) {
    if (dataSet.Active()) throw EDatabaseError("Cannot perform this operation on an open dataset");
}

std::string TKvDatabase::CreateTableStatement(const std::string& name,
                                              const std::vector<TFieldDef>& columns) const {
    if (columns.empty()) throw EDatabaseError("Table '" + name + "' needs at least one column");
    std::string sql = "CREATE TABLE " + QuoteIdentifier(name) + " (";
    bool keyGiven = false;
    for (size_t i = 0; i < columns.size(); ++i) {
        const TFieldDef& column = columns[i];
        if (i) sql += ", ";
        sql += QuoteIdentifier(column.Name);
        if (const std::string type = TypeName(column.DataType); !type.empty()) sql += " " + type;
        // A table numbers its rows through one key; a further auto-numbered field is a plain integer.
        if (column.DataType == ftAutoInc && !keyGiven) {
            sql += " PRIMARY KEY";
            keyGiven = true;
        } else if (column.Required) {
            sql += " NOT NULL";
        }
    }
    return sql + ")";
}

std::string TKvDatabase::CreateTable(const std::string& name, const std::vector<TFieldDef>& columns) {
    std::string sql = CreateTableStatement(name, columns);
    Execute(sql);
    return sql;
}

namespace {

// The settings a PostgreSQL connection string may begin with; a file name that merely holds "=" is
// still a file.
constexpr std::string_view ConnectionKeywords[] = {"host",
                                                   "hostaddr",
                                                   "port",
                                                   "dbname",
                                                   "user",
                                                   "password",
                                                   "passfile",
                                                   "service",
                                                   "options",
                                                   "sslmode",
                                                   "sslcert",
                                                   "sslkey",
                                                   "sslrootcert",
                                                   "sslpassword",
                                                   "requiressl",
                                                   "gssencmode",
                                                   "application_name",
                                                   "connect_timeout",
                                                   "client_encoding",
                                                   "target_session_attrs",
                                                   "keepalives",
                                                   "channel_binding",
                                                   "load_balance_hosts"};

bool StartsWithKeyword(std::string_view target) {
    size_t pos = target.find_first_not_of(" \t");
    if (pos == std::string_view::npos) return false;
    const size_t end = target.find_first_of(" \t=", pos);
    if (end == std::string_view::npos) return false;
    const std::string_view word = target.substr(pos, end - pos);
    const size_t eq = target.find_first_not_of(" \t", end);
    if (eq == std::string_view::npos || target[eq] != '=') return false;
    for (std::string_view keyword : ConnectionKeywords)
        if (word == keyword) return true;
    return false;
}

TKvDatabase* OpenPostgreSQL(const std::string& target, TComponent* owner) {
    auto database = std::make_unique<TKvPgDatabase>();
    database->Open(target);
    if (owner) owner->InsertComponent(database.get());
    return database.release();
}

TKvDatabase* OpenSQLite(const std::string& target, TComponent* owner) {
    auto database = std::make_unique<TKvSQLiteDatabase>();
    database->Open(target);
    if (owner) owner->InsertComponent(database.get());
    return database.release();
}

bool AnyTarget(std::string_view) {
    return true;
}

// Each kind of database, asked in this order; the first that accepts a target opens it.
const struct {
    bool (*Accepts)(std::string_view target);
    TKvDatabase* (*Open)(const std::string& target, TComponent* owner);
} DatabaseKinds[] = {
    {IsPostgreSQLTarget, OpenPostgreSQL},
    {AnyTarget, OpenSQLite},
};

} // namespace

bool IsPostgreSQLTarget(std::string_view target) {
    return StartsText("postgresql://", target) || StartsText("postgres://", target) ||
           StartsWithKeyword(target);
}

TKvDatabase* OpenDatabase(const std::string& target, TComponent* owner) {
    if (Trim(target).empty()) throw EDatabaseError("No database given");
    for (const auto& kind : DatabaseKinds)
        if (kind.Accepts(target)) return kind.Open(target, owner);
    throw EDatabaseError("No kind of database accepts \"" + target + "\"");
}

} // namespace kv
