// The game's command connection without its socket: the input is the byte stream the game
// sends, cut into frames as the connection loop cuts it, every Request run through dispatch on
// one session, and every reply checked as the game would read it.

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "bridge/bridge.h"
#include "bridge/dispatch.h"
#include "bridge/frames.h"
#include "bridge/session.h"
#include "fuzz_check.h"
#include "shell/config.h"
#include "shell/listener.h"

namespace {

zq::Bridge& bridge() {
    // Never started: dispatch only needs its settings and tables. Nothing upstream answers,
    // so a command that goes there fails fast instead of leaving the machine.
    static zq::Bridge* const made = [] {
        zq::Config config;
        config.velmar_server = config.auth_server = config.community_server = "http://127.0.0.1:9";
        config.p2p_gateway = false;
        config.state_file = "/nonexistent/sarnlink_fuzz_state.json";
        return new zq::Bridge(config);
    }();
    return *made;
}

// No game at the other end: one loopback connection, accepted once and ended at once, so
// nothing is ever written to it and every session sees it gone.
std::shared_ptr<zq::Listener::Connection> ended_connection() {
    static const std::shared_ptr<zq::Listener::Connection> kept = [] {
        static zq::Listener listener;
        std::mutex lock;
        std::condition_variable arrived;
        std::shared_ptr<zq::Listener::Connection> accepted;
        FUZZ_CHECK(listener.listen("127.0.0.1", 0, 1, nullptr));
        listener.start(
            [&](const std::shared_ptr<zq::Listener::Connection>& c) {
                std::lock_guard<std::mutex> guard(lock);
                accepted = c;
                arrived.notify_all();
            },
            "fuzz", [](zq::Listener::Event, const zq::Endpoint&, const std::string&) { return std::string(); });
        const zq::Socket client = zq::open_tcp_socket();
        FUZZ_CHECK(zq::connect_socket(client, zq::to_sockaddr(zq::Endpoint{"127.0.0.1", listener.port()})));
        std::unique_lock<std::mutex> guard(lock);
        arrived.wait(guard, [&] { return accepted != nullptr; });
        guard.unlock();
        listener.stop();
        accepted->end();
        zq::close_socket(client);
        return accepted;
    }();
    return kept;
}

bool known_code(std::uint8_t code) {
    switch (code) {
        case zq::ResultOk: case zq::ResultBadPayload: case zq::ResultFailed: case zq::ResultBadRoom:
        case zq::ResultLoginRefused: case zq::ResultEmptyId: case zq::ResultJoinFailed:
        case zq::ResultPeerUnknown: case zq::Unsupported:
            return true;
        default:
            return false;
    }
}

void check_reply(const zq::CommandHeader& request, const zq::CommandResult& result) {
    FUZZ_CHECK(known_code(result.code));
    std::string body(1, static_cast<char>(result.code));
    body += result.payload;
    const std::string frame = zq::build_frame(zq::FrameKind::Reply, request.command, request.packet_id, body);
    FUZZ_CHECK(frame.size() >= zq::header_size);
    const zq::CommandHeader reply = zq::parse_header(reinterpret_cast<const unsigned char*>(frame.data()));
    FUZZ_CHECK(reply.kind == static_cast<std::uint8_t>(zq::FrameKind::Reply));
    FUZZ_CHECK(reply.command == request.command && reply.packet_id == request.packet_id);
    FUZZ_CHECK(reply.total_size == frame.size());
    if (!result.payload.empty()) {
        // What this side writes the game must be able to read back whole.
        std::string message;
        zq::FieldList fields;
        FUZZ_CHECK(zq::unwrap_message(result.payload, message));
        FUZZ_CHECK(zq::decode(message, fields));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string stream = fuzzing::text_of(data, size);
    const std::shared_ptr<zq::Listener::Connection> connection = ended_connection();
    std::shared_ptr<zq::Session> session;
    std::size_t at = 0;
    while (stream.size() - at >= zq::header_size) {
        const zq::CommandHeader header = zq::parse_header(reinterpret_cast<const unsigned char*>(stream.data() + at));
        if (!header.size_ok()) break;  // the connection closes
        at += zq::header_size;
        if (stream.size() - at < header.body_size()) break;  // the game went away mid-frame
        const std::string_view body = std::string_view(stream).substr(at, header.body_size());
        at += header.body_size();
        if (header.kind != static_cast<std::uint8_t>(zq::FrameKind::Request)) continue;
        if (!session) session = std::make_shared<zq::Session>(connection, &bridge());
        const zq::CommandResult result = zq::dispatch(*session, header.command, header.packet_id, body);
        check_reply(header, result);
        if (session->closing) break;
    }
    if (session) session->shutdown();
    return 0;
}
