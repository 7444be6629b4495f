#pragma once
// What the web API, the proxies and the status page need of the program that runs them, and
// no more: copies taken as of the call, so that no handler ever waits on a game's command.

#include <map>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "p2p/gateway.h"
#include "shell/config.h"
#include "shell/session_status.h"
#include "shell/util.h"

namespace zq::web {

// The token and ruleset that the proxies add: the first logged-in session's that holds a token,
// or two empty texts.
struct Credentials {
    std::string token;
    std::string ruleset;
};

// The ports actually held, which differ from the settings when those ask for port 0.
struct Ports {
    int tcp = 0;
    int udp = 0;
    int webapi = 0;
};

class Host {
public:
    virtual ~Host() = default;
    virtual const Config& config() const = 0;
    virtual Credentials credentials() = 0;
    // The last summon advertisement that held a SessionId; null before one.
    virtual nlohmann::json advertisement() = 0;
    virtual void set_advertisement(const nlohmann::json& advertisement) = 0;
    // Online id -> where its STUN ping last came from.
    virtual std::map<std::string, Endpoint> stun_table() = 0;
    virtual std::vector<SessionStatus> session_rows() = 0;
    // Null when the gateway is off; it guards its own state.
    virtual p2p::Gateway* gateway() = 0;
    virtual Ports ports() = 0;
};

}  // namespace zq::web
