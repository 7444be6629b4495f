#pragma once
// A far end that answers every HTTP request with a head that promises a large body and then
// sends that body one byte per gap: with a short gap no single wait is long, so only a limit on
// the whole call ends it; with a long one the body stalls. Listens on 127.0.0.1, port 0.

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "shell/net.h"

namespace testing_support {

class TrickleServer {
public:
    explicit TrickleServer(double gap_seconds = 0.1);
    ~TrickleServer();
    TrickleServer(const TrickleServer&) = delete;
    TrickleServer& operator=(const TrickleServer&) = delete;

    std::string base_url() const { return "http://127.0.0.1:" + std::to_string(port_); }
    // Requests whose head has arrived.
    int requests() const { return requests_.load(); }

private:
    void serve(zq::Socket s);

    zq::Socket listener_ = zq::invalid_socket;
    int port_ = 0;
    double gap_;
    std::atomic<bool> stopping_{false};
    std::atomic<int> requests_{0};
    std::thread acceptor_;
    std::mutex lock_;
    std::vector<std::thread> connections_;  // guarded by lock_
};

}  // namespace testing_support
