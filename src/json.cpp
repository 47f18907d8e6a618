// JSON codecs: messages and their arguments.
#define ZR_SOURCE "src/json"
#include "internal.h"

#include <cerrno>
#include <cstring>
#include <string>

using zr::cstr_ptr;

extern "C" json_t *cfg_message_arg_to_json(cfg_message_arg *arg)
{
    if (arg == nullptr)
        return nullptr;
    return json_pack("{s:s?, s:s?}", "key", arg->key, "value", arg->value);
}

extern "C" json_t *cfg_message_to_json(cfg_message *msg)
{
    if (msg == nullptr)
        return nullptr;
    json_t *args = json_array();
    for (cfg_message_arg *arg = msg->args; arg != nullptr;
         arg = static_cast<cfg_message_arg *>(arg->hh.next))
        json_array_append_new(args, cfg_message_arg_to_json(arg));
    json_t *object = json_object();
    json_object_set_new(object, "code", json_integer(msg->code));
    json_object_set_new(object, "args", args);
    return object;
}

extern "C" json_t *cfg_message_stack_to_json(cfg *context)
{
    json_t *stack = json_array();
    if (context == nullptr)
        return stack;
    for (int i = 0; i < context->messages_count; i++) {
        if (context->messages[i] == nullptr) {
            ZR_LOG(LOG_WARNING, "null message[%d] in config context", i);
            continue;
        }
        json_array_append_new(stack, cfg_message_to_json(context->messages[i]));
    }
    return stack;
}

namespace {

// Logs the compact JSON text of a member that had the wrong type.
void log_provided_json(json_t *value)
{
    cstr_ptr text(json_dumps(value, JSON_COMPACT | JSON_ENCODE_ANY));
    ZR_LOG(LOG_ERR, "        provided json: %s", text ? text.get() : "");
}

void free_decoded_arg(cfg_message_arg *arg)
{
    cfg_free_message_arg(&arg);
}

} // namespace

extern "C" cfg_message_arg *json_to_config_message_arg(json_t *json)
{
    if (json == nullptr)
        return nullptr;
    cfg_message_arg *arg = zr::zalloc<cfg_message_arg>();
    if (arg == nullptr)
        return nullptr;
    arg->owns_key = 1;
    json_t *key = json_object_get(json, "key");
    if (key == nullptr) {
        ZR_LOG(LOG_ERR, "getting config message arg: key gave null object");
        free_decoded_arg(arg);
        return nullptr;
    }
    if (!json_is_string(key)) {
        ZR_LOG(LOG_ERR, "getting config message arg: key object gave null string");
        log_provided_json(key);
        free_decoded_arg(arg);
        return nullptr;
    }
    arg->key = strdup(json_string_value(key));
    json_t *value = json_object_get(json, "value");
    if (value == nullptr) {
        ZR_LOG(LOG_ERR, "getting config message arg: value gave null object (key was %s)",
               arg->key);
        free_decoded_arg(arg);
        return nullptr;
    }
    if (!json_is_string(value)) {
        ZR_LOG(LOG_ERR,
               "getting config message arg: value object gave null string (key was %s)",
               arg->key);
        log_provided_json(value);
        free_decoded_arg(arg);
        return nullptr;
    }
    arg->value = strdup(json_string_value(value));
    return arg;
}

extern "C" cfg_message *json_to_config_message(json_t *json)
{
    if (json == nullptr)
        return nullptr;
    json_t *args = json_object_get(json, "args");
    if (args == nullptr)
        return nullptr;
    cfg_message *msg = zr::zalloc<cfg_message>();
    if (msg == nullptr)
        return nullptr;
    msg->code = static_cast<int>(json_integer_value(json_object_get(json, "code")));
    size_t i;
    json_t *item;
    json_array_foreach(args, i, item)
    {
        cfg_message_arg *arg = json_to_config_message_arg(item);
        if (arg == nullptr) {
            ZR_LOG(LOG_ERR, "adding arg to message failed (message code=%d)", msg->code);
            continue;
        }
        HASH_ADD_KEYPTR(hh, msg->args, arg->key, strlen(arg->key), arg);
    }
    return msg;
}

extern "C" int append_json_config_messages_to_context(cfg *context, json_t *array)
{
    if (context == nullptr || array == nullptr)
        return 0;
    int appended = 0;
    size_t i;
    json_t *item;
    json_array_foreach(array, i, item)
    {
        cfg_message *msg = json_to_config_message(item);
        if (msg == nullptr)
            continue;
        if (cfg_add_message(context, msg))
            appended++;
        else
            cfg_free_message(&msg);
    }
    return appended;
}

// ------------------------------------------------------------------------
// Element JSON
// ------------------------------------------------------------------------

namespace {

const char *string_member(json_t *object, const char *key)
{
    return json_string_value(json_object_get(object, key));
}

// A copy of the element's link list as uuid strings, in order.
json_t *uuid_array(cfg_link *head)
{
    json_t *array = json_array();
    for (cfg_link *n = head; n != nullptr; n = n->next)
        json_array_append_new(array,
                              json_string(static_cast<cfg_parent_link *>(n->data)->uuid));
    return array;
}

} // namespace

extern "C" json_t *bool_to_json(cfg_element *element)
{
    return json_string(element->value.int_value ? "true" : "false");
}

extern "C" json_t *int_to_json(cfg_element *element)
{
    return json_integer(element->value.int_value);
}

// "%lf" into 20 bytes: renderings of 20 characters or more are cut to 19.
extern "C" json_t *float_to_json(cfg_element *element)
{
    char text[20];
    snprintf(text, sizeof text, "%lf", element->value.float_value);
    return json_string(text);
}

extern "C" json_t *string_to_json(cfg_element *element)
{
    return json_string(element->value.string_value);
}

extern "C" int hexchar(int nibble)
{
    return nibble <= 9 ? 48 + nibble : 87 + nibble;
}

extern "C" int fromHex(int character)
{
    return character < 97 ? character - 48 : character - 87;
}

// Each byte is taken as signed, so bytes from 0x80 give characters below '0'.
extern "C" json_t *blob_to_json(cfg_element *element)
{
    size_t size = element->value.blob.size;
    std::string text;
    text.reserve(2 * size);
    for (size_t i = 0; i < size; i++) {
        int c = static_cast<signed char>(element->value.blob.data[i]);
        text += static_cast<char>(hexchar(c / 16));
        text += static_cast<char>(hexchar(c % 16));
    }
    return json_stringn(text.data(), text.size());
}

extern "C" json_t *list_to_json(cfg_element *element)
{
    return uuid_array(element->value.list.members);
}

extern "C" json_t *map_to_json(cfg_element *element)
{
    json_t *object = json_object();
    for (cfg_link *n = element->value.map.members; n != nullptr; n = n->next) {
        auto *link = static_cast<cfg_parent_link *>(n->data);
        json_object_set_new(object, link->name != nullptr ? link->name : "",
                            json_string(link->uuid));
    }
    return object;
}

extern "C" json_t *reference_to_json(cfg_element *element)
{
    return json_string(element->value.string_value);
}

extern "C" json_t *refparent_to_json(cfg_parent_link *link)
{
    return json_pack("{s:s, s:s}", "reference", link->uuid, "type", "reference");
}

extern "C" json_t *listparent_to_json(cfg_parent_link *link)
{
    json_t *object = json_pack("{s:s, s:s}", "list", link->uuid, "type", "list");
    json_object_set_new(object, "index", json_integer(link->index));
    return object;
}

extern "C" json_t *mapparent_to_json(cfg_parent_link *link)
{
    return json_pack("{s:s, s:s, s:s}", "map", link->uuid, "type", "map", "name",
                     link->name != nullptr ? link->name : "");
}

extern "C" json_t *parents_to_json(cfg_link *parents)
{
    json_t *array = json_array();
    for (cfg_link *n = parents; n != nullptr; n = n->next) {
        auto *link = static_cast<cfg_parent_link *>(n->data);
        json_t *object = nullptr;
        if (link->type == CFG_TYPE_LIST)
            object = listparent_to_json(link);
        else if (link->type == CFG_TYPE_MAP)
            object = mapparent_to_json(link);
        else if (link->type == CFG_TYPE_REFERENCE)
            object = refparent_to_json(link);
        if (object != nullptr)
            json_array_append_new(array, object);
    }
    return array;
}

namespace {

json_t *value_to_json(cfg_element *element)
{
    switch (element->type) {
    case CFG_TYPE_BOOL:
        return bool_to_json(element);
    case CFG_TYPE_INT:
        return int_to_json(element);
    case CFG_TYPE_FLOAT:
        return float_to_json(element);
    case CFG_TYPE_STRING:
        return string_to_json(element);
    case CFG_TYPE_BLOB:
        return blob_to_json(element);
    case CFG_TYPE_LIST:
        return list_to_json(element);
    case CFG_TYPE_MAP:
        return map_to_json(element);
    case CFG_TYPE_REFERENCE:
        return reference_to_json(element);
    default:
        return nullptr;
    }
}

} // namespace

extern "C" json_t *elem_to_json(cfg_element *element)
{
    if (element == nullptr)
        return nullptr;
    zr::json_ptr object(json_object());
    json_object_set_new(object.get(), "generation", json_integer(element->generation));
    json_object_set_new(object.get(), "parents", parents_to_json(element->parents));
    json_object_set_new(object.get(), "type", json_integer(element->type));
    json_object_set_new(object.get(), "id", json_string(element->uuid));
    json_object_set_new(object.get(), "schema", json_string(element->schema));
    if (element->future_parent != nullptr)
        json_object_set_new(object.get(), "future_parent",
                            json_string(element->future_parent->uuid));
    json_t *value = value_to_json(element);
    if (value == nullptr)
        return nullptr;
    json_object_set_new(object.get(), "value", value);
    return object.release();
}

extern "C" cfg_element *json_to_bool(cfg *context, json_t *object)
{
    const char *text = string_member(object, "value");
    int value = text != nullptr && strcmp(text, "true") == 0 ? 1 : 0;
    return cfg_load_bool(context, string_member(object, "id"), value);
}

extern "C" cfg_element *json_to_int(cfg *context, json_t *object)
{
    int value = static_cast<int>(json_integer_value(json_object_get(object, "value")));
    return cfg_load_int(context, string_member(object, "id"), value);
}

extern "C" cfg_element *json_to_float(cfg *context, json_t *object)
{
    const char *text = string_member(object, "value");
    double value = text != nullptr ? strtod(text, nullptr) : 0.0;
    return cfg_load_float(context, string_member(object, "id"), value);
}

extern "C" cfg_element *json_to_string(cfg *context, json_t *object)
{
    return cfg_load_string(context, string_member(object, "id"),
                           string_member(object, "value"));
}

// Pairs of digits, an odd last character ignored; see blob_to_json.
extern "C" cfg_element *json_to_blob(cfg *context, json_t *object)
{
    json_t *value = json_object_get(object, "value");
    const char *text = json_string_value(value);
    size_t length = text != nullptr ? json_string_length(value) : 0;
    std::string bytes(length / 2, '\0');
    for (size_t i = 0; i < bytes.size(); i++) {
        int high = fromHex(static_cast<signed char>(text[2 * i]));
        int low = fromHex(static_cast<signed char>(text[2 * i + 1]));
        bytes[i] = static_cast<char>(static_cast<unsigned char>((16 * high + low) & 0xff));
    }
    return cfg_load_blob(context, string_member(object, "id"), bytes.data(), bytes.size());
}

// Entries that are not strings cannot name a member and are left out.
extern "C" cfg_element *json_to_list(cfg *context, json_t *object)
{
    cfg_element *list = cfg_load_list(context, string_member(object, "id"));
    if (list == nullptr)
        return nullptr;
    size_t i;
    json_t *entry;
    json_array_foreach(json_object_get(object, "value"), i, entry)
    {
        if (json_is_string(entry))
            cfg_load_listid(list, json_string_value(entry));
    }
    return list;
}

extern "C" cfg_element *json_to_map(cfg *context, json_t *object)
{
    cfg_element *map = cfg_load_map(context, string_member(object, "id"));
    if (map == nullptr)
        return nullptr;
    const char *key;
    json_t *member;
    json_object_foreach(json_object_get(object, "value"), key, member)
    {
        const char *uuid = json_string_value(member);
        if (uuid == nullptr)
            break;
        cfg_load_mapid(map, key, uuid);
    }
    return map;
}

extern "C" cfg_element *json_to_reference(cfg *context, json_t *object)
{
    return cfg_load_reference(context, string_member(object, "id"),
                              string_member(object, "value"));
}

namespace {

// Loads the map and list parent links; reference parents are not loaded.
void load_parents(cfg_element *element, json_t *parents)
{
    size_t i;
    json_t *parent;
    json_array_foreach(parents, i, parent)
    {
        const char *kind = string_member(parent, "type");
        if (kind == nullptr)
            continue;
        if (strcmp(kind, "map") == 0) {
            cfg_load_mapparent(element, string_member(parent, "map"),
                               string_member(parent, "name"));
        } else if (strcmp(kind, "list") == 0) {
            auto index = json_integer_value(json_object_get(parent, "index"));
            cfg_load_listparent(element, string_member(parent, "list"),
                                static_cast<unsigned int>(index));
        }
    }
}

cfg_element *load_value(cfg *context, json_int_t type, json_t *object)
{
    switch (type) {
    case CFG_TYPE_BOOL:
        return json_to_bool(context, object);
    case CFG_TYPE_INT:
        return json_to_int(context, object);
    case CFG_TYPE_FLOAT:
        return json_to_float(context, object);
    case CFG_TYPE_STRING:
        return json_to_string(context, object);
    case CFG_TYPE_BLOB:
        return json_to_blob(context, object);
    case CFG_TYPE_LIST:
        return json_to_list(context, object);
    case CFG_TYPE_MAP:
        return json_to_map(context, object);
    case CFG_TYPE_REFERENCE:
        return json_to_reference(context, object);
    default:
        return nullptr;
    }
}

} // namespace

extern "C" cfg_element *json_to_elem(cfg *context, json_t *object)
{
    if (object == nullptr)
        return nullptr;
    json_int_t type = json_integer_value(json_object_get(object, "type"));
    cfg_element *element = load_value(context, type, object);
    if (element == nullptr)
        return nullptr;
    element->generation =
        static_cast<int>(json_integer_value(json_object_get(object, "generation")));
    const char *schema = string_member(object, "schema");
    if (schema != nullptr)
        snprintf(element->schema, sizeof element->schema, "%s", schema);
    load_parents(element, json_object_get(object, "parents"));
    return element;
}

namespace {

// Selects one segment: "name" or "name[n]"; a negative n keeps the member.
json_t *select_segment(json_t *current, char *segment)
{
    char *open = strchr(segment, '[');
    if (open == nullptr)
        return json_object_get(current, segment);
    char *close = strchr(open, ']');
    if (close == nullptr)
        return nullptr;
    *open = '\0';
    *close = '\0';
    json_t *member = json_object_get(current, segment);
    errno = 0;
    long n = strtol(open + 1, nullptr, 10);
    if (errno == ERANGE)
        return nullptr;
    if (member == nullptr || n < 0)
        return member;
    return json_array_get(member, static_cast<size_t>(n));
}

} // namespace

extern "C" json_t *json_path_get(json_t *root, const char *path)
{
    if (root == nullptr || path == nullptr)
        return nullptr;
    std::string copy(path);
    char *at = copy.data();
    json_t *current = root;
    for (;;) {
        while (*at == '\a')
            at++;
        if (*at == '\0')
            return current;
        char *end = strchr(at, '\a');
        if (end != nullptr)
            *end = '\0';
        current = select_segment(current, at);
        if (current == nullptr)
            return nullptr;
        if (end == nullptr)
            return current;
        at = end + 1;
    }
}

// ------------------------------------------------------------------------
// Schema JSON
// ------------------------------------------------------------------------
