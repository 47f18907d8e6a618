/* Example client of the appliance daemon.
 *
 * Usage: appliance_client SOCKET
 *
 * Reads the host name and the network connections, changes the MTU of the
 * "lan" connection, validates and commits the change, reads it back in a
 * fresh session, and finally shows that removing the address of a static
 * connection is refused by validation (that change is never committed).
 * Prints a transcript on standard output; exits 0 only when every step
 * behaved as expected. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>

#include <zrconfig.h>
#include <zrutil.h>

#define CLIENT_NAME "appliance-client"

/* Library log lines: warnings and errors go to standard error, the rest
 * (validation progress, debug) is dropped to keep the transcript readable. */
static void log_line(int priority, const char *file, const char *func, int line,
                     const char *message, void *user)
{
    (void)user;
    if (priority <= LOG_WARNING)
        fprintf(stderr, "log: %s:%s:%d: %s%s", file, func, line, message,
                strchr(message, '\n') != NULL ? "" : "\n");
}

/* Prints every message on the context's stack as "error: <text>". */
static void print_messages(cfg *ctx)
{
    int i;

    for (i = 0; i < cfg_message_count(ctx); i++) {
        const char *text = cfg_get_message_string(cfg_get_message_object(ctx, i));
        printf("error: %s\n", text != NULL ? text : "(message without text)");
    }
}

/* Reports why a step failed, with the context's messages, and ends the
 * session. Returns 0 so that callers can return its result. */
static int fail(cfg **ctx, const char *why)
{
    printf("FAILED: %s\n", why);
    if (*ctx != NULL) {
        print_messages(*ctx);
        cfg_disconnect(ctx);
    }
    return 0;
}

static cfg *open_session(const char *socket_path)
{
    cfg *ctx = cfg_connect(socket_path, CLIENT_NAME);

    if (ctx == NULL)
        printf("FAILED: cannot open a session on %s\n", socket_path);
    else if (cfg_schema_root(ctx) == NULL)
        printf("FAILED: the daemon sent no usable schema\n");
    else
        return ctx;
    cfg_disconnect(&ctx);
    return NULL;
}

/* The member key of connection index, or NULL when it is absent. Looking
 * it up with cfg_get_by_path leaves no message behind when it is missing. */
static cfg_element *conn_member(cfg *ctx, unsigned index, const char *key)
{
    char path[64];

    snprintf(path, sizeof path, "network.conns[%u].%s", index, key);
    return cfg_get_by_path(ctx, path);
}

/* Prints one connection. Name and mode are required; address, prefix
 * length and MTU are printed when present. Returns 1 on success. */
static int print_conn(cfg *ctx, unsigned index)
{
    char *name = NULL, *mode = NULL, *address = NULL;
    int netmask = 0, mtu = 0;
    int ok = cfg_simple_string_value_by_path(ctx, &name, "network.conns[%u].name", index) &&
             cfg_simple_string_value_by_path(ctx, &mode, "network.conns[%u].mode", index);

    if (ok) {
        printf("network.conns[%u]: name %s, mode %s", index, name, mode);
        if (cfg_string_value(conn_member(ctx, index, "address"), &address))
            printf(", address %s", address);
        if (cfg_int_value(conn_member(ctx, index, "netmask"), &netmask))
            printf("/%d", netmask);
        if (cfg_int_value(conn_member(ctx, index, "mtu"), &mtu))
            printf(", mtu %d", mtu);
        printf("\n");
    }
    free(name);
    free(mode);
    free(address);
    return ok;
}

/* Prints the host name and every connection; stores the number of
 * connections in *count. Returns 1 on success. */
static int print_config(cfg *ctx, unsigned *count)
{
    char *hostname = NULL;
    unsigned i;

    if (!cfg_simple_string_value_by_path(ctx, &hostname, "system.hostname"))
        return 0;
    printf("system.hostname = %s\n", hostname);
    free(hostname);
    if (!cfg_list_size(cfg_simple_get_by_path(ctx, "network.conns"), count))
        return 0;
    for (i = 0; i < *count; i++)
        if (!print_conn(ctx, i))
            return 0;
    return 1;
}

/* Finds the connection called name among count connections. */
static int find_conn(cfg *ctx, unsigned count, const char *name, unsigned *index)
{
    unsigned i;

    for (i = 0; i < count; i++) {
        char *text = NULL;
        int same = cfg_string_value(conn_member(ctx, i, "name"), &text) &&
                   strcmp(text, name) == 0;

        free(text);
        if (same) {
            *index = i;
            return 1;
        }
    }
    return 0;
}

/* Sets the MTU of connection index (creating the member if the daemon holds
 * none), validates the change and commits it. Stores the value written. */
static int change_mtu(cfg *ctx, unsigned index, int *written)
{
    int mtu = 0;
    cfg_element *conn = cfg_simple_get_by_path(ctx, "network.conns[%u]", index);

    *written = 1400;
    if (cfg_int_value(conn_member(ctx, index, "mtu"), &mtu)) {
        *written = mtu == 1400 ? 1500 : 1400;
        printf("changing network.conns[%u].mtu from %d to %d\n", index, mtu, *written);
    } else {
        printf("setting network.conns[%u].mtu (not stored yet) to %d\n", index, *written);
    }
    if (conn == NULL || cfg_map_set_int(ctx, conn, "mtu", *written) == NULL)
        return 0;
    if (!cfg_validate_changed_data(ctx)) {
        printf("validation of the change: refused\n");
        return 0;
    }
    printf("validation of the change: passed\n");
    if (!cfg_commit(ctx))
        return 0;
    printf("commit: accepted\n");
    return 1;
}

/* Reads the MTU of connection index in a new session and compares it with
 * the value written. */
static int read_back(const char *socket_path, unsigned index, int expected)
{
    cfg *ctx = open_session(socket_path);
    int mtu = 0;

    if (ctx == NULL)
        return 0;
    if (!cfg_simple_int_value_by_path(ctx, &mtu, "network.conns[%u].mtu", index))
        return fail(&ctx, "cannot read the MTU back");
    printf("new session: network.conns[%u].mtu = %d\n", index, mtu);
    if (mtu != expected)
        return fail(&ctx, "the value read back differs from the value written");
    cfg_disconnect(&ctx);
    return 1;
}

/* Removes the address of static connection index and expects validation to
 * refuse the change. The change is discarded with the session. */
static int refuse_invalid(const char *socket_path, unsigned index)
{
    cfg *ctx = open_session(socket_path);
    cfg_element *conn;
    int valid;

    if (ctx == NULL)
        return 0;
    conn = cfg_simple_get_by_path(ctx, "network.conns[%u]", index);
    printf("removing network.conns[%u].address of a static connection\n", index);
    if (conn == NULL || !cfg_map_delete_key(ctx, conn, "address"))
        return fail(&ctx, "cannot remove the address");
    valid = cfg_validate_changed_data(ctx);
    printf("validation of the change: %s\n", valid ? "passed" : "refused");
    print_messages(ctx);
    if (valid || cfg_message_count(ctx) == 0) {
        printf("FAILED: the invalid change was not refused with a message\n");
        cfg_disconnect(&ctx);
        return 0;
    }
    printf("change discarded, not committed\n");
    cfg_disconnect(&ctx);
    return 1;
}

/* First session: read everything, then change and commit the lan MTU.
 * Stores the lan connection's index and the MTU written. */
static int first_session(const char *socket_path, unsigned *lan, int *written)
{
    cfg *ctx = open_session(socket_path);
    unsigned count = 0;

    if (ctx == NULL)
        return 0;
    printf("connected to %s\n", socket_path);
    if (!print_config(ctx, &count))
        return fail(&ctx, "cannot read the configuration");
    if (!find_conn(ctx, count, "lan", lan))
        return fail(&ctx, "there is no connection named lan");
    if (!change_mtu(ctx, *lan, written))
        return fail(&ctx, "the MTU change was not committed");
    cfg_disconnect(&ctx);
    return 1;
}

int main(int argc, char **argv)
{
    unsigned lan = 0;
    int written = 0;

    if (argc != 2) {
        fprintf(stderr, "usage: %s SOCKET\n", argv[0]);
        return 2;
    }
    /* Line by line, so the transcript interleaves with the daemon's log. */
    setvbuf(stdout, NULL, _IOLBF, 0);
    zrlog_set_handler(log_line, NULL);
    if (!first_session(argv[1], &lan, &written) || !read_back(argv[1], lan, written) ||
        !refuse_invalid(argv[1], lan))
        return 1;
    printf("result: every step behaved as expected\n");
    return 0;
}
