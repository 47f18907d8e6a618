// A changeset applied to a context holding the appliance schema and tree,
// as from the daemon when the first byte is odd, else as a local replay.
#include "support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    zrfuzz::json_handle value = zrfuzz::parse(data + 1, size - 1);
    if (value == nullptr)
        return 0;
    cfg *ctx = zrfuzz::tree_context();
    int config_count = 0, schema_count = 0;
    cfg_apply_changeset(ctx, value.get(), data[0] & 1, &config_count, &schema_count);
    zrfuzz::exercise_dump(cfg_assemble_update(ctx));
    zrfuzz::release(ctx);
    return 0;
}
