// The data tree's surface for the areas above it.
#ifndef ZRCONFIG_DATA_H
#define ZRCONFIG_DATA_H

#include "zrconfig.h"

#include <cstddef>
#include <cstdint>

namespace zr {

// Tells the data tree that an element left a uuid index, an index was
// swapped, or a lookup hook's answers changed.
void index_changed();

// The member at position of list as the context's get_by_id hook finds it;
// null past the end.
cfg_element *list_member(cfg *context, cfg_element *list, size_t position);

// A word kept beside element for validation walks, which note there whether
// they have seen and accounted for it; zero for a new record.
uint64_t &walk_mark(cfg_element *element);

} // namespace zr

#endif // ZRCONFIG_DATA_H
