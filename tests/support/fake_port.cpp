#include "support/fake_port.h"

#include "shell/byte_order.h"
#include "shell/util.h"

namespace testing_support {

FakePort::FakePort() {
    zq::network_init();
    socket_ = zq::open_udp_socket();
    zq::bind_socket(socket_, zq::to_sockaddr(zq::Endpoint{"127.0.0.1", 0}));
    zq::disable_udp_connreset(socket_);
    address_ = zq::bound_endpoint(socket_);
}

FakePort::~FakePort() { zq::close_socket(socket_); }

void FakePort::send(const zq::Endpoint& to, std::uint16_t source, std::uint16_t destination,
                    std::string_view payload) {
    send_raw(to, zq::be16_bytes(source) + zq::be16_bytes(destination) + std::string(payload));
}

void FakePort::send_raw(const zq::Endpoint& to, std::string_view bytes) {
    zq::send_to(socket_, bytes.data(), static_cast<int>(bytes.size()), zq::to_sockaddr(to));
}

std::optional<Datagram> FakePort::receive(double seconds) {
    double deadline = zq::steady_seconds() + seconds;
    std::vector<bool> ready;
    for (;;) {
        double left = deadline - zq::steady_seconds();
        if (left <= 0) return std::nullopt;
        if (zq::wait_readable({socket_}, static_cast<int>(left * 1000) + 1, ready) <= 0) continue;
        std::string buffer(65536, '\0');
        zq::SockAddr from;
        int n = zq::recv_from(socket_, buffer.data(), static_cast<int>(buffer.size()), &from);
        if (n < 0) continue;
        buffer.resize(static_cast<std::size_t>(n));
        return Datagram{zq::from_sockaddr(from), buffer};
    }
}

std::optional<Datagram> FakePort::receive_data(double seconds) {
    double deadline = zq::steady_seconds() + seconds;
    for (;;) {
        auto d = receive(deadline - zq::steady_seconds());
        if (!d) return d;
        if (d->bytes.compare(0, 4, "\xFF\xFF\xFF\xFF") != 0) return d;
        controls.push_back(*d);
    }
}

}  // namespace testing_support
