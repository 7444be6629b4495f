#include "standin/ember_court.h"

#include "http/headers.h"
#include "shell/util.h"

namespace standin {

EmberCourt::EmberCourt() {
    accounts.set_locator([this](const std::string& online_id) { return matching.locate(online_id); });
}

Answer EmberCourt::serve(const Call& call) {
    if (auto answer = accounts.serve(call)) return *answer;
    if (auto answer = matching.serve(call)) return *answer;
    if (call.path.rfind("/summon_messenger/", 0) == 0) return summon(call);
    if (call.path.rfind("/standin/", 0) == 0) return development(call);
    return Answer{404, nlohmann::json::object()};
}

http::ServerResponse EmberCourt::handle(const http::ServerRequest& request) {
    Call call;
    call.path = request.path.substr(0, request.path.find('?'));
    call.token = http::find_header(request.headers, "X-ZQ-Token");
    nlohmann::json body = nlohmann::json::parse(request.body, nullptr, false);
    if (body.is_object()) call.body = std::move(body);
    Answer answer = serve(call);
    return http::json_response(answer.body, answer.status);
}

nlohmann::json EmberCourt::advertisements() const {
    std::lock_guard<std::mutex> hold(summons_lock);
    nlohmann::json list = nlohmann::json::array();
    for (const auto& [id, advert] : adverts) list.push_back(advert);
    return list;
}

Answer EmberCourt::summon(const Call& call) {
    std::string session = zq::json_text(call.body, "SessionId", "");
    if (call.path == "/summon_messenger/create") {
        if (session.empty()) return refused("no SessionId");
        std::lock_guard<std::mutex> hold(summons_lock);
        adverts[session] = call.body;
        return Answer{200, {{"ResKind", 0}, {"SessionId", session}}};
    }
    if (call.path == "/summon_messenger/remove") {
        std::lock_guard<std::mutex> hold(summons_lock);
        adverts.erase(session);
        return Answer{200, {{"ResKind", 0}}};
    }
    // Any other summon call (search, list) sees every advertisement.
    return Answer{200, {{"ResKind", 0}, {"Advertisements", advertisements()}}};
}

Answer EmberCourt::development(const Call& call) {
    if (call.path == "/standin/rooms") {
        nlohmann::json rooms = nlohmann::json::object();
        for (std::uint64_t id : matching.room_ids()) {
            nlohmann::json members = nlohmann::json::array();
            for (const auto& [member_id, member] : matching.room_members(id)) members.push_back(member);
            rooms[std::to_string(id)] = members;
        }
        return Answer{200, {{"ResKind", 0}, {"Rooms", rooms}}};
    }
    if (call.path == "/standin/close_room") {
        auto room_id = static_cast<std::uint64_t>(zq::json_int(call.body, "RoomId", 0));
        if (!matching.close_room(room_id, zq::json_text(call.body, "Reason", "closed by the stand-in")))
            return refused("no such room");
        return Answer{200, {{"ResKind", 0}}};
    }
    return Answer{404, nlohmann::json::object()};
}

}  // namespace standin
