#pragma once
// The state of the game session on one game connection (Session), and the loop that serves
// the connection.
//
// Lock order, outermost first: session_lock; then thread_lock, pump_lock, the client's
// credentials_lock, the Bridge's locks, the connection's send lock, or status_lock. Never the
// other way round.

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "bridge/room_state.h"
#include "http/upstream.h"
#include "shell/connection_threads.h"
#include "shell/listener.h"
#include "shell/net.h"
#include "shell/session_status.h"

namespace zq {

class Bridge;

// Result codes of a Reply's first byte. No other values are ever produced.
enum ResultCode : std::uint8_t {
    ResultOk = 0,
    ResultBadPayload = 1,
    ResultFailed = 2,
    ResultBadRoom = 3,
    ResultLoginRefused = 5,
    ResultEmptyId = 8,
    ResultJoinFailed = 14,
    ResultPeerUnknown = 26,
    Unsupported = 33,
};

// What a command answers: the code, then nothing or a LengthPrefixedMessage.
struct CommandResult {
    ResultCode code = ResultOk;
    std::string payload;
};

// One game session: created by the first Request on a connection and ended with it.
class Session {
public:
    Session(std::shared_ptr<Listener::Connection> connection, Bridge* bridge);
    ~Session();

    // Stops the event pump and leaves the room, when the connection ends (also on Bridge stop).
    void shutdown();

    // Published under a short lock of its own after anything that may change it, so that no
    // reader waits on a command.
    SessionStatus status() const;

    // Command rows, each run by dispatch with session_lock held.
    CommandResult cmd_login(std::string_view body);
    CommandResult cmd_logout();
    CommandResult cmd_get_identity();
    CommandResult cmd_context_start(std::string_view body);
    CommandResult cmd_create_room(std::string_view body);
    CommandResult cmd_join_room(std::string_view body);
    CommandResult cmd_leave_room(std::string_view body);
    CommandResult cmd_resolve_peer(std::string_view body);
    CommandResult cmd_context_stop();
    CommandResult cmd_kick_member(std::string_view body);

    // Settles which upstream account stands behind npid: a stored token that stands, recovery,
    // or (with create_accounts) a new account. True when the client now holds credentials.
    bool ensure_account();
    // Says aloud, with the recovery code on the console, that a new account was not saved.
    void report_unsaved_account(const std::string& name, const std::string& code);

    // Leaves the current room, if any; the caller holds session_lock. A farewell leave still
    // goes out after the bridge cancelled its calls, with a short deadline of its own.
    void leave_room_locked(bool farewell = false);

    // Matching helpers; the caller holds session_lock.
    std::string call_online_id() const;  // the upstream name, or npid while that is empty
    OwnEndpoints own_endpoints_locked();
    std::optional<Endpoint> port_side_endpoint_locked();
    // The address the game is told for a member: a gateway link's, when a gateway runs.
    Endpoint member_endpoint_locked(const nlohmann::json& record);
    std::string room_summary_locked();
    void add_ourselves_locked();
    void remove_all_links();

    // The event pump: started by context start, stopped by stop_flag.
    void start_event_pump();
    void request_pump_stop();
    void translate_locked(const nlohmann::json& event);
    void send_room_event(RoomEventCode code, RoomEventReason reason, const nlohmann::json& record,
                         std::int64_t extra);

    std::atomic<bool> closing{false};  // the connection ends after the current reply
    // Shared with the read loop and anyone who writes notifications to it. The socket is closed
    // with its last owner, so a writer never meets a reused handle.
    const std::shared_ptr<Listener::Connection> connection;
    Bridge* const bridge;  // not owning: the Bridge outlives every session
    // This session's account with the service: its token, its upstream name, its poll session.
    UpstreamClient upstream;
    std::atomic<bool> logged_in{false};

    // The event pump thread; started and joined under thread_lock.
    std::mutex thread_lock;
    std::thread pump_thread;
    std::atomic<bool> pump_running{false};

    std::mutex pump_lock;
    std::condition_variable pump_wake;
    bool stop_flag = false;  // guarded by pump_lock

private:
    friend CommandResult dispatch(Session&, std::uint16_t, std::uint64_t, std::string_view);
    void publish_status_locked();

    // Held for the whole of each command and while the pump translates an event: only this
    // session's own threads ever take it, so a command that waits on the service holds up
    // nobody else.
    std::mutex session_lock;
    // Guarded by session_lock.
    std::string npid;
    std::string title;
    std::uint64_t context_id = 0;
    std::uint64_t account_id = 0;
    RoomState room;
    std::vector<nlohmann::json> pending_invites;

    mutable std::mutex status_lock;
    SessionStatus status_;  // guarded by status_lock

    void event_pump();
    // Waits up to seconds on pump_wake; true when stop_flag ended (or ends) the wait.
    bool pump_wait(double seconds);
};

// The text made printable and put between single quotes, as online ids appear in log lines
// and on the console.
std::string quote(const std::string& text);

// The body of each connection thread: Hello, then frames until the connection or the Bridge
// ends. The connection's slot learns when it waits on the game and whether a game is logged
// in; what a frame holds beyond a small allowance is paid for from the budget.
void session_loop(Bridge& bridge, const std::shared_ptr<Listener::Connection>& connection, ByteBudget& budget);

}  // namespace zq
