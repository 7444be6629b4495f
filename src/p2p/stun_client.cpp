// The gateway's side of the STUN exchange: it learns the public address and holds the relay.

#include <exception>

#include "p2p/gateway.h"
#include "p2p/stun.h"
#include "shell/log.h"

namespace zq::p2p {

void Gateway::refresh_stun() {
    std::string host = resolve_ipv4(stun_server->host);
    if (host.empty()) {
        log_line(format_text("p2p: cannot resolve STUN server %s", stun_server->host.c_str()));
        return;
    }
    Endpoint target{host, stun_server->port};
    // Without an id that nobody can guess, no request goes out; the next refresh tries again.
    std::optional<std::array<unsigned char, 12>> id = random_transaction_id();
    if (!id) return;
    std::string request;
    {
        std::lock_guard<std::mutex> guard(mutex);
        // The token names our allocation to the server that gave it, and to no other.
        std::string token = relay && relay->server.host == host ? relay->token : std::string();
        request = binding_request(*id, token);
        // A late answer to the previous request no longer matches.
        stun_transaction = request.substr(4, 16);
        stun_target = target;
    }
    send_to(public_socket, request.data(), static_cast<int>(request.size()), to_sockaddr(target));
}

void Gateway::on_stun_answer(const std::string& datagram) {
    std::optional<Endpoint> changed;
    {
        std::lock_guard<std::mutex> guard(mutex);
        if (stun_transaction.empty()) return;
        std::optional<StunAnswer> answer = parse_binding_answer(datagram, stun_transaction);
        if (!answer) return;
        if (answer->relay && stun_target.usable()) {
            if (!relay || relay->port != answer->relay_port)
                log_line(format_text("p2p: relay on, our port on it is %d", answer->relay_port));
            relay = Relay{stun_target, answer->relay_token, answer->relay_port};
        } else if (relay) {
            log_line("p2p: relay off");
            relay.reset();
        }
        Endpoint seen{answer->mapped_host, answer->mapped_port};
        if (!mapped || *mapped != seen) {
            log_line("p2p: STUN sees us as " + seen.text());
            mapped = seen;
            changed = seen;
        }
    }
    if (!changed || !on_mapped_change) return;
    try {
        on_mapped_change(*changed);
    } catch (const std::exception& e) {
        log_line(std::string("p2p: mapped-change callback failed: ") + e.what());
    }
}

}  // namespace zq::p2p
