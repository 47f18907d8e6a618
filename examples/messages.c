/* Example client: create a context, report two failures on its message
 * stack, print them as a caller would, and free everything. */
#include <stdio.h>

#include <zrconfig.h>

int main(void)
{
    cfg *ctx = cfg_create_new_config(NULL);
    cfg_schema *schema;
    int i;

    if (ctx == NULL)
        return 1;
    schema = ctx->schema;
    cfg_message_add_path_not_found(ctx, "system.net.conns[3].address");
    cfg_message_add_int_outside_range(ctx, 1, 65535, "{4a1e0c2-0000-11ee-8f00-0a1b2c3d4e5}");

    for (i = 0; i < cfg_message_count(ctx); i++) {
        cfg_message *msg = cfg_get_message_object(ctx, i);
        printf("message %d: code %d, level %d: %s\n", i, cfg_get_message_code(msg),
               cfg_get_message_level(msg), cfg_get_message_string(msg));
    }

    cfg_free_config(&ctx);
    cfg_free_schema(NULL, &schema);
    return 0;
}
