#pragma once
// The throwaway PostgreSQL server of a test run: one cluster per test program, initialised into a
// temporary folder on first use and listening only on a Unix socket there, stopped and removed when the
// program ends, however it ends (a watchdog process outlives a crash and cleans up after it).

#include <string>

namespace kv::test {

class PgCluster {
public:
    /// Why the PostgreSQL tests cannot run ("" when the server's programs are installed).
    static const std::string& Missing();
    /// The cluster, started on first use; std::runtime_error with the server's log when it cannot start.
    static PgCluster& Get();

    /// A connection string to the cluster's "postgres" database as its superuser.
    std::string ConnectionString() const;
    /// A connection string whose session works in a fresh, empty schema of its own (first on its search
    /// path): what each test gets, so that tests share no tables.
    std::string FreshSchema();
    /// The folder of the server's programs (psql beside them).
    const std::string& BinDir() const { return binDir_; }
    /// The command that runs a program of BinDir as the cluster's owner ("" or "runuser -u postgres -- ").
    const std::string& AsOwner() const { return asOwner_; }

    /// Runs `sql` on the database `target` names and gives the rows of its last statement as "a|b" lines
    /// joined by "\n", Null as "null"; std::runtime_error with the server's message when it fails.
    static std::string Query(const std::string& target, const std::string& sql);

private:
    PgCluster();
    void Stop() noexcept;

    std::string binDir_, dir_, asOwner_;
    int watchdog_ = -1; // the pipe whose closing tells the watchdog to stop the server
    int watchdogPid_ = 0;
    int schemas_ = 0;
};

} // namespace kv::test
