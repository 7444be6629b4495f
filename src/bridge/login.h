#pragma once
// Which upstream account stands behind a game's online id, and the id the game sees for it.

#include <cstdint>
#include <string>

namespace zq {

// SHA-256 of "sarnlink:" + name; digest bytes 2..7 big-endian, plus bit 52. The same name gives
// the same id on every PC, which keeps the game's view of a player stable across machines.
std::uint64_t stable_account_id(const std::string& name);

}  // namespace zq
