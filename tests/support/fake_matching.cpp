#include "support/fake_matching.h"

#include "support/fake_accounts.h"

namespace testing_support {

FakeMatching::FakeMatching(FakeService& service) : service_(service) {
    for (const char* const* path = standin::Matching::kPaths; *path; ++path) {
        service.handle(*path, [this](const RecordedRequest& r) { return scripted(*rooms.serve(call_of(r))); });
    }
}

FakeMatching::~FakeMatching() { service_.stop(); }

}  // namespace testing_support
