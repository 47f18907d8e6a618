/* zrutil.h: logging and directory helpers of the appliance utility library. */
#ifndef ZRUTIL_H
#define ZRUTIL_H

#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define ZRUTIL_API __attribute__((visibility("default")))
#define ZRUTIL_PRINTF(fmt, args) __attribute__((format(printf, fmt, args)))
#else
#define ZRUTIL_API
#define ZRUTIL_PRINTF(fmt, args)
#endif

/* Receives every log line, whatever its priority, with the formatted text. */
typedef void (*zrlog_handler)(int priority, const char *file, const char *func,
                              int line, const char *message, void *user);

/* Sets the ident and the default sinks (syslog, standard error) and the
 * highest priority they print: notice (5), or max_priority when lower.
 * ZRLOG_LEVEL (0..7), when set, is the limit instead. A line above the
 * limit in force is never formatted.
 * An installed handler stays in place. */
ZRUTIL_API void zrlog_init_raw(const char *ident, int use_syslog, int use_stderr,
                               int max_priority);

/* Formats one log line and hands it to the handler or the default sinks. */
ZRUTIL_API void zrlog_log_prio_codepos(const char *file, const char *func, int line,
                                       int priority, const char *format, ...)
    ZRUTIL_PRINTF(5, 6);

/* Installs a handler that replaces the default sinks; NULL restores them. */
ZRUTIL_API void zrlog_set_handler(zrlog_handler handler, void *user);

/* The highest priority an installed handler receives; 7 (every line) by
 * default. */
ZRUTIL_API void zrlog_set_handler_ceiling(int max_priority);

/* Creates every missing directory of path with mode: 0 on success. */
ZRUTIL_API int mkpath(const char *path, mode_t mode);

#ifdef __cplusplus
}
#endif

#endif /* ZRUTIL_H */
