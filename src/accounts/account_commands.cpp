#include "accounts/account_commands.h"

#include <algorithm>
#include <cstdio>

#include "accounts/state_file.h"
#include "http/fetch.h"
#include "shell/log.h"
#include "shell/platform.h"
#include "shell/util.h"
#include "shell/version.h"

namespace zq {

namespace {

const char* const kWriteFailed = "could not write the account file";

}  // namespace

bool auth_post(const std::string& server, const std::string& path, const nlohmann::json& request,
               nlohmann::json& reply, std::string& error) {
    http::ClientRequest req;
    req.method = "POST";
    req.url = server + path;
    req.timeout_ms = 8000;
    req.body = request.dump();
    req.headers.emplace_back("Content-Type", "application/json");
    req.headers.emplace_back("Accept", "application/json");
    req.headers.emplace_back("User-Agent", std::string("sarnlink/") + kVersion);
    http::ClientResponse res = http::fetch(req);
    if (!res.error.empty()) {
        error = res.error;
        return false;
    }
    reply = nlohmann::json::parse(res.body, nullptr, false, false);
    if (reply.is_object() && reply.contains("ResKind")) {
        // Only ResKind decides; the HTTP status matters only for the wrong-server text below.
        if (json_int(reply, "ResKind", 1) == 0) return true;
        error = json_text(reply, "Message", "refused");
        return false;
    }
    error = format_text("%s has no account service (HTTP %d)", server.c_str(), static_cast<int>(res.status));
    return false;
}

std::string device_name() {
    // The name goes into a JSON body, which takes only valid UTF-8: bytes that are none become
    // replacement characters, and a character that the limit of 48 bytes would cut is left out.
    std::string name = wide_to_utf8(utf8_to_wide(get_env("COMPUTERNAME").value_or(std::string())));
    if (name.empty()) return "sarnlink";
    std::size_t end = std::min<std::size_t>(name.size(), 48);
    if (end < name.size())
        while (end > 0 && (static_cast<unsigned char>(name[end]) & 0xC0) == 0x80) --end;
    return "sarnlink on " + name.substr(0, end);
}

bool store_account_record(const std::filesystem::path& state, const std::string& key, const nlohmann::json& record) {
    return change_accounts(state, [&](nlohmann::json& accounts) {
        accounts[key] = record;
        return true;
    });
}

void show_unsaved_recovery_code(const std::string& name, const std::filesystem::path& state, const std::string& code) {
    std::printf("sarnlink: the account '%s' could not be saved to %s.\n"
                "sarnlink: write down its recovery code now, it is the only way back to it: %s\n",
                printable(name).c_str(), path_text(state).c_str(), printable(code).c_str());
    std::fflush(stdout);
}

std::string account_create(const std::string& server, const std::filesystem::path& state, const std::string& name) {
    nlohmann::json reply;
    std::string error;
    if (!auth_post(server, "/auth/account/create", {{"Name", name}, {"DeviceName", device_name()}}, reply, error))
        return error;
    const std::string code = json_text(reply, "RecoveryCode", "");
    nlohmann::json record = {{"velmar_name", name},
                             {"recovery_code", code},
                             {"token", json_text(reply, "Token", "")},
                             {"online_id", json_text(reply, "OnlineId", name)}};
    if (!store_account_record(state, name, record)) {
        // The account now exists at the service: without its code it would be lost for good.
        if (!code.empty()) show_unsaved_recovery_code(name, state, code);
        return kWriteFailed;
    }
    log_line("account: created '" + name + "' on this PC (recovery code stored in sarnlink_state.json)");
    return std::string();
}

std::string account_recover(const std::string& server, const std::filesystem::path& state, const std::string& name,
                            const std::string& code) {
    nlohmann::json reply;
    std::string error;
    if (!auth_post(server, "/auth/recover", {{"Name", name}, {"RecoveryCode", code}}, reply, error)) return error;
    std::string new_code = json_text(reply, "RecoveryCode", "");
    nlohmann::json record = {{"velmar_name", name},
                             {"recovery_code", new_code.empty() ? code : new_code},
                             {"token", json_text(reply, "Token", "")},
                             {"online_id", json_text(reply, "OnlineId", name)}};
    if (!store_account_record(state, name, record)) {
        // The code that was given may be spent now; a new one exists nowhere else.
        if (!new_code.empty()) show_unsaved_recovery_code(name, state, new_code);
        return kWriteFailed;
    }
    log_line("account: recovered '" + name + "' (its new recovery code is in sarnlink_state.json)");
    return std::string();
}

std::string account_sign_out(const std::string& server, const std::filesystem::path& state, const std::string& name) {
    nlohmann::json root = read_state_file(state);
    if (!root.contains("accounts") || !root["accounts"].is_object() || !root["accounts"].contains(name))
        return "no account for '" + name + "' here";
    std::string token = json_text(root["accounts"][name], "token", "");
    if (!token.empty()) {
        // Signing out on this PC must work without the network: the outcome is ignored.
        nlohmann::json reply;
        std::string ignored;
        auth_post(server, "/auth/logout", {{"Token", token}}, reply, ignored);
    }
    // The file as it is after the call, not the copy read before it: a running bridge or another
    // command may have stored an account meanwhile.
    bool written = change_accounts(state, [&](nlohmann::json& accounts) {
        if (!accounts.contains(name)) return false;
        nlohmann::json& member = accounts[name];
        if (!json_text(member, "recovery_code", "").empty()) {
            if (member.is_object()) member.erase("token");
        } else {
            accounts.erase(name);
        }
        return true;
    });
    if (!written) return kWriteFailed;
    log_line("account: signed out of '" + name + "' on this PC");
    return std::string();
}

std::string account_web_code(const std::string& server, const std::filesystem::path& state,
                             const std::string& online_id, std::string& error) {
    nlohmann::json root = read_state_file(state);
    nlohmann::json accounts = root.value("accounts", nlohmann::json::object());
    nlohmann::json member = accounts.is_object() ? accounts.value(online_id, nlohmann::json::object())
                                                 : nlohmann::json::object();
    std::string token = json_text(member, "token", "");
    if (token.empty()) {
        error = "no account for '" + online_id + "' yet - play once (or sign in with Discord) first";
        return std::string();
    }
    nlohmann::json reply;
    if (!auth_post(server, "/auth/web_code", {{"Token", token}}, reply, error)) return std::string();
    std::string code = json_text(reply, "Code", "");
    if (code.empty()) error = "no code in the reply";
    return code;
}

int run_account_command(const Config& config, const std::wstring& operation, const std::wstring& name,
                        const std::wstring& code) {
    std::filesystem::path state = state_path(config.state_file);
    std::string name8 = wide_to_utf8(name);
    std::string error;
    if (operation == L"create")
        error = account_create(config.auth_server, state, name8);
    else if (operation == L"recover")
        error = account_recover(config.auth_server, state, name8, wide_to_utf8(code));
    else
        error = account_sign_out(config.auth_server, state, name8);
    if (error.empty()) {
        std::printf("ok\n");
    } else {
        std::printf("failed: %s\n", printable(error).c_str());
    }
    std::fflush(stdout);
    return error.empty() ? 0 : 1;
}

int run_web_code(const Config& config, const std::wstring& npid) {
    std::string error;
    std::string code = account_web_code(config.auth_server, state_path(config.state_file), wide_to_utf8(npid), error);
    // The code and the reason are the service's words, and the console must not act on them.
    if (!code.empty()) {
        std::printf("%s\n", printable(code).c_str());
    } else {
        std::printf("failed: %s\n", printable(error).c_str());
    }
    std::fflush(stdout);
    return code.empty() ? 1 : 0;
}

}  // namespace zq
