#pragma once
// The two small fixed-format protocols in which the gateway asks the home router to forward its
// public UDP port: NAT-PMP (version 0) and its successor PCP (version 2), both on UDP port 5351
// of the default gateway. Pure functions: values in, bytes out, and bytes in, a value out.

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace zq::p2p {

inline constexpr int kPortMappingServerPort = 5351;
inline constexpr unsigned char kNatPmpVersion = 0;
inline constexpr unsigned char kPcpVersion = 2;

// NAT-PMP, big-endian:
//   external address request, 2 bytes: | 0 | 1 | version 0 | 1 | 1 | opcode 0 |
//   UDP mapping request, 12 bytes:     | 0 | 1 | version 0 | 1 | 1 | opcode 1 | 2 | 2 | reserved |
//                                      | 4 | 2 | internal port | 6 | 2 | suggested external port | 8 | 4 | lifetime |
//   every answer begins:               | 0 | 1 | version 0 | 1 | 1 | 128 + opcode | 2 | 2 | result | 4 | 4 | epoch |
//   then, for opcode 0 (12 bytes):     | 8 | 4 | external IPv4 |
//   or, for opcode 1 (16 bytes):       | 8 | 2 | internal port | 10 | 2 | external port | 12 | 4 | lifetime |
// A lifetime of 0 deletes the mapping.
inline constexpr unsigned char kNatPmpOpAddress = 0;
inline constexpr unsigned char kNatPmpOpMapUdp = 1;

// PCP, big-endian, IPv4 addresses as IPv4-mapped IPv6 (::ffff:a.b.c.d):
//   request header, 24 bytes: | 0 | 1 | version 2 | 1 | 1 | opcode | 2 | 2 | reserved |
//                             | 4 | 4 | requested lifetime | 8 | 16 | client address |
//   answer header, 24 bytes:  | 0 | 1 | version 2 | 1 | 1 | 128 + opcode | 2 | 1 | reserved | 3 | 1 | result |
//                             | 4 | 4 | lifetime | 8 | 4 | epoch | 12 | 12 | reserved |
//   MAP body, 36 bytes:       | 24 | 12 | nonce | 36 | 1 | protocol (17, UDP) | 37 | 3 | reserved |
//                             | 40 | 2 | internal port | 42 | 2 | suggested / assigned external port |
//                             | 44 | 16 | suggested / assigned external address |
// ANNOUNCE (opcode 0) has no body; its answer carries the server's epoch.
inline constexpr unsigned char kPcpOpAnnounce = 0;
inline constexpr unsigned char kPcpOpMap = 1;
inline constexpr unsigned char kProtocolUdp = 17;
inline constexpr std::size_t kPcpHeaderSize = 24;
inline constexpr std::size_t kPcpMapSize = 60;
inline constexpr std::size_t kPcpNonceSize = 12;

// Result codes that both protocols share: 0 success, 1 unsupported version. A server that
// speaks only NAT-PMP answers a PCP request with its own version and result 1.
inline constexpr int kResultSuccess = 0;
inline constexpr int kResultUnsupportedVersion = 1;

using PcpNonce = std::array<unsigned char, kPcpNonceSize>;

std::string natpmp_address_request();
std::string natpmp_map_request(int internal_port, int suggested_external_port, std::uint32_t lifetime);
std::string pcp_announce_request(std::uint32_t client_ipv4);
std::string pcp_map_request(const PcpNonce& nonce, std::uint32_t client_ipv4, int internal_port,
                            int suggested_external_port, std::uint32_t lifetime);

// One answer of either protocol, told apart by its version byte.
struct MappingAnswer {
    int version = 0;             // kNatPmpVersion or kPcpVersion
    int opcode = 0;              // without the answer bit
    int result = 0;
    std::uint32_t epoch = 0;     // the server's seconds since it started
    std::uint32_t lifetime = 0;  // mapping answers: seconds granted
    int internal_port = 0;       // mapping answers
    int external_port = 0;       // mapping answers
    std::uint32_t external_ipv4 = 0;  // NAT-PMP address answers and PCP MAP answers; 0 when not IPv4
    PcpNonce nonce{};            // PCP MAP answers
};

// Nothing unless the datagram is a well-formed answer: NAT-PMP with at least 8 bytes (12 for an
// address, 16 for a mapping when the result is success), PCP with at least 24 bytes (60 for a
// MAP answer that succeeded). Bytes beyond what is read are ignored.
std::optional<MappingAnswer> parse_mapping_answer(std::string_view datagram);

// Whether a server's epoch, compared with the one it gave earlier (and the client's own clock
// between the two, in seconds), says that it restarted and lost its mappings: it went
// backwards, or it moved on clearly less than the client's clock did.
bool epoch_says_restart(std::uint32_t earlier_epoch, double earlier_time, std::uint32_t epoch, double time);

// What an external address is worth to peers on the internet.
enum class AddressKind { Public, Private, CarrierGrade, Unusable };
AddressKind classify_ipv4(std::uint32_t address);

std::string ipv4_text(std::uint32_t address);
// Dotted-quad text to a number; nothing for anything else.
std::optional<std::uint32_t> parse_ipv4(std::string_view text);

// Whether an http:// URL that a UPnP device named (its description or its control URL) points
// at host, with any port. A LAN host that answers discovery names whatever URLs it likes: only
// the home router's own are ever called.
bool url_is_on_host(std::string_view url, std::string_view host);

}  // namespace zq::p2p
