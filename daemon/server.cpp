// Sessions, frames, dispatch and locks.
//
// Invariants:
//   1. Only a session's own thread reads from or writes to its socket; the
//      main thread only shuts it down to stop the session.
//   2. The model (and with it the store and the subscription list) is used
//      only under the model's mutex, and no socket is written while it is
//      held: a client that does not read stalls only its own session.
//   3. A frame that has begun must be complete within frame_deadline_s; an
//      idle session between frames costs nothing but its blocked thread.
//   4. Subscriptions run for one push at a time, in the order the pushes
//      were accepted: each accepted push that has subscriptions to run takes
//      the next turn under the model's mutex and ends it after its runs, so
//      the last run a program sees carries the state the store holds.
#define ZRD_SOURCE "daemon/server"
#include "server.h"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <grp.h>
#include <optional>
#include <poll.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>

namespace zrd {

namespace {

constexpr int frame_deadline_s = 30;
constexpr size_t max_sessions = 512;
constexpr size_t read_chunk = 64 * 1024;

enum class frame_status { ok, closed, bad_length, failed };

// Waits until fd is readable; -1 waits without limit.
bool wait_readable(int fd, int timeout_ms)
{
    struct pollfd p = {fd, POLLIN, 0};
    for (;;) {
        int rc = poll(&p, 1, timeout_ms);
        if (rc < 0 && errno == EINTR)
            continue;
        return rc > 0;
    }
}

// Takes the next frame's payload from in, reading more into it as needed.
// Waiting for a frame's first byte takes as long as the client likes; from
// then on the whole frame has a deadline. in grows with what arrives, never
// with what a prefix claims.
frame_status read_frame(int fd, std::string &in, std::string &payload, size_t max_frame)
{
    using clock = std::chrono::steady_clock;
    std::optional<clock::time_point> deadline;
    char chunk[read_chunk];
    for (;;) {
        if (in.size() >= 4) {
            uint32_t length;
            memcpy(&length, in.data(), 4);
            length = ntohl(length);
            if (length == 0 || length > max_frame)
                return frame_status::bad_length;
            if (in.size() - 4 >= length) {
                payload.assign(in, 4, length);
                in.erase(0, 4 + static_cast<size_t>(length));
                return frame_status::ok;
            }
        }
        if (!in.empty() && !deadline)
            deadline = clock::now() + std::chrono::seconds(frame_deadline_s);
        if (deadline) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(*deadline -
                                                                              clock::now());
            if (!wait_readable(fd, static_cast<int>(std::max<long long>(0, left.count()))))
                return frame_status::failed;
        }
        ssize_t n = recv(fd, chunk, sizeof chunk, 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return n == 0 && in.empty() ? frame_status::closed : frame_status::failed;
        in.append(chunk, static_cast<size_t>(n));
    }
}

bool send_all(int fd, const char *data, size_t size)
{
    size_t sent = 0;
    while (sent < size) {
        ssize_t n = send(fd, data + sent, size - sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        sent += static_cast<size_t>(n);
    }
    return true;
}

// Writes value as one frame.
bool send_frame(int fd, json_t *value)
{
    std::string text = dump(value);
    uint32_t length = htonl(static_cast<uint32_t>(text.size()));
    std::string frame(reinterpret_cast<const char *>(&length), 4);
    frame += text;
    return send_all(fd, frame.data(), frame.size());
}

// The strings of an optional array member; false when it is not one.
bool strings_member(json_t *data, const char *key, std::vector<std::string> &out)
{
    json_t *array = json_object_get(data, key);
    if (array == nullptr || json_is_null(array))
        return true;
    if (!json_is_array(array))
        return false;
    size_t i;
    json_t *item;
    json_array_foreach(array, i, item)
    {
        if (!json_is_string(item))
            return false;
        out.emplace_back(json_string_value(item));
    }
    return true;
}

// Adds the messages of extra to answer's "messages".
void append_messages(json_t *answer, json_t *extra)
{
    json_t *messages = json_object_get(answer, "messages");
    if (messages == nullptr) {
        messages = json_array();
        json_object_set_new(answer, "messages", messages);
    }
    json_array_extend(messages, extra);
}

} // namespace

bool lock_table::take(unsigned long session, const std::string &op)
{
    std::lock_guard<std::mutex> guard(mutex_);
    bool others_read = readers_.size() > (readers_.count(session) ? 1u : 0u);
    bool other_writes = writer_ != 0 && writer_ != session;
    if (op == "none") {
        if (writer_ == session)
            writer_ = 0;
        readers_.erase(session);
        return true;
    }
    if (other_writes || (op == "write" && others_read))
        return false;
    if (op == "write") {
        writer_ = session;
        readers_.erase(session);
    } else {
        if (writer_ == session)
            writer_ = 0;
        readers_.insert(session);
    }
    return true;
}

void lock_table::release(unsigned long session)
{
    take(session, "none");
}

bool lock_table::may_push(unsigned long session)
{
    std::lock_guard<std::mutex> guard(mutex_);
    bool others_read = readers_.size() > (readers_.count(session) ? 1u : 0u);
    return (writer_ == 0 || writer_ == session) && !others_read;
}

server::~server()
{
    reap(true);
    if (listen_fd_ >= 0) {
        close(listen_fd_);
        unlink(opts_.socket_path.c_str());
    }
}

// Refuses a path on which a daemon answers, and removes a socket file that
// nothing listens on any more.
static bool clear_stale_socket(const std::string &path, std::string &error)
{
    struct stat st;
    if (lstat(path.c_str(), &st) != 0)
        return true;
    if (!S_ISSOCK(st.st_mode)) {
        error = path + " exists and is not a socket";
        return false;
    }
    int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
    bool live = connect(probe, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0;
    close(probe);
    if (live) {
        error = "another daemon answers on " + path;
        return false;
    }
    ZRD_LOG(LOG_NOTICE, "replacing the stale socket file %s", path.c_str());
    unlink(path.c_str());
    return true;
}

bool server::listen(std::string &error)
{
    struct sockaddr_un addr = {};
    if (opts_.socket_path.size() >= sizeof addr.sun_path) {
        error = "socket path too long: " + opts_.socket_path;
        return false;
    }
    if (!opts_.group.empty()) {
        struct group *g = getgrnam(opts_.group.c_str());
        if (g == nullptr) {
            error = "unknown group " + opts_.group;
            return false;
        }
        group_ = g->gr_gid;
        has_group_ = true;
    }
    if (!clear_stale_socket(opts_.socket_path, error))
        return false;
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, opts_.socket_path.c_str(), sizeof addr.sun_path - 1);
    listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    mode_t old_mask = umask(0117); // the file is born 0660
    int rc = bind(listen_fd_, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
    umask(old_mask);
    if (rc != 0 || ::listen(listen_fd_, 64) != 0) {
        error = "cannot listen on " + opts_.socket_path + ": " + strerror(errno);
        close(listen_fd_);
        listen_fd_ = -1;
        return false;
    }
    chmod(opts_.socket_path.c_str(), 0660);
    if (has_group_ && chown(opts_.socket_path.c_str(), static_cast<uid_t>(-1), group_) != 0)
        ZRD_LOG(LOG_WARNING, "cannot give %s to group %s: %s", opts_.socket_path.c_str(),
                opts_.group.c_str(), strerror(errno));
    std::lock_guard<std::mutex> guard(model_.mutex());
    subscriptions_ = store_.subscriptions();
    return true;
}

bool server::permitted(const struct ucred &peer) const
{
    if (peer.uid == 0 || peer.uid == geteuid())
        return true;
    if (!has_group_)
        return false;
    if (peer.gid == group_)
        return true;
    struct passwd pw, *found = nullptr;
    std::vector<char> buffer(16384);
    if (getpwuid_r(peer.uid, &pw, buffer.data(), buffer.size(), &found) != 0 || found == nullptr)
        return false;
    std::vector<gid_t> groups(256);
    int count = static_cast<int>(groups.size());
    if (getgrouplist(pw.pw_name, pw.pw_gid, groups.data(), &count) < 0)
        return false;
    for (int i = 0; i < count; i++)
        if (groups[static_cast<size_t>(i)] == group_)
            return true;
    return false;
}

// Joins the sessions that have ended (every session when all is set, after
// shutting their sockets so that they end).
void server::reap(bool all)
{
    std::list<std::unique_ptr<session>> ended;
    {
        std::lock_guard<std::mutex> guard(sessions_mutex_);
        for (auto it = sessions_.begin(); it != sessions_.end();) {
            if (all)
                shutdown((*it)->fd, SHUT_RDWR);
            if (all || (*it)->done) {
                ended.push_back(std::move(*it));
                it = sessions_.erase(it);
            } else
                ++it;
        }
    }
    for (auto &s : ended)
        s->thread.join();
}

// Out of descriptors or memory, the waiting connection stays queued and the
// socket stays readable: without a pause the loop would spin until a session
// ends. Warns once for each stretch of such failures.
void server::wait_after_failed_accept(int error, int stop_fd)
{
    if (error != EMFILE && error != ENFILE && error != ENOBUFS && error != ENOMEM) {
        accept_failing_ = false;
        return;
    }
    if (!accept_failing_)
        ZRD_LOG(LOG_WARNING, "cannot accept connections (%s); retrying every 100 ms",
                strerror(error));
    accept_failing_ = true;
    struct pollfd stop = {stop_fd, POLLIN, 0};
    poll(&stop, 1, 100);
}

void server::run(int stop_fd)
{
    struct pollfd fds[2] = {{listen_fd_, POLLIN, 0}, {stop_fd, POLLIN, 0}};
    while (!stopping_) {
        int rc = poll(fds, 2, 1000);
        reap(false);
        if (rc < 0 && errno != EINTR)
            break;
        if (fds[1].revents != 0)
            break;
        if (!(fds[0].revents & POLLIN))
            continue;
        int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            wait_after_failed_accept(errno, stop_fd);
            continue;
        }
        accept_failing_ = false;
        std::lock_guard<std::mutex> guard(sessions_mutex_);
        if (sessions_.size() >= max_sessions) {
            ZRD_LOG(LOG_WARNING, "too many sessions; refusing a connection");
            close(fd);
            continue;
        }
        auto s = std::make_unique<session>();
        s->id = next_session_++;
        s->fd = fd;
        socklen_t len = sizeof s->peer;
        getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &s->peer, &len);
        session *raw = s.get();
        try {
            s->thread = std::thread([this, raw] { serve(*raw); });
        } catch (const std::system_error &e) {
            ZRD_LOG(LOG_WARNING, "cannot start a session thread (%s); refusing a connection",
                    e.what());
            close(fd);
            continue;
        }
        sessions_.push_back(std::move(s));
    }
    stopping_ = true;
    reap(true);
}

void server::serve(session &s)
{
    if (!permitted(s.peer)) {
        ZRD_LOG(LOG_WARNING, "session %lu: uid %u may not use the configuration", s.id,
                static_cast<unsigned>(s.peer.uid));
        json_ptr answer(failure(msg::permission_denied));
        send_frame(s.fd, answer.get());
    } else {
        std::string in, payload;
        for (bool end = false; !end && !stopping_;) {
            frame_status status = read_frame(s.fd, in, payload, opts_.max_frame);
            if (status == frame_status::bad_length) {
                json_ptr answer(failure(msg::invalid_request));
                send_frame(s.fd, answer.get());
            }
            if (status != frame_status::ok)
                break;
            json_ptr request(json_loadb(payload.data(), payload.size(), 0, nullptr));
            json_ptr answer(json_is_object(request.get())
                                ? dispatch(s, request.get(), end)
                                : failure(msg::invalid_request));
            if (json_t *id = json_object_get(request.get(), "id"))
                json_object_set(answer.get(), "id", id);
            if (!send_frame(s.fd, answer.get()))
                break;
        }
    }
    locks_.release(s.id);
    ZRD_LOG(LOG_INFO, "session %lu (%s) ended", s.id, s.client_name.c_str());
    close(s.fd);
    s.done = true;
}

json_t *server::dispatch(session &s, json_t *request, bool &end)
{
    json_t *method_json = json_object_get(request, "method");
    if (method_json == nullptr)
        return failure(msg::incomplete_data, {"method"});
    if (!json_is_string(method_json))
        return failure(msg::invalid_request);
    std::string method = json_string_value(method_json);
    json_t *data = json_object_get(request, "data");
    if (method == "goodbye") {
        locks_.release(s.id); // before the answer: the client may lock again at once
        end = true;
        return success(nullptr);
    }
    if (method == "get_schema") {
        std::lock_guard<std::mutex> guard(model_.mutex());
        return model_.get_schema();
    }
    using reader = json_t *(model::*)(json_t *);
    static const std::pair<const char *, reader> readers[] = {
        {"get_data_by_id", &model::get_by_ids},
        {"get_data_list", &model::get_list},
        {"get_data_by_path", &model::get_by_path},
        {"search", &model::search},
    };
    bool known = method == "hello" || method == "lock" || method == "push" ||
                 method == "subscribe";
    for (const auto &[name, fn] : readers)
        known = known || method == name;
    if (!known)
        return failure(msg::invalid_action, {method});
    if (!json_is_object(data))
        return failure(data == nullptr ? msg::incomplete_data : msg::invalid_parameter, {"data"});
    for (const auto &[name, fn] : readers)
        if (method == name) {
            std::lock_guard<std::mutex> guard(model_.mutex());
            return (model_.*fn)(data);
        }
    if (method == "hello")
        return hello(s, data);
    if (method == "push")
        return push(s, data);
    if (method == "subscribe")
        return subscribe(data);
    const char *op = json_string_value(json_object_get(data, "operation"));
    if (op == nullptr)
        return failure(msg::incomplete_data, {"operation"});
    std::string operation = op;
    if (operation != "write" && operation != "read" && operation != "none")
        return failure(msg::invalid_parameter, {"operation"});
    return locks_.take(s.id, operation) ? success(nullptr) : failure(msg::lock_failed);
}

json_t *server::hello(session &s, json_t *data)
{
    const char *name = json_string_value(json_object_get(data, "client_name"));
    s.client_name = name != nullptr ? std::string(name).substr(0, 255) : "unnamed";
    ZRD_LOG(LOG_NOTICE, "session %lu: hello from '%s' (uid %u, gid %u, pid %d)", s.id,
            s.client_name.c_str(), static_cast<unsigned>(s.peer.uid),
            static_cast<unsigned>(s.peer.gid), static_cast<int>(s.peer.pid));
    return success(nullptr);
}

json_t *server::push(session &s, json_t *data)
{
    push_outcome outcome;
    std::vector<subscription> subs;
    unsigned long turn = 0;
    {
        // Checked under the model's mutex: a push that passed the check and
        // then waited for the mutex could land after another session took
        // the write lock and read, whose next push would then be stale.
        std::lock_guard<std::mutex> guard(model_.mutex());
        if (!locks_.may_push(s.id))
            return failure(msg::lock_failed);
        outcome = model_.push(data);
        if (outcome.accepted && !subscriptions_.empty()) {
            subs = subscriptions_;
            turn = next_turn_++;
        }
    }
    json_t *answer = outcome.answer.release();
    if (subs.empty())
        return answer;
    json_t *reports = run_subscriptions(s, subs, outcome, turn);
    append_messages(answer, reports);
    json_decref(reports);
    return answer;
}

// Runs the subscriptions an accepted push concerns, once every push accepted
// before it has had its own run (invariant 4); their reports.
json_t *server::run_subscriptions(session &s, const std::vector<subscription> &subs,
                                  const push_outcome &outcome, unsigned long turn)
{
    auto keepalive = [&]() {
        json_ptr frame(json_pack("{s:b}", "keepalive", 1));
        send_frame(s.fd, frame.get());
    };
    wait_for_turn(turn, keepalive);
    json_t *reports = json_array();
    std::vector<const subscription *> order;
    if (run_order(subs, order))
        for (const subscription *sub : order) {
            if (stopping_ || !concerns(*sub, outcome.changed_paths))
                continue;
            json_t *report = run_script(*sub, outcome.changeset, opts_.script_timeout, keepalive);
            if (report != nullptr)
                json_array_append_new(reports, report);
        }
    end_turn();
    return reports;
}

// Waits until turn is the one being served, calling tick about once a
// second meanwhile (with the turn mutex released: tick writes a socket).
void server::wait_for_turn(unsigned long turn, const std::function<void()> &tick)
{
    std::unique_lock<std::mutex> lock(turn_mutex_);
    while (!turn_served_.wait_for(lock, std::chrono::seconds(1),
                                  [&] { return serving_turn_ == turn; })) {
        lock.unlock();
        tick();
        lock.lock();
    }
}

void server::end_turn()
{
    {
        std::lock_guard<std::mutex> guard(turn_mutex_);
        serving_turn_++;
    }
    turn_served_.notify_all();
}

json_t *server::subscribe(json_t *data)
{
    subscription sub;
    const char *name = json_string_value(json_object_get(data, "name"));
    const char *program = json_string_value(json_object_get(data, "program"));
    if (name == nullptr || program == nullptr)
        return failure(msg::incomplete_data, {name == nullptr ? "name" : "program"});
    sub.name = name;
    sub.program = program;
    json_t *priority = json_object_get(data, "priority");
    if (priority != nullptr && !json_is_integer(priority))
        return failure(msg::invalid_parameter, {"priority"});
    sub.priority = static_cast<int>(json_integer_value(priority));
    for (auto [key, list] : {std::pair{"args", &sub.args}, std::pair{"paths", &sub.paths},
                             std::pair{"before", &sub.before}, std::pair{"after", &sub.after}})
        if (!strings_member(data, key, *list))
            return failure(msg::invalid_parameter, {key});
    if (sub.program.empty() || sub.program[0] != '/')
        return failure(msg::invalid_parameter, {"program"});

    std::lock_guard<std::mutex> guard(model_.mutex());
    std::vector<subscription> next;
    for (const subscription &old : subscriptions_)
        if (old.name != sub.name)
            next.push_back(old);
    next.push_back(sub);
    std::vector<const subscription *> order;
    if (!run_order(next, order))
        return failure(msg::invalid_parameter, {"before"});
    if (!store_.write_subscription(sub))
        return failure(msg::database);
    subscriptions_ = std::move(next);
    ZRD_LOG(LOG_NOTICE, "subscription '%s' runs %s", sub.name.c_str(), sub.program.c_str());
    return success(nullptr);
}

} // namespace zrd
