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

// The schema root after a replacement: the new "top" record when kept, else
// none; validation must not touch the record replaced.
void expect_root(const rooted_context &r, bool kept)
{
    EXPECT_EQ(cfg_schema_root(r.ctx()), kept ? cfg_get_schema_node(r.ctx(), "top") : nullptr);
    cfg_validate_data(r.ctx());
}

} // namespace

TEST(HostileInput, ReplacingTheSchemaRootRepointsTheRoot)
{
    struct replacement {
        const char *changeset;
        int applied; // 0: the node cannot be read and the root goes
        bool root_deleted_first = false;
    };
    const replacement changesets[] = {
        {R"({"schema_changed": [{"id": "top", "type": 8}]})", 1},
        {R"({"schema_added": [{"id": "top", "type": 8}]})", 1, true},
        {R"({"schema_changed": [{"id": "top", "type": 5}]})", 0},
    };
    for (const replacement &c : changesets) {
        SCOPED_TRACE(c.changeset);
        rooted_context r;
        if (c.root_deleted_first)
            r.ctx()->schema->root->flags |= CFG_FLAG_DELETED;
        EXPECT_EQ(r.apply(c.changeset), c.applied);
        expect_root(r, c.applied == 1);
    }
    rooted_context set;
    EXPECT_NE(cfg_set_schema_map(set.ctx(), set.ctx()->schema->root), nullptr);
    expect_root(set, true);
    rooted_context freed;
    cfg_free_schema_element_base(freed.ctx(), freed.ctx()->schema->root);
    expect_root(freed, false);
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

// Nodes that share an id, in one answer or in a later one: the last one
// wins, a record a caller may still hold stays readable, and every displaced
// record goes no later than the schema (the sanitizer build checks leaks).
TEST(HostileInput, SchemaNodesSharingAnIdLeaveNothingBehind)
{
    context_handle ctx;
    json_handle nodes = parse_json(R"({"a": {"id": "x", "type": 1}, "b": {"id": "x", "type": 2},
                                       "c": {"id": "x", "type": 4}})");
    json_handle types = parse_json("{}");
    json_handle root(json_string("x"));
    EXPECT_EQ(cfg_apply_schema(ctx.get(), nodes.get(), types.get(), root.get()), 1);
    cfg_schema_element *held = cfg_schema_root(ctx.get());
    ASSERT_NE(held, nullptr);
    EXPECT_EQ(held->type, CFG_TYPE_STRING);

    json_handle later = parse_json(R"({"a": {"id": "x", "type": 2}})");
    EXPECT_EQ(cfg_apply_schema(ctx.get(), later.get(), types.get(), root.get()), 1);
    EXPECT_EQ(cfg_schema_root(ctx.get())->type, CFG_TYPE_INT);
    EXPECT_EQ(held->type, CFG_TYPE_STRING);
    EXPECT_NE(cfg_init_schema_bool(ctx.get(), "x", 0, 0), nullptr);
}

#if defined(__SANITIZE_ADDRESS__)
#define ZR_TEST_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ZR_TEST_ASAN 1
#endif
#endif

// Index entries come from the library's own pool; a stale one must still be
// caught by AddressSanitizer as a malloc'd one would be.
TEST(HostileInput, StaleIndexEntryIsReportedUnderAddressSanitizer)
{
#ifndef ZR_TEST_ASAN
    GTEST_SKIP() << "needs the AddressSanitizer build";
#else
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    context_handle ctx;
    cfg_element *element = cfg_new_string_with_id(ctx.get(), "gone", "s");
    cfg_new_string_with_id(ctx.get(), "kept", "t"); // keeps the slab alive
    cfg_index_entry *entry = ctx.get()->elements;
    ASSERT_EQ(entry->element, element);
    cfg_delete_elem(ctx.get(), element);
    EXPECT_DEATH(printf("%p", static_cast<void *>(entry->element)), "use-after-poison");
    cfg_free_element(ctx.get(), element);
#endif
}

// A schema or tree with a cycle ends validation and default population with
// a message instead of recursing without end; acyclic recursion still works.
TEST(HostileInput, CyclesEndValidationAndPopulationWithAMessage)
{
    struct cycle_case {
        const char *what;
        const char *nodes;
        const char *tree;
        const char *message; // null: the input is valid
    };
    const char *if_self = R"([".x", "!=", {"type": "string", "id": "v", "value": "z"}])";
    const std::string if_nodes = std::string(R"({"top": {"id": "top", "type": 8, "conditionals": ["c"]},
        "c": {"id": "c", "type": 10, "conditionals": ["c"], "expression": )") + if_self + "}}";
    const cycle_case cases[] = {
        {"if element among its own conditionals", if_nodes.c_str(),
         R"([{"id": "root-1", "type": 8, "value": {}}])", "Schema error"},
        {"map type that requires its own type",
         R"({"top": {"id": "top", "type": 8, "required": {"again": "top"}}})",
         R"([{"id": "root-1", "type": 8, "value": {}}])", "Schema error"},
        {"map that holds itself", R"({"top": {"id": "top", "type": 8, "optional": {"me": "top"}}})",
         R"([{"id": "root-1", "type": 8, "value": {"me": "root-1"}}])",
         "Element [root-1] is of the wrong type"},
        {"list that holds itself",
         R"({"top": {"id": "top", "type": 8, "optional": {"l": "lt"}},
             "lt": {"id": "lt", "type": 7, "element_type": "ltype"}})",
         R"([{"id": "root-1", "type": 8, "value": {"l": "L"}},
             {"id": "L", "type": 7, "value": ["L"]}])",
         "Element [L] is of the wrong type"},
        {"acyclic tree of a recursive type",
         R"({"top": {"id": "top", "type": 8, "optional": {"me": "top"}}})",
         R"([{"id": "root-1", "type": 8, "value": {"me": "a"}},
             {"id": "a", "type": 8, "value": {"me": "b"}}, {"id": "b", "type": 8, "value": {}}])",
         nullptr},
    };
    for (const cycle_case &c : cases) {
        SCOPED_TRACE(c.what);
        context_handle ctx;
        json_handle nodes = parse_json(c.nodes), types = parse_json(R"({"ltype": "lt"})");
        json_handle root(json_string("top"));
        cfg_apply_schema(ctx.get(), nodes.get(), types.get(), root.get());
        json_handle tree = parse_json(c.tree);
        for (size_t i = 0; i < json_array_size(tree.get()); i++)
            ASSERT_NE(json_to_elem(ctx.get(), json_array_get(tree.get(), i)), nullptr);
        cfg_element *top = cfg_root(ctx.get());
        snprintf(top->schema, sizeof top->schema, "top");

        cfg_populate_defaults(ctx.get(), top, 0);
        texts expected = c.message != nullptr ? texts{c.message} : texts{};
        EXPECT_EQ(messages_of(ctx.get()), expected);
        cfg_free_message_stack(ctx.get());
        EXPECT_EQ(cfg_validate_data(ctx.get()), c.message == nullptr ? 1 : 0);
        EXPECT_EQ(messages_of(ctx.get()), expected);
    }
}

// Found by fuzzing the daemon's dispatcher: a new, unbound map whose parent
// link names itself sent changed-data validation climbing for ever.
TEST(HostileInput, UnboundElementThatIsItsOwnParentEndsChangedDataValidation)
{
    rooted_context c;
    ASSERT_EQ(c.apply(R"({"added": [{"type": 8, "id": "loop", "value": {},
        "parents": [{"map": "loop", "type": "map", "name": "x"}]}]})"),
              1);
    EXPECT_EQ(cfg_validate_changed_data(c.ctx()), 0);
    EXPECT_EQ(messages_of(c.ctx()), texts{"Element [loop] is of the wrong type"});
}
