// The configuration context and the lowest layer under everything else:
// creating a context and a schema, the uuid map of a pushed tree, lookups by
// id through the context's hooks (with the daemon's renames, and which hooks
// are the library's own), the schema root, uuids (making, comparing,
// copying), element flag queries, a JSON list of strings, and the wire
// framing of JSON frames.
#define ZR_SOURCE "src/common"
#include "internal.h"
#include "common.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <new>
#include <ossp/uuid.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <fcntl.h>
#include <unistd.h>

using zr::zalloc;

extern "C" cfg_schema *cfg_create_new_schema(void)
{
    return zalloc<cfg_schema>();
}

extern "C" cfg *cfg_create_new_config(cfg_schema *schema)
{
    zrlog_init_raw("libzrconfig", 1, 1, 6);
    cfg *context = zalloc<cfg>();
    if (context == nullptr)
        return nullptr;
    context->messages = nullptr;
    context->messages_count = 0;
    context->schema = schema != nullptr ? schema : cfg_create_new_schema();
    if (context->schema == nullptr) {
        free(context);
        return nullptr;
    }
    return context;
}

extern "C" void free_uuid_map(cfg_uuid_item *head)
{
    cfg_uuid_item *second = head;
    cfg_uuid_item *item, *tmp;
    HASH_ITER(hh, head, item, tmp)
    {
        HASH_DEL(head, item);
        cfg_uuid_item *twin = nullptr;
        HASH_FIND(hh2, second, item->key, strlen(item->key), twin);
        if (twin != nullptr)
            HASH_DELETE(hh2, second, twin);
        free(item);
    }
}

extern "C" struct cfg_schema_element *cfg_schema_root(cfg *context)
{
    if (context == nullptr || context->schema == nullptr)
        return nullptr;
    return context->schema->root;
}

extern "C" cfg_element *cfg_get_by_id(cfg *context, const char *uuid)
{
    if (context == nullptr)
        return nullptr;
    if (context->get_by_id == nullptr) {
        cfg_message_add_unexpected(context, "src/common", 422);
        return nullptr;
    }
    return context->get_by_id(context, uuid);
}

// The variadic tail is handed on as the hook receives it: the hook installed
// by the client connection takes the count of ids as its one further argument.
extern "C" cfg_element **cfg_get_by_ids(cfg *context, char **uuids, ...)
{
    if (context == nullptr)
        return nullptr;
    if (context->get_by_ids == nullptr) {
        cfg_message_add_unexpected(context, "src/common", 435);
        return nullptr;
    }
    va_list args;
    va_start(args, uuids);
    int count = va_arg(args, int);
    va_end(args);
    return context->get_by_ids(context, uuids, count);
}

extern "C" cfg_element *cfg_find_by_id(cfg *context, const char *uuid)
{
    if (context == nullptr || uuid == nullptr || context->elements == nullptr)
        return nullptr;
    cfg_index_entry *entry = nullptr;
    HASH_FIND(hh, context->elements, uuid, strlen(uuid), entry);
    return entry != nullptr ? entry->element : nullptr;
}

// The returned text lives as long as id or the map entry.
const char *zr::mapped_id(cfg *ctx, const char *id)
{
    auto *client = ctx != nullptr ? static_cast<cfg_client *>(ctx->client_data) : nullptr;
    if (client == nullptr || client->uuid_map == nullptr || id == nullptr)
        return id;
    cfg_uuid_map_entry *entry = nullptr;
    HASH_FIND(hh, client->uuid_map, id, strlen(id), entry);
    return entry != nullptr ? entry->new_ : id;
}

bool zr::looks_up_locally(const cfg *context)
{
    return context->get_by_id == cfg_find_by_id || context->get_by_id == client_cfg_get_by_id;
}

namespace {

// Finds up to batch ids in the uuid index. The buckets of all are fetched,
// then their first entries, then the records those name, before any key is
// compared: each lookup misses the cache two or three times at this size,
// and the misses of one batch now run side by side.
constexpr size_t lookup_batch = 16;

void find_batch(cfg_index_entry *index, const char *const *ids, size_t count, cfg_element **out)
{
    UT_hash_table *table = index->hh.tbl;
    unsigned hashes[lookup_batch];
    size_t lengths[lookup_batch];
    UT_hash_bucket *buckets[lookup_batch];
    UT_hash_handle *firsts[lookup_batch];
    for (size_t i = 0; i < count; i++) {
        if (ids[i] == nullptr)
            continue;
        lengths[i] = strlen(ids[i]);
        HASH_VALUE(ids[i], lengths[i], hashes[i]);
        buckets[i] = &table->buckets[hashes[i] & (table->num_buckets - 1U)];
        __builtin_prefetch(buckets[i]);
    }
    for (size_t i = 0; i < count; i++)
        if (ids[i] != nullptr && (firsts[i] = buckets[i]->hh_head) != nullptr)
            __builtin_prefetch(firsts[i]);
    for (size_t i = 0; i < count; i++)
        if (ids[i] != nullptr && firsts[i] != nullptr && firsts[i]->hashv == hashes[i]) {
            __builtin_prefetch(firsts[i]->key);
            auto *entry = static_cast<cfg_index_entry *>(ELMT_FROM_HH(table, firsts[i]));
            __builtin_prefetch(&entry->element->type);
        }
    for (size_t i = 0; i < count; i++) {
        cfg_index_entry *entry = nullptr;
        if (ids[i] != nullptr)
            HASH_FIND_BYHASHVALUE(hh, index, ids[i], lengths[i], hashes[i], entry);
        out[i] = entry != nullptr ? entry->element : nullptr;
    }
}

} // namespace

void zr::local_answers(cfg *context, const char *const *uuids, size_t count, cfg_element **out)
{
    const bool mapped = context->get_by_id == client_cfg_get_by_id;
    if (!looks_up_locally(context) || context->elements == nullptr) {
        std::fill(out, out + count, nullptr);
        return;
    }
    const char *ids[lookup_batch];
    for (size_t base = 0; base < count; base += lookup_batch) {
        size_t n = std::min(lookup_batch, count - base);
        for (size_t i = 0; i < n; i++)
            ids[i] = mapped ? mapped_id(context, uuids[base + i]) : uuids[base + i];
        find_batch(context->elements, ids, n, out + base);
    }
}

void zr::merge_freed_blocks()
{
    // Above glibc's small-bin range (1 KiB) and its per-thread cache
    // (1032 bytes), so the request reaches the merging path. Scratch memory,
    // as the C++ containers' is; volatile keeps the compiler from dropping
    // the pair. Running out of memory here changes nothing.
    constexpr size_t large_request = 1100;
    void *volatile block = ::operator new(large_request, std::nothrow);
    ::operator delete(block);
}

cfg_element *zr::local_answer(cfg *context, const char *uuid)
{
    cfg_element *found = nullptr;
    local_answers(context, &uuid, 1, &found);
    return found;
}

extern "C" cfg_element *cfg_root(cfg *context)
{
    if (context == nullptr)
        return nullptr;
    return cfg_get_by_id(context, zr::root_uuid);
}

extern "C" json_t *strings_to_list(char **strings)
{
    json_t *list = json_array();
    for (size_t i = 0; strings != nullptr && strings[i] != nullptr; i++)
        json_array_append_new(list, json_string(strings[i]));
    return list;
}

extern "C" unsigned int cfg_element_is_new(cfg_element *element)
{
    return element->flags & CFG_FLAG_NEW;
}

extern "C" unsigned int cfg_element_is_changed(cfg_element *element)
{
    return element->flags & CFG_FLAG_CHANGED;
}

extern "C" unsigned int cfg_element_is_deleted(cfg_element *element)
{
    return element->flags & CFG_FLAG_DELETED;
}

namespace {

// One generator per thread: making a generator probes the network
// interfaces and seeds it, which costs far more than making an id.
struct uuid_generator {
    uuid_t *uuid = nullptr;
    uuid_generator() { uuid_create(&uuid); }
    ~uuid_generator()
    {
        if (uuid != nullptr)
            uuid_destroy(uuid);
    }
    uuid_generator(const uuid_generator &) = delete;
    uuid_generator &operator=(const uuid_generator &) = delete;
};

// Writes the standard text form of 16 uuid bytes and its terminator:
// lower-case hex in groups of 8-4-4-4-12, as the uuid library's string
// export writes it, without that export's per-digit arithmetic.
void format_uuid_text(const unsigned char (&bytes)[UUID_LEN_BIN], char *out)
{
    static const char digits[] = "0123456789abcdef";
    for (size_t i = 0; i < UUID_LEN_BIN; i++) {
        if (i == 4 || i == 6 || i == 8 || i == 10)
            *out++ = '-';
        *out++ = digits[bytes[i] >> 4];
        *out++ = digits[bytes[i] & 0x0f];
    }
    *out = '\0';
}

} // namespace

// Makes a version-1 uuid and overwrites its first and last digits with braces.
extern "C" int gen_uuid(char *out)
{
    thread_local uuid_generator generator;
    unsigned char bytes[UUID_LEN_BIN];
    void *buffer = bytes;
    size_t bytes_len = sizeof bytes;
    if (generator.uuid == nullptr || uuid_make(generator.uuid, UUID_MAKE_V1) != UUID_RC_OK ||
        uuid_export(generator.uuid, UUID_FMT_BIN, &buffer, &bytes_len) != UUID_RC_OK) {
        out[0] = '\0';
        return 0;
    }
    format_uuid_text(bytes, out);
    out[0] = '{';
    out[UUID_LEN_STR - 1] = '}';
    return UUID_LEN_STR;
}

extern "C" int uuidcmp(const char *a, const char *b)
{
    return strncmp(a, b, CFG_UUID_SIZE);
}

// Like strncpy: a source of 256 or more characters leaves dst unterminated.
extern "C" char *uuidcpy(char *dst, const char *src)
{
    return strncpy(dst, src, CFG_UUID_SIZE);
}

// ------------------------------------------------------------------------
// Framing
// ------------------------------------------------------------------------

namespace {

constexpr size_t frame_prefix_size = 4;
constexpr int default_receive_timeout_ms = 10000;

// Writes the frame, retrying after signals. Every write starts again at the
// beginning of the frame: a local stream socket does not split a write.
bool write_frame(int socket, const char *frame, size_t total)
{
    size_t written = 0;
    while (written < total) {
        ssize_t n = write(socket, frame, total - written);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            fprintf(stderr, "cfg_send failed to write to socket error %s.\n", strerror(errno));
            return false;
        }
        written += static_cast<size_t>(n);
    }
    return true;
}

// The receive time-out of the library's rule: the microseconds are the
// millisecond remainder divided by ten (1500 ms gives 1 s and 50 us); a
// zero value waits without limit.
struct timeval receive_timeout(int timeout_ms)
{
    struct timeval timeout = {0, 0};
    if (timeout_ms > 0) {
        timeout.tv_sec = timeout_ms / 1000;
        timeout.tv_usec = (timeout_ms % 1000) / 10;
    }
    return timeout;
}

bool set_receive_timeout(int socket, const struct timeval &timeout)
{
    if (setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout) != 0) {
        fprintf(stderr, "cfg_receive sockopt failed: %s\n", strerror(errno));
        return false;
    }
    return true;
}

// The time-out of a call covers its whole frame: a peer that trickles bytes
// cannot restart it with every read. Without a time-out it never expires.
struct frame_deadline {
    bool limited = false;
    struct timespec at = {0, 0};

    explicit frame_deadline(const struct timeval &timeout)
    {
        if (timeout.tv_sec == 0 && timeout.tv_usec == 0)
            return;
        limited = true;
        clock_gettime(CLOCK_MONOTONIC, &at);
        at.tv_sec += timeout.tv_sec;
        at.tv_nsec += timeout.tv_usec * 1000;
        if (at.tv_nsec >= 1000000000) {
            at.tv_sec++;
            at.tv_nsec -= 1000000000;
        }
    }

    // Waits until the socket has bytes or the frame's time is up; false
    // (errno EAGAIN) when it is up and nothing more has come. Bytes already
    // there are always taken.
    bool wait_readable(int socket) const
    {
        for (;;) {
            struct timespec now;
            clock_gettime(CLOCK_MONOTONIC, &now);
            long long left_ms = (at.tv_sec - now.tv_sec) * 1000LL +
                                (at.tv_nsec - now.tv_nsec + 999999) / 1000000;
            left_ms = std::clamp(left_ms, 0LL, 1000000LL);
            struct pollfd waiting = {socket, POLLIN, 0};
            int ready = poll(&waiting, 1, static_cast<int>(left_ms));
            if (ready > 0)
                return true;
            if (ready < 0 && errno != EINTR)
                return false;
            if (ready == 0 && left_ms == 0) {
                errno = EAGAIN;
                return false;
            }
        }
    }
};

enum class read_status { ok, failed, closed };

// Fills size bytes of buffer from the socket before the deadline, retrying
// after signals. A short read is continued at the byte offset received so
// far, never at a scaled index past the end of a 4-byte prefix.
read_status read_exactly(int socket, char *buffer, size_t size, const frame_deadline &deadline)
{
    size_t received = 0;
    // Under a deadline each read takes what has come, so that a trickle
    // cannot hold one read open past it.
    int flags = deadline.limited ? MSG_DONTWAIT : MSG_WAITALL;
    while (received < size) {
        if (deadline.limited && !deadline.wait_readable(socket))
            return read_status::failed;
        ssize_t n = recv(socket, buffer + received, size - received, flags);
        if (n < 0 && (errno == EINTR || (deadline.limited && errno == EAGAIN)))
            continue;
        if (n < 0)
            return read_status::failed;
        if (n == 0)
            return read_status::closed;
        received += static_cast<size_t>(n);
    }
    return read_status::ok;
}

// Reads size bytes of one part of a frame ("len" or "data"); false after
// printing why it failed.
bool read_part(int socket, char *buffer, size_t size, const char *part,
               const frame_deadline &deadline)
{
    switch (read_exactly(socket, buffer, size, deadline)) {
    case read_status::failed:
        fprintf(stderr, "cfg_receive read %s failed: %s\n", part, strerror(errno));
        return false;
    case read_status::closed:
        fprintf(stderr, "cfg_receive read %s unexpected peer close\n", part);
        return false;
    case read_status::ok:
        break;
    }
    return true;
}

bool read_length(int socket, uint32_t *length, const frame_deadline &deadline)
{
    uint32_t network_order;
    if (!read_part(socket, reinterpret_cast<char *>(&network_order), frame_prefix_size, "len",
                   deadline))
        return false;
    *length = ntohl(network_order);
    return true;
}

// The payload buffer grows with what arrives: it is at most one chunk or
// twice the bytes received, whichever is more, so an announced length costs
// nothing until its bytes come.
constexpr size_t payload_chunk = 64 * 1024;

bool grow_payload(zr::cstr_ptr &buffer, size_t size)
{
    auto *grown = static_cast<char *>(realloc(buffer.get(), size));
    if (grown == nullptr) {
        fprintf(stderr, "cfg_receive response buffer allocate failed: %s\n", strerror(errno));
        return false;
    }
    buffer.release();
    buffer.reset(grown);
    return true;
}

// Reads a payload of length bytes into a new NUL-terminated buffer, or
// returns null after printing why it failed.
zr::cstr_ptr read_payload(int socket, uint32_t length, const frame_deadline &deadline)
{
    // A length of 0xFFFFFFFF would wrap the 32-bit buffer size to 0: refuse
    // it as an allocation that cannot be made.
    if (length == UINT32_MAX) {
        fprintf(stderr, "cfg_receive response buffer allocate failed: %s\n", strerror(ENOMEM));
        return nullptr;
    }
    zr::cstr_ptr buffer;
    size_t received = 0;
    while (received < length) {
        size_t part = std::min<size_t>(length - received, std::max(received, payload_chunk));
        if (!grow_payload(buffer, received + part + 1) ||
            !read_part(socket, buffer.get() + received, part, "data", deadline))
            return nullptr;
        received += part;
    }
    buffer.get()[length] = '\0';
    return buffer;
}

} // namespace

// Sends one frame; the caller keeps its reference to value.
extern "C" int cfg_send(int socket, json_t *value)
{
    signal(SIGPIPE, SIG_IGN);
    zr::cstr_ptr text(json_dumps(value, 0));
    if (text == nullptr)
        return 0;
    size_t length = strlen(text.get());
    if (length > UINT32_MAX)
        return 0;
    zr::cstr_ptr frame(static_cast<char *>(calloc(length + frame_prefix_size + 1, 1)));
    if (frame == nullptr)
        return 0;
    uint32_t network_order = htonl(static_cast<uint32_t>(length));
    memcpy(frame.get(), &network_order, frame_prefix_size);
    memcpy(frame.get() + frame_prefix_size, text.get(), length);
    return write_frame(socket, frame.get(), length + frame_prefix_size) ? 1 : 0;
}

// Receives one frame; a new reference to its JSON value, or null.
extern "C" json_t *cfg_receive_timeout(int socket, int timeout_ms)
{
    struct timeval timeout = receive_timeout(timeout_ms);
    if (!set_receive_timeout(socket, timeout))
        return nullptr;
    frame_deadline deadline(timeout);
    uint32_t length = 0;
    if (!read_length(socket, &length, deadline))
        return nullptr;
    if (length == 0) {
        fprintf(stderr, "cfg_receive response len <= 0\n");
        return nullptr;
    }
    zr::cstr_ptr payload = read_payload(socket, length, deadline);
    if (payload == nullptr)
        return nullptr;
    json_error_t error;
    json_t *value = json_loads(payload.get(), 0, &error);
    if (value == nullptr)
        ZR_LOG(LOG_ERR, "JSON Parsing error: %s, line: %u.", error.text,
               static_cast<unsigned>(error.line));
    return value;
}

extern "C" json_t *cfg_receive(int socket)
{
    return cfg_receive_timeout(socket, default_receive_timeout_ms);
}
