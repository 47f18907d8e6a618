// Bytes from a peer through a socket pair into the frame receiver, with a
// short time-out; the peer closes after writing.
#include "support.h"

#include <sys/socket.h>
#include <unistd.h>

namespace {

// Announced lengths above this are left out: the receiver's up-front
// allocation of the announced length is a known fault being fixed apart.
constexpr uint32_t max_announced = 1u << 20;

uint32_t announced(const uint8_t *data, size_t size)
{
    if (size < 4)
        return 0;
    return uint32_t(data[0]) << 24 | uint32_t(data[1]) << 16 | uint32_t(data[2]) << 8 | data[3];
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    zrfuzz::quiet_logging();
    if (announced(data, size) > max_announced)
        return 0;
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0)
        return 0;
    if (size > 0 && write(pair[1], data, size) != ssize_t(size)) {
        close(pair[0]);
        close(pair[1]);
        return 0;
    }
    close(pair[1]);
    json_decref(cfg_receive_timeout(pair[0], 20));
    close(pair[0]);
    return 0;
}
