// Out of memory: the decoders of daemon answers and a commit, swept with the
// Nth allocation failing for N = 1, 2, ... until the operation runs through.
// Each run must return the failure value (or, for a commit, either value)
// and leak nothing; the sanitizer build checks the leaks at exit.
//
// Left out of the sweep: the first insertion into an empty uthash table and
// a new slab of index entries, which end the process with status -1 when
// memory runs out. Each run starts with the context's index and schema map
// already holding an entry, so that neither is met.
#include "context.h"
#include "failing_malloc.h"
#include "scripted_daemon.h"

#include <climits>

using namespace zrtest;

namespace {

// The number of allocations op needs. op(n) runs the operation with the nth
// allocation failing and says whether it returned its success value.
template <typename Op> long sweep(Op op, bool failure_may_succeed = false)
{
    for (long n = 1; n < 100000; n++) {
        bool succeeded = op(n);
        if (!oom::last_run_failed()) {
            EXPECT_TRUE(succeeded) << "with no allocation failed";
            return n - 1;
        }
        EXPECT_TRUE(failure_may_succeed || !succeeded) << "allocation " << n << " failed unnoticed";
    }
    ADD_FAILURE() << "never ran through";
    return 0;
}

// Decodes text with decode in a context holding one element (named target,
// when given) and one schema element, the nth allocation failing.
template <typename Decode>
bool decode_failing_at(long n, const char *text, Decode decode, const char *target)
{
    context_handle ctx;
    cfg_new_string_with_id(ctx.get(), "warm", target != nullptr ? target : "warm");
    cfg_init_schema_bool(ctx.get(), "warm", 0, 0);
    json_handle json = parse_json(text);
    oom::arm(n);
    bool decoded = decode(ctx.get(), json.get());
    oom::disarm();
    return decoded;
}

} // namespace

// An argument that runs out of memory is left out of its message, as any
// bad argument is: the message itself still comes back then.
TEST(OutOfMemory, Decoders)
{
    using decoder = bool (*)(cfg *, json_t *);
    decoder element = [](cfg *c, json_t *j) { return json_to_elem(c, j) != nullptr; };
    decoder schema = [](cfg *c, json_t *j) { return json_to_schema_elem(c, j) != nullptr; };
    decoder message = [](cfg *, json_t *j) {
        cfg_message *decoded = json_to_config_message(j);
        bool made = decoded != nullptr;
        cfg_free_message(&decoded);
        return made;
    };
    struct decode_case {
        decoder decode;
        const char *text;
        bool failure_may_succeed = false;
        const char *target = nullptr;
    };
    const decode_case cases[] = {
        {element, R"({"id": "s", "type": 4, "value": "text", "generation": 2, "schema": "x",
                      "parents": [{"type": "map", "map": "m", "name": "k"},
                                  {"type": "list", "list": "l", "index": 1}]})"},
        {element, R"({"id": "b", "type": 6, "value": "00ff10"})"},
        {element, R"({"id": "l", "type": 7, "value": ["a", "b", "c"]})"},
        {element, R"({"id": "m", "type": 8, "value": {"x": "a", "y": "b"}})"},
        {element, R"({"id": "r", "type": 9, "value": "t"})", false, "t"},
        {schema, R"({"id": "m", "type": 8, "generation": 3, "tags": {"a": "1", "b": "2"},
                     "required": {"x": "u1"}, "optional": {"y": "u2"}, "deprecated": {"z": "u3"},
                     "conditionals": ["c1", "c2"], "validators": [{"validator": "unique",
                     "parameters": ["p"], "paths": [".x"]}]})"},
        {schema, R"({"id": "s", "type": 4, "min_length": 1, "max_length": 9, "regex": "^a",
                     "default": "ab", "allowed": ["ab", "ac"]})"},
        {schema, R"({"id": "i", "type": 10, "eval_priority": 2, "required": {"k": "u"},
                     "expression": [".x", "==", {"type": "string", "id": "v", "value": "on"}]})"},
        {schema, R"({"id": "l", "type": 7, "element_type": "named"})"},
        {message, R"({"code": 13, "args": [{"key": "uuid", "value": "u"},
                                           {"key": "value", "value": "v"}]})", true},
    };
    for (const decode_case &c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_GT(sweep([&](long n) { return decode_failing_at(n, c.text, c.decode, c.target); },
                        c.failure_may_succeed),
                  0);
    }
}

namespace {

// Once the daemon has taken the push, the commit stands even when settling
// the local copy runs out of memory: either value may come back then.
bool commit_failing_at(long n)
{
    scripted_daemon daemon({step::answer(R"({"result": true, "data": {"uuids": []}})")});
    client_context ctx(daemon);
    cfg_new_string_with_id(ctx.get(), "changed", "warm");
    cfg_element *map = cfg_new_map_with_id(ctx.get(), "m");
    cfg_add_mapelem(ctx.get(), map, "k", cfg_new_string_with_id(ctx.get(), "v", "k1"));
    oom::arm(n);
    int committed = cfg_commit(ctx.get());
    oom::disarm();
    return committed == 1;
}

} // namespace

TEST(OutOfMemory, Commit)
{
    EXPECT_GT(sweep(commit_failing_at, true), 0);
}

// A frame that announces 2 GiB and brings a few bytes costs a few bytes: the
// receive buffer grows with what arrives, not with what is announced.
TEST(OutOfMemory, AnnouncedFrameLengthIsNotReserved)
{
    scripted_daemon daemon({step::raw(frame_prefix(0x7FFFFFFFu) + R"({"result": )")});
    client_context ctx(daemon);
    testing::internal::CaptureStderr();
    oom::arm(LONG_MAX);
    json_handle value(cfg_receive(ctx.socket));
    oom::disarm();
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "cfg_receive read data unexpected peer close\n");
    EXPECT_EQ(value, nullptr);
    EXPECT_LE(oom::largest_request(), 1u << 20);
}
