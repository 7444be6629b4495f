#include <memory>
#include <string>
#include <thread>

#include "app/app.h"
#include "check/check.h"
#include "p2p/port_mapping_codec.h"
#include "shell/byte_order.h"
#include "shell/net.h"
#include "standin/stun_relay_server.h"
#include "support/bridge_config.h"
#include "support/fake_port.h"
#include "support/fake_service.h"
#include "support/host.h"
#include "support/prelude.h"
#include "support/process.h"

using zq::check::CheckLine;
using zq::check::Outcome;
using zq::check::Verdict;

namespace {

zq::Config quiet_config() {
    zq::Config c = local_bridge_config("http://127.0.0.1:" + std::to_string(closed_port()));
    c.stun_server = "off";
    return c;
}

// A Binding Success answer to request: its transaction, MAPPED-ADDRESS, and OTHER-ADDRESS when given.
std::string binding_answer(const std::string& request, const zq::Endpoint& mapped, std::optional<zq::Endpoint> other) {
    auto address = [](std::uint16_t type, const zq::Endpoint& at) {
        return zq::be16_bytes(type) + bytes({0, 8, 0, 1}) + zq::be16_bytes(at.port) +
               zq::be32_bytes(*zq::p2p::parse_ipv4(at.host));
    };
    std::string attributes = address(0x0001, mapped) + (other ? address(0x802C, *other) : "");
    return bytes({1, 1}) + zq::be16_bytes(static_cast<unsigned>(attributes.size())) + request.substr(4, 16) + attributes;
}

// Restores APPDATA however the test ends.
struct AppData {
    explicit AppData(const std::filesystem::path& path) { set_env("APPDATA", path.string()); }
    ~AppData() { set_env("APPDATA", ""); }
};

}  // namespace

TEST(CheckPorts, FreeHeldByARunningSarnlinkOrTakenByAnotherProgram) {
    zq::App bridge(local_bridge_config("http://127.0.0.1:1"));
    std::string error;
    ASSERT_TRUE(bridge.start(&error)) << error;
    zq::Config c = quiet_config();
    c.tcp_port = bridge.bound_tcp_port();
    c.udp_port = bridge.bound_udp_port();
    c.webapi_port = bridge.bound_webapi_port();
    const int proxy = free_port();
    c.game_proxy_routes[proxy] = "https://example.invalid";
    auto lines = zq::check::check_ports(c);
    ASSERT_EQ(lines.size(), 4u);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(lines[i].outcome, Outcome::Ok) << lines[i].name;
        EXPECT_EQ(lines[i].text, "in use by sarnlink, which is already running") << lines[i].name;
    }
    EXPECT_EQ(lines[3].name, "game proxy tcp 127.0.0.1:" + std::to_string(proxy));
    EXPECT_EQ(lines[3].text, "free");
    bridge.stop();

    // Another program: it holds the ports but neither greets nor answers the status probe.
    FakeService tcp_holder;
    FakePort udp_holder;
    ASSERT_TRUE(tcp_holder.start());
    c.tcp_port = tcp_holder.port();
    c.udp_port = udp_holder.address().port;
    c.webapi_port = closed_port();
    c.game_proxy_routes.clear();
    lines = zq::check::check_ports(c);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].outcome, Outcome::Fail);
    EXPECT_EQ(lines[0].text, "taken by another program: close it, or choose another port in the settings");
    EXPECT_EQ(lines[1].outcome, Outcome::Fail);
    EXPECT_EQ(lines[2].outcome, Outcome::Ok);
    EXPECT_EQ(zq::check::decide(lines, zq::check::NatKind::KeepsMapping), Verdict::Blocked);
}

TEST(CheckStun, TheMappingDecidesBetweenDirectPlayAndTheRelay) {
    standin::StunRelayServer server("127.0.0.1", 0);
    ASSERT_TRUE(server.address().usable());
    zq::check::StunProbe probe = zq::check::probe_stun(server.address(), 3.0);
    ASSERT_TRUE(probe.answered);
    EXPECT_EQ(probe.mapped.host, "127.0.0.1");
    EXPECT_EQ(probe.mapped.port, probe.local.port);
    EXPECT_FALSE(probe.other);  // this server offers one address only
    auto kind = zq::check::nat_kind(probe);
    EXPECT_TRUE(kind == zq::check::NatKind::PortKept || kind == zq::check::NatKind::None);
    EXPECT_EQ(zq::check::decide({}, kind), Verdict::Direct);

    // A router that hands out another port: the relay is the likely way.
    server.set_reported(zq::Endpoint{"198.51.100.7", 4444});
    zq::Config c = quiet_config();
    c.stun_server = server.address().text();
    zq::check::Report report;
    auto lines = zq::check::check_stun(c, 3.0, report);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].outcome, Outcome::Ok);
    EXPECT_NE(lines[0].text.find(" sees us as 198.51.100.7:4444 "), std::string::npos) << lines[0].text;
    EXPECT_EQ(report.nat, zq::check::NatKind::PortChanged);
    EXPECT_EQ(zq::check::decide(lines, report.nat), Verdict::Relay);
    // Unless the router forwards a port for us, at the address that STUN sees.
    EXPECT_EQ(zq::check::decide(lines, report.nat, true), Verdict::Direct);

    // Nobody answers: UDP looks blocked, and so is play.
    zq::check::Report silent;
    c.stun_server = "127.0.0.1:" + std::to_string(free_port(false));
    lines = zq::check::check_stun(c, 0.6, silent);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].outcome, Outcome::Fail);
    EXPECT_NE(lines[0].text.find("seems blocked"), std::string::npos);

    c.stun_server = "off";
    lines = zq::check::check_stun(c, 0.6, silent);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].outcome, Outcome::Note);
}

// What a server names as its second address decides only the port of the check's second
// request: the host stays the server's own, so that no answer can make this PC send to a third.
TEST(CheckStun, TheSecondRequestGoesOnlyToTheServersOwnHost) {
    FakePort server, alternate;
    std::thread answering([&] {
        if (auto first = server.receive(10.0))
            server.send_raw(first->from, binding_answer(first->bytes, {"198.51.100.7", 4444},
                                                        zq::Endpoint{"192.0.2.99", alternate.address().port}));
        if (auto second = alternate.receive(10.0))
            alternate.send_raw(second->from, binding_answer(second->bytes, {"198.51.100.7", 4445}, std::nullopt));
    });
    zq::check::StunProbe probe = zq::check::probe_stun(server.address(), 3.0);
    answering.join();
    ASSERT_TRUE(probe.answered);
    EXPECT_EQ(probe.other, (zq::Endpoint{"127.0.0.1", alternate.address().port}));
    EXPECT_EQ(probe.other_mapped, (zq::Endpoint{"198.51.100.7", 4445}));
    EXPECT_EQ(zq::check::nat_kind(probe), zq::check::NatKind::Changes);
}

TEST(CheckFiles, StateFileAndLauncherRoute) {
    TempDir dir;
    zq::Config c = quiet_config();
    c.state_file = (dir.path() / "sarnlink_state.json").string();
    EXPECT_EQ(zq::check::check_state_file(c).outcome, Outcome::Note);
    write_file(c.state_file, "{\"accounts\": {");
    EXPECT_EQ(zq::check::check_state_file(c).outcome, Outcome::Fail);
    write_file(c.state_file, R"({"accounts": {"ashling": {"token": "tok-1", "recovery_code": "rc-9"}}})");
    CheckLine state = zq::check::check_state_file(c);
    EXPECT_EQ(state.outcome, Outcome::Ok);
    EXPECT_NE(state.text.find("1 account (ashling)"), std::string::npos) << state.text;
    EXPECT_EQ(state.text.find("tok-1"), std::string::npos);
    // A name that would clear the screen and print a verdict of its own is shown for what it is.
    write_file(c.state_file, R"({"accounts": {"ash\r\n\u001b[2Jok    launcher: fine": {}}})");
    zq::check::Report report;
    report.lines = {zq::check::check_state_file(c)};
    const std::string text = zq::check::report_text(report);
    EXPECT_NE(text.find("1 account (ash\\r\\n\\x1B[2Jok    launcher: fine)"), std::string::npos) << text;
    EXPECT_NE(zq::check::report_json(report)["checks"][0]["text"].get<std::string>().find("\\x1B[2J"), std::string::npos);

    AppData appdata(dir.path() / "roaming");
    CheckLine launcher = zq::check::check_launcher(dir.path(), "");
    EXPECT_EQ(launcher.outcome, Outcome::Fail);
    EXPECT_EQ(launcher.text, "orlond launcher settings not found. Start the orlond launcher once and close it.");
    write_file(dir.path() / "game" / "Duskhallow.exe", "");
    const std::filesystem::path settings = dir.path() / "roaming" / "orlond-launcher" / "settings.json";
    write_file(settings, R"({"online": 1, "online_server": "somewhere:1"})");
    launcher = zq::check::check_launcher(dir.path(), dir.path() / "game");
    EXPECT_EQ(launcher.outcome, Outcome::Fail);
    EXPECT_EQ(launcher.text, "the orlond launcher is not routed through sarnlink: run sarnlink-cli --route on");
    write_file(settings, R"({"online": 1, "online_server": "127.0.0.1:31313",
        "online_webapi": "http://127.0.0.1:31315", "online_password": "sarnlink"})");
    EXPECT_EQ(zq::check::check_launcher(dir.path(), dir.path() / "game").outcome, Outcome::Ok);
}

TEST(CheckCli, UsageBadSettingsAndAVerdictWithItsExitCode) {
    TempDir dir;
    EXPECT_EQ(zq::check::run_check_cli({L"--route"}), 2);
    EXPECT_EQ(zq::check::run_check_cli({L"--config"}), 2);
    EXPECT_EQ(zq::check::run_check_cli({L"--help"}), 0);
    const std::filesystem::path config = dir.path() / "sarnlink_config.json";
    write_file(config, "");
    EXPECT_EQ(zq::check::run_check_cli({L"--config", config.wstring()}), 1);
    // What the bridge would refuse to start with is refused here too, not taken for a firewall.
    for (const auto& [settings, problem] :
         {std::pair{R"({"stun_server": "127.0.0.1:70000"})",
                    R"(: stun_server "127.0.0.1:70000" has no port from 1 to 65535 after the colon)"},
          std::pair{R"({"tcp_port": 70000})", ": tcp_port 70000 is not a port from 0 to 65535"}}) {
        write_file(config, settings);
        testing::internal::CaptureStdout();
        EXPECT_EQ(zq::check::run_check_cli({L"--config", config.wstring()}), 1);
        const std::string shown = testing::internal::GetCapturedStdout();
        EXPECT_NE(shown.find(problem), std::string::npos) << shown;
        EXPECT_EQ(shown.find("verdict"), std::string::npos) << shown;
    }

    zq::check::Report report;
    report.lines = {{"web API tcp 127.0.0.1:31315", Outcome::Ok, "free"},
                    {"router", Outcome::Note, "changed our port"}};
    report.nat = zq::check::NatKind::PortChanged;
    report.mapped = zq::Endpoint{"198.51.100.7", 4444};
    report.verdict = zq::check::decide(report.lines, report.nat);
    EXPECT_EQ(zq::check::report_text(report),
              "ok    web API tcp 127.0.0.1:31315: free\n"
              "note  router: changed our port\n"
              "verdict: ready, relay likely needed\n");
    auto json = zq::check::report_json(report);
    EXPECT_EQ(json["verdict"], "ready, relay likely needed");
    EXPECT_EQ(json["ready"], true);
    EXPECT_EQ(json["exit_code"], 0);
    EXPECT_EQ(json["mapped"], "198.51.100.7:4444");
    EXPECT_EQ(json["checks"][1]["result"], "note");

    // Nothing reachable and no launcher: blocked, exit 1.
    write_file(config, zq::format_text(R"({"velmar_server": "http://127.0.0.1:%d", "stun_server": "off",
        "tcp_port": 0, "udp_port": 0, "webapi_port": 0, "game_proxy_routes": {}})", closed_port()));
    EXPECT_EQ(zq::check::run_check_cli({L"--config", config.wstring(), L"--json"}), 1);
}
