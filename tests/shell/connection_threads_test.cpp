// The stop signal and the connection threads that the command port and the HTTP servers share.
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "shell/connection_threads.h"
#include "shell/platform.h"
#include "support/prelude.h"

namespace {

zq::Socket bound_udp() {
    zq::network_init();
    zq::Socket s = zq::open_udp_socket();
    zq::bind_socket(s, zq::to_sockaddr(zq::Endpoint{"127.0.0.1", 0}));
    return s;
}

}  // namespace

TEST(StopSignal, WakesEveryWaiterAtOnceAndTellsReadyFromTimedOut) {
    zq::StopSignal signal;
    signal.arm();
    zq::Socket quiet = bound_udp(), busy = bound_udp();
    zq::SockAddr busy_address;
    ASSERT_TRUE(zq::local_address(busy, &busy_address));
    zq::send_to(quiet, "x", 1, busy_address);
    EXPECT_EQ(signal.wait(busy, zq::steady_seconds() + 10), zq::StopSignal::Wait::Ready);
    EXPECT_EQ(signal.wait(quiet, zq::steady_seconds() + 0.05), zq::StopSignal::Wait::TimedOut);

    // Waits without a deadline, on a socket and on nothing, all end with the one raise.
    std::atomic<int> stopped{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 4; ++i)
        waiters.emplace_back([&, i] {
            if (signal.wait(i % 2 ? quiet : zq::invalid_socket, 0) == zq::StopSignal::Wait::Stopped) ++stopped;
        });
    signal.raise();
    for (auto& t : waiters) t.join();
    EXPECT_EQ(stopped.load(), 4);
    EXPECT_EQ(signal.wait(busy, 0), zq::StopSignal::Wait::Stopped);  // raised stays raised
    signal.close();
    zq::close_socket(quiet);
    zq::close_socket(busy);
}

TEST(ConnectionThreads, CountsWhatServesAndJoinsEveryThread) {
    zq::ConnectionThreads threads;
    std::mutex lock;
    std::condition_variable go;
    bool released = false;
    std::atomic<int> served{0};
    auto serve = [&] {
        std::unique_lock<std::mutex> guard(lock);
        go.wait(guard, [&] { return released; });
        ++served;
    };
    for (int i = 0; i < 3; ++i) ASSERT_TRUE(threads.start(serve));
    EXPECT_TRUE(threads.full(3));
    EXPECT_FALSE(threads.full(4));
    {
        std::lock_guard<std::mutex> guard(lock);
        released = true;
    }
    go.notify_all();
    ASSERT_TRUE(wait_until([&] { return threads.active.load() == 0; }));
    // The next start joins the three that ended; join_all then waits for the last one.
    ASSERT_TRUE(threads.start(serve));
    threads.join_all();
    EXPECT_EQ(served.load(), 4);
    EXPECT_EQ(threads.active.load(), 0);
}
