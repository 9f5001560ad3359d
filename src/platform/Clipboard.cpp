#include "platform/Clipboard.h"

#include "platform/Exceptions.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace kv {

namespace {

// Runs a program (found on PATH) and gives its standard output; false when it cannot run or fails.
bool Capture(std::vector<const char*> argv, std::string& out) {
    int pipeFds[2];
    if (pipe2(pipeFds, O_CLOEXEC) != 0) return false;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    argv.push_back(nullptr);
    pid_t pid;
    const int rc =
        posix_spawnp(&pid, argv[0], &actions, nullptr, const_cast<char* const*>(argv.data()), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(pipeFds[1]);
    if (rc != 0) {
        close(pipeFds[0]);
        return false;
    }
    out.clear();
    char buffer[65536];
    for (;;) {
        const ssize_t n = read(pipeFds[0], buffer, sizeof buffer);
        if (n > 0) {
            out.append(buffer, static_cast<size_t>(n));
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else {
            break;
        }
    }
    close(pipeFds[0]);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

class SystemClipboard : public IKvClipboard {
public:
    std::string GetText() override {
        std::string text;
        if (std::getenv("WAYLAND_DISPLAY") && Capture({"wl-paste", "--no-newline", "--type", "text"}, text))
            return text;
        if (std::getenv("DISPLAY") && Capture({"xclip", "-selection", "clipboard", "-out"}, text))
            return text;
        throw Exception(
            "The clipboard cannot be read: no graphical session, or neither wl-paste nor xclip is "
            "installed.");
    }
};

IKvClipboard* current = nullptr;

} // namespace

IKvClipboard& Clipboard() {
    static SystemClipboard system;
    return current ? *current : system;
}

void SetClipboard(IKvClipboard* clipboard) {
    current = clipboard;
}

} // namespace kv
