// A new public address is told to the gateway's owner while two players exchange datagrams, and
// an owner who takes his time (the service answering slowly) holds up nothing on the way.

#include <condition_variable>
#include <mutex>
#include <vector>

#include "p2p/gateway.h"
#include "support/fake_port.h"
#include "support/prelude.h"
#include "support/stun_relay_server.h"

using testing_support::FakePort;
using testing_support::StunRelayServer;
using zq::Endpoint;
using zq::p2p::Gateway;

namespace {

// The owner's side of on_mapped_change: notes each address, then keeps the call until let go.
class SlowOwner {
public:
    void tell(const Endpoint& address) {
        std::unique_lock<std::mutex> guard(lock_);
        told_.push_back(address);
        released_signal_.wait(guard, [&] { return released_; });
    }
    void let_go() {
        std::lock_guard<std::mutex> guard(lock_);
        released_ = true;
        released_signal_.notify_all();
    }
    std::vector<Endpoint> told() {
        std::lock_guard<std::mutex> guard(lock_);
        return told_;
    }

private:
    std::mutex lock_;
    std::condition_variable released_signal_;
    bool released_ = false;
    std::vector<Endpoint> told_;
};

// Numbered frames cross both ways in turn; each must be the next one, whole, within the
// receive deadline, which a stalled gateway would miss however long the owner keeps his call.
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

TEST(MappedChange, ASlowOwnerHoldsUpNoDatagramAndHearsEveryChangeInOrder) {
    StunRelayServer server;
    server.set_grant(false);  // the relay would carry the loopback traffic; this is about the address
    SlowOwner owner;
    FakePort port_a, port_b;
    Gateway a(0, server.address(), "127.0.0.1", [&](const Endpoint& e) { owner.tell(e); });
    Gateway b(0, std::nullopt, "127.0.0.1", nullptr);
    a.stun_refresh = 0.1;
    // Declared after the gateways, so the owner is let go before they stop: a stop waits for
    // the call in hand, whatever assertion ended the test.
    struct LetGo {
        SlowOwner& owner;
        ~LetGo() { owner.let_go(); }
    } let_go{owner};
    ASSERT_TRUE(a.start(nullptr));
    ASSERT_TRUE(b.start(nullptr));
    const Endpoint bob_for_a = a.add_member(2, "bob", {"127.0.0.1", b.port}, {}, "alice", 1, 7, port_a.address());
    const Endpoint alice_for_b = b.add_member(1, "alice", {"127.0.0.1", a.port}, {}, "bob", 2, 7, port_b.address());

    // The first address is with the owner, who keeps it.
    const Endpoint self{"127.0.0.1", a.port};
    ASSERT_TRUE(wait_until([&] { return owner.told().size() == 1; }));
    EXPECT_EQ(owner.told()[0], self);
    ASSERT_NO_FATAL_FAILURE(exchange(port_a, bob_for_a, port_b, alice_for_b, 0, 20));

    // The NAT moves us meanwhile: the gateway learns it at once, and traffic goes on.
    const Endpoint moved{"203.0.113.9", 7000};
    server.set_reported(moved);
    ASSERT_TRUE(wait_until([&] { return a.mapped_address() == moved; }));
    EXPECT_EQ(a.own_endpoints().second, moved);
    ASSERT_NO_FATAL_FAILURE(exchange(port_a, bob_for_a, port_b, alice_for_b, 20, 20));
    EXPECT_EQ(owner.told().size(), 1u);

    // Once the owner is done with the first, the change reaches him, once.
    owner.let_go();
    ASSERT_TRUE(wait_until([&] { return owner.told().size() == 2; }));
    EXPECT_EQ(owner.told()[1], moved);
    ASSERT_NO_FATAL_FAILURE(exchange(port_a, bob_for_a, port_b, alice_for_b, 40, 5));
    EXPECT_EQ(owner.told().size(), 2u);
    for (const auto& link : a.links_snapshot()) {
        EXPECT_EQ(link.to_peer, 45u);
        EXPECT_EQ(link.to_port, 45u);
    }
}
