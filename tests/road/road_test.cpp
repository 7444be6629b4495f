// The whole road on the loopback: the stand-in of the service with its STUN and relay server,
// two bridges, and a simulated player behind each. What is checked is what the players see.

#include "app/app.h"
#include "http/fetch.h"
#include "player/sim_player.h"
#include "shell/platform.h"
#include "standin/ember_court.h"
#include "standin/stun_relay_server.h"
#include "support/host.h"
#include "support/log_capture.h"
#include "support/prelude.h"
#include "support/process.h"

namespace {

class Road : public ::testing::Test {
protected:
    void SetUp() override {
        std::string error;
        ASSERT_TRUE(serve(0, &error)) << error;
        ASSERT_TRUE(stun.address().usable());
        west = start_bridge("west");
        east = start_bridge("east");
        ASSERT_TRUE(west && east);
        bring_up(ashling, *west);
        bring_up(bramwell, *east);
    }

    void TearDown() override {
        if (west) west->stop();
        if (east) east->stop();
        service.stop();
    }

    bool serve(int port, std::string* error) {
        return service.start("127.0.0.1", port, [this](const http::ServerRequest& r) { return court.handle(r); },
                             error);
    }

    std::unique_ptr<zq::App> start_bridge(const std::string& name) {
        std::string base = "http://127.0.0.1:" + std::to_string(service.port);
        zq::Config c;
        c.velmar_server = c.auth_server = c.community_server = base;
        c.tcp_port = c.udp_port = c.webapi_port = c.p2p_port = 0;
        c.stun_server = stun.address().text();
        c.stun_refresh = 0.5;
        c.port_mapping = false;  // this machine's router is no part of the test
        c.local_addr = "127.0.0.1";
        c.poll_interval = 0.05;
        c.game_proxy_routes.clear();
        c.create_accounts = true;
        c.state_file = zq::wide_to_utf8((dir.path() / (name + "_state.json")).wstring());
        auto bridge = std::make_unique<zq::App>(c);
        std::string error;
        EXPECT_TRUE(bridge->start(&error)) << error;
        return bridge;
    }

    static void bring_up(sim::Player& player, zq::App& bridge) {
        std::string error;
        ASSERT_TRUE(player.connect(bridge.bound_tcp_port(), &error)) << error;
        ASSERT_TRUE(player.login(&error)) << error;
        ASSERT_NE(player.account_id(), 0u);
        ASSERT_TRUE(player.ping(bridge.bound_udp_port(), &error)) << error;
        ASSERT_TRUE(player.start_context(7, &error)) << error;
    }

    // ashling creates, bramwell joins, and ashling hears of it; returns the room id.
    std::uint64_t meet() {
        std::string error;
        auto room = ashling.create_room(4, &error);
        EXPECT_TRUE(room) << error;
        if (!room) return 0;
        EXPECT_TRUE(bramwell.join_room(*room, &error)) << error;
        auto joined = ashling.next_event();
        EXPECT_TRUE(joined && joined->code == sim::kMemberJoined && joined->member);
        if (joined && joined->member) {
            EXPECT_EQ(joined->member->online_id, "bramwell");
            EXPECT_EQ(joined->room_id, *room);
            EXPECT_EQ(joined->context_id, 7u);
            EXPECT_EQ(joined->reason, 4u);
        }
        return *room;
    }

    sim::Member peer_of(const sim::Player& player) {
        auto peers = player.peers();
        EXPECT_EQ(peers.size(), 1u);
        return peers.empty() ? sim::Member{} : peers.begin()->second;
    }

    std::string stored_token(const std::string& bridge, const std::string& name) {
        auto state = json::parse(read_file(dir.path() / (bridge + "_state.json")), nullptr, false);
        if (!state.is_object()) return "";
        return zq::json_text(state.value("accounts", json::object()).value(name, json::object()), "token", "");
    }

    static bool all_arrived(const sim::Player& to, const sim::Player& from) {
        sim::Received got = to.received_from(from.online_id());
        return got.in_order + got.out_of_order + got.damaged + got.unmet >= from.sent_to(to.online_id());
    }

    TempDir dir;
    standin::EmberCourt court;
    http::Server service;
    // Its own loopback address: the gateway sends everything for the relay's host through the
    // relay, so a relay on 127.0.0.1 would swallow the direct traffic between the two bridges.
    standin::StunRelayServer stun{"127.0.0.2", 0};
    std::unique_ptr<zq::App> west;
    std::unique_ptr<zq::App> east;
    sim::Player ashling{"ashling"};
    sim::Player bramwell{"bramwell"};
};

TEST_F(Road, TwoPlayersMeetTradeDatagramsBothWaysAndPartAgain) {
    std::uint64_t room = meet();
    ASSERT_NE(room, 0u);

    // Each is told a loopback address of its own gateway for the other.
    sim::Member to_bramwell = peer_of(ashling);
    sim::Member to_ashling = peer_of(bramwell);
    EXPECT_EQ(to_bramwell.online_id, "bramwell");
    EXPECT_EQ(to_ashling.online_id, "ashling");
    EXPECT_EQ(to_bramwell.address.host, "127.0.0.1");
    EXPECT_EQ(to_ashling.address.host, "127.0.0.1");

    // Each gateway plays the other player towards its own port, starting with a hello.
    EXPECT_TRUE(wait_until([&] { return ashling.hellos_answered() > 0 && bramwell.hellos_answered() > 0; }));

    // In batches, each waited for: a UDP receive buffer may drop a burst, and a lost datagram
    // must be the road's fault, not the sender's haste.
    const std::uint32_t frames = 300, batch = 20;
    for (std::uint32_t sent = 0; sent < frames; sent += batch) {
        ashling.send_numbered(to_bramwell, batch);
        bramwell.send_numbered(to_ashling, batch);
        ASSERT_TRUE(wait_until([&] { return all_arrived(ashling, bramwell) && all_arrived(bramwell, ashling); }))
            << "after " << sent << " each way";
    }
    for (auto [to, from] : {std::pair{&ashling, &bramwell}, std::pair{&bramwell, &ashling}}) {
        sim::Received got = to->received_from(from->online_id());
        EXPECT_EQ(got.in_order, frames) << to->online_id();
        EXPECT_EQ(got.damaged, 0u) << to->online_id();
    }

    std::string error;
    ASSERT_TRUE(bramwell.leave_room(&error)) << error;
    auto left = ashling.next_event();
    ASSERT_TRUE(left && left->member);
    EXPECT_EQ(left->code, sim::kMemberLeft);
    EXPECT_EQ(left->reason, 1u);
    EXPECT_EQ(left->member->online_id, "bramwell");
    EXPECT_TRUE(ashling.peers().empty());
    EXPECT_EQ(court.matching.room_members(room).size(), 1u);
}

TEST_F(Road, TheEventPumpOutlivesAServiceThatGoesAwayAndComesBack) {
    LogCapture log;
    std::uint64_t room = meet();
    ASSERT_NE(room, 0u);
    std::string west_token = stored_token("west", "ashling");
    std::string east_token = stored_token("east", "bramwell");
    ASSERT_FALSE(west_token.empty());
    ASSERT_FALSE(east_token.empty());
    int port = service.port;
    service.stop();
    // Each pump's first failure is retried at once without a word; the second is logged and
    // starts a back-off, which is when the service comes back here.
    const std::string second_failure = "event poll failed (2 in a row): /np/events/poll: ";
    ASSERT_TRUE(wait_until([&] { return log.count_containing(second_failure) >= 2; })) << "both pumps back off";

    // The same service, with the same accounts and rooms, on the same port.
    std::string error;
    ASSERT_TRUE(serve(port, &error)) << error;
    ASSERT_TRUE(bramwell.leave_room(&error)) << error;
    auto left = ashling.next_event(10.0);
    ASSERT_TRUE(left && left->member) << "the pump polls again after its back-off";
    EXPECT_EQ(left->code, sim::kMemberLeft);
    EXPECT_EQ(left->member->online_id, "bramwell");
    EXPECT_TRUE(ashling.peers().empty());

    EXPECT_EQ(stored_token("west", "ashling"), west_token);
    EXPECT_EQ(stored_token("east", "bramwell"), east_token);
    EXPECT_FALSE(log.contains("refused; recovering"));
}

}  // namespace

// The player's view of the demo: the status page in a real browser, with no driver, while the
// two players are in their room. It leaves its screenshot beside the test program.
TEST_F(Road, TheStatusPageShowsTheRoomAndThePeerInABrowser) {
    if (running_under_wine()) GTEST_SKIP() << "headless Chromium runs on the Linux side only";
    std::filesystem::path chromium = find_program("chromium");
    if (chromium.empty()) GTEST_SKIP() << "chromium is not installed";
    ASSERT_NE(meet(), 0u);
    sim::Member to_bramwell = peer_of(ashling);
    sim::Member to_ashling = peer_of(bramwell);
    ashling.send_numbered(to_bramwell, 20);
    bramwell.send_numbered(to_ashling, 20);
    ASSERT_TRUE(wait_until([&] { return all_arrived(ashling, bramwell) && all_arrived(bramwell, ashling); }));

    const std::string page = "http://127.0.0.1:" + std::to_string(west->bound_webapi_port()) + "/sarnlink/";
    http::ClientResponse status = http::fetch(http::ClientRequest{"GET", page + "status.json", {}, ""});
    auto s = json::parse(status.body, nullptr, false);
    ASSERT_EQ(s["peers"].size(), 1u) << status.body;
    EXPECT_EQ(s["peers"][0]["name"], "bramwell");
    EXPECT_EQ(s["peers"][0]["route"], "LAN");  // both players live on this machine
    EXPECT_GE(s["peers"][0]["to_peer"].get<int>(), 20);
    EXPECT_GE(s["peers"][0]["to_port"].get<int>(), 20);
    EXPECT_EQ(s["service"]["reachable"], true);
    EXPECT_FALSE(s["gateway"]["mapped"].is_null());

    // Virtual time lets the page's first refresh finish before the DOM is taken.
    auto browse = [&](const std::vector<std::string>& what) {
        std::vector<std::string> args{"--headless", "--no-sandbox", "--disable-gpu", "--disable-quic",
                                      "--no-first-run", "--disable-background-networking",
                                      "--disable-component-update", "--disable-sync", "--hide-scrollbars",
                                      "--user-data-dir=" + (dir.path() / "chromium").string(),
                                      "--virtual-time-budget=3000"};
        args.insert(args.end(), what.begin(), what.end());
        args.push_back(page);
        return run_process(chromium, args, dir.path(), {}, 90.0);
    };
    ProcessResult dom = browse({"--dump-dom"});
    ASSERT_EQ(dom.exit_code, 0) << dom.output;
    for (const char* text : {"ashling", "bramwell", ">LAN<", ">reachable<", "Room ", "last heard", "seen from outside"})
        EXPECT_NE(dom.output.find(text), std::string::npos) << text << "\n" << dom.output;
    // The refresh succeeded, so the warning stays hidden.
    EXPECT_NE(dom.output.find(R"(id="stale" style="display: none;")"), std::string::npos) << dom.output;

    const std::filesystem::path shot = dir.path() / "status_page.png";
    ProcessResult png = browse({"--screenshot=" + shot.string(), "--window-size=1100,720"});
    ASSERT_EQ(png.exit_code, 0) << png.output;
    ASSERT_EQ(read_file(shot).substr(0, 4), "\x89PNG");
    std::error_code ignored;
    std::filesystem::copy_file(shot, "road_status_page.png", std::filesystem::copy_options::overwrite_existing, ignored);
}
