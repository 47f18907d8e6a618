// Subscription order and subscriber programs.
#define ZRD_SOURCE "daemon/scripts"
#include "scripts.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <map>
#include <poll.h>
#include <set>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace zrd {

bool run_order(const std::vector<subscription> &subs, std::vector<const subscription *> &order)
{
    std::map<std::string, const subscription *> by_name;
    for (const subscription &s : subs)
        by_name[s.name] = &s;
    // edges[a] holds the names that must run after a.
    std::map<std::string, std::set<std::string>> edges;
    std::map<std::string, int> waiting;
    for (const subscription &s : subs)
        waiting[s.name];
    auto edge = [&](const std::string &first, const std::string &then) {
        if (by_name.count(first) && by_name.count(then) && edges[first].insert(then).second)
            waiting[then]++;
    };
    for (const subscription &s : subs) {
        for (const std::string &b : s.before)
            edge(s.name, b);
        for (const std::string &a : s.after)
            edge(a, s.name);
    }
    auto ready_order = [&](const std::string &a, const std::string &b) {
        int pa = by_name[a]->priority, pb = by_name[b]->priority;
        return pa != pb ? pa < pb : a < b;
    };
    std::set<std::string, decltype(ready_order)> ready(ready_order);
    for (const auto &[name, count] : waiting)
        if (count == 0)
            ready.insert(name);
    order.clear();
    while (!ready.empty()) {
        std::string next = *ready.begin();
        ready.erase(ready.begin());
        order.push_back(by_name[next]);
        for (const std::string &then : edges[next])
            if (--waiting[then] == 0)
                ready.insert(then);
    }
    return order.size() == subs.size();
}

bool concerns(const subscription &sub, const std::vector<std::string> &changed_paths)
{
    if (sub.paths.empty())
        return true;
    for (const std::string &changed : changed_paths)
        for (const std::string &watched : sub.paths) {
            if (changed.compare(0, watched.size(), watched) != 0)
                continue;
            if (watched.empty() || changed.size() == watched.size() ||
                changed[watched.size()] == '.' || changed[watched.size()] == '[')
                return true;
        }
    return false;
}

namespace {

using steady = std::chrono::steady_clock;

// Starts program with its standard input on the read end of a pipe, in a
// process group of its own, with default signal handling; -1 on failure.
pid_t start(const subscription &sub, int &input_fd)
{
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0)
        return -1;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[0], STDIN_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    sigset_t none, defaults;
    sigemptyset(&none);
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    sigaddset(&defaults, SIGTERM);
    sigaddset(&defaults, SIGINT);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setsigdefault(&attr, &defaults);
    posix_spawnattr_setpgroup(&attr, 0);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF |
                                        POSIX_SPAWN_SETPGROUP);
    std::vector<char *> argv{const_cast<char *>(sub.program.c_str())};
    for (const std::string &a : sub.args)
        argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    pid_t pid = -1;
    int rc = posix_spawn(&pid, sub.program.c_str(), &actions, &attr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attr);
    close(fds[0]);
    if (rc != 0) {
        ZRD_LOG(LOG_ERR, "subscription '%s': cannot run %s: %s", sub.name.c_str(),
                sub.program.c_str(), strerror(rc));
        close(fds[1]);
        return -1;
    }
    fcntl(fds[1], F_SETFL, O_NONBLOCK);
    input_fd = fds[1];
    return pid;
}

// Writes what the pipe takes of input from offset; closes it when all is
// written or the program stopped reading.
void feed(int &fd, const std::string &input, size_t &offset)
{
    while (fd >= 0 && offset < input.size()) {
        ssize_t n = write(fd, input.data() + offset, input.size() - offset);
        if (n > 0) {
            offset += static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && (errno == EAGAIN || errno == EINTR))
            return;
        break;
    }
    if (fd >= 0) {
        close(fd);
        fd = -1;
    }
}

} // namespace

json_t *run_script(const subscription &sub, const std::string &input, int timeout_s,
                   const std::function<void()> &tick)
{
    int fd = -1;
    pid_t pid = start(sub, fd);
    if (pid < 0)
        return message_json(msg::cfg_push_script_exec_failure, {"127"});
    auto deadline = steady::now() + std::chrono::seconds(timeout_s);
    auto next_tick = steady::now() + std::chrono::seconds(1);
    size_t offset = 0;
    int status = 0;
    for (;;) {
        feed(fd, input, offset);
        pid_t done = waitpid(pid, &status, WNOHANG);
        if (done == pid)
            break;
        auto now = steady::now();
        if (now >= deadline) {
            kill(-pid, SIGKILL);
            waitpid(pid, &status, 0);
            if (fd >= 0)
                close(fd);
            ZRD_LOG(LOG_WARNING, "subscription '%s' timed out after %d s", sub.name.c_str(),
                    timeout_s);
            return message_json(msg::cfg_push_script_exec_timeout);
        }
        if (now >= next_tick) {
            tick();
            next_tick = now + std::chrono::seconds(1);
        }
        struct pollfd p = {fd, POLLOUT, 0};
        poll(&p, fd >= 0 ? 1 : 0, 20);
    }
    if (fd >= 0)
        close(fd);
    int code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    if (code == 0)
        return message_json(msg::cfg_push_script_exec_success);
    ZRD_LOG(LOG_WARNING, "subscription '%s' exited with %d", sub.name.c_str(), code);
    return message_json(msg::cfg_push_script_exec_failure, {std::to_string(code)});
}

} // namespace zrd
