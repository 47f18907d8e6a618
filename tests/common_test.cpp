// The configuration context: lifecycle, lookups, uuids and the id map.
#include "context.h"
#include "log_capture.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cstring>
#include <set>
#include <string>

using zrtest::context_handle;
using zrtest::log_capture;

TEST(Context, CreateAndFree)
{
    cfg *ctx = cfg_create_new_config(nullptr);
    ASSERT_NE(ctx, nullptr);
    EXPECT_NE(ctx->schema, nullptr);
    EXPECT_EQ(ctx->elements, nullptr);
    EXPECT_EQ(ctx->messages_count, 0);
    cfg_schema *schema = ctx->schema;
    cfg_message_add_database(ctx);
    ctx->transaction_dir = strdup("/tmp");
    ctx->transaction_id = strdup("t1");
    ctx->conflicts = static_cast<char **>(calloc(2, sizeof(char *)));
    ctx->conflicts[0] = strdup("a");
    ctx->conflicts[1] = strdup("b");
    ctx->conflicts_count = 2;
    EXPECT_EQ(cfg_free_config(&ctx), 1);
    EXPECT_EQ(ctx, nullptr);
    // The schema outlives the context and is released on its own.
    EXPECT_EQ(schema->root, nullptr);
    EXPECT_EQ(cfg_free_schema(nullptr, &schema), 1);
    EXPECT_EQ(schema, nullptr);
}

TEST(Context, SharedSchemaIsNotTakenOver)
{
    cfg_schema *schema = cfg_create_new_schema();
    cfg *a = cfg_create_new_config(schema);
    cfg *b = cfg_create_new_config(schema);
    EXPECT_EQ(a->schema, schema);
    EXPECT_EQ(b->schema, schema);
    cfg_free_config(&a);
    cfg_free_config(&b);
    EXPECT_EQ(cfg_free_schema(nullptr, &schema), 1);
}

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

TEST(Context, ClientDataReleasedByHookOrByContext)
{
    cfg *ctx = cfg_create_new_config(nullptr);
    cfg_schema *schema = ctx->schema;
    ctx->client_data = malloc(16);
    ctx->free_client_data = free_client;
    client_data_frees = 0;
    cfg_free_config(&ctx);
    EXPECT_EQ(client_data_frees, 1);

    ctx = cfg_create_new_config(schema);
    ctx->client_data = malloc(16); // no hook: the context frees it
    cfg_free_config(&ctx);
    cfg_free_schema(nullptr, &schema);
}

TEST(Context, NullHandles)
{
    cfg *none = nullptr;
    EXPECT_EQ(cfg_free_config(nullptr), 0);
    EXPECT_EQ(cfg_free_config(&none), 0);
    cfg_schema *no_schema = nullptr;
    EXPECT_EQ(cfg_free_schema(nullptr, nullptr), 0);
    EXPECT_EQ(cfg_free_schema(nullptr, &no_schema), 0);
    EXPECT_EQ(cfg_get_by_id(nullptr, "x"), nullptr);
    EXPECT_EQ(cfg_get_by_ids(nullptr, nullptr, 0), nullptr);
    EXPECT_EQ(cfg_root(nullptr), nullptr);
    EXPECT_EQ(cfg_schema_root(nullptr), nullptr);
    EXPECT_EQ(cfg_find_by_id(nullptr, "x"), nullptr);
}

TEST(Lookups, MissingHooksReportWhereTheyFailed)
{
    context_handle ctx(false);
    EXPECT_EQ(cfg_get_by_id(ctx.get(), "x"), nullptr);
    EXPECT_EQ(cfg_root(ctx.get()), nullptr);
    char *ids[] = {const_cast<char *>("x"), nullptr};
    EXPECT_EQ(cfg_get_by_ids(ctx.get(), ids, 1), nullptr);
    ASSERT_EQ(cfg_message_count(ctx.get()), 3);
    EXPECT_STREQ(cfg_get_message_string(ctx.get()->messages[0]),
                 "Unexpected internal error (File src/common, Line 422)");
    EXPECT_STREQ(cfg_get_message_string(ctx.get()->messages[2]),
                 "Unexpected internal error (File src/common, Line 435)");
}

namespace {

char *seen_ids[4];
int seen_count = -1;

cfg_element **record_ids(cfg *, char **uuids, int count)
{
    seen_ids[0] = uuids[0];
    seen_count = count;
    return nullptr;
}

const char *asked_for = nullptr;

cfg_element *record_id(cfg *, const char *uuid)
{
    asked_for = uuid;
    return nullptr;
}

} // namespace

TEST(Lookups, HooksReceiveTheirArguments)
{
    context_handle ctx(false);
    ctx.get()->get_by_id = record_id;
    ctx.get()->get_by_ids = record_ids;
    EXPECT_EQ(cfg_root(ctx.get()), nullptr);
    EXPECT_STREQ(asked_for, "root-1");
    char *ids[] = {const_cast<char *>("a"), const_cast<char *>("b"), nullptr};
    cfg_get_by_ids(ctx.get(), ids, 2);
    EXPECT_EQ(seen_ids[0], ids[0]);
    EXPECT_EQ(seen_count, 2);
    EXPECT_EQ(cfg_message_count(ctx.get()), 0);
    EXPECT_EQ(cfg_find_by_id(ctx.get(), "root-1"), nullptr); // empty index
}

namespace {

// {xxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxx}: hex digits, hyphens at 9, 14, 19, 24.
bool has_uuid_form(const char *text)
{
    if (strlen(text) != 36 || text[0] != '{' || text[35] != '}')
        return false;
    for (int i = 1; i < 35; i++) {
        bool hyphen = i == 8 || i == 13 || i == 18 || i == 23;
        if (hyphen != (text[i] == '-') || (!hyphen && !isxdigit(text[i])))
            return false;
    }
    return true;
}

} // namespace

TEST(Uuid, FormWithBracesInPlaceOfFirstAndLastDigit)
{
    std::set<std::string> seen;
    for (int i = 0; i < 50; i++) {
        char out[CFG_UUID_SIZE];
        memset(out, 'x', sizeof out);
        ASSERT_EQ(gen_uuid(out), 36);
        ASSERT_EQ(strlen(out), 36u);
        EXPECT_TRUE(has_uuid_form(out)) << out;
        EXPECT_EQ(out[14], '1'); // version 1
        seen.insert(out);
    }
    EXPECT_EQ(seen.size(), 50u);
}

TEST(Uuid, BoundedCompareAndCopy)
{
    std::string a(300, 'a'), b(300, 'a');
    b[280] = 'b'; // differs only past the bound
    EXPECT_EQ(uuidcmp(a.c_str(), b.c_str()), 0);
    EXPECT_NE(uuidcmp("root-1", "root-2"), 0);
    char dst[CFG_UUID_SIZE + 1];
    dst[CFG_UUID_SIZE] = '!';
    uuidcpy(dst, a.c_str());
    EXPECT_EQ(dst[CFG_UUID_SIZE - 1], 'a');
    EXPECT_EQ(dst[CFG_UUID_SIZE], '!');
    uuidcpy(dst, "root-1");
    EXPECT_STREQ(dst, "root-1");
}

TEST(Flags, QueriesReturnTheBitValue)
{
    cfg_element e;
    memset(&e, 0, sizeof e);
    e.flags = CFG_FLAG_NEW | CFG_FLAG_CHANGED;
    EXPECT_EQ(cfg_element_is_new(&e), 1u);
    EXPECT_EQ(cfg_element_is_changed(&e), 2u);
    EXPECT_EQ(cfg_element_is_deleted(&e), 0u);
    e.flags = CFG_FLAG_DELETED | CFG_FLAG_HAS_FUTURE;
    EXPECT_EQ(cfg_element_is_deleted(&e), 4u);
}

TEST(Helpers, StringsToList)
{
    char *texts[] = {const_cast<char *>("a"), const_cast<char *>("b"), nullptr};
    json_t *list = strings_to_list(texts);
    json_t *empty = strings_to_list(nullptr);
    char *dumped = json_dumps(list, 0);
    EXPECT_STREQ(dumped, "[\"a\", \"b\"]");
    EXPECT_EQ(json_array_size(empty), 0u);
    free(dumped);
    json_decref(list);
    json_decref(empty);
}

TEST(UuidMap, ItemsLeaveBothIndexes)
{
    cfg_uuid_item *first = nullptr, *second = nullptr;
    for (const char *key : {"old-1", "old-2", "old-3"}) {
        auto *item = static_cast<cfg_uuid_item *>(calloc(1, sizeof(cfg_uuid_item)));
        strcpy(item->key, key);
        HASH_ADD_STR(first, key, item);
        HASH_ADD(hh2, second, key, strlen(item->key), item);
    }
    free_uuid_map(first); // frees every item once; leak checkers see the rest
    free_uuid_map(nullptr);
}
