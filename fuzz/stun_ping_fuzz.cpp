// The local UDP ping: which datagrams are answered, the online id read from them, and the
// answer built for the address the ping came from.

#include <string>

#include "bridge/stun_responder.h"
#include "fuzz_check.h"
#include "shell/byte_order.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string datagram = fuzzing::text_of(data, size);
    const auto id = zq::parse_stun_ping(datagram);
    FUZZ_CHECK(id.has_value() == (size >= zq::stun_ping_min_size && data[0] == 1));
    if (id) {
        FUZZ_CHECK(id->size() <= 16);
        FUZZ_CHECK(id->find('\0') == std::string::npos);
    }

    // The sender's address, from the input as the receive would give it: any 4 bytes, any port.
    if (size >= 6) {
        const std::string host = std::to_string(data[0]) + "." + std::to_string(data[1]) + "." +
                                 std::to_string(data[2]) + "." + std::to_string(data[3]);
        const int port = zq::be16(datagram, 4);
        const std::string reply = zq::stun_reply(zq::Endpoint{host, port});
        FUZZ_CHECK(reply == datagram.substr(0, 6));
    }
    return 0;
}
