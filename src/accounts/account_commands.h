#pragma once
// The one-shot account commands: create, recover, sign out and fetch a web code, each against
// the auth server and the state file. Each returns an error text, empty on success.

#include <filesystem>
#include <string>

#include <nlohmann/json.hpp>

#include "shell/config.h"

namespace zq {

// POSTs a JSON request to server + path with the account commands' own headers. True only
// when the reply is a JSON object whose ResKind is 0; otherwise error says why.
bool auth_post(const std::string& server, const std::string& path, const nlohmann::json& request,
               nlohmann::json& reply, std::string& error);

// "sarnlink on <first 48 bytes of COMPUTERNAME>", cut back to a whole character, or "sarnlink"
// when it is not set.
std::string device_name();

std::string account_create(const std::string& server, const std::filesystem::path& state, const std::string& name);
std::string account_recover(const std::string& server, const std::filesystem::path& state, const std::string& name,
                            const std::string& code);
std::string account_sign_out(const std::string& server, const std::filesystem::path& state, const std::string& name);
// The code, or "" with the reason in error.
std::string account_web_code(const std::string& server, const std::filesystem::path& state,
                             const std::string& online_id, std::string& error);

// Stores a record under its key in the file as it is at this moment, replacing that record whole
// and keeping the others (change_accounts). False when the file could not be written.
bool store_account_record(const std::filesystem::path& state, const std::string& key, const nlohmann::json& record);

// Tells the player on the console, never in the log, the recovery code of an account that the
// service made but the state file could not take: once this process ends it is the only way back.
void show_unsaved_recovery_code(const std::string& name, const std::filesystem::path& state, const std::string& code);

// --create NAME, --recover NAME CODE, --sign-out NAME (operation "create", "recover" or "sign-out")
// and --web-code NPID, with the verdict on the console; each returns the exit code.
int run_account_command(const Config& config, const std::wstring& operation, const std::wstring& name,
                        const std::wstring& code);
int run_web_code(const Config& config, const std::wstring& npid);

}  // namespace zq
