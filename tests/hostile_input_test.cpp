// Hostile input: daemon data and caller calls that once freed records still
// in use, recursed without end or leaked. Each table holds short inputs that
// used to fault; the sanitizer build turns a regression into a failure.
#include "context.h"

using namespace zrtest;

namespace {

// A context whose schema root is the map "top" and whose tree is a root map.
struct rooted_context {
    context_handle h;
    cfg *ctx() const { return h.get(); }

    rooted_context()
    {
        ctx()->schema->root = cfg_init_schema_map(ctx(), "top");
        cfg_element *root = cfg_new_map_with_id(ctx(), "root-1");
        snprintf(root->schema, sizeof root->schema, "top");
    }
    int apply(const char *changeset) const
    {
        json_handle value = parse_json(changeset);
        return cfg_apply_changeset(ctx(), value.get(), 1, nullptr, nullptr);
    }
};

} // namespace

TEST(HostileInput, ReplacingTheSchemaRootRepointsTheRoot)
{
    struct replacement {
        const char *name;
        void (*replace)(const rooted_context &);
        bool root_kept;
    };
    const replacement cases[] = {
        {"schema_changed",
         [](const rooted_context &r) {
             EXPECT_EQ(r.apply(R"({"schema_changed": [{"id": "top", "type": 8}]})"), 1);
         },
         true},
        {"schema_added over a deleted root",
         [](const rooted_context &r) {
             r.ctx()->schema->root->flags |= CFG_FLAG_DELETED;
             EXPECT_EQ(r.apply(R"({"schema_added": [{"id": "top", "type": 8}]})"), 1);
         },
         true},
        {"schema_changed that cannot be read",
         [](const rooted_context &r) {
             EXPECT_EQ(r.apply(R"({"schema_changed": [{"id": "top", "type": 5}]})"), 0);
         },
         false},
        {"cfg_set_schema_map",
         [](const rooted_context &r) {
             EXPECT_NE(cfg_set_schema_map(r.ctx(), r.ctx()->schema->root), nullptr);
         },
         true},
        {"cfg_free_schema_element_base",
         [](const rooted_context &r) {
             cfg_free_schema_element_base(r.ctx(), r.ctx()->schema->root);
         },
         false},
    };
    for (const replacement &c : cases) {
        rooted_context r;
        c.replace(r);
        cfg_schema_element *root = cfg_schema_root(r.ctx());
        EXPECT_EQ(root, c.root_kept ? cfg_get_schema_node(r.ctx(), "top") : nullptr) << c.name;
        if (root != nullptr) {
            EXPECT_EQ(std::string(root->uuid), "top") << c.name;
        }
        cfg_validate_data(r.ctx());
    }
}

// An element without a string id is refused; its decoded value goes with it.
TEST(HostileInput, ElementWithoutIdIsRefusedWithoutLeaking)
{
    for (const char *text : {R"({"type": 4, "value": "text"})", R"({"type": 6, "value": "0a0b"})",
                             R"({"type": 9, "value": "target"})",
                             R"({"type": 4, "id": 7, "value": "text"})"}) {
        context_handle ctx;
        json_handle object = parse_json(text);
        EXPECT_EQ(json_to_elem(ctx.get(), object.get()), nullptr) << text;
        EXPECT_EQ(ctx.get()->elements, nullptr) << text;
    }
}

// Nodes of one schema answer that share an id: the last one wins, and the
// records it displaced go no later than the schema.
TEST(HostileInput, SchemaNodesSharingAnIdLeaveNothingBehind)
{
    context_handle ctx;
    json_handle nodes = parse_json(R"({"a": {"id": "x", "type": 1}, "b": {"id": "x", "type": 2},
                                       "c": {"id": "x", "type": 4}})");
    json_handle types = parse_json("{}");
    json_handle root(json_string("x"));
    EXPECT_EQ(cfg_apply_schema(ctx.get(), nodes.get(), types.get(), root.get()), 1);
    ASSERT_NE(cfg_schema_root(ctx.get()), nullptr);
    EXPECT_EQ(cfg_schema_root(ctx.get())->type, CFG_TYPE_STRING);
}
