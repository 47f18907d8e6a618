// The appliance for the validation, default and trigger tests: a schema
// loaded from the daemon's JSON form and a loaded, unflagged tree that
// validates once its missing defaults are filled in. The fixture captures
// log lines. (The daemon's example appliance lacks the climbing and absolute
// conditionals and the deprecated member these tests need.)
//
// Conditionals: a connection whose mode is "static" requires address and
// netmask; every connection requires trace once "^^^system.loglevel" is 7 or
// more; the network requires proxy_port when "system.proxy_mode" (absent
// from the tree) is "http".
//
// Tree (daemon uuids; "missing" members have schema defaults):
//   root-1 { system sys-1 { hostname host-1 "gateway",
//                           (missing loglevel 6, timezone "UTC") },
//            network net-1 { conns conns-1 [
//                conn-1 { name "wan", mode "dhcp", (missing mtu 1500) },
//                conn-2 { name "lan", mode "static", mtu 1500,
//                         address "192.168.1.1", netmask 24 } ] },
//            users users-1 [ user-1 { name "admin", role "admin", uid 1000 },
//                            user-2 { name "operator", role "operator",
//                                     uid 1001 } ],
//            certificates certs-1 [ cert-1 { name "web", certificate, key,
//                                            common_name "device.example" } ] }
#pragma once

#include "context.h"
#include "log_capture.h"
#include "test_material.h"

namespace zrtest {

inline const char appliance_schema[] = R"([
 {"id": "n-root", "type": 8, "required": {"system": "n-system", "network": "n-network",
   "users": "n-users", "certificates": "n-certs"}},
 {"id": "n-system", "type": 8,
   "required": {"hostname": "n-hostname", "loglevel": "n-loglevel", "timezone": "n-timezone"},
   "optional": {"proxy_mode": "n-proxy-mode"},
   "deprecated": {"legacy_port": "n-legacy-port"}},
 {"id": "n-hostname", "type": 4, "min_length": 1, "max_length": 63, "regex": "^[a-z][a-z0-9-]*$"},
 {"id": "n-loglevel", "type": 2, "min": 0, "max": 7, "default": 6},
 {"id": "n-timezone", "type": 4, "default": "UTC"},
 {"id": "n-legacy-port", "type": 2, "min": 1, "max": 2},
 {"id": "n-proxy-mode", "type": 4, "allowed": ["off", "http"]},
 {"id": "n-network", "type": 8, "required": {"conns": "n-conns"}, "conditionals": ["n-if-proxy"]},
 {"id": "n-if-proxy", "type": 10,
   "expression": ["system.proxy_mode", "==", {"type": "string", "value": "http", "id": "v-http"}],
   "required": {"proxy_port": "n-proxy-port"}},
 {"id": "n-proxy-port", "type": 2, "min": 1, "max": 65535},
 {"id": "n-conns", "type": 7, "element_type": "connection", "min_length": 1,
   "validators": [{"validator": "uniqueness", "parameters": ["name"],
                   "paths": ["\\(\\d+\\)\\.name"]}]},
 {"id": "n-connection", "type": 8,
   "required": {"name": "n-conn-name", "mode": "n-conn-mode", "mtu": "n-conn-mtu"},
   "conditionals": ["n-if-static", "n-if-debug"]},
 {"id": "n-conn-name", "type": 4, "max_length": 15, "regex": "^[a-z0-9]+$"},
 {"id": "n-conn-mode", "type": 4, "allowed": ["static", "dhcp"], "default": "static"},
 {"id": "n-conn-mtu", "type": 2, "min": 576, "max": 9000, "default": 1500},
 {"id": "n-if-static", "type": 10, "eval_priority": 0,
   "expression": [".mode", "==", {"type": "string", "value": "static", "id": "v-static"}],
   "required": {"address": "n-conn-address", "netmask": "n-conn-netmask"}},
 {"id": "n-if-debug", "type": 10,
   "expression": ["^^^system.loglevel", ">=", {"type": "int", "value": 7, "id": "v-debug"}],
   "required": {"trace": "n-conn-trace"}},
 {"id": "n-conn-trace", "type": 1, "default": false},
 {"id": "n-conn-address", "type": 4,
   "validators": [{"validator": "networkaddress", "parameters": ["ipv4"], "paths": []}]},
 {"id": "n-conn-netmask", "type": 2, "min": 1, "max": 32, "default": 24},
 {"id": "n-users", "type": 7, "element_type": "user",
   "validators": [{"validator": "uniqueness", "parameters": ["name"],
                   "paths": ["\\(\\d+\\)\\.name"]}]},
 {"id": "n-user", "type": 8,
   "required": {"name": "n-user-name", "role": "n-user-role", "uid": "n-user-uid"}},
 {"id": "n-user-name", "type": 4, "max_length": 32, "regex": "^[a-z_][a-z0-9_-]*$"},
 {"id": "n-user-role", "type": 4, "allowed": ["admin", "operator", "viewer"], "default": "viewer"},
 {"id": "n-user-uid", "type": 2, "min": 1000, "max": 60000},
 {"id": "n-certs", "type": 7, "element_type": "certificate"},
 {"id": "n-cert", "type": 8,
   "required": {"name": "n-cert-name", "certificate": "n-cert-pem", "key": "n-cert-key"},
   "optional": {"common_name": "n-cert-cn"},
   "validators": [{"validator": "ssl_cert",
                   "parameters": ["certificate", "key", "common_name"]}]},
 {"id": "n-cert-name", "type": 4},
 {"id": "n-cert-pem", "type": 6, "min_length": 1, "max_length": 16384},
 {"id": "n-cert-key", "type": 6, "min_length": 1, "max_length": 16384},
 {"id": "n-cert-cn", "type": 4}
])";

struct appliance : tree_context {
    log_capture log;
    cfg_element *root = nullptr, *system = nullptr, *network = nullptr, *conns = nullptr,
                *conn1 = nullptr, *conn2 = nullptr, *users = nullptr, *user1 = nullptr,
                *user2 = nullptr, *certs = nullptr, *cert1 = nullptr;

    appliance()
    {
        load_schema();
        build_tree();
    }
    // The schema alone, for a context that receives a copied tree.
    struct schema_only {};
    explicit appliance(schema_only) { load_schema(); }

    texts messages() const { return messages_of(ctx()); }
    void clear_messages() const { cfg_free_message_stack(ctx()); }

    // Clears every element's flags, as a commit would.
    void clear_flags() const
    {
        for (cfg_index_entry *e = ctx()->elements; e != nullptr;
             e = static_cast<cfg_index_entry *>(e->hh.next))
            e->element->flags = 0;
    }

    // The trigger tables as printed: every record's key and dependents.
    std::string trigger_tables() const
    {
        testing::internal::CaptureStdout();
        cfg_print_trigger_tables(ctx());
        return testing::internal::GetCapturedStdout();
    }

    // Loads a string or int member into map.
    cfg_element *load_string(cfg_element *map, const char *key, const char *uuid,
                             const char *text) const
    {
        return put(map, key, cfg_load_string(ctx(), uuid, text));
    }
    cfg_element *load_int(cfg_element *map, const char *key, const char *uuid, int value) const
    {
        return put(map, key, cfg_load_int(ctx(), uuid, value));
    }

  private:
    void load_schema()
    {
        cfg *c = ctx();
        json_handle nodes = parse_json(appliance_schema);
        size_t i;
        json_t *value;
        json_array_foreach(nodes.get(), i, value)
        {
            cfg_schema_element *elem = json_to_schema_elem(c, value);
            ASSERT_NE(elem, nullptr) << i;
            elem->flags = 0;
        }
        c->schema->root = cfg_get_schema_node(c, "n-root");
        cfg_add_type(c, "connection", "n-connection");
        cfg_add_type(c, "user", "n-user");
        cfg_add_type(c, "certificate", "n-cert");
    }

    cfg_element *map(cfg_element *parent, const char *key, const char *uuid)
    {
        return put(parent, key, cfg_load_map(ctx(), uuid));
    }

    void build_tree()
    {
        cfg *c = ctx();
        const test_material &m = material();
        root = cfg_load_map(c, "root-1");
        system = map(root, "system", "sys-1");
        network = map(root, "network", "net-1");
        conns = put(network, "conns", cfg_load_list(c, "conns-1"));
        users = put(root, "users", cfg_load_list(c, "users-1"));
        certs = put(root, "certificates", cfg_load_list(c, "certs-1"));

        cert1 = map(certs, nullptr, "cert-1");
        load_string(cert1, "name", "cert-name-1", "web");
        put(cert1, "certificate",
            cfg_load_blob(c, "cert-pem-1", m.certificate.data(), m.certificate.size()));
        put(cert1, "key", cfg_load_blob(c, "cert-key-1", m.key.data(), m.key.size()));
        load_string(cert1, "common_name", "cert-cn-1", "device.example");

        load_string(system, "hostname", "host-1", "gateway");

        conn1 = map(conns, nullptr, "conn-1");
        load_string(conn1, "name", "conn-name-1", "wan");
        load_string(conn1, "mode", "conn-mode-1", "dhcp");
        conn2 = map(conns, nullptr, "conn-2");
        load_string(conn2, "name", "conn-name-2", "lan");
        load_string(conn2, "mode", "conn-mode-2", "static");
        load_int(conn2, "mtu", "conn-mtu-2", 1500);
        load_string(conn2, "address", "conn-address-2", "192.168.1.1");
        load_int(conn2, "netmask", "conn-netmask-2", 24);

        user1 = map(users, nullptr, "user-1");
        load_string(user1, "name", "user-name-1", "admin");
        load_string(user1, "role", "user-role-1", "admin");
        load_int(user1, "uid", "user-uid-1", 1000);
        user2 = map(users, nullptr, "user-2");
        load_string(user2, "name", "user-name-2", "operator");
        load_string(user2, "role", "user-role-2", "operator");
        load_int(user2, "uid", "user-uid-2", 1001);
    }
};

} // namespace zrtest
