#pragma once
// The stand-in's matching behind a FakeService: rooms, members, heartbeats and the per-id event
// queues read by cursor. Answers queued on the service with answer_once still come first, so a
// test can script a single failure in the middle of a real sequence.

#include "standin/matching.h"
#include "support/fake_service.h"

namespace testing_support {

class FakeMatching {
public:
    // Installs its handlers on the service, which must outlive this object.
    explicit FakeMatching(FakeService& service);
    // Stops the service first: its connection threads run these handlers, which must not
    // outlive the rooms they read.
    ~FakeMatching();
    FakeMatching(const FakeMatching&) = delete;
    FakeMatching& operator=(const FakeMatching&) = delete;

    standin::Matching rooms;

private:
    FakeService& service_;
};

}  // namespace testing_support
