// Changeset application: the order of the lists, the generation rule on
// changes from the daemon, local replay, and when the counts are written.
#include "context.h"
#include "log_capture.h"

using namespace zrtest;

namespace {

// A held element "s" with generation 3 and no flags.
cfg_element *held(cfg *c, const char *id = "s")
{
    cfg_element *element = cfg_new_string_with_id(c, "held", id);
    element->generation = 3;
    element->flags = 0;
    return element;
}

struct applied {
    int result;
    int config_count = -1;
    int schema_count = -1;
};

applied replay(cfg *c, const std::string &changeset, int from_daemon = 1)
{
    applied out{};
    json_handle value = parse_json(changeset.c_str());
    out.result = cfg_apply_changeset(c, value.get(), from_daemon, &out.config_count,
                                     &out.schema_count);
    return out;
}

} // namespace

TEST(Changeset, GenerationRuleOnDaemonChanges)
{
    struct change {
        int generation;
        int result;
        const char *value;
        bool logged;
    };
    for (const change &c : {change{3, 1, "new", false}, change{4, 0, "held", true},
                            change{2, 0, "held", false}}) {
        context_handle ctx;
        held(ctx.get());
        log_capture log;
        applied a = replay(ctx.get(), R"({"changed": [{"type": 4, "id": "s", "value": "new",
                                          "generation": )" +
                                             std::to_string(c.generation) + "}]}");
        EXPECT_EQ(a.result, c.result) << c.generation;
        EXPECT_EQ(a.config_count, c.result) << c.generation;
        cfg_element *s = cfg_find_by_id(ctx.get(), "s");
        EXPECT_EQ(string_of(s), c.value) << c.generation;
        if (c.result) {
            EXPECT_EQ(s->flags, unsigned(CFG_FLAG_CHANGED));
        }
        EXPECT_EQ(log.has("config update for 's' has newer generation (4) than (3)"), c.logged);
        // A failed step ends the application: only its own line is logged.
        EXPECT_EQ(log.lines.size(), c.logged ? 3u : (c.result ? 6u : 2u)) << c.generation;
    }
}

TEST(Changeset, AddedAndDeletedAgainstHeldElements)
{
    context_handle ctx;
    cfg *c = ctx.get();
    held(c, "kept");
    cfg_element *dropped = held(c, "dropped");
    dropped->flags = CFG_FLAG_DELETED;
    EXPECT_EQ(replay(c, R"({"added": [{"type": 4, "id": "kept", "value": "x"}]})").result, 0);
    EXPECT_EQ(string_of(cfg_find_by_id(c, "kept")), "held");

    applied a = replay(c, R"({"added": [{"type": 4, "id": "dropped", "value": "back"},
                                        {"type": 4, "id": "n", "value": "n"}],
                            "deleted": ["kept"]})");
    EXPECT_EQ(a.result, 1);
    EXPECT_EQ(a.config_count, 3);
    EXPECT_EQ(string_of(cfg_find_by_id(c, "dropped")), "back");
    EXPECT_EQ(cfg_find_by_id(c, "dropped")->flags, unsigned(CFG_FLAG_NEW));
    EXPECT_TRUE(cfg_element_is_deleted(cfg_find_by_id(c, "kept")));

    // Changing or deleting what nobody has fails; an item without an id too.
    for (const char *bad : {R"({"changed": [{"type": 4, "id": "ghost", "value": "x"}]})",
                            R"({"deleted": [{"id": "ghost"}]})", R"({"added": [{"type": 4}]})",
                            R"({"added": [{"id": "t", "type": 99}]})"})
        EXPECT_EQ(replay(c, bad).result, 0) << bad;
}

TEST(Changeset, AppendedRootAndTypes)
{
    context_handle ctx;
    cfg *c = ctx.get();
    cfg_element *list = cfg_new_list_with_id(c, "l");
    cfg_new_string_with_id(c, "m", "child");
    applied a = replay(c, R"({"schema_added": [{"id": "h", "type": 4}],
                            "appended": [{"parent_id": "l", "child_id": "child"}],
                            "schema_root": "h", "types": {"host": "h", "bad": 1}})");
    EXPECT_EQ(a.result, 1);
    EXPECT_EQ(a.schema_count, 1);
    EXPECT_STREQ(cfg_get_future_listelem(list, 0), "child");
    EXPECT_TRUE(list->flags & CFG_FLAG_HAS_FUTURE);
    ASSERT_NE(cfg_schema_root(c), nullptr);
    EXPECT_STREQ(cfg_schema_root(c)->uuid, "h");
    EXPECT_EQ(cfg_get_schema_node(c, "h")->flags, unsigned(CFG_FLAG_NEW));
    EXPECT_STREQ(cfg_get_type(c, "host"), "h");
    EXPECT_EQ(cfg_get_type(c, "bad"), nullptr);

    EXPECT_EQ(replay(c, R"({"schema_root": ""})").result, 1);
    EXPECT_STREQ(cfg_schema_root(c)->uuid, "h");

    applied unknown = replay(c, R"({"added": [{"type": 4, "id": "z", "value": "z"}],
                                  "appended": [{"parent_id": "l", "child_id": "nobody"}]})");
    EXPECT_EQ(unknown.result, 0);
    EXPECT_EQ(unknown.config_count, -1);
    EXPECT_EQ(unknown.schema_count, -1);
}

TEST(Changeset, SchemaGenerationRuleAndDeletion)
{
    context_handle ctx;
    cfg *c = ctx.get();
    ASSERT_EQ(replay(c, R"({"schema_added": [{"id": "h", "type": 4, "generation": 2}]})").result, 1);
    EXPECT_EQ(replay(c, R"({"schema_added": [{"id": "h", "type": 4}]})").result, 0);
    log_capture log;
    EXPECT_EQ(replay(c, R"({"schema_changed": [{"id": "h", "type": 4, "generation": 3}]})").result,
              0);
    EXPECT_TRUE(log.has("config update for schema 'h' has newer generation (3) than (2)"));
    EXPECT_EQ(replay(c, R"({"schema_changed": [{"id": "ghost", "type": 4}]})").result, 0);
    EXPECT_EQ(replay(c, R"({"schema_changed": [{"id": "h", "type": 4, "generation": 2}]})").result,
              1);
    EXPECT_EQ(cfg_get_schema_node(c, "h")->flags, unsigned(CFG_FLAG_CHANGED));
    EXPECT_EQ(replay(c, R"({"schema_deleted": ["h"]})").result, 1);
    EXPECT_EQ(replay(c, R"({"schema_added": [{"id": "h", "type": 1}]})").result, 1);
    EXPECT_EQ(cfg_get_schema_node(c, "h")->type, CFG_TYPE_BOOL);
}

TEST(Changeset, LocalReplayReplacesWithoutChecks)
{
    context_handle ctx;
    cfg *c = ctx.get();
    held(c);
    applied a = replay(c,
                      R"({"added": [{"type": 4, "id": "s", "value": "again"}],
                          "changed": [{"type": 4, "id": "t", "value": "c", "generation": 99}],
                          "deleted": ["nobody"]})",
                      0);
    EXPECT_EQ(a.result, 1);
    EXPECT_EQ(a.config_count, 3);
    EXPECT_EQ(string_of(cfg_find_by_id(c, "s")), "again");
    EXPECT_EQ(cfg_find_by_id(c, "s")->flags, unsigned(CFG_FLAG_NEW));
    EXPECT_EQ(cfg_find_by_id(c, "t")->flags, unsigned(CFG_FLAG_CHANGED));
    EXPECT_EQ(replay(c, R"({"deleted": ["s"]})", 0).result, 1);
    EXPECT_EQ(cfg_find_by_id(c, "s"), nullptr);
}
