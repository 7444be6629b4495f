#include "p2p/framing.h"

#include <chrono>
#include <cstring>

namespace zq::p2p {

namespace {

unsigned byte_at(std::string_view s, std::size_t i) { return static_cast<unsigned char>(s[i]); }

std::uint16_t be16(std::string_view s, std::size_t at) {
    return static_cast<std::uint16_t>(byte_at(s, at) << 8 | byte_at(s, at + 1));
}

void put_be16(std::string& out, std::uint16_t v) {
    out.push_back(static_cast<char>(v >> 8));
    out.push_back(static_cast<char>(v & 0xFF));
}

std::uint64_t le_at(std::string_view s, std::size_t at, int size) {
    std::uint64_t v = 0;
    for (int i = size - 1; i >= 0; --i) v = v << 8 | byte_at(s, at + static_cast<std::size_t>(i));
    return v;
}

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

int port_frame_to_peer(std::string_view frame, std::string& out) {
    if (frame.size() < 4) return 0;
    std::uint16_t source = be16(frame, 0);
    std::uint16_t destination = be16(frame, 2);
    std::string_view payload = frame.substr(4);
    if (destination == kControlVirtualPort) {
        out.assign(payload);
        return 2;
    }
    out.clear();
    out.push_back(static_cast<char>(kPeerFrameMarker));
    if (source < 256 && destination < 256) {
        out.push_back(static_cast<char>(kNarrowFlags));
        out.push_back(static_cast<char>(source));
        out.push_back(static_cast<char>(destination));
    } else {
        out.push_back(static_cast<char>(kWideFlags));
        put_be16(out, source);
        put_be16(out, destination);
    }
    out.append(payload);
    return 1;
}

bool peer_frame_to_port(std::string_view frame, std::string& out) {
    if (frame.size() < 4 || byte_at(frame, 0) != kPeerFrameMarker) return false;
    unsigned flags = byte_at(frame, 1);
    std::size_t at = 2 + ((flags & kFlagSkipFour) ? 4 : 0);
    bool narrow = (flags & kFlagNarrowPorts) != 0;
    std::size_t ports = narrow ? 2 : 4;
    if (frame.size() < at + ports) return false;
    std::uint16_t source = narrow ? byte_at(frame, at) : be16(frame, at);
    std::uint16_t destination = narrow ? byte_at(frame, at + 1) : be16(frame, at + 2);
    out.clear();
    put_be16(out, source);
    put_be16(out, destination);
    out.append(frame.substr(at + ports));
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
