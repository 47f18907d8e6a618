// Releasing a context: the trigger tables, every element of the uuid index,
// the message stack, the conflict list, the client data and the transaction
// settings. It sits above every area whose records it frees.
#define ZR_SOURCE "src/release"
#include "internal.h"
#include "data.h"
#include "entry_pool.h"

namespace {

// Trigger tables belong to validation, which fills and releases them.
void release_trigger_tables(cfg *context)
{
    cfg_free_trigger_tables(context);
}

// Element records are released by the data tree, which owns their layout.
void release_element(cfg *context, cfg_element *element)
{
    cfg_free_element(context, element);
}

// Empties the uuid index, releasing every element in index order.
void release_elements(cfg *context)
{
    zr::index_changed(); // the data tree's cached members go stale
    cfg_index_entry *entry, *tmp;
    HASH_ITER(hh, context->elements, entry, tmp)
    {
        HASH_DEL(context->elements, entry);
        release_element(context, entry->element);
        zr::free_index_entry(entry);
    }
}

} // namespace

extern "C" int cfg_free_config(cfg **handle)
{
    if (handle == nullptr || *handle == nullptr)
        return 0;
    cfg *context = *handle;
    release_trigger_tables(context);
    release_elements(context);
    cfg_free_message_stack(context);
    for (int i = 0; i < context->conflicts_count; i++)
        free(context->conflicts[i]);
    free(context->conflicts);
    context->conflicts = nullptr;
    context->conflicts_count = 0;
    if (context->free_client_data != nullptr)
        context->free_client_data(context);
    free(context->client_data);
    free(context->transaction_dir);
    free(context->transaction_id);
    free(context);
    *handle = nullptr;
    return 1;
}
