// The stand-in of The Ember Court for development: the service on HTTP and the STUN and relay
// server on UDP, both on the loopback, until Ctrl-C or the given number of seconds.
//
//   ember_standin [--http-port N] [--stun-host H] [--stun-port N] [--ready-file PATH] [--seconds N]
//
// Port 0 lets the system choose; the ready file then receives "http_port stun_port" once both
// are listening, which is how a script learns them. --stun-host (a loopback address, 127.0.0.1
// by default) matters when bridges run on the same machine: a gateway sends all traffic for the
// relay's host through the relay, so the relay must not share its host with the peers.

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
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
    std::string stun_host = "127.0.0.1";
    double seconds = 0;
    std::string ready_file;
    for (int i = 1; i + 1 < argc; i += 2) {
        std::string key = argv[i];
        if (key == "--http-port") http_port = std::atoi(argv[i + 1]);
        else if (key == "--stun-port") stun_port = std::atoi(argv[i + 1]);
        else if (key == "--stun-host") stun_host = argv[i + 1];
        else if (key == "--ready-file") ready_file = argv[i + 1];
        else if (key == "--seconds") seconds = std::atof(argv[i + 1]);
        else {
            std::printf(
                "usage: ember_standin [--http-port N] [--stun-host H] [--stun-port N] [--ready-file PATH] "
                "[--seconds N]\n");
            return 2;
        }
    }
    zq::network_init();
    standin::EmberCourt court;
    if (stun_host.rfind("127.", 0) != 0) {
        say("--stun-host must be a loopback address");
        return 2;
    }
    standin::StunRelayServer stun(stun_host, stun_port);
    if (!stun.address().usable()) {
        say(zq::format_text("cannot bind udp %s:%d", stun_host.c_str(), stun_port));
        return 1;
    }
    http::Server server;
    std::string error;
    bool started = server.start(
        "127.0.0.1", http_port,
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
    say(zq::format_text("The Ember Court stand-in on http://127.0.0.1:%d, STUN and relay on udp %s", server.port,
                        stun.address().text().c_str()));
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
    say("stopped");
    return 0;
}
