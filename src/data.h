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

// What validation last found of an element: that it, and everything below
// it, validated against the schema element and with the value the
// fingerprint sums up, under the memo epoch, with at most these flags. An
// epoch of zero means nothing is known.
struct validation_memo {
    uint64_t epoch = 0;
    uint64_t fingerprint = 0;
    unsigned int flags = 0;
};
validation_memo &memo_of(cfg_element *element);
// Forgets the memo of element and of every element above it (the containers
// and references that hold it, as the context's own index finds them);
// called whenever the element or what it holds changes.
void forget_validation(cfg *context, cfg_element *element);
// Makes every memo of every context stale, for changes that cannot be placed.
void forget_all_validation();
// Moves whenever forget_all_validation is called.
uint64_t validation_generation();

// A word kept beside element for validation walks, which note there whether
// they have seen and accounted for it; zero for a new record.
uint64_t &walk_mark(cfg_element *element);

} // namespace zr

#endif // ZRCONFIG_DATA_H
