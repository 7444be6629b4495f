#pragma once
// The stand-in's account store behind a FakeService: the /auth calls of the account commands and
// of the Discord sign-in, and the token probe on /np/signaling/resolve.

#include <string>

#include "standin/accounts.h"
#include "support/fake_service.h"

namespace testing_support {

// A FakeService request as the stand-in sees it.
standin::Call call_of(const RecordedRequest& request);
ScriptedAnswer scripted(const standin::Answer& answer);

class FakeAccounts {
public:
    using Account = standin::Accounts::Account;

    // Installs its handlers on the service, which must outlive this object.
    explicit FakeAccounts(FakeService& service);
    // Stops the service first: its connection threads run these handlers, which must not
    // outlive the store they read.
    ~FakeAccounts();
    FakeAccounts(const FakeAccounts&) = delete;
    FakeAccounts& operator=(const FakeAccounts&) = delete;

    // The new account's token and code count as issued by the service.
    Account add(const std::string& name);
    void revoke_token(const std::string& name) { store.revoke_token(name); }
    Account get(const std::string& name) const { return store.get(name); }
    void set_device_flow(int pending_polls, std::string verdict, std::string discord_name, int interval = 1,
                         int expires_in = 600) {
        store.set_device_flow(pending_polls, std::move(verdict), std::move(discord_name), interval, expires_in);
    }

    standin::Accounts store;

private:
    FakeService& service_;
};

}  // namespace testing_support
