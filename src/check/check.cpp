#include "check/check.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <exception>

#include "accounts/state_file.h"
#include "bridge/frames.h"
#include "http/fetch.h"
#include "launcher/discovery.h"
#include "launcher/route.h"
#include "p2p/stun.h"
#include "shell/listener.h"
#include "shell/net.h"
#include "shell/platform.h"
#include "shell/version.h"

namespace zq::check {

namespace {

using Json = nlohmann::ordered_json;

// Where to reach a listener of ours: a bind on every interface is reached on the loopback.
std::string reach_host(const Config& config) {
    return config.bind_host == "0.0.0.0" || config.bind_host.empty() ? "127.0.0.1" : config.bind_host;
}

// Bound as the bridge binds it, and closed again at once.
bool tcp_port_free(const std::string& host, int port) { return Listener().listen(host, port, 1, nullptr); }

bool udp_port_free(const std::string& host, int port) {
    Socket s = open_udp_socket();
    if (s == invalid_socket) return false;
    bool free = bind_socket(s, to_sockaddr(Endpoint{host, port}));
    close_socket(s);
    return free;
}

// The command port of a running sarnlink greets every connection with its Hello frame.
bool sends_hello(const Endpoint& at) {
    Socket s = open_tcp_socket();
    if (s == invalid_socket) return false;
    std::string expected = hello_frame();
    std::string got;
    if (connect_socket(s, to_sockaddr(at))) {
        std::vector<bool> ready;
        const double deadline = steady_seconds() + 2.0;
        while (got.size() < expected.size() && steady_seconds() < deadline) {
            if (wait_readable({s}, 200, ready) < 1) continue;
            char buffer[64];
            int n = recv_some(s, buffer, static_cast<int>(expected.size() - got.size()));
            if (n < 1) break;
            got.append(buffer, static_cast<std::size_t>(n));
        }
    }
    shutdown_socket(s);
    close_socket(s);
    return got == expected;
}

// The web API of a running sarnlink answers its status probe.
bool answers_status(const Endpoint& at) {
    http::ClientRequest request;
    request.method = "GET";
    request.url = "http://" + at.text() + "/status";
    request.timeout_ms = 3000;
    request.deadline_ms = 4000;
    http::ClientResponse response = http::fetch(request);
    if (!response.error.empty() || response.status != 200) return false;
    nlohmann::json body = nlohmann::json::parse(response.body, nullptr, false);
    return json_text(body, "bridge", "") == "sarnlink";
}

CheckLine port_line(const std::string& name, bool free, bool held_by_us) {
    if (free) return {name, Outcome::Ok, "free"};
    if (held_by_us) return {name, Outcome::Ok, "in use by sarnlink, which is already running"};
    return {name, Outcome::Fail, "taken by another program: close it, or choose another port in the settings"};
}

// One request, resent every half second until an answer with its transaction comes or the wait ends.
std::optional<p2p::StunAnswer> binding(Socket s, const Endpoint& to, double wait_seconds) {
    const auto id = p2p::random_transaction_id();
    if (!id) return std::nullopt;
    const std::string request = p2p::plain_binding_request(*id);
    const std::string transaction = request.substr(4, 16);
    const double deadline = steady_seconds() + wait_seconds;
    std::vector<bool> ready;
    std::string buffer(2048, '\0');
    while (steady_seconds() < deadline) {
        send_to(s, request.data(), static_cast<int>(request.size()), to_sockaddr(to));
        const double resend = std::min(deadline, steady_seconds() + 0.5);
        while (steady_seconds() < resend) {
            int ms = static_cast<int>((resend - steady_seconds()) * 1000.0) + 1;
            if (wait_readable({s}, ms, ready) < 1) continue;
            SockAddr from;
            int n = recv_from(s, buffer.data(), static_cast<int>(buffer.size()), &from);
            if (n < 20) continue;
            const std::string_view datagram(buffer.data(), static_cast<std::size_t>(n));
            if (auto answer = p2p::parse_binding_answer(datagram, transaction)) return answer;
        }
    }
    return std::nullopt;
}

std::string ms_text(double seconds) { return format_text("%d ms", static_cast<int>(seconds * 1000.0 + 0.5)); }

}  // namespace

StunProbe probe_stun(const Endpoint& server, double wait_seconds) {
    StunProbe probe;
    probe.server = server;
    network_init();
    Socket s = open_udp_socket();
    if (s == invalid_socket) return probe;
    disable_udp_connreset(s);
    if (!bind_socket(s, to_sockaddr(Endpoint{"0.0.0.0", 0}))) {
        close_socket(s);
        return probe;
    }
    probe.local = bound_endpoint(s);
    const double began = steady_seconds();
    if (std::optional<p2p::StunAnswer> answer = binding(s, server, wait_seconds)) {
        probe.seconds = steady_seconds() - began;
        probe.answered = true;
        probe.mapped = Endpoint{answer->mapped_host, answer->mapped_port};
        // Only the server's own host is asked again, at the other port it names: an answer
        // must not be able to send this PC's requests to a third host.
        if (!answer->other_host.empty()) probe.other = Endpoint{server.host, answer->other_port};
        if (probe.other && *probe.other != server) {
            if (std::optional<p2p::StunAnswer> again = binding(s, *probe.other, wait_seconds))
                probe.other_mapped = Endpoint{again->mapped_host, again->mapped_port};
        }
    }
    close_socket(s);
    return probe;
}

NatKind nat_kind(const StunProbe& probe) {
    if (!probe.answered) return NatKind::Unknown;
    if (probe.mapped.host == local_ipv4() && probe.mapped.port == probe.local.port) return NatKind::None;
    if (probe.other_mapped) return *probe.other_mapped == probe.mapped ? NatKind::KeepsMapping : NatKind::Changes;
    return probe.mapped.port == probe.local.port ? NatKind::PortKept : NatKind::PortChanged;
}

std::vector<CheckLine> check_ports(const Config& config) {
    network_init();
    const std::string& host = config.bind_host;
    const std::string reach = reach_host(config);
    // Asked once, and only when some port is taken.
    std::optional<bool> running;
    auto ours = [&] {
        if (!running) running = config.webapi_port > 0 && answers_status(Endpoint{reach, config.webapi_port});
        return *running;
    };
    std::vector<CheckLine> lines;
    if (config.tcp_port > 0) {
        bool free = tcp_port_free(host, config.tcp_port);
        lines.push_back(port_line(format_text("game commands tcp %s:%d", host.c_str(), config.tcp_port), free,
                                  !free && sends_hello(Endpoint{reach, config.tcp_port})));
    }
    if (config.udp_port > 0) {
        bool free = udp_port_free(host, config.udp_port);
        lines.push_back(port_line(format_text("game ping udp %s:%d", host.c_str(), config.udp_port), free,
                                  !free && ours()));
    }
    if (config.webapi_port > 0) {
        bool free = tcp_port_free(host, config.webapi_port);
        lines.push_back(port_line(format_text("web API tcp %s:%d", host.c_str(), config.webapi_port), free,
                                  !free && ours()));
    }
    for (const auto& [port, url] : config.game_proxy_routes) {
        if (port <= 0) continue;
        bool free = tcp_port_free(host, port);
        lines.push_back(port_line(format_text("game proxy tcp %s:%d", host.c_str(), port), free, !free && ours()));
    }
    if (config.p2p_gateway && config.p2p_port > 0) {
        bool free = udp_port_free("0.0.0.0", config.p2p_port);
        lines.push_back(port_line(format_text("player traffic udp :%d", config.p2p_port), free, !free && ours()));
    }
    return lines;
}

CheckLine check_service(const Config& config) {
    CheckLine line{"community service", Outcome::Ok, ""};
    if (config.velmar_server.empty()) return {line.name, Outcome::Fail, "no service address in the settings"};
    http::ClientRequest request;
    request.method = "GET";
    request.url = config.velmar_server + "/";
    request.headers.emplace_back("User-Agent", config.user_agent);
    request.timeout_ms = 8000;
    request.deadline_ms = 10000;
    const double began = steady_seconds();
    http::ClientResponse response = http::fetch(request);
    const double took = steady_seconds() - began;
    const bool secure = config.velmar_server.starts_with("https://");
    if (!response.error.empty()) {
        std::string text = "no answer from " + config.velmar_server + ": " + response.error;
        // libcurl's and WinHTTP's numbers for the three usual causes.
        auto either = [&](const char* curl_code, const char* winhttp_code) {
            return response.error.find(curl_code) != std::string::npos ||
                   response.error.find(winhttp_code) != std::string::npos;
        };
        if (either("(60)", "(12175)")) text += " (its certificate is not trusted)";
        else if (either("(6)", "(12007)")) text += " (the name does not resolve: is this PC online?)";
        else if (either("(7)", "(12029)") || response.error.find("(111)") != std::string::npos) text += " (the connection was refused or blocked)";
        return {line.name, Outcome::Fail, text};
    }
    if (response.status >= 500)
        return {line.name, Outcome::Fail,
                format_text("%s answers with trouble of its own (HTTP %u) after %s", config.velmar_server.c_str(),
                            response.status, ms_text(took).c_str())};
    if (!secure)
        return {line.name, Outcome::Note,
                config.velmar_server + " answers in " + ms_text(took) + ", but without HTTPS"};
    return {line.name, Outcome::Ok,
            config.velmar_server + " answers over HTTPS with a trusted certificate in " + ms_text(took)};
}

std::vector<CheckLine> check_stun(const Config& config, double wait_seconds, Report& report) {
    const std::optional<Endpoint> server = pick_stun_server(config);
    if (!server)
        return {{"STUN server", Outcome::Note,
                 "STUN is off in the settings: only players on your own network can be reached"}};
    Endpoint target{resolve_ipv4(server->host), server->port};
    if (target.host.empty())
        return {{"STUN server", Outcome::Fail, "cannot find " + server->host + " (name does not resolve)"}};
    StunProbe probe = probe_stun(target, wait_seconds);
    const std::string where = server->host + ":" + std::to_string(server->port);
    if (!probe.answered)
        return {{"STUN server", Outcome::Fail,
                 "no answer from " + where + ": UDP to it seems blocked by a firewall or the router"}};
    report.mapped = probe.mapped;
    report.nat = nat_kind(probe);
    std::vector<CheckLine> lines;
    lines.push_back({"STUN server", Outcome::Ok,
                     where + " sees us as " + probe.mapped.text() + " (answer in " + ms_text(probe.seconds) + ")"});
    switch (report.nat) {
    case NatKind::None:
        lines.push_back({"router", Outcome::Ok, "no address translation: other players can reach this PC directly"});
        break;
    case NatKind::KeepsMapping:
        lines.push_back({"router", Outcome::Ok,
                         "keeps one public address for every destination (" + probe.other->text() + " saw " +
                             probe.other_mapped->text() + " too): direct play should work"});
        break;
    case NatKind::Changes:
        lines.push_back({"router", Outcome::Note,
                         "gives every destination its own public address (" + probe.other->text() + " saw " +
                             probe.other_mapped->text() + "): players will meet through the relay"});
        break;
    case NatKind::PortKept:
        lines.push_back({"router", Outcome::Ok,
                         "kept our port " + std::to_string(probe.local.port) +
                             "; the STUN server offers one address only, so this is a good sign, not a proof"});
        break;
    case NatKind::PortChanged:
        lines.push_back({"router", Outcome::Note,
                         format_text("changed our port %d to %d; the STUN server offers one address only, so "
                                     "the relay will likely be needed",
                                     probe.local.port, probe.mapped.port)});
        break;
    case NatKind::Unknown:
        break;
    }
    return lines;
}

std::vector<CheckLine> check_port_mapping(const Config& config, Report& report) {
    if (!config.p2p_gateway || !report.mapped) return {};
    const std::string name = "port mapping";
    if (!config.port_mapping) return {{name, Outcome::Note, "off in the settings (port_mapping 0)"}};
    std::string why;
    std::optional<Endpoint> router = p2p::home_router(why);
    if (!router) return {{name, Outcome::Note, "no router to ask: " + why}};
    // A port of our own, never the bridge's: releasing the probe's mapping must not take away
    // the one that a running bridge holds.
    Socket s = open_udp_socket();
    if (s == invalid_socket || !bind_socket(s, to_sockaddr(Endpoint{"0.0.0.0", 0}))) {
        close_socket(s);
        return {{name, Outcome::Note, "no UDP socket to ask for"}};
    }
    const int port = bound_endpoint(s).port;
    std::atomic<bool> never{false};
    p2p::PortMapper mapper(*router, port, never);
    report.port_mapping = mapper.map(120);
    mapper.release();
    close_socket(s);
    if (!report.port_mapping)
        return {{name, Outcome::Note, "the router " + router->host + " answers none of PCP, NAT-PMP and UPnP"}};
    const std::string granted = format_text("%s forwards udp port %d to %s", p2p::protocol_name(report.port_mapping->protocol),
                                            port, report.port_mapping->external.text().c_str());
    const std::string because = p2p::mapping_unused_because(report.port_mapping->external, report.mapped);
    report.port_mapping_used = because.empty();
    if (report.port_mapping_used) return {{name, Outcome::Ok, granted + ": other players can reach this PC directly"}};
    return {{name, Outcome::Note, granted + ", which is not used: " + because}};
}

CheckLine check_launcher(const std::filesystem::path& program_folder, const std::filesystem::path& game_dir) {
    try {
        Launcher launcher(program_folder, game_dir);
        if (route_status(launcher) == 1) return {"launcher", Outcome::Ok, "the orlond launcher is routed through sarnlink"};
        return {"launcher", Outcome::Fail,
                "the orlond launcher is not routed through sarnlink: run sarnlink-cli --route on"};
    } catch (const std::exception& e) {
        return {"launcher", Outcome::Fail, e.what()};
    }
}

CheckLine check_state_file(const Config& config) {
    const std::filesystem::path path = state_path(config.state_file);
    const std::string shown = path_text(path);
    std::error_code ignored;
    if (!std::filesystem::exists(path, ignored)) {
        if (config.create_accounts) return {"accounts", Outcome::Note, shown + " does not exist yet; the first login creates it"};
        return {"accounts", Outcome::Note,
                shown + " does not exist yet: create an account with sarnlink-cli --create NAME"};
    }
    std::string text;
    if (!read_whole_file(path, text)) return {"accounts", Outcome::Fail, shown + " cannot be read"};
    nlohmann::json doc = parse_state_text(text);
    if (doc.is_discarded() || !doc.is_object()) return {"accounts", Outcome::Fail, shown + " is damaged (not a JSON object)"};
    std::string names;
    std::size_t count = 0;
    if (json_has(doc, "accounts") && doc["accounts"].is_object()) {
        for (const auto& [name, record] : doc["accounts"].items()) {
            names += (count++ ? ", " : "") + name;
        }
    }
    if (count == 0) return {"accounts", Outcome::Note, shown + " reads, but holds no account yet"};
    return {"accounts", Outcome::Ok,
            shown + " reads: " + std::to_string(count) + (count == 1 ? " account (" : " accounts (") + names + ")"};
}

Verdict decide(const std::vector<CheckLine>& lines, NatKind nat, bool port_mapping_used) {
    for (const CheckLine& line : lines)
        if (line.outcome == Outcome::Fail) return Verdict::Blocked;
    if (port_mapping_used) return Verdict::Direct;
    return nat == NatKind::Changes || nat == NatKind::PortChanged ? Verdict::Relay : Verdict::Direct;
}

Report run_checks(const Options& options) {
    Report report;
    report.lines = check_ports(options.config);
    report.lines.push_back(check_service(options.config));
    for (CheckLine& line : check_stun(options.config, options.stun_wait, report)) report.lines.push_back(std::move(line));
    for (CheckLine& line : check_port_mapping(options.config, report)) report.lines.push_back(std::move(line));
    report.lines.push_back(check_launcher(options.program_folder, options.game_dir));
    report.lines.push_back(check_state_file(options.config));
    report.verdict = decide(report.lines, report.nat, report.port_mapping_used);
    return report;
}

const char* verdict_text(Verdict verdict) {
    switch (verdict) {
    case Verdict::Direct: return "ready, direct play likely";
    case Verdict::Relay: return "ready, relay likely needed";
    case Verdict::Blocked: return "blocked";
    }
    return "blocked";
}

int exit_code(Verdict verdict) { return verdict == Verdict::Blocked ? 1 : 0; }

// Lines carry what others chose (account names, paths, a server's words): on the console none
// of it may act on the terminal or pass for a line of its own, and JSON takes nothing but UTF-8.
std::string report_text(const Report& report) {
    std::string out;
    for (const CheckLine& line : report.lines) {
        const char* mark = line.outcome == Outcome::Ok ? "ok" : line.outcome == Outcome::Note ? "note" : "FAIL";
        out += format_text("%-5s %s: %s\n", mark, printable(line.name).c_str(), printable(line.text).c_str());
    }
    out += std::string("verdict: ") + verdict_text(report.verdict) + "\n";
    return out;
}

Json report_json(const Report& report) {
    Json checks = Json::array();
    for (const CheckLine& line : report.lines)
        checks.push_back(Json{{"check", printable(line.name)},
                              {"result", line.outcome == Outcome::Ok     ? "ok"
                                         : line.outcome == Outcome::Note ? "note"
                                                                         : "fail"},
                              {"text", printable(line.text)}});
    return Json{{"version", kVersion},
                {"checks", checks},
                {"mapped", report.mapped ? Json(report.mapped->text()) : Json(nullptr)},
                {"port_mapping", report.port_mapping
                                     ? Json{{"protocol", p2p::protocol_name(report.port_mapping->protocol)},
                                            {"external", report.port_mapping->external.text()},
                                            {"used", report.port_mapping_used}}
                                     : Json(nullptr)},
                {"verdict", verdict_text(report.verdict)},
                {"ready", report.verdict != Verdict::Blocked},
                {"exit_code", exit_code(report.verdict)}};
}

const char* const kCheckUsage =
    "usage: sarnlink-check [--config file.json] [--orlond DIR] [--json] [--help]\n"
    "\n"
    "Checks, before playing, whether sarnlink can work on this PC: its ports, the community\n"
    "service, what the STUN server sees of this PC, the router's port mapping, the launcher's\n"
    "route and the accounts file.\n"
    "It reads the same settings as sarnlink-cli (sarnlink_config.json) and changes nothing.\n"
    "\n"
    "  --config file.json  the settings file (default sarnlink_config.json)\n"
    "  --orlond DIR        the game's folder, when the launcher does not know it\n"
    "  --json              the result as JSON instead of lines of text\n"
    "  --help              this text\n"
    "\n"
    "Exit codes: 0 ready (direct play likely, or relay likely needed), 1 blocked or the settings\n"
    "file is not valid JSON or holds a value that sarnlink-cli refuses, 2 usage.\n";

int run_check_cli(const std::vector<std::wstring>& args) {
    std::wstring config_path = L"sarnlink_config.json";
    std::wstring game_dir;
    bool json = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::wstring& a = args[i];
        if (a == L"--config" && i + 1 < args.size()) {
            config_path = args[++i];
        } else if (a == L"--orlond" && i + 1 < args.size()) {
            game_dir = args[++i];
        } else if (a == L"--json") {
            json = true;
        } else if (a == L"--help") {
            std::fputs(kCheckUsage, stdout);
            return 0;
        } else {
            std::fputs(kCheckUsage, stdout);
            return 2;
        }
    }
    Options options;
    std::string message;
    const std::string config_name = wide_to_utf8(config_path);
    if (!load_config_file(wide_path(config_path), config_name, options.config, message)) {
        std::printf("%s\n", printable(message).c_str());
        return 1;
    }
    // The bridge's own limits: what it would refuse to start with is no firewall's doing.
    if (std::string problem; !settle_bridge_config(options.config, problem)) {
        std::printf("config %s: %s\n", printable(config_name).c_str(), printable(problem).c_str());
        return 1;
    }
    options.program_folder = own_executable_path().parent_path();
    options.game_dir = wide_path(game_dir);
    Report report = run_checks(options);
    if (json)
        std::printf("%s\n", report_json(report).dump(2).c_str());
    else
        std::printf("sarnlink-check %s\n%s", kVersion, report_text(report).c_str());
    std::fflush(stdout);
    return exit_code(report.verdict);
}

}  // namespace zq::check
