// A real zrconfigd for end-to-end tests: started on a temporary socket and
// database with the example appliance, stopped (or killed) by the test, and
// always stopped when the object goes, also when a test fails.
#pragma once

#include "scripted_daemon.h"

#include <csignal>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace zrtest {

// Pointers to the strings and a null after them, as argument vectors take
// them; valid while strings is.
inline std::vector<char *> c_strings(std::vector<std::string> &strings)
{
    std::vector<char *> out;
    for (std::string &s : strings)
        out.push_back(s.data());
    out.push_back(nullptr);
    return out;
}

// Starts args (the program first) with its standard error going to err,
// appended, and its standard output to out, truncated, when out is given;
// the pid, or -1.
inline pid_t spawn(std::vector<std::string> args, const std::string &err,
                   const std::string &out = "")
{
    std::vector<char *> argv = c_strings(args);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (!out.empty())
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, out.c_str(),
                                         O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, err.c_str(),
                                     O_WRONLY | O_CREAT | O_APPEND, 0644);
    pid_t pid = -1;
    if (posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ) != 0)
        pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

// Waits for pid to end; its exit status, or -1.
inline int exit_status(pid_t pid)
{
    int status = 0;
    if (pid <= 0 || waitpid(pid, &status, 0) != pid)
        return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Waits at most seconds for pid to end, else stops it with SIGTERM first (a
// daemon that should have refused to start); its exit status, or -1.
inline int exit_status_within(pid_t pid, int seconds)
{
    int status = 0;
    for (int i = 0; pid > 0 && i < seconds * 40; i++) {
        pid_t done = waitpid(pid, &status, WNOHANG);
        if (done != 0)
            return done == pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        std::this_thread::sleep_for(std::chrono::milliseconds(25));
    }
    if (pid > 0)
        kill(pid, SIGTERM);
    return exit_status(pid);
}

inline std::string appliance_file(const char *name)
{
    return std::string(ZR_SOURCE_DIR) + "/examples/appliance/" + name;
}

class daemon_process {
  public:
    // Starts the daemon on a new database with the example appliance.
    explicit daemon_process(std::vector<std::string> extra = {})
    {
        extra.insert(extra.begin(), {"--schema", appliance_file("schema.json"), "--data",
                                     appliance_file("config.json")});
        start(extra);
    }
    // A daemon still running is stopped as an operator would, and must end
    // cleanly: under the sanitizers this is where its leaks are reported.
    ~daemon_process()
    {
        if (pid_ > 0) {
            EXPECT_EQ(stop(), 0) << log();
        }
    }
    daemon_process(const daemon_process &) = delete;
    daemon_process &operator=(const daemon_process &) = delete;

    const std::string &socket_path() const { return socket_; }
    const temp_dir &dir() const { return dir_; }
    // What the daemon wrote to standard error, every run appended.
    std::string log() const { return read_file(log_); }

    // Starts the daemon (again) on the same socket and database; true once
    // it accepts connections, false when it ends or never does.
    bool start(const std::vector<std::string> &extra = {})
    {
        std::vector<std::string> args{ZRCONFIGD_PATH, "--socket", socket_, "--db",
                                      dir_.file("config.db"), "--foreground"};
        args.insert(args.end(), extra.begin(), extra.end());
        pid_ = spawn(args, log_);
        for (int i = 0; pid_ > 0 && i < 1200; i++) {
            int fd = connect_raw();
            if (fd >= 0)
                return close(fd) == 0;
            if (waitpid(pid_, nullptr, WNOHANG) == pid_)
                pid_ = -1;
            std::this_thread::sleep_for(std::chrono::milliseconds(25));
        }
        return false;
    }

    // SIGTERM and wait; the daemon's exit status, or -1.
    int stop() { return end(SIGTERM); }
    // SIGKILL and wait, as a crash would leave things.
    void kill_now() { end(SIGKILL); }

    // A raw connection to the socket; -1 on failure.
    int connect_raw() const { return connect_unix(socket_); }

  private:
    int end(int sig)
    {
        if (pid_ <= 0)
            return -1;
        kill(pid_, sig);
        int status = exit_status(pid_);
        pid_ = -1;
        return status;
    }

    temp_dir dir_;
    std::string socket_ = dir_.file("zrconfigd.sock");
    std::string log_ = dir_.file("zrconfigd.log");
    pid_t pid_ = -1;
};

// The example appliance's time zone is checked against the zone database,
// so without tzdata the daemon refuses the example's data: tests that start
// it need tzdata and skip where the machine has none.
struct example_appliance_test : testing::Test {
    void SetUp() override
    {
        if (access("/usr/share/zoneinfo/Europe/Berlin", R_OK) != 0)
            GTEST_SKIP() << "no time zone database (tzdata) on this machine";
    }
};

// A library session with the daemon, disconnected when it goes.
struct client : session {
    explicit client(const daemon_process &d, const char *name = "test")
        : session(d.socket_path(), name)
    {
    }
};

} // namespace zrtest
