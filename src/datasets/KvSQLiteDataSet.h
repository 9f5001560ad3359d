#pragma once
// TKvSQLiteDatabase, a connection to one SQLite file (the TKvDatabase of SQLite destinations), and
// TKvSQLiteDataSet, one table of it as a TDataSet.
//
// The dataset walks a table in rowid order, fetching a window of rows per query, so that neither memory nor
// open statements grow with the table and no statement stays pending between calls (the application may
// commit or roll back at any time). Writes are prepared INSERT/UPDATE/DELETE statements by rowid; the
// dataset never starts or ends a transaction itself.
//
// Asked to read ahead, a table of a file walked by First and Next has its next windows read on a thread and
// a read-only connection of their own (TKvSQLiteReadAhead) while the caller works on the rows before them;
// the first write, Locate or Close goes back to reading on the dataset's connection.
//
// Views and tables WITHOUT ROWID have no stable row address: they are read forward through one
// statement (Locate scans from the start) and refuse every write.
//
// Locate by fields that no index covers scans the table each time, which makes keyed imports quadratic.
// Once such lookups have stepped through KeyTableThreshold rows, the dataset copies the key columns and
// rowids into an indexed table of the connection's temp schema (same declared types and collations, so
// values compare as they do in the table), kept current by temp triggers on the table, and looks keys up
// there. Nothing is written to the database file itself: read-only files work, and a killed run leaves
// nothing behind. Where the temp schema refuses (a virtual table, an authorizer), lookups scan as before.

#include "datasets/KvDatabase.h"

#include <algorithm>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace kv {

struct TSQLiteStatementFinalizer {
    void operator()(sqlite3_stmt* statement) const;
};
/// A prepared statement, finalized when released.
using TSQLiteStatement = std::unique_ptr<sqlite3_stmt, TSQLiteStatementFinalizer>;

class TKvSQLiteDataSet;
class TKvSQLiteReadAhead;

/// A connection to an SQLite database file. Closing it (or destroying it) closes the datasets that use it.
class TKvSQLiteDatabase : public TKvDatabase {
public:
    explicit TKvSQLiteDatabase(TComponent* owner = nullptr);
    ~TKvSQLiteDatabase() override;

    /// Opens (creating when missing) the database file; a file that is not a database fails here.
    void Open(const std::string& fileName);
    void Close();
    bool Connected() const { return db_ != nullptr; }
    const std::string& FileName() const { return fileName_; }
    /// Milliseconds a statement waits for another connection's lock before failing (default 5000).
    int BusyTimeout() const { return busyTimeout_; }
    void SetBusyTimeout(int milliseconds);

    /// "SQLite database \"file\"", or "SQLite database in memory".
    std::string Description() const override;

    /// Runs one or more statements that return no rows.
    void Execute(const std::string& sql) override;
    /// A prepared statement; `persistent` hints that it will be reused many times.
    TSQLiteStatement Prepare(const std::string& sql, bool persistent = false);

    /// BEGIN IMMEDIATE: the write lock is taken at once, so a busy database fails here rather than midway.
    void StartTransaction() override;
    void Commit() override;
    void Rollback() override;
    bool InTransaction() const override;
    /// In WAL mode, synchronous=NORMAL for this connection: a commit syncs nothing, a checkpoint syncs
    /// the log, so a killed process loses no commit and a power cut may lose the last ones but never
    /// leaves the file damaged. A database with a rollback journal keeps its setting: there NORMAL risks
    /// damage on a power cut.
    void PreferFastCommits() override;

    /// True when a table or view of that name (compared ignoring case) exists in any attached schema.
    bool TableExists(const std::string& name) override;
    /// INTEGER, REAL, TEXT, BLOB, DATE, TIME, DATETIME or BOOLEAN: names TKvSQLiteDataSet reads back as
    /// a field of the same kind; "" (no declared type) for ftVariant.
    std::string TypeName(TFieldType type) const override;
    /// A TKvSQLiteDataSet on `table`.
    TDataSet* OpenDataSet(const std::string& table, TComponent* owner) override;
    sqlite3* Handle() const { return db_; }
    /// `name` as an SQL identifier: in double quotes, inner quotes doubled.
    static std::string QuoteIdentifier(std::string_view name);

    /// Raises EDatabaseError with the connection's last error message.
    [[noreturn]] void RaiseError() const;

    std::string ClassName() const override { return "TKvSQLiteDatabase"; }

protected:
    std::string QuotedIdentifier(std::string_view name) const override { return QuoteIdentifier(name); }

private:
    friend class TKvSQLiteDataSet;
    void CheckConnected() const;

    sqlite3* db_ = nullptr;
    std::string fileName_;
    int busyTimeout_ = 5000;
    std::vector<TKvSQLiteDataSet*> dataSets_; // datasets whose Database is this one
};

/// One table (or view) of an SQLite database.
///
/// Field types follow the declared column types by meaning (INTEGER, BIGINT, SMALLINT, BOOLEAN, REAL,
/// DECIMAL(p,s), MONEY, DATE, TIME, DATETIME, VARCHAR(n), TEXT, BLOB, ...), falling back on SQLite's
/// affinity rules for names it does not know; the INTEGER PRIMARY KEY is ftAutoInc; a column without a
/// declared type (or of an unknown one) is ftString and reads back whatever SQLite stored. Texts are ftString
/// (Size 0 when no length is declared), never ftMemo.
class TKvSQLiteDataSet : public TDataSet {
public:
    explicit TKvSQLiteDataSet(TComponent* owner = nullptr);
    ~TKvSQLiteDataSet() override;

    TKvSQLiteDatabase* Database() const { return db_; }
    void SetDatabase(TKvSQLiteDatabase* database);
    const std::string& TableName() const { return tableName_; }
    void SetTableName(const std::string& name);
    /// Rows read per query while walking the table (default 256).
    int FetchSize() const { return fetchSize_; }
    void SetFetchSize(int rows);
    /// Rows that lookups by unindexed fields may scan in all before the dataset builds its key table
    /// (default 10000; 0 builds it at the first such lookup, a negative number never).
    int64_t KeyTableThreshold() const { return keyTableThreshold_; }
    void SetKeyTableThreshold(int64_t rows) { keyTableThreshold_ = rows; }
    /// True while a key table serves lookups by these fields.
    bool HasKeyTable(const std::vector<int>& fields) const;
    /// Rows appended one after another with the same fields go to SQLite this many at a time, by one
    /// INSERT of several rows (0 or 1, the default: each row as it is posted); a full group is written when
    /// the next row comes. Waiting rows go before any other use of the table and before the database
    /// commits. When SQLite refuses a group, its rows are
    /// written again one by one: a refused row goes to OnDeferredError with the tag it was posted under
    /// (or, without a handler, its error is raised once the others are stored), the others are kept.
    /// Tables with triggers, or whose constraints end a statement other than by undoing it (ON CONFLICT
    /// FAIL or ROLLBACK), take their rows one by one all the same.
    int AppendBatch() const { return appendBatch_; }
    void SetAppendBatch(int rows) { appendBatch_ = std::clamp(rows, 0, 64); }
    /// Rows posted without a tag are tagged by their number among the appends since the dataset opened.
    void SetRowTag(int64_t tag) override { rowTag_ = tag; }
    std::optional<int64_t> OldestDeferredTag() const override {
        return pendingTags_.empty() ? std::nullopt : std::optional(pendingTags_.front());
    }
    /// Writes the rows waiting to be appended.
    void FlushAppends();
    /// Forgets them (the transaction they were for is rolled back).
    void DiscardAppends() noexcept;
    /// True while open on a view or a table without rowid.
    bool ReadOnly() const { return Active() && !hasRowid_; }

    /// "TableName"; "IndexFieldName": the primary key's columns in key order joined by ";" (an INTEGER
    /// PRIMARY KEY included), nothing when the table has no primary key.
    std::optional<std::string> PublishedProperty(const std::string& name) const override;
    /// Reads on through a read-only connection of its own to the table's file, which sees what is
    /// committed: only for a table of a file (not a temp or in-memory one) that `writtenMeanwhile` does not
    /// write to, while this connection has no transaction open.
    bool ReadAhead(const TDataSet* writtenMeanwhile) override;
    void StopReadAhead() override;
    /// SQLite keeps any value in any column: text in an INTEGER column stays text.
    bool StoresAnyValue() const override { return true; }
    /// One DELETE statement: triggers and foreign keys act as for rows deleted one by one.
    std::optional<int64_t> DeleteAll() override;
    std::string ClassName() const override { return "TKvSQLiteDataSet"; }

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
    /// The fields of a lookup as the name of its key table ("0;2;").
    static std::string FieldsKey(const std::vector<int>& fields);
    friend class TKvSQLiteDatabase;

    struct TColumn {
        TFieldDef Def;
        bool Untyped = false;   // no declared type: values are bound as they come
        bool Generated = false; // computed by SQLite, never written
        int KeyPosition = 0;    // 1-based position in the primary key, 0 when not part of it
    };
    struct TTableInfo {
        std::vector<TColumn> Columns;
        std::string Schema; // the attached schema holding the table: "main", "temp", ...
        bool HasRowid = false;
        std::string RowidName; // how to name the rowid in SQL (a column may hide "rowid")
    };

    TTableInfo ReadTableInfo() const;
    void CheckDatabase() const;
    void CheckWritable() const;
    sqlite3_stmt* FindStatement(const std::string& key) const;
    sqlite3_stmt* AddStatement(const std::string& key, const std::string& sql);
    /// Reads up to FetchSize rows from rowid `from` on into the window; the number read.
    size_t FillWindow(int64_t from);
    /// Makes the read-ahead's next window the window; false at the end of the table.
    bool TakeReadAheadWindow();
    /// The file holding the table, "" when it is in memory or in the temp schema.
    std::string FileOfTable() const;
    void ReadRow(sqlite3_stmt* statement, int firstColumn, std::vector<Variant>& out) const;
    void BindValue(sqlite3_stmt* statement, int parameter, const Variant& value, const TColumn& column) const;
    bool KeysMatch(const std::vector<Variant>& row, const std::vector<int>& fields,
                   const std::vector<Variant>& keys, TLocateOptions options) const;
    bool ScanLocate(const std::vector<int>& fields, const std::vector<Variant>& keys, TLocateOptions options);
    bool ForwardStep();
    bool ForwardLocate(const std::vector<int>& fields, const std::vector<Variant>& keys,
                       TLocateOptions options);
    // An indexed copy of the key columns in the temp schema, for lookups by fields no index covers.
    struct TKeyTable {
        std::string Name; // of the temp table; its index and triggers are named after it
        TSQLiteStatement Find, Confirm, Forget;
        int64_t DataVersion = 0; // the database's, when built: other connections' commits change it
    };
    /// Whether a row has these keys; nothing when the key table is gone.
    std::optional<bool> KeyTableLocate(TKeyTable& table, const std::vector<int>& fields,
                                       const std::vector<Variant>& keys);
    TKeyTable* BuildKeyTable(const std::string& key, const std::vector<int>& fields);
    void DropKeyTable(const TKeyTable& table) noexcept;
    int64_t DataVersion();
    std::string ColumnList(const TAssignedFields* only = nullptr) const;
    std::string QuotedTable() const { return TKvSQLiteDatabase::QuoteIdentifier(tableName_); }
    void BindAndStep(sqlite3_stmt* statement, bool inserting, const std::vector<Variant>& values,
                     const TAssignedFields& assigned);
    /// The statement that writes one row of the fields `assigned` (`inserting` or updating).
    sqlite3_stmt* PostStatement(bool inserting, const TAssignedFields& assigned, int assignedCount);
    /// Whether rows may go to SQLite in groups: no triggers, no constraint that keeps half a statement.
    bool GroupsRows();
    /// Writes rows [first, first + count) of the waiting ones by one INSERT; false when SQLite refused it
    /// (nothing of it was written).
    bool InsertGroup(size_t first, size_t count);

    TKvSQLiteDatabase* db_ = nullptr;
    std::string tableName_;
    int fetchSize_ = 256;
    int64_t keyTableThreshold_ = 10000;

    // While open:
    std::vector<TColumn> columns_;
    std::string schema_;
    // Key tables by their fields ("0;3"), and the field sets the temp schema refused one for.
    std::map<std::string, TKeyTable> keyTables_;
    std::set<std::string> keyTablesRefused_;
    std::map<std::string, bool> lookupScans_; // lookup statements by key: whether SQLite scans the table
    bool hasRowid_ = false;
    std::string rowidName_;
    std::map<std::string, TSQLiteStatement> statements_;
    // The statements of the last update and the last insert and what they wrote, and of the last lookup
    // by an index (cleared with the statements): an import repeats them row after row.
    struct TLastPost {
        sqlite3_stmt* Statement = nullptr;
        TAssignedFields Assigned;
    };
    TLastPost lastPost_[2];
    struct TLastLocate {
        sqlite3_stmt* Statement = nullptr;
        std::vector<int> Fields;
        bool Scans = false;
    };
    TLastLocate lastLocate_;
    TAssignedFields unchangedRowid_; ///< an update's fields without a rowid it leaves as it is
    // Rows waiting to be appended, all of the fields pendingAssigned_: their records (swapped with the
    // dataset's, the first pendingTags_.size() of pendingRows_) and tags. The last is current.
    int appendBatch_ = 0;
    std::optional<bool> groupsRows_;
    int64_t appendCount_ = 0;
    std::optional<int64_t> rowTag_;
    TAssignedFields pendingAssigned_;
    int pendingCount_ = 0; // assigned fields of a waiting row
    std::vector<std::vector<Variant>> pendingRows_;
    std::vector<int64_t> pendingTags_;
    bool onPendingRow_ = false;
    // The texts of bound dates, by parameter: they stay in place until the statement has run, as SQLite
    // needs (a deque does not move its items when it grows).
    mutable std::deque<std::string> boundTexts_;

    // The cursor: the current row's rowid and a window of rows read ahead (values stored field by field),
    // valid until this dataset writes.
    bool onRow_ = false;
    int64_t rowid_ = 0;
    std::vector<int64_t> windowRowids_;
    std::vector<Variant> windowValues_;
    size_t windowPos_ = 0;
    size_t windowTaken_ = SIZE_MAX; ///< the row whose values were moved out to the record
    bool windowValid_ = false;
    std::unique_ptr<TKvSQLiteReadAhead> readAhead_; ///< while reading ahead

    // Reading without rowid: one statement stepped forward, the row it stands on, and how many rows came
    // before it (to come back after a failed Locate).
    TSQLiteStatement forward_;
    bool forwardDone_ = true;
    int64_t forwardIndex_ = 0;
};

} // namespace kv
