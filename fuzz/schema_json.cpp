// Schema JSON: an object with "nodes" is applied as a whole schema
// (nodes, types, root) to an empty context; anything else is one schema
// element decoded into a context holding the appliance schema. What was
// built is encoded again.
#include "support.h"

namespace {

void apply_document(json_t *doc)
{
    cfg *ctx = zrfuzz::empty_context();
    cfg_apply_schema(ctx, json_object_get(doc, "nodes"), json_object_get(doc, "types"),
                     json_object_get(doc, "root"));
    if (cfg_schema_root(ctx) != nullptr)
        zrfuzz::exercise_dump(schema_elem_to_json(cfg_schema_root(ctx)));
    zrfuzz::release(ctx);
}

void decode_element(json_t *json)
{
    cfg *ctx = zrfuzz::schema_context();
    cfg_schema_element *elem = json_to_schema_elem(ctx, json);
    if (elem != nullptr)
        zrfuzz::exercise_dump(schema_elem_to_json(elem));
    zrfuzz::release(ctx);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    zrfuzz::json_handle value = zrfuzz::parse(data, size);
    if (value == nullptr)
        return 0;
    if (json_object_get(value.get(), "nodes") != nullptr)
        apply_document(value.get());
    else
        decode_element(value.get());
    return 0;
}
