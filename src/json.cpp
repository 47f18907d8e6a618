// JSON codecs: messages and their arguments (both ways, and a stack onto a
// context), configuration elements and their parent links (both ways),
// JSON paths into a decoded document, and schema elements with their
// validators (both ways).
#define ZR_SOURCE "src/json"
// An argument that its table cannot take is left out, and says so through the
// flag hash_oom at the adding site, instead of ending the process.
#define HASH_NONFATAL_OOM 1
#define uthash_nonfatal_oom(obj) (hash_oom = true)
#include "internal.h"
#include "common.h"
#include "schema.h"

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
    if (arg->key == nullptr) {
        free_decoded_arg(arg);
        return nullptr;
    }
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
    if (arg->value == nullptr) {
        free_decoded_arg(arg);
        return nullptr;
    }
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
        bool hash_oom = false;
        if (arg != nullptr)
            HASH_ADD_KEYPTR(hh, msg->args, arg->key, strlen(arg->key), arg);
        if (arg == nullptr || hash_oom) {
            free_decoded_arg(arg);
            ZR_LOG(LOG_ERR, "adding arg to message failed (message code=%d)", msg->code);
        }
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

// The members of an object named in names, found in one pass over the
// object: no key is hashed, and each member is reached once. at[i] is the
// member that json_object_get(object, names[i]) gives (keys match with their
// length), or nullptr.
template <size_t N> struct named_members {
    json_t *at[N] = {};

    named_members(json_t *object, const char *const (&names)[N])
    {
        const char *key;
        size_t length;
        json_t *member;
        json_object_keylen_foreach(object, key, length, member)
        {
            for (size_t i = 0; i < N; i++)
                if (strlen(names[i]) == length && memcmp(key, names[i], length) == 0) {
                    at[i] = member;
                    break;
                }
        }
    }
    const char *text(size_t field) const { return json_string_value(at[field]); }
};

// The members of an element object that loading reads.
struct element_fields : named_members<6> {
    enum { id, value, type, generation, schema, parents };
    static constexpr const char *names[] = {"id",         "value",  "type",
                                            "generation", "schema", "parents"};
    explicit element_fields(json_t *object) : named_members(object, names) {}
};

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

namespace {

cfg_element *load_bool(cfg *context, const element_fields &f)
{
    const char *text = f.text(f.value);
    int value = text != nullptr && strcmp(text, "true") == 0 ? 1 : 0;
    return cfg_load_bool(context, f.text(f.id), value);
}

cfg_element *load_int(cfg *context, const element_fields &f)
{
    int value = static_cast<int>(json_integer_value(f.at[f.value]));
    return cfg_load_int(context, f.text(f.id), value);
}

cfg_element *load_float(cfg *context, const element_fields &f)
{
    const char *text = f.text(f.value);
    double value = text != nullptr ? strtod(text, nullptr) : 0.0;
    return cfg_load_float(context, f.text(f.id), value);
}

cfg_element *load_string(cfg *context, const element_fields &f)
{
    return cfg_load_string(context, f.text(f.id), f.text(f.value));
}

// Pairs of digits, an odd last character ignored; see blob_to_json.
cfg_element *load_blob(cfg *context, const element_fields &f)
{
    const char *text = f.text(f.value);
    size_t length = text != nullptr ? json_string_length(f.at[f.value]) : 0;
    std::string bytes(length / 2, '\0');
    for (size_t i = 0; i < bytes.size(); i++) {
        int high = fromHex(static_cast<signed char>(text[2 * i]));
        int low = fromHex(static_cast<signed char>(text[2 * i + 1]));
        bytes[i] = static_cast<char>(static_cast<unsigned char>((16 * high + low) & 0xff));
    }
    return cfg_load_blob(context, f.text(f.id), bytes.data(), bytes.size());
}

// Drops an element whose members or parents ran out of memory half loaded:
// a partial element must not pass for the daemon's.
cfg_element *drop_partial(cfg *context, cfg_element *element)
{
    cfg_free_element(context, element);
    return nullptr;
}

// Entries that are not strings cannot name a member and are left out.
cfg_element *load_list(cfg *context, const element_fields &f)
{
    cfg_element *list = cfg_load_list(context, f.text(f.id));
    if (list == nullptr)
        return nullptr;
    size_t i;
    json_t *entry;
    json_array_foreach(f.at[f.value], i, entry)
    {
        if (json_is_string(entry) && cfg_load_listid(list, json_string_value(entry)) == nullptr)
            return drop_partial(context, list);
    }
    return list;
}

cfg_element *load_map(cfg *context, const element_fields &f)
{
    cfg_element *map = cfg_load_map(context, f.text(f.id));
    if (map == nullptr)
        return nullptr;
    const char *key;
    json_t *member;
    json_object_foreach(f.at[f.value], key, member)
    {
        const char *uuid = json_string_value(member);
        if (uuid == nullptr)
            break;
        if (cfg_load_mapid(map, key, uuid) == nullptr)
            return drop_partial(context, map);
    }
    return map;
}

cfg_element *load_reference(cfg *context, const element_fields &f)
{
    return cfg_load_reference(context, f.text(f.id), f.text(f.value));
}

// The members of a parent link that loading reads.
struct parent_fields : named_members<5> {
    enum { type, map, name, list, index };
    static constexpr const char *names[] = {"type", "map", "name", "list", "index"};
    explicit parent_fields(json_t *object) : named_members(object, names) {}
};

// Loads the map and list parent links; reference parents are not loaded.
// False when memory ran out (a link that lacks its ids is skipped).
bool load_parents(cfg_element *element, json_t *parents)
{
    size_t i;
    json_t *parent;
    json_array_foreach(parents, i, parent)
    {
        const parent_fields f(parent);
        const char *kind = f.text(f.type);
        if (kind == nullptr)
            continue;
        if (strcmp(kind, "map") == 0) {
            const char *map = f.text(f.map), *name = f.text(f.name);
            if (map != nullptr && name != nullptr &&
                cfg_load_mapparent(element, map, name) == nullptr)
                return false;
        } else if (strcmp(kind, "list") == 0) {
            auto index = json_integer_value(f.at[f.index]);
            const char *list = f.text(f.list);
            if (list != nullptr &&
                cfg_load_listparent(element, list, static_cast<unsigned int>(index)) == nullptr)
                return false;
        }
    }
    return true;
}

cfg_element *load_value(cfg *context, json_int_t type, const element_fields &f)
{
    switch (type) {
    case CFG_TYPE_BOOL:
        return load_bool(context, f);
    case CFG_TYPE_INT:
        return load_int(context, f);
    case CFG_TYPE_FLOAT:
        return load_float(context, f);
    case CFG_TYPE_STRING:
        return load_string(context, f);
    case CFG_TYPE_BLOB:
        return load_blob(context, f);
    case CFG_TYPE_LIST:
        return load_list(context, f);
    case CFG_TYPE_MAP:
        return load_map(context, f);
    case CFG_TYPE_REFERENCE:
        return load_reference(context, f);
    default:
        return nullptr;
    }
}

} // namespace

// The decoders of one type each, which read their object as json_to_elem
// reads it.
#define ZR_ELEMENT_DECODER(name)                                         \
    extern "C" cfg_element *json_to_##name(cfg *context, json_t *object) \
    {                                                                    \
        return load_##name(context, element_fields(object));             \
    }
ZR_ELEMENT_DECODER(bool)
ZR_ELEMENT_DECODER(int)
ZR_ELEMENT_DECODER(float)
ZR_ELEMENT_DECODER(string)
ZR_ELEMENT_DECODER(blob)
ZR_ELEMENT_DECODER(list)
ZR_ELEMENT_DECODER(map)
ZR_ELEMENT_DECODER(reference)
#undef ZR_ELEMENT_DECODER

extern "C" cfg_element *json_to_elem(cfg *context, json_t *object)
{
    if (object == nullptr)
        return nullptr;
    zr::merge_freed_blocks(); // what the caller released of the answer so far
    const element_fields f(object);
    cfg_element *element = load_value(context, json_integer_value(f.at[f.type]), f);
    if (element == nullptr)
        return nullptr;
    element->generation = static_cast<int>(json_integer_value(f.at[f.generation]));
    const char *schema = f.text(f.schema);
    if (schema != nullptr)
        snprintf(element->schema, sizeof element->schema, "%s", schema);
    if (!load_parents(element, f.at[f.parents]))
        return drop_partial(context, element);
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

namespace {

json_t *int_or_null(int has, int value)
{
    return has ? json_integer(value) : json_null();
}

json_t *string_or_null(const char *text)
{
    return text != nullptr ? json_string(text) : json_null();
}

bool has_type(const cfg_schema_element *elem, int type)
{
    return elem != nullptr && elem->type == type;
}

// The allowed entries of an element as a JSON array, by its type.
json_t *allowed_to_json(const cfg_link *list, int type)
{
    json_t *array = json_array();
    for (; list != nullptr; list = list->next) {
        const auto *entry = static_cast<const cfg_schema_allowed *>(list->data);
        if (type == CFG_TYPE_INT)
            json_array_append_new(array, json_integer(entry->value.int_value));
        else if (type == CFG_TYPE_FLOAT)
            json_array_append_new(array, json_real(entry->value.float_value));
        else
            json_array_append_new(array, string_or_null(entry->value.string_value));
    }
    return array;
}

// A member list as an object from key to member uuid, in list order.
json_t *mapids_to_json(const cfg_link *list)
{
    json_t *object = json_object();
    for (; list != nullptr; list = list->next) {
        const auto *link = static_cast<const cfg_schema_mapid *>(list->data);
        json_object_set_new(object, link->key, json_string(link->uuid));
    }
    return object;
}

void set_members(json_t *object, const cfg_schema_members *members)
{
    json_object_set_new(object, "required", mapids_to_json(members->required));
    json_object_set_new(object, "optional", mapids_to_json(members->optional));
    json_object_set_new(object, "deprecated", mapids_to_json(members->deprecated));
    json_t *conditionals = json_array();
    for (const cfg_link *node = members->conditionals; node != nullptr; node = node->next) {
        const auto *link = static_cast<const cfg_schema_mapconditional *>(node->data);
        json_array_append_new(conditionals, json_string(link->uuid));
    }
    json_object_set_new(object, "conditionals", conditionals);
}

// Limits written under "min_length" and "max_length".
json_t *length_limits_to_json(int has_min, int min, int has_max, int max)
{
    json_t *object = json_object();
    json_object_set_new(object, "min_length", int_or_null(has_min, min));
    json_object_set_new(object, "max_length", int_or_null(has_max, max));
    return object;
}

const char *const operator_texts[] = {nullptr, nullptr, "==", "!=", ">", ">=", "<", "<="};

// The comparison of an if element: the value object (or, for a float, the
// number and then an object without "value") appended to expression.
void append_if_value(json_t *expression, const cfg_schema_element *elem)
{
    const auto &part = elem->u.cond;
    json_t *value = nullptr;
    const char *type = nullptr;
    switch (part.value_type) {
    case 1: type = "bool"; value = json_boolean(part.value.bool_value); break;
    case 2: type = "integer"; value = json_integer(part.value.int_value); break;
    case 3: type = "string"; value = string_or_null(part.value.string_value); break;
    case 4:
        type = "float";
        json_array_append_new(expression, json_real(part.value.float_value));
        break;
    default: return;
    }
    json_t *object = json_object();
    json_object_set_new(object, "type", json_string(type));
    if (value != nullptr)
        json_object_set_new(object, "value", value);
    json_object_set_new(object, "id", json_string(part.value_id));
    json_array_append_new(expression, object);
}

// "min", "max", "default" and "allowed" of an int or float part; number
// makes the JSON value of one of its numbers.
template <typename Part, typename Number>
json_t *numeric_to_json(const Part &part, int type, Number number)
{
    auto number_or_null = [&](int has, auto value) { return has ? number(value) : json_null(); };
    json_t *object = json_object();
    json_object_set_new(object, "min", number_or_null(part.has_min, part.min));
    json_object_set_new(object, "max", number_or_null(part.has_max, part.max));
    json_object_set_new(object, "default", number_or_null(part.has_default, part.default_value));
    json_object_set_new(object, "allowed", allowed_to_json(part.allowed, type));
    return object;
}

json_t *tags_to_json(const cfg_link *tags)
{
    json_t *object = json_object();
    for (; tags != nullptr; tags = tags->next) {
        const auto *tag = static_cast<const cfg_schema_tag *>(tags->data);
        json_object_set_new(object, tag->key, json_string(tag->value));
    }
    return object;
}

} // namespace

extern "C" json_t *schema_bool_to_json(cfg_schema_element *elem)
{
    if (!has_type(elem, CFG_TYPE_BOOL))
        return nullptr;
    const auto &part = elem->u.boolean;
    json_t *object = json_object();
    json_object_set_new(object, "default",
                        part.has_default ? json_boolean(part.default_value) : json_null());
    return object;
}

extern "C" json_t *schema_int_to_json(cfg_schema_element *elem)
{
    if (!has_type(elem, CFG_TYPE_INT))
        return nullptr;
    return numeric_to_json(elem->u.integer, CFG_TYPE_INT,
                           [](int value) { return json_integer(value); });
}

extern "C" json_t *schema_float_to_json(cfg_schema_element *elem)
{
    if (!has_type(elem, CFG_TYPE_FLOAT))
        return nullptr;
    return numeric_to_json(elem->u.real, CFG_TYPE_FLOAT,
                           [](double value) { return json_real(value); });
}

extern "C" json_t *schema_string_to_json(cfg_schema_element *elem)
{
    if (!has_type(elem, CFG_TYPE_STRING))
        return nullptr;
    const auto &part = elem->u.string;
    json_t *object = length_limits_to_json(part.has_min, part.min, part.has_max, part.max);
    json_object_set_new(object, "regex", string_or_null(part.has_regex ? part.regex : nullptr));
    json_object_set_new(object, "default",
                        string_or_null(part.has_default ? part.default_value : nullptr));
    json_object_set_new(object, "allowed", allowed_to_json(part.allowed, CFG_TYPE_STRING));
    return object;
}

extern "C" json_t *schema_blob_to_json(cfg_schema_element *elem)
{
    if (!has_type(elem, CFG_TYPE_BLOB))
        return nullptr;
    const auto &part = elem->u.blob;
    return length_limits_to_json(part.has_min, part.min, part.has_max, part.max);
}

extern "C" json_t *schema_list_to_json(cfg_schema_element *elem)
{
    if (!has_type(elem, CFG_TYPE_LIST))
        return nullptr;
    const auto &part = elem->u.list;
    json_t *object = length_limits_to_json(part.has_min, part.min, part.has_max, part.max);
    json_object_set_new(object, "element_type",
                        part.element_kind == 2 ? string_or_null(part.element_type_name)
                                               : json_integer(part.element_type));
    return object;
}

extern "C" json_t *schema_map_to_json(cfg_schema_element *elem)
{
    if (!has_type(elem, CFG_TYPE_MAP))
        return nullptr;
    json_t *object = json_object();
    set_members(object, &elem->u.map);
    return object;
}

extern "C" json_t *schema_reference_to_json(cfg_schema_element *elem)
{
    if (!has_type(elem, CFG_TYPE_REFERENCE))
        return nullptr;
    json_t *object = json_object();
    json_object_set_new(object, "target", string_or_null(elem->u.reference.target));
    return object;
}

extern "C" json_t *schema_if_to_json(cfg_schema_element *elem)
{
    if (!has_type(elem, CFG_TYPE_IF))
        return nullptr;
    const auto &part = elem->u.cond;
    json_t *object = json_object();
    json_object_set_new(object, "eval_priority", json_integer(part.eval_priority));
    if (part.op == 1) {
        json_object_set_new(object, "exists", string_or_null(part.path));
    } else {
        json_t *expression = json_array();
        json_array_append_new(expression, string_or_null(part.path));
        if (part.op >= 2 && part.op <= 7)
            json_array_append_new(expression, json_string(operator_texts[part.op]));
        append_if_value(expression, elem);
        json_object_set_new(object, "expression", expression);
    }
    set_members(object, &part.members);
    return object;
}

extern "C" json_t *validator_to_json(cfg_schema_validator *validator)
{
    if (validator == nullptr)
        return nullptr;
    json_t *params = json_array();
    for (int i = 0; i < validator->params_count; i++)
        json_array_append_new(params, string_or_null(validator->params[i]));
    json_t *paths = json_array();
    for (int i = 0; i < validator->paths_count; i++)
        json_array_append_new(paths, string_or_null(validator->paths[i]));
    json_t *object = json_object();
    json_object_set_new(object, "validator", string_or_null(validator->name));
    json_object_set_new(object, "parameters", params);
    json_object_set_new(object, "paths", paths);
    return object;
}

extern "C" json_t *schema_elem_to_json(cfg_schema_element *elem)
{
    if (elem == nullptr)
        return nullptr;
    json_t *object = nullptr;
    switch (elem->type) {
    case CFG_TYPE_BOOL: object = schema_bool_to_json(elem); break;
    case CFG_TYPE_INT: object = schema_int_to_json(elem); break;
    case CFG_TYPE_FLOAT: object = schema_float_to_json(elem); break;
    case CFG_TYPE_STRING: object = schema_string_to_json(elem); break;
    case CFG_TYPE_BLOB: object = schema_blob_to_json(elem); break;
    case CFG_TYPE_LIST: object = schema_list_to_json(elem); break;
    case CFG_TYPE_MAP: object = schema_map_to_json(elem); break;
    case CFG_TYPE_REFERENCE: object = schema_reference_to_json(elem); break;
    case CFG_TYPE_IF: object = schema_if_to_json(elem); break;
    default: return nullptr;
    }
    json_object_set_new(object, "generation", json_integer(elem->generation));
    json_object_set_new(object, "type", json_integer(elem->type));
    json_object_set_new(object, "id", json_string(elem->uuid));
    json_object_set_new(object, "tags", tags_to_json(elem->tags));
    if (elem->validators_count >= 1) {
        json_t *validators = json_array();
        for (int i = 0; i < elem->validators_count; i++)
            json_array_append_new(validators, validator_to_json(elem->validators[i]));
        json_object_set_new(object, "validators", validators);
    }
    return object;
}

namespace {

const char *id_of(json_t *json)
{
    return json_string_value(json_object_get(json, "id"));
}

// An integer member: true and *out when the value is a JSON integer.
bool read_int(json_t *json, const char *key, int *out)
{
    json_t *value = json_object_get(json, key);
    if (!json_is_integer(value))
        return false;
    *out = static_cast<int>(json_integer_value(value));
    return true;
}

// A real member: integers do not count.
bool read_real(json_t *json, const char *key, double *out)
{
    json_t *value = json_object_get(json, key);
    if (!json_is_real(value))
        return false;
    *out = json_real_value(value);
    return true;
}

struct length_limits {
    int has_min = 0, min = 0, has_max = 0, max = 0;
};

length_limits read_length_limits(json_t *json)
{
    length_limits limits;
    limits.has_min = read_int(json, "min_length", &limits.min);
    limits.has_max = read_int(json, "max_length", &limits.max);
    return limits;
}

// Unmaps and frees a schema element that ran out of memory half read: a
// partial element must not pass for the daemon's. Always nullptr.
cfg_schema_element *drop_partial_schema(cfg *context, cfg_schema_element *elem)
{
    if (cfg_get_schema_node(context, elem->uuid) == elem)
        cfg_delete_schema_elem(&context->schema->elements, elem->uuid);
    cfg_free_schema_element(elem);
    return nullptr;
}

// Member links of the three key objects and the conditional links; false
// when memory ran out.
bool read_members(cfg_schema_element *elem, json_t *json)
{
    const char *lists[] = {"required", "optional", "deprecated"};
    for (int which = 0; which < 3; which++) {
        const char *key;
        json_t *value;
        json_object_foreach(json_object_get(json, lists[which]), key, value)
        {
            if (json_is_string(value) &&
                !cfg_load_schema_mapid(elem, which, key, json_string_value(value)))
                return false;
        }
    }
    size_t i;
    json_t *item;
    json_array_foreach(json_object_get(json, "conditionals"), i, item)
    {
        if (json_is_string(item) &&
            !cfg_load_schema_mapconditional(elem, json_string_value(item)))
            return false;
    }
    return true;
}

// Adds every entry of "allowed" that read accepts with add; the element, or
// nullptr (the element dropped) when memory ran out.
template <typename Add>
cfg_schema_element *read_allowed(cfg *context, cfg_schema_element *elem, json_t *json, Add add)
{
    if (elem == nullptr)
        return nullptr;
    size_t i;
    json_t *item;
    json_array_foreach(json_object_get(json, "allowed"), i, item)
    {
        if (!add(item))
            return drop_partial_schema(context, elem);
    }
    return elem;
}

int operator_code(const char *text)
{
    for (int op = 2; op <= 7; op++)
        if (strcmp(text, operator_texts[op]) == 0)
            return op;
    return 0;
}

// The condition of an if element as read from "exists" or "expression".
struct if_condition {
    const char *path = nullptr;
    int op = 0;
    int value_type = 0;
    cfg_schema_value value{};
    const char *value_id = nullptr;
};

void read_if_value(if_condition &condition, json_t *object)
{
    const char *type = json_string_value(json_object_get(object, "type"));
    json_t *value = json_object_get(object, "value");
    condition.value_id = json_string_value(json_object_get(object, "id"));
    if (type == nullptr)
        return;
    if (strcmp(type, "string") == 0) {
        condition.value_type = 3;
        condition.value.string_value = const_cast<char *>(json_string_value(value));
    } else if (strcmp(type, "int") == 0) {
        condition.value_type = 2;
        condition.value.int_value = static_cast<int>(json_integer_value(value));
    } else if (strcmp(type, "bool") == 0) {
        condition.value_type = 1;
        condition.value.bool_value = json_is_true(value);
    } else if (strcmp(type, "float") == 0) {
        condition.value_type = 4;
        condition.value.float_value = json_real_value(value);
    }
}

if_condition read_if_condition(json_t *json)
{
    if_condition condition;
    if (json_t *exists = json_object_get(json, "exists")) {
        if (json_is_string(exists)) {
            condition.op = 1;
            condition.path = json_string_value(exists);
        }
        return condition;
    }
    json_t *expression = json_object_get(json, "expression");
    if (!json_is_array(expression) || json_array_size(expression) != 3)
        return condition;
    json_t *path = json_array_get(expression, 0);
    json_t *op = json_array_get(expression, 1);
    json_t *value = json_array_get(expression, 2);
    if (!json_is_string(path) || !json_is_string(op) || !json_is_object(value))
        return condition;
    condition.path = json_string_value(path);
    condition.op = operator_code(json_string_value(op));
    read_if_value(condition, value);
    return condition;
}

} // namespace

extern "C" cfg_schema_element *json_to_schema_bool(cfg *context, json_t *json)
{
    json_t *value = json_object_get(json, "default");
    int has_default = json_is_boolean(value);
    return cfg_load_schema_bool(context, id_of(json), has_default, json_is_true(value));
}

extern "C" cfg_schema_element *json_to_schema_int(cfg *context, json_t *json)
{
    int min = 0, max = 0, default_value = 0;
    int has_min = read_int(json, "min", &min);
    int has_max = read_int(json, "max", &max);
    int has_default = read_int(json, "default", &default_value);
    cfg_schema_element *elem = cfg_load_schema_int(context, id_of(json), has_max, max,
                                                   has_min, min, has_default, default_value);
    return read_allowed(context, elem, json, [&](json_t *item) {
        return cfg_add_schema_int_allowed(context, elem,
                                          static_cast<int>(json_integer_value(item)));
    });
}

extern "C" cfg_schema_element *json_to_schema_float(cfg *context, json_t *json)
{
    double min = 0, max = 0, default_value = 0;
    int has_min = read_real(json, "min", &min);
    int has_max = read_real(json, "max", &max);
    int has_default = read_real(json, "default", &default_value);
    cfg_schema_element *elem = cfg_load_schema_float(
        context, id_of(json), has_max, has_min, has_default, max, min, default_value);
    return read_allowed(context, elem, json, [&](json_t *item) {
        return cfg_add_schema_float_allowed(context, elem, json_real_value(item));
    });
}

extern "C" cfg_schema_element *json_to_schema_string(cfg *context, json_t *json)
{
    length_limits limits = read_length_limits(json);
    cfg_schema_element *elem = cfg_load_schema_string(
        context, id_of(json), limits.has_max, limits.max, limits.has_min, limits.min,
        json_string_value(json_object_get(json, "default")),
        json_string_value(json_object_get(json, "regex")));
    return read_allowed(context, elem, json, [&](json_t *item) {
        return !json_is_string(item) ||
               cfg_add_schema_string_allowed(context, elem, json_string_value(item));
    });
}

extern "C" cfg_schema_element *json_to_schema_blob(cfg *context, json_t *json)
{
    length_limits limits = read_length_limits(json);
    return cfg_load_schema_blob(context, id_of(json), limits.has_max, limits.max,
                                limits.has_min, limits.min);
}

extern "C" cfg_schema_element *json_to_schema_list(cfg *context, json_t *json)
{
    json_t *element_type = json_object_get(json, "element_type");
    int kind = json_is_string(element_type) ? 2 : json_is_integer(element_type) ? 1 : 0;
    if (kind == 0)
        return nullptr;
    length_limits limits = read_length_limits(json);
    int type_code = kind == 1 ? static_cast<int>(json_integer_value(element_type)) : 0;
    return cfg_load_schema_list(context, id_of(json), limits.has_max, limits.max,
                                limits.has_min, limits.min, kind, type_code,
                                json_string_value(element_type));
}

extern "C" cfg_schema_element *json_to_schema_map(cfg *context, json_t *json)
{
    cfg_schema_element *elem = cfg_load_schema_map(context, id_of(json));
    if (elem != nullptr && !read_members(elem, json))
        return drop_partial_schema(context, elem);
    return elem;
}

extern "C" cfg_schema_element *json_to_schema_reference(cfg *context, json_t *json)
{
    return cfg_load_schema_reference(context, id_of(json),
                                     json_string_value(json_object_get(json, "target")));
}

extern "C" cfg_schema_element *json_to_schema_if(cfg *context, json_t *json)
{
    int eval_priority = 0;
    read_int(json, "eval_priority", &eval_priority);
    if_condition condition = read_if_condition(json);
    cfg_schema_element *elem =
        cfg_load_schema_if(context, id_of(json), condition.path, condition.op,
                           condition.value_type, condition.value, condition.value_id,
                           eval_priority);
    if (elem != nullptr && !read_members(elem, json))
        return drop_partial_schema(context, elem);
    return elem;
}

extern "C" cfg_schema_validator *json_to_validator(cfg *context, json_t *json)
{
    cfg_schema_validator *validator =
        cfg_init_schema_validator(context, json_string_value(json_object_get(json, "validator")));
    if (validator == nullptr)
        return nullptr;
    // Items that are not strings are skipped; running out of memory is not.
    size_t i;
    json_t *item;
    json_array_foreach(json_object_get(json, "parameters"), i, item)
    {
        if (json_is_string(item) && !cfg_validator_add_param(validator, json_string_value(item)))
            return zr::free_schema_validator(validator);
    }
    json_array_foreach(json_object_get(json, "paths"), i, item)
    {
        if (json_is_string(item) && !cfg_validator_add_path(validator, json_string_value(item)))
            return zr::free_schema_validator(validator);
    }
    return validator;
}

extern "C" cfg_schema_element *json_to_schema_elem(cfg *context, json_t *json)
{
    cfg_schema_element *elem = nullptr;
    switch (json_integer_value(json_object_get(json, "type"))) {
    case CFG_TYPE_BOOL: elem = json_to_schema_bool(context, json); break;
    case CFG_TYPE_INT: elem = json_to_schema_int(context, json); break;
    case CFG_TYPE_FLOAT: elem = json_to_schema_float(context, json); break;
    case CFG_TYPE_STRING: elem = json_to_schema_string(context, json); break;
    case CFG_TYPE_BLOB: elem = json_to_schema_blob(context, json); break;
    case CFG_TYPE_LIST: elem = json_to_schema_list(context, json); break;
    case CFG_TYPE_MAP: elem = json_to_schema_map(context, json); break;
    case CFG_TYPE_REFERENCE: elem = json_to_schema_reference(context, json); break;
    case CFG_TYPE_IF: elem = json_to_schema_if(context, json); break;
    default: return nullptr;
    }
    if (elem == nullptr)
        return nullptr;
    size_t i;
    json_t *item;
    json_array_foreach(json_object_get(json, "validators"), i, item)
    {
        // A validator without a name is skipped; one that ran out of memory
        // drops the element.
        cfg_schema_validator *validator = json_to_validator(context, item);
        bool named = json_is_string(json_object_get(item, "validator"));
        if (validator == nullptr && named)
            return drop_partial_schema(context, elem);
        if (validator != nullptr && !cfg_schema_add_validator(elem, validator)) {
            zr::free_schema_validator(validator);
            return drop_partial_schema(context, elem);
        }
    }
    elem->generation = static_cast<int>(json_integer_value(json_object_get(json, "generation")));
    const char *key;
    json_t *value;
    json_object_foreach(json_object_get(json, "tags"), key, value)
    {
        if (json_is_string(value) && !cfg_add_schema_tag(elem, key, json_string_value(value)))
            return drop_partial_schema(context, elem);
    }
    return elem;
}
