// Captures the library's log lines for the lifetime of the object.
#pragma once

#include "zrutil.h"

#include <algorithm>
#include <string>
#include <vector>

namespace zrtest {

struct log_line {
    int priority;
    std::string func;
    std::string message;
};

class log_capture {
  public:
    log_capture() { zrlog_set_handler(&log_capture::record, this); }
    ~log_capture() { zrlog_set_handler(nullptr, nullptr); }
    log_capture(const log_capture &) = delete;
    log_capture &operator=(const log_capture &) = delete;

    std::vector<log_line> lines;

    // True when some line's message equals text exactly.
    bool has(const std::string &text) const
    {
        return std::any_of(lines.begin(), lines.end(),
                           [&](const log_line &l) { return l.message == text; });
    }

  private:
    static void record(int priority, const char *, const char *func, int, const char *message,
                       void *user)
    {
        static_cast<log_capture *>(user)->lines.push_back({priority, func, message});
    }
};

} // namespace zrtest
