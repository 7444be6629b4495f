// An idle bridge as a player leaves it: the real sarnlink-cli, one game logged in, its context
// started and a room made, and then nothing. Measured over ten quiet seconds from /proc: the
// resident memory and the private part of it (the bridge's own, bench/proc.h), the threads, the CPU
// time and how often its threads wake. Once with the P2P gateway (the default) and once
// without, to tell its share of the wake-ups. With the gateway, eight peers then join the room
// and stream as a game does (60 datagrams/s of 200 bytes each way, each), and the same figures
// are taken again.

#include <dirent.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <atomic>
#include <vector>

#include <nlohmann/json.hpp>

#include "bridge/frames.h"
#include "child.h"
#include "measure.h"
#include "proc.h"
#include "support/fake_accounts.h"
#include "support/fake_game.h"
#include "support/fake_matching.h"
#include "support/fake_service.h"
#include "support/files.h"
#include "support/ports.h"
#include "support/process.h"

namespace {

constexpr double kSeconds = 10.0;

std::string read_text(const std::string& path) { return testing_support::read_file(path); }

// A "Name:   value" line of a /proc status file, as a number.
long long status_value(const std::string& status, const std::string& name) {
    std::size_t at = status.find("\n" + name + ":");
    return at == std::string::npos ? -1 : std::stoll(status.substr(at + name.size() + 2));
}

struct Sample {
    double at = 0;
    long long cpu_ticks = 0;  // user and system, all threads
    long long switches = 0;   // voluntary and involuntary, all threads
    std::map<std::string, long long> per_thread;
};

Sample sample(pid_t pid) {
    Sample s;
    s.at = bench::now();
    const std::string stat = read_text("/proc/" + std::to_string(pid) + "/stat");
    std::istringstream fields(stat.substr(stat.rfind(')') + 2));
    std::string skip;
    long long utime = 0, stime = 0;
    for (int i = 3; i < 14; ++i) fields >> skip;
    fields >> utime >> stime;
    s.cpu_ticks = utime + stime;
    const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
    if (DIR* d = ::opendir(tasks.c_str())) {
        while (dirent* e = ::readdir(d)) {
            if (e->d_name[0] == '.') continue;
            const std::string status = read_text(tasks + "/" + e->d_name + "/status");
            const long long n = status_value(status, "voluntary_ctxt_switches") +
                                status_value(status, "nonvoluntary_ctxt_switches");
            s.per_thread[e->d_name] = n;
            s.switches += n;
        }
        ::closedir(d);
    }
    return s;
}

void report_memory(const std::string& what, pid_t pid, double cpu, double limit_mib) {
    const bench::PrivateMemory p = bench::private_memory(pid);
    const double mib = p.mib();
    std::fprintf(stderr, "%-56s private %.2f MiB (anonymous %.2f, private dirty %.2f)  CPU %.3f%% of a core\n",
                 what.c_str(), mib, static_cast<double>(p.anonymous) / 1024.0,
                 static_cast<double>(p.private_dirty) / 1024.0, cpu * 100);
    bench::ratio("  private memory vs " + std::to_string(static_cast<int>(limit_mib)) + " MiB", mib, limit_mib, 1.0,
                 false);
}

// Where the resident memory lies: the largest mappings by their resident size.
std::string largest_mappings(pid_t pid, int count) {
    std::istringstream smaps(read_text("/proc/" + std::to_string(pid) + "/smaps"));
    std::map<std::string, long long> by_name;
    std::string line, name;
    while (std::getline(smaps, line)) {
        if (line.compare(0, 4, "Rss:") == 0) {
            by_name[name] += std::stoll(line.substr(4));
        } else if (!line.empty() && std::isxdigit(static_cast<unsigned char>(line[0])) && line.find('-') < 17) {
            std::istringstream words(line);
            std::string field;
            name = "[anon]";
            for (int i = 0; i < 6 && words >> field; ++i)
                if (i == 5) name = field.substr(field.rfind('/') + 1);
        }
    }
    std::vector<std::pair<long long, std::string>> sorted;
    for (const auto& [n, kib] : by_name) sorted.emplace_back(kib, n);
    std::sort(sorted.rbegin(), sorted.rend());
    std::string out;
    for (int i = 0; i < count && i < static_cast<int>(sorted.size()); ++i)
        out += " " + sorted[i].second + " " + std::to_string(sorted[i].first) + "k";
    return out;
}

std::uint64_t room_of(const std::string& payload) {
    std::string message;
    zq::FieldList fields;
    if (!zq::unwrap_message(payload, message) || !zq::decode(message, fields)) return 0;
    return zq::number_field(fields, 1, 0);
}

// Where the game reaches the member that a room event announces (its MemberEntry's fields 10
// and 11: the gateway's loopback socket for that peer).
std::optional<zq::Endpoint> member_address(const testing_support::GameFrame& notification) {
    std::string message;
    zq::FieldList event, entry;
    if (!zq::unwrap_message(notification.body, message) || !zq::decode(message, event) ||
        !zq::decode(zq::string_field(event, 6), entry))
        return std::nullopt;
    zq::Endpoint at{zq::string_field(entry, 10), static_cast<std::int32_t>(zq::number_field(entry, 11, 0))};
    if (!at.usable()) return std::nullopt;
    return at;
}

constexpr int kPeers = 8;
constexpr int kRate = 60;

// The game's P2P socket and the eight remote players, sending 200-byte frames both ways at the
// game's rate and draining what arrives, until stopped.
class Streams {
public:
    Streams() {
        game = open();
        for (int i = 0; i < kPeers; ++i) peers.push_back(open());
    }
    ~Streams() {
        stop();
        zq::close_socket(game);
        for (zq::Socket p : peers) zq::close_socket(p);
    }
    static zq::Socket open() {
        zq::Socket s = zq::open_udp_socket();
        zq::bind_socket(s, zq::to_sockaddr(zq::Endpoint{"127.0.0.1", 0}));
        return s;
    }
    void start(const std::vector<zq::Endpoint>& links, const zq::Endpoint& gateway) {
        thread = std::thread([this, links, gateway] {
            const std::string port_frame = std::string("\x0E\x4A\x0E\x4A", 4) + std::string(196, 'g');
            const std::string peer_frame = std::string("\xFF\x83\x0E\x4A\x0E\x4A", 6) + std::string(196, 'p');
            std::vector<zq::Socket> all = peers;
            all.push_back(game);
            std::vector<bool> ready;
            char buffer[2048];
            const double start = bench::now();
            for (long tick = 0; !done; ++tick) {
                for (std::size_t i = 0; i < links.size(); ++i) {
                    zq::send_to(game, port_frame.data(), static_cast<int>(port_frame.size()), zq::to_sockaddr(links[i]));
                    zq::send_to(peers[i], peer_frame.data(), static_cast<int>(peer_frame.size()), zq::to_sockaddr(gateway));
                }
                const double due = start + static_cast<double>(tick + 1) / kRate;
                while (!done && bench::now() < due) {
                    const int wait_ms = static_cast<int>((due - bench::now()) * 1000) + 1;
                    if (zq::wait_readable(all, wait_ms, ready) < 1) continue;
                    for (std::size_t i = 0; i < all.size(); ++i)
                        if (ready[i]) {
                            zq::SockAddr from;
                            if (zq::recv_from(all[i], buffer, sizeof buffer, &from) > 0) ++received;
                        }
                }
            }
        });
    }
    void stop() {
        done = true;
        if (thread.joinable()) thread.join();
    }
    zq::Socket game;
    std::vector<zq::Socket> peers;
    std::atomic<bool> done{false};
    std::atomic<long> received{0};
    std::thread thread;
};

double cpu_share(const Sample& before, const Sample& after) {
    return static_cast<double>(after.cpu_ticks - before.cpu_ticks) / static_cast<double>(::sysconf(_SC_CLK_TCK)) /
           (after.at - before.at);
}

bool measure(bool gateway) {
    testing_support::TempDir dir;
    testing_support::FakeService service;
    testing_support::FakeAccounts accounts(service);
    testing_support::FakeMatching matching(service);
    if (!service.start()) return false;

    const int tcp = testing_support::free_port();
    const int p2p_port = testing_support::free_port(false);
    Streams streams;
    nlohmann::json config = {
        {"velmar_server", service.base_url()},
        {"auth_server", service.base_url()},
        {"community_server", service.base_url()},
        {"tcp_port", tcp},
        {"udp_port", testing_support::free_port(false)},
        {"webapi_port", testing_support::free_port(true, tcp)},
        {"p2p_gateway", gateway ? 1 : 0},
        {"p2p_port", p2p_port},
        {"port_p2p_port", zq::bound_endpoint(streams.game).port},
        {"stun_server", "off"},
        {"local_addr", "127.0.0.1"},
        {"create_accounts", 1},
        {"state_file", (dir.path() / "state.json").string()},
        // Two game proxies, as by default, on ports of their own.
        {"game_proxy_routes",
         {{std::to_string(testing_support::free_port(true, tcp)), service.base_url()},
          {std::to_string(testing_support::free_port(true, tcp)), service.base_url()}}},
    };
    testing_support::write_file(dir.path() / "config.json", config.dump());
    testing_support::Process bridge(testing_support::cli_path(), {"--config", (dir.path() / "config.json").string()},
                                    dir.path());
    if (!bench::wait_listening(tcp, 20)) {
        std::fprintf(stderr, "sarnlink-cli did not come up:\n%s\n", bridge.output().c_str());
        return false;
    }
    const long pid = bridge.id();

    testing_support::FakeGame game;
    if (!game.connect_and_greet(tcp)) return false;
    auto login = game.request(0, 1, testing_support::login_body("idler"));
    auto context = game.request(100, 2, zq::wrap_message(""));
    auto room = game.request(101, 3, zq::wrap_message(""));
    const std::uint64_t room_id = room ? room_of(room->payload()) : 0;
    if (!login || login->result() != 0 || !context || context->result() != 0 || !room || room->result() != 0) {
        std::fprintf(stderr, "the game could not log in and make a room\n");
        return false;
    }

    std::this_thread::sleep_for(std::chrono::seconds(1));  // the start's own work settles
    const Sample before = sample(pid);
    std::this_thread::sleep_for(std::chrono::duration<double>(kSeconds));
    const Sample after = sample(pid);
    const std::string status = read_text("/proc/" + std::to_string(pid) + "/status");

    const double seconds = after.at - before.at;
    const double cpu = cpu_share(before, after);
    const double rss_mib = static_cast<double>(status_value(status, "VmRSS")) / 1024.0;
    const std::string what = gateway ? "idle bridge with gateway" : "idle bridge without gateway";
    std::fprintf(stderr, "%-56s RSS %.2f MiB (anon %.2f, file %.2f)  threads %lld  CPU %.3f%%  wake-ups %.1f/s\n",
                 what.c_str(), rss_mib, static_cast<double>(status_value(status, "RssAnon")) / 1024.0,
                 static_cast<double>(status_value(status, "RssFile")) / 1024.0, status_value(status, "Threads"),
                 cpu * 100, static_cast<double>(after.switches - before.switches) / seconds);
    std::string threads;
    for (const auto& [tid, n] : after.per_thread) {
        auto was = before.per_thread.find(tid);
        threads += " " + std::to_string(static_cast<long long>((n - (was == before.per_thread.end() ? 0 : was->second)) / seconds + 0.5));
    }
    std::fprintf(stderr, "%-56s%s\n", "  wake-ups/s of each thread:", threads.c_str());
    std::fprintf(stderr, "  largest:%s\n", largest_mappings(pid, 10).c_str());
    report_memory("  one game in a room", pid, cpu, 4.0);
    bench::ratio("  CPU vs 0.5% of a core", cpu * 100, 0.5, 1.0, false);

    if (gateway) {
        // Eight peers join, one room event each, and the game learns where to reach them.
        for (int i = 0; i < kPeers; ++i)
            matching.rooms.push_event("idler", {{"Name", "room_member_joined"},
                                                {"RoomId", room_id},
                                                {"MemberId", i + 2},
                                                {"OnlineId", "peer" + std::to_string(i)},
                                                {"Addr", "127.0.0.1"},
                                                {"Port", zq::bound_endpoint(streams.peers[i]).port}});
        std::vector<zq::Endpoint> links;
        while (static_cast<int>(links.size()) < kPeers) {
            auto frame = game.read_frame(10.0);
            if (!frame) {
                std::fprintf(stderr, "the peers did not all join (%zu of %d)\n", links.size(), kPeers);
                return false;
            }
            if (auto at = frame->kind == 2 ? member_address(*frame) : std::nullopt) links.push_back(*at);
        }
        streams.start(links, zq::Endpoint{"127.0.0.1", p2p_port});
        std::this_thread::sleep_for(std::chrono::seconds(2));  // the links settle
        const long received_before = streams.received.load();
        const Sample from = sample(pid);
        std::this_thread::sleep_for(std::chrono::duration<double>(kSeconds));
        const Sample to = sample(pid);
        const double arrived = static_cast<double>(streams.received.load() - received_before) / (to.at - from.at);
        report_memory("  8 peers streaming (" + std::to_string(static_cast<int>(arrived)) + " datagrams/s arrive of " +
                          std::to_string(2 * kPeers * kRate) + ")",
                      pid, cpu_share(from, to), 16.0);
        streams.stop();
    }
    game.close();
    bridge.interrupt();
    bridge.wait(10.0);
    return true;
}

}  // namespace

int main() {
    const bool ok = measure(true) && measure(false);
    return ok ? 0 : 1;
}
