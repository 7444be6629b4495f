// The service across a real distance, as a player's PC reaches it: the stand-in behind nginx as
// a TLS terminator, 30 ms of round trip away through a delay relay, and the release sarnlink-cli
// talking to it over HTTPS. In the same run nginx's proxy_pass to the same place (keep-alive
// upstream, TLS, session reuse) is the anchor for the game proxy, and a bare TCP ping-pong
// through a relay of the same distance is the network's round trip that the targets count in.
//
// Measured: the first game call through a game proxy and the next ones; a call after the
// service closed the connection (is TLS resumed?); 16 game calls at once, twice; each game
// command that calls the service, as its time, the calls the terminator saw and the new
// connections among them; the delivery of a room event; a quiet player's poll over 50 s; and a
// bridge started cold, until a game's login completes.
//
// The bridge must trust the bench's throwaway authority without any change to the product: the
// bench moves into a private mount namespace (so it needs root) where the system's folder of
// authorities and its bundle also hold the authority, and /etc/hosts also names the service.
// Everything it starts inherits the namespace; nothing outside it sees either change.

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "bridge/frames.h"
#include "child.h"
#include "delay_relay.h"
#include "http_client.h"
#include "measure.h"
#include "proc.h"
#include "shell/net.h"
#include "support/fake_game.h"
#include "support/files.h"
#include "support/host.h"
#include "support/netns.h"
#include "support/ports.h"
#include "support/process.h"
#include "support/wait.h"

namespace {

namespace fs = std::filesystem;
using testing_support::FakeGame;
using testing_support::Process;

constexpr double kRoundTrip = 0.030;
constexpr const char* kServiceHost = "service.road.test";
const fs::path kSystemBundle = "/etc/ssl/certs/ca-certificates.crt";
constexpr const char* kGameCall = "/summon_messenger/list";
constexpr int kWarmCalls = 20;
constexpr int kBurst = 16;
constexpr int kFirstSamples = 15;
constexpr int kColdSamples = 5;
constexpr double kQuietSeconds = 50.0;

double ms(double seconds) { return seconds * 1000.0; }

// The median of samples in seconds; sorts them.
double median(std::vector<double>& samples) { return bench::percentile_us(samples, 50) / 1e6; }

// One figure beside its anchor, and the verdict against a limit in milliseconds (none: 0).
void line(const std::string& what, double ours, const std::string& anchor_name, double anchor, double limit,
          const std::string& limit_text) {
    std::string verdict = limit > 0 ? (ours <= limit ? "met" : "NOT met") : "no target";
    std::fprintf(stderr, "%-44s %8.1f ms   %s %8.1f ms  ratio %5.2f   target %s: %s\n", what.c_str(), ms(ours),
                 anchor_name.c_str(), ms(anchor), anchor > 0 ? ours / anchor : 0.0, limit_text.c_str(),
                 verdict.c_str());
    std::fflush(stderr);
}

// --- the private view of the system: the bundle and the host name --------------------------

bool run_openssl(const fs::path& openssl, const fs::path& dir, const std::vector<std::string>& args) {
    auto result = testing_support::run_process(openssl, args, dir, {}, 60.0);
    if (result.exit_code != 0) std::fprintf(stderr, "openssl %s:\n%s\n", args[0].c_str(), result.output.c_str());
    return result.exit_code == 0;
}

// A throwaway authority and the service's certificate, signed by it, in dir.
bool make_certificates(const fs::path& dir) {
    const fs::path openssl = testing_support::system_program("openssl");
    if (openssl.empty()) return false;
    const std::vector<std::string> ec = {"-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes"};
    std::vector<std::string> ca = {"req", "-x509"};
    ca.insert(ca.end(), ec.begin(), ec.end());
    ca.insert(ca.end(), {"-keyout", "ca.key", "-out", "ca.pem", "-days", "2", "-subj", "/CN=road bench authority"});
    std::vector<std::string> request = {"req"};
    request.insert(request.end(), ec.begin(), ec.end());
    request.insert(request.end(), {"-keyout", "server.key", "-out", "server.csr", "-subj",
                                   std::string("/CN=") + kServiceHost, "-addext",
                                   std::string("subjectAltName=DNS:") + kServiceHost});
    return run_openssl(openssl, dir, ca) && run_openssl(openssl, dir, request) &&
           run_openssl(openssl, dir,
                       {"x509", "-req", "-in", "server.csr", "-CA", "ca.pem", "-CAkey", "ca.key", "-CAcreateserial",
                        "-days", "2", "-copy_extensions", "copy", "-out", "server.pem"});
}

// Binds a file made of the original's text and an addition over the original, in this
// process's own mount namespace.
bool bind_extended(const fs::path& original, const std::string& addition, const fs::path& copy) {
    testing_support::write_file(copy, testing_support::read_file(original) + "\n" + addition);
    return ::mount(copy.c_str(), original.c_str(), nullptr, MS_BIND, nullptr) == 0;
}

// Binds a copy of the system's folder of authorities over it, with the bench's authority added
// both to the bundle (dir/bundle.pem) and as a hashed file of its own: a client may trust either.
bool bind_extended_authorities(const fs::path& dir) {
    const fs::path system = kSystemBundle.parent_path(), copy = dir / "certs";
    std::error_code failed;
    fs::create_directory(copy, failed);
    for (const auto& entry : fs::directory_iterator(system, failed)) {
        const fs::path name = entry.path().filename();
        if (name == kSystemBundle.filename()) continue;
        const fs::path target = fs::canonical(entry.path(), failed);
        if (!failed) fs::create_symlink(target, copy / name, failed);
        if (failed) return false;
    }
    fs::copy_file(dir / "bundle.pem", copy / kSystemBundle.filename(), failed);
    if (!failed) fs::copy_file(dir / "ca.pem", copy / "road-bench-authority.pem", failed);
    return !failed && run_openssl(testing_support::system_program("openssl"), copy, {"rehash", "."}) &&
           ::mount(copy.c_str(), system.c_str(), nullptr, MS_BIND, nullptr) == 0;
}

// Must run before any thread starts.
std::string enter_private_view(const fs::path& dir) {
    if (::geteuid() != 0) return "it needs root, for a private mount namespace";
    if (::unshare(CLONE_NEWNS) != 0) return "unshare(CLONE_NEWNS) failed";
    if (::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return "cannot make / private";
    // The system's bundle with the authority: nginx's trust, and the bundle in the folder's copy.
    testing_support::write_file(dir / "bundle.pem", testing_support::read_file(kSystemBundle) + "\n" +
                                                        testing_support::read_file(dir / "ca.pem"));
    if (!bind_extended_authorities(dir)) return "cannot bind a folder of authorities over the system's";
    if (!bind_extended("/etc/hosts", std::string("127.0.0.1 ") + kServiceHost + "\n", dir / "hosts"))
        return "cannot bind a hosts file over the system's";
    // libcurl would take these over the system's; the bench shows the system's own work.
    testing_support::set_env("SSL_CERT_FILE", "");
    testing_support::set_env("SSL_CERT_DIR", "");
    return "";
}

// --- the programs ----------------------------------------------------------------------------

// nginx ends its workers with it on the console stop; killed outright, they would stay.
void stop(std::unique_ptr<Process>& p) {
    if (!p) return;
    p->interrupt();
    p->wait(10.0);
    p.reset();
}

std::unique_ptr<Process> start_nginx(const fs::path& nginx, const fs::path& dir, const std::string& http_block) {
    fs::create_directories(dir);
    const std::string d = dir.string();
    testing_support::write_file(
        dir / "nginx.conf",
        "worker_processes 1;\ndaemon off;\npid " + d + "/nginx.pid;\nerror_log " + d +
            "/error.log;\nevents { worker_connections 512; }\nhttp {\n  client_body_temp_path " + d +
            "/body;\n  proxy_temp_path " + d + "/proxy;\n  fastcgi_temp_path " + d + "/fastcgi;\n" +
            "  uwsgi_temp_path " + d + "/uwsgi;\n  scgi_temp_path " + d + "/scgi;\n" + http_block + "}\n");
    return std::make_unique<Process>(nginx, std::vector<std::string>{"-p", d, "-c", d + "/nginx.conf", "-e",
                                                                     d + "/error.log"},
                                     dir);
}

// The terminator's access log: one line per request, with the connection's serial, the
// request's number on it, and whether TLS was resumed.
struct Served {
    std::string connection;
    int number_on_connection = 0;
    bool resumed = false;
    std::string protocol, path;
};

class AccessLog {
public:
    explicit AccessLog(fs::path path) : path_(std::move(path)) {}
    void mark() { from_ = testing_support::read_file(path_).size(); }
    // What was served since the mark, without the event pump's background calls.
    std::vector<Served> since_mark(bool with_background = false) const {
        return parse(testing_support::read_file(path_).substr(from_), with_background);
    }
    std::vector<Served> all() const { return parse(testing_support::read_file(path_), true); }

    static bool background(const std::string& path) {
        return path == "/np/events/poll" || path == "/np/events/ack" || path == "/mp/matching2/heartbeat";
    }

private:
    static std::vector<Served> parse(const std::string& text, bool with_background) {
        std::vector<Served> out;
        std::istringstream lines(text);
        std::string l;
        while (std::getline(lines, l)) {
            std::istringstream words(l);
            Served s;
            std::string reused;
            if (!(words >> s.connection >> s.number_on_connection >> reused >> s.protocol >> s.path)) continue;
            s.resumed = reused == "r";
            if (with_background || !background(s.path)) out.push_back(s);
        }
        return out;
    }
    fs::path path_;
    std::size_t from_ = 0;
};

std::string describe(const std::vector<Served>& served) {
    int fresh = 0, resumed = 0;
    std::string protocol;
    for (const auto& s : served)
        if (s.number_on_connection == 1) {
            (s.resumed ? resumed : fresh)++;
            protocol = s.protocol;
        }
    return std::to_string(served.size()) + " call(s), " + std::to_string(fresh + resumed) + " new connection(s)" +
           (fresh + resumed ? " (" + protocol + ", " + std::to_string(resumed) + " resumed)" : "");
}

// A bare echo on the loopback, behind a relay of the same distance: the network's round trip.
double network_round_trip() {
    zq::Socket listener = zq::open_tcp_socket();
    zq::bind_socket(listener, zq::to_sockaddr(zq::Endpoint{"127.0.0.1", 0}));
    zq::listen_socket(listener, 4);
    const int port = zq::bound_endpoint(listener).port;
    std::thread echo([&] {
        zq::Socket s = zq::accept_socket(listener);
        zq::set_tcp_nodelay(s);
        char byte;
        while (zq::recv_some(s, &byte, 1) == 1 && zq::send_all(s, std::string(1, byte))) {
        }
        zq::close_socket(s);
    });
    double median_trip = 0;
    {
        bench::DelayRelay relay(zq::Endpoint{"127.0.0.1", port}, kRoundTrip);
        zq::Socket s = zq::open_tcp_socket();
        zq::connect_socket(s, zq::to_sockaddr(zq::Endpoint{"127.0.0.1", relay.port}));
        zq::set_tcp_nodelay(s);
        std::vector<double> samples;
        char byte;
        for (int i = 0; i < 20; ++i) {
            const double sent = bench::now();
            if (!zq::send_all(s, "x") || zq::recv_some(s, &byte, 1) != 1) break;
            if (i > 0) samples.push_back(bench::now() - sent);  // the first also waits out the handshake
        }
        median_trip = median(samples);
        zq::shutdown_socket(s);
        zq::close_socket(s);
    }
    zq::shutdown_socket(listener);
    echo.join();
    zq::close_socket(listener);
    return median_trip;
}

// One game call on a connection of its own, as the game makes them: its time, 0 on failure.
double game_call(int port) {
    const double start = bench::now();
    bench::HttpClient client(port);
    return client.post(kGameCall, "{}") == 200 ? bench::now() - start : 0.0;
}

// kBurst calls at once, each on its own connection opened beforehand; the slowest call's time.
double burst(int port) {
    std::vector<std::unique_ptr<bench::HttpClient>> clients;
    for (int i = 0; i < kBurst; ++i) clients.push_back(std::make_unique<bench::HttpClient>(port));
    std::mutex lock;
    std::condition_variable wake;
    bool go = false;
    std::vector<double> took(kBurst, 0.0);
    double start = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < kBurst; ++i)
        threads.emplace_back([&, i] {
            {
                std::unique_lock<std::mutex> hold(lock);
                wake.wait(hold, [&] { return go; });
            }
            if (clients[i]->post(kGameCall, "{}") == 200) took[i] = bench::now() - start;
        });
    {
        std::lock_guard<std::mutex> hold(lock);
        start = bench::now();
        go = true;
    }
    wake.notify_all();
    for (auto& t : threads) t.join();
    if (std::count(took.begin(), took.end(), 0.0)) std::fprintf(stderr, "a call of the burst failed\n");
    return *std::max_element(took.begin(), took.end());
}

// Game proxy calls through one proxy, the bridge's and nginx's, and what the relay saw.
struct ProxyFigures {
    std::string name;
    int port = 0;
    double first = 0, warm = 0, after_close = 0, burst1 = 0, burst2 = 0;
    std::pair<double, double> first_range;  // the fastest and slowest first call
    std::string first_served, after_close_served, burst1_served, burst2_served;
    int first_trips = 0, after_close_trips = 0;  // network round trips the relay carried
    int burst1_connections = 0, burst2_connections = 0;
};

// --- the bridge ------------------------------------------------------------------------------

struct BridgePorts {
    int tcp = 0, udp = 0, web = 0, game = 0;
};

std::unique_ptr<Process> start_bridge(const fs::path& dir, const std::string& service, const BridgePorts& p) {
    nlohmann::json config = {
        {"velmar_server", service},
        {"auth_server", service},
        {"community_server", service},
        {"tcp_port", p.tcp},
        {"udp_port", p.udp},
        {"webapi_port", p.web},
        {"stun_server", "off"},
        {"local_addr", "127.0.0.1"},
        {"create_accounts", 1},
        {"state_file", (dir / "state.json").string()},
        {"game_proxy_routes", {{std::to_string(p.game), service}}},
    };
    testing_support::write_file(dir / "config.json", config.dump());
    std::vector<std::string> args = {"--config", (dir / "config.json").string()};
    // ROAD_BENCH_WRAPPER="strace -f -tt -o /tmp/road.strace" runs the bridge under a tool.
    fs::path program = testing_support::cli_path();
    if (const char* wrapper = std::getenv("ROAD_BENCH_WRAPPER"); wrapper && *wrapper) {
        std::istringstream words(wrapper);
        std::vector<std::string> front;
        for (std::string w; words >> w;) front.push_back(w);
        args.insert(args.begin(), program.string());
        args.insert(args.begin(), front.begin() + 1, front.end());
        program = testing_support::find_program(front[0]);
    }
    return std::make_unique<Process>(program, args, dir);
}

// A game connected and greeted, trying every millisecond until the deadline: a cold start's
// clock must not wait on a coarse poll.
std::unique_ptr<FakeGame> connect_game(int port, double seconds) {
    const double end = bench::now() + seconds;
    while (bench::now() < end) {
        auto game = std::make_unique<FakeGame>();
        if (game->connect_and_greet(port)) return game;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return nullptr;
}

std::uint64_t next_packet = 1;

// A command and its time; nothing when it failed.
std::optional<double> command(FakeGame& game, std::uint16_t number, const std::string& body,
                              std::string* payload = nullptr) {
    const double start = bench::now();
    auto reply = game.request(number, next_packet++, body, 20.0);
    if (!reply || reply->result() != 0) {
        std::fprintf(stderr, "command %u failed (%d)\n", number, reply ? reply->result() : -1);
        return std::nullopt;
    }
    if (payload) *payload = reply->payload();
    return bench::now() - start;
}

struct CommandRow {
    std::string name;
    double seconds = 0;
    int design_calls = 0;
    std::vector<Served> served;
};

// The verdict counts round trips as the terminator saw them (a call each, and two more for each
// new connection: TCP and TLS 1.3), which load on this machine cannot move; the time, in round
// trips of the network, is beside it.
void command_line(const CommandRow& row, double rtt) {
    int trips = static_cast<int>(row.served.size());
    for (const auto& s : row.served) trips += s.number_on_connection == 1 ? 2 : 0;
    std::fprintf(stderr, "%-30s %7.1f ms = %4.1f RTT   %d round trip(s), design: %d   %-40s %s\n", row.name.c_str(),
                 ms(row.seconds), row.seconds / rtt, trips, row.design_calls, describe(row.served).c_str(),
                 trips <= row.design_calls ? "met" : "NOT met");
    std::fflush(stderr);
}

std::uint64_t room_of(const std::string& payload) {
    std::string message;
    zq::FieldList fields;
    if (!zq::unwrap_message(payload, message) || !zq::decode(message, fields)) return 0;
    return zq::number_field(fields, 1, 0);
}

// Reads frames until a room event notification; its arrival time, 0 on time-out.
double await_notification(FakeGame& game, double seconds) {
    const double end = bench::now() + seconds;
    while (bench::now() < end) {
        auto frame = game.read_frame(end - bench::now());
        if (!frame) return 0;
        if (frame->kind == 2) return bench::now();
    }
    return 0;
}

}  // namespace

int main() {
    testing_support::TempDir dir;
    const fs::path nginx = testing_support::system_program("nginx");
    if (nginx.empty()) {
        std::fprintf(stderr, "road bench: skipped, nginx is not installed\n");
        return 0;
    }
    if (!make_certificates(dir.path())) {
        std::fprintf(stderr, "road bench: skipped, no certificates (openssl missing or failed)\n");
        return 0;
    }
    if (std::string why = enter_private_view(dir.path()); !why.empty()) {
        std::fprintf(stderr, "road bench: skipped, %s\n", why.c_str());
        return 0;
    }
    zq::network_init();

    // The service: the stand-in on plain HTTP, nginx terminating TLS in front of it, the relay
    // putting the distance in front of that.
    const fs::path ready = dir.path() / "standin.ready";
    auto standin = std::make_unique<Process>(SARNLINK_STANDIN_PATH,
                                             std::vector<std::string>{"--http-port", "0", "--stun-port", "0",
                                                                      "--ready-file", ready.string()},
                                             dir.path());
    int standin_port = 0;
    if (!testing_support::wait_until([&] { return fs::exists(ready); }, 20.0) ||
        !(std::istringstream(testing_support::read_file(ready)) >> standin_port)) {
        std::fprintf(stderr, "the stand-in did not come up:\n%s\n", standin->output().c_str());
        return 1;
    }
    const int tls_port = testing_support::free_port();
    const fs::path log_path = dir.path() / "terminator" / "access.log";
    const std::string d = dir.path().string();
    auto terminator = start_nginx(
        nginx, dir.path() / "terminator",
        "  log_format road '$connection $connection_requests $ssl_session_reused $ssl_protocol $uri';\n"
        "  access_log " + log_path.string() + " road;\n"
        "  upstream standin { server 127.0.0.1:" + std::to_string(standin_port) + "; keepalive 64; }\n"
        "  server {\n    listen 127.0.0.1:" + std::to_string(tls_port) + " ssl;\n"
        "    ssl_certificate " + d + "/server.pem;\n    ssl_certificate_key " + d + "/server.key;\n"
        "    ssl_protocols TLSv1.2 TLSv1.3;\n    ssl_session_cache shared:road:1m;\n"
        "    keepalive_timeout 300s;\n    keepalive_requests 100000;\n"
        "    location / { proxy_pass http://standin; proxy_http_version 1.1; proxy_set_header Connection \"\"; }\n"
        "  }\n");
    if (!bench::wait_listening(tls_port, 10)) {
        std::fprintf(stderr, "the terminator did not come up:\n%s\n", terminator->output().c_str());
        return 1;
    }
    bench::DelayRelay relay(zq::Endpoint{"127.0.0.1", tls_port}, kRoundTrip);
    const std::string service = std::string("https://") + kServiceHost + ":" + std::to_string(relay.port);
    AccessLog served(log_path);

    const double rtt = network_round_trip();
    std::fprintf(stderr, "network round trip through the relay (bare TCP ping-pong): %.1f ms (set: %.0f ms)\n\n",
                 ms(rtt), ms(kRoundTrip));

    // The anchor: nginx proxy_pass to the service, keeping its upstream connections and TLS
    // sessions, as a well-set reverse proxy does.
    ProxyFigures theirs, ours;
    theirs.name = "nginx proxy_pass";
    ours.name = "bridge game proxy";
    theirs.port = testing_support::free_port();
    const std::string anchor_block =
        "  access_log off;\n"
        "  upstream service { server " + std::string(kServiceHost) + ":" + std::to_string(relay.port) +
            "; keepalive 64; }\n"
            "  server {\n    listen 127.0.0.1:" + std::to_string(theirs.port) + ";\n    location / {\n"
            "      proxy_pass https://service; proxy_http_version 1.1; proxy_set_header Connection \"\";\n"
            "      proxy_set_header Host " + kServiceHost + "; proxy_ssl_server_name on; proxy_ssl_name " +
            kServiceHost + ";\n      proxy_ssl_verify on; proxy_ssl_trusted_certificate " + d +
            "/bundle.pem; proxy_ssl_session_reuse on;\n      proxy_ssl_protocols TLSv1.2 TLSv1.3;\n    }\n  }\n";
    auto anchor = start_nginx(nginx, dir.path() / "anchor", anchor_block);

    BridgePorts ports;
    ports.tcp = testing_support::free_port();
    ports.udp = testing_support::free_port(false);
    ports.web = testing_support::free_port(true, ports.tcp);
    ports.game = testing_support::free_port(true, ports.web);
    ours.port = ports.game;
    const fs::path bridge_dir = dir.path() / "bridge";
    fs::create_directories(bridge_dir);
    auto bridge = start_bridge(bridge_dir, service, ports);
    if (!bench::wait_listening(theirs.port, 10) || !bench::wait_listening(ports.game, 20)) {
        std::fprintf(stderr, "nginx or the bridge did not come up:\n%s\n%s\n", anchor->output().c_str(),
                     bridge->output().c_str());
        return 1;
    }

    // The service side's own first work (the terminator's first handshake and upstream
    // connection, the stand-in's first request) would fall on whichever proxy went first.
    game_call(ours.port);
    game_call(theirs.port);

    // First calls: each from a freshly started proxy, the two in turns, and which goes first
    // alternating; one sample alone is at the mercy of the machine's moment.
    auto trips = [&] {
        const bench::DelayRelay::Counts c = relay.counts();
        return c.connections + c.client_flights;
    };
    std::vector<double> first_ours, first_theirs;
    for (int sample = 0; sample < kFirstSamples; ++sample) {
        stop(bridge);
        stop(anchor);
        bridge = start_bridge(bridge_dir, service, ports);
        anchor = start_nginx(nginx, dir.path() / "anchor", anchor_block);
        if (!bench::wait_listening(theirs.port, 10) || !bench::wait_listening(ports.game, 20)) {
            std::fprintf(stderr, "nginx or the bridge did not come up again\n");
            return 1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));  // both settled, as a player's would be
        for (int turn = 0; turn < 2; ++turn) {
            ProxyFigures* p = (turn == sample % 2) ? &ours : &theirs;
            served.mark();
            const int before = trips();
            const double took = game_call(p->port);
            (p == &ours ? first_ours : first_theirs).push_back(took);
            p->first_trips = trips() - before;
            p->first_served = describe(served.since_mark());
        }
    }
    ours.first = median(first_ours);
    theirs.first = median(first_theirs);
    // Sorted by now.
    ours.first_range = {first_ours.front(), first_ours.back()};
    theirs.first_range = {first_theirs.front(), first_theirs.back()};
    std::vector<double> warm_ours, warm_theirs;
    for (int i = 0; i < kWarmCalls; ++i) {
        warm_ours.push_back(game_call(ours.port));
        warm_theirs.push_back(game_call(theirs.port));
    }
    ours.warm = median(warm_ours);
    theirs.warm = median(warm_theirs);
    for (ProxyFigures* p : {&ours, &theirs}) {
        relay.close_all();
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        served.mark();
        const int before = trips();
        p->after_close = game_call(p->port);
        p->after_close_trips = trips() - before;
        p->after_close_served = describe(served.since_mark());
    }
    // Bursts: from no open connection, then again on what the first left.
    for (ProxyFigures* p : {&ours, &theirs}) {
        relay.close_all();
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        int before = relay.counts().connections;
        served.mark();
        p->burst1 = burst(p->port);
        p->burst1_served = describe(served.since_mark());
        p->burst1_connections = relay.counts().connections - before;
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        before = relay.counts().connections;
        served.mark();
        p->burst2 = burst(p->port);
        p->burst2_served = describe(served.since_mark());
        p->burst2_connections = relay.counts().connections - before;
    }

    std::fprintf(stderr, "Game calls through one proxy (%s, each on a new game connection):\n", kGameCall);
    for (ProxyFigures* p : {&ours, &theirs})
        std::fprintf(stderr,
                     "  %-18s first %6.1f ms (median of %d, %.1f to %.1f), %d round trips [%s]; warm median %6.1f ms\n"
                     "    after the service closed the connection %6.1f ms, %d round trips [%s]\n"
                     "    burst 1 %6.1f ms, %d new connection(s) [%s]; burst 2 %6.1f ms, %d new connection(s) [%s]\n",
                     p->name.c_str(), ms(p->first), kFirstSamples, ms(p->first_range.first),
                     ms(p->first_range.second), p->first_trips, p->first_served.c_str(), ms(p->warm),
                     ms(p->after_close), p->after_close_trips, p->after_close_served.c_str(), ms(p->burst1),
                     p->burst1_connections, p->burst1_served.c_str(), ms(p->burst2), p->burst2_connections,
                     p->burst2_served.c_str());
    char text[96];
    std::snprintf(text, sizeof text, "<= 1.1 RTT + 2 ms = %.1f ms", ms(1.1 * rtt + 0.002));
    line("warm game call", ours.warm, "nginx", theirs.warm, 1.1 * rtt + 0.002, text);
    const double first_limit = std::min(3 * rtt + 0.005, theirs.first);
    std::snprintf(text, sizeof text, "<= 3 RTT + 5 ms and <= nginx's = %.1f ms", ms(first_limit));
    line("first game call (median)", ours.first, "nginx", theirs.first, first_limit, text);
    line("call after the service closed it", ours.after_close, "nginx", theirs.after_close, 0, "-");
    std::snprintf(text, sizeof text, "<= 4 RTT + 10 ms = %.1f ms", ms(4 * rtt + 0.010));
    line("16 at once, first burst (slowest)", ours.burst1, "nginx", theirs.burst1, 4 * rtt + 0.010, text);
    std::snprintf(text, sizeof text, "<= 1.5 warm calls = %.1f ms", ms(1.5 * ours.warm));
    line("16 at once, second burst (slowest)", ours.burst2, "nginx", theirs.burst2, 1.5 * ours.warm, text);

    // The game's commands that call the service. Two games: the host makes a room, the guest
    // finds and joins it, the host hears of it, the guest leaves.
    std::fprintf(stderr, "\nGame commands that call the service (one round trip = %.1f ms):\n", ms(rtt));
    game_call(ours.port);  // the bursts' clean-up closed the bridge's connections too: open one again
    auto host = connect_game(ports.tcp, 10), guest = connect_game(ports.tcp, 10);
    if (!host || !guest) return 1;
    std::vector<CommandRow> rows;
    auto run = [&](const std::string& name, int design, FakeGame& game, std::uint16_t number,
                   const std::string& body, std::string* payload = nullptr) {
        served.mark();
        auto took = command(game, number, body, payload);
        if (!took) return false;
        rows.push_back(CommandRow{name, *took, design, served.since_mark()});
        command_line(rows.back(), rtt);
        return true;
    };
    const std::string empty = zq::wrap_message("");
    std::string created;
    if (!run("login, new account", 1, *host, 0, testing_support::login_body("roadhost")) ||
        !run("login, stored token", 1, *host, 0, testing_support::login_body("roadhost")) ||
        !run("context start", 1, *host, 100, empty) || !run("create room", 1, *host, 101, empty, &created) ||
        !run("login, new account (guest)", 1, *guest, 0, testing_support::login_body("roadguest")) ||
        !run("context start (guest)", 1, *guest, 100, empty))
        return 1;
    {
        served.mark();
        const double start = bench::now();
        bench::HttpClient web(ports.web);
        const int status = web.post("/summon_messenger/search", "{}");
        rows.push_back(CommandRow{"room search (web API)", bench::now() - start, 1, served.since_mark()});
        if (status != 200) std::fprintf(stderr, "room search: HTTP %d\n", status);
        command_line(rows.back(), rtt);
    }
    const std::uint64_t room = room_of(created);
    served.mark();
    if (!run("join room", 1, *guest, 102, zq::wrap_message(zq::FieldMessage().number(1, room).bytes()))) return 1;
    const double joined = bench::now();
    const double heard = await_notification(*host, 10.0);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));  // the ack that follows
    std::vector<Served> event_calls;
    for (const auto& s : served.since_mark(true))
        if (s.path == "/np/events/ack" || s.path == "/np/events/poll") event_calls.push_back(s);
    // The event lands while a poll is out (one round trip) or between polls, then waits for the
    // next poll (the interval) and its round trip.
    const double event_limit = 0.4 + 2 * rtt;
    std::fprintf(stderr, "%-30s %7.1f ms after the join's reply (design: the next poll, <= interval + 2 round trips = "
                         "%.0f ms; then an ack)   both players' polls and acks meanwhile: %s   %s\n",
                 "event to the host (joined)", heard ? ms(heard - joined) : -1.0, ms(event_limit),
                 describe(event_calls).c_str(), heard && heard - joined <= event_limit ? "met" : "NOT met");
    if (!run("leave room", 1, *guest, 103, empty)) return 1;

    // A quiet player: what the event pump costs over a while, and whether its connection and
    // TLS session last.
    served.mark();
    const double cpu_before = bench::cpu_seconds_of(static_cast<pid_t>(bridge->id()));
    std::this_thread::sleep_for(std::chrono::duration<double>(kQuietSeconds));
    const double cpu_share = (bench::cpu_seconds_of(static_cast<pid_t>(bridge->id())) - cpu_before) / kQuietSeconds;
    const bench::PrivateMemory memory = bench::private_memory(static_cast<pid_t>(bridge->id()));
    // For a look at where the memory goes, mapping by mapping.
    if (const char* keep = std::getenv("ROAD_BENCH_SMAPS"); keep && *keep)
        testing_support::write_file(keep, testing_support::read_file("/proc/" + std::to_string(bridge->id()) + "/smaps"));
    std::map<std::string, std::vector<Served>> by_path;
    for (const auto& s : served.since_mark(true)) by_path[s.path].push_back(s);
    std::fprintf(stderr, "\nTwo quiet players, the host in its room, for %.0f s:\n", kQuietSeconds);
    for (const auto& [path, list] : by_path) {
        int full = 0, resumed = 0;
        for (const auto& s : list)
            if (s.number_on_connection == 1) (s.resumed ? resumed : full)++;
        std::fprintf(stderr, "  %-28s %4zu calls, %d new connection(s) with a full TLS handshake, %d resumed\n",
                     path.c_str(), list.size(), full, resumed);
    }
    // Beside the idle bench's figures on plain HTTP: what TLS adds, the CA store above all.
    std::fprintf(stderr,
                 "  the bridge: private memory %.2f MiB (target <= 4 MiB with one game in a room: %s), "
                 "CPU %.2f%% of a core (target <= 0.5%%: %s)\n",
                 memory.mib(), memory.mib() <= 4.0 ? "met" : "NOT met", cpu_share * 100,
                 cpu_share <= 0.005 ? "met" : "NOT met");

    host->close();
    guest->close();
    bridge->interrupt();
    bridge->wait(10.0);
    bridge.reset();
    stop(anchor);

    // Cold starts: the bridge until a game's login with a stored token completes, and nginx
    // until its first proxied answer; several of each, in turns.
    std::fprintf(stderr, "\nCold start:\n");
    std::vector<double> listening_times, login_times, after_listening, nginx_times;
    for (int sample = 0; sample < kColdSamples; ++sample) {
        served.mark();
        double start = bench::now();
        bridge = start_bridge(bridge_dir, service, ports);
        auto game = connect_game(ports.tcp, 20);
        const double listening = bench::now() - start;
        double login = 0;
        if (game && command(*game, 0, testing_support::login_body("roadhost"))) login = bench::now() - start;
        std::fprintf(stderr, "  bridge: listening after %.1f ms, login done after %.1f ms [%s]; private memory then "
                             "%.2f MiB\n",
                     ms(listening), ms(login), describe(served.since_mark()).c_str(),
                     bench::private_memory(static_cast<pid_t>(bridge->id())).mib());
        if (game) game->close();
        stop(bridge);
        listening_times.push_back(listening);
        login_times.push_back(login);
        after_listening.push_back(login - listening);

        double nginx_cold = 0;
        start = bench::now();
        anchor = start_nginx(nginx, dir.path() / "anchor", anchor_block);
        while (bench::now() < start + 20 && !nginx_cold) {
            bench::HttpClient client(theirs.port);
            if (client.post(kGameCall, "{}") == 200) nginx_cold = bench::now() - start;
            else std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        std::fprintf(stderr, "  nginx: first proxied answer after %.1f ms\n", ms(nginx_cold));
        stop(anchor);
        nginx_times.push_back(nginx_cold);
    }
    const double cold = median(login_times), nginx_cold = median(nginx_times), after = median(after_listening);
    std::fprintf(stderr,
                 "%-44s %8.1f ms   nginx cold %8.1f ms  ratio %5.2f   target the login <= 3 RTT + 5 ms = %.1f ms "
                 "after listening, median %.1f ms: %s\n",
                 "cold start to a completed login (median)", ms(cold), ms(nginx_cold),
                 nginx_cold > 0 ? cold / nginx_cold : 0.0, ms(3 * rtt + 0.005), ms(after),
                 after <= 3 * rtt + 0.005 ? "met" : "NOT met");
    bench::DelayRelay::Counts counts = relay.counts();
    std::fprintf(stderr, "\nThe relay carried %d connections in all.\n", counts.connections);
    stop(terminator);
    standin->interrupt();
    standin->wait(10.0);
    return 0;
}
