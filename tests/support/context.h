// Contexts for tests (a fresh context with its own schema that looks
// elements up in its local index only), a tree builder, and readers that
// turn the library's values into std::string for comparisons.
#pragma once

#include "zrconfig.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

namespace zrtest {

using texts = std::vector<std::string>;

// Owns a context and the schema it was created with.
struct context_handle {
    cfg *ctx = cfg_create_new_config(nullptr);
    cfg_schema *schema = ctx->schema;

    explicit context_handle(bool with_local_lookup = true)
    {
        if (with_local_lookup)
            ctx->get_by_id = cfg_find_by_id;
    }
    ~context_handle()
    {
        cfg_free_config(&ctx);
        cfg_free_schema(nullptr, &schema);
    }
    context_handle(const context_handle &) = delete;
    context_handle &operator=(const context_handle &) = delete;

    cfg *get() const { return ctx; }
};

// A test body with a fresh context of its own, ctx.
struct context_test : ::testing::Test {
    context_handle h;
    cfg *const ctx = h.get();
};

// A context with helpers to hang elements into maps and lists.
struct tree_context {
    context_handle h;
    cfg *ctx() const { return h.get(); }

    // Adds child to parent: under key in a map, at the end of a list when
    // key is null.
    cfg_element *put(cfg_element *parent, const char *key, cfg_element *child) const
    {
        key != nullptr ? cfg_add_mapelem(ctx(), parent, key, child)
                       : cfg_add_listelem(ctx(), parent, child);
        return child;
    }
    // The member of map under key, or null.
    cfg_element *member(cfg_element *map, const char *key) const
    {
        const char *uuid = cfg_get_mapelem(map, key);
        return uuid != nullptr ? cfg_find_by_id(ctx(), uuid) : nullptr;
    }
};

// A library session on a daemon's socket, disconnected when it goes.
struct session {
    cfg *ctx;
    explicit session(const std::string &socket_path, const char *name = "test")
        : ctx(cfg_connect(socket_path.c_str(), name))
    {
    }
    ~session() { cfg_disconnect(&ctx); }
    session(const session &) = delete;
    session &operator=(const session &) = delete;
    cfg *operator->() const { return ctx; }
    operator cfg *() const { return ctx; }
};

// Takes a string the library allocated; "(none)" for null.
inline std::string taken(char *text)
{
    std::string out = text != nullptr ? text : "(none)";
    free(text);
    return out;
}

// Takes an array of count strings the library allocated.
inline texts take_strings(char **list, int count)
{
    texts out;
    for (int i = 0; i < count; i++)
        out.push_back(taken(list[i]));
    free(list);
    return out;
}

// The string value of an element, "(none)" when there is none.
inline std::string string_of(cfg_element *element)
{
    char *text = nullptr;
    return element != nullptr && cfg_string_value(element, &text) ? taken(text) : "(none)";
}

inline int int_of(cfg_element *element)
{
    int value = -1;
    cfg_int_value(element, &value);
    return value;
}

// Every message on the stack, oldest first.
inline texts messages_of(cfg *context)
{
    texts out;
    for (int i = 0; i < cfg_message_count(context); i++)
        out.emplace_back(cfg_get_message_string(cfg_get_message_object(context, i)));
    return out;
}

struct json_deleter {
    void operator()(json_t *value) const { json_decref(value); }
};
using json_handle = std::unique_ptr<json_t, json_deleter>;

inline json_handle parse_json(const std::string &text)
{
    json_error_t error;
    json_handle value(json_loads(text.c_str(), 0, &error));
    EXPECT_NE(value, nullptr) << error.text << " at line " << error.line;
    return value;
}

// A JSON value as text, compact by default; "(none)" for null.
inline std::string dump(json_t *value, size_t flags = JSON_COMPACT)
{
    return taken(value != nullptr ? json_dumps(value, flags | JSON_ENCODE_ANY) : nullptr);
}

// Compact with sorted keys, for comparing objects.
inline std::string sorted_dump(json_t *value)
{
    return dump(value, JSON_COMPACT | JSON_SORT_KEYS);
}

} // namespace zrtest
