// Plain nested JSON ({"system": {"hostname": "fw1"}, ...}) turned into
// configuration elements through the schema and back, and the schema
// lookups that this and searches share. Built into a static library that
// zrconfigd and zrcfg both link; it uses only the public interface.
#pragma once

#include <zrconfig.h>

#include <string>
#include <vector>

namespace zrplain {

// The schema element of key in a map (or if) schema element: its required,
// optional and deprecated members, then, recursively, those of its
// conditional elements; null when none names key.
cfg_schema_element *member_schema(cfg *ctx, cfg_schema_element *map, const char *key);

// Every key that map's members and conditional members name.
std::vector<std::string> member_keys(cfg *ctx, cfg_schema_element *map);

// The schema element describing the members of list_schema (a list whose
// element type is a named type), or null.
cfg_schema_element *list_item_schema(cfg *ctx, cfg_schema_element *list_schema);

// Builds data's members into map, which schema describes. Ids are
// "<key>-<n>" with n from *next_id, or fresh library ids when next_id is
// null. References are written as paths and resolved once the tree stands.
// False with error set on failure.
bool build_plain_data(cfg *ctx, cfg_element *map, cfg_schema_element *schema, json_t *data,
                      unsigned long *next_id, std::string &error);

// One element built from a plain JSON value (a map, a list or a scalar)
// that schema describes (null: typed by the value alone); null with error
// set on failure. key names it in ids and errors.
cfg_element *build_plain_value(cfg *ctx, json_t *value, cfg_schema_element *schema,
                               const std::string &key, unsigned long *next_id,
                               std::string &error);

// The plain JSON of e and everything under it (members fetched through
// cfg_get_by_id; deleted members left out; references as the canonical path
// of their target). A new reference, or null when e is null or a member
// cannot be read.
json_t *plain_json(cfg *ctx, cfg_element *e);

// The JSON document in the file at path; null with error set to
// "path:line: reason" when it cannot be read or parsed.
json_t *read_json_file(const std::string &path, std::string &error);

// The word for a CFG_TYPE_* code ("string", "map", ...); "value" for others.
const char *type_name(int type);

// A daemon id for an element under key: key (letters, digits, '_' and '-'
// kept, others made '_', at most 64 characters), "-" and the counter.
std::string daemon_id(const std::string &key, unsigned long &next_id);

} // namespace zrplain
