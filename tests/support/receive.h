#pragma once
// Reading a TCP stream against a deadline, for the doubles and clients that talk to the program:
// a fault then fails the test instead of hanging it.

#include <string>
#include <vector>

#include "shell/net.h"
#include "shell/util.h"

namespace testing_support {

// Appends what arrives on s before the deadline (on the steady_seconds clock) to buffer. False
// when nothing came in time, or when the stream ended, which also sets *ended.
inline bool receive_some(zq::Socket s, std::string& buffer, double deadline, bool* ended = nullptr) {
    std::vector<bool> ready;
    const double left = deadline - zq::steady_seconds();
    if (left <= 0 || zq::wait_readable({s}, static_cast<int>(left * 1000) + 1, ready) < 1) return false;
    char block[65536];
    const int n = zq::recv_some(s, block, sizeof block);
    if (n < 1) {
        if (ended) *ended = true;
        return false;
    }
    buffer.append(block, static_cast<std::size_t>(n));
    return true;
}

// Receives into buffer until done(buffer) holds; false if the deadline or the end of the stream
// comes first.
template <class Done>
bool receive_until(zq::Socket s, std::string& buffer, Done done, double seconds, bool* ended = nullptr) {
    const double deadline = zq::steady_seconds() + seconds;
    while (!done(buffer))
        if (!receive_some(s, buffer, deadline, ended)) return false;
    return true;
}

}  // namespace testing_support
