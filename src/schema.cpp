// Schema elements: records and their constraints, allowed values, tags and
// validators; the schema's uuid map, member and conditional links, deletion
// marking, the type registry, the purging of deprecated members and the
// release of a schema.
#define ZR_SOURCE "src/schema"
#include "internal.h"
#include "schema.h"

#include <atomic>
#include <cstring>
#include <mutex>
#include <pcre.h>
#include <unordered_map>
#include <unordered_set>
#include <vector>

using zr::zalloc;

namespace {

using element_set = std::unordered_set<const cfg_schema_element *>;

char *dup_or_null(const char *text)
{
    return text != nullptr ? strdup(text) : nullptr;
}

// Copies a uuid into a 256-byte field, always terminated.
void copy_uuid(char *dst, const char *src)
{
    strncpy(dst, src, CFG_UUID_SIZE - 1);
    dst[CFG_UUID_SIZE - 1] = '\0';
}

// Appends data at the tail of a singly linked list; false (data not taken)
// when memory runs out.
bool link_append(cfg_link **list, void *data)
{
    auto *node = zalloc<cfg_link>();
    if (node == nullptr)
        return false;
    node->data = data;
    while (*list != nullptr)
        list = &(*list)->next;
    *list = node;
    return true;
}

int link_count(const cfg_link *list)
{
    int count = 0;
    for (; list != nullptr; list = list->next)
        count++;
    return count;
}

// Unlinks the first node whose data satisfies match; returns its data (the
// caller frees it) or nullptr when none matches.
template <typename Match> void *link_remove_first(cfg_link **list, Match match)
{
    for (; *list != nullptr; list = &(*list)->next) {
        if (!match((*list)->data))
            continue;
        cfg_link *node = *list;
        void *data = node->data;
        *list = node->next;
        free(node);
        return data;
    }
    return nullptr;
}

// Frees every node of a list, handing each node's data to release first.
template <typename Release> void link_free_all(cfg_link **list, Release release)
{
    cfg_link *node = *list;
    while (node != nullptr) {
        cfg_link *next = node->next;
        release(node->data);
        free(node);
        node = next;
    }
    *list = nullptr;
}

bool is_map_or_if(const cfg_schema_element *elem)
{
    return elem != nullptr && (elem->type == CFG_TYPE_MAP || elem->type == CFG_TYPE_IF);
}

// The member lists of a map or if element, or nullptr for other types.
cfg_schema_members *members_of(cfg_schema_element *elem)
{
    if (elem == nullptr)
        return nullptr;
    if (elem->type == CFG_TYPE_MAP)
        return &elem->u.map;
    if (elem->type == CFG_TYPE_IF)
        return &elem->u.cond.members;
    return nullptr;
}

// Member list which (0 required, 1 optional, 2 deprecated), or nullptr.
cfg_link **member_list(cfg_schema_element *elem, int which)
{
    cfg_schema_members *members = members_of(elem);
    if (members == nullptr)
        return nullptr;
    switch (which) {
    case 0: return &members->required;
    case 1: return &members->optional;
    case 2: return &members->deprecated;
    default: return nullptr;
    }
}

// The allowed-value list of an int, float or string element, or nullptr.
cfg_link **allowed_list(cfg_schema_element *elem)
{
    if (elem == nullptr)
        return nullptr;
    switch (elem->type) {
    case CFG_TYPE_INT: return &elem->u.integer.allowed;
    case CFG_TYPE_FLOAT: return &elem->u.real.allowed;
    case CFG_TYPE_STRING: return &elem->u.string.allowed;
    default: return nullptr;
    }
}

// Frees allowed-value entries; string entries own their text.
void free_allowed(cfg_link **list, bool strings)
{
    link_free_all(list, [strings](void *data) {
        auto *entry = static_cast<cfg_schema_allowed *>(data);
        if (strings)
            free(entry->value.string_value);
        free(entry);
    });
}

void free_mapid(void *data)
{
    auto *link = static_cast<cfg_schema_mapid *>(data);
    free(link->key);
    free(link);
}

void free_tag(void *data)
{
    auto *tag = static_cast<cfg_schema_tag *>(data);
    free(tag->key);
    free(tag->value);
    free(tag);
}

void free_strings(char **texts, int count)
{
    for (int i = 0; i < count; i++)
        free(texts[i]);
    free(texts);
}

} // namespace

cfg_schema_validator *zr::free_schema_validator(cfg_schema_validator *validator)
{
    free(validator->name);
    free_strings(validator->params, validator->params_count);
    free_strings(validator->paths, validator->paths_count);
    free(validator);
    return nullptr;
}

namespace {

void free_members(cfg_schema_members *members)
{
    link_free_all(&members->required, free_mapid);
    link_free_all(&members->optional, free_mapid);
    link_free_all(&members->deprecated, free_mapid);
    link_free_all(&members->conditionals, free);
}

// Frees what the type-specific part of elem owns.
void free_type_part(cfg_schema_element *elem)
{
    switch (elem->type) {
    case CFG_TYPE_INT:
    case CFG_TYPE_FLOAT: free_allowed(allowed_list(elem), false); break;
    case CFG_TYPE_STRING:
        free(elem->u.string.regex);
        free(elem->u.string.default_value);
        free_allowed(&elem->u.string.allowed, true);
        break;
    case CFG_TYPE_LIST: free(elem->u.list.element_type_name); break;
    case CFG_TYPE_MAP: free_members(&elem->u.map); break;
    case CFG_TYPE_REFERENCE: free(elem->u.reference.target); break;
    case CFG_TYPE_IF:
        free_members(&elem->u.cond.members);
        free(elem->u.cond.path);
        if (elem->u.cond.value_type == 3)
            free(elem->u.cond.value.string_value);
        break;
    default: break;
    }
}

// Records displaced from a schema's uuid map by a later record with the same
// id. A caller may still hold one, so it stays allocated until its schema is
// released (or until someone frees it: cfg_free_schema_element forgets it).
// Process-wide, behind a mutex; the count spares the lock while it is empty.
struct displaced_records {
    std::mutex lock;
    std::unordered_map<cfg_schema_element *, cfg_schema *> owner;
    std::atomic<size_t> count{0};
};

displaced_records &displaced()
{
    static displaced_records records;
    return records;
}

void keep_displaced(cfg_schema *schema, cfg_schema_element *elem)
{
    displaced_records &records = displaced();
    std::lock_guard<std::mutex> guard(records.lock);
    records.owner[elem] = schema;
    records.count = records.owner.size();
}

void forget_displaced(cfg_schema_element *elem)
{
    displaced_records &records = displaced();
    if (records.count == 0)
        return;
    std::lock_guard<std::mutex> guard(records.lock);
    records.owner.erase(elem);
    records.count = records.owner.size();
}

// A zeroed record of type under uuid (a fresh one when null), registered in
// the context's schema; nullptr without a context or schema. A record that
// held the id before is kept with the schema, not lost.
cfg_schema_element *register_element(cfg *context, const char *uuid, int type)
{
    if (context == nullptr || context->schema == nullptr)
        return nullptr;
    auto *elem = zalloc<cfg_schema_element>();
    if (elem == nullptr)
        return nullptr;
    elem->type = type;
    if (uuid != nullptr)
        copy_uuid(elem->uuid, uuid);
    else
        gen_uuid(elem->uuid);
    cfg_schema_element *before = cfg_get_schema_node(context, elem->uuid);
    if (!cfg_add_schema_elem(&context->schema->elements, elem)) {
        free(elem);
        return nullptr;
    }
    if (before != nullptr)
        keep_displaced(context->schema, before);
    return elem;
}

// Unmaps and frees an element whose construction ran out of memory after it
// was registered; always nullptr.
cfg_schema_element *drop_registered(cfg *context, cfg_schema_element *elem)
{
    if (cfg_get_schema_node(context, elem->uuid) == elem)
        cfg_delete_schema_elem(&context->schema->elements, elem->uuid);
    cfg_free_schema_element(elem);
    return nullptr;
}

// Whether a copy of text was wanted and could not be made.
bool copy_failed(const char *text, const char *copy)
{
    return text != nullptr && copy == nullptr;
}

cfg_schema_element *mark_new(cfg_schema_element *elem)
{
    if (elem != nullptr)
        elem->flags |= CFG_FLAG_NEW;
    return elem;
}

} // namespace

namespace {

// Sets the limits shared by the numeric, string, blob and list parts.
template <typename Part, typename T>
void set_limits(Part &part, int has_min, T min, int has_max, T max)
{
    part.has_min = has_min;
    part.min = min;
    part.has_max = has_max;
    part.max = max;
}

template <typename Part, typename T>
void set_numeric(Part &part, int has_min, T min, int has_max, T max, int has_default,
                 T default_value)
{
    set_limits(part, has_min, min, has_max, max);
    part.has_default = has_default;
    part.default_value = default_value;
}

} // namespace

// ------------------------------------------------------------------------
// Constructors
// ------------------------------------------------------------------------

extern "C" cfg_schema_element *cfg_init_schema_bool(cfg *context, const char *uuid,
                                                    int has_default, int default_value)
{
    cfg_schema_element *elem = register_element(context, uuid, CFG_TYPE_BOOL);
    if (elem != nullptr) {
        elem->u.boolean.has_default = has_default;
        elem->u.boolean.default_value = default_value;
    }
    return elem;
}

extern "C" cfg_schema_element *cfg_new_schema_bool(cfg *context, int has_default,
                                                   int default_value)
{
    return mark_new(cfg_init_schema_bool(context, nullptr, has_default, default_value));
}

extern "C" cfg_schema_element *cfg_load_schema_bool(cfg *context, const char *uuid,
                                                    int has_default, int default_value)
{
    return cfg_init_schema_bool(context, uuid, has_default, default_value);
}

extern "C" cfg_schema_element *cfg_init_schema_int(cfg *context, const char *uuid,
                                                   int has_max, int max, int has_min, int min,
                                                   int has_default, int default_value)
{
    cfg_schema_element *elem = register_element(context, uuid, CFG_TYPE_INT);
    if (elem != nullptr) {
        set_numeric(elem->u.integer, has_min, min, has_max, max, has_default, default_value);
    }
    return elem;
}

extern "C" cfg_schema_element *cfg_new_schema_int(cfg *context, int has_max, int max,
                                                  int has_min, int min, int has_default,
                                                  int default_value)
{
    return mark_new(cfg_init_schema_int(context, nullptr, has_max, max, has_min, min,
                                        has_default, default_value));
}

extern "C" cfg_schema_element *cfg_load_schema_int(cfg *context, const char *uuid,
                                                   int has_max, int max, int has_min, int min,
                                                   int has_default, int default_value)
{
    return cfg_init_schema_int(context, uuid, has_max, max, has_min, min, has_default,
                               default_value);
}

extern "C" cfg_schema_element *cfg_init_schema_float(cfg *context, const char *uuid,
                                                     int has_max, int has_min,
                                                     int has_default, double max, double min,
                                                     double default_value)
{
    cfg_schema_element *elem = register_element(context, uuid, CFG_TYPE_FLOAT);
    if (elem != nullptr) {
        set_numeric(elem->u.real, has_min, min, has_max, max, has_default, default_value);
    }
    return elem;
}

extern "C" cfg_schema_element *cfg_new_schema_float(cfg *context, int has_max, int has_min,
                                                    int has_default, double max, double min,
                                                    double default_value)
{
    return mark_new(cfg_init_schema_float(context, nullptr, has_max, has_min, has_default,
                                          max, min, default_value));
}

extern "C" cfg_schema_element *cfg_load_schema_float(cfg *context, const char *uuid,
                                                     int has_max, int has_min,
                                                     int has_default, double max, double min,
                                                     double default_value)
{
    return cfg_init_schema_float(context, uuid, has_max, has_min, has_default, max, min,
                                 default_value);
}

extern "C" cfg_schema_element *cfg_init_schema_string(cfg *context, const char *uuid,
                                                      int has_max, int max, int has_min,
                                                      int min, const char *default_value,
                                                      const char *regex)
{
    cfg_schema_element *elem = register_element(context, uuid, CFG_TYPE_STRING);
    if (elem != nullptr) {
        auto &part = elem->u.string;
        set_limits(part, has_min, min, has_max, max);
        part.has_regex = regex != nullptr;
        part.regex = dup_or_null(regex);
        part.has_default = default_value != nullptr;
        part.default_value = dup_or_null(default_value);
        if (copy_failed(regex, part.regex) || copy_failed(default_value, part.default_value))
            return drop_registered(context, elem);
    }
    return elem;
}

extern "C" cfg_schema_element *cfg_new_schema_string(cfg *context, int has_max, int max,
                                                     int has_min, int min,
                                                     const char *default_value,
                                                     const char *regex)
{
    return mark_new(cfg_init_schema_string(context, nullptr, has_max, max, has_min, min,
                                           default_value, regex));
}

extern "C" cfg_schema_element *cfg_load_schema_string(cfg *context, const char *uuid,
                                                      int has_max, int max, int has_min,
                                                      int min, const char *default_value,
                                                      const char *regex)
{
    return cfg_init_schema_string(context, uuid, has_max, max, has_min, min, default_value,
                                  regex);
}

extern "C" cfg_schema_element *cfg_init_schema_blob(cfg *context, const char *uuid,
                                                    int has_max, int max, int has_min, int min)
{
    cfg_schema_element *elem = register_element(context, uuid, CFG_TYPE_BLOB);
    if (elem != nullptr) {
        set_limits(elem->u.blob, has_min, min, has_max, max);
    }
    return elem;
}

extern "C" cfg_schema_element *cfg_new_schema_blob(cfg *context, int has_max, int max,
                                                   int has_min, int min)
{
    return mark_new(cfg_init_schema_blob(context, nullptr, has_max, max, has_min, min));
}

extern "C" cfg_schema_element *cfg_load_schema_blob(cfg *context, const char *uuid,
                                                    int has_max, int max, int has_min, int min)
{
    return cfg_init_schema_blob(context, uuid, has_max, max, has_min, min);
}

extern "C" cfg_schema_element *cfg_init_schema_list(cfg *context, const char *uuid,
                                                    int has_max, int max, int has_min, int min,
                                                    int element_kind, int element_type,
                                                    const char *element_type_name)
{
    cfg_schema_element *elem = register_element(context, uuid, CFG_TYPE_LIST);
    if (elem != nullptr) {
        auto &part = elem->u.list;
        part.element_kind = element_kind;
        set_limits(part, has_min, min, has_max, max);
        part.element_type = element_type;
        part.element_type_name = dup_or_null(element_type_name);
        if (copy_failed(element_type_name, part.element_type_name))
            return drop_registered(context, elem);
    }
    return elem;
}

extern "C" cfg_schema_element *cfg_new_schema_list(cfg *context, int has_max, int max,
                                                   int has_min, int min, int element_kind,
                                                   int element_type,
                                                   const char *element_type_name)
{
    return mark_new(cfg_init_schema_list(context, nullptr, has_max, max, has_min, min,
                                         element_kind, element_type, element_type_name));
}

extern "C" cfg_schema_element *cfg_load_schema_list(cfg *context, const char *uuid,
                                                    int has_max, int max, int has_min, int min,
                                                    int element_kind, int element_type,
                                                    const char *element_type_name)
{
    return cfg_init_schema_list(context, uuid, has_max, max, has_min, min, element_kind,
                                element_type, element_type_name);
}

extern "C" cfg_schema_element *cfg_init_schema_map(cfg *context, const char *uuid)
{
    return register_element(context, uuid, CFG_TYPE_MAP);
}

extern "C" cfg_schema_element *cfg_new_schema_map(cfg *context)
{
    return mark_new(cfg_init_schema_map(context, nullptr));
}

extern "C" cfg_schema_element *cfg_load_schema_map(cfg *context, const char *uuid)
{
    return cfg_init_schema_map(context, uuid);
}

extern "C" cfg_schema_element *cfg_init_schema_reference(cfg *context, const char *uuid)
{
    return register_element(context, uuid, CFG_TYPE_REFERENCE);
}

extern "C" cfg_schema_element *cfg_new_schema_reference(cfg *context, const char *target)
{
    return mark_new(cfg_load_schema_reference(context, nullptr, target));
}

extern "C" cfg_schema_element *cfg_load_schema_reference(cfg *context, const char *uuid,
                                                         const char *target)
{
    cfg_schema_element *elem = cfg_init_schema_reference(context, uuid);
    if (elem != nullptr) {
        elem->u.reference.target = dup_or_null(target);
        if (copy_failed(target, elem->u.reference.target))
            return drop_registered(context, elem);
    }
    return elem;
}

extern "C" cfg_schema_element *cfg_init_schema_if(cfg *context, const char *uuid,
                                                  const char *path, int op, int value_type,
                                                  cfg_schema_value value, int eval_priority)
{
    cfg_schema_element *elem = register_element(context, uuid, CFG_TYPE_IF);
    if (elem == nullptr)
        return nullptr;
    auto &part = elem->u.cond;
    part.path = dup_or_null(path);
    part.op = op;
    part.eval_priority = eval_priority;
    if (op != 1) {
        part.value_type = value_type;
        part.value = value;
        if (value_type == 3)
            part.value.string_value = dup_or_null(value.string_value);
    }
    if (copy_failed(path, part.path) ||
        (op != 1 && value_type == 3 &&
         copy_failed(value.string_value, part.value.string_value)))
        return drop_registered(context, elem);
    return elem;
}

extern "C" cfg_schema_element *cfg_new_schema_if(cfg *context, const char *path, int op,
                                                 int value_type, cfg_schema_value value,
                                                 int eval_priority)
{
    return mark_new(
        cfg_init_schema_if(context, nullptr, path, op, value_type, value, eval_priority));
}

extern "C" cfg_schema_element *cfg_load_schema_if(cfg *context, const char *uuid,
                                                  const char *path, int op, int value_type,
                                                  cfg_schema_value value,
                                                  const char *value_id, int eval_priority)
{
    cfg_schema_element *elem =
        cfg_init_schema_if(context, uuid, path, op, value_type, value, eval_priority);
    if (elem == nullptr)
        return nullptr;
    // gen_uuid writes a 256-byte field; the value id holds 64 bytes, so keep
    // at most 63 characters and the terminator.
    char generated[CFG_UUID_SIZE];
    if (value_id == nullptr) {
        gen_uuid(generated);
        value_id = generated;
    }
    char *id = elem->u.cond.value_id;
    size_t len = strnlen(value_id, sizeof elem->u.cond.value_id - 1);
    memcpy(id, value_id, len);
    id[len] = '\0';
    return elem;
}

// ------------------------------------------------------------------------
// Member and conditional links
// ------------------------------------------------------------------------

extern "C" bool cfg_load_schema_mapid(cfg_schema_element *elem, int which, const char *key,
                                      const char *uuid)
{
    cfg_link **list = member_list(elem, which);
    if (list == nullptr || key == nullptr || uuid == nullptr)
        return false;
    auto *link = zalloc<cfg_schema_mapid>();
    if (link == nullptr)
        return false;
    copy_uuid(link->uuid, uuid);
    link->type = CFG_TYPE_MAP;
    link->key = strdup(key);
    if (link->key == nullptr || !link_append(list, link)) {
        free_mapid(link);
        return false;
    }
    return true;
}

extern "C" bool cfg_load_schema_mapconditional(cfg_schema_element *elem, const char *uuid)
{
    cfg_schema_members *members = members_of(elem);
    if (members == nullptr || uuid == nullptr)
        return false;
    auto *link = zalloc<cfg_schema_mapconditional>();
    if (link == nullptr)
        return false;
    copy_uuid(link->uuid, uuid);
    link->type = CFG_TYPE_LIST;
    link->index = link_count(members->conditionals);
    if (!link_append(&members->conditionals, link)) {
        free(link);
        return false;
    }
    return true;
}

// ------------------------------------------------------------------------
// Value readers
// ------------------------------------------------------------------------

namespace {

template <typename T> void put(T *out, T value)
{
    if (out != nullptr)
        *out = value;
}

bool is_type(const cfg_schema_element *elem, int type)
{
    return elem != nullptr && elem->type == type;
}

template <typename Part, typename T>
void get_limits(const Part &part, int *has_min, T *min, int *has_max, T *max)
{
    put(has_min, part.has_min);
    put(min, part.min);
    put(has_max, part.has_max);
    put(max, part.max);
}

template <typename Part, typename T>
void get_numeric(const Part &part, int *has_min, T *min, int *has_max, T *max,
                 int *has_default, T *default_value)
{
    get_limits(part, has_min, min, has_max, max);
    put(has_default, part.has_default);
    put(default_value, part.default_value);
}

} // namespace

extern "C" bool cfg_schema_bool_values(cfg_schema_element *elem, int *has_default,
                                       int *default_value)
{
    if (!is_type(elem, CFG_TYPE_BOOL))
        return false;
    put(has_default, elem->u.boolean.has_default);
    put(default_value, elem->u.boolean.default_value);
    return true;
}

extern "C" bool cfg_schema_int_values(cfg_schema_element *elem, int *has_min, int *min,
                                      int *has_max, int *max, int *has_default,
                                      int *default_value)
{
    if (!is_type(elem, CFG_TYPE_INT))
        return false;
    get_numeric(elem->u.integer, has_min, min, has_max, max, has_default, default_value);
    return true;
}

extern "C" bool cfg_schema_float_values(cfg_schema_element *elem, int *has_min, double *min,
                                        int *has_max, double *max, int *has_default,
                                        double *default_value)
{
    if (!is_type(elem, CFG_TYPE_FLOAT))
        return false;
    get_numeric(elem->u.real, has_min, min, has_max, max, has_default, default_value);
    return true;
}

extern "C" bool cfg_schema_string_values(cfg_schema_element *elem, int *has_max, int *max,
                                         int *has_min, int *min, char **default_value,
                                         char **regex)
{
    if (!is_type(elem, CFG_TYPE_STRING))
        return false;
    const auto &part = elem->u.string;
    get_limits(part, has_min, min, has_max, max);
    if (default_value != nullptr)
        *default_value = part.has_default ? dup_or_null(part.default_value) : nullptr;
    if (regex != nullptr)
        *regex = part.has_regex ? dup_or_null(part.regex) : nullptr;
    return true;
}

extern "C" bool cfg_schema_blob_values(cfg_schema_element *elem, int *has_min, int *min,
                                       int *has_max, int *max)
{
    if (!is_type(elem, CFG_TYPE_BLOB))
        return false;
    get_limits(elem->u.blob, has_min, min, has_max, max);
    return true;
}

extern "C" bool cfg_schema_list_values(cfg_schema_element *elem, int *element_kind,
                                       int *has_min, int *min, int *has_max, int *max,
                                       int *element_type, char **element_type_name)
{
    if (!is_type(elem, CFG_TYPE_LIST))
        return false;
    const auto &part = elem->u.list;
    put(element_kind, part.element_kind);
    get_limits(part, has_min, min, has_max, max);
    put(element_type, part.element_type);
    if (element_type_name != nullptr)
        *element_type_name = dup_or_null(part.element_type_name);
    return true;
}

extern "C" bool cfg_schema_reference_value(cfg_schema_element *elem, char **target)
{
    if (!is_type(elem, CFG_TYPE_REFERENCE))
        return false;
    const char *own = elem->u.reference.target;
    if (target != nullptr)
        *target = dup_or_null(own);
    return own != nullptr;
}

extern "C" bool cfg_schema_if_values(cfg_schema_element *elem, char **path, int *op,
                                     int *value_type, cfg_schema_value *value,
                                     int *eval_priority)
{
    if (!is_type(elem, CFG_TYPE_IF))
        return false;
    const auto &part = elem->u.cond;
    if (path != nullptr)
        *path = dup_or_null(part.path);
    put(op, part.op);
    put(value_type, part.value_type);
    if (value != nullptr) {
        *value = part.value;
        if (part.value_type == 3)
            value->string_value = dup_or_null(part.value.string_value);
    }
    put(eval_priority, part.eval_priority);
    return true;
}

extern "C" bool cfg_schema_elem_type(cfg_schema_element *elem, int *out)
{
    if (elem == nullptr || out == nullptr)
        return false;
    *out = elem->type;
    return true;
}

extern "C" bool cfg_schema_elem_uuid(cfg_schema_element *elem, char **out)
{
    if (elem == nullptr || out == nullptr)
        return false;
    *out = strdup(elem->uuid);
    return *out != nullptr;
}

extern "C" bool cfg_schema_elem_generation(cfg_schema_element *elem, int *out)
{
    if (elem == nullptr || out == nullptr)
        return false;
    *out = elem->generation;
    return true;
}

// ------------------------------------------------------------------------
// Setters
// ------------------------------------------------------------------------

namespace {

// Gives fresh what a replacement keeps of old, marks old's members deleted
// and releases old; fresh has already taken old's place in the uuid map.
// Old's members stay mapped, flagged deleted, so that a commit reports them.
cfg_schema_element *finish_replacement(cfg *context, cfg_schema_element *old,
                                       cfg_schema_element *fresh)
{
    if (fresh == nullptr)
        return nullptr;
    fresh->flags = old->flags | CFG_FLAG_CHANGED;
    fresh->generation = old->generation;
    fresh->tags = old->tags;
    old->tags = nullptr;
    // Allowed entries move only between records of one type: an int entry
    // read as a string would be a stray pointer.
    cfg_link **from = allowed_list(old);
    cfg_link **to = allowed_list(fresh);
    if (from != nullptr && to != nullptr && old->type == fresh->type) {
        *to = *from;
        *from = nullptr;
    }
    cfg_delete_schema_members(context, old);
    if (cfg_get_schema_node(context, old->uuid) == old)
        cfg_delete_schema_elem(&context->schema->elements, old->uuid);
    if (context->schema->root == old)
        context->schema->root = fresh;
    cfg_free_schema_element(old);
    return fresh;
}

} // namespace

extern "C" cfg_schema_element *cfg_set_schema_bool(cfg *context, cfg_schema_element *old,
                                                   int has_default, int default_value)
{
    if (old == nullptr)
        return nullptr;
    return finish_replacement(
        context, old, cfg_load_schema_bool(context, old->uuid, has_default, default_value));
}

extern "C" cfg_schema_element *cfg_set_schema_int(cfg *context, cfg_schema_element *old,
                                                  int has_min, int min, int has_max, int max,
                                                  int has_default, int default_value)
{
    if (old == nullptr)
        return nullptr;
    return finish_replacement(context, old,
                              cfg_load_schema_int(context, old->uuid, has_max, max, has_min,
                                                  min, has_default, default_value));
}

extern "C" cfg_schema_element *cfg_set_schema_float(cfg *context, cfg_schema_element *old,
                                                    int has_min, double min, int has_max,
                                                    double max, int has_default,
                                                    double default_value)
{
    if (old == nullptr)
        return nullptr;
    return finish_replacement(context, old,
                              cfg_load_schema_float(context, old->uuid, has_max, has_min,
                                                    has_default, max, min, default_value));
}

extern "C" cfg_schema_element *cfg_set_schema_string(cfg *context, cfg_schema_element *old,
                                                     int has_min, int min, int has_max,
                                                     int max, const char *regex,
                                                     const char *default_value)
{
    if (old == nullptr)
        return nullptr;
    return finish_replacement(context, old,
                              cfg_load_schema_string(context, old->uuid, has_max, max,
                                                     has_min, min, default_value, regex));
}

extern "C" cfg_schema_element *cfg_set_schema_blob(cfg *context, cfg_schema_element *old,
                                                   int has_min, int min, int has_max, int max)
{
    if (old == nullptr)
        return nullptr;
    return finish_replacement(
        context, old, cfg_load_schema_blob(context, old->uuid, has_max, max, has_min, min));
}

extern "C" cfg_schema_element *cfg_set_schema_list(cfg *context, cfg_schema_element *old,
                                                   int element_kind, int has_min, int min,
                                                   int has_max, int max, int element_type,
                                                   const char *element_type_name)
{
    if (old == nullptr)
        return nullptr;
    return finish_replacement(context, old,
                              cfg_load_schema_list(context, old->uuid, has_max, max, has_min,
                                                   min, element_kind, element_type,
                                                   element_type_name));
}

extern "C" cfg_schema_element *cfg_set_schema_map(cfg *context, cfg_schema_element *old)
{
    if (old == nullptr)
        return nullptr;
    return finish_replacement(context, old, cfg_load_schema_map(context, old->uuid));
}

extern "C" cfg_schema_element *cfg_set_schema_reference(cfg *context,
                                                        cfg_schema_element *old,
                                                        const char *target)
{
    if (old == nullptr)
        return nullptr;
    return finish_replacement(context, old,
                              cfg_load_schema_reference(context, old->uuid, target));
}

extern "C" cfg_schema_element *cfg_set_schema_if(cfg *context, cfg_schema_element *old,
                                                 const char *path, int op, int value_type,
                                                 cfg_schema_value value,
                                                 const char *value_id, int eval_priority)
{
    if (old == nullptr)
        return nullptr;
    return finish_replacement(context, old,
                              cfg_load_schema_if(context, old->uuid, path, op, value_type,
                                                 value, value_id, eval_priority));
}

// ------------------------------------------------------------------------
// Allowed values
// ------------------------------------------------------------------------

namespace {

// Appends an allowed entry to an element of type; false for any other.
bool add_allowed(cfg_schema_element *elem, int type, cfg_schema_value value)
{
    if (!is_type(elem, type))
        return false;
    auto *entry = zalloc<cfg_schema_allowed>();
    if (entry == nullptr || !link_append(allowed_list(elem), entry)) {
        free(entry);
        return false;
    }
    entry->type = 1;
    entry->value = value;
    elem->flags |= CFG_FLAG_CHANGED;
    return true;
}

// Removes and frees the first entry that match accepts.
template <typename Match>
bool delete_allowed(cfg_schema_element *elem, int type, Match match)
{
    if (!is_type(elem, type))
        return false;
    void *data = link_remove_first(allowed_list(elem), [&](void *d) {
        return match(static_cast<cfg_schema_allowed *>(d)->value);
    });
    if (data == nullptr)
        return false;
    if (type == CFG_TYPE_STRING)
        free(static_cast<cfg_schema_allowed *>(data)->value.string_value);
    free(data);
    elem->flags |= CFG_FLAG_CHANGED;
    return true;
}

int allowed_size(cfg_schema_element *elem, int type)
{
    return is_type(elem, type) ? link_count(*allowed_list(elem)) : 0;
}

// The entry at a zero-based index, or nullptr.
const cfg_schema_allowed *allowed_at(cfg_schema_element *elem, int type, int index)
{
    if (!is_type(elem, type) || index < 0)
        return nullptr;
    cfg_link *node = *allowed_list(elem);
    for (; node != nullptr && index > 0; index--)
        node = node->next;
    return node != nullptr ? static_cast<cfg_schema_allowed *>(node->data) : nullptr;
}

} // namespace

extern "C" bool cfg_add_schema_int_allowed(cfg *, cfg_schema_element *elem, int value)
{
    cfg_schema_value v{};
    v.int_value = value;
    return add_allowed(elem, CFG_TYPE_INT, v);
}

extern "C" bool cfg_delete_schema_int_allowed(cfg_schema_element *elem, int value)
{
    return delete_allowed(elem, CFG_TYPE_INT,
                          [value](const cfg_schema_value &v) { return v.int_value == value; });
}

extern "C" int cfg_schema_int_allowed_size(cfg_schema_element *elem)
{
    return allowed_size(elem, CFG_TYPE_INT);
}

extern "C" bool cfg_schema_int_get_allowed_index(cfg_schema_element *elem, int index,
                                                 int *value)
{
    const cfg_schema_allowed *entry = allowed_at(elem, CFG_TYPE_INT, index);
    if (entry == nullptr)
        return false;
    put(value, entry->value.int_value);
    return true;
}

extern "C" bool cfg_add_schema_float_allowed(cfg *, cfg_schema_element *elem, double value)
{
    cfg_schema_value v{};
    v.float_value = value;
    return add_allowed(elem, CFG_TYPE_FLOAT, v);
}

extern "C" bool cfg_delete_schema_float_allowed(cfg_schema_element *elem, double value)
{
    return delete_allowed(elem, CFG_TYPE_FLOAT, [value](const cfg_schema_value &v) {
        return v.float_value == value;
    });
}

extern "C" int cfg_schema_float_allowed_size(cfg_schema_element *elem)
{
    return allowed_size(elem, CFG_TYPE_FLOAT);
}

extern "C" bool cfg_schema_float_get_allowed_index(cfg_schema_element *elem, int index,
                                                   double *value)
{
    const cfg_schema_allowed *entry = allowed_at(elem, CFG_TYPE_FLOAT, index);
    if (entry == nullptr)
        return false;
    put(value, entry->value.float_value);
    return true;
}

extern "C" bool cfg_add_schema_string_allowed(cfg *, cfg_schema_element *elem,
                                              const char *value)
{
    if (value == nullptr || !is_type(elem, CFG_TYPE_STRING))
        return false;
    cfg_schema_value v{};
    v.string_value = strdup(value);
    if (v.string_value != nullptr && add_allowed(elem, CFG_TYPE_STRING, v))
        return true;
    free(v.string_value);
    return false;
}

extern "C" bool cfg_delete_schema_string_allowed(cfg_schema_element *elem, const char *value)
{
    if (value == nullptr)
        return false;
    return delete_allowed(elem, CFG_TYPE_STRING, [value](const cfg_schema_value &v) {
        return v.string_value != nullptr && strcmp(v.string_value, value) == 0;
    });
}

extern "C" int cfg_schema_string_allowed_size(cfg_schema_element *elem)
{
    return allowed_size(elem, CFG_TYPE_STRING);
}

extern "C" bool cfg_schema_string_get_allowed_index(cfg_schema_element *elem, int index,
                                                    char **value)
{
    const cfg_schema_allowed *entry = allowed_at(elem, CFG_TYPE_STRING, index);
    if (entry == nullptr)
        return false;
    if (value != nullptr)
        *value = dup_or_null(entry->value.string_value);
    return true;
}

// ------------------------------------------------------------------------
// Tags
// ------------------------------------------------------------------------

namespace {

auto tag_key_is(const char *key)
{
    return [key](void *data) { return strcmp(static_cast<cfg_schema_tag *>(data)->key, key) == 0; };
}

} // namespace

extern "C" bool cfg_add_schema_tag(cfg_schema_element *elem, const char *key,
                                   const char *value)
{
    if (elem == nullptr || key == nullptr || value == nullptr)
        return false;
    auto *tag = zalloc<cfg_schema_tag>();
    if (tag == nullptr)
        return false;
    tag->type = CFG_TYPE_STRING;
    tag->key = strdup(key);
    tag->value = strdup(value);
    if (tag->key == nullptr || tag->value == nullptr || !link_append(&elem->tags, tag)) {
        free_tag(tag);
        return false;
    }
    elem->flags |= CFG_FLAG_CHANGED;
    return true;
}

extern "C" const char *cfg_get_schema_tag(cfg_schema_element *elem, const char *key)
{
    if (elem == nullptr || key == nullptr)
        return nullptr;
    auto matches = tag_key_is(key);
    for (cfg_link *node = elem->tags; node != nullptr; node = node->next)
        if (matches(node->data))
            return static_cast<cfg_schema_tag *>(node->data)->value;
    return nullptr;
}

extern "C" bool cfg_delete_schema_tag(cfg_schema_element *elem, const char *key)
{
    if (elem == nullptr || key == nullptr)
        return false;
    void *tag = link_remove_first(&elem->tags, tag_key_is(key));
    if (tag == nullptr)
        return false;
    free_tag(tag);
    elem->flags |= CFG_FLAG_CHANGED;
    return true;
}

extern "C" bool cfg_schema_tags(cfg_schema_element *elem, cfg_link **tags, int *count)
{
    if (elem == nullptr)
        return false;
    put(tags, elem->tags);
    put(count, link_count(elem->tags));
    return true;
}

// ------------------------------------------------------------------------
// Validators
// ------------------------------------------------------------------------

namespace {

// Grows an owned array of texts by one copy of text.
bool append_text(char ***texts, int *count, const char *text)
{
    if (text == nullptr)
        return false;
    auto *grown = static_cast<char **>(realloc(*texts, sizeof(char *) * (*count + 1)));
    if (grown == nullptr)
        return false;
    *texts = grown;
    if ((grown[*count] = strdup(text)) == nullptr)
        return false;
    (*count)++;
    return true;
}

} // namespace

extern "C" cfg_schema_validator *cfg_init_schema_validator(cfg *, const char *name)
{
    if (name == nullptr)
        return nullptr;
    auto *validator = zalloc<cfg_schema_validator>();
    if (validator != nullptr && (validator->name = strdup(name)) == nullptr) {
        free(validator);
        return nullptr;
    }
    return validator;
}

extern "C" bool cfg_validator_add_param(cfg_schema_validator *validator, const char *text)
{
    return validator != nullptr &&
           append_text(&validator->params, &validator->params_count, text);
}

extern "C" bool cfg_validator_add_path(cfg_schema_validator *validator, const char *text)
{
    return validator != nullptr &&
           append_text(&validator->paths, &validator->paths_count, text);
}

extern "C" bool cfg_schema_add_validator(cfg_schema_element *elem,
                                         cfg_schema_validator *validator)
{
    if (elem == nullptr || validator == nullptr)
        return false;
    size_t size = sizeof(cfg_schema_validator *) * (elem->validators_count + 1);
    auto *grown = static_cast<cfg_schema_validator **>(realloc(elem->validators, size));
    if (grown == nullptr)
        return false;
    grown[elem->validators_count++] = validator;
    elem->validators = grown;
    return true;
}

// ------------------------------------------------------------------------
// The uuid map
// ------------------------------------------------------------------------

extern "C" bool cfg_add_schema_elem(cfg_schema_index_entry **map, cfg_schema_element *elem)
{
    if (map == nullptr || elem == nullptr)
        return false;
    cfg_delete_schema_elem(map, elem->uuid);
    auto *entry = zalloc<cfg_schema_index_entry>();
    if (entry == nullptr)
        return false;
    entry->element = elem;
    memcpy(entry->uuid, elem->uuid, sizeof entry->uuid);
    HASH_ADD_KEYPTR(hh, *map, entry->uuid, strlen(entry->uuid), entry);
    if (!zr::hash_added(entry)) {
        free(entry);
        return false;
    }
    return true;
}

extern "C" bool cfg_delete_schema_elem(cfg_schema_index_entry **map, const char *uuid)
{
    if (map == nullptr || *map == nullptr || uuid == nullptr)
        return false;
    cfg_schema_index_entry *entry = nullptr;
    HASH_FIND(hh, *map, uuid, strlen(uuid), entry);
    if (entry == nullptr)
        return false;
    HASH_DEL(*map, entry);
    free(entry);
    return true;
}

extern "C" cfg_schema_element *cfg_get_schema_node(cfg *context, const char *uuid)
{
    if (context == nullptr || context->schema == nullptr || uuid == nullptr ||
        context->schema->elements == nullptr)
        return nullptr;
    cfg_schema_index_entry *entry = nullptr;
    HASH_FIND(hh, context->schema->elements, uuid, strlen(uuid), entry);
    return entry != nullptr ? entry->element : nullptr;
}

extern "C" struct cfg_schema_element *cfg_get_schema_by_id(cfg *context, const char *uuid)
{
    return cfg_get_schema_node(context, uuid);
}

// ------------------------------------------------------------------------
// Members and conditionals of map and if elements
// ------------------------------------------------------------------------

namespace {

auto mapid_key_is(const char *key)
{
    return [key](void *data) {
        return strcmp(static_cast<cfg_schema_mapid *>(data)->key, key) == 0;
    };
}

cfg_schema_mapid *find_mapid(cfg_link *list, const char *key)
{
    auto matches = mapid_key_is(key);
    for (; list != nullptr; list = list->next)
        if (matches(list->data))
            return static_cast<cfg_schema_mapid *>(list->data);
    return nullptr;
}

// A new array of copies of the texts that text_of gives for each node;
// false, with no array and a count of 0, when there is no memory for them.
template <typename TextOf>
bool copy_texts(cfg_link *list, char ***texts, int *count, TextOf text_of)
{
    int n = link_count(list);
    char **copies = n > 0 ? static_cast<char **>(calloc(n, sizeof(char *))) : nullptr;
    bool ok = n == 0 || copies != nullptr;
    for (int i = 0; ok && list != nullptr; list = list->next)
        ok = (copies[i++] = strdup(text_of(list->data))) != nullptr;
    if (!ok) {
        free_strings(copies, n);
        copies = nullptr;
        n = 0;
    }
    if (texts != nullptr)
        *texts = copies;
    else
        free_strings(copies, n);
    put(count, n);
    return ok;
}

// Numbers conditional links by their position again.
void renumber_conditionals(cfg_link *list)
{
    for (int i = 0; list != nullptr; list = list->next, i++)
        static_cast<cfg_schema_mapconditional *>(list->data)->index = i;
}

void mark_changed_by(cfg_schema_element *elem, const cfg_schema_element *linked)
{
    if (linked->flags & (CFG_FLAG_NEW | CFG_FLAG_CHANGED))
        elem->flags |= CFG_FLAG_CHANGED;
}

} // namespace

extern "C" bool cfg_schema_map_keys(cfg_schema_element *elem, int which, char ***keys,
                                    int *count)
{
    cfg_link **list = member_list(elem, which);
    if (list == nullptr)
        return false;
    return copy_texts(*list, keys, count,
                      [](void *data) { return static_cast<cfg_schema_mapid *>(data)->key; });
}

extern "C" const char *cfg_get_schema_mapelem(cfg_schema_element *elem, int which,
                                              const char *key)
{
    cfg_link **list = member_list(elem, which);
    if (list == nullptr || key == nullptr)
        return nullptr;
    cfg_schema_mapid *link = find_mapid(*list, key);
    return link != nullptr ? link->uuid : nullptr;
}

// A member already under key is marked deleted and its stale link dropped,
// so that lookups by key find the new member.
extern "C" bool cfg_add_schema_mapelem(cfg *context, cfg_schema_element *map, int which,
                                       const char *key, cfg_schema_element *member)
{
    if (!is_type(map, CFG_TYPE_MAP) || key == nullptr || member == nullptr)
        return false;
    cfg_link **list = member_list(map, which);
    if (list == nullptr)
        return false;
    if (auto *previous = static_cast<cfg_schema_mapid *>(link_remove_first(list, mapid_key_is(key)))) {
        cfg_schema_element *replaced = cfg_get_schema_node(context, previous->uuid);
        if (replaced != nullptr && replaced != member)
            cfg_delete_schema_element(context, replaced);
        free_mapid(previous);
    }
    cfg_load_schema_mapid(map, which, key, member->uuid);
    mark_changed_by(map, member);
    return true;
}

extern "C" bool cfg_schema_map_delete_key_linkage(cfg_schema_element *elem, int which,
                                                  const char *key)
{
    cfg_link **list = member_list(elem, which);
    if (list == nullptr || key == nullptr)
        return false;
    void *link = link_remove_first(list, mapid_key_is(key));
    if (link == nullptr)
        return false;
    free_mapid(link);
    elem->flags |= CFG_FLAG_CHANGED;
    return true;
}

extern "C" bool cfg_add_schema_map_conditionalelem(cfg *, cfg_schema_element *elem,
                                                   cfg_schema_element *if_elem)
{
    if (!is_map_or_if(elem) || !is_type(if_elem, CFG_TYPE_IF))
        return false;
    cfg_load_schema_mapconditional(elem, if_elem->uuid);
    mark_changed_by(elem, if_elem);
    return true;
}

extern "C" bool cfg_delete_schema_map_conditionalelem_linkage(cfg_schema_element *elem,
                                                              const char *uuid)
{
    cfg_schema_members *members = members_of(elem);
    if (members == nullptr || uuid == nullptr)
        return false;
    void *link = link_remove_first(&members->conditionals, [uuid](void *data) {
        return uuidcmp(static_cast<cfg_schema_mapconditional *>(data)->uuid, uuid) == 0;
    });
    if (link == nullptr)
        return false;
    free(link);
    renumber_conditionals(members->conditionals);
    elem->flags |= CFG_FLAG_CHANGED;
    return true;
}

extern "C" bool cfg_schema_map_conditional_size(cfg_schema_element *elem, int *count)
{
    cfg_schema_members *members = members_of(elem);
    if (members == nullptr)
        return false;
    put(count, link_count(members->conditionals));
    return true;
}

extern "C" const char *cfg_get_schema_map_conditionalelem(cfg_schema_element *elem, int i)
{
    cfg_schema_members *members = members_of(elem);
    if (members == nullptr || i < 0)
        return nullptr;
    cfg_link *node = members->conditionals;
    for (; node != nullptr && i > 0; i--)
        node = node->next;
    return node != nullptr ? static_cast<cfg_schema_mapconditional *>(node->data)->uuid
                           : nullptr;
}

// ------------------------------------------------------------------------
// Deletion marking and release
// ------------------------------------------------------------------------

namespace {

// Calls visit with the uuid of every required and optional member and every
// conditional of a map or if element, in that order.
template <typename Visit> void for_each_linked_uuid(cfg_schema_element *elem, Visit visit)
{
    cfg_schema_members *members = members_of(elem);
    if (members == nullptr)
        return;
    for (cfg_link *list : {members->required, members->optional, members->conditionals})
        for (cfg_link *node = list; node != nullptr; node = node->next)
            // Member and conditional links both begin with the uuid.
            visit(static_cast<const char *>(node->data));
}

void mark_deleted(cfg *context, cfg_schema_element *elem, element_set &seen);

// Marks everything reachable below elem; seen stops a cycle of links.
void mark_members_deleted(cfg *context, cfg_schema_element *elem, element_set &seen)
{
    for_each_linked_uuid(elem, [&](const char *uuid) {
        cfg_schema_element *child = cfg_get_schema_node(context, uuid);
        if (child != nullptr)
            mark_deleted(context, child, seen);
    });
}

void mark_deleted(cfg *context, cfg_schema_element *elem, element_set &seen)
{
    elem->flags |= CFG_FLAG_DELETED;
    if (seen.insert(elem).second)
        mark_members_deleted(context, elem, seen);
}

} // namespace

extern "C" void cfg_delete_schema_element(cfg *context, cfg_schema_element *elem)
{
    ZR_ASSERT(elem != nullptr, "elem");
    element_set seen;
    mark_deleted(context, elem, seen);
}

extern "C" void cfg_delete_schema_members(cfg *context, cfg_schema_element *elem)
{
    if (!is_map_or_if(elem))
        return;
    element_set seen{elem};
    mark_members_deleted(context, elem, seen);
    elem->flags |= CFG_FLAG_CHANGED;
}

void zr::release_displaced_schema_elements(cfg_schema *schema)
{
    displaced_records &records = displaced();
    if (records.count == 0)
        return;
    std::vector<cfg_schema_element *> released;
    {
        std::lock_guard<std::mutex> guard(records.lock);
        for (auto it = records.owner.begin(); it != records.owner.end();) {
            if (it->second == schema) {
                released.push_back(it->first);
                it = records.owner.erase(it);
            } else {
                ++it;
            }
        }
        records.count = records.owner.size();
    }
    for (cfg_schema_element *elem : released)
        cfg_free_schema_element(elem);
}

extern "C" void cfg_free_schema_element(cfg_schema_element *elem)
{
    if (elem == nullptr)
        return;
    forget_displaced(elem);
    for (int i = 0; i < elem->validators_count; i++)
        zr::free_schema_validator(elem->validators[i]);
    free(elem->validators);
    link_free_all(&elem->tags, free_tag);
    free_type_part(elem);
    free(elem);
}

namespace {

// Unmaps elem when the map still points at it, clears the root when elem is
// the root, and frees it.
void unmap_and_free(cfg *context, cfg_schema_element *elem)
{
    if (context != nullptr && context->schema != nullptr) {
        if (cfg_get_schema_node(context, elem->uuid) == elem)
            cfg_delete_schema_elem(&context->schema->elements, elem->uuid);
        if (context->schema->root == elem)
            context->schema->root = nullptr;
    }
    cfg_free_schema_element(elem);
}

} // namespace

// Goes one level down: the direct members and conditionals are unmapped and
// freed (each once, and never elem itself), then elem; elem's own entry is
// dropped only when it still points at elem, not at a replacement.
extern "C" void cfg_free_schema_element_base(cfg *context, cfg_schema_element *elem)
{
    if (elem == nullptr)
        return;
    for_each_linked_uuid(elem, [&](const char *uuid) {
        cfg_schema_element *child = cfg_get_schema_node(context, uuid);
        if (child != nullptr && child != elem)
            unmap_and_free(context, child);
    });
    unmap_and_free(context, elem);
}

// ------------------------------------------------------------------------
// Type registry
// ------------------------------------------------------------------------

namespace {

cfg_link **type_list(cfg *context)
{
    return context != nullptr && context->schema != nullptr ? &context->schema->types
                                                            : nullptr;
}

auto type_name_is(const char *name)
{
    return [name](void *data) {
        return strcmp(static_cast<cfg_schema_type *>(data)->name, name) == 0;
    };
}

} // namespace

extern "C" bool cfg_add_type(cfg *context, const char *name, const char *uuid)
{
    cfg_link **types = type_list(context);
    if (types == nullptr || name == nullptr || uuid == nullptr)
        return false;
    cfg_delete_type(context, name);
    auto *type = zalloc<cfg_schema_type>();
    if (type == nullptr)
        return false;
    copy_uuid(type->uuid, uuid);
    type->type = CFG_TYPE_MAP;
    type->name = strdup(name);
    if (type->name == nullptr || !link_append(types, type)) {
        free(type->name);
        free(type);
        return false;
    }
    return true;
}

extern "C" const char *cfg_get_type(cfg *context, const char *name)
{
    cfg_link **types = type_list(context);
    if (types == nullptr || name == nullptr)
        return nullptr;
    auto matches = type_name_is(name);
    for (cfg_link *node = *types; node != nullptr; node = node->next)
        if (matches(node->data))
            return static_cast<cfg_schema_type *>(node->data)->uuid;
    return nullptr;
}

extern "C" bool cfg_delete_type(cfg *context, const char *name)
{
    cfg_link **types = type_list(context);
    if (types == nullptr || name == nullptr)
        return false;
    auto *type = static_cast<cfg_schema_type *>(link_remove_first(types, type_name_is(name)));
    if (type == nullptr)
        return false;
    free(type->name);
    free(type);
    return true;
}

extern "C" bool cfg_types(cfg *context, char ***names, int *count)
{
    cfg_link **types = type_list(context);
    return copy_texts(types != nullptr ? *types : nullptr, names, count,
                      [](void *data) { return static_cast<cfg_schema_type *>(data)->name; });
}

// ------------------------------------------------------------------------
// Purging deprecated members
// ------------------------------------------------------------------------

namespace {

// The map or if element that elem stands for: itself, or for a list of a
// named type the element the type resolves to (repeatedly); else nullptr.
cfg_schema_element *resolve_named_type(cfg *context, cfg_schema_element *elem)
{
    element_set visited;
    while (elem != nullptr && !is_map_or_if(elem)) {
        if (!is_type(elem, CFG_TYPE_LIST) || elem->u.list.element_kind != 2 ||
            elem->u.list.element_type_name == nullptr || !visited.insert(elem).second)
            return nullptr;
        elem = cfg_get_schema_node(context, cfg_get_type(context, elem->u.list.element_type_name));
    }
    return elem;
}

bool purge_deprecated(cfg *context, cfg_schema_element *elem, element_set &seen)
{
    elem = resolve_named_type(context, elem);
    if (elem == nullptr)
        return false;
    if (!seen.insert(elem).second)
        return true;
    cfg_schema_members *members = members_of(elem);
    for (cfg_link *list : {members->required, members->optional})
        for (cfg_link *node = list; node != nullptr; node = node->next) {
            auto *link = static_cast<cfg_schema_mapid *>(node->data);
            purge_deprecated(context, cfg_get_schema_node(context, link->uuid), seen);
        }
    link_free_all(&members->deprecated, free_mapid);
    return true;
}

} // namespace

extern "C" bool cfg_schema_purge_deprecated(cfg *context, cfg_schema_element *elem)
{
    element_set seen;
    return purge_deprecated(context, elem, seen);
}

// ------------------------------------------------------------------------
// Release
// ------------------------------------------------------------------------

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
    zr::release_displaced_schema_elements(schema);
    release_types(schema->types);
    release_regex_cache(schema);
    free(schema);
    *handle = nullptr;
    return 1;
}
