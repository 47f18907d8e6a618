// Conditional evaluation: the four evaluators and evaluate_if over the
// appliance tree, with the dependencies it records.
#include "appliance.h"

#include <cmath>
#include <functional>
#include <iterator>

using namespace zrtest;

namespace {

enum { EXISTS = 1, EQ, NE, GT, GE, LT, LE };

struct if_case {
    const char *path;
    int op;
    int value_type;
    cfg_schema_value value;
};

cfg_schema_value text_value(const char *v)
{
    cfg_schema_value value{};
    value.string_value = const_cast<char *>(v);
    return value;
}

int evaluate(appliance &a, cfg_element *map, const if_case &c)
{
    cfg_schema_element *cond =
        cfg_init_schema_if(a.ctx(), nullptr, c.path, c.op, c.value_type, c.value, 0);
    return evaluate_if(a.ctx(), map, cond);
}

std::string dependents(cfg_link *head)
{
    std::string out;
    for (cfg_link *n = head; n != nullptr; n = n->next)
        out += std::string(out.empty() ? "" : " ") + static_cast<const char *>(n->data);
    return out;
}

} // namespace

TEST(Evaluators, AbsentElementsSatisfyOnlyNotEqual)
{
    for (int op = EXISTS; op <= LE; op++) {
        EXPECT_EQ(evaluate_bool_condition(nullptr, op, 1), op == NE) << op;
        EXPECT_EQ(evaluate_int_condition(nullptr, op, 1), op == NE) << op;
        EXPECT_EQ(evaluate_string_condition(nullptr, op, "x"), op == NE) << op;
        EXPECT_EQ(evaluate_float_condition(nullptr, op, 1.0), op == NE) << op;
    }
}

TEST(Evaluators, ExistsHoldsForAnyTypeOtherOperatorsNeedTheirType)
{
    context_handle h;
    cfg_element *text = cfg_new_string(h.get(), "5");
    EXPECT_EQ(evaluate_int_condition(text, EXISTS, 0), 1);
    EXPECT_EQ(evaluate_float_condition(text, EXISTS, 0), 1);
    EXPECT_EQ(evaluate_int_condition(text, NE, 5), 0);
    EXPECT_EQ(evaluate_int_condition(text, 8, 5), 0);
}

TEST(Evaluators, OperatorsCompareByType)
{
    context_handle h;
    cfg_element *number = cfg_new_int(h.get(), -3);
    cfg_element *real = cfg_new_float(h.get(), 2.5);
    cfg_element *text = cfg_new_string(h.get(), "10");
    cfg_element *flag = cfg_new_bool(h.get(), 1);
    // Results for EQ, NE, GT, GE, LT, LE.
    struct row {
        std::function<int(int)> eval;
        int expected[6];
    } rows[] = {
        {[&](int op) { return evaluate_int_condition(number, op, -3); }, {1, 0, 0, 1, 0, 1}},
        {[&](int op) { return evaluate_int_condition(number, op, 2); }, {0, 1, 0, 0, 1, 1}},
        {[&](int op) { return evaluate_float_condition(real, op, 2.0); }, {0, 1, 1, 1, 0, 0}},
        {[&](int op) { return evaluate_float_condition(real, op, NAN); }, {0, 1, 0, 0, 0, 0}},
        // Texts order byte-wise: "10" sorts before "9".
        {[&](int op) { return evaluate_string_condition(text, op, "9"); }, {0, 1, 0, 0, 1, 1}},
        {[&](int op) { return evaluate_string_condition(text, op, "10"); }, {1, 0, 0, 1, 0, 1}},
        {[&](int op) { return evaluate_bool_condition(flag, op, 1); }, {1, 0, 0, 0, 0, 0}},
        {[&](int op) { return evaluate_bool_condition(flag, op, 0); }, {0, 1, 0, 0, 0, 0}},
    };
    for (size_t r = 0; r < std::size(rows); r++)
        for (int op = EQ; op <= LE; op++)
            EXPECT_EQ(rows[r].eval(op), rows[r].expected[op - EQ]) << "row " << r << " op " << op;

    cfg_element *nan = cfg_new_float(h.get(), NAN);
    EXPECT_EQ(evaluate_float_condition(nan, NE, NAN), 1);
    EXPECT_EQ(evaluate_float_condition(nan, EQ, NAN), 0);
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
        {a.conn2, {".mode", NE, 3, text_value("dhcp")}, 1},
        {a.user1, {".uid", GE, 2, {.int_value = 1000}}, 1},
        {a.root, {"system.loglevel", EQ, 2, {.int_value = 6}}, 0}, // absent
        {a.conn2, {"^", EQ, 2, {.int_value = 0}}, 0},             // the list is no int
    };
    // Climbing above the top is false (even for !=) and records nothing.
    appliance b;
    EXPECT_EQ(evaluate(b, b.root, {"^system", NE, 2, {.int_value = 0}}), 0);
    EXPECT_EQ(evaluate(b, b.conn1, {"^^^^x", NE, 2, {.int_value = 0}}), 0);
    EXPECT_EQ(b.ctx()->reverse_triggers, nullptr);
    EXPECT_EQ(b.ctx()->path_triggers, nullptr);
    for (const auto &t : cases)
        EXPECT_EQ(evaluate(a, t.map, t.c), t.expected) << t.c.path << " on " << t.map->uuid;
    EXPECT_EQ(cfg_message_count(a.ctx()), 0);
}

TEST(EvaluateIf, RecordsDependenciesByUuidOrByPathOnce)
{
    appliance a;
    if_case host = {"^^^system.hostname", NE, 3, text_value("gateway")};
    evaluate(a, a.conn1, host);
    evaluate(a, a.conn1, host);
    evaluate(a, a.conn2, host);
    evaluate(a, a.conn2, {".trace", EQ, 1, {.bool_value = 1}});
    evaluate(a, a.system, {".proxy_mode", EQ, 3, text_value("http")});
    evaluate(a, a.root, {"system.loglevel", GE, 2, {.int_value = 7}});

    cfg_uuid_trigger *by_uuid = nullptr;
    HASH_FIND_STR(a.ctx()->uuid_triggers, "host-1", by_uuid);
    ASSERT_NE(by_uuid, nullptr);
    EXPECT_EQ(dependents(by_uuid->dependents), "conn-1 conn-2");

    // Absent elements are watched at the static path they would have.
    std::string keys;
    for (cfg_path_trigger *p = a.ctx()->path_triggers; p != nullptr;
         p = static_cast<cfg_path_trigger *>(p->hh.next))
        keys += std::string(p->key) + "=" + dependents(p->dependents) + ";";
    EXPECT_EQ(keys, "network.conns(2).trace=conn-2;system.proxy_mode=sys-1;"
                    "system.loglevel=root-1;");

    cfg_reverse_trigger *reverse = nullptr;
    HASH_FIND_STR(a.ctx()->reverse_triggers, "conn-2", reverse);
    ASSERT_NE(reverse, nullptr);
    ASSERT_EQ(cfg_link_list_length(reverse->triggered_by), 2);
    auto *first = static_cast<cfg_trigger_entry *>(reverse->triggered_by->data);
    EXPECT_EQ(first->uuid_trigger, by_uuid);
    EXPECT_EQ(first->path_trigger, nullptr);
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
