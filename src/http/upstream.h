#pragma once
// The JSON client of the remote matching service. Every /auth, /mp/matching2 and /np call of a
// game session goes through post_json or post_checked, which turn anything but a positive answer
// into one zq::BridgeError whose words callers match ("refused", "taken").

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "http/fetch.h"
#include "http/upstream_error.h"
#include "shell/util.h"

namespace zq {

struct UpstreamReply {
    std::int32_t status = 0;
    // Never null for a body that failed to parse: such a body is an empty object.
    nlohmann::json body = nlohmann::json::object();
};

// Lock order: a session's own locks come before credentials_lock, which is held only to copy or
// replace the two texts and never over the network.
class UpstreamClient {
public:
    explicit UpstreamClient(std::string base);
    UpstreamClient(const UpstreamClient&) = delete;
    UpstreamClient& operator=(const UpstreamClient&) = delete;

    void set_credentials(const std::string& new_token, const std::string& new_online_id);
    std::string current_token() const;
    std::string current_online_id() const;

    // How long a call may take: timeout_ms for each phase (connect, send, each wait for bytes),
    // and the whole call at most deadline_factor times that, so a server that trickles bytes
    // cannot hold a session for ever. A farewell call (leaving a room while the bridge stops)
    // ignores the cancel and has its own short deadline instead.
    static constexpr std::uint32_t deadline_factor = 2;
    static constexpr std::uint32_t farewell_deadline_ms = 1500;

    // One POST of the compact JSON body; throws only when the transport fails, or when the body
    // holds text that is not UTF-8 and so never leaves. With a session, the request goes out on it
    // instead of the process-wide one.
    UpstreamReply post_json(const std::string& path, const nlohmann::json& body, std::uint32_t timeout_ms,
                            http::RecycledSession* session = nullptr, bool farewell = false);
    // The body of a positive answer (2xx with ResKind 0), or a BridgeError that says why not.
    nlohmann::json post_checked(const std::string& path, const nlohmann::json& body, std::uint32_t timeout_ms,
                                bool farewell = false);

    // Account calls: both sign the client in and return the RecoveryCode of the answer.
    std::string create_account(const std::string& name);
    std::string recover_account(const std::string& name, const std::string& recovery_code);
    // Empty: not reached (or a status outside 200..499); false: the token was refused (401).
    std::optional<bool> check_token(const std::string& online_id);

    nlohmann::json context_start(const std::string& online_id, const Endpoint& signaling, const Endpoint& mapped);
    // extra's keys, when it is an object, are merged last and win over the fixed keys.
    nlohmann::json create_room(const std::string& online_id, const Endpoint& local, const Endpoint& mapped,
                               std::int64_t max_members, const nlohmann::json& extra);
    nlohmann::json join_room(const std::string& online_id, std::uint64_t room_id, const Endpoint& local,
                             const Endpoint& mapped);
    // A farewell leave is the one call that still goes out after cancel (see above).
    void leave_room(const std::string& session_id, std::int64_t member_id, bool farewell = false);
    void kick_member(const std::string& session_id, std::int64_t member_id, std::int64_t kicker_member_id);
    // InRoom of the answer (1 when absent), or -1 when the call failed.
    std::int32_t heartbeat(const std::string& session_id, std::int64_t member_id);
    // Logs a failure and returns.
    void signaling_update(const std::string& online_id, const Endpoint& mapped, const std::string& session_id,
                          std::int64_t member_id);
    // The peer's address when the service knows a usable one; empty when unknown or unreachable.
    std::optional<Endpoint> resolve_peer(const std::string& online_id);
    // The next cursor; event becomes the whole answer when it carries one, null otherwise.
    std::uint64_t poll_events(const std::string& online_id, std::uint64_t cursor, nlohmann::json& event);
    // Logs a failure and returns.
    void ack_events(const std::string& online_id, std::uint64_t cursor);

    // The User-Agent of every call; a Session replaces it with its configured agent.
    std::string client_mark = "sarnlink";
    const std::string ruleset = "vanilla";
    // Only the event poll uses it, so a stuck poll holds up no other call.
    http::RecycledSession poll_session;
    const std::string base_url;
    // Set by the owner that stops (the Bridge): every call in flight ends at once. May be null.
    std::shared_ptr<const http::CancelFlag> cancel;

    mutable std::mutex credentials_lock;
    std::string token;      // guarded by credentials_lock
    std::string online_id;  // guarded by credentials_lock
};

}  // namespace zq
