#include "support.h"

#include "common.h"
#include "plain_data.h"

#include <zrutil.h>

#include <cstdio>
#include <cstdlib>
#include <initializer_list>

namespace zrfuzz {

namespace {

void drop_line(int, const char *, const char *, int, const char *, void *) {}

// A file of examples/appliance parsed once; the process ends when it is
// missing, since no target means anything without it.
json_t *example(const char *name)
{
    std::string path = std::string(ZRFUZZ_EXAMPLES) + "/" + name;
    json_error_t error;
    json_t *value = json_load_file(path.c_str(), 0, &error);
    if (value == nullptr) {
        fprintf(stderr, "fuzz: cannot load %s: %s\n", path.c_str(), error.text);
        abort();
    }
    return value;
}

} // namespace

void quiet_logging()
{
    static bool done = false;
    if (!done)
        zrlog_set_handler(drop_line, nullptr);
    done = true;
}

json_handle parse(const uint8_t *data, size_t size)
{
    quiet_logging();
    json_error_t error;
    return json_handle(
        json_loadb(reinterpret_cast<const char *>(data), size, JSON_DECODE_ANY, &error));
}

std::string text(const uint8_t *data, size_t size)
{
    std::string out(reinterpret_cast<const char *>(data), size);
    return out.substr(0, out.find('\0'));
}

json_t *schema_document()
{
    static json_t *doc = example("schema.json");
    return doc;
}

cfg *empty_context()
{
    quiet_logging();
    return zrd::new_context();
}

cfg *schema_context()
{
    cfg *ctx = empty_context();
    json_t *doc = schema_document();
    cfg_apply_schema(ctx, json_object_get(doc, "nodes"), json_object_get(doc, "types"),
                     json_object_get(doc, "root"));
    return ctx;
}

namespace {

// A new context holding the appliance schema and config as a tree under
// "root-1".
cfg *context_with(json_t *config)
{
    cfg *ctx = schema_context();
    cfg_element *root = cfg_new_map_with_id(ctx, "root-1");
    unsigned long next_id = 2;
    std::string error;
    if (!zrplain::build_plain_data(ctx, root, ctx->schema->root, config, &next_id, error)) {
        fprintf(stderr, "fuzz: the appliance tree does not build: %s\n", error.c_str());
        abort();
    }
    return ctx;
}

// The appliance configuration with only the sections named.
json_t *sections_of_example(std::initializer_list<const char *> names)
{
    json_t *whole = example("config.json");
    json_t *part = json_object();
    for (const char *name : names)
        json_object_set(part, name, json_object_get(whole, name));
    json_decref(whole);
    return part;
}

} // namespace

cfg *tree_context()
{
    static json_t *config = example("config.json");
    return context_with(config);
}

cfg *small_tree_context()
{
    static json_t *config = sections_of_example({"system", "users"});
    return context_with(config);
}

void release(cfg *&ctx)
{
    zrd::free_context(ctx);
}

void exercise_dump(json_t *value)
{
    free(json_dumps(value, JSON_COMPACT | JSON_ENCODE_ANY));
    json_decref(value);
}

} // namespace zrfuzz
