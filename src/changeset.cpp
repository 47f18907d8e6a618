// Changesets: applying them (from the daemon or replayed local work),
// assembling the update object of local changes, and the transaction file
// that keeps that object between sessions.
//
// Its log lines and assertions carry the context area's name, "src/common":
// callers filter the library's lines by it, and changesets and transactions
// have always been logged there.
#define ZR_SOURCE "src/common"
#include "internal.h"

#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

// ------------------------------------------------------------------------
// Changesets
// ------------------------------------------------------------------------

namespace {

// The id and generation of a changeset item: a bare id (generation 0) or an
// object with "id" and "generation".
struct changeset_item {
    const char *id = nullptr;
    int generation = 0;
};

changeset_item read_changeset_item(json_t *item)
{
    changeset_item read;
    if (json_is_string(item)) {
        read.id = json_string_value(item);
        return read;
    }
    read.id = json_string_value(json_object_get(item, "id"));
    read.generation = static_cast<int>(json_integer_value(json_object_get(item, "generation")));
    return read;
}

// Applies a generation to a change: equal generations may replace the held
// copy; a newer one (logged) or an older one may not.
bool generations_match(const char *format, const char *id, int incoming, int held)
{
    if (incoming > held) {
        ZR_LOG(LOG_DEBUG, format, id, incoming, held);
        return false;
    }
    return incoming == held;
}

bool load_with_flag(cfg *ctx, json_t *item, int flag)
{
    cfg_element *loaded = json_to_elem(ctx, item);
    if (loaded == nullptr)
        return false;
    loaded->flags = static_cast<unsigned int>(flag);
    return true;
}

// One item from the daemon: existing copies are fetched if need be, and a
// change must carry the generation of the held copy.
bool apply_daemon_item(cfg *ctx, json_t *item, const changeset_item &read, int flag)
{
    cfg_element *existing = cfg_get_by_id(ctx, read.id);
    if (flag == CFG_FLAG_DELETED) {
        if (existing == nullptr)
            return false;
        cfg_delete_element(ctx, existing);
        return true;
    }
    if (flag == CFG_FLAG_CHANGED) {
        if (existing == nullptr ||
            !generations_match("config update for '%s' has newer generation (%d) than (%d)",
                               read.id, read.generation, existing->generation))
            return false;
        cfg_free_element(ctx, existing);
    } else if (existing != nullptr) {
        if (!(existing->flags & CFG_FLAG_DELETED))
            return false;
        cfg_free_element(ctx, existing);
    }
    return load_with_flag(ctx, item, flag);
}

// One item replayed from local work: the held copy is simply replaced.
bool apply_local_item(cfg *ctx, json_t *item, const changeset_item &read, int flag)
{
    cfg_element *existing = cfg_find_by_id(ctx, read.id);
    if (existing != nullptr)
        cfg_free_element(ctx, existing);
    return flag == CFG_FLAG_DELETED || load_with_flag(ctx, item, flag);
}

// Drops a schema element from the uuid map and frees it; a root that goes
// leaves the schema without one until its replacement is loaded.
void free_mapped_schema_element(cfg *ctx, cfg_schema_element *elem)
{
    if (ctx->schema->root == elem)
        ctx->schema->root = nullptr;
    cfg_delete_schema_elem(&ctx->schema->elements, elem->uuid);
    cfg_free_schema_element(elem);
}

bool apply_schema_item(cfg *ctx, json_t *item, const changeset_item &read, int flag)
{
    cfg_schema_element *existing = cfg_get_schema_by_id(ctx, read.id);
    if (flag == CFG_FLAG_DELETED) {
        if (existing == nullptr)
            return false;
        cfg_delete_schema_element(ctx, existing);
        return true;
    }
    bool replaces_root = existing != nullptr && ctx->schema->root == existing;
    if (flag == CFG_FLAG_CHANGED) {
        // A change to an unknown schema element is refused rather than read.
        if (existing == nullptr ||
            !generations_match("config update for schema '%s' has newer generation (%d) than "
                               "(%d)",
                               read.id, read.generation, existing->generation))
            return false;
        free_mapped_schema_element(ctx, existing);
    } else if (existing != nullptr) {
        if (!(existing->flags & CFG_FLAG_DELETED))
            return false;
        free_mapped_schema_element(ctx, existing);
    }
    cfg_schema_element *loaded = json_to_schema_elem(ctx, item);
    if (loaded == nullptr)
        return false;
    loaded->flags = static_cast<unsigned int>(flag);
    if (replaces_root)
        ctx->schema->root = loaded;
    return true;
}

// Runs apply on every item of a changeset list, counting the handled ones.
template <typename Apply> int apply_items(json_t *items, int *count, Apply apply)
{
    if (count != nullptr)
        *count = 0;
    size_t i;
    json_t *item;
    json_array_foreach(items, i, item)
    {
        changeset_item read = read_changeset_item(item);
        if (read.id == nullptr || !apply(item, read))
            return 0;
        if (count != nullptr)
            (*count)++;
    }
    return 1;
}

// Adds each appended member to its list as a future member.
bool apply_appended(cfg *ctx, json_t *appended)
{
    size_t i;
    json_t *pair;
    json_array_foreach(appended, i, pair)
    {
        cfg_element *parent =
            cfg_get_by_id(ctx, json_string_value(json_object_get(pair, "parent_id")));
        if (parent == nullptr)
            return false;
        cfg_element *child =
            cfg_get_by_id(ctx, json_string_value(json_object_get(pair, "child_id")));
        if (child == nullptr)
            return false;
        cfg_append_future_listelem(ctx, parent, child);
    }
    return true;
}

void apply_schema_root_and_types(cfg *ctx, json_t *changeset)
{
    const char *root = json_string_value(json_object_get(changeset, "schema_root"));
    if (root != nullptr && root[0] != '\0' && ctx->schema != nullptr)
        ctx->schema->root = cfg_get_schema_by_id(ctx, root);
    const char *name;
    json_t *uuid;
    json_object_foreach(json_object_get(changeset, "types"), name, uuid)
    {
        if (json_is_string(uuid))
            cfg_add_type(ctx, name, json_string_value(uuid));
    }
}

} // namespace

extern "C" int cfg_update_elements(cfg *ctx, json_t *items, int flag, int from_daemon,
                                   int *count)
{
    if (ctx == nullptr)
        return 0;
    return apply_items(items, count, [&](json_t *item, const changeset_item &read) {
        return from_daemon ? apply_daemon_item(ctx, item, read, flag)
                           : apply_local_item(ctx, item, read, flag);
    });
}

extern "C" int cfg_update_schema_elements(cfg *ctx, json_t *items, int flag, int *count)
{
    if (ctx == nullptr || ctx->schema == nullptr)
        return 0;
    return apply_items(items, count, [&](json_t *item, const changeset_item &read) {
        return apply_schema_item(ctx, item, read, flag);
    });
}

// Applies the six element lists in order, stopping at the first that fails,
// then appended members, the schema root and the types.
extern "C" int cfg_apply_changeset(cfg *ctx, json_t *changeset, int from_daemon,
                                   int *config_count, int *schema_count)
{
    struct list_step {
        const char *key;
        int flag;
        bool schema;
        const char *log;
    };
    static const list_step steps[] = {
        {"added", CFG_FLAG_NEW, false,
         "applying changeset: 'added' config elements: %d items (success=%d)"},
        {"changed", CFG_FLAG_CHANGED, false,
         "applying changeset: 'changed' config elements: %d items (success=%d)"},
        {"deleted", CFG_FLAG_DELETED, false,
         "applying changeset: 'deleted' config elements: %d items (success=%d)"},
        {"schema_added", CFG_FLAG_NEW, true,
         "applying changeset: 'added' schema elements: %d items (success=%d)"},
        {"schema_changed", CFG_FLAG_CHANGED, true,
         "applying changeset: 'changed' schema elements: %d items (success=%d)"},
        {"schema_deleted", CFG_FLAG_DELETED, true,
         "applying changeset: 'deleted' schema elements: %d items (success=%d)"},
    };
    if (ctx == nullptr)
        return 0;
    int config_total = 0, schema_total = 0;
    auto write_counts = [&] {
        if (config_count != nullptr)
            *config_count = config_total;
        if (schema_count != nullptr)
            *schema_count = schema_total;
    };
    for (const list_step &s : steps) {
        json_t *items = json_object_get(changeset, s.key);
        int count = 0;
        int ok = s.schema ? cfg_update_schema_elements(ctx, items, s.flag, &count)
                          : cfg_update_elements(ctx, items, s.flag, from_daemon, &count);
        ZR_LOG(LOG_DEBUG, s.log, count, ok);
        (s.schema ? schema_total : config_total) += count;
        if (!ok) {
            write_counts();
            return 0;
        }
    }
    if (!apply_appended(ctx, json_object_get(changeset, "appended")))
        return 0;
    apply_schema_root_and_types(ctx, changeset);
    write_counts();
    return 1;
}

// ------------------------------------------------------------------------
// Update object
// ------------------------------------------------------------------------

namespace {

json_t *appended_pair(const char *parent, const char *child)
{
    json_t *pair = json_object();
    json_object_set_new(pair, "parent_id", json_string(parent));
    json_object_set_new(pair, "child_id", json_string(child));
    return pair;
}

// Sorts one element into "deleted", "added" or "changed" by its flags and
// lists a list's future members under "appended".
void assemble_element(cfg_element *element, json_t *update)
{
    unsigned int flags = element->flags;
    if (flags & CFG_FLAG_DELETED) {
        if (!(flags & CFG_FLAG_NEW))
            json_array_append_new(json_object_get(update, "deleted"), json_string(element->uuid));
    } else if (flags & CFG_FLAG_NEW) {
        json_array_append_new(json_object_get(update, "added"), elem_to_json(element));
    } else if (flags & CFG_FLAG_CHANGED) {
        json_array_append_new(json_object_get(update, "changed"), elem_to_json(element));
    }
    if (element->type != CFG_TYPE_LIST)
        return;
    for (cfg_link *node = element->value.list.future_members; node != nullptr;
         node = node->next) {
        ZR_ASSERT(element->flags & CFG_FLAG_HAS_FUTURE, "item->elem->flags & (1 << 4)");
        json_array_append_new(json_object_get(update, "appended"),
                              appended_pair(element->uuid,
                                            static_cast<cfg_parent_link *>(node->data)->uuid));
    }
}

void assemble_schema_element(cfg_schema_element *elem, json_t *update)
{
    unsigned int flags = elem->flags;
    const char *list = nullptr;
    if (flags & CFG_FLAG_DELETED) {
        if (!(flags & CFG_FLAG_NEW))
            json_array_append_new(json_object_get(update, "schema_deleted"),
                                  json_string(elem->uuid));
        return;
    }
    if (flags & CFG_FLAG_NEW)
        list = "schema_added";
    else if (flags & CFG_FLAG_CHANGED)
        list = "schema_changed";
    if (list != nullptr)
        json_array_append_new(json_object_get(update, list), schema_elem_to_json(elem));
}

} // namespace

// The update object of every flagged element, schema element and type.
extern "C" json_t *cfg_assemble_update(cfg *ctx)
{
    if (ctx == nullptr)
        return nullptr;
    json_t *update = json_object();
    for (const char *list : {"deleted", "added", "changed", "appended", "schema_deleted",
                             "schema_changed", "schema_added"})
        json_object_set_new(update, list, json_array());
    json_t *types = json_object();
    json_object_set_new(update, "types", types);
    cfg_schema_element *root = cfg_schema_root(ctx);
    json_object_set_new(update, "schema_root",
                        root != nullptr ? json_string(root->uuid) : json_null());
    cfg_index_entry *entry, *next;
    HASH_ITER(hh, ctx->elements, entry, next)
    {
        assemble_element(entry->element, update);
    }
    if (ctx->schema == nullptr)
        return update;
    cfg_schema_index_entry *node, *after;
    HASH_ITER(hh, ctx->schema->elements, node, after)
    {
        assemble_schema_element(node->element, update);
    }
    for (cfg_link *link = ctx->schema->types; link != nullptr; link = link->next) {
        auto *type = static_cast<cfg_schema_type *>(link->data);
        if (type != nullptr && type->name != nullptr)
            json_object_set_new(types, type->name, json_string(type->uuid));
    }
    return update;
}

// ------------------------------------------------------------------------
// Transactions
// ------------------------------------------------------------------------


namespace {

constexpr time_t transaction_lifetime_s = 899;

// The file of transaction id, cut to 255 characters; empty when there is no
// directory or id to form it from.
std::string transaction_path(cfg *ctx, const char *id)
{
    if (ctx == nullptr || ctx->transaction_dir == nullptr || id == nullptr)
        return {};
    char path[256];
    snprintf(path, sizeof path, "%s/%s.transaction", ctx->transaction_dir, id);
    return path;
}

// Makes id the open transaction, releasing the id it replaces; false, and
// nothing changed, when there is no memory for the copy.
bool set_transaction_id(cfg *ctx, const char *id)
{
    char *copy = strdup(id);
    if (copy == nullptr)
        return false;
    free(ctx->transaction_id);
    ctx->transaction_id = copy;
    return true;
}

} // namespace

extern "C" const char *cfg_transaction_start(cfg *ctx)
{
    if (ctx == nullptr)
        return nullptr;
    char id[CFG_UUID_SIZE];
    gen_uuid(id);
    return set_transaction_id(ctx, id) ? ctx->transaction_id : nullptr;
}

// Writes the pending changes of the open transaction to its file.
extern "C" int cfg_transaction_save(cfg *ctx)
{
    std::string path = transaction_path(ctx, ctx != nullptr ? ctx->transaction_id : nullptr);
    if (path.empty())
        return 0;
    struct stat info;
    if (stat(ctx->transaction_dir, &info) != 0 && mkdir(ctx->transaction_dir, 0755) != 0)
        return 0;
    // Pending configuration is never readable by others, not even while it
    // is written: the file is born 0600, and an older one is narrowed first.
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0)
        return 0;
    FILE *file = fchmod(fd, 0600) == 0 ? fdopen(fd, "w") : nullptr;
    if (file == nullptr) {
        close(fd);
        return 0;
    }
    zr::json_ptr update(cfg_assemble_update(ctx));
    if (update != nullptr)
        json_dumpf(update.get(), file, 0);
    fclose(file);
    chmod(path.c_str(), 0600);
    return update != nullptr ? 1 : 0;
}

// Replays the file of id as local work and opens the transaction; a file
// older than the lifetime is deleted instead.
extern "C" int cfg_transaction_open(cfg *ctx, const char *id)
{
    std::string path = transaction_path(ctx, id);
    struct stat info;
    if (path.empty() || stat(path.c_str(), &info) != 0)
        return 0;
    if (time(nullptr) - transaction_lifetime_s > info.st_mtime) {
        cfg_transaction_cancel(ctx, id);
        return 0;
    }
    FILE *file = fopen(path.c_str(), "r");
    if (file == nullptr)
        return 0;
    json_error_t error;
    zr::json_ptr content(json_loadf(file, 0, &error));
    fclose(file);
    if (content == nullptr)
        return 0;
    if (!cfg_apply_changeset(ctx, content.get(), 0, nullptr, nullptr))
        return 0;
    return set_transaction_id(ctx, id) ? 1 : 0;
}

extern "C" int cfg_transaction_cancel(cfg *ctx, const char *id)
{
    std::string path = transaction_path(ctx, id);
    struct stat info;
    if (path.empty() || stat(path.c_str(), &info) != 0)
        return 0;
    return unlink(path.c_str()) == 0 ? 1 : 0;
}

extern "C" char *cfg_get_transaction_id(cfg *ctx)
{
    if (ctx == nullptr || ctx->transaction_id == nullptr)
        return nullptr;
    return strdup(ctx->transaction_id);
}

extern "C" int cfg_in_transaction(cfg *ctx)
{
    return ctx != nullptr && ctx->transaction_id != nullptr ? 1 : 0;
}
