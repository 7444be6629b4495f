#pragma once
// host_overrides.custom.json in the game's user folder: sends the game's own HTTPS traffic to
// the local proxies. A file of the user's is kept aside while routed and brought back after.

#include <filesystem>

#include <nlohmann/json.hpp>

#include "launcher/discovery.h"

namespace zq {

// user_dir joined with host_overrides.custom.json.
std::filesystem::path overrides_path(const Launcher& launcher);

// URL origin to replacement origin, "_sarnlink" first so the file says whose it is.
nlohmann::ordered_json overrides_document();

// True for a file this program wrote: a "_sarnlink" key, or a "_note" that begins with "sarnlink:".
bool is_own_overrides(const std::filesystem::path& path);

// on: backs up a file of the user's once and writes ours. off: removes ours and restores the
// user's. File system errors are ignored: the settings are already written when this runs.
void apply_overrides(const Launcher& launcher, bool on);

// A game patch (version 01.09) that makes the player show on the live map: the play log every
// 5 s and the position every 0.5 s. No route operation installs it.
extern const char* const kLiveMapPatch;

}  // namespace zq
