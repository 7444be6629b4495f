#include "standin/stun_relay_server.h"

#include <random>

#include "p2p/port_mapping_codec.h"
#include "p2p/stun.h"
#include "shell/byte_order.h"

namespace standin {

using zq::be16;
using zq::be16_bytes;

namespace {

std::string random_token() {
    static std::mutex lock;
    static std::mt19937 engine{std::random_device{}()};
    std::lock_guard<std::mutex> guard(lock);
    std::string token(8, '\0');
    for (auto& c : token) c = static_cast<char>(engine() & 0xFF);
    return token;
}

// XOR-MAPPED-ADDRESS for an IPv4 endpoint.
std::string xor_mapped(const zq::Endpoint& e) {
    const std::uint32_t address = zq::p2p::parse_ipv4(e.host).value_or(0);
    return be16_bytes(zq::p2p::kAttrXorMappedAddress) + be16_bytes(8) + std::string("\0\x01", 2) +
           be16_bytes(static_cast<unsigned>(e.port) ^ (zq::p2p::kMagicCookie >> 16)) +
           zq::be32_bytes(address ^ zq::p2p::kMagicCookie);
}

}  // namespace

StunRelayServer::StunRelayServer(const std::string& host, int port) {
    zq::network_init();
    socket_ = zq::open_udp_socket();
    if (!zq::bind_socket(socket_, zq::to_sockaddr(zq::Endpoint{host, port}))) {
        zq::close_socket(socket_);
        socket_ = zq::invalid_socket;
        return;
    }
    zq::disable_udp_connreset(socket_);
    address_ = zq::bound_endpoint(socket_);
    thread_ = std::thread([this] { serve(); });
}

StunRelayServer::~StunRelayServer() {
    if (socket_ == zq::invalid_socket) return;
    stopping_ = true;
    zq::Socket wake = zq::open_udp_socket();
    zq::send_to(wake, "", 0, zq::to_sockaddr(address_));
    zq::close_socket(wake);
    zq::shutdown_socket(socket_);
    thread_.join();
    zq::close_socket(socket_);
    for (auto& [key, a] : allocations_) zq::close_socket(a.reserved);
}

void StunRelayServer::set_grant(bool grant) {
    std::lock_guard<std::mutex> guard(lock_);
    grant_ = grant;
}

void StunRelayServer::set_reported(std::optional<zq::Endpoint> reported) {
    std::lock_guard<std::mutex> guard(lock_);
    reported_ = std::move(reported);
}

int StunRelayServer::binding_requests() const {
    std::lock_guard<std::mutex> guard(lock_);
    return binding_requests_;
}

std::string StunRelayServer::last_request_token() const {
    std::lock_guard<std::mutex> guard(lock_);
    return last_token_;
}

int StunRelayServer::relayed() const {
    std::lock_guard<std::mutex> guard(lock_);
    return relayed_;
}

std::optional<zq::Endpoint> StunRelayServer::relay_address_of(const zq::Endpoint& client) const {
    std::lock_guard<std::mutex> guard(lock_);
    auto found = allocations_.find(client.text());
    if (found == allocations_.end()) return std::nullopt;
    return zq::Endpoint{address_.host, found->second.port};
}

void StunRelayServer::serve() {
    std::string buffer(65536, '\0');
    while (!stopping_) {
        zq::SockAddr from;
        int n = zq::recv_from(socket_, buffer.data(), static_cast<int>(buffer.size()), &from);
        if (n < 0 || stopping_) continue;
        std::string datagram = buffer.substr(0, static_cast<std::size_t>(n));
        zq::Endpoint sender = zq::from_sockaddr(from);
        if (datagram.size() >= 20 && be16(datagram, 0) == zq::p2p::kBindingRequest)
            answer_binding(datagram, sender);
        else if (datagram.size() >= 12 && static_cast<unsigned char>(datagram[0]) == 0xFB && datagram[1] == 'R')
            forward(datagram, sender);
    }
}

void StunRelayServer::answer_binding(const std::string& request, const zq::Endpoint& from) {
    std::string attributes;
    {
        std::lock_guard<std::mutex> guard(lock_);
        ++binding_requests_;
        if (request.size() >= 36 && be16(request, 20) == zq::p2p::kAttrRelayRequest) last_token_ = request.substr(28, 8);
        attributes = xor_mapped(reported_ ? *reported_ : from);
        if (grant_) {
            Allocation& a = allocations_[from.text()];
            if (a.reserved == zq::invalid_socket) {
                a.reserved = zq::open_udp_socket();
                zq::bind_socket(a.reserved, zq::to_sockaddr(zq::Endpoint{address_.host, 0}));
                a.port = zq::bound_endpoint(a.reserved).port;
                a.token = random_token();
                a.client = from;
            }
            attributes += be16_bytes(zq::p2p::kAttrRelayGrant) + be16_bytes(20) + "zqr1" + a.token +
                          be16_bytes(static_cast<unsigned>(a.port)) + std::string(6, '\0');
        }
    }
    const std::string answer = be16_bytes(zq::p2p::kBindingSuccess) +
                               be16_bytes(static_cast<unsigned>(attributes.size())) + request.substr(4, 16) + attributes;
    zq::send_to(socket_, answer.data(), static_cast<int>(answer.size()), zq::to_sockaddr(from));
}

void StunRelayServer::forward(const std::string& frame, const zq::Endpoint& from) {
    std::string out;
    zq::Endpoint to;
    {
        std::lock_guard<std::mutex> guard(lock_);
        auto source = allocations_.find(from.text());
        if (source == allocations_.end() || source->second.token != frame.substr(2, 8)) return;
        int destination = static_cast<int>(be16(frame, 10));
        const Allocation* target = nullptr;
        for (const auto& [key, a] : allocations_)
            if (a.port == destination) target = &a;
        if (!target) return;
        out = "\xFB" "r" + be16_bytes(static_cast<unsigned>(source->second.port)) + frame.substr(12);
        to = target->client;
        ++relayed_;
    }
    zq::send_to(socket_, out.data(), static_cast<int>(out.size()), zq::to_sockaddr(to));
}

}  // namespace standin
