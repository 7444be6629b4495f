#pragma once
// A plain TCP client that speaks HTTP by hand, so tests control every byte that goes out and see
// every byte that comes back. Each read waits at most 15 seconds (a loaded machine under Wine
// is slow), so that a fault fails the test instead of hanging it.

#include <string>

#include "http/server.h"
#include "shell/net.h"
#include "support/receive.h"

namespace http_test {

struct RawResponse {
    bool ok = false;  // a whole response arrived
    std::string head;  // status line and headers, without the blank line
    std::string body;
};

class RawClient {
public:
    // With connect_now false the socket is made now and connected by connect().
    explicit RawClient(int port, bool connect_now = true) : port_(port) {
        zq::network_init();
        s_ = zq::open_tcp_socket();
        if (connect_now) connect();
    }
    // To host from the address from, as a host with several addresses would.
    RawClient(const std::string& from, const std::string& host, int port) : port_(port), host_(host) {
        zq::network_init();
        s_ = zq::open_tcp_socket();
        if (zq::bind_socket(s_, zq::to_sockaddr(zq::Endpoint{from, 0}))) connect();
    }
    bool connect() { return zq::connect_socket(s_, zq::to_sockaddr(zq::Endpoint{host_, port_})); }
    ~RawClient() { zq::close_socket(s_); }
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;

    bool send(const std::string& bytes) { return zq::send_all(s_, bytes); }
    // False also when the peer has not taken it all within the time.
    bool send(const std::string& bytes, double seconds) {
        return zq::send_all(s_, bytes, zq::steady_seconds() + seconds);
    }

    // One response; its body is Content-Length bytes unless no_body (the answer to a HEAD).
    RawResponse read_response(bool no_body = false, double seconds = kSeconds) {
        RawResponse r;
        const double deadline = zq::steady_seconds() + seconds;
        auto has_head = [](const std::string& b) { return b.find("\r\n\r\n") != std::string::npos; };
        if (!testing_support::receive_until(s_, buffer_, has_head, seconds, &gone_)) return r;
        const std::size_t end = buffer_.find("\r\n\r\n");
        r.head = buffer_.substr(0, end);
        buffer_.erase(0, end + 4);
        const std::size_t length = no_body ? 0 : static_cast<std::size_t>(
            http::body_length(http::parse_request_head(r.head).headers, ~std::uint64_t{0}).bytes);
        auto has_body = [&](const std::string& b) { return b.size() >= length; };
        if (!testing_support::receive_until(s_, buffer_, has_body, deadline - zq::steady_seconds(), &gone_)) return r;
        r.body = buffer_.substr(0, length);
        buffer_.erase(0, length);
        r.ok = true;
        return r;
    }

    // True when the server closes (or resets) the connection with nothing more to read.
    bool closed_by_peer() {
        return !testing_support::receive_some(s_, buffer_, zq::steady_seconds() + kSeconds, &gone_) &&
               buffer_.empty() && gone_;
    }

private:
    static constexpr double kSeconds = 15.0;
    int port_ = 0;
    std::string host_ = "127.0.0.1";
    zq::Socket s_ = zq::invalid_socket;
    bool gone_ = false;
    std::string buffer_;
};

}  // namespace http_test
