#pragma once
// Waiting for a program a benchmark starts (with the tests' Process) to take connections.

#include "shell/net.h"
#include "support/wait.h"

namespace bench {

// Waits until something accepts on the loopback port.
inline bool wait_listening(int port, double seconds) {
    return testing_support::wait_until(
        [&] {
            zq::Socket s = zq::open_tcp_socket();
            const bool up = zq::connect_socket(s, zq::to_sockaddr(zq::Endpoint{"127.0.0.1", port}));
            zq::close_socket(s);
            return up;
        },
        seconds);
}

}  // namespace bench
