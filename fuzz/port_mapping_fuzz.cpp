// The home router's answers to the gateway's PCP and NAT-PMP requests, and the dotted addresses
// that the mapping's rules read.

#include <string>
#include <string_view>

#include "fuzz_check.h"
#include "p2p/port_mapping_codec.h"

using namespace zq::p2p;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input = fuzzing::text_of(data, size);
    if (const auto a = parse_mapping_answer(input)) {
        FUZZ_CHECK(input.size() >= 8);
        FUZZ_CHECK(a->version == kNatPmpVersion || a->version == kPcpVersion);
        FUZZ_CHECK(static_cast<unsigned char>(input[1]) & 0x80);
        FUZZ_CHECK(a->opcode >= 0 && a->opcode < 128 && a->result >= 0 && a->result <= 0xFFFF);
        FUZZ_CHECK(a->internal_port >= 0 && a->internal_port <= 65535);
        FUZZ_CHECK(a->external_port >= 0 && a->external_port <= 65535);
        if (a->version == kPcpVersion) FUZZ_CHECK(input.size() >= kPcpHeaderSize);
        // A success that carries an address carries all of it.
        if (a->result == kResultSuccess && a->version == kPcpVersion && a->opcode == kPcpOpMap)
            FUZZ_CHECK(input.size() >= kPcpMapSize);
        // An address read back as text reads back as the same number.
        FUZZ_CHECK(parse_ipv4(ipv4_text(a->external_ipv4)) == a->external_ipv4);
    }
    if (const auto address = parse_ipv4(input)) {
        FUZZ_CHECK(ipv4_text(*address).size() <= input.size());
        classify_ipv4(*address);
    }
    return 0;
}
