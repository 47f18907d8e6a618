// Bytes from a peer through a socket pair into the frame receiver, with a
// short time-out; the peer closes after writing.
#include "support.h"

#include <sys/socket.h>
#include <unistd.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    zrfuzz::quiet_logging();
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
