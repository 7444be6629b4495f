#include "bridge/room_state.h"

#include "bridge/frames.h"

namespace zq {

namespace {

std::uint64_t widened(std::int64_t value) { return static_cast<std::uint64_t>(value); }

}  // namespace

std::int32_t record_member_id(const nlohmann::json& record) {
    return static_cast<std::int32_t>(json_int(record, "MemberId", 0));
}

void upsert_members(RoomState& room, const nlohmann::json& list) {
    if (!list.is_array()) return;
    for (const auto& element : list) {
        std::int32_t id = record_member_id(element);
        if (id != 0) room.members[id] = element;
    }
}

Endpoint best_endpoint(const nlohmann::json& record) {
    std::string mapped_addr = json_text(record, "MappedAddr", "");
    std::int64_t mapped_port = json_int(record, "MappedPort", 0);
    std::string addr = json_text(record, "Addr", "");
    std::int64_t port = json_int(record, "Port", 0);
    std::string local_addr = json_text(record, "LocalAddr", "");
    // A mapped address equal to one of the others adds nothing.
    if (!mapped_addr.empty() && mapped_port >= 1 && mapped_port <= 65535 && mapped_addr != local_addr &&
        mapped_addr != addr)
        return Endpoint{mapped_addr, static_cast<std::int32_t>(mapped_port)};
    if (!addr.empty() && port != 0) return Endpoint{addr, static_cast<std::int32_t>(port)};
    return Endpoint{local_addr, static_cast<std::int32_t>(json_int(record, "LocalPort", 0))};
}

std::string member_entry(const nlohmann::json& record, std::int32_t owner_member_id, const Endpoint& reach) {
    std::int32_t id = record_member_id(record);
    bool owner = id == owner_member_id;
    FieldMessage m;
    m.string_if_set(1, json_text(record, "OnlineId", ""));
    m.number_if_set(2, widened(id));
    if (owner) m.number(4, 1);
    m.number(8, 1);
    if (owner) m.number(9, 0x80000000u);
    m.string_if_set(10, reach.host);
    m.number_if_set(11, widened(reach.port));
    return m.bytes();
}

std::string room_summary(const RoomState& room, const std::function<Endpoint(const nlohmann::json&)>& reach) {
    std::vector<std::string> entries;
    std::uint64_t mask = 0;
    for (const auto& [id, record] : room.members) {
        entries.push_back(member_entry(record, room.owner_member_id, reach(record)));
        if (id >= 1 && id <= 64) mask |= std::uint64_t{1} << (id - 1);
    }
    std::int64_t free_places = static_cast<std::int64_t>(room.max_members) - static_cast<std::int64_t>(entries.size());
    if (free_places < 0) free_places = 0;

    FieldMessage block;
    block.number_if_set(1, widened(room.max_members));
    block.number_if_set(3, widened(free_places));
    block.number_if_set(5, widened(room.max_members));
    block.number(6, 1).number(7, 1).number(8, 1);
    block.number_if_set(9, room.room_id);
    block.number_if_set(11, mask);

    FieldMessage summary;
    summary.string(1, block.bytes());
    for (const auto& entry : entries) summary.string(2, entry);
    summary.number_if_set(3, widened(room.member_id));
    summary.number_if_set(4, widened(room.owner_member_id));
    return summary.bytes();
}

nlohmann::json room_attributes(const nlohmann::json& advertisement) {
    if (!advertisement.is_object()) return nullptr;
    nlohmann::json attributes = nlohmann::json::object();
    if (advertisement.contains("AreaId")) attributes["HostArea"] = json_int(advertisement, "AreaId", 0);
    if (advertisement.contains("MatchingLevel"))
        attributes["HostLevel"] = json_int(advertisement, "MatchingLevel", 0);
    attributes["HostPos"] = nlohmann::json::array({0.0, 0.0, 0.0});
    attributes["MemberTag"] = 1;
    return attributes;
}

RoomEventReason leave_reason(const std::string& reason) {
    if (reason.empty() || reason == "leave_room") return ReasonLeftOrClosed;
    if (reason == "kicked") return ReasonKicked;
    return ReasonOther;
}

std::string room_event_message(std::uint64_t context_id, std::uint64_t room_id, RoomEventCode code,
                               RoomEventReason reason, std::int64_t extra, const std::optional<std::string>& entry) {
    FieldMessage m;
    m.number_if_set(1, context_id);
    m.number_if_set(2, room_id);
    m.number_if_set(3, code);
    m.number_if_set(4, reason);
    // The game reads a 32-bit value here: -1 goes out as 0xFFFFFFFF, not as a 10-byte varint.
    m.number_if_set(5, extra < 0 ? static_cast<std::uint32_t>(extra) : static_cast<std::uint64_t>(extra));
    if (entry) m.string(6, *entry);
    return wrap_message(m.bytes());
}

}  // namespace zq
