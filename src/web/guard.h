#pragma once
// Who may use the local web API and the game proxies. They add the player's token to what they
// forward, and anything on the machine can reach them: a web page in the player's browser
// (directly, or through a name that it points at 127.0.0.1), or a peer on the network when
// bind_host is not the loopback. The game's own client sends neither Origin nor Sec-Fetch-*,
// and names the loopback or one of the deployment's hosts in Host. Pure.

#include <cstddef>
#include <string>
#include <string_view>

#include "http/server.h"

namespace zq::web {

// How much of a stranger's text (a method, a path, a Host) a log line shows.
inline constexpr std::size_t stranger_text_limit = 80;

// Why the request is not taken as the game's own, or "" when it may pass:
//   "browser page"  it carries Origin, or Sec-Fetch-* that a page's request carries (a request
//                   that the user typed into the address bar, Sec-Fetch-Site "none", passes)
//   "host <value>"  a Host that is none of the loopback, localhost, bind_host or the
//                   deployment's hosts (a rebound name). A request without Host passes.
std::string foreign_caller(const http::ServerRequest& request, const std::string& bind_host);

// Whether a dotted IPv4 text lies in 127.0.0.0/8.
bool is_loopback_ipv4(std::string_view text);

// Whether a Host value (name or address, with or without a port) names this PC: an address in
// 127.0.0.0/8, localhost or [::1]. A port that is not a number fails.
bool loopback_host(std::string_view host);

// Whether a Host value (name or address, with or without a port) is one the game may use.
bool allowed_host(std::string_view host, const std::string& bind_host);

// Whether a request target can only name a path on the upstream that it is joined to: it
// begins with '/', is not "//..." and holds no '@', '\' or control character, so that no client
// reads a user name, another host or a scheme into base URL + target.
bool safe_target(std::string_view target);

// Whether the path has a segment "." or ".." (also percent-encoded), which a client resolves
// before sending, so that the call reaches a path other than the one it was led to.
bool has_dot_segment(std::string_view path);

}  // namespace zq::web
