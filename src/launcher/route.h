#pragma once
// Switches the orlond launcher's settings.json over to this program and back.

#include <filesystem>
#include <optional>
#include <string>

#include "launcher/discovery.h"
#include "shell/config.h"

namespace zq {

// What a routed launcher holds.
inline constexpr const char* kRoutedServer = "127.0.0.1:31313";
inline constexpr const char* kRoutedWebapi = "http://127.0.0.1:31315";
inline constexpr const char* kRoutedPassword = "sarnlink";

// Saves the user's settings (unless already routed), points the launcher here and writes the
// overrides file. File system failures are not reported; a setting that cannot be serialised throws.
void route_on(Launcher& launcher);

// Restores the online keys from the backup, or the runtime's own service without one, and
// brings back the user's overrides file. The game stays online.
void route_off(Launcher& launcher);

// 1 when the settings point at this program, otherwise 0.
int route_status(const Launcher& launcher);

// Drops every "name=..." token, appends "name=value" when a value is given, and joins the
// tokens with single blanks.
std::string edit_extra_env(const std::string& text, const std::string& name, const std::optional<std::string>& value);

// "<path>.before-sarnlink": the full file name is kept, so one rule serves any file.
std::filesystem::path backup_path(const std::filesystem::path& path);

// Copies the file to its backup unless a backup already exists; never overwrites one.
void backup_once(const std::filesystem::path& path);

// --route on|off [--orlond DIR]: anything but "on" routes off; returns the exit code.
int run_route(const Config& config, const std::wstring& value, const std::wstring& game_dir);

}  // namespace zq
