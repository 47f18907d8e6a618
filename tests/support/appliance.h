// A small appliance configuration for validation tests: a schema with
// required and optional members, defaults, a list of a named type and
// conditionals (relative, climbing and absolute paths), and a loaded tree
// that leaves several required members missing.
//
// Schema ("s-" uuids; r = required, o = optional):
//   s-root map: r system (s-system), r interfaces (s-interfaces: list of
//               type "interface"), o services (s-services)
//   s-system map: r hostname string "appliance", r mtu int 1500,
//               r timeout int (no default), r ntp list of strings,
//               o banner string "welcome", r dns (s-dns)
//   s-dns map: r enabled bool true;
//               if "^mtu" > 1400 (s-if-jumbo): r edns bool true
//               if ".enabled" == true (s-if-dns-on): r cache int 512
//   s-interface map (type "interface"): r name string (no default),
//               r enabled bool false, o mode string "static";
//               if ".mode" == "dhcp" (s-if-dhcp): r lease int 3600
//               if "^^system.hostname" != "appliance" (s-if-host):
//               r label string "custom"
//   s-services map: r ssh map (s-ssh): r port int 22
//
// Tree (loaded, unflagged; schema bindings left empty except the root's):
//   root-1 { system sys0-aaaa-bbbb-cccc-0001 { hostname host-1 "box",
//                                             mtu mtu-1 9000, dns dns-1 {} },
//            interfaces ifs-1 [ if-1 { name "eth0", mode "dhcp" },
//                               if-2 { name "eth1" } ]
//            (if-3 { name "eth2" } pending in ifs-1) }
#pragma once

#include "context.h"

#include <cstring>

namespace zrtest {

struct appliance : tree_context {
    cfg_schema_element *s_root = nullptr, *s_system = nullptr, *s_dns = nullptr,
                       *s_interface = nullptr, *s_services = nullptr;
    cfg_element *root = nullptr, *system = nullptr, *hostname = nullptr, *mtu = nullptr,
                *dns = nullptr, *interfaces = nullptr, *if1 = nullptr, *if2 = nullptr,
                *if3 = nullptr;

    appliance()
    {
        build_schema();
        build_tree();
    }

  private:
    void add(cfg_schema_element *map, int which, const char *key, cfg_schema_element *m)
    {
        cfg_add_schema_mapelem(ctx(), map, which, key, m);
    }
    cfg_schema_element *string_schema(const char *uuid, const char *def)
    {
        return cfg_init_schema_string(ctx(), uuid, 0, 0, 0, 0, def, nullptr);
    }
    cfg_schema_element *int_schema(const char *uuid, bool has_default, int def)
    {
        return cfg_init_schema_int(ctx(), uuid, 0, 0, 0, 0, has_default, def);
    }
    // A conditional of map whose branch requires key (schema member).
    void condition(cfg_schema_element *map, const char *uuid, const char *path, int op,
                   int value_type, cfg_schema_value value, const char *key,
                   cfg_schema_element *member)
    {
        cfg_schema_element *cond = cfg_init_schema_if(ctx(), uuid, path, op, value_type, value, 0);
        cfg_add_schema_map_conditionalelem(ctx(), map, cond);
        cfg_load_schema_mapid(cond, 0, key, member->uuid);
    }

    void build_schema()
    {
        cfg *c = ctx();
        s_root = cfg_init_schema_map(c, "s-root");
        c->schema->root = s_root;
        s_system = cfg_init_schema_map(c, "s-system");
        s_dns = cfg_init_schema_map(c, "s-dns");
        s_interface = cfg_init_schema_map(c, "s-interface");
        s_services = cfg_init_schema_map(c, "s-services");
        cfg_add_type(c, "interface", "s-interface");

        add(s_root, 0, "system", s_system);
        add(s_root, 0, "interfaces",
            cfg_init_schema_list(c, "s-interfaces", 0, 0, 0, 0, 2, 0, "interface"));
        add(s_root, 1, "services", s_services);

        add(s_system, 0, "hostname", string_schema("s-hostname", "appliance"));
        add(s_system, 0, "mtu", int_schema("s-mtu", true, 1500));
        add(s_system, 0, "timeout", int_schema("s-timeout", false, 0));
        add(s_system, 0, "ntp",
            cfg_init_schema_list(c, "s-ntp", 0, 0, 0, 0, 1, CFG_TYPE_STRING, nullptr));
        add(s_system, 1, "banner", string_schema("s-banner", "welcome"));
        add(s_system, 0, "dns", s_dns);

        add(s_dns, 0, "enabled", cfg_init_schema_bool(c, "s-dns-enabled", 1, 1));
        condition(s_dns, "s-if-jumbo", "^mtu", 4, 2, {.int_value = 1400}, "edns",
                  cfg_init_schema_bool(c, "s-edns", 1, 1));
        condition(s_dns, "s-if-dns-on", ".enabled", 2, 1, {.bool_value = 1}, "cache",
                  int_schema("s-cache", true, 512));

        add(s_interface, 0, "name", string_schema("s-if-name", nullptr));
        add(s_interface, 0, "enabled", cfg_init_schema_bool(c, "s-if-enabled", 1, 0));
        add(s_interface, 1, "mode", string_schema("s-if-mode", "static"));
        condition(s_interface, "s-if-dhcp", ".mode", 2, 3,
                  {.string_value = const_cast<char *>("dhcp")}, "lease",
                  int_schema("s-lease", true, 3600));
        condition(s_interface, "s-if-host", "^^system.hostname", 3, 3,
                  {.string_value = const_cast<char *>("appliance")}, "label",
                  string_schema("s-label", "custom"));

        cfg_schema_element *ssh = cfg_init_schema_map(c, "s-ssh");
        add(s_services, 0, "ssh", ssh);
        add(ssh, 0, "port", int_schema("s-port", true, 22));
    }

    cfg_element *load_interface(const char *uuid, const char *name, bool pending)
    {
        cfg_element *map = cfg_load_map(ctx(), uuid);
        if (pending)
            cfg_append_future_listelem(ctx(), interfaces, map);
        else
            put(interfaces, nullptr, map);
        put(map, "name", cfg_load_string(ctx(), (std::string(uuid) + "-name-elem").c_str(), name));
        return map;
    }

    void build_tree()
    {
        cfg *c = ctx();
        root = cfg_load_map(c, "root-1");
        strcpy(root->schema, "s-root");
        system = put(root, "system", cfg_load_map(c, "sys0-aaaa-bbbb-cccc-0001"));
        hostname = put(system, "hostname", cfg_load_string(c, "host-1", "box"));
        mtu = put(system, "mtu", cfg_load_int(c, "mtu-1", 9000));
        dns = put(system, "dns", cfg_load_map(c, "dns-1"));
        interfaces = put(root, "interfaces", cfg_load_list(c, "ifs-1"));
        if1 = load_interface("if-1", "eth0", false);
        put(if1, "mode", cfg_load_string(c, "mode-1", "dhcp"));
        if2 = load_interface("if-2", "eth1", false);
        if3 = load_interface("if-3", "eth2", true);
    }
};

} // namespace zrtest
