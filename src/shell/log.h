#pragma once
// The program's one log: "HH:MM:SS [sarnlink] text" to standard output and the --log file.

#include <filesystem>
#include <functional>
#include <string>

namespace zq {

// Writes one line; safe from any thread, and before open_log_file.
void log_line(const std::string& text);

// Writes one line unless `cause` has already written its share of lines in the last 10
// seconds; for what a remote or local stranger can trigger at will (refused connections,
// bad datagrams), so that nobody can fill the console or the disk. When a quiet window
// follows dropped lines, the next line of that cause says how many were left out.
// Returns whether the line was written.
bool log_limited(const std::string& cause, const std::string& text);

// Forgets every cause's window, so that the next lines of each are written; for tests that
// flood one cause and share the process with others that read its lines.
void reset_log_limits();

// Turns an existing log over to "<stem>.prev.log" and opens a fresh one. A path that cannot be
// opened leaves the log on the console only.
void open_log_file(const std::filesystem::path& path);

// Extension point that receives every line, the time included. Tests use it to read the log.
void set_log_sink(std::function<void(const std::string&)> sink);

}  // namespace zq
