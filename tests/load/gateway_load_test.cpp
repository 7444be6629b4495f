// A sustained stream through the gateways of four players who all see one another: every port
// sends numbered frames to each of its three peers, and what arrives is counted and compared
// byte for byte with what was sent.

#include <array>
#include <memory>
#include <set>
#include <string>

#include "p2p/gateway.h"
#include "shell/byte_order.h"
#include "support/fake_port.h"
#include "support/prelude.h"

using zq::Endpoint;
using zq::p2p::Gateway;

namespace {

constexpr int kPlayers = 4;

// The payload of frame `seq` from player `from` to player `to`: its numbers, then a filler whose
// length and bytes depend on them, so a frame cut short or mixed up with another shows.
std::string payload(int from, int to, std::uint32_t seq) {
    std::string out = "L" + std::to_string(from) + ">" + std::to_string(to) + "#" + std::to_string(seq) + ":";
    const std::size_t filler = 16 + (seq * 37 + from * 11 + to) % 480;
    for (std::size_t k = 0; k < filler; ++k) out.push_back(static_cast<char>((seq + k * (from + 3) + to) & 0xFF));
    return out;
}

std::uint16_t source_port(int from) { return static_cast<std::uint16_t>(3000 + from); }
std::uint16_t destination_port(int to, std::uint32_t seq) { return static_cast<std::uint16_t>(40000 + to * 100 + seq % 50); }

std::string port_frame(int from, int to, std::uint32_t seq) {
    const std::uint16_t s = source_port(from), d = destination_port(to, seq);
    return zq::be16_bytes(s) + zq::be16_bytes(d) + payload(from, to, seq);
}

TEST(GatewayLoad, FourPlayersStreamToEachOtherAndNothingIsAltered) {
    const std::uint32_t rounds = 12;
    const std::uint32_t batch = 25;  // frames from each port to each peer per round

    std::array<FakePort, kPlayers> ports;
    std::array<std::unique_ptr<Gateway>, kPlayers> gateways;
    for (auto& g : gateways) {
        g = std::make_unique<Gateway>(0, std::nullopt, "127.0.0.1", nullptr);
        ASSERT_TRUE(g->start(nullptr));
    }
    // told[i][j]: where port i sends for player j. Member ids are player numbers plus 1.
    Endpoint told[kPlayers][kPlayers];
    for (int i = 0; i < kPlayers; ++i)
        for (int j = 0; j < kPlayers; ++j)
            if (i != j)
                told[i][j] = gateways[i]->add_member(j + 1, "p" + std::to_string(j),
                                                     Endpoint{"127.0.0.1", gateways[j]->port}, {},
                                                     "p" + std::to_string(i), i + 1, 7, ports[i].address());

    std::set<std::uint32_t> got[kPlayers][kPlayers];  // [to][from]: the sequence numbers that arrived
    int altered = 0, duplicated = 0, strangers = 0;
    auto sender_of = [&](int to, const Endpoint& from) {
        for (int j = 0; j < kPlayers; ++j)
            if (j != to && told[to][j] == from) return j;
        return -1;
    };
    auto drain = [&](int to) {
        while (auto d = ports[to].receive_data(0.002)) {
            const int from = sender_of(to, d->from);
            if (from < 0) {
                ++strangers;
                continue;
            }
            // The sequence number is read from the frame; the whole frame must then be the one sent.
            std::size_t at = d->bytes.find('#', 4);  // behind the virtual ports, which may hold one
            std::uint32_t seq = 0;
            for (++at; at > 0 && at < d->bytes.size() && d->bytes[at] >= '0' && d->bytes[at] <= '9' && seq < 1000000; ++at)
                seq = seq * 10 + static_cast<std::uint32_t>(d->bytes[at] - '0');
            if (d->bytes != port_frame(from, to, seq)) ++altered;
            else if (!got[to][from].insert(seq).second) ++duplicated;
        }
    };
    auto arrived = [&] {
        std::size_t n = 0;
        for (auto& row : got)
            for (auto& s : row) n += s.size();
        return n;
    };

    std::uint32_t sent_each = 0;
    const std::size_t flows = kPlayers * (kPlayers - 1);
    for (std::uint32_t round = 0; round < rounds; ++round) {
        for (std::uint32_t k = 0; k < batch; ++k, ++sent_each)
            for (int i = 0; i < kPlayers; ++i)
                for (int j = 0; j < kPlayers; ++j)
                    if (i != j) ports[i].send(told[i][j], source_port(i), destination_port(j, sent_each),
                                              payload(i, j, sent_each));
        // Each batch is waited for; a datagram the loopback dropped is not waited for forever.
        wait_until([&] {
            for (int to = 0; to < kPlayers; ++to) drain(to);
            return arrived() >= flows * sent_each;
        }, 3.0);
    }

    const std::size_t sent = flows * sent_each;
    EXPECT_EQ(altered, 0);
    EXPECT_EQ(duplicated, 0);
    EXPECT_EQ(strangers, 0);
    // Nearly all: the loopback may drop a few datagrams under pressure, the gateway none.
    EXPECT_GE(arrived() * 100, sent * 98) << arrived() << " of " << sent;
    for (int to = 0; to < kPlayers; ++to)
        for (int from = 0; from < kPlayers; ++from)
            if (to != from) EXPECT_GE(got[to][from].size() * 10, sent_each * 9u) << from << " to " << to;

    // Every link counted what it carried each way.
    std::uint64_t to_peer = 0, to_port = 0;
    for (auto& g : gateways)
        for (const auto& link : g->links_snapshot()) {
            to_peer += link.to_peer;
            to_port += link.to_port;
        }
    EXPECT_LE(to_peer, sent);
    EXPECT_GE(to_peer, to_port);
    EXPECT_GE(to_port, arrived());
    for (auto& g : gateways) g->stop();
}

}  // namespace
