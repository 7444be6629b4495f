#include "support/nat_lab.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <sstream>
#include <thread>

#include "http/fetch.h"
#include "shell/util.h"
#include "support/files.h"
#include "support/wait.h"

namespace testing_support {

namespace {

constexpr const char* kService = "203.0.113.10";
constexpr int kP2pPort = 40000;

std::vector<std::string> words(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string word; in >> word;) out.push_back(word);
    return out;
}

}  // namespace

const char* router_kind_name(RouterKind kind) {
    switch (kind) {
        case RouterKind::FullCone: return "full cone";
        case RouterKind::AddressRestricted: return "address-restricted cone";
        case RouterKind::PortRestricted: return "port-restricted cone";
        case RouterKind::Symmetric: return "symmetric";
        case RouterKind::PortMapping: return "symmetric with port mapping";
    }
    return "?";
}

NatLab::NatLab(LabSpec spec) : spec_(std::move(spec)) {
    for (int s = 0; s < static_cast<int>(spec_.sites.size()); ++s)
        for (int k = 0; k < spec_.sites[static_cast<std::size_t>(s)].homes; ++k) homes_.push_back({s, k});
    bridges_.resize(homes_.size());
    players_.resize(homes_.size());
}

// Every program ends in order, so that one that fails on its way out (a sanitizer's report
// among others) fails the test.
NatLab::~NatLab() {
    players_.clear();
    std::vector<Process*> all;
    for (auto& b : bridges_)
        if (b) all.push_back(b.get());
    for (auto& d : daemons_) all.push_back(d.get());
    if (standin_) all.push_back(standin_.get());
    for (Process* p : all) p->interrupt();
    for (auto& b : bridges_)
        if (b) EXPECT_EQ(b->wait(10.0), 0) << b->output();
    for (auto& d : daemons_) d->wait(10.0);  // the mapping daemon's exit code is not ours to judge
    if (standin_) EXPECT_EQ(standin_->wait(10.0), 0) << standin_->output();
    wires_.clear();
}

std::string NatLab::router_of(int site) const {
    return "r" + std::to_string(site);
}

std::string NatLab::outer_of(int site) const {
    return spec_.sites[static_cast<std::size_t>(site)].carrier ? "c" + std::to_string(site) : router_of(site);
}

std::string NatLab::home_ns(int home) const {
    const Home& h = homes_.at(static_cast<std::size_t>(home));
    return "h" + std::to_string(h.site) + std::to_string(h.slot);
}

std::string NatLab::public_address(int home) const {
    int site = homes_.at(static_cast<std::size_t>(home)).site;
    const SiteSpec& spec = spec_.sites[static_cast<std::size_t>(site)];
    RouterKind outer = spec.carrier ? *spec.carrier : spec.kind;
    if (outer == RouterKind::PortMapping) return zq::format_text("11.0.%d.2", site);
    return zq::format_text("198.51.100.%d", 2 + 128 * site);
}

std::string NatLab::home_address(int home) const {
    const Home& h = homes_.at(static_cast<std::size_t>(home));
    return zq::format_text("10.0.%d.%d", h.site, 2 + h.slot);
}

bool NatLab::fail(const std::string& text) {
    if (error_.empty()) error_ = text.empty() ? lab_.error() : text;
    return false;
}

bool NatLab::run(const std::string& ns, const std::string& program, const std::vector<std::string>& args) {
    return lab_.exec(ns, program, args) || fail("");
}

// Each router kind in nftables. Unasked traffic to the router itself is dropped before it
// leaves a connection-tracking entry behind: an early punch that reached the router would
// otherwise hold the public port and push the home's own mapping to another one.
//
// The cones keep a map from public port to the home's socket, learned after the NAT has
// chosen the port, and let anyone in through it (full cone), or only hosts that the home has
// sent to from that port (address-restricted). A hairpinning router applies the same map to
// what its LAN sends to its public address. The mapping router leaves its own chains to the
// daemon and hooks them in before its masquerade, so a mapping wins over the random port.
std::string NatLab::ruleset(int site, RouterKind kind, const std::string& wan_address, bool hairpin) const {
    bool cone = kind == RouterKind::FullCone || kind == RouterKind::AddressRestricted;
    bool mapped = cone || hairpin;
    std::string rules = "table ip router {\n";
    if (mapped)
        rules += "  map fc { type inet_service : ipv4_addr . inet_service; flags dynamic, timeout; timeout 10m; }\n";
    if (kind == RouterKind::AddressRestricted) {
        rules +=
            "  set peers { type ipv4_addr . inet_service; flags dynamic, timeout; timeout 10m; }\n"
            "  chain screen {\n"
            "    type filter hook prerouting priority -150; policy accept;\n"
            "    iifname \"wan\" meta l4proto udp ip saddr . udp dport != @peers drop\n"
            "  }\n";
    }
    rules += "  chain prerouting {\n    type nat hook prerouting priority dstnat; policy accept;\n";
    if (cone) rules += "    iifname \"wan\" meta l4proto udp dnat ip addr . port to udp dport map @fc\n";
    if (hairpin)
        rules += zq::format_text(
            "    iifname \"lan\" ip daddr %s meta l4proto udp dnat ip addr . port to udp dport map @fc\n",
            wan_address.c_str());
    rules += "  }\n  chain postrouting {\n    type nat hook postrouting priority srcnat; policy accept;\n";
    if (hairpin)
        rules += zq::format_text("    ip saddr 10.0.%d.0/24 ip daddr 10.0.%d.0/24 ct status dnat snat ip to %s\n", site,
                                 site, wan_address.c_str());
    bool random = kind == RouterKind::Symmetric || kind == RouterKind::PortMapping;
    rules += std::string("    oifname \"wan\" masquerade") + (random ? " fully-random" : "") + "\n  }\n";
    if (mapped) {
        rules +=
            "  chain learn {\n    type filter hook postrouting priority 200; policy accept;\n"
            "    oifname \"wan\" meta l4proto udp update @fc { udp sport : ct original ip saddr . ct original "
            "proto-src }\n";
        if (kind == RouterKind::AddressRestricted)
            rules += "    oifname \"wan\" meta l4proto udp update @peers { ip daddr . udp sport }\n";
        rules += "  }\n";
    }
    rules +=
        "  chain input {\n    type filter hook input priority filter; policy accept;\n"
        "    iifname \"wan\" ct state new drop\n  }\n}\n";
    if (kind == RouterKind::PortMapping)
        rules +=
            "table inet filter {\n"
            "  chain forward { type filter hook forward priority 0; policy accept; jump miniupnpd; }\n"
            "  chain miniupnpd { }\n"
            "  chain prerouting { type nat hook prerouting priority -101; policy accept; jump prerouting_miniupnpd; }\n"
            "  chain postrouting { type nat hook postrouting priority 99; policy accept; jump postrouting_miniupnpd; "
            "}\n"
            "  chain prerouting_miniupnpd { }\n"
            "  chain postrouting_miniupnpd { }\n"
            "}\n";
    // What the lab itself drops, on top of the NAT: its rules come with set_loss.
    rules +=
        "table ip lab {\n  counter lost { }\n"
        "  chain forward { type filter hook forward priority -10; policy accept; }\n}\n";
    return rules;
}

bool NatLab::build_site(int s) {
    const SiteSpec& spec = spec_.sites[static_cast<std::size_t>(s)];
    const std::string router = router_of(s), outer = outer_of(s);
    const std::string forward = "echo 1 > /proc/sys/net/ipv4/ip_forward";
    int first_home = 0;
    while (homes_[static_cast<std::size_t>(first_home)].site != s) ++first_home;
    const std::string wan = public_address(first_home);
    const std::string uplink = wan.substr(0, wan.rfind('.')) + (s == 0 || wan.starts_with("11.") ? ".1" : ".129");
    if (!lab_.add(router)) return fail("");
    if (spec.carrier && !lab_.add(outer)) return fail("");

    // The line from the public side to the outer router, with its delay.
    auto wire = std::make_unique<DelayWire>();
    std::string why;
    const std::string inet_end = "up" + std::to_string(s);
    if (!wire->open(lab_, "inet", inet_end, outer, "wan", spec_.delay_ms, &why)) return fail(why);
    wires_.push_back(std::move(wire));
    bool ok = lab_.ip("inet", {"addr", "add", uplink, "peer", wan, "dev", inet_end}) &&
              lab_.ip(outer, {"addr", "add", wan, "peer", uplink, "dev", "wan"}) &&
              lab_.ip(outer, {"route", "add", "default", "dev", "wan"}) && run(outer, "sh", {"-c", forward});
    std::string router_wan = wan;
    if (spec.carrier) {
        // The carrier's customers sit in the shared address space, here one /24 per site.
        router_wan = zq::format_text("100.64.%d.2", s);
        const std::string carrier_lan = zq::format_text("100.64.%d.1", s);
        const std::filesystem::path rules = dir_.path() / (outer + ".nft");
        write_file(rules, ruleset(s, *spec.carrier, wan, false));
        ok = ok &&
             lab_.ip(outer,
                     {"link", "add", "lan", "type", "veth", "peer", "name", "wan", "netns", lab_.full_name(router)}) &&
             lab_.ip(outer, {"addr", "add", carrier_lan + "/24", "dev", "lan"}) &&
             lab_.ip(router, {"addr", "add", router_wan + "/24", "dev", "wan"}) &&
             lab_.ip(outer, {"link", "set", "lan", "up"}) && lab_.ip(router, {"link", "set", "wan", "up"}) &&
             lab_.ip(router, {"route", "add", "default", "via", carrier_lan}) && run(router, "sh", {"-c", forward}) &&
             run(outer, "nft", {"-f", rules.string()});
    }
    const std::string lan = zq::format_text("10.0.%d.1", s);
    const std::filesystem::path rules = dir_.path() / (router + ".nft");
    write_file(rules, ruleset(s, spec.kind, router_wan, spec.hairpin));
    // Homes on one LAN talk through the bridge alone, never through the router's rules.
    const std::string bridged_alone =
        "f=/proc/sys/net/bridge/bridge-nf-call-iptables; if [ -e $f ]; then echo 0 > $f; fi";
    ok = ok && lab_.ip(router, {"link", "add", "lan", "type", "bridge"}) && run(router, "sh", {"-c", bridged_alone}) &&
         lab_.ip(router, {"addr", "add", lan + "/24", "dev", "lan"}) && lab_.ip(router, {"link", "set", "lan", "up"}) &&
         run(router, "nft", {"-f", rules.string()});
    for (int home = 0; ok && home < homes(); ++home) {
        if (homes_[static_cast<std::size_t>(home)].site != s) continue;
        const std::string ns = home_ns(home), port = "p" + ns;
        ok = lab_.add(ns) &&
             lab_.ip(router,
                     {"link", "add", port, "type", "veth", "peer", "name", "eth0", "netns", lab_.full_name(ns)}) &&
             lab_.ip(router, {"link", "set", port, "master", "lan"}) && lab_.ip(router, {"link", "set", port, "up"}) &&
             lab_.ip(ns, {"addr", "add", home_address(home) + "/24", "dev", "eth0"}) &&
             lab_.ip(ns, {"link", "set", "eth0", "up"}) && lab_.ip(ns, {"route", "add", "default", "via", lan});
    }
    if (!ok) return fail("");
    return spec.kind != RouterKind::PortMapping || start_mapping_daemon(s);
}

// The real daemon, as a router would run it: UPnP IGD, NAT-PMP and PCP on the LAN, mappings
// only for the LAN's own addresses.
bool NatLab::start_mapping_daemon(int s) {
    const std::string router = router_of(s);
    const std::filesystem::path conf = dir_.path() / (router + "-miniupnpd.conf");
    write_file(conf, zq::format_text("ext_ifname=wan\nlistening_ip=lan\nenable_natpmp=yes\nenable_upnp=yes\n"
                                     "secure_mode=yes\nsystem_uptime=no\nupnp_table_name=filter\n"
                                     "upnp_nat_table_name=filter\nuuid=3c2f5a1e-0000-4000-8000-00000000000%d\n"
                                     "allow 1024-65535 10.0.%d.0/24 1024-65535\ndeny 0-65535 0.0.0.0/0 0-65535\n",
                                     s, s));
    std::filesystem::path daemon = system_program("miniupnpd");
    if (daemon.empty()) return fail("the miniupnpd program (package miniupnpd-nftables) is missing");
    daemons_.push_back(std::make_unique<Process>(
        system_program("ip"),
        lab_.exec_args(router, daemon, {"-d", "-f", conf.string(), "-P", (dir_.path() / (router + ".pid")).string()}),
        dir_.path()));
    // It is serving once it has announced itself on the LAN.
    if (!daemons_.back()->wait_for_output("HTTP listening on port", 10.0))
        return fail("miniupnpd did not start: " + daemons_.back()->output());
    return true;
}

bool NatLab::build() {
    const std::string forward = "echo 1 > /proc/sys/net/ipv4/ip_forward";
    if (!lab_.add("inet") || !lab_.ip("inet", {"addr", "add", std::string(kService) + "/32", "dev", "lo"}) ||
        !run("inet", "sh", {"-c", forward}))
        return fail("");
    for (int s = 0; s < static_cast<int>(spec_.sites.size()); ++s)
        if (!build_site(s)) return false;
    std::vector<std::string> args{"--http-host", kService, "--http-port", "18671",
                                  "--stun-host", kService, "--stun-port", "3478"};
    if (!spec_.relay.empty()) args.push_back(spec_.relay);
    standin_ = std::make_unique<Process>(system_program("ip"), lab_.exec_args("inet", SARNLINK_STANDIN_PATH, args),
                                         dir_.path());
    if (!standin_->wait_for_output("The Ember Court stand-in on")) return fail("stand-in: " + standin_->output());
    return true;
}

bool NatLab::start_bridge(int home, const nlohmann::json& extra) {
    const std::string service = std::string("http://") + kService + ":18671";
    nlohmann::json config = {{"velmar_server", service},
                             {"auth_server", service},
                             {"community_server", service},
                             {"stun_server", std::string(kService) + ":3478"},
                             {"local_addr", home_address(home)},
                             {"p2p_port", kP2pPort},
                             {"stun_refresh", 0.5},
                             {"poll_interval", 0.05},
                             {"game_proxy_routes", nlohmann::json::object()},
                             {"create_accounts", 1},
                             {"state_file", "sarnlink_state.json"}};
    for (const auto& [key, value] : extra.items()) config[key] = value;
    std::filesystem::path folder = dir_.path() / home_ns(home);
    write_file(folder / "sarnlink_config.json", config.dump(2));
    auto& bridge = bridges_.at(static_cast<std::size_t>(home));
    bridge = std::make_unique<Process>(
        system_program("ip"), lab_.exec_args(home_ns(home), cli_path(), {"--config", "sarnlink_config.json"}), folder);
    if (!bridge->wait_for_output("p2p: relay on, our port on it is") ||
        !bridge->wait_for_output("p2p: STUN sees us as " + public_address(home) + ":"))
        return fail("bridge " + home_ns(home) + ": " + bridge->output());
    // What the bridge reports of itself when it joins a room must already be the mapping.
    const SiteSpec& site = spec_.sites[static_cast<std::size_t>(homes_.at(static_cast<std::size_t>(home)).site)];
    if (site.kind == RouterKind::PortMapping && config.value("port_mapping", 1) != 0 &&
        !bridge->wait_for_output("p2p: port mapping by "))
        return fail("bridge " + home_ns(home) + " got no port mapping: " + bridge->output());
    return true;
}

sim::Player* NatLab::start_player(int home, const std::string& name) {
    auto& player = players_.at(static_cast<std::size_t>(home));
    std::string why;
    // The player's sockets are made in the home, where its bridge listens on the loopback.
    lab_.run_inside(home_ns(home), [&] {
        player = std::make_unique<sim::Player>(name);
        if (!player->connect(31313, &why)) return;
        if (player->login(&why) && player->ping(31314, &why)) player->start_context(1, &why);
    });
    if (!player || !why.empty()) {
        fail(name + ": " + (why.empty() ? lab_.error() : why));
        return nullptr;
    }
    return player.get();
}

nlohmann::json NatLab::status(int home) {
    http::ClientResponse response;
    lab_.run_inside(home_ns(home), [&] {
        http::ClientRequest request;
        request.method = "GET";
        request.url = "http://127.0.0.1:31315/sarnlink/status.json";
        request.timeout_ms = 3000;
        request.deadline_ms = 5000;
        // A session of its own: a cached connection would lead into the home asked last time.
        http::RecycledSession session;
        response = http::fetch(session, request);
    });
    if (!response.error.empty() || response.status != 200) return nullptr;
    nlohmann::json parsed = nlohmann::json::parse(response.body, nullptr, false);
    return parsed.is_discarded() ? nlohmann::json() : parsed;
}

std::string NatLab::route(int home, const std::string& peer) {
    nlohmann::json page = status(home);
    if (!page.is_object() || !page["peers"].is_array()) return "";
    for (const auto& row : page["peers"])
        if (row.value("name", "") == peer) return row.value("route", "");
    return "";
}

bool NatLab::set_udp_timeout(int home, int seconds) {
    int site = homes_.at(static_cast<std::size_t>(home)).site;
    const std::string set = zq::format_text(
        "echo %d > /proc/sys/net/netfilter/nf_conntrack_udp_timeout && "
        "echo %d > /proc/sys/net/netfilter/nf_conntrack_udp_timeout_stream",
        seconds, seconds);
    return run(router_of(site), "sh", {"-c", set}) && run(outer_of(site), "sh", {"-c", set});
}

bool NatLab::flush_conntrack(int home) {
    int site = homes_.at(static_cast<std::size_t>(home)).site;
    return run(outer_of(site), "conntrack", {"-F"});
}

bool NatLab::rebind(int home) {
    int site = homes_.at(static_cast<std::size_t>(home)).site;
    const std::string outer = outer_of(site);
    return run(outer, "nft", {"flush", "chain", "ip", "router", "postrouting"}) &&
           run(outer, "nft",
               words("add rule ip router postrouting oifname wan meta l4proto udp masquerade to :50000-50999")) &&
           run(outer, "nft", words("add rule ip router postrouting oifname wan masquerade")) && flush_conntrack(home);
}

// Game data travels as peer data frames (first byte FF), straight or inside relay frames
// (FB 52 with the frame at offset 12 towards the relay, FB 72 with it at offset 4 from it).
bool NatLab::set_loss(int percent) {
    const std::string chance = zq::format_text("numgen random mod 100 < %d counter name lost drop", percent);
    const std::vector<std::string> matches = {"meta l4proto udp @th,64,8 0xff",
                                              "meta l4proto udp @th,64,16 0xfb52 @th,160,8 0xff",
                                              "meta l4proto udp @th,64,16 0xfb72 @th,96,8 0xff"};
    for (int s = 0; s < static_cast<int>(spec_.sites.size()); ++s)
        for (const std::string& match : matches)
            if (!run(router_of(s), "nft", words("add rule ip lab forward " + match + " " + chance))) return false;
    return true;
}

long NatLab::lab_drops() {
    long total = 0;
    for (int s = 0; s < static_cast<int>(spec_.sites.size()); ++s) {
        ProcessResult listed =
            run_process(system_program("ip"),
                        lab_.exec_args(router_of(s), system_program("nft"), {"list", "counter", "ip", "lab", "lost"}),
                        {}, {}, 20.0);
        std::size_t at = listed.output.find("packets ");
        if (listed.exit_code != 0 || at == std::string::npos) return -1;
        total += std::atol(listed.output.c_str() + at + 8);
    }
    return total;
}

int NatLab::stop_standin() {
    standin_->interrupt();
    EXPECT_EQ(standin_->wait(10.0), 0);
    std::string out = standin_->output();
    standin_.reset();
    std::size_t at = out.find("relay forwarded ");
    return at == std::string::npos ? -1 : std::atoi(out.c_str() + at + 16);
}

double NatLab::one_way_ms(int from, int to, const std::string& to_name, int samples) {
    sim::Player& sender = player(from);
    sim::Player& receiver = player(to);
    std::optional<sim::Member> peer;
    for (const auto& [id, m] : sender.peers())
        if (m.online_id == to_name) peer = m;
    if (!peer) return -1.0;
    const std::string from_name = sender.online_id();
    std::vector<double> taken;
    for (int tries = 0; static_cast<int>(taken.size()) < samples && tries < samples * 3; ++tries) {
        double start = zq::steady_seconds();
        sender.send_numbered(*peer, 1);
        std::uint32_t seq = sender.sent_to(to_name);
        // Polled in short steps, so that the figure is not rounded up to a long one.
        while (receiver.received_from(from_name).highest < seq && zq::steady_seconds() - start < 1.0)
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        if (receiver.received_from(from_name).highest >= seq) taken.push_back((zq::steady_seconds() - start) * 1000.0);
    }
    if (taken.empty()) return -1.0;
    std::sort(taken.begin(), taken.end());
    return taken[taken.size() / 2];
}

}  // namespace testing_support
