// The configuration context: creation and release, lookups by identifier,
// uuids and element flag queries.
#define ZR_SOURCE "src/common"
#include "internal.h"

#include <cstdarg>
#include <cstring>
#include <ossp/uuid.h>
#include <pcre.h>

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

namespace {

// Trigger tables belong to validation, which fills and releases them.
void release_trigger_tables(cfg *context)
{
    cfg_free_trigger_tables(context);
}

// Element records are released by the data tree, which owns their layout.
void release_element(cfg *context, cfg_element *element)
{
    cfg_free_element(context, element);
}

// Empties the uuid index, releasing every element in index order.
void release_elements(cfg *context)
{
    cfg_index_entry *entry, *tmp;
    HASH_ITER(hh, context->elements, entry, tmp)
    {
        HASH_DEL(context->elements, entry);
        release_element(context, entry->element);
        free(entry);
    }
}

} // namespace

extern "C" int cfg_free_config(cfg **handle)
{
    if (handle == nullptr || *handle == nullptr)
        return 0;
    cfg *context = *handle;
    release_trigger_tables(context);
    release_elements(context);
    cfg_free_message_stack(context);
    for (int i = 0; i < context->conflicts_count; i++)
        free(context->conflicts[i]);
    free(context->conflicts);
    context->conflicts = nullptr;
    context->conflicts_count = 0;
    if (context->free_client_data != nullptr)
        context->free_client_data(context);
    free(context->client_data);
    free(context->transaction_dir);
    free(context->transaction_id);
    free(context);
    *handle = nullptr;
    return 1;
}

namespace {

// Empties the schema's uuid map, releasing every schema element it holds.
void release_schema_elements(cfg_schema *schema)
{
    cfg_schema_index_entry *entry, *tmp;
    HASH_ITER(hh, schema->elements, entry, tmp)
    {
        HASH_DEL(schema->elements, entry);
        cfg_free_schema_element(entry->element);
        free(entry);
    }
}

// Frees the type registry; a map-kind record owns its name.
void release_types(cfg_link *types)
{
    while (types != nullptr) {
        cfg_link *next = types->next;
        auto *type = static_cast<cfg_schema_type *>(types->data);
        if (type != nullptr && type->type == CFG_TYPE_MAP)
            free(type->name);
        free(type);
        free(types);
        types = next;
    }
}

// Frees every compiled pattern of the cache with its pattern text.
void release_regex_cache(cfg_schema *schema)
{
    cfg_regex_cache_entry *entry, *tmp;
    HASH_ITER(hh, schema->regex_cache, entry, tmp)
    {
        HASH_DEL(schema->regex_cache, entry);
        if (entry->compiled != nullptr)
            pcre_free(entry->compiled);
        free(entry->pattern);
        free(entry);
    }
}

} // namespace

extern "C" int cfg_free_schema(cfg *, cfg_schema **handle)
{
    if (handle == nullptr || *handle == nullptr)
        return 0;
    cfg_schema *schema = *handle;
    release_schema_elements(schema);
    release_types(schema->types);
    release_regex_cache(schema);
    free(schema);
    *handle = nullptr;
    return 1;
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

extern "C" cfg_element *cfg_root(cfg *context)
{
    if (context == nullptr)
        return nullptr;
    return cfg_get_by_id(context, "root-1");
}

extern "C" struct cfg_schema_element *cfg_get_schema_by_id(cfg *context, const char *uuid)
{
    return cfg_get_schema_node(context, uuid);
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

// Makes a version-1 uuid and overwrites its first and last digits with braces.
extern "C" int gen_uuid(char *out)
{
    uuid_t *uuid = nullptr;
    char *text = nullptr;
    size_t text_len = 0;
    uuid_create(&uuid);
    uuid_make(uuid, UUID_MAKE_V1);
    uuid_export(uuid, UUID_FMT_STR, &text, &text_len);
    uuid_destroy(uuid);
    if (text == nullptr) {
        out[0] = '\0';
        return 0;
    }
    strncpy(out, text, CFG_UUID_SIZE - 1);
    out[CFG_UUID_SIZE - 1] = '\0';
    free(text);
    size_t len = strlen(out);
    if (len > 0) {
        out[0] = '{';
        out[len - 1] = '}';
    }
    return static_cast<int>(len);
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
// Framing and the request round trip
// ------------------------------------------------------------------------

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

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

// Sets the receive time-out. The microseconds are the millisecond remainder
// divided by ten (1500 ms gives 1 s and 50 us); 0 or less waits without limit.
bool set_receive_timeout(int socket, int timeout_ms)
{
    struct timeval timeout = {0, 0};
    if (timeout_ms > 0) {
        timeout.tv_sec = timeout_ms / 1000;
        timeout.tv_usec = (timeout_ms % 1000) / 10;
    }
    if (setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout) != 0) {
        fprintf(stderr, "cfg_receive sockopt failed: %s\n", strerror(errno));
        return false;
    }
    return true;
}

enum class read_status { ok, failed, closed };

// Fills size bytes of buffer from the socket, retrying after signals. A read
// that comes up short is continued at the byte offset received so far, never
// at a scaled index that would land past the end of a 4-byte prefix.
read_status read_exactly(int socket, char *buffer, size_t size)
{
    size_t received = 0;
    while (received < size) {
        ssize_t n = recv(socket, buffer + received, size - received, MSG_WAITALL);
        if (n < 0 && errno == EINTR)
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
bool read_part(int socket, char *buffer, size_t size, const char *part)
{
    switch (read_exactly(socket, buffer, size)) {
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

bool read_length(int socket, uint32_t *length)
{
    uint32_t network_order;
    if (!read_part(socket, reinterpret_cast<char *>(&network_order), frame_prefix_size, "len"))
        return false;
    *length = ntohl(network_order);
    return true;
}

// Reads a payload of length bytes into a new NUL-terminated buffer, or
// returns null after printing why it failed.
zr::cstr_ptr read_payload(int socket, uint32_t length)
{
    // A length of 0xFFFFFFFF would wrap the 32-bit buffer size to 0: refuse
    // it as an allocation that cannot be made.
    uint32_t buffer_size = length + 1;
    zr::cstr_ptr buffer(buffer_size != 0 ? static_cast<char *>(calloc(buffer_size, 1))
                                         : nullptr);
    if (buffer == nullptr) {
        if (buffer_size == 0)
            errno = ENOMEM;
        fprintf(stderr, "cfg_receive response buffer allocate failed: %s\n", strerror(errno));
        return nullptr;
    }
    if (!read_part(socket, buffer.get(), length, "data"))
        return nullptr;
    return buffer;
}

bool is_keepalive(json_t *response)
{
    return json_is_true(json_object_get(response, "keepalive"));
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
    if (!set_receive_timeout(socket, timeout_ms))
        return nullptr;
    uint32_t length = 0;
    if (!read_length(socket, &length))
        return nullptr;
    if (length == 0) {
        fprintf(stderr, "cfg_receive response len <= 0\n");
        return nullptr;
    }
    zr::cstr_ptr payload = read_payload(socket, length);
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

// Builds a request envelope with the connection's next id; steals data.
extern "C" json_t *cfg_build_request(cfg *ctx, const char *method, json_t *data)
{
    auto *client = static_cast<cfg_client *>(ctx->client_data);
    json_t *request = json_object();
    json_object_set_new(request, "method", json_string(method));
    // The counter wraps after INT_MAX requests rather than overflowing.
    client->request_id = static_cast<int>(static_cast<unsigned>(client->request_id) + 1u);
    json_object_set_new(request, "id", json_integer(client->request_id));
    if (data != nullptr)
        json_object_set_new(request, "data", data);
    return request;
}

// Sends request and waits for the answer, skipping keep-alive frames; the
// answer's messages go onto the context's stack.
extern "C" json_t *cfg_send_request(cfg *ctx, json_t *request)
{
    auto *client = ctx != nullptr ? static_cast<cfg_client *>(ctx->client_data) : nullptr;
    if (client == nullptr)
        return nullptr;
    if (!cfg_send(client->socket, request))
        return nullptr;
    for (;;) {
        json_t *response = cfg_receive(client->socket);
        if (response == nullptr)
            return nullptr;
        if (is_keepalive(response)) {
            json_decref(response);
            continue;
        }
        append_json_config_messages_to_context(ctx, json_object_get(response, "messages"));
        return response;
    }
}
