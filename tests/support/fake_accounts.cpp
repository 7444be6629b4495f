#include "support/fake_accounts.h"

#include "shell/util.h"

namespace testing_support {

namespace {

ScriptedAnswer refused(const std::string& message) {
    return ScriptedAnswer::json({{"ResKind", 1}, {"Message", message}});
}

}  // namespace

FakeAccounts::FakeAccounts(FakeService& service) {
    service.handle("/auth/account/create", [this](const RecordedRequest& r) { return create(r); });
    service.handle("/auth/recover", [this](const RecordedRequest& r) { return recover(r); });
    service.handle("/auth/logout", [this](const RecordedRequest& r) { return logout(r); });
    service.handle("/auth/web_code", [this](const RecordedRequest& r) { return web_code(r); });
    service.handle("/np/signaling/resolve", [this](const RecordedRequest& r) { return resolve(r); });
    service.handle("/auth/device/start", [this](const RecordedRequest& r) { return device_start(r); });
    service.handle("/auth/device/poll", [this](const RecordedRequest& r) { return device_poll(r); });
}

FakeAccounts::Account FakeAccounts::issue_locked(const std::string& name, bool keep_code) {
    Account& a = accounts[name];
    ++serial;
    a.token = zq::format_text("tok-%s-%d", name.c_str(), serial);
    if (!keep_code) a.recovery_code = zq::format_text("rc-%s-%d", name.c_str(), serial);
    return a;
}

std::string FakeAccounts::name_of_token_locked(const std::string& token) const {
    if (token.empty()) return std::string();
    for (const auto& [name, account] : accounts)
        if (account.token == token) return name;
    return std::string();
}

FakeAccounts::Account FakeAccounts::add(const std::string& name) {
    std::lock_guard<std::mutex> guard(lock);
    return issue_locked(name, false);
}

void FakeAccounts::revoke_token(const std::string& name) {
    std::lock_guard<std::mutex> guard(lock);
    accounts[name].token.clear();
}

bool FakeAccounts::has(const std::string& name) const {
    std::lock_guard<std::mutex> guard(lock);
    return accounts.count(name) != 0;
}

FakeAccounts::Account FakeAccounts::get(const std::string& name) const {
    std::lock_guard<std::mutex> guard(lock);
    auto it = accounts.find(name);
    return it == accounts.end() ? Account{} : it->second;
}

void FakeAccounts::set_device_flow(int pending, std::string v, std::string name, int poll_interval, int expires) {
    std::lock_guard<std::mutex> guard(lock);
    pending_polls = pending;
    verdict = std::move(v);
    discord_name = std::move(name);
    interval = poll_interval;
    expires_in = expires;
    polls_seen = 0;
}

ScriptedAnswer FakeAccounts::create(const RecordedRequest& r) {
    std::string name = zq::json_text(r.json(), "Name", "");
    std::lock_guard<std::mutex> guard(lock);
    if (name.empty()) return refused("no name");
    if (accounts.count(name)) return refused("that name is taken");
    Account a = issue_locked(name, false);
    return ScriptedAnswer::json(
        {{"ResKind", 0}, {"Token", a.token}, {"OnlineId", name}, {"RecoveryCode", a.recovery_code}});
}

ScriptedAnswer FakeAccounts::recover(const RecordedRequest& r) {
    nlohmann::json body = r.json();
    std::string name = zq::json_text(body, "Name", "");
    std::string code = zq::json_text(body, "RecoveryCode", "");
    std::lock_guard<std::mutex> guard(lock);
    auto it = accounts.find(name);
    if (it == accounts.end() || code.empty() || it->second.recovery_code != code) return refused("recovery refused");
    Account a = issue_locked(name, false);
    return ScriptedAnswer::json(
        {{"ResKind", 0}, {"Token", a.token}, {"OnlineId", name}, {"RecoveryCode", a.recovery_code}});
}

ScriptedAnswer FakeAccounts::logout(const RecordedRequest& r) {
    std::string token = zq::json_text(r.json(), "Token", "");
    std::lock_guard<std::mutex> guard(lock);
    std::string name = name_of_token_locked(token);
    if (!name.empty()) accounts[name].token.clear();
    return ScriptedAnswer::json({{"ResKind", 0}});
}

ScriptedAnswer FakeAccounts::web_code(const RecordedRequest& r) {
    std::string token = zq::json_text(r.json(), "Token", "");
    std::lock_guard<std::mutex> guard(lock);
    std::string name = name_of_token_locked(token);
    if (name.empty()) return refused("unknown token");
    return ScriptedAnswer::json({{"ResKind", 0}, {"Code", "WEB-" + name}});
}

ScriptedAnswer FakeAccounts::resolve(const RecordedRequest& r) {
    std::lock_guard<std::mutex> guard(lock);
    if (name_of_token_locked(r.header("X-ZQ-Token")).empty())
        return ScriptedAnswer::json({{"ResKind", 1}, {"Message", "bad token"}}, 401);
    std::string asked = zq::json_text(r.json(), "OnlineId", "");
    if (!accounts.count(asked)) return refused("not registered");
    return ScriptedAnswer::json({{"ResKind", 0}, {"Addr", ""}, {"Port", 0}});
}

ScriptedAnswer FakeAccounts::device_start(const RecordedRequest&) {
    std::lock_guard<std::mutex> guard(lock);
    polls_seen = 0;
    return ScriptedAnswer::json({{"ResKind", 0},
                                 {"DeviceCode", "device-1"},
                                 {"UserCode", "ABCD-EFGH"},
                                 {"VerificationUri", "https://example.test/device"},
                                 {"Interval", interval},
                                 {"ExpiresIn", expires_in}});
}

ScriptedAnswer FakeAccounts::device_poll(const RecordedRequest& r) {
    std::lock_guard<std::mutex> guard(lock);
    if (zq::json_text(r.json(), "DeviceCode", "") != "device-1") return refused("unknown device code");
    if (polls_seen++ < pending_polls) return ScriptedAnswer::json({{"ResKind", 0}, {"Status", "pending"}});
    if (verdict != "approved") return ScriptedAnswer::json({{"ResKind", 0}, {"Status", verdict}});
    Account a = issue_locked(discord_name, true);
    return ScriptedAnswer::json(
        {{"ResKind", 0}, {"Status", "approved"}, {"Token", a.token}, {"OnlineId", discord_name}});
}

}  // namespace testing_support
