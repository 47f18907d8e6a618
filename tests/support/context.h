// Contexts for tests: a fresh context with its own schema, and a lookup
// hook that answers from the local index only.
#pragma once

#include "zrconfig.h"

#include <memory>

namespace zrtest {

inline cfg_element *local_get_by_id(cfg *context, const char *uuid)
{
    return cfg_find_by_id(context, uuid);
}

// Owns a context and the schema it was created with.
struct context_handle {
    cfg *ctx = nullptr;
    cfg_schema *schema = nullptr;

    explicit context_handle(bool with_local_lookup = true)
    {
        ctx = cfg_create_new_config(nullptr);
        schema = ctx->schema;
        if (with_local_lookup)
            ctx->get_by_id = local_get_by_id;
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

} // namespace zrtest
