// The bridge stops promptly while the proxies wait on an upstream that is slow to answer or
// that trickles its answer in, and no proxy thread outlives the servers it belongs to.

#include "web_support.h"

#include <atomic>
#include <thread>

#include "shell/platform.h"
#include "support/wait.h"

using testing_support::FakeService;
using testing_support::ScriptedAnswer;
using web_test::RunningBridge;

namespace {

// Answers every connection with a head that promises a large body, then sends it a byte at a
// time, so that no phase of the client ever times out.
class TrickleServer {
public:
    TrickleServer() {
        zq::network_init();
        listener_ = zq::open_tcp_socket();
        zq::bind_socket(listener_, zq::to_sockaddr(zq::Endpoint{"127.0.0.1", 0}));
        zq::listen_socket(listener_, 8);
        zq::SockAddr bound;
        zq::local_address(listener_, &bound);
        port_ = zq::from_sockaddr(bound).port;
        thread_ = std::thread([this] { serve(); });
    }
    ~TrickleServer() {
        running_ = false;
        zq::shutdown_socket(listener_);
        thread_.join();
        zq::close_socket(listener_);
    }
    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }
    int connections() const { return connections_.load(); }

private:
    void serve() {
        std::vector<bool> ready;
        while (running_) {
            if (zq::wait_readable({listener_}, 100, ready) < 1) continue;
            zq::Socket s = zq::accept_socket(listener_);
            if (s == zq::invalid_socket) continue;
            ++connections_;
            const std::string head = "HTTP/1.1 200 OK\r\nContent-Length: 1000000\r\n\r\n";
            bool alive = zq::send_some(s, head.data(), static_cast<int>(head.size())) > 0;
            while (alive && running_) {
                alive = zq::send_some(s, "x", 1) == 1;
                zq::sleep_ms(100);
            }
            zq::close_socket(s);
        }
    }

    zq::Socket listener_ = zq::invalid_socket;
    int port_ = 0;
    std::atomic<bool> running_{true};
    std::atomic<int> connections_{0};
    std::thread thread_;
};

}  // namespace

TEST(ProxyStop, BridgeStopsPromptlyWithSlowAndTricklingUpstreams) {
    FakeService slow;
    ASSERT_TRUE(slow.start());
    slow.answer("/summon_messenger/list", ScriptedAnswer::delayed(30.0, {{"ResKind", 0}}));
    slow.answer("/slow", ScriptedAnswer::delayed(30.0, {{"ResKind", 0}}));

    TrickleServer trickle;
    zq::Config c = web_test::local_bridge_config(slow.base_url());
    const int second = web_test::closed_port();
    c.game_proxy_routes = {{0, slow.base_url()}, {second, trickle.url()}};
    auto b = std::make_unique<RunningBridge>(c);
    const std::string web = b->web_url();
    const std::string slow_proxy = b->proxy_url();
    const std::string trickle_proxy = "http://127.0.0.1:" + std::to_string(b->bridge.bound_game_proxy_ports().at(1));

    std::vector<std::thread> callers;
    for (const std::string& url : {web + "/summon_messenger/list", slow_proxy + "/slow", trickle_proxy + "/t"})
        callers.emplace_back([url] { web_test::send("POST", url, "{}"); });
    ASSERT_TRUE(slow.wait_for_requests(2, 10.0));
    ASSERT_TRUE(testing_support::wait_until([&] { return trickle.connections() == 1; }));

    const double started = zq::steady_seconds();
    b->bridge.stop();
    EXPECT_LT(zq::steady_seconds() - started, 2.0);
    b.reset();  // the servers go; a thread still running would now touch freed memory
    for (auto& caller : callers) caller.join();
}
