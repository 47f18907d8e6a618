// Typed command-line values and documents merged into a session's tree.
#include "edit.h"

#include "plain_data.h"

#include <climits>

namespace zrcfg {

using zrconfig::element;
using zrconfig::json_ptr;

json_t *typed_value(int type, const std::string &text, std::string &error)
{
    if (type == CFG_TYPE_STRING || type == CFG_TYPE_BLOB || type == CFG_TYPE_REFERENCE)
        return json_string(text.c_str());
    json_error_t parse_error;
    json_t *value = json_loads(text.c_str(), JSON_DECODE_ANY, &parse_error);
    bool fits = value != nullptr;
    switch (type) {
    case CFG_TYPE_INT:
        fits = fits && json_is_integer(value);
        break;
    case CFG_TYPE_FLOAT:
        fits = fits && json_is_number(value);
        break;
    case CFG_TYPE_BOOL:
        fits = fits && json_is_boolean(value);
        break;
    case CFG_TYPE_MAP:
        fits = fits && json_is_object(value);
        break;
    case CFG_TYPE_LIST:
        fits = fits && json_is_array(value);
        break;
    default: // unknown to the schema: JSON when it parses, else the text
        return value != nullptr ? value : json_string(text.c_str());
    }
    if (!fits) {
        json_decref(value);
        error = "'" + text + "' is not a valid " + zrplain::type_name(type);
        return nullptr;
    }
    return value;
}

namespace {

// Sets scalar target to value when they differ; false when value does not
// fit the target's type.
bool set_scalar(const element &target, json_t *value, int &changes)
{
    json_ptr current(zrplain::plain_json(target.context(), target.get()));
    if (current && json_equal(current.get(), value))
        return true;
    cfg *ctx = target.context();
    element written;
    switch (target.type()) {
    case CFG_TYPE_STRING:
        if (json_is_string(value))
            written = target.set(json_string_value(value));
        break;
    case CFG_TYPE_INT:
        if (json_is_integer(value) && json_integer_value(value) >= INT_MIN &&
            json_integer_value(value) <= INT_MAX)
            written = target.set(static_cast<int>(json_integer_value(value)));
        break;
    case CFG_TYPE_FLOAT:
        if (json_is_number(value))
            written = target.set(json_number_value(value));
        break;
    case CFG_TYPE_BOOL:
        if (json_is_boolean(value))
            written = target.set(json_is_true(value));
        break;
    case CFG_TYPE_BLOB:
        if (json_is_string(value))
            written = target.set_blob(
                std::string_view(json_string_value(value), json_string_length(value)));
        break;
    case CFG_TYPE_REFERENCE:
        if (json_is_string(value))
            written = target.set_reference(
                element(ctx, cfg_get_by_path(ctx, json_string_value(value))));
        break;
    }
    changes += written ? 1 : 0;
    return static_cast<bool>(written);
}

bool merge_list(const element &list, json_t *array, int &changes, std::string &error)
{
    std::vector<element> members = list.members();
    size_t i;
    json_t *item;
    json_array_foreach(array, i, item)
    {
        if (i < members.size()) {
            if (!merge_value(members[i], item, changes, error))
                return false;
            continue;
        }
        cfg_schema_element *item_schema =
            zrplain::list_item_schema(list.context(), list.schema());
        element added(list.context(), zrplain::build_plain_value(list.context(), item,
                                                                 item_schema, "member",
                                                                 nullptr, error));
        if (!list.append(added))
            return false;
        changes++;
    }
    for (size_t extra = json_array_size(array); extra < members.size(); extra++) {
        members[extra].remove();
        changes++;
    }
    return true;
}

} // namespace

bool merge_member(const element &map, const std::string &key, json_t *value, int &changes,
                  std::string &error)
{
    element member = map[key];
    if (json_is_null(value)) {
        if (member && map.erase(key))
            changes++;
        return true;
    }
    if (member)
        return merge_value(member, value, changes, error);
    json_ptr one(json_object());
    json_object_set(one.get(), key.c_str(), value);
    if (!zrplain::build_plain_data(map.context(), map.get(), map.schema(), one.get(), nullptr,
                                   error))
        return false;
    changes++;
    return true;
}

bool merge_value(const element &target, json_t *value, int &changes, std::string &error)
{
    if (target.is_map() && json_is_object(value)) {
        const char *key;
        json_t *member;
        json_object_foreach(value, key, member)
        {
            if (!merge_member(target, key, member, changes, error))
                return false;
        }
        return true;
    }
    if (target.is_list() && json_is_array(value))
        return merge_list(target, value, changes, error);
    if (!target.is_map() && !target.is_list() && set_scalar(target, value, changes))
        return true;
    error = target.path() + ": the value does not fit a " + zrplain::type_name(target.type());
    return false;
}

} // namespace zrcfg
