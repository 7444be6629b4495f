#pragma once
// The benches' HTTP client: one connection to a loopback port, one call at a time, with the
// answer read whole by its Content-Length. Small enough that what it costs is the server's.

#include <string>

#include "shell/net.h"

namespace bench {

class HttpClient {
public:
    explicit HttpClient(int port) : port_(port) {
        socket_ = zq::open_tcp_socket();
        if (!zq::connect_socket(socket_, zq::to_sockaddr(zq::Endpoint{"127.0.0.1", port}))) {
            zq::close_socket(socket_);
            socket_ = zq::invalid_socket;
        }
        zq::set_tcp_nodelay(socket_);
    }
    ~HttpClient() { zq::close_socket(socket_); }
    HttpClient(const HttpClient&) = delete;
    HttpClient& operator=(const HttpClient&) = delete;

    // The status of the answer, or -1 when the connection failed.
    int get(const std::string& path) { return call("GET", path, std::string()); }
    int post(const std::string& path, const std::string& body) { return call("POST", path, body); }

    // The body of the last answer.
    const std::string& body() const { return body_; }

private:
    int call(const std::string& method, const std::string& path, const std::string& body) {
        std::string request = method + " " + path + " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port_) +
                              "\r\nUser-Agent: bench\r\n";
        if (method != "GET")
            request += "Content-Type: application/json\r\nContent-Length: " + std::to_string(body.size()) + "\r\n";
        request += "\r\n" + body;
        if (socket_ == zq::invalid_socket || !zq::send_all(socket_, request)) return -1;
        std::size_t end;
        while ((end = buffer_.find("\r\n\r\n")) == std::string::npos)
            if (!fill()) return -1;
        const std::string head = buffer_.substr(0, end);
        std::size_t length = 0;
        for (const char* name : {"Content-Length: ", "content-length: "})
            if (std::size_t at = head.find(name); at != std::string::npos)
                length = std::stoul(head.substr(at + std::char_traits<char>::length(name)));
        while (buffer_.size() < end + 4 + length)
            if (!fill()) return -1;
        body_ = buffer_.substr(end + 4, length);
        buffer_.erase(0, end + 4 + length);
        return head.size() > 12 ? std::stoi(head.substr(9, 3)) : -1;
    }
    bool fill() {
        char block[16384];
        int n = zq::recv_some(socket_, block, sizeof block);
        if (n < 1) return false;
        buffer_.append(block, static_cast<std::size_t>(n));
        return true;
    }
    int port_;
    zq::Socket socket_ = zq::invalid_socket;
    std::string buffer_, body_;
};

}  // namespace bench
