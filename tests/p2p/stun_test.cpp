#include <tuple>

#include "p2p/stun.h"
#include "shell/byte_order.h"
#include "support/prelude.h"

using namespace std::string_view_literals;
using namespace zq::p2p;

namespace {

const std::string kTransaction = "\x21\x12\xA4\x42" "ABCDEFGHIJKL"s;

std::string attr(unsigned type, const std::string& value) {
    return zq::be16_bytes(type) + zq::be16_bytes(static_cast<unsigned>(value.size())) + value +
           std::string((4 - value.size() % 4) % 4, '\0');
}

// family 1, port 1234, 10.1.2.3
const std::string kPlain = "\x00\x01\x04\xD2\x0A\x01\x02\x03"s;
// family 1, port 5678 ^ 0x2112, 192.0.2.7 ^ cookie
const std::string kXor = "\x00\x01"s + "\x37\x3C"s + "\xE1\x12\xA6\x45"s;
const std::string kGrant = "zqr1" "TOKEN123" "\x9C\x40" "\0\0\0\0\0\0"s;  // port 40000

std::string answer(const std::string& attributes, std::size_t declared = std::string::npos,
                   const std::string& transaction = kTransaction, unsigned type = 0x0101) {
    std::size_t length = declared == std::string::npos ? attributes.size() : declared;
    return zq::be16_bytes(type) + zq::be16_bytes(static_cast<unsigned>(length)) + transaction + attributes;
}

}  // namespace

TEST(Stun, BindingRequestsWithAndWithoutTheRelayAttribute) {
    std::array<unsigned char, 12> id{};
    for (int i = 0; i < 12; ++i) id[i] = static_cast<unsigned char>('a' + i);
    std::string head = "\x00\x01\x00\x10\x21\x12\xA4\x42" "abcdefghijkl" "\x81\x00\x00\x0C" "zqr1"s;
    EXPECT_EQ(binding_request(id, ""), head + std::string(8, '\0'));
    EXPECT_EQ(binding_request(id, "TOKEN123"), head + "TOKEN123");
    EXPECT_EQ(plain_binding_request(id), "\x00\x01\x00\x00\x21\x12\xA4\x42" "abcdefghijkl"s);
    EXPECT_NE(random_transaction_id(), random_transaction_id());
}

TEST(Stun, AnswersThatAreAcceptedOrRefusedAndRelayFrames) {
    // What a parse gives, in one line; "" when the answer is refused.
    auto seen = [](const std::optional<StunAnswer>& a) {
        if (!a) return std::string();
        return a->mapped_host + ":" + std::to_string(a->mapped_port) +
               (a->relay ? " relay " + a->relay_token + " " + std::to_string(a->relay_port) : "") +
               (a->other_host.empty() ? "" : " other " + a->other_host + ":" + std::to_string(a->other_port));
    };
    const std::tuple<const char*, std::string, std::string> cases[] = {
        {"plain", answer(attr(0x0001, kPlain)), "10.1.2.3:1234"},
        {"xor", answer(attr(0x0020, kXor)), "192.0.2.7:5678"},
        {"old xor number", answer(attr(0x8020, kXor)), "192.0.2.7:5678"},
        {"plain wins over xor", answer(attr(0x0020, kXor) + attr(0x0001, kPlain)), "10.1.2.3:1234"},
        {"later of a kind wins", answer(attr(0x0001, "\x00\x01\x00\x09\x01\x01\x01\x01"s) + attr(0x0001, kPlain)),
         "10.1.2.3:1234"},
        {"grant", answer(attr(0x8101, kGrant) + attr(0x0020, kXor)), "192.0.2.7:5678 relay TOKEN123 40000"},
        {"grant of 19 bytes skipped", answer(attr(0x8101, kGrant.substr(0, 19)) + attr(0x0001, kPlain)),
         "10.1.2.3:1234"},
        {"grant with other magic", answer(attr(0x8101, "zqr2" + kGrant.substr(4)) + attr(0x0001, kPlain)),
         "10.1.2.3:1234"},
        {"empty attribute walks 4 bytes", answer(attr(0x0022, "") + attr(0x0001, kPlain)), "10.1.2.3:1234"},
        {"longer datagram than declared", answer(attr(0x0001, kPlain)) + "junk", "10.1.2.3:1234"},
        {"first usable other address", answer(attr(0x802C, "\x00\x01\x0D\x97\0\0\0\0"s) + attr(0x802C, kPlain) +
                                              attr(0x802C, kXor) + attr(0x0001, kPlain)), "10.1.2.3:1234 other 10.1.2.3:1234"},
        {"unknown attribute skipped", answer(attr(0x8022, "software") + attr(0x0001, kPlain)), "10.1.2.3:1234"},
        {"grant alone", answer(attr(0x8101, kGrant)), ""},
        {"L = 0", answer(""), ""},
        {"L under 4", answer("\x00\x01\x00"s), ""},
        {"L beyond the datagram", answer(attr(0x0001, kPlain), 16), ""},
        {"attribute passes the end", answer(attr(0x0001, kPlain), 8), ""},
        {"family 2", answer(attr(0x0001, "\x00\x02" + kPlain.substr(2))), ""},
        {"address 0", answer(attr(0x0001, "\x00\x01\x04\xD2\0\0\0\0"s)), ""},
        {"port 0", answer(attr(0x0001, "\x00\x01\x00\x00\x0A\x01\x02\x03"s)), ""},
        {"other transaction", answer(attr(0x0001, kPlain), std::string::npos, "\x21\x12\xA4\x42" "ABCDEFGHIJKX"s), ""},
        {"not a success", answer(attr(0x0001, kPlain), std::string::npos, kTransaction, 0x0111), ""},
        {"19 bytes", answer("").substr(0, 19), ""},
    };
    for (const auto& [name, datagram, expected] : cases)
        EXPECT_EQ(seen(parse_binding_answer(datagram, kTransaction)), expected) << name;

    // The relay's frames around a datagram, each way.
    EXPECT_EQ(relay_frame_to_server("TOKEN123", 40001, "\xFF\xC3\x01\x02hi"s),
              "\xFB" "RTOKEN123\x9C\x41\xFF\xC3\x01\x02hi"s);
    int port = 0;
    std::string_view payload = "stale";
    EXPECT_TRUE(relay_frame_from_server("\xFB" "r\x9C\x40"sv, port, payload));
    EXPECT_EQ(port, 40000);
    EXPECT_EQ(payload, "");
    EXPECT_TRUE(relay_frame_from_server("\xFB" "r\x00\x07punch"sv, port, payload));
    EXPECT_EQ(port, 7);
    EXPECT_EQ(payload, "punch");
    EXPECT_FALSE(relay_frame_from_server("\xFB" "r\x00"sv, port, payload));
    EXPECT_FALSE(relay_frame_from_server("\xFB" "R\x00\x07"sv, port, payload));
    EXPECT_FALSE(relay_frame_from_server("\xFA" "r\x00\x07"sv, port, payload));
}
