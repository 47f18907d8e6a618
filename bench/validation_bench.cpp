// Validation of a large appliance tree: a list of n maps of ten members each
// (int ranges, string patterns, allowed values, a uniqueness validator on the
// list and a conditional per map). Prints the time of a full validation, of
// a changed-data validation after one edited member, and their ratio, for
// 10k and 100k maps; then the cost of an edit that a list-wide validator
// watches. Run by hand (build/bench/zrconfig_validation_bench
// [sizes...]); ctest does not run it.
#include "zrconfig.h"
#include "zrutil.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

using clock_type = std::chrono::steady_clock;

cfg_element *local_lookup(cfg *context, const char *uuid)
{
    return cfg_find_by_id(context, uuid);
}

void drop_log_line(int, const char *, const char *, int, const char *, void *) {}

void add_member(cfg *c, cfg_schema_element *map, int which, const char *key,
                cfg_schema_element *member)
{
    cfg_add_schema_mapelem(c, map, which, key, member);
}

// root { appliances: [appliance...] }, an appliance being
// { name, port, mode, mtu, vlan, weight, tier, enabled, description,
//   address }, with address required when mode is "static".
void build_schema(cfg *c)
{
    cfg_schema_element *root = cfg_init_schema_map(c, "s-root");
    c->schema->root = root;
    cfg_schema_element *list = cfg_init_schema_list(c, "s-appliances", 0, 0, 0, 0, 2, 0, "appliance");
    cfg_schema_validator *unique = cfg_init_schema_validator(c, "uniqueness");
    cfg_validator_add_param(unique, "name");
    cfg_validator_add_path(unique, "\\(\\d+\\)\\.name");
    cfg_schema_add_validator(list, unique);
    add_member(c, root, 0, "appliances", list);

    cfg_schema_element *item = cfg_init_schema_map(c, "s-appliance");
    cfg_add_type(c, "appliance", "s-appliance");
    add_member(c, item, 0, "name", cfg_init_schema_string(c, nullptr, 1, 32, 1, 2, nullptr, "^[a-z]+[0-9]+$"));
    add_member(c, item, 0, "port", cfg_init_schema_int(c, nullptr, 1, 65535, 1, 1, 0, 0));
    cfg_schema_element *mode = cfg_init_schema_string(c, nullptr, 0, 0, 0, 0, "dhcp", nullptr);
    cfg_add_schema_string_allowed(c, mode, "static");
    cfg_add_schema_string_allowed(c, mode, "dhcp");
    add_member(c, item, 0, "mode", mode);
    add_member(c, item, 0, "mtu", cfg_init_schema_int(c, nullptr, 1, 9000, 1, 576, 1, 1500));
    add_member(c, item, 0, "vlan", cfg_init_schema_int(c, nullptr, 1, 4094, 1, 0, 0, 0));
    add_member(c, item, 0, "weight", cfg_init_schema_float(c, nullptr, 1, 1, 0, 1.0, 0.0, 0));
    cfg_schema_element *tier = cfg_init_schema_string(c, nullptr, 0, 0, 0, 0, nullptr, nullptr);
    for (const char *t : {"gold", "silver", "bronze"})
        cfg_add_schema_string_allowed(c, tier, t);
    add_member(c, item, 0, "tier", tier);
    add_member(c, item, 0, "enabled", cfg_init_schema_bool(c, nullptr, 1, 1));
    add_member(c, item, 1, "description", cfg_init_schema_string(c, nullptr, 1, 64, 0, 0, nullptr, nullptr));
    cfg_schema_element *address = cfg_init_schema_string(c, nullptr, 1, 15, 1, 7, nullptr, "^[0-9.]+$");
    add_member(c, item, 1, "address", address);

    cfg_schema_value value{};
    value.string_value = const_cast<char *>("static");
    cfg_schema_element *is_static = cfg_init_schema_if(c, "s-if-static", ".mode", 2, 3, value, 0);
    cfg_add_schema_map_conditionalelem(c, item, is_static);
    cfg_load_schema_mapid(is_static, 0, "address", address->uuid);
}

template <typename Load> void load_member(cfg *c, cfg_element *map, const std::string &prefix,
                                          const char *key, Load load)
{
    std::string uuid = prefix + "-" + key;
    cfg_add_mapelem(c, map, key, load(uuid.c_str()));
}

// The tree as the daemon would send it: loaded, unflagged.
void build_tree(cfg *c, int count)
{
    cfg_element *root = cfg_load_map(c, "root-1");
    cfg_element *list = cfg_load_list(c, "appliances-1");
    cfg_add_mapelem(c, root, "appliances", list);
    static const char *tiers[] = {"gold", "silver", "bronze"};
    for (int i = 0; i < count; i++) {
        std::string prefix = "app-" + std::to_string(i);
        cfg_element *map = cfg_load_map(c, prefix.c_str());
        cfg_add_listelem(c, list, map);
        std::string name = "node" + std::to_string(i);
        auto text = [&](const char *t) { return [c, t](const char *u) { return cfg_load_string(c, u, t); }; };
        auto number = [&](int v) { return [c, v](const char *u) { return cfg_load_int(c, u, v); }; };
        load_member(c, map, prefix, "name", text(name.c_str()));
        load_member(c, map, prefix, "port", number(1024 + i % 60000));
        load_member(c, map, prefix, "mode", text(i % 2 == 0 ? "static" : "dhcp"));
        load_member(c, map, prefix, "mtu", number(1500));
        load_member(c, map, prefix, "vlan", number(i % 4095));
        load_member(c, map, prefix, "weight",
                    [c](const char *u) { return cfg_load_float(c, u, 0.5); });
        load_member(c, map, prefix, "tier", text(tiers[i % 3]));
        load_member(c, map, prefix, "enabled", [c](const char *u) { return cfg_load_bool(c, u, 1); });
        load_member(c, map, prefix, "description", text("edge appliance"));
        load_member(c, map, prefix, "address", text("10.0.0.1"));
    }
}

template <typename Body> double seconds(Body body)
{
    auto start = clock_type::now();
    body();
    return std::chrono::duration<double>(clock_type::now() - start).count();
}

double median(std::vector<double> samples)
{
    std::sort(samples.begin(), samples.end());
    return samples[samples.size() / 2];
}

void run(int count)
{
    cfg *c = cfg_create_new_config(nullptr);
    c->get_by_id = local_lookup;
    build_schema(c);
    double setup = seconds([&] { build_tree(c, count); });

    std::vector<double> full;
    for (int i = 0; i < 3; i++)
        full.push_back(seconds([&] {
            if (cfg_validate_data(c) != 1)
                fprintf(stderr, "full validation failed: %s\n", cfg_get_first_message_string(c));
        }));

    // One member edited: the mode a conditional tests, flipped back and
    // forth; its map is validated again through the conditional's trigger.
    std::string uuid = "app-" + std::to_string(count / 2 + 1) + "-mode";
    std::vector<double> changed;
    for (int i = 0; i < 51; i++) {
        cfg_element *mode = cfg_find_by_id(c, uuid.c_str());
        cfg_set_string(c, mode, i % 2 == 0 ? "static" : "dhcp");
        changed.push_back(seconds([&] {
            if (cfg_validate_changed_data(c) != 1)
                fprintf(stderr, "changed validation failed: %s\n", cfg_get_first_message_string(c));
        }));
    }

    double full_s = median(full), changed_s = median(changed);
    printf("%7d maps (%d elements, setup %.2f s): full %.3f ms, changed-data %.4f ms, "
           "ratio %.5f%%\n",
           count, HASH_COUNT(c->elements), setup, full_s * 1e3, changed_s * 1e3,
           100.0 * changed_s / full_s);
    fflush(stdout);

    // A name edit matches the list's uniqueness trigger: the list is then
    // validated in depth, so this costs about as much as a full validation.
    std::string name_uuid = "app-" + std::to_string(count / 2 + 1) + "-name";
    std::vector<double> renamed;
    for (int i = 0; i < 3; i++) {
        std::string name = "renamed" + std::to_string(i);
        cfg_set_string(c, cfg_find_by_id(c, name_uuid.c_str()), name.c_str());
        renamed.push_back(seconds([&] { cfg_validate_changed_data(c); }));
    }
    printf("%7d maps: changed-data after a name edit (re-validates the list) %.3f ms\n", count,
           median(renamed) * 1e3);
    fflush(stdout);

    cfg_schema *schema = c->schema;
    cfg_free_config(&c);
    cfg_free_schema(nullptr, &schema);
}

} // namespace

int main(int argc, char **argv)
{
    zrlog_set_handler(drop_log_line, nullptr);
    std::vector<int> sizes;
    for (int i = 1; i < argc; i++)
        sizes.push_back(atoi(argv[i]));
    if (sizes.empty())
        sizes = {10000, 100000};
    for (int count : sizes)
        run(count);
    return 0;
}
