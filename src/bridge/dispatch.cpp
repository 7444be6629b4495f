#include "bridge/dispatch.h"

#include "bridge/bridge.h"
#include "bridge/frames.h"
#include "bridge/login.h"
#include "http/upstream_error.h"
#include "shell/log.h"

namespace zq {

namespace {

// Numbers are this system's names for the game's commands; the wire knows only the numbers.
enum Command : std::uint16_t {
    CmdLogin = 0,
    CmdLogout = 1,
    CmdCapabilityFlag = 12,
    CmdGetIdentity = 39,
    CmdContextStart = 100,
    CmdCreateRoom = 101,
    CmdJoinRoom = 102,
    CmdLeaveRoom = 103,
    CmdEmptyMessage = 104,
    CmdResolvePeer = 105,
    CmdContextStop = 106,
    CmdEchoPair = 108,
    CmdEchoPairToo = 109,
    CmdKickMember = 110,
    CmdServerFeatures = 111,
};

CommandResult ok(std::string payload = std::string()) { return CommandResult{ResultOk, std::move(payload)}; }

// Reads field 2 and answers it as field 1. These two never answer ResultBadPayload: a body too
// short to unwrap is value 0, and 0 is left out of the reply.
CommandResult echo_pair(std::string_view body) {
    std::uint64_t value = 0;
    if (auto fields = read_request(body)) value = number_field(*fields, 2, 0);
    return ok(wrap_message(FieldMessage().number_if_set(1, value).bytes()));
}

// The row of a command; false for a number with no row (107 among them, on purpose).
bool run_row(Session& s, std::uint16_t command, std::string_view body, CommandResult& result) {
    switch (command) {
        case CmdLogin: result = s.cmd_login(body); return true;
        case CmdLogout: result = s.cmd_logout(); return true;
        case 8: case 9: case 10: case 11: case 40:  // accepted and ignored
            result = ok();
            return true;
        case CmdCapabilityFlag: result = ok(wrap_message(FieldMessage().number(1, 1).bytes())); return true;
        case CmdGetIdentity: result = s.cmd_get_identity(); return true;
        case CmdContextStart: result = s.cmd_context_start(body); return true;
        case CmdCreateRoom: result = s.cmd_create_room(body); return true;
        case CmdJoinRoom: result = s.cmd_join_room(body); return true;
        case CmdLeaveRoom: result = s.cmd_leave_room(body); return true;
        case CmdEmptyMessage: result = ok(wrap_message("")); return true;
        case CmdResolvePeer: result = s.cmd_resolve_peer(body); return true;
        case CmdContextStop: result = s.cmd_context_stop(); return true;
        case CmdEchoPair: case CmdEchoPairToo: result = echo_pair(body); return true;
        case CmdKickMember: result = s.cmd_kick_member(body); return true;
        case CmdServerFeatures: {
            std::string features = FieldMessage().number(1, 1).number(5, 1).bytes();
            result = ok(wrap_message(FieldMessage().string(1, features).bytes()));
            return true;
        }
        default: return false;
    }
}

}  // namespace

CommandResult dispatch(Session& session, std::uint16_t command, std::uint64_t packet_id, std::string_view body) {
    std::lock_guard<std::mutex> guard(session.session_lock);
    // Whatever the command changed, others see as soon as it is done.
    struct Publish {
        Session& session;
        ~Publish() { session.publish_status_locked(); }
    } publish{session};
    CommandResult result;
    try {
        if (!run_row(session, command, body, result)) {
            // A program on the command port can send unknown numbers at will.
            log_limited("tcp unhandled", format_text("tcp: unhandled command %d (replying Unsupported)", command));
            return CommandResult{Unsupported, std::string()};
        }
    } catch (const BridgeError& e) {
        log_line(format_text("command %d failed: %s", command, e.what()));
        return CommandResult{ResultFailed, std::string()};
    }
    if (session.bridge->config().trace)
        log_line(format_text("cmd %d pkt %llu -> error %d, %llu bytes", command,
                             static_cast<unsigned long long>(packet_id), static_cast<int>(result.code),
                             static_cast<unsigned long long>(result.payload.size())));
    return result;
}

CommandResult Session::cmd_logout() {
    closing = true;
    return CommandResult{};
}

CommandResult Session::cmd_get_identity() {
    const std::string upstream_token = upstream.current_token();
    // Before login the game still gets an id: the stable one of whatever name it has.
    std::uint64_t id = account_id ? account_id : stable_account_id(npid);
    FieldMessage m;
    m.string_if_set(1, upstream_token).number_if_set(2, id).string_if_set(3, npid);
    return CommandResult{ResultOk, wrap_message(m.bytes())};
}

CommandResult Session::cmd_context_stop() {
    leave_room_locked();
    {
        std::lock_guard<std::mutex> guard(pump_lock);
        stop_flag = true;
    }
    pump_wake.notify_all();
    return CommandResult{};
}

}  // namespace zq
