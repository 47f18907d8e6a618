// The client side of the daemon protocol: the request envelope and round
// trip, the fetch hooks and data requests (by id, list, search, path; the
// daemon's lock; its schema), pull and reset, commit with the daemon's
// renames, the conflict list, and the session (connect, subscribe,
// disconnect, close).
#define ZR_SOURCE "src/client"
#include "internal.h"
#include "codes.h"
#include "common.h"
#include "data.h"

#include <cerrno>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>
#include <unordered_set>
#include <vector>

using zr::json_ptr;

namespace {

cfg_client *client_of(cfg *ctx)
{
    return ctx != nullptr ? static_cast<cfg_client *>(ctx->client_data) : nullptr;
}

// One round trip: builds the request (stealing data), sends it and drops it.
// Without a connection nothing is sent and the result is null.
json_ptr round_trip(cfg *ctx, const char *method, json_t *data)
{
    if (client_of(ctx) == nullptr) {
        json_decref(data);
        return nullptr;
    }
    json_ptr request(cfg_build_request(ctx, method, data));
    return json_ptr(cfg_send_request(ctx, request.get()));
}

bool result_is_true(json_t *response)
{
    return json_is_true(json_object_get(response, "result"));
}

using zr::mapped_id;

// The id an answer's item names, cut to the field as loading cuts it; empty
// when it names none.
std::string item_id(json_t *item)
{
    const char *id = json_string_value(json_object_get(item, "id"));
    return id != nullptr ? std::string(id, strnlen(id, CFG_UUID_SIZE - 1)) : std::string();
}

// Which items of an answer may stand in for a held element.
enum class held_items { replace, keep };

// Loads every element object of an answer's "data" array into the context;
// an item that fails to load does not stop the others. Each item is released
// once loaded, so a large answer and the tree made from it never both stand
// at full size. Answers to the lookup hooks, which ask only for ids not held,
// keep what is held: an item naming a held element is a protocol fault, and
// loading it would free a record that the lookup's caller (a validation
// walk, say) may still hold.
void load_answer(cfg *ctx, json_t *data, held_items held = held_items::replace)
{
    std::unordered_set<std::string> loaded; // by this answer, when held ones are kept
    size_t count = json_array_size(data);
    for (size_t i = 0; i < count; i++) {
        json_t *item = json_array_get(data, i);
        if (item == nullptr) {
            cfg_message_add_protocol(ctx);
            continue;
        }
        if (held == held_items::keep) {
            std::string id = item_id(item);
            if (!id.empty() && cfg_find_by_id(ctx, id.c_str()) != nullptr) {
                // A second copy of an id asked for twice is no fault.
                if (loaded.count(id) == 0)
                    cfg_message_add_protocol(ctx);
                continue;
            }
            loaded.insert(std::move(id));
        }
        json_to_elem(ctx, item);
        json_array_set_new(data, i, json_null());
    }
}

json_t *ids_request(const std::vector<const char *> &ids)
{
    json_t *list = json_array();
    for (const char *id : ids)
        json_array_append_new(list, json_string(id));
    json_t *data = json_object();
    json_object_set_new(data, "ids", list);
    return data;
}

} // namespace

// ------------------------------------------------------------------------
// Request envelope
// ------------------------------------------------------------------------

namespace {

bool is_keepalive(json_t *response)
{
    return json_is_true(json_object_get(response, "keepalive"));
}

} // namespace

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

// ------------------------------------------------------------------------
// Fetch hooks and data requests
// ------------------------------------------------------------------------

// The get_by_id hook: the local element, else the daemon's copy, loaded.
extern "C" cfg_element *client_cfg_get_by_id(cfg *ctx, const char *id)
{
    if (id == nullptr)
        return nullptr;
    id = mapped_id(ctx, id);
    cfg_element *held = cfg_find_by_id(ctx, id);
    if (held != nullptr)
        return held;
    json_ptr response = round_trip(ctx, "get_data_by_id", ids_request({id}));
    if (response == nullptr || json_object_get(response.get(), "result") == nullptr)
        cfg_message_add_protocol(ctx);
    else if (result_is_true(response.get()))
        load_answer(ctx, json_object_get(response.get(), "data"), held_items::keep);
    return cfg_find_by_id(ctx, id);
}

// The get_by_ids hook: a new NULL-terminated array of count slots (the
// caller frees the array); renamed ids are written back into ids.
extern "C" cfg_element **client_cfg_get_by_ids(cfg *ctx, char **ids, int count)
{
    if (ids == nullptr || ids[0] == nullptr)
        return nullptr;
    cfg_client *client = client_of(ctx);
    if (client != nullptr && client->uuid_map != nullptr)
        for (int i = 0; i < count; i++)
            ids[i] = const_cast<char *>(mapped_id(ctx, ids[i]));
    size_t slots = count > 0 ? static_cast<size_t>(count) + 1 : 1;
    auto *found = static_cast<cfg_element **>(calloc(slots, sizeof(cfg_element *)));
    if (found == nullptr)
        return nullptr;
    std::vector<const char *> missing;
    for (int i = 0; i < count; i++) {
        found[i] = cfg_find_by_id(ctx, ids[i]);
        if (found[i] == nullptr)
            missing.push_back(ids[i]);
    }
    if (missing.empty())
        return found;
    json_ptr response = round_trip(ctx, "get_data_by_id", ids_request(missing));
    if (response == nullptr || !result_is_true(response.get()))
        cfg_message_add_protocol(ctx);
    else
        load_answer(ctx, json_object_get(response.get(), "data"), held_items::keep);
    for (int i = 0; i < count; i++)
        found[i] = cfg_find_by_id(ctx, ids[i]);
    return found;
}

// Asks the daemon for the members of list and loads them.
extern "C" int cfg_get_list(cfg *ctx, cfg_element *list)
{
    json_t *data = json_object();
    json_object_set_new(data, "list", elem_to_json(list));
    json_ptr response = round_trip(ctx, "get_data_list", data);
    if (response == nullptr || !result_is_true(response.get()))
        return 0;
    json_t *elements = json_object_get(response.get(), "data");
    if (elements == nullptr)
        cfg_message_add_protocol(ctx);
    load_answer(ctx, elements);
    return 1;
}

// Runs a search on the daemon; the hits are members of the element "RESULTS".
extern "C" cfg_element *cfg_search(cfg *ctx, const char *table_name, cfg_condition *conditions)
{
    json_t *data = json_object();
    if (conditions != nullptr)
        json_object_set_new(data, "conditions", condition_to_json(conditions));
    json_object_set_new(data, "table_name", json_string(table_name));
    json_ptr response = round_trip(ctx, "search", data);
    if (response == nullptr || !result_is_true(response.get())) {
        cfg_message_add_protocol(ctx);
        return nullptr;
    }
    json_t *elements = json_object_get(response.get(), "data");
    if (elements == nullptr)
        cfg_message_add_protocol(ctx);
    load_answer(ctx, elements);
    return cfg_find_by_id(ctx, "RESULTS");
}

// Takes (1 write, 2 read) or drops (0) the daemon's configuration lock.
extern "C" int cfg_lock(cfg *ctx, int operation)
{
    static const char *const operations[] = {"none", "write", "read"};
    if (operation < zr::lock::none || operation > zr::lock::read) {
        cfg_message_add_unknown_lock(ctx);
        return 0;
    }
    json_t *data = json_object();
    json_object_set_new(data, "operation", json_string(operations[operation]));
    json_ptr response = round_trip(ctx, "lock", data);
    return response != nullptr && result_is_true(response.get()) ? 1 : 0;
}

// The element at path as the daemon resolves it; a copy already held wins.
extern "C" cfg_element *cfg_fetch_by_path(cfg *ctx, const char *path)
{
    json_t *data = json_object();
    json_object_set_new(data, "path", json_string(path));
    json_ptr response = round_trip(ctx, "get_data_by_path", data);
    if (response == nullptr || !result_is_true(response.get()))
        return nullptr;
    json_t *element = json_object_get(response.get(), "data");
    const char *id = json_string_value(json_object_get(element, "id"));
    if (id == nullptr)
        return nullptr;
    cfg_element *held = cfg_find_by_id(ctx, id);
    return held != nullptr ? held : json_to_elem(ctx, element);
}

namespace {

// Loads one schema node. A node whose id an earlier node of the same answer
// already loaded displaces that record, which nothing else can hold yet:
// it is freed here rather than left for no one to release.
void load_schema_node(cfg *ctx, json_t *node, std::unordered_set<cfg_schema_element *> &loaded)
{
    const char *id = json_string_value(json_object_get(node, "id"));
    cfg_schema_element *before = cfg_get_schema_node(ctx, id);
    cfg_schema_element *elem = json_to_schema_elem(ctx, node);
    if (elem == nullptr)
        return;
    elem->flags = 0;
    loaded.insert(elem);
    if (before != nullptr && before != elem && cfg_get_schema_node(ctx, id) != before &&
        loaded.erase(before) == 1)
        cfg_free_schema_element(before);
}

} // namespace

// Loads the schema nodes, sets the root and registers the type names.
extern "C" int cfg_apply_schema(cfg *ctx, json_t *nodes, json_t *types, json_t *root)
{
    const char *key;
    json_t *value;
    std::unordered_set<cfg_schema_element *> loaded;
    json_object_foreach(nodes, key, value)
        load_schema_node(ctx, value, loaded);
    if (ctx != nullptr && ctx->schema != nullptr)
        ctx->schema->root = cfg_get_schema_node(ctx, json_string_value(root));
    json_object_foreach(types, key, value)
    {
        if (json_is_string(value))
            cfg_add_type(ctx, key, json_string_value(value));
    }
    return 1;
}

// ------------------------------------------------------------------------
// Pull and reset
// ------------------------------------------------------------------------

namespace {

// Runs body with index standing in for the context's element index and puts
// the context's own index back afterwards; index receives the changes.
template <typename Body> void with_index(cfg *ctx, cfg_index_entry **index, Body body)
{
    cfg_index_entry *own = ctx->elements;
    ctx->elements = *index;
    body();
    *index = ctx->elements;
    ctx->elements = own;
}

// Moves element from the detached old set into the context's index.
void adopt(cfg *ctx, cfg_index_entry **old_set, cfg_element *element)
{
    with_index(ctx, old_set, [&] { cfg_delete_elem(ctx, element); });
    cfg_add_elem(ctx, element);
}

// Gives remote the future members of local that it lacks.
void carry_future_members(cfg *ctx, cfg_element *local, cfg_element *remote)
{
    if (!(local->flags & CFG_FLAG_HAS_FUTURE) || local->type != CFG_TYPE_LIST)
        return;
    for (cfg_link *node = local->value.list.future_members; node != nullptr; node = node->next) {
        const char *uuid = mapped_id(ctx, static_cast<cfg_parent_link *>(node->data)->uuid);
        if (cfg_list_contains(remote, uuid) == 0)
            cfg_append_future_listid(remote, uuid);
    }
}

// Reconciles one local element with the daemon's copy; false on a conflict.
bool pull_element(cfg *ctx, cfg_index_entry **old_set, cfg_element *local, int force)
{
    cfg_element *remote = cfg_get_by_id(ctx, local->uuid);
    if (local->flags == 0)
        return true;
    if (remote == nullptr) {
        if (local->flags & CFG_FLAG_NEW)
            adopt(ctx, old_set, local);
        if (force == 0 &&
            (local->flags & (CFG_FLAG_CHANGED | CFG_FLAG_DELETED)) == CFG_FLAG_CHANGED) {
            cfg_add_conflict(ctx, local->uuid);
            adopt(ctx, old_set, local);
            return false;
        }
        return true;
    }
    carry_future_members(ctx, local, remote);
    if (!(local->flags & CFG_FLAG_CHANGED) || remote->generation <= local->generation ||
        force != 0)
        return true;
    cfg_add_conflict(ctx, local->uuid);
    // The daemon's copy gives way to the local one; it is freed rather than
    // left unindexed, since nothing else refers to it.
    cfg_free_element(ctx, remote);
    adopt(ctx, old_set, local);
    return false;
}

void clear_conflicts(cfg *ctx)
{
    for (int i = 0; i < ctx->conflicts_count; i++)
        free(ctx->conflicts[i]);
    free(ctx->conflicts);
    ctx->conflicts = nullptr;
    ctx->conflicts_count = 0;
}

} // namespace

// Frees every element of the context; the schema stays.
extern "C" void cfg_reset(cfg *ctx)
{
    if (ctx == nullptr)
        return;
    cfg_index_entry *entry, *next;
    HASH_ITER(hh, ctx->elements, entry, next)
    {
        cfg_free_element(ctx, entry->element);
    }
}

// Replaces the local copy by the daemon's, keeping new elements and, unless
// force is set, local changes that the daemon's newer copies would overrule.
extern "C" int cfg_pull(cfg *ctx, int force)
{
    if (ctx == nullptr)
        return 0;
    clear_conflicts(ctx);
    cfg_index_entry *old_set = ctx->elements;
    ctx->elements = nullptr;
    std::vector<cfg_element *> old_elements;
    old_elements.reserve(HASH_COUNT(old_set));
    cfg_index_entry *entry, *next;
    HASH_ITER(hh, old_set, entry, next)
    {
        old_elements.push_back(entry->element);
    }
    int result = 1;
    for (cfg_element *local : old_elements)
        if (!pull_element(ctx, &old_set, local, force))
            result = 0;
    with_index(ctx, &old_set, [&] { cfg_reset(ctx); });
    // The local copy is now the daemon's, below kept local elements too.
    zr::forget_all_validation();
    if (result != 1 && ctx->conflicts_count == 0)
        cfg_message_add_unknown_pull(ctx);
    return result;
}

// ------------------------------------------------------------------------
// Commit and conflicts
// ------------------------------------------------------------------------

namespace {

// Records the daemon's renames of pushed ids, keyed by the old id.
void record_renames(cfg_client *client, json_t *uuids)
{
    size_t i;
    json_t *item;
    json_array_foreach(uuids, i, item)
    {
        const char *old_id = json_string_value(json_object_get(item, "old"));
        const char *new_id = json_string_value(json_object_get(item, "new"));
        // A pair lacking either id cannot be recorded; it is skipped.
        if (old_id == nullptr || new_id == nullptr)
            continue;
        // Without memory a rename goes unrecorded; the push itself succeeded.
        cfg_uuid_map_entry *entry = zr::zalloc<cfg_uuid_map_entry>();
        if (entry == nullptr)
            continue;
        snprintf(entry->old, sizeof entry->old, "%s", old_id);
        snprintf(entry->new_, sizeof entry->new_, "%s", new_id);
        HASH_ADD_KEYPTR(hh, client->uuid_map, entry->old, strlen(entry->old), entry);
        if (!zr::hash_added(entry))
            free(entry);
    }
    zr::index_changed();
    zr::forget_all_validation(); // members may resolve to other records now
}

// Frees the deleted elements and clears the change flags of the others.
void settle_committed(cfg *ctx)
{
    const unsigned int change_flags = CFG_FLAG_NEW | CFG_FLAG_CHANGED | CFG_FLAG_DELETED;
    cfg_index_entry *entry, *next;
    HASH_ITER(hh, ctx->elements, entry, next)
    {
        if (entry->element->flags & CFG_FLAG_DELETED)
            cfg_free_element(ctx, entry->element);
        else
            entry->element->flags &= ~change_flags;
    }
}

} // namespace

// Pushes the local changes; on success forgets the local copy, keeping the
// daemon's renames, and ends an open transaction.
extern "C" int cfg_commit(cfg *ctx)
{
    cfg_client *client = client_of(ctx);
    if (client == nullptr)
        return 0;
    json_ptr response = round_trip(ctx, "push", cfg_assemble_update(ctx));
    if (response == nullptr || !result_is_true(response.get()))
        return 0;
    settle_committed(ctx);
    record_renames(client, json_path_get(response.get(), "data\auuids"));
    response.reset();
    cfg_reset(ctx);
    if (ctx->transaction_id != nullptr) {
        cfg_transaction_cancel(ctx, ctx->transaction_id);
        free(ctx->transaction_id);
        ctx->transaction_id = nullptr;
    }
    return 1;
}

extern "C" const char *cfg_add_conflict(cfg *ctx, const char *uuid)
{
    ZR_ASSERT(uuid != nullptr, "uuid != ((void *)0)");
    if (ctx == nullptr)
        return nullptr;
    char *copy = strdup(uuid);
    auto *grown = copy == nullptr ? nullptr : static_cast<char **>(
        realloc(ctx->conflicts, sizeof(char *) * static_cast<size_t>(ctx->conflicts_count + 1)));
    if (grown == nullptr) {
        free(copy);
        return nullptr;
    }
    ctx->conflicts = grown;
    ctx->conflicts[ctx->conflicts_count] = copy;
    return ctx->conflicts[ctx->conflicts_count++];
}

extern "C" void cfg_remove_conflict(cfg *ctx, const char *uuid)
{
    if (ctx == nullptr || uuid == nullptr)
        return;
    for (int i = 0; i < ctx->conflicts_count; i++) {
        if (strcmp(ctx->conflicts[i], uuid) != 0)
            continue;
        free(ctx->conflicts[i]);
        memmove(&ctx->conflicts[i], &ctx->conflicts[i + 1],
                sizeof(char *) * static_cast<size_t>(ctx->conflicts_count - i - 1));
        ctx->conflicts_count--;
        return;
    }
}

// The conflict at index, or NULL past the end. A negative index is refused
// rather than read before the array.
extern "C" const char *cfg_get_conflict(cfg *ctx, int index)
{
    if (ctx == nullptr || index < 0 || index >= ctx->conflicts_count)
        return nullptr;
    return ctx->conflicts[index];
}

extern "C" int cfg_conflict_count(cfg *ctx)
{
    return ctx != nullptr ? ctx->conflicts_count : 0;
}

// ------------------------------------------------------------------------
// Session
// ------------------------------------------------------------------------

namespace {

// A socket connected to path (cut to 107 bytes), or -1 after logging why.
int open_daemon_socket(const char *socket_path)
{
    int sock = socket(AF_UNIX, SOCK_STREAM, 1);
    if (sock < 0) {
        ZR_LOG(LOG_ERR, "cfg_connect_timeout: socket() failed: %s", strerror(errno));
        return -1;
    }
    struct sockaddr_un address;
    memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, socket_path != nullptr ? socket_path : "", 107);
    if (connect(sock, reinterpret_cast<struct sockaddr *>(&address), 110) != 0) {
        ZR_LOG(LOG_ERR, "cfg_connect_timeout: connect() failed: %s", strerror(errno));
        close(sock);
        return -1;
    }
    return sock;
}

// Says hello under client_name, or under "<program>-<pid>" when it is null.
// False (after logging) only when the default name cannot be formed.
bool say_hello(cfg *ctx, const char *client_name, json_ptr *response)
{
    zr::cstr_ptr formed;
    if (client_name == nullptr) {
        char *text = nullptr;
        if (asprintf(&text, "%s-%ld", program_invocation_short_name,
                     static_cast<long>(getpid())) < 1) {
            ZR_LOG(LOG_ERR, "cfg_connect_timeout: asprintf() failed");
            return false;
        }
        formed.reset(text);
        client_name = text;
    }
    json_t *data = json_object();
    json_object_set_new(data, "client_name", json_string(client_name));
    *response = round_trip(ctx, "hello", data);
    return true;
}

// Loads the daemon's schema when its answer has a root, nodes and types.
// False when "get_schema" went unanswered.
bool load_schema(cfg *ctx)
{
    json_ptr response = round_trip(ctx, "get_schema", nullptr);
    if (response == nullptr)
        return false;
    json_t *result = json_path_get(response.get(), "result");
    json_t *root = json_path_get(response.get(), "data\aroot");
    json_t *nodes = json_path_get(response.get(), "data\anodes");
    json_t *types = json_path_get(response.get(), "data\atypes");
    if (json_is_true(result) && root != nullptr && nodes != nullptr && types != nullptr)
        cfg_apply_schema(ctx, nodes, types, root);
    return true;
}

void install_client(cfg *ctx, cfg_client *client)
{
    ctx->client_data = client;
    ctx->free_client_data = client_cfg_free_context_data;
}

} // namespace

extern "C" cfg *cfg_connect(const char *socket_path, const char *client_name)
{
    return cfg_connect_timeout(socket_path, client_name, 60);
}

// Opens a session: socket, context, hooks, hello and the daemon's schema.
extern "C" cfg *cfg_connect_timeout(const char *socket_path, const char *client_name,
                                    long timeout_s)
{
    int sock = open_daemon_socket(socket_path);
    if (sock < 0)
        return nullptr;
    cfg *ctx = cfg_create_new_config(nullptr);
    if (ctx == nullptr) {
        ZR_LOG(LOG_ERR, "cfg_connect_timeout: failed to create new config");
        close(sock);
        return nullptr;
    }
    ctx->transaction_dir = strdup("/var/run/zrconfig");
    ctx->get_by_id = client_cfg_get_by_id;
    ctx->get_by_ids = client_cfg_get_by_ids;
    cfg_client *client = zr::zalloc<cfg_client>();
    if (client == nullptr) {
        ZR_LOG(LOG_ERR, "cfg_connect_timeout: calloc() failed: %s", strerror(errno));
        close(sock);
        cfg_close(ctx);
        return nullptr;
    }
    client->socket = sock;
    install_client(ctx, client);
    if (timeout_s > 0) {
        struct timeval timeout = {timeout_s, 0};
        int sso_ret = setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
        ZR_ASSERT(sso_ret == 0, "sso_ret == 0");
    }
    json_ptr hello;
    if (!say_hello(ctx, client_name, &hello)) {
        close(sock);
        client->socket = -1; // so that the release says no goodbye on it
        cfg_close(ctx);
        return nullptr;
    }
    if (hello != nullptr && result_is_true(hello.get())) {
        hello.reset();
        if (load_schema(ctx))
            return ctx;
    }
    hello.reset();
    // The socket is left open here, unlike on the earlier failures.
    ZR_LOG(LOG_ERR, "cfg_connect_timeout: Bad login result");
    cfg_free_schema(ctx, &ctx->schema);
    cfg_free_config(&ctx);
    return nullptr;
}

// Registers the program with the daemon; 1 when the daemon accepts.
extern "C" int cfg_subscribe(cfg *ctx, const char *name, int priority, char **paths,
                             char **before, char **after, const char *program, char **args)
{
    json_t *data = json_object();
    json_object_set_new(data, "name", json_string(name));
    json_object_set_new(data, "program", json_string(program));
    json_object_set_new(data, "priority", json_integer(priority));
    json_object_set_new(data, "args", strings_to_list(args));
    json_object_set_new(data, "paths", strings_to_list(paths));
    json_object_set_new(data, "before", strings_to_list(before));
    json_object_set_new(data, "after", strings_to_list(after));
    json_ptr response = round_trip(ctx, "subscribe", data);
    return response != nullptr && result_is_true(response.get()) ? 1 : 0;
}

// Says goodbye, saves an open transaction, closes the socket and releases
// the context and its schema; *pctx is cleared.
extern "C" int cfg_disconnect(cfg **pctx)
{
    if (pctx == nullptr || *pctx == nullptr)
        return 0;
    cfg *ctx = *pctx;
    cfg_client *client = client_of(ctx);
    bool connected = client != nullptr && client->socket >= 0;
    if (connected)
        round_trip(ctx, "goodbye", json_object());
    if (ctx->transaction_id != nullptr)
        cfg_transaction_save(ctx);
    if (connected) {
        close(client->socket);
        client->socket = -1;
    }
    free(ctx->transaction_id);
    ctx->transaction_id = nullptr;
    free(ctx->transaction_dir);
    ctx->transaction_dir = nullptr;
    cfg_free_schema(ctx, &ctx->schema);
    return cfg_free_config(pctx);
}

extern "C" int cfg_close(cfg *ctx)
{
    return cfg_disconnect(&ctx);
}

// Empties the connection's id map; the socket and the record stay.
extern "C" int client_cfg_free_context_data(cfg *ctx)
{
    cfg_client *client = client_of(ctx);
    if (ctx == nullptr)
        return 0;
    if (client == nullptr)
        return 1;
    cfg_uuid_map_entry *entry, *next;
    HASH_ITER(hh, client->uuid_map, entry, next)
    {
        HASH_DEL(client->uuid_map, entry);
        free(entry);
    }
    client->uuid_map = nullptr;
    zr::index_changed();
    zr::forget_all_validation(); // members may resolve to other records now
    return 1;
}
