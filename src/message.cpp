// The message catalogue and the message stack: coded messages with named
// text arguments, filled into their templates on demand; the stack's
// queries, and one adder per catalogue row.
#define ZR_SOURCE "src/message"
#include "internal.h"
#include "codes.h"

#include <cstdarg>
#include <cstring>
#include <mutex>
#include <initializer_list>
#include <string>
#include <vector>

namespace msg = zr::msg;

namespace {

constexpr int max_arg_names = 6;
constexpr int catalogue_size = 79;
constexpr size_t message_buffer_size = 1000;

struct catalogue_row {
    int code;
    int type;
    int level;
    const char *text;
    const char *names[max_arg_names];
};

const catalogue_row rows[] = {
    {msg::unexpected, 3, 1, "Unexpected internal error (File {{file}}, Line {{line}})", {"file", "line"}},
    {msg::unknown_lock, 3, 1, "Locking failed with unknown error", {}},
    {msg::file_io, 3, 1, "File I/O error", {}},
    {msg::unknown_pull, 4, 1, "Pull failed with unknown error", {}},
    {msg::protocol, 4, 1, "Protocol error talking to remote host", {}},
    {msg::int_above_max, 2, 1, "Number exceeds the maximum allowed value of {{max}}", {"max", "uuid"}},
    {msg::int_below_min, 2, 1, "Number is below the minimum allowed value of {{min}}", {"min", "uuid"}},
    {msg::int_invalid_value, 2, 1, "Number is not in the list of allowed values", {"uuid"}},
    {msg::float_above_max, 2, 1, "Number exceeds the maximum allowed value of {{max}}", {"max", "uuid"}},
    {msg::float_below_min, 2, 1, "Number is below the minimum allowed value of {{min}}", {"min", "uuid"}},
    {msg::float_invalid_value, 2, 1, "Number is not in the list of allowed values", {"uuid"}},
    {msg::string_above_max, 2, 1, "Element exceeds the maximum allowed length of {{max}} characters", {"max", "uuid"}},
    {msg::string_below_min, 2, 1, "Element is below the minimum allowed length of {{min}} character(s)", {"min", "uuid"}},
    {msg::string_invalid_value, 2, 1, "'{{value}}' is not in the list of allowed values", {"uuid", "value"}},
    {msg::string_format, 2, 1, "String did not conform to the expected format.", {"uuid"}},
    {msg::blob_above_max, 2, 1, "Element exceeds the maximum allowed size of {{max}} characters", {"max", "uuid"}},
    {msg::blob_below_min, 2, 1, "Element is below the minimum allowed size of {{min}} characters", {"min", "uuid"}},
    {msg::list_above_max, 2, 1, "List has more than the maximum allowable size of {{max}} items", {"max", "uuid"}},
    {msg::list_below_min, 2, 1, "List has fewer than the minimum allowable size of {{min}} items", {"min", "uuid"}},
    {msg::list_wrong_type, 2, 1, "List element is of the wrong type", {"uuid"}},
    {msg::missing_required, 2, 1, "Required field '{{name}}' is not present", {"name", "uuid"}},
    {msg::invalid_reference, 2, 1, "Invalid reference", {"uuid"}},
    {msg::wrong_type, 2, 1, "Element [{{uuid}}] is of the wrong type", {"uuid"}},
    {msg::no_match, 2, 1, "Element [{{uuid}}] with name '{{name}}' does not match any schema element", {"uuid", "name"}},
    {msg::password_mismatch, 2, 1, "Plaintext and hashed passwords do not match", {"uuid"}},
    {msg::invalid_networkaddress, 2, 1, "'{{address}}' is not a valid network address", {"address", "uuid"}},
    {msg::duplicate, 2, 1, "Duplicate '{{field}}' fields with value '{{value}}'", {"field", "value", "uuid"}},
    {msg::common_name_error, 2, 1, "'{{common_name}}' is not a valid common name", {"common_name", "uuid"}},
    {msg::path_not_found, 5, 1, "Could not find element with path '{{path}}'", {"path"}},
    {msg::uuid_not_found, 5, 1, "Could not find element with UUID '{{uuid}}'", {"uuid"}},
    {msg::database, 5, 1, "Database error", {}},
    {msg::schema, 5, 1, "Schema error", {}},
    {msg::conflict, 1, 1, "Update conflicts with newer data on server", {}},
    {msg::push_failed, 1, 1, "Push command failed", {}},
    {msg::get_schema_failed, 1, 1, "Get schema command failed", {}},
    {msg::get_data_by_path_failed, 1, 1, "Get data by path command failed", {}},
    {msg::get_data_by_id_failed, 1, 1, "Get data by id command failed", {}},
    {msg::lock_failed, 1, 1, "Lock command failed", {}},
    {msg::subscribe_failed, 1, 1, "Subscribe command failed", {}},
    {msg::invalid_request, 4, 1, "Invalid request body", {}},
    {msg::incomplete_data, 4, 1, "Required field '{{param}}' was not provided in the request", {"param"}},
    {msg::invalid_credentials, 7, 1, "Invalid login credentials", {}},
    {msg::invalid_session, 7, 1, "Invalid session ID", {}},
    {msg::changed_ro, 5, 1, "Request tried to change read-only data", {}},
    {msg::worker, 3, 1, "Error talking to job queue", {}},
    {msg::reg_not_ready, 5, 1, "Registration package is not currently available for this node", {}},
    {msg::permission_denied, 7, 1, "Permission denied", {}},
    {msg::invalid_action, 1, 1, "Specified action '{{action}}' does not exist", {"action"}},
    {msg::invalid_parameter, 4, 1, "Invalid parameter '{{param}}' was provided", {"param"}},
    {msg::invalid_json, 2, 1, "Invalid json '{{value}}' for parameter '{{param}}'", {"param", "value", "error", "line", "column", "position"}},
    {msg::invalid_cert, 5, 1, "Certificate / Key combination failed validation", {}},
    {msg::invalid_query, 5, 1, "Query string is not a valid condition tree", {}},
    {msg::unknown_data_of_type, 5, 1, "Unknown {{type}}: {{item}}", {"type", "item"}},
    {msg::invalid_ip, 2, 1, "'{{address}}' is not a valid network address", {"address", "uuid"}},
    {msg::invalid_parameter_value, 4, 1, "Invalid parameter value was provided, parameter: '{{param}}', value: '{{value}}'", {"param", "value"}},
    {msg::bad_tag_name, 2, 1, "Can not use a tag with name '{{tag_name}}' in this context", {"tag_name"}},
    {msg::bad_key, 2, 1, "Provided SSL key was not in a supported format.", {}},
    {msg::csr_generate_failed, 2, 1, "Could not generate a valid certificate signing request with the provided data.", {}},
    {msg::invalid_mac, 2, 1, "'{{mac}}' is not a valid MAC address", {"mac", "uuid"}},
    {msg::dhcp_limit, 2, 1, "Cannot have more than one DHCP connection per physical interface.", {}},
    {msg::invalid_role, 2, 1, "'{{rolename}}' is not a valid role for this group mode ({{mode}}).", {"rolename", "mode"}},
    {msg::int_outside_range, 2, 1, "Number is outside the allowed range of {{min}}-{{max}}.", {"min", "max", "uuid"}},
    {msg::field_updated, 4, 3, "Field '{{fieldname}}' was updated to '{{value}}'.", {"fieldname", "value"}},
    {msg::cfg_push_unsupported_operation, 5, 1, "Requested operation is not supported.", {}},
    {msg::cfg_push_ug_reserved_value, 5, 1, "Template uses reserved value: {{value}}.", {"value"}},
    {msg::cfg_push_dataset_updated, 5, 3, "Data updated: {{dataset}}.", {"dataset"}},
    {msg::cfg_push_no_changes_required, 5, 3, "Template application required no changes.", {}},
    {msg::cfg_push_request_failed, 4, 2, "Request to node failed with: {{message}}.", {"message"}},
    {msg::cfg_push_communication_failure, 4, 1, "Error communicating with node.", {}},
    {msg::cfg_push_node_offline, 4, 1, "Node currently offline.", {}},
    {msg::cfg_push_bad_remote_data, 5, 2, "Remote data may be in a bad state", {}},
    {msg::invalid_file_format, 2, 1, "Invalid file format.", {}},
    {msg::cfg_push_script_exec_success, 4, 3, "Script executed successfully", {}},
    {msg::cfg_push_script_exec_failure, 4, 1, "Script executed with exit code {{code}}", {"code"}},
    {msg::cfg_push_script_exec_timeout, 4, 1, "Script timed out", {}},
    {msg::hashed_password_found, 2, 1, "If no_password is set to true, the hashed_password must be deleted.", {}},
    {msg::hashed_password_not_found, 2, 1, "If no_password is set to false, the hashed_password must be set.", {}},};

struct catalogue {
    cfg_message_def defs[catalogue_size];
    cfg_message_def *by_code[catalogue_size];
    int arg_counts[catalogue_size];
};

catalogue *the_catalogue = nullptr;

int count_names(const catalogue_row &row)
{
    int n = 0;
    while (n < max_arg_names && row.names[n] != nullptr)
        n++;
    return n;
}

// Number of argument names of code's row; 0 for a code without a row.
int row_arg_count(int code)
{
    if (cfg_get_message_def(code) == nullptr)
        return 0;
    return the_catalogue->arg_counts[code];
}

void free_values(char **values, int from, int to)
{
    for (int i = from; i < to; i++)
        free(values[i]);
}

// Owned text of a string argument, or "param <name> was NULL".
char *arg_text(const char *name, const char *value)
{
    if (value != nullptr)
        return strdup(value);
    std::string text = std::string("param ") + name + " was NULL";
    return strdup(text.c_str());
}

// Builds a message of code from owned texts and pushes it onto the stack.
bool add_coded(cfg *c, int code, std::initializer_list<char *> texts)
{
    std::vector<char *> values(texts);
    cfg_message *msg = cfg_new_message(code, static_cast<int>(values.size()), values.data());
    if (cfg_add_message(c, msg))
        return true;
    cfg_free_message(&msg);
    return false;
}

// Fills the process-wide catalogue from the rows.
void build_catalogue()
{
    auto *built = new catalogue{};
    for (const catalogue_row &row : rows) {
        cfg_message_def &def = built->defs[row.code];
        def.code = row.code;
        def.type = row.type;
        def.level = row.level;
        def.text = row.text;
        def.arg_names = const_cast<const char **>(row.names);
        built->by_code[row.code] = &def;
        built->arg_counts[row.code] = count_names(row);
    }
    the_catalogue = built;
}

} // namespace

// Built once per process, also when several threads ask at once.
extern "C" void cfg_message_init(void)
{
    static std::once_flag built_once;
    std::call_once(built_once, build_catalogue);
}

extern "C" cfg_message_def *cfg_get_message_def(int code)
{
    cfg_message_init();
    if (code < 0 || code >= catalogue_size)
        return nullptr;
    return the_catalogue->by_code[code];
}

extern "C" bool cfg_add_message(cfg *context, cfg_message *msg)
{
    if (context == nullptr) {
        ZR_LOG(LOG_WARNING, "adding message to null config context");
        return false;
    }
    if (msg == nullptr)
        return false;
    size_t count = static_cast<size_t>(context->messages_count);
    auto **grown = static_cast<cfg_message **>(
        realloc(context->messages, (count + 1) * sizeof(cfg_message *)));
    if (grown == nullptr)
        return false;
    grown[count] = msg;
    context->messages = grown;
    context->messages_count++;
    return true;
}

// Creates a message of code whose arguments take over values[0..nargs-1];
// on failure every value is freed.
extern "C" cfg_message *cfg_new_message(int code, int nargs, char **values)
{
    if (nargs < 0)
        nargs = 0;
    cfg_message_def *def = cfg_get_message_def(code);
    if (def == nullptr) {
        ZR_LOG(LOG_WARNING, "unknown message code: %d", code);
        free_values(values, 0, nargs);
        return nullptr;
    }
    cfg_message *msg = zr::zalloc<cfg_message>();
    if (msg == nullptr) {
        free_values(values, 0, nargs);
        return nullptr;
    }
    msg->code = code;
    int names = row_arg_count(code);
    for (int i = 0; i < nargs; i++) {
        const char *name = i < names ? def->arg_names[i] : nullptr;
        cfg_message_arg *arg = zr::zalloc<cfg_message_arg>();
        if (values[i] == nullptr || name == nullptr || arg == nullptr) {
            ZR_LOG(LOG_ERR, "adding config message: key, value, or hasharg null");
            free(arg);
            free_values(values, i, nargs);
            cfg_free_message(&msg);
            return nullptr;
        }
        arg->key = const_cast<char *>(name);
        arg->value = values[i];
        HASH_ADD_KEYPTR(hh, msg->args, arg->key, strlen(arg->key), arg);
        if (!zr::hash_added(arg)) {
            free(arg);
            free_values(values, i, nargs);
            cfg_free_message(&msg);
            return nullptr;
        }
    }
    return msg;
}

extern "C" cfg_message *v_cfg_new_message(int code, int nargs, ...)
{
    std::vector<char *> values(nargs > 0 ? static_cast<size_t>(nargs) : 0);
    va_list args;
    va_start(args, nargs);
    for (char *&value : values)
        value = va_arg(args, char *);
    va_end(args);
    return cfg_new_message(code, nargs, values.data());
}

extern "C" bool cfg_free_message_arg(cfg_message_arg **arg)
{
    if (arg == nullptr || *arg == nullptr)
        return false;
    if ((*arg)->owns_key)
        free((*arg)->key);
    free((*arg)->value);
    free(*arg);
    *arg = nullptr;
    return true;
}

extern "C" bool cfg_free_message(cfg_message **msg)
{
    if (msg == nullptr || *msg == nullptr)
        return false;
    cfg_message_arg *arg, *tmp;
    HASH_ITER(hh, (*msg)->args, arg, tmp)
    {
        HASH_DEL((*msg)->args, arg);
        cfg_free_message_arg(&arg);
    }
    free((*msg)->cached_message);
    free(*msg);
    *msg = nullptr;
    return true;
}

extern "C" bool cfg_free_message_stack(cfg *context)
{
    if (context == nullptr)
        return false;
    for (int i = 0; i < context->messages_count; i++)
        cfg_free_message(&context->messages[i]);
    free(context->messages);
    context->messages = nullptr;
    context->messages_count = 0;
    return true;
}

extern "C" int cfg_message_count(cfg *context)
{
    return context != nullptr ? context->messages_count : 0;
}

extern "C" bool cfg_has_messages(cfg *context)
{
    return cfg_message_count(context) > 0;
}

extern "C" cfg_message *cfg_get_message_object(cfg *context, int index)
{
    if (context == nullptr || index < 0 || index >= context->messages_count)
        return nullptr;
    return context->messages[index];
}

namespace {

cfg_message_arg *find_arg(cfg_message *msg, const char *name, size_t name_len)
{
    cfg_message_arg *arg = nullptr;
    if (msg->args != nullptr)
        HASH_FIND(hh, msg->args, name, name_len, arg);
    return arg;
}

// Fills template text with msg's arguments into at most 1000 characters.
// Returns false when a placeholder lacks its closing braces.
bool fill_template(cfg_message *msg, const char *text, std::string &out)
{
    auto put = [&out](char c) {
        if (out.size() < message_buffer_size)
            out.push_back(c);
    };
    int state = 0;
    for (const char *p = text; *p != '\0' && out.size() < message_buffer_size; p++) {
        if (state == 0) {
            if (*p == '{')
                state = 1;
            else
                put(*p);
        } else if (state == 1) {
            if (*p == '{') {
                state = 2;
            } else {
                put('{');
                put(*p);
                state = 0;
            }
        } else if (*p == '{') {
            put('{');
        } else {
            const char *close = strstr(p, "}}");
            if (close == nullptr) {
                ZR_LOG(LOG_ERR, "problem parsing message string %d", msg->code);
                return false;
            }
            std::string name(p, static_cast<size_t>(close - p));
            cfg_message_arg *arg = find_arg(msg, name.c_str(), name.size());
            if (arg == nullptr)
                ZR_LOG(LOG_WARNING, "can't find argument '%s' for message '%d'", name.c_str(),
                       msg->code);
            else if (out.size() + strlen(arg->value) <= message_buffer_size - 1)
                out += arg->value;
            else
                ZR_LOG(LOG_WARNING, "argument '%s' too long for message '%d'", name.c_str(),
                       msg->code);
            p = close + 1;
            state = 0;
        }
    }
    return true;
}

} // namespace

extern "C" char *cfg_get_message_string(cfg_message *msg)
{
    if (msg == nullptr)
        return nullptr;
    if (msg->cached_message != nullptr)
        return msg->cached_message;
    cfg_message_def *def = cfg_get_message_def(msg->code);
    if (def == nullptr || def->text == nullptr)
        return nullptr;
    std::string filled;
    if (!fill_template(msg, def->text, filled))
        return nullptr;
    msg->cached_message = strdup(filled.c_str());
    return msg->cached_message;
}

extern "C" char *cfg_get_first_message_string(cfg *context)
{
    if (cfg_message_count(context) <= 0)
        return nullptr;
    char *text = cfg_get_message_string(context->messages[0]);
    return text != nullptr ? text : const_cast<char *>("NO ERROR STRING FOUND: FIXME");
}

extern "C" int cfg_get_message_code(cfg_message *msg)
{
    return msg != nullptr ? msg->code : 0;
}

extern "C" int cfg_get_message_type(cfg_message *msg)
{
    cfg_message_def *def = msg != nullptr ? cfg_get_message_def(msg->code) : nullptr;
    return def != nullptr ? def->type : 0;
}

extern "C" int cfg_get_message_level(cfg_message *msg)
{
    cfg_message_def *def = msg != nullptr ? cfg_get_message_def(msg->code) : nullptr;
    return def != nullptr ? def->level : 0;
}

extern "C" int cfg_get_message_arg_count(cfg_message *msg)
{
    if (msg == nullptr || msg->args == nullptr)
        return 0;
    return static_cast<int>(HASH_COUNT(msg->args));
}

// Indexes past the row's argument names answer NULL rather than read past it.
extern "C" const char *cfg_get_message_arg_name(cfg_message *msg, int index)
{
    if (msg == nullptr || index < 0 || index >= row_arg_count(msg->code))
        return nullptr;
    return cfg_get_message_def(msg->code)->arg_names[index];
}

extern "C" char *cfg_get_message_arg_value(cfg_message *msg, int index)
{
    const char *name = cfg_get_message_arg_name(msg, index);
    if (name == nullptr || msg->args == nullptr)
        return nullptr;
    cfg_message_arg *arg = find_arg(msg, name, strlen(name));
    return arg != nullptr ? arg->value : nullptr;
}

namespace {

void dump_rule()
{
    fprintf(stderr, "\n~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~\n\n");
}

void dump_message(int i, cfg_message *msg)
{
    if (msg == nullptr) {
        fprintf(stderr, "      messages[%d] is NULL, going to next one...\n", i);
        return;
    }
    fprintf(stderr, "      messages[%d] = %p\n", i, static_cast<void *>(msg));
    fprintf(stderr, "      messages[%d]->code = %d\n", i, msg->code);
    fprintf(stderr, "      messages[%d]->cached_message* = %p\n", i,
            static_cast<void *>(msg->cached_message));
    if (msg->cached_message != nullptr)
        fprintf(stderr, "      messages[%d]->cached_message = %s\n", i, msg->cached_message);
    int n = 0;
    for (cfg_message_arg *arg = msg->args; arg != nullptr;
         arg = static_cast<cfg_message_arg *>(arg->hh.next), n++) {
        fprintf(stderr, "        messages[%d]->args[%d].key = %s\n", i, n, arg->key);
        fprintf(stderr, "        messages[%d]->args[%d].value = %s\n", i, n, arg->value);
    }
}

} // namespace

extern "C" void dump_message_stack(cfg *context)
{
    dump_rule();
    fprintf(stderr, "dumping message stack:\n");
    fprintf(stderr, "    cfg=%p\n", static_cast<void *>(context));
    if (context == nullptr) {
        dump_rule();
        return;
    }
    fprintf(stderr, "    cfg->messages=%p\n", static_cast<void *>(context->messages));
    fprintf(stderr, "    cfg->messages_count=%d\n", context->messages_count);
    for (int i = 0; i < context->messages_count; i++)
        dump_message(i, context->messages[i]);
    dump_rule();
}

extern "C" char *zrmsg_itoa(int value)
{
    char buffer[16];
    if (snprintf(buffer, sizeof buffer, "%d", value) < 0)
        return nullptr;
    return strdup(buffer);
}

extern "C" char *zrmsg_ftoa(double value)
{
    int needed = snprintf(nullptr, 0, "%f", value);
    if (needed < 0)
        return nullptr;
    std::string text(static_cast<size_t>(needed) + 1, '\0');
    snprintf(text.data(), text.size(), "%f", value);
    return strdup(text.c_str());
}

// ---- adders: one per catalogue row ----

extern "C" bool cfg_message_add_unexpected(cfg *c, const char *file, int line)
{
    return add_coded(c, msg::unexpected, {arg_text("file", file), zrmsg_itoa(line)});
}

extern "C" bool cfg_message_add_unknown_lock(cfg *c)
{
    return add_coded(c, msg::unknown_lock, {});
}

extern "C" bool cfg_message_add_file_io(cfg *c)
{
    return add_coded(c, msg::file_io, {});
}

extern "C" bool cfg_message_add_unknown_pull(cfg *c)
{
    return add_coded(c, msg::unknown_pull, {});
}

extern "C" bool cfg_message_add_protocol(cfg *c)
{
    return add_coded(c, msg::protocol, {});
}

extern "C" bool cfg_message_add_int_above_max(cfg *c, int max, const char *uuid)
{
    return add_coded(c, msg::int_above_max, {zrmsg_itoa(max), arg_text("uuid", uuid)});
}

extern "C" bool cfg_message_add_int_below_min(cfg *c, int min, const char *uuid)
{
    return add_coded(c, msg::int_below_min, {zrmsg_itoa(min), arg_text("uuid", uuid)});
}

extern "C" bool cfg_message_add_int_invalid_value(cfg *c, const char *uuid)
{
    return add_coded(c, msg::int_invalid_value, {arg_text("uuid", uuid)});
}

extern "C" bool cfg_message_add_float_above_max(cfg *c, double max, const char *uuid)
{
    return add_coded(c, msg::float_above_max, {zrmsg_ftoa(max), arg_text("uuid", uuid)});
}

extern "C" bool cfg_message_add_float_below_min(cfg *c, double min, const char *uuid)
{
    return add_coded(c, msg::float_below_min, {zrmsg_ftoa(min), arg_text("uuid", uuid)});
}

extern "C" bool cfg_message_add_float_invalid_value(cfg *c, const char *uuid)
{
    return add_coded(c, msg::float_invalid_value, {arg_text("uuid", uuid)});
}

extern "C" bool cfg_message_add_string_above_max(cfg *c, int max, const char *uuid)
{
    return add_coded(c, msg::string_above_max, {zrmsg_itoa(max), arg_text("uuid", uuid)});
}

extern "C" bool cfg_message_add_string_below_min(cfg *c, int min, const char *uuid)
{
    return add_coded(c, msg::string_below_min, {zrmsg_itoa(min), arg_text("uuid", uuid)});
}

extern "C" bool cfg_message_add_string_invalid_value(cfg *c, const char *uuid, const char *value)
{
    return add_coded(c, msg::string_invalid_value, {arg_text("uuid", uuid), arg_text("value", value)});
}

extern "C" bool cfg_message_add_string_format(cfg *c, const char *uuid)
{
    return add_coded(c, msg::string_format, {arg_text("uuid", uuid)});
}

extern "C" bool cfg_message_add_blob_above_max(cfg *c, int max, const char *uuid)
{
    return add_coded(c, msg::blob_above_max, {zrmsg_itoa(max), arg_text("uuid", uuid)});
}

extern "C" bool cfg_message_add_blob_below_min(cfg *c, int min, const char *uuid)
{
    return add_coded(c, msg::blob_below_min, {zrmsg_itoa(min), arg_text("uuid", uuid)});
}

extern "C" bool cfg_message_add_list_above_max(cfg *c, int max, const char *uuid)
{
    return add_coded(c, msg::list_above_max, {zrmsg_itoa(max), arg_text("uuid", uuid)});
}

extern "C" bool cfg_message_add_list_below_min(cfg *c, int min, const char *uuid)
{
    return add_coded(c, msg::list_below_min, {zrmsg_itoa(min), arg_text("uuid", uuid)});
}

extern "C" bool cfg_message_add_list_wrong_type(cfg *c, const char *uuid)
{
    return add_coded(c, msg::list_wrong_type, {arg_text("uuid", uuid)});
}

extern "C" bool cfg_message_add_missing_required(cfg *c, const char *name, const char *uuid)
{
    return add_coded(c, msg::missing_required, {arg_text("name", name), arg_text("uuid", uuid)});
}

extern "C" bool cfg_message_add_invalid_reference(cfg *c, const char *uuid)
{
    return add_coded(c, msg::invalid_reference, {arg_text("uuid", uuid)});
}

extern "C" bool cfg_message_add_wrong_type(cfg *c, const char *uuid)
{
    return add_coded(c, msg::wrong_type, {arg_text("uuid", uuid)});
}

extern "C" bool cfg_message_add_no_match(cfg *c, const char *uuid, const char *name)
{
    return add_coded(c, msg::no_match, {arg_text("uuid", uuid), arg_text("name", name)});
}

extern "C" bool cfg_message_add_password_mismatch(cfg *c, const char *uuid)
{
    return add_coded(c, msg::password_mismatch, {arg_text("uuid", uuid)});
}

extern "C" bool cfg_message_add_invalid_networkaddress(cfg *c, const char *address, const char *uuid)
{
    return add_coded(c, msg::invalid_networkaddress, {arg_text("address", address), arg_text("uuid", uuid)});
}

extern "C" bool cfg_message_add_duplicate(cfg *c, const char *field, const char *value, const char *uuid)
{
    return add_coded(c, msg::duplicate, {arg_text("field", field), arg_text("value", value), arg_text("uuid", uuid)});
}

extern "C" bool cfg_message_add_common_name_error(cfg *c, const char *common_name, const char *uuid)
{
    return add_coded(c, msg::common_name_error, {arg_text("common_name", common_name), arg_text("uuid", uuid)});
}

extern "C" bool cfg_message_add_path_not_found(cfg *c, const char *path)
{
    return add_coded(c, msg::path_not_found, {arg_text("path", path)});
}

extern "C" bool cfg_message_add_uuid_not_found(cfg *c, const char *uuid)
{
    return add_coded(c, msg::uuid_not_found, {arg_text("uuid", uuid)});
}

extern "C" bool cfg_message_add_database(cfg *c)
{
    return add_coded(c, msg::database, {});
}

extern "C" bool cfg_message_add_schema(cfg *c)
{
    return add_coded(c, msg::schema, {});
}

extern "C" bool cfg_message_add_conflict(cfg *c)
{
    return add_coded(c, msg::conflict, {});
}

extern "C" bool cfg_message_add_push_failed(cfg *c)
{
    return add_coded(c, msg::push_failed, {});
}

extern "C" bool cfg_message_add_get_schema_failed(cfg *c)
{
    return add_coded(c, msg::get_schema_failed, {});
}

extern "C" bool cfg_message_add_get_data_by_path_failed(cfg *c)
{
    return add_coded(c, msg::get_data_by_path_failed, {});
}

extern "C" bool cfg_message_add_get_data_by_id_failed(cfg *c)
{
    return add_coded(c, msg::get_data_by_id_failed, {});
}

extern "C" bool cfg_message_add_lock_failed(cfg *c)
{
    return add_coded(c, msg::lock_failed, {});
}

extern "C" bool cfg_message_add_subscribe_failed(cfg *c)
{
    return add_coded(c, msg::subscribe_failed, {});
}

extern "C" bool cfg_message_add_invalid_request(cfg *c)
{
    return add_coded(c, msg::invalid_request, {});
}

extern "C" bool cfg_message_add_incomplete_data(cfg *c, const char *param)
{
    return add_coded(c, msg::incomplete_data, {arg_text("param", param)});
}

extern "C" bool cfg_message_add_invalid_credentials(cfg *c)
{
    return add_coded(c, msg::invalid_credentials, {});
}

extern "C" bool cfg_message_add_invalid_session(cfg *c)
{
    return add_coded(c, msg::invalid_session, {});
}

extern "C" bool cfg_message_add_changed_ro(cfg *c)
{
    return add_coded(c, msg::changed_ro, {});
}

extern "C" bool cfg_message_add_worker(cfg *c)
{
    return add_coded(c, msg::worker, {});
}

extern "C" bool cfg_message_add_reg_not_ready(cfg *c)
{
    return add_coded(c, msg::reg_not_ready, {});
}

extern "C" bool cfg_message_add_permission_denied(cfg *c)
{
    return add_coded(c, msg::permission_denied, {});
}

extern "C" bool cfg_message_add_invalid_action(cfg *c, const char *action)
{
    return add_coded(c, msg::invalid_action, {arg_text("action", action)});
}

extern "C" bool cfg_message_add_invalid_parameter(cfg *c, const char *param)
{
    return add_coded(c, msg::invalid_parameter, {arg_text("param", param)});
}

extern "C" bool cfg_message_add_invalid_json(cfg *c, const char *param, const char *value, const char *error, int line, int column, int position)
{
    return add_coded(c, msg::invalid_json, {arg_text("param", param), arg_text("value", value), arg_text("error", error), zrmsg_itoa(line), zrmsg_itoa(column), zrmsg_itoa(position)});
}

extern "C" bool cfg_message_add_invalid_cert(cfg *c)
{
    return add_coded(c, msg::invalid_cert, {});
}

extern "C" bool cfg_message_add_invalid_query(cfg *c)
{
    return add_coded(c, msg::invalid_query, {});
}

extern "C" bool cfg_message_add_unknown_data_of_type(cfg *c, const char *type, const char *item)
{
    return add_coded(c, msg::unknown_data_of_type, {arg_text("type", type), arg_text("item", item)});
}

extern "C" bool cfg_message_add_invalid_ip(cfg *c, const char *address, const char *uuid)
{
    return add_coded(c, msg::invalid_ip, {arg_text("address", address), arg_text("uuid", uuid)});
}

extern "C" bool cfg_message_add_invalid_parameter_value(cfg *c, const char *param, const char *value)
{
    return add_coded(c, msg::invalid_parameter_value, {arg_text("param", param), arg_text("value", value)});
}

extern "C" bool cfg_message_add_bad_tag_name(cfg *c, const char *tag_name)
{
    return add_coded(c, msg::bad_tag_name, {arg_text("tag_name", tag_name)});
}

extern "C" bool cfg_message_add_bad_key(cfg *c)
{
    return add_coded(c, msg::bad_key, {});
}

extern "C" bool cfg_message_add_csr_generate_failed(cfg *c)
{
    return add_coded(c, msg::csr_generate_failed, {});
}

extern "C" bool cfg_message_add_invalid_mac(cfg *c, const char *mac, const char *uuid)
{
    return add_coded(c, msg::invalid_mac, {arg_text("mac", mac), arg_text("uuid", uuid)});
}

extern "C" bool cfg_message_add_dhcp_limit(cfg *c)
{
    return add_coded(c, msg::dhcp_limit, {});
}

extern "C" bool cfg_message_add_invalid_role(cfg *c, const char *rolename, const char *mode)
{
    return add_coded(c, msg::invalid_role, {arg_text("rolename", rolename), arg_text("mode", mode)});
}

extern "C" bool cfg_message_add_int_outside_range(cfg *c, int min, int max, const char *uuid)
{
    return add_coded(c, msg::int_outside_range, {zrmsg_itoa(min), zrmsg_itoa(max), arg_text("uuid", uuid)});
}

extern "C" bool cfg_message_add_field_updated(cfg *c, const char *fieldname, const char *value)
{
    return add_coded(c, msg::field_updated, {arg_text("fieldname", fieldname), arg_text("value", value)});
}

extern "C" bool cfg_message_add_cfg_push_unsupported_operation(cfg *c)
{
    return add_coded(c, msg::cfg_push_unsupported_operation, {});
}

extern "C" bool cfg_message_add_cfg_push_ug_reserved_value(cfg *c, const char *value)
{
    return add_coded(c, msg::cfg_push_ug_reserved_value, {arg_text("value", value)});
}

extern "C" bool cfg_message_add_cfg_push_dataset_updated(cfg *c, const char *dataset)
{
    return add_coded(c, msg::cfg_push_dataset_updated, {arg_text("dataset", dataset)});
}

extern "C" bool cfg_message_add_cfg_push_no_changes_required(cfg *c)
{
    return add_coded(c, msg::cfg_push_no_changes_required, {});
}

extern "C" bool cfg_message_add_cfg_push_request_failed(cfg *c, const char *message)
{
    return add_coded(c, msg::cfg_push_request_failed, {arg_text("message", message)});
}

extern "C" bool cfg_message_add_cfg_push_communication_failure(cfg *c)
{
    return add_coded(c, msg::cfg_push_communication_failure, {});
}

extern "C" bool cfg_message_add_cfg_push_node_offline(cfg *c)
{
    return add_coded(c, msg::cfg_push_node_offline, {});
}

extern "C" bool cfg_message_add_cfg_push_bad_remote_data(cfg *c)
{
    return add_coded(c, msg::cfg_push_bad_remote_data, {});
}

extern "C" bool cfg_message_add_invalid_file_format(cfg *c)
{
    return add_coded(c, msg::invalid_file_format, {});
}

extern "C" bool cfg_message_add_cfg_push_script_exec_success(cfg *c)
{
    return add_coded(c, msg::cfg_push_script_exec_success, {});
}

extern "C" bool cfg_message_add_cfg_push_script_exec_failure(cfg *c, int code)
{
    return add_coded(c, msg::cfg_push_script_exec_failure, {zrmsg_itoa(code)});
}

extern "C" bool cfg_message_add_cfg_push_script_exec_timeout(cfg *c)
{
    return add_coded(c, msg::cfg_push_script_exec_timeout, {});
}

extern "C" bool cfg_message_add_hashed_password_found(cfg *c)
{
    return add_coded(c, msg::hashed_password_found, {});
}

extern "C" bool cfg_message_add_hashed_password_not_found(cfg *c)
{
    return add_coded(c, msg::hashed_password_not_found, {});
}
