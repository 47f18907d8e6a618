// Message objects and answers built without a configuration context.
#include "common.h"

#include <cstring>
#include <vector>

namespace zrd {

json_t *message_json(int code, std::initializer_list<std::string> values)
{
    std::vector<char *> texts;
    for (const std::string &v : values)
        texts.push_back(strdup(v.c_str()));
    // cfg_new_message takes the texts over, also when it fails.
    cfg_message *msg = cfg_new_message(code, static_cast<int>(texts.size()), texts.data());
    if (msg == nullptr)
        return nullptr;
    json_t *json = cfg_message_to_json(msg);
    cfg_free_message(&msg);
    return json;
}

json_t *failure(int code, std::initializer_list<std::string> values)
{
    json_t *answer = json_pack("{s:b}", "result", 0);
    json_t *messages = json_array();
    if (json_t *msg = message_json(code, values))
        json_array_append_new(messages, msg);
    json_object_set_new(answer, "messages", messages);
    return answer;
}

json_t *success(json_t *data)
{
    json_t *answer = json_pack("{s:b}", "result", 1);
    if (data != nullptr)
        json_object_set_new(answer, "data", data);
    return answer;
}

namespace {
bool log_to_syslog = false, log_to_stderr = true;
}

void set_logging(bool use_syslog, bool use_stderr)
{
    log_to_syslog = use_syslog;
    log_to_stderr = use_stderr;
    restore_logging();
}

void restore_logging()
{
    zrlog_init_raw("zrconfigd", log_to_syslog, log_to_stderr, LOG_NOTICE);
}

cfg *new_context()
{
    cfg *ctx = cfg_create_new_config(nullptr);
    restore_logging();
    if (ctx != nullptr)
        ctx->get_by_id = cfg_find_by_id;
    return ctx;
}

void free_context(cfg *&ctx)
{
    if (ctx == nullptr)
        return;
    cfg_schema *schema = ctx->schema;
    cfg_free_config(&ctx);
    cfg_free_schema(nullptr, &schema);
    ctx = nullptr;
}

std::string dump(json_t *value)
{
    cstr_ptr text(json_dumps(value, JSON_ENCODE_ANY));
    return text ? std::string(text.get()) : std::string();
}

} // namespace zrd
