// Plain nested JSON to elements through the schema, and elements back to
// plain JSON.
#include "plain_data.h"

#include <zrconfig.hpp>

#include <cctype>
#include <cstdlib>
#include <memory>

namespace zrplain {

// Depth bounds schemas whose conditionals name each other.
static cfg_schema_element *find_member(cfg *ctx, cfg_schema_element *map, const char *key,
                                       int depth)
{
    if (map == nullptr || depth > 32 || (map->type != CFG_TYPE_MAP && map->type != CFG_TYPE_IF))
        return nullptr;
    for (int which = 0; which < 3; which++) {
        if (const char *uuid = cfg_get_schema_mapelem(map, which, key))
            return cfg_get_schema_node(ctx, uuid);
    }
    int count = 0;
    cfg_schema_map_conditional_size(map, &count);
    for (int i = 0; i < count; i++) {
        cfg_schema_element *cond =
            cfg_get_schema_node(ctx, cfg_get_schema_map_conditionalelem(map, i));
        if (cfg_schema_element *found = find_member(ctx, cond, key, depth + 1))
            return found;
    }
    return nullptr;
}

cfg_schema_element *member_schema(cfg *ctx, cfg_schema_element *map, const char *key)
{
    return find_member(ctx, map, key, 0);
}

// Adds the keys of map and its conditionals to keys; depth bounds schemas
// whose conditionals name each other.
static void collect_keys(cfg *ctx, cfg_schema_element *map, std::vector<std::string> &keys,
                         int depth)
{
    if (map == nullptr || depth > 32)
        return;
    for (int which = 0; which < 3; which++) {
        char **names = nullptr;
        int count = 0;
        if (!cfg_schema_map_keys(map, which, &names, &count))
            return;
        for (int i = 0; i < count; i++) {
            keys.emplace_back(names[i]);
            free(names[i]);
        }
        free(names);
    }
    int conditionals = 0;
    cfg_schema_map_conditional_size(map, &conditionals);
    for (int i = 0; i < conditionals; i++)
        collect_keys(ctx, cfg_get_schema_node(ctx, cfg_get_schema_map_conditionalelem(map, i)),
                     keys, depth + 1);
}

std::vector<std::string> member_keys(cfg *ctx, cfg_schema_element *map)
{
    std::vector<std::string> keys;
    collect_keys(ctx, map, keys, 0);
    return keys;
}

cfg_schema_element *list_item_schema(cfg *ctx, cfg_schema_element *list_schema)
{
    if (list_schema == nullptr || list_schema->type != CFG_TYPE_LIST ||
        list_schema->u.list.element_kind != 2 || list_schema->u.list.element_type_name == nullptr)
        return nullptr;
    return cfg_get_schema_node(ctx, cfg_get_type(ctx, list_schema->u.list.element_type_name));
}

json_t *read_json_file(const std::string &path, std::string &error)
{
    json_error_t err;
    json_t *value = json_load_file(path.c_str(), 0, &err);
    if (value == nullptr)
        error = path + ":" + std::to_string(err.line) + ": " + err.text;
    return value;
}

const char *type_name(int type)
{
    switch (type) {
    case CFG_TYPE_BOOL:
        return "bool";
    case CFG_TYPE_INT:
        return "int";
    case CFG_TYPE_FLOAT:
        return "float";
    case CFG_TYPE_STRING:
        return "string";
    case CFG_TYPE_BLOB:
        return "blob";
    case CFG_TYPE_LIST:
        return "list";
    case CFG_TYPE_MAP:
        return "map";
    case CFG_TYPE_REFERENCE:
        return "reference";
    case CFG_TYPE_IF:
        return "conditional";
    default:
        return "value";
    }
}

std::string daemon_id(const std::string &key, unsigned long &next_id)
{
    std::string base;
    for (char c : key.substr(0, 64))
        base += (std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '-') ? c : '_';
    if (base.empty())
        base = "element";
    return base + "-" + std::to_string(next_id++);
}

namespace {

// A reference written as a path, joined once every element exists.
struct pending_reference {
    std::string map_id, key, id, path;
};

class builder {
  public:
    builder(cfg *ctx, unsigned long *next_id) : ctx_(ctx), next_id_(next_id) {}

    bool fill_map(cfg_element *map, json_t *object, cfg_schema_element *schema, int depth);
    bool resolve_references();
    cfg_element *make(json_t *value, cfg_schema_element *schema, int type_hint,
                      const std::string &key, int depth);
    std::string error;

  private:
    // The id of a new element under key: a daemon id with a counter, else
    // "" (the library then makes a fresh one).
    std::string new_id(const std::string &key)
    {
        return next_id_ != nullptr ? daemon_id(key, *next_id_) : std::string();
    }
    static const char *id_or_fresh(const std::string &id)
    {
        return id.empty() ? nullptr : id.c_str();
    }
    cfg_element *make_list(json_t *array, cfg_schema_element *schema, const std::string &key,
                           int depth);
    bool fail(const std::string &why)
    {
        error = why;
        return false;
    }

    cfg *ctx_;
    unsigned long *next_id_;
    std::vector<pending_reference> references_;
};

// The element type a JSON value takes where the schema says type (0: none).
int element_type(json_t *value, int type)
{
    switch (json_typeof(value)) {
    case JSON_OBJECT:
        return CFG_TYPE_MAP;
    case JSON_ARRAY:
        return CFG_TYPE_LIST;
    case JSON_STRING:
        return (type == CFG_TYPE_BLOB || type == CFG_TYPE_REFERENCE) ? type : CFG_TYPE_STRING;
    case JSON_INTEGER:
        return type == CFG_TYPE_FLOAT ? CFG_TYPE_FLOAT : CFG_TYPE_INT;
    case JSON_REAL:
        return CFG_TYPE_FLOAT;
    case JSON_TRUE:
    case JSON_FALSE:
        return CFG_TYPE_BOOL;
    default:
        return 0;
    }
}

cfg_element *builder::make(json_t *value, cfg_schema_element *schema, int type_hint,
                           const std::string &key, int depth)
{
    if (depth > 64) {
        fail("data nests deeper than 64 levels");
        return nullptr;
    }
    int type = element_type(value, schema != nullptr ? schema->type : type_hint);
    std::string chosen = new_id(key);
    const char *id = id_or_fresh(chosen);
    switch (type) {
    case CFG_TYPE_MAP: {
        cfg_element *map = cfg_new_map_with_id(ctx_, id);
        return fill_map(map, value, schema, depth + 1) ? map : nullptr;
    }
    case CFG_TYPE_LIST:
        return make_list(value, schema, key, depth);
    case CFG_TYPE_STRING:
        return cfg_new_string_with_id(ctx_, json_string_value(value), id);
    case CFG_TYPE_BLOB:
        return cfg_new_blob_with_id(ctx_, json_string_value(value), json_string_length(value),
                                    id);
    case CFG_TYPE_INT:
        return cfg_new_int_with_id(ctx_, static_cast<int>(json_integer_value(value)), id);
    case CFG_TYPE_FLOAT:
        return cfg_new_float_with_id(ctx_, json_number_value(value), id);
    case CFG_TYPE_BOOL:
        return cfg_new_bool_with_id(ctx_, json_is_true(value), id);
    default:
        fail("'" + key + "' has a value of no configuration type");
        return nullptr;
    }
}

cfg_element *builder::make_list(json_t *array, cfg_schema_element *schema,
                                const std::string &key, int depth)
{
    std::string id = new_id(key);
    cfg_element *list = cfg_new_list_with_id(ctx_, id_or_fresh(id));
    cfg_schema_element *item_schema = list_item_schema(ctx_, schema);
    int item_type = (schema != nullptr && schema->type == CFG_TYPE_LIST &&
                     schema->u.list.element_kind == 1)
                        ? schema->u.list.element_type
                        : 0;
    size_t i;
    json_t *item;
    json_array_foreach(array, i, item)
    {
        cfg_element *member = make(item, item_schema, item_type, key, depth + 1);
        if (member == nullptr)
            return nullptr;
        cfg_add_listelem(ctx_, list, member);
    }
    return list;
}

bool builder::fill_map(cfg_element *map, json_t *object, cfg_schema_element *schema, int depth)
{
    if (map == nullptr)
        return fail("out of memory");
    const char *key;
    json_t *value;
    json_object_foreach(object, key, value)
    {
        if (json_is_null(value))
            continue;
        cfg_schema_element *member = member_schema(ctx_, schema, key);
        if (member != nullptr && member->type == CFG_TYPE_REFERENCE && json_is_string(value)) {
            references_.push_back(
                {map->uuid, key, new_id(key), json_string_value(value)});
            continue;
        }
        cfg_element *child = make(value, member, 0, key, depth);
        if (child == nullptr)
            return error.empty() ? fail("cannot make '" + std::string(key) + "'") : false;
        cfg_add_mapelem(ctx_, map, key, child);
    }
    return true;
}

bool builder::resolve_references()
{
    for (const pending_reference &r : references_) {
        cfg_element *target = cfg_get_by_path(ctx_, r.path.c_str());
        cfg_element *map = cfg_find_by_id(ctx_, r.map_id.c_str());
        if (target == nullptr)
            return fail("reference '" + r.key + "': no element at path '" + r.path + "'");
        cfg_element *ref = cfg_new_reference_with_id(ctx_, target->uuid, id_or_fresh(r.id));
        if (ref == nullptr || map == nullptr)
            return fail("reference '" + r.key + "' cannot be made");
        cfg_add_mapelem(ctx_, map, r.key.c_str(), ref);
    }
    return true;
}

} // namespace

bool build_plain_data(cfg *ctx, cfg_element *map, cfg_schema_element *schema, json_t *data,
                      unsigned long *next_id, std::string &error)
{
    if (!json_is_object(data)) {
        error = "the data must be a JSON object";
        return false;
    }
    builder b(ctx, next_id);
    bool ok = b.fill_map(map, data, schema, 0) && b.resolve_references();
    error = b.error;
    return ok;
}

cfg_element *build_plain_value(cfg *ctx, json_t *value, cfg_schema_element *schema,
                               const std::string &key, unsigned long *next_id,
                               std::string &error)
{
    builder b(ctx, next_id);
    cfg_element *e = b.make(value, schema, 0, key, 0);
    if (e != nullptr && !b.resolve_references())
        e = nullptr;
    error = e != nullptr ? std::string() : b.error.empty() ? "cannot make '" + key + "'" : b.error;
    return e;
}

namespace {

using json_owner = zrconfig::json_ptr;

// The members of a list or map, as cfg_parent_link records.
cfg_link *member_links(cfg_element *e)
{
    return e->type == CFG_TYPE_LIST ? e->value.list.members : e->value.map.members;
}

// The target's canonical path, or null when it cannot be read.
json_t *reference_json(cfg *ctx, cfg_element *reference)
{
    cfg_element *target = cfg_get_by_id(ctx, reference->value.string_value);
    char *path = target != nullptr ? cfg_get_canonical_path(ctx, target, 0, ".") : nullptr;
    json_t *out = path != nullptr ? json_string(path) : nullptr;
    free(path);
    return out;
}

// Depth bounds trees whose members name their own ancestors.
json_t *to_json(cfg *ctx, cfg_element *e, int depth)
{
    if (e == nullptr || depth > 64)
        return nullptr;
    switch (e->type) {
    case CFG_TYPE_BOOL:
        return json_boolean(e->value.int_value);
    case CFG_TYPE_INT:
        return json_integer(e->value.int_value);
    case CFG_TYPE_FLOAT:
        return json_real(e->value.float_value);
    case CFG_TYPE_STRING:
        return json_string(e->value.string_value != nullptr ? e->value.string_value : "");
    case CFG_TYPE_BLOB:
        return json_stringn(reinterpret_cast<const char *>(e->value.blob.data),
                            static_cast<size_t>(e->value.blob.size));
    case CFG_TYPE_REFERENCE:
        return reference_json(ctx, e);
    case CFG_TYPE_LIST:
    case CFG_TYPE_MAP:
        break;
    default:
        return nullptr;
    }
    bool is_map = e->type == CFG_TYPE_MAP;
    json_owner out(is_map ? json_object() : json_array());
    for (cfg_link *l = member_links(e); l != nullptr; l = l->next) {
        auto *link = static_cast<cfg_parent_link *>(l->data);
        cfg_element *member = cfg_get_by_id(ctx, link->uuid);
        if (member != nullptr && cfg_element_is_deleted(member))
            continue;
        json_t *value = to_json(ctx, member, depth + 1);
        if (value == nullptr)
            return nullptr;
        if (is_map)
            json_object_set_new(out.get(), link->name != nullptr ? link->name : "", value);
        else
            json_array_append_new(out.get(), value);
    }
    return out.release();
}

} // namespace

json_t *plain_json(cfg *ctx, cfg_element *e)
{
    return to_json(ctx, e, 0);
}

} // namespace zrplain
