#pragma once
// Other programs for the benchmarks (Linux only, like bench/ itself): started with their output
// in a file, looked at through /proc, and ended by their own process id.

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "measure.h"
#include "shell/net.h"

extern char** environ;

namespace bench {

// Whether a program is on PATH (or is a path that exists).
inline std::string find_program(const std::string& name, const std::vector<std::string>& also = {}) {
    std::vector<std::string> places = also;
    if (const char* path = std::getenv("PATH")) {
        std::string all = path;
        for (std::size_t at = 0; at <= all.size();) {
            std::size_t end = all.find(':', at);
            if (end == std::string::npos) end = all.size();
            places.push_back(all.substr(at, end - at));
            at = end + 1;
        }
    }
    for (const auto& dir : places) {
        std::filesystem::path candidate = std::filesystem::path(dir) / name;
        if (::access(candidate.c_str(), X_OK) == 0) return candidate.string();
    }
    return std::string();
}

class Child {
public:
    // Standard output and error go to output_file.
    Child(const std::vector<std::string>& argv, const std::filesystem::path& output_file) {
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, output_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        posix_spawn_file_actions_adddup2(&actions, 1, 2);
        std::vector<char*> args;
        for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        if (posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ) != 0) pid = -1;
        posix_spawn_file_actions_destroy(&actions);
    }
    ~Child() { stop(); }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    // SIGTERM, then SIGKILL if it is still there after five seconds.
    void stop() {
        if (pid <= 0) return;
        ::kill(pid, SIGTERM);
        for (double end = now() + 5; now() < end;) {
            if (::waitpid(pid, nullptr, WNOHANG) == pid) {
                pid = -1;
                return;
            }
            ::usleep(10000);
        }
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
        pid = -1;
    }

    pid_t pid = -1;
};

// Waits until something accepts on the loopback port.
inline bool wait_listening(int port, double seconds) {
    for (double end = now() + seconds; now() < end; ::usleep(20000)) {
        zq::Socket s = zq::open_tcp_socket();
        bool up = zq::connect_socket(s, zq::to_sockaddr(zq::Endpoint{"127.0.0.1", port}));
        zq::close_socket(s);
        if (up) return true;
    }
    return false;
}

// Runs a command to its end and returns what it printed.
inline std::string run_and_read(const std::string& command) {
    std::string out;
    if (FILE* p = ::popen(command.c_str(), "r")) {
        char block[4096];
        std::size_t n;
        while ((n = std::fread(block, 1, sizeof block, p)) > 0) out.append(block, n);
        ::pclose(p);
    }
    return out;
}

}  // namespace bench
