// zrcfg end to end: the built command run as a user would, against a real
// zrconfigd on the example appliance; output and exit status checked.
#include "context.h"
#include "daemon_process.h"

#include <cstring>

namespace zrtest {
namespace {

using Zrcfg = example_appliance_test;

// The command to run: ZRCFG from the environment, else the one built.
std::string zrcfg_path()
{
    const char *chosen = getenv("ZRCFG");
    return chosen != nullptr ? chosen : ZRCFG_PATH;
}

struct run_result {
    int status = -1;
    std::string out, err;
};

// Runs zrcfg with args (options first) and waits for it.
run_result zrcfg(const temp_dir &dir, std::vector<std::string> args)
{
    args.insert(args.begin(), zrcfg_path());
    std::string out = dir.file("zrcfg.out"), err = dir.file("zrcfg.err");
    unlink(err.c_str());
    run_result r;
    r.status = exit_status(spawn(args, err, out));
    r.out = read_file(out);
    r.err = read_file(err);
    return r;
}

// zrcfg against d's socket.
run_result zrcfg(const daemon_process &d, std::vector<std::string> args)
{
    args.insert(args.begin(), {"--socket", d.socket_path()});
    return zrcfg(d.dir(), args);
}

std::string value_at(const daemon_process &d, const std::string &path)
{
    return zrcfg(d, {"get", path}).out;
}

TEST_F(Zrcfg, GetSetDeleteAndAddRoundTrip)
{
    daemon_process d;
    EXPECT_EQ(value_at(d, "system.hostname"), "fw1\n");

    run_result set = zrcfg(d, {"set", "system.hostname", "fw2", "network.conns[1].mtu", "1400"});
    EXPECT_EQ(set.status, 0) << set.err;
    EXPECT_EQ(value_at(d, "system.hostname"), "fw2\n");
    EXPECT_EQ(value_at(d, "network.conns[1].mtu"), "1400\n");

    EXPECT_EQ(zrcfg(d, {"delete", "system.ntp_server"}).status, 0);
    run_result gone = zrcfg(d, {"get", "system.ntp_server"});
    EXPECT_EQ(gone.status, 1);
    EXPECT_EQ(gone.err, "error: no element at 'system.ntp_server'\n");

    run_result add = zrcfg(d, {"add", "network.conns", R"({"name": "lab", "mode": "dhcp"})"});
    EXPECT_EQ(add.status, 0) << add.err;
    json_handle lab = parse_json(zrcfg(d, {"--json", "get", "network.conns[4]"}).out);
    EXPECT_STREQ(json_string_value(json_object_get(lab.get(), "name")), "lab");
    EXPECT_EQ(json_integer_value(json_object_get(lab.get(), "mtu")), 1500); // default filled in
}

TEST_F(Zrcfg, ValidationFailurePrintsThePathAndCommitsNothing)
{
    daemon_process d;
    run_result r = zrcfg(d, {"delete", "network.conns[1].address"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "error: network.conns[1]: Required field 'address' is not present\n");
    EXPECT_EQ(value_at(d, "network.conns[1].address"), "192.168.1.1\n");

    // One bad pair refuses the whole push.
    r = zrcfg(d, {"set", "network.conns[1].mtu", "1400", "system.hostname", "Not_A_Host"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("error: system.hostname: "), std::string::npos) << r.err;
    EXPECT_EQ(value_at(d, "network.conns[1].mtu"), "1500\n");
}

TEST_F(Zrcfg, AnotherSessionsLockRefusesThePush)
{
    daemon_process d;
    client holder(d);
    ASSERT_EQ(cfg_lock(holder, 1), 1);
    run_result r = zrcfg(d, {"set", "system.hostname", "fw2"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("error: "), std::string::npos);
    EXPECT_EQ(value_at(d, "system.hostname"), "fw1\n");
}

// The answer to request from the daemon on fd, keep-alives skipped.
json_t *forward(int fd, json_t *request)
{
    cfg_send(fd, request);
    json_t *answer = cfg_receive_timeout(fd, 5000);
    while (answer != nullptr && json_is_true(json_object_get(answer, "keepalive"))) {
        json_decref(answer);
        answer = cfg_receive_timeout(fd, 5000);
    }
    return answer;
}

// zrcfg's session goes through a relay; just before the relay passes the push
// on, another session changes the data that zrcfg has already read.
TEST_F(Zrcfg, StaleCopyConflictRefusesThePush)
{
    daemon_process d;
    int upstream = d.connect_raw();
    scripted_daemon relay({step::serve([&](json_t *request) {
        const char *method = json_string_value(json_object_get(request, "method"));
        if (method != nullptr && strcmp(method, "push") == 0) {
            client other(d);
            cfg_set_string(other, cfg_get_by_path(other, "system.hostname"), "other");
            EXPECT_EQ(cfg_commit(other), 1);
        }
        return forward(upstream, request);
    })});
    run_result r =
        zrcfg(d.dir(), {"--socket", relay.socket_path(), "set", "system.hostname", "mine"});
    relay.stop();
    close(upstream);
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("error: Update conflicts with newer data on server"), std::string::npos)
        << r.err;
    EXPECT_EQ(value_at(d, "system.hostname"), "other\n");
}

TEST(ZrcfgUsage, ExitStatusForUsageAndUnreachableDaemon)
{
    temp_dir dir;
    std::string dead = dir.file("nobody.sock");
    EXPECT_EQ(zrcfg(dir, {"--socket", dead, "get", "system.hostname"}).status, 3);
    for (std::vector<std::string> args : std::vector<std::vector<std::string>>{
             {}, {"bogus"}, {"get"}, {"set", "system.hostname"}, {"--nope", "get", "x"}})
        EXPECT_EQ(zrcfg(dir, args).status, 2) << (args.empty() ? "" : args[0]);
    run_result help = zrcfg(dir, {"search", "--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.out.rfind("usage: zrcfg search", 0), 0u);
}

TEST_F(Zrcfg, ExportThenApplyChangesNothingAndAChangedDocumentCommits)
{
    daemon_process d;
    run_result exported = zrcfg(d, {"export"});
    ASSERT_EQ(exported.status, 0);
    std::string file = d.dir().file("saved.json");
    std::ofstream(file) << exported.out;

    run_result applied = zrcfg(d, {"apply", file});
    EXPECT_EQ(applied.status, 0);
    EXPECT_EQ(applied.err, "nothing to change\n");
    EXPECT_EQ(zrcfg(d, {"export"}).out, exported.out);

    json_handle doc = parse_json(exported.out);
    json_object_set_new(json_object_get(doc.get(), "system"), "hostname", json_string("fw9"));
    json_array_remove(json_object_get(json_object_get(doc.get(), "network"), "conns"), 3);
    json_dump_file(doc.get(), file.c_str(), 0);
    EXPECT_EQ(zrcfg(d, {"apply", file}).status, 0);
    EXPECT_EQ(value_at(d, "system.hostname"), "fw9\n");
    EXPECT_EQ(zrcfg(d, {"get", "network.conns[3]"}).status, 1);
}

TEST_F(Zrcfg, SearchJoinsConditions)
{
    daemon_process d;
    run_result table = zrcfg(d, {"search", "network.conns", "mode = static", "mtu > 1500"});
    EXPECT_EQ(table.status, 0) << table.err;
    EXPECT_EQ(table.out.substr(0, table.out.find('\n')), "path              name  mode    "
                                                         "address    netmask  mtu   enabled");
    EXPECT_NE(table.out.find("network.conns[2]  dmz   static  10.20.0.1  24       9000  true"),
              std::string::npos)
        << table.out;

    json_handle hits =
        parse_json(zrcfg(d, {"--json", "search", "network.conns", "address missing"}).out);
    ASSERT_EQ(json_array_size(hits.get()), 1u);
    EXPECT_STREQ(json_string_value(json_object_get(json_array_get(hits.get(), 0), "path")),
                 "network.conns[0]");
    EXPECT_EQ(zrcfg(d, {"search", "network.conns", "speed = 10"}).status, 2);
}

} // namespace
} // namespace zrtest
