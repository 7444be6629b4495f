#include <future>
#include <mutex>

#include "p2p/gateway.h"
#include "p2p/port_mapper.h"
#include "p2p/port_mapping_codec.h"
#include "shell/byte_order.h"
#include "support/fake_port.h"
#include "support/log_capture.h"
#include "support/prelude.h"
#include "support/stun_relay_server.h"

using zq::Endpoint;
using namespace zq::p2p;

namespace {

// The router's answer to a PCP MAP request: success, the request's body with the assigned port
// and address.
std::string pcp_answer(const std::string& request, const std::string& host, int port, std::uint32_t lifetime,
                       std::uint32_t epoch) {
    std::string a = bytes({2, 0x81, 0, 0}) + zq::be32_bytes(lifetime) + zq::be32_bytes(epoch) + std::string(12, '\0');
    a += request.substr(24, 18) + zq::be16_bytes(port) + std::string(10, '\0') + "\xFF\xFF"s +
         zq::be32_bytes(*parse_ipv4(host));
    return a;
}

std::string natpmp_answer(int opcode, const std::string& rest, std::uint32_t epoch) {
    return bytes({0, 128 + opcode, 0, 0}) + zq::be32_bytes(epoch) + rest;
}

// A gateway whose STUN server sees it at 198.51.100.7:5555 and whose router is a fake that
// speaks PCP as each test scripts it; every public address told to the owner is kept.
class PortMapping : public ::testing::Test {
protected:
    PortMapping() {
        stun.set_grant(false);
        stun.set_reported(Endpoint{"198.51.100.7", 5555});
        g.stun_refresh = 0.1;
        g.port_mapping = true;
        g.mapping_router = router.address();
        g.mapping_protocols = {MappingProtocol::Pcp};
    }
    std::vector<Endpoint> told_so_far() {
        std::lock_guard<std::mutex> guard(told_lock);
        return told;
    }
    Endpoint last_told() {
        auto all = told_so_far();
        return all.empty() ? Endpoint{} : all.back();
    }

    LogCapture log;
    StunRelayServer stun;
    FakePort router;
    std::mutex told_lock;
    std::vector<Endpoint> told;  // guarded by told_lock
    Gateway g{0, stun.address(), "127.0.0.1", [this](const Endpoint& e) {
                  std::lock_guard<std::mutex> guard(told_lock);
                  told.push_back(e);
              }};
};

}  // namespace

TEST(PortMappingCodec, RequestsAndAnswersOfBothProtocols) {
    EXPECT_EQ(natpmp_address_request(), bytes({0, 0}));
    EXPECT_EQ(natpmp_map_request(40000, 40001, 7200), bytes({0, 1, 0, 0, 0x9C, 0x40, 0x9C, 0x41, 0, 0, 0x1C, 0x20}));
    const PcpNonce nonce{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    const std::string map = pcp_map_request(nonce, *parse_ipv4("10.0.1.2"), 40000, 40000, 7200);
    ASSERT_EQ(map.size(), kPcpMapSize);
    EXPECT_EQ(map.substr(0, 24), bytes({2, 1, 0, 0, 0, 0, 0x1C, 0x20, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 10, 0, 1, 2}));
    EXPECT_EQ(map.substr(36, 8), bytes({17, 0, 0, 0, 0x9C, 0x40, 0x9C, 0x40}));
    EXPECT_EQ(map.substr(44), std::string(10, '\0') + "\xFF\xFF"s + std::string(4, '\0'));
    EXPECT_EQ(pcp_announce_request(1).size(), kPcpHeaderSize);

    auto pcp = parse_mapping_answer(pcp_answer(map, "198.51.100.7", 40002, 3600, 99));
    ASSERT_TRUE(pcp);
    EXPECT_EQ(pcp->version, 2);
    EXPECT_EQ(pcp->opcode, 1);
    EXPECT_EQ(pcp->nonce, nonce);
    EXPECT_EQ(pcp->internal_port, 40000);
    EXPECT_EQ(pcp->external_port, 40002);
    EXPECT_EQ(ipv4_text(pcp->external_ipv4), "198.51.100.7");
    EXPECT_EQ(pcp->lifetime, 3600u);
    EXPECT_EQ(pcp->epoch, 99u);
    // A success cut short, and requests (no answer bit) or unknown versions, are no answers; a
    // refusal needs only its header, and NAT-PMP's "unsupported version" only its first 8 bytes.
    EXPECT_FALSE(parse_mapping_answer(pcp_answer(map, "198.51.100.7", 1, 1, 1).substr(0, 59)));
    EXPECT_FALSE(parse_mapping_answer(map));
    EXPECT_FALSE(parse_mapping_answer(bytes({1, 0x81}) + std::string(58, '\0')));
    auto refused = parse_mapping_answer(bytes({2, 0x81, 0, 8}) + std::string(20, '\0'));
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->result, 8);
    auto old_server = parse_mapping_answer(natpmp_answer(0, "", 5).substr(0, 2) + bytes({0, 1}) + zq::be32_bytes(5));
    ASSERT_TRUE(old_server);
    EXPECT_EQ(old_server->result, kResultUnsupportedVersion);

    auto address = parse_mapping_answer(natpmp_answer(0, zq::be32_bytes(*parse_ipv4("198.51.100.7")), 7));
    ASSERT_TRUE(address);
    EXPECT_EQ(ipv4_text(address->external_ipv4), "198.51.100.7");
    EXPECT_FALSE(parse_mapping_answer(natpmp_answer(0, "abc", 7)));
    auto granted = parse_mapping_answer(natpmp_answer(1, bytes({0x9C, 0x40, 0x9C, 0x41}) + zq::be32_bytes(3600), 7));
    ASSERT_TRUE(granted);
    EXPECT_EQ(granted->internal_port, 40000);
    EXPECT_EQ(granted->external_port, 40001);
    EXPECT_EQ(granted->lifetime, 3600u);
    EXPECT_FALSE(parse_mapping_answer(natpmp_answer(1, bytes({0x9C, 0x40, 0x9C, 0x41, 0, 0, 0x0E}), 7)));

    for (auto [text, kind] : {std::pair{"172.31.0.1", AddressKind::Private}, {"172.32.0.1", AddressKind::Public},
                              {"100.64.0.1", AddressKind::CarrierGrade}, {"100.128.0.1", AddressKind::Public},
                              {"169.254.1.1", AddressKind::Unusable}})
        EXPECT_EQ(classify_ipv4(*parse_ipv4(text)), kind) << text;

    // A router restarted when its epoch goes back, or moves on clearly less than our clock.
    EXPECT_FALSE(epoch_says_restart(1000, 50.0, 1060, 110.0));
    EXPECT_TRUE(epoch_says_restart(1000, 50.0, 999, 51.0));
    EXPECT_TRUE(epoch_says_restart(1000, 50.0, 1010, 110.0));

    // UPnP URLs are called only where they point at the home router itself.
    EXPECT_TRUE(url_is_on_host("http://192.168.1.1:5000/rootDesc.xml", "192.168.1.1"));
    EXPECT_TRUE(url_is_on_host("http://192.168.1.1/ctl/IPConn", "192.168.1.1"));
    for (const char* url : {"http://127.0.0.1:31316/any/path", "http://192.168.1.10:5000/", "http://192.168.1.1.evil/",
                            "http://192.168.1.1@127.0.0.1:31315/", "http://192.168.1.1:31316x/", "https://192.168.1.1/",
                            "HTTP://127.0.0.1/", ""})
        EXPECT_FALSE(url_is_on_host(url, "192.168.1.1")) << url;
}

// A router of NAT-PMP alone answers PCP with its own version: the mapper goes on to NAT-PMP and
// asks for the external address and the mapping. (Renewals, restarts and releases meet the real
// daemon in the router test.)
TEST(PortMapper, FallsBackToNatPmpWhenTheRouterAnswersPcpWithItsOwnVersion) {
    FakePort router;
    std::atomic<bool> stopping{false};
    PortMapper mapper(router.address(), 40000, stopping);
    auto mapped = std::async(std::launch::async, [&] { return mapper.map(7200); });

    auto pcp = router.receive();
    ASSERT_TRUE(pcp);
    EXPECT_EQ(pcp->bytes.size(), kPcpMapSize);
    router.send_raw(pcp->from, bytes({0, 0x81, 0, 1}) + zq::be32_bytes(1000));
    auto address = router.receive();
    ASSERT_TRUE(address);
    EXPECT_EQ(address->bytes, natpmp_address_request());
    router.send_raw(address->from, natpmp_answer(0, zq::be32_bytes(*parse_ipv4("198.51.100.7")), 1000));
    auto map = router.receive();
    ASSERT_TRUE(map);
    EXPECT_EQ(map->bytes, natpmp_map_request(40000, 40000, 7200));
    router.send_raw(map->from, natpmp_answer(1, bytes({0x9C, 0x40, 0x9C, 0x41}) + zq::be32_bytes(3600), 1000));
    auto grant = mapped.get();
    ASSERT_TRUE(grant);
    EXPECT_EQ(grant->protocol, MappingProtocol::NatPmp);
    EXPECT_EQ(grant->external, (Endpoint{"198.51.100.7", 40001}));
    EXPECT_EQ(grant->lifetime, 3600u);
}

// The gateway reports a mapping as its public address only when it is public and STUN sees the
// same address, whatever port STUN sees; otherwise STUN's address, with the reason in the log.
// The mapping is released at stop.
TEST_F(PortMapping, TheGatewayReportsAMappingOnlyWhereSTUNAgrees) {
    g.mapping_check = 0.2;
    ASSERT_TRUE(g.start(nullptr));
    ASSERT_TRUE(wait_until([&] { return g.mapped_address().has_value(); }, 10.0));

    // Each check of the mapping gets the next of these answers.
    auto answer_with = [&](const std::string& host) {
        auto request = router.receive();
        ASSERT_TRUE(request);
        ASSERT_EQ(request->bytes.size(), kPcpMapSize);
        EXPECT_EQ(request->bytes.substr(40, 2), zq::be16_bytes(g.port));
        router.send_raw(request->from, pcp_answer(request->bytes, host, 40000, 7200, 10));
    };
    const Endpoint mapping{"198.51.100.7", 40000};
    ASSERT_NO_FATAL_FAILURE(answer_with("10.0.0.2"));
    EXPECT_TRUE(wait_until([&] { return log.contains("not used: a private address"); }, 10.0));
    ASSERT_NO_FATAL_FAILURE(answer_with("100.64.0.9"));
    EXPECT_TRUE(wait_until([&] { return log.contains("not used: a carrier-grade NAT address"); }, 10.0));
    ASSERT_NO_FATAL_FAILURE(answer_with("198.51.100.8"));
    EXPECT_TRUE(wait_until([&] { return log.contains("not used: STUN sees us at 198.51.100.7"); }, 10.0));
    EXPECT_EQ(g.own_endpoints().second, (Endpoint{"198.51.100.7", 5555}));
    ASSERT_NO_FATAL_FAILURE(answer_with(mapping.host));
    ASSERT_TRUE(wait_until([&] { return last_told() == mapping; }, 10.0));
    EXPECT_EQ(g.own_endpoints().second, mapping);
    ASSERT_TRUE(g.port_mapping_info());
    EXPECT_TRUE(g.port_mapping_info()->used);

    // STUN sees another port now: the mapping still stands for us.
    stun.set_reported(Endpoint{"198.51.100.7", 6666});
    ASSERT_TRUE(wait_until([&] { return g.mapped_address() == Endpoint("198.51.100.7", 6666); }, 10.0));
    ASSERT_NO_FATAL_FAILURE(answer_with(mapping.host));
    EXPECT_EQ(last_told(), mapping);
    EXPECT_EQ(g.own_endpoints().second, mapping);

    g.stop();
    std::optional<Datagram> release;
    while (auto d = router.receive(1.0)) release = d;  // a last check may come before it
    ASSERT_TRUE(release);
    EXPECT_EQ(release->bytes.substr(4, 4), std::string(4, '\0'));
    EXPECT_TRUE(log.contains("p2p: port mapping by PCP released"));
}

// A router that grants 1 s leases on a port that moves with every answer, its epoch going back
// now and then, sets the pace of neither the renewals nor the addresses told: a renewal comes no
// sooner than the floor, announcements beyond the first few no more often than their interval,
// and the last mapping is the one told in the end, however late.
TEST_F(PortMapping, AFlappingRouterSetsThePaceOfNeitherRenewalsNorAnnouncements) {
    g.mapping_renew_floor = 1.0;  // above the half-lifetime of a 1 s lease
    g.announce_interval = 3.0;
    const double began = zq::steady_seconds();
    ASSERT_TRUE(g.start(nullptr));

    // The next request, past any resend of the one before (a slow answer brings one).
    std::string previous;
    auto next_request = [&]() -> std::optional<Datagram> {
        for (auto d = router.receive(); d; d = router.receive())
            if (d->bytes != previous) {
                previous = d->bytes;
                return d;
            }
        return std::nullopt;
    };
    const std::string host = "198.51.100.7";
    double asked = 0.0;
    for (int i = 0; i < 5; ++i) {
        auto request = next_request();
        ASSERT_TRUE(request);
        const double now = zq::steady_seconds();
        if (i > 0) EXPECT_GE(now - asked, g.mapping_renew_floor - 0.05) << "renewal " << i;
        asked = now;
        router.send_raw(request->from, pcp_answer(request->bytes, host, 40000 + i % 2, 1, i % 3 == 2 ? 1 : 100 + i));
    }
    const Endpoint last{host, 40002};
    auto request = next_request();
    ASSERT_TRUE(request);
    router.send_raw(request->from, pcp_answer(request->bytes, host, last.port, 7200, 200));
    ASSERT_TRUE(wait_until([&] { return last_told() == last; }, 10.0));
    EXPECT_EQ(g.own_endpoints().second, last);

    const double elapsed = zq::steady_seconds() - began;
    EXPECT_LE(told_so_far().size(), g.announce_burst + elapsed / g.announce_interval);
    EXPECT_LE(log.count_containing("p2p: port mapping by PCP"), 2 * (elapsed / g.mapping_renew_floor + 1));
}
