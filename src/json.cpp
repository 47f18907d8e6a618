// JSON codecs: messages and their arguments.
#define ZR_SOURCE "src/json"
#include "internal.h"

#include <cstring>

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

// ------------------------------------------------------------------------
// Schema JSON
// ------------------------------------------------------------------------
