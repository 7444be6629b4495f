#pragma once
// What the entry function can run. Each subsystem defines its own command; the entry
// function only chooses among them. Every one returns the process exit code.

#include <filesystem>
#include <string>

#include "shell/config.h"

namespace zq {

// Runs the bridge until a console stop event. config_file is the settings file as named on the
// command line, and config_read whether it was there to read; the start names both.
int run_bridge(const Config& config, const std::filesystem::path& config_file, bool config_read);

// --link-discord
int run_link_discord(const Config& config);

// --route on|off [--orlond DIR]
int run_route(const Config& config, const std::wstring& value, const std::wstring& game_dir);

// --create NAME, --recover NAME CODE, --sign-out NAME; operation is "create", "recover" or "sign-out".
int run_account_command(const Config& config, const std::wstring& operation, const std::wstring& name,
                        const std::wstring& code);

// --web-code NPID
int run_web_code(const Config& config, const std::wstring& npid);

}  // namespace zq
