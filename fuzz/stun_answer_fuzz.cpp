// The STUN server's answers to a Binding Request (the gateway's and the check's), matched against
// the transaction of a real request, and the relay frames that come back from the relay.

#include <string>
#include <string_view>

#include "fuzz_check.h"
#include "p2p/stun.h"

using namespace zq::p2p;

namespace {

const std::array<unsigned char, 12> kTransactionId = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};

bool dotted_quad(const std::string& host) {
    int parts = 0;
    std::size_t at = 0;
    while (at <= host.size()) {
        std::size_t dot = host.find('.', at);
        if (dot == std::string::npos) dot = host.size();
        const std::string part = host.substr(at, dot - at);
        if (part.empty() || part.size() > 3 || part.find_first_not_of("0123456789") != std::string::npos) return false;
        if (std::stoi(part) > 255) return false;
        ++parts;
        at = dot + 1;
    }
    return parts == 4;
}

void check_answer(std::string_view datagram) {
    // What the gateway compares: bytes 4..19 of the request it sent (cookie and id).
    const std::string request = binding_request(kTransactionId, "");
    const std::string_view transaction = std::string_view(request).substr(4, 16);
    const auto answer = parse_binding_answer(datagram, transaction);
    if (!answer) return;
    FUZZ_CHECK(datagram.size() >= 20 && datagram.substr(4, 16) == transaction);
    FUZZ_CHECK(static_cast<unsigned char>(datagram[0]) == 0x01 && static_cast<unsigned char>(datagram[1]) == 0x01);
    FUZZ_CHECK(answer->mapped_port >= 0 && answer->mapped_port <= 65535);
    FUZZ_CHECK(answer->mapped_host.empty() || dotted_quad(answer->mapped_host));
    // The second address is there whole or not at all, and never the unspecified one.
    FUZZ_CHECK(answer->other_host.empty() == (answer->other_port == 0));
    FUZZ_CHECK(answer->other_host.empty() || (dotted_quad(answer->other_host) && answer->other_host != "0.0.0.0"));
    if (answer->relay) {
        FUZZ_CHECK(answer->relay_token.size() == kRelayTokenSize);
        FUZZ_CHECK(answer->relay_port >= 0 && answer->relay_port <= 65535);
    }
}

void check_relay(std::string_view datagram) {
    int port = -1;
    std::string_view payload;
    if (relay_frame_from_server(datagram, port, payload)) {
        FUZZ_CHECK(port >= 0 && port <= 65535);
        FUZZ_CHECK(datagram.size() >= 4 && payload == datagram.substr(4));
    }
    // Our own frame towards the relay carries the frame whole behind a fixed 12-byte prefix.
    const std::string token(8, 'T');
    const std::string out = relay_frame_to_server(token, 0xBEEF, datagram);
    FUZZ_CHECK(out.size() == 12 + datagram.size() && out.substr(12) == datagram);
    FUZZ_CHECK(!relay_frame_from_server(out, port, payload));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input = fuzzing::text_of(data, size);
    check_answer(input);
    check_relay(input);
    return 0;
}
