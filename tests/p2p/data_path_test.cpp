#include <gtest/gtest.h>

#include "p2p/framing.h"
#include "p2p/gateway.h"
#include "support/fake_port.h"
#include "support/log_capture.h"
#include "support/stun_relay_server.h"
#include "support/wait.h"

using namespace std::string_literals;
using testing_support::FakePort;
using testing_support::LogCapture;
using testing_support::StunRelayServer;
using testing_support::wait_until;
using zq::Endpoint;
using zq::p2p::Gateway;

namespace {

Endpoint public_of(const Gateway& g) { return Endpoint{"127.0.0.1", g.port}; }

std::uint64_t counter(const Gateway& g, int member_id, std::uint64_t zq::p2p::LinkInfo::*field) {
    for (const auto& r : g.links_snapshot())
        if (r.member_id == member_id) return r.*field;
    return ~0ULL;
}

}  // namespace

// Two players: what port A sends to the address it was told for B arrives at port B from the
// address B was told for A, and back; control frames are answered locally and never travel.
TEST(DataPath, TwoGatewaysCarryFramesBothWays) {
    FakePort port_a, port_b;
    Gateway a(0, std::nullopt, "127.0.0.1", nullptr), b(0, std::nullopt, "127.0.0.1", nullptr);
    ASSERT_TRUE(a.start(nullptr));
    ASSERT_TRUE(b.start(nullptr));
    Endpoint bob_for_a = a.add_member(2, "bob", public_of(b), {}, "alice", 1, 7, std::nullopt);
    Endpoint alice_for_b = b.add_member(1, "alice", public_of(a), {}, "bob", 2, 7, port_b.address());

    port_a.send(bob_for_a, 3658, 3658, "ping");
    auto got = port_b.receive_data();
    ASSERT_TRUE(got);
    EXPECT_EQ(got->from, alice_for_b);
    EXPECT_EQ(got->bytes, "\x0E\x4A\x0E\x4Aping"s);

    port_b.send(alice_for_b, 5, 300, "pong");  // wide shape on the wire
    port_a.send_control(bob_for_a, "NIMB\x05" "twelve bytes"s);
    got = port_a.receive_data();
    ASSERT_TRUE(got);
    EXPECT_EQ(got->from, bob_for_a);
    EXPECT_EQ(got->bytes, "\x00\x05\x01\x2Cpong"s);

    ASSERT_TRUE(wait_until([&] { return counter(a, 2, &zq::p2p::LinkInfo::signaling) == 1; }, 5.0));
    EXPECT_EQ(counter(a, 2, &zq::p2p::LinkInfo::to_peer), 1u);
    EXPECT_EQ(counter(a, 2, &zq::p2p::LinkInfo::to_port), 1u);
    EXPECT_EQ(counter(b, 1, &zq::p2p::LinkInfo::to_peer), 1u);
    // The echo reached B neither as data nor as control.
    port_a.send(bob_for_a, 1, 1, "last");
    got = port_b.receive_data();
    ASSERT_TRUE(got);
    EXPECT_EQ(got->bytes, "\x00\x01\x00\x01last"s);
    for (const auto& c : port_b.controls) EXPECT_NE(c.bytes.substr(4, 5), "NIMB\x06"s);

    // A frame for a peer whose address is not known yet is counted and dropped.
    Endpoint ghost = a.add_member(9, "ghost", {}, {}, "alice", 1, 7, std::nullopt);
    port_a.send(ghost, 1, 1, "lost");
    EXPECT_TRUE(wait_until([&] { return counter(a, 9, &zq::p2p::LinkInfo::to_peer) == 1; }, 5.0));
}

TEST(DataPath, PunchesStopOnceThePeerIsHeard) {
    FakePort peer, port;
    Gateway g(0, std::nullopt, "127.0.0.1", nullptr);
    g.punch_interval = 0.1;
    ASSERT_TRUE(g.start(nullptr));
    Endpoint bob = g.add_member(2, "bob", peer.address(), {}, "alice", 1, 0, port.address());

    auto punch = peer.receive();
    ASSERT_TRUE(punch);
    EXPECT_EQ(punch->bytes, std::string(zq::p2p::kPunch));
    EXPECT_EQ(punch->from, public_of(g));

    // Our punch is neither answered nor handed to the port; the frame after it is.
    peer.send_raw(public_of(g), zq::p2p::kPunch);
    peer.send_raw(public_of(g), "\xFF\xC3\x01\x02" "after"s);
    auto got = port.receive_data();
    ASSERT_TRUE(got);
    EXPECT_EQ(got->from, bob);
    EXPECT_EQ(got->bytes, "\x00\x01\x00\x02" "after"s);
    EXPECT_EQ(counter(g, 2, &zq::p2p::LinkInfo::to_port), 1u);

    // One punch may have been on its way; then none for five intervals.
    int late = 0;
    double deadline = zq::steady_seconds() + 0.5;
    while (zq::steady_seconds() < deadline)
        if (auto d = peer.receive(deadline - zq::steady_seconds())) late += zq::p2p::is_punch(d->bytes);
    EXPECT_LE(late, 1);
}

// A peer whose NAT gave him a new port is followed once his punch comes from it, and followed
// back to a port known before.
TEST(DataPath, APeerAtANewPortOfItsHostIsLearnedFromItsPunch) {
    LogCapture log;
    FakePort first, second, port;
    Gateway g(0, std::nullopt, "127.0.0.1", nullptr);
    ASSERT_TRUE(g.start(nullptr));
    Endpoint bob = g.add_member(2, "bob", first.address(), {}, "alice", 1, 0, port.address());

    second.send_raw(public_of(g), zq::p2p::kPunch);
    second.send_raw(public_of(g), "\xFF\xC3\x01\x01via second"s);
    auto got = port.receive_data();
    ASSERT_TRUE(got);
    EXPECT_EQ(got->bytes, "\x00\x01\x00\x01via second"s);
    EXPECT_TRUE(log.contains("p2p: member 2 (bob) also at " + second.address().text()));
    port.send(bob, 1, 1, "to second");
    got = second.receive_data();
    ASSERT_TRUE(got);
    EXPECT_EQ(got->bytes, "\xFF\xC3\x01\x01to second"s);

    first.send_raw(public_of(g), "\xFF\xC3\x01\x01via first"s);
    ASSERT_TRUE(port.receive_data());
    port.send(bob, 1, 1, "to first");
    do got = first.receive_data();
    while (got && zq::p2p::is_punch(got->bytes));
    ASSERT_TRUE(got);
    EXPECT_EQ(got->bytes, "\xFF\xC3\x01\x01to first"s);
    EXPECT_EQ(log.count_containing("p2p: member 2 (bob) also at"), 1);
}

// Others behind the peer's NAT share its host. Their data is not taken for the peer's, before
// or after the peer is heard, nor is their punch once the peer is known; the port's frames go on
// going to the peer.
TEST(DataPath, AnotherPortOfThePeersHostIsNotTakenForThePeer) {
    LogCapture log;
    FakePort bob, intruder, port;
    Gateway g(0, std::nullopt, "127.0.0.1", nullptr);
    ASSERT_TRUE(g.start(nullptr));
    Endpoint bob_sees = g.add_member(2, "bob", bob.address(), {}, "alice", 1, 0, port.address());

    intruder.send_raw(public_of(g), "\xFF\xC3\x01\x01" "before"s);
    bob.send_raw(public_of(g), "\xFF\xC3\x01\x01" "bob"s);
    auto got = port.receive_data();
    ASSERT_TRUE(got);
    EXPECT_EQ(got->bytes, "\x00\x01\x00\x01" "bob"s);

    intruder.send_raw(public_of(g), zq::p2p::kPunch);
    intruder.send_raw(public_of(g), "\xFF\xC3\x01\x01" "after"s);
    bob.send_raw(public_of(g), "\xFF\xC3\x01\x01" "bob again"s);
    got = port.receive_data();
    ASSERT_TRUE(got);
    EXPECT_EQ(got->from, bob_sees);
    EXPECT_EQ(got->bytes, "\x00\x01\x00\x01" "bob again"s);

    port.send(bob_sees, 1, 1, "answer");
    do got = bob.receive_data();
    while (got && zq::p2p::is_punch(got->bytes));
    ASSERT_TRUE(got);
    EXPECT_EQ(got->bytes, "\xFF\xC3\x01\x01" "answer"s);
    EXPECT_EQ(g.links_snapshot().at(0).endpoint, bob.address());
    EXPECT_EQ(g.links_snapshot().at(0).to_port, 2u);
    EXPECT_FALSE(log.contains("also at"));
}

// Nothing from strangers reaches the port, nor a guess between two peers behind one host. Each
// refused datagram is followed by a good one, which must be the first that the port sees.
TEST(DataPath, StrangersAndAmbiguousSendersNeverReachThePort) {
    FakePort bob_lan, carol, dave, stranger, port;
    Gateway g(0, std::nullopt, "127.0.0.1", nullptr);
    ASSERT_TRUE(g.start(nullptr));
    // Bob is known on another host, and on this one by his LAN address only.
    Endpoint bob = g.add_member(2, "bob", {"198.51.100.7", 4000}, bob_lan.address(), "alice", 1, 0, port.address());
    stranger.send_raw(public_of(g), "\xFF\xC3\x01\x01stranger"s);
    bob_lan.send_raw(public_of(g), "\xFF\xC3\x01\x01" "bob"s);
    auto got = port.receive_data();
    ASSERT_TRUE(got);
    EXPECT_EQ(got->from, bob);
    EXPECT_EQ(got->bytes, "\x00\x01\x00\x01" "bob"s);
    ASSERT_EQ(g.links_snapshot().size(), 1u);
    EXPECT_EQ(g.links_snapshot()[0].endpoint, (Endpoint{"198.51.100.7", 4000}));

    // Two peers behind one host: a third port of that host is not guessed.
    g.add_member(3, "carol", carol.address(), {}, "alice", 1, 0, port.address());
    Endpoint dave_sees = g.add_member(4, "dave", dave.address(), {}, "alice", 1, 0, port.address());
    stranger.send_raw(public_of(g), "\xFF\xC3\x01\x01guess"s);
    stranger.send_raw(public_of(g), "\xFE" "zqhp\0\0\0"s);
    dave.send_raw(public_of(g), "\xFF\xC3\x01\x01" "dave"s);
    got = port.receive_data();
    ASSERT_TRUE(got);
    EXPECT_EQ(got->from, dave_sees);
    EXPECT_EQ(got->bytes, "\x00\x01\x00\x01" "dave"s);
}

// With both sides holding relay ports, each knows the other by the relay's host and his port on
// it, and the frames go through the relay.
TEST(DataPath, TrafficFlowsThroughTheRelay) {
    StunRelayServer relay;
    FakePort port_a, port_b;
    Gateway a(0, relay.address(), "127.0.0.1", nullptr), b(0, relay.address(), "127.0.0.1", nullptr);
    a.stun_refresh = b.stun_refresh = 0.2;
    ASSERT_TRUE(a.start(nullptr));
    ASSERT_TRUE(b.start(nullptr));
    ASSERT_TRUE(wait_until([&] { return a.relay_port() != 0 && b.relay_port() != 0; }, 10.0));

    Endpoint bob_for_a =
        a.add_member(2, "bob", {"127.0.0.1", b.relay_port()}, {}, "alice", 1, 7, port_a.address());
    Endpoint alice_for_b =
        b.add_member(1, "alice", {"127.0.0.1", a.relay_port()}, {}, "bob", 2, 7, port_b.address());

    port_a.send(bob_for_a, 1, 2, "over the relay");
    auto got = port_b.receive_data();
    ASSERT_TRUE(got);
    EXPECT_EQ(got->from, alice_for_b);
    EXPECT_EQ(got->bytes, "\x00\x01\x00\x02over the relay"s);
    port_b.send(alice_for_b, 2, 1, "and back");
    got = port_a.receive_data();
    ASSERT_TRUE(got);
    EXPECT_EQ(got->bytes, "\x00\x02\x00\x01" "and back"s);
    EXPECT_GE(relay.relayed(), 2);
}
