// A push: the update object a client assembled, checked against the model's
// generations, its new elements given daemon ids, applied to the model with
// the library's changeset code, validated, and stored in one transaction;
// or refused, leaving model and store as they were.
#define ZRD_SOURCE "daemon/push"
#include "model.h"

#include "plain_data.h"

#include <cstring>
#include <map>

namespace zrd {

namespace {

using renames = std::map<std::string, std::string>;

const char *const schema_lists[] = {"schema_added", "schema_changed", "schema_deleted"};

const char *item_id(json_t *item)
{
    return json_is_string(item) ? json_string_value(item)
                                : json_string_value(json_object_get(item, "id"));
}

// The update's lists must be arrays of strings or objects, each with an id
// where one is needed; the name of the first bad member, or "".
std::string malformed_member(json_t *update)
{
    for (const char *key : {"added", "changed", "deleted", "schema_added", "schema_changed",
                            "schema_deleted", "appended"}) {
        json_t *list = json_object_get(update, key);
        if (list == nullptr)
            continue;
        if (!json_is_array(list))
            return key;
        size_t i;
        json_t *item;
        json_array_foreach(list, i, item)
        {
            bool pair = strcmp(key, "appended") == 0;
            if (pair ? !json_is_string(json_object_get(item, "parent_id")) ||
                           !json_is_string(json_object_get(item, "child_id"))
                     : item_id(item) == nullptr)
                return key;
        }
    }
    json_t *types = json_object_get(update, "types");
    if (types != nullptr && !json_is_object(types))
        return "types";
    return "";
}

// True when the update deletes the root, which every path starts from.
bool deletes_root(json_t *update)
{
    size_t i;
    json_t *item;
    json_array_foreach(json_object_get(update, "deleted"), i, item)
    {
        if (strcmp(item_id(item), "root-1") == 0)
            return true;
    }
    return false;
}

// True when a changed or deleted element is missing or its generation is
// not the one the model holds.
bool conflicts(cfg *ctx, json_t *update)
{
    size_t i;
    json_t *item;
    json_array_foreach(json_object_get(update, "changed"), i, item)
    {
        cfg_element *held = cfg_find_by_id(ctx, item_id(item));
        json_t *generation = json_object_get(item, "generation");
        if (held == nullptr ||
            static_cast<int>(json_integer_value(generation)) != held->generation)
            return true;
    }
    json_array_foreach(json_object_get(update, "deleted"), i, item)
    {
        if (cfg_find_by_id(ctx, item_id(item)) == nullptr)
            return true;
    }
    return false;
}

// The key an added element is known by: its map key, or the key of the
// list it is a member of, looked up in the model or among the added items.
std::string key_of(cfg *ctx, json_t *item, json_t *added)
{
    size_t i;
    json_t *link;
    json_array_foreach(json_object_get(item, "parents"), i, link)
    {
        if (const char *name = json_string_value(json_object_get(link, "name")))
            return name;
        const char *list = json_string_value(json_object_get(link, "list"));
        if (list == nullptr)
            continue;
        cfg_element *held = cfg_find_by_id(ctx, list);
        char *key = nullptr;
        if (held != nullptr && cfg_get_map_key(ctx, held, &key)) {
            std::string out = key;
            free(key);
            return out;
        }
        size_t j;
        json_t *other;
        json_array_foreach(added, j, other)
        {
            const char *other_id = item_id(other);
            if (other_id != nullptr && strcmp(other_id, list) == 0 && other != item)
                return key_of(ctx, other, nullptr);
        }
    }
    return "element";
}

// New ids for the added elements whose ids the client made ("{...}").
renames daemon_ids(cfg *ctx, json_t *update, unsigned long &next_id)
{
    renames out;
    json_t *added = json_object_get(update, "added");
    size_t i;
    json_t *item;
    json_array_foreach(added, i, item)
    {
        const char *id = item_id(item);
        if (id[0] == '{' && out.count(id) == 0)
            out[id] = zrplain::daemon_id(key_of(ctx, item, added), next_id);
    }
    return out;
}

void rename_member(json_t *object, const char *key, const renames &names)
{
    const char *value = json_string_value(json_object_get(object, key));
    auto at = value != nullptr ? names.find(value) : names.end();
    if (at != names.end())
        json_object_set_new(object, key, json_string(at->second.c_str()));
}

void rename_array(json_t *array, const renames &names)
{
    size_t i;
    json_t *value;
    json_array_foreach(array, i, value)
    {
        auto at = json_is_string(value) ? names.find(json_string_value(value)) : names.end();
        if (at != names.end())
            json_array_set_new(array, i, json_string(at->second.c_str()));
    }
}

// Rewrites every place of one element object that names an element.
void rename_element(json_t *item, const renames &names)
{
    rename_member(item, "id", names);
    rename_member(item, "future_parent", names);
    size_t i;
    json_t *link;
    json_array_foreach(json_object_get(item, "parents"), i, link)
    {
        for (const char *key : {"list", "map", "reference"})
            rename_member(link, key, names);
    }
    json_t *value = json_object_get(item, "value");
    json_int_t type = json_integer_value(json_object_get(item, "type"));
    if (type == CFG_TYPE_LIST)
        rename_array(value, names);
    else if (type == CFG_TYPE_REFERENCE)
        rename_member(item, "value", names);
    else if (type == CFG_TYPE_MAP && json_is_object(value)) {
        const char *key;
        json_t *member;
        json_object_foreach(value, key, member)
        {
            rename_member(value, key, names);
        }
    }
}

void rename_update(json_t *update, const renames &names)
{
    size_t i;
    json_t *item;
    for (const char *key : {"added", "changed"})
        json_array_foreach(json_object_get(update, key), i, item) rename_element(item, names);
    json_t *deleted = json_object_get(update, "deleted");
    rename_array(deleted, names);
    json_array_foreach(deleted, i, item) rename_member(item, "id", names);
    json_array_foreach(json_object_get(update, "appended"), i, item)
    {
        rename_member(item, "parent_id", names);
        rename_member(item, "child_id", names);
    }
}

// True when the update changes the schema: schema elements, or types or a
// root other than the model's (clients send both on every push).
bool changes_schema(cfg *ctx, json_t *update)
{
    for (const char *key : schema_lists)
        if (json_array_size(json_object_get(update, key)) > 0)
            return true;
    const char *root = json_string_value(json_object_get(update, "schema_root"));
    if (root != nullptr && root[0] != '\0' &&
        (ctx->schema->root == nullptr || strcmp(root, ctx->schema->root->uuid) != 0))
        return true;
    const char *name;
    json_t *uuid;
    json_object_foreach(json_object_get(update, "types"), name, uuid)
    {
        const char *held = cfg_get_type(ctx, name);
        if (json_is_string(uuid) && (held == nullptr || strcmp(held, json_string_value(uuid)) != 0))
            return true;
    }
    return false;
}

// Makes the appended children real members at the end of their lists.
bool append_members(cfg *ctx, json_t *appended)
{
    size_t i;
    json_t *pair;
    json_array_foreach(appended, i, pair)
    {
        cfg_element *list = cfg_find_by_id(ctx, json_string_value(json_object_get(pair, "parent_id")));
        cfg_element *child = cfg_find_by_id(ctx, json_string_value(json_object_get(pair, "child_id")));
        if (list == nullptr || child == nullptr || list->type != CFG_TYPE_LIST)
            return false;
        if (!cfg_list_contains(list, child->uuid))
            cfg_add_listelem(ctx, list, child);
    }
    return true;
}

std::vector<cfg_element *> flagged(cfg *ctx)
{
    std::vector<cfg_element *> out;
    for (cfg_index_entry *e = ctx->elements; e != nullptr;
         e = static_cast<cfg_index_entry *>(e->hh.next))
        if (e->element->flags & (CFG_FLAG_NEW | CFG_FLAG_CHANGED | CFG_FLAG_DELETED))
            out.push_back(e->element);
    return out;
}

// Messages name the client's own ids, not the ones it has not learnt yet.
void rename_back(json_t *messages, const renames &names)
{
    renames back;
    for (const auto &[old_id, new_id] : names)
        back[new_id] = old_id;
    size_t i, j;
    json_t *msg, *arg;
    json_array_foreach(messages, i, msg) json_array_foreach(json_object_get(msg, "args"), j, arg)
        rename_member(arg, "value", back);
}

// The changes as a changeset: added and changed elements as they now are,
// deleted ids, and the update's schema lists.
json_t *changeset_of(const std::vector<cfg_element *> &changed, json_t *update)
{
    json_t *added = json_array(), *modified = json_array(), *deleted = json_array();
    for (cfg_element *e : changed) {
        if (e->flags & CFG_FLAG_DELETED) {
            if (!(e->flags & CFG_FLAG_NEW))
                json_array_append_new(deleted, json_string(e->uuid));
            continue;
        }
        json_t *json = elem_to_json(e);
        json_object_set_new(json, "generation", json_integer(e->generation + 1));
        json_array_append_new((e->flags & CFG_FLAG_NEW) ? added : modified, json);
    }
    json_t *set = json_pack("{s:o, s:o, s:o}", "added", added, "changed", modified, "deleted",
                            deleted);
    for (const char *key : schema_lists)
        if (json_t *list = json_object_get(update, key))
            json_object_set(set, key, list);
    return set;
}

json_t *uuids_answer(const renames &names)
{
    json_t *uuids = json_array();
    for (const auto &[old_id, new_id] : names)
        json_array_append_new(uuids, json_pack("{s:s, s:s}", "old", old_id.c_str(), "new",
                                               new_id.c_str()));
    return success(json_pack("{s:o}", "uuids", uuids));
}

} // namespace

push_outcome model::push(json_t *update)
{
    push_outcome out;
    cfg_free_message_stack(ctx_);
    if (!json_is_object(update)) {
        out.answer.reset(failure(msg::invalid_parameter, {"data"}));
        return out;
    }
    if (std::string bad = malformed_member(update); !bad.empty()) {
        out.answer.reset(failure(msg::invalid_parameter, {bad}));
        return out;
    }
    if (deletes_root(update)) {
        out.answer.reset(failure(msg::changed_ro));
        return out;
    }
    if (conflicts(ctx_, update)) {
        out.answer.reset(failure(msg::conflict));
        return out;
    }
    unsigned long counter = next_id_;
    renames names = daemon_ids(ctx_, update, counter);
    json_ptr applied(json_deep_copy(update));
    rename_update(applied.get(), names);
    bool schema_changed = changes_schema(ctx_, applied.get());
    if (!schema_changed) {
        for (const char *key : {"types", "schema_root"})
            json_object_del(applied.get(), key);
    }
    json_ptr appended(json_incref(json_object_get(applied.get(), "appended")));
    json_object_del(applied.get(), "appended");

    std::string stored_root = ctx_->schema->root != nullptr ? ctx_->schema->root->uuid : "";
    bool ok = cfg_apply_changeset(ctx_, applied.get(), 1, nullptr, nullptr) &&
              append_members(ctx_, appended.get());
    if (schema_changed) {
        // A replaced root record is gone; look the root up again.
        const char *root = json_string_value(json_object_get(applied.get(), "schema_root"));
        ctx_->schema->root =
            cfg_get_schema_node(ctx_, root != nullptr && root[0] ? root : stored_root.c_str());
    }
    if (!ok) {
        cfg_free_message_stack(ctx_);
        std::string report;
        schema_changed ? (void)rebuild(report) : restore(flagged(ctx_));
        out.answer.reset(failure(msg::push_failed));
        return out;
    }
    ok = schema_changed ? cfg_validate_data(ctx_) : cfg_validate_changed_data(ctx_);
    std::vector<cfg_element *> changed = flagged(ctx_);
    if (!ok) {
        json_t *messages = messages_json();
        rename_back(messages, names);
        std::string report;
        schema_changed ? (void)rebuild(report) : restore(changed);
        out.answer.reset(json_pack("{s:b, s:o}", "result", 0, "messages", messages));
        return out;
    }
    cfg_free_message_stack(ctx_);
    for (cfg_element *e : changed) {
        cstr_ptr path(cfg_get_canonical_path(ctx_, e, 0, "."));
        out.changed_paths.emplace_back(path ? path.get() : "");
    }
    json_ptr changeset(changeset_of(changed, applied.get()));
    unsigned long before = next_id_;
    next_id_ = counter;
    if (!persist(changed, schema_changed)) {
        next_id_ = before;
        out.answer.reset(failure(msg::database));
        return out;
    }
    if (schema_changed) {
        schema_answer_.reset();
        std::string report;
        if (!rebuild(report))
            ZRD_LOG(LOG_ERR, "reloading after a schema change failed: %s", report.c_str());
    }
    out.accepted = true;
    out.changeset = dump(changeset.get());
    out.answer.reset(uuids_answer(names));
    return out;
}

} // namespace zrd
