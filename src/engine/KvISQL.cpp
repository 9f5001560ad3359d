#include "engine/KvISQL.h"

#include "datasets/KvPgDataSet.h"

#include "platform/DateUtils.h"
#include "platform/Streams.h"
#include "platform/SysUtils.h"
#include "platform/Utf8.h"

#include <cmath>

namespace kv {

namespace {

std::string ProperCase(const std::string& name) {
    std::string out;
    bool wordStart = true;
    for (size_t pos = 0; pos < name.size();) {
        char32_t c = Utf8Decode(name, pos);
        Utf8Append(out, wordStart ? CharUpper(c) : CharLower(c));
        wordStart = c == U' ' || c == U'_' || c == U'-';
    }
    return out;
}

// `text` between `open` and `close`, every `close` inside doubled.
std::string Enclose(const std::string& text, char32_t open, char32_t close) {
    const std::string closing = Utf8Encode(close);
    std::string out = Utf8Encode(open);
    size_t from = 0;
    for (size_t p = text.find(closing); p != std::string::npos; p = text.find(closing, from)) {
        out.append(text, from, p + closing.size() - from);
        out += closing;
        from = p + closing.size();
    }
    out.append(text, from, std::string::npos);
    return out + closing;
}

} // namespace

TKvISQLWriter::TKvISQLWriter(const TKvISQLOptions& options, std::string tableName)
    : options_(options), table_(std::move(tableName)) {}

std::string TKvISQLWriter::Name(const std::string& name) const {
    std::string n;
    switch (options_.FieldNameCharCase) {
    case ifcUpperCase:
        n = Utf8UpperCase(name);
        break;
    case ifcLowerCase:
        n = Utf8LowerCase(name);
        break;
    case ifcProper:
        n = ProperCase(name);
        break;
    default:
        n = name;
        break;
    }
    const TKvISQLFieldNameOptions& q = options_.FieldNameOptions();
    if (q.SQLQuoteOpen == 0 && q.SQLQuoteClose == 0) return n;
    return Enclose(n, q.SQLQuoteOpen ? q.SQLQuoteOpen : q.SQLQuoteClose,
                   q.SQLQuoteClose ? q.SQLQuoteClose : q.SQLQuoteOpen);
}

std::string TKvISQLWriter::Table() const {
    return options_.PostgreSQL ? TKvPgDatabase::TableReference(table_) : Name(table_);
}

std::string TKvISQLWriter::Quoted(const std::string& text) const {
    // Without a quote character of its own a text would stand bare in the statement; apostrophes keep it in.
    const char32_t quote = options_.SQLQuote ? options_.SQLQuote : U'\'';
    return Enclose(text, quote, quote);
}

std::string TKvISQLWriter::Literal(const Variant& value, TFieldType type) const {
    switch (value.VarType()) {
    case varEmpty:
    case varNull:
        return "NULL";
    case varBoolean:
        if (options_.PostgreSQL) return value.AsBoolean() ? "TRUE" : "FALSE";
        return value.AsBoolean() ? "1" : "0";
    case varInteger:
    case varInt64:
        return IntToStr(value.AsInt64());
    case varDouble: {
        const double d = value.AsDouble();
        return std::isfinite(d) ? FloatToStrInvariant(d) : "NULL";
    }
    case varDate: {
        const double d = value.AsDateTime();
        if (type == ftDate) return Quoted(DateToISO8601(d));
        if (type == ftTime) return Quoted(TimeToISO8601(d));
        return Quoted(DateTimeToISO8601(d));
    }
    case varBytes: {
        if (options_.PostgreSQL) { // bytea's hex form, in a standard string
            std::string hex = "'\\x";
            for (unsigned char c : value.StringRef()) hex += IntToHex(c, 2);
            return hex + "'";
        }
        std::string hex = "X'";
        for (unsigned char c : value.StringRef()) hex += IntToHex(c, 2);
        return hex + "'";
    }
    case varArray:
        return "NULL";
    case varString:
        break;
    }
    return Quoted(value.StringRef());
}

std::string TKvISQLWriter::Condition(const std::vector<std::string>& names,
                                     const std::vector<std::string>& literals) const {
    std::string out;
    for (size_t i = 0; i < names.size() && i < literals.size(); ++i) {
        if (i) out += " AND ";
        out += Name(names[i]);
        out += literals[i] == "NULL" ? " IS NULL" : " = " + literals[i];
    }
    return out;
}

std::string TKvISQLWriter::Terminate(std::string statement) const {
    return statement + options_.SQLTerm;
}

std::string TKvISQLWriter::Insert(const std::vector<std::string>& names,
                                  const std::vector<std::string>& literals) const {
    std::string columns, values;
    for (size_t i = 0; i < names.size() && i < literals.size(); ++i) {
        if (i) columns += ", ", values += ", ";
        columns += Name(names[i]);
        values += literals[i];
    }
    return Terminate("INSERT INTO " + Table() + " (" + columns + ") VALUES (" + values + ")");
}

std::string TKvISQLWriter::Update(const std::vector<std::string>& names,
                                  const std::vector<std::string>& literals,
                                  const std::string& condition) const {
    std::string assignments;
    for (size_t i = 0; i < names.size() && i < literals.size(); ++i) {
        if (i) assignments += ", ";
        assignments += Name(names[i]) + " = " + literals[i];
    }
    std::string s = "UPDATE " + Table() + " SET " + assignments;
    if (!condition.empty()) s += " WHERE " + condition;
    return Terminate(s);
}

std::string TKvISQLWriter::Delete(const std::string& condition) const {
    std::string s = "DELETE FROM " + Table();
    if (!condition.empty()) s += " WHERE " + condition;
    return Terminate(s);
}

std::string TKvISQLWriter::DeleteAll() const {
    return Terminate("DELETE FROM " + Table());
}

TKvISQLOutput::TKvISQLOutput() = default;
TKvISQLOutput::~TKvISQLOutput() = default;

void TKvISQLOutput::Begin(const TKvISQLOptions& options, const std::string& tableName,
                          const std::string& fileName, bool keep, const std::vector<std::string>& prologue) {
    writer_ = std::make_unique<TKvISQLWriter>(options, tableName);
    pending_.clear();
    script_.Clear();
    keep_ = keep;
    file_.reset();
    if (!fileName.empty()) file_ = std::make_unique<TFileStream>(fileName, fmCreate);
    for (const std::string& statement : prologue) Add(statement);
}

void TKvISQLOutput::Add(std::string statement) {
    if (file_) {
        pending_ += statement;
        pending_ += "\r\n";
        if (pending_.size() >= (1u << 20)) Flush();
    }
    if (keep_ || !file_) script_.Add(std::move(statement));
}

void TKvISQLOutput::Flush() {
    if (!file_) return;
    file_->WriteString(pending_);
    pending_.clear();
}

void TKvISQLOutput::Finish() {
    if (!writer_) return;
    writer_.reset();
    Flush();
    file_.reset();
}

} // namespace kv
