#include "support/PgCluster.h"

#include <algorithm>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <libpq-fe.h>
#include <memory>
#include <pwd.h>
#include <sstream>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace kv::test {
namespace fs = std::filesystem;

namespace {

bool HasServerPrograms(const fs::path& dir) {
    std::error_code error;
    return fs::is_regular_file(dir / "initdb", error) && fs::is_regular_file(dir / "pg_ctl", error) &&
           fs::is_regular_file(dir / "psql", error);
}

// The folder holding initdb and pg_ctl: on PATH, else Debian's versioned folders, newest first.
std::string FindBinDir() {
    if (const char* path = std::getenv("PATH")) {
        std::stringstream dirs(path);
        for (std::string dir; std::getline(dirs, dir, ':');) {
            if (dir.empty() || !HasServerPrograms(dir)) continue;
            std::error_code error;
            // Debian links only some programs onto PATH: use the folder they come from.
            const fs::path real = fs::canonical(fs::path(dir) / "pg_ctl", error);
            return !error && HasServerPrograms(real.parent_path()) ? real.parent_path().string() : dir;
        }
    }
    std::vector<fs::path> versions;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator("/usr/lib/postgresql", error))
        if (HasServerPrograms(entry.path() / "bin")) versions.push_back(entry.path() / "bin");
    std::sort(versions.begin(), versions.end(), [](const fs::path& a, const fs::path& b) {
        return std::atoi(a.parent_path().filename().c_str()) > std::atoi(b.parent_path().filename().c_str());
    });
    return versions.empty() ? std::string() : versions.front().string();
}

std::string ReadLog(const std::string& file) {
    std::ifstream in(file);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

std::string Quoted(const std::string& text) {
    return "'" + text + "'"; // temporary folders and program folders hold no apostrophe
}

void RunOrThrow(const std::string& command, const std::string& what, const std::string& log) {
    if (std::system(command.c_str()) != 0)
        throw std::runtime_error("The test PostgreSQL cluster could not start: " + what + " failed:\n" +
                                 ReadLog(log));
}

} // namespace

const std::string& PgCluster::Missing() {
    static const std::string missing =
        FindBinDir().empty()
            ? "PostgreSQL tests skipped: initdb, pg_ctl and psql are neither on PATH nor under "
              "/usr/lib/postgresql/*/bin (scripts/setup.sh installs them)"
            : "";
    return missing;
}

PgCluster& PgCluster::Get() {
    static std::unique_ptr<PgCluster> cluster;
    if (!cluster) {
        cluster.reset(new PgCluster());
        std::atexit([] { cluster->Stop(); });
    }
    return *cluster;
}

PgCluster::PgCluster() : binDir_(FindBinDir()) {
    if (binDir_.empty()) throw std::runtime_error(Missing());
    std::string pattern = (fs::temp_directory_path() / "kvpg-XXXXXX").string();
    if (!mkdtemp(pattern.data())) throw std::runtime_error("Cannot make a folder for the test cluster");
    dir_ = pattern;
    // The server refuses to run as root: it then runs as the system's postgres user, owning the folder.
    if (geteuid() == 0) {
        const passwd* owner = getpwnam("postgres");
        if (!owner || chown(dir_.c_str(), owner->pw_uid, owner->pw_gid) != 0) {
            fs::remove_all(dir_);
            throw std::runtime_error(
                "The test PostgreSQL cluster runs as user postgres when the tests run as "
                "root, and there is no such user");
        }
        asOwner_ = "runuser -u postgres -- ";
    }
    const std::string data = dir_ + "/data", pgCtl = asOwner_ + Quoted(binDir_ + "/pg_ctl");

    // The watchdog waits for the end of the pipe, which comes when this process ends in any way, then
    // stops the server and removes the folder.
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error("Cannot make a pipe for the test cluster");
    const std::string script = "cat >/dev/null; " + pgCtl + " -D " + Quoted(data) +
                               " -m immediate -w stop >/dev/null 2>&1; rm -rf " + Quoted(dir_);
    const pid_t pid = fork();
    if (pid == 0) {
        setpgid(0, 0); // an interrupt of the test run leaves it to clean up
        dup2(fds[0], 0);
        execl("/bin/sh", "sh", "-c", script.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    close(fds[0]);
    if (pid < 0) {
        close(fds[1]);
        fs::remove_all(dir_);
        throw std::runtime_error("Cannot start the test cluster's watchdog");
    }
    watchdog_ = fds[1];
    watchdogPid_ = pid;

    const std::string initLog = dir_ + "/initdb.log", serverLog = dir_ + "/server.log";
    try {
        RunOrThrow(asOwner_ + Quoted(binDir_ + "/initdb") + " -D " + Quoted(data) +
                       " -U postgres -A trust -E UTF8 --locale=C.UTF-8 --no-sync >" + Quoted(initLog) +
                       " 2>&1",
                   "initdb", initLog);
        RunOrThrow(pgCtl + " -D " + Quoted(data) + " -l " + Quoted(serverLog) +
                       " -w -s -o \"-c listen_addresses='' " + "-c unix_socket_directories=" + Quoted(dir_) +
                       " -c fsync=off -c full_page_writes=off -c synchronous_commit=off\" start",
                   "pg_ctl start", serverLog);
    } catch (...) {
        Stop();
        throw;
    }
}

void PgCluster::Stop() noexcept {
    if (watchdog_ < 0) return;
    close(watchdog_);
    watchdog_ = -1;
    int status = 0;
    waitpid(watchdogPid_, &status, 0);
}

std::string PgCluster::ConnectionString() const {
    return "host=" + Quoted(dir_) + " port=5432 user=postgres dbname=postgres";
}

std::string PgCluster::FreshSchema() {
    const std::string schema = "test_" + std::to_string(++schemas_);
    PGconn* conn = PQconnectdb(ConnectionString().c_str());
    PGresult* result = PQexec(conn, ("CREATE SCHEMA " + schema).c_str());
    const bool made = PQresultStatus(result) == PGRES_COMMAND_OK;
    const std::string error = PQerrorMessage(conn);
    PQclear(result);
    PQfinish(conn);
    if (!made) throw std::runtime_error("Cannot make a schema in the test cluster: " + error);
    return ConnectionString() + " options='-c search_path=" + schema + "'";
}

std::string PgCluster::Query(const std::string& target, const std::string& sql) {
    PGconn* conn = PQconnectdb(target.c_str());
    PGresult* result = PQexec(conn, sql.c_str());
    const ExecStatusType status = PQresultStatus(result);
    std::string rows;
    for (int row = 0; row < PQntuples(result); ++row) {
        if (row) rows += "\n";
        for (int column = 0; column < PQnfields(result); ++column)
            rows += (column ? "|" : "") +
                    std::string(PQgetisnull(result, row, column) ? "null" : PQgetvalue(result, row, column));
    }
    const std::string error = PQerrorMessage(conn);
    PQclear(result);
    PQfinish(conn);
    if (status != PGRES_TUPLES_OK && status != PGRES_COMMAND_OK) throw std::runtime_error(error);
    return rows;
}

} // namespace kv::test
