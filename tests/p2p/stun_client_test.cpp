#include <atomic>
#include <mutex>
#include <stdexcept>

#include "p2p/gateway.h"
#include "support/fake_port.h"
#include "support/host.h"
#include "support/log_capture.h"
#include "support/prelude.h"
#include "support/process.h"
#include "support/stun_relay_server.h"

using zq::Endpoint;
using zq::p2p::Gateway;

namespace {

// Numbered frames cross both ways in turn; each must be the next one, whole, within the
// receive deadline, which a stalled gateway would miss however long its owner keeps a call.
void exchange(FakePort& a, const Endpoint& b_for_a, FakePort& b, const Endpoint& a_for_b, int first, int count) {
    for (int k = first; k < first + count; ++k) {
        const std::string text = "frame " + std::to_string(k);
        a.send(b_for_a, 1, 2, text);
        b.send(a_for_b, 2, 1, text);
        auto at_b = b.receive_data();
        ASSERT_TRUE(at_b) << "frame " << k << " from A";
        EXPECT_EQ(at_b->bytes, bytes({0, 1, 0, 2}) + text);
        auto at_a = a.receive_data();
        ASSERT_TRUE(at_a) << "frame " << k << " from B";
        EXPECT_EQ(at_a->bytes, bytes({0, 2, 0, 1}) + text);
    }
}

}  // namespace

// The relay is on while the server's answers grant it and off with the first that doesn't;
// the mapped address is told to the owner once per change, and a failing callback is survived.
TEST(StunClient, LearnsItsAddressAndHoldsTheRelayWhileGranted) {
    LogCapture log;
    StunRelayServer server;
    std::mutex told_lock;
    std::vector<Endpoint> told;  // guarded by told_lock
    auto told_so_far = [&] {
        std::lock_guard<std::mutex> guard(told_lock);
        return told;
    };
    Gateway g(0, server.address(), "127.0.0.1", [&](const Endpoint& e) {
        std::lock_guard<std::mutex> guard(told_lock);
        told.push_back(e);
        if (told.size() == 2) throw std::runtime_error("boom");
    });
    g.stun_refresh = 0.1;
    ASSERT_TRUE(g.start(nullptr));
    Endpoint self{"127.0.0.1", g.port};

    ASSERT_TRUE(wait_until([&] { return g.mapped_address() && g.relay_port() != 0; }, 10.0));
    EXPECT_EQ(*g.mapped_address(), self);
    EXPECT_EQ(g.own_endpoints().second, self);
    EXPECT_TRUE(log.contains(zq::format_text("p2p: relay on, our port on it is %d", g.relay_port())));
    EXPECT_TRUE(log.contains("p2p: STUN sees us as " + self.text()));
    std::string all;
    for (const auto& line : log.lines()) all += line;
    EXPECT_LT(all.find("p2p: relay on, our port on it is "), all.find("p2p: STUN sees us as "));

    // Later requests carry the granted token; the same answer again changes nothing.
    int requests = server.binding_requests();
    ASSERT_TRUE(wait_until([&] { return server.binding_requests() >= requests + 3; }, 10.0));
    EXPECT_NE(server.last_request_token(), std::string(8, '\0'));
    EXPECT_EQ(told_so_far(), std::vector<Endpoint>{self});
    EXPECT_EQ(log.count_containing("p2p: relay on"), 1);
    EXPECT_EQ(log.count_containing("p2p: STUN sees us as"), 1);

    server.set_grant(false);
    ASSERT_TRUE(wait_until([&] { return g.relay_port() == 0; }, 10.0));
    EXPECT_TRUE(log.contains("p2p: relay off"));

    Endpoint nat{"203.0.113.5", 6000};
    server.set_reported(nat);
    ASSERT_TRUE(wait_until([&] { return log.contains("p2p: mapped-change callback failed: boom"); }, 10.0));
    EXPECT_EQ(g.mapped_address(), nat);
    EXPECT_EQ(told_so_far().at(1), nat);
    server.set_reported(Endpoint{"203.0.113.5", 6001});
    EXPECT_TRUE(wait_until([&] { return told_so_far().size() == 3; }, 10.0));
}

// An answer that carries the right transaction counts only from the server that was asked.
TEST(StunClient, AnAnswerFromAnotherAddressIsIgnored) {
    LogCapture log;
    FakePort server, stranger;
    Gateway g(0, server.address(), "127.0.0.1", nullptr);
    g.stun_refresh = 1000.0;  // the one request of the first pass
    ASSERT_TRUE(g.start(nullptr));
    auto request = server.receive();
    ASSERT_TRUE(request);
    ASSERT_EQ(request->bytes.size(), 36u);
    // MAPPED-ADDRESS 192.0.2.1 or .2, port 4660, behind the request's cookie and transaction.
    auto answer = [&](char last) {
        return "\x01\x01\x00\x0C"s + request->bytes.substr(4, 16) + "\x00\x01\x00\x08\x00\x01\x12\x34\xC0\x00\x02"s +
               last;
    };
    stranger.send_raw(request->from, answer('\x01'));
    server.send_raw(request->from, answer('\x02'));
    ASSERT_TRUE(wait_until([&] { return g.mapped_address().has_value(); }, 10.0));
    EXPECT_EQ(*g.mapped_address(), (Endpoint{"192.0.2.2", 4660}));
    EXPECT_FALSE(log.contains("p2p: STUN sees us as 192.0.2.1"));
}

// A real STUN server's answer (XOR-MAPPED-ADDRESS) is understood, and the private attribute
// that it doesn't know is harmless.
TEST(StunClient, LearnsItsAddressFromCoturn) {
    if (running_under_wine()) GTEST_SKIP() << "coturn is a Linux program and does not run under Wine";
    const std::filesystem::path turnserver = "/usr/bin/turnserver";
    ASSERT_TRUE(std::filesystem::exists(turnserver)) << "install coturn (scripts/install-deps.sh)";
    TempDir dir;

    // A port that was free a moment ago; should coturn lose it, the deadline below says so.
    const Endpoint probe{"127.0.0.1", free_port(false)};
    Process coturn(
        turnserver,
        {"-n", "--listening-ip=127.0.0.1", "--listening-port=" + std::to_string(probe.port), "--no-tls",
         "--no-dtls", "--no-tcp", "--no-cli", "--no-auth", "--log-file=stdout", "--simple-log",
         "--pidfile=" + (dir.path() / "turnserver.pid").string(), "--db=" + (dir.path() / "turndb").string()},
        dir.path());

    Gateway g(0, probe, "127.0.0.1", nullptr);
    g.stun_refresh = 0.2;  // retries until coturn is up
    ASSERT_TRUE(g.start(nullptr));
    ASSERT_TRUE(wait_until([&] { return g.mapped_address().has_value(); }, 20.0)) << coturn.output();
    EXPECT_EQ(*g.mapped_address(), (Endpoint{"127.0.0.1", g.port}));
    EXPECT_EQ(g.relay_port(), 0);
    g.stop();
    coturn.interrupt();
    coturn.wait(10.0);
}

// A new public address is told to the gateway's owner while two players exchange datagrams, and
// an owner who takes his time (the service answering slowly) holds up nothing on the way.
TEST(StunClient, ASlowOwnerHoldsUpNoDatagramAndHearsEveryChangeInOrder) {
    StunRelayServer server;
    server.set_grant(false);  // the relay would carry the loopback traffic; this is about the address
    // The owner notes each address, then keeps the call until let go (or, should an assertion
    // end the test first, until the deadline, so that the gateway's stop is not held for good).
    std::mutex told_lock;
    std::vector<Endpoint> told;  // guarded by told_lock
    std::atomic<bool> let_go{false};
    auto told_so_far = [&] {
        std::lock_guard<std::mutex> guard(told_lock);
        return told;
    };
    FakePort port_a, port_b;
    Gateway a(0, server.address(), "127.0.0.1", [&](const Endpoint& e) {
        {
            std::lock_guard<std::mutex> guard(told_lock);
            told.push_back(e);
        }
        wait_until([&] { return let_go.load(); }, 30.0);
    });
    Gateway b(0, std::nullopt, "127.0.0.1", nullptr);
    a.stun_refresh = 0.1;
    ASSERT_TRUE(a.start(nullptr));
    ASSERT_TRUE(b.start(nullptr));
    const Endpoint bob_for_a = a.add_member(2, "bob", {"127.0.0.1", b.port}, {}, "alice", 1, 7, port_a.address());
    const Endpoint alice_for_b = b.add_member(1, "alice", {"127.0.0.1", a.port}, {}, "bob", 2, 7, port_b.address());

    // The first address is with the owner, who keeps it.
    ASSERT_TRUE(wait_until([&] { return told_so_far().size() == 1; }));
    EXPECT_EQ(told_so_far()[0], (Endpoint{"127.0.0.1", a.port}));
    ASSERT_NO_FATAL_FAILURE(exchange(port_a, bob_for_a, port_b, alice_for_b, 0, 20));

    // The NAT moves us meanwhile: the gateway learns it at once, and traffic goes on.
    const Endpoint moved{"203.0.113.9", 7000};
    server.set_reported(moved);
    ASSERT_TRUE(wait_until([&] { return a.mapped_address() == moved; }));
    EXPECT_EQ(a.own_endpoints().second, moved);
    ASSERT_NO_FATAL_FAILURE(exchange(port_a, bob_for_a, port_b, alice_for_b, 20, 20));
    EXPECT_EQ(told_so_far().size(), 1u);

    // Once the owner is done with the first, the change reaches him, once.
    let_go = true;
    ASSERT_TRUE(wait_until([&] { return told_so_far().size() == 2; }));
    EXPECT_EQ(told_so_far()[1], moved);
    ASSERT_NO_FATAL_FAILURE(exchange(port_a, bob_for_a, port_b, alice_for_b, 40, 5));
    EXPECT_EQ(told_so_far().size(), 2u);
    for (const auto& link : a.links_snapshot()) {
        EXPECT_EQ(link.to_peer, 45u);
        EXPECT_EQ(link.to_port, 45u);
    }
}
