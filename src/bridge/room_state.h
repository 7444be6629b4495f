#pragma once
// A session's mirror of its matching room, and the messages in which the game learns of it.
// Pure: no socket, no lock, no log. Where a member's address for the game comes from (a gateway
// link or the member's own record) is the caller's choice, passed in as `reach`.
//
// MemberEntry (FieldMessage; zero and empty fields left out):
//   1 bytes OnlineId           2 varint MemberId
//   4 varint 1, owner only     8 varint 1, always        9 varint 0x80000000, owner only
//   10 bytes address the game reaches the member at      11 varint its port
//
// RoomSummary:  1 room block (always)   2 MemberEntry, repeated, ascending id
//               3 our member id         4 owner member id
// Room block:   1 maximum   3 free places   5 maximum again   6, 7, 8 always 1
//               9 room id   11 joined mask: bit m-1 for each member id m in 1..64
//
// RoomEvent notification body (a LengthPrefixedMessage):
//   1 context id   2 room id   3 event code   4 reason   5 extra (low 32 bits when negative)
//   6 bytes MemberEntry, only for a record with a MemberId

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "shell/util.h"

namespace zq {

struct RoomState {
    std::uint64_t room_id = 0;  // 0: in no room
    std::string session_id;     // the upstream's SessionId of this room
    std::int32_t member_id = 0;
    std::int32_t owner_member_id = 0;
    std::int32_t max_members = 5;
    // The server's own JSON record of each member, by member id.
    std::map<std::int32_t, nlohmann::json> members;

    void reset() { *this = RoomState(); }
};

// This side's addresses as told to the service: the LAN one, then the mapped (public) one.
struct OwnEndpoints {
    Endpoint lan;
    Endpoint mapped;
};

enum RoomEventCode : std::uint32_t {
    RoomMemberJoined = 4353,
    RoomMemberLeft = 4354,
    RoomWeWereKicked = 4355,
};

enum RoomEventReason : std::uint32_t {
    ReasonLeftOrClosed = 1,
    ReasonKicked = 2,
    ReasonJoined = 4,
    ReasonOther = 5,
};

// The MemberId of a record as the 32-bit id the room uses; 0 when absent.
std::int32_t record_member_id(const nlohmann::json& record);

// Stores each element of an array under its MemberId, replacing what was there; elements
// without one, and anything that is not an array, change nothing.
void upsert_members(RoomState& room, const nlohmann::json& list);

// Where a member is best reached: a mapped address that adds something, else Addr/Port,
// else the LAN pair.
Endpoint best_endpoint(const nlohmann::json& record);

std::string member_entry(const nlohmann::json& record, std::int32_t owner_member_id, const Endpoint& reach);

// Builds every entry in ascending id; reach is asked once per member, in that order.
std::string room_summary(const RoomState& room, const std::function<Endpoint(const nlohmann::json&)>& reach);

// The attributes a created room takes from a summon advertisement; null for anything but an object.
nlohmann::json room_attributes(const nlohmann::json& advertisement);

// The reason code of a room_member_left event's Reason text.
RoomEventReason leave_reason(const std::string& reason);

std::string room_event_message(std::uint64_t context_id, std::uint64_t room_id, RoomEventCode code,
                               RoomEventReason reason, std::int64_t extra, const std::optional<std::string>& entry);

}  // namespace zq
