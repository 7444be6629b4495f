#include "bridge/frames.h"

#include <algorithm>

#include "shell/byte_order.h"

namespace zq {

namespace {

void put_le(std::string& out, std::uint64_t value, int count) {
    for (int i = 0; i < count; ++i) out.push_back(static_cast<char>((value >> (8 * i)) & 0xFF));
}

// Reads one varint at pos; at most 10 bytes, since a shift past 63 would lose bits.
bool read_varint(std::string_view bytes, std::size_t& pos, std::uint64_t& value) {
    value = 0;
    for (int shift = 0; shift <= 63; shift += 7) {
        if (pos >= bytes.size()) return false;
        auto b = static_cast<unsigned char>(bytes[pos++]);
        value |= static_cast<std::uint64_t>(b & 0x7F) << shift;
        if (!(b & 0x80)) return true;
    }
    return false;
}

}  // namespace

CommandHeader parse_header(const unsigned char* bytes) {
    CommandHeader h;
    const std::string_view header(reinterpret_cast<const char*>(bytes), header_size);
    h.kind = bytes[0];
    h.command = static_cast<std::uint16_t>(le_at(header, 1, 2));
    h.total_size = static_cast<std::uint32_t>(le_at(header, 3, 4));
    h.packet_id = le_at(header, 7, 8);
    return h;
}

std::string build_frame(FrameKind kind, std::uint16_t command, std::uint64_t packet_id, std::string_view body) {
    std::string out;
    out.reserve(header_size + body.size());
    out.push_back(static_cast<char>(kind));
    put_le(out, command, 2);
    put_le(out, static_cast<std::uint32_t>(body.size() + header_size), 4);
    put_le(out, packet_id, 8);
    out.append(body);
    return out;
}

std::string hello_frame() {
    std::string body;
    put_le(body, 1, 4);
    return build_frame(FrameKind::Hello, 0, 0, body);
}

void put_varint(std::string& out, std::uint64_t value) {
    while (value >= 0x80) {
        out.push_back(static_cast<char>((value & 0x7F) | 0x80));
        value >>= 7;
    }
    out.push_back(static_cast<char>(value));
}

FieldMessage& FieldMessage::number(std::uint32_t field, std::uint64_t value) {
    put_varint(bytes_, static_cast<std::uint64_t>(field) << 3);
    put_varint(bytes_, value);
    return *this;
}

FieldMessage& FieldMessage::string(std::uint32_t field, std::string_view bytes) {
    put_varint(bytes_, (static_cast<std::uint64_t>(field) << 3) | 2);
    put_varint(bytes_, bytes.size());
    bytes_.append(bytes);
    return *this;
}

bool decode(std::string_view bytes, FieldList& list) {
    std::size_t pos = 0;
    while (pos < bytes.size()) {
        std::uint64_t tag = 0;
        if (!read_varint(bytes, pos, tag)) return false;
        FieldRecord r;
        r.number = static_cast<std::uint32_t>(tag >> 3);
        r.wire_type = static_cast<std::uint32_t>(tag & 7);
        switch (r.wire_type) {
            case 0:
                if (!read_varint(bytes, pos, r.value)) return false;
                break;
            case 1:
            case 5: {
                std::size_t width = r.wire_type == 1 ? 8 : 4;
                if (bytes.size() - pos < width) return false;
                r.value = le_at(bytes, pos, static_cast<int>(width));
                pos += width;
                break;
            }
            case 2: {
                std::uint64_t length = 0;
                if (!read_varint(bytes, pos, length)) return false;
                if (length > bytes.size() - pos) return false;
                r.bytes.assign(bytes.substr(pos, static_cast<std::size_t>(length)));
                pos += static_cast<std::size_t>(length);
                break;
            }
            default:
                return false;
        }
        list.push_back(std::move(r));
    }
    return true;
}

std::string string_field(const FieldList& list, std::uint32_t number) {
    std::string out;
    for (const auto& r : list)
        if (r.number == number && r.wire_type == 2) out = r.bytes;
    return out;
}

std::uint64_t number_field(const FieldList& list, std::uint32_t number, std::uint64_t fallback) {
    std::uint64_t out = fallback;
    for (const auto& r : list)
        if (r.number == number && r.wire_type != 2) out = r.value;
    return out;
}

std::string wrap_message(std::string_view field_message) {
    std::string out;
    out.reserve(4 + field_message.size());
    put_le(out, static_cast<std::uint32_t>(field_message.size()), 4);
    out.append(field_message);
    return out;
}

bool unwrap_message(std::string_view body, std::string& field_message) {
    if (body.size() < 4) return false;
    auto count = le_at(body, 0, 4);
    std::size_t take = static_cast<std::size_t>(std::min<std::uint64_t>(count, body.size() - 4));
    field_message.assign(body.substr(4, take));
    return true;
}

std::optional<FieldList> read_request(std::string_view body) {
    std::string message;
    if (!unwrap_message(body, message)) return std::nullopt;
    FieldList list;
    decode(message, list);
    return list;
}

}  // namespace zq
