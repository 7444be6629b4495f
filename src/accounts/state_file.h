#pragma once
// The state file: the player's accounts on this PC, one JSON object read and written whole.

#include <filesystem>
#include <string>

#include <nlohmann/json.hpp>

namespace zq {

// Parses state file text strictly (no comments); discarded on failure, any type otherwise.
nlohmann::json parse_state_text(const std::string& text);

// Reads the whole file as text; false when it cannot be opened.
bool read_whole_file(const std::filesystem::path& path, std::string& text);

// The file's object, or an empty object when it is missing, unreadable, corrupt or not an object.
nlohmann::json read_state_file(const std::filesystem::path& path);

// Makes sure the root holds an `accounts` object (a non-object is replaced) and returns it.
nlohmann::json& ensure_accounts(nlohmann::json& root);

// Where a corrupt state file is kept aside: "<stem>.corrupt-<YYYYMMDD-HHMMSS>.json" beside it
// (with "-2", "-3"... when that name is taken).
std::filesystem::path corrupt_state_backup_path(const std::filesystem::path& path);

// The state path of the settings as the file system takes it.
std::filesystem::path state_path(const std::string& state_file);

}  // namespace zq
