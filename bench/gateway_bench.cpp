// The gateway's data path on the loopback against its floor, measured in the same run: two
// players, each with a gateway, and what one port sends to the address it was told for the other
// arriving at the other port. The same three measurements run over plain loopback UDP (the
// floor) and, when socat is installed, over two chained socat UDP relays, and the gateway's
// figures are printed as ratios of the floor's:
//   - round trip of a 100-byte ping-pong, the other side answering from a thread of its own;
//   - forwarding rate with a window of datagrams in flight;
//   - loss at a paced 20000 datagrams/s.
// On a busy machine the rate follows the CPU time that each datagram costs, so the forwarding
// lines of the paths that run in this process also show that (user and system, all threads).

#include <sys/resource.h>

#include <atomic>
#include <cstdio>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "measure.h"
#include "p2p/gateway.h"
#include "shell/net.h"
#include "support/ports.h"
#include "support/process.h"
#include "support/wait.h"

namespace {

using zq::Endpoint;

constexpr double kSeconds = 2.0;
constexpr int kPacedRate = 20000;
constexpr int kWindow = 32;

// A game port's socket. Receives skip the gateway's own control frames (FF FF FF FF ...).
class Port {
public:
    Port() {
        zq::network_init();
        socket_ = zq::open_udp_socket();
        zq::bind_socket(socket_, zq::to_sockaddr(Endpoint{"127.0.0.1", 0}));
        // The bench's own receivers fall behind on a busy machine; a deep queue keeps that loss
        // out of the figures, so what is lost is lost on the way.
        const int depth = 4 << 20;
        zq::set_receive_buffer(socket_, depth);
        address = zq::bound_endpoint(socket_);
        buffer_.resize(65536);
    }
    ~Port() { zq::close_socket(socket_); }
    Port(const Port&) = delete;
    Port& operator=(const Port&) = delete;

    void send(const zq::SockAddr& to, const std::string& frame) {
        zq::send_to(socket_, frame.data(), static_cast<int>(frame.size()), to);
    }
    // A data frame's size and sender; -1 after the time-out.
    int receive(int timeout_ms, zq::SockAddr* from = nullptr) {
        for (;;) {
            if (zq::wait_readable({socket_}, timeout_ms, ready_) < 1) return -1;
            zq::SockAddr sender;
            int n = zq::recv_from(socket_, buffer_.data(), static_cast<int>(buffer_.size()), &sender);
            if (n >= 4 && buffer_.compare(0, 4, "\xFF\xFF\xFF\xFF") == 0) continue;
            if (n < 0) continue;
            if (from) *from = sender;
            return n;
        }
    }

    Endpoint address;

private:
    zq::Socket socket_ = zq::invalid_socket;
    std::string buffer_;
    std::vector<bool> ready_;
};

std::string frame_of(std::size_t payload) { return std::string("\x0E\x4A\x0E\x4A", 4) + std::string(payload, 'x'); }

// One way from port A to port B, and what it measured.
struct Path {
    std::string name;
    Port a, b;
    bool in_process = true;  // whether this process's CPU time covers the whole path
    zq::SockAddr a_to_b;  // where A sends to reach B; B answers to whatever address it hears A from
    double rtt_median_us = 0, rtt_p99_us = 0;
    double rate_small = 0, rate_large = 0;
    std::uint64_t paced_sent = 0, paced_lost = 0;
};

void round_trip(Path& path) {
    const std::string frame = frame_of(100);
    std::atomic<bool> done{false};
    std::thread echo([&] {
        zq::SockAddr from;
        while (!done)
            if (path.b.receive(100, &from) >= 0) path.b.send(from, frame);
    });
    std::vector<double> rtt;
    const double end = bench::now() + kSeconds;
    while (bench::now() < end) {
        const double sent = bench::now();
        path.a.send(path.a_to_b, frame);
        if (path.a.receive(1000) < 0) continue;
        rtt.push_back(bench::now() - sent);
    }
    done = true;
    echo.join();
    bench::report(path.name + ": round trip, 100-byte ping-pong", static_cast<double>(rtt.size()) / kSeconds, rtt);
    path.rtt_median_us = bench::percentile_us(rtt, 50);
    path.rtt_p99_us = bench::percentile_us(rtt, 99);
}

// One thread keeps `window` datagrams in flight and takes them in at the far end, as the
// earlier runs of this bench did; a datagram the loopback dropped is written off after 50 ms.
double cpu_seconds() {
    rusage r{};
    getrusage(RUSAGE_SELF, &r);
    auto seconds = [](const timeval& t) { return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6; };
    return seconds(r.ru_utime) + seconds(r.ru_stime);
}

double forwarding_rate(Path& path, std::size_t payload) {
    const std::string frame = frame_of(payload);
    std::uint64_t sent = 0, arrived = 0, lost = 0;
    const double cpu_before = cpu_seconds();
    const double end = bench::now() + kSeconds;
    while (bench::now() < end) {
        while (sent - arrived - lost < static_cast<std::uint64_t>(kWindow)) {
            path.a.send(path.a_to_b, frame);
            ++sent;
        }
        if (path.b.receive(50) >= 0) ++arrived;
        else lost = sent - arrived;
    }
    const double cpu_us = arrived ? (cpu_seconds() - cpu_before) * 1e6 / static_cast<double>(arrived) : 0.0;
    bench::report(path.name + ": forwarding, " + std::to_string(payload) + "-byte payload, " +
                      std::to_string(kWindow) + " in flight (" + std::to_string(lost) + " lost)",
                  static_cast<double>(arrived) / kSeconds);
    if (path.in_process) std::fprintf(stderr, "%-64s %10.1f us\n", "    CPU per datagram", cpu_us);
    return static_cast<double>(arrived) / kSeconds;
}

// A sender paced at kPacedRate (sending what is due every 100 us) and a receiver of its own.
void paced_loss(Path& path) {
    const std::string frame = frame_of(100);
    std::atomic<std::uint64_t> arrived{0};
    std::atomic<bool> done{false};
    std::thread receiver([&] {
        while (!done)
            if (path.b.receive(50) >= 0) ++arrived;
    });
    std::uint64_t sent = 0;
    const double start = bench::now();
    for (double now = start; now < start + kSeconds; now = bench::now()) {
        const auto due = static_cast<std::uint64_t>((now - start) * kPacedRate);
        for (; sent < due; ++sent) path.a.send(path.a_to_b, frame);
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
    testing_support::wait_until([&] { return arrived.load() >= sent; }, 1.0);
    done = true;
    receiver.join();
    path.paced_sent = sent;
    path.paced_lost = sent - std::min<std::uint64_t>(sent, arrived.load());
    std::fprintf(stderr, "%-64s %10llu sent, %llu lost\n", (path.name + ": paced 20000/s, 100-byte payload").c_str(),
                 static_cast<unsigned long long>(sent), static_cast<unsigned long long>(path.paced_lost));
}

void measure(Path& path) {
    round_trip(path);
    path.rate_small = forwarding_rate(path, 100);
    path.rate_large = forwarding_rate(path, 1200);
    paced_loss(path);
}

// socat's UDP listener takes a moment to bind; until then a datagram to it would be refused and
// the relay before it would give up. /proc/net/udp shows the binding.
bool udp_bound(int port) {
    std::ifstream table("/proc/net/udp");
    std::string line;
    while (std::getline(table, line)) {
        unsigned local_port = 0;  // "  sl: local_address:port ..." in hexadecimal
        if (std::sscanf(line.c_str(), " %*d: %*x:%x", &local_port) == 1 && static_cast<int>(local_port) == port)
            return true;
    }
    return false;
}

// Two socat relays in a row, each bound to the first sender it hears, A -> first -> second -> B.
struct SocatChain {
    std::unique_ptr<testing_support::Process> first, second;
    int first_port = 0;
    bool up = false;

    SocatChain(const Endpoint& b, const testing_support::TempDir& dir) {
        first_port = testing_support::free_port(false);
        const int second_port = testing_support::free_port(false, first_port);
        auto relay = [&](int listen, int to) {
            return std::make_unique<testing_support::Process>(
                "/usr/bin/socat",
                std::vector<std::string>{"UDP4-LISTEN:" + std::to_string(listen) + ",bind=127.0.0.1",
                                         "UDP4:127.0.0.1:" + std::to_string(to)},
                dir.path());
        };
        second = relay(second_port, b.port);
        if (!testing_support::wait_until([&] { return udp_bound(second_port); }, 5.0)) return;
        first = relay(first_port, second_port);
        up = testing_support::wait_until([&] { return udp_bound(first_port); }, 5.0);
    }
    ~SocatChain() {
        for (auto* p : {first.get(), second.get()})
            if (p) {
                p->interrupt();
                p->wait(5.0);
            }
    }
};

void ratio_line(const std::string& what, double gateway, double floor, const std::string& target) {
    std::fprintf(stderr, "%-64s %10.2fx   (target %s)\n", what.c_str(), floor > 0 ? gateway / floor : 0.0, target.c_str());
}

}  // namespace

int main() {
    zq::network_init();
    std::vector<std::unique_ptr<Path>> paths;

    auto direct = std::make_unique<Path>();
    direct->name = "direct UDP";
    direct->a_to_b = zq::to_sockaddr(direct->b.address);
    measure(*direct);

    std::unique_ptr<Path> socat;
    if (std::ifstream("/usr/bin/socat").good()) {
        socat = std::make_unique<Path>();
        socat->name = "two socat relays";
        socat->in_process = false;
        testing_support::TempDir dir;
        SocatChain chain(socat->b.address, dir);
        if (chain.up) {
            socat->a_to_b = zq::to_sockaddr(Endpoint{"127.0.0.1", chain.first_port});
            measure(*socat);
        } else {
            std::fprintf(stderr, "two socat relays: skipped, they did not come up\n");
            socat.reset();
        }
    } else {
        std::fprintf(stderr, "two socat relays: skipped, socat is not installed\n");
    }

    auto through = std::make_unique<Path>();
    through->name = "two gateways";
    zq::p2p::Gateway a(0, std::nullopt, "127.0.0.1", nullptr), b(0, std::nullopt, "127.0.0.1", nullptr);
    std::string error;
    if (!a.start(&error) || !b.start(&error)) {
        std::fprintf(stderr, "gateway: %s\n", error.c_str());
        return 1;
    }
    const Endpoint bob_for_a =
        a.add_member(2, "bob", Endpoint{"127.0.0.1", b.port}, {}, "alice", 1, 7, through->a.address);
    b.add_member(1, "alice", Endpoint{"127.0.0.1", a.port}, {}, "bob", 2, 7, through->b.address);
    through->a_to_b = zq::to_sockaddr(bob_for_a);
    measure(*through);
    a.stop();
    b.stop();

    std::fprintf(stderr, "\n");
    auto ratios = [&](const Path& p, const char* label) {
        ratio_line(p.name + ": round trip vs " + label, p.rtt_median_us, direct->rtt_median_us, "gateways <= 3.0x");
        ratio_line(p.name + ": rate, 100 bytes, vs " + label, p.rate_small, direct->rate_small, "gateways >= 0.5x");
        ratio_line(p.name + ": rate, 1200 bytes, vs " + label, p.rate_large, direct->rate_large, "gateways >= 0.5x");
    };
    if (socat) ratios(*socat, "direct");
    ratios(*through, "direct");
    std::fprintf(stderr, "%-64s %10llu      (target 0; direct lost %llu)\n", "two gateways: lost at paced 20000/s",
                 static_cast<unsigned long long>(through->paced_lost),
                 static_cast<unsigned long long>(direct->paced_lost));
    return 0;
}
