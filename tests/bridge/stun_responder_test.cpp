#include "bridge/stun_responder.h"
#include "shell/byte_order.h"
#include "support/bridge_rig.h"
#include "support/fake_port.h"

namespace {

// The flood spends the ping lines' share; later tests in this process read those lines.
struct ForgetLogLimits {
    ~ForgetLogLimits() { zq::reset_log_limits(); }
};

}  // namespace

// A ping of 21 bytes or more is answered with the sender's address, and its id is noted and
// logged once however often it comes. A flood of pings, each with a fresh id, leaves the table
// at its bound and the console quiet; the game's own id, noted before, is still followed when
// its port moves.
TEST(StunResponder, AnswersNotesAndStaysBoundedUnderAFlood) {
    ForgetLogLimits forget;
    BridgeRig rig;
    ASSERT_TRUE(rig.start());
    zq::Bridge& bridge = rig.bridge().bridge();
    auto& log = rig.log;
    const zq::Endpoint responder{"127.0.0.1", bridge.bound_udp_port()};
    FakePort game, flood, game_restarted;

    // The 20-byte ping is not answered: datagrams on loopback keep their order, so the first
    // answer is the one for the 64-byte ping behind it.
    game.send_raw(responder, stun_ping("short", 20));
    game.send_raw(responder, stun_ping("ashling", 64));
    auto reply = game.receive(10.0);
    ASSERT_TRUE(reply);
    const auto port = static_cast<unsigned>(game.address().port);
    EXPECT_EQ(reply->bytes, bytes({127, 0, 0, 1}) + zq::be16_bytes(port));

    // Every ping is answered, noted or not; waiting for each answer keeps the count exact.
    auto answered = [&](FakePort& from, const std::string& id) {
        from.send_raw(responder, stun_ping(id));
        auto got = from.receive(10.0);
        return got && got->bytes.size() == 6;
    };
    ASSERT_TRUE(answered(game, "ashling"));
    EXPECT_EQ(log.count("stun: 'ashling' pings from " + game.address().text()), 1);
    for (std::size_t i = 0; i < zq::stun_table_limit + 50; ++i)
        ASSERT_TRUE(answered(flood, "x" + std::to_string(i))) << i;
    ASSERT_TRUE(answered(game_restarted, "ashling"));
    const auto table = bridge.stun_table();
    EXPECT_EQ(table.size(), zq::stun_table_limit);
    EXPECT_EQ(table.at("ashling"), game_restarted.address());
    EXPECT_LT(log.count_containing("pings from"), 50);
    EXPECT_TRUE(log.contains(zq::format_text("stun: %zu ids noted already; 'x%zu' from %s is not noted",
                                             zq::stun_table_limit, zq::stun_table_limit - 1,
                                             flood.address().text().c_str())));
}
