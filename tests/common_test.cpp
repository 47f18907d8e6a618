// The configuration context: lifecycle, lookups and uuids.
#include "context.h"

#include <cctype>
#include <cstring>
#include <set>
#include <thread>

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
    ASSERT_TRUE(ctx != nullptr && ctx->schema != nullptr);
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
    EXPECT_EQ(client_data_frees, 1);

    // The schema outlives its contexts, shared or not, and is released on its own.
    cfg *a = cfg_create_new_config(schema);
    cfg *b = cfg_create_new_config(schema);
    EXPECT_EQ(b->schema, schema);
    a->client_data = malloc(16); // no hook: the context frees it
    cfg_free_config(&a);
    cfg_free_config(&b);
    EXPECT_EQ(cfg_free_schema(nullptr, &schema), 1);
    EXPECT_EQ(cfg_free_config(&ctx), 0); // both pointers were cleared
    EXPECT_EQ(cfg_free_schema(nullptr, &schema), 0);
}

TEST(Lookups, MissingHooksReportWhereTheyFailedRootGoesThroughTheHook)
{
    context_handle ctx(false);
    EXPECT_EQ(cfg_get_by_id(ctx.get(), "x"), nullptr);
    EXPECT_EQ(cfg_root(ctx.get()), nullptr);
    char *ids[] = {const_cast<char *>("x"), nullptr};
    EXPECT_EQ(cfg_get_by_ids(ctx.get(), ids, 1), nullptr);
    // The message names the library's source and line, whichever they are.
    texts said = messages_of(ctx.get());
    ASSERT_EQ(said.size(), 3u);
    for (const std::string &text : said) {
        size_t line = text.find(", Line ");
        EXPECT_TRUE(text.rfind("Unexpected internal error (File src/", 0) == 0 &&
                    line != std::string::npos && text.back() == ')' &&
                    atoi(text.c_str() + line + 7) > 0)
            << text;
    }
    EXPECT_EQ(said[0], said[1]);
    EXPECT_NE(said[1], said[2]);

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

// Index entries outlive slab boundaries, removals and re-additions across
// two contexts, and an entry a caller made itself is released with free().
TEST(Lookups, IndexEntriesSpanSlabsAndForeignEntriesAreFreed)
{
    context_handle a, b;
    auto in = [&](int i) { return i % 2 ? a.get() : b.get(); };
    auto id = [](int i) { return "e" + std::to_string(i); };
    for (int i = 0; i < 3000; i++)
        cfg_load_int(in(i), id(i).c_str(), i);
    for (int i = 0; i < 3000; i += 3)
        cfg_free_element(in(i), cfg_find_by_id(in(i), id(i).c_str()));
    for (int i = 0; i < 3000; i += 6)
        cfg_load_int(b.get(), id(i).c_str(), -i);
    for (int i = 0; i < 3000; i++) {
        cfg_element *found = cfg_find_by_id(in(i), id(i).c_str());
        std::string expected = i % 6 == 0 ? std::to_string(-i) : i % 3 ? std::to_string(i) : "gone";
        EXPECT_EQ(found != nullptr ? std::to_string(int_of(found)) : "gone", expected) << i;
    }

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
// hex digit, hyphens at 9, 14, 19 and 24, version 1. Copies and comparisons
// stop at the uuid size.
TEST(Uuid, FormWithBracesInPlaceOfFirstAndLastDigitAndBoundedCopy)
{
    std::set<std::string> seen;
    for (int n = 0; n < 20; n++) {
        char out[CFG_UUID_SIZE];
        ASSERT_EQ(gen_uuid(out), 36);
        std::string form = out;
        for (char &c : form)
            c = isxdigit(c) ? 'x' : c;
        EXPECT_EQ(form, "{xxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxx}");
        EXPECT_EQ(out[14], '1') << out;
        seen.insert(out);
    }
    EXPECT_EQ(seen.size(), 20u);
    std::string long_id(300, 'a');
    char dst[CFG_UUID_SIZE + 1];
    dst[CFG_UUID_SIZE] = '!';
    uuidcpy(dst, long_id.c_str());
    EXPECT_EQ(dst[CFG_UUID_SIZE], '!');
    EXPECT_EQ(uuidcmp(long_id.c_str(), (long_id + "b").c_str()), 0);
}
