#include "http/server.h"

#include <cerrno>
#include <cstdlib>
#include <exception>
#include <sstream>

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

std::uint64_t announced_length(const HeaderList& headers) {
    std::string text;
    bool found = false;
    for (const auto& [name, value] : headers) {
        if (iequals(name, "Content-Length")) {
            text = value;
            found = true;
            break;
        }
    }
    if (!found || text.empty()) return 0;
    errno = 0;
    char* end = nullptr;
    unsigned long long n = std::strtoull(text.c_str(), &end, 10);
    if (end == text.c_str() || errno == ERANGE) return 0;
    return n;
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
    running = true;
    accept_thread = std::thread([this, s] { accept_loop(s); });
    return true;
}

void Server::stop() {
    if (!running.exchange(false)) return;
    // Closing alone does not wake a blocked accept everywhere; shutting down does.
    zq::shutdown_socket(listener);
    zq::close_socket(listener);
    listener = zq::invalid_socket;
    if (accept_thread.joinable()) accept_thread.join();
    {
        // Wakes every recv; each connection thread closes its own socket.
        std::lock_guard<std::mutex> guard(connections_lock);
        for (zq::Socket s : connections) zq::shutdown_socket(s);
    }
    // Nobody reads this datagram, so the wake socket stays readable for every waiting connection.
    if (wake != zq::invalid_socket) zq::send_to(wake, "x", 1, wake_address);
    for (int i = 0; i < 300; ++i) {
        if (active_connections.load() < 1) {
            zq::close_socket(wake);
            wake = zq::invalid_socket;
            return;
        }
        zq::sleep_ms(10);
    }
    // A handler still busy after 3 seconds is left running; its thread may still look at wake.
}

void Server::accept_loop(zq::Socket listening) {
    while (running) {
        zq::Socket s = zq::accept_socket(listening);
        if (s == zq::invalid_socket) return;
        {
            std::lock_guard<std::mutex> guard(connections_lock);
            connections.insert(s);
        }
        active_connections.fetch_add(1);
        std::thread([this, s] {
            connection_thread(s);
            // Last touch of the server: stop may return and destroy it right after this.
            active_connections.fetch_sub(1);
        }).detach();
    }
}

void Server::connection_thread(zq::Socket s) {
    std::string buffer;
    char block[8192];
    bool keep_alive = true;
    // Appends one receive to the buffer; false when the peer is gone or failed.
    std::vector<zq::Socket> waited = {s, wake};
    std::vector<bool> ready;
    auto receive = [&] {
        if (wake != zq::invalid_socket && (zq::wait_readable(waited, -1, ready) < 1 || ready[1])) return false;
        int n = zq::recv_some(s, block, sizeof block);
        if (n < 1) return false;
        buffer.append(block, static_cast<std::size_t>(n));
        return true;
    };
    while (keep_alive && running) {
        std::size_t searched = 0;
        std::size_t end;
        bool have_head = true;
        while ((end = buffer.find("\r\n\r\n", searched)) == std::string::npos) {
            searched = buffer.size() < 3 ? 0 : buffer.size() - 3;
            // An overlong head is dropped without an answer, even if this block held its end.
            if (!receive() || buffer.size() > max_head_buffer) {
                have_head = false;
                break;
            }
        }
        if (!have_head) break;
        RequestHead head = parse_request_head(std::string_view(buffer).substr(0, end));
        buffer.erase(0, end + 4);

        std::uint64_t length = announced_length(head.headers);
        bool complete = true;
        while (buffer.size() < length) {
            if (!receive()) {
                complete = false;
                break;
            }
        }
        if (!complete) break;

        ServerRequest request;
        request.method = std::move(head.method);
        request.path = std::move(head.path);
        request.headers = std::move(head.headers);
        request.body = buffer.substr(0, static_cast<std::size_t>(length));
        if (zq::SockAddr from; zq::peer_address(s, &from)) request.peer = zq::from_sockaddr(from);
        buffer.erase(0, static_cast<std::size_t>(length));

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

        std::string out = format_response(response, keep_alive, request.method == "HEAD");
        std::size_t sent = 0;
        while (sent < out.size()) {
            int n = zq::send_some(s, out.data() + sent, static_cast<int>(out.size() - sent));
            if (n < 1) {
                keep_alive = false;
                break;
            }
            sent += static_cast<std::size_t>(n);
        }
    }
    {
        std::lock_guard<std::mutex> guard(connections_lock);
        connections.erase(s);
    }
    zq::close_socket(s);
}

}  // namespace http
