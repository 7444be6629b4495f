// The gateway's port mapping on the home router: mapping_thread asks for it, renews it, checks
// that the router still holds it and releases it at stop, all on a thread of its own since every
// step waits on the router. The mapping becomes the public address that the gateway reports
// only when it is worth something to peers: a public address, the one that STUN sees too. The
// port may differ from STUN's: behind a NAT that gives every destination its own port, that is
// the whole point of it.

#include <algorithm>
#include <chrono>

#include "p2p/gateway.h"
#include "shell/log.h"

namespace zq::p2p {

std::optional<Endpoint> Gateway::public_address_locked() const {
    if (mapping && mapping->used) return mapping->external;
    return mapped;
}

std::optional<Endpoint> Gateway::settle_public_address_locked() {
    if (mapping) {
        const std::string because = mapping_unused_because(mapping->external, mapped);
        // Said once per reason; the wait for STUN's first answer is not worth a line.
        if (!because.empty() && because != mapping->unused_because && mapped)
            log_line(format_text("p2p: port mapping by %s gives %s, not used: %s", protocol_name(mapping->protocol),
                                 mapping->external.text().c_str(), because.c_str()));
        mapping->used = because.empty();
        mapping->unused_because = because;
    }
    std::optional<Endpoint> now = public_address_locked();
    if (!now || now == reported) return std::nullopt;
    reported = now;
    return now;
}

void Gateway::set_port_mapping(const std::optional<PortMappingGrant>& grant) {
    std::optional<Endpoint> changed;
    {
        std::lock_guard<std::mutex> guard(mutex);
        if (!grant) {
            mapping.reset();
        } else {
            if (!mapping || mapping->protocol != grant->protocol || mapping->external != grant->external)
                log_line(format_text("p2p: port mapping by %s: %s for %u s", protocol_name(grant->protocol),
                                     grant->external.text().c_str(), static_cast<unsigned>(grant->lifetime)));
            if (!mapping) mapping.emplace();
            mapping->protocol = grant->protocol;
            mapping->external = grant->external;
            mapping->lifetime = grant->lifetime;
            mapping->granted = steady_seconds();
        }
        changed = settle_public_address_locked();
    }
    if (changed) tell_owner(*changed);
}

std::optional<PortMappingInfo> Gateway::port_mapping_info() const {
    std::lock_guard<std::mutex> guard(mutex);
    return mapping;
}

void Gateway::mapping_thread() {
    std::optional<Endpoint> router = mapping_router;
    if (!router) {
        std::string why;
        router = home_router(why);
        if (!router) {
            log_line("p2p: no port mapping: " + why);
            return;
        }
    }
    PortMapper mapper(*router, port, stopping);
    mapper.protocols = mapping_protocols;
    const double check_every = std::max(mapping_check, 0.1);
    // A router that offers none of the three is asked again now and then: it may get one.
    const double retry_every = 5 * check_every;
    bool said_none = false;
    double next = steady_seconds();

    while (!stopping) {
        {
            std::unique_lock<std::mutex> lock(stun_lock);
            const double now = steady_seconds();
            if (now < next) {
                stun_signal.wait_for(lock, std::chrono::duration_cast<std::chrono::nanoseconds>(
                                               std::chrono::duration<double>(next - now)));
                continue;
            }
        }
        if (!mapper.grant()) {
            if (auto grant = mapper.map(mapping_lifetime)) {
                said_none = false;
                set_port_mapping(grant);
            } else if (!stopping) {
                if (!said_none) log_line("p2p: no port mapping: the router answers none of PCP, NAT-PMP and UPnP");
                said_none = true;
                next = steady_seconds() + retry_every;
                continue;
            }
        } else {
            const MappingProtocol protocol = mapper.grant()->protocol;
            switch (mapper.refresh(mapping_lifetime)) {
            case PortMapper::Refresh::Held:
                break;
            case PortMapper::Refresh::Restored:
                log_line(format_text("p2p: port mapping by %s was lost by the router, mapped again",
                                     protocol_name(protocol)));
                break;
            case PortMapper::Refresh::Lost:
                if (stopping) break;
                log_line(format_text("p2p: port mapping by %s lost: the router refused or did not answer",
                                     protocol_name(protocol)));
                set_port_mapping(std::nullopt);
                next = steady_seconds() + check_every;
                continue;
            }
            set_port_mapping(mapper.grant());
        }
        if (!mapper.grant()) break;  // stopping
        // Renewed at half the lifetime, though never sooner than the floor, and looked at in between.
        const std::uint32_t lifetime = mapper.grant()->lifetime;
        double wait = check_every;
        if (lifetime > 0) wait = std::min(wait, std::max(lifetime / 2.0, mapping_renew_floor));
        next = steady_seconds() + wait;
    }
    if (mapper.grant()) {
        const MappingProtocol protocol = mapper.grant()->protocol;
        mapper.release();
        log_line(format_text("p2p: port mapping by %s released", protocol_name(protocol)));
    }
}

}  // namespace zq::p2p
