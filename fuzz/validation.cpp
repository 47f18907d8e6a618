// A fuzzed tree validated against the appliance schema: the input is an
// array of element objects (the root is "root-1"), loaded into a context
// holding the schema only, then validated in full and by changes, looking
// elements up locally or through the client's hooks (with no daemon behind
// them, so a miss is a failed fetch).
#include "support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    zrfuzz::json_handle value = zrfuzz::parse(data + 1, size - 1);
    if (!json_is_array(value.get()))
        return 0;
    cfg *ctx = zrfuzz::schema_context();
    if (data[0] & 2) {
        ctx->get_by_id = client_cfg_get_by_id;
        ctx->get_by_ids = client_cfg_get_by_ids;
    }
    size_t i;
    json_t *item;
    json_array_foreach(value.get(), i, item) json_to_elem(ctx, item);
    if (data[0] & 1)
        cfg_validate_changed_data(ctx);
    else
        cfg_validate_data(ctx);
    cfg_free_message_stack(ctx);
    zrfuzz::release(ctx);
    return 0;
}
