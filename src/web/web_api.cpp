#include "web/web_api.h"

#include "bridge/bridge.h"
#include "shell/log.h"

namespace zq {

http::ServerResponse web_api_handler(Bridge&, const http::ServerRequest& request) {
    std::string path = request.path.substr(0, request.path.find('?'));
    log_line(format_text("webapi: %s %s not handled (404)", request.method.c_str(), path.c_str()));
    return http::json_response(nlohmann::json{{"ResKind", 1}, {"Message", "not found"}}, 404);
}

}  // namespace zq
