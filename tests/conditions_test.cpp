// Condition trees: refusals of the constructors, SQL text and JSON forms.
#include "context.h"

#include <functional>

namespace {

struct condition_deleter {
    void operator()(cfg_condition *c) const { cfg_free_conditions(c); }
};
using condition_ptr = std::unique_ptr<cfg_condition, condition_deleter>;

std::string sql(cfg_condition *c) { return zrtest::taken(condition_to_sql(c)); }
std::string json_text(cfg_condition *c) { return zrtest::taken(condition_to_json_dump(c)); }

cfg_condition *node(cfg_condition *parent, std::initializer_list<cfg_condition *> children)
{
    for (cfg_condition *child : children)
        cfg_condition_add_child(parent, child);
    return parent;
}

} // namespace

TEST(Conditions, ConstructorsRefuseOperatorsThatDoNotSuitTheType)
{
    struct build_case {
        const char *what;
        std::function<cfg_condition *()> build;
        bool accepted;
    };
    const build_case cases[] = {
        {"int LIKE", [] { return cfg_new_int_condition("f", 8, 3); }, false},
        {"int unknown code", [] { return cfg_new_int_condition("f", 12, 3); }, true},
        {"string any code", [] { return cfg_new_string_condition("f", 12, "v"); }, true},
        {"reference <>", [] { return cfg_new_reference_condition("f", 2, "{u}"); }, true},
        {"reference <", [] { return cfg_new_reference_condition("f", 3, "{u}"); }, false},
        {"bool <", [] { return cfg_new_bool_condition("enabled", 3, 1); }, false},
        {"untyped =", [] { return cfg_new_untyped_condition("x", 1); }, false},
        {"null field name", [] { return cfg_new_int_condition(nullptr, 1, 3); }, false},
    };
    for (const build_case &c : cases) {
        condition_ptr built(c.build());
        EXPECT_EQ(built != nullptr, c.accepted) << c.what;
    }
}

TEST(Conditions, BasicSqlByOperator)
{
    const char *expected[] = {"(none)",     "(f = ?)",    "(f <> ?)",         "(f < ?)",
                              "(f <= ?)",   "(f > ?)",    "(f >= ?)",         "(f LIKE ?)",
                              "(f LIKE ?)", "(f LIKE ?)", "(f IS NOT NULL)", "(f IS NULL)",
                              "(none)"};
    for (int oper = 0; oper <= 12; oper++) {
        condition_ptr c(cfg_new_string_condition("f", oper, "v"));
        EXPECT_EQ(sql(c.get()), expected[oper]) << oper;
    }
}

TEST(Conditions, NodesWrapTheirChildrenOnceMoreAndTakeChildrenAlone)
{
    condition_ptr tree(node(cfg_new_and_condition(),
                            {cfg_new_string_condition("name", 1, "eth0"),
                             node(cfg_new_or_condition(), {cfg_new_int_condition("port", 5, 22),
                                                          cfg_new_untyped_condition("port", 11)}),
                             cfg_new_bool_condition("enabled", 2, 0)}));
    EXPECT_EQ(sql(tree.get()),
              "((name = ?) AND ((port > ?) OR (port IS NULL)) AND (enabled <> ?))");

    condition_ptr empty(cfg_new_and_condition());
    EXPECT_EQ(sql(empty.get()), "((null))");
    condition_ptr unknown_child(node(cfg_new_or_condition(),
                                     {cfg_new_string_condition("a", 12, "v"),
                                      cfg_new_int_condition("b", 1, 1)}));
    EXPECT_EQ(sql(unknown_child.get()), "((null) OR (b = ?))");
    // Children are appended to nodes only; a stale sibling is cut off.
    condition_ptr basic(cfg_new_int_condition("a", 1, 1));
    condition_ptr orphan(cfg_new_int_condition("b", 1, 1));
    cfg_condition_add_child(basic.get(), orphan.get());
    EXPECT_EQ(basic->children, nullptr);
    cfg_condition *first = cfg_new_int_condition("c", 1, 1);
    first->next = orphan.get();
    cfg_condition_add_child(empty.get(), first);
    cfg_condition_add_child(empty.get(), cfg_new_int_condition("d", 1, 1));
    EXPECT_EQ(sql(empty.get()), "((c = ?) AND (d = ?))");
}

TEST(ConditionJson, EveryValueFormInKeyOrderAndBack)
{
    condition_ptr tree(node(
        cfg_new_and_condition(),
        {cfg_new_bool_condition("enabled", 1, 5), cfg_new_float_condition("load", 4, 1.5),
         cfg_new_reference_condition("zone", 1, "{abc}"),
         node(cfg_new_or_condition(), {cfg_new_untyped_condition("x", 11)})}));
    const std::string expected =
        R"({"type":1,"items":[)"
        R"({"type":3,"fieldname":"enabled","oper":1,"datatype":1,"value":true},)"
        R"({"type":3,"fieldname":"load","oper":4,"datatype":3,"value":1.5},)"
        R"({"type":3,"fieldname":"zone","oper":1,"datatype":9,"value":"{abc}"},)"
        R"({"type":2,"items":[{"type":3,"fieldname":"x","oper":11,"datatype":10,"value":null}]}]})";
    EXPECT_EQ(json_text(tree.get()), expected);

    json_error_t error;
    condition_ptr back(json_dump_to_condition(expected.c_str(), &error));
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(json_text(back.get()), expected);
}

// Each input with the SQL of what it reads as; "(none)" marks a refusal.
TEST(ConditionJson, ReadingRefusesWhatTheConstructorsOrTypesRefuse)
{
    const std::pair<const char *, const char *> cases[] = {
        {R"({"type":2})", "((null))"},
        {R"({"type":3,"fieldname":"x","oper":10,"datatype":10,"value":[5]})", "(x IS NOT NULL)"},
        {R"({"type":3,"fieldname":"x","oper":11,"datatype":10})", "(none)"},
        {R"({"type":3,"fieldname":"x","oper":1,"datatype":3,"value":1})", "(none)"},
        {R"({"type":3,"fieldname":"x","oper":1,"datatype":2,"value":4294967297})", "(none)"},
        {R"({"type":3,"fieldname":"x","oper":3,"datatype":9,"value":"{u}"})", "(none)"},
        {R"({"type":3,"fieldname":"x","oper":1,"datatype":5,"value":1})", "(none)"},
        {R"({"type":3,"fieldname":"x","oper":"1","datatype":2,"value":1})", "(none)"},
        {R"({"type":4,"items":[]})", "(none)"},
        {R"({"type":1,"items":{}})", "(none)"},
        {R"({"type":1,"items":[{"type":3,"fieldname":"a","oper":1,"datatype":2,"value":1},)"
         R"({"type":9}]})",
         "(none)"},
        {R"([1])", "(none)"},
    };
    for (const auto &[text, expected] : cases) {
        json_error_t error;
        condition_ptr read(json_dump_to_condition(text, &error));
        EXPECT_EQ(sql(read.get()), expected) << text;
    }
    json_error_t error;
    EXPECT_EQ(json_dump_to_condition("{\"type\":", &error), nullptr);
    EXPECT_NE(std::string(error.text), "");
}
