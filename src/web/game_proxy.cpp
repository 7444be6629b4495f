#include "web/game_proxy.h"

#include <array>
#include <cctype>
#include <string>

#include "http/fetch.h"
#include "shell/log.h"
#include "shell/util.h"
#include "web/capture.h"
#include "web/guard.h"
#include "web/paths.h"

namespace zq {

const std::set<std::string> hop_by_hop_headers = {
    "connection", "keep-alive", "proxy-authenticate", "proxy-authorization", "te", "trailers",
    "transfer-encoding", "upgrade", "host", "content-length", "accept-encoding",
};

namespace {

// The calls worth keeping on disk when tracing. Those with a closing '/' stand for families.
constexpr std::array<const char*, 4> capture_prefixes = {
    "/basic_utils/login",
    "/blood_messenger/",
    "/tomb_messenger/",
    "/wandering_ghost/get",
};

std::string lower(std::string text) {
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

bool is_hop_by_hop(const std::string& name) { return hop_by_hop_headers.count(lower(name)) != 0; }

// Headers that the bridge adds itself: a caller's copy must not go out ahead of ours, nor in
// place of one that we leave out.
bool is_own_header(const std::string& lower_name) {
    return lower_name == "x-zq-token" || lower_name == "x-velmar-ruleset";
}

}  // namespace

http::ServerResponse game_proxy_handler(web::Host& host, const std::string& base_url,
                                        const http::ServerRequest& request) {
    const Config& config = host.config();

    std::string refused = web::foreign_caller(request, config.bind_host);
    // The target is joined to base_url: it may name a path there and nothing else.
    if (refused.empty() && !web::safe_target(request.path)) refused = "target";
    if (!refused.empty()) {
        // A window of lines per route and kind of refusal, so that one flood hides no other.
        log_limited("game refused " + base_url + " " + refused.substr(0, refused.find(' ')),
                    format_text("game %s %s: refused (%s)", printable(request.method, web::stranger_text_limit).c_str(),
                                printable(request.path, web::stranger_text_limit).c_str(), refused.c_str()));
        http::ServerResponse response;
        response.status = refused == "target" ? 400 : 403;
        return response;
    }

    http::ClientRequest upstream;
    upstream.method = request.method;
    upstream.url = base_url + request.path;
    upstream.body = request.body;
    upstream.timeout_ms = 15000;  // the game's own calls may be slower than the matching API's
    upstream.deadline_ms = 60000;  // and a trickling answer must still end
    upstream.cancel = request.cancel;

    std::string game_agent;
    for (const auto& [name, value] : request.headers) {
        const std::string key = lower(name);
        if (hop_by_hop_headers.count(key) || is_own_header(key)) continue;
        if (key == "user-agent") {
            game_agent = value;
            continue;
        }
        upstream.headers.emplace_back(name, value);
    }
    upstream.headers.emplace_back("User-Agent",
                                  game_agent.empty() ? config.user_agent : game_agent + " " + config.user_agent);
    const web::Credentials credentials = host.credentials();
    if (!credentials.token.empty()) upstream.headers.emplace_back("X-ZQ-Token", credentials.token);
    if (!credentials.ruleset.empty()) upstream.headers.emplace_back("X-Velmar-Ruleset", credentials.ruleset);

    const http::ClientResponse answer = http::fetch(upstream);
    const std::string path = web::path_without_query(request.path);

    if (!answer.error.empty()) {
        log_line(format_text("game %s %s: upstream unreachable: %s", request.method.c_str(), path.c_str(),
                             answer.error.c_str()));
        http::ServerResponse failed;
        failed.status = 502;
        return failed;
    }

    if (config.trace) {
        const std::string label = base_url.substr(base_url.rfind(':') + 1);
        log_line(format_text("game %s %s %s: %llu bytes -> HTTP %d, %llu bytes", request.method.c_str(),
                             label.c_str(), path.c_str(), static_cast<unsigned long long>(request.body.size()),
                             static_cast<int>(answer.status), static_cast<unsigned long long>(answer.body.size())));
        for (const char* prefix : capture_prefixes) {
            if (!path.starts_with(prefix)) continue;
            std::string name = path.substr(1);
            for (char& c : name)
                if (c == '/') c = '_';
            web::capture_traffic(config.state_file, name, request.body, static_cast<std::int32_t>(answer.status),
                                 answer.body, "");
            break;
        }
    }

    http::ServerResponse response;
    response.status = static_cast<std::int32_t>(answer.status);
    response.body = answer.body;
    for (const auto& [name, value] : answer.headers)
        if (!is_hop_by_hop(name)) response.headers.emplace_back(name, value);
    return response;
}

}  // namespace zq
