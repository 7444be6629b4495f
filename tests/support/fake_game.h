#pragma once
// A stand-in for the game port on the command connection: connects over TCP, sends Request
// frames and reads whatever frames come back, all with deadlines. The header layout is parsed
// here by hand, independently of the bridge's own codec.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "shell/net.h"

namespace testing_support {

struct GameFrame {
    std::uint8_t kind = 0;  // 0 Request, 1 Reply, 2 Notification, 3 Hello
    std::uint16_t command = 0;
    std::uint32_t total_size = 0;
    std::uint64_t packet_id = 0;
    std::string body;

    // A Reply's first body byte; -1 when the body is empty.
    int result() const { return body.empty() ? -1 : static_cast<unsigned char>(body[0]); }
    // A Reply's bytes after the result code.
    std::string payload() const { return body.empty() ? std::string() : body.substr(1); }
};

class FakeGame {
public:
    FakeGame() = default;
    ~FakeGame();
    FakeGame(const FakeGame&) = delete;
    FakeGame& operator=(const FakeGame&) = delete;

    // From the address from when one is given, as a host with several addresses would.
    bool connect(int port, const std::string& host = "127.0.0.1", const std::string& from = "");
    // Connects and reads the Hello frame; false if either fails or the first frame is not Hello.
    bool connect_and_greet(int port, const std::string& host = "127.0.0.1", const std::string& from = "");

    // False once a send fails or the bytes are still not all sent after the deadline.
    bool send_raw(std::string_view bytes, double seconds = 30.0);
    bool send_frame(std::uint8_t kind, std::uint16_t command, std::uint64_t packet_id, std::string_view body);
    bool send_request(std::uint16_t command, std::uint64_t packet_id, std::string_view body) {
        return send_frame(0, command, packet_id, body);
    }

    // Exactly count bytes from the stream, or nothing after the deadline or when it ends.
    std::optional<std::string> read_bytes(std::size_t count, double seconds = 10.0);
    std::optional<GameFrame> read_frame(double seconds = 10.0);
    // Sends a Request and waits for the next Reply, skipping notifications.
    std::optional<GameFrame> request(std::uint16_t command, std::uint64_t packet_id, std::string_view body,
                                     double seconds = 10.0);
    // Everything that arrives until the other side closes; nothing if it stays open past the deadline.
    std::optional<std::string> read_to_end(double seconds = 10.0);
    // True once the bridge has closed the connection (end of stream) before the deadline.
    // Any bytes that arrive before the end are dropped.
    bool wait_closed(double seconds = 10.0);

    void close();

private:
    bool fill(double deadline);

    zq::Socket socket_ = zq::invalid_socket;
    std::string buffer_;
    bool ended_ = false;
};

// A frame header as the game writes it; total_size counts the header's 15 bytes too.
std::string frame_header(std::uint8_t kind, std::uint16_t command, std::uint32_t total_size, std::uint64_t packet_id);
// The body of a login Request for an online id.
std::string login_body(const std::string& npid);

}  // namespace testing_support
