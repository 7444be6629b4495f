#pragma once
// Which peers a listener serves, by their address: programs on this PC, and, where the user
// chose the address of a network interface as bind_host, hosts on that interface's network.
// 0.0.0.0 names no interface, so with it only this PC is served.

#include <cstdint>
#include <string>

namespace zq {

class PeerFilter {
public:
    // This PC alone: the loopback, and own, the address that the listener is bound to (a
    // program here that reaches it there comes from that address). With a network prefix
    // length of 0 to 32, also the hosts of own's network.
    explicit PeerFilter(const std::string& own = "127.0.0.1", int network_prefix = -1);
    // For a listener on bind_host (dotted text): its interface's network, as the system says.
    static PeerFilter for_bind_host(const std::string& bind_host);
    // Every peer; the loopback alone counts as this PC.
    static PeerFilter everyone() { return PeerFilter("127.0.0.1", 0); }

    // Whether a peer (dotted text) is a program on this PC.
    bool on_this_pc(const std::string& peer) const;
    // On this PC, or a host of the network.
    bool admits(const std::string& peer) const;
    // The same filter without the network.
    PeerFilter this_pc_only() const;

private:
    std::uint32_t own_ = 0;
    std::uint32_t mask_ = 0;
    bool network_ = false;
};

}  // namespace zq
