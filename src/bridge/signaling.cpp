// Finding peers: the game's question for a peer's address (CmdResolvePeer), and telling the
// service when the gateway learns a new public address of ours.
#include "bridge/bridge.h"
#include "bridge/frames.h"
#include "bridge/room_state.h"
#include "bridge/session.h"
#include "bridge/signaling.h"
#include "shell/log.h"

namespace zq {

std::int32_t synthetic_member_id(const std::string& online_id) {
    std::uint64_t hash = 0xCBF29CE484222325ull;
    for (unsigned char byte : online_id) {
        hash ^= byte;
        hash *= 0x100000001B3ull;
    }
    // Inverted, the remainder lands in -30000..-1, where no real member id lives.
    std::uint32_t inverted = ~static_cast<std::uint32_t>(hash % 30000);
    return static_cast<std::int32_t>(inverted);
}

namespace {

CommandResult peer_reply(const std::string& target, const Endpoint& endpoint) {
    std::uint64_t port = endpoint.port > 0 ? static_cast<std::uint64_t>(endpoint.port) : 0;
    return CommandResult{ResultOk, wrap_message(FieldMessage()
                                                    .string_if_set(1, target)
                                                    .string_if_set(2, endpoint.host)
                                                    .number_if_set(3, port)
                                                    .bytes())};
}

}  // namespace

CommandResult Session::cmd_resolve_peer(std::string_view body) {
    auto fields = read_request(body);
    if (!fields) return CommandResult{ResultBadPayload, std::string()};
    std::string target = string_field(*fields, 1);

    const nlohmann::json* member = nullptr;
    for (const auto& [id, record] : room.members)
        if (json_has(record, "OnlineId") && record.at("OnlineId").is_string() &&
            record.at("OnlineId").get<std::string>() == target)
            member = &record;

    if (bridge->gateway()) {
        if (auto known = bridge->gateway()->port_address_of(target)) return peer_reply(target, *known);
        if (member) return peer_reply(target, member_endpoint_locked(*member));
        std::optional<Endpoint> resolved = upstream.resolve_peer(target);
        if (!resolved) {
            log_line(format_text("signaling: %s is not registered on the server", quote(target).c_str()));
            return CommandResult{ResultPeerUnknown, std::string()};
        }
        Endpoint inner = bridge->gateway()->add_member(synthetic_member_id(target), target, *resolved, Endpoint{}, npid,
                                                     room.member_id, room.room_id, port_side_endpoint_locked());
        log_line(format_text("signaling: %s resolved to %s (not in the room yet)", quote(target).c_str(),
                             resolved->text().c_str()));
        return peer_reply(target, inner);
    }

    // Without a gateway the service's word goes first, then the room's.
    std::optional<Endpoint> resolved = upstream.resolve_peer(target);
    Endpoint answer = resolved ? *resolved : (member ? best_endpoint(*member) : Endpoint{});
    if (!answer.usable()) return CommandResult{ResultPeerUnknown, std::string()};
    return peer_reply(target, answer);
}

void Bridge::on_mapped_change(const Endpoint& mapped) {
    for (const auto& session : sessions()) {
        const SessionStatus status = session->status();
        if (!status.logged_in || session->upstream.current_token().empty()) continue;
        // Outside any room too: the service must know where to find us before we join one.
        session->upstream.signaling_update(status.name, mapped, status.room_session_id, status.member_id);
    }
}

}  // namespace zq
