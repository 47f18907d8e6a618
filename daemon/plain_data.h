// Plain nested JSON ({"system": {"hostname": "fw1"}, ...}) turned into
// configuration elements through the schema, and the schema lookups that
// this and searches share.
#pragma once

#include "common.h"

#include <string>
#include <vector>

namespace zrd {

// The schema element of key in a map (or if) schema element: its required,
// optional and deprecated members, then, recursively, those of its
// conditional elements; null when none names key.
cfg_schema_element *member_schema(cfg *ctx, cfg_schema_element *map, const char *key);

// Every key that map's members and conditional members name.
std::vector<std::string> member_keys(cfg *ctx, cfg_schema_element *map);

// The schema element describing the members of list_schema (a list whose
// element type is a named type), or null.
cfg_schema_element *list_item_schema(cfg *ctx, cfg_schema_element *list_schema);

// Builds data's members into root (a map described by the schema root).
// Ids are "<key>-<n>" with n from next_id. References are written as paths
// and resolved once the tree stands. False with error set on failure.
bool build_plain_data(cfg *ctx, cfg_element *root, json_t *data, unsigned long &next_id,
                      std::string &error);

// A daemon id for an element under key: key (letters, digits, '_' and '-'
// kept, others made '_', at most 64 characters), "-" and the counter.
std::string daemon_id(const std::string &key, unsigned long &next_id);

} // namespace zrd
