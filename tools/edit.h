// Changes zrcfg makes to a session's tree from plain JSON: command-line
// values typed through the schema, and documents merged into the tree.
#pragma once

#include <zrconfig.hpp>

#include <string>

namespace zrcfg {

// The JSON value that text stands for where the schema has type (a
// CFG_TYPE_*; 0 when unknown): strings as they are, numbers and Booleans
// parsed, maps and lists as JSON. Null with error set when text does not
// fit the type.
json_t *typed_value(int type, const std::string &text, std::string &error);

// Merges value into target: map members key by key (JSON null deletes a
// member), lists member by member (the document's length wins), scalars
// set when they differ. Adds the number of changed places to changes.
// False with error set when the document cannot be merged.
bool merge_value(const zrconfig::element &target, json_t *value, int &changes,
                 std::string &error);

// Merges value into map under key, making the member when it is absent.
bool merge_member(const zrconfig::element &map, const std::string &key, json_t *value,
                  int &changes, std::string &error);

} // namespace zrcfg
