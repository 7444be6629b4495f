// The event pump: keeps the session's place in its room with heartbeats, polls the remote event
// queue, and turns each event into room state, gateway links and a RoomEvent for the game.
#include <chrono>
#include <exception>

#include "bridge/bridge.h"
#include "bridge/frames.h"
#include "bridge/session.h"
#include "http/upstream_error.h"
#include "shell/log.h"

namespace zq {

namespace {

constexpr double heartbeat_every = 5.0;
constexpr double failure_backoff = 3.0;

}  // namespace

void Session::request_pump_stop() {
    {
        std::lock_guard<std::mutex> guard(pump_lock);
        stop_flag = true;
    }
    pump_wake.notify_all();
}

void Session::start_event_pump() {
    {
        std::lock_guard<std::mutex> guard(pump_lock);
        stop_flag = false;
    }
    std::lock_guard<std::mutex> guard(thread_lock);
    // A pump that still runs goes on: clearing stop_flag above has taken back any stop request.
    if (pump_running) return;
    if (pump_thread.joinable()) {
        if (pump_thread.get_id() == std::this_thread::get_id()) std::terminate();
        pump_thread.join();
    }
    pump_running = true;
    pump_thread = std::thread(&Session::event_pump, this);
}

// The running flag is cleared under pump_lock together with the look at stop_flag, so a
// context start that clears the flag either keeps this pump going or sees it gone and starts
// a new one, never neither.
bool Session::pump_wait(double seconds) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    std::unique_lock<std::mutex> guard(pump_lock);
    pump_wake.wait_until(guard, deadline, [this] { return stop_flag; });
    if (!stop_flag) return false;
    pump_running = false;
    return true;
}

void Session::event_pump() {
    std::uint64_t cursor = 0;
    int failures = 0;
    double last_heartbeat = -1000000000.0;  // the first tick in a room beats at once
    const double interval = static_cast<long long>(bridge->config().poll_interval * 1000.0) / 1000.0;

    for (;;) {
        if (pump_wait(0.0)) return;
        // A session that started its context before login has no pump.
        if (connection->ended() || !logged_in) {
            pump_running = false;
            return;
        }
        std::string session_id;
        std::int32_t member_id = 0;
        std::uint64_t room_id = 0;
        std::string name;
        {
            std::lock_guard<std::mutex> guard(session_lock);
            session_id = room.session_id;
            member_id = room.member_id;
            room_id = room.room_id;
            name = call_online_id();
        }

        if (room_id != 0 && steady_seconds() - last_heartbeat >= heartbeat_every) {
            last_heartbeat = steady_seconds();
            // -1 (unreachable) counts as still in: a server that cannot be reached never evicts.
            if (upstream.heartbeat(session_id, member_id) == 0) {
                std::lock_guard<std::mutex> guard(session_lock);
                log_line(format_text("server says we are no longer in room %llu",
                                     static_cast<unsigned long long>(room_id)));
                // A command may have moved us to another room while the heartbeat was out.
                if (room.room_id == room_id) {
                    room.reset();
                    remove_all_links();
                    publish_status_locked();
                }
            }
        }

        try {
            nlohmann::json event;
            cursor = upstream.poll_events(name, cursor, event);
            failures = 0;
            if (!event.is_null()) {
                {
                    std::lock_guard<std::mutex> guard(session_lock);
                    translate_locked(event);
                    publish_status_locked();
                }
                upstream.ack_events(name, cursor);
            }
        } catch (const BridgeError& e) {
            // One failure is retried at once; a run of them is logged and slowed down.
            if (++failures >= 2) {
                log_line(format_text("event poll failed (%d in a row): %s", failures, e.what()));
                if (pump_wait(failure_backoff)) return;
            }
            continue;
        }
        if (pump_wait(interval)) return;
    }
}

void Session::send_room_event(RoomEventCode code, RoomEventReason reason, const nlohmann::json& record,
                              std::int64_t extra) {
    std::optional<std::string> entry;
    if (record_member_id(record) != 0)
        entry = member_entry(record, room.owner_member_id, member_endpoint_locked(record));
    std::string body = room_event_message(context_id, room.room_id, code, reason, extra, entry);
    // A failed write marks the connection dead, which ends the pump on its next tick.
    connection->send(build_frame(FrameKind::Notification, notification_command, 0, body));
}

void Session::translate_locked(const nlohmann::json& event) {
    std::string name = json_text(event, "Name", "");
    if (name == "room_member_joined") {
        std::int32_t id = record_member_id(event);
        upsert_members(room, nlohmann::json::array({event}));
        log_line(format_text("event: member %d (%s) joined room %s", id, json_text(event, "OnlineId", "?").c_str(),
                             json_text(event, "RoomId", "").c_str()));
        send_room_event(RoomMemberJoined, ReasonJoined, event, 0);
    } else if (name == "room_member_left") {
        std::int32_t id = record_member_id(event);
        std::string reason = json_text(event, "Reason", "");
        log_line(format_text("event: member %d left (%s)", id, reason.empty() ? "?" : reason.c_str()));
        // Told first, while the member's entry can still be built.
        send_room_event(RoomMemberLeft, leave_reason(reason), event, 0);
        room.members.erase(id);
        if (bridge->gateway()) bridge->gateway()->remove_member(id);
    } else if (name == "room_closed") {
        log_line(format_text("event: room %s closed (%s)", json_text(event, "RoomId", "").c_str(),
                             json_text(event, "Reason", "?").c_str()));
        // The game sees every member leave, ourselves included, and nothing for the closing.
        auto members = room.members;
        for (const auto& [id, record] : members) send_room_event(RoomMemberLeft, ReasonLeftOrClosed, record, 0);
        room.reset();
        remove_all_links();
    } else if (name == "room_member_kicked") {
        log_line(format_text("event: we were kicked from room %s", json_text(event, "RoomId", "").c_str()));
        send_room_event(RoomWeWereKicked, ReasonKicked, event, -1);
        room.reset();
        remove_all_links();
    } else if (name == "guest_invite") {
        auto invited_room = static_cast<std::uint64_t>(json_int(event, "RoomId", 0));
        // The host of a room is always its member 1.
        nlohmann::json host = {{"MemberId", 1}};
        const std::pair<const char*, const char*> keys[] = {
            {"OnlineId", "HostOnlineId"},     {"Addr", "HostAddr"},           {"Port", "HostPort"},
            {"LocalAddr", "HostLocalAddr"},   {"LocalPort", "HostLocalPort"}, {"MappedAddr", "HostMappedAddr"},
            {"MappedPort", "HostMappedPort"}};
        for (const auto& [key, from] : keys)
            if (json_has(event, from)) host[key] = event[from];
        std::string host_id = json_text(host, "OnlineId", "");
        log_line(format_text("event: guest_invite for room %llu from %s at %s:%lld (area %s level %s)",
                             static_cast<unsigned long long>(invited_room), host_id.c_str(),
                             json_text(host, "Addr", "").c_str(), static_cast<long long>(json_int(host, "Port", 0)),
                             json_text(event, "HostArea", "").c_str(), json_text(event, "HostLevel", "").c_str()));
        pending_invites.push_back(event);
        // The link to the host starts punching before the game even asks to join.
        if (bridge->gateway() && !host_id.empty()) {
            Endpoint local{json_text(host, "LocalAddr", ""), static_cast<std::int32_t>(json_int(host, "LocalPort", 0))};
            bridge->gateway()->add_member(1, host_id, best_endpoint(host), local, npid, 0, invited_room,
                                        port_side_endpoint_locked());
        }
    } else {
        log_line(format_text("event: %s (untranslated)", name.c_str()));
    }
}

}  // namespace zq
