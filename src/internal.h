// Private helpers shared by the library's sources: logging, always-on
// assertions, and owning handles for Jansson values and malloc'd text.
#ifndef ZRCONFIG_INTERNAL_H
#define ZRCONFIG_INTERNAL_H

// uthash keeps its fatal handler: a hash table that cannot grow ends the
// process with exit status -1, and callers of the uuid index, the trigger
// tables and the rename table rely on every insertion taking. A source may
// opt into non-fatal handling before including this file (json.cpp does for
// message arguments); zr::hash_added then tells whether an item went in.
#include "zrconfig.h"
#include "zrutil.h"

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <syslog.h>

// Each source defines ZR_SOURCE ("src/data", ...) before including this file.
#define ZR_LOG(priority, ...) \
    zrlog_log_prio_codepos(ZR_SOURCE, __func__, __LINE__, (priority), __VA_ARGS__)

namespace zr {

[[noreturn]] inline void assertion_failed(const char *source, const char *func,
                                          const char *text)
{
    fprintf(stderr, "%s: %s: Assertion `%s' failed.\n", source, func, text);
    fflush(stderr);
    abort();
}

} // namespace zr

// Always on, whatever NDEBUG says. The message quotes text, the expression
// as the library has always reported it, which need not be how condition is
// spelt here.
#define ZR_ASSERT(condition, text) \
    ((condition) ? (void)0 : zr::assertion_failed(ZR_SOURCE, __func__, (text)))

namespace zr {

struct json_decref_deleter {
    void operator()(json_t *value) const { json_decref(value); }
};
// Owns one reference to a Jansson value.
using json_ptr = std::unique_ptr<json_t, json_decref_deleter>;

struct free_deleter {
    void operator()(void *p) const { free(p); }
};
// Owns text (or any block) that came from malloc or strdup.
using cstr_ptr = std::unique_ptr<char, free_deleter>;

// True when item went into its table; false only under non-fatal handling,
// when the table could not be made for it, and the caller still owns it.
template <typename T> bool hash_added(const T *item)
{
    return item->hh.tbl != nullptr;
}

// A key as a uthash table hashes it: hashed once for a lookup and the
// insertion that may follow it.
struct hashed_key {
    hashed_key(const char *text, size_t length) : text(text), length(length)
    {
        HASH_VALUE(text, length, hash);
    }
    const char *text;
    size_t length;
    unsigned hash = 0;
};

// Doubles a table's buckets once it holds more items than buckets. uthash
// doubles only when some chain grows long, and settles near two items a
// bucket; in a large table every item a lookup passes is a cache miss, and
// a lookup for a key not held passes its whole chain.
template <typename T> void keep_sparse(T *table)
{
    UT_hash_table *tbl = table->hh.tbl;
    if (tbl->num_items <= tbl->num_buckets || tbl->noexpand)
        return;
    unsigned oomed = 0;
    HASH_EXPAND_BUCKETS(hh, tbl, oomed);
    (void)oomed;
}

// Allocates one zero-filled T with calloc, as the C side expects.
template <typename T> T *zalloc()
{
    return static_cast<T *>(calloc(1, sizeof(T)));
}

// Empties a uthash table, handing each record to release.
template <typename R, typename Release> void clear_table(R *&table, Release release)
{
    R *record, *tmp;
    HASH_ITER(hh, table, record, tmp)
    {
        HASH_DEL(table, record);
        release(record);
    }
    table = nullptr;
}

} // namespace zr

#endif // ZRCONFIG_INTERNAL_H
