#pragma once
// The game proxy: a route-free reverse proxy from a local port to one upstream base URL. What
// comes in goes out, minus the hop-by-hop headers, plus the account's token.

#include <set>
#include <string>

#include "http/server.h"
#include "web/host.h"

namespace zq {

// Lower-case header names that are never passed on, in either direction. Besides the real
// hop-by-hop headers it holds host, content-length and accept-encoding on purpose: the client
// sets the first two itself, and nothing here undoes a content coding.
extern const std::set<std::string> hop_by_hop_headers;

// Forwards one request to base_url followed by the request's path and query.
http::ServerResponse game_proxy_handler(web::Host& host, const std::string& base_url,
                                        const http::ServerRequest& request);

}  // namespace zq
