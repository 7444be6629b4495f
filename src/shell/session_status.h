#pragma once
// What others may read of a game session at any time. It lives down here because the bridge
// publishes it and the web shows it, and neither sees the other.

#include <cstdint>
#include <map>
#include <string>

namespace zq {

struct SessionStatus {
    std::string name;  // the upstream name, or npid while there is none
    bool logged_in = false;
    std::uint64_t room_id = 0;  // 0: in no room
    std::int32_t member_id = 0;
    std::int32_t owner_member_id = 0;
    std::int32_t max_members = 0;
    std::map<std::int32_t, std::string> members;  // member id -> online id
    std::string npid;  // the game's online id
    std::string room_session_id;
};

}  // namespace zq
