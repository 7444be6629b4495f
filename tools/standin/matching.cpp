#include "standin/matching.h"

#include <algorithm>

namespace standin {

const char* const Matching::kPaths[] = {"/mp/matching2/context_start", "/mp/matching2/create_room",
                                         "/mp/matching2/join_room",     "/mp/matching2/leave_room",
                                         "/mp/matching2/kick_member",   "/mp/matching2/heartbeat",
                                         "/np/events/poll",             "/np/events/ack",
                                         "/mp/matching2/signaling_update", nullptr};

namespace {

Answer ok(nlohmann::json body = nlohmann::json::object()) {
    body["ResKind"] = 0;
    return Answer{200, std::move(body)};
}

}  // namespace

void Matching::set_reach(Reach r) {
    std::lock_guard<std::mutex> hold(lock);
    reach = std::move(r);
}

void Matching::set_pairing(Pairing p) {
    std::lock_guard<std::mutex> hold(lock);
    pairing = std::move(p);
}

std::pair<std::string, int> Matching::address_locked(const nlohmann::json& body, Way way) const {
    if (way == Way::Lan) return {body.value("LocalAddr", ""), body.value("LocalPort", 0)};
    std::pair<std::string, int> mapped{body.value("MappedAddr", ""), body.value("MappedPort", 0)};
    if (way == Way::Public || !reach) return mapped;
    auto other = reach(mapped.first, mapped.second);
    return other ? *other : mapped;
}

nlohmann::json Matching::member_record_locked(int member_id, const nlohmann::json& body, Way way) const {
    auto [addr, port] = address_locked(body, way);
    return {{"MemberId", member_id},
            {"OnlineId", body.value("OnlineId", "")},
            {"Addr", addr},
            {"Port", port},
            {"LocalAddr", body.value("LocalAddr", "")},
            {"LocalPort", body.value("LocalPort", 0)}};
}

void Matching::push_event(const std::string& online_id, const nlohmann::json& event) {
    std::lock_guard<std::mutex> hold(lock);
    event_queues[online_id].push_back(event);
}

std::uint64_t Matching::acked_cursor(const std::string& online_id) const {
    std::lock_guard<std::mutex> hold(lock);
    auto found = acked.find(online_id);
    return found == acked.end() ? 0 : found->second;
}

std::map<int, nlohmann::json> Matching::room_members(std::uint64_t room_id) const {
    std::lock_guard<std::mutex> hold(lock);
    auto found = rooms.find(room_id);
    return found == rooms.end() ? std::map<int, nlohmann::json>() : found->second.members;
}

std::vector<std::uint64_t> Matching::room_ids() const {
    std::lock_guard<std::mutex> hold(lock);
    std::vector<std::uint64_t> ids;
    for (const auto& [id, room] : rooms) ids.push_back(id);
    return ids;
}

bool Matching::close_room(std::uint64_t room_id, const std::string& reason) {
    std::lock_guard<std::mutex> hold(lock);
    auto found = rooms.find(room_id);
    if (found == rooms.end()) return false;
    tell_others_locked(found->second, 0, {{"Name", "room_closed"}, {"RoomId", room_id}, {"Reason", reason}});
    rooms.erase(found);
    return true;
}

std::optional<std::pair<std::string, int>> Matching::locate(const std::string& online_id) const {
    std::lock_guard<std::mutex> hold(lock);
    // What a player last said of himself is newer than what his room recorded at the join.
    auto told = signaled.find(online_id);
    if (told != signaled.end()) return told->second;
    for (const auto& [id, room] : rooms)
        for (const auto& [member_id, member] : room.members)
            if (member.value("OnlineId", "") == online_id)
                return std::make_pair(member.value("Addr", std::string()), member.value("Port", 0));
    return std::nullopt;
}

Matching::Room* Matching::room_of_session_locked(const std::string& session_id, std::uint64_t* room_id) {
    for (auto& [id, room] : rooms) {
        if (room.session_id == session_id) {
            *room_id = id;
            return &room;
        }
    }
    return nullptr;
}

void Matching::tell_others_locked(const Room& room, int except, const nlohmann::json& event) {
    for (const auto& [id, member] : room.members) {
        if (id != except) event_queues[member.value("OnlineId", "")].push_back(event);
    }
}

std::optional<Answer> Matching::serve(const Call& call) {
    const std::string& path = call.path;
    const nlohmann::json& body = call.body;
    auto members_of = [](const Room& room) {
        nlohmann::json list = nlohmann::json::array();
        for (const auto& [id, member] : room.members) list.push_back(member);
        return list;
    };
    std::lock_guard<std::mutex> hold(lock);

    if (path == "/mp/matching2/context_start") return ok();

    if (path == "/mp/matching2/signaling_update") {
        std::string online_id = body.value("OnlineId", "");
        std::uint64_t room_id = 0;
        Room* room = room_of_session_locked(body.value("SessionId", ""), &room_id);
        signaled[online_id] = address_locked(body, room ? room->way : first_way_locked());
        if (room) {
            auto member = room->members.find(body.value("MemberId", 0));
            if (member != room->members.end() && member->second.value("OnlineId", "") == online_id) {
                nlohmann::json& reported = room->reported[member->first];
                reported["MappedAddr"] = body.value("MappedAddr", "");
                reported["MappedPort"] = body.value("MappedPort", 0);
                member->second = member_record_locked(member->first, reported, room->way);
            }
        }
        return ok();
    }

    if (path == "/mp/matching2/create_room") {
        std::uint64_t room_id = next_room_id++;
        Room& room = rooms[room_id];
        room.session_id = "session-" + std::to_string(room_id);
        room.max_members = body.value("MaxMembers", 5);
        room.way = first_way_locked();
        int member_id = room.next_member++;
        room.members[member_id] = member_record_locked(member_id, body, room.way);
        room.reported[member_id] = body;
        return ok({{"RoomId", room_id},
                   {"SessionId", room.session_id},
                   {"MemberId", member_id},
                   {"OwnerMemberId", member_id},
                   {"MaxMembers", room.max_members},
                   {"Members", members_of(room)}});
    }

    if (path == "/mp/matching2/join_room") {
        std::uint64_t room_id = body.value("RoomId", std::uint64_t{0});
        auto found = rooms.find(room_id);
        if (found == rooms.end()) return refused("no such room", 2);
        Room& room = found->second;
        if (static_cast<int>(room.members.size()) >= room.max_members) return refused("full", 2);
        int member_id = room.next_member++;
        if (pairing) {
            Way way = room.way;
            for (const auto& [id, reported] : room.reported) way = std::max(way, pairing(reported, body));
            if (way != room.way)
                for (auto& [id, member] : room.members) member = member_record_locked(id, room.reported[id], way);
            room.way = way;
        }
        room.reported[member_id] = body;
        nlohmann::json record = member_record_locked(member_id, body, room.way);
        nlohmann::json joined = record;
        joined["Name"] = "room_member_joined";
        joined["RoomId"] = room_id;
        tell_others_locked(room, member_id, joined);
        room.members[member_id] = record;
        return ok({{"SessionId", room.session_id},
                   {"MemberId", member_id},
                   {"OwnerMemberId", room.members.begin()->first},
                   {"MaxMembers", room.max_members},
                   {"Members", members_of(room)}});
    }

    if (path == "/mp/matching2/leave_room" || path == "/mp/matching2/kick_member") {
        std::uint64_t room_id = 0;
        Room* room = room_of_session_locked(body.value("SessionId", ""), &room_id);
        if (!room) return refused("no such session", 2);
        int member_id = body.value("MemberId", 0);
        auto member = room->members.find(member_id);
        if (member == room->members.end()) return ok();
        bool kicked = path == "/mp/matching2/kick_member";
        std::string online_id = member->second.value("OnlineId", "");
        room->members.erase(member);
        room->reported.erase(member_id);
        if (kicked) event_queues[online_id].push_back({{"Name", "room_member_kicked"}, {"RoomId", room_id}});
        tell_others_locked(*room, member_id,
                           {{"Name", "room_member_left"},
                            {"RoomId", room_id},
                            {"MemberId", member_id},
                            {"OnlineId", online_id},
                            {"Reason", kicked ? "kicked" : "leave_room"}});
        // An empty room has nobody left to tell; it simply goes.
        if (room->members.empty()) rooms.erase(room_id);
        return ok();
    }

    if (path == "/mp/matching2/heartbeat") {
        std::uint64_t room_id = 0;
        Room* room = room_of_session_locked(body.value("SessionId", ""), &room_id);
        bool in_room = room && room->members.count(body.value("MemberId", 0));
        return ok({{"InRoom", in_room}});
    }

    std::string online_id = body.value("OnlineId", "");
    std::uint64_t cursor = body.value("Cursor", std::uint64_t{0});
    if (path == "/np/events/ack") {
        acked[online_id] = cursor;
        return ok();
    }
    if (path == "/np/events/poll") {
        // The event at the cursor, or none.
        const auto& queue = event_queues[online_id];
        if (cursor >= queue.size()) return ok({{"HasEvent", 0}, {"NextCursor", cursor}});
        nlohmann::json answer = queue[cursor];
        answer["ResKind"] = 0;
        answer["HasEvent"] = 1;
        answer["NextCursor"] = cursor + 1;
        return Answer{200, answer};
    }
    return std::nullopt;
}

}  // namespace standin
