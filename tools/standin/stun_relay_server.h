#pragma once
// A STUN and relay server that that speaks the gateway's private relay protocol:
// it answers Binding Requests with the sender's address and, while granting, a relay
// allocation (attribute 81 01: "zqr1", token, port); it forwards relay frames between holders.
// Each allocation reserves a real UDP port on the server's own address, so its number collides
// with nothing.

#include <atomic>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "shell/net.h"

namespace standin {

class StunRelayServer {
public:
    // Binds host:port; port 0 lets the system choose. A failed bind leaves address() unusable.
    explicit StunRelayServer(const std::string& host = "127.0.0.1", int port = 0);
    ~StunRelayServer();
    StunRelayServer(const StunRelayServer&) = delete;
    StunRelayServer& operator=(const StunRelayServer&) = delete;

    zq::Endpoint address() const { return address_; }

    // Whether answers carry a relay grant (on by default).
    void set_grant(bool grant);
    // Reports this address instead of the sender's, as a NAT would show it.
    void set_reported(std::optional<zq::Endpoint> reported);

    int binding_requests() const;
    // The 8 token bytes of the last Binding Request's relay attribute.
    std::string last_request_token() const;
    // Relay frames forwarded from one allocation to another.
    int relayed() const;
    // The relay address (this server's host, the allocation's port) held by the client that
    // asks from this address; nothing before that client's first granted Binding Request.
    std::optional<zq::Endpoint> relay_address_of(const zq::Endpoint& client) const;

private:
    struct Allocation {
        zq::Socket reserved = zq::invalid_socket;
        int port = 0;
        std::string token;
        zq::Endpoint client;
    };

    void serve();
    void answer_binding(const std::string& request, const zq::Endpoint& from);
    void forward(const std::string& frame, const zq::Endpoint& from);

    zq::Socket socket_ = zq::invalid_socket;
    zq::Endpoint address_;
    mutable std::mutex lock_;
    bool grant_ = true;
    std::optional<zq::Endpoint> reported_;
    int binding_requests_ = 0;
    std::string last_token_;
    int relayed_ = 0;
    std::map<std::string, Allocation> allocations_;  // by client "host:port"
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

}  // namespace standin
