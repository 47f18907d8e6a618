// zrconfig.hpp against a real zrconfigd: the appliance client's flow (read,
// change, validate, commit, read back, a refused change) written with the
// C++ layer, views kept across writes and commits, failures that must
// surface as outcomes, and a session that finds no daemon.
#include "daemon_process.h"

#include <zrconfig.hpp>

namespace zrtest {
namespace {

using ZrconfigHpp = example_appliance_test;

using zrconfig::element;
using zrconfig::session;

TEST_F(ZrconfigHpp, ReadsChangesCommitsAndReadsBack)
{
    daemon_process d;
    {
        session s(d.socket_path(), "hpp-test");
        ASSERT_TRUE(s);
        EXPECT_EQ(s.at("system.hostname").as_string(), "fw1");
        EXPECT_EQ(s.at("system.hostname").as_int(), std::nullopt); // another type
        EXPECT_FALSE(s.at("system.no_such_key"));
        EXPECT_EQ(s.at("system.no_such_key").as_string(), std::nullopt);
        texts keys;
        for (auto [key, value] : s.at("network.conns[1]").entries())
            keys.push_back(key);
        EXPECT_EQ(keys, (texts{"name", "mode", "address", "netmask", "mtu", "enabled"}));

        element mtu = s.at("network.conns[1].mtu");
        EXPECT_EQ(mtu.as_int(), 1500);
        EXPECT_TRUE(mtu.set(1400));
        element conns = s.at("network.conns");
        element lab = s.new_map();
        ASSERT_TRUE(lab.put("name", s.new_value("lab")));
        ASSERT_TRUE(lab.put("mode", s.new_value("dhcp")));
        ASSERT_TRUE(conns.append(lab));
        conns[0].remove();
        EXPECT_TRUE(s.validate_changed());
        zrconfig::outcome committed = s.commit();
        EXPECT_TRUE(committed.ok);
    }
    session again(d.socket_path(), "hpp-test");
    session moved(std::move(again));
    EXPECT_FALSE(again);
    EXPECT_EQ(moved.at("network.conns[0].mtu").as_int(), 1400);
    texts names;
    for (element conn : moved.at("network.conns").members())
        names.push_back(conn["name"].as_string().value_or("?"));
    EXPECT_EQ(names, (texts{"lan", "dmz", "mgmt", "lab"}));

    // A refusal carries its messages, each naming its element by path.
    ASSERT_TRUE(moved.at("network.conns[0]").erase("address"));
    zrconfig::outcome checked = moved.validate_changed();
    EXPECT_FALSE(checked);
    EXPECT_FALSE(checked.unreachable());
    ASSERT_EQ(checked.messages.size(), 1u);
    EXPECT_EQ(checked.messages[0].code, 20);
    EXPECT_EQ(checked.messages[0].level, 1);
    EXPECT_EQ(checked.messages[0].path, "network.conns[0]");
    EXPECT_EQ(checked.messages[0].text, "Required field 'address' is not present");
}

// A write replaces the element's record and a commit drops every local
// record: views taken before either still read the element as it is now.
TEST_F(ZrconfigHpp, ViewsFollowTheirElementThroughWritesAndCommits)
{
    daemon_process d;
    session s(d.socket_path(), "hpp-test");
    ASSERT_TRUE(s);
    element conn = s.at("network.conns[1]");
    element mtu = conn["mtu"];
    ASSERT_TRUE(mtu.set(1400));
    EXPECT_EQ(mtu.as_int(), 1400);
    element lab = s.new_map();
    ASSERT_TRUE(lab.put("name", s.new_value("lab")));
    ASSERT_TRUE(lab.put("mode", s.new_value("dhcp")));
    ASSERT_TRUE(s.at("network.conns").append(lab));
    ASSERT_TRUE(s.commit());

    EXPECT_EQ(mtu.as_int(), 1400);
    EXPECT_EQ(mtu.path(), "network.conns[1].mtu");
    EXPECT_EQ(conn["name"].as_string(), "lan");
    EXPECT_EQ(lab["name"].as_string(), "lab"); // under the id the daemon gave it
    EXPECT_EQ(lab.path(), "network.conns[4]");
}

// A refused write leaves the element and its pending change as they were;
// a commit the daemon never answers says so in its outcome.
TEST_F(ZrconfigHpp, FailuresLeaveTheTreeAloneAndSayWhy)
{
    daemon_process d;
    {
        session s(d.socket_path(), "hpp-test");
        ASSERT_TRUE(s);
        element hostname = s.at("system.hostname");
        ASSERT_TRUE(hostname.set("fw2"));
        EXPECT_FALSE(hostname.set(std::string(16 * 1024 * 1024 + 1, 'x'))); // too long
        EXPECT_FALSE(hostname.set(std::string("fw\0x", 4)));                 // would be cut
        EXPECT_FALSE(hostname.set(static_cast<const char *>(nullptr)));
        EXPECT_FALSE(s.new_value(std::string("a\0b", 3)));
        EXPECT_EQ(hostname.as_string(), "fw2");
        ASSERT_TRUE(s.commit());
    }
    session s(d.socket_path(), "hpp-test");
    element hostname = s.at("system.hostname");
    EXPECT_EQ(hostname.as_string(), "fw2");

    ASSERT_TRUE(hostname.set("fw3"));
    d.kill_now();
    zrconfig::outcome committed = s.commit();
    EXPECT_FALSE(committed);
    EXPECT_TRUE(committed.unreachable());
    EXPECT_FALSE(committed.messages.empty());
}

TEST(ZrconfigHppLocal, BlobsKeepEveryByte)
{
    zrconfig::context ctx;
    const std::string bytes("\x01\0\xff", 3);
    ASSERT_TRUE(ctx.root().put("key", ctx.new_blob(bytes)));
    EXPECT_EQ(ctx.at("key").as_blob(), bytes);
    EXPECT_EQ(ctx.at("key").as_string(), std::nullopt);
    element rewritten = ctx.at("key").set_blob(std::string("\0", 1));
    ASSERT_TRUE(rewritten);
    EXPECT_EQ(ctx.at("key").as_blob(), std::string("\0", 1));
}

TEST(ZrconfigHppLocal, SessionWithoutADaemonIsFalse)
{
    session unreachable("/nonexistent/zrconfigd.sock", "hpp-test");
    EXPECT_FALSE(unreachable);
    EXPECT_FALSE(unreachable.at("system"));
}

} // namespace
} // namespace zrtest
