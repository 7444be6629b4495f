#include "app/cli.h"

#include <cstdio>

#include "accounts/account_commands.h"
#include "accounts/device_sign_in.h"
#include "app/app.h"
#include "launcher/route.h"
#include "shell/config.h"
#include "shell/log.h"
#include "shell/platform.h"
#include "shell/util.h"
#include "shell/version.h"

namespace zq {

const char* const kUsageText =
    "usage: sarnlink-cli [--config file.json] [--log file.log] [--version]\n"
    "                    [--link-discord] [--web-code NPID] [--create NAME]\n"
    "                    [--recover NAME CODE] [--sign-out NAME]\n"
    "                    [--route on|off [--orlond DIR]]\n";

namespace {

struct Options {
    std::wstring config_path = L"sarnlink_config.json";
    std::wstring log_path;
    std::wstring route;
    std::wstring game_dir;
    std::wstring web_code_id;
    std::wstring account_op, account_name, account_code;
    bool link = false;
};

enum class ScanResult { Run, Usage, Version };

ScanResult scan(const std::vector<std::wstring>& args, Options& o) {
    std::size_t i = 0;
    // How many values remain after the argument at i.
    auto has = [&](std::size_t n) { return i + n < args.size(); };
    for (; i < args.size(); ++i) {
        const std::wstring& a = args[i];
        if (a == L"--config" && has(1)) {
            o.config_path = args[++i];
        } else if (a == L"--log" && has(1)) {
            o.log_path = args[++i];
        } else if (a == L"--link-discord") {
            o.link = true;
        } else if (a == L"--route" && has(1)) {
            o.route = args[++i];
        } else if (a == L"--orlond" && has(1)) {
            o.game_dir = args[++i];
        } else if (a == L"--web-code" && has(1)) {
            o.web_code_id = args[++i];
        } else if (a == L"--create" && has(1)) {
            o.account_op = L"create";
            o.account_name = args[++i];
            o.account_code.clear();
        } else if (a == L"--recover" && has(2)) {
            o.account_op = L"recover";
            o.account_name = args[i + 1];
            o.account_code = args[i + 2];
            i += 2;
        } else if (a == L"--sign-out" && has(1)) {
            o.account_op = L"sign-out";
            o.account_name = args[++i];
            o.account_code.clear();
        } else if (a == L"--version") {
            return ScanResult::Version;
        } else {
            return ScanResult::Usage;
        }
    }
    return ScanResult::Run;
}

}  // namespace

int run_cli(const std::vector<std::wstring>& args) {
    Options o;
    switch (scan(args, o)) {
        case ScanResult::Usage:
            std::fputs(kUsageText, stdout);
            std::fflush(stdout);
            return 2;
        case ScanResult::Version:
            std::printf("sarnlink %s\n", kVersion);
            std::fflush(stdout);
            return 0;
        case ScanResult::Run:
            break;
    }

    if (!o.log_path.empty()) open_log_file(wide_path(o.log_path));

    const std::string config_name = wide_to_utf8(o.config_path);
    auto refuse = [&](const std::string& problem) {
        std::printf("config %s: %s\n", printable(config_name).c_str(), printable(problem).c_str());
        std::fflush(stdout);
        return 1;
    };
    Config config;
    std::string message;
    bool config_read = false;
    if (!load_config_file(wide_path(o.config_path), config_name, config, message, &config_read)) {
        std::printf("%s\n", printable(message).c_str());
        std::fflush(stdout);
        return 1;
    }

    if (o.link) return run_link_discord(config);
    if (!o.route.empty()) return run_route(config, o.route, o.game_dir);
    if (!o.account_op.empty()) return run_account_command(config, o.account_op, o.account_name, o.account_code);
    if (!o.web_code_id.empty()) return run_web_code(config, o.web_code_id);
    if (std::string problem; !settle_bridge_config(config, problem)) return refuse(problem);
    return run_bridge(config, wide_path(o.config_path), config_read);
}

}  // namespace zq
