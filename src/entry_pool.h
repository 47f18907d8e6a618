// Index entries for the uuid index of a context.
#ifndef ZRCONFIG_ENTRY_POOL_H
#define ZRCONFIG_ENTRY_POOL_H

#include "zrconfig.h"

#include <cstddef>

namespace zr {

// An entry for a uuid index, zeroed; null when there is no memory for it.
// Entries are released with free_index_entry.
cfg_index_entry *new_index_entry();
void free_index_entry(cfg_index_entry *entry);

} // namespace zr

#endif // ZRCONFIG_ENTRY_POOL_H
