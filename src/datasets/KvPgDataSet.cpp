#include "datasets/KvPgDataSet.h"

#include "datasets/KvPgInternal.h"

#include "platform/DateUtils.h"
#include "platform/SysUtils.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstring>
#include <libpq-fe.h>

namespace kv {

void TPgResultClear::operator()(pg_result* result) const {
    PQclear(result);
}

// ---- values as PostgreSQL writes and reads them ----

namespace {

// The types read as something other than text (text, json and jsonb among the rest).
constexpr uint32_t BoolOid = 16, ByteaOid = 17, Int8Oid = 20, Int2Oid = 21, Int4Oid = 23, OidOid = 26,
                   Float4Oid = 700, Float8Oid = 701, BpcharOid = 1042, VarcharOid = 1043, DateOid = 1082,
                   TimeOid = 1083, TimestampOid = 1114, TimestampTzOid = 1184, NumericOid = 1700,
                   UuidOid = 2950;

TFieldDef FieldOfType(uint32_t type, int modifier) {
    TFieldDef def;
    switch (type) {
    case Int2Oid:
        def.DataType = ftSmallint;
        break;
    case Int4Oid:
        def.DataType = ftInteger;
        break;
    case Int8Oid:
    case OidOid:
        def.DataType = ftLargeint;
        break;
    case Float4Oid:
    case Float8Oid:
        def.DataType = ftFloat;
        break;
    case NumericOid:
        def.DataType = ftBCD;
        if (modifier >= 4) {
            def.Size = ((modifier - 4) >> 16) & 0xFFFF;
            def.Precision = (modifier - 4) & 0xFFFF;
        }
        break;
    case BoolOid:
        def.DataType = ftBoolean;
        break;
    case DateOid:
        def.DataType = ftDate;
        break;
    case TimeOid:
        def.DataType = ftTime;
        break;
    case TimestampOid:
    case TimestampTzOid:
        def.DataType = ftDateTime;
        break;
    case ByteaOid:
        def.DataType = ftBlob;
        break;
    case UuidOid:
        def.DataType = ftGuid;
        def.Size = 38;
        break;
    case BpcharOid:
        def.DataType = ftFixedChar;
        def.Size = modifier >= 4 ? modifier - 4 : 0;
        break;
    case VarcharOid:
        def.DataType = ftString;
        def.Size = modifier >= 4 ? modifier - 4 : 0;
        break;
    default: // text, json, jsonb and every type we do not know: its text
        def.DataType = ftString;
        break;
    }
    return def;
}

} // namespace

Variant PgTextValue(std::string_view text, uint32_t type) {
    switch (type) {
    case BoolOid:
        return Variant(text == "t");
    case Int2Oid:
    case Int4Oid:
    case Int8Oid:
    case OidOid: {
        int64_t value = 0;
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
        if (error == std::errc() && end == text.data() + text.size()) return Variant::FromInt(value);
        break;
    }
    case Float4Oid:
    case Float8Oid:
    case NumericOid: {
        double value = 0;
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
        if (error == std::errc() && end == text.data() + text.size()) return Variant(value);
        break;
    }
    case DateOid:
    case TimestampOid:
    case TimestampTzOid: {
        // The session's zone is UTC: a time with a zone ends in "+00".
        if (type == TimestampTzOid && text.ends_with("+00")) text.remove_suffix(3);
        TDateTime value;
        if (TryISO8601ToDateTime(text, value)) return Variant::FromDateTime(value);
        break; // infinity, years BC: the text
    }
    case TimeOid: {
        TDateTime value;
        if (TryISO8601ToTime(text, value)) return Variant::FromDateTime(value);
        break;
    }
    case ByteaOid:
        if (text.starts_with("\\x") && text.size() % 2 == 0) {
            std::string bytes(text.size() / 2 - 1, '\0');
            for (size_t i = 0; i < bytes.size(); ++i) {
                const int high = HexDigitValue(text[2 + 2 * i]), low = HexDigitValue(text[3 + 2 * i]);
                if (high < 0 || low < 0) return Variant(text);
                bytes[i] = static_cast<char>(high << 4 | low);
            }
            return Variant::FromBytes(std::move(bytes));
        }
        break;
    default:
        break;
    }
    return Variant(text);
}

bool TKvPgDataSet::ValueText(const Variant& value, TFieldType type, std::string& out) {
    switch (value.VarType()) {
    case varEmpty:
    case varNull:
        return false;
    case varBoolean:
        out = value.AsBoolean() ? "true" : "false";
        return true;
    case varInteger:
    case varInt64: {
        char buffer[24];
        out.assign(buffer, std::to_chars(buffer, buffer + sizeof buffer, value.AsInt64()).ptr);
        return true;
    }
    case varDouble: {
        const double d = value.AsDouble();
        if (std::isnan(d)) {
            out = "NaN";
        } else if (std::isinf(d)) {
            out = d > 0 ? "Infinity" : "-Infinity";
        } else {
            char buffer[32];
            out.assign(buffer, std::to_chars(buffer, buffer + sizeof buffer, d).ptr);
        }
        return true;
    }
    case varDate: {
        const TDateTime t = value.AsDateTime();
        char buffer[kISO8601Size];
        out.assign(buffer, type == ftDate   ? PutDateISO8601(t, buffer)
                           : type == ftTime ? PutTimeISO8601(t, buffer)
                                            : PutDateTimeISO8601(t, buffer));
        return true;
    }
    case varString:
        if (!IsBlobType(type) && type != ftBytes && type != ftVarBytes) {
            out = value.StringRef();
            return true;
        }
        [[fallthrough]]; // a text for a binary column: its bytes
    case varBytes: {
        static const char digits[] = "0123456789abcdef";
        const std::string& bytes = value.StringRef();
        out.assign(2 + 2 * bytes.size(), '\0');
        out[0] = '\\';
        out[1] = 'x';
        for (size_t i = 0; i < bytes.size(); ++i) {
            const auto byte = static_cast<unsigned char>(bytes[i]);
            out[2 + 2 * i] = digits[byte >> 4];
            out[3 + 2 * i] = digits[byte & 15];
        }
        return true;
    }
    case varArray:
        break;
    }
    RaiseCastError(varArray, varString);
}

// ---- TKvPgDatabase ----

namespace {

std::string TrimMessage(const char* message) {
    return message ? TrimRight(message) : std::string();
}

// SQLSTATE classes and codes of failures that every further write would meet too.
bool RefusesEveryWrite(std::string_view state) {
    static constexpr std::string_view classes[] = {"08", "25", "53", "57", "58"};
    for (std::string_view c : classes)
        if (state.starts_with(c)) return true;
    return state == "55P03" /* lock timeout */ || state == "42501" /* no privilege */;
}

} // namespace

TKvPgDatabase::TKvPgDatabase(TComponent* owner) : TKvDatabase(owner) {}

TKvPgDatabase::~TKvPgDatabase() {
    Close();
    for (TKvPgDataSet* dataSet : dataSets_) dataSet->db_ = nullptr;
}

void TKvPgDatabase::Open(const std::string& target) {
    Close();
    // libpq reads the scheme in lower case only.
    std::string conninfo = target;
    for (std::string_view scheme : {"postgresql://", "postgres://"})
        if (StartsText(scheme, conninfo)) conninfo.replace(0, scheme.size(), scheme);
    PGconn* conn = PQconnectdb(conninfo.c_str());
    if (!conn) throw EDatabaseUnwritable("Cannot connect to PostgreSQL: out of memory");
    if (PQstatus(conn) != CONNECTION_OK) {
        // libpq's message names the host and port it tried; the connection string is not repeated, as it
        // may hold a password, and a password libpq quotes from a string it cannot read is hidden.
        const char* host = PQhost(conn);
        std::string message = TrimMessage(PQerrorMessage(conn));
        if (const char* password = PQpass(conn); password && *password)
            for (size_t at; (at = message.find(password)) != std::string::npos;)
                message.replace(at, std::strlen(password), "***");
        std::string where = host && *host ? " on host \"" + std::string(host) + "\"" : std::string();
        PQfinish(conn);
        throw EDatabaseUnwritable("Cannot connect to PostgreSQL" + where + ": " + message);
    }
    conn_ = conn;
    try {
        // Dates in ISO form and instants in UTC, as TDateTime reads them; floats exactly. Heap scans in
        // physical order and never in parallel, which walking a table by row address relies on.
        Exec("SET client_encoding TO 'UTF8'; SET DateStyle TO 'ISO, YMD'; SET TimeZone TO 'UTC'; "
             "SET extra_float_digits TO 3; SET bytea_output TO 'hex'; SET synchronize_seqscans TO off; "
             "SET max_parallel_workers_per_gather TO 0; "
             // A lock timeout the connection string gives (options='-c lock_timeout=...') stands.
             "SELECT set_config('lock_timeout', '" +
             IntToStr(lockTimeout_) + "', false) WHERE current_setting('lock_timeout') = '0'");
        // Every guarded write takes a savepoint and releases it: parsed once for the session.
        for (const auto& [name, sql] : {std::pair{"kv_savepoint", "SAVEPOINT kv_row"},
                                        std::pair{"kv_release", "RELEASE SAVEPOINT kv_row"}}) {
            TPgResult prepared(PQprepare(conn_, name, sql, 0, nullptr));
            if (!prepared || PQresultStatus(prepared.get()) != PGRES_COMMAND_OK) RaiseError(prepared.get());
        }
    } catch (...) {
        Close();
        throw;
    }
}

void TKvPgDatabase::Close() {
    if (!conn_) return;
    for (TKvPgDataSet* dataSet : dataSets_) dataSet->Close();
    PQfinish(conn_); // the server rolls back an open transaction
    conn_ = nullptr;
}

std::string TKvPgDatabase::Description() const {
    if (!conn_) return "PostgreSQL database";
    const char* host = PQhost(conn_);
    return "PostgreSQL database \"" + std::string(PQdb(conn_)) + "\" on host \"" + (host ? host : "") +
           "\" port " + PQport(conn_);
}

void TKvPgDatabase::CheckConnected() const {
    if (!conn_) throw EDatabaseError("The database is not open");
    if (PQstatus(conn_) == CONNECTION_BAD) RaiseError(nullptr);
}

void TKvPgDatabase::RaiseError(const pg_result* result) const {
    if (!conn_) throw EDatabaseError("The database is not open");
    const char* state = result ? PQresultErrorField(result, PG_DIAG_SQLSTATE) : nullptr;
    const char* primary = result ? PQresultErrorField(result, PG_DIAG_MESSAGE_PRIMARY) : nullptr;
    std::string message = primary ? std::string(primary) : TrimMessage(PQerrorMessage(conn_));
    if (message.empty() && result) message = TrimMessage(PQresultErrorMessage(result));
    if (PQstatus(conn_) == CONNECTION_BAD) {
        const char* host = PQhost(conn_);
        throw EDatabaseUnwritable("Lost the connection to the PostgreSQL server" +
                                  (host ? " on host \"" + std::string(host) + "\"" : std::string()) + ": " +
                                  message);
    }
    if (state && std::string_view(state) == "55P03")
        throw EDatabaseUnwritable(message + ": another session held a lock longer than this run waits "
                                            "(lock_timeout)");
    if (state && RefusesEveryWrite(state)) throw EDatabaseUnwritable(message);
    throw EDatabaseError(message);
}

void TKvPgDatabase::EndCopies() {
    if (copyOwner_) copyOwner_->FlushAppends();
    if (writeOwner_) writeOwner_->SettleWrite();
}

TPgResult TKvPgDatabase::Exec(const std::string& sql) {
    CheckConnected();
    EndCopies();
    TPgResult result(PQexec(conn_, sql.c_str()));
    const ExecStatusType status = result ? PQresultStatus(result.get()) : PGRES_FATAL_ERROR;
    if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) RaiseError(result.get());
    return result;
}

TPgResult TKvPgDatabase::Guarded(const std::string& sql) {
    if (!InTransaction()) return Exec(sql);
    Exec("SAVEPOINT kv_statement");
    TPgResult result(PQexec(conn_, sql.c_str()));
    const ExecStatusType status = result ? PQresultStatus(result.get()) : PGRES_FATAL_ERROR;
    if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) {
        if (PQstatus(conn_) == CONNECTION_OK)
            TPgResult(PQexec(conn_, "ROLLBACK TO SAVEPOINT kv_statement; RELEASE SAVEPOINT kv_statement"));
        RaiseError(result.get());
    }
    Exec("RELEASE SAVEPOINT kv_statement");
    return result;
}

void TKvPgDatabase::Execute(const std::string& sql) {
    ++writeCount_;
    for (TKvPgDataSet* dataSet : dataSets_) dataSet->FlushAppends(); // the statement may read the rows
    Guarded(sql);
}

bool TKvPgDatabase::CopyOut(const std::string& sql, const std::function<bool(std::string_view)>& row) {
    CheckConnected();
    EndCopies();
    const bool guard = InTransaction();
    if (guard) Exec("SAVEPOINT kv_statement");
    const auto fail = [&](const pg_result* result) {
        if (guard && PQstatus(conn_) == CONNECTION_OK)
            TPgResult(PQexec(conn_, "ROLLBACK TO SAVEPOINT kv_statement; RELEASE SAVEPOINT kv_statement"));
        RaiseError(result);
    };
    TPgResult started(PQexec(conn_, sql.c_str()));
    if (!started || PQresultStatus(started.get()) != PGRES_COPY_OUT) fail(started.get());
    bool more = true;
    for (;;) {
        char* buffer = nullptr;
        const int size = PQgetCopyData(conn_, &buffer, 0);
        if (size < 0) break;
        if (more) more = row(std::string_view(buffer, static_cast<size_t>(size)));
        PQfreemem(buffer);
    }
    TPgResult ended(PQgetResult(conn_));
    while (PGresult* rest = PQgetResult(conn_)) PQclear(rest);
    if (!ended || PQresultStatus(ended.get()) != PGRES_COMMAND_OK) fail(ended.get());
    if (guard) Exec("RELEASE SAVEPOINT kv_statement");
    return more;
}

std::string TKvPgDatabase::Prepare(const std::string& sql) {
    CheckConnected();
    EndCopies();
    const std::string name = "kv_" + IntToStr(static_cast<int64_t>(++statementCount_));
    const bool guard = InTransaction(); // a statement that fails to prepare must not cost the transaction
    if (guard) Exec("SAVEPOINT kv_statement");
    TPgResult result(PQprepare(conn_, name.c_str(), sql.c_str(), 0, nullptr));
    if (!result || PQresultStatus(result.get()) != PGRES_COMMAND_OK) {
        if (guard && PQstatus(conn_) == CONNECTION_OK)
            TPgResult(PQexec(conn_, "ROLLBACK TO SAVEPOINT kv_statement; RELEASE SAVEPOINT kv_statement"));
        RaiseError(result.get());
    }
    if (guard) Exec("RELEASE SAVEPOINT kv_statement");
    return name;
}

void TKvPgDatabase::Deallocate(const std::string& name) noexcept {
    if (!conn_ || PQstatus(conn_) != CONNECTION_OK || copyOwner_ || writeOwner_) return;
    if (PQtransactionStatus(conn_) == PQTRANS_INERROR) return; // the session forgets it when it closes
    TPgResult(PQexec(conn_, ("DEALLOCATE " + QuoteIdentifier(name)).c_str()));
}

namespace {

bool Succeeded(const TPgResult& result) {
    const ExecStatusType status = result ? PQresultStatus(result.get()) : PGRES_FATAL_ERROR;
    return status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK;
}

// Reads the results of `count` statements sent in pipeline mode, then their sync point.
void ReadPipeline(PGconn* conn, TPgResult* results, int count) {
    for (int k = 0; k < count; ++k)
        while (PGresult* result = PQgetResult(conn)) {
            if (!results[k])
                results[k].reset(result);
            else
                PQclear(result);
        }
    for (int nulls = 0; nulls < 3 && PQstatus(conn) == CONNECTION_OK;) {
        PGresult* result = PQgetResult(conn);
        if (!result) {
            ++nulls;
            continue;
        }
        const bool sync = PQresultStatus(result) == PGRES_PIPELINE_SYNC;
        PQclear(result);
        if (sync) break;
    }
}

bool SendRelease(PGconn* conn) {
    return PQsendQueryPrepared(conn, "kv_release", 0, nullptr, nullptr, nullptr, 0) && PQpipelineSync(conn);
}

// A row address, "(block,offset)", as one number; kUnknown when it is not one.
uint64_t PackAddress(std::string_view text) {
    uint32_t block = 0;
    uint16_t offset = 0;
    if (text.size() < 5 || text.front() != '(' || text.back() != ')') return TKvKeyAddressMap::kUnknown;
    const char* end = text.data() + text.size() - 1;
    auto [p, ec] = std::from_chars(text.data() + 1, end, block);
    if (ec != std::errc() || p == end || *p != ',') return TKvKeyAddressMap::kUnknown;
    auto [q, ec2] = std::from_chars(p + 1, end, offset);
    if (ec2 != std::errc() || q != end) return TKvKeyAddressMap::kUnknown;
    return uint64_t{block} << 16 | offset;
}

std::string AddressText(uint64_t address) {
    return "(" + std::to_string(address >> 16) + "," + std::to_string(address & 0xFFFF) + ")";
}

// A value of a key: its length (seven bits a byte), then its bytes.
void AppendKeyPart(std::string& key, std::string_view bytes) {
    size_t length = bytes.size();
    for (; length >= 0x80; length >>= 7) key += static_cast<char>(0x80 | (length & 0x7F));
    key += static_cast<char>(length);
    key.append(bytes);
}

// A field of COPY's text format as its bytes.
void UnescapeCopyField(std::string_view text, std::string& out) {
    out.clear();
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\' || i + 1 == text.size()) {
            out += text[i];
            continue;
        }
        const char c = text[++i];
        switch (c) {
        case 'b':
            out += '\b';
            break;
        case 'f':
            out += '\f';
            break;
        case 'n':
            out += '\n';
            break;
        case 'r':
            out += '\r';
            break;
        case 't':
            out += '\t';
            break;
        case 'v':
            out += '\v';
            break;
        case 'x': {
            int value = 0, digits = 0;
            for (;
                 digits < 2 && i + 1 < text.size() && std::isxdigit(static_cast<unsigned char>(text[i + 1]));
                 ++digits)
                value = value * 16 + HexDigitValue(text[++i]);
            out += digits ? static_cast<char>(value) : 'x';
            break;
        }
        default:
            if (c >= '0' && c <= '7') {
                int value = c - '0';
                for (int digits = 1;
                     digits < 3 && i + 1 < text.size() && text[i + 1] >= '0' && text[i + 1] <= '7'; ++digits)
                    value = value * 8 + (text[++i] - '0');
                out += static_cast<char>(value);
            } else {
                out += c;
            }
        }
    }
}

bool IsKeyMapType(uint32_t type) {
    // int8, int2, int4, text, varchar: types whose equal values print alike. (Not char(n), which pads.)
    return type == 20 || type == 21 || type == 23 || type == 25 || type == 1043;
}

} // namespace

TPgResult TKvPgDatabase::ExecPrepared(const std::string& name, int count, const char* const* values,
                                      const int* lengths, const int* formats) {
    CheckConnected();
    EndCopies();
    if (!InTransaction()) {
        TPgResult result(PQexecPrepared(conn_, name.c_str(), count, values, lengths, formats, 0));
        const ExecStatusType status = result ? PQresultStatus(result.get()) : PGRES_FATAL_ERROR;
        if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) RaiseError(result.get());
        return result;
    }
    // The savepoint, the statement and the release in one round trip.
    if (!PQenterPipelineMode(conn_)) RaiseError(nullptr);
    TGuardedResults results;
    if (SendGuarded(name, count, values, lengths, formats)) ReadGuarded(results);
    PQexitPipelineMode(conn_);
    return CheckGuarded(results);
}

bool TKvPgDatabase::SendGuarded(const std::string& name, int count, const char* const* values,
                                const int* lengths, const int* formats) {
    return PQsendQueryPrepared(conn_, "kv_savepoint", 0, nullptr, nullptr, nullptr, 0) &&
           PQsendQueryPrepared(conn_, name.c_str(), count, values, lengths, formats, 0) &&
           PQsendQueryPrepared(conn_, "kv_release", 0, nullptr, nullptr, nullptr, 0) && PQpipelineSync(conn_);
}

void TKvPgDatabase::ReadGuarded(TGuardedResults& results) {
    ReadPipeline(conn_, results, 3);
}

TPgResult TKvPgDatabase::CheckGuarded(TGuardedResults& results) {
    if (!Succeeded(results[0])) RaiseError(results[0].get());
    if (!Succeeded(results[1])) {
        if (PQstatus(conn_) == CONNECTION_OK)
            TPgResult(PQexec(conn_, "ROLLBACK TO SAVEPOINT kv_row; RELEASE SAVEPOINT kv_row"));
        RaiseError(results[1].get());
    }
    if (!Succeeded(results[2])) RaiseError(results[2].get());
    return std::move(results[1]);
}

void TKvPgDatabase::StartTransaction() {
    CheckConnected();
    if (InTransaction()) throw EDatabaseError("A transaction is already active");
    Exec("BEGIN");
}

void TKvPgDatabase::Commit() {
    CheckConnected();
    if (!InTransaction()) throw EDatabaseError("No transaction is active");
    for (TKvPgDataSet* dataSet : dataSets_) dataSet->FlushAppends();
    Exec("COMMIT");
}

void TKvPgDatabase::Rollback() {
    for (TKvPgDataSet* dataSet : dataSets_) dataSet->DiscardAppends();
    if (InTransaction()) Exec("ROLLBACK");
}

bool TKvPgDatabase::InTransaction() const {
    if (!conn_) return false;
    if (copyOwner_) return copyOwner_->copyGuarded_; // the COPY under way, not a transaction block
    const PGTransactionStatusType status = PQtransactionStatus(conn_);
    return status == PQTRANS_INTRANS || status == PQTRANS_INERROR || status == PQTRANS_ACTIVE;
}

bool TKvPgDatabase::TableExists(const std::string& name) {
    CheckConnected();
    EndCopies();
    const std::string reference = TableReference(name);
    const char* values[] = {reference.c_str()};
    TPgResult result(PQexecParams(conn_, "SELECT to_regclass($1::text) IS NOT NULL", 1, nullptr, values,
                                  nullptr, nullptr, 0));
    if (!result || PQresultStatus(result.get()) != PGRES_TUPLES_OK) RaiseError(result.get());
    return std::string_view(PQgetvalue(result.get(), 0, 0)) == "t";
}

std::string TKvPgDatabase::QuoteIdentifier(std::string_view name) {
    std::string quoted = "\"";
    for (char c : name) {
        quoted += c;
        if (c == '"') quoted += '"';
    }
    return quoted + '"';
}

std::string TKvPgDatabase::TableReference(std::string_view name) {
    if (name.starts_with('"')) {
        // Already SQL: quoted names (and plain ones) joined by dots, kept when it reads through.
        std::string sql;
        size_t pos = 0;
        int parts = 0;
        while (pos < name.size()) {
            std::string part;
            if (name[pos] == '"') {
                ++pos;
                bool closed = false;
                while (pos < name.size()) {
                    if (name[pos] == '"') {
                        if (pos + 1 < name.size() && name[pos + 1] == '"') {
                            part += '"';
                            pos += 2;
                            continue;
                        }
                        closed = true;
                        ++pos;
                        break;
                    }
                    part += name[pos++];
                }
                if (!closed) return QuoteIdentifier(name);
            } else {
                const size_t end = std::min(name.find_first_of(".\"", pos), name.size());
                part = std::string(name.substr(pos, end - pos));
                pos = end;
            }
            if (part.empty() || ++parts > 2) return QuoteIdentifier(name);
            sql += (sql.empty() ? "" : ".") + QuoteIdentifier(part);
            if (pos == name.size()) return sql;
            if (name[pos] != '.') return QuoteIdentifier(name);
            ++pos;
        }
        return QuoteIdentifier(name);
    }
    const size_t dot = name.find('.');
    if (dot == std::string_view::npos || dot == 0 || dot + 1 == name.size()) return QuoteIdentifier(name);
    return QuoteIdentifier(name.substr(0, dot)) + "." + QuoteIdentifier(name.substr(dot + 1));
}

std::string TKvPgDatabase::TypeName(TFieldType type) const {
    switch (type) {
    case ftSmallint:
        return "smallint";
    case ftWord:
        return "integer";
    // Integers are 64 bits, as SQLite keeps them: an Integer field holds more than 32 bits.
    case ftInteger:
    case ftLargeint:
        return "bigint";
    case ftAutoInc: // numbered by the table unless a row brings its own number
        return "bigint GENERATED BY DEFAULT AS IDENTITY";
    case ftFloat:
        return "double precision";
    case ftCurrency:
    case ftBCD:
    case ftFMTBcd:
        return "numeric";
    case ftBoolean:
        return "boolean";
    case ftDate:
        return "date";
    case ftTime:
        return "time";
    case ftDateTime:
    case ftTimeStamp:
        return "timestamp";
    case ftVariant:
        return "text";
    default:
        if (IsTextType(type)) return "text";
        if (IsBlobType(type) || type == ftBytes || type == ftVarBytes) return "bytea";
        throw EDatabaseError(std::string("No column type holds fields of type ") + FieldTypeName(type));
    }
}

std::string TKvPgDatabase::CreateTableStatement(const std::string& name,
                                                const std::vector<TFieldDef>& columns) const {
    // The base's statement, its table named as TableReference reads the name.
    std::string sql = TKvDatabase::CreateTableStatement(name, columns);
    const std::string prefix = "CREATE TABLE " + QuoteIdentifier(name);
    return "CREATE TABLE " + TableReference(name) + sql.substr(prefix.size());
}

TDataSet* TKvPgDatabase::OpenDataSet(const std::string& table, TComponent* owner) {
    return KvOpenTableDataSet<TKvPgDataSet>(
        this, table, owner, [this](TKvPgDataSet& dataSet) { dataSet.SetKeyMapAfter(keyMapAfter_); });
}

// ---- TKvPgDataSet ----

TKvPgDataSet::TKvPgDataSet(TComponent* owner) : TDataSet(owner) {}

TKvPgDataSet::~TKvPgDataSet() {
    Close();
    SetDatabase(nullptr);
}

void TKvPgDataSet::SetDatabase(TKvPgDatabase* database) {
    KvMoveDataSet(*this, db_, database, &TKvPgDatabase::dataSets_);
}

void TKvPgDataSet::SetTableName(const std::string& name) {
    if (name == tableName_) return;
    KvCheckClosed(*this);
    tableName_ = name;
}

void TKvPgDataSet::CheckDatabase() const {
    if (!db_) throw EDatabaseError("No database assigned");
    db_->CheckConnected();
    if (tableName_.empty()) throw EDatabaseError("The table name is missing");
}

void TKvPgDataSet::CheckWritable() const {
    if (!hasCtid_)
        throw EDatabaseError("Cannot modify a read-only dataset: '" + tableName_ + "' is not a plain table");
}

std::vector<TKvPgDataSet::TColumn> TKvPgDataSet::ReadColumns(char& kind) const {
    CheckDatabase();
    db_->EndCopies();
    const std::string reference = QuotedTable();
    const char* values[] = {reference.c_str()};
    PGconn* conn = db_->Handle();
    TPgResult relation(PQexecParams(conn,
                                    "SELECT c.oid, c.relkind FROM pg_catalog.pg_class c "
                                    "WHERE c.oid = to_regclass($1::text)",
                                    1, nullptr, values, nullptr, nullptr, 0));
    if (!relation || PQresultStatus(relation.get()) != PGRES_TUPLES_OK) db_->RaiseError(relation.get());
    if (PQntuples(relation.get()) == 0) throw EDatabaseError("Table '" + tableName_ + "' does not exist");
    const std::string oid = PQgetvalue(relation.get(), 0, 0);
    kind = PQgetvalue(relation.get(), 0, 1)[0];

    // A domain reads as its base type.
    const char* oids[] = {oid.c_str()};
    TPgResult attributes(PQexecParams(
        conn,
        "SELECT a.attname, CASE WHEN t.typtype = 'd' THEN t.typbasetype ELSE a.atttypid END, "
        "CASE WHEN t.typtype = 'd' THEN t.typtypmod ELSE a.atttypmod END, a.attnotnull, a.atthasdef, "
        "a.attidentity <> '', a.attgenerated <> '', "
        "COALESCE((SELECT k.n FROM unnest(i.indkey) WITH ORDINALITY k(a, n) WHERE k.a = a.attnum), 0), "
        "COALESCE(pg_catalog.pg_get_serial_sequence(a.attrelid::regclass::text, a.attname), '') "
        "FROM pg_catalog.pg_attribute a JOIN pg_catalog.pg_type t ON t.oid = a.atttypid "
        "LEFT JOIN pg_catalog.pg_index i ON i.indrelid = a.attrelid AND i.indisprimary "
        "WHERE a.attrelid = $1::oid AND a.attnum > 0 AND NOT a.attisdropped ORDER BY a.attnum",
        1, nullptr, oids, nullptr, nullptr, 0));
    if (!attributes || PQresultStatus(attributes.get()) != PGRES_TUPLES_OK) db_->RaiseError(attributes.get());
    std::vector<TColumn> columns;
    const PGresult* r = attributes.get();
    int keyColumns = 0;
    for (int row = 0; row < PQntuples(r); ++row) {
        const auto flag = [&](int column) { return PQgetvalue(r, row, column)[0] == 't'; };
        TColumn column;
        column.Type = static_cast<uint32_t>(std::strtoul(PQgetvalue(r, row, 1), nullptr, 10));
        column.Def = FieldOfType(column.Type, std::atoi(PQgetvalue(r, row, 2)));
        column.Def.Name = PQgetvalue(r, row, 0);
        const bool identity = flag(5);
        column.Generated = flag(6);
        column.KeyPosition = std::atoi(PQgetvalue(r, row, 7));
        column.Sequence = PQgetvalue(r, row, 8);
        column.Numbered = identity || !column.Sequence.empty();
        column.Def.Required = flag(3) && !flag(4) && !identity && !column.Generated;
        if (column.KeyPosition > 0) ++keyColumns;
        columns.push_back(std::move(column));
    }
    for (TColumn& column : columns) {
        const bool integer = column.Def.DataType == ftSmallint || column.Def.DataType == ftInteger ||
                             column.Def.DataType == ftLargeint;
        if (keyColumns == 1 && column.KeyPosition == 1 && column.Numbered && integer) {
            column.Def.DataType = ftAutoInc;
            column.Def.Required = false; // the table numbers a row whose key is left Null
        }
        if (column.Generated || kind != 'r') column.Def.ReadOnly = true;
    }
    return columns;
}

std::optional<std::string> TKvPgDataSet::PublishedProperty(const std::string& name) const {
    if (SameText(name, "TableName")) return tableName_;
    if (!SameText(name, "IndexFieldName")) return std::nullopt;
    std::vector<TColumn> read;
    const std::vector<TColumn>* columns = &columns_;
    if (!Active()) {
        try {
            char kind = 0;
            read = ReadColumns(kind);
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

std::vector<TFieldDef> TKvPgDataSet::InternalOpen() {
    char kind = 0;
    std::vector<TColumn> columns = ReadColumns(kind);
    if (columns.empty()) throw EDatabaseError("Table '" + tableName_ + "' has no columns");
    columns_ = std::move(columns);
    hasCtid_ = kind == 'r';
    sequence_.clear();
    // The sequence that numbers the ftAutoInc column, to move on past keys given explicitly.
    for (const TColumn& column : columns_)
        if (column.Def.DataType == ftAutoInc) sequence_ = column.Sequence;
    onRow_ = false;
    windowValid_ = false;
    std::vector<TFieldDef> defs;
    for (const TColumn& column : columns_) defs.push_back(column.Def);
    return defs;
}

void TKvPgDataSet::ForgetStatements() noexcept {
    if (db_)
        for (const auto& [key, name] : statements_) db_->Deallocate(name);
    statements_.clear();
}

void TKvPgDataSet::InternalClose() {
    try {
        FlushAppends();
    } catch (const EDatabaseError&) {
        // Closing cannot report: the rows go with the connection or transaction that failed.
    }
    batch_.clear();
    batchStarts_.clear();
    batchTags_.clear();
    onBatchedRow_ = false;
    if (pendingNumber_) {
        try {
            MoveSequencePast();
        } catch (const EDatabaseError&) {
            // The connection is gone or the transaction failed: the table keeps numbering as it was.
        }
    }
    pendingNumber_.reset();
    ForgetKeyMap(false);
    keyMapFields_.clear();
    keyMapBuilds_ = 0;
    keyMapRefused_ = false;
    ForgetStatements();
    columns_.clear();
    windowAddresses_.clear();
    windowValues_.clear();
    windowValid_ = false;
    onRow_ = false;
}

std::string TKvPgDataSet::ColumnList(const TAssignedFields* only) const {
    std::string list;
    for (size_t i = 0; i < columns_.size(); ++i) {
        if (only && !(*only)[i]) continue;
        if (!list.empty()) list += ", ";
        list += TKvPgDatabase::QuoteIdentifier(columns_[i].Def.Name);
    }
    return list;
}

const std::string& TKvPgDataSet::Statement(const std::string& key, const std::string& sql) {
    auto found = statements_.find(key);
    if (found != statements_.end()) return found->second;
    return statements_.emplace(key, db_->Prepare(sql)).first->second;
}

void TKvPgDataSet::BindValues(const std::vector<Variant>& values, const std::vector<int>& fields) {
    paramTexts_.resize(fields.size());
    size_t n = 0;
    for (size_t k = 0; k < fields.size(); ++k) {
        const TColumn& column = columns_[static_cast<size_t>(fields[k])];
        std::string& text = paramTexts_[n];
        if (!ValueText(values[k], column.Def.DataType, text)) continue; // Null: left to the statement
        if (text.find('\0') != std::string::npos)
            throw EDatabaseError("Field '" + column.Def.Name + "' cannot hold a text with a NUL character");
        ++n;
    }
    paramTexts_.resize(n);
}

void TKvPgDataSet::SetParamValues() {
    paramValues_.clear();
    for (const std::string& text : paramTexts_) paramValues_.push_back(text.c_str());
}

TPgResult TKvPgDataSet::Run(const std::string& statement) {
    SetParamValues();
    return db_->ExecPrepared(statement, static_cast<int>(paramValues_.size()), paramValues_.data(), nullptr,
                             nullptr);
}

// The writes go after one savepoint; the release goes with the next statement, which the same savepoint
// covers: a write and the next row's lookup cost one round trip and four statements. Writes that follow
// each other without a lookup between (a key map answers them) go on in the same pipeline.
void TKvPgDataSet::SendWrite(const std::string& statement, bool inserting) {
    if (db_->copyOwner_) db_->copyOwner_->FlushAppends();
    if (db_->writeOwner_ && db_->writeOwner_ != this) db_->writeOwner_->SettleWrite();
    if (pending_.size() >= kWriteDepth) SettleWrite();
    SetParamValues();
    PGconn* conn = db_->Handle();
    const bool first = pending_.empty();
    if (first && !PQenterPipelineMode(conn)) db_->RaiseError(nullptr);
    pending_.push_back({statement, paramTexts_, rowTag_.value_or(0), inserting});
    db_->writeOwner_ = this;
    windowValid_ = false;
    if ((first && !PQsendQueryPrepared(conn, "kv_savepoint", 0, nullptr, nullptr, nullptr, 0)) ||
        !PQsendQueryPrepared(conn, statement.c_str(), static_cast<int>(paramValues_.size()),
                             paramValues_.data(), nullptr, nullptr, 0) ||
        PQflush(conn) != 0) {
        AbandonWrites(true);
        db_->RaiseError(nullptr);
    }
}

void TKvPgDataSet::AbandonWrites(bool sentLast) noexcept {
    if (pending_.empty()) return;
    PGconn* conn = db_->Handle();
    PQpipelineSync(conn);
    std::vector<TPgResult> results(pending_.size() + (sentLast ? 1 : 0));
    ReadPipeline(conn, results.data(), static_cast<int>(results.size()));
    PQexitPipelineMode(conn);
    pending_.clear();
    db_->writeOwner_ = nullptr;
}

void TKvPgDataSet::SettleWrite() {
    if (pending_.empty()) return;
    std::vector<TPendingWrite> writes;
    writes.swap(pending_);
    db_->writeOwner_ = nullptr;
    PGconn* conn = db_->Handle();
    const size_t n = writes.size();
    const bool sent = SendRelease(conn);
    if (!sent) PQpipelineSync(conn);
    std::vector<TPgResult> results(n + 2); // the savepoint, the writes, the release
    ReadPipeline(conn, results.data(), static_cast<int>(sent ? n + 2 : n + 1));
    PQexitPipelineMode(conn);
    if (!Succeeded(results[0])) db_->RaiseError(results[0].get());
    size_t refused = 0;
    while (refused < n && Succeeded(results[refused + 1])) ++refused;
    if (refused == n) {
        for (size_t k = 0; k < n; ++k) TakeWriteAnswer(results[k + 1], writes[k].Tag, writes[k].Inserting);
        if (!sent || !Succeeded(results[n + 1])) db_->RaiseError(results[n + 1].get());
        return;
    }
    // The refused write failed the transaction and the writes after it did not run: back to the savepoint,
    // and each write again on its own, so that only the refused ones are lost.
    if (n == 1) {
        TakeWriteAnswer(results[1], writes[0].Tag, writes[0].Inserting);
        return;
    }
    if (PQstatus(conn) == CONNECTION_OK)
        TPgResult(PQexec(conn, "ROLLBACK TO SAVEPOINT kv_row; RELEASE SAVEPOINT kv_row"));
    try {
        db_->RaiseError(results[refused + 1].get());
    } catch (const EDatabaseUnwritable&) {
        throw;
    } catch (const EDatabaseError&) {
        // The row's own fault: found again below.
    }
    RunWritesAlone(writes);
}

void TKvPgDataSet::RunWritesAlone(std::vector<TPendingWrite>& writes) {
    std::vector<std::string> params;
    params.swap(paramTexts_);
    for (TPendingWrite& write : writes) {
        paramTexts_.swap(write.Params);
        try {
            TPgResult again = Run(write.Statement);
            TakeWritten(again.get(), write.Inserting);
        } catch (const EDatabaseUnwritable&) {
            throw;
        } catch (const EDatabaseError& e) {
            if (!OnDeferredError) throw;
            OnDeferredError(write.Tag, e);
        }
    }
    paramTexts_.swap(params);
}

bool TKvPgDataSet::TakeWriteAnswer(const TPgResult& result, int64_t tag, bool inserting) {
    try {
        if (!Succeeded(result)) {
            if (PQstatus(db_->Handle()) == CONNECTION_OK)
                TPgResult(PQexec(db_->Handle(), "ROLLBACK TO SAVEPOINT kv_row; RELEASE SAVEPOINT kv_row"));
            db_->RaiseError(result.get());
        }
        TakeWritten(result.get(), inserting);
        return true;
    } catch (const EDatabaseUnwritable&) {
        throw;
    } catch (const EDatabaseError& e) {
        if (!OnDeferredError) throw;
        OnDeferredError(tag, e);
        return false;
    }
}

TPgResult TKvPgDataSet::RunAfterWrite(const std::string& statement) {
    SetParamValues();
    std::vector<TPendingWrite> writes;
    writes.swap(pending_);
    TPendingWrite& write = writes.front();
    db_->writeOwner_ = nullptr;
    PGconn* conn = db_->Handle();
    const bool sent = PQsendQueryPrepared(conn, statement.c_str(), static_cast<int>(paramValues_.size()),
                                          paramValues_.data(), nullptr, nullptr, 0) &&
                      SendRelease(conn);
    if (!sent) PQpipelineSync(conn);
    TPgResult results[4]; // the savepoint, the write, the statement, the release
    ReadPipeline(conn, results, sent ? 4 : 2);
    PQexitPipelineMode(conn);
    if (!Succeeded(results[0])) db_->RaiseError(results[0].get());
    // A refused write leaves the transaction failed until its savepoint is rolled back: the statement
    // after it did not run.
    if (!TakeWriteAnswer(results[1], write.Tag, write.Inserting) || !sent) return Run(statement);
    if (Succeeded(results[2]) && Succeeded(results[3])) return std::move(results[2]);
    // The statement failed, and the write with it: the write again alone, then the statement's error.
    if (PQstatus(conn) == CONNECTION_OK)
        TPgResult(PQexec(conn, "ROLLBACK TO SAVEPOINT kv_row; RELEASE SAVEPOINT kv_row"));
    const TPgResult& failed = Succeeded(results[2]) ? results[3] : results[2];
    RunWritesAlone(writes);
    db_->RaiseError(failed.get());
}

void TKvPgDataSet::TakeWritten(const pg_result* result, bool inserting) {
    windowValid_ = false;
    if (PQntuples(result) == 0) {
        if (!inserting) throw EDatabaseError("Record not found or changed by another user");
        return; // a rule or trigger dropped the row: the cursor stays where it was
    }
    // Writes answer with the row's address alone (its values are read when asked for): their answers,
    // many in one pipeline, stay small.
    address_ = PQgetvalue(result, 0, 0);
    onRow_ = true;
    onBatchedRow_ = false;
}

void TKvPgDataSet::TakeRows(const pg_result* result) {
    const int rows = PQntuples(result);
    const int first = hasCtid_ ? 1 : 0;
    for (int row = 0; row < rows; ++row) {
        windowAddresses_.push_back(PQgetvalue(result, row, 0));
        for (size_t i = 0; i < columns_.size(); ++i) {
            const int column = first + static_cast<int>(i);
            if (PQgetisnull(result, row, column))
                windowValues_.push_back(Variant::Null());
            else
                windowValues_.push_back(
                    PgTextValue(std::string_view(PQgetvalue(result, row, column),
                                                 static_cast<size_t>(PQgetlength(result, row, column))),
                                columns_[i].Type));
        }
    }
}

size_t TKvPgDataSet::FillWindow(const std::string& from, bool after) {
    windowAddresses_.clear();
    windowValues_.clear();
    windowPos_ = 0;
    windowValid_ = false;
    std::string sql;
    if (hasCtid_) {
        // No ORDER BY: a scan from an address returns rows in address order, and a sort would read every
        // row after it for each window.
        sql = "SELECT ctid, " + ColumnList() + " FROM " + QuotedTable() + " WHERE ctid " +
              (after ? ">" : ">=") + " $1::tid LIMIT $2::bigint";
    } else {
        // Rows by offset; the first column is the row's offset as its address.
        sql = "SELECT $1::bigint + row_number() OVER () - 1, " + ColumnList() + " FROM (SELECT * FROM " +
              QuotedTable() + " OFFSET $1::bigint LIMIT $2::bigint) s";
    }
    const std::string& statement = Statement(after ? "window>" : "window", sql);
    std::string start = from;
    if (!hasCtid_ && after) start = IntToStr(StrToInt64(from) + 1);
    paramTexts_ = {start, IntToStr(fetchSize_)};
    TPgResult result = Run(statement);
    TakeRows(result.get());
    windowValid_ = !windowAddresses_.empty();
    return windowAddresses_.size();
}

bool TKvPgDataSet::InternalFirst() {
    FlushAppends();
    lastKeyValid_ = false;
    onRow_ = FillWindow(hasCtid_ ? "(0,0)" : "0", false) > 0;
    if (onRow_) address_ = windowAddresses_[0];
    return onRow_;
}

bool TKvPgDataSet::InternalNext() {
    SettleWrite();
    lastKeyValid_ = false;
    if (onBatchedRow_) {
        FlushAppends();
        return false; // the row appended last is the last
    }
    if (!onRow_) return false;
    if (windowValid_ && windowPos_ + 1 < windowAddresses_.size()) {
        address_ = windowAddresses_[++windowPos_];
        return true;
    }
    if (FillWindow(address_, true) == 0) return false;
    address_ = windowAddresses_[0];
    return true;
}

void TKvPgDataSet::InternalReadRecord(std::vector<Variant>& values) {
    SettleWrite();
    if (onBatchedRow_) {
        ReadBatchedRow(values); // as posted: the server has not seen it yet
        return;
    }
    if (!onRow_) return;
    if (!windowValid_) {
        // Read again after a write or a Locate: that row alone, the next window comes when walking on.
        const int saved = fetchSize_;
        fetchSize_ = 1;
        const size_t read = FillWindow(address_, false);
        fetchSize_ = saved;
        if (read == 0 || windowAddresses_[0] != address_) {
            windowValid_ = false;
            return; // the row is gone
        }
    }
    const size_t n = columns_.size();
    const auto first = windowValues_.begin() + static_cast<std::ptrdiff_t>(windowPos_ * n);
    values.assign(first, first + static_cast<std::ptrdiff_t>(n));
}

void TKvPgDataSet::InternalPost(bool inserting, std::vector<Variant>& values, const TAssignedFields& given) {
    CheckWritable();
    NoteWrite();
    if (keyMap_) KeyMapBeforeWrite(inserting, values, given);
    // A Null key of a numbered column is left to the table to number.
    std::vector<int>& fields = postFields_;
    fields.clear();
    bool numberGiven = false;
    for (size_t i = 0; i < columns_.size(); ++i) {
        const bool numbered = columns_[i].Def.DataType == ftAutoInc;
        if (!given[i] || (inserting && numbered && values[i].IsNullOrEmpty())) continue;
        if (columns_[i].Generated)
            throw EDatabaseError("Field '" + columns_[i].Def.Name + "' cannot be modified");
        fields.push_back(static_cast<int>(i));
        if (numbered) numberGiven = true;
    }
    if (!inserting && fields.empty()) return; // nothing changed
    if (inserting && appendBatch_ > 0 && !numberGiven && !fields.empty()) return AddToBatch(values, fields);
    // Nulls are bound as Null parameters here, so the statement does not depend on them.
    std::string key(1, inserting ? 'i' : 'u');
    std::vector<Variant> bound;
    for (size_t i = 0, next = 0; i < columns_.size(); ++i) {
        if (next < fields.size() && static_cast<size_t>(fields[next]) == i) {
            key += values[i].IsNullOrEmpty() ? 'n' : '1';
            bound.push_back(values[i]);
            ++next;
        } else {
            key += '0';
        }
    }
    if (!batchStarts_.empty()) FlushAppends();

    auto statement = statements_.find(key);
    if (statement == statements_.end()) {
        std::string sql;
        const std::string table = QuotedTable();
        int parameter = 0;
        const auto next = [&parameter] { return "$" + IntToStr(++parameter); };
        if (inserting && fields.empty()) {
            sql = "INSERT INTO " + table + " DEFAULT VALUES";
        } else if (inserting) {
            std::string names, list;
            for (int field : fields) {
                names += (names.empty() ? "" : ", ") +
                         TKvPgDatabase::QuoteIdentifier(columns_[static_cast<size_t>(field)].Def.Name);
                const char null = key[1 + static_cast<size_t>(field)];
                list += (list.empty() ? "" : ", ") + (null == 'n' ? std::string("NULL") : next());
            }
            sql = "INSERT INTO " + table + " (" + names + ") VALUES (" + list + ")";
        } else {
            sql = "UPDATE " + table + " SET ";
            for (size_t k = 0; k < fields.size(); ++k) {
                const char null = key[1 + static_cast<size_t>(fields[k])];
                sql += (k ? ", " : "") +
                       TKvPgDatabase::QuoteIdentifier(columns_[static_cast<size_t>(fields[k])].Def.Name) +
                       " = " + (null == 'n' ? std::string("NULL") : next());
            }
            sql += " WHERE ctid = " + next() + "::tid";
        }
        sql += " RETURNING ctid";
        statement = statements_.emplace(key, db_->Prepare(sql)).first;
    }
    if (inserting && !numberGiven && pendingNumber_) MoveSequencePast(); // before the table numbers a row
    BindValues(bound, fields);
    if (!inserting) paramTexts_.push_back(address_);
    if (deferWrites_ && OnDeferredError && !numberGiven && db_->InTransaction())
        return SendWrite(statement->second, inserting);
    TPgResult result = Run(statement->second);
    TakeWritten(result.get(), inserting);
    if (PQntuples(result.get()) == 0) return;
    if (numberGiven && !sequence_.empty()) {
        for (size_t k = 0; k < fields.size(); ++k)
            if (columns_[static_cast<size_t>(fields[k])].Def.DataType == ftAutoInc && bound[k].IsOrdinal())
                pendingNumber_ = std::max(pendingNumber_.value_or(INT64_MIN), bound[k].AsInt64());
    }
}

namespace {

// `text` as a field of COPY's text format: backslash, tab, newline and carriage return escaped; the runs
// between them are copied whole.
void AppendCopyField(std::string& out, std::string_view text) {
    size_t run = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c != '\\' && c != '\t' && c != '\n' && c != '\r') continue;
        out.append(text.data() + run, i - run);
        out += '\\';
        out += c == '\t' ? 't' : c == '\n' ? 'n' : c == '\r' ? 'r' : '\\';
        run = i + 1;
    }
    out.append(text.data() + run, text.size() - run);
}

} // namespace

void TKvPgDataSet::AddToBatch(const std::vector<Variant>& values, const std::vector<int>& fields) {
    // One COPY fills one column list. A full batch is sent before the next row joins: should that fail,
    // the row posted now is not in it.
    if (!batchStarts_.empty() &&
        (fields != batchFields_ || batchStarts_.size() >= static_cast<size_t>(appendBatch_)))
        FlushAppends();
    if (batchStarts_.empty()) batchFields_ = fields;
    // The rows go to the server as they come, so that it reads them while the next ones are made; the batch
    // keeps them for sending again in pieces when the server refuses one.
    if (db_->copyOwner_ != this) {
        FlushAppends();
        batchFields_ = fields;
        BeginCopy();
        streamed_ = 0;
    }
    const size_t start = batch_.size();
    try {
        for (size_t k = 0; k < fields.size(); ++k) {
            if (k) batch_ += '\t';
            const TColumn& column = columns_[static_cast<size_t>(fields[k])];
            const Variant& value = values[static_cast<size_t>(fields[k])];
            std::string_view text;
            if (value.IsString() && !IsBlobType(column.Def.DataType) && column.Def.DataType != ftBytes &&
                column.Def.DataType != ftVarBytes) {
                text = value.StringRef(); // as ValueText gives it, without the copy
            } else if (ValueText(value, column.Def.DataType, textScratch_)) {
                text = textScratch_;
            } else {
                batch_ += "\\N";
                continue;
            }
            if (text.find('\0') != std::string_view::npos)
                throw EDatabaseError("Field '" + column.Def.Name +
                                     "' cannot hold a text with a NUL character");
            AppendCopyField(batch_, text);
        }
    } catch (...) {
        batch_.resize(start);
        throw;
    }
    batch_ += '\n';
    batchStarts_.push_back(start);
    ++appendCount_;
    batchTags_.push_back(rowTag_.value_or(appendCount_));
    onBatchedRow_ = true;
    windowValid_ = false;
    if (batch_.size() - streamed_ >= (1 << 16)) {
        SendCopy(streamed_, batch_.size());
        streamed_ = batch_.size();
    }
}

void TKvPgDataSet::ReadBatchedRow(std::vector<Variant>& values) const {
    // The last row as the server will read it, from its COPY text.
    values.assign(columns_.size(), Variant::Null());
    std::string_view row(batch_);
    row = row.substr(batchStarts_.back());
    if (!row.empty() && row.back() == '\n') row.remove_suffix(1);
    std::string bytes;
    for (const int field : batchFields_) {
        const size_t tab = row.find('\t');
        const std::string_view text = row.substr(0, tab);
        row = tab == std::string_view::npos ? std::string_view() : row.substr(tab + 1);
        if (text == "\\N") continue;
        UnescapeCopyField(text, bytes);
        values[static_cast<size_t>(field)] = PgTextValue(bytes, columns_[static_cast<size_t>(field)].Type);
    }
}

void TKvPgDataSet::BeginCopy() {
    std::string columns;
    for (const int field : batchFields_)
        columns += (columns.empty() ? "" : ", ") +
                   TKvPgDatabase::QuoteIdentifier(columns_[static_cast<size_t>(field)].Def.Name);
    db_->EndCopies();
    copyGuarded_ = db_->InTransaction(); // a refused piece must not cost the transaction
    if (copyGuarded_) db_->Exec("SAVEPOINT kv_copy");
    TPgResult started(
        PQexec(db_->Handle(), ("COPY " + QuotedTable() + " (" + columns + ") FROM STDIN").c_str()));
    if (!started || PQresultStatus(started.get()) != PGRES_COPY_IN) db_->RaiseError(started.get());
    db_->copyOwner_ = this;
}

void TKvPgDataSet::SendCopy(size_t from, size_t to) {
    constexpr size_t chunk = 1 << 18;
    for (size_t at = from; at < to; at += chunk)
        if (PQputCopyData(db_->Handle(), batch_.data() + at, static_cast<int>(std::min(chunk, to - at))) != 1)
            db_->RaiseError(nullptr);
}

std::optional<std::string> TKvPgDataSet::EndCopy() {
    db_->copyOwner_ = nullptr;
    PGconn* conn = db_->Handle();
    if (PQputCopyEnd(conn, nullptr) != 1) db_->RaiseError(nullptr);
    TPgResult result;
    while (PGresult* r = PQgetResult(conn)) result.reset(r);
    if (result && PQresultStatus(result.get()) == PGRES_COMMAND_OK) {
        if (copyGuarded_) db_->Exec("RELEASE SAVEPOINT kv_copy");
        return std::nullopt;
    }
    try {
        db_->RaiseError(result.get());
    } catch (const EDatabaseUnwritable&) {
        throw; // every piece would fail alike
    } catch (const EDatabaseError& e) {
        if (copyGuarded_) db_->Exec("ROLLBACK TO SAVEPOINT kv_copy; RELEASE SAVEPOINT kv_copy");
        return e.Message();
    }
}

std::optional<std::string> TKvPgDataSet::CopyRows(size_t first, size_t last) {
    BeginCopy();
    SendCopy(batchStarts_[first], last < batchStarts_.size() ? batchStarts_[last] : batch_.size());
    return EndCopy();
}

void TKvPgDataSet::CopyPiece(size_t first, size_t last, std::optional<std::string> message) {
    if (!message) message = CopyRows(first, last);
    if (!message) return;
    if (last - first == 1) {
        refused_.emplace_back(batchTags_[first], *message);
        return;
    }
    const size_t middle = first + (last - first) / 2;
    CopyPiece(first, middle, std::nullopt);
    CopyPiece(middle, last, std::nullopt);
}

void TKvPgDataSet::DiscardAppends() noexcept {
    AbandonWrites(true);
    ForgetKeyMap(false); // rows rolled back may have been taken into it
    if (db_ && db_->copyOwner_ == this) {
        db_->copyOwner_ = nullptr;
        PGconn* conn = db_->Handle();
        PQputCopyEnd(conn, "rolled back");
        while (PGresult* r = PQgetResult(conn)) PQclear(r);
    }
    batch_.clear();
    batchStarts_.clear();
    batchTags_.clear();
    if (onBatchedRow_) onRow_ = false;
    onBatchedRow_ = false;
}

void TKvPgDataSet::FlushAppends() {
    SettleWrite();
    if (batchStarts_.empty()) return;
    onBatchedRow_ = false;
    onRow_ = false; // COPY gives no row address: the cursor is on no row until it moves
    refused_.clear();
    try {
        std::optional<std::string> message;
        if (db_->copyOwner_ == this) { // the rows are on their way already
            SendCopy(streamed_, batch_.size());
            if (!(message = EndCopy())) {
                batch_.clear();
                batchStarts_.clear();
                batchTags_.clear();
                return;
            }
        }
        CopyPiece(0, batchStarts_.size(), message);
    } catch (...) {
        batch_.clear();
        batchStarts_.clear();
        batchTags_.clear();
        throw;
    }
    batch_.clear();
    batchStarts_.clear();
    batchTags_.clear();
    if (refused_.empty()) return;
    std::vector<std::pair<int64_t, std::string>> refused;
    refused.swap(refused_);
    if (!OnDeferredError) throw EDatabaseError(refused.front().second);
    for (const auto& [tag, message] : refused) OnDeferredError(tag, EDatabaseError(message));
}

void TKvPgDataSet::MoveSequencePast() {
    const int64_t number = *pendingNumber_;
    pendingNumber_.reset();
    std::string literal = "'";
    for (char c : sequence_) literal += c == '\'' ? std::string("''") : std::string(1, c);
    literal += "'";
    const std::string& statement =
        Statement("sequence", "SELECT pg_catalog.setval(" + literal +
                                  "::regclass, GREATEST($1::bigint, last_value)) FROM " + sequence_);
    paramTexts_ = {IntToStr(number)};
    Run(statement);
}

bool TKvPgDataSet::InternalDelete() {
    CheckWritable();
    FlushAppends();
    if (!onRow_) return false;
    NoteWrite();
    if (keyMap_) {
        if (lastKeyValid_)
            keyMap_->Set(lastKey_, TKvKeyAddressMap::kUnknown);
        else
            ForgetKeyMap(false);
    }
    lastKeyValid_ = false;
    const std::string& statement =
        Statement("delete", "DELETE FROM " + QuotedTable() + " WHERE ctid = $1::tid");
    paramTexts_ = {address_};
    Run(statement);
    windowValid_ = false;
    if (FillWindow(address_, true) == 0) return false;
    address_ = windowAddresses_[0];
    return true;
}

bool TKvPgDataSet::InternalLocate(const std::vector<int>& fields, const std::vector<Variant>& values,
                                  TLocateOptions options) {
    const bool noCase = options.Contains(loCaseInsensitive), partial = options.Contains(loPartialKey);
    for (size_t k = 0; k < fields.size(); ++k)
        if (values[k].IsString() && !IsTextType(columns_[static_cast<size_t>(fields[k])].Def.DataType))
            return false; // not of the field's type: equal to no value of it
    const bool exact = !noCase && !partial;
    bool mapped = false; // the map holds this key but not its row's address
    if (exact) {
        // Rows another dataset of this connection wrote are not in the map.
        if (keyMap_ && db_->writeCount_ != seenWrites_) ForgetKeyMap(false);
        if (!HasKeyMap(fields)) ConsiderKeyMap(fields);
        if (HasKeyMap(fields)) {
            if (const std::optional<bool> found = MapLocate(values)) return *found;
            mapped = !lastKey_.empty();
        }
    }
    // One write waiting for its answer gets it with this statement's; more are read first.
    if (pending_.size() > 1) SettleWrite();
    if (pending_.empty()) FlushAppends();
    // The statement depends on the fields, how each compares and which keys are Null.
    std::string key = "l";
    for (size_t k = 0; k < fields.size(); ++k) {
        char mode = '=';
        if (values[k].IsNullOrEmpty())
            mode = 'z';
        else if (values[k].IsString() && (noCase || partial))
            mode = partial ? (noCase ? 'P' : 'p') : 'n';
        key += IntToStr(fields[k]) + mode;
    }
    auto statement = statements_.find(key);
    if (statement == statements_.end()) {
        std::string where;
        int parameter = 0;
        for (size_t k = 0; k < fields.size(); ++k) {
            const std::string column =
                TKvPgDatabase::QuoteIdentifier(columns_[static_cast<size_t>(fields[k])].Def.Name);
            where += k ? " AND " : "";
            if (values[k].IsNullOrEmpty()) {
                where += column + " IS NULL";
                continue;
            }
            const std::string p = "$" + IntToStr(++parameter);
            if (!(values[k].IsString() && (noCase || partial))) {
                where += column + " = " + p; // an index on the column serves
                continue;
            }
            const std::string text = noCase ? "lower(" + column + "::text)" : column + "::text";
            const std::string keyText = noCase ? "lower(" + p + "::text)" : p + "::text";
            where +=
                partial ? "left(" + text + ", length(" + keyText + ")) = " + keyText : text + " = " + keyText;
        }
        std::string sql;
        if (hasCtid_)
            sql = "SELECT ctid, " + ColumnList() + " FROM " + QuotedTable() + " WHERE " + where +
                  " ORDER BY ctid LIMIT 1";
        else
            sql = "SELECT n, " + ColumnList() + " FROM (SELECT row_number() OVER () - 1 AS n, * FROM " +
                  QuotedTable() + ") s WHERE " + where + " ORDER BY n LIMIT 1";
        statement = statements_.emplace(key, db_->Prepare(sql)).first;
    }
    BindValues(values, fields);
    TPgResult result;
    try {
        result = pending_.size() == 1 ? RunAfterWrite(statement->second) : Run(statement->second);
    } catch (const EDatabaseUnwritable&) {
        throw;
    } catch (const EDatabaseError&) {
        return false; // a key the column's type cannot read (compared as it stands, it finds nothing)
    }
    const bool found = PQntuples(result.get()) > 0;
    if (found) TakeRow(result.get()); // the row comes with its address: reading it costs no second query
    if (mapped && keyMap_) {
        // The server's answer goes into the map, for the next lookup of the key.
        if (!keyMap_->Set(lastKey_, found ? PackAddress(address_) : TKvKeyAddressMap::kAbsent))
            ForgetKeyMap(true);
        lastKeyValid_ = found;
    } else {
        lastKeyValid_ = false;
    }
    return found;
}

void TKvPgDataSet::TakeRow(const pg_result* result) {
    windowAddresses_.clear();
    windowValues_.clear();
    TakeRows(result);
    windowPos_ = 0;
    windowValid_ = true;
    address_ = windowAddresses_[0];
    onRow_ = true;
}

std::optional<int64_t> TKvPgDataSet::DeleteAll() {
    CheckWritable();
    NoteWrite();
    FlushAppends();
    paramTexts_.clear();
    TPgResult result = Run(Statement("delete all", "DELETE FROM " + QuotedTable()));
    if (keyMap_) keyMap_ = std::make_unique<TKvKeyAddressMap>(kKeyMapBytes); // the table is empty
    lastKeyValid_ = false;
    onRow_ = false;
    windowValid_ = false;
    RecordChanged();
    First(); // on no row: the table is empty
    return StrToInt64(PQcmdTuples(result.get()));
}

int TKvPgDataSet::InternalRecordCount() {
    FlushAppends();
    const std::string& statement = Statement("count", "SELECT count(*) FROM " + QuotedTable());
    paramTexts_.clear();
    TPgResult result = Run(statement);
    return static_cast<int>(std::min<int64_t>(StrToInt64(PQgetvalue(result.get(), 0, 0)), INT_MAX));
}

// ---- the key map ----

bool TKvPgDataSet::KeyMapFits(const std::vector<int>& fields) const {
    if (!hasCtid_ || fields.empty() || fields.size() > 16) return false;
    for (int field : fields)
        if (!IsKeyMapType(columns_[static_cast<size_t>(field)].Type)) return false;
    return true;
}

bool TKvPgDataSet::KeyBytes(const std::vector<Variant>& values, std::string& out) const {
    out.clear();
    std::string text;
    for (size_t k = 0; k < keyMapFields_.size(); ++k) {
        const Variant& value = values[k];
        const TColumn& column = columns_[static_cast<size_t>(keyMapFields_[k])];
        const bool integer = column.Type != 25 && column.Type != 1043;
        if (integer ? value.VarType() != varInteger && value.VarType() != varInt64 : !value.IsString())
            return false;
        if (!ValueText(value, column.Def.DataType, text) || text.find('\0') != std::string::npos)
            return false;
        AppendKeyPart(out, text);
    }
    return true;
}

void TKvPgDataSet::NoteWrite() {
    if (keyMap_ && db_->writeCount_ != seenWrites_) ForgetKeyMap(false);
    seenWrites_ = ++db_->writeCount_;
}

void TKvPgDataSet::ConsiderKeyMap(const std::vector<int>& fields) {
    if (keyMapRefused_ || keyMapAfter_ < 0 || !KeyMapFits(fields)) return;
    if (fields != keyMapFields_) {
        ForgetKeyMap(false);
        keyMapFields_ = fields;
        keyMapBuilds_ = 0;
    }
    if (keyMapLookups_++ < keyMapAfter_) return;
    // A map that keeps being dropped (the run writes rows it cannot follow) is not built again and again.
    if (keyMapBuilds_ >= 3) {
        keyMapRefused_ = true;
        return;
    }
    try {
        BuildKeyMap();
    } catch (const EDatabaseUnwritable&) {
        throw;
    } catch (const EDatabaseError&) {
        ForgetKeyMap(true); // the lookups go on by query
    }
}

void TKvPgDataSet::BuildKeyMap() {
    ++keyMapBuilds_;
    SettleWrite();
    FlushAppends();
    std::string sql = "COPY (SELECT ctid";
    for (int field : keyMapFields_)
        sql += ", " + TKvPgDatabase::QuoteIdentifier(columns_[static_cast<size_t>(field)].Def.Name);
    sql += " FROM " + QuotedTable() + ") TO STDOUT";
    auto map = std::make_unique<TKvKeyAddressMap>(kKeyMapBytes);
    // The planner's count of rows sizes the map ahead (a table too large for it is not read at all). Text
    // keys are compared byte for byte, which a collation that is not deterministic (equal texts of other
    // bytes) would contradict: such keys keep asking the server.
    const auto literal = [](const std::string& text) {
        std::string out = "'";
        for (char c : text) out += c == '\'' ? std::string("''") : std::string(1, c);
        return out + "'";
    };
    std::string names;
    for (int field : keyMapFields_)
        names += (names.empty() ? "" : ", ") + literal(columns_[static_cast<size_t>(field)].Def.Name);
    TPgResult facts = db_->Guarded(
        "SELECT c.reltuples::bigint, (SELECT coalesce(bool_and(o.collisdeterministic), true) FROM "
        "pg_catalog.pg_attribute a JOIN pg_catalog.pg_collation o ON o.oid = a.attcollation WHERE a.attrelid "
        "= "
        "c.oid AND a.attname IN (" +
        names + ")) FROM pg_catalog.pg_class c WHERE c.oid = " + literal(QuotedTable()) + "::regclass");
    if (PQntuples(facts.get()) != 1 || std::string_view(PQgetvalue(facts.get(), 0, 1)) != "t")
        return ForgetKeyMap(true);
    const int64_t rows = StrToInt64(PQgetvalue(facts.get(), 0, 0));
    if (rows > 0 && !map->Reserve(static_cast<size_t>(rows), 8 * keyMapFields_.size()))
        return ForgetKeyMap(true);
    std::string key, bytes;
    const bool fits = db_->CopyOut(sql, [&](std::string_view line) {
        if (!line.empty() && line.back() == '\n') line.remove_suffix(1);
        size_t tab = line.find('\t');
        const uint64_t address = PackAddress(line.substr(0, tab));
        key.clear();
        for (size_t k = 0; k < keyMapFields_.size(); ++k) {
            if (tab == std::string_view::npos) return false; // not the row asked for
            const size_t from = tab + 1;
            tab = line.find('\t', from);
            const std::string_view field =
                line.substr(from, tab == std::string_view::npos ? tab : tab - from);
            if (field == "\\N") return true; // a Null key: found by no lookup
            UnescapeCopyField(field, bytes);
            AppendKeyPart(key, bytes);
        }
        return map->Add(key, address);
    });
    if (!fits) return ForgetKeyMap(true);
    keyMap_ = std::move(map);
    seenWrites_ = db_->writeCount_;
    lastKeyValid_ = false;
}

void TKvPgDataSet::ForgetKeyMap(bool refuse) noexcept {
    keyMap_.reset();
    lastKey_.clear();
    lastKeyValid_ = false;
    keyMapLookups_ = 0;
    if (refuse) keyMapRefused_ = true;
}

std::optional<bool> TKvPgDataSet::MapLocate(const std::vector<Variant>& values) {
    lastKeyValid_ = false;
    if (!KeyBytes(values, lastKey_)) {
        lastKey_.clear();
        return std::nullopt;
    }
    const uint64_t address = keyMap_->Find(lastKey_);
    if (address == TKvKeyAddressMap::kUnknown) return std::nullopt;
    if (address == TKvKeyAddressMap::kAbsent) return false;
    address_ = AddressText(address);
    onRow_ = true;
    onBatchedRow_ = false;
    windowValid_ = false;
    lastKeyValid_ = true;
    return true;
}

void TKvPgDataSet::KeyMapBeforeWrite(bool inserting, const std::vector<Variant>& values,
                                     const TAssignedFields& given) {
    std::vector<Variant> key;
    bool all = true, any = false, null = false;
    for (int field : keyMapFields_) {
        const auto i = static_cast<size_t>(field);
        if (!given[i]) {
            all = false;
            continue;
        }
        any = true;
        null = null || values[i].IsNullOrEmpty();
        key.push_back(values[i]);
    }
    if (!inserting) {
        // The row moves to a new address, and maybe to a new key: what the map held of it is forgotten.
        if (!lastKeyValid_) return ForgetKeyMap(false);
        keyMap_->Set(lastKey_, TKvKeyAddressMap::kUnknown);
        lastKeyValid_ = false;
        if (!any) return;
    }
    // A row that a lookup will find by its key: the map learns that the key is held.
    if (null) return; // found by no lookup
    if (!all || !KeyBytes(key, keyScratch_)) return ForgetKeyMap(false);
    if (!keyMap_->Add(keyScratch_, TKvKeyAddressMap::kUnknown)) ForgetKeyMap(true);
}

} // namespace kv
