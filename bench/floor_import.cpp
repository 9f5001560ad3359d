// The floor for the CSV import benchmark: the orders file of make_csv.py into the typed orders table, written
// as directly as one file layout allows. No mapping, no type detection, no error reports; it only knows these
// seven columns. Values are stored as kvimport stores them, so the two tables compare equal row for row.
//
//     floor_import FILE.csv DB.sqlite [COMMIT_EVERY]
//
// The table must exist. Like kvimport's command line it commits every 100,000 rows (COMMIT_EVERY 0: once at
// the end), turns off SQLite's memory statistics and opens the connection without a mutex; the database
// keeps its default journal.

#include <sqlite3.h>

#include <fcntl.h>
#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr int kColumns = 7;
constexpr size_t kBlock = 1 << 20;

[[noreturn]] void Fail(const std::string& message) {
    std::fprintf(stderr, "floor_import: %s\n", message.c_str());
    std::exit(1);
}

void Check(sqlite3* db, int rc, const char* what) {
    if (rc != SQLITE_OK && rc != SQLITE_DONE && rc != SQLITE_ROW)
        Fail(std::string(what) + ": " + sqlite3_errmsg(db));
}

// One record's fields. A field without doubled quotes points into the read buffer; one with them is copied,
// unescaped, into its own scratch string.
struct Record {
    std::string_view field[kColumns];
    std::string scratch[kColumns];
    int count = 0;
};

enum class Parse { kRecord, kNeedMore, kMalformed };

// Splits the record that starts at p. Returns kNeedMore when the data ends before the record does and more
// may follow; the caller then reads on and splits the same record again from its start.
Parse Split(const char*& p, const char* end, bool atEof, Record& rec) {
    const char* s = p;
    rec.count = 0;
    for (;;) {
        if (rec.count == kColumns) return Parse::kMalformed; // too many fields
        std::string_view& out = rec.field[rec.count];
        if (s < end && *s == '"') {
            const char* start = ++s;
            bool copied = false;
            std::string& scratch = rec.scratch[rec.count];
            for (;;) {
                const char* q = static_cast<const char*>(std::memchr(s, '"', end - s));
                if (!q || q + 1 == end) {
                    // The closing quote or the byte after it is not in the buffer yet.
                    if (!atEof || !q) return atEof ? Parse::kMalformed : Parse::kNeedMore;
                }
                if (q + 1 < end && q[1] == '"') {
                    if (!copied)
                        scratch.assign(start, q + 1), copied = true;
                    else
                        scratch.append(s, q + 1);
                    s = q + 2;
                    continue;
                }
                if (copied) {
                    scratch.append(s, q);
                    out = scratch;
                } else {
                    out = std::string_view(start, q - start);
                }
                s = q + 1;
                break;
            }
        } else {
            const char* start = s;
            while (s < end && *s != ',' && *s != '\r' && *s != '\n') ++s;
            out = std::string_view(start, s - start);
        }
        ++rec.count;
        if (s == end) {
            if (!atEof) return Parse::kNeedMore;
            p = s;
            return Parse::kRecord;
        }
        if (*s == ',') {
            ++s;
            continue;
        }
        if (*s == '\r') {
            if (s + 1 == end && !atEof) return Parse::kNeedMore;
            if (s + 1 < end && s[1] == '\n') ++s;
            p = s + 1;
            return Parse::kRecord;
        }
        if (*s == '\n') {
            p = s + 1;
            return Parse::kRecord;
        }
        return Parse::kMalformed; // a quoted field followed by something else than a separator
    }
}

class Importer {
public:
    Importer(const char* dbFile, long commitEvery) : commitEvery_(commitEvery) {
        sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
        if (sqlite3_open_v2(dbFile, &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr) != SQLITE_OK)
            Fail(std::string("cannot open ") + dbFile + ": " + sqlite3_errmsg(db_));
        Check(db_,
              sqlite3_prepare_v3(db_, "INSERT INTO orders VALUES (?,?,?,?,?,?,?)", -1,
                                 SQLITE_PREPARE_PERSISTENT, &insert_, nullptr),
              "prepare");
        Exec("BEGIN");
    }

    ~Importer() {
        sqlite3_finalize(insert_);
        sqlite3_close(db_);
    }

    void Row(const Record& rec, long record) {
        if (rec.count != kColumns)
            Fail("record " + std::to_string(record) + ": " + std::to_string(rec.count) + " fields");
        const std::string_view* f = rec.field;

        long long id = 0;
        if (std::from_chars(f[0].data(), f[0].data() + f[0].size(), id).ptr != f[0].data() + f[0].size())
            Fail("record " + std::to_string(record) + ": id " + std::string(f[0]));
        sqlite3_bind_int64(insert_, 1, id);

        // Thousand separators out, then the decimal text read with correct rounding.
        char digits[64];
        size_t n = 0;
        for (char c : f[1])
            if (c != ',' && n < sizeof digits) digits[n++] = c;
        double amount = 0;
        if (n == 0 || std::from_chars(digits, digits + n, amount).ptr != digits + n)
            Fail("record " + std::to_string(record) + ": amount " + std::string(f[1]));
        sqlite3_bind_double(insert_, 2, amount);

        // The dates are ISO already, which is the text kvimport stores.
        if (f[2].size() != 10 || f[2][4] != '-' || f[2][7] != '-')
            Fail("record " + std::to_string(record) + ": date " + std::string(f[2]));
        BindText(3, f[2]);
        BindText(4, f[3]);
        BindText(5, f[4]);
        BindText(6, f[5]);

        if (f[6] == "true")
            sqlite3_bind_int(insert_, 7, 1);
        else if (f[6] == "false")
            sqlite3_bind_int(insert_, 7, 0);
        else
            Fail("record " + std::to_string(record) + ": boolean " + std::string(f[6]));

        if (sqlite3_step(insert_) != SQLITE_DONE) Fail("insert: " + std::string(sqlite3_errmsg(db_)));
        sqlite3_reset(insert_);
        if (++pending_ == commitEvery_) {
            Exec("COMMIT");
            Exec("BEGIN");
            pending_ = 0;
        }
    }

    void Finish() { Exec("COMMIT"); }

private:
    // An empty field is NULL, as kvimport stores it. The text lives until the step right after.
    void BindText(int column, std::string_view text) {
        if (text.empty())
            sqlite3_bind_null(insert_, column);
        else
            sqlite3_bind_text(insert_, column, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
    }

    void Exec(const char* sql) { Check(db_, sqlite3_exec(db_, sql, nullptr, nullptr, nullptr), sql); }

    sqlite3* db_ = nullptr;
    sqlite3_stmt* insert_ = nullptr;
    long commitEvery_;
    long pending_ = 0;
};

} // namespace

int main(int argc, char** argv) {
    if (argc != 3 && argc != 4) {
        std::fprintf(stderr, "usage: floor_import FILE.csv DB.sqlite [COMMIT_EVERY]\n");
        return 2;
    }
    const int fd = open(argv[1], O_RDONLY);
    if (fd < 0) Fail(std::string("cannot open ") + argv[1]);
    posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);

    Importer importer(argv[2], argc == 4 ? std::atol(argv[3]) : 100000);
    Record rec;
    std::vector<char> buffer(kBlock);
    size_t have = 0;
    bool eof = false;
    bool header = true;
    long record = 0; // the header is record 0
    while (!eof || have > 0) {
        if (!eof) {
            if (buffer.size() - have < kBlock / 2)
                buffer.resize(buffer.size() * 2); // a record longer than a block
            const ssize_t got = read(fd, buffer.data() + have, buffer.size() - have);
            if (got < 0) Fail("read failed");
            if (got == 0) eof = true;
            have += static_cast<size_t>(got);
        }
        const char* p = buffer.data();
        const char* end = p + have;
        while (p < end) {
            const char* start = p;
            const Parse result = Split(p, end, eof, rec);
            if (result == Parse::kNeedMore) {
                p = start;
                break;
            }
            if (result == Parse::kMalformed) Fail("record " + std::to_string(record) + ": malformed record");
            if (header)
                header = false;
            else
                importer.Row(rec, record);
            ++record;
        }
        have = static_cast<size_t>(end - p);
        std::memmove(buffer.data(), p, have);
        if (eof && have > 0) Fail("unterminated record at the end");
    }
    close(fd);
    importer.Finish();
    return 0;
}
