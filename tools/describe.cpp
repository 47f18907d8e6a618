// The schema in words: a walk from the root along a data path, and a node's
// type and constraints.
#include "describe.h"

#include "plain_data.h"

#include <zrconfig.hpp>

#include <cstdio>

namespace zrcfg {

namespace {

// One step of a data path: a key, or a list member ("[n]", "[]").
struct step {
    std::string key;
    bool member = false;
};

bool split_path(const std::string &path, std::vector<step> &steps)
{
    size_t i = 0;
    while (i < path.size()) {
        if (path[i] == '.') {
            i++;
            continue;
        }
        if (path[i] == '[') {
            size_t close = path.find(']', i);
            if (close == std::string::npos)
                return false;
            steps.push_back({"", true});
            i = close + 1;
            continue;
        }
        size_t end = path.find_first_of(".[", i);
        steps.push_back({path.substr(i, end - i), false});
        i = end == std::string::npos ? path.size() : end;
    }
    return true;
}

std::string range(const char *what, int has_min, long long min, int has_max, long long max)
{
    if (has_min && has_max)
        return std::string(what) + " from " + std::to_string(min) + " to " + std::to_string(max);
    if (has_min)
        return std::string(what) + " at least " + std::to_string(min);
    if (has_max)
        return std::string(what) + " at most " + std::to_string(max);
    return "";
}

std::string joined_keys(cfg_schema_element *map, int which)
{
    char **keys = nullptr;
    int count = 0;
    std::string out;
    if (!cfg_schema_map_keys(map, which, &keys, &count))
        return out;
    for (int i = 0; i < count; i++) {
        out += (i > 0 ? ", " : "") + std::string(keys[i]);
        free(keys[i]);
    }
    free(keys);
    return out;
}

std::string string_allowed(cfg_schema_element *node)
{
    std::string out;
    for (int i = 0; i < cfg_schema_string_allowed_size(node); i++) {
        char *value = nullptr;
        if (cfg_schema_string_get_allowed_index(node, i, &value))
            out += (out.empty() ? "" : ", ") + zrconfig::take_string(value);
    }
    return out;
}

void add_if(std::vector<std::string> &lines, const std::string &line)
{
    if (!line.empty())
        lines.push_back(line);
}

} // namespace

cfg_schema_element *schema_at(cfg *ctx, const std::string &path, std::string &error)
{
    std::vector<step> steps;
    if (!split_path(path, steps)) {
        error = "'" + path + "' is not a path";
        return nullptr;
    }
    cfg_schema_element *node = ctx->schema->root;
    for (const step &s : steps) {
        cfg_schema_element *next = s.member ? zrplain::list_item_schema(ctx, node)
                                            : zrplain::member_schema(ctx, node, s.key.c_str());
        if (next == nullptr) {
            error = "the schema has no node at '" + path + "'";
            return nullptr;
        }
        node = next;
    }
    return node;
}

std::vector<std::string> describe_schema(cfg *ctx, cfg_schema_element *node)
{
    std::vector<std::string> lines{std::string("type: ") + zrplain::type_name(node->type)};
    switch (node->type) {
    case CFG_TYPE_INT: {
        auto &n = node->u.integer;
        add_if(lines, range("value", n.has_min, n.min, n.has_max, n.max));
        if (n.has_default)
            lines.push_back("default: " + std::to_string(n.default_value));
        break;
    }
    case CFG_TYPE_FLOAT: {
        auto &n = node->u.real;
        if (n.has_min)
            lines.push_back("value at least " + std::to_string(n.min));
        if (n.has_max)
            lines.push_back("value at most " + std::to_string(n.max));
        break;
    }
    case CFG_TYPE_STRING: {
        auto &n = node->u.string;
        add_if(lines, range("length", n.has_min, n.min, n.has_max, n.max));
        if (n.has_regex && n.regex != nullptr)
            lines.push_back(std::string("pattern: ") + n.regex);
        std::string allowed = string_allowed(node);
        add_if(lines, allowed.empty() ? "" : "one of: " + allowed);
        if (n.has_default && n.default_value != nullptr)
            lines.push_back(std::string("default: ") + n.default_value);
        break;
    }
    case CFG_TYPE_BLOB:
        add_if(lines, range("size", node->u.blob.has_min, node->u.blob.min,
                            node->u.blob.has_max, node->u.blob.max));
        break;
    case CFG_TYPE_LIST: {
        auto &n = node->u.list;
        lines.push_back(std::string("members: ") +
                        (n.element_kind == 2 && n.element_type_name != nullptr
                             ? n.element_type_name
                             : zrplain::type_name(n.element_type)));
        add_if(lines, range("members", n.has_min, n.min, n.has_max, n.max));
        break;
    }
    case CFG_TYPE_MAP:
        add_if(lines, joined_keys(node, 0).empty() ? "" : "required: " + joined_keys(node, 0));
        add_if(lines, joined_keys(node, 1).empty() ? "" : "optional: " + joined_keys(node, 1));
        if (int conditionals = 0; cfg_schema_map_conditional_size(node, &conditionals) &&
                                  conditionals > 0) {
            std::string keys;
            for (const std::string &k : zrplain::member_keys(ctx, node))
                keys += (keys.empty() ? "" : ", ") + k;
            lines.push_back("every key, conditional ones included: " + keys);
        }
        break;
    case CFG_TYPE_REFERENCE:
        if (node->u.reference.target != nullptr)
            lines.push_back(std::string("target: ") + node->u.reference.target);
        break;
    }
    return lines;
}

} // namespace zrcfg
