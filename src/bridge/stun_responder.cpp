#include "bridge/stun_responder.h"

#include <cstring>

#include "bridge/bridge.h"
#include "bridge/session.h"
#include "shell/log.h"
#include "shell/net.h"

namespace zq {

std::optional<std::string> parse_stun_ping(std::string_view datagram) {
    if (datagram.size() < stun_ping_min_size || datagram[0] != 1) return std::nullopt;
    std::string_view id = datagram.substr(1, 16);
    return std::string(id.substr(0, id.find('\0')));
}

std::string stun_reply(const Endpoint& sender) {
    // SockAddr has the sockaddr_in layout: port at offset 2, address at offset 4, both in
    // network order already.
    SockAddr address = to_sockaddr(sender);
    std::string out(6, '\0');
    std::memcpy(out.data(), address.bytes + 4, 4);
    std::memcpy(out.data() + 4, address.bytes + 2, 2);
    return out;
}

void Bridge::stun_thread(Socket udp) {
    char buffer[4096];
    while (running_) {
        if (stop_signal_.wait(udp, 0) != StopSignal::Wait::Ready) continue;
        SockAddr from;
        int n = recv_from(udp, buffer, sizeof buffer, &from);
        if (n < 0) {
            if (!running_) break;
            continue;
        }
        auto id = parse_stun_ping(std::string_view(buffer, static_cast<std::size_t>(n)));
        if (!id) continue;
        Endpoint sender = from_sockaddr(from);
        bool news = false, full = false;
        {
            std::lock_guard<std::mutex> guard(endpoints_lock_);
            auto it = stun_table_.find(*id);
            if (it != stun_table_.end()) {
                news = !(it->second == sender);
                it->second = sender;
            } else if (stun_table_.size() < stun_table_limit) {
                news = true;
                stun_table_.emplace(*id, sender);
            } else {
                full = true;
            }
        }
        // The id is whatever the sender put there: log it as text that cannot break the line.
        if (news)
            log_limited("stun ping", format_text("stun: %s pings from %s", quote(*id).c_str(),
                                                 sender.text().c_str()));
        if (full)
            log_limited("stun table full",
                        format_text("stun: %llu ids noted already; %s from %s is not noted",
                                    static_cast<unsigned long long>(stun_table_limit), quote(*id).c_str(),
                                    sender.text().c_str()));
        std::string reply = stun_reply(sender);
        send_to(udp, reply.data(), static_cast<int>(reply.size()), from);
    }
}

}  // namespace zq
