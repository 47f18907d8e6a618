// What the fuzz targets share: quiet logging, JSON from the fuzzer's bytes,
// and fresh contexts holding the example appliance's schema and tree.
//
// Every target frees all it builds before returning, so that anything
// LeakSanitizer reports belongs to the code under test.
#pragma once

#include <zrconfig.h>

#include <zrconfig.hpp>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace zrfuzz {

using json_handle = zrconfig::json_ptr;

// Installs a log handler that formats every line and drops it; once.
void quiet_logging();

// The bytes parsed as any JSON value (null when they are not JSON); logging
// is made quiet first.
json_handle parse(const uint8_t *data, size_t size);

// The bytes as a NUL-terminated string (cut at the first NUL).
std::string text(const uint8_t *data, size_t size);

// A new context with an empty schema, with the appliance schema only, or with the schema and the
// appliance configuration as a tree under "root-1". Free with release().
cfg *empty_context();
cfg *schema_context();
cfg *tree_context();
// The same with only the system and users sections: cheaper to build.
cfg *small_tree_context();
void release(cfg *&ctx);

// The appliance schema document {"root", "nodes", "types"} (borrowed).
json_t *schema_document();


// A compact dump of value, freed at once: runs the encoders over what a
// decoder built.
void exercise_dump(json_t *value);

} // namespace zrfuzz
