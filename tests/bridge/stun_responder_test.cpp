#include <gtest/gtest.h>

#include <string>

#include "bridge/bridge.h"
#include "bridge/stun_responder.h"
#include "shell/log.h"
#include "support/bridge_config.h"
#include "support/fake_port.h"
#include "support/log_capture.h"

using testing_support::FakePort;
using testing_support::LogCapture;

namespace {

std::string ping(const std::string& id) { return std::string("\x01") + id + std::string(20, '\0'); }

// The flood spends the ping lines' share; later tests in this process read those lines.
struct ForgetLogLimits {
    ~ForgetLogLimits() { zq::reset_log_limits(); }
};

}  // namespace

// A flood of pings, each with a fresh id, leaves the table at its bound and the console quiet;
// the game's own id, noted before, is still followed when its port moves.
TEST(StunResponder, AFloodOfFreshIdsLeavesTheTableBounded) {
    ForgetLogLimits forget;
    LogCapture log;
    zq::Bridge bridge(testing_support::local_bridge_config());
    std::string error;
    ASSERT_TRUE(bridge.start(&error)) << error;
    const zq::Endpoint responder{"127.0.0.1", bridge.bound_udp_port()};
    FakePort game, flood, game_restarted;
    // Every ping is answered, noted or not; waiting for each answer keeps the count exact.
    auto exchange = [&](FakePort& from, const std::string& id) {
        from.send_raw(responder, ping(id));
        auto reply = from.receive(10.0);
        return reply && reply->bytes.size() == 6;
    };

    ASSERT_TRUE(exchange(game, "ashling"));
    for (std::size_t i = 0; i < zq::stun_table_limit + 50; ++i)
        ASSERT_TRUE(exchange(flood, "x" + std::to_string(i))) << i;
    ASSERT_TRUE(exchange(game_restarted, "ashling"));
    {
        std::lock_guard<std::mutex> guard(bridge.endpoints_lock);
        EXPECT_EQ(bridge.stun_table.size(), zq::stun_table_limit);
        EXPECT_EQ(bridge.stun_table["ashling"], game_restarted.address());
    }
    EXPECT_LT(log.count_containing("pings from"), 50);
    EXPECT_TRUE(log.contains(zq::format_text("stun: %zu ids noted already; 'x%zu' from %s is not noted",
                                             zq::stun_table_limit, zq::stun_table_limit - 1,
                                             flood.address().text().c_str())));
    bridge.stop();
}
