#include "fake_service.h"

#include <chrono>
#include <utility>

#include "http/headers.h"
#include "shell/net.h"

namespace testing_support {

std::string RecordedRequest::header(const std::string& name) const {
    return http::find_header(headers, name);
}

bool RecordedRequest::has_header(const std::string& name) const {
    for (const auto& [key, value] : headers) {
        if (http::iequals(key, name)) return true;
    }
    return false;
}

nlohmann::json RecordedRequest::json() const {
    return nlohmann::json::parse(body, nullptr, false);
}

ScriptedAnswer ScriptedAnswer::json(const nlohmann::json& value, int status) {
    ScriptedAnswer answer;
    answer.status = status;
    answer.body = value.dump();
    answer.headers.emplace_back("Content-Type", "application/json");
    return answer;
}

ScriptedAnswer ScriptedAnswer::text(int status, std::string body) {
    ScriptedAnswer answer;
    answer.status = status;
    answer.body = std::move(body);
    return answer;
}

ScriptedAnswer ScriptedAnswer::dropped() {
    ScriptedAnswer answer;
    answer.drop = true;
    return answer;
}

ScriptedAnswer ScriptedAnswer::delayed(double seconds, const nlohmann::json& value) {
    ScriptedAnswer answer = json(value);
    answer.delay_seconds = seconds;
    return answer;
}

FakeService::FakeService() = default;

FakeService::~FakeService() { stop(); }

bool FakeService::start(std::string* error) {
    {
        std::lock_guard<std::mutex> hold(lock);
        stopping = false;
    }
    // The bridge under test keeps pools of connections here (one per game session's poll, and
    // its shared pool); the default cap is for a listener that strangers can reach.
    server.max_connections = 1024;
    return server.start("127.0.0.1", 0, [this](const http::ServerRequest& request) { return serve(request); },
                        error);
}

void FakeService::stop() {
    {
        std::lock_guard<std::mutex> hold(lock);
        stopping = true;
    }
    // Delayed answers give up at once, so the server's stop does not wait on them.
    wake.notify_all();
    server.stop();
}

int FakeService::port() const { return server.port; }

std::string FakeService::base_url() const { return "http://127.0.0.1:" + std::to_string(port()); }

static std::string without_query(const std::string& path) { return path.substr(0, path.find('?')); }

void FakeService::answer(const std::string& path, ScriptedAnswer scripted) {
    std::lock_guard<std::mutex> hold(lock);
    standing[path] = std::move(scripted);
}

void FakeService::answer_json(const std::string& path, const nlohmann::json& value, int status) {
    answer(path, ScriptedAnswer::json(value, status));
}

void FakeService::answer_once(const std::string& path, ScriptedAnswer scripted) {
    std::lock_guard<std::mutex> hold(lock);
    once[path].push_back(std::move(scripted));
}

void FakeService::handle(const std::string& path, Handler handler) {
    std::lock_guard<std::mutex> hold(lock);
    handlers[path] = std::move(handler);
}

void FakeService::set_fallback(Fallback handler) {
    std::lock_guard<std::mutex> hold(lock);
    fallback = std::move(handler);
}

std::vector<RecordedRequest> FakeService::requests() const {
    std::lock_guard<std::mutex> hold(lock);
    return recorded;
}

std::vector<RecordedRequest> FakeService::requests_to(const std::string& path) const {
    std::lock_guard<std::mutex> hold(lock);
    std::vector<RecordedRequest> found;
    for (const auto& request : recorded) {
        if (without_query(request.path) == path) found.push_back(request);
    }
    return found;
}

std::size_t FakeService::request_count() const {
    std::lock_guard<std::mutex> hold(lock);
    return recorded.size();
}

RecordedRequest FakeService::last_request() const {
    std::lock_guard<std::mutex> hold(lock);
    return recorded.empty() ? RecordedRequest{} : recorded.back();
}

void FakeService::clear_requests() {
    std::lock_guard<std::mutex> hold(lock);
    recorded.clear();
}

void FakeService::note_secret(const std::string& secret) {
    std::lock_guard<std::mutex> hold(lock);
    if (!secret.empty()) secrets.push_back(secret);
}

std::vector<std::string> FakeService::issued_secrets() const {
    std::lock_guard<std::mutex> hold(lock);
    return secrets;
}

static void collect_secrets(const nlohmann::json& value, FakeService& service) {
    if (value.is_array()) {
        for (const auto& item : value) collect_secrets(item, service);
    } else if (value.is_object()) {
        for (const auto& [key, item] : value.items()) {
            if ((key == "Token" || key == "RecoveryCode") && item.is_string()) service.note_secret(item.get<std::string>());
            collect_secrets(item, service);
        }
    }
}

ScriptedAnswer FakeService::choose(const RecordedRequest& request) {
    std::string path = without_query(request.path);
    Handler handler;
    Fallback last_resort;
    {
        std::lock_guard<std::mutex> hold(lock);
        recorded.push_back(request);
        auto queued = once.find(path);
        if (queued != once.end() && !queued->second.empty()) {
            ScriptedAnswer next = std::move(queued->second.front());
            queued->second.pop_front();
            return next;
        }
        if (auto found = handlers.find(path); found != handlers.end()) {
            handler = found->second;
        } else if (auto fixed = standing.find(path); fixed != standing.end()) {
            return fixed->second;
        } else {
            last_resort = fallback;
        }
    }
    // Handlers run without the lock: they may take their own and may call back in here.
    if (handler) return handler(request);
    if (last_resort) {
        if (auto answered = last_resort(request)) return *answered;
    }
    return ScriptedAnswer::text(404, "");
}

void FakeService::drop_connections() { server.drop_connections(); }

http::ServerResponse FakeService::serve(const http::ServerRequest& request) {
    RecordedRequest seen{request.method, request.path, request.headers, request.body};
    ScriptedAnswer scripted = choose(seen);
    if (scripted.delay_seconds > 0) {
        std::unique_lock<std::mutex> hold(lock);
        wake.wait_for(hold, std::chrono::duration<double>(scripted.delay_seconds), [this] { return stopping; });
    }
    if (scripted.drop) drop_connections();
    collect_secrets(nlohmann::json::parse(scripted.body, nullptr, false), *this);
    http::ServerResponse response;
    response.status = scripted.status;
    response.headers = scripted.headers;
    response.body = scripted.body;
    return response;
}

}  // namespace testing_support
