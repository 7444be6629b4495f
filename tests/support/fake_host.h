#pragma once
// The web's host with nothing behind it: what the web API, the proxies and the status page read
// of the program is whatever the test sets here, and their handlers are called directly, as the
// server's connection threads would call them. One thread at a time.

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "http/server.h"
#include "support/bridge_config.h"
#include "support/prelude.h"
#include "web/game_proxy.h"
#include "web/host.h"
#include "web/web_api.h"

namespace testing_support {

struct FakeHost : zq::web::Host {
    zq::Config settings = local_bridge_config();
    zq::web::Credentials signed_in;
    json advert;
    std::map<std::string, zq::Endpoint> stun;
    std::vector<zq::SessionStatus> rows;
    zq::p2p::Gateway* gate = nullptr;
    zq::web::Ports bound{31313, 31314, 31315};

    const zq::Config& config() const override { return settings; }
    zq::web::Credentials credentials() override { return signed_in; }
    json advertisement() override { return advert; }
    void set_advertisement(const json& advertisement) override { advert = advertisement; }
    std::map<std::string, zq::Endpoint> stun_table() override { return stun; }
    std::vector<zq::SessionStatus> session_rows() override { return rows; }
    zq::p2p::Gateway* gateway() override { return gate; }
    zq::web::Ports ports() override { return bound; }

    // A request from a program on this PC, as the server hands it over; it names this PC in
    // Host unless the test names another.
    static http::ServerRequest request(const std::string& method, const std::string& target,
                                       const std::string& body = "", http::HeaderList headers = {}) {
        if (http::find_header(headers, "Host").empty()) headers.insert(headers.begin(), {"Host", "127.0.0.1:31315"});
        http::ServerRequest r{method, target, std::move(headers), body};
        r.cancel = std::make_shared<http::CancelFlag>();
        r.peer = zq::Endpoint{"127.0.0.1", 50000};
        r.from_this_pc = true;
        return r;
    }
    http::ServerResponse web(const std::string& method, const std::string& target, const std::string& body = "",
                             http::HeaderList headers = {}) {
        return zq::web_api_handler(*this, request(method, target, body, std::move(headers)));
    }
    http::ServerResponse proxy(const std::string& base_url, const std::string& method, const std::string& target,
                               const std::string& body = "", http::HeaderList headers = {}) {
        return zq::game_proxy_handler(*this, base_url, request(method, target, body, std::move(headers)));
    }
};

inline json body_of(const http::ServerResponse& r) { return json::parse(r.body, nullptr, false); }

}  // namespace testing_support
