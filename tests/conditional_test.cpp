// Conditional evaluation: the four evaluators and evaluate_if over the
// appliance tree. (The dependencies it records are checked with the trigger
// tables.)
#include "appliance.h"

#include <cmath>
#include <functional>

using namespace zrtest;

namespace {

enum { EXISTS = 1, EQ, NE, GT, GE, LT, LE };

struct if_case {
    const char *path;
    int op, type;
    cfg_schema_value value;
};

cfg_schema_value text_value(const char *v) { return {.string_value = const_cast<char *>(v)}; }

int evaluate(appliance &a, cfg_element *map, const if_case &c)
{
    cfg *x = a.ctx();
    return evaluate_if(x, map, cfg_init_schema_if(x, nullptr, c.path, c.op, c.type, c.value, 0));
}

} // namespace

// Every operator (and 8, which is none) against every evaluator: an absent
// element satisfies only "!=", "exists" holds for any type, the others need
// their type; NaN equals nothing, texts order byte-wise.
TEST(Evaluators, OperatorsByTypeAndPresence)
{
    context_handle h;
    cfg_element *number = cfg_new_int(h.get(), -3), *real = cfg_new_float(h.get(), 2.5),
                *text = cfg_new_string(h.get(), "10"), *flag = cfg_new_bool(h.get(), 1),
                *nan = cfg_new_float(h.get(), NAN);
    // The evaluator f on element e with value v, as a function of the operator.
    auto at = [](auto f, cfg_element *e, auto v) { return [=](int op) { return f(e, op, v); }; };
    const struct {
        const char *what;
        std::function<int(int)> eval;
        int expected[8]; // EXISTS EQ NE GT GE LT LE 8
    } rows[] = {
        {"absent", at(evaluate_int_condition, nullptr, 1), {0, 0, 1, 0, 0, 0, 0, 0}},
        {"int on text", at(evaluate_int_condition, text, 10), {1, 0, 0, 0, 0, 0, 0, 0}},
        {"-3 vs -3", at(evaluate_int_condition, number, -3), {1, 1, 0, 0, 1, 0, 1, 0}},
        {"-3 vs 2", at(evaluate_int_condition, number, 2), {1, 0, 1, 0, 0, 1, 1, 0}},
        {"2.5 vs 2", at(evaluate_float_condition, real, 2.0), {1, 0, 1, 1, 1, 0, 0, 0}},
        {"NaN vs NaN", at(evaluate_float_condition, nan, NAN), {1, 0, 1, 0, 0, 0, 0, 0}},
        {"\"10\" vs \"9\"", at(evaluate_string_condition, text, "9"), {1, 0, 1, 0, 0, 1, 1, 0}},
        {"true vs true", at(evaluate_bool_condition, flag, 1), {1, 1, 0, 0, 0, 0, 0, 0}},
    };
    for (const auto &r : rows)
        for (int op = EXISTS; op <= 8; op++)
            EXPECT_EQ(r.eval(op), r.expected[op - EXISTS]) << r.what << ", op " << op;
}

TEST(EvaluateIf, PathsClimbDescendOrStartAtTheRoot)
{
    appliance a;
    cfg_element *pending = cfg_load_map(a.ctx(), "conn-3");
    cfg_append_future_listelem(a.ctx(), a.conns, pending);
    const if_case host = {"^^^system.hostname", EQ, 3, text_value("gateway")};
    struct {
        cfg_element *map;
        if_case c;
        int expected;
    } cases[] = {
        {a.conn2, host, 1},
        {pending, host, 1}, // from a pending item
        {a.conn1, {".mode", EQ, 3, text_value("dhcp")}, 1},
        {a.user1, {".uid", GE, 2, {.int_value = 1000}}, 1},
        {a.root, {"system.loglevel", EQ, 2, {.int_value = 6}}, 0}, // absent
        {a.conn2, {"^", EQ, 2, {.int_value = 0}}, 0},             // the list is no int
    };
    // Climbing above the top is false (even for !=) and records nothing.
    EXPECT_EQ(evaluate(a, a.conn1, {"^^^^x", NE, 2, {.int_value = 0}}), 0);
    EXPECT_EQ(a.ctx()->reverse_triggers, nullptr);
    EXPECT_EQ(a.ctx()->path_triggers, nullptr);
    for (const auto &t : cases)
        EXPECT_EQ(evaluate(a, t.map, t.c), t.expected) << t.c.path << " on " << t.map->uuid;
    EXPECT_EQ(cfg_message_count(a.ctx()), 0);
}

TEST(EvaluateIf, UnknownValueTypesPushTheSchemaMessageAfterRecording)
{
    appliance a;
    // An exists condition stores no value type, so it takes this path too.
    EXPECT_EQ(evaluate(a, a.conn1, {".name", EXISTS, 3, text_value("x")}), 0);
    EXPECT_EQ(evaluate(a, a.conn1, {".name", EQ, 7, {.int_value = 0}}), 0);
    ASSERT_EQ(cfg_message_count(a.ctx()), 2);
    EXPECT_EQ(a.ctx()->messages[0]->code, 31);
    EXPECT_NE(a.ctx()->uuid_triggers, nullptr);
}
