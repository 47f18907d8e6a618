// Conditional evaluation of "if" schema elements: the tested element, the
// four typed comparisons, and the trigger records that tie the map to what
// it tested. (The search conditions of queries are conditions.cpp.)
#define ZR_SOURCE "src/conditionals"
#include "internal.h"
#include "common.h"
#include "triggers.h"

#include <cstring>
#include <string>

namespace {

namespace trig = zr::triggers;

// The element an if path names: reachable is false when a "^" climbs above
// the top; element is null when the path leads nowhere.
struct tested_element {
    bool reachable;
    cfg_element *element;
};

// "^...": one most solid parent per leading "^", then the rest below it.
tested_element climb_then_walk(cfg *context, cfg_element *map, const char *path)
{
    cfg_element *current = map;
    for (; *path == '^'; path++) {
        cfg_parent_link *link = cfg_get_most_solid_parent_link(current);
        current = link != nullptr ? cfg_get_by_id(context, link->uuid) : nullptr;
        if (current == nullptr)
            return {false, nullptr};
    }
    return {true, cfg_get_child_by_path(context, current, path)};
}

tested_element resolve_tested(cfg *context, cfg_element *map, const char *path)
{
    if (path[0] == '^')
        return climb_then_walk(context, map, path);
    if (path[0] == '.')
        return {true, cfg_get_child_by_path(context, map, path + 1)};
    return {true, cfg_get_by_path(context, path)};
}

// The by-path key that watches for an absent element. A "." path is keyed
// as the static path the element will have once created below map, so that
// its creation finds this record; other paths are keyed as written.
std::string absent_key(cfg *context, cfg_element *map, const char *path)
{
    if (path[0] != '.')
        return path;
    if (strcmp(map->uuid, zr::root_uuid) == 0)
        return path + 1; // static paths leave the root out
    std::string map_path;
    if (!trig::static_path(context, map, map_path))
        return path;
    return map_path + path;
}

// Records that map must be validated again when the tested element changes
// (by uuid) or, while it is absent, appears (by path).
void record_dependency(cfg *context, cfg_element *map, cfg_element *tested, const char *path)
{
    if (tested != nullptr) {
        trig::depend_on_uuid(context, map->uuid, tested->uuid);
        return;
    }
    cfg_reverse_trigger *reverse = trig::find_or_add<cfg_reverse_trigger>(context, map->uuid);
    cfg_trigger_entry entry = trig::entry_for(
        trig::find_or_add<cfg_path_trigger>(context, absent_key(context, map, path).c_str()));
    trig::add_dependent(reverse, entry, map->uuid);
}

// The steps every evaluator shares; compare runs only for an element of type.
template <typename Compare>
int evaluate_typed_condition(cfg_element *element, int op, unsigned int type, Compare compare)
{
    if (element == nullptr)
        return op == 3 ? 1 : 0;
    if (op == 1)
        return 1;
    if (element->type != type)
        return 0;
    return compare() ? 1 : 0;
}

template <typename T> bool compare_by_operator(int op, T left, T right)
{
    switch (op) {
    case 2: return left == right;
    case 3: return left != right;
    case 4: return left > right;
    case 5: return left >= right;
    case 6: return left < right;
    case 7: return left <= right;
    default: return false;
    }
}

} // namespace

extern "C" int evaluate_bool_condition(cfg_element *element, int op, int value)
{
    return evaluate_typed_condition(element, op, CFG_TYPE_BOOL, [&] {
        return (op == 2 || op == 3) &&
               compare_by_operator(op, element->value.int_value != 0, value != 0);
    });
}

extern "C" int evaluate_int_condition(cfg_element *element, int op, int value)
{
    return evaluate_typed_condition(element, op, CFG_TYPE_INT, [&] {
        return compare_by_operator(op, element->value.int_value, value);
    });
}

extern "C" int evaluate_string_condition(cfg_element *element, int op, const char *value)
{
    return evaluate_typed_condition(element, op, CFG_TYPE_STRING, [&] {
        const char *text = element->value.string_value;
        int order = strcmp(text != nullptr ? text : "", value != nullptr ? value : "");
        return compare_by_operator(op, order, 0);
    });
}

extern "C" int evaluate_float_condition(cfg_element *element, int op, double value)
{
    return evaluate_typed_condition(element, op, CFG_TYPE_FLOAT, [&] {
        return compare_by_operator(op, element->value.float_value, value);
    });
}

extern "C" int evaluate_if(cfg *context, cfg_element *map, cfg_schema_element *if_elem)
{
    if (context == nullptr || map == nullptr || if_elem == nullptr || if_elem->type != CFG_TYPE_IF)
        return 0;
    // Read in place: nothing here changes the schema.
    const auto &cond = if_elem->u.cond;
    const int op = cond.op;
    const int value_type = cond.value_type;
    const cfg_schema_value value = cond.value;
    const char *tested_path = cond.path != nullptr ? cond.path : "";
    tested_element tested = resolve_tested(context, map, tested_path);
    if (!tested.reachable)
        return 0;
    record_dependency(context, map, tested.element, tested_path);
    switch (value_type) {
    case 1: return evaluate_bool_condition(tested.element, op, value.bool_value);
    case 2: return evaluate_int_condition(tested.element, op, value.int_value);
    case 3: return evaluate_string_condition(tested.element, op, value.string_value);
    case 4: return evaluate_float_condition(tested.element, op, value.float_value);
    default:
        cfg_message_add_schema(context);
        return 0;
    }
}
