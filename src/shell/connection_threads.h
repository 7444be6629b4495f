#pragma once
// What a listener that serves each connection on a thread of its own needs, shared by the
// command port and the HTTP servers: a stop signal that wakes every waiting thread at once, the
// connection threads owned under a cap and joined as they end, and the rest after a failed
// accept. Waiting threads sleep until something arrives or stop is under way: an idle listener
// or connection does not wake on a timer.

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "shell/net.h"

namespace zq {

// A UDP socket of its own that raise() makes readable for good (nobody reads the datagram), so
// every thread that waits on it beside its own socket wakes at once: shutting a socket down
// does not wake a blocked wait on every system.
class StopSignal {
public:
    StopSignal() = default;
    ~StopSignal() { close(); }
    StopSignal(const StopSignal&) = delete;
    StopSignal& operator=(const StopSignal&) = delete;

    // Opens a fresh, lowered signal. Without a socket (the system refused one) waits fall back
    // to looking at the flag once in a while.
    void arm();
    void raise();
    bool raised() const { return raised_.load(); }
    // Only once no thread waits on it any more.
    void close();

    enum class Wait { Ready, TimedOut, Stopped, Failed };
    // Until s (invalid_socket: nothing but the signal) can be read, the deadline in steady
    // seconds passes (0: none), or the signal is raised.
    Wait wait(Socket s, double deadline);

private:
    Socket socket_ = invalid_socket;
    SockAddr address_;
    std::atomic<bool> raised_{false};
};

// The connection threads of one listener. Each is joined by the next start after it ended, or
// by join_all, so a thread that ended holds nothing but its handle until then.
class ConnectionThreads {
public:
    ConnectionThreads() = default;
    ~ConnectionThreads() { join_all(); }
    ConnectionThreads(const ConnectionThreads&) = delete;
    ConnectionThreads& operator=(const ConnectionThreads&) = delete;

    // Whether limit threads serve connections now: the caller refuses the next one.
    bool full(int limit) const { return active.load() >= limit; }
    // Runs serve on a thread of its own; false when the system gives no thread (its reason in
    // *why), and the caller refuses the connection and goes on.
    bool start(std::function<void()> serve, std::string* why = nullptr);
    // Every thread started so far, joined; the callers have woken them first.
    void join_all();

    std::atomic<std::int32_t> active{0};  // threads whose serve has not returned

private:
    std::mutex lock_;
    std::uint64_t next_ = 0;                      // guarded by lock_
    std::map<std::uint64_t, std::thread> threads_;  // guarded by lock_
    std::vector<std::uint64_t> ended_;              // guarded by lock_
};

// The rest after a failed accept (out of descriptors or buffers, with the connection still
// queued): from 50 ms, doubling up to a second, and back to the start after an accept works.
class AcceptBackoff {
public:
    double next_seconds() {
        const double now = current_;
        current_ = current_ * 2 < 1.0 ? current_ * 2 : 1.0;
        return now;
    }
    void reset() { current_ = 0.05; }

private:
    double current_ = 0.05;
};

}  // namespace zq
