#include "p2p/stun.h"

#include "p2p/port_mapping_codec.h"
#include "shell/byte_order.h"
#include "shell/platform.h"

namespace zq::p2p {

namespace {

std::string request_header(std::uint16_t length, const std::array<unsigned char, 12>& transaction_id) {
    return be16_bytes(kBindingRequest) + be16_bytes(length) + be32_bytes(kMagicCookie) +
           std::string(reinterpret_cast<const char*>(transaction_id.data()), transaction_id.size());
}

}  // namespace

std::optional<std::array<unsigned char, 12>> random_transaction_id() {
    // The id is all that ties an answer to our request, so it must not be guessable from
    // earlier ones: it comes from the system's cryptographic generator.
    std::array<unsigned char, 12> id{};
    if (!secure_random(id.data(), id.size())) return std::nullopt;
    return id;
}

std::string binding_request(const std::array<unsigned char, 12>& transaction_id, std::string_view token) {
    std::string out = request_header(16, transaction_id) + be16_bytes(kAttrRelayRequest) + be16_bytes(12);
    out.append(kRelayMagic);
    if (token.size() == kRelayTokenSize)
        out.append(token);
    else
        out.append(kRelayTokenSize, '\0');
    return out;
}

std::string plain_binding_request(const std::array<unsigned char, 12>& transaction_id) {
    return request_header(0, transaction_id);
}

std::optional<StunAnswer> parse_binding_answer(std::string_view d, std::string_view transaction) {
    if (d.size() < 20 || be16(d, 0) != kBindingSuccess || d.substr(4, 16) != transaction) return std::nullopt;
    std::size_t length = be16(d, 2);
    if (length + 20 > d.size()) return std::nullopt;

    struct Candidate {
        std::uint32_t address = 0;
        unsigned port = 0;
    };
    std::optional<Candidate> plain, xored, other;
    StunAnswer answer;
    std::uint32_t cookie = be32(d, 4);

    std::size_t at = 20, end = 20 + length;
    // The last attribute's padding may run past the stated length; stop there, not wrap round.
    while (at < end && end - at >= 4) {
        unsigned type = be16(d, at);
        std::size_t size = be16(d, at + 2);
        std::size_t value = at + 4;
        if (size > end - value) break;
        std::string_view v = d.substr(value, size);
        if (type == kAttrRelayGrant) {
            if (size >= 20 && v.substr(0, 4) == kRelayMagic) {
                answer.relay = true;
                answer.relay_token = std::string(v.substr(4, kRelayTokenSize));
                answer.relay_port = static_cast<int>(be16(v, 12));
            }
        } else if (size >= 8 && byte_at(v, 1) == 1) {
            Candidate c{be32(v, 4), be16(v, 2)};
            if (type == kAttrMappedAddress) {
                plain = c;
            } else if (type == kAttrXorMappedAddress || type == kAttrXorMappedAddressOld) {
                c.port ^= cookie >> 16;
                c.address ^= cookie;
                xored = c;
            } else if (type == kAttrOtherAddress && !other && c.address != 0 && c.port != 0) {
                other = c;
            }
        }
        at = value + ((size + 3) / 4) * 4;
    }

    // The private server's plain address wins over the XOR one, unlike common STUN clients.
    std::optional<Candidate> chosen = plain ? plain : xored;
    if (!chosen || chosen->address == 0 || chosen->port == 0) return std::nullopt;
    answer.mapped_host = ipv4_text(chosen->address);
    answer.mapped_port = static_cast<int>(chosen->port);
    if (other) {
        answer.other_host = ipv4_text(other->address);
        answer.other_port = static_cast<int>(other->port);
    }
    return answer;
}

std::string_view relay_frame_to_server_in_place(std::string_view token, int port, char* frame, std::size_t size) {
    char* header = frame - kRelayHeaderSize;
    header[0] = '\xFB';
    header[1] = 'R';
    for (std::size_t i = 0; i < kRelayTokenSize; ++i) header[2 + i] = i < token.size() ? token[i] : '\0';
    store_be16(header + 10, static_cast<unsigned>(port));
    return std::string_view(header, size + kRelayHeaderSize);
}

std::string relay_frame_to_server(std::string_view token, int port, std::string_view frame) {
    std::string out(kRelayHeaderSize, '\0');
    out.append(frame);
    relay_frame_to_server_in_place(token, port, out.data() + kRelayHeaderSize, frame.size());
    return out;
}

bool relay_frame_from_server(std::string_view datagram, int& port, std::string_view& payload) {
    if (datagram.size() < 4 || byte_at(datagram, 0) != 0xFB || datagram[1] != 'r') return false;
    port = static_cast<int>(be16(datagram, 2));
    payload = datagram.substr(4);
    return true;
}

}  // namespace zq::p2p
