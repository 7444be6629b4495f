#include "bridge/login.h"

#include "bridge/frames.h"
#include "bridge/session.h"
#include "http/upstream_error.h"
#include "shell/log.h"
#include "shell/sha256.h"

namespace zq {

std::uint64_t stable_account_id(const std::string& name) {
    auto digest = sha256("sarnlink:" + name);
    std::uint64_t v = 0;
    for (int i = 0; i < 8; ++i) v = (v << 8) | digest[i];
    return (v & 0xFFFFFFFFFFFFull) | 0x10000000000000ull;
}

namespace {

std::string trim_blanks(const std::string& text) {
    auto first = text.find_first_not_of(" \t");
    if (first == std::string::npos) return std::string();
    auto last = text.find_last_not_of(" \t");
    return text.substr(first, last - first + 1);
}

}  // namespace

CommandResult Session::cmd_login(std::string_view body) {
    auto fields = read_request(body);
    if (!fields) return CommandResult{ResultBadPayload, std::string()};
    npid = trim_blanks(string_field(*fields, 1));
    title = string_field(*fields, 4);
    if (npid.empty()) return CommandResult{ResultEmptyId, std::string()};
    log_line(format_text("login: npid=%s title=%s", quote(npid).c_str(), title.empty() ? "?" : title.c_str()));
    throw BridgeError("/auth: account service not connected");
}

}  // namespace zq
