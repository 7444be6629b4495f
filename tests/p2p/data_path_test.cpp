#include "p2p/framing.h"
#include "p2p/gateway.h"
#include "p2p/stun.h"
#include "support/fake_port.h"
#include "support/host.h"
#include "support/log_capture.h"
#include "support/prelude.h"
#include "support/stun_relay_server.h"

using zq::Endpoint;
using zq::p2p::Gateway;
using zq::p2p::LinkInfo;

namespace {

Endpoint public_of(const Gateway& g) { return Endpoint{"127.0.0.1", g.port}; }

// A payload as a peer frame between virtual ports 1 and 1, and as the port frame it becomes.
std::string peer_frame(const std::string& payload) { return "\xFF\xC3\x01\x01" + payload; }
std::string port_frame(const std::string& payload) { return "\x00\x01\x00\x01"s + payload; }

// Whether the next datagram that is no control frame and no punch is bytes, from `from` if given.
testing::AssertionResult next_is(FakePort& at, const std::string& bytes, std::optional<Endpoint> from = {}) {
    auto got = at.receive_data();
    while (got && zq::p2p::is_punch(got->bytes)) got = at.receive_data();
    if (!got) return testing::AssertionFailure() << "nothing arrived";
    if (got->bytes != bytes || (from && got->from != *from))
        return testing::AssertionFailure() << "got \"" << got->bytes << "\" from " << got->from.text();
    return testing::AssertionSuccess();
}

std::uint64_t counter(const Gateway& g, int member_id, std::uint64_t LinkInfo::*field) {
    for (const auto& r : g.links_snapshot())
        if (r.member_id == member_id) return r.*field;
    return ~0ULL;
}

// One gateway with its port, started by each test; the peers are FakePorts of their own.
class OneGateway : public ::testing::Test {
protected:
    Endpoint add(int id, const std::string& name, const Endpoint& at, const Endpoint& lan = {}) {
        return g.add_member(id, name, at, lan, "alice", 1, 0, port.address());
    }
    void from(FakePort& peer, const std::string& bytes) { peer.send_raw(public_of(g), bytes); }

    LogCapture log;
    FakePort port;
    Gateway g{0, std::nullopt, "127.0.0.1", nullptr};
};

}  // namespace

// Two players, directly or with both sides on the relay (each then knows the other by the
// relay's host and his port on it): what port A sends to the address it was told for B arrives
// at port B from the address B was told for A, and back; control frames are answered locally
// and never travel.
TEST(DataPath, TwoGatewaysCarryFramesBothWaysDirectlyOrThroughTheRelay) {
    StunRelayServer relay;
    for (bool relayed : {false, true}) {
        SCOPED_TRACE(relayed ? "through the relay" : "directly");
        const std::optional<Endpoint> server = relayed ? std::optional(relay.address()) : std::nullopt;
        FakePort port_a, port_b;
        Gateway a(0, server, "127.0.0.1", nullptr), b(0, server, "127.0.0.1", nullptr);
        a.stun_refresh = b.stun_refresh = 0.2;
        ASSERT_TRUE(a.start(nullptr));
        ASSERT_TRUE(b.start(nullptr));
        ASSERT_TRUE(wait_until([&] { return !relayed || (a.relay_port() != 0 && b.relay_port() != 0); }, 10.0));
        auto at = [&](const Gateway& g) { return relayed ? Endpoint{"127.0.0.1", g.relay_port()} : public_of(g); };
        Endpoint bob_for_a = a.add_member(2, "bob", at(b), {}, "alice", 1, 7, std::nullopt);
        Endpoint alice_for_b = b.add_member(1, "alice", at(a), {}, "bob", 2, 7, port_b.address());

        port_a.send(bob_for_a, 3658, 3658, "ping");
        EXPECT_TRUE(next_is(port_b, "\x0E\x4A\x0E\x4Aping", alice_for_b));
        port_b.send(alice_for_b, 5, 300, "pong");  // wide shape on the wire
        port_a.send_control(bob_for_a, "NIMB\x05" "twelve bytes"s);
        EXPECT_TRUE(next_is(port_a, "\x00\x05\x01\x2Cpong"s, bob_for_a));

        ASSERT_TRUE(wait_until([&] { return counter(a, 2, &LinkInfo::signaling) == 1; }, 5.0));
        EXPECT_EQ(counter(a, 2, &LinkInfo::to_peer), 1u);
        EXPECT_EQ(counter(a, 2, &LinkInfo::to_port), 1u);
        EXPECT_EQ(counter(b, 1, &LinkInfo::to_peer), 1u);
        // The echo reached B neither as data nor as control.
        port_a.send(bob_for_a, 1, 1, "last");
        EXPECT_TRUE(next_is(port_b, port_frame("last")));
        for (const auto& c : port_b.controls) EXPECT_NE(c.bytes.substr(4, 5), "NIMB\x06"s);
        if (relayed) EXPECT_GE(relay.relayed(), 3);

        // A frame for a peer whose address is not known yet is counted and dropped.
        Endpoint ghost = a.add_member(9, "ghost", {}, {}, "alice", 1, 7, std::nullopt);
        port_a.send(ghost, 1, 1, "lost");
        EXPECT_TRUE(wait_until([&] { return counter(a, 9, &LinkInfo::to_peer) == 1; }, 5.0));
    }
}

// Every peer on the relay shares its host, so a punch relayed from another allocation is not
// taken for a relayed peer that has not been heard yet, nor is anything sent after it.
TEST(DataPath, APunchFromAnotherAllocationOnTheRelayIsNotTakenForAPeer) {
    LogCapture log;
    StunRelayServer relay;
    FakePort port_a, port_b, mallory;
    Gateway a(0, relay.address(), "127.0.0.1", nullptr), b(0, relay.address(), "127.0.0.1", nullptr);
    a.stun_refresh = b.stun_refresh = 0.2;
    ASSERT_TRUE(a.start(nullptr));
    ASSERT_TRUE(b.start(nullptr));
    ASSERT_TRUE(wait_until([&] { return a.relay_port() != 0 && b.relay_port() != 0; }, 10.0));
    const Endpoint bob_on_relay{"127.0.0.1", b.relay_port()};
    Endpoint bob_for_a = a.add_member(2, "bob", bob_on_relay, {}, "alice", 1, 7, port_a.address());

    // Mallory takes an allocation of her own and sends through it.
    const std::string request = zq::p2p::binding_request(*zq::p2p::random_transaction_id(), "");
    mallory.send_raw(relay.address(), request);
    auto reply = mallory.receive();
    ASSERT_TRUE(reply);
    auto grant = zq::p2p::parse_binding_answer(reply->bytes, request.substr(4, 16));
    ASSERT_TRUE(grant && grant->relay);
    for (const std::string& bytes : {std::string(zq::p2p::kPunch), peer_frame("mallory")})
        mallory.send_raw(relay.address(), zq::p2p::relay_frame_to_server(grant->relay_token, a.relay_port(), bytes));

    Endpoint alice_for_b = b.add_member(1, "alice", {"127.0.0.1", a.relay_port()}, {}, "bob", 2, 7, port_b.address());
    port_b.send(alice_for_b, 1, 1, "bob");
    EXPECT_TRUE(next_is(port_a, port_frame("bob"), bob_for_a));
    EXPECT_EQ(a.links_snapshot().at(0).endpoint, bob_on_relay);
    EXPECT_FALSE(log.contains("also at"));
}

TEST_F(OneGateway, PunchesStopOnceThePeerIsHeard) {
    g.punch_interval = 0.1;
    ASSERT_TRUE(g.start(nullptr));
    FakePort peer;
    Endpoint bob = add(2, "bob", peer.address());
    auto punch = peer.receive();
    ASSERT_TRUE(punch);
    EXPECT_EQ(punch->bytes, std::string(zq::p2p::kPunch));
    EXPECT_EQ(punch->from, public_of(g));

    // Our punch is neither answered nor handed to the port; the frame after it is.
    from(peer, std::string(zq::p2p::kPunch));
    from(peer, "\xFF\xC3\x01\x02" "after"s);
    EXPECT_TRUE(next_is(port, "\x00\x01\x00\x02" "after"s, bob));
    EXPECT_EQ(counter(g, 2, &LinkInfo::to_port), 1u);

    // One punch may have been on its way; then none for five intervals.
    int late = 0;
    for (double deadline = zq::steady_seconds() + 0.5; zq::steady_seconds() < deadline;)
        if (auto d = peer.receive(deadline - zq::steady_seconds())) late += zq::p2p::is_punch(d->bytes);
    EXPECT_LE(late, 1);
}

// A peer whose NAT gave him a new port is followed once his punch comes from it. Once he is heard,
// another port of his host (a known one, or a new one: another player behind the same NAT, or
// the peer after a rebinding) takes the link only after he has been silent where he was for
// rebind_silence; until then nothing from it reaches the port.
TEST_F(OneGateway, APeerIsFollowedToAnotherPortOnlyOnceSilentWhereHeWas) {
    ASSERT_TRUE(g.start(nullptr));
    FakePort first, second, third, fourth;
    Endpoint bob = add(2, "bob", first.address());
    from(third, peer_frame("data is no proof"));
    from(second, std::string(zq::p2p::kPunch));
    from(second, peer_frame("via second"));
    EXPECT_TRUE(next_is(port, port_frame("via second")));
    EXPECT_TRUE(log.contains("p2p: member 2 (bob) also at " + second.address().text()));

    from(first, peer_frame("first too early"));
    from(third, std::string(zq::p2p::kPunch));
    from(third, peer_frame("third too early"));
    const double last_at_second = zq::steady_seconds();
    from(second, peer_frame("still second"));
    EXPECT_TRUE(next_is(port, port_frame("still second")));

    // The NAT has moved him to the third port for good; a fourth that sends what is no frame of
    // ours proves nothing.
    ASSERT_TRUE(wait_until([&] {
        from(fourth, "\x01\x02"s);
        from(third, peer_frame("third"));
        auto d = port.receive_data(0.1);
        return d && d->bytes == port_frame("third");
    }, 10.0));
    EXPECT_GE(zq::steady_seconds() - last_at_second, g.rebind_silence);
    EXPECT_TRUE(log.contains("p2p: member 2 (bob) moved from " + second.address().text() + " to " +
                             third.address().text()));
    EXPECT_FALSE(log.contains(fourth.address().text()));
    port.send(bob, 1, 1, "to third");
    EXPECT_TRUE(next_is(third, peer_frame("to third")));
}

// A heard peer that falls silent gets a punch every keepalive_interval, and none while he speaks.
TEST_F(OneGateway, ASilentPeerGetsAKeepalivePunchEveryInterval) {
    g.keepalive_interval = 0.5;
    ASSERT_TRUE(g.start(nullptr));
    FakePort peer;
    add(2, "bob", peer.address());
    from(peer, std::string(zq::p2p::kPunch));
    int punches = 0;
    auto drain = [&](double seconds) {
        while (auto d = peer.receive(seconds)) punches += zq::p2p::is_punch(d->bytes);
    };
    drain(0.3);  // the opening punches, before ours was seen
    punches = 0;
    double silent_since = 0.0;
    for (double until = zq::steady_seconds() + 1.5; zq::steady_seconds() < until;) {
        silent_since = zq::steady_seconds();
        from(peer, peer_frame("speaking"));
        drain(0.05);
    }
    EXPECT_EQ(punches, 0);

    ASSERT_TRUE(wait_until([&] {
        drain(0.05);
        return punches >= 3;
    }, 10.0));
    EXPECT_GE(zq::steady_seconds() - silent_since, 3 * g.keepalive_interval - 0.01);
}

// Nothing from strangers reaches the port, nor a guess between two peers behind one host. Each
// refused datagram is followed by a good one, which must be the first that the port sees.
TEST_F(OneGateway, StrangersAndAmbiguousSendersNeverReachThePort) {
    ASSERT_TRUE(g.start(nullptr));
    FakePort bob_lan, carol, dave, stranger;
    // Bob is known on another host, and on this one by his LAN address only.
    Endpoint bob = add(2, "bob", {"198.51.100.7", 4000}, bob_lan.address());
    from(stranger, peer_frame("stranger"));
    from(bob_lan, peer_frame("bob"));
    EXPECT_TRUE(next_is(port, port_frame("bob"), bob));
    EXPECT_EQ(g.links_snapshot().at(0).endpoint, (Endpoint{"198.51.100.7", 4000}));

    // Two peers behind one host: a third port of that host is not guessed.
    add(3, "carol", carol.address());
    Endpoint dave_sees = add(4, "dave", dave.address());
    from(stranger, peer_frame("guess"));
    from(stranger, "\xFE" "zqhp\0\0\0"s);
    from(dave, peer_frame("dave"));
    EXPECT_TRUE(next_is(port, port_frame("dave"), dave_sees));
}

// The link sockets are on the loopback, where programs of other users of this PC can send too:
// the game's side of a link is learned only from a program of this user.
TEST_F(OneGateway, ALinkLearnsTheGameOnlyFromAProgramOfThisUser) {
    std::string why;
    const std::vector<std::string> other_bash = bash_as_another_user(&why);
    if (other_bash.empty()) GTEST_SKIP() << why;
    ASSERT_TRUE(g.start(nullptr));
    FakePort bob;
    const Endpoint link = add(2, "bob", bob.address());
    run_as_another_user(other_bash, zq::format_text("printf 'xxxxevil' > /dev/udp/127.0.0.1/%d", link.port));
    ASSERT_TRUE(wait_until([&] { return log.contains(", a program of another user"); }, 10.0));
    // Had the other program taken the link, bob's frame would go to it.
    from(bob, peer_frame("bob"));
    EXPECT_TRUE(next_is(port, port_frame("bob")));
}
