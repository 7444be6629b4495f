#include "http/service_health.h"

#include <mutex>
#include <utility>

namespace zq {

namespace {

std::mutex& record_lock() {
    static std::mutex lock;
    return lock;
}

std::optional<ServiceCall>& record() {
    static std::optional<ServiceCall> last;
    return last;
}

}  // namespace

void note_service_call(ServiceCall call) {
    std::lock_guard<std::mutex> guard(record_lock());
    record() = std::move(call);
}

std::optional<ServiceCall> last_service_call() {
    std::lock_guard<std::mutex> guard(record_lock());
    return record();
}

void forget_service_calls() {
    std::lock_guard<std::mutex> guard(record_lock());
    record().reset();
}

}  // namespace zq
