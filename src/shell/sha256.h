#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace zq {

// One-shot SHA-256 by the platform's library; all zeros when the provider is unavailable.
std::array<std::uint8_t, 32> sha256(const std::string& data);

}  // namespace zq
