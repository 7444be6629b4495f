#include "support/fake_game.h"

#include "bridge/frames.h"
#include "shell/util.h"
#include "support/receive.h"

namespace testing_support {

namespace {

void put_le(std::string& out, std::uint64_t value, int count) {
    for (int i = 0; i < count; ++i) out.push_back(static_cast<char>((value >> (8 * i)) & 0xFF));
}

std::uint64_t get_le(const std::string& in, std::size_t at, int count) {
    std::uint64_t v = 0;
    for (int i = count - 1; i >= 0; --i) v = (v << 8) | static_cast<unsigned char>(in[at + i]);
    return v;
}

}  // namespace

FakeGame::~FakeGame() { close(); }

bool FakeGame::connect(int port, const std::string& host, const std::string& from) {
    close();
    zq::network_init();
    socket_ = zq::open_tcp_socket();
    if (socket_ == zq::invalid_socket) return false;
    if ((!from.empty() && !zq::bind_socket(socket_, zq::to_sockaddr(zq::Endpoint{from, 0}))) ||
        !zq::connect_socket(socket_, zq::to_sockaddr(zq::Endpoint{host, port}))) {
        close();
        return false;
    }
    return true;
}

bool FakeGame::connect_and_greet(int port, const std::string& host, const std::string& from) {
    if (!connect(port, host, from)) return false;
    auto hello = read_frame();
    return hello && hello->kind == 3;
}

bool FakeGame::send_raw(std::string_view bytes, double seconds) {
    return zq::send_all(socket_, bytes, zq::steady_seconds() + seconds);
}

bool FakeGame::send_frame(std::uint8_t kind, std::uint16_t command, std::uint64_t packet_id, std::string_view body) {
    return send_raw(frame_header(kind, command, static_cast<std::uint32_t>(body.size() + 15), packet_id).append(body));
}

bool FakeGame::fill(double deadline) {
    return !ended_ && socket_ != zq::invalid_socket && receive_some(socket_, buffer_, deadline, &ended_);
}

std::optional<std::string> FakeGame::read_bytes(std::size_t count, double seconds) {
    double deadline = zq::steady_seconds() + seconds;
    while (buffer_.size() < count)
        if (!fill(deadline)) return std::nullopt;
    std::string out = buffer_.substr(0, count);
    buffer_.erase(0, count);
    return out;
}

std::optional<GameFrame> FakeGame::read_frame(double seconds) {
    double deadline = zq::steady_seconds() + seconds;
    while (buffer_.size() < 15)
        if (!fill(deadline)) return std::nullopt;
    GameFrame f;
    f.kind = static_cast<std::uint8_t>(buffer_[0]);
    f.command = static_cast<std::uint16_t>(get_le(buffer_, 1, 2));
    f.total_size = static_cast<std::uint32_t>(get_le(buffer_, 3, 4));
    f.packet_id = get_le(buffer_, 7, 8);
    if (f.total_size < 15) return std::nullopt;
    while (buffer_.size() < f.total_size)
        if (!fill(deadline)) return std::nullopt;
    f.body = buffer_.substr(15, f.total_size - 15);
    buffer_.erase(0, f.total_size);
    return f;
}

std::optional<GameFrame> FakeGame::request(std::uint16_t command, std::uint64_t packet_id, std::string_view body,
                                           double seconds) {
    if (!send_request(command, packet_id, body)) return std::nullopt;
    double deadline = zq::steady_seconds() + seconds;
    for (;;) {
        auto f = read_frame(deadline - zq::steady_seconds());
        if (!f || f->kind == 1) return f;
    }
}

std::optional<std::string> FakeGame::read_to_end(double seconds) {
    double deadline = zq::steady_seconds() + seconds;
    while (!ended_)
        if (!fill(deadline) && !ended_) return std::nullopt;
    std::string out;
    out.swap(buffer_);
    return out;
}

bool FakeGame::wait_closed(double seconds) {
    double deadline = zq::steady_seconds() + seconds;
    while (!ended_) {
        buffer_.clear();
        if (!fill(deadline) && !ended_) return false;
    }
    return true;
}

void FakeGame::close() {
    if (socket_ != zq::invalid_socket) zq::close_socket(socket_);
    socket_ = zq::invalid_socket;
    buffer_.clear();
    ended_ = false;
}

std::string frame_header(std::uint8_t kind, std::uint16_t command, std::uint32_t total_size, std::uint64_t packet_id) {
    std::string out(1, static_cast<char>(kind));
    put_le(out, command, 2);
    put_le(out, total_size, 4);
    put_le(out, packet_id, 8);
    return out;
}

std::string login_body(const std::string& npid) { return zq::wrap_message(zq::FieldMessage().string(1, npid).bytes()); }

}  // namespace testing_support
