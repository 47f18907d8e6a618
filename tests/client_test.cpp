// Sessions against a scripted daemon over a real Unix socket: connect and
// its failures, fetch on miss, data requests, bad answers, pull, commit with
// id renames, and the update object.
#include "context.h"
#include "log_capture.h"
#include "scripted_daemon.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <set>
#include <unistd.h>

using namespace zrtest;

namespace {

const char *const small_schema = R"({"root": "r", "types": {"hostname": "h", "skipped": 5},
  "nodes": {"r": {"id": "r", "type": 8, "generation": 1, "required": {"host": "h"}},
            "h": {"id": "h", "type": 4, "generation": 1}}})";

// Accepts the login and serves schema, plays steps, then reads the goodbye.
script logged_in(script steps, const std::string &schema = small_schema)
{
    steps.insert(steps.begin(), {step::answer(R"({"result": true})"),
                                 step::answer(R"({"result": true, "data": )" + schema + "}")});
    steps.push_back(step::receive());
    return steps;
}

// Answers a data request with the elements given (JSON objects, comma-separated).
step found(const std::string &elements = "")
{
    return step::answer(R"({"result": true, "data": [)" + elements + "]}");
}

std::string element_text(const char *id, const char *value, int generation)
{
    return std::string(R"({"type": 4, "id": ")") + id + R"(", "value": ")" + value +
           R"(", "generation": )" + std::to_string(generation) + "}";
}

// A scripted connection whose context fetches through the client hooks.
struct hooked_context : client_context {
    explicit hooked_context(const scripted_daemon &daemon) : client_context(daemon)
    {
        get()->get_by_id = client_cfg_get_by_id;
        get()->get_by_ids = client_cfg_get_by_ids;
    }
};

} // namespace

// Without a name the client introduces itself as program-pid.
TEST(ClientSession, ConnectSaysHelloLoadsSchemaAndDisconnectSaysGoodbye)
{
    scripted_daemon daemon(logged_in({}));
    cfg *ctx = cfg_connect(daemon.socket_path().c_str(), nullptr);
    ASSERT_NE(ctx, nullptr);
    ASSERT_NE(cfg_schema_root(ctx), nullptr);
    EXPECT_EQ(cfg_get_schema_node(ctx, "h")->flags, 0u);
    EXPECT_STREQ(cfg_get_type(ctx, "hostname"), "h");
    EXPECT_EQ(cfg_get_type(ctx, "skipped"), nullptr);
    EXPECT_EQ(daemon.request_text(0),
              R"({"method": "hello", "id": 1, "data": {"client_name": ")" +
                  std::string(program_invocation_short_name) + "-" + std::to_string(getpid()) +
                  R"("}})");
    EXPECT_EQ(daemon.request_text(1), R"({"method": "get_schema", "id": 2})");

    EXPECT_EQ(cfg_disconnect(&ctx), 1);
    EXPECT_EQ(ctx, nullptr);
    EXPECT_EQ(daemon.request_text(2), R"({"method": "goodbye", "id": 3, "data": {}})");
}

// The open descriptors (the listing's own is closed when checked).
std::set<int> open_descriptors()
{
    std::set<int> out;
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd"))
        out.insert(std::stoi(entry.path().filename()));
    std::erase_if(out, [](int fd) { return fcntl(fd, F_GETFD) == -1; });
    return out;
}

// A refused login keeps its socket open (the one descriptor it may leave);
// a refused connect leaves none.
TEST(ClientSession, ConnectFailuresLeaveOnlyTheRefusedLoginsSocket)
{
    std::set<int> before = open_descriptors();
    {
        log_capture log;
        EXPECT_EQ(cfg_connect("/nonexistent-dir/daemon.sock", "x"), nullptr);
        EXPECT_TRUE(log.has("cfg_connect_timeout: connect() failed: No such file or directory"));
    }
    EXPECT_EQ(open_descriptors(), before);
    for (const char *hello : {R"({"result": false})", R"({"result": 1})", "[]"}) {
        SCOPED_TRACE(hello);
        {
            scripted_daemon daemon({step::answer(hello)});
            log_capture log;
            EXPECT_EQ(cfg_connect(daemon.socket_path().c_str(), "x"), nullptr);
            EXPECT_TRUE(log.has("cfg_connect_timeout: Bad login result"));
            EXPECT_EQ(log.lines.back().priority, 3);
        } // the daemon's end of the connection is closed too
        std::set<int> added = open_descriptors();
        std::erase_if(added, [&](int fd) { return before.count(fd) != 0; });
        ASSERT_EQ(added.size(), 1u);
        int fd = *added.begin();
        std::string target = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd));
        EXPECT_EQ(target.rfind("socket:", 0), 0u) << target;
        close(fd);
    }
}

TEST(ClientSession, RequestsWithoutAConnectionSendNothing)
{
    context_handle ctx;
    cfg *c = ctx.get();
    c->get_by_id = client_cfg_get_by_id;
    EXPECT_EQ(cfg_get_by_id(c, "x"), nullptr);
    EXPECT_EQ(cfg_message_count(c), 1);
    EXPECT_EQ(cfg_lock(c, 1), 0);
    EXPECT_EQ(cfg_commit(c), 0);
    EXPECT_EQ(cfg_subscribe(c, "n", 1, nullptr, nullptr, nullptr, "p", nullptr), 0);
    EXPECT_EQ(cfg_fetch_by_path(c, "a"), nullptr);
}

TEST(ClientFetch, LookupsFetchWhatIsMissingOnceAndMapNothingElse)
{
    scripted_daemon daemon(logged_in({
        found(element_text("s1", "one", 1)), found(element_text("s2", "two", 1))}));
    session s(daemon.socket_path(), "tester");
    ASSERT_NE(s.ctx, nullptr);

    EXPECT_EQ(string_of(cfg_get_by_id(s.ctx, "s1")), "one");
    EXPECT_EQ(daemon.request_text(2),
              R"({"method": "get_data_by_id", "id": 3, "data": {"ids": ["s1"]}})");
    EXPECT_EQ(string_of(cfg_get_by_id(s.ctx, "s1")), "one");

    char s1[] = "s1", s2[] = "s2", zz[] = "zz";
    char *ids[] = {s1, s2, zz, nullptr};
    cfg_element **found = cfg_get_by_ids(s.ctx, ids, 3);
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(string_of(found[1]), "two");
    EXPECT_EQ(found[2], nullptr);
    free(found);
    // The held s1 was not asked for again.
    EXPECT_EQ(daemon.request_text(3),
              R"({"method": "get_data_by_id", "id": 4, "data": {"ids": ["s2", "zz"]}})");

    free(cfg_get_by_ids(s.ctx, ids, 2));
    EXPECT_EQ(daemon.request_count(), 4u) << "both were held";
    EXPECT_EQ(cfg_message_count(s.ctx), 0);
}

// A lookup asks only for what is not held. An answer that also carries a
// held element must not replace it: a validation walk holds the root map
// while it fetches the map's member.
TEST(ClientFetch, AnswerToALookupLeavesHeldElementsInPlace)
{
    const std::string stray_root = R"({"type": 8, "id": "root-1", "schema": "r", "value": {}})";
    scripted_daemon daemon({found(element_text("s1", "one", 1) + ", " + stray_root)});
    hooked_context c(daemon);
    json_handle schema = parse_json(small_schema);
    cfg_apply_schema(c.get(), json_object_get(schema.get(), "nodes"), nullptr,
                     json_object_get(schema.get(), "root"));
    json_handle root = parse_json(
        R"({"type": 8, "id": "root-1", "schema": "r", "generation": 1, "value": {"host": "s1"}})");
    cfg_element *held = json_to_elem(c.get(), root.get());
    ASSERT_NE(held, nullptr);

    EXPECT_EQ(cfg_validate_data(c.get()), 1);
    EXPECT_EQ(cfg_find_by_id(c.get(), "root-1"), held);
    EXPECT_STREQ(cfg_get_mapelem(held, "host"), "s1");
    EXPECT_EQ(string_of(cfg_find_by_id(c.get(), "s1")), "one");
    ASSERT_EQ(cfg_message_count(c.get()), 1);
    EXPECT_EQ(cfg_get_message_code(cfg_get_message_object(c.get(), 0)), 4)
        << "the stray copy is a protocol fault";
}

TEST(ClientFetch, BadAnswersFailWithoutLosingLocalWork)
{
    // {answer (null: the daemon closes instead), messages left}
    const std::pair<const char *, int> cases[] = {
        {R"({"data": []})", 1},
        {R"({"result": "yes", "data": []})", 0},
        {R"({"result": true, "data": {"id": "x", "type": 4}})", 0},
        {R"({"result": true, "data": [5, {"id": "x", "type": "4"}, []]})", 0},
        {R"({"result": true})", 0},
        {nullptr, 1},
    };
    for (auto [answer, messages] : cases) {
        SCOPED_TRACE(answer != nullptr ? answer : "closed");
        scripted_daemon daemon({answer != nullptr ? step::answer(answer) : step::receive()});
        hooked_context ctx(daemon);
        cfg_element *local = cfg_new_string_with_id(ctx.get(), "mine", "local");
        EXPECT_EQ(cfg_get_by_id(ctx.get(), "x"), nullptr);
        EXPECT_EQ(cfg_message_count(ctx.get()), messages);
        EXPECT_EQ(cfg_find_by_id(ctx.get(), "local"), local);
        EXPECT_TRUE(cfg_element_is_new(local));
    }
}

TEST(ClientRequests, ListSearchLockAndPath)
{
    scripted_daemon daemon({
        found(R"({"type": 4, "id": "m1", "value": "a"})"),
        found(R"({"type": 7, "id": "RESULTS", "value": ["m1"]})"),
        found(),
        step::answer(R"({"result": false})"),
        step::answer(R"({"result": true, "data": {"type": 4, "id": "m1", "value": "daemon"}})"),
        step::answer(R"({"result": true, "data": {"type": 4, "id": "p", "value": "fresh"}})"),
        step::answer(R"({"result": true, "data": {"value": "no id"}})"),
    });
    hooked_context ctx(daemon);
    cfg *c = ctx.get();
    cfg_element *list = cfg_new_list_with_id(c, "l");
    EXPECT_EQ(cfg_get_list(c, list), 1);
    EXPECT_EQ(string_of(cfg_find_by_id(c, "m1")), "a");

    cfg_condition *condition = cfg_new_string_condition("name", CFG_OPER_EQ, "a");
    cfg_element *results = cfg_search(c, "hosts", condition);
    ASSERT_NE(results, nullptr);
    EXPECT_STREQ(results->uuid, "RESULTS");
    cfg_reset(c);
    EXPECT_EQ(cfg_search(c, "hosts", nullptr), nullptr);
    EXPECT_EQ(cfg_message_count(c), 0);
    EXPECT_EQ(cfg_search(c, "hosts", nullptr), nullptr);
    EXPECT_EQ(cfg_message_count(c), 1);
    cfg_free_conditions(condition);

    EXPECT_EQ(cfg_lock(c, 3), 0) << "no such operation: nothing is sent";
    EXPECT_EQ(cfg_message_count(c), 2);

    cfg_element *held = cfg_new_string_with_id(c, "local", "m1");
    EXPECT_EQ(cfg_fetch_by_path(c, "a/b"), held);
    EXPECT_EQ(string_of(held), "local");
    EXPECT_EQ(string_of(cfg_fetch_by_path(c, "p")), "fresh");
    EXPECT_EQ(cfg_fetch_by_path(c, "q"), nullptr);
    EXPECT_EQ(daemon.request_text(4),
              R"({"method": "get_data_by_path", "id": 5, "data": {"path": "a/b"}})");
}

// Pull fetches every held element again, the new one included; a list
// keeps the future members its fetched copy lacks.
TEST(ClientPull, ConflictsKeepLocalWorkUnlessForced)
{
    const step fetches[] = {found(element_text("newer", "daemon", 5)),
                            found(element_text("same", "daemon", 2)),
                            found(element_text("plain", "daemon", 1)),
                            found(R"({"type": 7, "id": "l", "value": ["a"], "generation": 1})")};
    for (int force = 0; force <= 1; force++) {
        SCOPED_TRACE(force);
        script steps(std::begin(fetches), std::end(fetches));
        steps.insert(steps.end(), std::begin(fetches), std::end(fetches));
        steps.push_back(found());
        scripted_daemon daemon(logged_in(steps));
        session s(daemon.socket_path(), "tester");
        ASSERT_NE(s.ctx, nullptr);
        cfg *c = s.ctx;
        cfg_set_string(c, cfg_get_by_id(c, "newer"), "local")->generation = 4;
        cfg_set_string(c, cfg_get_by_id(c, "same"), "local")->generation = 2;
        cfg_get_by_id(c, "plain");
        cfg_element *list = cfg_get_by_id(c, "l");
        cfg_append_future_listid(list, "a");
        cfg_append_future_listid(list, "b");
        cfg_new_string_with_id(c, "created", "fresh");
        cfg_add_conflict(c, "stale");

        EXPECT_EQ(cfg_pull(c, force), force);
        EXPECT_EQ(string_of(cfg_find_by_id(c, "newer")), force ? "daemon" : "local");
        EXPECT_EQ(string_of(cfg_find_by_id(c, "same")), "daemon");
        EXPECT_EQ(string_of(cfg_find_by_id(c, "plain")), "daemon");
        EXPECT_EQ(string_of(cfg_find_by_id(c, "fresh")), "created");
        EXPECT_TRUE(cfg_element_is_new(cfg_find_by_id(c, "fresh")));
        EXPECT_EQ(cfg_conflict_count(c), force ? 0 : 1);
        EXPECT_STREQ(cfg_get_conflict(c, 0), force ? nullptr : "newer");
        list = cfg_find_by_id(c, "l");
        ASSERT_NE(list, nullptr);
        EXPECT_STREQ(cfg_get_future_listelem(list, 0), "b");
        EXPECT_EQ(cfg_get_future_listelem(list, 1), nullptr);
    }
}

// The conflict list keeps copies; removal takes the first equal entry and
// moves the later ones down.
TEST(ClientPull, ConflictListRemovesTheFirstEqualEntry)
{
    context_handle ctx;
    cfg *c = ctx.get();
    char id[] = "a";
    EXPECT_STREQ(cfg_add_conflict(c, id), "a");
    id[0] = 'x';
    for (const char *more : {"b", "a", "c"})
        cfg_add_conflict(c, more);
    cfg_remove_conflict(c, "a");
    cfg_remove_conflict(c, "zz");
    auto conflicts = [c] {
        texts out;
        for (int i = 0; i < cfg_conflict_count(c); i++)
            out.emplace_back(cfg_get_conflict(c, i));
        return out;
    };
    EXPECT_EQ(conflicts(), (texts{"b", "a", "c"}));
    cfg_remove_conflict(c, "c");
    cfg_remove_conflict(c, "b");
    EXPECT_EQ(conflicts(), texts{"a"});
}

TEST(ClientCommit, PushFreesLocalCopyAndMapsRenamedIds)
{
    scripted_daemon daemon(logged_in({
        found(element_text("kept", "old", 1)), found(element_text("gone", "old", 1)),
        step::answer(R"({"result": false})"),
        step::answer(R"({"result": true, "data": {"uuids": [1, {"old": "a"},
                                                           {"old": "tmp1", "new": "new-tmp1"}]}})"),
        found(element_text("new-tmp1", "made", 1))}));
    session s(daemon.socket_path(), "tester");
    ASSERT_NE(s.ctx, nullptr);
    cfg *c = s.ctx;
    cfg_new_string_with_id(c, "made", "tmp1");
    cfg_set_string(c, cfg_get_by_id(c, "kept"), "changed");
    cfg_delete_element(c, cfg_get_by_id(c, "gone"));

    EXPECT_EQ(cfg_commit(c), 0);
    EXPECT_TRUE(cfg_element_is_new(cfg_find_by_id(c, "tmp1")));
    EXPECT_EQ(cfg_commit(c), 1);
    EXPECT_EQ(c->elements, nullptr);
    json_handle push = parse_json(daemon.request_text(5)); // after the refused one
    EXPECT_STREQ(json_string_value(json_object_get(push.get(), "method")), "push");
    EXPECT_EQ(dump(json_path_get(push.get(), "data\adeleted"), 0), R"(["gone"])");
    EXPECT_EQ(json_array_size(json_path_get(push.get(), "data\achanged")), 1u);

    cfg_element *made = cfg_get_by_id(c, "tmp1");
    ASSERT_NE(made, nullptr);
    EXPECT_STREQ(made->uuid, "new-tmp1");
    char tmp1[] = "tmp1";
    char *ids[] = {tmp1, nullptr};
    cfg_element **found = client_cfg_get_by_ids(c, ids, 1);
    EXPECT_STREQ(ids[0], "new-tmp1");
    EXPECT_EQ(found[0], made);
    free(found);
    // Malformed rename pairs were skipped.
    EXPECT_EQ(HASH_COUNT(static_cast<cfg_client *>(c->client_data)->uuid_map), 1u);
    EXPECT_EQ(client_cfg_free_context_data(c), 1); // and again at disconnect
}

TEST(ClientCommit, UpdateObjectListsFlaggedWork)
{
    context_handle ctx;
    cfg *c = ctx.get();
    cfg_add_type(c, "hostname", "h");
    cfg_new_string_with_id(c, "added", "a");
    cfg_element *both = cfg_new_string_with_id(c, "made-and-deleted", "b");
    cfg_delete_element(c, both);
    cfg_element *list = cfg_new_list_with_id(c, "l");
    list->flags = 0;
    cfg_append_future_listid(list, "f");
    json_handle update(cfg_assemble_update(c));
    EXPECT_EQ(dump(update.get(), 0),
              R"({"deleted": [], "added": [{"generation": 0, "parents": [], "type": 4, "id": "a", )"
              R"("schema": "", "value": "added"}], "changed": [], )"
              R"("appended": [{"parent_id": "l", "child_id": "f"}], "schema_deleted": [], )"
              R"("schema_changed": [], "schema_added": [], "types": {"hostname": "h"}, )"
              R"("schema_root": null})");
}

// Commit drops the local copy. A list fetched afterwards that still names a
// renamed member reaches it under its new id, fetched once and then
// remembered at its position.
TEST(ClientCommit, RenamedMembersAreFollowedByPosition)
{
    scripted_daemon daemon(
        {step::answer(R"({"result": true, "data": {"uuids": [{"old": "b", "new": "c"}]}})"),
         step::answer(R"({"result": true, "data": [{"id": "l", "type": 7, "value": ["b"]}]})"),
         step::answer(R"({"result": true, "data": [{"id": "c", "type": 3, "value": 5}]})")});
    hooked_context ctx(daemon);
    cfg_element *list = cfg_new_list_with_id(ctx.get(), "l");
    cfg_element *b = cfg_new_int_with_id(ctx.get(), 1, "b");
    cfg_add_listelem(ctx.get(), list, b);
    EXPECT_EQ(cfg_get_child_by_path(ctx.get(), list, "[0]"), b);
    EXPECT_EQ(cfg_commit(ctx.get()), 1);
    list = cfg_get_by_id(ctx.get(), "l");
    ASSERT_NE(list, nullptr);
    cfg_element *c = cfg_get_child_by_path(ctx.get(), list, "[0]");
    ASSERT_NE(c, nullptr);
    EXPECT_STREQ(c->uuid, "c");
    EXPECT_EQ(cfg_get_child_by_path(ctx.get(), list, "[0]"), c);
    EXPECT_EQ(daemon.request_count(), 3u);
}
