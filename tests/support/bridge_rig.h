#pragma once
// One running program (or a few, for players on other PCs) before a fake remote service, with
// the log captured and a temporary folder for the state file; games connect and log in by name.
//
// When the rig goes, it checks that no token or recovery code that the service handed out
// during the test reached any log line.

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/app.h"
#include "bridge/frames.h"
#include "bridge/session.h"
#include "http/fetch.h"
#include "http/raw_client.h"
#include "player/sim_player.h"
#include "shell/platform.h"
#include "support/bridge_config.h"
#include "support/fake_accounts.h"
#include "support/fake_game.h"
#include "support/fake_matching.h"
#include "support/fake_service.h"
#include "support/host.h"
#include "support/log_capture.h"
#include "support/prelude.h"
#include "support/process.h"

namespace testing_support {

class BridgeRig {
public:
    // Stateful: the account store and the matching answer their paths. Scripted: nothing but
    // what the test scripts (and 404 for the rest).
    enum class Service { Stateful, Scripted };

    explicit BridgeRig(Service kind = Service::Stateful);
    ~BridgeRig();
    BridgeRig(const BridgeRig&) = delete;
    BridgeRig& operator=(const BridgeRig&) = delete;

    // Starts a program on `config`, or returns null with a failure recorded. Those after the
    // first keep a state file of their own unless the test chose one.
    zq::App* start();
    zq::App& bridge() { return *bridges.at(0); }

    // A greeted game on the bridge (the first unless `on`); with a name it has logged in as
    // that name, without one its first Request has made it a session.
    FakeGame& game(const std::string& name = "", zq::App* on = nullptr);
    // The newest session of the bridge.
    std::shared_ptr<zq::Session> last_session(zq::App* on = nullptr);

    std::filesystem::path state() const { return dir.path() / "state.json"; }
    std::string web_url() { return "http://127.0.0.1:" + std::to_string(bridge().bound_webapi_port()); }
    std::string proxy_url(std::size_t index = 0) {
        return "http://127.0.0.1:" + std::to_string(bridge().bound_game_proxy_ports().at(index));
    }

    TempDir dir;
    LogCapture log;
    FakeService service;
    std::optional<FakeAccounts> accounts;
    std::optional<FakeMatching> matching;
    // Ports of the system's choice, no gateway, no game proxies, STUN off, the service as every
    // remote server, accounts made at first login, and a pump that polls at once.
    zq::Config config;
    std::vector<std::unique_ptr<zq::App>> bridges;
    std::vector<std::unique_ptr<FakeGame>> games;
};

// The fields of a reply's or a notification's length-prefixed message; empty when it has none.
zq::FieldList fields_of(const std::string& payload);

http::ClientResponse send(const std::string& method, const std::string& url, const std::string& body = "",
                          http::HeaderList headers = {});
// The body of an answer as JSON; discarded (is_discarded()) when it is none.
inline json body_of(const http::ClientResponse& r) { return json::parse(r.body, nullptr, false); }
// One request written by hand and its answer, on a connection of its own.
http_test::RawResponse exchange(int port, const std::string& request);

}  // namespace testing_support
