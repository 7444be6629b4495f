#pragma once
// The game port's side of a gateway link: a UDP socket on 127.0.0.1 that sends port frames and
// control frames to the addresses it was told and reads what comes back. Also serves as a
// bare UDP peer (send_raw). Used from one thread.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "shell/net.h"

namespace testing_support {

struct Datagram {
    zq::Endpoint from;
    std::string bytes;
};

class FakePort {
public:
    FakePort();
    ~FakePort();
    FakePort(const FakePort&) = delete;
    FakePort& operator=(const FakePort&) = delete;

    zq::Endpoint address() const { return address_; }

    // A port frame: big-endian virtual ports, then the payload.
    void send(const zq::Endpoint& to, std::uint16_t source, std::uint16_t destination, std::string_view payload);
    // A control frame (destination 65535) carrying a NIMB payload.
    void send_control(const zq::Endpoint& to, std::string_view payload) { send(to, 0, 0xFFFF, payload); }
    void send_raw(const zq::Endpoint& to, std::string_view bytes);

    // The next datagram within the deadline.
    std::optional<Datagram> receive(double seconds = 5.0);
    // The next datagram that isn't a control frame from the gateway (FF FF FF FF ...); the
    // control frames passed over on the way are kept in controls.
    std::optional<Datagram> receive_data(double seconds = 5.0);
    std::vector<Datagram> controls;

private:
    zq::Socket socket_ = zq::invalid_socket;
    zq::Endpoint address_;
};

// A ping for the bridge's STUN responder: 1, the id zero-padded, `size` bytes in all.
inline std::string stun_ping(const std::string& id, std::size_t size = 21) {
    std::string d(size, '\0');
    d[0] = 1;
    d.replace(1, id.size(), id);
    return d;
}

}  // namespace testing_support
