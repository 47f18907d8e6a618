// The data tree's surface for the areas above it.
#ifndef ZRCONFIG_DATA_H
#define ZRCONFIG_DATA_H

#include "zrconfig.h"

#include <cstddef>

namespace zr {

// Tells the data tree that an element left a uuid index, an index was
// swapped, or a lookup hook's answers changed.
void index_changed();

// The member at position of list as the context's get_by_id hook finds it;
// null past the end.
cfg_element *list_member(cfg *context, cfg_element *list, size_t position);

} // namespace zr

#endif // ZRCONFIG_DATA_H
