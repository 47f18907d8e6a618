// zrconfigd round trips and commits, measured from a library client.
//
//   RawPingPong        frames of the sizes a get_data_by_id exchange has,
//                      echoed by a thread over a Unix stream socket: the
//                      floor of any round trip (no JSON, no work)
//   JsonPingPong       the same request and answer as JSON through the
//                      library's framing on both sides (cfg_send_request
//                      against a thread that parses and answers)
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
        std::string schema = std::string(ZR_SOURCE_DIR) + "/examples/appliance/schema.json";
        std::vector<std::string> args{ZRCONFIGD_PATH, "--socket", socket(), "--db",
                                      dir_ + "/db", "--schema", schema, "--data",
                                      dir_ + "/data.json", "--foreground"};
        std::vector<char *> argv;
        for (std::string &a : args)
            argv.push_back(a.data());
        argv.push_back(nullptr);
        if (posix_spawn(&pid_, argv[0], nullptr, nullptr, argv.data(), environ) != 0)
            pid_ = -1;
        for (int i = 0; i < 1000 && pid_ > 0; i++) {
            cfg *probe = cfg_connect(socket().c_str(), "bench-probe");
            if (probe != nullptr) {
                cfg_disconnect(&probe);
                return;
            }
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
    void write_data()
    {
        std::string config = std::string(ZR_SOURCE_DIR) + "/examples/appliance/config.json";
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

// A listening socket and a thread answering every frame with answer,
// either raw (bytes only) or parsed as JSON first.
class echo_peer {
  public:
    echo_peer(std::string answer, bool parse) : answer_(std::move(answer)), parse_(parse)
    {
        char pattern[] = "/tmp/zrconfig-echo-XXXXXX";
        dir_ = mkdtemp(pattern);
        int fds[2];
        socketpair(AF_UNIX, SOCK_STREAM, 0, fds);
        client_ = fds[0];
        thread_ = std::thread([this, fd = fds[1]] { serve(fd); });
    }
    ~echo_peer()
    {
        shutdown(client_, SHUT_RDWR);
        thread_.join();
        close(client_);
        std::filesystem::remove_all(dir_);
    }
    int client() const { return client_; }

  private:
    void serve(int fd)
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
            if (parse_) {
                json_t *request = json_loadb(buffer.data(), buffer.size(), 0, nullptr);
                json_t *answer = json_loads(answer_.c_str(), 0, nullptr);
                cfg_send(fd, answer);
                json_decref(answer);
                json_decref(request);
                continue;
            }
            uint32_t out = htonl(static_cast<uint32_t>(answer_.size()));
            std::string frame(reinterpret_cast<char *>(&out), 4);
            frame += answer_;
            if (write(fd, frame.data(), frame.size()) != static_cast<ssize_t>(frame.size()))
                break;
        }
        close(fd);
    }

    std::string answer_;
    bool parse_;
    std::string dir_;
    int client_ = -1;
    std::thread thread_;
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
