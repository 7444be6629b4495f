// The gateway's side of the STUN exchange: it learns the public address and holds the relay.
// Answers arrive on peer_thread. What may be slow runs on threads of its own, so that it never
// holds up a datagram, a punch or a hello: stun_thread resolves the server's name and sends the
// requests, report_thread tells the owner of each new address (which calls the service). They
// are two so that a slow service cannot hold up the requests that keep the mapping and the
// relay alive either.

#include <algorithm>
#include <chrono>
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

void Gateway::on_stun_answer(std::string_view datagram) {
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
            routes_changed_locked();
        } else if (relay) {
            log_line("p2p: relay off");
            relay.reset();
            routes_changed_locked();
            // Links that lived on the relay are due for keepalives now.
            timer_signal.notify_all();
        }
        Endpoint seen{answer->mapped_host, answer->mapped_port};
        if (!mapped || *mapped != seen) {
            log_line("p2p: STUN sees us as " + seen.text());
            mapped = seen;
        }
        // While a port mapping is used, its address stands whatever port STUN sees.
        changed = settle_public_address_locked();
    }
    if (changed) tell_owner(*changed);
}

void Gateway::tell_owner(const Endpoint& address) {
    if (!on_mapped_change) return;
    std::lock_guard<std::mutex> guard(stun_lock);
    // Changes are told in order while report_thread's pace allows. Only a server that moves our
    // address faster than the owner can take it in would fill this; then the oldest untold ones
    // give way.
    if (mapped_changes.size() == kMaxMappedChanges) mapped_changes.pop_front();
    mapped_changes.push_back(address);
    stun_signal.notify_all();
}

void Gateway::stun_thread() {
    double last_refresh = -1000000000.0;  // the first request goes out at once
    // The setting has no lower bound; a tenth of a second keeps a zero from becoming a flood.
    const double interval = std::max(stun_refresh, 0.1);
    std::unique_lock<std::mutex> lock(stun_lock);
    while (!stopping) {
        const double now = steady_seconds();
        if (now - last_refresh >= interval) {
            last_refresh = now;
            lock.unlock();
            refresh_stun();
            lock.lock();
            continue;
        }
        stun_signal.wait_for(lock, std::chrono::duration_cast<std::chrono::nanoseconds>(
                                       std::chrono::duration<double>(last_refresh + interval - now)));
    }
}

void Gateway::report_thread() {
    // A token bucket: announce_burst calls at once, refilled at one per announce_interval.
    const double interval = std::max(announce_interval, 0.001);
    const double burst = std::max(announce_burst, 1);
    double tokens = burst;
    double filled = steady_seconds();
    std::optional<Endpoint> told;
    std::unique_lock<std::mutex> lock(stun_lock);
    while (!stopping) {
        if (mapped_changes.empty()) {
            stun_signal.wait(lock);
            continue;
        }
        const double now = steady_seconds();
        tokens = std::min(tokens + (now - filled) / interval, burst);
        filled = now;
        if (tokens < 1.0) {
            // Held back: what the owner will be told is where we are by then.
            while (mapped_changes.size() > 1) mapped_changes.pop_front();
            stun_signal.wait_for(lock, std::chrono::duration_cast<std::chrono::nanoseconds>(
                                           std::chrono::duration<double>((1.0 - tokens) * interval)));
            continue;
        }
        const Endpoint address = mapped_changes.front();
        mapped_changes.pop_front();
        // An address that moved away and back while held costs no call.
        if (address == told) continue;
        told = address;
        tokens -= 1.0;
        lock.unlock();
        try {
            on_mapped_change(address);
        } catch (const std::exception& e) {
            log_line(std::string("p2p: mapped-change callback failed: ") + e.what());
        }
        lock.lock();
    }
}

}  // namespace zq::p2p
