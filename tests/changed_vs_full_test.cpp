// Changed-data validation judged against full validation on random edit
// sequences over the appliance (plus a user-to-certificate reference). A
// sequence starts after a clean full validation, its flags cleared as by a
// commit or, one sequence in three, left standing. Each round applies 1 to 6
// random edits, validates the edited tree changed-data and, in a child
// process (see in_child), a copy of its live elements in full; a round both
// accept is mostly committed, the rest stay pending into the next. Rules:
//  1. Same verdict; only "changed rejects => full rejects" after edits to
//     a certificate's members (judged by a validator that declares no
//     trigger paths) and once a deletion left pending has been met by an
//     earlier run (that run forgot what watched the deleted element, so a
//     later run no longer validates it again).
//  2. An accepting run pushes no message.
//  3. Changed-data rejects with at most one message; full with at most one
//     constraint message, or only no-match messages, one per stray element.
//  4. Changed-data reports a real defect: (a) one of full's stray elements
//     when there are any; (b) an element whose own validation (or that of
//     its nearest ancestor bound to a schema element) fails on a copy.
// Failures print the seed and the edits. ZR_DIFF_SEQUENCES (200),
// ZR_DIFF_ROUNDS (3) and ZR_DIFF_SEED (1) set the count, the rounds of one
// sequence and the first seed.
#include "appliance.h"

#include <cstring>
#include <functional>
#include <random>
#include <set>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

using namespace zrtest;

namespace {

struct message_seen {
    int code;
    std::string text, uuid; // uuid: the element the message names, if any
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

std::string describe(int valid, const message_list &messages)
{
    std::string out = std::to_string(valid) + ":";
    for (const message_seen &m : messages)
        out += "\n    [" + std::to_string(m.code) + "] " + m.text + " (" + m.uuid + ")";
    return out;
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

// The edited side: the validated appliance plus the edits applied so far,
// each noted in edits with the uuids it touched (new elements get
// predictable ones).
struct edited_appliance : appliance {
    std::mt19937 rng;
    std::vector<std::string> edits;
    bool edited_certificate_members = false;
    bool deletions_met = false; // a pending deletion was met by an earlier run
    int next_id = 0;

    explicit edited_appliance(unsigned seed, bool client_hooks) : rng(seed)
    {
        if (client_hooks) { // as a connected program's context, with every element held
            ctx()->get_by_id = client_cfg_get_by_id;
            ctx()->get_by_ids = client_cfg_get_by_ids;
        }
        add_user_certificate_key(ctx());
        put(user1, "cert", cfg_load_reference(ctx(), "user-cert-1", "cert-1"));
        EXPECT_EQ(cfg_validate_data(ctx()), 1) << describe(0, messages_with_elements(ctx()));
        if (seed % 3 != 0)
            clear_flags();
        clear_messages();
    }

    // The elements marked deleted and not yet committed.
    std::vector<cfg_element *> deleted() const
    {
        std::vector<cfg_element *> out;
        for (cfg_index_entry *e = ctx()->elements; e != nullptr;
             e = static_cast<cfg_index_entry *>(e->hh.next))
            if (e->element->flags & CFG_FLAG_DELETED)
                out.push_back(e->element);
        return out;
    }

    // What a commit leaves: deleted elements gone, no flags.
    void commit()
    {
        for (cfg_element *e : deleted())
            cfg_free_element(ctx(), e);
        clear_flags();
        edited_certificate_members = false;
        deletions_met = false;
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
    // joins a new element made with the next predictable uuid.
    template <typename V>
    void set(cfg_element *map, const char *key, V value, const std::string &shown,
             cfg_element *(*replace)(cfg *, cfg_element *, V),
             cfg_element *(*make)(cfg *, V, const char *))
    {
        if (cfg_element *old = member(map, key))
            replace(ctx(), old, value);
        else
            cfg_add_mapelem(ctx(), map, key, make(ctx(), value, new_id().c_str()));
        edits.push_back(std::string(map->uuid) + "." + key + " = " + shown);
    }
    void assign(cfg_element *map, const char *key, const std::string &text)
    {
        set(map, key, text.c_str(), '"' + text + '"', cfg_set_string, cfg_new_string_with_id);
    }
    void assign(cfg_element *map, const char *key, int number)
    {
        set(map, key, number, std::to_string(number), cfg_set_int, cfg_new_int_with_id);
    }
    void add_blob(cfg_element *map, const char *key, const std::string &data)
    {
        cfg_add_mapelem(ctx(), map, key,
                        cfg_new_blob_with_id(ctx(), data.data(), data.size(), new_id().c_str()));
        edits.push_back(std::string(map->uuid) + "." + key + " = " + std::to_string(data.size()) +
                        " bytes");
    }

    cfg_element *add_item(cfg_element *list)
    {
        cfg_element *item = cfg_new_map_with_id(ctx(), new_id().c_str());
        cfg_add_listelem(ctx(), list, item);
        edits.push_back("append " + std::string(item->uuid) + " to " + list->uuid);
        return item;
    }
    void delete_element(cfg_element *e)
    {
        if (e != nullptr) {
            edits.push_back("delete " + std::string(e->uuid));
            cfg_delete_element(ctx(), e);
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

using A = edited_appliance;
using edit = std::function<void(A &)>;

// Members and items that no schema element accounts for, and their removal.
void break_structure(A &a)
{
    switch (a.rng() % 3) {
    case 0:
        a.assign(a.pick_map(), "colour", "red");
        break;
    case 1:
        if (cfg_element *c = a.pick_item(a.conns))
            a.assign(c, "name", 5);
        break;
    default:
        cfg_add_listelem(a.ctx(), a.users,
                         cfg_new_string_with_id(a.ctx(), "stray", a.new_id().c_str()));
        a.edits.push_back("append string to users");
    }
}
void repair_structure(A &a)
{
    for (cfg_element *list : {a.conns, a.users, a.certs})
        for (int i = 0; const char *uuid = cfg_get_listelem(list, i); i++)
            if (cfg_element *e = cfg_find_by_id(a.ctx(), uuid); e && e->type != CFG_TYPE_MAP) {
                a.delete_element(e);
                break;
            }
    cfg_element *map = a.pick_map();
    if (cfg_get_mapelem(map, "colour") != nullptr)
        a.drop(map, "colour");
}

// Where an edit lands: a fixed map, or an item of a list (none when empty).
using target = cfg_element *A::*;
cfg_element *in(A &a, target where)
{
    cfg_element *e = a.*where;
    return e->type == CFG_TYPE_LIST ? a.pick_item(e) : e;
}

// Sets key of the target to a value from good, or one time in six from bad.
template <typename T>
edit set(target where, const char *key, std::vector<T> good, std::vector<T> bad)
{
    return [=](A &a) {
        if (cfg_element *map = in(a, where))
            a.assign(map, key, a.value(good, bad));
    };
}
edit drop(target where, std::vector<const char *> keys)
{
    return [=](A &a) { a.drop(in(a, where), a.pick(keys)); };
}
using S = std::string;

// Each edit picks its target and value at random; some make the tree
// invalid, others repair what earlier ones broke.
const std::vector<edit> &edits()
{
    static const std::vector<edit> kinds{
        set<S>(&A::conns, "name", {"wan", "lan", "dmz", "lab"}, {"WAN!", "averyveryverylongname"}),
        set<S>(&A::conns, "mode", {"static", "dhcp"}, {"bridge"}),
        set<int>(&A::conns, "mtu", {1500, 9000, 576}, {100, 9001}),
        set<S>(&A::conns, "address", {"10.0.0.1", "192.168.1.1"}, {"300.1.1.1"}),
        set<int>(&A::conns, "netmask", {24, 16}, {33}),
        drop(&A::conns, {"name", "mode", "mtu", "address", "netmask", "trace"}),
        [](A &a) {
            cfg_element *c = a.add_item(a.conns);
            a.assign(c, "name", a.value<S>({"wan", "lan", "dmz", "lab", "guest"}, {"WAN!"}));
            // The default mode, static, wants an address that has no default.
            if (a.rng() % 4 != 0)
                a.assign(c, "mode", "dhcp");
        },
        [](A &a) { a.delete_element(a.pick_item(a.conns)); },
        set<int>(&A::system, "loglevel", {6, 7, 0}, {8}),
        drop(&A::system, {"loglevel", "timezone", "hostname"}),
        set<S>(&A::system, "proxy_mode", {"off", "http"}, {"ftp"}),
        drop(&A::system, {"proxy_mode"}),
        set<int>(&A::network, "proxy_port", {8080, 3128}, {0}),
        set<S>(&A::system, "hostname", {"gateway", "router-2"}, {"Bad Host", ""}),
        set<int>(&A::system, "legacy_port", {1, 5}, {1, 5}), // deprecated
        set<S>(&A::users, "name", {"admin", "operator", "guest", "ops"}, {"Bad Name"}),
        set<int>(&A::users, "uid", {1000, 1500, 2500}, {999, 70000}),
        set<S>(&A::users, "role", {"admin", "viewer", "operator"}, {"root"}),
        drop(&A::users, {"name", "role", "uid", "cert"}),
        [](A &a) {
            cfg_element *u = a.add_item(a.users);
            a.assign(u, "name", a.value<S>({"admin", "operator", "guest", "ops"}, {"Bad Name"}));
            if (a.rng() % 3)
                a.assign(u, "uid", 2000);
        },
        [](A &a) { a.delete_element(a.pick_item(a.users)); },
        [](A &a) { // point a user at a certificate
            cfg_element *u = a.pick_item(a.users), *c = a.pick_item(a.certs);
            if (u != nullptr && c != nullptr)
                a.set<const char *>(u, "cert", c->uuid, S("-> ") + c->uuid, cfg_set_reference,
                                    cfg_new_reference_with_id);
        },
        [](A &a) {
            cfg_element *c = a.add_item(a.certs);
            a.assign(c, "name", "extra");
            a.add_blob(c, "certificate", material().certificate);
            if (a.rng() % 3)
                a.add_blob(c, "key", material().key);
        },
        [](A &a) { a.delete_element(a.pick_item(a.certs)); },
        [](A &a) {
            if (cfg_element *c = a.pick_item(a.certs)) {
                a.assign(c, "common_name", a.value<S>({"device.example"}, {"other.example"}));
                a.edited_certificate_members = true;
            }
        },
        break_structure,
        repair_structure,
    };
    return kinds;
}

struct verdict {
    int valid;
    message_list messages;
};

// Runs judge in a child process and returns what it wrote. Loading a copy
// of the tree moves a process-wide generation that makes everything every
// context remembers stale; done here, it would keep the edited side from
// ever using what its earlier rounds remembered.
std::string in_child(const std::function<std::string()> &judge)
{
    int fds[2];
    if (pipe(fds) != 0)
        return {};
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        // A blocking pipe takes the whole text in one write.
        std::string out = judge();
        _exit(write(fds[1], out.data(), out.size()) == static_cast<ssize_t>(out.size()) ? 0 : 1);
    }
    close(fds[1]);
    std::string out;
    char buffer[4096];
    for (ssize_t n; (n = read(fds[0], buffer, sizeof buffer)) > 0;)
        out.append(buffer, static_cast<size_t>(n));
    close(fds[0]);
    waitpid(pid, nullptr, 0);
    return out;
}

// Judges a round apart (see in_child) on copies of tree, the live elements
// before changed-data validation ran: full validation's verdict on the first
// line, then each rule the round broke, then what full validation said.
std::string judged_apart(const std::vector<json_handle> &tree, const A &a, const verdict &changed)
{
    return in_child([&] {
        appliance_copy copy(tree);
        const verdict full{cfg_validate_data(copy.ctx()), messages_with_elements(copy.ctx())};
        std::string broken;
        auto rule = [&](bool kept, const char *name) {
            if (!kept)
                broken += std::string("\n  broken: rule ") + name;
        };
        rule(a.edited_certificate_members || a.deletions_met ? changed.valid || !full.valid
                                                              : changed.valid == full.valid,
             "1");
        rule(!changed.valid || changed.messages.empty(), "2");
        rule(!full.valid || full.messages.empty(), "2");
        rule(changed.messages.size() <= 1, "3");
        std::set<std::string> unaccounted;
        for (const message_seen &m : full.messages)
            if (m.no_match())
                unaccounted.insert(m.uuid);
        rule(unaccounted.empty() ? full.messages.size() <= 1
                                 : unaccounted.size() == full.messages.size(),
             "3");
        if (!changed.messages.empty()) {
            const message_seen &reported = changed.messages.front();
            rule(unaccounted.empty() || unaccounted.count(reported.uuid), "4a");
            if (!reported.no_match() && !reported.uuid.empty()) {
                appliance_copy fresh(tree);
                cfg_element *e = cfg_find_by_id(fresh.ctx(), reported.uuid.c_str());
                while (e != nullptr && e->schema[0] == '\0')
                    e = cfg_get_parent_elem(fresh.ctx(), e);
                rule(e != nullptr && cfg_validate_subtree(fresh.ctx(), e) == 0, "4b");
            }
        }
        return std::to_string(full.valid) + broken + "\n  full " +
               describe(full.valid, full.messages);
    });
}

// One seeded sequence: rounds of edits, each judged by both validations;
// failures name the seed and the edits.
void run_sequence(unsigned seed, unsigned rounds, bool client_hooks)
{
    A a(seed, client_hooks);
    for (unsigned round = 0; round < rounds; round++) {
        const int count = std::uniform_int_distribution<int>(1, 6)(a.rng);
        for (int i = 0; i < count; i++)
            a.pick(edits())(a);
        if (client_hooks) // an edit's lookup of a committed deletion asks for it in vain
            a.clear_messages();
        std::vector<json_handle> tree = snapshot(a.ctx());
        verdict changed{cfg_validate_changed_data(a.ctx()), messages_with_elements(a.ctx())};
        const std::string judged = judged_apart(tree, a, changed);
        std::string trace = "seed " + std::to_string(seed) + ", edits:";
        for (const std::string &e : a.edits)
            trace += "\n    " + e;
        EXPECT_TRUE(!judged.empty() && judged.find("\n  broken: ") == std::string::npos)
            << trace << "\n  changed-data " << describe(changed.valid, changed.messages) << "\n"
            << (judged.empty() ? "the judging process wrote nothing" : judged);
        if (changed.valid && judged.rfind("1\n", 0) == 0 && a.rng() % 4 != 0) {
            a.commit();
        } else {
            a.clear_messages();
            a.deletions_met = a.deletions_met || !a.deleted().empty();
        }
    }
}

unsigned env_number(const char *name, unsigned fallback)
{
    const char *text = getenv(name);
    return text != nullptr ? static_cast<unsigned>(strtoul(text, nullptr, 10)) : fallback;
}

void run_sequences(unsigned count, bool client_hooks)
{
    ASSERT_TRUE(material().complete);
    const unsigned rounds = env_number("ZR_DIFF_ROUNDS", 3);
    const unsigned first = env_number("ZR_DIFF_SEED", 1);
    const testing::TestResult &result =
        *testing::UnitTest::GetInstance()->current_test_info()->result();
    zrlog_set_handler_ceiling(LOG_WARNING);
    // A handful of failing sequences tells enough; stop there.
    for (unsigned seed = first; seed < first + count && result.total_part_count() < 5; seed++)
        run_sequence(seed, rounds, client_hooks);
    zrlog_set_handler_ceiling(LOG_DEBUG);
}

} // namespace

TEST(ChangedVersusFull, RandomEditSequencesAgreeByTheRules)
{
    run_sequences(env_number("ZR_DIFF_SEQUENCES", 200), false);
}

// The client's hooks keep the validation memory too, so the same rules hold.
TEST(ChangedVersusFull, SameThroughTheClientHooks)
{
    run_sequences(env_number("ZR_DIFF_SEQUENCES", 200) / 2, true);
}
