// Message JSON: one message object decoded and encoded again, and an array
// of them appended to a context's stack and rendered as text (texts the messages own).
#include "support.h"

namespace {

void decode_one(json_t *json)
{
    cfg_message *msg = json_to_config_message(json);
    if (msg == nullptr)
        return;
    zrfuzz::exercise_dump(cfg_message_to_json(msg));
    cfg_get_message_string(msg);
    cfg_free_message(&msg);
}

void append_all(json_t *array)
{
    cfg *ctx = zrfuzz::empty_context();
    append_json_config_messages_to_context(ctx, array);
    for (int i = 0; i < cfg_message_count(ctx); i++) {
        cfg_message *msg = cfg_get_message_object(ctx, i);
        cfg_get_message_string(msg);
        for (int a = 0; a < cfg_get_message_arg_count(msg); a++)
            cfg_get_message_arg_value(msg, a);
    }
    zrfuzz::exercise_dump(cfg_message_stack_to_json(ctx));
    zrfuzz::release(ctx);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    zrfuzz::json_handle value = zrfuzz::parse(data, size);
    if (value == nullptr)
        return 0;
    if (json_is_array(value.get()))
        append_all(value.get());
    else
        decode_one(value.get());
    return 0;
}
