// The configuration context: lifecycle, lookups, uuids and flag queries.
#include "context.h"

#include <cctype>
#include <cstring>
#include <set>

using namespace zrtest;

namespace {

int client_data_frees = 0;

int free_client(cfg *context)
{
    client_data_frees++;
    free(context->client_data);
    context->client_data = nullptr;
    return 1;
}

} // namespace

TEST(Context, LifecycleAndSchemaOwnership)
{
    cfg *ctx = cfg_create_new_config(nullptr);
    ASSERT_NE(ctx, nullptr);
    ASSERT_NE(ctx->schema, nullptr);
    cfg_schema *schema = ctx->schema;
    cfg_message_add_database(ctx);
    ctx->transaction_dir = strdup("/tmp"); // what the context owns goes with it
    ctx->conflicts = static_cast<char **>(calloc(1, sizeof(char *)));
    ctx->conflicts[0] = strdup("a");
    ctx->conflicts_count = 1;
    ctx->client_data = malloc(16);
    ctx->free_client_data = free_client;
    client_data_frees = 0;
    EXPECT_EQ(cfg_free_config(&ctx), 1);
    EXPECT_EQ(ctx, nullptr);
    EXPECT_EQ(client_data_frees, 1);

    // The schema outlives its contexts, shared or not, and is released on its own.
    cfg *a = cfg_create_new_config(schema);
    cfg *b = cfg_create_new_config(schema);
    EXPECT_EQ(b->schema, schema);
    a->client_data = malloc(16); // no hook: the context frees it
    cfg_free_config(&a);
    cfg_free_config(&b);
    EXPECT_EQ(cfg_free_schema(nullptr, &schema), 1);
    EXPECT_EQ(schema, nullptr);
    EXPECT_EQ(cfg_free_config(&ctx), 0);
    EXPECT_EQ(cfg_free_schema(nullptr, &schema), 0);
}

TEST(Lookups, MissingHooksReportWhereTheyFailedRootGoesThroughTheHook)
{
    context_handle ctx(false);
    EXPECT_EQ(cfg_get_by_id(ctx.get(), "x"), nullptr);
    EXPECT_EQ(cfg_root(ctx.get()), nullptr);
    char *ids[] = {const_cast<char *>("x"), nullptr};
    EXPECT_EQ(cfg_get_by_ids(ctx.get(), ids, 1), nullptr);
    const std::string unexpected = "Unexpected internal error (File src/common, Line ";
    EXPECT_EQ(messages_of(ctx.get()), (texts{unexpected + "422)", unexpected + "422)",
                                             unexpected + "435)"}));

    // The root is looked up through the hook under "root-1".
    static const char *asked_for = nullptr;
    ctx.get()->get_by_id = [](cfg *, const char *uuid) -> cfg_element * {
        asked_for = uuid;
        return nullptr;
    };
    EXPECT_EQ(cfg_root(ctx.get()), nullptr);
    EXPECT_STREQ(asked_for, "root-1");
    EXPECT_EQ(cfg_message_count(ctx.get()), 3);
}

// {xxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxx}: braces in place of the first and last
// hex digit, hyphens at 9, 14, 19 and 24, version 1.
TEST(Uuid, FormWithBracesInPlaceOfFirstAndLastDigitAndBoundedCopy)
{
    std::set<std::string> seen;
    for (int n = 0; n < 20; n++) {
        char out[CFG_UUID_SIZE];
        ASSERT_EQ(gen_uuid(out), 36);
        ASSERT_EQ(strlen(out), 36u);
        EXPECT_EQ(out[0], '{');
        EXPECT_EQ(out[35], '}');
        for (int i = 1; i < 35; i++) {
            bool hyphen = i == 8 || i == 13 || i == 18 || i == 23;
            EXPECT_TRUE(hyphen ? out[i] == '-' : isxdigit(out[i]) != 0) << out;
        }
        EXPECT_EQ(out[14], '1') << out;
        seen.insert(out);
    }
    EXPECT_EQ(seen.size(), 20u);

    // Copies and comparisons stop at the uuid size.
    std::string long_id(300, 'a');
    char dst[CFG_UUID_SIZE + 1];
    dst[CFG_UUID_SIZE] = '!';
    uuidcpy(dst, long_id.c_str());
    EXPECT_EQ(dst[CFG_UUID_SIZE], '!');
    EXPECT_EQ(uuidcmp(long_id.c_str(), (long_id + "b").c_str()), 0);
}

TEST(Flags, QueriesReturnTheBitValue)
{
    cfg_element e{};
    e.flags = CFG_FLAG_NEW | CFG_FLAG_CHANGED;
    EXPECT_EQ(cfg_element_is_new(&e), 1u);
    EXPECT_EQ(cfg_element_is_changed(&e), 2u);
    EXPECT_EQ(cfg_element_is_deleted(&e), 0u);
    e.flags = CFG_FLAG_DELETED | CFG_FLAG_HAS_FUTURE;
    EXPECT_EQ(cfg_element_is_deleted(&e), 4u);
}
