#pragma once
// The player's view of the running bridge: one self-contained HTML page under /sarnlink/ and the
// JSON it refreshes from, /sarnlink/status.json. Only a browser on this PC gets an answer, and
// nothing on it is a secret: names, addresses and counts, never a token or a recovery code.

#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "http/server.h"
#include "web/host.h"

namespace zq {

// True for the paths that belong to the status page ("/sarnlink" and below).
bool is_status_page_path(std::string_view path);

// Whether a request comes from this PC and names it: a loopback caller, a loopback Host, no
// Origin but a loopback one, and no Sec-Fetch-Site but "same-origin" or "none". A web page
// elsewhere that a browser here is tricked into asking fails one of these.
bool status_page_caller_allowed(const http::ServerRequest& request);

// Serves the page, its JSON, or a refusal; path is the request's path without its query.
http::ServerResponse status_page_handler(web::Host& host, const http::ServerRequest& request, const std::string& path);

// What the JSON route answers, as of now (steady seconds).
nlohmann::ordered_json status_snapshot(web::Host& host, double now);

// The page itself.
std::string_view status_page_html();

}  // namespace zq
