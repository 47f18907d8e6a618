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
    struct {
        cfg_element *map;
        if_case c;
        int expected;
    } cases[] = {
        {a.dns, {"^mtu", GT, 2, {.int_value = 1400}}, 1},
        {a.if3, {"^^system.hostname", EQ, 3, text_value("box")}, 1}, // from a pending item
        {a.if1, {".mode", EQ, 3, text_value("dhcp")}, 1},
        {a.if2, {".mode", NE, 3, text_value("dhcp")}, 1},
        {a.root, {"system.mtu", GE, 2, {.int_value = 9000}}, 1},
        {a.root, {"services.ssh.port", EQ, 2, {.int_value = 22}}, 0},
        {a.dns, {"^", EQ, 2, {.int_value = 0}}, 0}, // the system map is no int
    };
    // Climbing above the top is false (even for !=) and records nothing.
    appliance b;
    EXPECT_EQ(evaluate(b, b.root, {"^system", NE, 2, {.int_value = 0}}), 0);
    EXPECT_EQ(evaluate(b, b.if1, {"^^^x", NE, 2, {.int_value = 0}}), 0);
    EXPECT_EQ(b.ctx()->reverse_triggers, nullptr);
    EXPECT_EQ(b.ctx()->path_triggers, nullptr);
    for (const auto &t : cases)
        EXPECT_EQ(evaluate(a, t.map, t.c), t.expected) << t.c.path << " on " << t.map->uuid;
    EXPECT_EQ(cfg_message_count(a.ctx()), 0);
}

TEST(EvaluateIf, RecordsDependenciesByUuidOrByPathOnce)
{
    appliance a;
    if_case host = {"^^system.hostname", NE, 3, text_value("appliance")};
    evaluate(a, a.if1, host);
    evaluate(a, a.if1, host);
    evaluate(a, a.if2, host);
    evaluate(a, a.if2, {".mode", EQ, 3, text_value("dhcp")});
    evaluate(a, a.dns, {".enabled", EQ, 1, {.int_value = 1}});
    evaluate(a, a.root, {"services.ssh.port", EQ, 2, {.int_value = 22}});

    cfg_uuid_trigger *by_uuid = nullptr;
    HASH_FIND_STR(a.ctx()->uuid_triggers, "host-1", by_uuid);
    ASSERT_NE(by_uuid, nullptr);
    EXPECT_EQ(dependents(by_uuid->dependents), "if-1 if-2");

    // Absent elements are watched at the static path they would have.
    std::string keys;
    for (cfg_path_trigger *p = a.ctx()->path_triggers; p != nullptr;
         p = static_cast<cfg_path_trigger *>(p->hh.next))
        keys += std::string(p->key) + "=" + dependents(p->dependents) + ";";
    EXPECT_EQ(keys, "interfaces(2).mode=if-2;system.dns.enabled=dns-1;"
                    "services.ssh.port=root-1;");

    cfg_reverse_trigger *reverse = nullptr;
    HASH_FIND_STR(a.ctx()->reverse_triggers, "if-2", reverse);
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
    EXPECT_EQ(evaluate(a, a.if1, {".name", EXISTS, 3, text_value("x")}), 0);
    EXPECT_EQ(evaluate(a, a.if1, {".name", EQ, 7, {.int_value = 0}}), 0);
    ASSERT_EQ(cfg_message_count(a.ctx()), 2);
    EXPECT_EQ(a.ctx()->messages[0]->code, 31);
    EXPECT_NE(a.ctx()->uuid_triggers, nullptr);
}
