#include "scripted_daemon.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace zrtest {

namespace {

// No single wait of the daemon lasts longer than this.
constexpr int wait_limit_ms = 20000;
// Requests larger than this are taken for garbage and end the connection.
constexpr uint32_t request_limit = 64u << 20;

void close_fd(int &fd)
{
    if (fd >= 0)
        ::close(fd);
    fd = -1;
}

// Moves size bytes with io (a recv or send that does not block, given the
// count done so far), waiting until the socket is ready before each try.
template <typename Ready, typename Io> bool transfer(size_t size, Ready ready, Io io)
{
    size_t done = 0;
    while (done < size) {
        if (!ready())
            return false;
        ssize_t n = io(done);
        if (n < 0 && (errno == EINTR || errno == EAGAIN))
            continue;
        if (n <= 0)
            return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

} // namespace

std::string frame_prefix(uint32_t length)
{
    uint32_t network_order = htonl(length);
    return std::string(reinterpret_cast<const char *>(&network_order), sizeof network_order);
}

std::string frame(const std::string &payload)
{
    return frame_prefix(static_cast<uint32_t>(payload.size())) + payload;
}

scripted_daemon::scripted_daemon(script steps) : steps_(std::move(steps))
{
    char templ[] = "/tmp/zrdaemon-XXXXXX";
    if (mkdtemp(templ) == nullptr)
        throw std::runtime_error("mkdtemp failed");
    dir_ = templ;
    path_ = dir_ + "/daemon.sock";
    listen_fd_ = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path_.c_str(), sizeof address.sun_path - 1);
    if (listen_fd_ < 0 ||
        bind(listen_fd_, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
        listen(listen_fd_, 8) != 0)
        throw std::runtime_error("cannot listen on " + path_);
    if (pipe(wake_) != 0)
        throw std::runtime_error("pipe failed");
    thread_ = std::thread([this] { run(); });
}

scripted_daemon::~scripted_daemon()
{
    stop();
    close_fd(listen_fd_);
    close_fd(wake_[0]);
    close_fd(wake_[1]);
    if (!path_.empty())
        unlink(path_.c_str());
    if (!dir_.empty())
        rmdir(dir_.c_str());
}

void scripted_daemon::stop()
{
    if (!thread_.joinable())
        return;
    stopping_ = true;
    char byte = 0;
    ssize_t ignored = write(wake_[1], &byte, 1);
    (void)ignored;
    thread_.join();
}

// Accepts connections one after the other until stopped; each one plays the
// steps that are left (none left: closed at once).
void scripted_daemon::run()
{
    while (!stopping_) {
        if (!wait_for(listen_fd_, POLLIN))
            continue;
        int connection = accept(listen_fd_, nullptr, nullptr);
        if (connection < 0)
            continue;
        play(connection);
        close_fd(connection);
    }
}

// Plays steps on one connection until the script runs out or the connection
// ends. A reading step that finds the client gone stays for the next one.
void scripted_daemon::play(int connection)
{
    while (next_step_ < steps_.size() && !stopping_) {
        const step &s = steps_[next_step_];
        if (s.reads_request && !read_request(connection, nullptr))
            return;
        bool goes_on = act(connection, s);
        next_step_++;
        note(nullptr);
        if (!goes_on)
            return;
    }
}

// Carries out a step's action; false when the connection is over.
bool scripted_daemon::act(int connection, const step &s)
{
    switch (s.what) {
    case step::kind::none:
        return true;
    case step::kind::send_bytes:
        return write_all(connection, s.bytes);
    case step::kind::close:
        return false;
    case step::kind::wait: {
        pollfd wake = {wake_[0], POLLIN, 0};
        poll(&wake, 1, static_cast<int>(s.duration.count()));
        return !stopping_;
    }
    case step::kind::serve:
        return serve(connection, s.handler);
    }
    return false;
}

// Answers requests with handler until the client closes or handler
// returns null.
bool scripted_daemon::serve(int connection, const request_handler &handler)
{
    for (;;) {
        json_handle request;
        if (!read_request(connection, &request))
            return false;
        json_handle response(handler(request.get()));
        if (response == nullptr)
            return false;
        char *text = json_dumps(response.get(), JSON_ENCODE_ANY);
        bool sent = text != nullptr && write_all(connection, frame(text));
        free(text);
        if (!sent)
            return false;
    }
}

// Reads one request frame and records it; the parsed request goes to
// *parsed when asked for.
bool scripted_daemon::read_request(int connection, json_handle *parsed)
{
    char prefix[4];
    if (!read_exactly(connection, prefix, sizeof prefix))
        return false;
    uint32_t network_order;
    memcpy(&network_order, prefix, sizeof network_order);
    uint32_t length = ntohl(network_order);
    if (length > request_limit)
        return false;
    std::string text(length, '\0');
    if (!read_exactly(connection, text.data(), length))
        return false;
    if (parsed != nullptr)
        parsed->reset(json_loadb(text.data(), text.size(), JSON_DECODE_ANY, nullptr));
    note(&text);
    return true;
}

// Waits until fd is ready for events, the daemon stops, or the limit passes;
// true only when fd is ready.
bool scripted_daemon::wait_for(int fd, short events)
{
    pollfd fds[2] = {{fd, events, 0}, {wake_[0], POLLIN, 0}};
    int ready = poll(fds, 2, wait_limit_ms);
    if (ready <= 0 || stopping_ || (fds[1].revents & POLLIN))
        return false;
    return fds[0].revents != 0;
}

bool scripted_daemon::read_exactly(int fd, char *buffer, size_t size)
{
    return transfer(size, [&] { return wait_for(fd, POLLIN); }, [&](size_t done) {
        return recv(fd, buffer + done, size - done, MSG_DONTWAIT);
    });
}

bool scripted_daemon::write_all(int fd, const std::string &bytes)
{
    return transfer(bytes.size(), [&] { return wait_for(fd, POLLOUT); }, [&](size_t done) {
        return send(fd, bytes.data() + done, bytes.size() - done, MSG_DONTWAIT | MSG_NOSIGNAL);
    });
}

// Records a request read, or a step played when request is null.
void scripted_daemon::note(std::string *request)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (request != nullptr)
        texts_.push_back(std::move(*request));
    else
        steps_done_++;
    changed_.notify_all();
}

size_t scripted_daemon::request_count() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return texts_.size();
}

std::string scripted_daemon::request_text(size_t i) const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return i < texts_.size() ? texts_[i] : std::string();
}

bool scripted_daemon::wait_for_steps(size_t count, std::chrono::milliseconds limit) const
{
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, limit, [&] { return steps_done_ >= count; });
}

int connect_unix(const std::string &path)
{
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0)
        close_fd(fd);
    return fd;
}

client_context::client_context(const scripted_daemon &daemon)
    : socket(connect_unix(daemon.socket_path()))
{
    auto *client = static_cast<cfg_client *>(calloc(1, sizeof(cfg_client)));
    client->socket = socket;
    handle.get()->client_data = client;
    handle.get()->free_client_data = client_cfg_free_context_data;
}

client_context::~client_context()
{
    close_fd(socket);
}

} // namespace zrtest
