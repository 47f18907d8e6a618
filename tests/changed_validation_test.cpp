// Changed-data validation: after a full validation has filled the trigger
// tables, edits to the appliance validate only what they can affect.
#include "appliance.h"

using namespace zrtest;

namespace {

// The appliance validated in full, its flags cleared as after a commit.
struct validated_appliance : appliance {
    validated_appliance()
    {
        EXPECT_EQ(cfg_validate_data(ctx()), 1) << testing::PrintToString(messages());
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

template <typename Record> bool lists_dependent(Record *table, const char *uuid)
{
    for (Record *r = table; r != nullptr; r = static_cast<Record *>(r->hh.next))
        for (cfg_link *n = r->dependents; n != nullptr; n = n->next)
            if (strcmp(static_cast<const char *>(n->data), uuid) == 0)
                return true;
    return false;
}

// Whether any trigger record of any table lists uuid, or a reverse record
// is kept for it.
bool registered_anywhere(cfg *c, const char *uuid)
{
    cfg_reverse_trigger *reverse = nullptr;
    HASH_FIND_STR(c->reverse_triggers, uuid, reverse);
    return reverse != nullptr || lists_dependent(c->uuid_triggers, uuid) ||
           lists_dependent(c->path_triggers, uuid) || lists_dependent(c->pattern_triggers, uuid);
}

} // namespace

TEST(ChangedData, ConditionalTiesTheTestedElementToItsMap)
{
    validated_appliance a;
    // conn-1 turns static: the conditional now requires an address.
    a.set(a.conn1, "mode", "static");
    EXPECT_EQ(cfg_validate_changed_data(a.ctx()), 0);
    EXPECT_EQ(a.triggered_by("conn-mode-1"), texts{"conn-1"});
    EXPECT_EQ(a.messages(), texts{"Required field 'address' is not present"});
    // The netmask default was filled in before the address was found missing.
    EXPECT_NE(a.member(a.conn1, "netmask"), nullptr);

    a.clear_messages();
    a.load_string(a.conn1, "address", "conn-address-1", "10.0.0.1");
    EXPECT_EQ(cfg_validate_changed_data(a.ctx()), 1) << testing::PrintToString(a.messages());
}

TEST(ChangedData, ValidatorPathTiesItemsToTheirList)
{
    validated_appliance a;
    a.set(a.conn2, "name", "wan");
    EXPECT_EQ(cfg_validate_changed_data(a.ctx()), 0);
    EXPECT_EQ(a.triggered_by("conn-name-2"), texts{"conns-1"});
    EXPECT_EQ(a.messages(), texts{"Duplicate 'name' fields with value 'wan'"});

    // A change the pattern does not cover leaves the list alone; conn-2
    // is re-validated for its conditional, whose branch no longer holds, so
    // its static members are left over.
    validated_appliance b;
    b.set(b.conn2, "mode", "dhcp");
    EXPECT_EQ(cfg_validate_changed_data(b.ctx()), 0);
    EXPECT_EQ(b.triggered_by("conn-mode-2"), texts{"conn-2"});
    EXPECT_EQ(b.messages(), texts{"Element [conn-address-2] with name 'address' does not "
                                  "match any schema element"});
}

TEST(ChangedData, CreatingAWatchedPathTriggersByPath)
{
    validated_appliance a;
    // network's conditional watched system.proxy_mode while it was absent.
    cfg_element *mode = cfg_new_string(a.ctx(), "http");
    cfg_add_mapelem(a.ctx(), a.system, "proxy_mode", mode);
    EXPECT_EQ(cfg_validate_changed_data(a.ctx()), 0);
    EXPECT_EQ(a.triggered_by(mode->uuid), texts{"net-1"});
    EXPECT_EQ(a.messages(), texts{"Required field 'proxy_port' is not present"});
    // The new element was validated through its bound parent.
    EXPECT_STREQ(mode->schema, "n-proxy-mode");
}

TEST(ChangedData, DeletedElementsPruneTheirRegistrations)
{
    validated_appliance a;
    cfg *c = a.ctx();
    ASSERT_TRUE(registered_anywhere(c, "conn-1"));
    cfg_delete_element(c, a.conn1);
    EXPECT_EQ(cfg_validate_changed_data(c), 1) << testing::PrintToString(a.messages());
    EXPECT_FALSE(registered_anywhere(c, "conn-1"));

    // Both connections watched the log level; only conn-2 is left to react,
    // and it gains its trace member from the branch that now holds.
    a.clear_flags();
    a.log.lines.clear();
    cfg_element *loglevel = cfg_set_int(c, a.member(a.system, "loglevel"), 7);
    EXPECT_EQ(cfg_validate_changed_data(c), 1) << testing::PrintToString(a.messages());
    EXPECT_EQ(a.triggered_by(loglevel->uuid), texts{"conn-2"});
    EXPECT_NE(a.member(a.conn2, "trace"), nullptr);

    // The users list's pattern record goes with its only dependent.
    auto users_pattern = [&] {
        cfg_pattern_trigger *record = nullptr;
        HASH_FIND_STR(c->pattern_triggers, "users\\(\\d+\\)\\.name", record);
        return record;
    };
    ASSERT_NE(users_pattern(), nullptr);
    a.clear_flags();
    cfg_delete_element(c, a.users);
    cfg_validate_changed_data(c);
    EXPECT_EQ(users_pattern(), nullptr);
}

TEST(ChangedData, FirstElementShallowLaterOnesDeep)
{
    validated_appliance a;
    // Bad uids set behind the library's back: only the maps are flagged.
    a.member(a.user1, "uid")->value.int_value = 1;
    a.member(a.user2, "uid")->value.int_value = 2;
    a.user1->flags |= CFG_FLAG_CHANGED;
    a.user2->flags |= CFG_FLAG_CHANGED;
    EXPECT_EQ(cfg_validate_changed_data(a.ctx()), 0);
    ASSERT_EQ(a.messages(), texts{"Number is outside the allowed range of 1000-60000."});
    EXPECT_STREQ(cfg_get_message_arg_value(cfg_get_message_object(a.ctx(), 0), 2),
                 "user-uid-2");
}

TEST(ChangedData, NewItemValidatedThroughItsListWithDefaults)
{
    validated_appliance a;
    cfg *c = a.ctx();
    cfg_element *conn = cfg_new_map(c);
    cfg_add_listelem(c, a.conns, conn);
    cfg_map_set_string(c, conn, "name", "dmz");
    cfg_map_set_string(c, conn, "address", "10.1.0.1");
    EXPECT_EQ(cfg_validate_changed_data(c), 1) << testing::PrintToString(a.messages());
    // The list's item type filled in mode, then the static branch netmask.
    EXPECT_EQ(string_of(a.member(conn, "mode")), "static");
    EXPECT_NE(a.member(conn, "netmask"), nullptr);
    EXPECT_STREQ(conn->schema, "n-connection");

    cfg_map_set_int(c, conn, "mtu", 100);
    EXPECT_EQ(cfg_validate_changed_data(c), 0);
    EXPECT_EQ(a.messages(), texts{"Number is outside the allowed range of 576-9000."});
}

TEST(ChangedData, NothingFlaggedValidatesNothingFirstLeftoverIsReported)
{
    validated_appliance a;
    EXPECT_EQ(cfg_validate_changed_data(a.ctx()), 1);
    EXPECT_TRUE(a.log.lines.empty());
    cfg_element *colour = cfg_new_string(a.ctx(), "blue");
    cfg_add_mapelem(a.ctx(), a.system, "colour", colour);
    EXPECT_EQ(cfg_validate_changed_data(a.ctx()), 0);
    EXPECT_EQ(a.messages(), texts{"Element [" + std::string(colour->uuid) +
                                  "] with name 'colour' does not match any schema element"});
}

TEST(ChangedData, FlaggedElementsAreTakenInIndexOrder)
{
    // Enough elements that the index is walked in many stretches at once.
    log_capture log;
    context_handle h;
    cfg *c = h.get();
    cfg_element *root = cfg_load_map(c, "root-1");
    cfg_element *list = cfg_load_list(c, "values-1");
    cfg_add_mapelem(c, root, "values", list);
    std::vector<cfg_element *> items;
    for (int i = 0; i < 5000; i++) {
        std::string uuid = "value-" + std::to_string(i);
        items.push_back(cfg_load_int(c, uuid.c_str(), i));
        cfg_add_listelem(c, list, items.back());
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

namespace {

// The appliance right after a full validation, its flags left standing: the
// defaults it made are new, the maps that took them changed.
struct freshly_validated : appliance {
    freshly_validated()
    {
        EXPECT_EQ(cfg_validate_data(ctx()), 1) << testing::PrintToString(messages());
        log.lines.clear();
    }
};

struct standing_flags_case {
    const char *what;
    void (*edit)(freshly_validated &);
    int valid;
    texts messages;
};

} // namespace

// A full validation remembers what it found valid; the next changed-data
// validation must still judge every edit made since, by the library or
// behind its back, the way a walk over everything flagged would.
TEST(ChangedData, StandingFlagsAfterFullValidationStillJudgeEveryEdit)
{
    const standing_flags_case cases[] = {
        {"no edit", [](freshly_validated &) {}, 1, {}},
        {"default value changed behind the library's back, its flag unchanged",
         [](freshly_validated &a) { a.member(a.conn1, "mtu")->value.int_value = 100; }, 0,
         {"Number is outside the allowed range of 576-9000."}},
        {"required member dropped from a map flagged by the validation",
         [](freshly_validated &a) { cfg_map_delete_key(a.ctx(), a.conn1, "name"); }, 0,
         {"Required field 'name' is not present"}},
        {"required member dropped from an unflagged map",
         [](freshly_validated &a) { cfg_map_delete_key(a.ctx(), a.conn2, "name"); }, 0,
         {"Required field 'name' is not present"}},
        {"duplicate name, watched by the list's validator",
         [](freshly_validated &a) { cfg_set_string(a.ctx(), a.member(a.conn2, "name"), "wan"); },
         0, {"Duplicate 'name' fields with value 'wan'"}},
        {"member replaced below a map by a value of the wrong type",
         [](freshly_validated &a) { cfg_set_string(a.ctx(), a.member(a.user2, "uid"), "x"); }, 0,
         {"Element [user-uid-2] is of the wrong type"}},
    };
    for (const standing_flags_case &c : cases) {
        SCOPED_TRACE(c.what);
        freshly_validated a;
        c.edit(a);
        EXPECT_EQ(cfg_validate_changed_data(a.ctx()), c.valid);
        EXPECT_EQ(a.messages(), c.messages);
    }
}

// Raising the log level (a default the full validation made, so new) turns
// on a conditional that every connection tests through "^^^": conn-1, which
// that validation flagged, is populated and validated again although
// nothing below it changed. (conn-2 is neither flagged nor triggered: a new
// element wakes the records that watch its path, not its uuid.)
TEST(ChangedData, MapTestingOutsideItselfIsNotPassedOver)
{
    freshly_validated a;
    cfg_set_int(a.ctx(), a.member(a.system, "loglevel"), 7);
    EXPECT_EQ(cfg_validate_changed_data(a.ctx()), 1) << testing::PrintToString(a.messages());
    EXPECT_NE(a.member(a.conn1, "trace"), nullptr);
    EXPECT_EQ(a.member(a.conn2, "trace"), nullptr);
    // The next run still judges a fault set behind the library's back.
    cfg_element *trace = a.member(a.conn1, "trace");
    trace->type = CFG_TYPE_INT;
    trace->flags |= CFG_FLAG_CHANGED;
    EXPECT_EQ(cfg_validate_changed_data(a.ctx()), 0);
    EXPECT_EQ(a.messages(), texts{"Element [" + std::string(trace->uuid) + "] is of the wrong type"});
}
