// Default population's surface for the areas above it.
#ifndef ZRCONFIG_DEFAULTS_H
#define ZRCONFIG_DEFAULTS_H

#include "zrconfig.h"

#include <cstdint>
#include <functional>

namespace zr {

// Whether an element, checked against a schema element, is known to hold
// every member that default population would add.
using populated_fn = std::function<bool(cfg_element *, cfg_schema_element *)>;
// cfg_populate_defaults in normal mode, passing over the elements (and what
// they hold) that populated names: those that memos of epoch show complete.
void populate_defaults_except(cfg *context, cfg_element *element, const populated_fn &populated,
                              uint64_t epoch);

} // namespace zr

#endif // ZRCONFIG_DEFAULTS_H
