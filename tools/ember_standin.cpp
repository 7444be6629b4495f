// The stand-in of The Ember Court for development: the service on HTTP and the STUN and relay
// server on UDP, until Ctrl-C or the given number of seconds.
//
//   ember_standin [--http-host H] [--http-port N] [--stun-host H] [--stun-port N]
//                 [--relay-members | --choose-ways] [--ready-file PATH] [--seconds N]
//
// Both listen on the loopback by default; other addresses serve test networks such as network
// namespaces. Port 0 lets the system choose; the ready file then receives "http_port stun_port"
// once both are listening, which is how a script learns them. --stun-host matters when bridges
// run on the same machine: a gateway sends all traffic for the relay's host through the relay,
// so the relay must not share its host with the peers. --relay-members tells the members of a
// room each other's relay addresses instead of their mapped ones, as the service does for
// players whose NATs cannot be punched through. --choose-ways chooses for each room from what
// its members report: their LAN addresses when two show the same public host (one router,
// which may not turn traffic to its own public address back in), the relay when one shows a
// public port other than his own local one (a NAT that picks a port per destination, which
// nobody else can punch through to), their public addresses otherwise. On the way out it says
// how many relay frames it forwarded.

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <optional>
#include <string>

#include "http/server.h"
#include "shell/net.h"
#include "shell/platform.h"
#include "shell/util.h"
#include "standin/ember_court.h"
#include "standin/stun_relay_server.h"

namespace {

void say(const std::string& text) {
    std::tm now = zq::local_time(std::time(nullptr));
    char stamp[16] = {};
    std::strftime(stamp, sizeof stamp, "%H:%M:%S", &now);
    std::printf("%s [standin] %s\n", stamp, text.c_str());
    std::fflush(stdout);
}

bool quiet_path(const std::string& path) {
    return path == "/np/events/poll" || path == "/np/events/ack" || path == "/mp/matching2/heartbeat";
}

}  // namespace

int main(int argc, char** argv) {
    int http_port = 18671;
    int stun_port = 3478;
    std::string http_host = "127.0.0.1";
    std::string stun_host = "127.0.0.1";
    bool relay_members = false;
    bool choose_ways = false;
    double seconds = 0;
    std::string ready_file;
    for (int i = 1; i < argc; i += 2) {
        std::string key = argv[i];
        if (key == "--relay-members") {
            relay_members = true;
            --i;
            continue;
        }
        if (key == "--choose-ways") {
            relay_members = choose_ways = true;
            --i;
            continue;
        }
        if (i + 1 >= argc) key.clear();
        if (key == "--http-host") http_host = argv[i + 1];
        else if (key == "--http-port") http_port = std::atoi(argv[i + 1]);
        else if (key == "--stun-port") stun_port = std::atoi(argv[i + 1]);
        else if (key == "--stun-host") stun_host = argv[i + 1];
        else if (key == "--ready-file") ready_file = argv[i + 1];
        else if (key == "--seconds") seconds = std::atof(argv[i + 1]);
        else {
            std::printf(
                "usage: ember_standin [--http-host H] [--http-port N] [--stun-host H] [--stun-port N] "
                "[--relay-members | --choose-ways] [--ready-file PATH] [--seconds N]\n");
            return 2;
        }
    }
    zq::network_init();
    standin::EmberCourt court;
    standin::StunRelayServer stun(stun_host, stun_port);
    if (!stun.address().usable()) {
        say(zq::format_text("cannot bind udp %s:%d", stun_host.c_str(), stun_port));
        return 1;
    }
    if (relay_members) {
        // The mapped address a member reports is the one the relay server saw asking, which is
        // how its allocation is found.
        court.matching.set_reach([&stun](const std::string& host, int port) {
            std::optional<std::pair<std::string, int>> relay;
            if (auto a = stun.relay_address_of(zq::Endpoint{host, port})) relay = std::make_pair(a->host, a->port);
            return relay;
        });
    }
    if (choose_ways) {
        court.matching.set_pairing([](const nlohmann::json& a, const nlohmann::json& b) {
            using Way = standin::Matching::Way;
            if (a.value("MappedAddr", "") == b.value("MappedAddr", "")) return Way::Lan;
            auto changed = [](const nlohmann::json& m) {
                int local = m.value("LocalPort", 0);
                return local != 0 && m.value("MappedPort", 0) != local;
            };
            return changed(a) || changed(b) ? Way::Relay : Way::Public;
        });
    }
    http::Server server;
    // Stands for the remote service: every player's bridge keeps connections open here.
    server.max_connections = 1024;
    std::string error;
    bool started = server.start(
        http_host, http_port,
        [&court](const http::ServerRequest& request) {
            http::ServerResponse response = court.handle(request);
            std::string path = request.path.substr(0, request.path.find('?'));
            bool has_event = response.body.find("\"HasEvent\":1") != std::string::npos;
            if (!quiet_path(path) || has_event)
                say(zq::format_text("%s %s -> %d %s", request.method.c_str(), path.c_str(), response.status,
                                    response.body.substr(0, 160).c_str()));
            return response;
        },
        &error);
    if (!started) {
        say("cannot serve http: " + error);
        return 1;
    }
    say(zq::format_text("The Ember Court stand-in on http://%s:%d, STUN and relay on udp %s%s", http_host.c_str(),
                        server.port, stun.address().text().c_str(),
                        choose_ways ? ", each room's way chosen by its members' NATs"
                        : relay_members           ? ", members meet through the relay"
                                                  : ""));
    if (!ready_file.empty()) {
        std::ofstream out(ready_file + ".tmp");
        out << server.port << " " << stun.address().port << "\n";
        out.close();
        std::rename((ready_file + ".tmp").c_str(), ready_file.c_str());
    }
    std::atomic<bool> stop{false};
    zq::install_stop_handler(&stop);
    double until = seconds > 0 ? zq::steady_seconds() + seconds : 0;
    while (!stop && (until == 0 || zq::steady_seconds() < until)) zq::sleep_ms(200);
    server.stop();
    say(zq::format_text("relay forwarded %d frames", stun.relayed()));
    say("stopped");
    return 0;
}
