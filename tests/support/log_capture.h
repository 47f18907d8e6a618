// Captures the library's log lines for the lifetime of the object.
#pragma once

#include "zrutil.h"

#include <string>
#include <vector>

namespace zrtest {

struct log_line {
    int priority;
    std::string file;
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
        for (const log_line &l : lines)
            if (l.message == text)
                return true;
        return false;
    }

  private:
    static void record(int priority, const char *file, const char *func, int line,
                       const char *message, void *user)
    {
        (void)line;
        static_cast<log_capture *>(user)->lines.push_back({priority, file, func, message});
    }
};

} // namespace zrtest
