// A daemon for tests: it plays a script against the client over a Unix
// socket in a temporary directory and records every request it reads.
// The steps run in order on a background thread against the first
// connection; a reading step waits for a request frame before it acts. The
// daemon closes the connection when the script runs out or the client goes.
// Every wait is bounded; the destructor stops and joins.
#pragma once

#include "context.h"
#include "temp_dir.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>

namespace zrtest {

// The 4-byte big-endian prefix of a frame of length bytes.
std::string frame_prefix(uint32_t length);
// A whole frame around payload.
std::string frame(const std::string &payload);

// One step of a script: it may first read a request, then it acts.
struct step {
    enum class kind { none, send_bytes, wait };

    bool reads_request = false;
    kind what = kind::none;
    std::string bytes{};                   // send_bytes
    std::chrono::milliseconds duration{0}; // wait

    // Reads one request frame and records it.
    static step receive() { return {.reads_request = true}; }
    // Sends bytes as they stand, with no prefix.
    static step raw(const std::string &bytes) { return {.what = kind::send_bytes, .bytes = bytes}; }
    // Sends a frame holding the text as it stands (valid JSON or not).
    static step reply(const std::string &json_text) { return raw(frame(json_text)); }
    // Reads one request, then replies with a frame holding json_text.
    static step answer(const std::string &json_text)
    {
        step s = reply(json_text);
        s.reads_request = true;
        return s;
    }
    static step keepalive() { return reply(R"({"keepalive": true})"); }
    // Waits (cut short when the daemon stops).
    static step wait(std::chrono::milliseconds d) { return {.what = kind::wait, .duration = d}; }
};

using script = std::vector<step>;

class scripted_daemon {
  public:
    // Listens on a Unix socket in a new temporary directory.
    explicit scripted_daemon(script steps);
    ~scripted_daemon();
    scripted_daemon(const scripted_daemon &) = delete;
    scripted_daemon &operator=(const scripted_daemon &) = delete;

    // Where to connect.
    const std::string &socket_path() const { return path_; }

    // Requests read so far.
    size_t request_count() const;
    // The payload text of request i as it came off the wire, waited for up
    // to five seconds ("" when it never comes).
    std::string request_text(size_t i) const;

  private:
    void run();
    bool act(int connection, const step &s);
    bool read_request(int connection);

    script steps_;
    temp_dir dir_;
    std::string path_ = dir_.file("daemon.sock");
    int listen_fd_ = -1;
    std::thread thread_;

    // Guarded by mutex_: the destructor may cut the connection while run() uses it.
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<std::string> texts_;
    bool stopping_ = false;
    int connection_ = -1;
};

// A connected Unix stream socket to path, or -1.
int connect_unix(const std::string &path);

// A context connected to a daemon's socket through a cfg_client record in
// its client_data, as a client connection has it; no hooks are installed.
struct client_context {
    context_handle handle;
    int socket;

    explicit client_context(const scripted_daemon &daemon);
    ~client_context();
    client_context(const client_context &) = delete;
    client_context &operator=(const client_context &) = delete;

    cfg *get() const { return handle.get(); }
};

} // namespace zrtest
