#include "web/summon_proxy.h"

#include <string>

#include <nlohmann/json.hpp>

#include "http/fetch.h"
#include "shell/log.h"
#include "shell/util.h"
#include "web/capture.h"
#include "web/guard.h"
#include "web/paths.h"

namespace zq {

namespace {

using Json = nlohmann::ordered_json;

bool is_empty_advertisement(const nlohmann::json& value) {
    return value.is_null() || ((value.is_object() || value.is_array()) && value.empty());
}

}  // namespace

http::ServerResponse summon_handler(web::Host& host, const http::ServerRequest& request) {
    const Config& config = host.config();
    const std::string path = web::path_without_query(request.path);
    // The call goes out with the player's token: to another host's caller only where the user
    // chose to share the account with the network.
    if (!request.from_this_pc && !config.share_account_with_network) {
        log_limited(format_text("summon refused :%d", host.ports().webapi),
                    format_text("summon %s: refused %s, which is not this PC",
                                printable(path, web::stranger_text_limit).c_str(),
                                request.peer.host.c_str()));
        return http::json_response(Json{{"ResKind", 1}, {"Message", "forbidden"}}, 403);
    }
    // The path is joined to the community server's URL: it must not lead anywhere else there.
    if (!web::safe_target(path) || web::has_dot_segment(path))
        return http::json_response(Json{{"ResKind", 1}, {"Message", "bad path"}}, 400);

    if (path == "/summon_messenger/create") {
        nlohmann::json advertisement = nlohmann::json::parse(request.body, nullptr, false);
        if (advertisement.is_discarded()) advertisement = nullptr;
        if (advertisement.is_object() && json_has(advertisement, "SessionId"))
            host.set_advertisement(advertisement);
        if (is_empty_advertisement(advertisement))
            return http::json_response(Json{{"ResKind", 1}, {"Message", "empty summon advertisement"}}, 400);
    }

    // None of the game's headers go on: the community server gets ours only.
    http::ClientRequest upstream;
    upstream.method = "POST";
    upstream.url = config.community_server + path;
    upstream.body = request.body;
    upstream.cancel = request.cancel;
    upstream.deadline_ms = 30000;  // an answer that trickles in must not hold the game's call
    upstream.headers = {{"Content-Type", "application/json"}, {"User-Agent", config.user_agent}};
    const web::Credentials credentials = host.credentials();
    if (!credentials.token.empty()) upstream.headers.emplace_back("X-ZQ-Token", credentials.token);
    if (!credentials.ruleset.empty()) upstream.headers.emplace_back("X-Velmar-Ruleset", credentials.ruleset);

    const http::ClientResponse answer = http::fetch(upstream);
    if (!answer.error.empty()) {
        log_line(format_text("summon %s: upstream unreachable: %s", path.c_str(), answer.error.c_str()));
        return http::json_response(Json{{"ResKind", 1}, {"Message", "upstream unreachable: " + answer.error}}, 502);
    }

    const std::string placement = http::find_header(answer.headers, placement_header);
    const std::string suffix = placement.empty() ? std::string() : ", placement " + placement;
    log_line(format_text("summon %s: %llu bytes -> HTTP %d, %llu bytes%s", path.c_str(),
                         static_cast<unsigned long long>(request.body.size()), static_cast<int>(answer.status),
                         static_cast<unsigned long long>(answer.body.size()), suffix.c_str()));
    if (config.trace)
        web::capture_traffic(config.state_file, path.substr(path.rfind('/') + 1), request.body,
                             static_cast<std::int32_t>(answer.status), answer.body, "placement=" + placement);

    // The status isn't interpreted: an error from upstream reaches the game as it came.
    http::ServerResponse response;
    response.status = static_cast<std::int32_t>(answer.status);
    response.body = answer.body;
    response.headers.emplace_back("Content-Type", "application/json");
    if (!placement.empty()) response.headers.emplace_back(placement_header, placement);
    return response;
}

}  // namespace zq
