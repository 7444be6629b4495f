#pragma once
// The local UDP ping that the game sends to learn how it looks from outside. A private format,
// not standard STUN:
//   request  offset 0  u8        must be 1
//            offset 1  16 bytes  online id, up to the first zero byte or the field's end
//            offset 17 4+ bytes  present, not read
//   reply    offset 0  4 bytes   sender's IPv4 address, network order
//            offset 4  2 bytes   sender's UDP port, network order
// Anything shorter than 21 bytes or with another first byte is dropped without an answer.

#include <optional>
#include <string>
#include <string_view>

#include "shell/util.h"

namespace zq {

inline constexpr std::size_t stun_ping_min_size = 21;

// Anyone who can reach the socket can ping with a fresh id each time, so the table of ids is
// bounded: once full, ids already in it are still followed, and new ones are answered but not
// noted. A PC has a handful of accounts; this is far above them.
inline constexpr std::size_t stun_table_limit = 256;

// The online id of a valid ping (possibly empty), or nothing for a datagram to drop.
std::optional<std::string> parse_stun_ping(std::string_view datagram);

// The 6-byte answer that tells the sender its own address.
std::string stun_reply(const Endpoint& sender);

}  // namespace zq
