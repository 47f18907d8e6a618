// zrconfigd round trips and commits, measured from a library client.
//
//   RawPingPong        frames of the sizes a get_data_by_id exchange has,
//                      echoed by another process over a Unix stream socket:
//                      the floor of any round trip (no JSON, no work)
//   JsonPingPong       the same request and answer as JSON through the
//                      library's framing on both sides (cfg_send_request
//                      against a process that parses and answers)
//   GetById            cfg_get_by_id of one element against zrconfigd
//   Commit/N           cfg_commit of N changed elements (N = 1, 100, 1000),
//                      against a daemon holding 1000 connections
//
// Run by hand: build/bench/zrconfig_daemon_bench [--benchmark_repetitions=3].
#include <zrconfig.h>

#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <spawn.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

extern char **environ;

namespace {

constexpr int connections = 1000;

// A daemon on a temporary socket and database, loaded with the example
// appliance whose connection list is replaced by `connections` entries.
class bench_daemon {
  public:
    bench_daemon()
    {
        char pattern[] = "/tmp/zrconfig-bench-XXXXXX";
        dir_ = mkdtemp(pattern);
        write_data();
        std::vector<std::string> args{ZRCONFIGD_PATH, "--socket", socket(), "--db",
                                      dir_ + "/db", "--schema", dir_ + "/schema.json", "--data",
                                      dir_ + "/data.json", "--foreground"};
        std::vector<char *> argv;
        for (std::string &a : args)
            argv.push_back(a.data());
        argv.push_back(nullptr);
        if (posix_spawn(&pid_, argv[0], nullptr, nullptr, argv.data(), environ) != 0)
            pid_ = -1;
        for (int i = 0; i < 1000 && pid_ > 0; i++) {
            if (accepts(socket()))
                return;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        fprintf(stderr, "zrconfigd did not start\n");
    }
    ~bench_daemon()
    {
        if (pid_ > 0) {
            kill(pid_, SIGTERM);
            waitpid(pid_, nullptr, 0);
        }
        std::filesystem::remove_all(dir_);
    }
    std::string socket() const { return dir_ + "/sock"; }

  private:
    static bool accepts(const std::string &path)
    {
        int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
        struct sockaddr_un addr = {};
        addr.sun_family = AF_UNIX;
        snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
        bool ok = connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0;
        close(fd);
        return ok;
    }

    // The example appliance without its bound on the number of connections.
    void write_data()
    {
        std::string examples = std::string(ZR_SOURCE_DIR) + "/examples/appliance/";
        json_t *schema = json_load_file((examples + "schema.json").c_str(), 0, nullptr);
        json_t *nodes = json_object_get(schema, "nodes");
        const char *id;
        json_t *node;
        json_object_foreach(nodes, id, node)
        {
            if (json_object_get(node, "element_type") != nullptr)
                json_object_set_new(node, "max_length", json_null());
        }
        json_dump_file(schema, (dir_ + "/schema.json").c_str(), 0);
        json_decref(schema);
        std::string config = examples + "config.json";
        json_t *data = json_load_file(config.c_str(), 0, nullptr);
        json_t *conns = json_array();
        for (int i = 0; i < connections; i++)
            json_array_append_new(conns, json_pack("{s:s, s:s, s:i}", "name",
                                                   ("c" + std::to_string(i)).c_str(), "mode",
                                                   "dhcp", "mtu", 1500));
        json_object_set_new(json_object_get(data, "network"), "conns", conns);
        json_dump_file(data, (dir_ + "/data.json").c_str(), 0);
        json_decref(data);
    }

    std::string dir_;
    pid_t pid_ = -1;
};

bench_daemon &daemon_instance()
{
    static bench_daemon d;
    return d;
}

// A separate process on a Unix stream socket, like the daemon, answering
// every frame with answer: raw (bytes only) or after parsing it as JSON.
class echo_peer {
  public:
    echo_peer(const std::string &answer, bool parse)
    {
        char pattern[] = "/tmp/zrconfig-echo-XXXXXX";
        dir_ = mkdtemp(pattern);
        std::string path = dir_ + "/sock";
        struct sockaddr_un addr = {};
        addr.sun_family = AF_UNIX;
        snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
        int listener = socket(AF_UNIX, SOCK_STREAM, 0);
        bind(listener, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
        listen(listener, 1);
        pid_ = fork();
        if (pid_ == 0) {
            int fd = accept(listener, nullptr, nullptr);
            serve(fd, answer, parse);
            _exit(0);
        }
        close(listener);
        client_ = socket(AF_UNIX, SOCK_STREAM, 0);
        connect(client_, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
    }
    ~echo_peer()
    {
        close(client_);
        waitpid(pid_, nullptr, 0);
        std::filesystem::remove_all(dir_);
    }
    int client() const { return client_; }

  private:
    static void serve(int fd, const std::string &answer, bool parse)
    {
        std::string buffer;
        for (;;) {
            uint32_t length;
            if (recv(fd, &length, 4, MSG_WAITALL) != 4)
                break;
            buffer.resize(ntohl(length));
            if (recv(fd, buffer.data(), buffer.size(), MSG_WAITALL) !=
                static_cast<ssize_t>(buffer.size()))
                break;
            if (parse) {
                json_t *request = json_loadb(buffer.data(), buffer.size(), 0, nullptr);
                json_t *reply = json_loads(answer.c_str(), 0, nullptr);
                cfg_send(fd, reply);
                json_decref(reply);
                json_decref(request);
                continue;
            }
            uint32_t out = htonl(static_cast<uint32_t>(answer.size()));
            std::string frame(reinterpret_cast<char *>(&out), 4);
            frame += answer;
            if (write(fd, frame.data(), frame.size()) != static_cast<ssize_t>(frame.size()))
                break;
        }
        close(fd);
    }

    std::string dir_;
    pid_t pid_ = -1;
    int client_ = -1;
};

const char *const request_text =
    R"({"method": "get_data_by_id", "id": 7, "data": {"ids": ["hostname-3"]}})";
const char *const answer_text =
    R"({"result": true, "data": [{"generation": 1, "parents": [{"map": "system-2", "type": "map", "name": "hostname"}], "type": 4, "id": "hostname-3", "schema": "s-hostname", "value": "fw1"}], "id": 7})";

void RawPingPong(benchmark::State &state)
{
    echo_peer peer(answer_text, false);
    std::string request = request_text;
    uint32_t length = htonl(static_cast<uint32_t>(request.size()));
    std::string frame(reinterpret_cast<char *>(&length), 4);
    frame += request;
    std::string buffer(strlen(answer_text), '\0');
    for (auto _ : state) {
        if (write(peer.client(), frame.data(), frame.size()) < 0)
            state.SkipWithError("write");
        uint32_t in;
        recv(peer.client(), &in, 4, MSG_WAITALL);
        recv(peer.client(), buffer.data(), ntohl(in), MSG_WAITALL);
    }
}
BENCHMARK(RawPingPong)->UseRealTime();

void JsonPingPong(benchmark::State &state)
{
    echo_peer peer(answer_text, true);
    cfg *ctx = cfg_create_new_config(nullptr);
    cfg_schema *schema = ctx->schema;
    cfg_client conn = {0, peer.client(), nullptr};
    ctx->client_data = &conn;
    for (auto _ : state) {
        json_t *request = cfg_build_request(ctx, "get_data_by_id",
                                            json_pack("{s:[s]}", "ids", "hostname-3"));
        json_t *answer = cfg_send_request(ctx, request);
        json_decref(request);
        if (answer == nullptr)
            state.SkipWithError("no answer");
        json_decref(answer);
    }
    ctx->client_data = nullptr;
    cfg_free_config(&ctx);
    cfg_free_schema(nullptr, &schema);
}
BENCHMARK(JsonPingPong)->UseRealTime();

void GetById(benchmark::State &state)
{
    cfg *ctx = cfg_connect(daemon_instance().socket().c_str(), "bench");
    if (ctx == nullptr) {
        state.SkipWithError("cannot connect");
        return;
    }
    cfg_element *hostname = cfg_get_by_path(ctx, "system.hostname");
    std::string id = hostname != nullptr ? hostname->uuid : "";
    for (auto _ : state) {
        cfg_reset(ctx); // the next lookup asks the daemon
        if (cfg_get_by_id(ctx, id.c_str()) == nullptr)
            state.SkipWithError("not found");
    }
    cfg_disconnect(&ctx);
}
BENCHMARK(GetById)->UseRealTime();

void Commit(benchmark::State &state)
{
    cfg *ctx = cfg_connect(daemon_instance().socket().c_str(), "bench");
    if (ctx == nullptr) {
        state.SkipWithError("cannot connect");
        return;
    }
    int changed = static_cast<int>(state.range(0));
    int round = 0;
    for (auto _ : state) {
        state.PauseTiming();
        cfg_element *conns = cfg_get_by_path(ctx, "network.conns");
        cfg_get_list(ctx, conns);
        int mtu = 1400 + (round++ % 100);
        for (int i = 0; i < changed; i++) {
            cfg_element *e = cfg_simple_get_by_path(ctx, "network.conns[%d].mtu", i);
            if (e == nullptr || cfg_set_int(ctx, e, mtu) == nullptr)
                state.SkipWithError("cannot change");
        }
        state.ResumeTiming();
        if (cfg_commit(ctx) != 1)
            state.SkipWithError(cfg_get_first_message_string(ctx));
    }
    state.counters["elements"] = changed;
    cfg_disconnect(&ctx);
}
BENCHMARK(Commit)->Arg(1)->Arg(100)->Arg(1000)->UseRealTime()->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
