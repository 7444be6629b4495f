#pragma once
// A small account store behind a FakeService: the /auth calls of the account commands and of the
// Discord sign-in, and the token probe on /np/signaling/resolve, answered from memory the way
// the remote service would.

#include <map>
#include <mutex>
#include <string>

#include "support/fake_service.h"

namespace testing_support {

class FakeAccounts {
public:
    struct Account {
        std::string token;  // empty: signed out everywhere
        std::string recovery_code;
    };

    // Installs its handlers on the service; the service must outlive this object's use.
    explicit FakeAccounts(FakeService& service);

    // Creates an account directly, as if another PC had made it.
    Account add(const std::string& name);
    // Makes the stored token of a name worthless, as an expired session would.
    void revoke_token(const std::string& name);
    bool has(const std::string& name) const;
    Account get(const std::string& name) const;

    // The Discord device flow: how many polls answer "pending" before the verdict, the verdict
    // ("approved" signs in as discord_name), and the timing the start call hands out.
    void set_device_flow(int pending_polls, std::string verdict, std::string discord_name, int interval = 1,
                         int expires_in = 600);

private:
    ScriptedAnswer create(const RecordedRequest& r);
    ScriptedAnswer recover(const RecordedRequest& r);
    ScriptedAnswer logout(const RecordedRequest& r);
    ScriptedAnswer web_code(const RecordedRequest& r);
    ScriptedAnswer resolve(const RecordedRequest& r);
    ScriptedAnswer device_start(const RecordedRequest& r);
    ScriptedAnswer device_poll(const RecordedRequest& r);
    Account issue_locked(const std::string& name, bool keep_code);
    std::string name_of_token_locked(const std::string& token) const;

    mutable std::mutex lock;  // guards everything below
    std::map<std::string, Account> accounts;
    int serial = 0;
    int pending_polls = 0;
    std::string verdict = "approved";
    std::string discord_name = "discord_player";
    int interval = 1;
    int expires_in = 600;
    int polls_seen = 0;
};

}  // namespace testing_support
