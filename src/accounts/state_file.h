#pragma once
// The state file: the player's accounts on this PC, one JSON object read and written whole.

#include <filesystem>
#include <functional>
#include <string>

#include <nlohmann/json.hpp>

namespace zq {

// Parses state file text strictly (no comments); discarded on failure, any type otherwise.
nlohmann::json parse_state_text(const std::string& text);

// Reads the whole file as text; false when it cannot be opened.
bool read_whole_file(const std::filesystem::path& path, std::string& text);

// Reads the state file's text under the lock that its writers take (change_accounts): on
// Windows a file that is open cannot be replaced, and a write must not fail on a read of ours.
// A reader that cannot have the lock (a folder it may not write in) reads all the same.
bool read_state_text(const std::filesystem::path& path, std::string& text);

// The file's object, or an empty object when it is missing, unreadable, corrupt or not an object.
nlohmann::json read_state_file(const std::filesystem::path& path);

// Makes sure the root holds an `accounts` object (a non-object is replaced) and returns it.
nlohmann::json& ensure_accounts(nlohmann::json& root);

// Changes the accounts as they are in the file at this moment: reads it, lets change edit the
// accounts object, and writes the document back, all under the lock that every process of this
// program takes for the file ("<file>.lock" beside it), so that no writer loses another's
// change. Nothing that waits on the network belongs inside change. change says whether there is
// anything to write. A corrupt file is copied aside before it is replaced (and that is logged).
// False when the lock did not come in time or the file could not be written.
bool change_accounts(const std::filesystem::path& path, const std::function<bool(nlohmann::json& accounts)>& change);

// Where a corrupt state file is kept aside: "<stem>.corrupt-<YYYYMMDD-HHMMSS>.json" beside it
// (with "-2", "-3"... when that name is taken).
std::filesystem::path corrupt_state_backup_path(const std::filesystem::path& path);

// The state path of the settings as the file system takes it.
std::filesystem::path state_path(const std::string& state_file);

}  // namespace zq
