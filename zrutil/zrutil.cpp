// Utility stand-in: logging to syslog, standard error or a handler, and mkpath.
#include "zrutil.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <set>
#include <string>
#include <sys/stat.h>
#include <syslog.h>

namespace {

struct log_state {
    std::string ident = "zrutil";
    bool use_syslog = false;
    bool use_stderr = true;
    int max_priority = LOG_NOTICE; // of the default sinks
    zrlog_handler handler = nullptr;
    int handler_ceiling = LOG_DEBUG;
    void *user = nullptr;
};

log_state &state()
{
    static log_state s;
    return s;
}

// Guards the log state: contexts are created, and log, on several threads.
std::mutex &state_mutex()
{
    static std::mutex m;
    return m;
}

// The highest priority a sink takes now, kept beside the state so that a
// line nobody takes is turned away without the lock. Written under the
// lock whenever the state changes.
std::atomic<int> &taken_ceiling()
{
    static std::atomic<int> ceiling{log_state{}.max_priority};
    return ceiling;
}

void refresh_taken_ceiling(const log_state &s)
{
    taken_ceiling().store(s.handler != nullptr ? s.handler_ceiling : s.max_priority,
                          std::memory_order_relaxed);
}

// The default sinks print up to notice, or up to the caller's limit when it
// is lower; ZRLOG_LEVEL, when it holds a number from 0 to 7, is the limit
// instead.
int effective_max_priority(int requested)
{
    const char *env = getenv("ZRLOG_LEVEL");
    if (env == nullptr || env[0] < '0' || env[0] > '7' || env[1] != '\0')
        return requested < LOG_NOTICE ? requested : LOG_NOTICE;
    return env[0] - '0';
}

std::string format_message(const char *format, va_list args)
{
    va_list copy;
    va_copy(copy, args);
    int needed = vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    if (needed < 0)
        return std::string();
    std::string text(static_cast<size_t>(needed) + 1, '\0');
    vsnprintf(text.data(), text.size(), format, args);
    text.resize(static_cast<size_t>(needed));
    return text;
}

void write_default_sinks(const log_state &s, int priority, const char *file,
                         const char *func, int line, const std::string &message)
{
    if (s.use_syslog)
        syslog(priority, "%s:%s:%d: %s", file, func, line, message.c_str());
    if (s.use_stderr) {
        bool has_newline = !message.empty() && message.back() == '\n';
        fprintf(stderr, "%s: %s:%s:%d: %s%s", s.ident.c_str(), file, func, line,
                message.c_str(), has_newline ? "" : "\n");
    }
}

} // namespace

extern "C" void zrlog_init_raw(const char *ident, int use_syslog, int use_stderr,
                               int max_priority)
{
    std::lock_guard<std::mutex> guard(state_mutex());
    log_state &s = state();
    s.ident = ident != nullptr ? ident : "";
    s.use_syslog = use_syslog != 0;
    s.use_stderr = use_stderr != 0;
    s.max_priority = effective_max_priority(max_priority);
    refresh_taken_ceiling(s);
    // syslog keeps the ident's pointer: each ident lives as long as the
    // process, so a later one never frees what a logging thread still reads.
    static std::set<std::string> idents;
    if (s.use_syslog)
        openlog(idents.insert(s.ident).first->c_str(), LOG_PID, LOG_USER);
}

extern "C" void zrlog_log_prio_codepos(const char *file, const char *func, int line,
                                       int priority, const char *format, ...)
{
    if (priority > taken_ceiling().load(std::memory_order_relaxed))
        return;
    log_state s;
    {
        std::lock_guard<std::mutex> guard(state_mutex());
        const log_state &shared = state();
        int shared_ceiling = shared.handler != nullptr ? shared.handler_ceiling
                                                       : shared.max_priority;
        if (format == nullptr || priority > shared_ceiling)
            return;
        s = shared; // a line nobody prints is never formatted: it costs nothing
    }
    va_list args;
    va_start(args, format);
    std::string message = format_message(format, args);
    va_end(args);
    const char *f = file != nullptr ? file : "";
    const char *fn = func != nullptr ? func : "";
    if (s.handler != nullptr)
        s.handler(priority, f, fn, line, message.c_str(), s.user);
    else
        write_default_sinks(s, priority, f, fn, line, message);
}

extern "C" void zrlog_set_handler(zrlog_handler handler, void *user)
{
    std::lock_guard<std::mutex> guard(state_mutex());
    state().handler = handler;
    state().user = handler != nullptr ? user : nullptr;
    refresh_taken_ceiling(state());
}

extern "C" void zrlog_set_handler_ceiling(int max_priority)
{
    std::lock_guard<std::mutex> guard(state_mutex());
    state().handler_ceiling = max_priority;
    refresh_taken_ceiling(state());
}

extern "C" int mkpath(const char *path, mode_t mode)
{
    if (path == nullptr || path[0] == '\0')
        return -1;
    std::string partial;
    std::string whole(path);
    for (size_t pos = 0; pos != std::string::npos;) {
        size_t slash = whole.find('/', pos + 1);
        partial = whole.substr(0, slash);
        pos = slash;
        if (partial.empty() || partial == "/")
            continue;
        struct stat st;
        if (stat(partial.c_str(), &st) == 0) {
            if (!S_ISDIR(st.st_mode))
                return -1;
            continue;
        }
        if (mkdir(partial.c_str(), mode) != 0 && errno != EEXIST)
            return -1;
    }
    return 0;
}
