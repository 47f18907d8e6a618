// Default population: walks an element together with its schema element and
// creates the required map members that are missing and have defaults,
// recursing into maps, lists of named types and conditionals that hold. In
// deterministic mode the uuids of created elements derive from their parent's
// uuid and key, so independent runs over the same tree agree.
#define ZR_SOURCE "src/defaults"
#include "internal.h"
#include "data.h"
#include "defaults.h"
#include "walk.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr int required_members = 0;
constexpr int optional_members = 1;

// One population run: its mode and the elements being populated, from the
// top down to the current one. A cycle in the tree or schema ends the run.
struct population {
    cfg *context;
    bool deterministic;
    zr::schema_walk walk{};
    bool stopped = false;
    const zr::populated_fn *populated = nullptr; // elements known to be complete
    uint64_t epoch = 0; // the memo epoch populated answers under

    bool in_walk(const cfg_element *element) const { return walk.holds(element); }
    // Whether fault (if any) ended the run; its message is pushed once.
    bool ends_run(zr::walk_fault fault, const cfg_element *element)
    {
        if (fault == zr::walk_fault::none)
            return false;
        zr::schema_walk::report(context, fault, element);
        stopped = true;
        return true;
    }
};

void populate_node(population &run, cfg_element *element, cfg_schema_element *schema,
                   bool created = false);
void populate_members(population &run, cfg_element *map, cfg_schema_element *schema);

// The uuid derived for key below map, or false when it would not fit in a
// uuid field (cut short, it could name another element).
bool derived_uuid(cfg_element *map, int type, const char *key, char *out)
{
    if (strlen(map->uuid) + strlen(key) + 2 > CFG_UUID_SIZE - 1) {
        ZR_LOG(LOG_WARNING, "No room for a uuid below %s under key %s\n", map->uuid, key);
        return false;
    }
    cfg_create_uuid(out, type, map, key);
    return true;
}

// Indexes created in place of any element already held under its uuid. The
// element it replaces is freed, unless the walk still uses it; then created
// is dropped instead and nullptr returned.
cfg_element *take_place_in_index(population &run, cfg_element *created)
{
    cfg_element *previous = cfg_find_by_id(run.context, created->uuid);
    if (previous != nullptr && previous != created) {
        if (run.in_walk(previous)) {
            cfg_free_element(run.context, created);
            return nullptr;
        }
        cfg_free_element(run.context, previous);
    }
    cfg_delete_elem(run.context, created);
    cfg_add_elem(run.context, created);
    return created;
}

// A missing required member in deterministic mode: a list becomes a key
// only; anything else an unflagged default under the derived uuid.
cfg_element *add_derived_member(population &run, cfg_element *map, const char *key,
                                cfg_schema_element *schema)
{
    char uuid[CFG_UUID_SIZE];
    if (!derived_uuid(map, schema->type, key, uuid))
        return nullptr;
    if (schema->type == CFG_TYPE_LIST) {
        cfg_add_mapkey(run.context, map, key, uuid);
        return nullptr;
    }
    cfg_element *created = cfg_create_default(run.context, schema, uuid);
    if (created == nullptr)
        return nullptr;
    created->generation = map->generation;
    if (take_place_in_index(run, created) == nullptr)
        return nullptr;
    created->flags = 0;
    cfg_add_mapelem(run.context, map, key, created);
    return created;
}

// A missing required member in normal mode: a new default under a fresh uuid.
cfg_element *add_default_member(population &run, cfg_element *map, const char *key,
                                cfg_schema_element *schema)
{
    cfg_element *created = cfg_create_default(run.context, schema, nullptr);
    if (created == nullptr)
        return nullptr;
    created->generation = map->generation;
    cfg_add_mapelem(run.context, map, key, created);
    return created;
}

// The member under key, created first (and created set) when it is required
// and missing; null when there is (or can be) no element to recurse into.
cfg_element *member_for_key(population &run, cfg_element *map, const char *key,
                            cfg_schema_element *schema, int which, bool &created)
{
    const char *held = cfg_get_mapelem(map, key);
    if (held != nullptr)
        return cfg_get_by_id(run.context, held);
    if (which != required_members)
        return nullptr;
    created = true;
    return run.deterministic ? add_derived_member(run, map, key, schema)
                             : add_default_member(run, map, key, schema);
}

// One pass over the member keys of kind which (required or optional).
void populate_kind(population &run, cfg_element *map, cfg_schema_element *schema, int which)
{
    char **keys = nullptr;
    int count = 0;
    if (!cfg_schema_map_keys(schema, which, &keys, &count) || keys == nullptr)
        return;
    for (int i = 0; i < count && !run.stopped; i++) {
        const char *member_id = cfg_get_schema_mapelem(schema, which, keys[i]);
        cfg_schema_element *member_schema =
            member_id != nullptr ? cfg_get_schema_by_id(run.context, member_id) : nullptr;
        if (member_schema == nullptr)
            continue;
        bool created = false;
        cfg_element *member = member_for_key(run, map, keys[i], member_schema, which, created);
        if (member != nullptr)
            populate_node(run, member, member_schema, created);
    }
    for (int i = 0; i < count; i++)
        free(keys[i]);
    free(keys);
}

void populate_conditional(population &run, cfg_element *map, cfg_schema_element *if_elem)
{
    if (!evaluate_if(run.context, map, if_elem) ||
        run.ends_run(run.walk.enter_conditional(map, if_elem), map))
        return;
    populate_members(run, map, if_elem);
    run.walk.leave();
}

// Optional members, required members, then every conditional in order.
void populate_members(population &run, cfg_element *map, cfg_schema_element *schema)
{
    populate_kind(run, map, schema, optional_members);
    populate_kind(run, map, schema, required_members);
    int conditionals = 0;
    if (!cfg_schema_map_conditional_size(schema, &conditionals))
        return;
    for (int i = 0; i < conditionals && !run.stopped; i++) {
        const char *if_id = cfg_get_schema_map_conditionalelem(schema, i);
        cfg_schema_element *if_elem =
            if_id != nullptr ? cfg_get_schema_by_id(run.context, if_id) : nullptr;
        if (if_elem != nullptr)
            populate_conditional(run, map, if_elem);
    }
}

// The schema element of a named element type, or null.
cfg_schema_element *named_item_schema(cfg *context, cfg_schema_element *list_schema)
{
    int kind = 0;
    char *name = nullptr;
    if (!cfg_schema_list_values(list_schema, &kind, nullptr, nullptr, nullptr, nullptr, nullptr,
                                &name))
        return nullptr;
    zr::cstr_ptr name_copy(name);
    if (kind != 2 || name == nullptr)
        return nullptr;
    const char *type_id = cfg_get_type(context, name);
    return type_id != nullptr ? cfg_get_schema_by_id(context, type_id) : nullptr;
}

// Current items in order, then pending items, each against the named type.
void populate_items(population &run, cfg_element *list, cfg_schema_element *schema)
{
    cfg_schema_element *item_schema = named_item_schema(run.context, schema);
    if (item_schema == nullptr)
        return;
    // Members no change reached since the list was last accounted for are
    // complete; only the others need a look.
    std::vector<cfg_element *> again;
    size_t touched = 0;
    if (run.populated != nullptr &&
        zr::changed_members(run.context, list, run.epoch, again, touched)) {
        for (size_t i = 0; i < again.size() && !run.stopped; i++)
            populate_node(run, again[i], item_schema);
        return;
    }
    for (int i = 0; !run.stopped; i++) {
        const char *uuid = cfg_get_listelem(list, i);
        if (uuid == nullptr)
            break;
        // The list remembers what its members resolved to.
        cfg_element *item = zr::list_member(run.context, list, static_cast<size_t>(i));
        if (item != nullptr)
            populate_node(run, item, item_schema);
    }
    unsigned int pending = 0;
    cfg_list_future_size(list, &pending);
    for (unsigned int i = 0; i < pending && !run.stopped; i++) {
        const char *uuid = cfg_get_future_listelem(list, i);
        cfg_element *item = uuid != nullptr ? cfg_get_by_id(run.context, uuid) : nullptr;
        if (item != nullptr)
            populate_node(run, item, item_schema);
    }
}

// Runs body with element on the walk, unless entering it closes a cycle.
template <typename Body>
void within(population &run, cfg_element *element, const cfg_schema_element *schema,
            bool created, Body body)
{
    if (run.ends_run(run.walk.enter_member(element, schema, created), element))
        return;
    body();
    run.walk.leave();
}

void populate_node(population &run, cfg_element *element, cfg_schema_element *schema,
                   bool created)
{
    if (element == nullptr || schema == nullptr ||
        element->type != static_cast<unsigned int>(schema->type))
        return;
    if (run.populated != nullptr && (*run.populated)(element, schema))
        return;
    zr::bind_schema(element, schema);
    within(run, element, schema, created, [&] {
        if (element->type == CFG_TYPE_MAP)
            populate_members(run, element, schema);
        else if (element->type == CFG_TYPE_LIST)
            populate_items(run, element, schema);
    });
}

// Runs one population from an exported entry point; element is put on the
// walk first unless body enters it itself.
template <typename Body>
void run_population(cfg *context, cfg_element *element, int deterministic, bool body_enters,
                    Body body)
{
    if (context == nullptr || element == nullptr)
        return;
    population run{context, deterministic != 0};
    if (body_enters)
        body(run);
    else
        within(run, element, nullptr, false, [&] { body(run); });
}

} // namespace

extern "C" void cfg_create_uuid(char *out, int type, cfg_element *parent, const char *key)
{
    if (out == nullptr)
        return;
    std::string uuid;
    int dashes = 0;
    const char *parent_uuid = parent != nullptr ? parent->uuid : "";
    for (size_t i = 0; i < CFG_UUID_SIZE && parent_uuid[i] != '\0'; i++) {
        uuid += parent_uuid[i];
        if (parent_uuid[i] == '-' && ++dashes == 2 && type == CFG_TYPE_LIST)
            uuid += '@';
    }
    if (dashes == 1)
        uuid += type == CFG_TYPE_LIST ? "-@" : "-";
    else
        uuid += '_';
    if (key != nullptr)
        uuid += key;
    // out holds CFG_UUID_SIZE bytes: a longer result is cut to fit.
    size_t length = std::min(uuid.size(), static_cast<size_t>(CFG_UUID_SIZE - 1));
    memcpy(out, uuid.data(), length);
    out[length] = '\0';
}

extern "C" cfg_element *cfg_create_default(cfg *context, cfg_schema_element *schema,
                                           const char *uuid)
{
    if (context == nullptr || schema == nullptr)
        return nullptr;
    const auto &u = schema->u;
    switch (schema->type) {
    case CFG_TYPE_BOOL:
        return u.boolean.has_default ? cfg_new_bool_with_id(context, u.boolean.default_value, uuid)
                                     : nullptr;
    case CFG_TYPE_INT:
        return u.integer.has_default ? cfg_new_int_with_id(context, u.integer.default_value, uuid)
                                     : nullptr;
    case CFG_TYPE_FLOAT:
        return u.real.has_default ? cfg_new_float_with_id(context, u.real.default_value, uuid)
                                  : nullptr;
    case CFG_TYPE_STRING:
        return u.string.has_default && u.string.default_value != nullptr
                   ? cfg_new_string_with_id(context, u.string.default_value, uuid)
                   : nullptr;
    case CFG_TYPE_LIST: return cfg_new_list_with_id(context, uuid);
    case CFG_TYPE_MAP: return cfg_new_map_with_id(context, uuid);
    default: return nullptr;
    }
}

extern "C" void cfg_populate_node(cfg *context, cfg_element *element, cfg_schema_element *schema,
                                  int deterministic)
{
    run_population(context, element, deterministic, true,
                   [&](population &run) { populate_node(run, element, schema); });
}

extern "C" void cfg_populate_map(cfg *context, cfg_element *map, cfg_schema_element *schema,
                                 int deterministic)
{
    if (map == nullptr || map->type != CFG_TYPE_MAP)
        return;
    run_population(context, map, deterministic, false,
                   [&](population &run) { populate_members(run, map, schema); });
}

extern "C" void cfg_populate_list(cfg *context, cfg_element *list, cfg_schema_element *schema,
                                  int deterministic)
{
    if (list == nullptr || list->type != CFG_TYPE_LIST)
        return;
    run_population(context, list, deterministic, false,
                   [&](population &run) { populate_items(run, list, schema); });
}

extern "C" void cfg_populate_if(cfg *context, cfg_element *map, cfg_schema_element *if_elem,
                                int deterministic)
{
    if (map == nullptr || map->type != CFG_TYPE_MAP)
        return;
    run_population(context, map, deterministic, false,
                   [&](population &run) { populate_conditional(run, map, if_elem); });
}

void zr::populate_defaults_except(cfg *context, cfg_element *element, const populated_fn &populated,
                                  uint64_t epoch)
{
    if (context == nullptr || element == nullptr)
        return;
    cfg_schema_element *schema = cfg_get_schema_by_id(context, element->schema);
    run_population(context, element, 0, true, [&](population &run) {
        run.populated = &populated;
        run.epoch = epoch;
        populate_node(run, element, schema);
    });
}

extern "C" void cfg_populate_defaults(cfg *context, cfg_element *element, int deterministic)
{
    if (context == nullptr || element == nullptr)
        return;
    cfg_populate_node(context, element, cfg_get_schema_by_id(context, element->schema),
                      deterministic);
}
