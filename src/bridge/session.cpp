#include "bridge/session.h"

#include <algorithm>
#include <vector>

#include "bridge/bridge.h"
#include "bridge/dispatch.h"
#include "bridge/frames.h"
#include "shell/log.h"

namespace zq {

namespace {
constexpr std::size_t max_read_chunk = 0x100000;
// How often a quiet connection looks whether it is still wanted.
constexpr int quiet_check_ms = 200;
}

TcpConn::~TcpConn() { release(); }

bool TcpConn::write(std::string_view bytes) {
    std::lock_guard<std::mutex> guard(write_lock);
    if (!alive || socket_ == invalid_socket) return false;
    std::size_t sent = 0;
    while (sent < bytes.size()) {
        std::size_t chunk = std::min<std::size_t>(bytes.size() - sent, 0x7FFFFFFF);
        int n = send_some(socket_, bytes.data() + sent, static_cast<int>(chunk));
        if (n < 1) {
            alive = false;
            return false;
        }
        sent += static_cast<std::size_t>(n);
    }
    return true;
}

// Not under write_lock: a send blocked on a game that stopped reading holds that lock, and
// shutting the socket down is what ends such a send.
void TcpConn::close() {
    alive = false;
    std::lock_guard<std::mutex> guard(socket_lock_);
    if (socket_ != invalid_socket) shutdown_socket(socket_);
}

void TcpConn::release() {
    alive = false;
    std::lock_guard<std::mutex> writing(write_lock);
    std::lock_guard<std::mutex> guard(socket_lock_);
    if (socket_ != invalid_socket) {
        close_socket(socket_);
        socket_ = invalid_socket;
    }
}

Session::Session(std::shared_ptr<TcpConn> conn, Bridge* owner)
    : UpstreamClient(owner->config().velmar_server), connection(std::move(conn)), bridge(owner) {
    if (!owner->config().user_agent.empty()) client_mark = owner->config().user_agent;
    cancel = owner->cancel_flag();
}

Session::~Session() {
    // Normally joined by shutdown(); a pump that outlived it must not take the process down.
    if (pump_thread.joinable()) {
        if (pump_thread.get_id() == std::this_thread::get_id())
            pump_thread.detach();
        else
            pump_thread.join();
    }
}

void Session::shutdown() {
    {
        std::lock_guard<std::mutex> guard(pump_lock);
        stop_flag = true;
    }
    pump_wake.notify_all();
    {
        std::lock_guard<std::mutex> guard(thread_lock);
        if (pump_thread.joinable() && pump_thread.get_id() != std::this_thread::get_id()) pump_thread.join();
    }
    std::lock_guard<std::mutex> guard(session_lock);
    // When the bridge stops, calls are cancelled; leaving the room still goes out, briefly.
    leave_room_locked(cancel && cancel->cancelled());
}

std::string quote(const std::string& text) { return "'" + text + "'"; }

bool read_exactly(Socket socket, char* buffer, std::size_t size, const std::function<bool()>& keep_going) {
    std::size_t got = 0;
    std::vector<bool> ready;
    while (got < size) {
        if (keep_going) {
            while (wait_readable({socket}, quiet_check_ms, ready) == 0)
                if (!keep_going()) return false;
            if (!keep_going()) return false;
        }
        std::size_t chunk = std::min(size - got, max_read_chunk);
        int n = recv_some(socket, buffer + got, static_cast<int>(chunk));
        if (n < 1) return false;
        got += static_cast<std::size_t>(n);
    }
    return true;
}

namespace {

// Reads a body of the size a header announced. The buffer grows with the bytes that arrive,
// never ahead by more than one chunk, so a header that promises megabytes costs nothing until
// they come; a large buffer is not kept once its frame is done.
bool read_body(Socket socket, std::size_t size, std::string& body, const std::function<bool()>& keep_going) {
    constexpr std::size_t grow_chunk = 0x10000;
    constexpr std::size_t keep_capacity = 0x100000;
    if (body.capacity() > keep_capacity) std::string().swap(body);
    body.clear();
    while (body.size() < size) {
        std::size_t have = body.size();
        std::size_t chunk = std::min(size - have, grow_chunk);
        body.resize(have + chunk);
        if (!read_exactly(socket, body.data() + have, chunk, keep_going)) return false;
    }
    return true;
}

}  // namespace

void session_loop(Bridge& bridge, const std::shared_ptr<TcpConn>& connection) {
    std::shared_ptr<Session> session;
    if (connection->write(hello_frame())) {
        unsigned char header_bytes[header_size];
        std::string body;
        // Until its first whole frame a connection has a deadline; a game that has spoken may
        // then sit idle for as long as it likes.
        bool spoke = false;
        const double first_frame_by = steady_seconds() + Bridge::first_frame_timeout_ms / 1000.0;
        auto keep_going = [&] {
            return bridge.running() && connection->is_alive() && (spoke || steady_seconds() < first_frame_by);
        };
        while (keep_going()) {
            if (!read_exactly(connection->socket(), reinterpret_cast<char*>(header_bytes), header_size, keep_going))
                break;
            CommandHeader header = parse_header(header_bytes);
            // A malformed header closes the connection without a word.
            if (!header.size_ok()) break;
            if (!read_body(connection->socket(), header.body_size(), body, keep_going)) break;
            spoke = true;
            if (header.kind != static_cast<std::uint8_t>(FrameKind::Request)) continue;

            if (!session) {
                session = std::make_shared<Session>(connection, &bridge);
                std::lock_guard<std::mutex> guard(bridge.sessions_lock);
                bridge.sessions.push_back(session);
            }
            CommandResult result = dispatch(*session, header.command, header.packet_id, body);
            std::string reply;
            reply.reserve(1 + result.payload.size());
            reply.push_back(static_cast<char>(result.code));
            reply += result.payload;
            if (!connection->write(build_frame(FrameKind::Reply, header.command, header.packet_id, reply))) break;
            if (session->closing) break;
        }
    }
    connection->release();

    if (session) {
        session->shutdown();
        {
            std::lock_guard<std::mutex> guard(bridge.sessions_lock);
            auto& list = bridge.sessions;
            list.erase(std::remove(list.begin(), list.end(), session), list.end());
        }
        std::string name;
        {
            std::lock_guard<std::mutex> guard(session->session_lock);
            name = session->npid;
        }
        log_line(format_text("tcp: session for %s closed", name.empty() ? "?" : quote(name).c_str()));
    }
}

}  // namespace zq
