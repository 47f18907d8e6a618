// Default population: derived uuids, default elements, and populating the
// appliance tree (with a pending item) in normal and deterministic mode.
#include "appliance.h"

#include <map>
#include <tuple>

using namespace zrtest;

namespace {

std::string derived(int type, const char *parent_uuid, const char *key)
{
    context_handle h;
    cfg_element *parent = cfg_init_map(h.get());
    strcpy(parent->uuid, parent_uuid);
    char out[CFG_UUID_SIZE];
    cfg_create_uuid(out, type, parent, key);
    cfg_free_element(h.get(), parent);
    return out;
}

// Every indexed element's uuid and type, to compare two trees.
std::map<std::string, unsigned int> index_of(cfg *ctx)
{
    std::map<std::string, unsigned int> out;
    for (cfg_index_entry *e = ctx->elements; e != nullptr;
         e = static_cast<cfg_index_entry *>(e->hh.next))
        out[e->element->uuid] = e->element->type;
    return out;
}

// The appliance with its root bound, as population needs, and a pending
// connection "dmz" (conn-3) that has only its name.
struct bound_appliance : appliance {
    cfg_element *conn3 = cfg_load_map(ctx(), "conn-3");

    bound_appliance()
    {
        strcpy(root->schema, "n-root");
        cfg_append_future_listelem(ctx(), conns, conn3);
        load_string(conn3, "name", "conn-name-3", "dmz");
    }
};

} // namespace

TEST(CreateUuid, DashesDecideTheSeparatorAndListMarker)
{
    struct {
        int type;
        const char *parent, *key, *expected;
    } cases[] = {
        {CFG_TYPE_STRING, "aaaa-bbbb-cccc-dddd-eeee", "name", "aaaa-bbbb-cccc-dddd-eeee_name"},
        {CFG_TYPE_LIST, "aaaa-bbbb-cccc-dddd-eeee", "items", "aaaa-bbbb-@cccc-dddd-eeee_items"},
        {CFG_TYPE_MAP, "root-1", "system", "root-1-system"},
        {CFG_TYPE_LIST, "a-b", "x", "a-b-@x"},
        {CFG_TYPE_LIST, "a-b-c", "x", "a-b-@c_x"},
        {CFG_TYPE_LIST, "plain", "x", "plain_x"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(derived(c.type, c.parent, c.key), c.expected) << c.parent << " " << c.key;
    EXPECT_EQ(derived(CFG_TYPE_INT, std::string(250, 'p').c_str(), "longkey").size(), 255u);
}

TEST(CreateDefault, ScalarsNeedADefaultContainersAreAlwaysMade)
{
    appliance a;
    cfg *c = a.ctx();
    auto create = [&](const char *schema, const char *uuid = nullptr) {
        return cfg_create_default(c, cfg_get_schema_by_id(c, schema), uuid);
    };
    cfg_element *text = create("n-timezone", "d-1");
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text->uuid, "d-1");
    EXPECT_EQ(string_of(text), "UTC");
    EXPECT_EQ(text->flags, unsigned(CFG_FLAG_NEW));
    EXPECT_EQ(create("n-conns")->type, unsigned(CFG_TYPE_LIST));
    EXPECT_EQ(create("n-network")->type, unsigned(CFG_TYPE_MAP));
    // No default, a blob, or a conditional: nothing is made.
    for (const char *none : {"n-proxy-port", "n-conn-address", "n-cert-pem", "n-if-static"})
        EXPECT_EQ(create(none), nullptr) << none;
}

TEST(PopulateDefaults, NormalModeFillsRequiredMembersAndHoldingConditionals)
{
    bound_appliance a;
    cfg_populate_defaults(a.ctx(), a.root, 0);

    EXPECT_EQ(int_of(a.member(a.system, "loglevel")), 6);
    EXPECT_EQ(string_of(a.member(a.system, "timezone")), "UTC");
    for (const char *absent : {"proxy_mode", "legacy_port"}) // optional, deprecated
        EXPECT_EQ(a.member(a.system, absent), nullptr) << absent;
    EXPECT_EQ(a.member(a.network, "proxy_port"), nullptr); // its condition fails

    // Connections: current and pending items of the named type. The pending
    // one's new default mode is static, so that branch applies to it too.
    for (cfg_element *item : {a.conn1, a.conn2, a.conn3}) {
        EXPECT_STREQ(item->schema, "n-connection");
        EXPECT_EQ(int_of(a.member(item, "mtu")), 1500) << item->uuid;
        EXPECT_EQ(a.member(item, "trace"), nullptr) << item->uuid; // log level below 7
    }
    EXPECT_EQ(string_of(a.member(a.conn3, "mode")), "static");
    EXPECT_EQ(int_of(a.member(a.conn3, "netmask")), 24);
    EXPECT_EQ(a.member(a.conn1, "netmask"), nullptr);

    // Conditions are evaluated when population runs, climbing ones included.
    cfg_map_set_string(a.ctx(), a.conn1, "mode", "static");
    cfg_map_set_int(a.ctx(), a.system, "loglevel", 7);
    cfg_populate_defaults(a.ctx(), a.conn1, 0);
    EXPECT_EQ(int_of(a.member(a.conn1, "netmask")), 24);
    EXPECT_NE(a.member(a.conn1, "trace"), nullptr);
}

TEST(PopulateDefaults, DeterministicModeDerivesUuidsAndAgreesAcrossRuns)
{
    bound_appliance a, b;
    for (bound_appliance *x : {&a, &b}) {
        cfg_map_delete_key(x->ctx(), x->root, "users");
        cfg_populate_defaults(x->ctx(), x->root, 1);
    }

    // A list member is a key only; nothing is indexed under its uuid.
    EXPECT_STREQ(cfg_get_mapelem(a.root, "users"), "root-1-@users");
    EXPECT_EQ(cfg_find_by_id(a.ctx(), "root-1-@users"), nullptr);
    EXPECT_EQ(index_of(a.ctx()), index_of(b.ctx()));
    EXPECT_EQ(a.system->flags & CFG_FLAG_CHANGED, 0u);
    // A second run finds everything in place; a deleted default comes back
    // under the same uuid.
    size_t before = HASH_COUNT(a.ctx()->elements);
    cfg_populate_defaults(a.ctx(), a.root, 1);
    EXPECT_EQ(HASH_COUNT(a.ctx()->elements), before);
    cfg_map_delete_key(a.ctx(), a.system, "timezone");
    cfg_populate_defaults(a.ctx(), a.system, 1);
    const std::tuple<cfg_element *, const char *, const char *> made[] = {
        {a.system, "loglevel", "sys-1-loglevel"},
        {a.system, "timezone", "sys-1-timezone"},
        {a.conn1, "mtu", "conn-1-mtu"},
        {a.conn3, "netmask", "conn-3-netmask"},
    };
    for (const auto &[map, key, uuid] : made) {
        EXPECT_STREQ(cfg_get_mapelem(map, key), uuid);
        cfg_element *member = cfg_find_by_id(a.ctx(), uuid);
        ASSERT_NE(member, nullptr) << uuid;
        EXPECT_EQ(member->flags, 0u) << uuid;
    }
}

