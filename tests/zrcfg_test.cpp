// zrcfg end to end: the built command run as a user would, against a real
// zrconfigd on the example appliance; output and exit status checked.
#include "context.h"
#include "daemon_process.h"

#include <fstream>

namespace zrtest {
namespace {

using Zrcfg = example_appliance_test;

struct run_result {
    int status = -1;
    std::string out, err;
};

// Runs zrcfg with args (options first) and waits for it.
run_result zrcfg(const temp_dir &dir, std::vector<std::string> args)
{
    args.insert(args.begin(), ZRCFG_PATH);
    std::string out = dir.file("zrcfg.out"), err = dir.file("zrcfg.err");
    unlink(err.c_str());
    int status = exit_status(spawn(args, err, out));
    return {status, read_file(out), read_file(err)};
}

run_result zrcfg(const daemon_process &d, std::vector<std::string> args)
{
    args.insert(args.begin(), {"--socket", d.socket_path()});
    return zrcfg(d.dir(), args);
}

std::string value_at(const daemon_process &d, const std::string &path)
{
    return zrcfg(d, {"get", path}).out;
}

TEST_F(Zrcfg, GetSetDeleteAndAddRoundTripAndRefusalsCommitNothing)
{
    daemon_process d;
    run_result set = zrcfg(d, {"set", "system.hostname", "fw2", "network.conns[1].mtu", "1400"});
    EXPECT_EQ(set.status, 0) << set.err;
    EXPECT_EQ(value_at(d, "system.hostname"), "fw2\n");
    EXPECT_EQ(value_at(d, "network.conns[1].mtu"), "1400\n");

    // Past the command's first argument, "-h" and "--help" are values.
    EXPECT_EQ(zrcfg(d, {"set", "system.ntp_server", "-h"}).status, 0);
    EXPECT_EQ(value_at(d, "system.ntp_server"), "-h\n");
    EXPECT_EQ(zrcfg(d, {"set", "--help"}).out.find("usage: zrcfg set PATH VALUE"), 0u);

    EXPECT_EQ(zrcfg(d, {"delete", "system.ntp_server"}).status, 0);
    run_result gone = zrcfg(d, {"get", "system.ntp_server"});
    EXPECT_EQ(gone.status, 1);
    EXPECT_EQ(gone.err, "error: no element at 'system.ntp_server'\n");

    run_result add = zrcfg(d, {"add", "network.conns", R"({"name": "lab", "mode": "dhcp"})"});
    EXPECT_EQ(add.status, 0) << add.err;
    json_handle lab = parse_json(zrcfg(d, {"--json", "get", "network.conns[4]"}).out);
    EXPECT_STREQ(json_string_value(json_object_get(lab.get(), "name")), "lab");
    EXPECT_EQ(json_integer_value(json_object_get(lab.get(), "mtu")), 1500); // default filled in

    // A validation failure prints the path and commits nothing; one bad pair
    // refuses the whole push.
    run_result r = zrcfg(d, {"delete", "network.conns[1].address"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "error: network.conns[1]: Required field 'address' is not present\n");
    EXPECT_EQ(value_at(d, "network.conns[1].address"), "192.168.1.1\n");
    r = zrcfg(d, {"set", "network.conns[1].mtu", "1500", "system.hostname", "Not_A_Host"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("error: system.hostname: "), std::string::npos) << r.err;
    EXPECT_EQ(value_at(d, "network.conns[1].mtu"), "1400\n");
}

TEST(ZrcfgUsage, ExitStatusForUsageAndUnreachableDaemon)
{
    temp_dir dir;
    std::string plain = dir.file("plain");
    std::ofstream(plain) << "not a socket";
    // Why the daemon cannot be reached, and what to look at.
    const std::pair<std::string, std::string> unreachable[] = {
        {dir.file("nobody.sock"), "no socket there: is zrconfigd running"},
        {plain, "nothing listens there"},
    };
    for (const auto &[socket, says] : unreachable) {
        run_result r = zrcfg(dir, {"--socket", socket, "get", "system.hostname"});
        EXPECT_EQ(r.status, 3) << socket;
        EXPECT_EQ(r.err.find("error: cannot reach zrconfigd at " + socket + ": " + says), 0u)
            << r.err;
    }
    run_result long_path = zrcfg(dir, {"--socket", dir.file(std::string(120, 's')), "get", "x"});
    EXPECT_EQ(long_path.status, 2);
    EXPECT_NE(long_path.err.find("socket path is too long"), std::string::npos) << long_path.err;
    for (std::vector<std::string> args : std::vector<std::vector<std::string>>{
             {}, {"bogus"}, {"get"}, {"set", "system.hostname"}, {"--nope", "get", "x"}})
        EXPECT_EQ(zrcfg(dir, args).status, 2) << (args.empty() ? "" : args[0]);
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

// A daemon that dies before answering a commit leaves the outcome unknown:
// zrcfg says so and exits as for an unreachable daemon, not as refused.
TEST_F(Zrcfg, CommitWithoutAnAnswerIsReportedAsUnknown)
{
    daemon_process d;
    std::string started = d.dir().file("started");
    {
        client c(d);
        texts args{"-c", "touch " + started + "; exec sleep 5"};
        std::vector<char *> argv = c_strings(args);
        char *none[] = {nullptr};
        ASSERT_EQ(cfg_subscribe(c, "slow", 0, none, none, none, "/bin/sh", argv.data()), 1);
    }
    std::string err = d.dir().file("set.err");
    pid_t set = spawn({ZRCFG_PATH, "--socket", d.socket_path(), "set", "system.hostname", "fw7"},
                      err);
    for (int i = 0; i < 400 && access(started.c_str(), F_OK) != 0; i++)
        std::this_thread::sleep_for(std::chrono::milliseconds(25));
    d.kill_now();
    EXPECT_EQ(exit_status_within(set, 10), 3);
    EXPECT_NE(read_file(err).find("error: zrconfigd gave no answer to the commit"),
              std::string::npos)
        << read_file(err);
    ASSERT_TRUE(d.start());
    EXPECT_EQ(value_at(d, "system.hostname"), "fw7\n") << "stored before the subscriber ran";
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
