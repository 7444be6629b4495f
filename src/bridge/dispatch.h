#pragma once
// The table of everything the game may ask on the command connection.

#include <cstdint>
#include <string_view>

#include "bridge/session.h"

namespace zq {

// Runs one Request on the session, holding its session_lock for the whole command.
CommandResult dispatch(Session& session, std::uint16_t command, std::uint64_t packet_id, std::string_view body);

}  // namespace zq
