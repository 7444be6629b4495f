// The local web side against nginx on the same machine, in the same run: the web API's /status
// under wrk with keep-alive beside nginx answering a small static text, and the latency that
// the game proxy adds to a call beside what nginx's proxy_pass adds to the same backend (nginx
// itself, answering that static text). Without nginx or wrk the comparisons are skipped.

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "app/app.h"
#include "child.h"
#include "http_client.h"
#include "measure.h"
#include "shell/net.h"
#include "support/files.h"
#include "support/host.h"
#include "support/netns.h"
#include "support/ports.h"
#include "support/process.h"

namespace {

constexpr int kWrkSeconds = 4;
constexpr double kLatencySeconds = 2.0;

// The median time of a sequential GET, in microseconds; 0 when a call failed.
double median_get_us(int port, const std::string& path, const std::string& what) {
    bench::HttpClient client(port);
    std::vector<double> samples;
    const double end = bench::now() + kLatencySeconds;
    while (bench::now() < end) {
        const double sent = bench::now();
        if (client.get(path) != 200) {
            std::fprintf(stderr, "%s: a call failed\n", what.c_str());
            return 0;
        }
        samples.push_back(bench::now() - sent);
    }
    const double median = bench::percentile_us(samples, 50);
    bench::report(what, static_cast<double>(samples.size()) / kLatencySeconds, samples);
    return median;
}

// nginx ends its workers with it on the console stop; killed outright, they would stay.
void stop(std::unique_ptr<testing_support::Process>& server) {
    if (!server) return;
    server->interrupt();
    server->wait(10.0);
    server.reset();
}

// Requests per second that wrk reports, keep-alive, the same load for every server.
double wrk_rate(const std::filesystem::path& wrk, int port, const std::string& path, const std::string& what) {
    const std::string out =
        testing_support::run_process(wrk, {"-t2", "-c8", "-d" + std::to_string(kWrkSeconds) + "s",
                                           "http://127.0.0.1:" + std::to_string(port) + path},
                                     ".", {}, kWrkSeconds + 30.0)
            .output;
    double rate = 0;
    if (std::size_t at = out.find("Requests/sec:"); at != std::string::npos) rate = std::stod(out.substr(at + 13));
    if (out.find("Non-2xx") != std::string::npos || out.find("Socket errors") != std::string::npos)
        std::fprintf(stderr, "%s: wrk saw errors:\n%s", what.c_str(), out.c_str());
    bench::report(what + " (wrk -t2 -c8)", rate);
    return rate;
}

}  // namespace

int main() {
    const std::filesystem::path nginx = testing_support::system_program("nginx");
    const std::filesystem::path wrk = testing_support::find_program("wrk");
    testing_support::TempDir dir;

    // nginx as this user, everything it writes in the temp folder: a static answer on one
    // port, and on another a proxy to it that keeps its upstream connections, as the game
    // proxy's client does.
    const int static_port = testing_support::free_port();
    const int proxy_port = testing_support::free_port(true, static_port);
    std::unique_ptr<testing_support::Process> server;
    if (!nginx.empty()) {
        const std::string d = dir.path().string();
        std::ofstream(dir.path() / "nginx.conf")
            << "worker_processes auto;\ndaemon off;\npid " << d << "/nginx.pid;\nerror_log " << d
            << "/error.log;\nevents { worker_connections 256; }\nhttp {\n  access_log off;\n"
            << "  client_body_temp_path " << d << "/body;\n  proxy_temp_path " << d << "/proxy;\n"
            << "  fastcgi_temp_path " << d << "/fastcgi;\n  uwsgi_temp_path " << d << "/uwsgi;\n"
            << "  scgi_temp_path " << d << "/scgi;\n  keepalive_requests 1000000;\n"
            << "  upstream backend { server 127.0.0.1:" << static_port << "; keepalive 16; }\n"
            << "  server { listen 127.0.0.1:" << static_port
            << "; location / { default_type application/json; return 200 '{\"ok\":true,\"bridge\":\"nginx\"}'; } }\n"
            << "  server { listen 127.0.0.1:" << proxy_port
            << "; location / { proxy_pass http://backend; proxy_http_version 1.1; proxy_set_header Connection \"\"; } }\n"
            << "}\n";
        server = std::make_unique<testing_support::Process>(
            nginx, std::vector<std::string>{"-p", d, "-c", d + "/nginx.conf", "-e", d + "/error.log"}, dir.path());
        if (!bench::wait_listening(static_port, 10) || !bench::wait_listening(proxy_port, 10)) {
            std::fprintf(stderr, "nginx did not come up; its comparisons are skipped\n%s", server->output().c_str());
            stop(server);
        }
    } else {
        std::fprintf(stderr, "nginx is not installed: the comparisons with it are skipped\n");
    }
    if (wrk.empty()) std::fprintf(stderr, "wrk is not installed: the request rates are skipped\n");

    // The bridge under test, its game proxy in front of nginx's static answer.
    zq::Config c;
    c.tcp_port = c.udp_port = c.webapi_port = 0;
    c.p2p_gateway = false;
    const int game_port = testing_support::free_port(true, proxy_port);
    c.game_proxy_routes = {{game_port, "http://127.0.0.1:" + std::to_string(static_port)}};
    c.state_file = (dir.path() / "state.json").string();
    zq::App bridge(c);
    std::string error;
    if (!bridge.start(&error)) {
        std::fprintf(stderr, "bridge: %s\n", error.c_str());
        return 1;
    }
    const int web_port = bridge.bound_webapi_port();

    if (!wrk.empty()) {
        const double ours = wrk_rate(wrk, web_port, "/status", "web API /status");
        if (server) {
            const double theirs = wrk_rate(wrk, static_port, "/", "anchor: nginx static answer");
            bench::ratio("web API /status vs nginx", ours, theirs, 0.5);
        }
    }

    if (server) {
        // Best of two turns each, taken in turns, so that a burst of load elsewhere falls on all.
        double direct = 1e9, through_nginx = 1e9, through_ours = 1e9;
        for (int turn = 0; turn < 2; ++turn) {
            direct = std::min(direct, median_get_us(static_port, "/x", "anchor: nginx static answer, direct"));
            through_nginx = std::min(through_nginx, median_get_us(proxy_port, "/x", "anchor: through nginx proxy_pass"));
            through_ours = std::min(through_ours, median_get_us(game_port, "/x", "through the game proxy"));
        }
        const double nginx_adds = through_nginx - direct, ours_adds = through_ours - direct;
        std::fprintf(stderr, "%-56s %8.1f us   (nginx proxy_pass adds %.1f us)\n", "game proxy adds", ours_adds,
                     nginx_adds);
        bench::ratio("game proxy's added latency vs nginx proxy_pass's", ours_adds, nginx_adds, 1.0, false);
    }
    bridge.stop();
    stop(server);
    return 0;
}
