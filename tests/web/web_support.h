#pragma once
// What the web endpoint tests share: a bridge on free ports in front of a fake remote service,
// logged-in game sessions, and the two HTTP clients that the game's side is tested with.

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

// process.h first: it declares wait_until with its default before wait.h defines it.
#include "support/process.h"

#include "bridge/bridge.h"
#include "bridge/session.h"
#include "http/fetch.h"
#include "shell/net.h"
#include "support/fake_game.h"
#include "support/fake_service.h"
#include "support/host.h"

namespace web_test {

inline zq::Config bridge_config(const std::string& service_url) {
    zq::Config c;
    c.tcp_port = 0;
    c.udp_port = 0;
    c.webapi_port = 0;
    c.p2p_gateway = false;
    c.community_server = service_url;
    c.velmar_server = service_url;
    c.game_proxy_routes.clear();
    return c;
}

// A port that nobody listens on: bound for a moment by the system's choice, then let go.
inline int closed_port() {
    zq::network_init();
    zq::Socket s = zq::open_tcp_socket();
    zq::bind_socket(s, zq::to_sockaddr(zq::Endpoint{"127.0.0.1", 0}));
    zq::SockAddr bound;
    zq::local_address(s, &bound);
    zq::close_socket(s);
    return zq::from_sockaddr(bound).port;
}

struct RunningBridge {
    explicit RunningBridge(zq::Config c) : bridge(std::move(c)) {
        std::string error;
        started = bridge.start(&error);
        EXPECT_TRUE(started) << error;
    }
    std::string web_url() const { return "http://127.0.0.1:" + std::to_string(bridge.bound_webapi_port()); }
    std::string proxy_url(std::size_t index = 0) const {
        auto ports = bridge.bound_game_proxy_ports();
        return index < ports.size() ? "http://127.0.0.1:" + std::to_string(ports[index]) : std::string();
    }

    // A game connection whose first Request has made it a live session.
    std::shared_ptr<zq::Session> connect_game() {
        auto game = std::make_unique<testing_support::FakeGame>();
        EXPECT_TRUE(game->connect_and_greet(bridge.bound_tcp_port()));
        EXPECT_TRUE(game->request(8, 1, ""));
        games.push_back(std::move(game));
        std::lock_guard<std::mutex> guard(bridge.sessions_lock);
        return bridge.sessions.empty() ? nullptr : bridge.sessions.back();
    }
    // Login's outcome, without the account round trip that login itself makes.
    static void sign_in(zq::Session& session, const std::string& token) {
        session.set_credentials(token, "upstream-name");
        session.logged_in = true;
    }

    zq::Bridge bridge;
    bool started = false;
    std::vector<std::unique_ptr<testing_support::FakeGame>> games;
};

inline http::ClientResponse send(const std::string& method, const std::string& url, const std::string& body = "",
                                 http::HeaderList headers = {}) {
    http::ClientRequest request;
    request.method = method;
    request.url = url;
    request.body = body;
    request.headers = std::move(headers);
    return http::fetch(request);
}

// curl exists on the Linux side only; the caller skips by name under Wine.
inline testing_support::ProcessResult curl(std::vector<std::string> args) {
    args.insert(args.begin(), {"-s", "-S", "--max-time", "20"});
    return testing_support::run_process(testing_support::find_program("curl"), args,
                                        std::filesystem::current_path());
}

#define SKIP_CURL_UNDER_WINE()                                                       \
    if (testing_support::running_under_wine() || testing_support::find_program("curl").empty()) \
    GTEST_SKIP() << "the curl command line exists on the Linux side only"

}  // namespace web_test
