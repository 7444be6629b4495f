#include "support/fake_accounts.h"

namespace testing_support {

standin::Call call_of(const RecordedRequest& request) {
    standin::Call c;
    c.path = request.path.substr(0, request.path.find('?'));
    c.token = request.header("X-ZQ-Token");
    nlohmann::json body = request.json();
    if (body.is_object()) c.body = std::move(body);
    return c;
}

ScriptedAnswer scripted(const standin::Answer& answer) { return ScriptedAnswer::json(answer.body, answer.status); }

FakeAccounts::FakeAccounts(FakeService& service) : service_(service) {
    for (const char* const* path = standin::Accounts::kPaths; *path; ++path) {
        service.handle(*path, [this](const RecordedRequest& r) { return scripted(*store.serve(call_of(r))); });
    }
}

FakeAccounts::~FakeAccounts() { service_.stop(); }

FakeAccounts::Account FakeAccounts::add(const std::string& name) {
    Account made = store.add(name);
    service_.note_secret(made.token);
    service_.note_secret(made.recovery_code);
    return made;
}

}  // namespace testing_support
