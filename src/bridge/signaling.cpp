// The game's question for a peer's address (CmdResolvePeer).
#include "bridge/frames.h"
#include "bridge/session.h"
#include "http/upstream_error.h"

namespace zq {

CommandResult Session::cmd_resolve_peer(std::string_view body) {
    auto fields = read_request(body);
    if (!fields) return CommandResult{ResultBadPayload, std::string()};
    throw BridgeError("/np/signaling/resolve: matching service not connected");
}

}  // namespace zq
