#include "bridge/login.h"

#include "accounts/account_commands.h"
#include "accounts/state_file.h"
#include "bridge/bridge.h"
#include "bridge/frames.h"
#include "bridge/session.h"
#include "http/upstream_error.h"
#include "shell/log.h"
#include "shell/platform.h"
#include "shell/sha256.h"
#include "shell/util.h"

#include <cctype>
#include <cstdio>
#include <optional>

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

nlohmann::json Bridge::load_state() {
    std::lock_guard<std::mutex> guard(state_lock_);
    std::string text;
    if (!read_state_text(state_path(config().state_file), text)) return nlohmann::json::object();
    nlohmann::json doc = parse_state_text(text);
    if (doc.is_discarded()) {
        // The file stays as it is; only the next successful save replaces it.
        log_line("state file is corrupt; starting fresh");
        return nlohmann::json::object();
    }
    return doc;
}

bool Bridge::save_account(const std::string& key, const nlohmann::json& record) {
    // The file is read again just before the write: another login, or a command in another
    // process, may have saved its own account since this one read the file, and that record
    // must survive.
    std::lock_guard<std::mutex> guard(state_lock_);
    return store_account_record(state_path(config().state_file), key, record);
}

// The account exists upstream but not on this PC's disk: without its recovery code it is lost
// at the end of this session. The code goes to the console only, never to the log file.
void Session::report_unsaved_account(const std::string& name, const std::string& code) {
    log_line(format_text("velmar: could not save the account %s to %s - its recovery code is on the console; "
                         "write it down",
                         quote(name).c_str(), bridge->config().state_file.c_str()));
    show_unsaved_recovery_code(name, state_path(bridge->config().state_file), code);
}

bool Session::ensure_account() {
    try {
        nlohmann::json root = bridge->load_state();
        nlohmann::json& accounts = ensure_accounts(root);
        nlohmann::json record = accounts.contains(npid) && accounts[npid].is_object() ? accounts[npid]
                                                                                      : nlohmann::json::object();
        std::string name = json_text(record, "velmar_name", "");
        if (name.empty()) name = npid;

        if (!json_text(record, "token", "").empty()) {
            std::string upstream_name = json_text(record, "online_id", "");
            if (upstream_name.empty()) upstream_name = name;
            upstream.set_credentials(json_text(record, "token", ""), upstream_name);
            std::optional<bool> stands = upstream.check_token(upstream.current_online_id());
            if (!stands || *stands) {
                // A server that cannot be reached does not cost the player the token.
                log_line(format_text("velmar: using the stored token for %s%s", quote(name).c_str(),
                                     stands ? "" : " (server unreachable, kept)"));
                return true;
            }
            if (json_text(record, "linked", "") == "discord") {
                log_line(format_text(
                    "velmar: the Discord sign-in for %s has expired - use 'Sign in with Discord' in sarnlink again.",
                    quote(name).c_str()));
                return false;
            }
            log_line(format_text("velmar: stored token for %s refused; recovering", quote(name).c_str()));
            upstream.set_credentials("", "");
        }

        std::string old_code = json_text(record, "recovery_code", "");
        if (!old_code.empty()) {
            std::string new_code;
            try {
                new_code = upstream.recover_account(name, old_code);
            } catch (const BridgeError& e) {
                if (std::string(e.what()).find("refused") != std::string::npos)
                    log_line(format_text("velmar: the recovery code for %s no longer works - the account cannot be "
                                         "recovered from here. Pick a new online id in the launcher (or ask the "
                                         "server owner).",
                                         quote(name).c_str()));
                throw;
            }
            std::string code = new_code.empty() ? old_code : new_code;
            bool saved = bridge->save_account(npid, nlohmann::json{{"velmar_name", name},
                                                                   {"recovery_code", code},
                                                                   {"token", upstream.current_token()},
                                                                   {"online_id", upstream.current_online_id()}});
            log_line(format_text("velmar: recovered account %s", quote(name).c_str()));
            if (!saved) report_unsaved_account(name, code);
            return true;
        }

        if (bridge->config().create_accounts) {
            std::string code;
            try {
                code = upstream.create_account(npid);
            } catch (const BridgeError& e) {
                std::string lower = e.what();
                for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
                if (lower.find("taken") != std::string::npos)
                    log_line(format_text("velmar: the name %s is already taken on The Ember Court. Pick another "
                                         "online id (NPID) in the orlond launcher.",
                                         quote(npid).c_str()));
                throw;
            }
            bool saved = bridge->save_account(npid, nlohmann::json{{"velmar_name", npid},
                                                                   {"recovery_code", code},
                                                                   {"token", upstream.current_token()},
                                                                   {"online_id", upstream.current_online_id()}});
            if (saved)
                log_line(format_text("velmar: created account %s (token and recovery code stored in "
                                     "sarnlink_state.json - keep that file)",
                                     quote(npid).c_str()));
            else
                report_unsaved_account(npid, code);
            return true;
        }

        log_line(format_text("velmar: no account for %s on this PC - use 'Sign in with Discord' in sarnlink first.",
                             quote(npid).c_str()));
        return false;
    } catch (const BridgeError& e) {
        log_line(format_text("velmar account failed for %s: %s", quote(npid).c_str(), e.what()));
        return false;
    }
}

CommandResult Session::cmd_login(std::string_view body) {
    auto fields = read_request(body);
    if (!fields) return CommandResult{ResultBadPayload, std::string()};
    npid = trim_blanks(string_field(*fields, 1));
    title = string_field(*fields, 4);
    if (npid.empty()) return CommandResult{ResultEmptyId, std::string()};
    log_line(format_text("login: npid=%s title=%s", quote(npid).c_str(), title.empty() ? "?" : title.c_str()));
    if (!ensure_account()) return CommandResult{ResultLoginRefused, std::string()};
    logged_in = true;
    account_id = stable_account_id(npid);
    log_line(format_text("login: account id %llu for %s", static_cast<unsigned long long>(account_id),
                         quote(npid).c_str()));
    return CommandResult{ResultOk, wrap_message(FieldMessage().number(2, account_id).bytes())};
}

}  // namespace zq
