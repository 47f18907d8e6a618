/* A C99 client of the library: create a context, push messages, read them
 * back through the documented records and accessors, free everything. */
#include <stdio.h>
#include <string.h>

#include "zrconfig.h"
#include "zrutil.h"

static int failures = 0;

#define CHECK(cond)                                                   \
    do {                                                              \
        if (!(cond)) {                                                \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__,   \
                    __LINE__, #cond);                                 \
            failures++;                                               \
        }                                                             \
    } while (0)

static void quiet(int priority, const char *file, const char *func, int line,
                  const char *message, void *user)
{
    (void)priority; (void)file; (void)func; (void)line; (void)message; (void)user;
}

int main(void)
{
    cfg *ctx = cfg_create_new_config(NULL);
    cfg_schema *schema;
    cfg_message *msg;
    char uuid[CFG_UUID_SIZE];
    json_t *stack;

    zrlog_set_handler(quiet, NULL);
    CHECK(ctx != NULL);
    schema = ctx->schema;
    CHECK(cfg_message_add_path_not_found(ctx, "system.hostname"));
    CHECK(cfg_message_add_int_outside_range(ctx, 1, 10, "{abc}"));
    CHECK(cfg_message_count(ctx) == 2);
    CHECK(ctx->messages_count == 2);

    msg = cfg_get_message_object(ctx, 1);
    CHECK(msg->code == 61 && cfg_get_message_level(msg) == 1);
    CHECK(strcmp(cfg_get_message_string(msg),
                 "Number is outside the allowed range of 1-10.") == 0);
    CHECK(strcmp(cfg_get_message_arg_name(msg, 2), "uuid") == 0);
    CHECK(strcmp(cfg_get_first_message_string(ctx),
                 "Could not find element with path 'system.hostname'") == 0);

    stack = cfg_message_stack_to_json(ctx);
    CHECK(json_array_size(stack) == 2);
    json_decref(stack);

    CHECK(gen_uuid(uuid) == 36 && uuid[0] == '{' && uuid[35] == '}');
    CHECK(cfg_get_by_id(ctx, uuid) == NULL); /* no lookup hook installed */
    CHECK(cfg_message_count(ctx) == 3);

    CHECK(cfg_free_config(&ctx) == 1 && ctx == NULL);
    CHECK(cfg_free_schema(NULL, &schema) == 1 && schema == NULL);
    zrlog_set_handler(NULL, NULL);
    if (failures == 0)
        printf("c client: all checks passed\n");
    return failures == 0 ? 0 : 1;
}
