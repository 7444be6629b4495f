#pragma once
// The STUN exchange with the STUN and relay server, and the relay frames that carry peer
// traffic through that server. Pure functions apart from the transaction id's generator.

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace zq::p2p {

// Binding Request, 36 bytes, big-endian:
//   | 0  | 2  | 00 01 Binding Request         |
//   | 2  | 2  | 16, length after the header   |
//   | 4  | 4  | magic cookie 21 12 A4 42      |
//   | 8  | 12 | transaction id                |
//   | 20 | 2  | 81 00 relay request (private) |
//   | 22 | 2  | 12                            |
//   | 24 | 4  | "zqr1"                        |
//   | 28 | 8  | relay token held, or zeros    |
inline constexpr std::uint16_t kBindingRequest = 0x0001;
inline constexpr std::uint16_t kBindingSuccess = 0x0101;
inline constexpr std::uint32_t kMagicCookie = 0x2112A442;
inline constexpr std::uint16_t kAttrMappedAddress = 0x0001;
inline constexpr std::uint16_t kAttrXorMappedAddress = 0x0020;
inline constexpr std::uint16_t kAttrXorMappedAddressOld = 0x8020;
// The server's second address and port (RFC 5780), same layout as MAPPED-ADDRESS.
inline constexpr std::uint16_t kAttrOtherAddress = 0x802C;
inline constexpr std::uint16_t kAttrRelayRequest = 0x8100;
// Relay grant value, at least 20 bytes: | 0 | 4 | "zqr1" | 4 | 8 | token | 12 | 2 | our relay port |
inline constexpr std::uint16_t kAttrRelayGrant = 0x8101;
inline constexpr std::string_view kRelayMagic{"zqr1", 4};
inline constexpr std::size_t kRelayTokenSize = 8;

// Twelve bytes from the system's cryptographic generator; nothing if it failed.
std::optional<std::array<unsigned char, 12>> random_transaction_id();

// token: the 8-byte relay token, or empty for none (eight zero bytes go out).
std::string binding_request(const std::array<unsigned char, 12>& transaction_id, std::string_view token);
// The 20-byte header alone, with no attributes, so that any STUN server answers it.
std::string plain_binding_request(const std::array<unsigned char, 12>& transaction_id);

struct StunAnswer {
    std::string mapped_host;  // "%u.%u.%u.%u"
    int mapped_port = 0;
    bool relay = false;
    std::string relay_token;  // 8 bytes when relay
    int relay_port = 0;
    std::string other_host;   // the first OTHER-ADDRESS with neither address nor port 0; "" when none
    int other_port = 0;
};

// A Binding Success Response whose bytes 4..19 equal transaction (cookie and id). The plain
// MAPPED-ADDRESS is preferred over XOR-MAPPED-ADDRESS. Nothing when refused.
std::optional<StunAnswer> parse_binding_answer(std::string_view datagram, std::string_view transaction);

// Relay frames, between the gateway and the relay (ports are allocations on the relay):
//   to the relay:   FB 'R' token(8) destination port(2, BE) peer frame
//   from the relay: FB 'r' source port(2, BE) payload
std::string relay_frame_to_server(std::string_view token, int port, std::string_view frame);

// The same in place, for the data path: the header to the relay is written into the
// kRelayHeaderSize bytes before frame, which the caller must leave free. A frame from the relay
// gives its source port and its payload, a view into the datagram.
inline constexpr std::size_t kRelayHeaderSize = 12;
std::string_view relay_frame_to_server_in_place(std::string_view token, int port, char* frame, std::size_t size);
bool relay_frame_from_server(std::string_view datagram, int& port, std::string_view& payload);

}  // namespace zq::p2p
