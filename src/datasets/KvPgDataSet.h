#pragma once
// TKvPgDatabase, a connection to a PostgreSQL server (the TKvDatabase of PostgreSQL destinations), and
// TKvPgDataSet, one table of it as a TDataSet.
//
// A table is walked by its rows' physical addresses (ctid), a window of rows per query, so that neither
// memory nor open statements grow with the table and nothing stays pending between calls. Writes are
// prepared INSERT/UPDATE/DELETE statements by address, each answering with the row's new address. The
// dataset never starts or ends a transaction itself.
//
// Inside a transaction every write runs between a savepoint and its release, sent together in one round
// trip, so that a row the server refuses costs neither the transaction nor the rows before it, as with
// SQLite. Writes sent on without waiting (SetDeferWrites) share one savepoint; when the server refuses one
// of them, they are rolled back together and run again one by one.
//
// Keyed lookups, row after row, go to a map of the table's keys held in memory once they are many
// (SetKeyMapAfter): an import by key then costs a round trip per few hundred rows, not per row.
//
// Asked to (SetAppendBatch), appends go to the server by COPY instead, streamed while the next rows are
// made and kept until the batch ends, so that a refused row can be found by sending them again in pieces.
//
// Views, partitioned and foreign tables have no row address: they are read by offset and refuse writes.

#include "datasets/KvDatabase.h"
#include "datasets/KvKeyAddressMap.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct pg_conn;
struct pg_result;

namespace kv {

struct TPgResultClear {
    void operator()(pg_result* result) const;
};
/// A query's result, cleared when released.
using TPgResult = std::unique_ptr<pg_result, TPgResultClear>;

class TKvPgDataSet;

/// A connection to one PostgreSQL database. Closing it (or destroying it) closes the datasets that use it.
///
/// The session reads and writes dates in ISO form and times with a zone in UTC: a TDateTime has no zone.
class TKvPgDatabase : public TKvDatabase {
public:
    explicit TKvPgDatabase(TComponent* owner = nullptr);
    ~TKvPgDatabase() override;

    /// Connects through a libpq connection string or postgresql:// address (the PG* environment variables
    /// and the password file fill in the rest). EDatabaseUnwritable, with libpq's message and the host
    /// but never the password, when the server cannot be reached or refuses.
    void Open(const std::string& target);
    void Close();
    bool Connected() const { return conn_ != nullptr; }
    /// Milliseconds a statement waits for another session's lock before failing (default 10000; 0
    /// waits for ever). Applies from the next Open, unless the connection string sets lock_timeout.
    int LockTimeout() const { return lockTimeout_; }
    void SetLockTimeout(int milliseconds) { lockTimeout_ = milliseconds < 0 ? 0 : milliseconds; }

    /// The KeyMapAfter of the datasets OpenDataSet opens (default 1000).
    int KeyMapAfter() const { return keyMapAfter_; }
    void SetKeyMapAfter(int lookups) { keyMapAfter_ = lookups; }

    /// "PostgreSQL database \"sales\" on host \"db1\" port 5432".
    std::string Description() const override;

    void Execute(const std::string& sql) override;
    void StartTransaction() override;
    void Commit() override;
    void Rollback() override;
    bool InTransaction() const override;

    /// True when the table, view or other relation exists; `name` is read as TableReference reads it.
    bool TableExists(const std::string& name) override;
    /// smallint, integer, bigint, double precision, numeric, boolean, date, time, timestamp, text or
    /// bytea: names TKvPgDataSet reads back as a field of the same kind; an identity bigint for ftAutoInc.
    std::string TypeName(TFieldType type) const override;
    /// As the base does, with the table read as TableReference reads it.
    std::string CreateTableStatement(const std::string& name,
                                     const std::vector<TFieldDef>& columns) const override;
    TDataSet* OpenDataSet(const std::string& table, TComponent* owner) override;

    /// `name` as an SQL identifier: in double quotes, inner quotes doubled.
    static std::string QuoteIdentifier(std::string_view name);
    /// A table name as SQL: "schema.table" is a table in a schema; a name that starts with a double
    /// quote is read as SQL (`"a.b"` is one name holding a dot, `"s"."t"` a schema and a table); any
    /// other name is one identifier, its case and blanks kept.
    static std::string TableReference(std::string_view name);

    // For the dataset and the fast paths.
    pg_conn* Handle() const { return conn_; }
    /// Runs a query with no parameters; raises the server's error.
    TPgResult Exec(const std::string& sql);
    /// Runs `COPY (...) TO STDOUT` (under a savepoint inside a transaction) and hands each row's text to
    /// `row` until it answers false; the rest is read and dropped. False when `row` stopped it.
    bool CopyOut(const std::string& sql, const std::function<bool(std::string_view)>& row);
    /// Prepares `sql` and gives the name it runs under.
    std::string Prepare(const std::string& sql);
    void Deallocate(const std::string& name) noexcept;
    /// Runs a prepared statement with text parameters (`formats` marks binary ones, may be null). Inside a
    /// transaction it runs under a savepoint, so a failure leaves the transaction usable.
    TPgResult ExecPrepared(const std::string& name, int count, const char* const* values, const int* lengths,
                           const int* formats);
    /// Raises the error of `result` (or of the connection when null): EDatabaseUnwritable for those that
    /// refuse every further write (connection lost, lock timeout, disk full, read-only, no privilege).
    [[noreturn]] void RaiseError(const pg_result* result) const;

    std::string ClassName() const override { return "TKvPgDatabase"; }

protected:
    std::string QuotedIdentifier(std::string_view name) const override { return QuoteIdentifier(name); }

private:
    friend class TKvPgDataSet;
    void CheckConnected() const;
    // A statement between a savepoint and its release, in pipeline mode: sent (false when the connection
    // refused it), its three results read, then checked (rolled back to the savepoint when it failed).
    using TGuardedResults = TPgResult[3];
    bool SendGuarded(const std::string& name, int count, const char* const* values, const int* lengths,
                     const int* formats);
    void ReadGuarded(TGuardedResults& results);
    TPgResult CheckGuarded(TGuardedResults& results);
    /// Ends the COPY a dataset has under way, so that the connection may run something else.
    void EndCopies();
    /// Runs `sql` alone, or under a savepoint inside a transaction.
    TPgResult Guarded(const std::string& sql);

    pg_conn* conn_ = nullptr;
    int lockTimeout_ = 10000;
    int keyMapAfter_ = 1000;
    uint64_t writeCount_ = 0;             // writes by its datasets and statements, for their key maps
    uint64_t statementCount_ = 0;         // names prepared statements
    std::vector<TKvPgDataSet*> dataSets_; // datasets whose Database is this one
    TKvPgDataSet* copyOwner_ = nullptr;   // the dataset whose COPY is under way
    TKvPgDataSet* writeOwner_ = nullptr;  // the dataset whose write awaits its answer
};

/// One table (or view) of a PostgreSQL database.
///
/// Field types follow the catalogue: smallint, integer and bigint (ftAutoInc for a single-column primary
/// key numbered by an identity or a sequence), real and double precision, numeric(p,s) as ftBCD, boolean,
/// date, time, timestamp with and without time zone, text, varchar(n) and char(n) (Size n), bytea as
/// ftBlob, uuid as ftGuid, json, jsonb and every other type as text.
class TKvPgDataSet : public TDataSet {
public:
    explicit TKvPgDataSet(TComponent* owner = nullptr);
    ~TKvPgDataSet() override;

    TKvPgDatabase* Database() const { return db_; }
    void SetDatabase(TKvPgDatabase* database);
    const std::string& TableName() const { return tableName_; }
    void SetTableName(const std::string& name);
    /// Rows read per query while walking the table (default 256).
    int FetchSize() const { return fetchSize_; }
    void SetFetchSize(int rows) { fetchSize_ = rows < 1 ? 1 : rows; }
    /// Rows appended are sent together, by COPY, this many at most (0, the default: each row as it is
    /// posted); a full batch ends when the next row comes. Waiting rows go before any other use of the
    /// table and before the database commits;
    /// a row the server refuses is found by sending the batch again in smaller pieces, the rows around it
    /// are kept, and it goes to OnDeferredError with the tag it was posted under (or, without a handler,
    /// its error is raised once the others are stored).
    int AppendBatch() const { return appendBatch_; }
    void SetAppendBatch(int rows) { appendBatch_ = rows < 0 ? 0 : rows; }
    /// Rows posted without a tag are tagged by their number among the appends since the dataset opened.
    void SetRowTag(int64_t tag) override { rowTag_ = tag; }
    std::optional<int64_t> OldestDeferredTag() const override {
        if (!pending_.empty()) return pending_.front().Tag;
        return batchTags_.empty() ? std::nullopt : std::optional(batchTags_.front());
    }
    /// Inside a transaction, with an OnDeferredError handler, a row inserted or updated by itself is sent
    /// without waiting for the server's answer, which is read with the next statement (the next row's
    /// Locate, most often, which then costs no round trip of its own; with a key map, the writes go on
    /// for up to 256 rows before their answers are read). A write the server refuses goes to
    /// OnDeferredError. Off by default.
    bool DeferWrites() const { return deferWrites_; }
    void SetDeferWrites(bool defer) { deferWrites_ = defer; }
    /// Lookups by exact keys of integer or text columns are answered from a map of the table's keys to
    /// row addresses, read by one COPY, once this many lookups by the same fields have gone to the
    /// server (default 1000; 0 builds it at the first, a negative number never). A table whose keys
    /// take more than 64 MiB keeps looking each row up. Rows other sessions write meanwhile are not in
    /// the map.
    int KeyMapAfter() const { return keyMapAfter_; }
    void SetKeyMapAfter(int lookups) { keyMapAfter_ = lookups; }
    /// True while a key map answers lookups by these fields.
    bool HasKeyMap(const std::vector<int>& fields) const { return keyMap_ && keyMapFields_ == fields; }
    /// Sends the rows waiting to be appended.
    void FlushAppends();
    /// Forgets them (the transaction they were for is rolled back).
    void DiscardAppends() noexcept;
    /// Deletes every row with one statement and gives how many there were: what emptying the table
    /// before a copy costs, rather than a statement per row.
    std::optional<int64_t> DeleteAll() override;
    /// Rows appended since the dataset opened.
    int64_t AppendCount() const { return appendCount_; }
    /// True while open on a relation without row addresses (a view, ...).
    bool ReadOnly() const { return Active() && !hasCtid_; }
    /// The table as SQL (TKvPgDatabase::TableReference).
    std::string QuotedTable() const { return TKvPgDatabase::TableReference(tableName_); }

    /// "TableName"; "IndexFieldName": the primary key's columns in key order joined by ";".
    std::optional<std::string> PublishedProperty(const std::string& name) const override;
    std::string ClassName() const override { return "TKvPgDataSet"; }

    /// A field's value as the text PostgreSQL reads for a column of the field's type (Null gives false):
    /// for the fast paths that write rows themselves.
    static bool ValueText(const Variant& value, TFieldType type, std::string& out);

protected:
    std::vector<TFieldDef> InternalOpen() override;
    void InternalClose() override;
    bool InternalFirst() override;
    bool InternalNext() override;
    void InternalReadRecord(std::vector<Variant>& values) override;
    void InternalPost(bool inserting, std::vector<Variant>& values, const TAssignedFields& assigned) override;
    bool InternalDelete() override;
    bool InternalLocate(const std::vector<int>& fields, const std::vector<Variant>& values,
                        TLocateOptions options) override;
    int InternalRecordCount() override;

private:
    friend class TKvPgDatabase;
    struct TPendingWrite {
        std::string Statement;
        std::vector<std::string> Params;
        int64_t Tag = 0;
        bool Inserting = false;
    };
    struct TColumn {
        TFieldDef Def;
        uint32_t Type = 0;      // the type's oid
        int KeyPosition = 0;    // 1-based position in the primary key, 0 when not part of it
        bool Generated = false; // computed by the server, never written
        bool Numbered = false;  // an identity column or one whose default is a sequence
        std::string Sequence;   // the sequence that numbers it, quoted as SQL ("" for none)
    };

    void CheckDatabase() const;
    void CheckWritable() const;
    std::vector<TColumn> ReadColumns(char& kind) const;
    const std::string& Statement(const std::string& key, const std::string& sql);
    std::string ColumnList(const TAssignedFields* only = nullptr) const;
    /// Reads up to FetchSize rows into the window: from address `from` on (`after`: the rows after it).
    size_t FillWindow(const std::string& from, bool after);
    /// The rows of `result` into the window; the first column is each row's address.
    void TakeRows(const pg_result* result);
    /// The one row of `result` (its address first) as the window and the current row.
    void TakeRow(const pg_result* result);
    /// The values of `fields` as parameter texts; Null values are left out (the statement says NULL).
    void BindValues(const std::vector<Variant>& values, const std::vector<int>& fields);
    /// Runs a prepared statement with paramTexts_ as its parameters.
    TPgResult Run(const std::string& statement);
    /// Moves the numbering sequence past the largest key given explicitly.
    void MoveSequencePast();
    void ForgetStatements() noexcept;
    /// The row a write's answer holds becomes current.
    void TakeWritten(const pg_result* result, bool inserting);
    /// Sends a write by prepared statement `statement` with paramTexts_, its answer left for later.
    void SendWrite(const std::string& statement, bool inserting);
    /// Reads the answers to the writes sent, if any.
    void SettleWrite();
    /// Forgets the writes sent (`sentLast`: the last statement reached the connection), reading what the
    /// server answers so that the connection is free again.
    void AbandonWrites(bool sentLast) noexcept;
    /// The answer to a write sent: false when the server refused it (rolled back to its savepoint and
    /// told to OnDeferredError).
    bool TakeWriteAnswer(const TPgResult& result, int64_t tag, bool inserting);
    /// The writes sent again one by one, each under its own savepoint, after one of them was refused.
    void RunWritesAlone(std::vector<TPendingWrite>& writes);
    /// Runs `statement` with paramTexts_ in the round trip that brings the pending write's answer.
    TPgResult RunAfterWrite(const std::string& statement);
    /// Whether a key map may serve lookups by `fields`: a table with row addresses, fields of integer or
    /// text types.
    bool KeyMapFits(const std::vector<int>& fields) const;
    /// Counts a lookup by `fields` and builds their key map when it is due.
    void ConsiderKeyMap(const std::vector<int>& fields);
    void BuildKeyMap();
    /// Counts a write of this dataset (first dropping a key map another dataset's writes made stale).
    void NoteWrite();
    /// Drops the key map (`refuse`: for the rest of the run).
    void ForgetKeyMap(bool refuse) noexcept;
    /// The bytes the key map holds for `values` (in the order of the map's fields); false when a value
    /// is Null or not in the form the server prints for the column.
    bool KeyBytes(const std::vector<Variant>& values, std::string& out) const;
    /// The key map's answer to a lookup: nullopt when it does not know.
    std::optional<bool> MapLocate(const std::vector<Variant>& values);
    /// Keeps the key map true to a row about to be written or deleted.
    void KeyMapBeforeWrite(bool inserting, const std::vector<Variant>& values, const TAssignedFields& given);
    void SetParamValues();
    /// Appends the row whose `fields` of `values` are given to the waiting batch.
    void AddToBatch(const std::vector<Variant>& values, const std::vector<int>& fields);
    /// The values of the row appended last, read back from the batch.
    void ReadBatchedRow(std::vector<Variant>& values) const;
    /// Starts a COPY of the batch's columns (under a savepoint inside a transaction).
    void BeginCopy();
    /// Sends bytes [from, to) of the batch to the COPY under way.
    void SendCopy(size_t from, size_t to);
    /// Ends it; the server's message when it refused the rows.
    std::optional<std::string> EndCopy();
    /// Sends rows [first, last) of the batch by one COPY; the server's message when it refuses them.
    std::optional<std::string> CopyRows(size_t first, size_t last);
    /// Sends rows [first, last), halving a refused piece until the refused rows stand alone.
    void CopyPiece(size_t first, size_t last, std::optional<std::string> message);

    TKvPgDatabase* db_ = nullptr;
    std::string tableName_;
    int fetchSize_ = 256;

    // While open:
    std::vector<TColumn> columns_;
    bool hasCtid_ = false;
    std::string sequence_;                          // of the ftAutoInc column, "" when none
    std::optional<int64_t> pendingNumber_;          // the largest key given it since the sequence moved
    std::map<std::string, std::string> statements_; // prepared statements' names by what they do
    // The parameters of the next statement: texts and their pointers, lengths and formats.
    std::vector<std::string> paramTexts_;
    std::vector<const char*> paramValues_;
    std::vector<int> paramLengths_, paramFormats_;

    // The batch of rows waiting to be appended: their COPY text, where each row starts in it, the columns
    // they fill, and each one's tag. The last is current.
    int appendBatch_ = 0;
    int64_t appendCount_ = 0;
    std::string batch_;
    std::vector<size_t> batchStarts_;
    std::vector<int64_t> batchTags_;
    std::optional<int64_t> rowTag_;
    std::vector<int> batchFields_;
    std::vector<int> postFields_; // the fields of the row being posted
    std::string textScratch_;
    bool onBatchedRow_ = false;
    size_t streamed_ = 0;      // bytes of the batch sent to the COPY under way
    bool copyGuarded_ = false; // the COPY under way runs under a savepoint
    std::vector<std::pair<int64_t, std::string>> refused_;

    // Writes sent whose answers are still to be read (SetDeferWrites), each with its statement and
    // parameters, to send it again when one before or after it failed.
    static constexpr size_t kWriteDepth = 256;
    static constexpr size_t kKeyMapBytes = size_t{64} << 20;
    bool deferWrites_ = false;
    std::vector<TPendingWrite> pending_;

    // The key map, the fields it is for, and the lookups by them that went to the server. The current row's
    // key, while it was reached through a lookup by those fields.
    int keyMapAfter_ = 1000;
    std::unique_ptr<TKvKeyAddressMap> keyMap_;
    std::vector<int> keyMapFields_;
    int keyMapLookups_ = 0;
    int keyMapBuilds_ = 0;
    bool keyMapRefused_ = false;
    uint64_t seenWrites_ = 0; // the database's writeCount_ the key map has followed
    std::string lastKey_;
    bool lastKeyValid_ = false;
    std::string keyScratch_;

    // The cursor: the current row's address and a window of rows read ahead (values stored field by
    // field), valid until this dataset writes. Without row addresses, the address is the row's offset.
    bool onRow_ = false;
    std::string address_;
    std::vector<std::string> windowAddresses_;
    std::vector<Variant> windowValues_;
    size_t windowPos_ = 0;
    bool windowValid_ = false;
};

} // namespace kv
