// What only the PostgreSQL database does: table names in schemas, the catalogue's types, key maps, and a
// server that blocks or goes away. What it shares with SQLite runs on both in the shared suites.

#include "datasets/KvPgDataSet.h"
#include "DatabaseTargets.h"

#include <chrono>
#include <libpq-fe.h>
#include <memory>

namespace kv {
namespace {

using test::ErrorOf;
using test::Field;
using test::Insert;

TEST(PgTableReference, SchemaDotTableOrSQLAsWritten) {
    const struct {
        std::string name, sql;
    } cases[] = {
        {"orders", R"("orders")"},
        {"Sales.Orders", R"("Sales"."Orders")"}, // case kept
        {"a.b.c", R"("a"."b.c")"},
        {".x", R"(".x")"},
        {"x.", R"("x.")"},
        {R"(we"ird; name)", R"("we""ird; name")"},
        {R"("a.b")", R"("a.b")"},
        {R"("My ""S"""."t")", R"("My ""S"""."t")"},
        {R"("s".t)", R"("s"."t")"},
        {R"("unclosed)", R"("""unclosed")"},
        {R"("a"."b"."c")", R"("""a"".""b"".""c""")"},
        {R"("a"x)", R"("""a""x")"},
    };
    for (const auto& c : cases) EXPECT_EQ(TKvPgDatabase::TableReference(c.name), c.sql) << c.name;
}

class Pg : public ::testing::Test {
protected:
    void SetUp() override {
        if (!test::PgCluster::Missing().empty()) GTEST_SKIP() << test::PgCluster::Missing();
        target = test::PgCluster::Get().FreshSchema();
        db.Open(target);
    }
    std::unique_ptr<TKvPgDataSet> Open(const std::string& table) {
        return std::unique_ptr<TKvPgDataSet>(dynamic_cast<TKvPgDataSet*>(db.OpenDataSet(table, nullptr)));
    }
    // The message of the EDatabaseUnwritable `action` fails with.
    static std::string UnwritableError(const std::function<void()>& action) {
        try {
            action();
        } catch (const EDatabaseUnwritable& e) {
            return e.Message();
        }
        return "";
    }
    // The first value of `sql`'s result, read through a connection of its own.
    std::string Query(const std::string& sql) { return test::PgCluster::Query(target, sql); }
    int Count(const std::string& table) { return std::stoi(Query("SELECT count(*) FROM " + table)); }
    // The server ends the session of `db`.
    void EndSession() {
        Query("SELECT pg_terminate_backend(" + std::to_string(PQbackendPID(db.Handle())) + ")");
    }

    std::string target;
    TKvPgDatabase db;
};

TEST_F(Pg, TablesInSchemasWithQuotesBlanksAndCapitals) {
    // Schemas outlive a test: this one is named after the test's own.
    const std::string schema = "Sales Dept " + test::PgCluster::Query(target, "SELECT current_schema()");
    db.Execute("CREATE SCHEMA " + db.QuoteIdentifier(schema));
    const std::string table = schema + ".Orders \"2024\"";
    db.CreateTable(table, {Field("Order ID", ftInteger), Field("Ünit\"s", ftString)});
    EXPECT_TRUE(db.TableExists(table));
    EXPECT_FALSE(db.TableExists("Orders \"2024\"")); // not on the search path
    EXPECT_FALSE(db.TableExists("sales dept" + schema.substr(10) + ".orders \"2024\"")); // case kept
    db.CreateTable("x; DROP TABLE y", {Field("n", ftInteger)});
    auto ds = Open(table);
    Insert(*ds, {1, "it's"});
    ds = Open(table);
    EXPECT_EQ(ds->Fields(0).FieldName(), "Order ID");
    EXPECT_EQ(ds->Fields(1).AsString(), "it's");
    EXPECT_EQ(ds->PublishedProperty("TableName"), table);
    EXPECT_TRUE(db.TableExists("x; DROP TABLE y"));
}

TEST_F(Pg, CatalogueTypesReadAsFieldsAndWriteBackAlike) {
    const struct {
        const char* type;
        const char* literal;
        TFieldType field;
        int size;
        std::string text; // AsString of the value read
    } columns[] = {
        {"smallint", "-32768", ftSmallint, 0, "-32768"},
        {"integer", "2147483647", ftInteger, 0, "2147483647"},
        {"bigint", "-9223372036854775808", ftLargeint, 0, "-9223372036854775808"},
        {"real", "1.5", ftFloat, 0, "1.5"},
        {"double precision", "'-Infinity'", ftFloat, 0, "-INF"},
        {"numeric(10,2)", "12345678.91", ftBCD, 10, "12345678.91"},
        {"boolean", "true", ftBoolean, 0, "True"},
        {"date", "'2024-02-29'", ftDate, 0, "2024-02-29"},
        {"time", "'23:59:59'", ftTime, 0, "23:59:59"},
        {"timestamp", "'1900-01-01 00:00:01'", ftDateTime, 0, "1900-01-01 00:00:01"},
        {"timestamptz", "'2024-06-30 23:30:00+02'", ftDateTime, 0, "2024-06-30 21:30:00"}, // in UTC
        {"text", "'Zoë ''x'' \\'", ftString, 0, "Zoë 'x' \\"},
        {"varchar(5)", "'abc'", ftString, 5, "abc"},
        {"char(3)", "'ab'", ftFixedChar, 3, "ab "},
        {"bytea", "'\\x00ff41'", ftBlob, 0,
         std::string("\x00\xff"
                     "A",
                     3)},
        {"uuid", "'a0eebc99-9c0b-4ef8-bb6d-6bb9bd380a11'", ftGuid, 38,
         "a0eebc99-9c0b-4ef8-bb6d-6bb9bd380a11"},
        {"json", "'{\"a\": [1, 2]}'", ftString, 0, "{\"a\": [1, 2]}"},
        {"jsonb", "'{\"a\": [1, 2]}'", ftString, 0, "{\"a\": [1, 2]}"},
        {"interval", "'1 day 02:00:00'", ftString, 0, "1 day 02:00:00"},
    };
    std::string create = "CREATE TABLE t (id bigserial PRIMARY KEY", values = "DEFAULT";
    for (size_t i = 0; i < std::size(columns); ++i) {
        create += ", c" + std::to_string(i) + " " + columns[i].type;
        values += std::string(", ") + columns[i].literal;
    }
    db.Execute(create + ")");
    db.Execute("INSERT INTO t VALUES (" + values + ")");
    auto ds = Open("t");
    EXPECT_EQ(ds->Fields(0).DataType(), ftAutoInc);
    EXPECT_EQ(ds->PublishedProperty("IndexFieldName"), "id");
    std::vector<Variant> read;
    for (size_t i = 0; i < std::size(columns); ++i) {
        const TField& f = ds->Fields(static_cast<int>(i) + 1);
        SCOPED_TRACE(columns[i].type);
        EXPECT_EQ(f.DataType(), columns[i].field);
        EXPECT_EQ(f.Size(), columns[i].size);
        EXPECT_EQ(f.AsString(), columns[i].text);
        read.push_back(f.Value());
    }
    // Written back through the dataset, each value reads as it was read.
    ds->Append();
    for (size_t i = 0; i < read.size(); ++i) ds->Fields(static_cast<int>(i) + 1).SetValue(read[i]);
    ds->Post();
    EXPECT_EQ(ds->Fields(0).AsString(), "2");
    auto again = Open("t");
    again->Next();
    for (size_t i = 0; i < read.size(); ++i)
        EXPECT_EQ(again->Fields(static_cast<int>(i) + 1).AsString(), columns[i].text) << columns[i].type;

    // A date beyond any TDateTime reads as its text.
    db.Execute("CREATE TABLE d (day date); INSERT INTO d VALUES ('infinity'), ('0044-03-15 BC')");
    auto days = Open("d");
    EXPECT_EQ(days->Fields(0).AsString(), "infinity");
    days->Next();
    EXPECT_EQ(days->Fields(0).AsString(), "0044-03-15 BC");
}

TEST_F(Pg, AValueTheColumnRefusesCostsItsRowOnly) {
    db.Execute("CREATE TABLE t (code varchar(3), day date CHECK (day < '2100-01-01'))");
    auto ds = Open("t");
    db.StartTransaction();
    Insert(*ds, {"a", Variant::FromDateTime(EncodeDate(2024, 1, 1))});
    EXPECT_EQ(ErrorOf([&] {
                  Insert(*ds, {"toolong", Variant::Null()});
              }),
              "value too long for type character varying(3)");
    ds->Cancel();
    EXPECT_EQ(ErrorOf([&] {
                  Insert(*ds, {"b", Variant::FromDateTime(EncodeDate(9999, 12, 31))});
              }),
              "new row for relation \"t\" violates check constraint \"t_day_check\"");
    ds->Cancel();
    Insert(*ds, {"c", Variant::Null()});
    db.Commit();
    EXPECT_EQ(Count("t"), 2);
}

TEST_F(Pg, ALockHeldByAnotherSessionFailsAfterTheLockTimeout) {
    db.Execute("CREATE TABLE t (n integer)");
    TKvPgDatabase waiting;
    waiting.SetLockTimeout(200);
    waiting.Open(target);
    std::unique_ptr<TDataSet> ds(waiting.OpenDataSet("t", nullptr));
    db.StartTransaction();
    db.Execute("LOCK TABLE t IN ACCESS EXCLUSIVE MODE");
    const auto start = std::chrono::steady_clock::now();
    waiting.StartTransaction();
    EXPECT_EQ(UnwritableError([&] { Insert(*ds, {1}); }),
              "canceling statement due to lock timeout: another session held a lock longer than this "
              "run waits (lock_timeout)");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    ds->Cancel();
    waiting.Rollback();
    db.Rollback();
    Insert(*ds, {2}); // free again
    EXPECT_EQ(Count("t"), 1);
}

TEST_F(Pg, AServerThatGoesAwayKeepsTheCommittedRows) {
    db.Execute("CREATE TABLE t (n integer)");
    auto ds = Open("t");
    db.StartTransaction();
    Insert(*ds, {1});
    Insert(*ds, {2});
    db.Commit();
    db.StartTransaction();
    Insert(*ds, {3});
    EndSession();
    const std::string message = UnwritableError([&] { Insert(*ds, {4}); });
    EXPECT_TRUE(message.starts_with("Lost the connection to the PostgreSQL server on host")) << message;
    EXPECT_FALSE(db.InTransaction());
    db.Rollback(); // nothing left to roll back: no error
    EXPECT_EQ(Count("t"), 2);
}

TEST_F(Pg, AServerThatGoesAwayWhileWritesAwaitTheirAnswersEndsTheRun) {
    // Keyed writes in a pipeline, answered by the key map or one by one with the next lookup.
    db.Execute("CREATE TABLE t (id integer PRIMARY KEY, s text)");
    db.Execute("INSERT INTO t SELECT g, 'old' FROM generate_series(1, 50) g");
    for (const int keyMapAfter : {0, -1}) {
        SCOPED_TRACE(keyMapAfter);
        if (!db.Connected()) db.Open(target);
        auto owned = Open("t");
        TKvPgDataSet& ds = *owned;
        ds.SetKeyMapAfter(keyMapAfter);
        ds.SetDeferWrites(true);
        ds.OnDeferredError = [](int64_t, const std::exception&) {};
        db.StartTransaction();
        const std::string message = UnwritableError([&] {
            for (int id = 1; id <= 50; ++id) {
                if (id == 10) EndSession();
                ds.SetRowTag(id);
                ASSERT_TRUE(ds.Locate("id", id, {}));
                ds.Edit();
                ds.Fields(1).SetValue("new");
                ds.Post();
            }
            db.Commit();
        });
        EXPECT_TRUE(message.starts_with("Lost the connection to the PostgreSQL server on host")) << message;
        db.Rollback();
        owned.reset();
        db.Close();
        EXPECT_EQ(Query("SELECT count(*), count(*) FILTER (WHERE s = 'old') FROM t"), "50|50");
    }
}

TEST_F(Pg, BatchedAppendsKeepTheRowsAroundTheRefusedOnes) {
    db.Execute("CREATE TABLE t (n integer CHECK (n <> 13), s text NOT NULL)");
    auto owned = Open("t");
    TKvPgDataSet& ds = *owned;
    ds.SetAppendBatch(100);
    std::vector<std::string> refused;
    ds.OnDeferredError = [&](int64_t tag, const std::exception& error) {
        refused.push_back(std::to_string(tag) + ": " + error.what());
    };
    const std::string odd = "tab\there\nnew line \\N back\\slash\r";
    db.StartTransaction();
    for (int n = 1; n <= 30; ++n) {
        if (n > 10) ds.SetRowTag(n * 100); // untagged rows go by their number among the appends
        Insert(ds, {n, n == 7 ? Variant::Null() : Variant(n == 2 ? odd : "x")});
        EXPECT_EQ(ds.OldestDeferredTag(), 1);
        // The row just posted reads back as it will be sent.
        EXPECT_EQ(ds.Fields(1).AsString(), n == 7 ? "" : n == 2 ? odd : "x");
        EXPECT_EQ(ds.Fields(1).IsNull(), n == 7);
    }
    EXPECT_EQ(ds.Fields(0).AsString(), "30"); // the last row, as posted
    EXPECT_EQ(Count("t"), 0);                 // nothing sent yet
    EXPECT_TRUE(ds.Locate("n", 2, {}));       // sent first
    EXPECT_EQ(ds.Fields(1).AsString(), odd);
    EXPECT_EQ(refused, (std::vector<std::string>{
                           "7: null value in column \"s\" of relation \"t\" violates not-null constraint",
                           "1300: new row for relation \"t\" violates check constraint \"t_n_check\""}));
    EXPECT_EQ(ds.OldestDeferredTag(), std::nullopt);
    for (int n = 31; n <= 35; ++n) {
        ds.SetRowTag(n * 100);
        Insert(ds, {n, "y"});
    }
    EXPECT_EQ(ds.OldestDeferredTag(), 3100);
    db.Commit(); // sent before the commit
    EXPECT_EQ(Count("t"), 33);
    db.StartTransaction();
    Insert(ds, {36, "z"});
    db.Rollback(); // and dropped with the transaction
    EXPECT_EQ(ds.RecordCount(), 33);
    EXPECT_EQ(ds.AppendCount(), 36);
    Insert(ds, {37, "w"});
    EXPECT_EQ(ds.DeleteAll(), 34); // the waiting row too
    EXPECT_TRUE(ds.Eof() && ds.IsEmpty());
}

TEST_F(Pg, WritesAnsweredWithTheNextLookup) {
    db.Execute("CREATE TABLE t (n smallint, s text CHECK (s <> 'bad'))");
    db.Execute("INSERT INTO t VALUES (1, 'a'), (2, 'b'), (3, 'c')");
    auto owned = Open("t");
    TKvPgDataSet& ds = *owned;
    ds.SetDeferWrites(true);
    std::vector<std::string> refused;
    ds.OnDeferredError = [&](int64_t tag, const std::exception& error) {
        refused.push_back(std::to_string(tag) + ": " + error.what());
    };
    const auto update = [&](int tag, int n, const char* s) {
        ASSERT_TRUE(ds.Locate("n", n, {}));
        ds.SetRowTag(tag);
        ds.Edit();
        ds.Fields(1).SetValue(s);
        ds.Post();
        EXPECT_EQ(ds.OldestDeferredTag(), tag);
    };
    db.StartTransaction();
    update(1, 1, "bad"); // refused: found by the next lookup, which still runs
    update(2, 2, "x");
    EXPECT_FALSE(ds.Locate("n", 99999, {})); // fails on the server, the write before it kept all the same
    EXPECT_EQ(ds.OldestDeferredTag(), std::nullopt);
    update(3, 3, "bad");
    ds.SetRowTag(4);
    Insert(ds, {4, "d"});
    EXPECT_EQ(ds.Fields(1).AsString(), "d"); // reading the row waits for its answer
    db.Commit();
    EXPECT_EQ(refused, (std::vector<std::string>{
                           "1: new row for relation \"t\" violates check constraint \"t_s_check\"",
                           "3: new row for relation \"t\" violates check constraint \"t_s_check\""}));
    EXPECT_EQ(Query("SELECT string_agg(n || s, ',' ORDER BY n) FROM t"), "1a,2x,3c,4d");
}

TEST_F(Pg, TheKeyMapAnswersLookupsAsTheServerDoes) {
    // Duplicates (the first by address is found), a Null key, texts COPY escapes, a key of two fields.
    db.Execute("CREATE TABLE t (id int, code text, name varchar(20), n smallint)");
    db.Execute(
        "INSERT INTO t VALUES (1, 'a', 'one', 1), (2, 'b', 'two', 2), (2, 'b2', 'dup', 3), "
        "(NULL, 'z', 'null', 4), (3, E'tab\\there', 'esc', 5), (4, E'back\\\\slash\\nline', 'esc2', 6), "
        "(5, 'é€', 'utf8', 7)");
    const std::vector<std::pair<std::string, std::vector<Variant>>> lookups = {
        {"id", {1, 2, 9, "2", Variant::Null(), 6}},
        {"code", {"tab\there", "back\\slash\nline", "é€", "E", 5, "a-again", "x"}},
        {"id;code", {Variant::FromArray({2, "b2"}), Variant::FromArray({2, "b3"})}},
        {"name", {"esc", "dup"}},
        {"n", {7, 70000, 8}},
    };
    // A dataset with a key map for each set of fields, and one that asks the server every time.
    std::vector<std::unique_ptr<TKvPgDataSet>> mapped;
    for (size_t i = 0; i < lookups.size(); ++i) {
        mapped.push_back(Open("t"));
        mapped.back()->SetKeyMapAfter(0);
    }
    auto plainOwned = Open("t");
    TKvPgDataSet& plain = *plainOwned;
    plain.SetKeyMapAfter(-1);
    const auto same = [&](const std::string& when) {
        for (size_t i = 0; i < lookups.size(); ++i) {
            const auto& [fields, keys] = lookups[i];
            for (size_t k = 0; k < keys.size(); ++k) {
                SCOPED_TRACE(when + ": by " + fields + ", key " + std::to_string(k + 1));
                const bool found = plain.Locate(fields, keys[k], {});
                ASSERT_EQ(mapped[i]->Locate(fields, keys[k], {}), found);
                if (found) {
                    EXPECT_EQ(mapped[i]->Fields(3).AsString(), plain.Fields(3).AsString());
                }
            }
        }
    };
    same("built");
    TKvPgDataSet& byId = *mapped[0];
    EXPECT_TRUE(byId.HasKeyMap({0}));
    EXPECT_TRUE(mapped[2]->HasKeyMap({0, 1}));

    // Rows written through the dataset mapped by id, inside a transaction that is then rolled back: its
    // map follows them, the others' maps are read again.
    db.StartTransaction();
    ASSERT_TRUE(byId.Locate("id", 2, {}));
    byId.Edit();
    byId.Fields(0).SetValue(9); // the first row of key 2 moves to key 9: the second is found now
    byId.Post();
    Insert(byId, {1, "a-again", "later", 8});
    Insert(byId, {6, "new", "new", 9});
    ASSERT_TRUE(byId.Locate("id", 3, {}));
    byId.Delete();
    same("written");
    EXPECT_TRUE(byId.HasKeyMap({0}));
    db.Rollback();
    same("rolled back");
    db.StartTransaction();
    byId.DeleteAll();
    same("emptied");
    Insert(byId, {2, "x", "x", 10});
    same("one row");
    db.Commit();
}

TEST_F(Pg, KeysOfACollationThatEqualsOtherBytesAreLookedUpByTheServer) {
    db.Execute("CREATE COLLATION nocase (provider = icu, locale = 'und-u-ks-level2', deterministic = false)");
    db.Execute("CREATE TABLE t (code text COLLATE nocase, n integer)");
    db.Execute("INSERT INTO t VALUES ('Abc', 1)");
    auto owned = Open("t");
    TKvPgDataSet& ds = *owned;
    ds.SetKeyMapAfter(0);
    ASSERT_TRUE(ds.Locate("code", "ABC", {}));
    EXPECT_EQ(ds.Fields(1).AsString(), "1");
    EXPECT_FALSE(ds.HasKeyMap({0}));
}

TEST_F(Pg, WritesByTheKeyMapGoOnUntilTheirAnswersAreRead) {
    // Every 97th update is refused: the rows around it stay, and each refused row is told by its own tag,
    // inside a pipeline of many writes.
    db.Execute("CREATE TABLE t (id int PRIMARY KEY, s text CHECK (s <> 'bad'))");
    db.Execute("INSERT INTO t SELECT g, 'old' FROM generate_series(1, 1000) g");
    auto owned = Open("t");
    TKvPgDataSet& ds = *owned;
    ds.SetKeyMapAfter(0);
    ds.SetDeferWrites(true);
    std::vector<int64_t> refused;
    ds.OnDeferredError = [&](int64_t tag, const std::exception&) { refused.push_back(tag); };
    db.StartTransaction();
    std::vector<int64_t> expected;
    for (int id = 1; id <= 1200; ++id) {
        ds.SetRowTag(id);
        if (ds.Locate("id", id, {})) {
            ds.Edit();
        } else {
            ds.Append();
            ds.Fields(0).SetValue(id);
        }
        const bool bad = id % 97 == 0;
        if (bad) expected.push_back(id);
        ds.Fields(1).SetValue(bad ? "bad" : "new");
        ds.Post();
    }
    EXPECT_TRUE(ds.HasKeyMap({0}));
    db.Commit();
    EXPECT_EQ(refused, expected);
    EXPECT_EQ(Query("SELECT count(*) FILTER (WHERE s = 'new'), count(*) FILTER (WHERE s = 'old'), count(*) "
                    "FROM t"),
              "1188|10|1198");
}

} // namespace
} // namespace kv
