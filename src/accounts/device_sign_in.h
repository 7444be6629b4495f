#pragma once
// Discord sign-in by device code: the service hands out a user code, the player approves it in
// a browser, and a worker thread polls until the service hands over the account's token.

#include <atomic>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>

#include "shell/config.h"

namespace zq {

class DeviceSignIn {
public:
    enum Status : int { Idle = 0, Starting = 1, Waiting = 2, SignedIn = 3, Failed = 4 };

    DeviceSignIn(std::string server, std::filesystem::path state_path);
    ~DeviceSignIn();
    DeviceSignIn(const DeviceSignIn&) = delete;
    DeviceSignIn& operator=(const DeviceSignIn&) = delete;

    void start();
    void cancel();

    int status() const { return status_.load(); }
    std::string user_code() const;
    std::string verification_uri() const;
    std::string signed_in_name() const;
    std::string error() const;

private:
    void worker();
    void fail(const std::string& text);

    std::string server_;
    std::filesystem::path state_path_;
    std::atomic<int> status_{Idle};
    std::atomic<bool> cancel_{false};
    mutable std::mutex lock_;  // guards the four strings and the deadline
    std::string user_code_;
    std::string verification_uri_;
    std::string signed_in_name_;
    std::string error_;
    double deadline_ = 0.0;
    std::thread worker_;
};

// --link-discord: the sign-in on the console; returns the exit code.
int run_link_discord(const Config& config);

}  // namespace zq
