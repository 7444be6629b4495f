// Two simulated players on the road, each behind its own bridge: log in, ping, start the
// context, one creates a room and the other joins it, numbered datagrams both ways, leave.
// Ends with one verdict line and exit code 0 when nothing was lost or altered.
//
//   sim_player --bridge TCP_PORT UDP_PORT --bridge TCP_PORT UDP_PORT [--frames N]

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "player/sim_player.h"
#include "shell/platform.h"
#include "shell/util.h"

namespace {

void say(const std::string& text) {
    std::tm now = zq::local_time(std::time(nullptr));
    char stamp[16] = {};
    std::strftime(stamp, sizeof stamp, "%H:%M:%S", &now);
    std::printf("%s [player] %s\n", stamp, text.c_str());
    std::fflush(stdout);
}

int give_up(const std::string& what, const std::string& error) {
    say(what + ": " + error);
    std::printf("road: FAILED at %s (%s)\n", what.c_str(), error.c_str());
    return 1;
}

bool arrived(const sim::Player& to, const sim::Player& from, std::uint32_t count) {
    return to.received_from(from.online_id()).in_order >= count;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::pair<int, int>> bridges;
    std::uint32_t frames = 100;
    for (int i = 1; i < argc; ++i) {
        std::string key = argv[i];
        if (key == "--bridge" && i + 2 < argc) {
            bridges.emplace_back(std::atoi(argv[i + 1]), std::atoi(argv[i + 2]));
            i += 2;
        } else if (key == "--frames" && i + 1 < argc) {
            frames = static_cast<std::uint32_t>(std::atoi(argv[++i]));
        } else {
            bridges.clear();
            break;
        }
    }
    if (bridges.size() != 2 || frames == 0) {
        std::printf("usage: sim_player --bridge TCP_PORT UDP_PORT --bridge TCP_PORT UDP_PORT [--frames N]\n");
        return 2;
    }

    sim::Player host("ashling");
    sim::Player guest("bramwell");
    sim::Player* players[2] = {&host, &guest};
    std::string error;
    for (int i = 0; i < 2; ++i) {
        sim::Player& p = *players[i];
        if (!p.connect(bridges[i].first, &error)) return give_up(p.online_id() + " connect", error);
        if (!p.login(&error)) return give_up(p.online_id() + " login", error);
        if (!p.ping(bridges[i].second, &error)) return give_up(p.online_id() + " ping", error);
        if (!p.start_context(1, &error)) return give_up(p.online_id() + " context", error);
        say(zq::format_text("%s logged in (account %llu), P2P socket %s", p.online_id().c_str(),
                            static_cast<unsigned long long>(p.account_id()), p.p2p_address().text().c_str()));
    }
    auto room = host.create_room(4, &error);
    if (!room) return give_up("create room", error);
    say(zq::format_text("ashling created room %llu", static_cast<unsigned long long>(*room)));
    if (!guest.join_room(*room, &error)) return give_up("join room", error);
    say(zq::format_text("bramwell joined room %llu as member %d", static_cast<unsigned long long>(*room),
                        guest.member_id()));
    auto joined = host.next_event(15.0);
    if (!joined || joined->code != sim::kMemberJoined || !joined->member)
        return give_up("joined event", "ashling heard no member joining");
    say(zq::format_text("ashling hears: member %d (%s) joined, reachable at %s", joined->member->member_id,
                        joined->member->online_id.c_str(), joined->member->address.text().c_str()));

    auto guest_sees = guest.peers();
    if (guest_sees.empty()) return give_up("room summary", "bramwell's room has no other member");
    // In batches of 20, each waited for (bounded), so that no burst overruns a receive buffer.
    double deadline = zq::steady_seconds() + 15.0;
    for (std::uint32_t sent = 0; sent < frames && zq::steady_seconds() < deadline;) {
        std::uint32_t batch = std::min<std::uint32_t>(20, frames - sent);
        host.send_numbered(*joined->member, batch);
        guest.send_numbered(guest_sees.begin()->second, batch);
        sent += batch;
        double batch_deadline = std::min(deadline, zq::steady_seconds() + 3.0);
        while (zq::steady_seconds() < batch_deadline && !(arrived(host, guest, sent) && arrived(guest, host, sent)))
            zq::sleep_ms(5);
    }
    say(zq::format_text("each sent %u numbered datagrams to the other's loopback address", host.sent_to("bramwell")));

    if (!guest.leave_room(&error)) return give_up("leave room", error);
    auto left = host.next_event(15.0);
    bool heard_left = left && left->code == sim::kMemberLeft;
    say(heard_left ? "ashling hears: bramwell left the room" : "ashling heard no member leaving");
    host.leave_room(&error);

    std::uint32_t sent = host.sent_to("bramwell") + guest.sent_to("ashling");
    sim::Received a = host.received_from("bramwell");
    sim::Received b = guest.received_from("ashling");
    std::uint32_t received = a.in_order + b.in_order + a.out_of_order + b.out_of_order;
    std::uint32_t damaged = a.damaged + b.damaged;
    std::uint32_t out_of_order = a.out_of_order + b.out_of_order;
    bool pass = heard_left && received == sent && damaged == 0 && out_of_order == 0;
    std::printf("road: %u datagrams sent, %u received, %u lost, %u out of order, %u damaged; join and leave %s: %s\n",
                sent, received, sent > received ? sent - received : 0, out_of_order, damaged,
                heard_left ? "seen" : "NOT seen", pass ? "PASS" : "FAIL");
    return pass ? 0 : 1;
}
