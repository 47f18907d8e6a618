// The schema in words, for zrcfg schema.
#pragma once

#include <zrconfig.h>

#include <string>
#include <vector>

namespace zrcfg {

// The schema node at a data path ("network.conns[0].mtu"; "[]" stands for
// any member) from the schema root; null with error set when the schema
// has none.
cfg_schema_element *schema_at(cfg *ctx, const std::string &path, std::string &error);

// Lines describing node: its type and its constraints.
std::vector<std::string> describe_schema(cfg *ctx, cfg_schema_element *node);

} // namespace zrcfg
