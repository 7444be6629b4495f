#include "http/server.h"

#include <exception>
#include <sstream>
#include <system_error>

#include "shell/log.h"
#include "shell/platform.h"
#include "shell/util.h"

namespace http {

ServerResponse json_response(const nlohmann::json& value, int status) {
    ServerResponse r;
    r.status = status;
    r.headers.emplace_back("Content-Type", "application/json");
    r.body = value.dump();
    return r;
}

ServerResponse json_response(const nlohmann::ordered_json& value, int status) {
    ServerResponse r;
    r.status = status;
    r.headers.emplace_back("Content-Type", "application/json");
    r.body = value.dump();
    return r;
}

const char* reason_phrase(int status) {
    switch (status) {
        case 200: return "OK";
        case 201: return "Created";
        case 204: return "No Content";
        case 400: return "Bad Request";
        case 401: return "Unauthorized";
        case 404: return "Not Found";
        case 500: return "Internal Server Error";
        case 502: return "Bad Gateway";
        default: return "Status";  // the game reads only the number
    }
}

RequestHead parse_request_head(std::string_view head) {
    RequestHead out;
    std::size_t eol = head.find('\n');
    std::istringstream words{std::string(head.substr(0, eol))};
    words >> out.method >> out.path >> out.version;
    if (eol != std::string_view::npos) append_header_lines(head.substr(eol + 1), out.headers);
    return out;
}

BodyLength body_length(const HeaderList& headers, std::uint64_t limit) {
    const std::string* text = nullptr;
    for (const auto& [name, value] : headers) {
        if (!iequals(name, "Content-Length")) continue;
        // Two lengths that disagree leave no way to tell where the next request starts.
        if (text && *text != value) return {BodyLength::Malformed, 0};
        text = &value;
    }
    if (!text || text->empty()) return {};
    if (text->find_first_not_of("0123456789") != std::string::npos) return {BodyLength::Malformed, 0};
    const std::size_t first = text->find_first_not_of('0');
    if (first == std::string::npos) return {};
    // Nineteen digits always fit in 64 bits; more never fit under any limit worth having.
    if (text->size() - first > 19) return {BodyLength::TooLarge, ~std::uint64_t{0}};
    std::uint64_t n = 0;
    for (std::size_t i = first; i < text->size(); ++i) n = n * 10 + static_cast<std::uint64_t>((*text)[i] - '0');
    if (n > limit) return {BodyLength::TooLarge, n};
    return {BodyLength::Ok, n};
}

std::string format_response(const ServerResponse& response, bool keep_alive, bool head_only) {
    std::string out = zq::format_text("HTTP/1.1 %d %s\r\n", response.status, reason_phrase(response.status));
    for (const auto& [name, value] : response.headers) {
        if (iequals(name, "Content-Length") || iequals(name, "Connection")) continue;
        out += name;
        out += ": ";
        out += value;
        out += "\r\n";
    }
    out += "Content-Length: " + std::to_string(response.body.size()) + "\r\n";
    out += keep_alive ? "Connection: keep-alive\r\n\r\n" : "Connection: close\r\n\r\n";
    if (!head_only) out += response.body;
    return out;
}

Server::~Server() { stop(); }

namespace {

bool send_all(zq::Socket s, const std::string& out) {
    std::size_t sent = 0;
    while (sent < out.size()) {
        int n = zq::send_some(s, out.data() + sent, static_cast<int>(out.size() - sent));
        if (n < 1) return false;
        sent += static_cast<std::size_t>(n);
    }
    return true;
}

http::ServerResponse error_response(const char* message, int status) {
    nlohmann::ordered_json body;
    body["ResKind"] = 1;
    body["Message"] = message;
    return json_response(body, status);
}

}  // namespace

bool Server::start(const std::string& host, int port_wanted, Handler handler_in, std::string* error) {
    zq::network_init();
    handler = std::move(handler_in);
    zq::Socket s = zq::open_tcp_socket();
    // Exclusive: a second copy of the program must fail to bind instead of sharing the port.
    zq::set_exclusive_address(s, true);
    bool ok = zq::bind_socket(s, zq::to_sockaddr(zq::Endpoint{host, port_wanted})) && zq::listen_socket(s, 16);
    if (!ok) {
        int code = zq::last_socket_error();
        if (error) *error = zq::format_text("cannot listen on %s:%d (error %d)", host.c_str(), port_wanted, code);
        zq::close_socket(s);
        listener = zq::invalid_socket;
        return false;
    }
    zq::SockAddr bound;
    port = zq::local_address(s, &bound) ? zq::from_sockaddr(bound).port : port_wanted;
    listener = s;
    wake = zq::open_udp_socket();
    if (!zq::bind_socket(wake, zq::to_sockaddr(zq::Endpoint{"127.0.0.1", 0})) || !zq::local_address(wake, &wake_address)) {
        zq::close_socket(wake);
        wake = zq::invalid_socket;
    }
    cancel_ = std::make_shared<CancelFlag>();
    running = true;
    accept_thread = std::thread([this, s] { accept_loop(s); });
    return true;
}

void Server::stop() {
    if (!running.exchange(false)) return;
    // Upstream calls end first, so that the handlers that made them return soon.
    if (cancel_) cancel_->cancel();
    // Nobody reads this datagram, so the wake socket stays readable for every waiting thread.
    if (wake != zq::invalid_socket) zq::send_to(wake, "x", 1, wake_address);
    zq::shutdown_socket(listener);
    if (accept_thread.joinable()) accept_thread.join();
    // Closed only now: a socket number closed under a waiting thread may come back as another.
    zq::close_socket(listener);
    listener = zq::invalid_socket;
    std::map<std::uint64_t, std::thread> all;
    {
        // Wakes every recv; each connection thread closes its own socket.
        std::lock_guard<std::mutex> guard(connections_lock);
        for (zq::Socket s : connections) zq::shutdown_socket(s);
        all.swap(threads_);
        finished_threads_.clear();
    }
    for (auto& [id, thread] : all) thread.join();
    zq::close_socket(wake);
    wake = zq::invalid_socket;
}

bool Server::wait_for(zq::Socket s, double deadline) {
    std::vector<zq::Socket> waited;
    if (s != zq::invalid_socket) waited.push_back(s);
    if (wake != zq::invalid_socket) waited.push_back(wake);
    std::vector<bool> ready;
    for (;;) {
        const double left = deadline - zq::steady_seconds();
        if (left <= 0 || !running) return false;
        // At most a second at a time, so that a server without its wake socket still stops.
        const int slice = left >= 1.0 ? 1000 : static_cast<int>(left * 1000) + 1;
        if (waited.empty()) {
            zq::sleep_ms(slice);
            continue;
        }
        const int n = zq::wait_readable(waited, slice, ready);
        if (n < 0 || !running) return false;
        if (n == 0) continue;
        if (wake != zq::invalid_socket && ready.back()) return false;
        return s != zq::invalid_socket && ready[0];
    }
}

void Server::join_finished_threads() {
    std::vector<std::thread> done;
    {
        std::lock_guard<std::mutex> guard(connections_lock);
        for (std::uint64_t id : finished_threads_) {
            auto it = threads_.find(id);
            if (it == threads_.end()) continue;
            done.push_back(std::move(it->second));
            threads_.erase(it);
        }
        finished_threads_.clear();
    }
    for (auto& thread : done) thread.join();
}

void Server::accept_loop(zq::Socket listening) {
    constexpr double first_backoff = 0.05;
    double backoff = first_backoff;
    while (running) {
        join_finished_threads();
        // Returns now and then with nothing to accept, so that ended threads are joined soon.
        if (!wait_for(listening, zq::steady_seconds() + 1.0)) continue;
        zq::Socket s = zq::accept_socket(listening);
        if (s == zq::invalid_socket) {
            if (!running) return;
            // Out of descriptors or buffers: the connection waits in the backlog, and the loop
            // tries again a little later instead of spinning or giving up.
            const int code = zq::last_socket_error();
            zq::log_limited(zq::format_text("http accept :%d", port),
                            zq::format_text("http :%d: accept failed (error %d), trying again", port, code));
            wait_for(zq::invalid_socket, zq::steady_seconds() + backoff);
            backoff = backoff * 2 < 1.0 ? backoff * 2 : 1.0;
            continue;
        }
        backoff = first_backoff;
        if (active_connections.load() >= max_connections) {
            zq::log_limited(zq::format_text("http full :%d", port),
                            zq::format_text("http :%d: %d connections open, refused another", port, max_connections));
            zq::close_socket(s);
            continue;
        }
        std::lock_guard<std::mutex> guard(connections_lock);
        connections.insert(s);
        active_connections.fetch_add(1);
        const std::uint64_t id = next_thread_++;
        try {
            threads_.emplace(id, std::thread([this, s, id] {
                connection_thread(s);
                std::lock_guard<std::mutex> done(connections_lock);
                finished_threads_.push_back(id);
                active_connections.fetch_sub(1);
            }));
        } catch (const std::system_error& e) {
            connections.erase(s);
            active_connections.fetch_sub(1);
            zq::close_socket(s);
            zq::log_limited(zq::format_text("http thread :%d", port),
                            zq::format_text("http :%d: refused a connection, no thread: %s", port, e.what()));
        }
    }
}

void Server::connection_thread(zq::Socket s) {
    std::string buffer;  // grows with what arrives, never with what a header announces
    // Large blocks, because every receive costs a wait beside it (a round trip to the
    // wineserver under Wine) and a head may be a megabyte.
    std::vector<char> block(65536);
    bool keep_alive = true;
    bool first = true;
    zq::Endpoint peer;  // who connected, the same for every request on the connection
    if (zq::SockAddr from; zq::peer_address(s, &from)) peer = zq::from_sockaddr(from);
    // Appends one receive to the buffer; false when the peer is gone or failed, the deadline
    // passed, or the server is stopping.
    auto receive = [&](double deadline) {
        if (!wait_for(s, deadline)) return false;
        int n = zq::recv_some(s, block.data(), static_cast<int>(block.size()));
        if (n < 1) return false;
        buffer.append(block.data(), static_cast<std::size_t>(n));
        return true;
    };
    auto seconds_from_now = [](int ms) { return zq::steady_seconds() + ms / 1000.0; };
    while (keep_alive && running) {
        // A new connection owes its head from the start; a kept-alive one may sit idle longer,
        // but once its next request has begun, the head is due within the same time.
        bool begun = first || !buffer.empty();
        first = false;
        double deadline = seconds_from_now(begun ? head_timeout_ms : idle_timeout_ms);
        std::size_t searched = 0;
        std::size_t end;
        bool have_head = true;
        while ((end = buffer.find("\r\n\r\n", searched)) == std::string::npos) {
            searched = buffer.size() < 3 ? 0 : buffer.size() - 3;
            // An overlong head is dropped without an answer, even if this block held its end.
            if (!receive(deadline) || buffer.size() > max_head_buffer) {
                have_head = false;
                break;
            }
            if (!begun) {
                begun = true;
                deadline = seconds_from_now(head_timeout_ms);
            }
        }
        if (!have_head) break;
        RequestHead head = parse_request_head(std::string_view(buffer).substr(0, end));
        buffer.erase(0, end + 4);

        const BodyLength length = body_length(head.headers, max_body);
        if (length.kind != BodyLength::Ok) {
            // Where this body ends is unknown or too far away: answer, and end the connection.
            if (length.kind == BodyLength::TooLarge)
                zq::log_limited(zq::format_text("http body :%d", port),
                                zq::format_text("http :%d: refused a body of %llu bytes (at most %llu)", port,
                                                static_cast<unsigned long long>(length.bytes),
                                                static_cast<unsigned long long>(max_body)));
            const ServerResponse refused = length.kind == BodyLength::TooLarge
                                               ? error_response("request body too large", 413)
                                               : error_response("bad Content-Length", 400);
            if (send_all(s, format_response(refused, false, head.method == "HEAD"))) {
                // Reads on for a moment, so that closing with unread bytes does not reset the
                // connection before the client has read the answer.
                const double linger = seconds_from_now(1000);
                while (receive(linger)) buffer.clear();
            }
            break;
        }
        const double body_deadline = seconds_from_now(body_timeout_ms);
        bool complete = true;
        while (buffer.size() < length.bytes) {
            if (!receive(body_deadline)) {
                complete = false;
                break;
            }
        }
        if (!complete) break;

        ServerRequest request;
        request.method = std::move(head.method);
        request.path = std::move(head.path);
        request.headers = std::move(head.headers);
        request.body = buffer.substr(0, static_cast<std::size_t>(length.bytes));
        request.cancel = cancel_;
        request.peer = peer;
        buffer.erase(0, static_cast<std::size_t>(length.bytes));

        if (iequals(find_header(request.headers, "Connection"), "close") || head.version == "HTTP/1.0")
            keep_alive = false;

        ServerResponse response;
        try {
            response = handler(request);  // an empty handler throws bad_function_call
        } catch (const std::exception& e) {
            nlohmann::ordered_json body;
            body["ResKind"] = 1;
            body["Message"] = std::string("bridge error: ") + e.what();
            response = json_response(body, 500);
        }

        if (!send_all(s, format_response(response, keep_alive, request.method == "HEAD"))) keep_alive = false;
    }
    {
        std::lock_guard<std::mutex> guard(connections_lock);
        connections.erase(s);
    }
    zq::close_socket(s);
}

}  // namespace http
