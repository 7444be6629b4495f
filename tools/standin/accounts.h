#pragma once
// The account store of the stand-in: the /auth calls of the account commands and of the Discord
// device sign-in, and the token probe on /np/signaling/resolve, answered from memory the way the
// remote service would. Safe to call from several threads.

#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "standin/call.h"

namespace standin {

class Accounts {
public:
    struct Account {
        std::string token;  // empty: signed out everywhere
        std::string recovery_code;
    };

    // The paths answered by serve().
    static const char* const kPaths[];

    // Answers one of kPaths; nothing for any other path.
    std::optional<Answer> serve(const Call& call);

    // Creates an account directly, as if another PC had made it.
    Account add(const std::string& name);
    // Makes the stored token of a name worthless, as an expired session would.
    void revoke_token(const std::string& name);
    bool has(const std::string& name) const;
    Account get(const std::string& name) const;
    // The online id that holds a token, or "".
    std::string name_of_token(const std::string& token) const;

    // The Discord device flow: how many polls answer "pending" before the verdict, the verdict
    // ("approved" signs in as discord_name), and the timing the start call hands out.
    void set_device_flow(int pending_polls, std::string verdict, std::string discord_name, int interval = 1,
                         int expires_in = 600);

    // Where a resolved online id can be reached; without it, resolve answers an empty address.
    using Locator = std::function<std::optional<std::pair<std::string, int>>(const std::string& online_id)>;
    void set_locator(Locator locator);

private:
    Answer create(const Call& c);
    Answer recover(const Call& c);
    Answer logout(const Call& c);
    Answer web_code(const Call& c);
    Answer resolve(const Call& c);
    Answer device_start();
    Answer device_poll(const Call& c);
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
    Locator locator;
};

}  // namespace standin
