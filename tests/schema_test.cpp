// Schema elements, links, deletion marking, setters, the type registry and
// purging of deprecated members.
#include "context.h"

#include <cstring>

using namespace zrtest;
using Schema = context_test;

namespace {

texts keys_of(cfg_schema_element *elem, int which)
{
    char **keys = nullptr;
    int count = -1;
    EXPECT_TRUE(cfg_schema_map_keys(elem, which, &keys, &count));
    return take_strings(keys, count);
}

cfg_schema_element *new_if(cfg *ctx, const char *path, int op)
{
    return cfg_new_schema_if(ctx, path, op, 2, {.int_value = 7}, 0);
}

bool deleted(cfg_schema_element *elem) { return (elem->flags & CFG_FLAG_DELETED) != 0; }

// root map: required "system" (map: required "name", optional "tz",
// deprecated "legacy"), optional "note", conditional "cond" (if: required
// "addr").
struct marked_tree {
    cfg_schema_element *root, *system, *name, *tz, *legacy, *note, *cond, *addr;

    explicit marked_tree(cfg *ctx)
    {
        root = cfg_load_schema_map(ctx, "root");
        system = cfg_load_schema_map(ctx, "system");
        name = cfg_load_schema_string(ctx, "name", 0, 0, 0, 0, nullptr, nullptr);
        tz = cfg_load_schema_string(ctx, "tz", 0, 0, 0, 0, nullptr, nullptr);
        legacy = cfg_load_schema_map(ctx, "legacy");
        note = cfg_load_schema_string(ctx, "note", 0, 0, 0, 0, nullptr, nullptr);
        cond = cfg_load_schema_if(ctx, "cond", ".mode", 1, 0, cfg_schema_value{}, nullptr, 0);
        addr = cfg_load_schema_string(ctx, "addr", 0, 0, 0, 0, nullptr, nullptr);
        cfg_load_schema_mapid(root, 0, "system", "system");
        cfg_load_schema_mapid(root, 1, "note", "note");
        cfg_load_schema_mapid(root, 1, "ghost", "no-such-uuid");
        cfg_load_schema_mapconditional(root, "cond");
        cfg_load_schema_mapid(system, 0, "name", "name");
        cfg_load_schema_mapid(system, 1, "tz", "tz");
        cfg_load_schema_mapid(system, 2, "legacy", "legacy");
        cfg_load_schema_mapid(cond, 0, "addr", "addr");
    }
};

} // namespace

TEST_F(Schema, ConstructorsKeepParameterOrderAndRegister)
{
    cfg_schema_element *s = cfg_new_schema_string(ctx, 1, 32, 1, 2, "eth0", "^eth[0-9]+$");
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(s->flags, unsigned(CFG_FLAG_NEW));
    EXPECT_EQ(cfg_get_schema_by_id(ctx, s->uuid), s);
    int has_max = 0, max = 0, has_min = 0, min = 0;
    char *def = nullptr, *regex = nullptr;
    ASSERT_TRUE(cfg_schema_string_values(s, &has_max, &max, &has_min, &min, &def, &regex));
    EXPECT_EQ(std::vector<int>({max, min}), std::vector<int>({32, 2}));
    EXPECT_EQ(taken(def) + " " + taken(regex), "eth0 ^eth[0-9]+$");

    // float: the three flags first, the three doubles last.
    cfg_schema_element *f = cfg_load_schema_float(ctx, "f-1", 1, 0, 1, 9.5, 1.5, 4.25);
    int fh[3] = {-1, -1, -1};
    double fv[3] = {0, 0, 0};
    ASSERT_TRUE(cfg_schema_float_values(f, &fh[0], &fv[0], &fh[1], &fv[1], &fh[2], &fv[2]));
    EXPECT_EQ(std::vector<int>(fh, fh + 3), (std::vector<int>{0, 1, 1}));
    EXPECT_EQ(std::vector<double>(fv, fv + 3), (std::vector<double>{1.5, 9.5, 4.25}));
    cfg_schema_element *i = cfg_load_schema_int(ctx, "i-1", 1, 100, 0, 5, 1, 42);
    int v[6] = {-1, -1, -1, -1, -1, -1};
    ASSERT_TRUE(cfg_schema_int_values(i, &v[0], &v[1], &v[2], &v[3], &v[4], &v[5]));
    EXPECT_EQ(std::vector<int>(v, v + 6), (std::vector<int>{0, 5, 1, 100, 1, 42}));

    // A reader of another type refuses and leaves its outputs alone.
    int marker = 77;
    EXPECT_FALSE(cfg_schema_int_values(f, &marker, &marker, &marker, &marker, &marker, &marker));
    EXPECT_EQ(marker, 77);
}

TEST_F(Schema, IfValuesDependOnOperator)
{
    cfg_schema_value value{};
    char text[] = "static";
    value.string_value = text;
    cfg_schema_element *exists = cfg_init_schema_if(ctx, "if-1", ".mode", 1, 3, value, 4);
    EXPECT_EQ(exists->u.cond.value_type, 0);
    EXPECT_STREQ(exists->u.cond.value_id, "");

    cfg_schema_element *eq = cfg_load_schema_if(ctx, "if-2", ".mode", 2, 3, value, "v-1", 9);
    text[0] = 'S'; // the element holds its own copy
    int priority = 0;
    cfg_schema_value out{};
    ASSERT_TRUE(cfg_schema_if_values(eq, nullptr, nullptr, nullptr, &out, &priority));
    EXPECT_EQ(priority, 9);
    EXPECT_EQ(taken(out.string_value), "static");
    EXPECT_STREQ(eq->u.cond.value_id, "v-1");

    // A missing value id is generated; a long one is cut.
    auto value_id = [&](const char *id, const char *given) {
        return strlen(cfg_load_schema_if(ctx, id, "a", 4, 2, value, given, 0)->u.cond.value_id);
    };
    EXPECT_EQ(value_id("if-3", nullptr), 36u);
    EXPECT_EQ(value_id("if-4", std::string(100, 'x').c_str()), 63u);
}

// Allowed values keep their order and repeats; of a tag key's repeats the
// first wins until it is deleted.
TEST_F(Schema, AllowedValuesAndTags)
{
    cfg_schema_element *s = cfg_load_schema_string(ctx, "s-1", 0, 0, 0, 0, nullptr, nullptr);
    for (const char *v : {"a", "b", "a"})
        EXPECT_TRUE(cfg_add_schema_string_allowed(ctx, s, v));
    EXPECT_EQ(s->flags, unsigned(CFG_FLAG_CHANGED));
    EXPECT_TRUE(cfg_delete_schema_string_allowed(s, "a"));
    ASSERT_EQ(cfg_schema_string_allowed_size(s), 2);
    texts allowed;
    char *value = nullptr;
    for (int i = -1; i < 3; i++)
        if (cfg_schema_string_get_allowed_index(s, i, &value))
            allowed.push_back(taken(value));
    EXPECT_EQ(allowed, (texts{"b", "a"}));

    cfg_schema_element *m = cfg_load_schema_map(ctx, "m-1");
    EXPECT_TRUE(cfg_add_schema_tag(m, "ui", "hidden"));
    EXPECT_TRUE(cfg_add_schema_tag(m, "ui", "shown"));
    EXPECT_EQ(m->flags, unsigned(CFG_FLAG_CHANGED));
    EXPECT_STREQ(cfg_get_schema_tag(m, "ui"), "hidden");
    EXPECT_TRUE(cfg_delete_schema_tag(m, "ui"));
    EXPECT_STREQ(cfg_get_schema_tag(m, "ui"), "shown");
}

TEST_F(Schema, MemberAndConditionalLinks)
{
    cfg_schema_element *m = cfg_load_schema_map(ctx, "m-1");
    EXPECT_TRUE(cfg_load_schema_mapid(m, 0, "name", "s-1"));
    EXPECT_TRUE(cfg_load_schema_mapid(m, 1, "mtu", "i-1"));
    EXPECT_FALSE(cfg_load_schema_mapid(m, 3, "x", "x-1"));
    EXPECT_EQ(keys_of(m, 0), (texts{"name"}));
    EXPECT_STREQ(cfg_get_schema_mapelem(m, 1, "mtu"), "i-1");

    // Conditional links are numbered and renumbered when one goes.
    for (const char *id : {"c-0", "c-1", "c-2"})
        cfg_load_schema_mapconditional(m, id);
    int size = 0;
    EXPECT_TRUE(cfg_schema_map_conditional_size(m, &size) && size == 3);
    EXPECT_TRUE(cfg_delete_schema_map_conditionalelem_linkage(m, "c-0"));
    EXPECT_STREQ(cfg_get_schema_map_conditionalelem(m, 0), "c-1");
    EXPECT_STREQ(cfg_get_schema_map_conditionalelem(m, 1), "c-2");
    EXPECT_TRUE(cfg_schema_map_delete_key_linkage(m, 1, "mtu"));
    EXPECT_EQ(cfg_get_schema_mapelem(m, 1, "mtu"), nullptr);

    // Adding links: a new or changed member marks the map changed; an if
    // element takes conditionals but not mapelem members.
    cfg_schema_element *clean = cfg_load_schema_map(ctx, "m-2");
    cfg_schema_element *old_member = cfg_load_schema_string(ctx, "s-old", 0, 0, 0, 0, nullptr, nullptr);
    EXPECT_TRUE(cfg_add_schema_mapelem(ctx, clean, 0, "name", old_member));
    EXPECT_EQ(clean->flags, 0u);
    cfg_schema_element *fresh = cfg_new_schema_string(ctx, 0, 0, 0, 0, nullptr, nullptr);
    EXPECT_TRUE(cfg_add_schema_mapelem(ctx, clean, 0, "name", fresh));
    EXPECT_TRUE(deleted(old_member));
    EXPECT_STREQ(cfg_get_schema_mapelem(clean, 0, "name"), fresh->uuid);
    EXPECT_EQ(keys_of(clean, 0).size(), 1u);
    EXPECT_EQ(clean->flags, unsigned(CFG_FLAG_CHANGED));
    cfg_schema_element *cond = new_if(ctx, ".mode", 2);
    EXPECT_FALSE(cfg_add_schema_mapelem(ctx, cond, 0, "name", fresh));
    EXPECT_TRUE(cfg_add_schema_map_conditionalelem(ctx, cond, new_if(ctx, ".x", 1)));
    EXPECT_FALSE(cfg_add_schema_map_conditionalelem(ctx, clean, fresh));
    EXPECT_TRUE(cfg_add_schema_map_conditionalelem(ctx, clean, cond));
    EXPECT_STREQ(cfg_get_schema_map_conditionalelem(clean, 0), cond->uuid);
}

TEST_F(Schema, InsertingAnExistingUuidReplacesTheEntryOnly)
{
    cfg_schema_element *first = cfg_load_schema_int(ctx, "dup", 0, 0, 0, 0, 1, 1);
    cfg_schema_element *second = cfg_load_schema_int(ctx, "dup", 0, 0, 0, 0, 1, 2);
    EXPECT_EQ(cfg_get_schema_node(ctx, "dup"), second);
    EXPECT_EQ(HASH_COUNT(h.schema->elements), 1u);
    cfg_free_schema_element(first); // still the caller's
    EXPECT_TRUE(cfg_delete_schema_elem(&h.schema->elements, "dup"));
    EXPECT_EQ(h.schema->elements, nullptr);
    cfg_free_schema_element(second);
}

// Marking follows required and optional members and conditionals, never
// deprecated members, and unlinks nothing; releasing the base of a map frees
// one level below it.
TEST_F(Schema, DeletionMarksAndReleaseFreesOneLevel)
{
    marked_tree t(ctx);
    cfg_delete_schema_element(ctx, t.system);
    for (auto *e : {t.system, t.name, t.tz, t.legacy, t.root, t.addr})
        EXPECT_EQ(deleted(e), e == t.system || e == t.name || e == t.tz) << e->uuid;
    EXPECT_EQ(cfg_get_schema_node(ctx, "name"), t.name);

    cfg_load_schema_mapid(t.legacy, 0, "back", "root"); // a cycle through deprecated
    cfg_load_schema_mapconditional(t.cond, "root");    // and one through a conditional
    cfg_delete_schema_members(ctx, t.root);
    EXPECT_EQ(t.root->flags, unsigned(CFG_FLAG_CHANGED | CFG_FLAG_DELETED));
    for (auto *e : {t.system, t.name, t.tz, t.note, t.cond, t.addr})
        EXPECT_TRUE(deleted(e)) << e->uuid;
    EXPECT_FALSE(deleted(t.legacy));
    cfg_delete_schema_members(ctx, t.name); // not a map: left alone
    EXPECT_EQ(t.name->flags, unsigned(CFG_FLAG_DELETED));

    cfg_free_schema_element_base(ctx, t.system);
    for (const char *id : {"system", "name", "tz"})
        EXPECT_EQ(cfg_get_schema_node(ctx, id), nullptr) << id;
    EXPECT_EQ(cfg_get_schema_node(ctx, "legacy"), t.legacy);
    EXPECT_EQ(cfg_get_schema_node(ctx, "root"), t.root);
}

// A setter keeps uuid, flags, generation, tags and its own type's allowed
// values, but not validators or links; the old map's members are marked.
TEST_F(Schema, SettersReplaceUnderTheSameUuid)
{
    cfg_schema_element *i = cfg_load_schema_int(ctx, "port", 1, 10, 0, 0, 0, 0);
    i->generation = 7;
    i->flags = CFG_FLAG_NEW;
    cfg_add_schema_tag(i, "ui", "port");
    cfg_add_schema_int_allowed(ctx, i, 22);
    cfg_schema_add_validator(i, cfg_init_schema_validator(ctx, "range"));
    cfg_schema_element *same = cfg_set_schema_int(ctx, i, 1, 1, 1, 65535, 1, 22);
    ASSERT_NE(same, nullptr);
    EXPECT_EQ(cfg_get_schema_node(ctx, "port"), same);
    EXPECT_EQ(same->flags, unsigned(CFG_FLAG_NEW | CFG_FLAG_CHANGED));
    EXPECT_EQ(same->generation, 7);
    EXPECT_STREQ(cfg_get_schema_tag(same, "ui"), "port");
    EXPECT_EQ(cfg_schema_int_allowed_size(same), 1);
    EXPECT_EQ(same->validators_count, 0);
    cfg_schema_element *s = cfg_set_schema_string(ctx, same, 1, 1, 1, 5, "^[0-9]+$", "22");
    EXPECT_EQ(cfg_schema_string_allowed_size(s), 0); // int entries do not carry over

    marked_tree t(ctx);
    cfg_schema_element *root = cfg_set_schema_map(ctx, t.root);
    EXPECT_TRUE(keys_of(root, 0).empty());
    EXPECT_EQ(root->flags, unsigned(CFG_FLAG_CHANGED));
    for (const char *id : {"system", "name", "tz", "note", "cond", "addr"})
        EXPECT_TRUE(deleted(cfg_get_schema_node(ctx, id))) << id;
    EXPECT_FALSE(deleted(t.legacy));
}

TEST_F(Schema, TypeRegistryReplacesAndLists)
{
    cfg_add_type(ctx, "interface", "u-1");
    cfg_add_type(ctx, "user", "u-2");
    EXPECT_TRUE(cfg_add_type(ctx, "interface", "u-3"));
    EXPECT_STREQ(cfg_get_type(ctx, "interface"), "u-3");
    char **names = nullptr;
    int count = 0;
    cfg_types(ctx, &names, &count); // a replaced entry moves to the end
    EXPECT_EQ(take_strings(names, count), (texts{"user", "interface"}));
    EXPECT_TRUE(cfg_delete_type(ctx, "user"));
    EXPECT_FALSE(cfg_delete_type(ctx, "user"));
}

TEST_F(Schema, PurgeFollowsNamedListTypes)
{
    marked_tree t(ctx);
    // root gains a list of the named type "sys", which resolves to system;
    // system's deprecated "legacy" has a deprecated key of its own.
    cfg_schema_element *list = cfg_load_schema_list(ctx, "list", 0, 0, 0, 0, 2, 0, "sys");
    cfg_add_type(ctx, "sys", "system");
    cfg_load_schema_mapid(t.legacy, 2, "old", "name");
    cfg_load_schema_mapid(t.root, 2, "gone", "note");

    EXPECT_TRUE(cfg_schema_purge_deprecated(ctx, list));
    EXPECT_TRUE(keys_of(t.system, 2).empty());
    EXPECT_EQ(keys_of(t.root, 2).size(), 1u); // not reached from the list
    EXPECT_EQ(keys_of(t.legacy, 2).size(), 1u);
    EXPECT_EQ(cfg_get_schema_node(ctx, "legacy"), t.legacy); // unlinked, not freed

    cfg_load_schema_mapid(t.system, 2, "legacy", "legacy");
    EXPECT_TRUE(cfg_schema_purge_deprecated(ctx, t.root));
    EXPECT_TRUE(keys_of(t.root, 2).empty());
    EXPECT_TRUE(keys_of(t.system, 2).empty());

    cfg_schema_element *loop = cfg_load_schema_list(ctx, "loop", 0, 0, 0, 0, 2, 0, "loop");
    cfg_add_type(ctx, "loop", "loop");
    EXPECT_FALSE(cfg_schema_purge_deprecated(ctx, loop));
}
