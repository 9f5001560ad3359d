#include "TestSupport.h"

#include "datasets/KvMemDataSet.h"
#include "platform/DateUtils.h"

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <spawn.h>
#include <sqlite3.h>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace kv::test {

TempDir::TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "kvimport-test-XXXXXX").string();
    if (!mkdtemp(pattern.data())) throw std::runtime_error("cannot create a temporary directory");
    path_ = pattern;
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

void WriteFile(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::string ErrorOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const std::exception& e) {
        return e.what();
    }
    return "";
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

std::string MemRows(const TKvMemDataSet& table) {
    std::string out;
    for (int i = 0; i < table.RowCount(); ++i) {
        for (size_t c = 0; c < table.Row(i).size(); ++c) {
            const Variant& v = table.Row(i)[c];
            out += (c ? "|" : "") + (v.IsNull()               ? std::string("null")
                                     : v.VarType() == varDate ? DateToISO8601(v.AsDateTime())
                                                              : v.AsString());
        }
        out += "\n";
    }
    return out;
}

std::string SqliteQuery(const std::string& file, const std::string& sql) {
    sqlite3* db = nullptr;
    if (sqlite3_open(file.c_str(), &db) != SQLITE_OK) {
        sqlite3_close(db);
        return "error: cannot open";
    }
    std::string out;
    char* error = nullptr;
    auto callback = [](void* target, int columns, char** values, char**) {
        std::string& text = *static_cast<std::string*>(target);
        if (!text.empty()) text += '\n';
        for (int i = 0; i < columns; ++i)
            text += std::string(i ? "|" : "") + (values[i] ? values[i] : "null");
        return 0;
    };
    if (sqlite3_exec(db, sql.c_str(), callback, &out, &error) != SQLITE_OK) {
        out = std::string("error: ") + (error ? error : "");
        sqlite3_free(error);
    }
    sqlite3_close(db);
    return out;
}

CliResult RunCli(const std::vector<std::string>& args, const std::string& input) {
    TempDir dir;
    const std::string in = dir.File("stdin"), out = dir.File("stdout"), err = dir.File("stderr");
    WriteFile(in, input);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, in.c_str(), O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    std::vector<std::string> argStrings{KV_CLI_PATH};
    argStrings.insert(argStrings.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& a : argStrings) argv.push_back(a.data());
    argv.push_back(nullptr);
    std::vector<std::string> envStrings;
    for (char** e = environ; *e; ++e) {
        std::string v = *e;
        if (v.rfind("LC_", 0) != 0 && v.rfind("LANG=", 0) != 0) envStrings.push_back(v);
    }
    envStrings.push_back("LC_ALL=C");
    std::vector<char*> envp;
    for (std::string& e : envStrings) envp.push_back(e.data());
    envp.push_back(nullptr);
    pid_t pid;
    CliResult result;
    if (posix_spawn(&pid, KV_CLI_PATH, &actions, nullptr, argv.data(), envp.data()) == 0) {
        int status = 0;
        waitpid(pid, &status, 0);
        result.Status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    posix_spawn_file_actions_destroy(&actions);
    result.Out = ReadFile(out);
    result.Err = ReadFile(err);
    return result;
}

} // namespace kv::test
