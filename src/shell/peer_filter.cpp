#include "shell/peer_filter.h"

#include "shell/net.h"

namespace zq {

namespace {

std::uint32_t address_bits(const std::string& dotted) {
    const SockAddr a = to_sockaddr(Endpoint{dotted, 0});
    // sin_addr, in network order, at the same offset on every system.
    return (std::uint32_t{a.bytes[4]} << 24) | (std::uint32_t{a.bytes[5]} << 16) | (std::uint32_t{a.bytes[6]} << 8) |
           a.bytes[7];
}

}  // namespace

PeerFilter::PeerFilter(const std::string& own, int network_prefix) : own_(address_bits(own)) {
    // The unspecified address is no interface's, and no peer comes from it.
    if (own_ != 0 && network_prefix >= 0 && network_prefix <= 32) {
        network_ = true;
        mask_ = network_prefix == 0 ? 0 : ~std::uint32_t{0} << (32 - network_prefix);
    }
}

PeerFilter PeerFilter::for_bind_host(const std::string& bind_host) {
    return PeerFilter(bind_host, interface_prefix_length(bind_host));
}

bool PeerFilter::on_this_pc(const std::string& peer) const {
    const std::uint32_t bits = address_bits(peer);
    return (bits >> 24) == 127 || (own_ != 0 && bits == own_);
}

bool PeerFilter::admits(const std::string& peer) const {
    return on_this_pc(peer) || (network_ && (address_bits(peer) & mask_) == (own_ & mask_));
}

PeerFilter PeerFilter::this_pc_only() const {
    PeerFilter out = *this;
    out.network_ = false;
    return out;
}

}  // namespace zq
