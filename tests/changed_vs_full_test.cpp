// Changed-data validation judged against full validation: random edit
// sequences on the appliance (with a user-to-certificate reference
// added), each seen by both.
//
// A sequence starts from the appliance after a clean full validation (so the
// trigger tables are complete), flags cleared as after a commit, or, one
// sequence in three, left standing (the defaults it made new, the maps that
// took them changed) as by a caller that validates, edits and validates
// again before committing. Each of its rounds applies 1 to 6 random edits
// through the public interface, copies the live elements into a fresh
// context, and runs cfg_validate_changed_data on the edited tree and
// cfg_validate_data on the copy. A round both accept is mostly committed
// (deleted elements freed, flags cleared), so later rounds rely on trigger
// tables and remembered results that changed-data validation kept; the
// edits of a rejected round, and of one accepted round in four, stay
// pending (flagged) into the next. Rules asserted per round:
//
//  1. Verdict: changed-data validation accepts exactly when full validation
//     accepts. Exception: a certificate's members are judged by the
//     certificate map's ssl_cert validator, which declares no trigger paths;
//     after edits to them since the last commit only "changed-data rejects
//     => full rejects" holds.
//  2. An accepting run pushes no message.
//  3. A rejecting changed-data run pushes at most one message. A rejecting
//     full run pushes at most one constraint message, or else only no-match
//     messages, one per element left unaccounted.
//  4. The walks visit different elements in different orders and stop at
//     their first failure, so the messages may differ; what changed-data
//     reports is still a real defect:
//     a. when full validation left elements unaccounted (and met no failing
//        constraint), changed-data's message names one of those elements;
//     b. a constraint message that names an element names one whose own
//        validation (from it, or its nearest ancestor bound to a schema
//        element) fails on a copy of the tree. Validator messages that name
//        no element (a certificate that does not match its key) are only
//        held to rule 1.
//
// Each sequence has its own seed; a failure prints the seed and the edits.
// ZR_DIFF_SEQUENCES sets the number of sequences (200 by default),
// ZR_DIFF_ROUNDS the rounds of one sequence (3) and ZR_DIFF_SEED the first
// seed.
#include "appliance.h"

#include <cstring>
#include <functional>
#include <random>
#include <set>
#include <type_traits>
#include <syslog.h>

using namespace zrtest;

namespace {

struct message_seen {
    int code;
    std::string text;
    std::string uuid; // the element the message is about, if it names one

    bool no_match() const { return code == 23; }
};
using message_list = std::vector<message_seen>;

message_list messages_with_elements(cfg *c)
{
    message_list out;
    for (int i = 0; i < cfg_message_count(c); i++) {
        cfg_message *m = cfg_get_message_object(c, i);
        std::string uuid;
        for (int a = 0; a < cfg_get_message_arg_count(m); a++)
            if (strcmp(cfg_get_message_arg_name(m, a), "uuid") == 0)
                uuid = cfg_get_message_arg_value(m, a);
        out.push_back({cfg_get_message_code(m), cfg_get_message_string(m), uuid});
    }
    return out;
}

std::string describe(const message_list &messages)
{
    std::string out;
    for (const message_seen &m : messages)
        out += "\n    [" + std::to_string(m.code) + "] " + m.text + " (" + m.uuid + ")";
    return out.empty() ? " (none)" : out;
}

// The appliance schema with an optional "cert" reference on users.
void add_user_certificate_key(cfg *c)
{
    cfg_add_schema_mapelem(c, cfg_get_schema_node(c, "n-user"), 1, "cert",
                           cfg_init_schema_reference(c, "n-user-cert"));
}

// The live elements as JSON, references last so their targets load first.
std::vector<json_handle> snapshot(cfg *c)
{
    std::vector<json_handle> plain, references;
    for (cfg_index_entry *e = c->elements; e != nullptr;
         e = static_cast<cfg_index_entry *>(e->hh.next))
        if (!(e->element->flags & CFG_FLAG_DELETED))
            (e->element->type == CFG_TYPE_REFERENCE ? references : plain)
                .emplace_back(elem_to_json(e->element));
    for (json_handle &r : references)
        plain.push_back(std::move(r));
    return plain;
}

// A fresh appliance context holding a copy of a snapshot.
struct appliance_copy : appliance {
    explicit appliance_copy(const std::vector<json_handle> &elements)
        : appliance(schema_only{})
    {
        add_user_certificate_key(ctx());
        for (const json_handle &e : elements)
            EXPECT_NE(json_to_elem(ctx(), e.get()), nullptr) << dump(e.get());
    }
};

// The edited side: the appliance validated in full, flags cleared, plus the
// edits applied so far.
struct edited_appliance : appliance {
    std::mt19937 rng;
    std::vector<std::string> edits;
    bool edited_certificate_members = false;
    int next_id = 0;

    explicit edited_appliance(unsigned seed) : rng(seed)
    {
        add_user_certificate_key(ctx());
        put(user1, "cert", cfg_load_reference(ctx(), "user-cert-1", "cert-1"));
        EXPECT_EQ(cfg_validate_data(ctx()), 1) << describe(messages_with_elements(ctx()));
        if (seed % 3 != 0)
            clear_flags();
        clear_messages();
    }

    // What a commit leaves: deleted elements gone, no flags.
    void commit()
    {
        std::vector<cfg_element *> deleted;
        for (cfg_index_entry *e = ctx()->elements; e != nullptr;
             e = static_cast<cfg_index_entry *>(e->hh.next))
            if (e->element->flags & CFG_FLAG_DELETED)
                deleted.push_back(e->element);
        for (cfg_element *e : deleted)
            cfg_free_element(ctx(), e);
        clear_flags();
        edited_certificate_members = false;
        edits.push_back("-- commit --");
    }

    template <typename T> const T &pick(const std::vector<T> &choices)
    {
        return choices[std::uniform_int_distribution<size_t>(0, choices.size() - 1)(rng)];
    }
    // A value from good, or one time in six from bad.
    template <typename T> T value(const std::vector<T> &good, const std::vector<T> &bad)
    {
        return rng() % 6 != 0 ? pick(good) : pick(bad);
    }
    std::string new_id() { return "new-" + std::to_string(next_id++); }

    // One of the map items of a list (null when it has none).
    cfg_element *pick_item(cfg_element *list)
    {
        std::vector<cfg_element *> items;
        for (int i = 0; const char *uuid = cfg_get_listelem(list, i); i++)
            if (cfg_element *e = cfg_find_by_id(ctx(), uuid); e && e->type == CFG_TYPE_MAP)
                items.push_back(e);
        return items.empty() ? nullptr : pick(items);
    }
    cfg_element *pick_map()
    {
        std::vector<cfg_element *> maps{system, network};
        for (cfg_element *list : {conns, users, certs})
            if (cfg_element *item = pick_item(list))
                maps.push_back(item);
        return pick(maps);
    }

    // Sets map[key] through the replacing setter when the member exists, or
    // joins a new element made by make with a predictable uuid.
    void set_member(cfg_element *map, const char *key,
                    const std::function<cfg_element *(cfg_element *)> &replace,
                    const std::function<cfg_element *(const char *)> &make)
    {
        if (cfg_element *old = member(map, key))
            replace(old);
        else if (cfg_element *made = make(new_id().c_str()))
            cfg_add_mapelem(ctx(), map, key, made);
    }
    void set_string(cfg_element *map, const char *key, const std::string &text)
    {
        set_member(
            map, key, [&](cfg_element *e) { return cfg_set_string(ctx(), e, text.c_str()); },
            [&](const char *id) { return cfg_new_string_with_id(ctx(), text.c_str(), id); });
        note(map, key, "\"" + text + "\"");
    }
    void set_int(cfg_element *map, const char *key, int value)
    {
        set_member(
            map, key, [&](cfg_element *e) { return cfg_set_int(ctx(), e, value); },
            [&](const char *id) { return cfg_new_int_with_id(ctx(), value, id); });
        note(map, key, std::to_string(value));
    }
    void set_blob(cfg_element *map, const char *key, const std::string &data)
    {
        cfg_element *blob = cfg_new_blob_with_id(ctx(), data.data(), data.size(), new_id().c_str());
        cfg_add_mapelem(ctx(), map, key, blob);
        note(map, key, std::to_string(data.size()) + " bytes");
    }
    void note(cfg_element *map, const char *key, const std::string &what)
    {
        edits.push_back(std::string(map->uuid) + "." + key + " = " + what);
    }

    cfg_element *add_item(cfg_element *list)
    {
        cfg_element *item = cfg_new_map_with_id(ctx(), new_id().c_str());
        cfg_add_listelem(ctx(), list, item);
        edits.push_back("append " + std::string(item->uuid) + " to " + list->uuid);
        return item;
    }
    void delete_item(cfg_element *list)
    {
        if (cfg_element *item = pick_item(list)) {
            edits.push_back("delete " + std::string(item->uuid));
            cfg_delete_element(ctx(), item);
        }
    }
    void drop(cfg_element *map, const char *key)
    {
        if (map == nullptr)
            return;
        edits.push_back("drop " + std::string(map->uuid) + "." + key);
        cfg_map_delete_key(ctx(), map, key);
    }
};

struct edit_kind {
    const char *name;
    std::function<void(edited_appliance &)> apply;
};

std::string conn_name(edited_appliance &a)
{
    return a.value<std::string>({"wan", "lan", "dmz", "lab", "guest"}, {"WAN!"});
}
std::string user_name(edited_appliance &a)
{
    return a.value<std::string>({"admin", "operator", "guest", "ops"}, {"Bad Name"});
}

// Members and items that no schema element accounts for, and their removal.
void break_structure(edited_appliance &a)
{
    switch (a.rng() % 3) {
    case 0:
        a.set_string(a.pick_map(), "colour", "red");
        break;
    case 1:
        if (cfg_element *c = a.pick_item(a.conns))
            a.set_int(c, "name", 5);
        break;
    default:
        cfg_add_listelem(a.ctx(), a.users,
                         cfg_new_string_with_id(a.ctx(), "stray", a.new_id().c_str()));
        a.edits.push_back("append string to users");
    }
}
void repair_structure(edited_appliance &a)
{
    for (cfg_element *list : {a.conns, a.users, a.certs})
        for (int i = 0; const char *uuid = cfg_get_listelem(list, i); i++)
            if (cfg_element *e = cfg_find_by_id(a.ctx(), uuid); e && e->type != CFG_TYPE_MAP) {
                a.edits.push_back("delete " + std::string(uuid));
                cfg_delete_element(a.ctx(), e);
                break;
            }
    cfg_element *map = a.pick_map();
    if (cfg_get_mapelem(map, "colour") != nullptr)
        a.drop(map, "colour");
}

// Where an edit lands: an item of one of the lists (null when it has none),
// or a fixed map.
using target = cfg_element *(*)(edited_appliance &);
cfg_element *a_connection(edited_appliance &a) { return a.pick_item(a.conns); }
cfg_element *a_user(edited_appliance &a) { return a.pick_item(a.users); }
cfg_element *the_system(edited_appliance &a) { return a.system; }
cfg_element *the_network(edited_appliance &a) { return a.network; }

// Sets key of the target to a value from good, or one time in six from bad.
template <typename T>
edit_kind set(const char *name, target where, const char *key, std::vector<T> good,
              std::vector<T> bad)
{
    return {name, [=](edited_appliance &a) {
                if (cfg_element *map = where(a)) {
                    if constexpr (std::is_same_v<T, int>)
                        a.set_int(map, key, a.value(good, bad));
                    else
                        a.set_string(map, key, a.value(good, bad));
                }
            }};
}
edit_kind drop(const char *name, target where, std::vector<const char *> keys)
{
    return {name, [=](edited_appliance &a) { a.drop(where(a), a.pick(keys)); }};
}

// Each edit picks its target and value at random; some make the tree
// invalid, others repair what earlier ones broke.
const std::vector<edit_kind> &edit_kinds()
{
    using A = edited_appliance;
    static const std::vector<edit_kind> kinds{
        set<std::string>("rename connection", a_connection, "name", {"wan", "lan", "dmz", "lab"},
                         {"WAN!", "averyveryverylongname"}),
        set<std::string>("switch connection mode", a_connection, "mode", {"static", "dhcp"},
                         {"bridge"}),
        set<int>("set mtu", a_connection, "mtu", {1500, 9000, 576}, {100, 9001}),
        set<std::string>("set address", a_connection, "address", {"10.0.0.1", "192.168.1.1"},
                         {"300.1.1.1"}),
        set<int>("set netmask", a_connection, "netmask", {24, 16}, {33}),
        drop("drop connection member", a_connection,
             {"name", "mode", "mtu", "address", "netmask", "trace"}),
        {"append connection",
         [](A &a) {
             cfg_element *c = a.add_item(a.conns);
             a.set_string(c, "name", conn_name(a));
             // The default mode, static, wants an address that has no default.
             if (a.rng() % 4 != 0)
                 a.set_string(c, "mode", "dhcp");
         }},
        {"delete connection", [](A &a) { a.delete_item(a.conns); }},
        set<int>("set log level", the_system, "loglevel", {6, 7, 0}, {8}),
        drop("drop system member", the_system, {"loglevel", "timezone", "hostname"}),
        set<std::string>("set proxy mode", the_system, "proxy_mode", {"off", "http"}, {"ftp"}),
        drop("drop proxy mode", the_system, {"proxy_mode"}),
        set<int>("set proxy port", the_network, "proxy_port", {8080, 3128}, {0}),
        set<std::string>("set hostname", the_system, "hostname", {"gateway", "router-2"},
                         {"Bad Host", ""}),
        set<int>("set deprecated port", the_system, "legacy_port", {1, 5}, {1, 5}),
        set<std::string>("rename user", a_user, "name", {"admin", "operator", "guest", "ops"},
                         {"Bad Name"}),
        set<int>("set uid", a_user, "uid", {1000, 1500, 2500}, {999, 70000}),
        set<std::string>("set role", a_user, "role", {"admin", "viewer", "operator"}, {"root"}),
        drop("drop user member", a_user, {"name", "role", "uid", "cert"}),
        {"append user",
         [](A &a) {
             cfg_element *u = a.add_item(a.users);
             a.set_string(u, "name", user_name(a));
             if (a.rng() % 3)
                 a.set_int(u, "uid", 2000);
         }},
        {"delete user", [](A &a) { a.delete_item(a.users); }},
        {"point user at certificate",
         [](A &a) {
             cfg_element *u = a.pick_item(a.users), *c = a.pick_item(a.certs);
             if (u == nullptr || c == nullptr)
                 return;
             a.set_member(
                 u, "cert", [&](cfg_element *e) { return cfg_set_reference(a.ctx(), e, c->uuid); },
                 [&](const char *id) { return cfg_new_reference_with_id(a.ctx(), c->uuid, id); });
             a.note(u, "cert", std::string("-> ") + c->uuid);
         }},
        {"append certificate",
         [](A &a) {
             cfg_element *c = a.add_item(a.certs);
             a.set_string(c, "name", "extra");
             a.set_blob(c, "certificate", material().certificate);
             if (a.rng() % 3)
                 a.set_blob(c, "key", material().key);
         }},
        {"delete certificate", [](A &a) { a.delete_item(a.certs); }},
        {"set certificate common name",
         [](A &a) {
             if (cfg_element *c = a.pick_item(a.certs)) {
                 a.set_string(c, "common_name",
                              a.value<std::string>({"device.example"}, {"other.example"}));
                 a.edited_certificate_members = true;
             }
         }},
        {"break structure", break_structure},
        {"repair structure", repair_structure},
    };
    return kinds;
}

struct verdict {
    int valid;
    message_list messages;
};

// The element that decides whether uuid is defective: itself, or its
// nearest ancestor bound to a schema element.
cfg_element *bound_self_or_ancestor(cfg *c, const std::string &uuid)
{
    cfg_element *e = cfg_find_by_id(c, uuid.c_str());
    while (e != nullptr && e->schema[0] == '\0')
        e = cfg_get_parent_elem(c, e);
    return e;
}

// Checks rules 1 to 4 on one sequence; failures name the seed and edits.
void check_sequence(unsigned seed, const edited_appliance &a, const verdict &changed,
                    const verdict &full, const std::vector<json_handle> &tree)
{
    std::string trace = "seed " + std::to_string(seed) + ", edits:";
    for (const std::string &e : a.edits)
        trace += "\n    " + e;
    trace += "\n  changed-data " + std::to_string(changed.valid) + ":" +
             describe(changed.messages) + "\n  full " + std::to_string(full.valid) + ":" +
             describe(full.messages);
    SCOPED_TRACE(trace);

    if (a.edited_certificate_members) {
        EXPECT_TRUE(changed.valid || !full.valid) << "rule 1 (certificate members)";
    } else {
        EXPECT_EQ(changed.valid, full.valid) << "rule 1";
    }
    EXPECT_TRUE(!changed.valid || changed.messages.empty()) << "rule 2";
    EXPECT_TRUE(!full.valid || full.messages.empty()) << "rule 2";
    EXPECT_LE(changed.messages.size(), 1u) << "rule 3";
    std::set<std::string> unaccounted;
    for (const message_seen &m : full.messages)
        if (m.no_match())
            unaccounted.insert(m.uuid);
    EXPECT_TRUE(unaccounted.empty() ? full.messages.size() <= 1
                                    : unaccounted.size() == full.messages.size())
        << "rule 3";
    if (changed.messages.empty())
        return;
    const message_seen &reported = changed.messages.front();
    EXPECT_TRUE(unaccounted.empty() || unaccounted.count(reported.uuid)) << "rule 4a";
    if (!reported.no_match() && !reported.uuid.empty()) {
        appliance_copy copy(tree);
        cfg_element *judged = bound_self_or_ancestor(copy.ctx(), reported.uuid);
        EXPECT_TRUE(judged != nullptr && cfg_validate_subtree(copy.ctx(), judged) == 0)
            << "rule 4b";
    }
}

// One seeded sequence: rounds of edits, each judged by both validations and
// committed when both accept; a rejected round's edits stay pending.
void run_sequence(unsigned seed, unsigned rounds)
{
    edited_appliance a(seed);
    for (unsigned round = 0; round < rounds; round++) {
        const int edits = std::uniform_int_distribution<int>(1, 6)(a.rng);
        for (int i = 0; i < edits; i++)
            a.pick(edit_kinds()).apply(a);
        std::vector<json_handle> tree = snapshot(a.ctx());
        appliance_copy copy(tree);
        verdict full{cfg_validate_data(copy.ctx()), messages_with_elements(copy.ctx())};
        verdict changed{cfg_validate_changed_data(a.ctx()), messages_with_elements(a.ctx())};
        check_sequence(seed, a, changed, full, tree);
        if (changed.valid && full.valid && a.rng() % 4 != 0)
            a.commit();
        else
            a.clear_messages();
    }
}

unsigned env_number(const char *name, unsigned fallback)
{
    const char *text = getenv(name);
    return text != nullptr ? static_cast<unsigned>(strtoul(text, nullptr, 10)) : fallback;
}

} // namespace

TEST(ChangedVersusFull, RandomEditSequencesAgreeByTheRules)
{
    ASSERT_TRUE(material().complete);
    const unsigned count = env_number("ZR_DIFF_SEQUENCES", 200);
    const unsigned rounds = env_number("ZR_DIFF_ROUNDS", 3);
    const unsigned first = env_number("ZR_DIFF_SEED", 1);
    const testing::TestResult &result =
        *testing::UnitTest::GetInstance()->current_test_info()->result();
    zrlog_set_handler_ceiling(LOG_WARNING);
    // A handful of failing sequences tells enough; stop there.
    for (unsigned seed = first; seed < first + count && result.total_part_count() < 5; seed++)
        run_sequence(seed, rounds);
    zrlog_set_handler_ceiling(LOG_DEBUG);
}
