// kvimport import into PostgreSQL tables of the test run's cluster, as a user runs it: the same run gives
// the same counts and row errors as into SQLite.

#include "TestSupport.h"
#include "support/PgCluster.h"

#include <cstdlib>

namespace kv {
namespace {

using test::RunCli;
using test::SqliteQuery;

class PgImport : public test::CliFixture {
protected:
    void SetUp() override {
        if (!test::PgCluster::Missing().empty()) GTEST_SKIP() << test::PgCluster::Missing();
        pg = test::PgCluster::Get().FreshSchema();
    }
    std::string Query(const std::string& sql) { return test::PgCluster::Query(pg, sql); }
    /// A schema of that name and the test's own (schemas outlive a test; the cluster serves the run).
    std::string Schema(const std::string& name) {
        const std::string schema = name + " " + Query("SELECT current_schema()");
        Query("CREATE SCHEMA \"" + schema + "\"");
        return schema;
    }

    std::string pg;
};

TEST_F(PgImport, CreatesATypedTableInASchema) {
    const std::string shop = Schema("Shop");
    const std::string csv =
        Write("orders.csv", "id,amount,day,name,paid\r\n1,\"1,234.50\",2024-01-05,\"Doe, J\",true\r\n"
                            "2,7,2024-02-29,\"say \"\"hi\"\"\",false\r\n");
    test::CliResult r = RunCli({"import", csv, "--db", pg, "--table", shop + ".Order Lines"});
    EXPECT_EQ(r.Status, 0) << r.Err;
    EXPECT_NE(r.Out.find("Added: 2\n"), std::string::npos);
    EXPECT_EQ(Query("SELECT attname || ' ' || format_type(atttypid, atttypmod) FROM pg_attribute "
                    "WHERE attrelid = '\"" +
                    shop + "\".\"Order Lines\"'::regclass AND attnum > 0 ORDER BY attnum"),
              "id bigint\namount double precision\nday date\nname text\npaid boolean");
    EXPECT_EQ(Query("SELECT * FROM \"" + shop + "\".\"Order Lines\" ORDER BY id"),
              "1|1234.5|2024-01-05|Doe, J|t\n2|7|2024-02-29|say \"hi\"|f");
}

TEST_F(PgImport, KeysLookupsAndRowErrorsAsWithSQLite) {
    const std::string tables =
        "CREATE TABLE states(Code TEXT, Name TEXT); INSERT INTO states VALUES ('A','Active'),('B','Idle');"
        "CREATE TABLE people(ID INTEGER, NAME TEXT NOT NULL, STATE TEXT); INSERT INTO people VALUES "
        "(2,'old',NULL);";
    SqliteQuery(db, tables);
    Query(tables);
    const std::string csv =
        Write("people.csv", "ID,NAME,ACTIVE\n1,Ada,true\n2,Bob,false\n3,,true\n4,Di,false\n");
    test::CliResult results[2];
    for (int i = 0; i < 2; ++i) {
        results[i] =
            RunCli({"import",         csv,
                    "--db",           i ? pg : db,
                    "--table",        "people",
                    "--mode",         "appendupdate",
                    "--keys",         "ID",
                    "--map",          "ID=ID",
                    "--map",          "NAME=NAME",
                    "--map",          "STATE=LOOKUP('states', 'Code', IIF(ACTIVE, 'A', 'B'), '~Name~')",
                    "--lookup",       "states",
                    "--commit-count", "2"});
    }
    EXPECT_EQ(results[1].Status, results[0].Status);
    EXPECT_EQ(results[1].Out, results[0].Out);
    EXPECT_NE(results[0].Out.find("Added: 2\nUpdated: 1\n"), std::string::npos) << results[0].Out;
    for (const test::CliResult& r : results)
        EXPECT_TRUE(r.Err.starts_with("Row 4: ")) << r.Err; // the fourth line
    const std::string rows = "1|Ada|Active\n2|Bob|Idle\n4|Di|Idle";
    EXPECT_EQ(SqliteQuery(db, "SELECT * FROM people ORDER BY ID"), rows);
    EXPECT_EQ(Query("SELECT * FROM people ORDER BY ID"), rows);
}

TEST_F(PgImport, BatchedAppendsReportARefusedRowAsSQLiteDoes) {
    const std::string table = "CREATE TABLE t (n INTEGER NOT NULL, s TEXT)";
    SqliteQuery(db, table);
    Query(table);
    // A text over two lines before the bad row, so that its line is not its record; the batch goes to the
    // server at the commit after it, or at the end.
    const std::string csv =
        Write("t.csv", "n,s\n1,a\n2,\"two\nlines\"\n,c\n4,\"tab\there\"\n5,e\n6,f\n7,g\n,h\n");
    for (const char* commitCount : {"3", "100"}) {
        SCOPED_TRACE(commitCount);
        SqliteQuery(db, "DELETE FROM t");
        Query("DELETE FROM t");
        test::CliResult results[2];
        for (int i = 0; i < 2; ++i)
            results[i] =
                RunCli({"import", csv, "--db", i ? pg : db, "--table", "t", "--commit-count", commitCount});
        EXPECT_EQ(results[1].Status, results[0].Status);
        EXPECT_EQ(results[1].Out, results[0].Out);
        EXPECT_NE(results[0].Out.find("Added: 6\n"), std::string::npos) << results[0].Out;
        EXPECT_NE(results[0].Out.find("Errors: 2\n"), std::string::npos) << results[0].Out;
        // The same lines, the server's messages aside.
        const auto places = [](const std::string& err) {
            std::string lines;
            for (size_t at = 0; at < err.size();) {
                const size_t end = err.find('\n', at);
                lines += err.substr(at, err.find(": ", at) - at) + "\n";
                at = end == std::string::npos ? err.size() : end + 1;
            }
            return lines;
        };
        EXPECT_EQ(places(results[0].Err), "Row 5\nRow 10\n") << results[0].Err;
        EXPECT_EQ(places(results[1].Err), places(results[0].Err)) << results[1].Err;
        EXPECT_EQ(Query("SELECT string_agg(n || '=' || s, ',' ORDER BY n) FROM t"),
                  "1=a,2=two\nlines,4=tab\there,5=e,6=f,7=g");
    }
}

TEST_F(PgImport, TablesCopyToSQLiteAndBack) {
    const std::string source = Schema("Source");
    Query("CREATE TABLE \"" + source +
          "\".\"Items\" (id bigint PRIMARY KEY, name text, price numeric(8,2), "
          "day date, ok boolean, data bytea);"
          "INSERT INTO \"" +
          source +
          "\".\"Items\" SELECT n, 'item ''' || n, n * 1.25, DATE '2024-01-01' + n, "
          "n % 2 = 0, decode(lpad(to_hex(n), 4, '0'), 'hex') FROM generate_series(1, 5000) n");
    test::CliResult r = RunCli(
        {"import", pg, "--source-table", source + ".Items", "--db", db, "--table", "items", "--quiet"});
    ASSERT_EQ(r.Status, 0) << r.Err;
    EXPECT_EQ(SqliteQuery(db, "SELECT count(*), sum(price), min(day), max(name) FROM items"),
              "5000|15628125.0|2024-01-02|item '999");
    r = RunCli({"import", db, "--source-table", "items", "--db", pg, "--table", "back", "--quiet"});
    ASSERT_EQ(r.Status, 0) << r.Err;
    EXPECT_EQ(Query("SELECT count(*) FROM (SELECT id, name, price, day, ok, data FROM \"" + source +
                    "\".\"Items\" EXCEPT "
                    "SELECT id, name, price, day, ok, data FROM back) missing"),
              "0");
    EXPECT_EQ(Query("SELECT count(*) FROM back"), "5000");
    r = RunCli({"import", pg, "--db", db, "--table", "x"});
    EXPECT_EQ(r.Status, 2);
    EXPECT_NE(r.Err.find("a PostgreSQL source needs --source-table NAME"), std::string::npos) << r.Err;
}

TEST_F(PgImport, AScriptReplayedByPsqlGivesTheTableOfADirectImport) {
    const std::string csv =
        Write("orders.csv", "id,amount,day,name,paid\n1,1.5,2024-01-05,\"it's \\ \"\"x\"\"\",true\n"
                            "2,,2024-02-29,Zoë,false\n3,-7,,,\n");
    test::CliResult r = RunCli({"import", csv, "--db", pg, "--table", "direct", "--quiet"});
    ASSERT_EQ(r.Status, 0) << r.Err;
    const std::string script = dir.File("orders.sql");
    const std::string scripted = "\"" + Schema("Scripts") + "\".\"Scripted Orders\"";
    r = RunCli({"import", csv, "--db", pg, "--table", scripted, "--sql", script, "--quiet"});
    ASSERT_EQ(r.Status, 0) << r.Err;
    EXPECT_EQ(Query("SELECT to_regclass('" + scripted + "') IS NULL"), "t"); // the script only
    const test::PgCluster& cluster = test::PgCluster::Get();
    ASSERT_EQ(std::system(("'" + cluster.BinDir() + "/psql' -q -X -v ON_ERROR_STOP=1 \"" + pg + "\" -f '" +
                           script + "' >/dev/null")
                              .c_str()),
              0)
        << test::ReadFile(script);
    const std::string columns =
        "SELECT string_agg(attname || ' ' || format_type(atttypid, atttypmod), ', ' ORDER BY attnum) "
        "FROM pg_attribute WHERE attnum > 0 AND attrelid = ";
    EXPECT_EQ(Query(columns + "'" + scripted + "'::regclass"), Query(columns + "'direct'::regclass"));
    EXPECT_EQ(Query("SELECT count(*) FROM (SELECT * FROM direct EXCEPT SELECT * FROM " + scripted + ") d"),
              "0");
    EXPECT_EQ(Query("SELECT count(*) FROM (SELECT * FROM " + scripted +
                    " EXCEPT SELECT * FROM "
                    "direct) d"),
              "0");
    EXPECT_EQ(Query("SELECT name FROM " + scripted + " WHERE id = 1"), "it's \\ \"x\"");
}

TEST_F(PgImport, AServerThatGoesAwayMidRunKeepsTheCommittedRows) {
    // The server ends the session when row 5 arrives.
    Query("CREATE TABLE t (n bigint);"
          "CREATE FUNCTION end_session() RETURNS trigger LANGUAGE plpgsql AS $$ BEGIN "
          "IF NEW.n = 5 THEN PERFORM pg_terminate_backend(pg_backend_pid()); END IF; RETURN NEW; END $$;"
          "CREATE TRIGGER end_session BEFORE INSERT ON t FOR EACH ROW EXECUTE FUNCTION end_session()");
    const std::string csv = Write("n.csv", "n\n1\n2\n3\n4\n5\n6\n7\n");
    test::CliResult r = RunCli({"import", csv, "--db", pg, "--table", "t", "--commit-count", "2"});
    EXPECT_EQ(r.Status, 1);
    EXPECT_NE(r.Err.find("Lost the connection to the PostgreSQL server"), std::string::npos) << r.Err;
    EXPECT_NE(r.Err.find("4 rows written before"), std::string::npos) << r.Err;
    EXPECT_EQ(Query("SELECT string_agg(n::text, ',' ORDER BY n) FROM t"), "1,2,3,4");
}

} // namespace
} // namespace kv
