// The command round trip as the game feels it: a Request out, its Reply back, over the loopback
// against a bridge whose remote service is the tests' stand-in. One connection and many; one
// request at a time and a window of pipelined ones; and the login, which asks the service.
// The anchor, measured in the same run by the same client: a bare TCP server that answers each
// frame with a reply of the bridge's size, so the ratio is what the bridge adds over the loopback.

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "app/app.h"
#include "bridge/frames.h"
#include "measure.h"
#include "shell/net.h"
#include "shell/platform.h"
#include "support/fake_accounts.h"
#include "support/fake_game.h"
#include "support/fake_service.h"
#include "support/files.h"
#include "support/process.h"

namespace {

using testing_support::FakeGame;

constexpr double kSeconds = 2.0;
constexpr int kMaxGames = 32;

// Greets like the bridge, then answers every frame with a Reply of the size the echo command
// gives, by plain blocking reads and one send: the floor of a command round trip.
class EchoServer {
public:
    EchoServer() {
        zq::network_init();
        listener_ = zq::open_tcp_socket();
        zq::bind_socket(listener_, zq::to_sockaddr(zq::Endpoint{"127.0.0.1", 0}));
        zq::listen_socket(listener_, 8);
        port = zq::bound_endpoint(listener_).port;
        thread_ = std::thread([this] { serve(); });
    }
    ~EchoServer() {
        zq::shutdown_socket(listener_);
        if (client_ != zq::invalid_socket) zq::shutdown_socket(client_);
        thread_.join();
        zq::close_socket(listener_);
        zq::close_socket(client_);
    }
    int port = 0;

private:
    static bool read_all(zq::Socket s, char* into, std::size_t size) {
        for (std::size_t got = 0; got < size;) {
            int n = zq::recv_some(s, into + got, static_cast<int>(size - got));
            if (n < 1) return false;
            got += static_cast<std::size_t>(n);
        }
        return true;
    }
    void serve() {
        client_ = zq::accept_socket(listener_);
        if (client_ == zq::invalid_socket) return;
        zq::set_tcp_nodelay(client_);
        const std::string hello = zq::hello_frame();
        if (!zq::send_all(client_, hello)) return;
        char head[zq::header_size];
        std::string body, reply;
        while (read_all(client_, head, sizeof head)) {
            const zq::CommandHeader h = zq::parse_header(reinterpret_cast<const unsigned char*>(head));
            if (!h.size_ok()) return;
            body.resize(h.body_size());
            if (!read_all(client_, body.data(), body.size())) return;
            // The bridge's answer to the echo is a result byte, then a message of the request's
            // own size (field 1 for field 2).
            reply = zq::build_frame(zq::FrameKind::Reply, h.command, h.packet_id, "\0" + body);
            if (!zq::send_all(client_, reply)) return;
        }
    }
    zq::Socket listener_ = zq::invalid_socket;
    zq::Socket client_ = zq::invalid_socket;
    std::thread thread_;
};

std::string name_of(int i) { return "bench" + std::to_string(i); }

std::string echo_body(std::uint64_t value) { return zq::wrap_message(zq::FieldMessage().number(2, value).bytes()); }

bool login(FakeGame& game, int i) {
    auto reply = game.request(0, 1, zq::wrap_message(zq::FieldMessage().string(1, name_of(i)).bytes()));
    return reply && reply->result() == 0;
}

// Sequential round trips on each of `games` connections at once, for kSeconds.
// Returns the median round trip in seconds.
double round_trips(std::vector<std::unique_ptr<FakeGame>>& all, int games, const std::string& label = "") {
    std::vector<std::vector<double>> samples(games);
    std::atomic<bool> failed{false};
    std::vector<std::thread> threads;
    const double end = bench::now() + kSeconds;
    for (int g = 0; g < games; ++g)
        threads.emplace_back([&, g] {
            for (std::uint64_t packet = 1; bench::now() < end; ++packet) {
                const double sent = bench::now();
                auto reply = all[g]->request(108, packet, echo_body(packet));
                if (!reply || reply->packet_id != packet) return failed.store(true);
                samples[g].push_back(bench::now() - sent);
            }
        });
    for (auto& t : threads) t.join();
    std::vector<double> merged;
    for (auto& s : samples) merged.insert(merged.end(), s.begin(), s.end());
    if (failed) std::fprintf(stderr, "round trips on %d connections: a reply went missing\n", games);
    const double rate = static_cast<double>(merged.size()) / kSeconds;
    const double median = bench::percentile_us(merged, 50) / 1e6;
    bench::report(label.empty() ? "round trips, " + std::to_string(games) + " connection(s), one at a time" : label,
                  rate, merged);
    return median;
}

// One connection that keeps `window` requests in flight.
void pipelined(FakeGame& game, int window) {
    std::uint64_t sent = 0, answered = 0;
    const double end = bench::now() + kSeconds;
    while (bench::now() < end) {
        while (sent - answered < static_cast<std::uint64_t>(window)) game.send_request(108, ++sent, echo_body(sent));
        auto reply = game.read_frame(5.0);
        if (!reply) {
            std::fprintf(stderr, "pipelined: a reply went missing\n");
            return;
        }
        answered += reply->kind == 1;
    }
    while (answered < sent && game.read_frame(5.0)) ++answered;
    bench::report("round trips, 1 connection, " + std::to_string(window) + " in flight",
                  static_cast<double>(answered) / kSeconds);
}

}  // namespace

int main() {
    testing_support::TempDir dir;
    testing_support::FakeService service;
    testing_support::FakeAccounts accounts(service);
    if (!service.start()) return 1;
    nlohmann::json records = nlohmann::json::object();
    for (int i = 0; i < kMaxGames; ++i)
        records[name_of(i)] = {{"token", accounts.add(name_of(i)).token}, {"online_id", name_of(i)}};
    testing_support::write_file(dir.path() / "state.json", nlohmann::json{{"accounts", records}}.dump());

    zq::Config c;
    c.tcp_port = c.udp_port = c.webapi_port = 0;
    c.p2p_gateway = false;
    c.velmar_server = c.community_server = service.base_url();
    c.game_proxy_routes.clear();
    c.state_file = zq::wide_to_utf8((dir.path() / "state.json").wstring());
    zq::App bridge(c);
    std::string error;
    if (!bridge.start(&error)) {
        std::fprintf(stderr, "bridge: %s\n", error.c_str());
        return 1;
    }

    std::vector<std::unique_ptr<FakeGame>> games;
    for (int i = 0; i < kMaxGames; ++i) {
        games.push_back(std::make_unique<FakeGame>());
        if (!games.back()->connect_and_greet(bridge.bound_tcp_port()) || !login(*games.back(), i)) {
            std::fprintf(stderr, "game %d could not log in\n", i);
            return 1;
        }
    }

    // A login asks the service to check the stored token: the slowest command a game waits for.
    std::vector<double> logins;
    const double end = bench::now() + kSeconds;
    while (bench::now() < end) {
        const double sent = bench::now();
        if (!login(*games[0], 0)) return 1;
        logins.push_back(bench::now() - sent);
    }
    bench::report("logins (token check upstream), 1 connection", static_cast<double>(logins.size()) / kSeconds, logins);

    // The anchor and the bridge take turns, so that a burst of load elsewhere on the machine
    // falls on both. The ratio is of round trips per second at the median (the mean follows the
    // machine's scheduling stalls more than the program), the better of two runs each.
    double raw = 0, ours = 0;
    for (int turn = 0; turn < 2; ++turn) {
        EchoServer echo;
        std::vector<std::unique_ptr<FakeGame>> raw_game;
        raw_game.push_back(std::make_unique<FakeGame>());
        if (!raw_game.back()->connect_and_greet(echo.port)) return 1;
        raw = std::max(raw, 1 / round_trips(raw_game, 1, "anchor: raw TCP ping-pong, same sizes"));
        ours = std::max(ours, 1 / round_trips(games, 1));
    }
    bench::ratio("command round trip vs raw TCP ping-pong", ours, raw, 0.8);
    for (int n : {8, 32}) round_trips(games, n);
    for (int window : {16, 64}) pipelined(*games[0], window);
    bridge.stop();
    service.stop();
    return 0;
}
