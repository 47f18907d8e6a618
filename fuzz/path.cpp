// Paths looked up in the appliance tree: the text as a path from the root
// and below "network", through the printf-style readers, and as the
// format's argument.
#include "support.h"

#include <cstdlib>

namespace {

cfg *tree()
{
    static cfg *ctx = zrfuzz::tree_context();
    return ctx;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string path = zrfuzz::text(data, size);
    cfg *ctx = tree();
    const char *p = path.c_str();
    cfg_get_by_path(ctx, p);
    cfg_get_child_by_path(ctx, cfg_get_by_path(ctx, "network"), p);
    cfg_simple_get_by_path(ctx, "%s", p);
    cfg_simple_get_by_path(ctx, "users(%d).%s", size % 4, p);
    char *text = nullptr;
    if (cfg_simple_string_value_by_path(ctx, &text, "%s", p))
        free(text);
    int number = 0;
    cfg_simple_int_value_by_path(ctx, &number, "%s", p);
    cfg_simple_bool_value_by_path(ctx, &number, "%s", p);
    text = nullptr;
    if (cfg_map_get_string(ctx, cfg_root(ctx), p, &text))
        free(text);
    cfg_map_get_int(ctx, cfg_root(ctx), p, &number);
    cfg_free_message_stack(ctx);
    return 0;
}
