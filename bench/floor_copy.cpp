// The floor for the table-to-table benchmark: the items table of one SQLite database copied into the items
// table of another, row by row through the C API, as directly as these five known columns allow. No mapping,
// no type checks, no error reports.
//
//     floor_copy SOURCE.sqlite DEST.sqlite append|appendupdate [COMMIT_EVERY]
//
// The source is its own read-only connection, as kvimport opens it, with one SELECT stepped over the whole
// table (kvimport reads it in windows of rows). Each row's values are bound as the source returns them to one
// prepared INSERT, texts without a copy: the dates are text in the source and stay the same text, which is
// what kvimport stores for them. appendupdate looks the ID up in the destination first (its INTEGER PRIMARY
// KEY, so a search of the table's B-tree) and then updates the other four columns by that ID, or inserts.
// Like kvimport's command line it commits every 100,000 rows (COMMIT_EVERY 0: once at the end) in
// transactions begun IMMEDIATE, turns off SQLite's memory statistics and opens both connections without a
// mutex; the destination keeps its default journal. The destination table must exist.

#include <sqlite3.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr int kColumns = 5; // ID, NAME, PRICE, QTY, CREATED

[[noreturn]] void Fail(const std::string& message) {
    std::fprintf(stderr, "floor_copy: %s\n", message.c_str());
    std::exit(1);
}

void Check(sqlite3* db, int rc, const char* what) {
    if (rc != SQLITE_OK && rc != SQLITE_DONE && rc != SQLITE_ROW)
        Fail(std::string(what) + ": " + sqlite3_errmsg(db));
}

sqlite3* Open(const char* file, int flags) {
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(file, &db, flags | SQLITE_OPEN_NOMUTEX, nullptr) != SQLITE_OK)
        Fail(std::string("cannot open ") + file + ": " + (db ? sqlite3_errmsg(db) : "out of memory"));
    return db;
}

sqlite3_stmt* Prepare(sqlite3* db, const char* sql) {
    sqlite3_stmt* statement = nullptr;
    Check(db, sqlite3_prepare_v3(db, sql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr), sql);
    return statement;
}

void Exec(sqlite3* db, const char* sql) {
    Check(db, sqlite3_exec(db, sql, nullptr, nullptr, nullptr), sql);
}

// Binds the source row's column to a parameter by its storage class. A text or blob stays where the source
// statement holds it, which is until that statement steps again, after the write has run.
void Bind(sqlite3* db, sqlite3_stmt* to, int parameter, sqlite3_stmt* from, int column) {
    int rc;
    switch (sqlite3_column_type(from, column)) {
    case SQLITE_INTEGER:
        rc = sqlite3_bind_int64(to, parameter, sqlite3_column_int64(from, column));
        break;
    case SQLITE_FLOAT:
        rc = sqlite3_bind_double(to, parameter, sqlite3_column_double(from, column));
        break;
    case SQLITE_TEXT: {
        const unsigned char* text = sqlite3_column_text(from, column);
        rc = sqlite3_bind_text(to, parameter, reinterpret_cast<const char*>(text),
                               sqlite3_column_bytes(from, column), SQLITE_STATIC);
        break;
    }
    case SQLITE_BLOB: {
        const void* blob = sqlite3_column_blob(from, column);
        rc = sqlite3_bind_blob(to, parameter, blob, sqlite3_column_bytes(from, column), SQLITE_STATIC);
        break;
    }
    default:
        rc = sqlite3_bind_null(to, parameter);
    }
    Check(db, rc, "bind");
}

void Step(sqlite3* db, sqlite3_stmt* statement, const char* what) {
    if (sqlite3_step(statement) != SQLITE_DONE) Fail(std::string(what) + ": " + sqlite3_errmsg(db));
    sqlite3_reset(statement);
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 4 && argc != 5) {
        std::fprintf(stderr,
                     "usage: floor_copy SOURCE.sqlite DEST.sqlite append|appendupdate [COMMIT_EVERY]\n");
        return 2;
    }
    const bool update = std::strcmp(argv[3], "appendupdate") == 0;
    if (!update && std::strcmp(argv[3], "append") != 0) Fail(std::string("unknown mode ") + argv[3]);
    const long commitEvery = argc == 5 ? std::atol(argv[4]) : 100000;

    if (sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0) != SQLITE_OK) Fail("cannot turn off memory statistics");
    sqlite3* source = Open(argv[1], SQLITE_OPEN_READONLY);
    sqlite3* db = Open(argv[2], SQLITE_OPEN_READWRITE);

    sqlite3_stmt* select = Prepare(source, "SELECT ID, NAME, PRICE, QTY, CREATED FROM items");
    sqlite3_stmt* insert = Prepare(db, "INSERT INTO items(ID, NAME, PRICE, QTY, CREATED) VALUES (?,?,?,?,?)");
    sqlite3_stmt* find = update ? Prepare(db, "SELECT 1 FROM items WHERE ID = ?") : nullptr;
    sqlite3_stmt* change =
        update ? Prepare(db, "UPDATE items SET NAME = ?, PRICE = ?, QTY = ?, CREATED = ? WHERE ID = ?")
               : nullptr;

    Exec(db, "BEGIN IMMEDIATE");
    long pending = 0;
    int rc;
    while ((rc = sqlite3_step(select)) == SQLITE_ROW) {
        bool found = false;
        if (update) {
            Bind(db, find, 1, select, 0);
            rc = sqlite3_step(find);
            Check(db, rc, "look up");
            found = rc == SQLITE_ROW;
            sqlite3_reset(find);
        }
        if (found) {
            for (int column = 1; column < kColumns; ++column) Bind(db, change, column, select, column);
            Bind(db, change, kColumns, select, 0);
            Step(db, change, "update");
        } else {
            for (int column = 0; column < kColumns; ++column) Bind(db, insert, column + 1, select, column);
            Step(db, insert, "insert");
        }
        if (++pending == commitEvery) {
            Exec(db, "COMMIT");
            Exec(db, "BEGIN IMMEDIATE");
            pending = 0;
        }
    }
    Check(source, rc, "read the source");
    Exec(db, "COMMIT");

    sqlite3_finalize(select);
    sqlite3_finalize(insert);
    sqlite3_finalize(find);
    sqlite3_finalize(change);
    sqlite3_close(source);
    sqlite3_close(db);
    return 0;
}
