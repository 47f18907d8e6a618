// The configuration context: creation and release, lookups by identifier,
// uuids and element flag queries.
#define ZR_SOURCE "src/common"
#include "internal.h"

#include <cstdarg>
#include <cstring>
#include <ossp/uuid.h>

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

// Trigger tables belong to validation; nothing to release until it fills them.
void release_trigger_tables(cfg *) {}

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

// Schema elements belong to the schema area; until it exists the map is empty.
void release_schema_elements(cfg *, cfg_schema *) {}

// Frees the type registry; a map-kind record owns its name.
void release_types(cfg_link *types)
{
    while (types != nullptr) {
        cfg_link *next = types->next;
        auto *link = static_cast<cfg_parent_link *>(types->data);
        if (link != nullptr && link->type == CFG_TYPE_MAP)
            free(link->name);
        free(link);
        free(types);
        types = next;
    }
}

} // namespace

extern "C" int cfg_free_schema(cfg *context, cfg_schema **handle)
{
    if (handle == nullptr || *handle == nullptr)
        return 0;
    cfg_schema *schema = *handle;
    release_schema_elements(context, schema);
    release_types(schema->types);
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
