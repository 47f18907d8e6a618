// Default population: derived uuids, default elements, and populating the
// appliance tree in normal and deterministic mode.
#include "appliance.h"

#include <map>

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
    cfg_element *text = create("s-hostname", "d-1");
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(cfg_find_by_id(c, "d-1"), text);
    EXPECT_EQ(string_of(text), "appliance");
    EXPECT_EQ(text->flags, unsigned(CFG_FLAG_NEW));
    EXPECT_EQ(create("s-ntp")->type, unsigned(CFG_TYPE_LIST));
    EXPECT_EQ(create("s-dns")->type, unsigned(CFG_TYPE_MAP));
    // No default, a blob, or a conditional: nothing is made.
    for (const char *none : {"s-timeout", "s-if-name", "s-if-dhcp"})
        EXPECT_EQ(create(none), nullptr) << none;
    EXPECT_EQ(cfg_create_default(c, cfg_init_schema_blob(c, nullptr, 0, 0, 0, 0), nullptr),
              nullptr);
}

TEST(PopulateDefaults, NormalModeFillsRequiredMembersAndHoldingConditionals)
{
    appliance a;
    cfg_populate_defaults(a.ctx(), a.root, 0);

    EXPECT_EQ(a.member(a.system, "timeout"), nullptr); // no default
    EXPECT_EQ(a.member(a.system, "banner"), nullptr);  // optional
    EXPECT_EQ(a.member(a.root, "services"), nullptr);  // optional map
    cfg_element *ntp = a.member(a.system, "ntp");
    ASSERT_NE(ntp, nullptr);
    EXPECT_EQ(ntp->flags & CFG_FLAG_NEW, unsigned(CFG_FLAG_NEW));

    // The new dns map member holds true, so both dns conditionals apply.
    EXPECT_EQ(a.member(a.dns, "enabled")->value.int_value, 1);
    EXPECT_EQ(a.member(a.dns, "edns")->value.int_value, 1);
    EXPECT_EQ(int_of(a.member(a.dns, "cache")), 512);

    // Interfaces: current and pending items of the named type.
    EXPECT_EQ(int_of(a.member(a.if1, "lease")), 3600);
    EXPECT_EQ(a.member(a.if2, "lease"), nullptr);
    for (cfg_element *item : {a.if1, a.if2, a.if3}) {
        EXPECT_STREQ(item->schema, "s-interface");
        ASSERT_NE(a.member(item, "enabled"), nullptr) << item->uuid;
        EXPECT_STREQ(a.member(item, "label")->value.string_value, "custom");
    }

    // A condition is evaluated when population runs.
    cfg_map_set_string(a.ctx(), a.if2, "mode", "dhcp");
    cfg_populate_defaults(a.ctx(), a.if2, 0);
    EXPECT_EQ(int_of(a.member(a.if2, "lease")), 3600);
}

TEST(PopulateDefaults, DeterministicModeDerivesUuidsAndAgreesAcrossRuns)
{
    appliance a, b;
    cfg_populate_defaults(a.ctx(), a.root, 1);
    cfg_populate_defaults(b.ctx(), b.root, 1);

    // A list member is a key only; nothing is indexed under its uuid.
    EXPECT_STREQ(cfg_get_mapelem(a.system, "ntp"), "sys0-aaaa-@bbbb-cccc-0001_ntp");
    EXPECT_EQ(cfg_find_by_id(a.ctx(), "sys0-aaaa-@bbbb-cccc-0001_ntp"), nullptr);
    struct {
        cfg_element *map;
        const char *key, *uuid;
    } made[] = {
        {a.dns, "edns", "dns-1-edns"}, {a.if1, "lease", "if-1-lease"}, {a.if3, "label", "if-3-label"},
    };
    for (const auto &m : made) {
        cfg_element *member = a.member(m.map, m.key);
        ASSERT_NE(member, nullptr) << m.key;
        EXPECT_STREQ(member->uuid, m.uuid);
        EXPECT_EQ(member->flags, 0u) << m.uuid;
    }
    EXPECT_EQ(a.dns->flags & CFG_FLAG_CHANGED, 0u);
    EXPECT_EQ(index_of(a.ctx()), index_of(b.ctx()));

    // A second run finds everything in place.
    size_t before = HASH_COUNT(a.ctx()->elements);
    cfg_populate_defaults(a.ctx(), a.root, 1);
    EXPECT_EQ(HASH_COUNT(a.ctx()->elements), before);

    // A deleted default comes back under the same uuid, unflagged.
    cfg_map_delete_key(a.ctx(), a.dns, "cache");
    cfg_populate_defaults(a.ctx(), a.dns, 1);
    cfg_element *cache = a.member(a.dns, "cache");
    ASSERT_NE(cache, nullptr);
    EXPECT_STREQ(cache->uuid, "dns-1-cache");
    EXPECT_EQ(cache->flags, 0u);
}

TEST(PopulateDefaults, MismatchedTypesAndUnknownSchemasAreLeftAlone)
{
    appliance a;
    cfg_populate_node(a.ctx(), a.dns, cfg_get_schema_by_id(a.ctx(), "s-ntp"), 0);
    EXPECT_STREQ(a.dns->schema, "");
    EXPECT_EQ(a.dns->value.map.members, nullptr);
    cfg_populate_defaults(a.ctx(), a.system, 0); // no schema binding yet
    EXPECT_EQ(a.member(a.system, "ntp"), nullptr);
    // A list of plain strings has no items to populate.
    cfg_populate_list(a.ctx(), a.interfaces, cfg_get_schema_by_id(a.ctx(), "s-ntp"), 0);
    EXPECT_EQ(cfg_link_list_length(a.if1->value.map.members), 2);
}
