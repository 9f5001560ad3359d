// Lookups by fields no index covers: the key table in the temp schema answers as the table itself would.

#include "TestSupport.h"
#include "datasets/KvSQLiteDataSet.h"
#include "platform/SysUtils.h"

#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <sqlite3.h>

namespace kv {
namespace {

class KeyTableTest : public ::testing::Test {
protected:
    KeyTableTest() { db.Open(dir.File("test.db")); }

    std::unique_ptr<TKvSQLiteDataSet> Table(const std::string& name, int64_t threshold) {
        auto ds = std::make_unique<TKvSQLiteDataSet>();
        ds->SetKeyTableThreshold(threshold);
        ds->SetDatabase(&db);
        ds->SetTableName(name);
        ds->Open();
        return ds;
    }
    int64_t Count(const std::string& sql) {
        TSQLiteStatement statement = db.Prepare(sql);
        return sqlite3_step(statement.get()) == SQLITE_ROW ? sqlite3_column_int64(statement.get(), 0) : -1;
    }
    std::string FileBytes() {
        std::ifstream in(dir.File("test.db"), std::ios::binary);
        return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    }

    test::TempDir dir;
    TKvSQLiteDatabase db;
};

// The id found, or "-".
std::string Find(TDataSet& ds, const std::string& fields, const Variant& values) {
    return ds.Locate(fields, values, {}) ? ds.FieldByName("id").AsString() : "-";
}

TEST_F(KeyTableTest, FindsWhatTheTableFindsWithAndWithoutIndex) {
    const char* schema = "(id INTEGER PRIMARY KEY, name TEXT COLLATE NOCASE, n INTEGER, r REAL, u, d DATE)";
    const char* rows = "(name, n, r, u, d) VALUES ('abc', 5, 1.5, 5, '2024-01-02'), ('Abc', 5, 2, '5', NULL),"
                       "(NULL, NULL, NULL, NULL, '2024-01-02'), ('x', 7, 2.0, 5.0, '2023-12-31'),"
                       "('abc', 6, 3, x'05', NULL)";
    db.Execute(std::string("CREATE TABLE indexed ") + schema + "; CREATE TABLE plain " + schema +
               "; CREATE TABLE keyed " + schema + "; INSERT INTO indexed " + rows + "; INSERT INTO plain " +
               rows + "; INSERT INTO keyed " + rows +
               "; CREATE INDEX i1 ON indexed (name); CREATE INDEX i2 ON indexed (n); CREATE INDEX i3 ON "
               "indexed (r); CREATE INDEX i4 ON indexed (u); CREATE INDEX i5 ON indexed (d);"
               "CREATE INDEX i6 ON indexed (n, name)");
    const struct {
        std::string fields;
        Variant values;
    } lookups[] = {{"name", Variant("ABC")},
                   {"name", Variant("abc ")},
                   {"name", Variant::Null()},
                   {"n", Variant(5)},
                   {"n", Variant("6")},
                   {"n", Variant(7.0)},
                   {"n", Variant::Null()},
                   {"r", Variant(2)},
                   {"r", Variant("1.5")},
                   {"u", Variant(5)},
                   {"u", Variant("5")},
                   {"u", Variant::FromBytes(std::string(1, '\x05'))},
                   {"d", Variant::FromDateTime(EncodeDate(2024, 1, 2))},
                   {"d", Variant::Null()},
                   {"n;name", Variant::FromArray({Variant(5), Variant("aBc")})},
                   {"n;name", Variant::FromArray({Variant("6"), Variant("abc")})},
                   {"n;name", Variant::FromArray({Variant::Null(), Variant::Null()})},
                   {"n;name", Variant::FromArray({Variant(7), Variant("y")})}};
    // Lookups, then writes through the dataset and around it, each followed by the lookups again.
    const auto transcript = [&](const std::string& name, int64_t threshold, bool keyTable) {
        auto ds = Table(name, threshold);
        std::string out;
        const auto all = [&] {
            for (const auto& lookup : lookups) out += Find(*ds, lookup.fields, lookup.values) + " ";
            out += "| ";
        };
        all();
        ds->Locate("n", Variant(5), {});
        ds->Edit(); // the first 'abc' takes another key: the second row is found in its place
        ds->FieldByName("n").SetValue(Variant(8));
        ds->FieldByName("name").SetValue(Variant("y"));
        ds->Post();
        all();
        ds->Locate("name", Variant::Null(), {});
        ds->Delete();
        all();
        for (int i = 0; i < 3; ++i) { // new keys, found in the same run, and one more row for an old key
            ds->Append();
            ds->FieldByName("name").SetValue(Variant(i == 2 ? "abc" : "new" + IntToStr(i)));
            ds->FieldByName("n").SetValue(Variant(i == 2 ? 5 : 100 + i));
            ds->Post();
        }
        out += Find(*ds, "name", Variant("NEW1")) + Find(*ds, "n;name", Variant::FromArray({100, "new0"}));
        all();
        db.Execute("UPDATE " + name + " SET id = 40 WHERE id = 2; DELETE FROM " + name + " WHERE n = 6");
        all();
        EXPECT_EQ(ds->HasKeyTable({1}), keyTable);
        EXPECT_EQ(ds->HasKeyTable({2, 1}), keyTable);
        return out;
    };
    const std::string expected = transcript("indexed", 0, false);
    EXPECT_EQ(transcript("plain", -1, false), expected);
    EXPECT_EQ(transcript("keyed", 0, true), expected);
    EXPECT_EQ(Count("SELECT count(*) FROM temp.sqlite_master"), 0); // dropped when the datasets closed
}

TEST_F(KeyTableTest, LookupsStayLinearInTheRows) {
    // SQLite's virtual machine steps, counted in hundreds: deterministic, unlike time.
    int64_t steps = 0;
    sqlite3_progress_handler(
        db.Handle(), 100, [](void* count) { return ++*static_cast<int64_t*>(count), 0; }, &steps);
    const auto stepsPerLookup = [&](int rows) {
        const std::string name = "t" + IntToStr(rows);
        db.Execute("CREATE TABLE " + name +
                   " (id INTEGER PRIMARY KEY, code TEXT, v INTEGER);"
                   "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < " +
                   IntToStr(rows) + ") INSERT INTO " + name + " (code, v) SELECT 'c' || i, i FROM n");
        auto ds = Table(name, 10000);
        steps = 0;
        db.StartTransaction();
        for (int i = rows; i >= 1; --i) {
            EXPECT_TRUE(ds->Locate("code", Variant("c" + IntToStr(i)), {}));
            if (i % 10 == 0) { // an update and a new key, as an appendupdate import does
                ds->Edit();
                ds->FieldByName("v").SetValue(Variant(-i));
                ds->Post();
                EXPECT_FALSE(ds->Locate("code", Variant("n" + IntToStr(i)), {}));
                ds->Append();
                ds->FieldByName("code").SetValue(Variant("n" + IntToStr(i)));
                ds->Post();
            }
        }
        db.Commit();
        EXPECT_TRUE(ds->HasKeyTable({1}));
        EXPECT_EQ(ds->Locate("code", Variant("n20"), {}) ? ds->FieldByName("id").Value().AsInteger() : 0,
                  rows + rows / 10 - 1); // "n20" came second to last
        return static_cast<double>(steps) / rows;
    };
    const double small = stepsPerLookup(20000), large = stepsPerLookup(100000);
    // Scanning lookups would take five times as many steps per lookup at five times the rows.
    EXPECT_LT(large, small * 1.5) << small << " vs " << large;
    sqlite3_progress_handler(db.Handle(), 0, nullptr, nullptr);
}

TEST_F(KeyTableTest, NeverWritesTheDatabaseFile) {
    db.Execute(
        "CREATE TABLE t (id INTEGER PRIMARY KEY, code TEXT); INSERT INTO t (code) VALUES ('a'), ('b')");
    db.Close();
    const std::string before = FileBytes();
    db.Open(dir.File("test.db"));
    {
        auto ds = Table("t", 0);
        EXPECT_EQ(Find(*ds, "code", Variant("b")), "2");
        EXPECT_EQ(Find(*ds, "code", Variant("a")), "1");
        EXPECT_TRUE(ds->HasKeyTable({1}));
        EXPECT_EQ(Count("SELECT count(*) FROM main.sqlite_master"), 1);
    }
    db.Close();
    EXPECT_EQ(FileBytes(), before);
}

TEST_F(KeyTableTest, SeesWritesAroundIt) {
    TKvSQLiteDatabase other;
    other.Open(dir.File("test.db"));
    std::unique_ptr<TKvSQLiteDataSet> writer;
    const auto append = [&](TKvSQLiteDataSet& ds, const char* code) {
        ds.Append();
        ds.FieldByName("code").SetValue(Variant(code));
        ds.Post();
    };
    const struct {
        const char* name;
        std::function<void()> write;
        std::string expected; // the ids of 'a', 'b' and 'c'
    } cases[] = {
        {"another connection commits",
         [&] { other.Execute("INSERT INTO t (code) VALUES ('c'); DELETE FROM t WHERE code = 'a'"); }, "-23"},
        {"another dataset on the connection", [&] { append(*writer, "c"); }, "123"},
        // A REPLACE conflict deletes the old row without running delete triggers.
        {"a row replaced on conflict", [&] { db.Execute("INSERT INTO t (code, u) VALUES ('c', 'x')"); },
         "-23"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        db.Execute("DROP TABLE IF EXISTS t; CREATE TABLE t (id INTEGER PRIMARY KEY, code TEXT,"
                   " u TEXT UNIQUE ON CONFLICT REPLACE); INSERT INTO t (code, u) VALUES ('a', 'x')");
        writer = Table("t", -1);
        append(*writer, "b"); // its insert is prepared before the key table and its triggers exist
        auto ds = Table("t", 0);
        EXPECT_EQ(Find(*ds, "code", Variant("b")), "2");
        ASSERT_TRUE(ds->HasKeyTable({1}));
        c.write();
        std::string ids;
        for (const char* code : {"a", "b", "c"}) ids += Find(*ds, "code", Variant(code));
        EXPECT_EQ(ids, c.expected);
        writer.reset();
    }
}

TEST_F(KeyTableTest, FollowsRollbacks) {
    db.Execute("CREATE TABLE t (id INTEGER PRIMARY KEY, code TEXT); INSERT INTO t (code) VALUES ('a')");
    auto ds = Table("t", 0);
    for (bool builtInside : {true, false}) {
        SCOPED_TRACE(builtInside ? "built inside the transaction" : "built before it");
        db.StartTransaction();
        EXPECT_EQ(Find(*ds, "code", Variant("a")), "1");
        ASSERT_TRUE(ds->HasKeyTable({1}));
        ds->Append();
        ds->FieldByName("code").SetValue(Variant("b"));
        ds->Post();
        EXPECT_EQ(Find(*ds, "code", Variant("b")), "2");
        db.Execute("DELETE FROM t WHERE code = 'a'");
        db.Rollback();
        EXPECT_EQ(Find(*ds, "code", Variant("b")), "-");
        EXPECT_EQ(Find(*ds, "code", Variant("a")), "1");
    }
}

TEST_F(KeyTableTest, IndexedAndCaseInsensitiveLookupsNeedNone) {
    db.Execute("CREATE TABLE t (id INTEGER PRIMARY KEY, code TEXT UNIQUE, name TEXT);"
               "INSERT INTO t (code, name) VALUES ('a', 'Ann'), ('b', 'Bob')");
    auto ds = Table("t", 0);
    EXPECT_EQ(Find(*ds, "code", Variant("b")), "2");
    EXPECT_EQ(Find(*ds, "id", Variant(1)), "1");
    ASSERT_TRUE(ds->Locate("name", Variant("bob"), {loCaseInsensitive}));
    EXPECT_FALSE(ds->HasKeyTable({1}));
    EXPECT_FALSE(ds->HasKeyTable({0}));
    EXPECT_FALSE(ds->HasKeyTable({2}));
}

} // namespace
} // namespace kv
