#pragma once

#include <cstdint>
#include <string>

namespace zq {

// The member id given to a peer that is reachable but not in the room: FNV-1a of the online id,
// modulo 30000, inverted as 32 bits, so it lies in -30000..-1 and never meets a real id.
std::int32_t synthetic_member_id(const std::string& online_id);

}  // namespace zq
