// The matching rows: context start, create, join, leave and kick, and the session's room
// operations that the event pump and signaling share.
#include <set>

#include "bridge/bridge.h"
#include "bridge/frames.h"
#include "bridge/session.h"
#include "http/upstream_error.h"
#include "shell/log.h"

namespace zq {

namespace {

CommandResult bad_payload() { return CommandResult{ResultBadPayload, std::string()}; }

std::uint64_t widened(std::int64_t value) { return static_cast<std::uint64_t>(value); }

// Without a gateway and without a ping from the port this is all we can say of our P2P port.
constexpr std::int32_t fallback_p2p_port = 9307;

}  // namespace

std::string Session::call_online_id() const {
    std::string name = upstream.current_online_id();
    return name.empty() ? npid : name;
}

OwnEndpoints Session::own_endpoints_locked() {
    if (bridge->gateway()) {
        auto [lan, mapped] = bridge->gateway()->own_endpoints();
        return OwnEndpoints{lan, mapped};
    }
    const Config& config = bridge->config();
    std::string lan_host = config.local_addr.empty() ? local_ipv4() : config.local_addr;
    std::optional<Endpoint> pinged = bridge->stun_entry(npid);
    if (pinged) return OwnEndpoints{Endpoint{lan_host, pinged->port}, *pinged};
    return OwnEndpoints{Endpoint{lan_host, fallback_p2p_port}, Endpoint{lan_host, fallback_p2p_port}};
}

std::optional<Endpoint> Session::port_side_endpoint_locked() {
    if (std::optional<Endpoint> pinged = bridge->stun_entry(npid)) return pinged;
    std::int32_t port = bridge->config().port_p2p_port;
    if (port >= 1) return Endpoint{"127.0.0.1", port};
    return std::nullopt;
}

Endpoint Session::member_endpoint_locked(const nlohmann::json& record) {
    std::int32_t id = record_member_id(record);
    if (bridge->gateway() && id != 0 && id != room.member_id) {
        Endpoint local{json_text(record, "LocalAddr", ""), static_cast<std::int32_t>(json_int(record, "LocalPort", 0))};
        return bridge->gateway()->add_member(id, json_text(record, "OnlineId", ""), best_endpoint(record), local, npid,
                                           room.member_id, room.room_id, port_side_endpoint_locked());
    }
    return best_endpoint(record);
}

// Telling the game of a member and opening its link are one act, so the game is never told of
// a peer it cannot reach.
std::string Session::room_summary_locked() {
    return room_summary(room, [this](const nlohmann::json& record) { return member_endpoint_locked(record); });
}

void Session::add_ourselves_locked() {
    if (room.member_id == 0 || room.members.count(room.member_id)) return;
    OwnEndpoints own = own_endpoints_locked();
    room.members[room.member_id] = nlohmann::json{{"MemberId", room.member_id},   {"OnlineId", npid},
                                                  {"Addr", own.mapped.host},      {"Port", own.mapped.port},
                                                  {"LocalAddr", own.lan.host},    {"LocalPort", own.lan.port}};
}

void Session::remove_all_links() {
    if (bridge->gateway()) bridge->gateway()->remove_all_members();
}

CommandResult Session::cmd_context_start(std::string_view body) {
    auto fields = read_request(body);
    if (!fields) return bad_payload();
    context_id = number_field(*fields, 1, 0);
    if (!bridge->stun_entry(npid))
        log_line(format_text("warning: no STUN ping seen for %s yet; P2P endpoint unknown", quote(npid).c_str()));
    try {
        OwnEndpoints own = own_endpoints_locked();
        upstream.context_start(call_online_id(), own.lan, own.mapped);
        start_event_pump();
    } catch (const BridgeError& e) {
        log_line(std::string("context_start failed: ") + e.what());
        return CommandResult{ResultFailed, std::string()};
    }
    return CommandResult{};
}

CommandResult Session::cmd_create_room(std::string_view body) {
    auto fields = read_request(body);
    if (!fields) return bad_payload();
    std::int32_t asked = static_cast<std::int32_t>(number_field(*fields, 2, 0));
    if (asked == 0) asked = 5;
    try {
        OwnEndpoints own = own_endpoints_locked();
        nlohmann::json reply = upstream.create_room(call_online_id(), own.lan, own.mapped, asked,
                                                    room_attributes(bridge->advertisement()));

        // An earlier room is dropped here without telling the server.
        room.reset();
        remove_all_links();
        room.room_id = static_cast<std::uint64_t>(json_int(reply, "RoomId", 0));
        room.session_id = json_text(reply, "SessionId", "");
        room.member_id = static_cast<std::int32_t>(json_int(reply, "MemberId", 1));
        room.owner_member_id = static_cast<std::int32_t>(json_int(reply, "OwnerMemberId", room.member_id));
        room.max_members = static_cast<std::int32_t>(json_int(reply, "MaxMembers", asked));
        upsert_members(room, reply.contains("Members") ? reply["Members"] : nlohmann::json());
        add_ourselves_locked();

        FieldMessage m;
        m.number_if_set(1, room.room_id).number(2, 1).number(3, 1).number(4, 1);
        m.number_if_set(5, widened(room.member_id)).number_if_set(6, widened(room.max_members));
        m.string(9, room_summary_locked());
        log_line(format_text("room %llu created (member %d, max %d)", static_cast<unsigned long long>(room.room_id),
                             room.member_id, room.max_members));
        return CommandResult{ResultOk, wrap_message(m.bytes())};
    } catch (const BridgeError& e) {
        log_line(std::string("create_room failed: ") + e.what());
        return CommandResult{ResultFailed, std::string()};
    }
}

CommandResult Session::cmd_join_room(std::string_view body) {
    auto fields = read_request(body);
    if (!fields) return bad_payload();
    std::uint64_t room_id = number_field(*fields, 1, 0);
    if (room_id == 0) return CommandResult{ResultBadRoom, std::string()};
    try {
        OwnEndpoints own = own_endpoints_locked();
        nlohmann::json reply = upstream.join_room(call_online_id(), room_id, own.lan, own.mapped);

        room.reset();
        if (bridge->gateway()) {
            // The host's link, opened when the invitation came, is already punching: keep it.
            std::set<std::string> hosts;
            for (const auto& invite : pending_invites)
                if (static_cast<std::uint64_t>(json_int(invite, "RoomId", 0)) == room_id)
                    hosts.insert(json_text(invite, "HostOnlineId", ""));
            bridge->gateway()->retain_members(hosts);
        }
        // A joiner is never the first member, hence defaults unlike those of create.
        room.room_id = room_id;
        room.session_id = json_text(reply, "SessionId", "");
        room.member_id = static_cast<std::int32_t>(json_int(reply, "MemberId", 2));
        room.owner_member_id = static_cast<std::int32_t>(json_int(reply, "OwnerMemberId", 1));
        room.max_members = static_cast<std::int32_t>(json_int(reply, "MaxMembers", 5));
        upsert_members(room, reply.contains("Members") ? reply["Members"] : nlohmann::json());
        add_ourselves_locked();

        FieldMessage m;
        m.number(1, room.room_id);
        m.number_if_set(2, widened(room.member_id)).number_if_set(3, widened(room.max_members));
        m.string(6, room_summary_locked());
        log_line(format_text("room %llu joined (member %d of max %d)", static_cast<unsigned long long>(room_id),
                             room.member_id, room.max_members));
        return CommandResult{ResultOk, wrap_message(m.bytes())};
    } catch (const BridgeError& e) {
        log_line(format_text("join_room(%llu) failed: %s", static_cast<unsigned long long>(room_id), e.what()));
        return CommandResult{ResultJoinFailed, std::string()};
    }
}

// Leaves first, then echoes field 1; an unreadable body only makes the echo 0.
CommandResult Session::cmd_leave_room(std::string_view body) {
    leave_room_locked();
    std::uint64_t echo = 0;
    if (auto fields = read_request(body)) echo = number_field(*fields, 1, 0);
    return CommandResult{ResultOk, wrap_message(FieldMessage().number_if_set(1, echo).bytes())};
}

// The member table is left alone: the room_member_left event that follows updates it.
CommandResult Session::cmd_kick_member(std::string_view body) {
    auto fields = read_request(body);
    if (!fields) return bad_payload();
    auto target = static_cast<std::int32_t>(static_cast<std::uint32_t>(number_field(*fields, 3, 0)));
    try {
        upstream.kick_member(room.session_id, target, room.member_id);
    } catch (const BridgeError& e) {
        log_line(std::string("kick failed: ") + e.what());
        return CommandResult{ResultFailed, std::string()};
    }
    return CommandResult{ResultOk, wrap_message(FieldMessage().number_if_set(1, number_field(*fields, 1, 0)).bytes())};
}

void Session::leave_room_locked(bool farewell) {
    if (room.room_id == 0) return;
    try {
        upstream.leave_room(room.session_id, room.member_id, farewell);
        log_line(format_text("left room %llu", static_cast<unsigned long long>(room.room_id)));
    } catch (const BridgeError& e) {
        // Local state is cleared whatever the server said.
        log_line(std::string("leave_room failed: ") + e.what());
    }
    room.reset();
    remove_all_links();
}

}  // namespace zq
