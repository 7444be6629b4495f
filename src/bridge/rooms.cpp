// The matching rows: context start and stop, create, join, leave and kick.
#include "bridge/bridge.h"
#include "bridge/frames.h"
#include "bridge/session.h"
#include "http/upstream_error.h"
#include "shell/log.h"

namespace zq {

namespace {

CommandResult bad_payload() { return CommandResult{ResultBadPayload, std::string()}; }

[[noreturn]] void matching_service_missing(const char* path) {
    throw BridgeError(std::string(path) + ": matching service not connected");
}

}  // namespace

CommandResult Session::cmd_context_start(std::string_view body) {
    auto fields = read_request(body);
    if (!fields) return bad_payload();
    context_id = number_field(*fields, 1, 0);
    bool pinged = false;
    {
        std::lock_guard<std::mutex> guard(bridge->endpoints_lock);
        pinged = bridge->stun_table.count(npid) != 0;
    }
    if (!pinged)
        log_line(format_text("warning: no STUN ping seen for %s yet; P2P endpoint unknown", quote(npid).c_str()));
    matching_service_missing("/mp/matching2/context_start");
}

CommandResult Session::cmd_create_room(std::string_view body) {
    auto fields = read_request(body);
    if (!fields) return bad_payload();
    matching_service_missing("/mp/matching2/create_room");
}

CommandResult Session::cmd_join_room(std::string_view body) {
    auto fields = read_request(body);
    if (!fields) return bad_payload();
    if (number_field(*fields, 1, 0) == 0) return CommandResult{ResultBadRoom, std::string()};
    matching_service_missing("/mp/matching2/join_room");
}

// Leaves first, then echoes field 1; an unreadable body only makes the echo 0.
CommandResult Session::cmd_leave_room(std::string_view body) {
    leave_room_locked();
    std::uint64_t echo = 0;
    if (auto fields = read_request(body)) echo = number_field(*fields, 1, 0);
    return CommandResult{ResultOk, wrap_message(FieldMessage().number_if_set(1, echo).bytes())};
}

CommandResult Session::cmd_kick_member(std::string_view body) {
    auto fields = read_request(body);
    if (!fields) return bad_payload();
    matching_service_missing("/mp/matching2/kick_member");
}

void Session::leave_room_locked() {
    if (room.room_id == 0) return;
    try {
        matching_service_missing("/mp/matching2/leave_room");
    } catch (const BridgeError& e) {
        // Local state is cleared whatever the server said.
        log_line(std::string("leave_room failed: ") + e.what());
    }
    room.reset();
}

}  // namespace zq
