#pragma once
// The byte formats that meet in the gateway: port frames (the game port <-> a link's loopback
// socket), peer frames (gateway <-> gateway over the internet), punch datagrams, and the small
// NIMB control protocol that each gateway answers for the remote peer towards its own port.
// Pure functions: bytes in, bytes out; only answer_control touches the link's record.

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zq::p2p {

// What the control protocol needs to know of one link. Names are fixed16 of the online ids.
struct HelloRecord {
    std::array<char, 16> peer_name{};
    std::array<char, 16> port_name{};
    std::uint32_t peer_member = 0;  // the remote member; negative (provisional) ids as 0
    std::uint32_t port_member = 0;  // the local player
    std::uint64_t room_id = 0;
    std::uint32_t hello_token = 0;  // peer_member + 0x4242, fixed at creation
    bool hello_finished = false;    // kind 16 step 4 has been answered once
    bool port_answered = false;     // the port sent a well-formed control frame; hellos stop
};

// The first 16 bytes of a text, or the text padded with zero bytes to 16.
std::array<char, 16> fixed16(std::string_view text);

// Port frame, between the port and a link's loopback socket (big-endian ports):
//   | 0 | 2    | source virtual port      |
//   | 2 | 2    | destination virtual port |  65535 marks a control frame
//   | 4 | rest | payload                  |
inline constexpr std::uint16_t kControlVirtualPort = 0xFFFF;

// Peer data frame, the port frame in its wire form:
//   narrow (both ports < 256): FF C3 src dst payload
//   wide   (either >= 256)   : FF 83 srcH srcL dstH dstL payload
// Byte 1 is a flag byte; a receiver reads bit 40 (one-byte ports) and bit 20 (four bytes between
// the flag byte and the ports, skipped unread). Other bits are ignored.
inline constexpr unsigned char kPeerFrameMarker = 0xFF;
inline constexpr unsigned char kNarrowFlags = 0xC3;
inline constexpr unsigned char kWideFlags = 0x83;
inline constexpr unsigned char kFlagNarrowPorts = 0x40;
inline constexpr unsigned char kFlagSkipFour = 0x20;

// Punch datagram: FE "zqhp" 00 00 00, 8 bytes; recognised by its first 5 bytes alone.
inline constexpr std::string_view kPunch{"\xFEzqhp\0\0\0", 8};
bool is_punch(std::string_view datagram);

// Control frames from the gateway to the port begin with FF FF FF FF.
inline constexpr std::string_view kControlPrefix{"\xFF\xFF\xFF\xFF", 4};

// NIMB control payloads: "NIMB", kind byte at offset 4, little-endian integers.
//   kind 5/6  echo request/reply, 17 bytes: | 5 | 12 | token |
//   kind 7    clock exchange, 62 bytes:
//     | 5 | 1 | step 1-4 | 6 | 16 | peer_name | 22 | 16 | port_name |
//     | 38 | 4 | sender's token | 42 | 4 | echoed token | 46 | 8 | zero | 54 | 8 | time |
//   kind 16   identity exchange, 50 bytes:
//     | 5 | 1 | step 1, 2 or 4 | 6 | 16 | peer_name | 22 | 16 | port_name |
//     | 38 | 4 | hello_token | 42 | 8 | zero |
//   kind 33   room exchange, 50 bytes:
//     | 5 | 1 | step 1-4 | 6 | 8 | room_id | 14 | 2 | sender's member | 16 | 2 | receiver's member |
//     | 18 | 16 | peer_name | 34 | 8 | zero | 42 | 8 | time |
inline constexpr std::string_view kNimbMagic{"NIMB", 4};
inline constexpr unsigned char kEchoRequest = 5;
inline constexpr unsigned char kEchoReply = 6;
inline constexpr unsigned char kClockExchange = 7;
inline constexpr unsigned char kIdentityExchange = 16;
inline constexpr unsigned char kRoomExchange = 33;
inline constexpr std::size_t kEchoLength = 17;
inline constexpr std::size_t kClockLength = 62;
inline constexpr std::size_t kIdentityLength = 50;
inline constexpr std::size_t kRoomLength = 50;

// 0: shorter than 4 bytes, out untouched. 2: control frame, out = payload. 1: data, out = peer frame.
int port_frame_to_peer(std::string_view frame, std::string& out);

// False unless at least 4 bytes, byte 0 is FF and the ports fit; else out = port frame.
bool peer_frame_to_port(std::string_view frame, std::string& out);

// The same two conversions in place, for the data path: the payload stays where it was received
// and only the header is rewritten, so no datagram is copied. out is a view into the same buffer.
// A wide peer header is two bytes longer than the port header: port_frame_to_peer_in_place needs
// kPeerHeaderGrowth writable bytes before the frame. A port header is never longer than a peer
// header, so the way back needs none.
inline constexpr std::size_t kPeerHeaderGrowth = 2;
int port_frame_to_peer_in_place(char* frame, std::size_t size, std::string_view& out);
bool peer_frame_to_port_in_place(char* frame, std::size_t size, std::string_view& out);

std::string wrap_for_port(std::string_view control_payload);

// Zero or one control payloads to send back; learns kind 33 fields into the record.
// now_us is the wall clock in microseconds since 1970, used only by kind 7 step 2.
std::vector<std::string> answer_control(HelloRecord& record, std::string_view payload, std::uint64_t now_us);
std::vector<std::string> answer_control(HelloRecord& record, std::string_view payload);

// Kind 16 step 1 and kind 33 step 1, as the timer says hello to the port.
std::string hello_frame(const HelloRecord& record);
std::string room_hello_frame(const HelloRecord& record);

}  // namespace zq::p2p
