#include "datasets/KvSQLiteDataSet.h"

#include "datasets/KvSQLiteInternal.h"
#include "datasets/KvSQLiteReadAhead.h"

#include "platform/DateUtils.h"
#include "platform/SysUtils.h"
#include "platform/Utf8.h"

#include <algorithm>
#include <atomic>
#include <climits>
#include <filesystem>
#include <sqlite3.h>

namespace kv {

void TSQLiteStatementFinalizer::operator()(sqlite3_stmt* statement) const {
    sqlite3_finalize(statement);
}

namespace {

// Resets a statement when leaving a scope, so that no statement stays pending between calls.
class TResetGuard {
public:
    explicit TResetGuard(sqlite3_stmt* statement) : statement_(statement) {}
    ~TResetGuard() { sqlite3_reset(statement_); }
    TResetGuard(const TResetGuard&) = delete;
    TResetGuard& operator=(const TResetGuard&) = delete;

private:
    sqlite3_stmt* statement_;
};

// ---- declared column types ----

struct TDeclaredType {
    TFieldType Type = ftString;
    int Size = 0;
    int Precision = 0;
};

// Type names by meaning, "|" between names; names not listed fall back on SQLite's affinity rules.
const struct {
    TFieldType Type;
    std::string_view Names;
} KnownTypeNames[] = {
    {ftInteger, "INT|INTEGER|MEDIUMINT|INT4|INT32"},
    {ftLargeint, "BIGINT|BIG INT|INT8|INT64"},
    {ftSmallint, "SMALLINT|TINYINT|INT2|INT1|INT16"},
    {ftBoolean, "BOOL|BOOLEAN|BIT|LOGICAL"},
    // SQLite gives "FLOATING POINT" INTEGER affinity ("POINT" holds "INT"); its meaning is a float.
    {ftFloat, "REAL|DOUBLE|DOUBLE PRECISION|FLOAT|FLOAT4|FLOAT8|FLOATING POINT"},
    {ftBCD, "NUMERIC|DECIMAL|DEC|NUMBER"},
    {ftCurrency, "MONEY|SMALLMONEY|CURRENCY"},
    {ftDate, "DATE"},
    {ftTime, "TIME"},
    {ftDateTime, "DATETIME|DATETIME2|SMALLDATETIME|TIMESTAMP|TIMESTAMPTZ"},
    {ftString, "CHAR|CHARACTER|VARCHAR|VARCHAR2|NCHAR|NVARCHAR|NVARCHAR2|CHARACTER VARYING|VARYING CHARACTER|"
               "NATIVE CHARACTER|TEXT|NTEXT|TINYTEXT|MEDIUMTEXT|LONGTEXT|CLOB|STRING"},
    {ftBlob, "BLOB|BINARY|VARBINARY|BYTEA|TINYBLOB|MEDIUMBLOB|LONGBLOB|IMAGE"},
};

bool LookUpTypeName(std::string_view name, TFieldType& type) {
    if (name.empty()) return false;
    for (const auto& known : KnownTypeNames) {
        for (size_t start = 0; start < known.Names.size();) {
            size_t end = known.Names.find('|', start);
            if (end == std::string_view::npos) end = known.Names.size();
            if (known.Names.substr(start, end - start) == name) {
                type = known.Type;
                return true;
            }
            start = end + 1;
        }
    }
    return false;
}

TDeclaredType MapDeclaredType(std::string_view declared) {
    TDeclaredType result;
    std::string text = UpperCase(Trim(declared));
    std::vector<int> args;
    const size_t paren = text.find('(');
    if (paren != std::string::npos) {
        const size_t close = text.find(')', paren);
        std::string_view inside = std::string_view(text).substr(
            paren + 1, close == std::string::npos ? std::string::npos : close - paren - 1);
        size_t start = 0;
        while (start <= inside.size()) {
            size_t comma = inside.find(',', start);
            if (comma == std::string_view::npos) comma = inside.size();
            int value = 0;
            args.push_back(TryStrToInt(Trim(inside.substr(start, comma - start)), value) ? value : 0);
            start = comma + 1;
        }
        text.erase(paren);
    }
    // Words separated by single blanks, "UNSIGNED" and "ZEROFILL" set aside.
    std::string base;
    bool isUnsigned = false;
    size_t pos = 0;
    while (pos < text.size()) {
        while (pos < text.size() && text[pos] <= ' ') ++pos;
        size_t end = pos;
        while (end < text.size() && text[end] > ' ') ++end;
        const std::string_view word = std::string_view(text).substr(pos, end - pos);
        if (word == "UNSIGNED")
            isUnsigned = true;
        else if (!word.empty() && word != "ZEROFILL")
            base += (base.empty() ? "" : " ") + std::string(word);
        pos = end;
    }
    if (base.empty() && !isUnsigned) {
        // No declared type: values keep the kind they come with, as SQLite stores them.
        result.Type = ftVariant;
        return result;
    }

    TFieldType type = ftString;
    const auto has = [&base](const char* part) { return base.find(part) != std::string::npos; };
    if (!LookUpTypeName(base, type) && !LookUpTypeName(base.substr(0, base.find(' ')), type)) {
        // SQLite's affinity rules, in its order, then the remaining kinds by name.
        if (has("INT") || base.empty())
            type = ftInteger;
        else if (has("CHAR") || has("CLOB") || has("TEXT"))
            type = ftString;
        else if (has("BLOB"))
            type = ftBlob;
        else if (has("REAL") || has("FLOA") || has("DOUB"))
            type = ftFloat;
        else if (has("BOOL"))
            type = ftBoolean;
        else if (has("DATETIME") || has("TIMESTAMP"))
            type = ftDateTime;
        else if (has("DATE"))
            type = ftDate;
        else if (has("TIME"))
            type = ftTime;
        else if (has("DEC") || has("NUMERIC"))
            type = ftBCD;
        else if (has("MONEY") || has("CURRENCY"))
            type = ftCurrency;
        else
            type = ftString; // a name we cannot read: keep whatever SQLite stores
    }
    if (isUnsigned) {
        if (type == ftInteger)
            type = ftLargeint;
        else if (type == ftSmallint && !has("TINY"))
            type = ftWord;
    }
    result.Type = type;
    if (type == ftString && !args.empty()) result.Size = std::max(args[0], 0);
    if (type == ftBCD) {
        if (!args.empty()) result.Size = std::max(args[0], 0);
        if (args.size() > 1) result.Precision = std::max(args[1], 0);
    }
    return result;
}

// ---- ISO-8601 text of dates and times ----

// A stored date-time, date or time of day; text with a zone stays text (a TDateTime holds no zone).
bool ParseISODateTime(std::string_view s, TDateTime& out) {
    return TryISO8601ToDateTime(s, out) || TryISO8601ToTime(s, out);
}

} // namespace

Variant SQLiteColumnValue(sqlite3_stmt* statement, int column, TFieldType type) {
    switch (sqlite3_column_type(statement, column)) {
    case SQLITE_INTEGER: {
        const int64_t value = sqlite3_column_int64(statement, column);
        return type == ftBoolean ? Variant(value != 0) : Variant::FromInt(value);
    }
    case SQLITE_FLOAT:
        return Variant(sqlite3_column_double(statement, column));
    case SQLITE_TEXT: {
        const char* p = reinterpret_cast<const char*>(sqlite3_column_text(statement, column));
        const std::string_view text(p ? p : "", static_cast<size_t>(sqlite3_column_bytes(statement, column)));
        if (IsDateTimeType(type)) {
            TDateTime value;
            if (ParseISODateTime(text, value)) return Variant::FromDateTime(value);
        } else if (type == ftBoolean) {
            if (SameText(text, "true")) return Variant(true);
            if (SameText(text, "false")) return Variant(false);
        }
        return Variant(text);
    }
    case SQLITE_BLOB: {
        const char* p = static_cast<const char*>(sqlite3_column_blob(statement, column));
        const size_t size = static_cast<size_t>(sqlite3_column_bytes(statement, column));
        return Variant::FromBytes(p ? std::string(p, size) : std::string());
    }
    default:
        return Variant::Null();
    }
}

// ---- TKvSQLiteDatabase ----

TKvSQLiteDatabase::TKvSQLiteDatabase(TComponent* owner) : TKvDatabase(owner) {}

TKvSQLiteDatabase::~TKvSQLiteDatabase() {
    Close();
    for (TKvSQLiteDataSet* dataSet : dataSets_) dataSet->db_ = nullptr;
}

void TKvSQLiteDatabase::Open(const std::string& fileName) {
    Close();
    sqlite3* db = nullptr;
    // One connection is used by one thread at a time: SQLite's own locking would only cost time.
    int rc = sqlite3_open_v2(fileName.c_str(), &db,
                             SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
    if (rc == SQLITE_OK) {
        sqlite3_extended_result_codes(db, 1);
        sqlite3_busy_timeout(db, busyTimeout_);
        // SQLite reads the file lazily; reading the schema now makes a file that is not a database fail here.
        rc = sqlite3_exec(db, "SELECT count(*) FROM sqlite_master", nullptr, nullptr, nullptr);
    }
    if (rc != SQLITE_OK) {
        const std::string message = db ? sqlite3_errmsg(db) : sqlite3_errstr(rc);
        sqlite3_close(db);
        throw EDatabaseError("Cannot open database \"" + fileName + "\": " + message);
    }
    db_ = db;
    fileName_ = fileName;
}

void TKvSQLiteDatabase::Close() {
    if (!db_) return;
    for (TKvSQLiteDataSet* dataSet : dataSets_) dataSet->Close();
    sqlite3_close_v2(db_); // rolls back an open transaction
    db_ = nullptr;
}

void TKvSQLiteDatabase::SetBusyTimeout(int milliseconds) {
    busyTimeout_ = std::max(milliseconds, 0);
    if (db_) sqlite3_busy_timeout(db_, busyTimeout_);
}

void TKvSQLiteDatabase::CheckConnected() const {
    if (!db_) throw EDatabaseError("The database is not open");
}

namespace {

// Failures of the database itself rather than of one row's values: every further write would fail too.
bool RefusesEveryWrite(int code) {
    switch (code & 0xFF) {
    case SQLITE_READONLY:
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
    case SQLITE_FULL:
    case SQLITE_IOERR:
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
    case SQLITE_CANTOPEN:
    case SQLITE_PERM:
        return true;
    default:
        return false;
    }
}

// Whether SQLite answers the query by scanning a table (rather than searching an index).
bool ScansTable(TKvSQLiteDatabase& db, const std::string& sql) {
    TSQLiteStatement plan = db.Prepare("EXPLAIN QUERY PLAN " + sql);
    int rc;
    while ((rc = sqlite3_step(plan.get())) == SQLITE_ROW) {
        const unsigned char* detail = sqlite3_column_text(plan.get(), 3);
        if (detail && std::string_view(reinterpret_cast<const char*>(detail)).starts_with("SCAN"))
            return true;
    }
    if (rc != SQLITE_DONE) db.RaiseError();
    return false;
}

} // namespace

void RaiseSQLiteError(int code, const std::string& message) {
    if (RefusesEveryWrite(code)) throw EDatabaseUnwritable(message);
    throw EDatabaseError(message);
}

void TKvSQLiteDatabase::RaiseError() const {
    if (!db_) throw EDatabaseError("The database is not open");
    RaiseSQLiteError(sqlite3_extended_errcode(db_), sqlite3_errmsg(db_));
}

void TKvSQLiteDatabase::Execute(const std::string& sql) {
    CheckConnected();
    for (TKvSQLiteDataSet* dataSet : dataSets_) dataSet->FlushAppends(); // the statement may read the rows
    char* error = nullptr;
    if (const int rc = sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &error); rc != SQLITE_OK) {
        const std::string message = error ? error : sqlite3_errmsg(db_);
        sqlite3_free(error);
        RaiseSQLiteError(rc, message);
    }
}

TSQLiteStatement TKvSQLiteDatabase::Prepare(const std::string& sql, bool persistent) {
    CheckConnected();
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v3(db_, sql.data(), static_cast<int>(sql.size()),
                           persistent ? SQLITE_PREPARE_PERSISTENT : 0, &statement, nullptr) != SQLITE_OK)
        RaiseError();
    if (!statement) throw EDatabaseError("No SQL statement to prepare");
    return TSQLiteStatement(statement);
}

void TKvSQLiteDatabase::StartTransaction() {
    Execute("BEGIN IMMEDIATE");
}

void TKvSQLiteDatabase::Commit() {
    Execute("COMMIT"); // the rows waiting to be appended first
}

void TKvSQLiteDatabase::Rollback() {
    for (TKvSQLiteDataSet* dataSet : dataSets_) dataSet->DiscardAppends();
    // Some errors end the transaction inside SQLite already; rolling back then has nothing left to do.
    if (InTransaction()) Execute("ROLLBACK");
}

bool TKvSQLiteDatabase::InTransaction() const {
    return db_ && !sqlite3_get_autocommit(db_);
}

void TKvSQLiteDatabase::PreferFastCommits() {
    CheckConnected();
    TSQLiteStatement mode = Prepare("PRAGMA journal_mode");
    if (sqlite3_step(mode.get()) != SQLITE_ROW) RaiseError();
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(mode.get(), 0));
    if (text && SameText(text, "wal")) Execute("PRAGMA synchronous=NORMAL");
}

bool TKvSQLiteDatabase::TableExists(const std::string& name) {
    TSQLiteStatement statement = Prepare("SELECT 1 FROM pragma_table_list(?1)");
    sqlite3_bind_text64(statement.get(), 1, name.data(), name.size(), SQLITE_STATIC, SQLITE_UTF8);
    const int rc = sqlite3_step(statement.get());
    if (rc != SQLITE_ROW && rc != SQLITE_DONE) RaiseError();
    return rc == SQLITE_ROW;
}

std::string TKvSQLiteDatabase::QuoteIdentifier(std::string_view name) {
    std::string quoted = "\"";
    for (char c : name) {
        quoted += c;
        if (c == '"') quoted += '"';
    }
    return quoted + '"';
}

std::string TKvSQLiteDatabase::Description() const {
    if (fileName_.empty() || fileName_ == ":memory:") return "SQLite database in memory";
    return "SQLite database \"" + fileName_ + "\"";
}

std::string TKvSQLiteDatabase::TypeName(TFieldType type) const {
    // Integers of every size are INTEGER (SQLite keeps 64 bits whatever the declaration says), decimals
    // REAL, so that the names stay those the command line has always written.
    switch (type) {
    case ftSmallint:
    case ftInteger:
    case ftWord:
    case ftAutoInc:
    case ftLargeint:
        return "INTEGER";
    case ftFloat:
    case ftCurrency:
    case ftBCD:
    case ftFMTBcd:
        return "REAL";
    case ftBoolean:
        return "BOOLEAN";
    case ftDate:
        return "DATE";
    case ftTime:
        return "TIME";
    case ftDateTime:
    case ftTimeStamp:
        return "DATETIME";
    case ftVariant:
        return "";
    default:
        if (IsTextType(type)) return "TEXT";
        if (IsBlobType(type) || type == ftBytes || type == ftVarBytes) return "BLOB";
        throw EDatabaseError(std::string("No column type holds fields of type ") + FieldTypeName(type));
    }
}

TDataSet* TKvSQLiteDatabase::OpenDataSet(const std::string& table, TComponent* owner) {
    return KvOpenTableDataSet<TKvSQLiteDataSet>(this, table, owner, [](TKvSQLiteDataSet&) {});
}

// ---- TKvSQLiteDataSet ----

TKvSQLiteDataSet::TKvSQLiteDataSet(TComponent* owner) : TDataSet(owner) {}

TKvSQLiteDataSet::~TKvSQLiteDataSet() {
    Close();
    SetDatabase(nullptr);
}

void TKvSQLiteDataSet::SetDatabase(TKvSQLiteDatabase* database) {
    KvMoveDataSet(*this, db_, database, &TKvSQLiteDatabase::dataSets_);
}

void TKvSQLiteDataSet::SetTableName(const std::string& name) {
    if (name == tableName_) return;
    KvCheckClosed(*this);
    tableName_ = name;
}

void TKvSQLiteDataSet::SetFetchSize(int rows) {
    fetchSize_ = std::max(rows, 1);
}

void TKvSQLiteDataSet::CheckDatabase() const {
    if (!db_) throw EDatabaseError("No database assigned");
    db_->CheckConnected();
    if (tableName_.empty()) throw EDatabaseError("The table name is missing");
}

void TKvSQLiteDataSet::CheckWritable() const {
    if (!hasRowid_)
        throw EDatabaseError("Cannot modify a read-only dataset: '" + tableName_ +
                             "' is a view or a table without rowid");
}

TKvSQLiteDataSet::TTableInfo TKvSQLiteDataSet::ReadTableInfo() const {
    CheckDatabase();
    TTableInfo info;
    const auto bindName = [this](sqlite3_stmt* statement) {
        sqlite3_bind_text64(statement, 1, tableName_.data(), tableName_.size(), SQLITE_STATIC, SQLITE_UTF8);
    };

    TSQLiteStatement list = db_->Prepare("SELECT type, wr, schema FROM pragma_table_list(?1)");
    bindName(list.get());
    int rc = sqlite3_step(list.get());
    if (rc == SQLITE_DONE) throw EDatabaseError("Table '" + tableName_ + "' does not exist");
    if (rc != SQLITE_ROW) db_->RaiseError();
    const bool isView =
        std::string_view(reinterpret_cast<const char*>(sqlite3_column_text(list.get(), 0))) == "view";
    info.HasRowid = !isView && sqlite3_column_int(list.get(), 1) == 0;
    info.Schema = reinterpret_cast<const char*>(sqlite3_column_text(list.get(), 2));

    TSQLiteStatement xinfo = db_->Prepare("SELECT name, type, \"notnull\", dflt_value, pk, hidden "
                                          "FROM pragma_table_xinfo(?1) ORDER BY cid");
    bindName(xinfo.get());
    int keyColumns = 0;
    std::vector<std::string> declaredTypes;
    while ((rc = sqlite3_step(xinfo.get())) == SQLITE_ROW) {
        const int hidden = sqlite3_column_int(xinfo.get(), 5);
        if (hidden == 1) continue; // a virtual table's hidden column
        const auto text = [&](int column) {
            const unsigned char* p = sqlite3_column_text(xinfo.get(), column);
            return p ? std::string(reinterpret_cast<const char*>(p)) : std::string();
        };
        TColumn column;
        column.Def.Name = text(0);
        const std::string declared = text(1);
        const TDeclaredType mapped = MapDeclaredType(declared);
        column.Def.DataType = mapped.Type;
        column.Def.Size = mapped.Size;
        column.Def.Precision = mapped.Precision;
        column.Untyped = Trim(declared).empty();
        column.Generated = hidden == 2 || hidden == 3;
        column.KeyPosition = sqlite3_column_int(xinfo.get(), 4);
        column.Def.Required = sqlite3_column_int(xinfo.get(), 2) != 0 &&
                              sqlite3_column_type(xinfo.get(), 3) == SQLITE_NULL && !column.Generated;
        if (column.KeyPosition > 0) ++keyColumns;
        declaredTypes.push_back(UpperCase(Trim(declared)));
        info.Columns.push_back(std::move(column));
    }
    if (rc != SQLITE_DONE) db_->RaiseError();

    // A single-column key declared exactly INTEGER names the rowid, unless SQLite built an index for it
    // (as it does for "INTEGER PRIMARY KEY DESC"), which means it is an ordinary column.
    int aliasColumn = -1;
    if (info.HasRowid && keyColumns == 1) {
        for (size_t i = 0; i < info.Columns.size(); ++i)
            if (info.Columns[i].KeyPosition == 1 && declaredTypes[i] == "INTEGER")
                aliasColumn = static_cast<int>(i);
        if (aliasColumn >= 0) {
            TSQLiteStatement indexes =
                db_->Prepare("SELECT count(*) FROM pragma_index_list(?1) WHERE origin = 'pk'");
            bindName(indexes.get());
            if (sqlite3_step(indexes.get()) != SQLITE_ROW) db_->RaiseError();
            if (sqlite3_column_int(indexes.get(), 0) > 0) aliasColumn = -1;
        }
    }
    if (aliasColumn >= 0) {
        TColumn& alias = info.Columns[static_cast<size_t>(aliasColumn)];
        alias.Def.DataType = ftAutoInc;
        alias.Def.Required = false; // SQLite numbers a row whose key is left Null
    }

    // Columns may take the rowid's names; the rowid is then reached through another of them.
    if (info.HasRowid) {
        for (const char* name : {"rowid", "_rowid_", "oid"}) {
            const bool taken = std::any_of(info.Columns.begin(), info.Columns.end(),
                                           [name](const TColumn& c) { return SameText(c.Def.Name, name); });
            if (!taken) {
                info.RowidName = name;
                break;
            }
        }
        if (info.RowidName.empty() && aliasColumn >= 0)
            info.RowidName =
                TKvSQLiteDatabase::QuoteIdentifier(info.Columns[static_cast<size_t>(aliasColumn)].Def.Name);
        if (info.RowidName.empty()) info.HasRowid = false;
    }
    if (info.HasRowid) {
        // Virtual tables say they are tables but need not have a rowid.
        sqlite3_stmt* probe = nullptr;
        const std::string sql = "SELECT " + info.RowidName + " FROM " + QuotedTable() + " LIMIT 0";
        if (sqlite3_prepare_v2(db_->Handle(), sql.c_str(), -1, &probe, nullptr) != SQLITE_OK)
            info.HasRowid = false;
        sqlite3_finalize(probe);
    }
    for (TColumn& column : info.Columns)
        if (column.Generated || !info.HasRowid) column.Def.ReadOnly = true;
    return info;
}

std::optional<std::string> TKvSQLiteDataSet::PublishedProperty(const std::string& name) const {
    if (SameText(name, "TableName")) return tableName_;
    if (!SameText(name, "IndexFieldName")) return std::nullopt;
    std::vector<TColumn> read;
    const std::vector<TColumn>* columns = &columns_;
    if (!Active()) {
        try {
            read = ReadTableInfo().Columns;
        } catch (const EDatabaseError&) {
            return std::nullopt;
        }
        columns = &read;
    }
    std::vector<const TColumn*> key;
    for (const TColumn& column : *columns)
        if (column.KeyPosition > 0) key.push_back(&column);
    if (key.empty()) return std::nullopt;
    std::sort(key.begin(), key.end(),
              [](const TColumn* a, const TColumn* b) { return a->KeyPosition < b->KeyPosition; });
    std::string names;
    for (const TColumn* column : key) names += (names.empty() ? "" : ";") + column->Def.Name;
    return names;
}

std::string TKvSQLiteDataSet::ColumnList(const TAssignedFields* only) const {
    std::string list;
    for (size_t i = 0; i < columns_.size(); ++i) {
        if (only && !(*only)[i]) continue;
        if (!list.empty()) list += ", ";
        list += TKvSQLiteDatabase::QuoteIdentifier(columns_[i].Def.Name);
    }
    return list;
}

sqlite3_stmt* TKvSQLiteDataSet::FindStatement(const std::string& key) const {
    auto found = statements_.find(key);
    return found == statements_.end() ? nullptr : found->second.get();
}

sqlite3_stmt* TKvSQLiteDataSet::AddStatement(const std::string& key, const std::string& sql) {
    return statements_.insert_or_assign(key, db_->Prepare(sql, true)).first->second.get();
}

std::vector<TFieldDef> TKvSQLiteDataSet::InternalOpen() {
    TTableInfo info = ReadTableInfo();
    if (info.Columns.empty()) throw EDatabaseError("Table '" + tableName_ + "' has no columns");
    columns_ = std::move(info.Columns);
    schema_ = std::move(info.Schema);
    hasRowid_ = info.HasRowid;
    rowidName_ = std::move(info.RowidName);
    onRow_ = false;
    windowValid_ = false;
    forwardDone_ = true;
    std::vector<TFieldDef> defs;
    for (const TColumn& column : columns_) defs.push_back(column.Def);
    return defs;
}

void TKvSQLiteDataSet::InternalClose() {
    try {
        FlushAppends();
    } catch (const EDatabaseError&) {
        // Closing cannot report: the rows go with the transaction that failed.
    }
    DiscardAppends();
    pendingRows_.clear();
    groupsRows_.reset();
    readAhead_.reset();
    for (const auto& [fields, table] : keyTables_) DropKeyTable(table);
    keyTables_.clear();
    keyTablesRefused_.clear();
    lookupScans_.clear();
    statements_.clear();
    lastPost_[0] = lastPost_[1] = {};
    lastLocate_ = {};
    forward_.reset();
    forwardDone_ = true;
    columns_.clear();
    windowRowids_.clear();
    windowValues_.clear();
    windowValid_ = false;
    onRow_ = false;
}

void TKvSQLiteDataSet::ReadRow(sqlite3_stmt* statement, int firstColumn, std::vector<Variant>& out) const {
    for (size_t i = 0; i < columns_.size(); ++i)
        out.push_back(
            SQLiteColumnValue(statement, firstColumn + static_cast<int>(i), columns_[i].Def.DataType));
}

size_t TKvSQLiteDataSet::FillWindow(int64_t from) {
    readAhead_.reset(); // a read out of order: this connection reads on from here
    static const std::string key = "window";
    sqlite3_stmt* statement = FindStatement(key);
    if (!statement)
        statement =
            AddStatement(key, "SELECT " + rowidName_ + ", " + ColumnList() + " FROM " + QuotedTable() +
                                  " WHERE " + rowidName_ + " >= ?1 ORDER BY " + rowidName_ + " LIMIT ?2");
    windowRowids_.clear();
    windowValues_.clear();
    windowPos_ = 0;
    windowTaken_ = SIZE_MAX;
    windowValid_ = false;
    TResetGuard reset(statement);
    sqlite3_bind_int64(statement, 1, from);
    sqlite3_bind_int(statement, 2, fetchSize_);
    int rc;
    while ((rc = sqlite3_step(statement)) == SQLITE_ROW) {
        windowRowids_.push_back(sqlite3_column_int64(statement, 0));
        ReadRow(statement, 1, windowValues_);
    }
    if (rc != SQLITE_DONE) db_->RaiseError();
    windowValid_ = !windowRowids_.empty();
    return windowRowids_.size();
}

bool TKvSQLiteDataSet::InternalFirst() {
    FlushAppends();
    if (!hasRowid_) {
        if (!forward_) forward_ = db_->Prepare("SELECT " + ColumnList() + " FROM " + QuotedTable(), true);
        sqlite3_reset(forward_.get());
        forwardDone_ = false;
        forwardIndex_ = -1;
        windowValid_ = false;
        return ForwardStep();
    }
    if (readAhead_) {
        readAhead_->Start(INT64_MIN);
        onRow_ = TakeReadAheadWindow();
    } else {
        onRow_ = FillWindow(INT64_MIN) > 0;
    }
    if (onRow_) rowid_ = windowRowids_[0];
    return onRow_;
}

bool TKvSQLiteDataSet::InternalNext() {
    FlushAppends();
    if (!hasRowid_) return ForwardStep();
    if (!onRow_) return false;
    if (windowValid_ && windowPos_ + 1 < windowRowids_.size()) {
        rowid_ = windowRowids_[++windowPos_];
        return true;
    }
    if (rowid_ == INT64_MAX) return false;
    if (readAhead_) {
        if (!readAhead_->Running()) readAhead_->Start(rowid_ + 1);
        if (!TakeReadAheadWindow()) return false;
    } else if (FillWindow(rowid_ + 1) == 0) {
        return false;
    }
    rowid_ = windowRowids_[0];
    return true;
}

bool TKvSQLiteDataSet::TakeReadAheadWindow() {
    TKvSQLiteReadAhead::TWindow window{std::move(windowRowids_), std::move(windowValues_)};
    windowRowids_.clear();
    windowValues_.clear();
    windowPos_ = 0;
    windowTaken_ = SIZE_MAX;
    windowValid_ = false;
    if (!readAhead_->Take(window)) return false;
    windowRowids_ = std::move(window.Rowids);
    windowValues_ = std::move(window.Values);
    windowValid_ = true;
    return true;
}

std::string TKvSQLiteDataSet::FileOfTable() const {
    if (!db_ || !db_->Handle()) return {};
    const char* file = sqlite3_db_filename(db_->Handle(), schema_.empty() ? "main" : schema_.c_str());
    return file ? file : "";
}

bool TKvSQLiteDataSet::ReadAhead(const TDataSet* writtenMeanwhile) {
    if (!Active() || !hasRowid_ || db_->InTransaction() || !pendingTags_.empty()) return false;
    const std::string file = FileOfTable();
    if (file.empty()) return false;
    if (const auto* other = dynamic_cast<const TKvSQLiteDataSet*>(writtenMeanwhile)) {
        const std::string written = other->FileOfTable();
        std::error_code error;
        if (written.empty() || written == file || std::filesystem::equivalent(written, file, error) || error)
            return false;
    }
    std::vector<TFieldType> types;
    for (const TColumn& column : columns_) types.push_back(column.Def.DataType);
    try {
        readAhead_ = std::make_unique<TKvSQLiteReadAhead>(
            file, db_->BusyTimeout(),
            "SELECT " + rowidName_ + ", " + ColumnList() + " FROM " + QuotedTable() + " WHERE " + rowidName_ +
                " >= ?1 ORDER BY " + rowidName_ + " LIMIT ?2",
            std::move(types));
    } catch (const EDatabaseError&) {
        return false; // read on this connection, as without
    }
    return true;
}

void TKvSQLiteDataSet::StopReadAhead() {
    readAhead_.reset();
}

void TKvSQLiteDataSet::InternalReadRecord(std::vector<Variant>& values) {
    if (onPendingRow_) { // as posted: SQLite has not seen it yet
        values = pendingRows_[pendingTags_.size() - 1];
        return;
    }
    if (hasRowid_) {
        if (!onRow_) return;
        if (!windowValid_) {
            // Read again after a write or a Locate; the window then runs on from here.
            if (FillWindow(rowid_) == 0 || windowRowids_[0] != rowid_) {
                windowValid_ = false;
                return; // the row is gone
            }
        }
    } else if (!windowValid_) {
        return;
    }
    const size_t n = columns_.size();
    auto first = windowValues_.begin() + static_cast<std::ptrdiff_t>(windowPos_ * n);
    if (!hasRowid_) {
        values.assign(first, first + static_cast<std::ptrdiff_t>(n));
        return;
    }
    if (windowPos_ == windowTaken_) { // read again: its values were handed over the first time
        if (FillWindow(rowid_) == 0 || windowRowids_[0] != rowid_) {
            windowValid_ = false;
            return;
        }
        first = windowValues_.begin();
    }
    // A row is read into the record once per visit: its values move there rather than being copied.
    values.assign(std::make_move_iterator(first),
                  std::make_move_iterator(first + static_cast<std::ptrdiff_t>(n)));
    windowTaken_ = windowPos_;
}

void TKvSQLiteDataSet::BindValue(sqlite3_stmt* statement, int parameter, const Variant& value,
                                 const TColumn& column) const {
    int rc = SQLITE_OK;
    switch (value.VarType()) {
    case varEmpty:
    case varNull:
        rc = sqlite3_bind_null(statement, parameter);
        break;
    case varBoolean:
        rc = sqlite3_bind_int(statement, parameter, value.AsBoolean() ? 1 : 0);
        break;
    case varInteger:
    case varInt64:
        rc = sqlite3_bind_int64(statement, parameter, value.AsInt64());
        break;
    case varDouble:
        rc = sqlite3_bind_double(statement, parameter, value.AsDouble());
        break;
    case varDate: {
        const TDateTime t = value.AsDateTime();
        const auto slot = static_cast<size_t>(parameter - 1);
        if (boundTexts_.size() <= slot) boundTexts_.resize(slot + 1);
        std::string& text = boundTexts_[slot];
        char buffer[kISO8601Size];
        text.assign(buffer, column.Def.DataType == ftDate   ? PutDateISO8601(t, buffer)
                            : column.Def.DataType == ftTime ? PutTimeISO8601(t, buffer)
                                                            : PutDateTimeISO8601(t, buffer));
        rc = sqlite3_bind_text64(statement, parameter, text.data(), text.size(), SQLITE_STATIC, SQLITE_UTF8);
        break;
    }
    case varString: {
        // The caller keeps the value alive until the statement has run.
        const std::string& text = value.StringRef();
        rc = sqlite3_bind_text64(statement, parameter, text.data(), text.size(), SQLITE_STATIC, SQLITE_UTF8);
        break;
    }
    case varBytes: {
        const std::string& bytes = value.StringRef();
        rc = sqlite3_bind_blob64(statement, parameter, bytes.data(), bytes.size(), SQLITE_STATIC);
        break;
    }
    case varArray:
        RaiseCastError(varArray, varString);
    }
    if (rc != SQLITE_OK) db_->RaiseError();
}

void TKvSQLiteDataSet::InternalPost(bool inserting, std::vector<Variant>& values,
                                    const TAssignedFields& given) {
    CheckWritable();
    if (readAhead_) readAhead_.reset(); // writes and reads go through this connection from here
    if (inserting && appendBatch_ > 1 && GroupsRows()) {
        // A full group is written before the next row joins: should that fail, the record posted now
        // is still the dataset's, as it was.
        if (pendingTags_.size() >= static_cast<size_t>(appendBatch_) ||
            (!pendingTags_.empty() && given != pendingAssigned_))
            FlushAppends();
        if (pendingTags_.empty()) {
            pendingCount_ = 0;
            for (size_t i = 0; i < columns_.size(); ++i) {
                if (!given[i]) continue;
                if (columns_[i].Generated)
                    throw EDatabaseError("Field '" + columns_[i].Def.Name + "' cannot be modified");
                ++pendingCount_;
            }
            pendingAssigned_ = given;
        }
        if (pendingCount_ > 0) {
            // The record is not read again after its post: it joins the waiting rows, and the dataset gets
            // the record of an earlier row to fill next (it clears it first).
            const size_t row = pendingTags_.size();
            if (pendingRows_.size() == row) pendingRows_.emplace_back();
            pendingRows_[row].swap(values);
            ++appendCount_;
            pendingTags_.push_back(rowTag_.value_or(appendCount_));
            onPendingRow_ = true;
            windowValid_ = false;
            return;
        }
    }
    FlushAppends();
    if (inserting) ++appendCount_;
    // Setting the rowid to the value it has would make SQLite move the row to where it already is.
    const TAssignedFields* assignedFields = &given;
    if (!inserting) {
        for (size_t i = 0; i < columns_.size(); ++i) {
            if (given[i] && columns_[i].Def.DataType == ftAutoInc && values[i].IsOrdinal() &&
                values[i].AsInt64() == rowid_) {
                unchangedRowid_ = given;
                unchangedRowid_[i] = 0;
                assignedFields = &unchangedRowid_;
            }
        }
    }
    const TAssignedFields& assigned = *assignedFields;
    // Rows of one import assign the same fields: the statement of the last write usually serves again.
    TLastPost& last = lastPost_[inserting ? 1 : 0];
    if (last.Statement && assigned == last.Assigned) {
        BindAndStep(last.Statement, inserting, values, assigned);
        return;
    }
    int assignedCount = 0;
    for (size_t i = 0; i < columns_.size(); ++i) {
        if (!assigned[i]) continue;
        if (columns_[i].Generated)
            throw EDatabaseError("Field '" + columns_[i].Def.Name + "' cannot be modified");
        ++assignedCount;
    }
    if (!inserting && assignedCount == 0) return; // nothing changed
    sqlite3_stmt* statement = PostStatement(inserting, assigned, assignedCount);
    last.Statement = statement;
    last.Assigned = assigned;
    BindAndStep(statement, inserting, values, assigned);
}

sqlite3_stmt* TKvSQLiteDataSet::PostStatement(bool inserting, const TAssignedFields& assigned,
                                              int assignedCount) {
    std::string key(1, inserting ? 'i' : 'u');
    for (size_t i = 0; i < columns_.size(); ++i) key += assigned[i] ? '1' : '0';
    if (sqlite3_stmt* statement = FindStatement(key)) return statement;
    std::string sql;
    if (inserting && assignedCount == 0) {
        sql = "INSERT INTO " + QuotedTable() + " DEFAULT VALUES";
    } else if (inserting) {
        // Only the assigned columns, so the others get their declared defaults.
        sql = "INSERT INTO " + QuotedTable() + " (" + ColumnList(&assigned) + ") VALUES (?";
        for (int i = 1; i < assignedCount; ++i) sql += ", ?";
        sql += ")";
    } else {
        sql = "UPDATE " + QuotedTable() + " SET ";
        for (size_t i = 0, n = 0; i < columns_.size(); ++i)
            if (assigned[i])
                sql += (n++ ? ", " : "") + TKvSQLiteDatabase::QuoteIdentifier(columns_[i].Def.Name) + " = ?";
        sql += " WHERE " + rowidName_ + " = ?";
    }
    return AddStatement(key, sql);
}

bool TKvSQLiteDataSet::GroupsRows() {
    if (!groupsRows_) {
        // A trigger may end a statement half done (RAISE(FAIL)), and so may a constraint's ON CONFLICT FAIL
        // or ROLLBACK: rows of such a table go one by one, so that a refused one never costs the others.
        TSQLiteStatement check = db_->Prepare(
            "SELECT count(*) FROM " + TKvSQLiteDatabase::QuoteIdentifier(schema_) +
            ".sqlite_schema WHERE tbl_name = ?1 COLLATE NOCASE AND (type = 'trigger' OR (type = 'table' AND "
            "(sql LIKE '%FAIL%' OR sql LIKE '%ROLLBACK%')))");
        sqlite3_bind_text64(check.get(), 1, tableName_.data(), tableName_.size(), SQLITE_STATIC, SQLITE_UTF8);
        groupsRows_ = sqlite3_step(check.get()) == SQLITE_ROW && sqlite3_column_int64(check.get(), 0) == 0;
    }
    return *groupsRows_;
}

bool TKvSQLiteDataSet::InsertGroup(size_t first, size_t count) {
    std::string key = "g" + std::to_string(count) + ":";
    for (size_t i = 0; i < columns_.size(); ++i) key += pendingAssigned_[i] ? '1' : '0';
    sqlite3_stmt* statement = FindStatement(key);
    if (!statement) {
        std::string row = "(?";
        for (int i = 1; i < pendingCount_; ++i) row += ", ?";
        row += ")";
        std::string sql =
            "INSERT INTO " + QuotedTable() + " (" + ColumnList(&pendingAssigned_) + ") VALUES " + row;
        for (size_t r = 1; r < count; ++r) sql += ", " + row;
        statement = AddStatement(key, sql);
    }
    sqlite3* db = db_->Handle();
    {
        TResetGuard reset(statement);
        const size_t n = columns_.size();
        int parameter = 1;
        try {
            for (size_t r = first; r < first + count; ++r)
                for (size_t i = 0; i < n; ++i)
                    if (pendingAssigned_[i])
                        BindValue(statement, parameter++, pendingRows_[r][i], columns_[i]);
        } catch (const EDatabaseUnwritable&) {
            throw;
        } catch (const EDatabaseError&) {
            return false; // found again row by row
        }
        if (sqlite3_step(statement) != SQLITE_DONE) {
            try {
                db_->RaiseError();
            } catch (const EDatabaseUnwritable&) {
                throw;
            } catch (const EDatabaseError&) {
                return false; // SQLite undid the statement: its rows go again one by one
            }
        }
    }
    windowValid_ = false;
    if (sqlite3_changes(db) > 0) {
        rowid_ = sqlite3_last_insert_rowid(db);
        onRow_ = true;
    }
    return true;
}

void TKvSQLiteDataSet::FlushAppends() {
    if (pendingTags_.empty()) return;
    onPendingRow_ = false;
    const size_t rows = pendingTags_.size();
    std::vector<std::pair<int64_t, std::exception_ptr>> refused;
    try {
        const int variables = sqlite3_limit(db_->Handle(), SQLITE_LIMIT_VARIABLE_NUMBER, -1);
        const size_t most =
            std::max<size_t>(1, static_cast<size_t>(variables) / static_cast<size_t>(pendingCount_));
        sqlite3_stmt* single = nullptr;
        for (size_t first = 0; first < rows;) {
            const size_t count = std::min(most, rows - first);
            if (count < 2 || !InsertGroup(first, count)) {
                if (!single) single = PostStatement(true, pendingAssigned_, pendingCount_);
                for (size_t r = first; r < first + count; ++r) {
                    try {
                        BindAndStep(single, true, pendingRows_[r], pendingAssigned_);
                    } catch (const EDatabaseUnwritable&) {
                        throw;
                    } catch (const EDatabaseError&) {
                        refused.emplace_back(pendingTags_[r], std::current_exception());
                    }
                }
            }
            first += count;
        }
    } catch (...) {
        pendingTags_.clear();
        throw;
    }
    pendingTags_.clear(); // the records stay, to be swapped for the next ones
    for (const auto& [tag, error] : refused) {
        if (!OnDeferredError) std::rethrow_exception(error);
        try {
            std::rethrow_exception(error);
        } catch (const std::exception& e) {
            OnDeferredError(tag, e);
        }
    }
}

void TKvSQLiteDataSet::DiscardAppends() noexcept {
    pendingTags_.clear();
    if (onPendingRow_) onRow_ = false;
    onPendingRow_ = false;
}

void TKvSQLiteDataSet::BindAndStep(sqlite3_stmt* statement, bool inserting,
                                   const std::vector<Variant>& values, const TAssignedFields& assigned) {
    sqlite3* db = db_->Handle();
    {
        TResetGuard reset(statement);
        int parameter = 1;
        for (size_t i = 0; i < columns_.size(); ++i)
            if (assigned[i]) BindValue(statement, parameter++, values[i], columns_[i]);
        if (!inserting) sqlite3_bind_int64(statement, parameter, rowid_);
        if (sqlite3_step(statement) != SQLITE_DONE) db_->RaiseError();
    }
    windowValid_ = false;
    if (inserting) {
        // A conflict clause of the table may have dropped the row: the cursor then stays where it was.
        if (sqlite3_changes(db) > 0) {
            rowid_ = sqlite3_last_insert_rowid(db);
            onRow_ = true;
        }
        return;
    }
    if (sqlite3_changes(db) == 0) throw EDatabaseError("Record not found or changed by another user");
    for (size_t i = 0; i < columns_.size(); ++i) // a new key moves the row, and the cursor with it
        if (assigned[i] && columns_[i].Def.DataType == ftAutoInc && !values[i].IsNullOrEmpty())
            rowid_ = values[i].AsInt64();
}

bool TKvSQLiteDataSet::InternalDelete() {
    CheckWritable();
    readAhead_.reset();
    FlushAppends();
    if (!onRow_) return false;
    static const std::string key = "delete";
    sqlite3_stmt* statement = FindStatement(key);
    if (!statement)
        statement = AddStatement(key, "DELETE FROM " + QuotedTable() + " WHERE " + rowidName_ + " = ?1");
    {
        TResetGuard reset(statement);
        sqlite3_bind_int64(statement, 1, rowid_);
        if (sqlite3_step(statement) != SQLITE_DONE) db_->RaiseError();
    }
    windowValid_ = false;
    if (FillWindow(rowid_) == 0) return false;
    rowid_ = windowRowids_[0];
    return true;
}

std::optional<int64_t> TKvSQLiteDataSet::DeleteAll() {
    CheckWritable();
    readAhead_.reset();
    FlushAppends();
    static const std::string key = "delete all";
    sqlite3_stmt* statement = FindStatement(key);
    if (!statement) statement = AddStatement(key, "DELETE FROM " + QuotedTable());
    {
        TResetGuard reset(statement);
        if (sqlite3_step(statement) != SQLITE_DONE) db_->RaiseError();
    }
    const int64_t count = sqlite3_changes64(db_->Handle());
    onRow_ = false;
    windowValid_ = false;
    RecordChanged();
    First(); // on no row: the table is empty
    return count;
}

bool TKvSQLiteDataSet::KeysMatch(const std::vector<Variant>& row, const std::vector<int>& fields,
                                 const std::vector<Variant>& keys, TLocateOptions options) const {
    for (size_t k = 0; k < fields.size(); ++k)
        if (!LocateMatches(row[static_cast<size_t>(fields[k])], keys[k], options)) return false;
    return true;
}

bool TKvSQLiteDataSet::InternalLocate(const std::vector<int>& fields, const std::vector<Variant>& values,
                                      TLocateOptions options) {
    FlushAppends();
    // The keys come in their fields' types already (a column without a declared type converts nothing).
    const std::vector<Variant>& keys = values;
    if (!hasRowid_) return ForwardLocate(fields, keys, options);
    readAhead_.reset();

    const bool noCase = options.Contains(loCaseInsensitive), partial = options.Contains(loPartialKey);
    const bool plain = !noCase && !partial;
    bool exact = true; // every field compared with IS, as a key table compares
    sqlite3_stmt* statement = nullptr;
    bool scans = false;
    if (plain && keyTables_.empty() && lastLocate_.Statement && lastLocate_.Fields == fields) {
        statement = lastLocate_.Statement;
        scans = lastLocate_.Scans;
    } else {
        std::string key = "l";
        for (size_t k = 0; k < fields.size(); ++k) {
            char mode = '=';
            if (keys[k].IsString() && (noCase || partial)) {
                // SQLite folds the case of ASCII letters only; other texts are compared here, row by row.
                if (noCase && !IsAscii(keys[k].StringRef())) return ScanLocate(fields, keys, options);
                mode = partial ? (noCase ? 'P' : 'p') : 'n';
                exact = false;
            }
            key += IntToStr(fields[k]) + mode;
        }
        // Made only where key tables are in play: a lookup through an index builds no second key.
        const std::string fieldsKey = exact && !keyTables_.empty() ? FieldsKey(fields) : std::string();
        if (exact && !keyTables_.empty()) {
            if (auto found = keyTables_.find(fieldsKey); found != keyTables_.end()) {
                TKeyTable* table = &found->second;
                // Rows another connection committed are not in the key table: copy the keys afresh.
                if (DataVersion() != table->DataVersion) table = BuildKeyTable(fieldsKey, fields);
                if (table) {
                    if (const std::optional<bool> located = KeyTableLocate(*table, fields, keys))
                        return *located;
                    // A rollback took the key table away with the transaction that made it.
                    if ((table = BuildKeyTable(fieldsKey, fields)) != nullptr) {
                        if (const std::optional<bool> located = KeyTableLocate(*table, fields, keys))
                            return *located;
                        db_->RaiseError();
                    }
                }
            }
        }
        statement = FindStatement(key);
        if (!statement) {
            std::string sql = "SELECT " + rowidName_ + " FROM " + QuotedTable() + " WHERE ";
            for (size_t k = 0; k < fields.size(); ++k) {
                const std::string column =
                    TKvSQLiteDatabase::QuoteIdentifier(columns_[static_cast<size_t>(fields[k])].Def.Name);
                const std::string parameter = "?" + IntToStr(static_cast<int64_t>(k) + 1);
                if (k) sql += " AND ";
                const bool text = keys[k].IsString() && (noCase || partial);
                if (!text)
                    sql += column + " IS " + parameter;
                else if (partial)
                    sql += "substr(" + column + ", 1, length(" + parameter + ")) = " + parameter;
                else
                    sql += column + " = " + parameter;
                if (text && noCase) sql += " COLLATE NOCASE";
            }
            sql += " ORDER BY " + rowidName_ + " LIMIT 1";
            statement = AddStatement(key, sql);
            lookupScans_[key] = exact && ScansTable(*db_, sql);
        }
        scans = lookupScans_[key];
        if (plain) lastLocate_ = {statement, fields, scans};
    }
    bool located = false;
    {
        TResetGuard reset(statement);
        for (size_t k = 0; k < fields.size(); ++k)
            BindValue(statement, static_cast<int>(k) + 1, keys[k], columns_[static_cast<size_t>(fields[k])]);
        const int rc = sqlite3_step(statement);
        if (rc != SQLITE_ROW && rc != SQLITE_DONE) db_->RaiseError();
        if (rc == SQLITE_ROW) {
            located = true;
            rowid_ = sqlite3_column_int64(statement, 0);
            onRow_ = true;
            windowValid_ = false;
        }
    }
    // Enough rows scanned to pay for copying the keys once: later lookups go to a key table.
    if (exact && scans && keyTableThreshold_ >= 0 &&
        sqlite3_stmt_status(statement, SQLITE_STMTSTATUS_FULLSCAN_STEP, 0) >= keyTableThreshold_) {
        const std::string scanned = FieldsKey(fields);
        if (!keyTablesRefused_.contains(scanned)) BuildKeyTable(scanned, fields);
    }
    return located;
}

std::string TKvSQLiteDataSet::FieldsKey(const std::vector<int>& fields) {
    std::string key;
    for (int field : fields) key += IntToStr(field) + ";";
    return key;
}

bool TKvSQLiteDataSet::HasKeyTable(const std::vector<int>& fields) const {
    return keyTables_.contains(FieldsKey(fields));
}

int64_t TKvSQLiteDataSet::DataVersion() {
    static const std::string key = "dataversion";
    sqlite3_stmt* statement = FindStatement(key);
    if (!statement)
        statement =
            AddStatement(key, "PRAGMA " + TKvSQLiteDatabase::QuoteIdentifier(schema_) + ".data_version");
    TResetGuard reset(statement);
    if (sqlite3_step(statement) != SQLITE_ROW) db_->RaiseError();
    return sqlite3_column_int64(statement, 0);
}

TKvSQLiteDataSet::TKeyTable* TKvSQLiteDataSet::BuildKeyTable(const std::string& key,
                                                             const std::vector<int>& fields) {
    if (auto found = keyTables_.find(key); found != keyTables_.end()) {
        DropKeyTable(found->second);
        keyTables_.erase(found);
    }
    // Names unique within the process, so that datasets sharing a connection never meet.
    static std::atomic<uint64_t> counter{0};
    TKeyTable table;
    table.Name = "kvimport_keys_" + IntToStr(static_cast<int64_t>(++counter));
    const auto quote = TKvSQLiteDatabase::QuoteIdentifier;
    const std::string name = quote(table.Name), source = quote(schema_) + "." + QuotedTable();
    std::string keyColumns, sourceColumns, newValues = "new." + rowidName_, where;
    std::string create = "CREATE TEMP TABLE " + name + " (rid INTEGER PRIMARY KEY";
    for (size_t k = 0; k < fields.size(); ++k) {
        const std::string& column = columns_[static_cast<size_t>(fields[k])].Def.Name;
        // The declared type and collation make values compare exactly as they do in the table.
        const char* declared = nullptr;
        const char* collation = nullptr;
        if (sqlite3_table_column_metadata(db_->Handle(), schema_.c_str(), tableName_.c_str(), column.c_str(),
                                          &declared, &collation, nullptr, nullptr, nullptr) != SQLITE_OK) {
            keyTablesRefused_.insert(key);
            return nullptr;
        }
        const std::string k_ = "k" + IntToStr(static_cast<int64_t>(k));
        create += ", " + k_ + " " + (declared ? declared : "") + " COLLATE " +
                  quote(collation ? collation : "BINARY");
        keyColumns += ", " + k_;
        sourceColumns += ", " + quote(column);
        newValues += ", new." + quote(column);
        where += " AND " + k_ + " IS ?" + IntToStr(static_cast<int64_t>(k) + 1);
    }
    create += ")";
    const std::string insert = "INSERT OR REPLACE INTO " + name + " VALUES (" + newValues + ");";
    const std::string on = " ON " + source + " BEGIN ";
    try {
        db_->Execute(create);
        db_->Execute("INSERT INTO temp." + name + " SELECT " + rowidName_ + sourceColumns + " FROM " +
                     source);
        db_->Execute("CREATE INDEX temp." + quote(table.Name + "_key") + " ON " + name + " (" +
                     keyColumns.substr(2) + ")");
        db_->Execute("CREATE TEMP TRIGGER " + quote(table.Name + "_insert") + " AFTER INSERT" + on + insert +
                     " END");
        db_->Execute("CREATE TEMP TRIGGER " + quote(table.Name + "_delete") + " AFTER DELETE" + on +
                     "DELETE FROM " + name + " WHERE rid = old." + rowidName_ + "; END");
        db_->Execute("CREATE TEMP TRIGGER " + quote(table.Name + "_update") + " AFTER UPDATE" + on +
                     "DELETE FROM " + name + " WHERE rid = old." + rowidName_ + "; " + insert + " END");
        table.Find = db_->Prepare(
            "SELECT rid FROM temp." + name + " WHERE" + where.substr(4) + " ORDER BY rid LIMIT 1", true);
        std::string confirm = "SELECT 1 FROM " + QuotedTable() + " WHERE " + rowidName_ + " = ?" +
                              IntToStr(static_cast<int64_t>(fields.size()) + 1);
        for (size_t k = 0; k < fields.size(); ++k)
            confirm += " AND " + quote(columns_[static_cast<size_t>(fields[k])].Def.Name) + " IS ?" +
                       IntToStr(static_cast<int64_t>(k) + 1);
        table.Confirm = db_->Prepare(confirm, true);
        table.Forget = db_->Prepare("DELETE FROM temp." + name + " WHERE rid = ?1", true);
        table.DataVersion = DataVersion();
    } catch (const EDatabaseError&) {
        DropKeyTable(table);
        keyTablesRefused_.insert(key);
        return nullptr;
    }
    // Writes prepared before the triggers existed are prepared again, so that they run them.
    statements_.clear();
    lastPost_[0] = lastPost_[1] = {};
    lastLocate_ = {};
    lookupScans_.clear();
    return &keyTables_.insert_or_assign(key, std::move(table)).first->second;
}

void TKvSQLiteDataSet::DropKeyTable(const TKeyTable& table) noexcept {
    if (!db_ || !db_->Connected()) return;
    const auto quote = TKvSQLiteDatabase::QuoteIdentifier;
    try {
        db_->Execute("DROP TRIGGER IF EXISTS temp." + quote(table.Name + "_insert") +
                     "; DROP TRIGGER IF EXISTS temp." + quote(table.Name + "_delete") +
                     "; DROP TRIGGER IF EXISTS temp." + quote(table.Name + "_update") +
                     "; DROP TABLE IF EXISTS temp." + quote(table.Name));
    } catch (const Exception&) {
        // A statement still reading keeps the table locked; the connection drops it when it closes.
    }
}

std::optional<bool> TKvSQLiteDataSet::KeyTableLocate(TKeyTable& table, const std::vector<int>& fields,
                                                     const std::vector<Variant>& keys) {
    sqlite3_stmt* find = table.Find.get();
    sqlite3_stmt* confirm = table.Confirm.get();
    for (;;) {
        int64_t rowid = 0;
        {
            TResetGuard reset(find);
            for (size_t k = 0; k < fields.size(); ++k)
                BindValue(find, static_cast<int>(k) + 1, keys[k], columns_[static_cast<size_t>(fields[k])]);
            const int rc = sqlite3_step(find);
            if (rc == SQLITE_DONE) return false;
            if (rc != SQLITE_ROW) return std::nullopt;
            rowid = sqlite3_column_int64(find, 0);
        }
        bool current = false;
        {
            // Rows a REPLACE conflict deleted run no delete trigger: the table has the last word.
            TResetGuard reset(confirm);
            for (size_t k = 0; k < fields.size(); ++k)
                BindValue(confirm, static_cast<int>(k) + 1, keys[k],
                          columns_[static_cast<size_t>(fields[k])]);
            sqlite3_bind_int64(confirm, static_cast<int>(fields.size()) + 1, rowid);
            const int rc = sqlite3_step(confirm);
            if (rc != SQLITE_ROW && rc != SQLITE_DONE) db_->RaiseError();
            current = rc == SQLITE_ROW;
        }
        if (current) {
            rowid_ = rowid;
            onRow_ = true;
            windowValid_ = false;
            return true;
        }
        TResetGuard reset(table.Forget.get());
        sqlite3_bind_int64(table.Forget.get(), 1, rowid);
        if (sqlite3_step(table.Forget.get()) != SQLITE_DONE) db_->RaiseError();
    }
}

bool TKvSQLiteDataSet::ScanLocate(const std::vector<int>& fields, const std::vector<Variant>& keys,
                                  TLocateOptions options) {
    const size_t n = columns_.size();
    std::vector<Variant> row;
    int64_t from = INT64_MIN;
    while (FillWindow(from) > 0) {
        for (size_t r = 0; r < windowRowids_.size(); ++r) {
            row.assign(windowValues_.begin() + static_cast<std::ptrdiff_t>(r * n),
                       windowValues_.begin() + static_cast<std::ptrdiff_t>((r + 1) * n));
            if (KeysMatch(row, fields, keys, options)) {
                windowPos_ = r;
                rowid_ = windowRowids_[r];
                onRow_ = true;
                return true;
            }
        }
        if (windowRowids_.back() == INT64_MAX) break;
        from = windowRowids_.back() + 1;
    }
    windowValid_ = false; // the cursor stays; its row is read again when asked for
    return false;
}

bool TKvSQLiteDataSet::ForwardStep() {
    if (forwardDone_ || !forward_) return false;
    sqlite3_stmt* statement = forward_.get();
    const int rc = sqlite3_step(statement);
    if (rc == SQLITE_ROW) {
        windowValues_.clear();
        ReadRow(statement, 0, windowValues_);
        windowPos_ = 0;
        windowValid_ = true;
        ++forwardIndex_;
        return true;
    }
    // At the end the statement is reset so that it holds no lock; the last row stays in the window.
    forwardDone_ = true;
    const std::string message = sqlite3_errmsg(db_->Handle());
    sqlite3_reset(statement);
    if (rc != SQLITE_DONE) throw EDatabaseError(message);
    return false;
}

bool TKvSQLiteDataSet::ForwardLocate(const std::vector<int>& fields, const std::vector<Variant>& keys,
                                     TLocateOptions options) {
    const int64_t original = forwardIndex_;
    const bool hadRow = windowValid_;
    for (bool row = InternalFirst(); row; row = ForwardStep())
        if (KeysMatch(windowValues_, fields, keys, options)) return true;
    // Not found: step back to where the cursor stood.
    InternalFirst();
    while (forwardIndex_ < original && ForwardStep()) {
    }
    if (!hadRow) windowValid_ = false;
    return false;
}

int TKvSQLiteDataSet::InternalRecordCount() {
    FlushAppends();
    static const std::string key = "count";
    sqlite3_stmt* statement = FindStatement(key);
    if (!statement) statement = AddStatement(key, "SELECT count(*) FROM " + QuotedTable());
    TResetGuard reset(statement);
    if (sqlite3_step(statement) != SQLITE_ROW) db_->RaiseError();
    return static_cast<int>(std::min<int64_t>(sqlite3_column_int64(statement, 0), INT_MAX));
}

} // namespace kv
