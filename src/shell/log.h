#pragma once
// The program's one log: "HH:MM:SS [sarnlink] text" to standard output and the --log file.

#include <filesystem>
#include <functional>
#include <string>

namespace zq {

// Writes one line; safe from any thread, and before open_log_file.
void log_line(const std::string& text);

// Turns an existing log over to "<stem>.prev.log" and opens a fresh one. A path that cannot be
// opened leaves the log on the console only.
void open_log_file(const std::filesystem::path& path);

// Extension point that receives every line, the time included. Tests use it to read the log.
void set_log_sink(std::function<void(const std::string&)> sink);

}  // namespace zq
