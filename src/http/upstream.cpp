#include "http/upstream.h"

#include <algorithm>
#include <utility>

#include "http/service_health.h"
#include "shell/log.h"

namespace zq {

namespace {

std::string without_trailing_slashes(std::string text) {
    while (!text.empty() && text.back() == '/') text.pop_back();
    return text;
}

// On the wire an endpoint is always two sibling keys, never an object.
void put_endpoint(nlohmann::json& body, const char* addr_key, const char* port_key, const Endpoint& endpoint) {
    body[addr_key] = endpoint.host;
    body[port_key] = endpoint.port;
}

}  // namespace

UpstreamClient::UpstreamClient(std::string base) : base_url(without_trailing_slashes(std::move(base))) {
    // The age at which the poll's pool of connections is dropped, not a network time-out.
    poll_session.max_age = 45.0;
}

void UpstreamClient::set_credentials(const std::string& new_token, const std::string& new_online_id) {
    std::lock_guard<std::mutex> hold(credentials_lock);
    token = new_token;
    online_id = new_online_id;
}

std::string UpstreamClient::current_token() const {
    std::lock_guard<std::mutex> hold(credentials_lock);
    return token;
}

std::string UpstreamClient::current_online_id() const {
    std::lock_guard<std::mutex> hold(credentials_lock);
    return online_id;
}

UpstreamReply UpstreamClient::post_json(const std::string& path, const nlohmann::json& body,
                                        std::uint32_t timeout_ms, http::RecycledSession* session, bool farewell) {
    http::ClientRequest request;
    request.method = "POST";
    request.url = base_url + path;
    // Text that is not valid UTF-8 (a game may send any bytes) is not repaired: the call fails
    // as any other call does, so a command answers its failure code instead of ending the process.
    try {
        request.body = body.dump(-1, ' ', false, nlohmann::json::error_handler_t::strict);
    } catch (const nlohmann::json::exception& e) {
        throw BridgeError(path + ": " + e.what());
    }
    if (farewell) {
        request.timeout_ms = std::min(timeout_ms, farewell_deadline_ms);
        request.deadline_ms = farewell_deadline_ms;
    } else {
        request.timeout_ms = timeout_ms;
        request.deadline_ms = timeout_ms * deadline_factor;
        request.cancel = cancel;
    }
    request.headers.emplace_back("Content-Type", "application/json");
    request.headers.emplace_back("Accept", "application/json");
    request.headers.emplace_back("User-Agent", client_mark);
    std::string token_copy = current_token();
    // A fresh client sends no token header at all, not an empty one.
    if (!token_copy.empty()) request.headers.emplace_back("X-ZQ-Token", token_copy);
    if (!ruleset.empty()) request.headers.emplace_back("X-Velmar-Ruleset", ruleset);

    const double began = steady_seconds();
    http::ClientResponse response = session ? http::fetch(*session, request) : http::fetch(request);
    const double ended = steady_seconds();
    note_service_call(ServiceCall{path, response.error.empty() ? static_cast<std::int32_t>(response.status) : 0,
                                  response.error, ended, ended - began});
    if (!response.error.empty()) throw BridgeError(path + ": " + response.error);

    UpstreamReply reply;
    reply.status = static_cast<std::int32_t>(response.status);
    reply.body = nlohmann::json::parse(response.body, nullptr, false);
    if (reply.body.is_discarded()) reply.body = nlohmann::json::object();
    return reply;
}

nlohmann::json UpstreamClient::post_checked(const std::string& path, const nlohmann::json& body,
                                            std::uint32_t timeout_ms, bool farewell) {
    UpstreamReply reply = post_json(path, body, timeout_ms, nullptr, farewell);
    if (reply.status >= 200 && reply.status <= 299) {
        // A success status alone is not trusted: only an answer with ResKind is the service's.
        if (reply.body.is_object() && reply.body.contains("ResKind")) {
            if (json_int(reply.body, "ResKind", -1) == 0) return reply.body;
            throw BridgeError(path + ": refused: " + json_text(reply.body, "Message", "unknown"));
        }
        throw BridgeError(format_text("%s: no account/matching service (HTTP %d)", path.c_str(), reply.status));
    }
    throw BridgeError(format_text("%s: HTTP %d %s", path.c_str(), reply.status,
                                  json_text(reply.body, "Message", "").c_str()));
}

std::string UpstreamClient::create_account(const std::string& name) {
    nlohmann::json body = {{"Name", name}, {"DeviceName", "sarnlink"}};
    nlohmann::json answer = post_checked("/auth/account/create", body, 8000);
    set_credentials(json_text(answer, "Token", ""), json_text(answer, "OnlineId", name));
    return json_text(answer, "RecoveryCode", "");
}

std::string UpstreamClient::recover_account(const std::string& name, const std::string& recovery_code) {
    nlohmann::json body = {{"Name", name}, {"RecoveryCode", recovery_code}};
    nlohmann::json answer = post_checked("/auth/recover", body, 8000);
    set_credentials(json_text(answer, "Token", ""), json_text(answer, "OnlineId", name));
    return json_text(answer, "RecoveryCode", "");
}

std::optional<bool> UpstreamClient::check_token(const std::string& online_id) {
    // Resolving our own id: the only question is whether the token passes.
    try {
        UpstreamReply reply = post_json("/np/signaling/resolve", {{"OnlineId", online_id}}, 6000);
        if (reply.status == 401) return false;
        // 403 or 404 count as a token that stands: only 401 speaks about the token.
        if (reply.status >= 200 && reply.status <= 499) return true;
        return std::nullopt;
    } catch (const BridgeError&) {
        return std::nullopt;
    }
}

nlohmann::json UpstreamClient::context_start(const std::string& online_id, const Endpoint& signaling,
                                             const Endpoint& mapped) {
    nlohmann::json body = {{"OnlineId", online_id}};
    put_endpoint(body, "SignalingAddr", "SignalingPort", signaling);
    put_endpoint(body, "MappedAddr", "MappedPort", mapped);
    return post_checked("/mp/matching2/context_start", body, 8000);
}

nlohmann::json UpstreamClient::create_room(const std::string& online_id, const Endpoint& local,
                                           const Endpoint& mapped, std::int64_t max_members,
                                           const nlohmann::json& extra) {
    nlohmann::json body = {{"OnlineId", online_id}};
    put_endpoint(body, "LocalAddr", "LocalPort", local);
    // The service takes the local endpoint under both names; the STUN-mapped one is Mapped...
    put_endpoint(body, "PublicAddr", "PublicPort", local);
    put_endpoint(body, "MappedAddr", "MappedPort", mapped);
    body["MaxMembers"] = max_members;
    if (extra.is_object()) {
        for (const auto& [key, value] : extra.items()) body[key] = value;
    }
    return post_checked("/mp/matching2/create_room", body, 8000);
}

nlohmann::json UpstreamClient::join_room(const std::string& online_id, std::uint64_t room_id, const Endpoint& local,
                                         const Endpoint& mapped) {
    nlohmann::json body = {{"OnlineId", online_id}, {"RoomId", room_id}};
    put_endpoint(body, "LocalAddr", "LocalPort", local);
    put_endpoint(body, "PublicAddr", "PublicPort", local);
    put_endpoint(body, "MappedAddr", "MappedPort", mapped);
    return post_checked("/mp/matching2/join_room", body, 8000);
}

void UpstreamClient::leave_room(const std::string& session_id, std::int64_t member_id, bool farewell) {
    post_checked("/mp/matching2/leave_room", {{"SessionId", session_id}, {"MemberId", member_id}}, 8000, farewell);
}

void UpstreamClient::kick_member(const std::string& session_id, std::int64_t member_id,
                                 std::int64_t kicker_member_id) {
    nlohmann::json body = {{"SessionId", session_id},
                           {"MemberId", member_id},
                           {"KickerMemberId", kicker_member_id},
                           {"OptData", ""}};
    post_checked("/mp/matching2/kick_member", body, 8000);
}

std::int32_t UpstreamClient::heartbeat(const std::string& session_id, std::int64_t member_id) {
    try {
        nlohmann::json answer =
            post_checked("/mp/matching2/heartbeat", {{"SessionId", session_id}, {"MemberId", member_id}}, 4000);
        // An answer without InRoom means still in the room.
        return static_cast<std::int32_t>(json_int(answer, "InRoom", 1));
    } catch (const BridgeError&) {
        // Unknown, which the pump treats as still in: an unreachable server never evicts anyone.
        return -1;
    }
}

void UpstreamClient::signaling_update(const std::string& online_id, const Endpoint& mapped,
                                      const std::string& session_id, std::int64_t member_id) {
    nlohmann::json body = {{"OnlineId", online_id}};
    put_endpoint(body, "MappedAddr", "MappedPort", mapped);
    body["SessionId"] = session_id;
    body["MemberId"] = member_id;
    try {
        post_checked("/mp/matching2/signaling_update", body, 8000);
    } catch (const BridgeError& e) {
        log_line(std::string("signaling_update failed: ") + e.what());
    }
}

std::optional<Endpoint> UpstreamClient::resolve_peer(const std::string& online_id) {
    try {
        nlohmann::json answer = post_checked("/np/signaling/resolve", {{"OnlineId", online_id}}, 8000);
        std::string addr = json_text(answer, "Addr", "");
        std::int64_t port = json_int(answer, "Port", 0);
        if (addr.empty() || port < 1 || port > 65535) return std::nullopt;
        return Endpoint{addr, static_cast<std::int32_t>(port)};
    } catch (const BridgeError&) {
        return std::nullopt;
    }
}

std::uint64_t UpstreamClient::poll_events(const std::string& online_id, std::uint64_t cursor,
                                          nlohmann::json& event) {
    nlohmann::json body = {
        {"OnlineId", online_id}, {"Cursor", cursor}, {"Categories", nlohmann::json::array({"matching2"})}};
    UpstreamReply reply = post_json("/np/events/poll", body, 5000, &poll_session);
    if (reply.status == 401) throw BridgeError("server refused our token (HTTP 401)");
    if (reply.status < 200 || reply.status > 299) {
        throw BridgeError(format_text("/np/events/poll: HTTP %d", reply.status));
    }
    // The event's own keys stand at the top level of the answer, beside HasEvent and NextCursor.
    if (json_int(reply.body, "HasEvent", 0) != 0) {
        event = reply.body;
    } else {
        event = nullptr;
    }
    return static_cast<std::uint64_t>(json_int(reply.body, "NextCursor", static_cast<std::int64_t>(cursor)));
}

void UpstreamClient::ack_events(const std::string& online_id, std::uint64_t cursor) {
    try {
        post_json("/np/events/ack", {{"OnlineId", online_id}, {"Cursor", cursor}}, 4000);
    } catch (const BridgeError& e) {
        log_line(std::string("event ack failed: ") + e.what());
    }
}

}  // namespace zq
