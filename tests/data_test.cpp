// Elements, replacement, list and map membership, references and deletion.
#include "context.h"

#include <algorithm>

#include <cstring>

using namespace zrtest;
using Elements = context_test;

namespace {

cfg_parent_link *link_at(cfg_link *head, unsigned index)
{
    void *data = nullptr;
    return cfg_link_list_get(head, index, &data) ? static_cast<cfg_parent_link *>(data)
                                                 : nullptr;
}

texts member_uuids(cfg_link *head)
{
    texts out;
    for (cfg_link *n = head; n != nullptr; n = n->next)
        out.emplace_back(static_cast<cfg_parent_link *>(n->data)->uuid);
    return out;
}

// A list with members named m0, m1, ... (unflagged, as if loaded).
cfg_element *make_list(cfg *ctx, const char *uuid, int count)
{
    cfg_element *list = cfg_load_list(ctx, uuid);
    for (int i = 0; i < count; i++)
        cfg_add_listelem(ctx, list, cfg_load_int(ctx, ("m" + std::to_string(i)).c_str(), i));
    return list;
}

cfg_element *find(cfg *ctx, const std::string &uuid) { return cfg_find_by_id(ctx, uuid.c_str()); }

bool is_deleted(cfg_element *element) { return (element->flags & CFG_FLAG_DELETED) != 0; }

cfg_element *at(cfg *ctx, cfg_element *list, int i)
{
    return cfg_simple_get_listelem(ctx, list, static_cast<unsigned>(i));
}

int hook_calls = 0;
cfg_element *counting_lookup(cfg *ctx, const char *uuid)
{
    hook_calls++;
    return cfg_find_by_id(ctx, uuid);
}

// A list of ints and maps (each map holding one string) is deleted whole or
// member by member; each member's flags, link index and child's flags.
std::vector<std::vector<unsigned>> delete_mixed_list(cfg *ctx, const std::string &name, bool whole)
{
    cfg_element *list = cfg_load_list(ctx, name.c_str());
    for (int i = 0; i < 6; i++) {
        std::string id = name + std::to_string(i);
        cfg_element *m = i % 2 ? cfg_load_map(ctx, id.c_str()) : cfg_load_int(ctx, id.c_str(), i);
        if (i % 2)
            cfg_add_mapelem(ctx, m, "k", cfg_load_string(ctx, (id + "c").c_str(), "v"));
        cfg_add_listelem(ctx, list, m);
    }
    whole ? cfg_delete_element(ctx, list)
          : cfg_delete_members(ctx, list); // the list itself stays: one member at a time
    EXPECT_EQ(list->value.list.members, nullptr);
    EXPECT_TRUE(list->flags & CFG_FLAG_CHANGED);
    std::vector<std::vector<unsigned>> states;
    for (int i = 0; i < 6; i++) {
        std::string id = name + std::to_string(i);
        cfg_element *m = find(ctx, id), *child = find(ctx, id + "c");
        states.push_back({m->flags, link_at(m->parents, 0)->index, child ? child->flags : 0u});
    }
    return states;
}

} // namespace

TEST_F(Elements, BlobCopiesStringLimitAndUnindexedTwins)
{
    // A blob's copy carries a terminator past its size.
    const unsigned char bytes[] = {1, 0, 255, 0};
    void *copy = nullptr;
    size_t size = 0;
    ASSERT_EQ(cfg_blob_value(cfg_new_blob(ctx, bytes, 3), &copy, &size), 1);
    EXPECT_EQ(memcmp(copy, bytes, 4), 0);
    free(copy);

    // Strings are limited to 16 MiB; a twin id is made but not indexed.
    EXPECT_EQ(cfg_init_string(ctx, std::string(0x1000001, 'x').c_str()), nullptr);
    cfg_element *flag = cfg_new_bool(ctx, 7);
    cfg_element *twin = cfg_new_int_with_id(ctx, 6, flag->uuid);
    ASSERT_NE(twin, nullptr);
    EXPECT_EQ(cfg_add_elem(ctx, twin), 0);
    cfg_free_element(ctx, twin);
    EXPECT_EQ(cfg_find_by_id(ctx, flag->uuid), flag);
}

TEST_F(Elements, ReplacementCarriesIdentityParentsFlagsAndSchemaDeletesOldMembers)
{
    cfg_element *list = make_list(ctx, "L", 2);
    cfg_element *old = find(ctx, "m1");
    old->flags = CFG_FLAG_NEW;
    old->generation = 4;
    strcpy(old->schema, "S");
    cfg_element *fresh = cfg_set_float(ctx, old, 1.5);
    ASSERT_NE(fresh, nullptr);
    EXPECT_EQ(find(ctx, "m1"), fresh);
    EXPECT_EQ(fresh->flags, unsigned(CFG_FLAG_NEW | CFG_FLAG_CHANGED));
    EXPECT_EQ(fresh->generation, 4);
    EXPECT_STREQ(fresh->schema, "S");
    unsigned index = 0;
    EXPECT_TRUE(cfg_get_list_index(ctx, fresh, &index) && index == 1);

    // Loading over a local element replaces it as the daemon's copy.
    cfg_element *loaded = cfg_load_int(ctx, "m1", 7);
    EXPECT_EQ(find(ctx, "m1"), loaded);
    EXPECT_EQ(loaded->flags | unsigned(loaded->generation), 0u);

    // Replacing a container deletes its members, nested ones too.
    cfg_element *inner = cfg_load_map(ctx, "inner");
    cfg_add_listelem(ctx, list, inner);
    cfg_add_mapelem(ctx, inner, "k", cfg_load_string(ctx, "leaf", "v"));
    unsigned size = 9;
    EXPECT_TRUE(cfg_list_size(cfg_set_list(ctx, list), &size) && size == 0);
    for (const char *id : {"m0", "m1", "inner", "leaf"})
        EXPECT_TRUE(is_deleted(find(ctx, id))) << id;
}

TEST_F(Elements, ReferenceLinkMovesAndDuplicatesOnReset)
{
    cfg_element *a = cfg_new_int_with_id(ctx, 1, "A");
    cfg_element *b = cfg_new_int_with_id(ctx, 2, "B");
    cfg_element *ref = cfg_new_reference_with_id(ctx, "A", "R");
    EXPECT_EQ(member_uuids(a->parents), texts{"R"});

    ref = cfg_set_reference(ctx, ref, "B");
    ASSERT_NE(ref, nullptr);
    EXPECT_EQ(cfg_link_list_length(a->parents), 0);
    EXPECT_EQ(member_uuids(b->parents), (texts{"R", "R"}));

    // A missing target leaves the old record unindexed and with the caller.
    EXPECT_EQ(cfg_set_reference(ctx, ref, "missing"), nullptr);
    EXPECT_EQ(find(ctx, "R"), nullptr);
    cfg_free_element(ctx, ref);
}

// A target named by many references: its parent links stay in order as
// links leave from the middle and new ones are appended past the point where
// the tail is kept rather than walked.
TEST_F(Elements, ManyReferencesToOneTargetKeepTheirLinksInOrder)
{
    cfg_element *target = cfg_new_int_with_id(ctx, 1, "T");
    cfg_new_int_with_id(ctx, 2, "B");
    texts expected;
    auto add = [&](int i) {
        std::string id = "R" + std::to_string(i);
        ASSERT_NE(cfg_new_reference_with_id(ctx, "T", id.c_str()), nullptr);
        expected.push_back(id);
    };
    int next = 0;
    while (next < 40)
        add(next++);
    EXPECT_EQ(member_uuids(target->parents), expected);
    for (const char *moved : {"R39", "R0", "R20"}) {
        ASSERT_NE(cfg_set_reference(ctx, find(ctx, moved), "B"), nullptr);
        expected.erase(std::find(expected.begin(), expected.end(), moved));
        EXPECT_EQ(member_uuids(target->parents), expected) << moved;
        add(next++);
    }
    EXPECT_EQ(member_uuids(target->parents), expected);
}

TEST_F(Elements, ListChangedFlagsOnAddAndRenumberingOnDelete)
{
    cfg_element *list = make_list(ctx, "L", 3);
    EXPECT_EQ(list->flags, 0u); // unchanged children leave the list alone
    cfg_delete_element(ctx, find(ctx, "m1"));
    EXPECT_EQ(member_uuids(list->value.list.members), (texts{"m0", "m2"}));
    // A renumbered member counts as changed; the one before it does not.
    EXPECT_EQ(find(ctx, "m2")->flags, unsigned(CFG_FLAG_CHANGED));
    EXPECT_EQ(find(ctx, "m0")->flags, 0u);
    EXPECT_TRUE(list->flags & CFG_FLAG_CHANGED);
    cfg_element *fresh = make_list(ctx, "F", 0);
    cfg_add_listelem(ctx, fresh, cfg_new_int(ctx, 0));
    EXPECT_EQ(fresh->flags, unsigned(CFG_FLAG_CHANGED));
}

// Members reached by position are remembered beside the list; replacement,
// deletion, release, links removed or appended from outside and a foreign
// hook must all be seen.
TEST_F(Elements, ListMembersByPositionFollowChanges)
{
    cfg_element *list = make_list(ctx, "L", 12);
    for (int i = 0; i < 12; i++)
        ASSERT_EQ(at(ctx, list, i), find(ctx, "m" + std::to_string(i)));
    cfg_element *fresh = cfg_set_int(ctx, at(ctx, list, 3), 99);
    EXPECT_EQ(at(ctx, list, 3), fresh);
    cfg_delete_element(ctx, at(ctx, list, 0));
    EXPECT_EQ(at(ctx, list, 0), find(ctx, "m1"));
    cfg_free_element(ctx, find(ctx, "m5"));
    EXPECT_EQ(at(ctx, list, 4), nullptr); // m5's link stays, its element is gone
    cfg_link_list_delete_by_uuid(ctx, &list->value.list.members, "m5");
    EXPECT_EQ(at(ctx, list, 4), find(ctx, "m6"));
    EXPECT_EQ(cfg_get_child_by_path(ctx, list, "[9]"), find(ctx, "m11"));
    auto *extra = static_cast<cfg_parent_link *>(calloc(1, sizeof(cfg_parent_link)));
    strcpy(extra->uuid, "m0");
    cfg_add_link(&list->value.list.members, extra);
    EXPECT_STREQ(cfg_get_listelem(list, 10), "m0");
    EXPECT_EQ(at(ctx, list, 10), find(ctx, "m0"));

    ctx->get_by_id = counting_lookup;
    hook_calls = 0;
    for (int i = 0; i < 18; i++)
        at(ctx, list, i % 9);
    EXPECT_EQ(hook_calls, 18);
}

TEST_F(Elements, ListFutureMembers)
{
    cfg_element *list = cfg_load_list(ctx, "L");
    cfg_element *child = cfg_new_int_with_id(ctx, 1, "F");
    ASSERT_NE(cfg_append_future_listelem(ctx, list, child), nullptr);
    EXPECT_EQ(list->flags, unsigned(CFG_FLAG_HAS_FUTURE));
    EXPECT_EQ(cfg_list_contains(list, "F"), 1);
    unsigned size = 9, index = 9;
    EXPECT_TRUE(cfg_list_size(list, &size) && size == 0); // future members are not counted
    EXPECT_EQ(cfg_get_future_list_index(ctx, child, "other", &index), 0);
    EXPECT_EQ(cfg_get_parent_elem(ctx, child), list);

    // Dropping the link leaves the child's and the list's flags alone.
    EXPECT_EQ(cfg_list_delete_future_at(ctx, list, 0), 1);
    EXPECT_EQ(cfg_list_delete_future_at(ctx, list, 0), 0);
    EXPECT_TRUE(list->flags & CFG_FLAG_HAS_FUTURE);
    EXPECT_TRUE(child->flags & CFG_FLAG_FUTURE_CHILD);
}

TEST_F(Elements, MapMembershipKeysAndSetters)
{
    cfg_element *map = cfg_load_map(ctx, "M");
    cfg_element *first = cfg_load_int(ctx, "v1", 1);
    cfg_add_mapelem(ctx, map, "k", first);
    EXPECT_EQ(map->flags, 0u); // an unchanged child leaves the map alone
    cfg_add_mapelem(ctx, map, "k", cfg_new_int_with_id(ctx, 2, "v2"));
    EXPECT_TRUE(is_deleted(first));
    EXPECT_EQ(member_uuids(map->value.map.members), texts{"v2"});
    EXPECT_TRUE(map->flags & CFG_FLAG_CHANGED);

    // The setters replace under the same uuid; keys keep their first order.
    EXPECT_STREQ(cfg_map_set_string(ctx, map, "k", "text")->uuid, "v2");
    cfg_map_set_bool(ctx, map, "b", 1);
    char **keys = nullptr;
    unsigned count = 0;
    ASSERT_EQ(cfg_map_keys(map, &keys, &count), 1);
    EXPECT_EQ(take_strings(keys, int(count)), (texts{"k", "b"}));
    EXPECT_EQ(cfg_map_delete_key(ctx, map, "b"), 1);
    EXPECT_EQ(cfg_get_mapelem(map, "b"), nullptr);
}

TEST_F(Elements, DeletionCascadesThroughReferencesAndFutureMembers)
{
    cfg_element *target = cfg_new_int_with_id(ctx, 1, "T");
    cfg_element *ref = cfg_new_reference_with_id(ctx, "T", "R");
    cfg_delete_element(ctx, target);
    EXPECT_TRUE(is_deleted(ref));

    // Future members: an orphan is deleted, one held elsewhere is not.
    cfg_element *list = cfg_load_list(ctx, "L");
    cfg_element *orphan = cfg_new_int_with_id(ctx, 1, "orphan");
    cfg_element *held = cfg_new_int_with_id(ctx, 2, "held");
    cfg_add_listelem(ctx, cfg_load_list(ctx, "O"), held);
    cfg_append_future_listelem(ctx, list, orphan);
    cfg_append_future_listelem(ctx, list, held);
    cfg_delete_element(ctx, list);
    EXPECT_TRUE(is_deleted(orphan));
    EXPECT_FALSE(held->flags & (CFG_FLAG_DELETED | CFG_FLAG_FUTURE_CHILD));
    EXPECT_FALSE(list->flags & CFG_FLAG_HAS_FUTURE);

    // A deleted future member leaves its list; the last one clears the flag.
    cfg_element *list2 = cfg_load_list(ctx, "L2");
    cfg_element *child = cfg_new_int(ctx, 3);
    cfg_append_future_listelem(ctx, list2, child);
    cfg_delete_element(ctx, child);
    EXPECT_EQ(list2->value.list.future_members, nullptr);
    EXPECT_FALSE(list2->flags & CFG_FLAG_HAS_FUTURE);
    EXPECT_FALSE(child->flags & CFG_FLAG_FUTURE_CHILD);
}

// Deleting a whole list takes one pass; the result is the one that deleting
// its members one at a time (renumbering the rest each time) gives.
TEST_F(Elements, DeletionOfAWholeListEndsAsMemberByMember)
{
    auto whole = delete_mixed_list(ctx, "a", true);
    EXPECT_EQ(whole, delete_mixed_list(ctx, "b", false));
    EXPECT_EQ(whole[0][0], unsigned(CFG_FLAG_DELETED));
    EXPECT_EQ(whole[2][0], unsigned(CFG_FLAG_DELETED | CFG_FLAG_CHANGED));
    EXPECT_EQ(whole[5][1], 0u);
    EXPECT_TRUE(whole[5][2] & CFG_FLAG_DELETED);
}

TEST_F(Elements, DeletionOfAReferenceCycleEnds)
{
    cfg_new_int_with_id(ctx, 0, "X");
    cfg_element *a = cfg_new_reference_with_id(ctx, "X", "A");
    cfg_element *b = cfg_new_reference_with_id(ctx, "A", "B");
    update_reference(ctx, a, "B"); // A -> B -> A
    cfg_delete_element(ctx, a);
    EXPECT_TRUE(is_deleted(a) && is_deleted(b));
}
