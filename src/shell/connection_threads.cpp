#include "shell/connection_threads.h"

#include <system_error>

#include "shell/platform.h"
#include "shell/util.h"

namespace zq {

namespace {
// How often a wait without the signal's socket looks at the flag.
constexpr double fallback_slice = 0.2;
}  // namespace

void StopSignal::arm() {
    close();
    raised_ = false;
    network_init();
    socket_ = open_udp_socket();
    if (socket_ != invalid_socket &&
        (!bind_socket(socket_, to_sockaddr(Endpoint{"127.0.0.1", 0})) || !local_address(socket_, &address_))) {
        close_socket(socket_);
        socket_ = invalid_socket;
    }
}

void StopSignal::raise() {
    raised_ = true;
    if (socket_ != invalid_socket) send_to(socket_, "x", 1, address_);
}

void StopSignal::close() {
    close_socket(socket_);
    socket_ = invalid_socket;
}

StopSignal::Wait StopSignal::wait(Socket s, double deadline) {
    for (;;) {
        if (raised_) return Wait::Stopped;
        int timeout_ms = -1;
        if (deadline > 0) {
            const double left = deadline - steady_seconds();
            if (left <= 0) return Wait::TimedOut;
            timeout_ms = static_cast<int>(left * 1000) + 1;
        }
        if (socket_ == invalid_socket) {
            const int slice = static_cast<int>(fallback_slice * 1000);
            timeout_ms = timeout_ms < 0 || timeout_ms > slice ? slice : timeout_ms;
        }
        if (s == invalid_socket && socket_ == invalid_socket) {
            sleep_ms(timeout_ms);
            continue;
        }
        const int ready = wait_readable_pair(s, socket_, timeout_ms);
        if (ready < 0) {
            // Rare (out of memory); a short rest keeps a caller's loop from spinning on it.
            sleep_ms(50);
            return Wait::Failed;
        }
        if (raised_ || (ready & 2)) return Wait::Stopped;
        if (ready & 1) return Wait::Ready;
    }
}

bool ConnectionThreads::start(std::function<void()> serve, std::string* why) {
    std::vector<std::thread> ended;
    bool started = true;
    {
        std::lock_guard<std::mutex> guard(lock_);
        for (std::uint64_t id : ended_) {
            auto it = threads_.find(id);
            if (it == threads_.end()) continue;
            ended.push_back(std::move(it->second));
            threads_.erase(it);
        }
        ended_.clear();
        const std::uint64_t id = next_++;
        ++active;
        try {
            // The thread reports its end under the lock that this insertion holds, so its id is
            // always in the map by then.
            threads_.emplace(id, std::thread([this, id, serve = std::move(serve)] {
                serve();
                std::lock_guard<std::mutex> done(lock_);
                ended_.push_back(id);
                --active;
            }));
        } catch (const std::system_error& e) {
            if (why) *why = e.what();
            --active;
            started = false;
        }
    }
    for (auto& thread : ended) thread.join();
    return started;
}

void ConnectionThreads::join_all() {
    std::map<std::uint64_t, std::thread> all;
    {
        std::lock_guard<std::mutex> guard(lock_);
        all.swap(threads_);
        ended_.clear();
    }
    for (auto& [id, thread] : all) thread.join();
}

}  // namespace zq
