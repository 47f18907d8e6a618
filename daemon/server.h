// The daemon's socket side: the listening socket, one thread per client
// session reading frames and answering them, the configuration locks, and
// the subscriptions run after accepted pushes.
#pragma once

#include "model.h"
#include "scripts.h"

#include <atomic>
#include <condition_variable>
#include <functional>
#include <list>
#include <memory>
#include <set>
#include <sys/socket.h>
#include <thread>

namespace zrd {

struct options {
    std::string socket_path, db_path, schema_file, data_file, group;
    int script_timeout = 30;
    size_t max_frame = 64u << 20;
    bool foreground = false;
};

// Who holds the configuration lock: one writer, or any number of readers.
class lock_table {
  public:
    // op: "write", "read" or "none"; false when another session's lock
    // stands in the way.
    bool take(unsigned long session, const std::string &op);
    void release(unsigned long session);
    // True when no other session holds a lock.
    bool may_push(unsigned long session);

  private:
    std::mutex mutex_;
    unsigned long writer_ = 0;
    std::set<unsigned long> readers_;
};

struct session {
    unsigned long id = 0;
    int fd = -1;
    struct ucred peer = {};
    std::string client_name;
    std::thread thread;
    std::atomic<bool> done{false};
};

class server {
  public:
    server(const options &opts, model &m, store &s) : opts_(opts), model_(m), store_(s) {}
    ~server();

    // Creates the socket (mode 0660, group from the options), replacing a
    // socket file that no daemon answers on. False with error set.
    bool listen(std::string &error);
    // Serves until stop_fd becomes readable (a signal arrived).
    void run(int stop_fd);
    // Answers one request object (borrowed) for session s as its thread
    // would; end is set when the session is to close. The fuzz target
    // drives the dispatcher through this, without a socket.
    json_t *handle(session &s, json_t *request, bool &end) { return dispatch(s, request, end); }

  private:
    void serve(session &s);
    json_t *dispatch(session &s, json_t *request, bool &end);
    json_t *hello(session &s, json_t *data);
    json_t *push(session &s, json_t *data);
    json_t *subscribe(json_t *data);
    json_t *run_subscriptions(session &s, const std::vector<subscription> &subs,
                              const push_outcome &outcome, unsigned long turn);
    void wait_for_turn(unsigned long turn, const std::function<void()> &tick);
    void end_turn();
    bool permitted(const struct ucred &peer) const;
    void reap(bool all);
    void wait_after_failed_accept(int error, int stop_fd);

    const options &opts_;
    model &model_;
    store &store_;
    lock_table locks_;
    int listen_fd_ = -1;
    gid_t group_ = 0;
    bool has_group_ = false;
    std::atomic<bool> stopping_{false};
    std::mutex sessions_mutex_;
    std::list<std::unique_ptr<session>> sessions_;
    unsigned long next_session_ = 1;
    bool accept_failing_ = false; // the last accept ran out of descriptors or memory
    std::vector<subscription> subscriptions_; // guarded by the model's mutex
    unsigned long next_turn_ = 0;             // guarded by the model's mutex
    std::mutex turn_mutex_;
    std::condition_variable turn_served_;
    unsigned long serving_turn_ = 0; // guarded by turn_mutex_
};

} // namespace zrd
