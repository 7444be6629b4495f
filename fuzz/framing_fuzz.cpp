// The gateway's byte formats: port frames and peer frames in both directions, and the control
// protocol answered for a remote peer, fed a sequence of control payloads on one link.

#include <string>
#include <string_view>

#include "fuzz_check.h"
#include "p2p/framing.h"

using namespace zq::p2p;

namespace {

std::size_t control_length(unsigned char kind) {
    switch (kind) {
        case kEchoReply: return kEchoLength;
        case kClockExchange: return kClockLength;
        case kIdentityExchange: return kIdentityLength;
        case kRoomExchange: return kRoomLength;
        default: return 0;
    }
}

void check_frames(std::string_view input) {
    std::string peer;
    const int kind = port_frame_to_peer(input, peer);
    FUZZ_CHECK(kind >= 0 && kind <= 2);
    if (kind == 1) {
        // Every data frame the port sends arrives at the other port unchanged.
        std::string back;
        FUZZ_CHECK(peer_frame_to_port(peer, back));
        FUZZ_CHECK(back == input);
    }
    std::string port;
    if (peer_frame_to_port(input, port)) {
        FUZZ_CHECK(port.size() >= 4);
        std::string again;
        if (port_frame_to_peer(port, again) == 1) {
            std::string twice;
            FUZZ_CHECK(peer_frame_to_port(again, twice));
            FUZZ_CHECK(twice == port);
        }
    }
    (void)is_punch(input);
}

// The input as payloads of one link, each preceded by a length byte.
void check_control(std::string_view input) {
    HelloRecord record;
    record.peer_name = fixed16("peer");
    record.port_name = fixed16("port");
    record.peer_member = 2;
    record.port_member = 1;
    record.hello_token = 2 + 0x4242;
    int identity_finishes = 0;
    std::size_t at = 0;
    while (at < input.size()) {
        std::size_t length = static_cast<unsigned char>(input[at++]);
        std::string_view payload = input.substr(at, length);
        at += payload.size();
        auto answers = answer_control(record, payload, 1700000000000000ULL);
        FUZZ_CHECK(answers.size() <= 1);
        for (const std::string& answer : answers) {
            FUZZ_CHECK(answer.size() > 5 && answer.compare(0, 4, "NIMB") == 0);
            FUZZ_CHECK(answer.size() == control_length(static_cast<unsigned char>(answer[4])));
            if (answer[4] == kIdentityExchange && answer[5] == 4) ++identity_finishes;
        }
    }
    // The port repeats the last identity step; only the first may be answered.
    FUZZ_CHECK(identity_finishes <= 1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input = fuzzing::text_of(data, size);
    check_frames(input);
    check_control(input);
    return 0;
}
