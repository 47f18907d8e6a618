// Changeset application: the order of the lists, the generation rule on
// changes from the daemon, local replay, and when the counts are written.
#include "context.h"
#include "log_capture.h"

using namespace zrtest;

namespace {

// A held element with generation 3 and no flags.
cfg_element *held(cfg *c, const char *id)
{
    cfg_element *element = cfg_new_string_with_id(c, "held", id);
    element->generation = 3;
    element->flags = 0;
    return element;
}

struct applied {
    int result, config_count = -1, schema_count = -1;
};

applied replay(cfg *c, const std::string &changeset, int from_daemon = 1)
{
    applied out{};
    json_handle value = parse_json(changeset);
    out.result = cfg_apply_changeset(c, value.get(), from_daemon, &out.config_count,
                                     &out.schema_count);
    return out;
}

} // namespace

// Each changeset fails at one item, which ends the application: every step
// up to the failing one logs its line, no later one does, and the counts
// are written. The held element "s" and schema element "h" (both of
// generation below 3) stay as they were.
TEST(Changeset, RefusedFromTheDaemon)
{
    struct refusal {
        const char *changeset;
        size_t log_lines;
        const char *logged = nullptr;
    } const cases[] = {
        {R"({"changed": [{"type": 4, "id": "s", "value": "new", "generation": 4}]})", 3,
         "config update for 's' has newer generation (4) than (3)"},
        {R"({"changed": [{"type": 4, "id": "s", "value": "new", "generation": 2}]})", 2},
        {R"({"changed": [{"type": 4, "id": "ghost", "value": "x"}]})", 2},
        {R"({"added": [{"type": 4, "id": "s", "value": "x"}]})", 1},
        {R"({"added": [{"id": "t", "type": 99}]})", 1},
        {R"({"deleted": [{"id": "ghost"}]})", 3},
        {R"({"schema_added": [{"id": "h", "type": 4}]})", 4},
        {R"({"schema_changed": [{"id": "h", "type": 4, "generation": 3}]})", 6},
        {R"({"schema_changed": [{"id": "ghost", "type": 4}]})", 5},
    };
    for (const refusal &r : cases) {
        SCOPED_TRACE(r.changeset);
        context_handle ctx;
        held(ctx.get(), "s");
        ASSERT_EQ(replay(ctx.get(), R"({"schema_added": [{"id": "h", "type": 4, "generation": 2}]})")
                      .result,
                  1);
        log_capture log;
        applied a = replay(ctx.get(), r.changeset);
        EXPECT_EQ(a.result, 0);
        EXPECT_TRUE(a.config_count == 0 && a.schema_count == 0);
        EXPECT_EQ(log.lines.size(), r.log_lines);
        EXPECT_TRUE(r.logged == nullptr || log.has(r.logged));
        EXPECT_EQ(string_of(cfg_find_by_id(ctx.get(), "s")), "held");
        EXPECT_EQ(cfg_get_schema_node(ctx.get(), "h")->generation, 2);
    }
}

// Every list at once: an equal generation replaces (CHANGED), a locally
// deleted element is added again (NEW), appended members become future
// members, the schema root is set (but not by ""), types with a string
// value are bound. An unknown appended child fails before the counts.
TEST(Changeset, AppliedFromTheDaemon)
{
    context_handle ctx;
    cfg *c = ctx.get();
    held(c, "s");
    held(c, "kept");
    held(c, "dropped")->flags = CFG_FLAG_DELETED;
    cfg_element *list = cfg_new_list_with_id(c, "l");
    cfg_new_string_with_id(c, "m", "child");
    log_capture log;
    applied a = replay(c, R"({"added": [{"type": 4, "id": "dropped", "value": "back"},
                                        {"type": 4, "id": "n", "value": "n"}],
                              "changed": [{"type": 4, "id": "s", "value": "new", "generation": 3}],
                              "deleted": ["kept"],
                              "schema_added": [{"id": "h", "type": 4, "generation": 2}],
                              "schema_changed": [{"id": "h", "type": 4, "generation": 2}],
                              "appended": [{"parent_id": "l", "child_id": "child"}],
                              "schema_root": "h", "types": {"host": "h", "bad": 1}})");
    EXPECT_EQ(a.result, 1);
    EXPECT_EQ(a.config_count, 4);
    EXPECT_EQ(a.schema_count, 2);
    EXPECT_EQ(log.lines.size(), 6u);
    EXPECT_EQ(cfg_find_by_id(c, "dropped")->flags, unsigned(CFG_FLAG_NEW));
    EXPECT_EQ(string_of(cfg_find_by_id(c, "s")), "new");
    EXPECT_EQ(cfg_find_by_id(c, "s")->flags, unsigned(CFG_FLAG_CHANGED));
    EXPECT_TRUE(cfg_element_is_deleted(cfg_find_by_id(c, "kept")));
    EXPECT_STREQ(cfg_get_future_listelem(list, 0), "child");
    EXPECT_TRUE(list->flags & CFG_FLAG_HAS_FUTURE);
    ASSERT_NE(cfg_schema_root(c), nullptr);
    EXPECT_STREQ(cfg_schema_root(c)->uuid, "h");
    EXPECT_EQ(cfg_get_schema_node(c, "h")->flags, unsigned(CFG_FLAG_CHANGED));
    EXPECT_STREQ(cfg_get_type(c, "host"), "h");
    EXPECT_EQ(cfg_get_type(c, "bad"), nullptr);
    EXPECT_EQ(replay(c, R"({"schema_root": ""})").result, 1);
    EXPECT_STREQ(cfg_schema_root(c)->uuid, "h");

    // A deleted schema element may be added again, with another type.
    EXPECT_EQ(replay(c, R"({"schema_added": [{"id": "g", "type": 4}]})").result, 1);
    EXPECT_EQ(replay(c, R"({"schema_deleted": ["g"]})").result, 1);
    EXPECT_EQ(replay(c, R"({"schema_added": [{"id": "g", "type": 1}]})").result, 1);
    EXPECT_EQ(cfg_get_schema_node(c, "g")->type, CFG_TYPE_BOOL);

    applied unknown = replay(c, R"({"added": [{"type": 4, "id": "z", "value": "z"}],
                                  "appended": [{"parent_id": "l", "child_id": "nobody"}]})");
    EXPECT_EQ(unknown.result, 0);
    EXPECT_TRUE(unknown.config_count == -1 && unknown.schema_count == -1);
}

TEST(Changeset, LocalReplayReplacesWithoutChecks)
{
    context_handle ctx;
    cfg *c = ctx.get();
    held(c, "s");
    applied a = replay(c,
                      R"({"added": [{"type": 4, "id": "s", "value": "again"}],
                          "changed": [{"type": 4, "id": "t", "value": "c", "generation": 99}],
                          "deleted": ["nobody"]})",
                      0);
    EXPECT_EQ(a.result, 1);
    EXPECT_EQ(a.config_count, 3);
    EXPECT_EQ(cfg_find_by_id(c, "s")->flags, unsigned(CFG_FLAG_NEW));
    EXPECT_EQ(cfg_find_by_id(c, "t")->flags, unsigned(CFG_FLAG_CHANGED));
    EXPECT_EQ(replay(c, R"({"deleted": ["s"]})", 0).result, 1);
    EXPECT_EQ(cfg_find_by_id(c, "s"), nullptr);
}
