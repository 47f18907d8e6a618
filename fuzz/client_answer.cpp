// A daemon's answer fed to a request function. The first byte picks the
// function; the rest, split at NUL bytes, are the frames a peer has already
// written to its end of a socket pair before closing it. The context holds
// the appliance's system and users and is connected as a client's is.
#include "support.h"

#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// Calls part(start, length) for each NUL-separated part of the bytes, until
// it returns false; false then.
template <typename Part> bool each_part(const uint8_t *data, size_t size, Part part)
{
    size_t start = 0;
    while (start <= size) {
        const void *nul = memchr(data + start, 0, size - start);
        size_t end = nul != nullptr ? size_t(static_cast<const uint8_t *>(nul) - data) : size;
        if (!part(data + start, end - start))
            return false;
        start = end + 1;
    }
    return true;
}

// Writes each part as one frame, all in one non-blocking write; false when
// the pair's buffer cannot take them. (A write per frame would fill the
// buffer with small chunks and block until libFuzzer's timer broke it.)
bool write_frames(int fd, const uint8_t *data, size_t size)
{
    std::string frames;
    each_part(data, size, [&frames](const uint8_t *part, size_t length) {
        char prefix[4] = {char(length >> 24), char(length >> 16), char(length >> 8),
                          char(length)};
        frames.append(prefix, 4).append(reinterpret_cast<const char *>(part), length);
        return true;
    });
    return send(fd, frames.data(), frames.size(), MSG_DONTWAIT) == ssize_t(frames.size());
}

void connect_to(cfg *ctx, int fd)
{
    auto *client = static_cast<cfg_client *>(calloc(1, sizeof(cfg_client)));
    client->socket = fd;
    ctx->client_data = client;
    ctx->free_client_data = client_cfg_free_context_data;
    ctx->get_by_id = client_cfg_get_by_id;
    ctx->get_by_ids = client_cfg_get_by_ids;
}

void search_users(cfg *ctx)
{
    cfg_condition *all = cfg_new_and_condition();
    cfg_condition_add_child(all, cfg_new_string_condition("name", CFG_OPER_EQ, "admin"));
    cfg_condition_add_child(all, cfg_new_bool_condition("no_password", CFG_OPER_NE, 1));
    cfg_search(ctx, "user", all);
    cfg_free_conditions(all);
}

void call(cfg *ctx, uint8_t which)
{
    switch (which % 8) {
    case 0:
    case 1:
        cfg_pull(ctx, which % 2);
        break;
    case 2: {
        char *ids[] = {const_cast<char *>("users-9"), const_cast<char *>("nowhere-1")};
        free(client_cfg_get_by_ids(ctx, ids, 2));
        break;
    }
    case 3:
        search_users(ctx);
        break;
    case 4:
        cfg_fetch_by_path(ctx, "system.hostname");
        break;
    case 5:
        cfg_commit(ctx);
        break;
    case 6:
        cfg_get_list(ctx, cfg_get_by_path(ctx, "users"));
        break;
    default:
        client_cfg_get_by_id(ctx, "nowhere-1");
        break;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0)
        return 0;
    if (write_frames(pair[1], data + 1, size - 1)) {
        shutdown(pair[1], SHUT_WR);
        cfg *ctx = zrfuzz::small_tree_context();
        connect_to(ctx, pair[0]);
        call(ctx, data[0]);
        cfg_free_message_stack(ctx);
        zrfuzz::release(ctx);
    }
    close(pair[0]);
    close(pair[1]);
    return 0;
}
