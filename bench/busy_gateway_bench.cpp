// The gateway under a real game's traffic on a busy PC: four peers, 60 datagrams a second of
// 200 bytes each way, for 60 s (or the seconds given), while another process keeps every core
// busy. The game's socket talks to the gateway's link sockets, and the four remote players are
// plain sockets speaking peer frames, so the path holds exactly one gateway: the player's own.
// Beside it, in the same run and at the same rate, the same datagrams go by direct UDP between
// sockets of the same kind; the difference is what the gateway adds:
//   - one-way delay, p50, p99 and max, of each path and the gateway's excess over direct;
//   - jitter (the mean difference of consecutive transit times, per stream);
//   - loss;
// and, to tell the machine's scheduling from the gateway's own work, how long the gateway's
// threads and the bench's receivers waited on the run queue per wake-up (/proc schedstat), and
// a second anchor: a bare relay with the gateway's shape (a thread that waits on a socket per
// peer and one on a public socket) that forwards each datagram as it is. A datagram on either
// path is woken for twice, where direct UDP is woken for once; on a machine whose scheduler
// stalls a wake-up now and then for milliseconds, the relay shows what the second wake-up costs
// in itself, and the gateway's excess over the relay is its own.
//
//   busy_gateway_bench [seconds] [--raised]
// The load is this program again, started with --burn: one spinning thread per core. With
// --raised (root only) the gateway's threads run at nice -10, to see what a higher priority for
// the data path would buy.

#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "measure.h"
#include "p2p/gateway.h"
#include "shell/net.h"
#include "shell/platform.h"
#include "support/process.h"
#include "support/wait.h"

namespace {

using zq::Endpoint;

constexpr int kPeers = 4;
constexpr int kRate = 60;
constexpr std::size_t kSize = 200;  // what the game sends and receives, header included
constexpr std::uint16_t kGamePort = 3658;

// What each datagram carries in its payload, so that the receiver can tell its stream and its
// transit time without any shared state.
struct Stamp {
    double sent;
    std::uint32_t sequence;
    std::uint16_t stream;
};

struct Socket {
    zq::Socket s = zq::invalid_socket;
    Endpoint address;
    Socket() {
        s = zq::open_udp_socket();
        zq::bind_socket(s, zq::to_sockaddr(Endpoint{"127.0.0.1", 0}));
        zq::set_receive_buffer(s, 1 << 20);
        address = zq::bound_endpoint(s);
    }
    ~Socket() { zq::close_socket(s); }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
};

// One path's ends: the game's socket, the remote players' sockets, and where each side sends.
struct Ends {
    Socket game;
    std::vector<std::unique_ptr<Socket>> peers;
    std::vector<zq::SockAddr> game_sends_to;  // per peer
    zq::SockAddr peers_send_to;
    Ends() {
        for (int i = 0; i < kPeers; ++i) peers.push_back(std::make_unique<Socket>());
    }
    zq::SockAddr peer(int i) const { return zq::to_sockaddr(peers[static_cast<std::size_t>(i)]->address); }
    std::vector<zq::Socket> peer_sockets() const {
        std::vector<zq::Socket> out;
        for (const auto& p : peers) out.push_back(p->s);
        return out;
    }
};

// The streams: per peer, game to peer and peer to game, through the gateway, direct, and through
// the bare relay.
enum Path { Gateway = 0, Direct = 1, Relay = 2 };
constexpr int kPaths = 3;
int stream_of(Path path, int peer, bool to_peer) { return path * 2 * kPeers + peer * 2 + (to_peer ? 1 : 0); }
constexpr int kStreams = 2 * kPaths * kPeers;

struct StreamRecord {
    std::uint32_t sent = 0, received = 0;
    std::vector<double> transit;
    double jitter_sum = 0, last_transit = -1;  // jitter: the mean of |transit - previous transit|
};

class Recorder {
public:
    Recorder() : streams_(kStreams) {}
    void sent(int stream) {
        std::lock_guard<std::mutex> hold(lock_);
        ++streams_[stream].sent;
    }
    void received(const char* data, int size, std::size_t header) {
        const double arrived = bench::now();
        if (size < static_cast<int>(header + sizeof(Stamp))) return;
        Stamp stamp;
        std::memcpy(&stamp, data + header, sizeof stamp);
        if (stamp.stream >= kStreams) return;
        std::lock_guard<std::mutex> hold(lock_);
        StreamRecord& r = streams_[stamp.stream];
        const double transit = arrived - stamp.sent;
        ++r.received;
        r.transit.push_back(transit);
        if (r.last_transit >= 0) r.jitter_sum += std::fabs(transit - r.last_transit);
        r.last_transit = transit;
    }
    std::uint32_t total_received() {
        std::lock_guard<std::mutex> hold(lock_);
        std::uint32_t n = 0;
        for (auto& r : streams_) n += r.received;
        return n;
    }
    std::vector<StreamRecord> streams() {
        std::lock_guard<std::mutex> hold(lock_);
        return streams_;
    }

private:
    std::mutex lock_;
    std::vector<StreamRecord> streams_;
};

// A port frame from the game (header 4 bytes), its payload stamped.
std::string datagram(std::size_t header_bytes, const std::string& header, int stream, std::uint32_t sequence) {
    std::string d = header;
    Stamp stamp{bench::now(), sequence, static_cast<std::uint16_t>(stream)};
    d.append(reinterpret_cast<const char*>(&stamp), sizeof stamp);
    d.resize(kSize + (header_bytes > 4 ? header_bytes - 4 : 0), 'g');
    return d;
}

const std::string kPortHeader("\x0E\x4A\x0E\x4A", 4);          // 3658 to 3658
const std::string kPeerHeader("\xFF\x83\x0E\x4A\x0E\x4A", 6);  // the same, as a peer frame

// Receives on a set of sockets until stopped, skipping the gateway's own control frames,
// punches and hellos. header: the bytes before the payload on these sockets.
void receive_loop(const std::vector<zq::Socket>& sockets, std::size_t header, Recorder& recorder,
                  const std::atomic<bool>& done) {
    std::vector<bool> ready;
    std::vector<char> buffer(65536);
    while (!done) {
        if (zq::wait_readable(sockets, 50, ready) < 1) continue;
        for (std::size_t i = 0; i < sockets.size(); ++i) {
            if (!ready[i]) continue;
            zq::SockAddr from;
            const int n = zq::recv_from(sockets[i], buffer.data(), static_cast<int>(buffer.size()), &from);
            const auto first = static_cast<unsigned char>(buffer[0]), second = static_cast<unsigned char>(buffer[1]);
            if (n < 4 || (first == 0xFF && second == 0xFF) || first == 0xFE) continue;  // control frames, punches
            recorder.received(buffer.data(), n, header);
        }
    }
}

// The bare relay: a link socket per peer that the game sends to, and a public socket that the
// peers send to; each datagram leaves as it came, by the other side.
class BareRelay {
public:
    BareRelay(const Endpoint& game, const std::vector<zq::SockAddr>& peers) : game_(zq::to_sockaddr(game)), peers_(peers) {
        for (std::size_t i = 0; i < peers.size(); ++i) links_.push_back(std::make_unique<Socket>());
    }
    ~BareRelay() { stop(); }
    zq::SockAddr link(int peer) const { return zq::to_sockaddr(links_[static_cast<std::size_t>(peer)]->address); }
    zq::SockAddr public_address() const { return zq::to_sockaddr(public_.address); }
    void start() {
        threads_.emplace_back([this] { from_game(); });
        threads_.emplace_back([this] { from_peers(); });
    }
    void stop() {
        done_ = true;
        for (auto& t : threads_) t.join();
        threads_.clear();
    }

private:
    void from_game() {
        std::vector<zq::Socket> sockets;
        for (auto& l : links_) sockets.push_back(l->s);
        std::vector<bool> ready;
        char buffer[65536];
        while (!done_) {
            if (zq::wait_readable(sockets, 50, ready) < 1) continue;
            for (std::size_t i = 0; i < sockets.size(); ++i) {
                if (!ready[i]) continue;
                const int n = zq::recv_from(sockets[i], buffer, sizeof buffer, nullptr);
                if (n > 0) zq::send_to(public_.s, buffer, n, peers_[i]);
            }
        }
    }
    void from_peers() {
        std::vector<bool> ready;
        char buffer[65536];
        while (!done_) {
            if (zq::wait_readable({public_.s}, 50, ready) < 1) continue;
            zq::SockAddr from;
            const int n = zq::recv_from(public_.s, buffer, sizeof buffer, &from);
            for (std::size_t i = 0; n > 0 && i < peers_.size(); ++i)
                if (zq::same_address(from, peers_[i])) zq::send_to(links_[i]->s, buffer, n, game_);
        }
    }
    const zq::SockAddr game_;
    const std::vector<zq::SockAddr> peers_;
    std::vector<std::unique_ptr<Socket>> links_;
    Socket public_;
    std::atomic<bool> done_{false};
    std::vector<std::thread> threads_;
};

std::vector<std::string> tasks() {
    std::vector<std::string> out;
    for (const auto& e : std::filesystem::directory_iterator("/proc/self/task")) out.push_back(e.path().filename());
    return out;
}

// Run-queue wait (ns) and time slices of a thread of this process.
std::pair<double, double> schedstat(const std::string& tid) {
    std::ifstream in("/proc/self/task/" + tid + "/schedstat");
    double on_cpu = 0, waited = 0, slices = 0;
    in >> on_cpu >> waited >> slices;
    return {waited, slices};
}

struct Waits {
    std::vector<std::string> tids;
    std::vector<std::pair<double, double>> at_start;
    void start() {
        at_start.clear();
        for (const auto& t : tids) at_start.push_back(schedstat(t));
    }
    // The mean run-queue wait per time slice since start(), in microseconds, and the slices.
    std::pair<double, double> since() const {
        double waited = 0, slices = 0;
        for (std::size_t i = 0; i < tids.size(); ++i) {
            auto [w, n] = schedstat(tids[i]);
            waited += w - at_start[i].first;
            slices += n - at_start[i].second;
        }
        return {slices > 0 ? waited / slices / 1000.0 : 0.0, slices};
    }
};

int burn() {
    const unsigned cores = std::max(1u, std::thread::hardware_concurrency());
    std::vector<std::thread> spinners;
    for (unsigned i = 0; i < cores; ++i)
        spinners.emplace_back([] {
            volatile std::uint64_t x = 0;
            for (;;) x = x + 1;
        });
    for (auto& t : spinners) t.join();
    return 0;
}

// The share of datagrams that took over a millisecond: on a path that is woken for twice, the
// machine's stalls fall about twice as often.
double share_over_1ms(const std::vector<double>& transit) {
    const auto over = std::count_if(transit.begin(), transit.end(), [](double t) { return t > 0.001; });
    return transit.empty() ? 0.0 : 100.0 * static_cast<double>(over) / static_cast<double>(transit.size());
}

void print_path(const char* name, std::vector<double>& transit, double jitter, std::uint32_t sent,
                std::uint32_t received) {
    std::fprintf(stderr,
                 "%-24s p50 %7.1f us   p99 %7.1f us   max %8.1f us   jitter %6.1f us   over 1 ms %5.2f %%   lost %u of %u\n",
                 name, bench::percentile_us(transit, 50), bench::percentile_us(transit, 99),
                 bench::percentile_us(transit, 100), jitter * 1e6, share_over_1ms(transit),
                 sent - std::min(sent, received), sent);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1 && std::strcmp(argv[1], "--burn") == 0) return burn();
    const double seconds = argc > 1 ? std::atof(argv[1]) : 60.0;
    const bool raised = argc > 2 && std::strcmp(argv[2], "--raised") == 0;
    zq::network_init();

    zq::p2p::Gateway gateway(0, std::nullopt, "127.0.0.1", nullptr);
    std::string error;
    const std::vector<std::string> before_gateway = tasks();
    if (!gateway.start(&error)) {
        std::fprintf(stderr, "gateway: %s\n", error.c_str());
        return 1;
    }
    Waits gateway_waits, receiver_waits;
    for (const auto& t : tasks())
        if (std::find(before_gateway.begin(), before_gateway.end(), t) == before_gateway.end())
            gateway_waits.tids.push_back(t);
    if (raised)
        for (const auto& t : gateway_waits.tids)
            if (::setpriority(PRIO_PROCESS, static_cast<id_t>(std::stoi(t)), -10) != 0)
                std::fprintf(stderr, "cannot raise the gateway's threads (root only)\n");
    Ends ends[kPaths];
    std::vector<zq::SockAddr> relay_peers;
    for (int i = 0; i < kPeers; ++i) {
        const Endpoint link = gateway.add_member(i + 2, "peer" + std::to_string(i), ends[Gateway].peers[i]->address, {},
                                                 "player", 1, 7, ends[Gateway].game.address);
        ends[Gateway].game_sends_to.push_back(zq::to_sockaddr(link));
        ends[Direct].game_sends_to.push_back(ends[Direct].peer(i));
        relay_peers.push_back(ends[Relay].peer(i));
    }
    ends[Gateway].peers_send_to = zq::to_sockaddr(Endpoint{"127.0.0.1", gateway.port});
    ends[Direct].peers_send_to = zq::to_sockaddr(ends[Direct].game.address);
    BareRelay relay(ends[Relay].game.address, relay_peers);
    for (int i = 0; i < kPeers; ++i) ends[Relay].game_sends_to.push_back(relay.link(i));
    ends[Relay].peers_send_to = relay.public_address();
    relay.start();

    testing_support::Process load(zq::own_executable_path(), {"--burn"}, ".");
    std::this_thread::sleep_for(std::chrono::milliseconds(500));  // the spinners take the cores

    Recorder recorder;
    std::atomic<bool> done{false};
    const std::vector<std::string> before_receivers = tasks();
    std::vector<std::thread> receivers;
    for (const Ends& e : ends) {
        receivers.emplace_back([&] { receive_loop({e.game.s}, 4, recorder, done); });
        receivers.emplace_back([&, sockets = e.peer_sockets()] { receive_loop(sockets, 6, recorder, done); });
    }

    for (const auto& t : tasks())
        if (std::find(before_receivers.begin(), before_receivers.end(), t) == before_receivers.end())
            receiver_waits.tids.push_back(t);
    gateway_waits.start();
    receiver_waits.start();

    // The game sends to every peer once a tick; the remote players do the same half a tick
    // later. Each datagram is stamped just before its send.
    const double start = bench::now() + 0.1;
    const auto ticks = static_cast<std::uint32_t>(seconds * kRate);
    // Each side gets the bytes it gets through the gateway, which turns port frames into peer
    // frames and back: the game port frames, the remote players peer frames.
    auto send = [&](Path path, int i, bool from_game, std::uint32_t tick) {
        const int stream = stream_of(path, i, from_game);
        const bool as_port_frame = (path == Gateway) == from_game;
        const std::string d = as_port_frame ? datagram(4, kPortHeader, stream, tick) : datagram(6, kPeerHeader, stream, tick);
        const Ends& e = ends[path];
        if (from_game)
            zq::send_to(e.game.s, d.data(), static_cast<int>(d.size()), e.game_sends_to[static_cast<std::size_t>(i)]);
        else
            zq::send_to(e.peers[static_cast<std::size_t>(i)]->s, d.data(), static_cast<int>(d.size()), e.peers_send_to);
        recorder.sent(stream);
    };
    auto sender = [&](bool from_game) {
        const double offset = from_game ? 0.0 : 0.5 / kRate;
        for (std::uint32_t tick = 0; tick < ticks; ++tick) {
            const double due = start + offset + static_cast<double>(tick) / kRate;
            if (double wait = due - bench::now(); wait > 0)
                std::this_thread::sleep_for(std::chrono::duration<double>(wait));
            // Whichever path goes first in a tick is woken for first: the paths take turns.
            for (int turn = 0; turn < kPaths; ++turn) {
                const auto path = static_cast<Path>((tick + static_cast<std::uint32_t>(turn)) % kPaths);
                for (int i = 0; i < kPeers; ++i) send(path, i, from_game, tick);
            }
        }
    };
    std::thread game_sender(sender, true), peer_sender(sender, false);
    game_sender.join();
    peer_sender.join();
    const std::uint32_t expected = ticks * kStreams;
    testing_support::wait_until([&] { return recorder.total_received() >= expected; }, 2.0);
    const auto [gateway_wait, gateway_slices] = gateway_waits.since();
    const auto [receiver_wait, receiver_slices] = receiver_waits.since();
    done = true;
    for (auto& t : receivers) t.join();
    load.interrupt();
    load.wait(10.0);
    gateway.stop();
    relay.stop();

    std::vector<StreamRecord> streams = recorder.streams();
    std::fprintf(stderr, "%d peers, %d datagrams/s of %zu bytes each way, %.0f s, both cores kept busy by a second "
                         "process%s\n",
                 kPeers, kRate, kSize, seconds, raised ? "; the gateway's threads at nice -10" : "");
    std::vector<double> figures[kPaths];
    for (Path path : {Gateway, Direct, Relay}) {
        std::vector<double> all;
        double jitter = 0;
        std::uint32_t sent = 0, received = 0;
        for (int i = 0; i < kPeers; ++i)
            for (bool to_peer : {true, false}) {
                StreamRecord& r = streams[stream_of(path, i, to_peer)];
                all.insert(all.end(), r.transit.begin(), r.transit.end());
                jitter += r.received > 1 ? r.jitter_sum / (r.received - 1) / (2 * kPeers) : 0.0;
                sent += r.sent;
                received += r.received;
            }
        std::vector<double> copy = all;
        print_path(path == Gateway ? "through the gateway" : path == Direct ? "anchor: direct UDP" : "anchor: bare relay",
                   copy, jitter, sent, received);
        figures[path] = {bench::percentile_us(all, 50), bench::percentile_us(all, 99), bench::percentile_us(all, 100),
                         jitter * 1e6, static_cast<double>(sent - std::min(sent, received))};
    }
    const double added_p99 = figures[Gateway][1] - figures[Direct][1];
    for (Path anchor : {Direct, Relay})
        std::fprintf(stderr, "%-24s p50 %7.1f us   p99 %7.1f us   max %8.1f us   jitter %+6.1f us\n",
                     anchor == Direct ? "gateway adds to direct" : "gateway adds to relay",
                     figures[Gateway][0] - figures[anchor][0], figures[Gateway][1] - figures[anchor][1],
                     figures[Gateway][2] - figures[anchor][2], figures[Gateway][3] - figures[anchor][3]);
    std::fprintf(stderr, "%-24s gateway's threads %.0f us per wake-up (%.0f wake-ups); the bench's receivers %.0f us "
                         "(%.0f)\n",
                 "run-queue wait", gateway_wait, gateway_slices, receiver_wait, receiver_slices);
    std::fprintf(stderr, "%-56s %8.1f us   (target <= 1000 us: %s)\n", "p99 added delay over direct UDP", added_p99,
                 added_p99 <= 1000 ? "met" : "NOT met");
    const double relay_p99 = figures[Relay][1] - figures[Direct][1];
    std::fprintf(stderr, "%-56s %8.1f us   (%s)\n", "p99 added by a bare relay of the same shape", relay_p99,
                 relay_p99 <= 1000 ? "within the target: the machine allows it"
                                   : "over the target too: on this machine a second wake-up alone misses it");
    std::fprintf(stderr, "%-56s %8.0f      (target 0: %s; direct lost %.0f)\n", "datagrams lost through the gateway",
                 figures[Gateway][4], figures[Gateway][4] == 0 ? "met" : "NOT met", figures[Direct][4]);
    return 0;
}
