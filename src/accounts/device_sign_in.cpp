#include "accounts/device_sign_in.h"

#include <algorithm>
#include <cstdio>
#include <system_error>

#include "accounts/account_commands.h"
#include "accounts/state_file.h"
#include "shell/log.h"
#include "shell/platform.h"
#include "shell/util.h"

namespace zq {

DeviceSignIn::DeviceSignIn(std::string server, std::filesystem::path state_path)
    : server_(std::move(server)), state_path_(std::move(state_path)) {}

DeviceSignIn::~DeviceSignIn() { cancel(); }

void DeviceSignIn::start() {
    cancel();
    {
        std::lock_guard<std::mutex> guard(lock_);
        user_code_.clear();
        verification_uri_.clear();
        signed_in_name_.clear();
        error_.clear();
    }
    status_ = Starting;
    worker_ = std::thread([this] { worker(); });
}

void DeviceSignIn::cancel() {
    cancel_ = true;
    if (worker_.joinable()) worker_.join();
    int s = status_.load();
    if (s == Starting || s == Waiting) status_ = Idle;
    cancel_ = false;
}

std::string DeviceSignIn::user_code() const {
    std::lock_guard<std::mutex> guard(lock_);
    return user_code_;
}

std::string DeviceSignIn::verification_uri() const {
    std::lock_guard<std::mutex> guard(lock_);
    return verification_uri_;
}

std::string DeviceSignIn::signed_in_name() const {
    std::lock_guard<std::mutex> guard(lock_);
    return signed_in_name_;
}

std::string DeviceSignIn::error() const {
    std::lock_guard<std::mutex> guard(lock_);
    return error_;
}

void DeviceSignIn::fail(const std::string& text) {
    {
        std::lock_guard<std::mutex> guard(lock_);
        error_ = text;
    }
    log_line("discord sign-in: " + text);
    status_ = Failed;
}

void DeviceSignIn::worker() {
    nlohmann::json reply;
    std::string error;
    if (!auth_post(server_, "/auth/device/start", {{"DeviceName", device_name()}}, reply, error)) return fail(error);
    std::string device_code = json_text(reply, "DeviceCode", "");
    std::int64_t interval = json_int(reply, "Interval", 5);
    std::int64_t expires_in = json_int(reply, "ExpiresIn", 600);
    std::string code, uri;
    {
        std::lock_guard<std::mutex> guard(lock_);
        user_code_ = json_text(reply, "UserCode", "");
        verification_uri_ = json_text(reply, "VerificationUri", "");
        deadline_ = steady_seconds() + static_cast<double>(expires_in);
        // A service that gives out no code is a fatal condition: the failure is raised while the
        // lock is held, and nothing on this thread catches it, so the process ends here.
        if (device_code.empty() || user_code_.empty())
            throw std::system_error(std::make_error_code(std::errc::resource_deadlock_would_occur),
                                    "no code in the reply");
        code = user_code_;
        uri = verification_uri_;
    }
    log_line("discord sign-in: approve code " + code + " at " + uri);
    status_ = Waiting;
    if (cancel_) return;

    const std::int64_t ticks = (interval < 1 ? 5 : interval) * 10;
    for (;;) {
        for (std::int64_t t = 0; t < ticks; ++t) {
            if (cancel_) return;
            sleep_ms(100);
        }
        if (cancel_) return;
        double remaining;
        {
            std::lock_guard<std::mutex> guard(lock_);
            remaining = deadline_ > 0 ? std::max(0.0, deadline_ - steady_seconds()) : 0.0;
        }
        if (!(remaining > 0)) return fail("the code expired - start again");
        if (!auth_post(server_, "/auth/device/poll", {{"DeviceCode", device_code}}, reply, error)) return fail(error);
        std::string status = json_text(reply, "Status", "");
        if (status == "approved") break;
        if (status == "pending" || status.empty()) {
            if (cancel_) return;
            continue;
        }
        return fail("the server says: " + status);
    }

    std::string token = json_text(reply, "Token", "");
    std::string online_id = json_text(reply, "OnlineId", "");
    if (token.empty() || online_id.empty()) return fail("no token in the reply");
    nlohmann::json record = {
        {"velmar_name", online_id}, {"online_id", online_id}, {"token", token}, {"linked", "discord"}};
    if (!store_account_record(state_path_, online_id, record)) return fail("could not write the account file");
    {
        std::lock_guard<std::mutex> guard(lock_);
        signed_in_name_ = online_id;
    }
    log_line("discord sign-in: linked, signed in as '" + online_id + "'");
    status_ = SignedIn;
}

int run_link_discord(const Config& config) {
    DeviceSignIn sign_in(config.auth_server, state_path(config.state_file));
    sign_in.start();
    bool shown = false;
    int status;
    while ((status = sign_in.status()) == DeviceSignIn::Starting || status == DeviceSignIn::Waiting) {
        if (status == DeviceSignIn::Waiting && !shown) {
            std::printf("Open %s and enter the code %s\n", printable(sign_in.verification_uri()).c_str(),
                        printable(sign_in.user_code()).c_str());
            std::fflush(stdout);
            shown = true;
        }
        sleep_ms(200);
    }
    if (status == DeviceSignIn::SignedIn) {
        std::printf("signed in as %s\n", printable(sign_in.signed_in_name()).c_str());
    } else {
        std::printf("failed: %s\n", printable(sign_in.error()).c_str());
    }
    std::fflush(stdout);
    sign_in.cancel();
    return status == DeviceSignIn::SignedIn ? 0 : 1;
}

}  // namespace zq
