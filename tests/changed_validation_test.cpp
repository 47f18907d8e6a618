// Changed-data validation: after a full validation has filled the trigger
// tables, edits to the appliance validate only what they can affect.
#include "appliance.h"

using namespace zrtest;

namespace {

// The appliance validated in full, its flags cleared as after a commit or
// left standing (the defaults it made new, the maps that took them changed).
struct validated_appliance : appliance {
    explicit validated_appliance(bool standing = false)
    {
        EXPECT_EQ(cfg_validate_data(ctx()), 1) << testing::PrintToString(messages());
        if (!standing)
            clear_flags();
        log.lines.clear();
    }

    cfg_element *set(cfg_element *map, const char *key, const char *text)
    {
        return cfg_set_string(ctx(), member(map, key), text);
    }

    // Dependents logged as triggered by a change to changed.
    texts triggered_by(const std::string &changed) const
    {
        const std::string head = "Change in node [" + changed + "] triggered validation of node [";
        texts out;
        for (const log_line &l : log.lines)
            if (l.message.rfind(head, 0) == 0)
                out.push_back(l.message.substr(head.size(), l.message.size() - head.size() - 1));
        return out;
    }
};

using V = validated_appliance;

struct edit_case {
    const char *what;
    bool standing;
    void (*edit)(V &);
    int valid;
    texts messages;
    const char *changed = nullptr; // the change to this element triggers exactly...
    texts triggered = {};          // ...the validation of these
    void (*then)(V &) = nullptr;   // further checks
};

} // namespace

// After a full validation, changed-data validation judges every edit since,
// by the library or behind its back, the way a walk over everything flagged
// would, whether that validation's flags were cleared or left standing. (Plain
// edits at random are judged against full validation by the differential
// test; these are the ones it cannot make or whose triggers it does not see.)
TEST(ChangedData, EditsAreJudgedThroughTheTriggerTables)
{
    const edit_case cases[] = {
        {"a conditional ties the tested element to its map", false,
         [](V &a) { a.set(a.conn1, "mode", "static"); }, 0,
         {"Required field 'address' is not present"}, "conn-mode-1", {"conn-1"},
         // The netmask default was filled in before the address was found missing.
         [](V &a) { EXPECT_NE(a.member(a.conn1, "netmask"), nullptr); }},
        {"a validator path ties items to their list", false,
         [](V &a) { a.set(a.conn2, "name", "wan"); }, 0,
         {"Duplicate 'name' fields with value 'wan'"}, "conn-name-2", {"conns-1"}},
        // conn-2's static branch no longer holds: its members are left over.
        {"a change the pattern does not cover leaves the list alone", false,
         [](V &a) { a.set(a.conn2, "mode", "dhcp"); }, 0,
         {"Element [conn-address-2] with name 'address' does not match any schema element"},
         "conn-mode-2", {"conn-2"}},
        {"creating a path watched while absent", false,
         [](V &a) {
             cfg_add_mapelem(a.ctx(), a.system, "proxy_mode",
                             cfg_new_string_with_id(a.ctx(), "http", "proxy-1"));
         },
         0, {"Required field 'proxy_port' is not present"}, "proxy-1", {"net-1"},
         // The new element was validated through its bound parent.
         [](V &a) { EXPECT_STREQ(a.member(a.system, "proxy_mode")->schema, "n-proxy-mode"); }},
        // Only the maps are flagged: the first is validated shallow, the
        // next deep, so user-2's uid is the one reported.
        {"bad uids behind the library's back", false,
         [](V &a) {
             a.member(a.user1, "uid")->value.int_value = 1;
             a.member(a.user2, "uid")->value.int_value = 2;
             a.user1->flags |= CFG_FLAG_CHANGED;
             a.user2->flags |= CFG_FLAG_CHANGED;
         },
         0, {"Number is outside the allowed range of 1000-60000."}, nullptr, {},
         [](V &a) {
             EXPECT_STREQ(cfg_get_message_arg_value(cfg_get_message_object(a.ctx(), 0), 2),
                          "user-uid-2");
         }},
        {"default value changed behind the library's back, its flag unchanged", true,
         [](V &a) { a.member(a.conn1, "mtu")->value.int_value = 100; }, 0,
         {"Number is outside the allowed range of 576-9000."}},
    };
    for (const edit_case &c : cases) {
        SCOPED_TRACE(c.what);
        V a(c.standing);
        c.edit(a);
        EXPECT_EQ(cfg_validate_changed_data(a.ctx()), c.valid);
        EXPECT_EQ(a.messages(), c.messages);
        EXPECT_EQ(c.changed != nullptr ? a.triggered_by(c.changed) : texts{}, c.triggered);
        if (c.then != nullptr)
            c.then(a);
    }
    // Nothing flagged: nothing is validated.
    V idle;
    EXPECT_EQ(cfg_validate_changed_data(idle.ctx()), 1);
    EXPECT_TRUE(idle.log.lines.empty());
}

TEST(ChangedData, DeletedElementsPruneTheirRegistrations)
{
    validated_appliance a;
    cfg *c = a.ctx();
    ASSERT_NE(a.trigger_tables().find("conn-1"), std::string::npos);
    cfg_delete_element(c, a.conn1);
    EXPECT_EQ(cfg_validate_changed_data(c), 1) << testing::PrintToString(a.messages());
    EXPECT_EQ(a.trigger_tables().find("conn-1"), std::string::npos);

    // The users list's pattern record goes with its only dependent.
    const std::string users_pattern = "users\\(\\d+\\)\\.name triggers";
    ASSERT_NE(a.trigger_tables().find(users_pattern), std::string::npos);
    a.clear_flags();
    cfg_delete_element(c, a.users);
    cfg_validate_changed_data(c);
    EXPECT_EQ(a.trigger_tables().find(users_pattern), std::string::npos);
}

TEST(ChangedData, FlaggedElementsAreTakenInIndexOrder)
{
    // Enough elements that the index is walked in many stretches at once.
    log_capture log;
    tree_context t;
    cfg *c = t.ctx();
    cfg_element *list = t.put(cfg_load_map(c, "root-1"), "values", cfg_load_list(c, "values-1"));
    std::vector<cfg_element *> items;
    for (int i = 0; i < 5000; i++) {
        std::string uuid = "value-" + std::to_string(i);
        items.push_back(t.put(list, nullptr, cfg_load_int(c, uuid.c_str(), i)));
    }
    // Every seventh is flagged; a setter indexes the element anew, at the
    // end of the order, so every 150th of those comes last.
    auto path = [](int i) { return "Validating values(" + std::to_string(i) + ")"; };
    texts expected, moved;
    for (int i = 0; i < 5000; i += 7) {
        items[i]->flags |= CFG_FLAG_CHANGED;
        (i % 1050 == 0 ? moved : expected).push_back(path(i));
    }
    for (int i = 4200; i >= 0; i -= 1050)
        cfg_set_int(c, items[i], -1);
    expected.insert(expected.end(), moved.rbegin(), moved.rend());
    cfg_validate_changed_data(c); // nothing is bound, so it fails; the order is logged
    texts seen;
    for (const log_line &l : log.lines)
        if (l.func == "cfg_validate_changed_data" && l.message.rfind("Validating ", 0) == 0)
            seen.push_back(l.message);
    EXPECT_EQ(seen, expected);
}

// Raising the log level (a default the full validation made, so new) turns
// on a conditional that every connection tests through "^^^": conn-1, which
// that validation flagged, is populated and validated again although
// nothing below it changed. (conn-2 is neither flagged nor triggered: a new
// element wakes the records that watch its path, not its uuid.)
TEST(ChangedData, MapTestingOutsideItselfIsNotPassedOver)
{
    validated_appliance a(true);
    cfg_set_int(a.ctx(), a.member(a.system, "loglevel"), 7);
    EXPECT_EQ(cfg_validate_changed_data(a.ctx()), 1) << testing::PrintToString(a.messages());
    EXPECT_NE(a.member(a.conn1, "trace"), nullptr);
    EXPECT_EQ(a.member(a.conn2, "trace"), nullptr);
    // The next run still judges a fault set behind the library's back.
    cfg_element *trace = a.member(a.conn1, "trace");
    trace->type = CFG_TYPE_INT;
    trace->flags |= CFG_FLAG_CHANGED;
    EXPECT_EQ(cfg_validate_changed_data(a.ctx()), 0);
    EXPECT_EQ(a.messages(),
              texts{"Element [" + std::string(trace->uuid) + "] is of the wrong type"});
}

// Runs that look again only at the users a change reached still judge the
// names of all of them: collisions with an untouched user, between two
// changed users, the holder of a duplicate going, and a name changed behind
// the library's back (flagged by hand).
TEST(ChangedData, UniqueNamesJudgedAcrossRunsThatLookAtChangedItemsOnly)
{
    validated_appliance a;
    cfg *c = a.ctx();
    auto judged = [&](int valid, const texts &messages) {
        EXPECT_EQ(cfg_validate_changed_data(c), valid);
        EXPECT_EQ(a.messages(), messages);
        a.clear_messages();
        if (valid)
            a.clear_flags();
    };
    auto duplicate = [](const std::string &name) {
        return texts{"Duplicate 'name' fields with value '" + name + "'"};
    };
    cfg_element *user3 = a.put(a.users, nullptr, cfg_new_map_with_id(c, "user-3"));
    a.put(user3, "name", cfg_new_string_with_id(c, "guest", "user-name-3"));
    a.put(user3, "uid", cfg_new_int_with_id(c, 2000, "user-uid-3"));
    judged(1, {});

    a.set(user3, "name", "operator");
    judged(0, duplicate("operator"));
    a.set(user3, "name", "guest");
    judged(1, {});
    a.set(a.user1, "name", "guest");
    judged(0, duplicate("guest"));
    cfg_delete_element(c, user3);
    judged(1, {});

    cfg_element *name = a.member(a.user1, "name");
    free(name->value.string_value);
    name->value.string_value = strdup("operator");
    name->flags |= CFG_FLAG_CHANGED;
    judged(0, duplicate("operator"));
    EXPECT_EQ(cfg_validate_data(c), 0);
}
