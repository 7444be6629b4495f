#pragma once
// sarnlink-check: one look, before playing, at whether this PC can play through sarnlink. It
// reads the same settings as sarnlink-cli, checks each listener port, the community service over
// HTTPS, what the STUN server sees of us and whether that depends on the destination, the
// launcher's route and the state file, and sums it up in one verdict. It changes nothing.

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "p2p/port_mapper.h"
#include "shell/config.h"
#include "shell/util.h"

namespace zq::check {

enum class Outcome { Ok, Note, Fail };

struct CheckLine {
    std::string name;  // what was checked, e.g. "game commands tcp 127.0.0.1:31313"
    Outcome outcome = Outcome::Ok;
    std::string text;  // plain words for the player
};

// How the router treats our UDP traffic, as far as the STUN exchange tells.
enum class NatKind {
    Unknown,       // no answer, or STUN is off
    None,          // the STUN server sees our own address
    KeepsMapping,  // one public address for every destination
    PortKept,      // one server address only, but the router kept our port: likely the same
    Changes,       // another public address for another destination
    PortChanged,   // one server address only, and the router gave us another port
};

enum class Verdict { Direct, Relay, Blocked };

struct StunProbe {
    bool answered = false;
    Endpoint server;                   // where the first request went (resolved)
    Endpoint local;                    // our socket
    Endpoint mapped;                   // what the server saw
    std::optional<Endpoint> other;     // the server's host at the port of its second address, when it offers one
    std::optional<Endpoint> other_mapped;  // what the second address saw
    double seconds = 0.0;              // until the first answer
};

// Sends Binding Requests from one socket to server and, when its answer names a second
// address (OTHER-ADDRESS), to that address's port on the server's own host too (never to
// another host); waits up to wait_seconds for each answer.
StunProbe probe_stun(const Endpoint& server, double wait_seconds);

// What a probe says about the router.
NatKind nat_kind(const StunProbe& probe);

struct Options {
    Config config;
    std::filesystem::path program_folder;  // where the launcher discovery looks beside us
    std::filesystem::path game_dir;        // --orlond, may be empty
    double stun_wait = 3.0;
};

struct Report {
    std::vector<CheckLine> lines;
    NatKind nat = NatKind::Unknown;
    std::optional<Endpoint> mapped;
    std::optional<p2p::PortMappingGrant> port_mapping;  // what the router granted the probe
    bool port_mapping_used = false;                     // the bridge would report it
    Verdict verdict = Verdict::Blocked;
};

// The single checks, one line each (the ports one line per listener).
std::vector<CheckLine> check_ports(const Config& config);
CheckLine check_service(const Config& config);
// The STUN line and the NAT line; fills the report's nat and mapped. The config's stun_server
// has passed settle_bridge_config.
std::vector<CheckLine> check_stun(const Config& config, double wait_seconds, Report& report);
// The router's port mapping, asked for a port of our own and released at once; no line when
// STUN saw nothing (a mapping is used only where STUN agrees) or the setting is off. Fills the
// report's port_mapping.
std::vector<CheckLine> check_port_mapping(const Config& config, Report& report);
CheckLine check_launcher(const std::filesystem::path& program_folder, const std::filesystem::path& game_dir);
CheckLine check_state_file(const Config& config);

// Any failed line blocks; otherwise a port mapping that the bridge would use, or else the
// router's NAT, decides between direct play and the relay.
Verdict decide(const std::vector<CheckLine>& lines, NatKind nat, bool port_mapping_used = false);

Report run_checks(const Options& options);

const char* verdict_text(Verdict verdict);
// 0 when play can go ahead, 1 when something blocks it.
int exit_code(Verdict verdict);

// One line per check, then the verdict.
std::string report_text(const Report& report);
nlohmann::ordered_json report_json(const Report& report);

// The whole program after the command line was read; returns the exit code.
int run_check_cli(const std::vector<std::wstring>& args);

extern const char* const kCheckUsage;

}  // namespace zq::check
