// zrconfigd end to end: the real daemon on a temporary socket and database,
// driven by the real library (and, for bad frames, by raw sockets).
#include "context.h"
#include "daemon_process.h"

#include <atomic>
#include <barrier>
#include <functional>
#include <fstream>
#include <grp.h>
#include <numeric>
#include <random>
#include <sqlite3.h>
#include <sstream>
#include <sys/resource.h>

namespace zrtest {
namespace {

using Daemon = example_appliance_test;

std::vector<int> codes_of(cfg *ctx)
{
    std::vector<int> out;
    for (int i = 0; i < cfg_message_count(ctx); i++)
        out.push_back(cfg_get_message_code(cfg_get_message_object(ctx, i)));
    return out;
}

std::string string_at(cfg *ctx, const char *path)
{
    return string_of(cfg_get_by_path(ctx, path));
}

// Sets the string at path, validates the change and commits it.
int commit_string(cfg *ctx, const char *path, const char *value)
{
    cfg_element *e = cfg_get_by_path(ctx, path);
    if (e == nullptr || cfg_set_string(ctx, e, value) == nullptr)
        return -1;
    if (!cfg_validate_changed_data(ctx))
        return -2;
    return cfg_commit(ctx);
}

// Appends a connection {name, mode "dhcp"} to network.conns.
cfg_element *add_connection(cfg *ctx, const char *name)
{
    cfg_element *conns = cfg_get_by_path(ctx, "network.conns");
    cfg_element *conn = cfg_new_map(ctx);
    if (conns == nullptr || conn == nullptr)
        return nullptr;
    cfg_map_set_string(ctx, conn, "name", name);
    cfg_map_set_string(ctx, conn, "mode", "dhcp");
    cfg_add_listelem(ctx, conns, conn);
    return conn;
}

// Raw bytes out, one frame back (null when the daemon closed or sent junk).
json_handle send_raw(int fd, const std::string &bytes)
{
    if (write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()))
        return nullptr;
    return json_handle(cfg_receive_timeout(fd, 5000));
}

int first_code(json_t *answer)
{
    return static_cast<int>(json_integer_value(
        json_object_get(json_array_get(json_object_get(answer, "messages"), 0), "code")));
}

// A commit of data and a schema member is served to the next session and
// after a restart; the old id of a new element leads to the daemon's copy.
TEST_F(Daemon, CommitIsServedToOthersAndAfterARestart)
{
    daemon_process d;
    {
        client c(d);
        ASSERT_NE(c.ctx, nullptr);
        EXPECT_EQ(string_of(cfg_fetch_by_path(c, "network.conns[0].name")), "wan");
        EXPECT_EQ(cfg_get_by_id(c, "no-such-id"), nullptr);
        EXPECT_EQ(codes_of(c), std::vector<int>{29});
        cfg_free_message_stack(c);

        cfg_element *system = cfg_get_by_path(c, "system");
        ASSERT_NE(system, nullptr);
        cfg_schema_element *location = cfg_new_schema_string(c, 1, 32, 1, 1, nullptr, nullptr);
        ASSERT_TRUE(cfg_add_schema_mapelem(c, cfg_get_schema_node(c, system->schema), 1,
                                           "location", location));
        cfg_map_set_string(c, system, "location", "rack 4");
        cfg_element *conn = add_connection(c, "lab");
        ASSERT_NE(conn, nullptr);
        std::string new_id = conn->uuid;
        ASSERT_EQ(commit_string(c, "system.hostname", "fw2"), 1)
            << testing::PrintToString(messages_of(c));
        cfg_element *fetched = cfg_get_by_id(c, new_id.c_str());
        ASSERT_NE(fetched, nullptr);
        EXPECT_TRUE(isdigit(static_cast<unsigned char>(fetched->uuid[strlen(fetched->uuid) - 1])))
            << "the daemon's own id ends in digits";
        client other(d);
        EXPECT_EQ(string_at(other, "system.hostname"), "fw2");
    }
    d.stop();
    ASSERT_TRUE(d.start());
    client c(d);
    EXPECT_EQ(string_at(c, "network.conns[4].name"), "lab");
    int mtu = 0;
    EXPECT_TRUE(cfg_simple_int_value_by_path(c, &mtu, "network.conns[4].mtu"));
    EXPECT_EQ(mtu, 1500) << "the daemon's validation filled the default";
    EXPECT_EQ(string_at(c, "system.location"), "rack 4");
    // The new member's schema came back too: a longer value than it allows is
    // refused by the daemon.
    cfg_set_string(c, cfg_get_by_path(c, "system.location"), std::string(40, 'x').c_str());
    EXPECT_EQ(cfg_commit(c), 0);
    EXPECT_EQ(codes_of(c), std::vector<int>{11});
}

// Each push is refused with its code and leaves the stored data as it was;
// the daemon serves on.
// A session validates the tree it fetches while the walk runs, then edits:
// a rename that repeats a name is refused from what the first run kept,
// and the repaired edit goes through.
TEST_F(Daemon, SessionValidatesWhatItFetchesAndJudgesEditsAfterwards)
{
    daemon_process d;
    client c(d);
    ASSERT_NE(c.ctx, nullptr);
    ASSERT_NE(cfg_root(c), nullptr);
    const unsigned held = HASH_COUNT(c.ctx->elements);
    EXPECT_EQ(cfg_validate_data(c), 1) << codes_of(c).size();
    EXPECT_GT(HASH_COUNT(c.ctx->elements), held + 20) << "the walk fetched the tree";
    cfg_free_message_stack(c);

    cfg_element *name = cfg_get_by_path(c, "network.conns[3].name");
    ASSERT_NE(cfg_set_string(c, name, "lan"), nullptr);
    EXPECT_EQ(cfg_validate_changed_data(c), 0);
    EXPECT_FALSE(codes_of(c).empty());
    cfg_free_message_stack(c);
    name = cfg_get_by_path(c, "network.conns[3].name");
    ASSERT_NE(cfg_set_string(c, name, "oob"), nullptr);
    EXPECT_EQ(cfg_validate_changed_data(c), 1);
    EXPECT_EQ(cfg_commit(c), 1);

    client other(d);
    EXPECT_EQ(string_at(other, "network.conns[3].name"), "oob");
}

TEST_F(Daemon, RefusedPushesChangeNothing)
{
    daemon_process d;
    struct refusal {
        const char *what;
        std::function<void(cfg *)> edit;
        int code;
    };
    const refusal cases[] = {
        {"member only the daemon validates",
         [](cfg *c) {
             add_connection(c, "bad name!");
             cfg_set_string(c, cfg_get_by_path(c, "system.hostname"), "changed");
         },
         14},
        {"deleted root", [](cfg *c) { cfg_delete_element(c, cfg_root(c)); }, 43},
        {"map type that requires a map of its own type",
         [](cfg *c) {
             cfg_element *system = cfg_get_by_path(c, "system");
             cfg_schema_element *loop = cfg_new_schema_map(c);
             cfg_add_schema_mapelem(c, loop, 0, "again", loop);
             cfg_add_schema_mapelem(c, cfg_get_schema_node(c, system->schema), 1, "loop", loop);
             cfg_add_mapelem(c, system, "loop", cfg_new_map(c));
         },
         31},
        {"edit of a copy another session committed over",
         [&d](cfg *c) {
             cfg_element *mine = cfg_get_by_path(c, "system.hostname");
             client first(d);
             ASSERT_EQ(commit_string(first, "system.hostname", "fw1"), 1);
             cfg_set_string(c, mine, "second");
         },
         32},
    };
    for (const refusal &r : cases) {
        SCOPED_TRACE(r.what);
        client c(d);
        r.edit(c);
        EXPECT_EQ(cfg_commit(c), 0);
        EXPECT_EQ(codes_of(c), std::vector<int>{r.code});
        client reader(d);
        EXPECT_EQ(string_at(reader, "system.hostname"), "fw1");
        EXPECT_EQ(cfg_get_by_path(reader, "network.conns[4]"), nullptr);
        EXPECT_EQ(cfg_get_by_path(reader, "system.loop"), nullptr);
    }
}

TEST_F(Daemon, TransactionSavedAtDisconnectIsCommittedLater)
{
    daemon_process d;
    std::string id;
    {
        client c(d);
        free(c->transaction_dir);
        c->transaction_dir = strdup(d.dir().path().c_str());
        id = cfg_transaction_start(c);
        cfg_set_string(c, cfg_get_by_path(c, "system.hostname"), "pending");
    }
    client later(d);
    free(later->transaction_dir);
    later->transaction_dir = strdup(d.dir().path().c_str());
    const std::string file = d.dir().file(id + ".transaction");
    ASSERT_TRUE(std::filesystem::exists(file));
    ASSERT_EQ(cfg_transaction_open(later, id.c_str()), 1);
    ASSERT_EQ(cfg_commit(later), 1) << testing::PrintToString(messages_of(later));
    EXPECT_EQ(cfg_in_transaction(later), 0);
    EXPECT_FALSE(std::filesystem::exists(file)) << "a commit removes the file";
    client reader(d);
    EXPECT_EQ(string_at(reader, "system.hostname"), "pending");
}

// The names of the connections a search with condition (taken) finds.
texts names_found(cfg *c, cfg_condition *condition)
{
    cfg_element *results = cfg_search(c, "network.conns", condition);
    cfg_free_conditions(condition);
    texts names;
    unsigned count = 0;
    if (results != nullptr)
        cfg_list_size(results, &count);
    for (unsigned i = 0; i < count; i++)
        names.push_back(string_of(cfg_simple_get_by_path(c, "(RESULTS)[%u].name", i)));
    return names;
}

TEST_F(Daemon, SearchRunsConditionsAndRefusesUnknownFields)
{
    daemon_process d;
    client c(d);
    EXPECT_EQ(names_found(c, cfg_new_string_condition("mode", CFG_OPER_EQ, "static")),
              (texts{"lan", "dmz", "mgmt"}));
    cfg_condition *either = cfg_new_or_condition();
    cfg_condition_add_child(either, cfg_new_string_condition("name", CFG_OPER_LIKE_FIRST, "w%"));
    cfg_condition_add_child(either, cfg_new_int_condition("mtu", CFG_OPER_GT, 1500));
    EXPECT_EQ(names_found(c, either), (texts{"wan", "dmz"}));

    EXPECT_EQ(cfg_message_count(c), 0);
    for (const char *field : {"name = name) OR (1", "no_such_field"})
        EXPECT_EQ(names_found(c, cfg_new_string_condition(field, CFG_OPER_EQ, "x")), texts{});
    EXPECT_EQ(codes_of(c), (std::vector<int>{48, 4, 48, 4}));
}

TEST_F(Daemon, LocksShutOutOtherSessions)
{
    daemon_process d;
    client owner(d), other(d);
    ASSERT_EQ(cfg_lock(owner, 1), 1);
    EXPECT_EQ(cfg_lock(other, 1), 0);
    EXPECT_EQ(cfg_lock(other, 2), 0);
    EXPECT_EQ(commit_string(other, "system.hostname", "blocked"), 0);
    EXPECT_EQ(codes_of(other), (std::vector<int>{37, 37, 37}));
    cfg_reset(other);
    EXPECT_EQ(string_at(other, "system.hostname"), "fw1") << "reads never wait";
    ASSERT_EQ(cfg_lock(owner, 2), 1);
    EXPECT_EQ(cfg_lock(other, 2), 1) << "read locks are shared";
    EXPECT_EQ(cfg_lock(other, 1), 0);
    ASSERT_EQ(cfg_lock(owner, 0), 1);
    ASSERT_EQ(cfg_lock(other, 0), 1);
    EXPECT_EQ(commit_string(other, "system.hostname", "free"), 1);
    // A lock goes with its session.
    ASSERT_EQ(cfg_lock(owner, 1), 1);
    cfg_disconnect(&owner.ctx);
    EXPECT_EQ(cfg_lock(other, 1), 1);
}

TEST_F(Daemon, BadFramesAreAnsweredWithoutHarm)
{
    daemon_process d({"--max-frame", "1024"});
    int fd = d.connect_raw();
    ASSERT_GE(fd, 0);
    const std::pair<std::string, int> kept_open[] = {
        {"{not json", 39},
        {"[1, 2]", 39},
        {R"({"method": "reboot", "id": 1})", 47},
        {R"({"method": "get_data_by_path", "id": 2})", 40},
        {R"({"id": 3})", 40},
    };
    for (const auto &[payload, code] : kept_open) {
        json_handle answer = send_raw(fd, frame(payload));
        ASSERT_NE(answer, nullptr) << payload;
        EXPECT_FALSE(json_is_true(json_object_get(answer.get(), "result")));
        EXPECT_EQ(first_code(answer.get()), code) << payload;
    }
    json_handle hello = send_raw(fd, frame(R"({"method": "hello", "id": 4, "data": {}})"));
    EXPECT_TRUE(json_is_true(json_object_get(hello.get(), "result")));
    close(fd);

    for (uint32_t length : {0u, 1025u}) {
        fd = d.connect_raw();
        json_handle answer = send_raw(fd, frame_prefix(length));
        EXPECT_EQ(first_code(answer.get()), 39) << length;
        char byte;
        EXPECT_EQ(read(fd, &byte, 1), 0) << "the stream is closed after a bad length";
        close(fd);
    }
    // A client that vanishes inside a frame costs only its own session.
    fd = d.connect_raw();
    std::string part = frame_prefix(100) + "{\"meth";
    ASSERT_EQ(write(fd, part.data(), part.size()), ssize_t(part.size()));
    close(fd);
    {
        client c(d);
        EXPECT_EQ(string_at(c, "system.hostname"), "fw1");
    }
    EXPECT_EQ(d.stop(), 0);
    EXPECT_FALSE(std::filesystem::exists(d.socket_path())) << "the socket file goes at stop";
}

// Subscribes name to run a shell command.
int subscribe(cfg *ctx, const char *name, int priority, texts paths, texts before, texts after,
              const std::string &command)
{
    texts args{"-c", command};
    auto p = c_strings(paths), b = c_strings(before), a = c_strings(after), g = c_strings(args);
    return cfg_subscribe(ctx, name, priority, p.data(), b.data(), a.data(), "/bin/sh", g.data());
}

TEST_F(Daemon, SubscriptionsRunInOrderWithTheChangesetAndReport)
{
    daemon_process d;
    std::string out = d.dir().file("changes.json"), order = d.dir().file("order");
    client c(d);
    auto logs = [&](const char *name) { return "echo " + std::string(name) + " >> " + order; };
    ASSERT_EQ(subscribe(c, "receiver", 1, {"system"}, {}, {}, logs("receiver") + "; cat > " + out),
              1);
    ASSERT_EQ(subscribe(c, "failing", 5, {}, {}, {}, logs("failing") + "; exit 3"), 1);
    ASSERT_EQ(subscribe(c, "first", 9, {}, {"receiver"}, {}, logs("first")), 1);
    ASSERT_EQ(subscribe(c, "elsewhere", 0, {"network"}, {}, {}, logs("elsewhere")), 1);
    EXPECT_EQ(subscribe(c, "cycle", 0, {}, {"first"}, {"receiver"}, logs("cycle")), 0);
    EXPECT_EQ(codes_of(c), std::vector<int>{48});
    cfg_free_message_stack(c);

    ASSERT_EQ(commit_string(c, "system.hostname", "fw9"), 1);
    EXPECT_EQ(codes_of(c), (std::vector<int>{75, 74, 74}));
    EXPECT_EQ(read_file(order), "failing\nfirst\nreceiver\n");
    json_handle changes = parse_json(read_file(out));
    json_t *changed = json_array_get(json_object_get(changes.get(), "changed"), 0);
    EXPECT_STREQ(json_string_value(json_object_get(changed, "value")), "fw9");

    // Subscriptions outlive the daemon.
    cfg_disconnect(&c.ctx);
    d.stop();
    ASSERT_TRUE(d.start());
    client again(d);
    ASSERT_EQ(commit_string(again, "system.hostname", "fw10"), 1);
    EXPECT_EQ(read_file(order), "failing\nfirst\nreceiver\nfailing\nfirst\nreceiver\n");
}

TEST_F(Daemon, HangingSubscriptionIsKilledWhileOthersRead)
{
    // Longer than the client's 10-second wait: only keep-alives save it.
    daemon_process d({"--script-timeout", "11"});
    client pusher(d), reader(d);
    ASSERT_EQ(subscribe(pusher, "hangs", 0, {}, {}, {}, "exec sleep 60"), 1);
    std::atomic<int> result{-1};
    std::thread push([&] { result = commit_string(pusher, "system.hostname", "slow"); });
    int reads = 0;
    while (result == -1) {
        cfg_reset(reader);
        if (string_at(reader, "system.hostname") == "slow")
            reads++;
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    push.join();
    EXPECT_EQ(result, 1);
    EXPECT_EQ(codes_of(pusher), std::vector<int>{76});
    EXPECT_GT(reads, 20) << "the committed value is served while the program runs";
}

TEST_F(Daemon, AcknowledgedPushesSurviveSigkill)
{
    daemon_process d;
    std::atomic<int> acknowledged{0};
    std::thread pusher([&] {
        client c(d, "pusher");
        for (int i = 0; c.ctx != nullptr; i++) {
            std::string name = "c" + std::to_string(i);
            if (add_connection(c, name.c_str()) == nullptr || cfg_commit(c) != 1)
                break;
            acknowledged = i + 1;
        }
    });
    std::mt19937 rng(std::random_device{}());
    std::this_thread::sleep_for(std::chrono::milliseconds(100 + rng() % 400));
    d.kill_now();
    pusher.join();
    ASSERT_GT(acknowledged, 0);
    ASSERT_TRUE(d.start()) << d.log();
    client r(d);
    std::vector<std::string> names;
    for (int i = 0; cfg_simple_get_by_path(r, "network.conns[%d]", i) != nullptr; i++) {
        int mtu = 0;
        EXPECT_TRUE(cfg_simple_int_value_by_path(r, &mtu, "network.conns[%d].mtu", i))
            << "whole members only";
        names.push_back(string_at(r, ("network.conns[" + std::to_string(i) + "].name").c_str()));
    }
    const size_t initial = 4; // the example's connections
    ASSERT_GE(names.size(), initial + acknowledged);
    EXPECT_LE(names.size(), initial + 1 + acknowledged) << "at most the push in flight is extra";
    for (int i = 0; i < acknowledged; i++)
        EXPECT_EQ(names[initial + static_cast<size_t>(i)], "c" + std::to_string(i));
}

// A daemon restarted on its database keeps checkpointing the write-ahead
// log into the database file: past the first checkpoint the log is reused,
// instead of growing with every push for as long as the daemon runs.
TEST_F(Daemon, WriteAheadLogStopsGrowingAfterARestart)
{
    daemon_process d;
    d.stop();
    ASSERT_TRUE(d.start());
    client c(d);
    std::string wal = d.dir().file("config.db-wal");
    auto commits_then_log_size = [&](int count) {
        for (int i = 0; i < count; i++)
            if (commit_string(c, "system.hostname", ("fw" + std::to_string(i)).c_str()) != 1)
                return std::uintmax_t{0};
        return std::filesystem::file_size(wal);
    };
    std::uintmax_t first = commits_then_log_size(300);
    ASSERT_GT(first, 0u);
    EXPECT_LT(commits_then_log_size(300), first + first / 4);
}

// A damaged id counter stops the start with a line that names it; read in
// part or wrapped, it would hand out ids that are already taken.
TEST_F(Daemon, StartRefusesADamagedIdCounter)
{
    daemon_process d;
    d.stop();
    std::string db = d.dir().file("config.db"), log = d.dir().file("restart.log");
    for (const char *damaged : {"12abc", "-1", "", "99999999999999999999999"}) {
        sqlite3 *handle = nullptr;
        ASSERT_EQ(sqlite3_open(db.c_str(), &handle), SQLITE_OK);
        std::string sql = std::string("UPDATE meta SET value = '") + damaged +
                          "' WHERE key = 'next_id'";
        EXPECT_EQ(sqlite3_exec(handle, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK);
        EXPECT_EQ(sqlite3_changes(handle), 1);
        sqlite3_close(handle);
        unlink(log.c_str());
        pid_t pid = spawn({ZRCONFIGD_PATH, "--socket", d.dir().file("again.sock"), "--db", db,
                           "--foreground"},
                          log);
        EXPECT_EQ(exit_status_within(pid, 10), 1) << damaged;
        EXPECT_NE(read_file(log).find("id counter (next_id) reads \"" + std::string(damaged)),
                  std::string::npos)
            << read_file(log);
    }
}

TEST_F(Daemon, StartRefusesInvalidDataAndNeverDisplacesALiveDaemon)
{
    temp_dir dir;
    std::string data = dir.file("bad.json"), log = dir.file("log");
    std::ofstream(data) << R"({"system": {"hostname": "fw1"},
        "network": {"conns": [{"name": "lan", "mode": "static"}]}})";
    EXPECT_EQ(exit_status(spawn({ZRCONFIGD_PATH, "--socket", dir.file("s"), "--db", dir.file("db"),
                                 "--schema", appliance_file("schema.json"), "--data", data,
                                 "--foreground"}, log)), 1);
    EXPECT_NE(read_file(log).find("error: network.conns[0]: Required field 'address' is not "
                                  "present"),
              std::string::npos)
        << read_file(log);

    // Neither on its socket nor on its database: a second daemon serving the
    // same file would overwrite the first one's pushes.
    daemon_process live;
    std::string live_db = live.dir().file("config.db"), text = dir.file("notes.txt");
    std::ofstream(text) << std::string(200, 'x');
    struct start {
        std::string socket, db, says;
    };
    const start refused[] = {
        {live.socket_path(), dir.file("other.db"), "another daemon answers on"},
        {dir.file("second.sock"), live_db, "database " + live_db + " is in use"},
        {dir.file("third.sock"), text, "database " + text + ": file is not a database"},
        {dir.file("fourth.sock"), dir.path(), "database " + dir.path() + ": Is a directory"},
    };
    for (const start &r : refused) {
        unlink(log.c_str());
        pid_t pid = spawn({ZRCONFIGD_PATH, "--socket", r.socket, "--db", r.db, "--schema",
                           appliance_file("schema.json"), "--data", appliance_file("config.json"),
                           "--foreground"},
                          log);
        EXPECT_EQ(exit_status_within(pid, 10), 1);
        EXPECT_NE(read_file(log).find(r.says), std::string::npos) << read_file(log);
    }
    client c(live);
    EXPECT_EQ(string_at(c, "system.hostname"), "fw1");
}

// Starts the daemon on a new database in dir, with limits that limit() sets
// in the child before the daemon starts; its pid once it accepts
// connections, else -1, the daemon stopped (its standard error goes to
// dir's "log").
template <typename Limit> pid_t start_limited(const temp_dir &dir, Limit limit)
{
    std::string socket = dir.file("s"), db = dir.file("db"), log = dir.file("log");
    std::string schema = appliance_file("schema.json"), data = appliance_file("config.json");
    pid_t pid = fork();
    if (pid == 0) {
        int err = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0666);
        if (err < 0 || dup2(err, STDERR_FILENO) < 0 || close(err) != 0 || !limit())
            _exit(127);
        execl(ZRCONFIGD_PATH, ZRCONFIGD_PATH, "--socket", socket.c_str(), "--db", db.c_str(),
              "--schema", schema.c_str(), "--data", data.c_str(), "--foreground", nullptr);
        _exit(127);
    }
    for (int i = 0; pid > 0 && i < 1200; i++) {
        int fd = connect_unix(socket);
        if (fd >= 0)
            return close(fd) == 0 ? pid : -1;
        if (waitpid(pid, nullptr, WNOHANG) == pid)
            return -1;
        std::this_thread::sleep_for(std::chrono::milliseconds(25));
    }
    if (pid > 0)
        exit_status_within(pid, 0); // never ready: stopped, not left behind
    return -1;
}

// As uid and gid 65534, with at most `threads` processes and threads for
// that user.
pid_t start_as_nobody_with_few_threads(const temp_dir &dir, rlim_t threads)
{
    chmod(dir.path().c_str(), 0777);
    return start_limited(dir, [threads] {
        struct rlimit few = {threads, threads};
        return setgroups(0, nullptr) == 0 && setgid(65534) == 0 && setuid(65534) == 0 &&
               setrlimit(RLIMIT_NPROC, &few) == 0;
    });
}

// The CPU time the process has used so far, in seconds.
double cpu_seconds_of(pid_t pid)
{
    std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
    std::istringstream fields(stat.substr(stat.rfind(')') + 2));
    std::string field;
    unsigned long long user = 0, system = 0;
    for (int i = 3; i <= 15 && fields >> field; i++) {
        if (i == 14)
            user = std::stoull(field);
        if (i == 15)
            system = std::stoull(field);
    }
    return static_cast<double>(user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// Out of descriptors, the daemon waits for sessions to end instead of
// spinning on the connections it cannot take, and serves again after.
TEST_F(Daemon, RunningOutOfDescriptorsNeitherSpinsNorStopsServing)
{
    temp_dir dir;
    pid_t pid = start_limited(dir, [] {
        struct rlimit few = {24, 24};
        return setrlimit(RLIMIT_NOFILE, &few) == 0;
    });
    ASSERT_GT(pid, 0) << read_file(dir.file("log"));
    // One whole session first, while descriptors are free: the undefined-
    // behaviour sanitizer checks an object's type the first time through a
    // pipe, and without descriptors it would call the session's end invalid.
    {
        session c(dir.file("s"));
        EXPECT_EQ(string_at(c, "system.hostname"), "fw1");
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    std::vector<int> held;
    for (int i = 0; i < 40; i++)
        held.push_back(connect_unix(dir.file("s")));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    double before = cpu_seconds_of(pid);
    std::this_thread::sleep_for(std::chrono::seconds(1));
    EXPECT_LT(cpu_seconds_of(pid) - before, 0.5) << "the accept loop spins";
    for (int fd : held)
        close(fd);
    // The connections still queued are taken and ended a few at a time as
    // descriptors come free; until the queue has room, connecting is refused.
    bool served = false;
    for (int i = 0; i < 200 && !served; i++) {
        session c(dir.file("s"));
        served = c && string_at(c, "system.hostname") == "fw1";
        if (!served)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    EXPECT_TRUE(served) << read_file(dir.file("log"));
    kill(pid, SIGTERM);
    EXPECT_EQ(exit_status_within(pid, 10), 0);
    EXPECT_NE(read_file(dir.file("log")).find("cannot accept connections"), std::string::npos)
        << read_file(dir.file("log"));
}

// A connection the daemon cannot start a session thread for is turned away;
// the daemon serves on.
TEST_F(Daemon, ConnectionsBeyondItsThreadsAreTurnedAway)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to run the daemon as another user";
    temp_dir dir;
    pid_t pid = start_as_nobody_with_few_threads(dir, 12);
    ASSERT_GT(pid, 0) << read_file(dir.file("log"));
    std::vector<int> held;
    for (int i = 0; i < 40; i++)
        held.push_back(connect_unix(dir.file("s")));
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    for (int fd : held)
        close(fd);
    std::this_thread::sleep_for(std::chrono::milliseconds(1500)); // ended sessions are reaped
    {
        session c(dir.file("s"));
        EXPECT_EQ(string_at(c, "system.hostname"), "fw1") << read_file(dir.file("log"));
    }
    kill(pid, SIGTERM);
    EXPECT_EQ(exit_status_within(pid, 10), 0) << read_file(dir.file("log"));
}

TEST_F(Daemon, RefusesPeersOutsideItsUsersAndGroup)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to connect as another user";
    daemon_process d;
    chmod(d.dir().path().c_str(), 0755);
    chmod(d.socket_path().c_str(), 0666); // as if the socket were exposed by mistake
    pid_t child = fork();
    if (child == 0) {
        if (setgid(65534) != 0 || setuid(65534) != 0)
            _exit(2);
        int fd = d.connect_raw();
        json_t *answer = cfg_receive_timeout(fd, 5000);
        _exit(answer != nullptr && first_code(answer) == 46 ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

// The number after the letter of a name such as "a12"; -1 when there is none.
int number_in(const std::string &name)
{
    bool numbered = name.size() > 1 && isdigit(static_cast<unsigned char>(name[1]));
    return numbered ? std::stoi(name.substr(1)) : -1;
}

// Renames the first two connections to a<n> and b<n>, n one above the
// number the daemon holds now, without committing; n, or -1.
int rename_pair(cfg *ctx)
{
    cfg_reset(ctx);
    int n = number_in(string_at(ctx, "network.conns[0].name")) + 1;
    cfg_element *a = cfg_get_by_path(ctx, "network.conns[0].name");
    cfg_element *b = cfg_get_by_path(ctx, "network.conns[1].name");
    if (a == nullptr || b == nullptr)
        return -1;
    cfg_set_string(ctx, a, ("a" + std::to_string(n)).c_str());
    cfg_set_string(ctx, b, ("b" + std::to_string(n)).c_str());
    return n;
}

// Sets the integer at path and commits it, trying again while another
// session holds the lock; true once acknowledged.
bool set_own(cfg *ctx, const char *path, int value)
{
    for (int tries = 0; tries < 200; tries++) {
        cfg_free_message_stack(ctx);
        cfg_reset(ctx);
        cfg_element *e = cfg_get_by_path(ctx, path);
        if (e == nullptr || cfg_set_int(ctx, e, value) == nullptr)
            return false;
        if (cfg_commit(ctx) == 1)
            return true;
        if (codes_of(ctx) != std::vector<int>{37})
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return false;
}

// Sessions pushing at once, on the same elements and on their own, with a
// lock holder, a reader and a subscriber: no two pushes from the same
// generation both win, no session's own edit is refused, a reader sees a
// push whole or not at all, and what was acknowledged survives a restart.
TEST_F(Daemon, ConcurrentSessionsLoseNoUpdateAndSeeNoHalfPush)
{
    daemon_process d;
    {
        client setup(d);
        ASSERT_EQ(subscribe(setup, "watch", 0, {"network"}, {}, {}, "cat > /dev/null"), 1);
        ASSERT_EQ(rename_pair(setup), 0);
        ASSERT_EQ(cfg_commit(setup), 1);
    }
    constexpr int writers = 3, rounds = 20;
    const char *own[writers] = {"network.conns[2].mtu", "network.conns[3].mtu",
                                "network.conns[3].netmask"};
    std::mutex mutex;
    std::vector<int> won;
    std::vector<std::string> faults;
    std::atomic<bool> writing{true};
    std::barrier round_start(writers), all_read(writers);
    auto fault = [&](std::string what) {
        std::lock_guard<std::mutex> guard(mutex);
        faults.push_back(std::move(what));
    };
    auto writer = [&](int w) {
        client c(d, "writer");
        for (int i = 1; i <= rounds; i++) {
            round_start.arrive_and_wait();
            bool locked = w == 0 && i % 2 == 1 && cfg_lock(c, 1) == 1;
            cfg_free_message_stack(c);
            int n = rename_pair(c);
            all_read.arrive_and_wait(); // every writer pushes from the same generation
            if (n > 0 && cfg_commit(c) == 1) {
                std::lock_guard<std::mutex> guard(mutex);
                won.push_back(n);
            } else if (locked || (codes_of(c) != std::vector<int>{32} &&
                                  codes_of(c) != std::vector<int>{37}))
                fault(std::string(locked ? "locked " : "") + "push refused with " +
                      testing::PrintToString(codes_of(c)));
            if (!set_own(c, own[w], w == 2 ? i : 1000 + i))
                fault(std::string(own[w]) + " refused: " +
                      testing::PrintToString(codes_of(c)));
            if (locked)
                cfg_lock(c, 0);
            cfg_free_message_stack(c);
        }
    };
    std::thread reader([&] {
        client c(d, "reader");
        while (writing) {
            cfg_reset(c);
            cfg_element *conns = cfg_get_by_path(c, "network.conns");
            if (conns == nullptr || cfg_get_list(c, conns) != 1) {
                fault("list not served");
                return; // one fault says it: the reader stops
            }
            std::string a = string_at(c, "network.conns[0].name"),
                        b = string_at(c, "network.conns[1].name");
            if (number_in(a) != number_in(b))
                return fault("half a push: " + a + " with " + b);
        }
    });
    std::vector<std::thread> threads;
    for (int w = 0; w < writers; w++)
        threads.emplace_back(writer, w);
    for (std::thread &t : threads)
        t.join();
    writing = false;
    reader.join();
    EXPECT_EQ(faults, std::vector<std::string>{});
    std::sort(won.begin(), won.end());
    std::vector<int> one_per_round(rounds);
    std::iota(one_per_round.begin(), one_per_round.end(), 1);
    ASSERT_EQ(won, one_per_round);

    d.kill_now();
    ASSERT_TRUE(d.start()) << d.log();
    client after(d);
    EXPECT_EQ(string_at(after, "network.conns[0].name"), "a" + std::to_string(won.back()));
    EXPECT_EQ(string_at(after, "network.conns[1].name"), "b" + std::to_string(won.back()));
    EXPECT_EQ(int_of(cfg_get_by_path(after, own[0])), 1000 + rounds);
    EXPECT_EQ(int_of(cfg_get_by_path(after, own[1])), 1000 + rounds);
    EXPECT_EQ(int_of(cfg_get_by_path(after, own[2])), rounds);
}

// Subscribers see the changesets of overlapping pushes in commit order, one
// run at a time: the last run applies what the daemon holds.
TEST_F(Daemon, SubscriberRunsFollowCommitOrder)
{
    daemon_process d;
    std::string out = d.dir().file("applied");
    client first(d), second(d), reader(d);
    ASSERT_EQ(subscribe(first, "apply", 0, {"system"}, {}, {},
                        "v=$(cat); case \"$v\" in *early*) sleep 1;; esac; echo \"$v\" | "
                        "grep -o '\"value\": *\"[a-z]*\"' >> " + out),
              1);
    std::thread slow([&] { EXPECT_EQ(commit_string(first, "system.hostname", "early"), 1); });
    for (int i = 0; i < 500 && string_at(reader, "system.hostname") != "early"; i++) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        cfg_reset(reader);
    }
    EXPECT_EQ(commit_string(second, "system.hostname", "late"), 1);
    slow.join();
    EXPECT_EQ(read_file(out), "\"value\": \"early\"\n\"value\": \"late\"\n");
}

} // namespace
} // namespace zrtest
