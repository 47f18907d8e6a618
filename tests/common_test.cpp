// The configuration context: lifecycle, lookups and uuids.
#include "context.h"

#include <cctype>
#include <cstring>
#include <set>
#include <thread>

using namespace zrtest;

TEST(Context, LifecycleAndSchemaOwnership)
{
    static int client_data_frees = 0;
    cfg *ctx = cfg_create_new_config(nullptr);
    ASSERT_TRUE(ctx != nullptr && ctx->schema != nullptr);
    cfg_schema *schema = ctx->schema;
    cfg_message_add_database(ctx);
    ctx->transaction_dir = strdup("/tmp"); // what the context owns goes with it
    cfg_add_conflict(ctx, "a");
    ctx->client_data = malloc(16);
    ctx->free_client_data = [](cfg *c) {
        client_data_frees++;
        free(c->client_data);
        c->client_data = nullptr;
        return 1;
    };
    EXPECT_EQ(cfg_free_config(&ctx), 1);
    EXPECT_EQ(client_data_frees, 1);

    // The schema outlives its contexts, shared or not, and is released on its own.
    cfg *a = cfg_create_new_config(schema);
    cfg *b = cfg_create_new_config(schema);
    a->client_data = malloc(16); // no hook: the context frees it
    cfg_free_config(&a);
    cfg_free_config(&b);
    EXPECT_EQ(cfg_free_schema(nullptr, &schema), 1);
}

TEST(Lookups, MissingHooksReportWhereTheyFailed)
{
    context_handle ctx(false);
    EXPECT_EQ(cfg_get_by_id(ctx.get(), "x"), nullptr);
    EXPECT_EQ(cfg_root(ctx.get()), nullptr);
    char *ids[] = {const_cast<char *>("x"), nullptr};
    EXPECT_EQ(cfg_get_by_ids(ctx.get(), ids, 1), nullptr);
    // The message names the library's source and line: the same for the
    // first two calls, which fail in one place.
    texts said = messages_of(ctx.get());
    ASSERT_EQ(said.size(), 3u);
    for (const std::string &text : said)
        EXPECT_EQ(text.rfind("Unexpected internal error (File src/", 0), 0u) << text;
    EXPECT_EQ(said[0], said[1]);
    EXPECT_NE(said[1], said[2]);
}

// An index entry a caller made itself is released with free().
TEST(Lookups, ForeignIndexEntryIsFreed)
{
    context_handle a;
    cfg_element *own = cfg_init_int(a.get(), 7);
    strcpy(own->uuid, "own");
    auto *entry = static_cast<cfg_index_entry *>(calloc(1, sizeof(cfg_index_entry)));
    entry->element = own;
    HASH_ADD_KEYPTR(hh, a.get()->elements, own->uuid, strlen(own->uuid), entry);
    EXPECT_EQ(cfg_find_by_id(a.get(), "own"), own);
    cfg_free_element(a.get(), own);
    EXPECT_EQ(cfg_find_by_id(a.get(), "own"), nullptr);
}

// Contexts on separate threads share the log state, the message catalogue
// and the index entry pool: each thread fills contexts past a slab's worth of
// entries and frees them while the other does the same. Run under the
// sanitizers, this finds what guards they lack.
TEST(Context, TwoThreadsCreateContextsAndIndexEntriesAtOnce)
{
    auto work = [](std::set<std::string> *ids) {
        for (int round = 0; round < 10; round++) {
            context_handle h;
            std::vector<cfg_element *> made;
            for (int i = 0; i < 3000; i++)
                made.push_back(cfg_new_int(h.get(), i));
            for (size_t i = 0; i < made.size(); i += 2)
                cfg_free_element(h.get(), made[i]);
            for (size_t i = 1; i < made.size(); i += 500) {
                EXPECT_EQ(cfg_find_by_id(h.get(), made[i]->uuid), made[i]);
                ids->insert(made[i]->uuid);
            }
            EXPECT_EQ(HASH_COUNT(h.get()->elements), 1500u);
            cfg_message_add_path_not_found(h.get(), "x");
            EXPECT_STREQ(cfg_get_first_message_string(h.get()),
                         "Could not find element with path 'x'");
        }
    };
    std::set<std::string> first, second;
    std::thread a(work, &first), b(work, &second);
    a.join();
    b.join();
    first.insert(second.begin(), second.end());
    EXPECT_EQ(first.size(), 120u) << "ids made on two threads never collide";
}

// {xxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxx}: braces in place of the first and last
// lower-case hex digit, hyphens at 9, 14, 19 and 24, version 1. Copies and
// comparisons stop at the uuid size.
TEST(Uuid, FormWithBracesInPlaceOfFirstAndLastDigitAndBoundedCopy)
{
    char out[CFG_UUID_SIZE];
    ASSERT_EQ(gen_uuid(out), 36);
    std::string form = out;
    for (char &c : form)
        c = isdigit(c) || (c >= 'a' && c <= 'f') ? 'x' : c;
    EXPECT_EQ(form, "{xxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxx}");
    EXPECT_EQ(out[14], '1') << out;
    std::string long_id(300, 'a');
    char dst[CFG_UUID_SIZE + 1];
    dst[CFG_UUID_SIZE] = '!';
    uuidcpy(dst, long_id.c_str());
    EXPECT_EQ(dst[CFG_UUID_SIZE], '!');
    EXPECT_EQ(uuidcmp(long_id.c_str(), (long_id + "b").c_str()), 0);
}
