// Lookups and allocator help that the areas above the context share.
#ifndef ZRCONFIG_COMMON_H
#define ZRCONFIG_COMMON_H

#include "zrconfig.h"

namespace zr {

// The id of every configuration tree's root element.
constexpr const char *root_uuid = "root-1";

// The id the daemon gave to id on a push, or id itself when it was not
// renamed (or the context has no connection).
const char *mapped_id(cfg *ctx, const char *id);

// True when the context looks elements up with one of the library's own
// hooks, which answer a held uuid with the indexed element and nothing else.
// Records then stay put while a walk runs: the client's hook fetches only
// ids not held, and loads no item of the answer over a held record.
bool looks_up_locally(const cfg *context);

// The element the context's hook answers uuid with from the local index;
// null when there is none or the hook is not one of the library's own.
cfg_element *local_answer(cfg *context, const char *uuid);

// local_answer for count ids at once, into out; the cache misses of the
// lookups overlap, so a batch costs little more than one lookup.
void local_answers(cfg *context, const char *const *uuids, size_t count, cfg_element **out);

// Has the C library merge the small blocks freed since its last merge, now
// rather than later. glibc keeps small freed blocks apart in its fast bins
// until a request above its small-bin range; asking for one such block and
// handing it back merges them while they are still in cache, so the records
// made next fill the space they left. Loading element by element while the
// caller releases the answer item by item keeps the tree compact this way.
// Under another allocator it is one scratch allocation and its release.
void merge_freed_blocks();

} // namespace zr

#endif // ZRCONFIG_COMMON_H
