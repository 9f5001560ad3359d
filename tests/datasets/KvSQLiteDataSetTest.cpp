// SQLite tables as datasets, against real database files in a temporary directory.

#include "datasets/KvSQLiteDataSet.h"
#include "DatabaseTargets.h"
#include "platform/SysUtils.h"

#include <climits>
#include <functional>
#include <memory>
#include <sqlite3.h>

namespace kv {
namespace {

using test::ErrorOf;
using test::Insert;

class SQLiteTest : public ::testing::Test {
protected:
    SQLiteTest() { db.Open(dir.File("test.db")); }

    std::unique_ptr<TKvSQLiteDataSet> Table(const std::string& name, int fetchSize = 256) {
        auto ds = std::make_unique<TKvSQLiteDataSet>();
        ds->SetDatabase(&db);
        ds->SetTableName(name);
        ds->SetFetchSize(fetchSize);
        ds->Open();
        return ds;
    }
    // The first column of the first row as text.
    std::string Query(const std::string& sql) {
        TSQLiteStatement statement = db.Prepare(sql);
        const unsigned char* text =
            sqlite3_step(statement.get()) == SQLITE_ROW ? sqlite3_column_text(statement.get(), 0) : nullptr;
        return text ? reinterpret_cast<const char*>(text) : "";
    }

    test::TempDir dir;
    TKvSQLiteDatabase db;
};

TEST_F(SQLiteTest, FieldTypesFollowTheDeclaredTypes) {
    // The type, then the size and precision where there are any.
    const std::pair<const char*, const char*> cases[] = {{"INTEGER", "Integer"},
                                                         {"BIGINT", "Largeint"},
                                                         {"INT8", "Largeint"},
                                                         {"UNSIGNED BIG INT", "Largeint"},
                                                         {"INT UNSIGNED", "Largeint"},
                                                         {"TINYINT", "Smallint"},
                                                         {"SMALLINT UNSIGNED", "Word"},
                                                         {"bool", "Boolean"},
                                                         {"DOUBLE PRECISION", "Float"},
                                                         {"FLOATING POINT", "Float"},
                                                         {"NUMERIC", "BCD"},
                                                         {"DECIMAL(10, 2)", "BCD 10 2"},
                                                         {"MONEY", "Currency"},
                                                         {"DATE", "Date"},
                                                         {"TIME", "Time"},
                                                         {"DATETIME", "DateTime"},
                                                         {"TIMESTAMP WITH TIME ZONE", "DateTime"},
                                                         {"NVARCHAR( 12 )", "String 12"},
                                                         {"NATIVE CHARACTER(70)", "String 70"},
                                                         {"TEXT", "String"},
                                                         {"BLOB", "Blob"},
                                                         {"", "Variant"},
                                                         {"LONGVARCHAR", "String"},
                                                         {"BIGINTEGER", "Integer"},
                                                         {"JSON", "String"}};
    std::string sql = "CREATE TABLE t (";
    for (size_t i = 0; i < std::size(cases); ++i)
        sql += (i ? ", c" : "c") + IntToStr(i) + " " + cases[i].first;
    db.Execute(sql + ")");
    auto ds = Table("t");
    ASSERT_EQ(ds->FieldCount(), static_cast<int>(std::size(cases)));
    for (size_t i = 0; i < std::size(cases); ++i) {
        const TField& f = ds->Fields(static_cast<int>(i));
        std::string type = FieldTypeName(f.DataType());
        if (f.Size()) type += " " + IntToStr(f.Size());
        if (f.Precision()) type += " " + IntToStr(f.Precision());
        EXPECT_EQ(type, cases[i].second) << cases[i].first;
    }
}

TEST_F(SQLiteTest, KeysRequiredAndComputedColumns) {
    db.Execute("CREATE TABLE a (id INTEGER PRIMARY KEY, name TEXT NOT NULL, code TEXT NOT NULL DEFAULT 'x',"
               " twice INTEGER GENERATED ALWAYS AS (length(name) * 2));"
               "CREATE TABLE b (id INTEGER PRIMARY KEY DESC, v);" // SQLite's quirk: not the rowid
               "CREATE TABLE c (id INT PRIMARY KEY, v); CREATE TABLE d (x TEXT, y INT, PRIMARY KEY (y, x));"
               "CREATE TABLE e (v)");
    auto a = Table("A");
    EXPECT_EQ(a->FieldByName("id").DataType(), ftAutoInc);
    EXPECT_FALSE(a->FieldByName("id").Required());
    EXPECT_TRUE(a->FieldByName("name").Required());
    EXPECT_FALSE(a->FieldByName("code").Required()); // it has a default
    EXPECT_TRUE(a->FieldByName("twice").ReadOnly());
    EXPECT_EQ(Table("b")->FieldByName("id").DataType(), ftInteger);
    EXPECT_EQ(Table("c")->FieldByName("id").DataType(), ftInteger);

    const std::pair<const char*, std::optional<std::string>> keys[] = {
        {"a", "id"}, {"b", "id"}, {"d", "y;x"}, {"e", std::nullopt}};
    for (const auto& [table, key] : keys) {
        TKvSQLiteDataSet closed; // the key is known before the table is opened
        closed.SetDatabase(&db);
        closed.SetTableName(table);
        EXPECT_EQ(closed.PublishedProperty("IndexFieldName"), key) << table;
        EXPECT_EQ(Table(table)->PublishedProperty("IndexFieldName"), key) << table;
    }

    Insert(*a, {Variant::Null(), "n"});
    EXPECT_EQ(a->FieldByName("twice").Value().AsInteger(), 2);
    a->Edit();
    TField& twice = a->FieldByName("twice");
    EXPECT_EQ(ErrorOf([&] { twice.SetValue(5); }), "Field 'twice' cannot be modified");
    twice.SetReadOnly(false); // SQLite still refuses it
    twice.SetValue(5);
    EXPECT_EQ(ErrorOf([&] { a->Post(); }), "Field 'twice' cannot be modified");

    db.CreateTable("f", {test::Field("ID", ftAutoInc, true), test::Field("Other", ftAutoInc),
                         test::Field("Any", ftVariant)});
    auto f = Table("f");
    EXPECT_EQ(f->FieldByName("ID").DataType(), ftAutoInc);
    EXPECT_EQ(f->FieldByName("Other").DataType(), ftInteger); // one key numbers the rows
    EXPECT_EQ(f->FieldByName("Any").DataType(), ftVariant);
}

TEST_F(SQLiteTest, ValuesAreStoredInSQLitesNativeKinds) {
    db.Execute("CREATE TABLE t (big BIGINT, f REAL, b BLOB, d DATE, tm TIME, dt DATETIME, flag BOOLEAN,"
               " n NUMERIC(10,2), u)");
    const std::vector<Variant> row = {Variant(5000000000LL),
                                      Variant(2.5),
                                      Variant::FromBytes(std::string("\x00\x01\xff", 3)),
                                      Variant::FromDateTime(EncodeDate(2024, 2, 29)),
                                      Variant::FromDateTime(EncodeTime(13, 45, 10, 0)),
                                      Variant::FromDateTime(EncodeDateTime(2024, 2, 29, 13, 45, 10, 250)),
                                      Variant(true),
                                      Variant(12.25),
                                      Variant(3)};
    Insert(*Table("t"), row);
    // Dates as ISO-8601 text, booleans as 0/1; an untyped column keeps the value's kind.
    EXPECT_EQ(
        Query("SELECT typeof(big) || typeof(f) || typeof(b) || typeof(flag) || flag || typeof(u) FROM t"),
        "integerrealblobinteger1integer");
    EXPECT_EQ(Query("SELECT d || '|' || tm || '|' || dt || '|' || quote(b) FROM t"),
              "2024-02-29|13:45:10|2024-02-29 13:45:10.250|X'0001FF'");
    auto ds = Table("t");
    for (const char* name : {"n", "u"})
        EXPECT_TRUE(ds->FieldByName(name).Value().Identical(row[ds->FieldByName(name).Index()])) << name;
}

TEST_F(SQLiteTest, ReadsTextWrittenByOthersAsDatesAndBooleansWhereItCan) {
    db.Execute("CREATE TABLE t (d DATETIME, flag BOOL, u);"
               "INSERT INTO t VALUES ('2024-01-02T03:04:05.5Z', 'true', 12), ('2024-01-02 03:04', 0, 1.5),"
               " ('yesterday', 7, x'00'), ('2023-02-29', 'maybe', NULL)");
    auto ds = Table("t");
    const Variant expected[][3] = {
        {Variant("2024-01-02T03:04:05.5Z"), Variant(true), Variant(12)}, // a zone stays: no date holds it
        {Variant::FromDateTime(EncodeDateTime(2024, 1, 2, 3, 4, 0, 0)), Variant(false), Variant(1.5)},
        {Variant("yesterday"), Variant(true), Variant::FromBytes(std::string(1, '\0'))},
        {Variant("2023-02-29"), Variant("maybe"), Variant::Null()}}; // no such day: the text stays
    for (const auto& values : expected) {
        for (int i = 0; i < 3; ++i)
            EXPECT_TRUE(ds->Fields(i).Value().Identical(values[i])) << ds->Fields(i).AsString();
        ds->Next();
    }
    EXPECT_TRUE(ds->Eof());
}

TEST_F(SQLiteTest, UnassignedColumnsTakeTheirDefaultsAndANewKeyMovesTheRow) {
    db.Execute("CREATE TABLE t (id INTEGER PRIMARY KEY, name TEXT, city TEXT DEFAULT 'Paris', n INTEGER)");
    auto ds = Table("t");
    for (const char* name : {"Ada", "Bob", "Cy"}) Insert(*ds, {Variant::Null(), name});
    EXPECT_EQ(ds->FieldByName("city").AsString(), "Paris");
    ds->First();
    ds->Next();
    ds->Edit();
    ds->FieldByName("n").SetValue(2); // only this column is written: the default stays
    ds->Post();
    EXPECT_EQ(Query("SELECT group_concat(name || ifnull(n, '-') || city) FROM t"),
              "Ada-Paris,Bob2Paris,Cy-Paris");
    ds->Edit();
    ds->FieldByName("id").SetValue(10); // rows are walked by rowid: the cursor moves with the row
    ds->Post();
    EXPECT_EQ(ds->FieldByName("name").AsString(), "Bob");
    ds->Next();
    EXPECT_TRUE(ds->Eof());
}

TEST_F(SQLiteTest, LocateComparesUntypedColumnsAsStored) {
    db.Execute("CREATE TABLE t (id INTEGER PRIMARY KEY, country TEXT, code INTEGER, u);"
               "CREATE INDEX t_code ON t (country, code);"
               "INSERT INTO t (country, code, u) VALUES ('FR', 1, 5), ('DE', 1, '5'), ('DE', 2, NULL)");
    auto ds = Table("t");
    const struct {
        std::string fields;
        Variant values;
        int expectedId;
    } cases[] = {{"u", Variant(5), 1},
                 {"u", Variant("5"), 2},
                 {"u", Variant(5.0), 1},
                 {"u", Variant::Null(), 3},
                 {"country;code", Variant::FromArray({"DE", "2"}), 3}}; // through the index
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fields + " -> " + IntToStr(c.expectedId));
        ASSERT_TRUE(ds->Locate(c.fields, c.values, {}));
        EXPECT_EQ(ds->FieldByName("id").Value().AsInteger(), c.expectedId);
    }
}

TEST_F(SQLiteTest, WalksManyRowsInRowidOrderAcrossFetchWindows) {
    db.Execute("CREATE TABLE t (id INTEGER PRIMARY KEY, v TEXT);"
               "INSERT INTO t VALUES (9223372036854775807, 'max'), (-5, 'neg')");
    db.StartTransaction();
    auto writer = Table("t");
    for (int i = 10000; i > 2; --i)
        Insert(*writer, {i * 3, "v" + IntToStr(i)}); // rowids against insertion order
    db.Commit();
    std::vector<int64_t> expected = {-5};
    for (int i = 3; i <= 10000; ++i) expected.push_back(i * 3);
    expected.push_back(INT64_MAX);
    for (int fetchSize : {1, 7, 256, 20000, 0}) {
        SCOPED_TRACE(fetchSize);
        auto ds = Table("t", std::max(fetchSize, 1));
        if (fetchSize == 0) { // its own connection, its own windows
            ASSERT_TRUE(ds->ReadAhead(nullptr));
        }
        std::vector<int64_t> ids;
        int wrongValues = 0;
        for (ds->First(); !ds->Eof(); ds->Next()) {
            ids.push_back(ds->Fields(0).Value().AsInt64());
            if (ids.back() % 3 == 0 && ds->Fields(1).AsString() != "v" + IntToStr(ids.back() / 3))
                ++wrongValues;
        }
        EXPECT_TRUE(ids == expected);
        EXPECT_EQ(wrongValues, 0);
    }
}

TEST_F(SQLiteTest, EditsAndDeletesWhileWalkingVisitEachRowOnce) {
    db.Execute("CREATE TABLE t (n INTEGER, v TEXT);"
               "WITH RECURSIVE c(n) AS (SELECT 1 UNION ALL SELECT n + 1 FROM c WHERE n < 100)"
               " INSERT INTO t (n) SELECT n FROM c");
    for (bool readAhead : {false, true}) {
        SCOPED_TRACE(readAhead);
        auto ds = Table("t", 4);
        // The first write ends reading ahead: the walk goes on through the dataset's own connection.
        if (readAhead) {
            EXPECT_TRUE(ds->ReadAhead(nullptr));
        }
        std::vector<int> visited;
        for (ds->First(); !ds->Eof();) {
            const int n = ds->Fields(0).Value().AsInteger();
            visited.push_back(n);
            if (n % 3 == 0) {
                ds->Delete(); // already on the next row
                continue;
            }
            if (n % 2 == 0) {
                ds->Edit();
                ds->Fields(1).SetValue("even");
                ds->Post();
                EXPECT_EQ(ds->Fields(1).AsString(), "even");
            }
            ds->Next();
        }
        ASSERT_EQ(visited.size(), 100u);
        for (int i = 0; i < 100; ++i) EXPECT_EQ(visited[static_cast<size_t>(i)], i + 1);
        EXPECT_EQ(Query("SELECT count(*) || ' ' || count(v) FROM t"), "67 34");
        db.Execute(
            "DELETE FROM t; WITH RECURSIVE c(n) AS (SELECT 1 UNION ALL SELECT n + 1 FROM c WHERE n < 100)"
            " INSERT INTO t (n) SELECT n FROM c");
    }
}

TEST_F(SQLiteTest, ReadsAheadOnlyWhereItCannotMissAWrite) {
    db.Execute("CREATE TABLE t (n INTEGER); CREATE TABLE u (n INTEGER); INSERT INTO t VALUES (1)");
    auto source = Table("t");
    auto sameFile = Table("u");
    EXPECT_FALSE(source->ReadAhead(sameFile.get()));
    EXPECT_FALSE(source->ReadAhead(source.get()));

    TKvSQLiteDatabase other;
    other.Open(dir.File("other.db"));
    other.Execute("CREATE TABLE u (n INTEGER)");
    TKvSQLiteDataSet elsewhere;
    elsewhere.SetDatabase(&other);
    elsewhere.SetTableName("u");
    elsewhere.Open();
    EXPECT_TRUE(source->ReadAhead(&elsewhere));

    db.StartTransaction(); // what this connection has not committed, another one does not see
    EXPECT_FALSE(source->ReadAhead(&elsewhere));
    db.Rollback();

    TKvSQLiteDatabase memory;
    memory.Open(":memory:");
    memory.Execute("CREATE TABLE t (n INTEGER); CREATE TEMP TABLE temporary (n INTEGER)");
    for (const char* table : {"t", "temporary"}) {
        TKvSQLiteDataSet ds;
        ds.SetDatabase(table == std::string("t") ? &memory : &db);
        if (table != std::string("t")) db.Execute("CREATE TEMP TABLE temporary (n INTEGER)");
        ds.SetTableName(table);
        ds.Open();
        EXPECT_FALSE(ds.ReadAhead(nullptr)) << table;
    }
}

TEST_F(SQLiteTest, AReadThatFailsMidwayIsAnErrorInItsTurn) {
    db.Execute("CREATE TABLE t (n INTEGER);"
               "WITH RECURSIVE c(n) AS (SELECT 1 UNION ALL SELECT n + 1 FROM c WHERE n < 20000)"
               " INSERT INTO t SELECT n FROM c");
    for (bool readAhead : {false, true}) {
        SCOPED_TRACE(readAhead);
        auto ds = Table("t");
        if (readAhead) {
            ASSERT_TRUE(ds->ReadAhead(nullptr));
        }
        ds->First();
        TKvSQLiteDatabase other;
        other.Open(dir.File("test.db"));
        other.Execute("ALTER TABLE t RENAME TO gone");
        int64_t rows = 0, last = 0;
        const std::string error = ErrorOf([&] {
            for (; !ds->Eof(); ds->Next()) {
                ++rows;
                last = ds->Fields(0).Value().AsInt64();
            }
        });
        EXPECT_EQ(error, "no such table: t");
        EXPECT_EQ(last, rows); // every row before the failure, in order
        EXPECT_LT(rows, 20000);
        other.Execute("ALTER TABLE gone RENAME TO t");
    }
}

TEST_F(SQLiteTest, ConstraintErrorsLeaveTheDataSetUsable) {
    db.Execute("CREATE TABLE t (code TEXT NOT NULL UNIQUE, qty INTEGER CHECK (qty >= 0))");
    auto ds = Table("t");
    const std::pair<std::vector<Variant>, std::string> rows[] = {
        {{"A", 1}, ""},
        {{"A", 2}, "UNIQUE constraint failed: t.code"},
        {{"B", -1}, "CHECK constraint failed"}, // SQLite adds the expression
        {{"C", 3}, ""}};
    for (const auto& [values, expected] : rows) {
        const std::string error = ErrorOf([&] { Insert(*ds, values); });
        EXPECT_EQ(error.substr(0, expected.size()), expected);
        EXPECT_EQ(error.empty(), expected.empty()) << error;
        if (!error.empty()) {
            EXPECT_EQ(ds->State(), dsInsert);
            ds->Cancel();
        }
    }
    EXPECT_EQ(Query("SELECT group_concat(code) FROM t"), "A,C");

    ds->First();
    ds->Edit();
    ds->Fields(0).SetValue("C");
    EXPECT_EQ(ErrorOf([&] { ds->Post(); }), "UNIQUE constraint failed: t.code");
    ds->Cancel();
    EXPECT_EQ(ds->Fields(0).AsString(), "A");
}

TEST_F(SQLiteTest, GroupedAppendsKeepTheRowsAroundTheRefusedOnes) {
    db.Execute("CREATE TABLE t (n INTEGER CHECK (n <> 13), s TEXT NOT NULL, d DATE)");
    auto ds = Table("t");
    ds->SetAppendBatch(8);
    std::vector<std::string> refused;
    ds->OnDeferredError = [&](int64_t tag, const std::exception& error) {
        refused.push_back(std::to_string(tag) + ": " + error.what());
    };
    db.StartTransaction();
    for (int n = 1; n <= 30; ++n) {
        if (n > 10) ds->SetRowTag(n * 100); // untagged rows go by their number among the appends
        Insert(*ds,
               {n, n == 7 ? Variant::Null() : Variant("x"), Variant::FromDateTime(EncodeDate(2024, 1, n))});
        EXPECT_EQ(ds->Fields(0).AsString(), std::to_string(n)); // the row just posted, as posted
        EXPECT_EQ(ds->Fields(2).Value().AsDateTime(), EncodeDate(2024, 1, n));
    }
    EXPECT_EQ(ds->OldestDeferredTag(), 2500); // the last group waits
    EXPECT_EQ(refused, (std::vector<std::string>{"7: NOT NULL constraint failed: t.s",
                                                 "1300: CHECK constraint failed: n <> 13"}));
    EXPECT_TRUE(ds->Locate("n", 30, {})); // the waiting rows first
    EXPECT_EQ(ds->OldestDeferredTag(), std::nullopt);
    for (int n = 31; n <= 33; ++n) Insert(*ds, {n, "y", Variant::Null()});
    db.Commit(); // written before the commit
    EXPECT_EQ(Query("SELECT count(*) || ' ' || sum(n) || ' ' || min(d) FROM t"),
              std::to_string(31) + " " + std::to_string(33 * 34 / 2 - 7 - 13) + " 2024-01-01");
    db.StartTransaction();
    Insert(*ds, {34, "z", Variant::Null()});
    db.Rollback(); // and dropped with the transaction
    EXPECT_EQ(ds->RecordCount(), 31);
    Insert(*ds, {35, "w", Variant::Null()});
    EXPECT_EQ(ds->DeleteAll(), 32); // the waiting row too

    // Without a handler, the first refusal is raised once the group's other rows are stored, by the post
    // that found the group full; the record it was posting stays, to be posted again.
    ds->OnDeferredError = nullptr;
    ds->SetAppendBatch(2);
    Insert(*ds, {1, "a", Variant::Null()});
    Insert(*ds, {13, "b", Variant::Null()});
    ds->Append();
    ds->Fields(0).SetValue(2);
    ds->Fields(1).SetValue("c");
    EXPECT_EQ(ErrorOf([&] { ds->Post(); }), "CHECK constraint failed: n <> 13");
    EXPECT_EQ(ds->State(), dsInsert);
    ds->Post();
    ds->First();
    EXPECT_EQ(Query("SELECT group_concat(n || s) FROM t"), "1a,2c");
}

TEST_F(SQLiteTest, TablesThatKeepHalfAStatementTakeTheirRowsOneByOne) {
    // A group would keep its rows before the conflict, then write them again one by one.
    db.Execute("CREATE TABLE f (n INTEGER UNIQUE ON CONFLICT FAIL)");
    db.Execute("CREATE TABLE g (n INTEGER UNIQUE)");
    db.Execute("CREATE TABLE log (n INTEGER)");
    db.Execute("CREATE TRIGGER g_log AFTER INSERT ON g BEGIN INSERT INTO log VALUES (new.n); "
               "SELECT RAISE(FAIL, 'three') WHERE new.n = 3; END");
    for (const std::string table : {"f", "g"}) {
        SCOPED_TRACE(table);
        auto ds = Table(table);
        ds->SetAppendBatch(8);
        std::vector<int64_t> refused;
        ds->OnDeferredError = [&](int64_t tag, const std::exception&) { refused.push_back(tag); };
        db.StartTransaction();
        const int rows[] = {1, 2, table == "f" ? 2 : 3, 4};
        for (int k = 0; k < 4; ++k) {
            ds->SetRowTag(k + 1);
            if (ErrorOf([&] { Insert(*ds, {rows[k]}); }).empty()) continue;
            refused.push_back(k + 1); // refused at once: the rows go one by one
            ds->Cancel();
        }
        db.Commit();
        EXPECT_EQ(refused, std::vector<int64_t>{3});
        EXPECT_EQ(Query("SELECT group_concat(n) FROM " + table),
                  table == "f" ? "1,2,4" : "1,2,3,4"); // RAISE(FAIL) keeps its row
    }
    EXPECT_EQ(Query("SELECT group_concat(n) FROM log"), "1,2,3,4");
}

TEST_F(SQLiteTest, StartTransactionTakesTheWriteLockAtOnce) {
    // A second writer fails there, not midway through its rows.
    db.StartTransaction();
    TKvSQLiteDatabase other;
    other.Open(dir.File("test.db"));
    other.SetBusyTimeout(0);
    EXPECT_EQ(ErrorOf([&] { other.StartTransaction(); }), "database is locked");
    db.Commit();
    other.StartTransaction();
    other.Rollback();
}

TEST_F(SQLiteTest, FastCommitsOnlyWhereAPowerCutCannotDamageTheFile) {
    // synchronous: 2 = FULL, SQLite's default; 1 = NORMAL.
    db.PreferFastCommits();
    EXPECT_EQ(Query("PRAGMA synchronous"), "2");
    db.Execute("PRAGMA journal_mode=WAL");
    db.PreferFastCommits();
    EXPECT_EQ(Query("PRAGMA synchronous"), "1");
}

TEST_F(SQLiteTest, OpenFailuresAreClearErrors) {
    test::WriteFile(dir.File("notes.txt"), std::string(4096, 'x'));
    TKvSQLiteDatabase bad;
    const std::string error = ErrorOf([&] { bad.Open(dir.File("notes.txt")); });
    EXPECT_NE(error.find("file is not a database"), std::string::npos) << error;
    EXPECT_FALSE(bad.Connected());
    EXPECT_NE(ErrorOf([&] { bad.Open(dir.Path()); }), "");

    TKvSQLiteDataSet ds;
    EXPECT_EQ(ErrorOf([&] { ds.Open(); }), "No database assigned");
    ds.SetDatabase(&bad);
    EXPECT_EQ(ErrorOf([&] { ds.Open(); }), "The database is not open");
    ds.SetDatabase(&db);
    ds.SetTableName("nope");
    EXPECT_EQ(ErrorOf([&] { ds.Open(); }), "Table 'nope' does not exist");
    EXPECT_FALSE(db.TableExists("nope"));
    EXPECT_NE(ErrorOf([&] { db.Execute("SELEC 1"); }).find("syntax error"), std::string::npos);
}

TEST_F(SQLiteTest, ViewsAndTablesWithoutRowidAreReadForwardOnly) {
    db.Execute("CREATE TABLE k (code TEXT PRIMARY KEY, n INTEGER) WITHOUT ROWID;"
               "INSERT INTO k VALUES ('c', 3), ('a', 1), ('b', 2);"
               "CREATE VIEW v AS SELECT code, n * 10 AS n10 FROM k ORDER BY code DESC");
    for (const char* name : {"k", "v"}) {
        SCOPED_TRACE(name);
        EXPECT_TRUE(db.TableExists(name));
        auto ds = Table(name);
        EXPECT_TRUE(ds->ReadOnly());
        EXPECT_TRUE(ds->Fields(1).ReadOnly());
        std::string codes;
        for (; !ds->Eof(); ds->Next()) codes += ds->Fields(0).AsString();
        EXPECT_EQ(codes, name == std::string("k") ? "abc" : "cba");

        ds->First();
        ds->Next();
        EXPECT_FALSE(ds->Locate("code", Variant("zz"), {}));
        EXPECT_EQ(ds->Fields(0).AsString(), "b");
        ASSERT_TRUE(ds->Locate("CODE", Variant("A"), {loCaseInsensitive}));
        EXPECT_EQ(ds->Fields(0).AsString(), "a");
        EXPECT_EQ(ds->RecordCount(), 3);

        ds->Edit();
        EXPECT_THROW(ds->Fields(1).SetValue(9), EDatabaseError);
        ds->Cancel();
        ds->Append();
        EXPECT_NE(ErrorOf([&] { ds->Post(); }).find("Cannot modify a read-only dataset"), std::string::npos);
        ds->Cancel();
        EXPECT_THROW(ds->Delete(), EDatabaseError);
    }
}

TEST_F(SQLiteTest, OddNamesColumnsHidingTheRowidAndClosing) {
    db.Execute("CREATE TABLE \"my \"\"odd\"\" table\" (rowid TEXT, _rowid_ TEXT, \"a;b\" INTEGER);"
               "CREATE TABLE hidden (rowid, _rowid_, oid)");
    EXPECT_TRUE(Table("hidden")->ReadOnly()); // no name is left to reach the rowid by
    auto ds = Table("my \"odd\" table", 2);
    for (const char* v : {"x", "y", "z"}) Insert(*ds, {v, Variant::Null(), 1});
    ds->First();
    ds->Next();
    ds->Edit();
    ds->FieldByName("a;b").SetValue(2);
    ds->Post();
    ds->Next();
    ds->Delete();
    EXPECT_EQ(Query("SELECT group_concat(rowid || \"a;b\") FROM \"my \"\"odd\"\" table\""), "x1,y2");

    EXPECT_THROW(ds->SetTableName("t"), EDatabaseError); // not while open
    db.Close();
    EXPECT_FALSE(ds->Active());
    {
        TKvSQLiteDatabase scoped;
        scoped.Open(dir.File("test.db"));
        ds->SetDatabase(&scoped);
        ds->Open();
    }
    EXPECT_FALSE(ds->Active());
    EXPECT_EQ(ds->Database(), nullptr);
}

} // namespace
} // namespace kv
