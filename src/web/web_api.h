#pragma once
// The handler of the local web API server that the Bridge runs on webapi_port: a status probe,
// three debug routes behind debug_endpoints, fixed empty answers to the game's social queries,
// and the summon traffic, which goes on to the summon proxy. Anything else is a logged 404.

#include "http/server.h"
#include "web/host.h"

namespace zq {

// Answers one request of the game's web API; runs on the server's connection threads.
http::ServerResponse web_api_handler(web::Host& host, const http::ServerRequest& request);

}  // namespace zq
