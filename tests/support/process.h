#pragma once
// Runs sarnlink-cli (or any program) as a child process for tests that need a whole process:
// exit codes, standard output, console stop events.

#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace testing_support {

// The sarnlink-cli built beside the tests, as this platform names it.
std::filesystem::path cli_path();

struct ProcessResult {
    int exit_code = -1;
    std::string output;  // standard output and standard error, interleaved
};

// A child process with its output collected in the background.
class Process {
public:
    // env entries are added to (or replace those of) the current environment.
    Process(const std::filesystem::path& program, const std::vector<std::string>& args,
            const std::filesystem::path& working_dir, const std::map<std::string, std::string>& env = {});
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    // Output so far.
    std::string output() const;
    // Waits until the output holds the text; false after the deadline.
    bool wait_for_output(const std::string& text, double seconds = 30.0) const;
    // Sends the console stop event (Ctrl-Break on Windows, SIGINT on POSIX).
    void interrupt();
    // Writes to the child's standard input, a pipe that stays open while the child runs.
    void send_input(const std::string& text);
    // Whether the child is still there, without waiting or reaping it.
    bool running() const;
    // Waits for the end; kills the child after the deadline and returns -1.
    int wait(double seconds = 30.0);
    // The system's id of the child, for looking at it from outside (/proc on Linux).
    long id() const;

    struct Impl;

private:
    std::unique_ptr<Impl> impl_;
};

// Runs to the end and returns the exit code and all output.
ProcessResult run_process(const std::filesystem::path& program, const std::vector<std::string>& args,
                          const std::filesystem::path& working_dir,
                          const std::map<std::string, std::string>& env = {}, double seconds = 60.0);

// A fresh folder under the system's temporary folder, removed with everything in it at the end.
class TempDir {
public:
    TempDir();
    ~TempDir();
    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

}  // namespace testing_support

#include "support/wait.h"
