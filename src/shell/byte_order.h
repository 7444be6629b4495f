#pragma once
// Integers in byte strings: big-endian as STUN, port frames, relay frames and the routers'
// port-mapping protocols carry them, little-endian as the command frames and the gateway's
// control payloads do. Readers do not check the length: their callers have.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace zq {

inline unsigned byte_at(std::string_view s, std::size_t at) { return static_cast<unsigned char>(s[at]); }

inline std::uint16_t be16(std::string_view s, std::size_t at) {
    return static_cast<std::uint16_t>(byte_at(s, at) << 8 | byte_at(s, at + 1));
}

inline std::uint32_t be32(std::string_view s, std::size_t at) {
    return static_cast<std::uint32_t>(be16(s, at)) << 16 | be16(s, at + 2);
}

// size bytes (at most 8) from at, lowest first.
inline std::uint64_t le_at(std::string_view s, std::size_t at, int size) {
    std::uint64_t v = 0;
    for (int i = size - 1; i >= 0; --i) v = v << 8 | byte_at(s, at + static_cast<std::size_t>(i));
    return v;
}

// The low 16 bits of v into at[0] and at[1].
inline void store_be16(char* at, unsigned v) {
    at[0] = static_cast<char>((v >> 8) & 0xFF);
    at[1] = static_cast<char>(v & 0xFF);
}

inline std::string be16_bytes(unsigned v) {
    std::string out(2, '\0');
    store_be16(out.data(), v);
    return out;
}

inline std::string be32_bytes(std::uint32_t v) { return be16_bytes(v >> 16) + be16_bytes(v & 0xFFFF); }

}  // namespace zq
