// zrcfg: reads and changes the appliance's configuration through zrconfigd.
//
// Exit status: 0 success; 1 refused (validation, a stale copy, another
// session's lock, or nothing at the path); 2 usage error; 3 the daemon
// unreachable or a protocol failure. Messages go to standard error one a
// line as "<level>: <canonical path>: <text>".
#include "describe.h"
#include "edit.h"
#include "plain_data.h"

#include <zrconfig.hpp>
#include <zrutil.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <sstream>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace {

using zrconfig::element;
using zrconfig::json_ptr;
using zrconfig::outcome;
using zrconfig::session;

enum status : int { ok = 0, refused = 1, usage_error = 2, unreachable = 3 };

constexpr const char *default_socket = "/run/zrconfig/zrconfigd.sock";

const char usage[] =
    "usage: zrcfg [--socket PATH] [--json] COMMAND [ARGS...]\n"
    "commands:\n"
    "  get PATH                     a value, or a subtree as JSON\n"
    "  set PATH VALUE [PATH VALUE]  change values (one validated push)\n"
    "  delete PATH                  remove an element\n"
    "  add LIST-PATH JSON           append a member to a list\n"
    "  export [PATH]                the configuration (or a subtree) as JSON\n"
    "  apply FILE [PATH]            merge a JSON document in (one validated push)\n"
    "  validate [FILE]              validate the configuration, or a document\n"
    "  search LIST-PATH 'FIELD OP VALUE'...   members that meet every condition\n"
    "  schema [PATH]                the schema node at a path, in words\n"
    "Run 'zrcfg COMMAND --help' for a command's details.\n";

// Shows a spinner on standard error while a command runs longer than a
// second, when standard error is a terminal; cleared before any output.
class progress {
  public:
    void start()
    {
        if (!isatty(STDERR_FILENO))
            return;
        worker_ = std::thread([this] { spin(); });
    }
    void stop()
    {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            done_ = true;
        }
        wake_.notify_all();
        if (worker_.joinable())
            worker_.join();
    }
    ~progress() { stop(); }

  private:
    void spin()
    {
        static const char frames[] = "|/-\\";
        std::unique_lock<std::mutex> lock(mutex_);
        if (wake_.wait_for(lock, std::chrono::seconds(1), [this] { return done_; }))
            return;
        for (int i = 0; !done_; i++) {
            fprintf(stderr, "\rworking %c", frames[i % 4]);
            wake_.wait_for(lock, std::chrono::milliseconds(200), [this] { return done_; });
        }
        fputs("\r\033[K", stderr);
    }

    std::thread worker_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool done_ = false;
};

progress spinner;

struct options {
    std::string socket;
    bool json = false;
};

// What a command works on: the options, its arguments, the session.
struct invocation {
    options opts;
    std::vector<std::string> args;
};

const char *level_word(int level)
{
    return level == 1 ? "error" : level == 2 ? "warning" : "info";
}

void print_messages(const std::vector<zrconfig::message> &messages)
{
    spinner.stop();
    for (const zrconfig::message &m : messages)
        fprintf(stderr, "%s: %s%s%s\n", level_word(m.level), m.path.c_str(),
                m.path.empty() ? "" : ": ", m.text.c_str());
}

int fail(int code, const std::string &why)
{
    spinner.stop();
    fprintf(stderr, "error: %s\n", why.c_str());
    return code;
}

// Prints an outcome's messages; the exit status it stands for.
int conclude(const outcome &o)
{
    print_messages(o.messages);
    if (o.ok)
        return ok;
    return o.unreachable() ? unreachable : refused;
}

void print_json(json_t *value)
{
    spinner.stop();
    char *text = json_dumps(value, JSON_ENCODE_ANY | JSON_INDENT(2));
    if (text != nullptr)
        printf("%s\n", text);
    free(text);
}

// The element at path, or an empty view with the status to exit with.
element find(const session &s, const std::string &path, int &code)
{
    element e = path.empty() ? s.root() : s.at(path);
    std::vector<zrconfig::message> messages = s.take_messages();
    if (e)
        return e;
    outcome failed{false, messages};
    code = failed.unreachable() ? unreachable : refused;
    if (code == unreachable)
        print_messages(messages);
    else
        fail(refused, "no element at '" + path + "'");
    return {};
}

// Validates what changed and commits it as one push.
int push(const session &s, int changes)
{
    if (changes == 0) {
        spinner.stop();
        fputs("nothing to change\n", stderr);
        return ok;
    }
    outcome checked = s.validate_changed();
    if (!checked)
        return conclude(checked);
    outcome committed = s.commit();
    // A refusal always says why; a push left unanswered is unreachable.
    if (!committed && committed.unreachable())
        return fail(unreachable, "zrconfigd gave no answer to the commit (did it stop?); "
                                 "check with 'zrcfg get' whether the change was made");
    return conclude(committed);
}

// A value for people: scalars as they are, everything else as JSON.
void print_value(const element &e, bool json)
{
    json_ptr value(zrplain::plain_json(e.context(), e.get()));
    if (!value)
        return;
    spinner.stop();
    if (!json && json_is_string(value.get()))
        printf("%s\n", json_string_value(value.get()));
    else
        print_json(value.get());
}

// ---- commands ----

int cmd_get(const invocation &inv, const session &s)
{
    int code = ok;
    element e = find(s, inv.args[0], code);
    if (e)
        print_value(e, inv.opts.json);
    return code;
}

int cmd_export(const invocation &inv, const session &s)
{
    int code = ok;
    element e = find(s, inv.args.empty() ? "" : inv.args[0], code);
    json_ptr value(e ? zrplain::plain_json(s.get(), e.get()) : nullptr);
    if (e && !value) {
        outcome failed{false, s.take_messages()};
        return failed.unreachable() ? conclude(failed)
                                    : fail(refused, "the configuration cannot be read in full");
    }
    if (value)
        print_json(value.get());
    return code;
}

// Splits "a.b.key" into its parent path and key; false when the path does
// not end in a map key.
bool split_last_key(const std::string &path, std::string &parent, std::string &key)
{
    size_t dot = path.rfind('.');
    key = dot == std::string::npos ? path : path.substr(dot + 1);
    parent = dot == std::string::npos ? "" : path.substr(0, dot);
    return !key.empty() && key.find_first_of("[]()") == std::string::npos;
}

// One PATH VALUE pair: the element's own place when it exists, else a new
// member of its parent map.
int set_one(const session &s, const std::string &path, const std::string &text, int &changes)
{
    std::string error, parent_path, key;
    element e = s.at(path);
    s.take_messages();
    if (e) {
        json_ptr value(zrcfg::typed_value(e.type(), text, error));
        if (!value)
            return fail(usage_error, path + ": " + error);
        return zrcfg::merge_value(e, value.get(), changes, error) ? ok : fail(refused, error);
    }
    if (!split_last_key(path, parent_path, key))
        return fail(refused, "no element at '" + path + "'");
    int code = ok;
    element parent = find(s, parent_path, code);
    if (!parent)
        return code;
    if (!parent.is_map())
        return fail(refused, "'" + parent_path + "' is not a map");
    cfg_schema_element *member = zrplain::member_schema(s.get(), parent.schema(), key.c_str());
    json_ptr value(zrcfg::typed_value(member != nullptr ? member->type : 0, text, error));
    if (!value)
        return fail(usage_error, path + ": " + error);
    return zrcfg::merge_member(parent, key, value.get(), changes, error) ? ok
                                                                         : fail(refused, error);
}

int cmd_set(const invocation &inv, const session &s)
{
    if (inv.args.size() % 2 != 0)
        return fail(usage_error, "set takes PATH VALUE pairs");
    int changes = 0;
    for (size_t i = 0; i < inv.args.size(); i += 2)
        if (int code = set_one(s, inv.args[i], inv.args[i + 1], changes); code != ok)
            return code;
    return push(s, changes);
}

int cmd_delete(const invocation &inv, const session &s)
{
    int code = ok;
    element e = find(s, inv.args[0], code);
    if (!e)
        return code;
    std::string parent_path, key;
    element parent = split_last_key(inv.args[0], parent_path, key) ? s.at(parent_path) : element();
    if (parent.is_map())
        parent.erase(key);
    else
        e.remove();
    return push(s, 1);
}

int cmd_add(const invocation &inv, const session &s)
{
    json_error_t err;
    json_ptr value(json_loads(inv.args[1].c_str(), JSON_DECODE_ANY, &err));
    if (!value)
        return fail(usage_error, std::string("the member is not JSON: ") + err.text);
    int code = ok;
    element list = find(s, inv.args[0], code);
    if (!list)
        return code;
    if (!list.is_list())
        return fail(refused, "'" + inv.args[0] + "' is not a list");
    std::string error;
    cfg_schema_element *item = zrplain::list_item_schema(s.get(), list.schema());
    element member(s.get(), zrplain::build_plain_value(s.get(), value.get(), item, "member",
                                                       nullptr, error));
    if (!list.append(member))
        return fail(refused, error.empty() ? "the member cannot be added" : error);
    return push(s, 1);
}

int cmd_apply(const invocation &inv, const session &s)
{
    std::string error;
    json_ptr doc(zrplain::read_json_file(inv.args[0], error));
    if (!doc)
        return fail(usage_error, error);
    int code = ok;
    element target = find(s, inv.args.size() > 1 ? inv.args[1] : "", code);
    if (!target)
        return code;
    int changes = 0;
    if (!zrcfg::merge_value(target, doc.get(), changes, error))
        return fail(refused, error);
    return push(s, changes);
}

int cmd_validate(const invocation &inv, const session &s)
{
    outcome result;
    if (inv.args.empty()) {
        result = s.validate();
    } else {
        std::string error;
        json_ptr doc(zrplain::read_json_file(inv.args[0], error));
        if (!doc)
            return fail(usage_error, error);
        zrconfig::context local = zrconfig::context::over_schema_of(s);
        element root = local.root();
        if (!zrplain::build_plain_data(local.get(), root.get(), cfg_schema_root(local.get()),
                                       doc.get(), nullptr, error))
            return fail(refused, error);
        result = local.validate();
    }
    int code = conclude(result);
    if (code == ok && !inv.opts.json)
        puts("valid");
    else if (inv.opts.json)
        printf("{\"valid\": %s}\n", code == ok ? "true" : "false");
    return code;
}

// ---- search ----

const std::map<std::string, int> operators = {
    {"=", CFG_OPER_EQ},  {"!=", CFG_OPER_NE}, {"<", CFG_OPER_LT},
    {"<=", CFG_OPER_LE}, {">", CFG_OPER_GT},  {">=", CFG_OPER_GE},
    {"like", CFG_OPER_LIKE_FIRST}, {"exists", CFG_OPER_IS_NOT_NULL},
    {"missing", CFG_OPER_IS_NULL}};

// One "FIELD OP VALUE" condition typed through the member's schema; null
// with error set when it does not parse.
cfg_condition *parse_condition(const session &s, cfg_schema_element *item,
                               const std::string &text, std::string &error)
{
    std::istringstream words(text);
    std::string field, op, value;
    words >> field >> op;
    std::getline(words >> std::ws, value);
    auto oper = operators.find(op);
    cfg_schema_element *member = zrplain::member_schema(s.get(), item, field.c_str());
    if (field.empty() || oper == operators.end()) {
        error = "'" + text + "' is not FIELD OP VALUE (OP: = != < <= > >= like exists missing)";
        return nullptr;
    }
    if (member == nullptr) {
        error = "the members have no field '" + field + "'";
        return nullptr;
    }
    if (oper->second >= CFG_OPER_IS_NOT_NULL)
        return cfg_new_untyped_condition(field.c_str(), oper->second);
    json_ptr typed(zrcfg::typed_value(member->type, value, error));
    if (!typed)
        return nullptr;
    switch (member->type) {
    case CFG_TYPE_INT:
        if (json_integer_value(typed.get()) < INT_MIN ||
            json_integer_value(typed.get()) > INT_MAX) {
            error = "'" + value + "' is out of range for '" + field + "'";
            return nullptr;
        }
        return cfg_new_int_condition(field.c_str(), oper->second,
                                     static_cast<int>(json_integer_value(typed.get())));
    case CFG_TYPE_FLOAT:
        return cfg_new_float_condition(field.c_str(), oper->second, json_number_value(typed.get()));
    case CFG_TYPE_BOOL:
        return cfg_new_bool_condition(field.c_str(), oper->second, json_is_true(typed.get()));
    case CFG_TYPE_REFERENCE: {
        element target = s.at(value);
        return target ? cfg_new_reference_condition(field.c_str(), oper->second,
                                                    target.get()->uuid)
                      : nullptr;
    }
    default:
        return cfg_new_string_condition(field.c_str(), oper->second, value.c_str());
    }
}

// Hits as a table: the path, then every field any hit has.
void print_table(const session &s, const std::vector<element> &hits)
{
    std::vector<std::string> columns{"path"};
    std::vector<std::map<std::string, std::string>> rows;
    for (const element &hit : hits) {
        std::map<std::string, std::string> row{{"path", hit.path()}};
        json_ptr data(zrplain::plain_json(s.get(), hit.get()));
        const char *key;
        json_t *value;
        json_object_foreach(data.get(), key, value)
        {
            if (std::find(columns.begin(), columns.end(), key) == columns.end())
                columns.push_back(key);
            char *text = json_is_string(value) ? strdup(json_string_value(value))
                                               : json_dumps(value, JSON_ENCODE_ANY | JSON_COMPACT);
            row[key] = zrconfig::take_string(text);
        }
        rows.push_back(row);
    }
    std::vector<size_t> widths;
    for (const std::string &c : columns) {
        size_t w = c.size();
        for (auto &row : rows)
            w = std::max(w, row[c].size());
        widths.push_back(w);
    }
    spinner.stop();
    auto line = [&](const std::function<std::string(const std::string &)> &cell) {
        std::string out;
        for (size_t i = 0; i < columns.size(); i++)
            out += cell(columns[i]) + std::string(widths[i] - cell(columns[i]).size() + 2, ' ');
        printf("%s\n", out.substr(0, out.find_last_not_of(' ') + 1).c_str());
    };
    line([](const std::string &c) { return c; });
    for (auto &row : rows)
        line([&row](const std::string &c) { return row[c]; });
}

int cmd_search(const invocation &inv, const session &s)
{
    int code = ok;
    element list = find(s, inv.args[0], code);
    if (!list)
        return code;
    cfg_schema_element *item = zrplain::list_item_schema(s.get(), list.schema());
    if (!list.is_list() || item == nullptr)
        return fail(refused, "'" + inv.args[0] + "' is not a list of maps");
    zrconfig::condition_ptr all(cfg_new_and_condition());
    for (size_t i = 1; i < inv.args.size(); i++) {
        std::string error;
        cfg_condition *c = parse_condition(s, item, inv.args[i], error);
        if (c == nullptr)
            return fail(usage_error,
                        error.empty() ? "'" + inv.args[i] + "' cannot be searched" : error);
        cfg_condition_add_child(all.get(), c);
    }
    std::vector<element> hits = s.search(inv.args[0], inv.args.size() > 1 ? all.get() : nullptr);
    std::vector<zrconfig::message> messages = s.take_messages();
    if (!messages.empty())
        return conclude({false, messages});
    if (!inv.opts.json) {
        print_table(s, hits);
        return ok;
    }
    json_ptr out(json_array());
    for (const element &hit : hits)
        json_array_append_new(out.get(), json_pack("{s:s, s:o}", "path", hit.path().c_str(), "data",
                                                   zrplain::plain_json(s.get(), hit.get())));
    print_json(out.get());
    return ok;
}

int cmd_schema(const invocation &inv, const session &s)
{
    std::string path = inv.args.empty() ? "" : inv.args[0], error;
    cfg_schema_element *node = zrcfg::schema_at(s.get(), path, error);
    if (node == nullptr)
        return fail(refused, error);
    std::vector<std::string> lines = zrcfg::describe_schema(s.get(), node);
    spinner.stop();
    if (inv.opts.json) {
        json_ptr out(json_array());
        for (const std::string &l : lines)
            json_array_append_new(out.get(), json_string(l.c_str()));
        print_json(out.get());
    } else {
        printf("%s\n", path.empty() ? "(root)" : path.c_str());
        for (const std::string &l : lines)
            printf("  %s\n", l.c_str());
    }
    return ok;
}

struct command {
    const char *name;
    size_t min_args, max_args;
    int (*run)(const invocation &, const session &);
    const char *help;
};

const command commands[] = {
    {"get", 1, 1, cmd_get,
     "usage: zrcfg get PATH\nPrints the value at PATH, or the subtree under it as plain JSON.\n"},
    {"set", 2, SIZE_MAX, cmd_set,
     "usage: zrcfg set PATH VALUE [PATH VALUE...]\nSets each value (a missing map member is "
     "created), then validates and commits every change as one push.\n"},
    {"delete", 1, 1, cmd_delete,
     "usage: zrcfg delete PATH\nRemoves the element at PATH; validated and committed.\n"},
    {"add", 2, 2, cmd_add,
     "usage: zrcfg add LIST-PATH JSON\nAppends a member given as plain JSON to the list; "
     "validated and committed.\n"},
    {"export", 0, 1, cmd_export,
     "usage: zrcfg export [PATH]\nPrints the configuration, or the subtree at PATH, as plain "
     "nested JSON.\n"},
    {"apply", 1, 2, cmd_apply,
     "usage: zrcfg apply FILE [PATH]\nMerges the plain JSON document in FILE into the "
     "configuration (or the subtree at PATH): map members key by key (null deletes one), lists "
     "member by member. Validated and committed as one push; an unchanged document changes "
     "nothing.\n"},
    {"validate", 0, 1, cmd_validate,
     "usage: zrcfg validate [FILE]\nValidates the daemon's configuration in full, or the plain "
     "JSON document in FILE against the daemon's schema (nothing is committed).\n"},
    {"search", 1, SIZE_MAX, cmd_search,
     "usage: zrcfg search LIST-PATH ['FIELD OP VALUE'...]\nLists the members of LIST-PATH that "
     "meet every condition. OP: = != < <= > >= like (VALUE a pattern with %), exists, missing "
     "(no VALUE).\n"},
    {"schema", 0, 1, cmd_schema,
     "usage: zrcfg schema [PATH]\nDescribes the schema node at PATH ([] for any list member): "
     "its type and constraints.\n"},
};

// Why no session could be opened on the socket at path, and what to check:
// found by connecting again, since the library keeps the reason to itself.
std::string why_unreachable(const std::string &path)
{
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path, path.data(), path.size());
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int rc = fd < 0 ? -1 : connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
    int error = errno;
    if (fd >= 0)
        close(fd);
    if (rc == 0)
        return "it refused the session (this user may not be allowed to use it, or it serves "
               "too many sessions: see its log)";
    switch (error) {
    case ENOENT:
        return "no socket there: is zrconfigd running, and is this its --socket?";
    case ECONNREFUSED:
        return "nothing listens there: zrconfigd is not running";
    case EACCES:
        return "permission denied: run as the daemon's user, root, or a member of its --group";
    default:
        return strerror(error);
    }
}

// Library log lines are for operators who ask for them (ZRLOG_LEVEL).
void quiet_library_log()
{
    const char *level = getenv("ZRLOG_LEVEL");
    if (level == nullptr)
        zrlog_set_handler([](int, const char *, const char *, int, const char *, void *) {},
                          nullptr);
}

// Reads the options before the command; the index of the command, or -1
// with the status to exit with in code.
int parse_options(int argc, char **argv, options &opts, int &code)
{
    const char *env = getenv("ZRCONFIG_SOCKET");
    opts.socket = env != nullptr && *env != '\0' ? env : default_socket;
    int i = 1;
    for (; i < argc && argv[i][0] == '-'; i++) {
        std::string arg = argv[i];
        if (arg == "--json")
            opts.json = true;
        else if (arg == "--socket" && i + 1 < argc)
            opts.socket = argv[++i];
        else if (arg == "--help" || arg == "-h") {
            fputs(usage, stdout);
            code = ok;
            return -1;
        } else {
            fprintf(stderr, "zrcfg: bad option %s\n%s", arg.c_str(), usage);
            code = usage_error;
            return -1;
        }
    }
    if (i >= argc) {
        fputs(usage, stderr);
        code = usage_error;
        return -1;
    }
    return i;
}

} // namespace

int main(int argc, char **argv)
{
    options opts;
    int code = ok;
    int at = parse_options(argc, argv, opts, code);
    if (at < 0)
        return code;
    const command *cmd = nullptr;
    for (const command &c : commands)
        if (argv[at] == std::string(c.name))
            cmd = &c;
    if (cmd == nullptr) {
        fprintf(stderr, "zrcfg: unknown command '%s'\n%s", argv[at], usage);
        return usage_error;
    }
    invocation inv{opts, std::vector<std::string>(argv + at + 1, argv + argc)};
    // Only right after the command: further on, "-h" may be a value to set.
    if (!inv.args.empty() && (inv.args[0] == "--help" || inv.args[0] == "-h")) {
        fputs(cmd->help, stdout);
        return ok;
    }
    if (inv.args.size() < cmd->min_args || inv.args.size() > cmd->max_args) {
        fputs(cmd->help, stderr);
        return usage_error;
    }
    if (opts.socket.size() >= sizeof(sockaddr_un::sun_path))
        return fail(usage_error, "the socket path is too long (at most " +
                                     std::to_string(sizeof(sockaddr_un::sun_path) - 1) +
                                     " bytes): " + opts.socket);
    quiet_library_log();
    spinner.start();
    session s(opts.socket, "zrcfg");
    if (!s)
        return fail(unreachable,
                    "cannot reach zrconfigd at " + opts.socket + ": " + why_unreachable(opts.socket));
    code = cmd->run(inv, s);
    spinner.stop();
    return code;
}
