#pragma once
// Shared by the web tests: a bridge on free ports before a fake remote service, live game
// sessions, and the two HTTP clients of the game's side (http::fetch and the curl command line).

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "bridge/bridge.h"
#include "bridge/session.h"
#include "http/fetch.h"
#include "support/bridge_config.h"
#include "support/fake_game.h"
#include "support/fake_service.h"
#include "support/host.h"
#include "support/log_capture.h"
#include "support/ports.h"
#include "support/process.h"

namespace web_test {

using testing_support::local_bridge_config;

using testing_support::closed_port;

struct RunningBridge {
    explicit RunningBridge(zq::Config c) : bridge(std::move(c)) {
        std::string error;
        EXPECT_TRUE(bridge.start(&error)) << error;
    }
    std::string web_url() const { return "http://127.0.0.1:" + std::to_string(bridge.bound_webapi_port()); }
    std::string proxy_url() const {
        auto ports = bridge.bound_game_proxy_ports();
        return ports.empty() ? "" : "http://127.0.0.1:" + std::to_string(ports[0]);
    }
    // A game connection whose first Request has made it a live session; with a token, the
    // session is given what a login would have given it.
    std::shared_ptr<zq::Session> connect_game(const std::string& token = "") {
        games.push_back(std::make_unique<testing_support::FakeGame>());
        EXPECT_TRUE(games.back()->connect_and_greet(bridge.bound_tcp_port()));
        EXPECT_TRUE(games.back()->request(8, 1, ""));
        std::lock_guard<std::mutex> guard(bridge.sessions_lock);
        if (bridge.sessions.empty()) return nullptr;
        if (!token.empty()) {
            bridge.sessions.back()->set_credentials(token, "upstream-name");
            bridge.sessions.back()->logged_in = true;
        }
        return bridge.sessions.back();
    }

    zq::Bridge bridge;
    std::vector<std::unique_ptr<testing_support::FakeGame>> games;
};

inline http::ClientResponse send(const std::string& method, const std::string& url, const std::string& body = "",
                                 http::HeaderList headers = {}) {
    return http::fetch(http::ClientRequest{method, url, std::move(headers), body});
}

inline std::string curl(std::vector<std::string> args) {
    args.insert(args.begin(), {"-s", "-S", "--max-time", "20"});
    return testing_support::run_process(testing_support::find_program("curl"), args, ".").output;
}

}  // namespace web_test
