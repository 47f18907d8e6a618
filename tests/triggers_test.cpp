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

// Evaluates the condition "path op value" on map, as a conditional would.
int condition(appliance &a, cfg_element *map, const char *path, int op, int value_type,
              cfg_schema_value value)
{
    return evaluate_if(a.ctx(), map,
                       cfg_init_schema_if(a.ctx(), nullptr, path, op, value_type, value, 0));
}

cfg_schema_value text(const char *v) { return {.string_value = const_cast<char *>(v)}; }

} // namespace

// Paths follow the escaped static path, registered once; a locally made
// element's path drops its uuid prefix.
TEST(TriggerTables, ValidatorPathsFollowTheEscapedStaticPathOnce)
{
    appliance a;
    cfg_schema_validator *v = validator(a.ctx(), {"\\.name", "\\.mode"});
    cfg_create_validator_triggers(a.ctx(), a.conn1, v);
    cfg_create_validator_triggers(a.ctx(), a.conn1, v);
    cfg_create_validator_triggers(a.ctx(), a.conn2, validator(a.ctx(), {"\\.name"}));
    cfg_element *fresh = cfg_new_map(a.ctx());
    cfg_add_mapelem(a.ctx(), a.system, "extra", fresh);
    cfg_create_validator_triggers(a.ctx(), fresh, validator(a.ctx(), {"\\.port"}));

    const std::string one = "network\\.conns\\(1\\)", two = "network\\.conns\\(2\\)";
    const std::string extra = "system\\.extra\\.port", id = fresh->uuid;
    EXPECT_EQ(printed(a.ctx()),
              rule + "\n" + one + "\\.name triggers (conn-1)\n" + one +
                  "\\.mode triggers (conn-1)\n" + two + "\\.name triggers (conn-2)\n" + extra +
                  " triggers (" + id + ")\n" + "conn-1 thinks it is triggered by (" + one +
                  "\\.name, " + one + "\\.mode)\n" + "conn-2 thinks it is triggered by (" + two +
                  "\\.name)\n" + id + " thinks it is triggered by (" + extra + ")\n" + rule + "\n");
}

TEST(TriggerTables, FreeingEmptiesEveryTable)
{
    appliance a;
    cfg_create_validator_triggers(a.ctx(), a.conn1, validator(a.ctx(), {})); // no paths: nothing
    EXPECT_EQ(a.ctx()->reverse_triggers, nullptr);
    cfg_create_validator_triggers(a.ctx(), a.conn1, validator(a.ctx(), {"\\.name"}));
    EXPECT_TRUE(condition(a, a.conn1, ".name", 2, 3, text("wan")));
    EXPECT_FALSE(condition(a, a.conn1, "missing", 2, 3, text("wan")));
    ASSERT_NE(a.ctx()->uuid_triggers, nullptr);
    ASSERT_NE(a.ctx()->path_triggers, nullptr);

    cfg_free_trigger_tables(a.ctx());
    int result = 0; // every table is printed: empty ones leave the two rules alone
    EXPECT_EQ(printed(a.ctx(), &result), rule + "\n" + rule + "\n");
    EXPECT_EQ(result, 54);
}

// A condition ties its map to the tested element, once: by uuid when the
// element exists, else by the static path it would have.
TEST(TriggerTables, ConditionsWatchByUuidOrByPathOnce)
{
    appliance a;
    for (cfg_element *map : {a.conn1, a.conn1, a.conn2})
        condition(a, map, "^^^system.hostname", 3, 3, text("gateway"));
    condition(a, a.conn2, ".trace", 2, 1, {.bool_value = 1});
    condition(a, a.system, ".proxy_mode", 2, 3, text("http"));
    condition(a, a.root, "system.loglevel", 5, 2, {.int_value = 7});
    EXPECT_EQ(printed(a.ctx()), rule + "\nhost-1 triggers (conn-1, conn-2)\n"
                                       "network.conns(2).trace triggers (conn-2)\n"
                                       "system.proxy_mode triggers (sys-1)\n"
                                       "system.loglevel triggers (root-1)\n"
                                       "conn-1 thinks it is triggered by (host-1)\n"
                                       "conn-2 thinks it is triggered by (host-1, "
                                       "network.conns(2).trace)\n"
                                       "sys-1 thinks it is triggered by (system.proxy_mode)\n"
                                       "root-1 thinks it is triggered by (system.loglevel)\n" +
                                       rule + "\n");
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
    set_handled(vctx, cfg_set_string(a.ctx(), hostname, "other"));
    EXPECT_EQ(HASH_COUNT(vctx->unhandled), 1u);
    free_context(vctx);
    free_context(nullptr);
}
