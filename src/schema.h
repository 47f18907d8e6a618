// The schema code's surface for the areas above it.
#ifndef ZRCONFIG_SCHEMA_H
#define ZRCONFIG_SCHEMA_H

#include "zrconfig.h"

#include <cstddef>

namespace zr {

// Frees a validator and everything it owns; always nullptr.
cfg_schema_validator *free_schema_validator(cfg_schema_validator *validator);

// Frees the schema records that lost their place in schema's uuid map to a
// record loaded under the same id and were kept for callers that may still
// hold them; called when the schema itself is released.
void release_displaced_schema_elements(cfg_schema *schema);

} // namespace zr

#endif // ZRCONFIG_SCHEMA_H
