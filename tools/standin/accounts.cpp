#include "standin/accounts.h"

#include "shell/util.h"

namespace standin {

const char* const Accounts::kPaths[] = {"/auth/account/create", "/auth/recover", "/auth/logout", "/auth/web_code",
                                         "/np/signaling/resolve", "/auth/device/start", "/auth/device/poll",
                                         nullptr};

std::optional<Answer> Accounts::serve(const Call& c) {
    if (c.path == "/auth/account/create") return create(c);
    if (c.path == "/auth/recover") return recover(c);
    if (c.path == "/auth/logout") return logout(c);
    if (c.path == "/auth/web_code") return web_code(c);
    if (c.path == "/np/signaling/resolve") return resolve(c);
    if (c.path == "/auth/device/start") return device_start();
    if (c.path == "/auth/device/poll") return device_poll(c);
    return std::nullopt;
}

Accounts::Account Accounts::issue_locked(const std::string& name, bool keep_code) {
    Account& a = accounts[name];
    ++serial;
    a.token = zq::format_text("tok-%s-%d", name.c_str(), serial);
    if (!keep_code) a.recovery_code = zq::format_text("rc-%s-%d", name.c_str(), serial);
    return a;
}

std::string Accounts::name_of_token_locked(const std::string& token) const {
    if (token.empty()) return std::string();
    for (const auto& [name, account] : accounts)
        if (account.token == token) return name;
    return std::string();
}

std::string Accounts::name_of_token(const std::string& token) const {
    std::lock_guard<std::mutex> guard(lock);
    return name_of_token_locked(token);
}

Accounts::Account Accounts::add(const std::string& name) {
    std::lock_guard<std::mutex> guard(lock);
    return issue_locked(name, false);
}

void Accounts::revoke_token(const std::string& name) {
    std::lock_guard<std::mutex> guard(lock);
    accounts[name].token.clear();
}

bool Accounts::has(const std::string& name) const {
    std::lock_guard<std::mutex> guard(lock);
    return accounts.count(name) != 0;
}

Accounts::Account Accounts::get(const std::string& name) const {
    std::lock_guard<std::mutex> guard(lock);
    auto it = accounts.find(name);
    return it == accounts.end() ? Account{} : it->second;
}

void Accounts::set_device_flow(int pending, std::string v, std::string name, int poll_interval, int expires) {
    std::lock_guard<std::mutex> guard(lock);
    pending_polls = pending;
    verdict = std::move(v);
    discord_name = std::move(name);
    interval = poll_interval;
    expires_in = expires;
    polls_seen = 0;
}

void Accounts::set_locator(Locator l) {
    std::lock_guard<std::mutex> guard(lock);
    locator = std::move(l);
}

Answer Accounts::create(const Call& c) {
    std::string name = zq::json_text(c.body, "Name", "");
    std::lock_guard<std::mutex> guard(lock);
    if (name.empty()) return refused("no name");
    if (accounts.count(name)) return refused("that name is taken");
    Account a = issue_locked(name, false);
    return Answer{200, {{"ResKind", 0}, {"Token", a.token}, {"OnlineId", name}, {"RecoveryCode", a.recovery_code}}};
}

Answer Accounts::recover(const Call& c) {
    std::string name = zq::json_text(c.body, "Name", "");
    std::string code = zq::json_text(c.body, "RecoveryCode", "");
    std::lock_guard<std::mutex> guard(lock);
    auto it = accounts.find(name);
    if (it == accounts.end() || code.empty() || it->second.recovery_code != code) return refused("recovery refused");
    Account a = issue_locked(name, false);
    return Answer{200, {{"ResKind", 0}, {"Token", a.token}, {"OnlineId", name}, {"RecoveryCode", a.recovery_code}}};
}

Answer Accounts::logout(const Call& c) {
    std::string token = zq::json_text(c.body, "Token", "");
    std::lock_guard<std::mutex> guard(lock);
    std::string name = name_of_token_locked(token);
    if (!name.empty()) accounts[name].token.clear();
    return Answer{200, {{"ResKind", 0}}};
}

Answer Accounts::web_code(const Call& c) {
    std::string token = zq::json_text(c.body, "Token", "");
    std::lock_guard<std::mutex> guard(lock);
    std::string name = name_of_token_locked(token);
    if (name.empty()) return refused("unknown token");
    return Answer{200, {{"ResKind", 0}, {"Code", "WEB-" + name}}};
}

Answer Accounts::resolve(const Call& c) {
    std::string asked = zq::json_text(c.body, "OnlineId", "");
    Locator find;
    {
        std::lock_guard<std::mutex> guard(lock);
        if (name_of_token_locked(c.token).empty()) return Answer{401, {{"ResKind", 1}, {"Message", "bad token"}}};
        if (!accounts.count(asked)) return refused("not registered");
        find = locator;
    }
    // The locator takes its own lock, so it is called with ours released.
    std::optional<std::pair<std::string, int>> where;
    if (find) where = find(asked);
    if (!where) return Answer{200, {{"ResKind", 0}, {"Addr", ""}, {"Port", 0}}};
    return Answer{200, {{"ResKind", 0}, {"Addr", where->first}, {"Port", where->second}}};
}

Answer Accounts::device_start() {
    std::lock_guard<std::mutex> guard(lock);
    polls_seen = 0;
    return Answer{200,
                  {{"ResKind", 0},
                   {"DeviceCode", "device-1"},
                   {"UserCode", "ABCD-EFGH"},
                   {"VerificationUri", "https://example.test/device"},
                   {"Interval", interval},
                   {"ExpiresIn", expires_in}}};
}

Answer Accounts::device_poll(const Call& c) {
    std::lock_guard<std::mutex> guard(lock);
    if (zq::json_text(c.body, "DeviceCode", "") != "device-1") return refused("unknown device code");
    if (polls_seen++ < pending_polls) return Answer{200, {{"ResKind", 0}, {"Status", "pending"}}};
    if (verdict != "approved") return Answer{200, {{"ResKind", 0}, {"Status", verdict}}};
    Account a = issue_locked(discord_name, true);
    return Answer{200, {{"ResKind", 0}, {"Status", "approved"}, {"Token", a.token}, {"OnlineId", discord_name}}};
}

}  // namespace standin
