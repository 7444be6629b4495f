#include "support/trickle_server.h"

#include "shell/platform.h"
#include "shell/util.h"
#include "support/receive.h"

namespace testing_support {

TrickleServer::TrickleServer(double gap_seconds) : gap_(gap_seconds) {
    zq::network_init();
    listener_ = zq::open_tcp_socket();
    zq::bind_socket(listener_, zq::to_sockaddr({"127.0.0.1", 0}));
    zq::listen_socket(listener_, 16);
    port_ = zq::bound_endpoint(listener_).port;
    acceptor_ = std::thread([this] {
        std::vector<bool> ready;
        while (!stopping_) {
            if (zq::wait_readable({listener_}, 50, ready) < 1) continue;
            zq::Socket s = zq::accept_socket(listener_);
            if (s == zq::invalid_socket) continue;
            std::lock_guard<std::mutex> guard(lock_);
            connections_.emplace_back(&TrickleServer::serve, this, s);
        }
    });
}

TrickleServer::~TrickleServer() {
    stopping_ = true;
    acceptor_.join();
    zq::close_socket(listener_);
    for (auto& t : connections_) t.join();
}

void TrickleServer::serve(zq::Socket s) {
    std::string head;
    if (receive_until(s, head, [](const std::string& h) { return h.find("\r\n\r\n") != std::string::npos; }, 10.0)) {
        ++requests_;
        const std::string start = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: 1000000\r\n\r\n ";
        bool ok = zq::send_all(s, start);
        for (double next = zq::steady_seconds() + gap_; ok && !stopping_; zq::sleep_ms(20)) {
            if (zq::steady_seconds() < next) continue;
            ok = zq::send_some(s, " ", 1) == 1;
            next += gap_;
        }
    }
    zq::close_socket(s);
}

}  // namespace testing_support
