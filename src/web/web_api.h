#pragma once
// The handler of the local web API server that the Bridge runs on webapi_port.

#include "http/server.h"

namespace zq {

class Bridge;

// Answers one request of the game's web API; runs on the server's connection threads.
http::ServerResponse web_api_handler(Bridge& bridge, const http::ServerRequest& request);

}  // namespace zq
