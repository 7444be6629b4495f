#include "shell/net.h"

// Room for every loopback socket of a busy gateway; the default set holds only 64.
#define FD_SETSIZE 1024

#include <winsock2.h>
#include <ws2tcpip.h>
#include <mstcpip.h>
#include <mswsock.h>

#include <cstring>
#include <mutex>

namespace zq {

static_assert(sizeof(sockaddr_in) == sizeof(SockAddr), "SockAddr must hold a sockaddr_in");

namespace {

sockaddr_in& as_in(SockAddr& a) { return *reinterpret_cast<sockaddr_in*>(a.bytes); }
const sockaddr_in& as_in(const SockAddr& a) { return *reinterpret_cast<const sockaddr_in*>(a.bytes); }
SOCKET sock(Socket s) { return static_cast<SOCKET>(s); }
Socket wrap(SOCKET s) { return s == INVALID_SOCKET ? invalid_socket : static_cast<Socket>(s); }

}  // namespace

bool network_init() {
    static std::once_flag once;
    static bool started = false;
    std::call_once(once, [] {
        WSADATA data;
        started = WSAStartup(MAKEWORD(2, 2), &data) == 0;
    });
    return started;
}

SockAddr to_sockaddr(const Endpoint& endpoint) {
    SockAddr out;
    sockaddr_in& in = as_in(out);
    in.sin_family = AF_INET;
    in.sin_port = htons(static_cast<u_short>(endpoint.port & 0xFFFF));
    inet_pton(AF_INET, endpoint.host.c_str(), &in.sin_addr);
    return out;
}

Endpoint from_sockaddr(const SockAddr& address) {
    char text[22] = {};
    const sockaddr_in& in = as_in(address);
    inet_ntop(AF_INET, const_cast<in_addr*>(&in.sin_addr), text, sizeof text);
    return Endpoint{text, ntohs(in.sin_port)};
}

std::string resolve_ipv4(const std::string& host) {
    network_init();
    addrinfo hints{};
    hints.ai_family = AF_INET;
    addrinfo* list = nullptr;
    if (getaddrinfo(host.c_str(), nullptr, &hints, &list) != 0 || !list) return std::string();
    SockAddr address;
    std::memcpy(address.bytes, list->ai_addr, sizeof address.bytes);
    freeaddrinfo(list);
    return from_sockaddr(address).host;
}

Socket open_tcp_socket() { return wrap(::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP)); }
Socket open_udp_socket() { return wrap(::socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP)); }

void close_socket(Socket s) {
    if (s != invalid_socket) ::closesocket(sock(s));
}

void shutdown_socket(Socket s) {
    if (s != invalid_socket) ::shutdown(sock(s), SD_BOTH);
}

int last_socket_error() { return WSAGetLastError(); }

void set_exclusive_address(Socket s, bool) {
    BOOL one = TRUE;
    ::setsockopt(sock(s), SOL_SOCKET, SO_EXCLUSIVEADDRUSE, reinterpret_cast<const char*>(&one), sizeof one);
}

void set_tcp_nodelay(Socket s) {
    int one = 1;
    ::setsockopt(sock(s), IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&one), sizeof one);
}

void set_send_timeout(Socket s, int timeout_ms) {
    DWORD ms = static_cast<DWORD>(timeout_ms);
    ::setsockopt(sock(s), SOL_SOCKET, SO_SNDTIMEO, reinterpret_cast<const char*>(&ms), sizeof ms);
}

void disable_udp_connreset(Socket s) {
    BOOL off = FALSE;
    DWORD returned = 0;
    WSAIoctl(sock(s), SIO_UDP_CONNRESET, &off, sizeof off, nullptr, 0, &returned, nullptr, nullptr);
}

bool bind_socket(Socket s, const SockAddr& address) {
    return ::bind(sock(s), reinterpret_cast<const sockaddr*>(address.bytes), sizeof(sockaddr_in)) == 0;
}

bool listen_socket(Socket s, int backlog) { return ::listen(sock(s), backlog) == 0; }

bool connect_socket(Socket s, const SockAddr& address) {
    return ::connect(sock(s), reinterpret_cast<const sockaddr*>(address.bytes), sizeof(sockaddr_in)) == 0;
}

Socket accept_socket(Socket listener, SockAddr* peer) {
    SockAddr ignored;
    SockAddr* into = peer ? peer : &ignored;
    int size = sizeof(sockaddr_in);
    return wrap(::accept(sock(listener), reinterpret_cast<sockaddr*>(into->bytes), &size));
}

bool local_address(Socket s, SockAddr* address) {
    int size = sizeof(sockaddr_in);
    return ::getsockname(sock(s), reinterpret_cast<sockaddr*>(address->bytes), &size) == 0;
}

bool peer_address(Socket s, SockAddr* address) {
    int size = sizeof(sockaddr_in);
    return ::getpeername(sock(s), reinterpret_cast<sockaddr*>(address->bytes), &size) == 0;
}

int recv_some(Socket s, char* buffer, int size) { return ::recv(sock(s), buffer, size, 0); }

int send_some(Socket s, const char* data, int size) { return ::send(sock(s), data, size, 0); }

int recv_from(Socket s, char* buffer, int size, SockAddr* from) {
    SockAddr ignored;
    SockAddr* into = from ? from : &ignored;
    int length = sizeof(sockaddr_in);
    return ::recvfrom(sock(s), buffer, size, 0, reinterpret_cast<sockaddr*>(into->bytes), &length);
}

int send_to(Socket s, const char* data, int size, const SockAddr& to) {
    return ::sendto(sock(s), data, size, 0, reinterpret_cast<const sockaddr*>(to.bytes), sizeof(sockaddr_in));
}

int udp_batch_limit() { return 1; }

// Winsock has no batch receive: one datagram per call.
int recv_batch(Socket s, UdpMessage* messages, int count) {
    if (count < 1) return 0;
    int length = sizeof(sockaddr_in);
    int n = ::recvfrom(sock(s), messages[0].data, messages[0].capacity, 0,
                       reinterpret_cast<sockaddr*>(messages[0].address.bytes), &length);
    // A datagram longer than the buffer is cut, as on other systems, not an error.
    if (n < 0 && WSAGetLastError() == WSAEMSGSIZE) n = messages[0].capacity;
    if (n < 0) return n;
    messages[0].size = n;
    return 1;
}

int send_batch(Socket s, const UdpMessage* messages, int count) {
    int sent = 0;
    for (int i = 0; i < count; ++i)
        sent += send_to(s, messages[i].data, messages[i].size, messages[i].address) >= 0;
    return sent;
}

void set_receive_buffer(Socket s, int bytes) {
    ::setsockopt(sock(s), SOL_SOCKET, SO_RCVBUF, reinterpret_cast<const char*>(&bytes), sizeof bytes);
}

int wait_readable(const std::vector<Socket>& sockets, int timeout_ms, std::vector<bool>& ready) {
    fd_set set;
    FD_ZERO(&set);
    for (Socket s : sockets) FD_SET(sock(s), &set);
    timeval tv{timeout_ms / 1000, (timeout_ms % 1000) * 1000};
    int n = ::select(0, &set, nullptr, nullptr, timeout_ms < 0 ? nullptr : &tv);
    ready.assign(sockets.size(), false);
    if (n <= 0) return n;
    for (std::size_t i = 0; i < sockets.size(); ++i) ready[i] = FD_ISSET(sock(sockets[i]), &set) != 0;
    return n;
}

int wait_readable_pair(Socket a, Socket b, int timeout_ms) {
    fd_set set;
    FD_ZERO(&set);
    if (a != invalid_socket) FD_SET(sock(a), &set);
    if (b != invalid_socket) FD_SET(sock(b), &set);
    timeval tv{timeout_ms / 1000, (timeout_ms % 1000) * 1000};
    int n = ::select(0, &set, nullptr, nullptr, timeout_ms < 0 ? nullptr : &tv);
    if (n <= 0) return n;
    return (a != invalid_socket && FD_ISSET(sock(a), &set) ? 1 : 0) | (b != invalid_socket && FD_ISSET(sock(b), &set) ? 2 : 0);
}

}  // namespace zq
