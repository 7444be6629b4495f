#pragma once
// The process-level services of the operating system, behind one neutral interface.
// Implemented in platform_win32.cpp and platform_posix.cpp.

#include <atomic>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace zq {

// UTF-8 <-> wide text. Invalid input is replaced, never refused.
std::wstring utf8_to_wide(const std::string& text);
std::string wide_to_utf8(const std::wstring& text);

// The command line as wide strings, program name excluded.
std::vector<std::wstring> command_line_args(int argc, char** argv);

// Creates a file that did not exist and writes the text to the medium (flushed). Only its
// owner may read it (mode 0600 on POSIX). Anything already in its place (a file, a link, a
// folder) makes it fail, and is neither followed nor removed.
bool write_new_file(const std::filesystem::path& path, const std::string& text);

// An exclusive lock on a lock file, between processes as between threads: flock on POSIX,
// LockFileEx on Windows, each on an open of the file of its own, so that two holders in one
// process exclude each other too. The file is made when it is missing (private to its owner, a
// link in its place not followed) and is never removed: a lock file removed while held lets a
// second holder in beside the first. Released when the object goes, or by the system when the
// process ends however it ends.
class FileLock {
public:
    // Waits up to wait_seconds for the lock; held() says whether it came.
    FileLock(const std::filesystem::path& path, double wait_seconds);
    ~FileLock();
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

    bool held() const { return held_; }

private:
    std::intptr_t file_ = -1;  // the open lock file: a descriptor, or a HANDLE
    bool held_ = false;
};

// Renames from over to in one step, replacing what is there, and flushes that to the medium.
bool replace_file(const std::filesystem::path& from, const std::filesystem::path& to);

// The path of the running executable.
std::filesystem::path own_executable_path();

// Routes every console stop event (Ctrl-C, Ctrl-Break, close, log-off, shut-down; SIGINT,
// SIGTERM, SIGHUP on POSIX) to setting the flag, and nothing else.
void install_stop_handler(std::atomic<bool>* flag);

void sleep_ms(int milliseconds);

// Asks the system to run the calling thread ahead of ordinary work, as far as any program may
// ask that without privileges: for a thread that wakes briefly and must not queue behind busy
// ones. Where the system grants nothing, nothing changes.
void raise_thread_priority();

// For a long run with many threads that mostly wait: the allocator serves them all from one or
// two pools, where it would otherwise give each thread that ever met another its own pool, and
// each pool keeps free memory of its own. Before the threads start.
void use_few_allocator_pools();

// Gives what the allocator holds free back to the system: for when a burst of work has ended.
void release_free_memory();

// An environment variable as UTF-8, or nothing when it is not set.
std::optional<std::string> get_env(const std::string& name);

// The machine's name: COMPUTERNAME on Windows; the same variable or the host name elsewhere.
std::string computer_name();

// Local broken-down time, thread-safe.
std::tm local_time(std::time_t t);

// What this process holds of the machine right now: its threads, and its memory (resident set on
// Linux, private bytes on Windows). Zero where the system does not tell.
struct ProcessUsage {
    int threads = 0;
    std::uint64_t memory_bytes = 0;
};
ProcessUsage process_usage();

// Paths from text. A path built straight from a wide string goes through the C library's
// locale on POSIX, which in the default "C" locale cannot hold a non-ASCII name.
std::filesystem::path wide_path(const std::wstring& text);
std::filesystem::path utf8_path(const std::string& text);
// A path as text for a person, in a log line or on the console; the one way a path becomes
// text. It never throws, whatever name the system holds (the path's own conversions do, on a
// name that is not in the locale or not Unicode): bytes that are no UTF-8 (POSIX) and unpaired
// surrogates (Windows) become U+FFFD, and control characters are escaped as by printable.
std::string path_text(const std::filesystem::path& path);

// Fills out with bytes from the system's cryptographic generator; false if it failed.
bool secure_random(void* out, std::size_t size);

// A closed standard output (a pipe whose reader went away) must fail the write, not end the
// process.
void ignore_broken_pipe();

}  // namespace zq
