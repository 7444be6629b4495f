#include "p2p/framing.h"

#include <chrono>
#include <cstring>

#include "shell/byte_order.h"

namespace zq::p2p {

namespace {

// Writes a little-endian integer into a fixed-size frame.
void put_le(std::string& frame, std::size_t at, std::uint64_t v, int size) {
    for (int i = 0; i < size; ++i) frame[at + static_cast<std::size_t>(i)] = static_cast<char>(v >> (8 * i));
}

void put_bytes(std::string& frame, std::size_t at, const std::array<char, 16>& name) {
    std::memcpy(frame.data() + at, name.data(), name.size());
}

std::string control_frame(std::size_t length, unsigned char kind, unsigned char step) {
    std::string frame(length, '\0');
    std::memcpy(frame.data(), kNimbMagic.data(), kNimbMagic.size());
    frame[4] = static_cast<char>(kind);
    if (length > 5 && kind != kEchoReply) frame[5] = static_cast<char>(step);
    return frame;
}

std::string clock_frame(const HelloRecord& r, unsigned char step, std::uint32_t echo, std::uint64_t time) {
    std::string f = control_frame(kClockLength, kClockExchange, step);
    put_bytes(f, 6, r.peer_name);
    put_bytes(f, 22, r.port_name);
    put_le(f, 38, r.hello_token, 4);
    put_le(f, 42, echo, 4);
    put_le(f, 54, time, 8);
    return f;
}

std::string identity_frame(const HelloRecord& r, unsigned char step) {
    std::string f = control_frame(kIdentityLength, kIdentityExchange, step);
    put_bytes(f, 6, r.peer_name);
    put_bytes(f, 22, r.port_name);
    put_le(f, 38, r.hello_token, 4);
    return f;
}

// The gateway speaks for the remote member: he is the sender, the local player the receiver.
std::string room_frame(const HelloRecord& r, unsigned char step, std::uint64_t time) {
    std::string f = control_frame(kRoomLength, kRoomExchange, step);
    put_le(f, 6, r.room_id, 8);
    put_le(f, 14, r.peer_member & 0xFFFF, 2);
    put_le(f, 16, r.port_member & 0xFFFF, 2);
    put_bytes(f, 18, r.peer_name);
    put_le(f, 42, time, 8);
    return f;
}

}  // namespace

std::array<char, 16> fixed16(std::string_view text) {
    std::array<char, 16> out{};
    std::memcpy(out.data(), text.data(), text.size() < 16 ? text.size() : 16);
    return out;
}

bool is_punch(std::string_view datagram) {
    return datagram.size() >= 5 && datagram.substr(0, 5) == kPunch.substr(0, 5);
}

int port_frame_to_peer_in_place(char* frame, std::size_t size, std::string_view& out) {
    if (size < 4) return 0;
    const std::string_view in(frame, size);
    const std::uint16_t source = be16(in, 0);
    const std::uint16_t destination = be16(in, 2);
    if (destination == kControlVirtualPort) {
        out = in.substr(4);
        return 2;
    }
    // The payload stays at offset 4; the peer header ends there.
    char* header;
    if (source < 256 && destination < 256) {
        header = frame;
        header[1] = static_cast<char>(kNarrowFlags);
        header[2] = static_cast<char>(source);
        header[3] = static_cast<char>(destination);
    } else {
        header = frame - kPeerHeaderGrowth;
        header[1] = static_cast<char>(kWideFlags);
        store_be16(header + 2, source);
        store_be16(header + 4, destination);
    }
    header[0] = static_cast<char>(kPeerFrameMarker);
    out = std::string_view(header, static_cast<std::size_t>(frame + size - header));
    return 1;
}

bool peer_frame_to_port_in_place(char* frame, std::size_t size, std::string_view& out) {
    const std::string_view in(frame, size);
    if (size < 4 || byte_at(in, 0) != kPeerFrameMarker) return false;
    const unsigned flags = byte_at(in, 1);
    const std::size_t at = 2 + ((flags & kFlagSkipFour) ? 4 : 0);
    const bool narrow = (flags & kFlagNarrowPorts) != 0;
    const std::size_t end = at + (narrow ? 2 : 4);
    if (size < end) return false;
    const std::uint16_t source = narrow ? byte_at(in, at) : be16(in, at);
    const std::uint16_t destination = narrow ? byte_at(in, at + 1) : be16(in, at + 2);
    // The port header ends where the peer header ended: the payload does not move.
    char* header = frame + end - 4;
    store_be16(header, source);
    store_be16(header + 2, destination);
    out = std::string_view(header, size - end + 4);
    return true;
}

int port_frame_to_peer(std::string_view frame, std::string& out) {
    std::string buffer(kPeerHeaderGrowth, '\0');
    buffer.append(frame);
    std::string_view converted;
    const int kind = port_frame_to_peer_in_place(buffer.data() + kPeerHeaderGrowth, frame.size(), converted);
    if (kind != 0) out.assign(converted);
    return kind;
}

bool peer_frame_to_port(std::string_view frame, std::string& out) {
    std::string buffer(frame);
    std::string_view converted;
    if (!peer_frame_to_port_in_place(buffer.data(), buffer.size(), converted)) return false;
    out.assign(converted);
    return true;
}

std::string wrap_for_port(std::string_view control_payload) {
    std::string out(kControlPrefix);
    out.append(control_payload);
    return out;
}

std::vector<std::string> answer_control(HelloRecord& record, std::string_view payload) {
    auto now = std::chrono::system_clock::now().time_since_epoch();
    auto us = std::chrono::duration_cast<std::chrono::microseconds>(now).count();
    return answer_control(record, payload, static_cast<std::uint64_t>(us));
}

std::vector<std::string> answer_control(HelloRecord& record, std::string_view payload, std::uint64_t now_us) {
    if (payload.size() < 5 || payload.substr(0, 4) != kNimbMagic) return {};
    unsigned kind = byte_at(payload, 4);
    std::size_t expected = 0;
    switch (kind) {
        case kEchoRequest: expected = kEchoLength; break;
        case kClockExchange: expected = kClockLength; break;
        case kIdentityExchange: expected = kIdentityLength; break;
        case kRoomExchange: expected = kRoomLength; break;
        default: return {};
    }
    if (payload.size() != expected) return {};
    record.port_answered = true;

    unsigned step = byte_at(payload, 5);
    switch (kind) {
        case kEchoRequest: {
            std::string reply = control_frame(kEchoLength, kEchoReply, 0);
            reply.replace(5, 12, payload.substr(5, 12));
            return {reply};
        }
        case kClockExchange: {
            auto echo = static_cast<std::uint32_t>(le_at(payload, 38, 4));
            if (step == 1) return {clock_frame(record, 2, echo, 0)};
            if (step == 2) return {clock_frame(record, 3, echo, now_us)};
            if (step == 3) return {clock_frame(record, 4, echo, le_at(payload, 54, 8))};
            return {};
        }
        case kIdentityExchange:
            if (step == 1) return {identity_frame(record, 2)};
            if (step == 4) {
                // The port repeats step 4 until it hears one; answering every repeat would loop.
                if (record.hello_finished) return {};
                record.hello_finished = true;
                return {identity_frame(record, 4)};
            }
            return {};
        default: {  // kRoomExchange
            // In a frame from the port the port is the sender: offset 14 is its member id,
            // offset 16 the peer's, the mirror of what we write.
            std::uint64_t room = le_at(payload, 6, 8);
            auto sender = static_cast<std::uint32_t>(le_at(payload, 14, 2));
            auto receiver = static_cast<std::uint32_t>(le_at(payload, 16, 2));
            if (room != 0) record.room_id = room;
            if (receiver != 0 && record.peer_member == 0) record.peer_member = receiver;
            if (sender != 0 && record.port_member == 0) record.port_member = sender;
            if (step == 1) return {room_frame(record, 2, 0)};
            if (step == 2) return {room_frame(record, 3, 0)};
            if (step == 3) return {room_frame(record, 4, le_at(payload, 42, 8))};
            return {};
        }
    }
}

std::string hello_frame(const HelloRecord& record) { return identity_frame(record, 1); }

std::string room_hello_frame(const HelloRecord& record) { return room_frame(record, 1, 0); }

}  // namespace zq::p2p
