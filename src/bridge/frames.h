#pragma once
// The game's command protocol on the wire: frame headers, and the tag/value message encoding
// that every frame body uses. Pure functions only: bytes in, values or bytes out.
//
// CommandHeader, 15 bytes, little-endian, unaligned:
//   offset 0  u8   kind        0 Request, 1 Reply, 2 Notification, 3 Hello
//   offset 1  u16  command     request number; echoed in a Reply; 10 in a Notification; 0 in Hello
//   offset 3  u32  total size  the whole frame, header included
//   offset 7  u64  packet id   the game's own, copied unchanged into the Reply
// A frame read from the game must have 15 <= total size <= 0x800000.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zq {

enum class FrameKind : std::uint8_t { Request = 0, Reply = 1, Notification = 2, Hello = 3 };

inline constexpr std::size_t header_size = 15;
inline constexpr std::uint32_t max_frame_size = 0x800000;
// Command number of every notification frame.
inline constexpr std::uint16_t notification_command = 10;

struct CommandHeader {
    std::uint8_t kind = 0;
    std::uint16_t command = 0;
    std::uint32_t total_size = 0;
    std::uint64_t packet_id = 0;

    // Body bytes that follow the header; only meaningful once size_ok() holds.
    std::size_t body_size() const { return total_size - header_size; }
    bool size_ok() const { return total_size >= header_size && total_size <= max_frame_size; }
};

// Reads the 15 header bytes; the caller supplies exactly header_size bytes.
CommandHeader parse_header(const unsigned char* bytes);

// A whole frame: header (total size = body + 15) followed by the body. Frames this side writes
// are not bounded.
std::string build_frame(FrameKind kind, std::uint16_t command, std::uint64_t packet_id, std::string_view body);

// The 19-byte greeting sent once when a game connects: a Hello whose body is u32 1.
std::string hello_frame();

// --- FieldMessage: protocol buffers wire encoding without a schema ---

// One decoded field. value is 0 for wire type 2; bytes is empty unless wire type 2.
struct FieldRecord {
    std::uint32_t number = 0;
    std::uint32_t wire_type = 0;
    std::uint64_t value = 0;
    std::string bytes;
};
using FieldList = std::vector<FieldRecord>;

void put_varint(std::string& out, std::uint64_t value);

// Builds a message field by field; only varints and byte strings are ever written.
class FieldMessage {
public:
    FieldMessage& number(std::uint32_t field, std::uint64_t value);
    FieldMessage& string(std::uint32_t field, std::string_view bytes);
    // Signed values (member ids) are widened with their sign before encoding.
    FieldMessage& signed_number(std::uint32_t field, std::int32_t value) {
        return number(field, static_cast<std::uint64_t>(static_cast<std::int64_t>(value)));
    }
    // The reply convention: a zero number or an empty string is left out.
    FieldMessage& number_if_set(std::uint32_t field, std::uint64_t value) {
        return value ? number(field, value) : *this;
    }
    FieldMessage& string_if_set(std::uint32_t field, std::string_view bytes) {
        return bytes.empty() ? *this : string(field, bytes);
    }

    const std::string& bytes() const { return bytes_; }

private:
    std::string bytes_;
};

// Decodes fields in order into list. False at the first flaw (truncated field, varint longer
// than 10 bytes, wire type 3, 4, 6 or 7); the fields read before it stay in the list.
bool decode(std::string_view bytes, FieldList& list);

// The last wire-type-2 record with that number, or "".
std::string string_field(const FieldList& list, std::uint32_t number);
// The last record with that number that is not wire type 2, or the fallback.
std::uint64_t number_field(const FieldList& list, std::uint32_t number, std::uint64_t fallback);

// --- LengthPrefixedMessage: u32 little-endian byte count, then a FieldMessage ---

std::string wrap_message(std::string_view field_message);
// False for a body under 4 bytes. A count that promises more than the body holds is cut to
// what is there; bytes behind the message are ignored.
bool unwrap_message(std::string_view body, std::string& field_message);

// Unwraps and decodes in one step; the decode verdict is deliberately dropped, since commands
// act on the fields read up to any flaw. Empty when the body is too short to unwrap.
std::optional<FieldList> read_request(std::string_view body);

}  // namespace zq
