// zrconfigd: the configuration daemon. Parses the command line, opens or
// creates the store, loads the model, and serves until SIGTERM or SIGINT.
#define ZRD_SOURCE "daemon/main"
#include "plain_data.h"
#include "server.h"

#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace zrd;

namespace {

const char usage[] =
    "usage: zrconfigd --socket PATH --db PATH [--schema FILE] [--data FILE]\n"
    "                 [--group NAME] [--script-timeout S] [--max-frame BYTES] [--foreground]\n";

bool parse_number(const char *text, unsigned long long low, unsigned long long high,
                  unsigned long long &out)
{
    char *end = nullptr;
    errno = 0;
    out = strtoull(text, &end, 10);
    return errno == 0 && end != text && *end == '\0' && out >= low && out <= high;
}

// Fills opts from argv; false (with the reason printed) on a usage error.
bool parse_options(int argc, char **argv, options &opts)
{
    for (int i = 1; i < argc; i++) {
        std::string arg = argv[i];
        if (arg == "--foreground") {
            opts.foreground = true;
            continue;
        }
        if (arg == "--help" || arg == "-h") {
            fputs(usage, stdout);
            exit(0);
        }
        if (i + 1 >= argc) {
            fprintf(stderr, "zrconfigd: %s needs a value\n%s", arg.c_str(), usage);
            return false;
        }
        const char *value = argv[++i];
        unsigned long long number = 0;
        if (arg == "--socket")
            opts.socket_path = value;
        else if (arg == "--db")
            opts.db_path = value;
        else if (arg == "--schema")
            opts.schema_file = value;
        else if (arg == "--data")
            opts.data_file = value;
        else if (arg == "--group")
            opts.group = value;
        else if (arg == "--script-timeout" && parse_number(value, 1, 86400, number))
            opts.script_timeout = static_cast<int>(number);
        else if (arg == "--max-frame" && parse_number(value, 16, 1ull << 31, number))
            opts.max_frame = static_cast<size_t>(number);
        else {
            fprintf(stderr, "zrconfigd: bad option %s %s\n%s", arg.c_str(), value, usage);
            return false;
        }
    }
    if (opts.socket_path.empty() || opts.db_path.empty()) {
        fprintf(stderr, "zrconfigd: --socket and --db are required\n%s", usage);
        return false;
    }
    return true;
}

// Loads the model from the store, or creates both from the files on a new
// database. Prints why and returns false when the daemon cannot start.
bool load_model(const options &opts, store &db, model &m)
{
    std::string report;
    if (!db.is_new()) {
        if (!opts.schema_file.empty() || !opts.data_file.empty())
            ZRD_LOG(LOG_NOTICE, "%s holds a configuration; --schema and --data are ignored",
                    opts.db_path.c_str());
        if (!m.load(report)) {
            fprintf(stderr, "zrconfigd: cannot load %s\n%s", opts.db_path.c_str(), report.c_str());
            return false;
        }
        return true;
    }
    if (opts.schema_file.empty()) {
        fprintf(stderr, "zrconfigd: %s is a new database: --schema is required\n",
                opts.db_path.c_str());
        return false;
    }
    std::string error;
    json_ptr schema(zrplain::read_json_file(opts.schema_file, error));
    json_ptr data(opts.data_file.empty() ? nullptr
                                         : zrplain::read_json_file(opts.data_file, error));
    if (!schema || (!opts.data_file.empty() && !data)) {
        fprintf(stderr, "zrconfigd: %s\n", error.c_str());
        return false;
    }
    if (!m.create(schema.get(), data.get(), report)) {
        fprintf(stderr, "zrconfigd: the initial configuration is refused:\n%s", report.c_str());
        return false;
    }
    return true;
}

// Detaches into the background once ready: the parent waits for a byte on
// a pipe (ready) or for the child's end (it could not start) and exits with
// the matching status. Returns the pipe's write end in the child.
int daemonize()
{
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0)
        return -1;
    pid_t pid = fork();
    if (pid < 0)
        return -1;
    if (pid > 0) {
        close(fds[1]);
        char byte;
        if (read(fds[0], &byte, 1) == 1)
            _exit(0);
        int status = 0;
        waitpid(pid, &status, 0);
        _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 1);
    }
    close(fds[0]);
    setsid();
    return fds[1];
}

void announce_ready(int ready_fd)
{
    if (ready_fd < 0)
        return;
    int null_fd = open("/dev/null", O_RDWR);
    dup2(null_fd, STDIN_FILENO);
    dup2(null_fd, STDOUT_FILENO);
    dup2(null_fd, STDERR_FILENO);
    close(null_fd);
    set_logging(true, false);
    if (write(ready_fd, "1", 1) != 1)
        ZRD_LOG(LOG_WARNING, "could not tell the parent that the daemon is ready");
    close(ready_fd);
}

} // namespace

int main(int argc, char **argv)
{
    options opts;
    if (!parse_options(argc, argv, opts))
        return 2;
    set_logging(!opts.foreground, true);
    signal(SIGPIPE, SIG_IGN);
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGTERM);
    sigaddset(&stop_signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
    int ready_fd = opts.foreground ? -1 : daemonize();
    int stop_fd = signalfd(-1, &stop_signals, SFD_CLOEXEC);

    std::string error;
    std::unique_ptr<store> db = store::open(opts.db_path, error);
    if (!db) {
        fprintf(stderr, "zrconfigd: %s\n", error.c_str());
        return 1;
    }
    int status = 1;
    {
        model m(*db);
        server srv(opts, m, *db);
        if (load_model(opts, *db, m)) {
            if (srv.listen(error)) {
                ZRD_LOG(LOG_NOTICE, "serving %zu elements on %s", m.size(),
                        opts.socket_path.c_str());
                announce_ready(ready_fd);
                srv.run(stop_fd);
                ZRD_LOG(LOG_NOTICE, "stopping");
                status = 0;
            } else
                fprintf(stderr, "zrconfigd: %s\n", error.c_str());
        }
    }
    db.reset();
    close(stop_fd);
    return status;
}
