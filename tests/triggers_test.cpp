// Trigger tables: validator registration, the printed form, release, and the
// validation context's bookkeeping.
#include "appliance.h"

#include <initializer_list>

using namespace zrtest;

namespace {

const std::string rule(53, '-');

std::string printed(cfg *ctx, int *result = nullptr)
{
    testing::internal::CaptureStdout();
    int r = cfg_print_trigger_tables(ctx);
    if (result != nullptr)
        *result = r;
    return testing::internal::GetCapturedStdout();
}

// A validator with the given paths, owned by a schema element of ctx.
cfg_schema_validator *validator(cfg *ctx, std::initializer_list<const char *> paths)
{
    cfg_schema_validator *v = cfg_init_schema_validator(ctx, "uniqueness");
    for (const char *p : paths)
        cfg_validator_add_path(v, p);
    cfg_schema_add_validator(cfg_init_schema_bool(ctx, nullptr, 0, 0), v);
    return v;
}

} // namespace

TEST(TriggerTables, ValidatorPathsFollowTheEscapedStaticPathOnce)
{
    appliance a;
    cfg_schema_validator *v = validator(a.ctx(), {"\\.name", "\\.mode"});
    cfg_create_validator_triggers(a.ctx(), a.conn1, v);
    cfg_create_validator_triggers(a.ctx(), a.conn1, v);
    cfg_create_validator_triggers(a.ctx(), a.conn2, validator(a.ctx(), {"\\.name"}));

    const std::string one = "network\\.conns\\(1\\)", two = "network\\.conns\\(2\\)";
    EXPECT_EQ(printed(a.ctx()),
              rule + "\n" + one + "\\.name triggers (conn-1)\n" + one +
                  "\\.mode triggers (conn-1)\n" + two + "\\.name triggers (conn-2)\n" +
                  "conn-1 thinks it is triggered by (" + one + "\\.name, " + one + "\\.mode)\n" +
                  "conn-2 thinks it is triggered by (" + two + "\\.name)\n" + rule + "\n");
}

TEST(TriggerTables, LocallyMadeElementsDropTheirUuidPrefix)
{
    appliance a;
    cfg_element *fresh = cfg_new_map(a.ctx());
    cfg_add_mapelem(a.ctx(), a.system, "extra", fresh);
    cfg_create_validator_triggers(a.ctx(), fresh, validator(a.ctx(), {"\\.port"}));
    ASSERT_NE(a.ctx()->pattern_triggers, nullptr);
    EXPECT_STREQ(a.ctx()->pattern_triggers->key, "system\\.extra\\.port");
    EXPECT_STREQ(a.ctx()->reverse_triggers->key, fresh->uuid);
}

TEST(TriggerTables, FreeingEmptiesEveryTable)
{
    appliance a;
    cfg_create_validator_triggers(a.ctx(), a.conn1, validator(a.ctx(), {})); // no paths: nothing
    EXPECT_EQ(a.ctx()->reverse_triggers, nullptr);
    cfg_create_validator_triggers(a.ctx(), a.conn1, validator(a.ctx(), {"\\.name"}));
    cfg_schema_value v{.string_value = const_cast<char *>("wan")};
    EXPECT_TRUE(
        evaluate_if(a.ctx(), a.conn1, cfg_init_schema_if(a.ctx(), nullptr, ".name", 2, 3, v, 0)));
    EXPECT_FALSE(
        evaluate_if(a.ctx(), a.conn1, cfg_init_schema_if(a.ctx(), nullptr, "missing", 2, 3, v, 0)));
    ASSERT_NE(a.ctx()->uuid_triggers, nullptr);
    ASSERT_NE(a.ctx()->path_triggers, nullptr);

    cfg_free_trigger_tables(a.ctx());
    EXPECT_EQ(a.ctx()->uuid_triggers, nullptr);
    EXPECT_EQ(a.ctx()->path_triggers, nullptr);
    EXPECT_EQ(a.ctx()->pattern_triggers, nullptr);
    EXPECT_EQ(a.ctx()->reverse_triggers, nullptr);
    int result = 0; // empty tables print the two rules alone
    EXPECT_EQ(printed(a.ctx(), &result), rule + "\n" + rule + "\n");
    EXPECT_EQ(result, 54);
}

TEST(ValidationContext, SeenElementsAreEnteredOnce)
{
    appliance a;
    cfg_element *hostname = a.member(a.system, "hostname");
    auto *vctx = static_cast<validation_context *>(calloc(1, sizeof(validation_context)));
    add_unhandled(vctx, a.system);
    add_unhandled(vctx, a.network);
    add_unhandled(vctx, a.system);
    set_handled(vctx, a.system);
    set_handled(vctx, a.system);
    EXPECT_EQ(HASH_COUNT(vctx->unhandled), 1u);

    // Handled before it was known: seen, so never unhandled afterwards.
    set_handled(vctx, a.conns);
    add_unhandled(vctx, a.conns);
    add_unhandled(vctx, a.system);
    EXPECT_EQ(HASH_COUNT(vctx->unhandled), 1u);
    EXPECT_EQ(HASH_COUNT(vctx->seen), 3u);

    // Entries keep their own key: the record that replaces a freed one
    // under the same uuid finds its entry.
    add_unhandled(vctx, hostname);
    EXPECT_EQ(HASH_COUNT(vctx->unhandled), 2u);
    cfg_element *renamed = cfg_set_string(a.ctx(), hostname, "other");
    set_handled(vctx, renamed);
    EXPECT_EQ(HASH_COUNT(vctx->unhandled), 1u);
    free_context(vctx);
    free_context(nullptr);
}
