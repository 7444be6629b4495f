#pragma once
// A stand-in for the remote service: an http::Server on 127.0.0.1, port 0, that records every
// request and answers each path from a script or from a per-path handler.
//
// Answers are chosen in this order: the one-shot answers queued for the path, then the path's
// handler, then its standing answer, then the fallback handler, and last 404 with an empty body.
// The handlers are where stateful doubles (accounts, rooms, event queues) plug in; they run on
// the server's connection threads, several at once, and must guard their own state.

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "http/server.h"

namespace testing_support {

struct RecordedRequest {
    std::string method;
    std::string path;  // as sent, query included
    http::HeaderList headers;
    std::string body;

    // The first header of that name (any case), or "".
    std::string header(const std::string& name) const;
    bool has_header(const std::string& name) const;
    // The body parsed; discarded (is_discarded()) when it is not JSON.
    nlohmann::json json() const;
};

struct ScriptedAnswer {
    int status = 200;
    std::string body;
    http::HeaderList headers;
    // Held before answering; stop() cuts it short.
    double delay_seconds = 0.0;
    // Closes the connection without an answer. It shuts down every connection open at that
    // moment, so keep requests that must survive off the service while a drop is scripted.
    bool drop = false;

    static ScriptedAnswer json(const nlohmann::json& value, int status = 200);
    static ScriptedAnswer text(int status, std::string body);
    static ScriptedAnswer dropped();
    static ScriptedAnswer delayed(double seconds, const nlohmann::json& value);
};

class FakeService {
public:
    using Handler = std::function<ScriptedAnswer(const RecordedRequest&)>;
    // A fallback may decline a request by returning nothing.
    using Fallback = std::function<std::optional<ScriptedAnswer>(const RecordedRequest&)>;

    FakeService();
    ~FakeService();
    FakeService(const FakeService&) = delete;
    FakeService& operator=(const FakeService&) = delete;

    // Listens on 127.0.0.1 with a port of the system's choice.
    bool start(std::string* error = nullptr);
    void stop();
    int port() const;
    // Connections open on the service now, each held by a thread of this process.
    int open_connections() const { return server.active_connections.load(); }
    // "http://127.0.0.1:<port>", without a trailing slash.
    std::string base_url() const;

    // Paths are matched without their query.
    void answer(const std::string& path, ScriptedAnswer answer);
    void answer_json(const std::string& path, const nlohmann::json& value, int status = 200);
    void answer_once(const std::string& path, ScriptedAnswer answer);
    void handle(const std::string& path, Handler handler);
    void set_fallback(Fallback fallback);

    std::vector<RecordedRequest> requests() const;
    std::vector<RecordedRequest> requests_to(const std::string& path) const;
    std::size_t request_count() const;
    // The latest request; a default one when there is none.
    RecordedRequest last_request() const;
    void clear_requests();

    // Every token and recovery code handed out: each "Token" and "RecoveryCode" in an answer,
    // and those noted by a double that issues them outside an answer. None may reach a log.
    void note_secret(const std::string& secret);
    std::vector<std::string> issued_secrets() const;

private:
    http::ServerResponse serve(const http::ServerRequest& request);
    ScriptedAnswer choose(const RecordedRequest& request);
    void drop_connections();

    mutable std::mutex lock;  // guards everything below but the server
    std::condition_variable wake;
    bool stopping = false;
    std::vector<RecordedRequest> recorded;
    std::map<std::string, std::deque<ScriptedAnswer>> once;
    std::map<std::string, Handler> handlers;
    std::map<std::string, ScriptedAnswer> standing;
    Fallback fallback;
    std::vector<std::string> secrets;

    http::Server server;
};

}  // namespace testing_support
