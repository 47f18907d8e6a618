// Trigger tables: validator registration, the printed form, release, and the
// validation context's bookkeeping.
#include "appliance.h"

#include <initializer_list>

using namespace zrtest;

namespace {

const std::string rule(53, '-');

// The printed form of tables holding lines.
std::string framed(const texts &lines)
{
    std::string out = rule + "\n";
    for (const std::string &l : lines)
        out += l + "\n";
    return out + rule + "\n";
}

// A validator with the given paths, owned by a schema element of ctx.
cfg_schema_validator *validator(cfg *ctx, std::initializer_list<const char *> paths)
{
    cfg_schema_validator *v = cfg_init_schema_validator(ctx, "uniqueness");
    for (const char *p : paths)
        cfg_validator_add_path(v, p);
    cfg_schema_add_validator(cfg_init_schema_bool(ctx, nullptr, 0, 0), v);
    return v;
}

// Evaluates the condition "path op value" on map, as a conditional would.
int condition(appliance &a, cfg_element *map, const char *path, int op, int value_type,
              cfg_schema_value value)
{
    return evaluate_if(a.ctx(), map,
                       cfg_init_schema_if(a.ctx(), nullptr, path, op, value_type, value, 0));
}

cfg_schema_value text(const char *v) { return {.string_value = const_cast<char *>(v)}; }

} // namespace

// Validator paths follow the escaped static path (a locally made element's
// without its uuid prefix); a condition ties its map to the tested element
// by uuid, or while it is absent by the static path it would have. Each is
// registered once; freeing empties every table, and a registration made
// before does not stand in for one made after.
TEST(TriggerTables, RegistrationsPrintedAndFreed)
{
    appliance a;
    cfg *c = a.ctx();
    cfg_schema_validator *v = validator(c, {"\\.name", "\\.mode"});
    cfg_create_validator_triggers(c, a.conn1, v);
    cfg_create_validator_triggers(c, a.conn1, v);
    cfg_create_validator_triggers(c, a.conn2, validator(c, {"\\.name"}));
    cfg_create_validator_triggers(c, a.user1, validator(c, {})); // no paths: nothing
    cfg_element *fresh = cfg_new_map(c);
    cfg_add_mapelem(c, a.system, "extra", fresh);
    cfg_create_validator_triggers(c, fresh, validator(c, {"\\.port"}));
    for (cfg_element *map : {a.conn1, a.conn1, a.conn2})
        condition(a, map, "^^^system.hostname", 3, 3, text("gateway"));
    condition(a, a.conn2, ".trace", 2, 1, {.bool_value = 1});
    condition(a, a.system, ".proxy_mode", 2, 3, text("http"));

    const std::string one = "network\\.conns\\(1\\)", two = "network\\.conns\\(2\\)";
    const std::string extra = "system\\.extra\\.port", id = fresh->uuid;
    EXPECT_EQ(a.trigger_tables(), framed({
        one + "\\.name triggers (conn-1)",
        one + "\\.mode triggers (conn-1)",
        two + "\\.name triggers (conn-2)",
        extra + " triggers (" + id + ")",
        "host-1 triggers (conn-1, conn-2)",
        "network.conns(2).trace triggers (conn-2)",
        "system.proxy_mode triggers (sys-1)",
        "conn-1 thinks it is triggered by (" + one + "\\.name, " + one + "\\.mode, host-1)",
        "conn-2 thinks it is triggered by (" + two + "\\.name, host-1, network.conns(2).trace)",
        id + " thinks it is triggered by (" + extra + ")",
        "sys-1 thinks it is triggered by (system.proxy_mode)",
    }));

    cfg_free_trigger_tables(c);
    EXPECT_EQ(a.trigger_tables(), framed({}));
    // The pair registered last, registered again once the tables are gone.
    condition(a, a.conn2, "^^^system.hostname", 3, 3, text("gateway"));
    EXPECT_EQ(a.trigger_tables(), framed({"host-1 triggers (conn-2)",
                                          "conn-2 thinks it is triggered by (host-1)"}));
}

// Looks up through a hook of the caller's own, so validation registers
// every dependency at once instead of in batches.
cfg_element *own_lookup(cfg *context, const char *uuid)
{
    return cfg_find_by_id(context, uuid);
}

// A full validation registers its conditionals' dependencies in batches; the
// tables it leaves hold the same records in the same order as when each is
// registered at once, across batch boundaries and with the path and pattern
// registrations made in between.
TEST(TriggerTables, BatchedRegistrationsMatchImmediateOnes)
{
    appliance batched, immediate;
    immediate.ctx()->get_by_id = own_lookup;
    for (appliance *a : {&batched, &immediate}) {
        a->load_int(a->system, "loglevel", "log-1", 6);
        a->load_string(a->system, "timezone", "tz-1", "UTC");
        for (int i = 3; i < 40; i++) {
            std::string n = std::to_string(i);
            cfg_element *conn =
                a->put(a->conns, nullptr, cfg_load_map(a->ctx(), ("c-" + n).c_str()));
            a->load_string(conn, "name", ("name-" + n).c_str(), ("c" + n).c_str());
            a->load_int(conn, "mtu", ("mtu-" + n).c_str(), 1500);
            if (i % 3 == 0) {
                a->load_string(conn, "mode", ("mode-" + n).c_str(), "dhcp");
                continue;
            }
            a->load_string(conn, "mode", ("mode-" + n).c_str(), "static");
            a->load_string(conn, "address", ("addr-" + n).c_str(), "10.0.0.1");
            a->load_int(conn, "netmask", ("mask-" + n).c_str(), 24);
        }
        a->load_int(a->conn1, "mtu", "conn-mtu-1", 1500);
        ASSERT_EQ(cfg_validate_data(a->ctx()), 1) << testing::PrintToString(a->messages());
    }
    std::string tables = batched.trigger_tables();
    EXPECT_NE(tables.find("mode-39 triggers (c-39)"), std::string::npos) << tables;
    EXPECT_EQ(tables, immediate.trigger_tables());
}

// Entries keep their own key: the record that replaces a freed one under
// the same uuid finds its entry. An element handled before it was known is
// seen, so never unhandled afterwards.
TEST(ValidationContext, EntriesOutliveTheRecordsTheyName)
{
    appliance a;
    cfg_element *hostname = a.member(a.system, "hostname");
    auto *vctx = static_cast<validation_context *>(calloc(1, sizeof(validation_context)));
    set_handled(vctx, a.conns);
    for (cfg_element *e : {a.conns, hostname})
        add_unhandled(vctx, e);
    set_handled(vctx, cfg_set_string(a.ctx(), hostname, "other"));
    EXPECT_EQ(HASH_COUNT(vctx->unhandled), 0u);
    EXPECT_EQ(HASH_COUNT(vctx->seen), 2u);
    free_context(vctx);
}
