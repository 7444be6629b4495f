#pragma once
// The stand-in of The Ember Court for development and tests: accounts, matching with its event
// queues, summon advertisements, and a few development routes under /standin/. It answers on
// the project's own http::Server; its STUN and relay server is the separate StunRelayServer.

#include <map>
#include <mutex>
#include <string>

#include "http/server.h"
#include "standin/accounts.h"
#include "standin/call.h"
#include "standin/matching.h"

namespace standin {

class EmberCourt {
public:
    EmberCourt();
    EmberCourt(const EmberCourt&) = delete;
    EmberCourt& operator=(const EmberCourt&) = delete;

    // Every path of the service; 404 with an empty object for what it does not know.
    Answer serve(const Call& call);
    // The same over HTTP: the body is read as JSON, the token from X-ZQ-Token.
    http::ServerResponse handle(const http::ServerRequest& request);

    // The advertisements by SessionId, as /summon_messenger/create left them.
    nlohmann::json advertisements() const;

    Accounts accounts;
    Matching matching;

private:
    Answer summon(const Call& call);
    Answer development(const Call& call);

    mutable std::mutex summons_lock;  // guards adverts
    std::map<std::string, nlohmann::json> adverts;
};

}  // namespace standin
