#include "scripted_daemon.h"

#include <arpa/inet.h>
#include <cstring>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace zrtest {

namespace {

// No single read or write of the daemon waits longer than this.
constexpr timeval io_limit = {20, 0};

sockaddr_un unix_address(const std::string &path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    return address;
}

void close_fd(int &fd)
{
    if (fd >= 0)
        ::close(fd);
    fd = -1;
}

// Fails when the peer closes, the time limit passes or the destructor cuts
// the connection.
bool read_exactly(int fd, char *buffer, size_t size)
{
    return recv(fd, buffer, size, MSG_WAITALL) == static_cast<ssize_t>(size);
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
    listen_fd_ = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address = unix_address(path_);
    if (listen_fd_ < 0 ||
        bind(listen_fd_, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
        listen(listen_fd_, 8) != 0)
        throw std::runtime_error("cannot listen on " + path_);
    thread_ = std::thread([this] { run(); });
}

// Cuts the connection (or the wait for one) and any wait step short, then
// joins.
scripted_daemon::~scripted_daemon()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
        if (connection_ >= 0)
            shutdown(connection_, SHUT_RDWR);
    }
    shutdown(listen_fd_, SHUT_RDWR);
    changed_.notify_all();
    thread_.join();
    close_fd(listen_fd_);
}

// Plays the steps on the first connection until the script runs out or the
// connection ends.
void scripted_daemon::run()
{
    int connection = accept(listen_fd_, nullptr, nullptr);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopping_)
            close_fd(connection);
        connection_ = connection;
    }
    if (connection < 0)
        return;
    setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &io_limit, sizeof io_limit);
    setsockopt(connection, SOL_SOCKET, SO_SNDTIMEO, &io_limit, sizeof io_limit);
    for (const step &s : steps_)
        if ((s.reads_request && !read_request(connection)) || !act(connection, s))
            break;
    std::lock_guard<std::mutex> lock(mutex_);
    close_fd(connection_);
}

// Carries out a step's action; false when the connection is over.
bool scripted_daemon::act(int connection, const step &s)
{
    switch (s.what) {
    case step::kind::none:
        return true;
    case step::kind::send_bytes:
        return send(connection, s.bytes.data(), s.bytes.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(s.bytes.size());
    case step::kind::wait: {
        std::unique_lock<std::mutex> lock(mutex_);
        return !changed_.wait_for(lock, s.duration, [this] { return stopping_; });
    }
    }
    return false;
}

// Reads one request frame and records it.
bool scripted_daemon::read_request(int connection)
{
    uint32_t network_order;
    if (!read_exactly(connection, reinterpret_cast<char *>(&network_order), sizeof network_order))
        return false;
    std::string text(ntohl(network_order), '\0');
    if (!read_exactly(connection, text.data(), text.size()))
        return false;
    std::lock_guard<std::mutex> lock(mutex_);
    texts_.push_back(std::move(text));
    changed_.notify_all();
    return true;
}

size_t scripted_daemon::request_count() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return texts_.size();
}

std::string scripted_daemon::request_text(size_t i) const
{
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, std::chrono::seconds(5), [&] { return i < texts_.size(); });
    return i < texts_.size() ? texts_[i] : std::string();
}

int connect_unix(const std::string &path)
{
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address = unix_address(path);
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
