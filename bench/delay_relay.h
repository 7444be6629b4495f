#pragma once
// A TCP relay on the loopback that puts a distance between a client and a server: every byte,
// each way, arrives half a round trip after it was sent, and a new connection costs one whole
// round trip before the client's first bytes can leave, as a TCP handshake over that distance
// would (the client's own connect returns at once; its early bytes are held). One thread with
// ppoll, so the delays hold to a fraction of a millisecond on a quiet machine. Linux only, as
// the benches are.
//
// It counts what crossed: connections, and client flights (bytes from the client after the
// server last spoke, or the first on a connection). On a connection used one call at a time,
// connections plus flights are the network round trips the client waited for.

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <deque>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "measure.h"
#include "shell/net.h"

namespace bench {

class DelayRelay {
public:
    struct Counts {
        int connections = 0;
        int client_flights = 0;
    };

    DelayRelay(const zq::Endpoint& target, double round_trip_seconds)
        : target_(target), one_way_(round_trip_seconds / 2), round_trip_(round_trip_seconds) {
        zq::network_init();
        listener_ = zq::open_tcp_socket();
        zq::bind_socket(listener_, zq::to_sockaddr(zq::Endpoint{"127.0.0.1", 0}));
        zq::listen_socket(listener_, 64);
        port = zq::bound_endpoint(listener_).port;
        non_blocking(static_cast<int>(listener_));
        if (::pipe2(wake_, O_NONBLOCK | O_CLOEXEC) != 0) wake_[0] = wake_[1] = -1;
        thread_ = std::thread([this] { run(); });
    }
    ~DelayRelay() {
        stopping_ = true;
        poke();
        thread_.join();
        zq::close_socket(listener_);
        ::close(wake_[0]);
        ::close(wake_[1]);
    }
    DelayRelay(const DelayRelay&) = delete;
    DelayRelay& operator=(const DelayRelay&) = delete;

    Counts counts() const { return Counts{connections_.load(), flights_.load()}; }
    // Ends every connection at once, both ways, as a server's idle time-out would.
    void close_all() {
        close_all_ = true;
        poke();
    }

    int port = 0;

private:
    struct Chunk {
        double due;
        std::string bytes;  // empty: the sender closed its side
    };
    struct Direction {
        int from = -1, to = -1;
        std::deque<Chunk> queue;
        bool read_done = false;   // the sender's end seen
        bool write_done = false;  // passed on as a shutdown
    };
    struct Link {
        double opened = 0;
        Direction up, down;  // client to server, server to client
        bool server_spoke = true;  // so that the client's first bytes count as a flight
    };

    static void non_blocking(int fd) { ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK); }
    void poke() {
        const char byte = 0;
        [[maybe_unused]] auto n = ::write(wake_[1], &byte, 1);
    }

    void accept_new() {
        for (;;) {
            const int client = ::accept4(static_cast<int>(listener_), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
            if (client < 0) return;
            zq::Socket server = zq::open_tcp_socket();
            if (!zq::connect_socket(server, zq::to_sockaddr(target_))) {
                ::close(client);
                zq::close_socket(server);
                continue;
            }
            const int s = static_cast<int>(server);
            non_blocking(s);
            const int one = 1;
            ::setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
            ::setsockopt(s, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
            auto link = std::make_unique<Link>();
            link->opened = now();
            link->up.from = link->down.to = client;
            link->up.to = link->down.from = s;
            links_.push_back(std::move(link));
            ++connections_;
        }
    }

    // Reads what the sender has; false when the link is broken.
    bool take_in(Link& link, Direction& d, bool upward) {
        char block[65536];
        for (;;) {
            const ssize_t n = ::recv(d.from, block, sizeof block, 0);
            if (n < 0) return errno == EAGAIN || errno == EWOULDBLOCK;
            const double t = now();
            // Bytes the client sent before its handshake would have finished leave only then.
            const double leaves = upward ? std::max(t, link.opened + round_trip_) : t;
            if (n == 0) {
                d.read_done = true;
                d.queue.push_back(Chunk{leaves + one_way_, std::string()});
                return true;
            }
            if (upward && link.server_spoke) ++flights_;
            link.server_spoke = !upward;
            d.queue.push_back(Chunk{leaves + one_way_, std::string(block, static_cast<std::size_t>(n))});
        }
    }

    // Writes what is due; false when the link is broken.
    static bool pass_on(Direction& d, double t) {
        while (!d.queue.empty() && d.queue.front().due <= t) {
            Chunk& c = d.queue.front();
            if (c.bytes.empty()) {
                ::shutdown(d.to, SHUT_WR);
                d.write_done = true;
                d.queue.pop_front();
                continue;
            }
            const ssize_t n = ::send(d.to, c.bytes.data(), c.bytes.size(), MSG_NOSIGNAL);
            if (n < 0) return errno == EAGAIN || errno == EWOULDBLOCK;
            c.bytes.erase(0, static_cast<std::size_t>(n));
            if (!c.bytes.empty()) return true;
            d.queue.pop_front();
        }
        return true;
    }

    static void drop(Link& link) {
        ::shutdown(link.up.from, SHUT_RDWR);
        ::shutdown(link.up.to, SHUT_RDWR);
        ::close(link.up.from);
        ::close(link.up.to);
    }

    void run() {
        std::vector<pollfd> fds;
        while (!stopping_) {
            if (close_all_.exchange(false)) {
                for (auto& link : links_) drop(*link);
                links_.clear();
            }
            double t = now();
            double next = t + 1.0;
            for (auto it = links_.begin(); it != links_.end();) {
                Link& link = **it;
                const bool ok = pass_on(link.up, t) && pass_on(link.down, t);
                if (!ok || (link.up.write_done && link.down.write_done)) {
                    drop(link);
                    it = links_.erase(it);
                    continue;
                }
                for (Direction* d : {&link.up, &link.down})
                    if (!d->queue.empty()) next = std::min(next, d->queue.front().due);
                ++it;
            }
            fds.clear();
            fds.push_back(pollfd{static_cast<int>(listener_), POLLIN, 0});
            fds.push_back(pollfd{wake_[0], POLLIN, 0});
            for (auto& link : links_)
                for (Direction* d : {&link->up, &link->down}) {
                    if (!d->read_done) fds.push_back(pollfd{d->from, POLLIN, 0});
                    // A chunk due but not yet taken by the kernel waits for room.
                    if (!d->queue.empty() && d->queue.front().due <= t) fds.push_back(pollfd{d->to, POLLOUT, 0});
                }
            const double wait = std::max(0.0, next - now());
            const auto whole = static_cast<time_t>(wait);
            timespec timeout{whole, static_cast<long>((wait - static_cast<double>(whole)) * 1e9)};
            if (::ppoll(fds.data(), fds.size(), &timeout, nullptr) < 0 && errno != EINTR) break;
            char drain[64];
            while (::read(wake_[0], drain, sizeof drain) > 0) {
            }
            accept_new();
            for (auto it = links_.begin(); it != links_.end();) {
                Link& link = **it;
                const bool ok = (link.up.read_done || take_in(link, link.up, true)) &&
                                (link.down.read_done || take_in(link, link.down, false));
                if (!ok) {
                    drop(link);
                    it = links_.erase(it);
                    continue;
                }
                ++it;
            }
        }
        for (auto& link : links_) drop(*link);
    }

    zq::Endpoint target_;
    double one_way_, round_trip_;
    zq::Socket listener_ = zq::invalid_socket;
    int wake_[2] = {-1, -1};
    std::atomic<bool> stopping_{false}, close_all_{false};
    std::atomic<int> connections_{0}, flights_{0};
    std::vector<std::unique_ptr<Link>> links_;  // the relay's thread alone
    std::thread thread_;
};

}  // namespace bench
