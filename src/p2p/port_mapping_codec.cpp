#include "p2p/port_mapping_codec.h"

#include <cstdio>

#include "shell/byte_order.h"

namespace zq::p2p {

namespace {

// ::ffff:a.b.c.d
void put_mapped_ipv4(std::string& out, std::uint32_t address) {
    out.append(10, '\0');
    out.append(2, '\xFF');
    out += be32_bytes(address);
}

// The IPv4 address inside an IPv4-mapped IPv6 address, or 0.
std::uint32_t mapped_ipv4(std::string_view s, std::size_t at) {
    for (std::size_t i = 0; i < 10; ++i)
        if (s[at + i] != '\0') return 0;
    if (byte_at(s, at + 10) != 0xFF || byte_at(s, at + 11) != 0xFF) return 0;
    return be32(s, at + 12);
}

std::string pcp_header(unsigned char opcode, std::uint32_t lifetime, std::uint32_t client_ipv4) {
    std::string out;
    out.push_back(static_cast<char>(kPcpVersion));
    out.push_back(static_cast<char>(opcode));
    out += be16_bytes(0);
    out += be32_bytes(lifetime);
    put_mapped_ipv4(out, client_ipv4);
    return out;
}

}  // namespace

std::string natpmp_address_request() { return std::string{static_cast<char>(kNatPmpVersion), kNatPmpOpAddress}; }

std::string natpmp_map_request(int internal_port, int suggested_external_port, std::uint32_t lifetime) {
    std::string out{static_cast<char>(kNatPmpVersion), kNatPmpOpMapUdp};
    out += be16_bytes(0);
    out += be16_bytes(static_cast<unsigned>(internal_port));
    out += be16_bytes(static_cast<unsigned>(suggested_external_port));
    out += be32_bytes(lifetime);
    return out;
}

std::string pcp_announce_request(std::uint32_t client_ipv4) { return pcp_header(kPcpOpAnnounce, 0, client_ipv4); }

std::string pcp_map_request(const PcpNonce& nonce, std::uint32_t client_ipv4, int internal_port,
                            int suggested_external_port, std::uint32_t lifetime) {
    std::string out = pcp_header(kPcpOpMap, lifetime, client_ipv4);
    out.append(reinterpret_cast<const char*>(nonce.data()), nonce.size());
    out.push_back(static_cast<char>(kProtocolUdp));
    out.append(3, '\0');
    out += be16_bytes(static_cast<unsigned>(internal_port));
    out += be16_bytes(static_cast<unsigned>(suggested_external_port));
    // No preference for the external address: the IPv4-mapped form of 0.0.0.0.
    put_mapped_ipv4(out, 0);
    return out;
}

std::optional<MappingAnswer> parse_mapping_answer(std::string_view d) {
    if (d.size() < 2 || !(byte_at(d, 1) & 0x80)) return std::nullopt;
    MappingAnswer a;
    a.version = static_cast<int>(byte_at(d, 0));
    a.opcode = static_cast<int>(byte_at(d, 1) & 0x7F);
    if (a.version == kNatPmpVersion) {
        if (d.size() < 8) return std::nullopt;
        a.result = static_cast<int>(be16(d, 2));
        a.epoch = be32(d, 4);
        if (a.result != kResultSuccess) return a;
        if (a.opcode == kNatPmpOpAddress) {
            if (d.size() < 12) return std::nullopt;
            a.external_ipv4 = be32(d, 8);
        } else if (a.opcode == kNatPmpOpMapUdp) {
            if (d.size() < 16) return std::nullopt;
            a.internal_port = static_cast<int>(be16(d, 8));
            a.external_port = static_cast<int>(be16(d, 10));
            a.lifetime = be32(d, 12);
        }
        return a;
    }
    if (a.version == kPcpVersion) {
        if (d.size() < kPcpHeaderSize) return std::nullopt;
        a.result = static_cast<int>(byte_at(d, 3));
        a.lifetime = be32(d, 4);
        a.epoch = be32(d, 8);
        if (a.opcode != kPcpOpMap) return a;
        if (d.size() < kPcpMapSize) {
            if (a.result == kResultSuccess) return std::nullopt;
            return a;
        }
        for (std::size_t i = 0; i < kPcpNonceSize; ++i) a.nonce[i] = static_cast<unsigned char>(d[24 + i]);
        a.internal_port = static_cast<int>(be16(d, 40));
        a.external_port = static_cast<int>(be16(d, 42));
        a.external_ipv4 = mapped_ipv4(d, 44);
        return a;
    }
    return std::nullopt;
}

bool epoch_says_restart(std::uint32_t earlier_epoch, double earlier_time, std::uint32_t epoch, double time) {
    if (epoch < earlier_epoch) return true;
    // Both clocks run at about the same pace; the server's may lag by an eighth, and answers
    // take their time on the way, hence the two seconds.
    const double client = time - earlier_time;
    const double server = static_cast<double>(epoch - earlier_epoch);
    return server + 2.0 < client * 7.0 / 8.0;
}

AddressKind classify_ipv4(std::uint32_t a) {
    const unsigned first = a >> 24, second = (a >> 16) & 0xFF;
    if (first == 0 || first == 127 || first >= 224 || (first == 169 && second == 254)) return AddressKind::Unusable;
    if (first == 10 || (first == 172 && (second & 0xF0) == 16) || (first == 192 && second == 168))
        return AddressKind::Private;
    if (first == 100 && (second & 0xC0) == 64) return AddressKind::CarrierGrade;
    return AddressKind::Public;
}

std::string ipv4_text(std::uint32_t a) {
    char text[16];
    std::snprintf(text, sizeof text, "%u.%u.%u.%u", a >> 24, (a >> 16) & 0xFF, (a >> 8) & 0xFF, a & 0xFF);
    return text;
}

std::optional<std::uint32_t> parse_ipv4(std::string_view text) {
    std::uint32_t address = 0;
    int parts = 0;
    std::size_t at = 0;
    while (parts < 4) {
        unsigned value = 0;
        std::size_t digits = 0;
        while (at < text.size() && text[at] >= '0' && text[at] <= '9' && digits < 3) {
            value = value * 10 + static_cast<unsigned>(text[at] - '0');
            ++at;
            ++digits;
        }
        if (digits == 0 || value > 255) return std::nullopt;
        address = address << 8 | value;
        if (++parts < 4) {
            if (at >= text.size() || text[at] != '.') return std::nullopt;
            ++at;
        }
    }
    if (at != text.size()) return std::nullopt;
    return address;
}

bool url_is_on_host(std::string_view url, std::string_view host) {
    constexpr std::string_view scheme = "http://";
    if (url.substr(0, scheme.size()) != scheme || host.empty()) return false;
    url.remove_prefix(scheme.size());
    // No user part: "http://router@elsewhere/" goes to elsewhere.
    const std::size_t end = url.find_first_of(":/?#@");
    if (end != std::string_view::npos && url[end] == '@') return false;
    const std::string_view named = url.substr(0, end);
    if (named != host) return false;
    if (end == std::string_view::npos || url[end] != ':') return true;
    const std::string_view rest = url.substr(end + 1);
    const std::size_t port_end = rest.find_first_of("/?#");
    const std::string_view port = rest.substr(0, port_end);
    return !port.empty() && port.size() <= 5 &&
           port.find_first_not_of("0123456789") == std::string_view::npos;
}

}  // namespace zq::p2p
