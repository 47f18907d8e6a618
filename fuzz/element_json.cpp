// One element object decoded into a context that holds the appliance tree,
// then encoded again.
#include "support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    zrfuzz::json_handle value = zrfuzz::parse(data, size);
    if (value == nullptr)
        return 0;
    cfg *ctx = zrfuzz::tree_context();
    cfg_element *element = json_to_elem(ctx, value.get());
    if (element != nullptr)
        zrfuzz::exercise_dump(elem_to_json(element));
    cfg_free_message_stack(ctx);
    zrfuzz::release(ctx);
    return 0;
}
