#pragma once
// Loopback ports for tests: ones a child process will bind soon, and ones where nothing answers.

#include "shell/net.h"

namespace testing_support {

// A port that was free a moment ago: the system's choice, let go at once. Never `besides`, so
// two such ports can be handed to one program.
inline int free_port(bool tcp = true, int besides = 0) {
    zq::network_init();
    for (;;) {
        zq::Socket s = tcp ? zq::open_tcp_socket() : zq::open_udp_socket();
        zq::bind_socket(s, zq::to_sockaddr(zq::Endpoint{"127.0.0.1", 0}));
        const int port = zq::bound_endpoint(s).port;
        zq::close_socket(s);
        if (port != besides) return port;
    }
}

// A TCP port that nobody listens on.
inline int closed_port(int besides = 0) { return free_port(true, besides); }

}  // namespace testing_support
