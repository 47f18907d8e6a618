// The message catalogue, the adders and template filling.
#include "context.h"
#include "log_capture.h"

#include <cstring>

using namespace zrtest;

namespace {

struct catalogue_case {
    int code;
    int type;
    int level;
    const char *arg_names; // space-separated, in the row's order
    const char *arg_values;
    const char *filled;
    bool (*add)(cfg *);
};

// Rows through their adders: one of each argument kind and level, the
// irregular ones (the long row whose text uses two of its six arguments, the
// doubled address text, the gap after 61), with sample arguments: ints from
// 40 on, 1.5 for floats, "<name>-<position>" for strings.
#define ADD(name, ...) [](cfg *c) { return cfg_message_add_##name(c __VA_OPT__(, ) __VA_ARGS__); }
const catalogue_case catalogue_cases[] = {
    {0, 3, 1, "file line", "file-0 41", "Unexpected internal error (File file-0, Line 41)",
     ADD(unexpected, "file-0", 41)},
    {8, 2, 1, "max uuid", "1.500000 uuid-1", "Number exceeds the maximum allowed value of 1.500000",
     ADD(float_above_max, 1.5, "uuid-1")},
    {49, 2, 1, "param value error line column position", "param-0 value-1 error-2 43 44 45", "Invalid json 'value-1' for parameter 'param-0'",
     ADD(invalid_json, "param-0", "value-1", "error-2", 43, 44, 45)},
    {53, 2, 1, "address uuid", "address-0 uuid-1", "'address-0' is not a valid network address",
     ADD(invalid_ip, "address-0", "uuid-1")},
    {61, 2, 1, "min max uuid", "40 41 uuid-2", "Number is outside the allowed range of 40-41.",
     ADD(int_outside_range, 40, 41, "uuid-2")},
    {64, 4, 3, "fieldname value", "fieldname-0 value-1", "Field 'fieldname-0' was updated to 'value-1'.",
     ADD(field_updated, "fieldname-0", "value-1")},
    {69, 4, 2, "message", "message-0", "Request to node failed with: message-0.",
     ADD(cfg_push_request_failed, "message-0")},
};
#undef ADD

// The names (from the row) or the values of a message's arguments, joined by spaces.
std::string joined(cfg_message *msg, bool names)
{
    std::string out;
    for (int i = 0; i < cfg_get_message_arg_count(msg); i++)
        out += (i ? " " : "") + std::string(names ? cfg_get_message_def(msg->code)->arg_names[i]
                                                  : cfg_get_message_arg_value(msg, i));
    return out;
}

// A message of code whose arguments are the given texts, for template tests.
cfg_message *message_with(int code, std::initializer_list<const char *> values)
{
    std::vector<char *> owned;
    for (const char *v : values)
        owned.push_back(v ? strdup(v) : nullptr);
    return cfg_new_message(code, static_cast<int>(owned.size()), owned.data());
}

} // namespace

TEST(Catalogue, RowsThroughTheirAdders)
{
    log_capture logs;
    for (const catalogue_case &row : catalogue_cases) {
        SCOPED_TRACE(row.code);
        context_handle ctx;
        ASSERT_TRUE(row.add(ctx.get()));
        ASSERT_EQ(cfg_message_count(ctx.get()), 1);
        cfg_message *msg = cfg_get_message_object(ctx.get(), 0);
        EXPECT_EQ(cfg_get_message_code(msg), row.code);
        EXPECT_EQ(cfg_get_message_type(msg), row.type);
        EXPECT_EQ(cfg_get_message_level(msg), row.level);
        EXPECT_EQ(joined(msg, true), row.arg_names);
        EXPECT_EQ(joined(msg, false), row.arg_values);
        EXPECT_STREQ(cfg_get_message_string(msg), row.filled);
    }
    EXPECT_TRUE(logs.lines.empty());
}

TEST(Adders, NullArgumentAndSmallestInt)
{
    context_handle ctx;
    cfg_message_add_int_above_max(ctx.get(), -2147483647 - 1, nullptr);
    cfg_message *above = cfg_get_message_object(ctx.get(), 0);
    EXPECT_STREQ(cfg_get_message_arg_value(above, 0), "-2147483648");
    EXPECT_STREQ(cfg_get_message_arg_value(above, 1), "param uuid was NULL");
}

TEST(NewMessage, RefusedWhole)
{
    log_capture logs;
    EXPECT_EQ(v_cfg_new_message(62, 0), nullptr); // a code with no row
    EXPECT_TRUE(logs.has("unknown message code: 62"));
    EXPECT_EQ(message_with(29, {nullptr}), nullptr);
    EXPECT_TRUE(logs.has("adding config message: key, value, or hasharg null"));
    EXPECT_EQ(message_with(29, {"a", "b"}), nullptr); // row 29 names one argument
    EXPECT_EQ(logs.lines.back().priority, 3);
}

namespace {

// Fills text as the template of a row with one argument named "uuid";
// "<null>" when no string comes out.
std::string fill(const std::string &text, const std::string &uuid_value)
{
    cfg_message_def *def = cfg_get_message_def(29);
    const char *saved = def->text;
    def->text = text.c_str();
    cfg_message *msg = message_with(29, {uuid_value.c_str()});
    const char *out = cfg_get_message_string(msg);
    std::string result = out ? out : "<null>";
    cfg_free_message(&msg);
    def->text = saved;
    return result;
}

} // namespace

// Braces and placeholders, and the 1000-character limits: an argument of
// 1000 or more is left out, as is one that would reach 1000 in all, and
// literal text is cut there.
TEST(Template, BracesPlaceholdersAndLengthLimits)
{
    log_capture logs;
    const std::string v999(999, 'v'), p998(998, 'p');
    const struct {
        std::string text, value, expected;
    } cases[] = {
        {"a{b", "V", "a{b"},
        {"{{{uuid}}", "V", "{V"},
        {"end{", "V", "end"},
        {"end{{", "V", "end"},
        {"[{{uuid}}{{uuid}}]", "V", "[VV]"},
        {"a{{missing}}b", "V", "ab"},
        {"a{{uuid}b", "V", "<null>"},
        {"a{{uuid", "V", "<null>"},
        {"}}{{uuid}}}", "V", "}}V}"},
        {"", "V", ""},
        {"{{uuid}}", v999, v999},
        {"ab{{uuid}}cd", v999 + "v", "abcd"},
        {p998 + "{{uuid}}z", "ab", p998 + "z"},
        {std::string(1500, 'L'), "V", std::string(1000, 'L')},
    };
    for (const auto &c : cases)
        EXPECT_EQ(fill(c.text, c.value), c.expected) << c.text.substr(0, 20);
    EXPECT_TRUE(logs.has("can't find argument 'missing' for message '29'"));
    EXPECT_TRUE(logs.has("problem parsing message string 29"));
    EXPECT_TRUE(logs.has("argument 'uuid' too long for message '29'"));
}

// A text is filled once and cached; a template that cannot be filled caches
// nothing, and the first-message accessor gives a stand-in.
TEST(Template, FilledOnceThenCachedOrStandIn)
{
    cfg_message *msg = message_with(29, {"first"});
    char *once = cfg_get_message_string(msg);
    free(msg->args->value);
    msg->args->value = strdup("second");
    EXPECT_EQ(cfg_get_message_string(msg), once);
    EXPECT_STREQ(once, "Could not find element with UUID 'first'");
    cfg_free_message(&msg);

    context_handle ctx;
    log_capture logs;
    cfg_message_def *def = cfg_get_message_def(30);
    const char *saved = def->text;
    def->text = "broken {{x";
    cfg_message_add_database(ctx.get());
    EXPECT_STREQ(cfg_get_first_message_string(ctx.get()), "NO ERROR STRING FOUND: FIXME");
    EXPECT_EQ(ctx.get()->messages[0]->cached_message, nullptr);
    def->text = saved;
}
