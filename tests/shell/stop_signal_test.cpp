#include <atomic>
#include <thread>
#include <vector>

#include "shell/connection_threads.h"
#include "shell/platform.h"
#include "support/prelude.h"

// A raise ends every wait at once: those on a socket nobody writes to and those on nothing. A
// missed wake would hold them until their deadline.
TEST(StopSignal, ARaiseEndsEveryWaitAtOnce) {
    zq::network_init();
    zq::StopSignal signal;
    signal.arm();
    zq::Socket quiet = zq::open_udp_socket();
    ASSERT_TRUE(zq::bind_socket(quiet, zq::to_sockaddr(zq::Endpoint{"127.0.0.1", 0})));
    EXPECT_EQ(signal.wait(quiet, zq::steady_seconds() + 0.05), zq::StopSignal::Wait::TimedOut);
    std::atomic<int> stopped{0};
    std::vector<std::thread> waiters;
    for (zq::Socket on : {quiet, zq::invalid_socket, quiet, zq::invalid_socket})
        waiters.emplace_back([&, on] {
            if (signal.wait(on, zq::steady_seconds() + 20.0) == zq::StopSignal::Wait::Stopped) ++stopped;
        });
    zq::sleep_ms(50);  // most likely all are waiting by now; a waiter still on its way sees the flag
    const double raised_at = zq::steady_seconds();
    signal.raise();
    for (auto& waiter : waiters) waiter.join();
    EXPECT_EQ(stopped.load(), 4);
    EXPECT_LT(zq::steady_seconds() - raised_at, 10.0);
    signal.close();
    zq::close_socket(quiet);
}
