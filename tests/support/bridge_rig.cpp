#include "support/bridge_rig.h"

namespace testing_support {

BridgeRig::BridgeRig(Service kind) {
    EXPECT_TRUE(service.start());
    if (kind == Service::Stateful) {
        accounts.emplace(service);
        matching.emplace(service);
    }
    config = local_bridge_config(service.base_url());
    config.state_file = zq::wide_to_utf8(state().wstring());
    config.create_accounts = true;
    config.stun_server = "off";
    config.local_addr = "192.0.2.10";
    config.poll_interval = 0.02;
}

BridgeRig::~BridgeRig() {
    // A poll held by a delayed answer is cut short before a bridge waits for its pump.
    service.stop();
    for (auto& b : bridges) b->stop();
    for (const std::string& secret : service.issued_secrets())
        EXPECT_FALSE(log.contains(secret)) << "a token or recovery code reached the log: " << secret;
}

zq::App* BridgeRig::start() {
    zq::Config c = config;
    if (!bridges.empty() && c.state_file == zq::wide_to_utf8(state().wstring()))
        c.state_file = zq::wide_to_utf8((dir.path() / ("state" + std::to_string(bridges.size() + 1) + ".json")).wstring());
    auto made = std::make_unique<zq::App>(c);
    std::string error;
    if (!made->start(&error)) {
        ADD_FAILURE() << error;
        return nullptr;
    }
    bridges.push_back(std::move(made));
    return bridges.back().get();
}

FakeGame& BridgeRig::game(const std::string& name, zq::App* on) {
    zq::App& b = on ? *on : bridge();
    games.push_back(std::make_unique<FakeGame>());
    FakeGame& g = *games.back();
    EXPECT_TRUE(g.connect_and_greet(b.bound_tcp_port()));
    auto reply = name.empty() ? g.request(8, 1, "") : g.request(0, 1, login_body(name));
    EXPECT_TRUE(reply && reply->result() == 0) << "login as '" << name << "'";
    return g;
}

std::shared_ptr<zq::Session> BridgeRig::last_session(zq::App* on) {
    const auto sessions = (on ? *on : bridge()).bridge().sessions();
    return sessions.empty() ? nullptr : sessions.back();
}

zq::FieldList fields_of(const std::string& payload) { return zq::read_request(payload).value_or(zq::FieldList{}); }

http::ClientResponse send(const std::string& method, const std::string& url, const std::string& body,
                          http::HeaderList headers) {
    return http::fetch(http::ClientRequest{method, url, std::move(headers), body});
}

http_test::RawResponse exchange(int port, const std::string& request) {
    http_test::RawClient c(port);
    c.send(request);
    return c.read_response();
}

}  // namespace testing_support
