// Many games and many HTTP clients on one bridge at once, with the remote service faked on the
// loopback: every reply must reach the request it answers, and once the load is gone the bridge
// must hold no more threads and not much more memory than before it came.

#include <cstdio>
#include <functional>
#include <map>
#include <thread>

#include "bridge/login.h"
#include "support/bridge_rig.h"

namespace {

std::string player_name(int i) { return "player" + std::to_string(i); }

// Collects what went wrong on the client threads; gtest assertions stay on the test's thread,
// which reads the text once the client threads are joined.
struct Faults {
    void add(const std::string& what) {
        std::lock_guard<std::mutex> guard(lock);
        if (++count <= 20) text += what + "\n";
    }
    std::mutex lock;
    int count = 0;
    std::string text;  // the first 20
};

void run_threads(int count, const std::function<void(int)>& body) {
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) threads.emplace_back(body, i);
    for (auto& t : threads) t.join();
}

class BridgeLoad : public ::testing::Test {
protected:
    static constexpr int kPlayers = 32;

    void SetUp() override {
        // Any other path is the game server behind the proxy: it answers with what it was asked.
        service.set_fallback([](const RecordedRequest& r) -> std::optional<ScriptedAnswer> {
            return ScriptedAnswer::text(200, r.method + " " + r.path + " " + r.body);
        });
        // Every player already has an account on this PC, so a login is one token check upstream.
        json accounts = json::object();
        for (int i = 0; i < kPlayers; ++i)
            accounts[player_name(i)] = {{"token", store.add(player_name(i)).token}, {"online_id", player_name(i)}};
        write_file(rig.state(), json{{"accounts", accounts}}.dump());
        rig.config.game_proxy_routes = {{0, service.base_url()}};
        ASSERT_TRUE(bridge = rig.start());
    }

    // Each game logs in and sends its commands in pipelined rounds, without waiting for a reply
    // in between; the replies are matched to the requests by PacketId alone.
    void run_games(int players, int rounds, Faults& faults) {
        // Connected one after another: the listener's backlog is 8, and a burst of connects
        // beyond it waits for the system's retransmission, a second or more each.
        std::vector<std::unique_ptr<FakeGame>> games;
        for (int i = 0; i < players; ++i) {
            games.push_back(std::make_unique<FakeGame>());
            if (!games.back()->connect_and_greet(bridge->bound_tcp_port())) faults.add(player_name(i) + ": no hello");
        }
        run_threads(players, [&](int i) {
            FakeGame& game = *games[i];
            const std::uint64_t account = zq::stable_account_id(player_name(i));
            struct Expected {
                std::uint16_t command;
                int code;
                std::string payload;
            };
            std::map<std::uint64_t, Expected> pending;
            auto send = [&](std::uint64_t packet, std::uint16_t command, const std::string& body, Expected expected) {
                pending[packet] = std::move(expected);
                if (!game.send_request(command, packet, body)) faults.add(player_name(i) + ": send failed");
            };
            std::string pipeline;
            for (int round = 0; round < rounds; ++round) {
                // Packet ids that neither count up nor start at 0, unique within the connection.
                const std::uint64_t base = (static_cast<std::uint64_t>(i + 1) << 40) ^ (0x9E3779B97F4A7C15ull * (round + 1));
                if (round == 0)
                    send(base, 0, zq::wrap_message(zq::FieldMessage().string(1, player_name(i)).string(4, "DH").bytes()),
                         {0, zq::ResultOk, zq::wrap_message(zq::FieldMessage().number(2, account).bytes())});
                // Never 0: a reply leaves out a field that is 0.
                const std::uint64_t value = static_cast<std::uint64_t>(i) * 1000 + round + 1;
                send(base + 1, 108, zq::wrap_message(zq::FieldMessage().number(2, value).bytes()),
                     {108, zq::ResultOk, zq::wrap_message(zq::FieldMessage().number(1, value).bytes())});
                send(base + 2, 39, "",
                     {39, zq::ResultOk,
                      zq::wrap_message(zq::FieldMessage()
                                           .string(1, store.get(player_name(i)).token)
                                           .number(2, account)
                                           .string(3, player_name(i))
                                           .bytes())});
                send(base + 3, 103, zq::wrap_message(zq::FieldMessage().number(1, value + 7).bytes()),
                     {103, zq::ResultOk, zq::wrap_message(zq::FieldMessage().number(1, value + 7).bytes())});
                send(base + 4, 12, "", {12, zq::ResultOk, std::string("\x02\x00\x00\x00\x08\x01", 6)});
                send(base + 5, 104, "", {104, zq::ResultOk, std::string(4, '\0')});
                send(base + 6, 9, "junk", {9, zq::ResultOk, ""});
                send(base + 7, 2, "", {2, zq::Unsupported, ""});
            }
            while (!pending.empty()) {
                std::optional<GameFrame> reply = game.read_frame(20.0);
                if (!reply) return faults.add(player_name(i) + ": " + std::to_string(pending.size()) + " replies missing");
                if (reply->kind != 1) continue;
                auto it = pending.find(reply->packet_id);
                if (it == pending.end()) {
                    faults.add(player_name(i) + ": reply to an unknown packet " + std::to_string(reply->packet_id));
                    continue;
                }
                if (reply->command != it->second.command || reply->result() != it->second.code ||
                    reply->payload() != it->second.payload)
                    faults.add(player_name(i) + ": wrong reply to command " + std::to_string(it->second.command));
                pending.erase(it);
            }
            auto bye = game.request(1, 1, "");
            if (!bye || bye->result() != zq::ResultOk || !game.wait_closed())
                faults.add(player_name(i) + ": logout did not close");
        });
    }

    // Each client alternates between the web API's status and the game proxy, each call on a
    // connection of its own that it closes after the answer; every answer must be the one for
    // its own request.
    void run_http(int clients, int calls, Faults& faults) {
        const std::string web = "http://127.0.0.1:" + std::to_string(bridge->bound_webapi_port());
        const std::string proxy = "http://127.0.0.1:" + std::to_string(bridge->bound_game_proxy_ports().at(0));
        const http::HeaderList close = {{"Connection", "close"}};
        run_threads(clients, [&](int i) {
            for (int n = 0; n < calls; ++n) {
                if (n % 2 == 0) {
                    auto r = http::fetch(http::ClientRequest{"GET", web + "/status", close, ""});
                    json body = json::parse(r.body, nullptr, false);
                    if (r.status != 200 || !body.is_object() || body.value("bridge", "") != "sarnlink")
                        faults.add("status " + std::to_string(r.status) + " " + r.error);
                } else {
                    const std::string target = "/game/" + std::to_string(i) + "?call=" + std::to_string(n);
                    const std::string sent = "body of " + std::to_string(i) + "." + std::to_string(n);
                    auto r = http::fetch(http::ClientRequest{"POST", proxy + target, close, sent});
                    if (r.status != 200 || r.body != "POST " + target + " " + sent)
                        faults.add("proxy " + target + ": " + std::to_string(r.status) + " " + r.error + " " + r.body);
                }
            }
        });
    }

    BridgeRig rig;
    FakeService& service = rig.service;
    FakeAccounts& store = *rig.accounts;
    zq::App* bridge = nullptr;
};

// Games that pipeline their commands and HTTP clients at once, twice over: every answer finds
// its request, and the threads and memory come back afterwards.
TEST_F(BridgeLoad, ThreadsAndMemoryComeBackAfterTheLoad) {
    // The stand-in of the service runs in this process too: its connection threads (one for
    // each connection that the bridge's HTTP client keeps open to it) are not the bridge's.
    auto bridge_threads = [&] { return zq::process_usage().threads - service.open_connections(); };
    auto settled = [&](int threads, double seconds) {
        return wait_until([&] { return bridge_threads() == threads; }, seconds);
    };

    const int before_warm_up = bridge_threads();
    ASSERT_GT(before_warm_up, 0);
    Faults faults;
    run_games(2, 1, faults);
    run_http(2, 2, faults);
    ASSERT_TRUE(wait_until([&] { return !rig.last_session(); }));
    // A system may keep what a first use started (a thread pool, say): that is counted in.
    if (!settled(before_warm_up, 3.0)) std::fprintf(stderr, "kept after the first use: %d threads\n", bridge_threads() - before_warm_up);
    const int start_threads = bridge_threads();
    const std::uint64_t start_memory = zq::process_usage().memory_bytes;

    for (int pass = 0; pass < 2; ++pass) {
        std::thread games([&] { run_games(kPlayers, 2, faults); });
        run_http(16, 6, faults);
        games.join();
    }
    ASSERT_EQ(faults.text, "");
    ASSERT_TRUE(wait_until([&] { return !rig.last_session(); }));
    // One token check for each login, and nothing written: the stored tokens all held.
    EXPECT_EQ(service.requests_to("/np/signaling/resolve").size(), 2u + 2 * kPlayers);

    // Connection threads end on their own once their sockets close; none may stay behind. Under
    // Wine the runtime's own pool threads (which its HTTP client uses) come and go on timers of
    // their own, so there the count need only come down to the start, not meet it.
    const bool wine = running_under_wine();
    EXPECT_TRUE(wine ? wait_until([&] { return bridge_threads() <= start_threads; }, 10.0) : settled(start_threads, 10.0))
        << "threads: " << start_threads << " before, " << bridge_threads() << " after";
    // Allocators keep pages they were given, so only growth far beyond the load's own size counts.
    // A sanitizer's shadow memory grows with the load's, so there only the threads are checked.
    if (sanitizer_build()) return;
    const std::uint64_t end_memory = zq::process_usage().memory_bytes;
    EXPECT_LT(end_memory, start_memory + (48ull << 20))
        << "memory: " << (start_memory >> 10) << " KiB before, " << (end_memory >> 10) << " KiB after";
}

}  // namespace
