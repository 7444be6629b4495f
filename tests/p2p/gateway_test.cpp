#include "p2p/gateway.h"
#include "support/fake_port.h"
#include "support/log_capture.h"
#include "support/prelude.h"

using zq::Endpoint;
using zq::p2p::Gateway;
using zq::p2p::LinkInfo;

namespace {

std::optional<LinkInfo> row(const Gateway& g, int member_id) {
    for (const auto& r : g.links_snapshot())
        if (r.member_id == member_id) return r;
    return std::nullopt;
}

}  // namespace

TEST(Gateway, MembersAreUpdatedRekeyedAndReplaced) {
    LogCapture log;
    Gateway g(0, std::nullopt, "192.168.1.5", nullptr);
    ASSERT_TRUE(g.start(nullptr));
    EXPECT_TRUE(log.contains(zq::format_text("p2p: gateway on udp :%d (velmar framing)", g.port)));
    auto [lan, pub] = g.own_endpoints();
    EXPECT_EQ(lan, (Endpoint{"192.168.1.5", g.port}));
    EXPECT_EQ(pub, lan);
    auto add = [&](int id, const std::string& name, const Endpoint& at = {}) {
        return g.add_member(id, name, at, {}, "alice", 1, 77, std::nullopt);
    };

    // The same member twice: one link, one line, one socket.
    Endpoint first = g.add_member(2, "bob", {"203.0.113.9", 4000}, {"10.0.0.9", 4000}, "alice", 1, 77, std::nullopt);
    EXPECT_EQ(first.host, "127.0.0.1");
    EXPECT_EQ(g.add_member(2, "bob", {"", 0}, {}, "alice", 0, 0, std::nullopt), first);
    EXPECT_TRUE(
        log.contains(zq::format_text("p2p: member 2 (bob) at 203.0.113.9:4000 -> port sees 127.0.0.1:%d", first.port)));
    EXPECT_EQ(log.count_containing("p2p: member 2 (bob) at"), 1);
    ASSERT_TRUE(row(g, 2));
    EXPECT_EQ(row(g, 2)->endpoint, (Endpoint{"203.0.113.9", 4000}));
    EXPECT_EQ(row(g, 2)->port_member, 1u);
    EXPECT_EQ(row(g, 2)->room_id, 77u);
    EXPECT_EQ(g.port_address_of("bob"), first);
    EXPECT_FALSE(g.port_address_of("bo"));

    // A provisional link moves to the real id and keeps its socket.
    Endpoint provisional = add(-5, "carol");
    EXPECT_TRUE(log.contains(zq::format_text("p2p: member -5 (carol) at ?:0 -> port sees 127.0.0.1:%d", provisional.port)));
    EXPECT_EQ(row(g, -5)->peer_member, 0u);
    EXPECT_EQ(add(3, "carol", {"198.51.100.1", 5000}), provisional);
    EXPECT_FALSE(row(g, -5));
    EXPECT_EQ(row(g, 3)->peer_member, 3u);
    EXPECT_EQ(row(g, 3)->endpoint, (Endpoint{"198.51.100.1", 5000}));

    // A provisional link and another link under the real id: the provisional one takes the id.
    Endpoint erin = add(4, "erin"), dave = add(-9, "dave");
    EXPECT_EQ(add(4, "dave"), dave);
    EXPECT_EQ(row(g, 4)->online_id, "dave");
    EXPECT_FALSE(row(g, -9));
    EXPECT_FALSE(g.port_address_of("erin"));
    EXPECT_NE(erin, dave);

    // Same id, another person: a new socket.
    EXPECT_NE(add(2, "frank"), first);
    EXPECT_FALSE(g.port_address_of("bob"));

    // retain_members keeps exactly the named ones, the empty name included.
    add(0, "");
    g.retain_members({"", "carol"});
    std::vector<int> ids;
    for (const auto& r : g.links_snapshot()) ids.push_back(r.member_id);
    EXPECT_EQ(ids, (std::vector<int>{0, 3}));
    EXPECT_TRUE(log.contains("p2p: member 2 removed (to peer 0, to port 0, signaling 0)"));
    g.remove_member(12345);  // unknown: nothing
    g.remove_all_members();
    EXPECT_TRUE(g.links_snapshot().empty());
    EXPECT_TRUE(log.contains("p2p: member 0 removed (to peer 0, to port 0, signaling 0)"));
    g.stop();
}

// The port hears hellos for a peer until it answers a control frame; the answer comes from the
// link's own address, and a re-keyed link keeps its hello token.
TEST(Gateway, HellosToThePortStopOnceItAnswers) {
    FakePort port;
    Gateway g(0, std::nullopt, "127.0.0.1", nullptr);
    g.hello_interval = 0.1;
    ASSERT_TRUE(g.start(nullptr));
    Endpoint sees = g.add_member(-3, "bob", {}, {}, "alice", 1, 0, port.address());
    auto hello = port.receive();
    ASSERT_TRUE(hello);
    EXPECT_EQ(hello->from, sees);
    ASSERT_EQ(hello->bytes.size(), 54u);
    EXPECT_EQ(hello->bytes.substr(0, 10), std::string("\xFF\xFF\xFF\xFFNIMB\x10\x01", 10));
    EXPECT_EQ(hello->bytes.substr(42, 4), "\x42\x42\0\0"s);  // the hello token

    // Real id and a room: the room hello joins in; the token stays that of creation.
    EXPECT_EQ(g.add_member(8, "bob", {}, {}, "alice", 1, 99, FakePort().address()), sees);
    bool room_hello = wait_until([&] {
        auto d = port.receive(0.5);
        if (d && d->bytes.size() == 54 && d->bytes[8] == 33) return true;
        if (d && d->bytes[8] == 16) EXPECT_EQ(d->bytes.substr(42, 4), "\x42\x42\0\0"s);
        return false;
    }, 5.0);
    EXPECT_TRUE(room_hello);

    // An echo request is answered by the gateway itself.
    std::string echo = std::string("NIMB\x05", 5) + "twelve bytes";
    port.send_control(sees, echo);
    bool answered = wait_until([&] {
        auto d = port.receive(0.5);
        return d && d->bytes == std::string("\xFF\xFF\xFF\xFFNIMB\x06", 9) + "twelve bytes";
    }, 5.0);
    EXPECT_TRUE(answered);
    EXPECT_EQ(row(g, 8)->signaling, 1u);

    // Hellos stop: one may have been on its way as the answer came; then none in six passes.
    int late_hellos = 0;
    double deadline = zq::steady_seconds() + 0.6;
    while (zq::steady_seconds() < deadline)
        if (port.receive(deadline - zq::steady_seconds())) ++late_hellos;
    EXPECT_LE(late_hellos, 2);
}
