// Search conditions to and from JSON, the form in which they travel to the
// daemon.
#define ZR_SOURCE "src/searchjson"
#include "internal.h"

#include <climits>

namespace {

bool is_node_type(json_int_t type)
{
    return type == CFG_CONDITION_AND || type == CFG_CONDITION_OR;
}

// Reads an integer that fits an int; other values are refused.
bool int_value(json_t *json, int *out)
{
    if (!json_is_integer(json))
        return false;
    json_int_t value = json_integer_value(json);
    if (value < INT_MIN || value > INT_MAX)
        return false;
    *out = static_cast<int>(value);
    return true;
}

// The JSON form of a basic condition's value, or null for a datatype that
// has none (the key is then left out).
json_t *value_to_json(const cfg_condition *condition)
{
    switch (condition->datatype) {
    case CFG_TYPE_BOOL:
        return json_boolean(condition->value.int_value != 0);
    case CFG_TYPE_INT:
        return json_integer(condition->value.int_value);
    case CFG_TYPE_FLOAT:
        return json_real(condition->value.float_value);
    case CFG_TYPE_STRING:
    case CFG_TYPE_REFERENCE:
        return json_string(condition->value.string_value);
    case CFG_CONDITION_UNTYPED:
        return json_null();
    default:
        return nullptr;
    }
}

// Builds a basic condition of datatype from its JSON value with the
// constructor of that type; null when the value has the wrong JSON type.
cfg_condition *basic_from_json(const char *fieldname, int oper, int datatype, json_t *value)
{
    int number = 0;
    switch (datatype) {
    case CFG_TYPE_BOOL:
        if (!json_is_boolean(value))
            return nullptr;
        return cfg_new_bool_condition(fieldname, oper, json_is_true(value) ? 1 : 0);
    case CFG_TYPE_INT:
        if (!int_value(value, &number))
            return nullptr;
        return cfg_new_int_condition(fieldname, oper, number);
    case CFG_TYPE_FLOAT:
        if (!json_is_real(value))
            return nullptr;
        return cfg_new_float_condition(fieldname, oper, json_real_value(value));
    case CFG_TYPE_STRING:
        return cfg_new_string_condition(fieldname, oper, json_string_value(value));
    case CFG_TYPE_REFERENCE:
        return cfg_new_reference_condition(fieldname, oper, json_string_value(value));
    case CFG_CONDITION_UNTYPED:
        return cfg_new_untyped_condition(fieldname, oper);
    default:
        return nullptr;
    }
}

} // namespace

extern "C" json_t *condition_to_json(cfg_condition *condition)
{
    if (condition == nullptr)
        return nullptr;
    switch (condition->type) {
    case CFG_CONDITION_AND:
    case CFG_CONDITION_OR:
        return multi_condition_to_json(condition);
    case CFG_CONDITION_BASIC:
        return basic_condition_to_json(condition);
    default:
        ZR_LOG(LOG_ERR, "Condition object had unknown type [%d]", condition->type);
        return nullptr;
    }
}

// {"type": 1 or 2, "items": [child, ...]}
extern "C" json_t *multi_condition_to_json(cfg_condition *condition)
{
    if (condition == nullptr)
        return nullptr;
    json_t *items = json_array();
    for (cfg_condition *child = condition->children; child != nullptr; child = child->next)
        json_array_append_new(items, condition_to_json(child));
    json_t *object = json_object();
    json_object_set_new(object, "type", json_integer(condition->type));
    json_object_set_new(object, "items", items);
    return object;
}

// {"type": 3, "fieldname", "oper", "datatype", "value"}, in that order.
extern "C" json_t *basic_condition_to_json(cfg_condition *condition)
{
    if (condition == nullptr)
        return nullptr;
    json_t *object = json_object();
    json_object_set_new(object, "type", json_integer(condition->type));
    json_object_set_new(object, "fieldname", json_string(condition->fieldname));
    json_object_set_new(object, "oper", json_integer(condition->oper));
    json_object_set_new(object, "datatype", json_integer(condition->datatype));
    json_t *value = value_to_json(condition);
    if (value != nullptr)
        json_object_set_new(object, "value", value);
    return object;
}

extern "C" char *condition_to_json_dump(cfg_condition *condition)
{
    zr::json_ptr json(condition_to_json(condition));
    if (json == nullptr)
        return nullptr;
    return json_dumps(json.get(), JSON_COMPACT);
}

extern "C" cfg_condition *json_to_condition(json_t *json)
{
    json_t *type = json_object_get(json, "type");
    if (!json_is_integer(type))
        return nullptr;
    json_int_t code = json_integer_value(type);
    if (is_node_type(code))
        return json_to_multi_condition(json, static_cast<int>(code));
    if (code == CFG_CONDITION_BASIC)
        return json_to_basic_condition(json);
    return nullptr;
}

// An AND (1) or OR (2) node with every member of "items"; null when any
// member is refused. Missing or empty "items" give an empty node.
extern "C" cfg_condition *json_to_multi_condition(json_t *json, int type)
{
    if (json == nullptr || !is_node_type(type))
        return nullptr;
    json_t *items = json_object_get(json, "items");
    if (items != nullptr && !json_is_array(items))
        return nullptr;
    cfg_condition *node =
        type == CFG_CONDITION_AND ? cfg_new_and_condition() : cfg_new_or_condition();
    size_t i;
    json_t *item;
    json_array_foreach(items, i, item)
    {
        cfg_condition *child = json_to_condition(item);
        if (child == nullptr) {
            cfg_free_conditions(node);
            return nullptr;
        }
        cfg_condition_add_child(node, child);
    }
    return node;
}

// A basic condition through the constructor of its datatype, so that the
// constructors' refusals apply; "value" must be present even when untyped.
extern "C" cfg_condition *json_to_basic_condition(json_t *json)
{
    json_t *fieldname = json_object_get(json, "fieldname");
    json_t *oper = json_object_get(json, "oper");
    json_t *datatype = json_object_get(json, "datatype");
    json_t *value = json_object_get(json, "value");
    int oper_code = 0, datatype_code = 0;
    if (!json_is_string(fieldname) || !int_value(oper, &oper_code) ||
        !int_value(datatype, &datatype_code) || value == nullptr)
        return nullptr;
    return basic_from_json(json_string_value(fieldname), oper_code, datatype_code, value);
}

extern "C" cfg_condition *json_dump_to_condition(const char *text, json_error_t *error)
{
    zr::json_ptr json(json_loads(text, 0, error));
    if (json == nullptr)
        return nullptr;
    return json_to_condition(json.get());
}
