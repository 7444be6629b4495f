// Two simulated players on the road, each behind its own bridge: log in, ping, start the
// context, one creates a room and the other joins it, numbered datagrams both ways, leave.
// Ends with one verdict line and exit code 0 when nothing was lost or altered.
//
//   sim_player --bridge TCP_PORT UDP_PORT --bridge TCP_PORT UDP_PORT [--frames N]
//
// Alone, one player behind one bridge, for bridges that do not share a machine (or a network
// namespace) with each other: it creates a room, or joins the one given, and once it has a peer
// sends numbered datagrams to it in paced batches until Ctrl-C or the deadline. The first ones
// may be lost while the NATs on the way are punched through; it says so once N have arrived,
// and on Ctrl-C leaves the room and ends with a verdict: PASS when N arrived and none was
// altered.
//
//   sim_player --solo NAME --bridge TCP_PORT UDP_PORT (--create | --join ROOM) [--frames N] [--seconds S]

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <optional>
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

int usage() {
    std::printf(
        "usage: sim_player --bridge TCP_PORT UDP_PORT --bridge TCP_PORT UDP_PORT [--frames N]\n"
        "       sim_player --solo NAME --bridge TCP_PORT UDP_PORT (--create | --join ROOM) [--frames N] "
        "[--seconds S]\n");
    return 2;
}

int solo(const std::string& name, std::pair<int, int> bridge, std::optional<std::uint64_t> join, std::uint32_t frames,
         double seconds) {
    std::atomic<bool> stop{false};
    zq::install_stop_handler(&stop);
    double deadline = zq::steady_seconds() + seconds;
    sim::Player me(name);
    std::string error;
    if (!me.connect(bridge.first, &error)) return give_up(name + " connect", error);
    if (!me.login(&error)) return give_up(name + " login", error);
    if (!me.ping(bridge.second, &error)) return give_up(name + " ping", error);
    if (!me.start_context(1, &error)) return give_up(name + " context", error);
    say(zq::format_text("%s logged in (account %llu)", name.c_str(), static_cast<unsigned long long>(me.account_id())));

    sim::Member peer;
    if (join) {
        if (!me.join_room(*join, &error)) return give_up("join room", error);
        auto peers = me.peers();
        if (peers.empty()) return give_up("room summary", name + "'s room has no other member");
        peer = peers.begin()->second;
        say(zq::format_text("%s joined room %llu as member %d", name.c_str(), static_cast<unsigned long long>(*join),
                            me.member_id()));
    } else {
        auto room = me.create_room(4, &error);
        if (!room) return give_up("create room", error);
        say(zq::format_text("%s created room %llu", name.c_str(), static_cast<unsigned long long>(*room)));
        auto joined = me.next_event(std::max(0.0, deadline - zq::steady_seconds()));
        if (!joined || joined->code != sim::kMemberJoined || !joined->member)
            return give_up("joined event", name + " heard no member joining");
        peer = *joined->member;
    }
    say(zq::format_text("%s sees %s (member %d) at %s", name.c_str(), peer.online_id.c_str(), peer.member_id,
                        peer.address.text().c_str()));

    auto arrived = [&] {
        sim::Received got = me.received_from(peer.online_id);
        return got.in_order + got.out_of_order;
    };
    bool told = false;
    while (!stop && zq::steady_seconds() < deadline) {
        me.send_numbered(peer, 10);
        double pause = zq::steady_seconds() + 0.1;
        while (!stop && zq::steady_seconds() < pause) zq::sleep_ms(5);
        if (!told && arrived() >= frames) {
            told = true;
            say(zq::format_text("%s has %u datagrams from %s", name.c_str(), frames, peer.online_id.c_str()));
        }
    }
    me.leave_room(&error);
    sim::Received got = me.received_from(peer.online_id);
    bool pass = stop && arrived() >= frames && got.damaged == 0;
    std::printf("road: %s sent %u, received %u from %s (%u out of order, %u damaged)%s: %s\n", name.c_str(),
                me.sent_to(peer.online_id), arrived(), peer.online_id.c_str(), got.out_of_order, got.damaged,
                stop ? "" : ", deadline passed", pass ? "PASS" : "FAIL");
    return pass ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::pair<int, int>> bridges;
    std::uint32_t frames = 100;
    std::string solo_name;
    bool create = false;
    std::optional<std::uint64_t> join;
    double seconds = 30.0;
    for (int i = 1; i < argc; ++i) {
        std::string key = argv[i];
        if (key == "--bridge" && i + 2 < argc) {
            bridges.emplace_back(std::atoi(argv[i + 1]), std::atoi(argv[i + 2]));
            i += 2;
        } else if (key == "--frames" && i + 1 < argc) {
            frames = static_cast<std::uint32_t>(std::atoi(argv[++i]));
        } else if (key == "--solo" && i + 1 < argc) {
            solo_name = argv[++i];
        } else if (key == "--create") {
            create = true;
        } else if (key == "--join" && i + 1 < argc) {
            join = std::strtoull(argv[++i], nullptr, 10);
        } else if (key == "--seconds" && i + 1 < argc) {
            seconds = std::atof(argv[++i]);
        } else {
            return usage();
        }
    }
    if (frames == 0) return usage();
    if (!solo_name.empty()) {
        if (bridges.size() != 1 || create == join.has_value()) return usage();
        return solo(solo_name, bridges[0], join, frames, seconds);
    }
    if (bridges.size() != 2 || create || join) return usage();

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
