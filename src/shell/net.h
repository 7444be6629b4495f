#pragma once
// Sockets without the platform: Winsock on Windows (net_win32.cpp), BSD sockets elsewhere
// (net_posix.cpp). Everything is IPv4. Logic code calls only these functions.

#include <array>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "shell/util.h"

namespace zq {

// A socket handle wide enough for both systems' handles.
using Socket = std::intptr_t;
inline constexpr Socket invalid_socket = -1;

// An IPv4 socket address with the 16-byte layout of sockaddr_in, kept opaque here.
struct SockAddr {
    alignas(4) unsigned char bytes[16] = {};
};

// The same IPv4 address and port: the bytes of sin_port and sin_addr, which sit at the same
// offsets on both systems.
inline bool same_address(const SockAddr& a, const SockAddr& b) { return std::memcmp(a.bytes + 2, b.bytes + 2, 6) == 0; }

// The address as an IPv6 socket of this PC knows it (::ffff:a.b.c.d).
inline std::array<unsigned char, 16> v4_mapped(const SockAddr& address) {
    std::array<unsigned char, 16> out{};
    out[10] = out[11] = 0xFF;
    std::memcpy(out.data() + 12, address.bytes + 4, 4);
    return out;
}

// The address with another port (big-endian, as sin_port holds it).
inline SockAddr with_port(SockAddr address, int port) {
    address.bytes[2] = static_cast<unsigned char>((port >> 8) & 0xFF);
    address.bytes[3] = static_cast<unsigned char>(port & 0xFF);
    return address;
}

// Starts the socket library once per process; later calls return the stored outcome.
bool network_init();

// Host text and port into a socket address. A host that is not dotted IPv4 leaves 0.0.0.0;
// the port is taken modulo 65536. Names must go through resolve_ipv4 first.
SockAddr to_sockaddr(const Endpoint& endpoint);
Endpoint from_sockaddr(const SockAddr& address);

// Address of the interface on the default route, without sending; "127.0.0.1" when none.
std::string local_ipv4();

// First IPv4 address of a host name as dotted text, or "" when it does not resolve.
std::string resolve_ipv4(const std::string& host);

Socket open_tcp_socket();
Socket open_udp_socket();
void close_socket(Socket s);
// Shuts down both directions: the way to wake a thread blocked in accept or recv on it.
void shutdown_socket(Socket s);
// The socket library's last error number (WSAGetLastError or errno).
int last_socket_error();

// Makes a second bind of the same port fail: SO_EXCLUSIVEADDRUSE on Windows. On POSIX a plain
// bind already does that; a TCP listener also gets SO_REUSEADDR so a restart is not kept out
// by connections in TIME_WAIT.
void set_exclusive_address(Socket s, bool tcp_listener);
void set_tcp_nodelay(Socket s);
// A send that cannot go on for this long fails instead of blocking (SO_SNDTIMEO).
void set_send_timeout(Socket s, int timeout_ms);
// Windows reports an ICMP port-unreachable as an error on the next UDP receive; turn that off.
void disable_udp_connreset(Socket s);

bool bind_socket(Socket s, const SockAddr& address);
bool listen_socket(Socket s, int backlog);
bool connect_socket(Socket s, const SockAddr& address);
// Blocks; invalid_socket when the listener is closed or fails. The peer is filled when given.
Socket accept_socket(Socket listener, SockAddr* peer = nullptr);
bool local_address(Socket s, SockAddr* address);
// The address a socket is bound to; port 0 when the system does not tell it.
Endpoint bound_endpoint(Socket s);
// The connected peer's address.
bool peer_address(Socket s, SockAddr* address);

// Single calls of recv/send/recvfrom/sendto with the system's result: bytes, 0 or below 0.
int recv_some(Socket s, char* buffer, int size);
int send_some(Socket s, const char* data, int size);
int recv_from(Socket s, char* buffer, int size, SockAddr* from);
int send_to(Socket s, const char* data, int size, const SockAddr& to);
// Sends all of bytes on a stream socket, call after call; false once a call fails.
bool send_all(Socket s, std::string_view bytes);
// The same, but false also once the deadline (steady seconds) passes with bytes still unsent:
// a peer that reads slowly or not at all cannot hold the sender for longer. It leaves a send
// time-out on the socket, which is not for blocking sends of any other kind afterwards.
bool send_all(Socket s, std::string_view bytes, double deadline);

// The prefix length of the network of the interface that holds this IPv4 address (dotted
// text), or -1 when no interface of this machine holds it.
int interface_prefix_length(const std::string& address);

// Whether the program at the other end of a connection on this machine runs as the same user
// as this process: the owner of its socket in the system's table of connections (Linux: the
// uid in /proc/net/tcp; Windows: the user of the owning process in the TCP table). False when
// it runs as another user, and also when the table has no row for it.
bool peer_is_same_user(Socket s);
// What the system tells of the user of such a program, and whether it is served. A program of
// this user that runs elevated (a game started as administrator beside a bridge that is not)
// keeps its token from us; then the logon session decides: ours is the same desk, so it is
// served, another (a user switched in, a service) is not. Session ids are nullopt when unknown.
enum class PeerUser { Same, Other, Unreadable };
bool serve_local_peer(PeerUser user, std::optional<std::uint32_t> their_session,
                      std::optional<std::uint32_t> our_session);
// Whether peer_is_same_user can tell on this system: it is asked about a loopback connection of
// this process's own, which must come out as the same user.
bool peer_user_check_works();
// The same for a datagram from a program on this PC: whether the UDP socket it came from (bound
// to its address or to every address) belongs to a program of this user, by the same rule.
bool datagram_sender_is_same_user(const SockAddr& from);
// Whether datagram_sender_is_same_user can tell: asked about a socket of this process's own.
bool datagram_user_check_works();

// One datagram of a batch, in a buffer of the caller's: a receive fills size and address, a send
// reads data, size and address.
struct UdpMessage {
    char* data = nullptr;
    int capacity = 0;  // what data can take
    int size = 0;
    SockAddr address;
};

// How many datagrams one recv_batch may take: several where the system has batch calls
// (recvmmsg on Linux), 1 where each datagram is a call of its own (Windows).
int udp_batch_limit();
// Blocks until a datagram arrives, then takes it and whatever else is queued already, up to
// count and udp_batch_limit, without waiting for more. Returns how many came, or below 0 when
// the socket was closed or failed. A datagram longer than its capacity is cut.
int recv_batch(Socket s, UdpMessage* messages, int count);
// Sends each datagram to its address, in order, several per call where the system can
// (sendmmsg). A datagram that cannot go is skipped. Returns how many went.
int send_batch(Socket s, const UdpMessage* messages, int count);
// Asks for a receive queue of this many bytes (SO_RCVBUF); the system may give less.
void set_receive_buffer(Socket s, int bytes);

// Waits until one of the sockets can be read or the time-out (ms, -1 for ever) passes.
// Returns the number of ready sockets (0 on time-out, below 0 on error) and marks them in ready.
int wait_readable(const std::vector<Socket>& sockets, int timeout_ms, std::vector<bool>& ready);
// The same for one or two sockets without allocating: either may be invalid_socket, not both.
// Returns a mask of the ready ones (1 for a, 2 for b), 0 on time-out, below 0 on error.
int wait_readable_pair(Socket a, Socket b, int timeout_ms);

}  // namespace zq
