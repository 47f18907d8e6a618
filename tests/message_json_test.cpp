// Messages to and from JSON, as the daemon sends and receives them.
#include "context.h"
#include "log_capture.h"

using namespace zrtest;

// Level and text follow from code and arguments, so an equal stack after
// the round trip carries them too.
TEST(MessageJson, RoundTripKeepsCodesAndArguments)
{
    context_handle from, to;
    cfg_message_add_string_invalid_value(from.get(), "u1", "bad");
    cfg_message_add_invalid_json(from.get(), "p", "{", "bad", 1, 2, 3);
    cfg_message_add_field_updated(from.get(), "hostname", "gw");
    cfg_message_add_database(from.get());
    json_handle stack(cfg_message_stack_to_json(from.get()));
    EXPECT_EQ(dump(json_array_get(stack.get(), 0)),
              R"({"code":13,"args":[{"key":"uuid","value":"u1"},{"key":"value","value":"bad"}]})");
    EXPECT_EQ(append_json_config_messages_to_context(to.get(), stack.get()), 4);
    EXPECT_EQ(messages_of(to.get()), messages_of(from.get()));
    json_handle again(cfg_message_stack_to_json(to.get()));
    EXPECT_TRUE(json_equal(stack.get(), again.get()));
}

TEST(MessageJson, MessagesWithoutArgsAreDropped)
{
    context_handle ctx;
    json_handle list = parse_json(R"([{"code": 30}, {"code": 30, "args": []},
                                     {"code": 28, "args": [{"key": "path", "value": "a.b"}]}])");
    EXPECT_EQ(append_json_config_messages_to_context(ctx.get(), list.get()), 2);
    EXPECT_STREQ(cfg_get_first_message_string(ctx.get()), "Database error");
    EXPECT_STREQ(cfg_get_message_string(cfg_get_message_object(ctx.get(), 1)),
                 "Could not find element with path 'a.b'");
}

// An argument without a key or with a value that is not a string is refused
// with an error line; the message keeps its other arguments, and the bad
// one's slot.
TEST(MessageJson, BadArgumentsCostOnlyThemselves)
{
    log_capture logs;
    json_handle keyless = parse_json(R"({"value": "x"})");
    EXPECT_EQ(json_to_config_message_arg(keyless.get()), nullptr);
    ASSERT_EQ(logs.lines.size(), 1u);
    EXPECT_EQ(logs.lines[0].priority, 3);
    json_handle j = parse_json(R"({"code": 26, "args": [{"key": "field", "value": "name"},
                                  {"key": "value", "value": 7}, {"key": "uuid", "value": "u"}]})");
    cfg_message *msg = json_to_config_message(j.get());
    ASSERT_NE(msg, nullptr);
    EXPECT_EQ(cfg_get_message_arg_count(msg), 2);
    EXPECT_TRUE(logs.has("adding arg to message failed (message code=26)"));
    EXPECT_EQ(cfg_get_message_arg_value(msg, 1), nullptr);
    EXPECT_STREQ(cfg_get_message_arg_value(msg, 2), "u");
    cfg_free_message(&msg);
}
