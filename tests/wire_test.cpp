// Frames on the socket, receive failures, the request envelope and the
// round trip with keep-alives, against a scripted daemon.
#include "context.h"
#include "log_capture.h"
#include "scripted_daemon.h"

#include <sys/socket.h>
#include <tuple>
#include <unistd.h>

using namespace std::chrono_literals;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;
using namespace zrtest;

namespace {

// Receives on fd and returns what standard error said meanwhile.
std::string receive_failure(int fd, int timeout_ms = 10000)
{
    CaptureStderr();
    json_handle value(cfg_receive_timeout(fd, timeout_ms));
    std::string said = GetCapturedStderr();
    EXPECT_EQ(value, nullptr) << dump(value.get());
    return said;
}

} // namespace

// A hostile or broken peer fails the read with a diagnostic; the time-out
// covers the whole frame, not each read.
TEST(WireFrame, ReceiveFailuresPrintTheirDiagnostic)
{
    struct failure_case {
        const char *what;
        script steps;
        const char *said;
        int timeout_ms = 10000;
    };
    script trickle{step::raw(frame_prefix(8))};
    for (char byte : std::string(R"({"a": 1})")) {
        trickle.push_back(step::wait(200ms));
        trickle.push_back(step::raw(std::string(1, byte)));
    }
    const failure_case cases[] = {
        {"close inside the prefix", {step::raw(std::string("\0\0", 2))},
         "cfg_receive read len unexpected peer close\n"},
        {"close after the prefix", {step::raw(frame_prefix(10))},
         "cfg_receive read data unexpected peer close\n"},
        {"zero length", {step::raw(frame_prefix(0))}, "cfg_receive response len <= 0\n"},
        {"length that wraps the buffer size", {step::raw(frame_prefix(0xFFFFFFFFu) + "{}")},
         "cfg_receive response buffer allocate failed: Cannot allocate memory\n"},
        {"silence", {step::wait(5s)},
         "cfg_receive read len failed: Resource temporarily unavailable\n", 200},
        {"payload sent a byte at a time", trickle,
         "cfg_receive read data failed: Resource temporarily unavailable\n", 1000},
    };
    for (const failure_case &c : cases) {
        SCOPED_TRACE(c.what);
        scripted_daemon daemon(c.steps);
        client_context ctx(daemon);
        EXPECT_EQ(receive_failure(ctx.socket, c.timeout_ms), c.said);
    }
    EXPECT_EQ(receive_failure(-1), "cfg_receive sockopt failed: Bad file descriptor\n");
}

TEST(WireFrame, InvalidJsonIsLoggedWithTheParserText)
{
    const std::string payload = "{\"result\": true,\n \"data\": ]";
    json_error_t expected;
    ASSERT_EQ(json_loads(payload.c_str(), 0, &expected), nullptr);
    scripted_daemon daemon({step::reply(payload), step::reply("[1, 2]")});
    client_context ctx(daemon);
    log_capture logs;

    EXPECT_EQ(receive_failure(ctx.socket), "");
    ASSERT_EQ(logs.lines.size(), 1u);
    EXPECT_EQ(logs.lines[0].priority, 3);
    EXPECT_EQ(logs.lines[0].message, "JSON Parsing error: " + std::string(expected.text) +
                                         ", line: 2.");
    // The frame was read whole: the next one follows.
    EXPECT_EQ(dump(json_handle(cfg_receive(ctx.socket)).get()), "[1,2]");
}

// The microseconds are the millisecond remainder divided by ten; the kernel
// rounds them up to its clock tick, so only an upper bound can be checked.
TEST(WireFrame, ReceiveSetsTheTimeoutOnEveryCall)
{
    // {milliseconds, seconds set, most microseconds set}
    const std::tuple<int, long, long> cases[] = {{10000, 10, 0}, {1500, 1, 20000}, {-3, 0, 0}};
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    for (auto [ms, seconds, max_microseconds] : cases) {
        SCOPED_TRACE(ms);
        std::string bytes = frame("{}");
        ASSERT_EQ(write(ends[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        EXPECT_NE(json_handle(cfg_receive_timeout(ends[0], ms)), nullptr);
        timeval set{};
        socklen_t size = sizeof set;
        ASSERT_EQ(getsockopt(ends[0], SOL_SOCKET, SO_RCVTIMEO, &set, &size), 0);
        EXPECT_EQ(set.tv_sec, seconds);
        EXPECT_LE(set.tv_usec, max_microseconds);
    }
    close(ends[0]);
    close(ends[1]);
}

TEST(WireRequest, IdsCountFromOneAlsoForRequestsNeverSent)
{
    scripted_daemon daemon({step::answer("{}"), step::answer("{}")});
    client_context ctx(daemon);

    json_handle unsent(cfg_build_request(ctx.get(), "lock", json_object()));
    json_handle without_data(cfg_build_request(ctx.get(), "get_schema", nullptr));
    json_handle with_data(
        cfg_build_request(ctx.get(), "hello", json_pack("{s:s}", "client_name", "t-1")));
    EXPECT_EQ(dump(unsent.get()), R"({"method":"lock","id":1,"data":{}})");
    json_handle first(cfg_send_request(ctx.get(), without_data.get()));
    json_handle second(cfg_send_request(ctx.get(), with_data.get()));

    EXPECT_EQ(daemon.request_text(0), R"({"method": "get_schema", "id": 2})");
    EXPECT_EQ(daemon.request_text(1),
              R"({"method": "hello", "id": 3, "data": {"client_name": "t-1"}})");
    EXPECT_EQ(json_object_size(with_data.get()), 3u); // the request is not taken
}

// Keep-alives are skipped and their messages dropped; other keepalive
// values and odd shapes are answers as they stand.
TEST(WireRequest, KeepalivesAreSkippedAndOddShapesAreAnswers)
{
    const char *answers[] = {R"({"keepalive": false})", R"({"keepalive": 1})", "[true]",
                             R"({"messages": "none"})", R"({"messages": [7, {"code": 1}]})"};
    const std::string message = R"({"code": 30, "args": []})";
    script steps;
    for (const char *answer : answers)
        steps.push_back(step::answer(answer));
    steps.insert(steps.end(),
                 {step::receive(),
                  step::reply(R"({"keepalive": true, "messages": [)" + message + "]}"),
                  step::keepalive(),
                  step::reply(R"({"result": true, "data": 7, "messages": [)" + message + ", " +
                              message + "]}")});
    scripted_daemon daemon(steps);
    client_context ctx(daemon);
    auto send = [&ctx] {
        json_handle request(cfg_build_request(ctx.get(), "search", json_object()));
        return json_handle(cfg_send_request(ctx.get(), request.get()));
    };
    for (const char *answer : answers) {
        SCOPED_TRACE(answer);
        EXPECT_EQ(dump(send().get()), dump(parse_json(answer).get()));
    }
    EXPECT_EQ(cfg_message_count(ctx.get()), 0);
    EXPECT_EQ(json_integer_value(json_object_get(send().get(), "data")), 7);
    EXPECT_EQ(cfg_message_count(ctx.get()), 2);
}

// The second send meets a closed peer: it must fail, not end the process
// with SIGPIPE.
TEST(WireRequest, FailuresReturnNullWithoutMessages)
{
    scripted_daemon daemon({step::receive(), step::keepalive()});
    client_context ctx(daemon);
    json_handle request(cfg_build_request(ctx.get(), "pull", nullptr));

    CaptureStderr();
    EXPECT_EQ(cfg_send_request(ctx.get(), request.get()), nullptr);
    EXPECT_EQ(cfg_send_request(ctx.get(), request.get()), nullptr);
    EXPECT_EQ(GetCapturedStderr(), "cfg_receive read len unexpected peer close\n"
                                   "cfg_send failed to write to socket error Broken pipe.\n");
    EXPECT_EQ(cfg_message_count(ctx.get()), 0);
}
