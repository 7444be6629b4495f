// The gateway's data path on the loopback: two players, each with a gateway, and what one port
// sends to the address it was told for the other arriving at the other port. Measured: the
// forwarding rate with a window of datagrams in flight, and the one-way latency from half the
// round trip of a ping answered at once.

#include <cstdio>
#include <string>
#include <vector>

#include "measure.h"
#include "p2p/gateway.h"
#include "shell/net.h"

namespace {

using zq::Endpoint;

constexpr double kSeconds = 2.0;

// The game port's socket, with one receive buffer for all datagrams.
class Port {
public:
    Port() {
        zq::network_init();
        socket_ = zq::open_udp_socket();
        zq::bind_socket(socket_, zq::to_sockaddr(Endpoint{"127.0.0.1", 0}));
        zq::SockAddr bound;
        zq::local_address(socket_, &bound);
        address = zq::from_sockaddr(bound);
        buffer_.resize(65536);
    }
    ~Port() { zq::close_socket(socket_); }

    void send(const zq::SockAddr& to, const std::string& frame) {
        zq::send_to(socket_, frame.data(), static_cast<int>(frame.size()), to);
    }
    // A data frame's size, skipping the gateway's control frames; -1 after the time-out.
    int receive(int timeout_ms) {
        for (;;) {
            if (zq::wait_readable({socket_}, timeout_ms, ready_) < 1) return -1;
            zq::SockAddr from;
            int n = zq::recv_from(socket_, buffer_.data(), static_cast<int>(buffer_.size()), &from);
            if (n >= 4 && buffer_.compare(0, 4, "\xFF\xFF\xFF\xFF") == 0) continue;
            if (n >= 0) return n;
        }
    }

    Endpoint address;

private:
    zq::Socket socket_ = zq::invalid_socket;
    std::string buffer_;
    std::vector<bool> ready_;
};

std::string frame_of(std::size_t payload) { return std::string("\x0E\x4A\x0E\x4A", 4) + std::string(payload, 'x'); }

void forwarding_rate(Port& from, Port& to, const zq::SockAddr& told, std::size_t payload, int window) {
    const std::string frame = frame_of(payload);
    std::uint64_t sent = 0, arrived = 0, lost = 0;
    const double end = bench::now() + kSeconds;
    while (bench::now() < end) {
        while (sent - arrived - lost < static_cast<std::uint64_t>(window)) {
            from.send(told, frame);
            ++sent;
        }
        // A datagram the loopback dropped is written off after a while instead of stalling.
        if (to.receive(50) >= 0) ++arrived;
        else lost = sent - arrived;
    }
    bench::report("gateway forwarding, " + std::to_string(payload) + "-byte payload, " + std::to_string(window) +
                      " in flight (" + std::to_string(lost) + " lost)",
                  static_cast<double>(arrived) / kSeconds);
}

void latency(Port& a, Port& b, const zq::SockAddr& b_for_a, const zq::SockAddr& a_for_b) {
    const std::string frame = frame_of(100);
    std::vector<double> one_way;
    const double end = bench::now() + kSeconds;
    while (bench::now() < end) {
        const double sent = bench::now();
        a.send(b_for_a, frame);
        if (b.receive(1000) < 0) continue;
        b.send(a_for_b, frame);
        if (a.receive(1000) < 0) continue;
        one_way.push_back((bench::now() - sent) / 2);
    }
    // Each one-way trip crosses two loopback hops and two gateway threads.
    bench::report("gateway one-way latency, 100-byte payload", static_cast<double>(one_way.size()) / kSeconds,
                  one_way);
}

}  // namespace

int main() {
    Port port_a, port_b;
    zq::p2p::Gateway a(0, std::nullopt, "127.0.0.1", nullptr), b(0, std::nullopt, "127.0.0.1", nullptr);
    std::string error;
    if (!a.start(&error) || !b.start(&error)) {
        std::fprintf(stderr, "gateway: %s\n", error.c_str());
        return 1;
    }
    const Endpoint bob_for_a = a.add_member(2, "bob", Endpoint{"127.0.0.1", b.port}, {}, "alice", 1, 7, port_a.address);
    const Endpoint alice_for_b =
        b.add_member(1, "alice", Endpoint{"127.0.0.1", a.port}, {}, "bob", 2, 7, port_b.address);
    const zq::SockAddr to_bob = zq::to_sockaddr(bob_for_a), to_alice = zq::to_sockaddr(alice_for_b);

    latency(port_a, port_b, to_bob, to_alice);
    for (std::size_t payload : {100, 1200})
        for (int window : {1, 32}) forwarding_rate(port_a, port_b, to_bob, payload, window);
    a.stop();
    b.stop();
    return 0;
}
