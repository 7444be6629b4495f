#include <memory>
#include <mutex>
#include <vector>

#include "bridge/bridge.h"
#include "bridge/session.h"

namespace zq {

Bridge::Credentials Bridge::current_credentials() {
    // Walk a copy: a session is never touched under sessions_lock.
    std::vector<std::shared_ptr<Session>> live;
    {
        std::lock_guard<std::mutex> guard(sessions_lock);
        live = sessions;
    }
    for (const auto& session : live) {
        if (!session->logged_in) continue;
        std::string token;
        {
            std::lock_guard<std::mutex> guard(session->credentials_lock);
            token = session->token;
        }
        if (!token.empty()) return Credentials{token, session->ruleset};
    }
    return {};
}

}  // namespace zq
