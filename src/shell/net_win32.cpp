#include "shell/net.h"

// Room for every loopback socket of a busy gateway; the default set holds only 64.
#define FD_SETSIZE 1024

#include <winsock2.h>
#include <ws2tcpip.h>
#include <mstcpip.h>
#include <mswsock.h>
#include <windows.h>
#include <iphlpapi.h>

#include <cstring>
#include <mutex>
#include <vector>

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

int interface_prefix_length(const std::string& address) {
    in_addr wanted{};
    if (inet_pton(AF_INET, address.c_str(), &wanted) != 1) return -1;
    const ULONG flags = GAA_FLAG_SKIP_ANYCAST | GAA_FLAG_SKIP_MULTICAST | GAA_FLAG_SKIP_DNS_SERVER;
    std::vector<unsigned char> buffer(16384);
    ULONG size = static_cast<ULONG>(buffer.size());
    ULONG result;
    // The list may grow between the two calls; a few tries settle it.
    for (int attempt = 0; attempt < 4; ++attempt) {
        result = GetAdaptersAddresses(AF_INET, flags, nullptr,
                                      reinterpret_cast<IP_ADAPTER_ADDRESSES*>(buffer.data()), &size);
        if (result != ERROR_BUFFER_OVERFLOW) break;
        buffer.resize(size);
    }
    if (result != NO_ERROR) return -1;
    for (auto* adapter = reinterpret_cast<IP_ADAPTER_ADDRESSES*>(buffer.data()); adapter; adapter = adapter->Next)
        for (auto* unicast = adapter->FirstUnicastAddress; unicast; unicast = unicast->Next) {
            const sockaddr* a = unicast->Address.lpSockaddr;
            if (a && a->sa_family == AF_INET &&
                reinterpret_cast<const sockaddr_in*>(a)->sin_addr.s_addr == wanted.s_addr)
                return unicast->OnLinkPrefixLength;
        }
    return -1;
}

namespace {

// The TCP (or UDP) table of one address family, with the owning process of each row.
std::vector<unsigned char> owner_table(ULONG family, bool udp = false) {
    std::vector<unsigned char> table(16384);
    for (int attempt = 0; attempt < 4; ++attempt) {
        DWORD size = static_cast<DWORD>(table.size());
        const DWORD result =
            udp ? GetExtendedUdpTable(table.data(), &size, FALSE, family, UDP_TABLE_OWNER_PID, 0)
                : GetExtendedTcpTable(table.data(), &size, FALSE, family, TCP_TABLE_OWNER_PID_CONNECTIONS, 0);
        if (result == NO_ERROR) return table;
        if (result != ERROR_INSUFFICIENT_BUFFER) break;
        table.resize(size + 4096);
    }
    return {};
}

// The process that owns the socket whose ends are local and remote (ours seen from the peer),
// or 0 when no row has them.
DWORD owning_process(const sockaddr_in& local, const sockaddr_in& remote) {
    // Ports stand in the low 16 bits of their field, in network order, as sin_port holds them.
    const auto same_port = [](DWORD field, u_short port) { return static_cast<u_short>(field & 0xFFFF) == port; };
    std::vector<unsigned char> v4 = owner_table(AF_INET);
    if (!v4.empty()) {
        const auto* t = reinterpret_cast<const MIB_TCPTABLE_OWNER_PID*>(v4.data());
        for (DWORD i = 0; i < t->dwNumEntries; ++i) {
            const MIB_TCPROW_OWNER_PID& row = t->table[i];
            if (row.dwLocalAddr == local.sin_addr.s_addr && same_port(row.dwLocalPort, local.sin_port) &&
                row.dwRemoteAddr == remote.sin_addr.s_addr && same_port(row.dwRemotePort, remote.sin_port))
                return row.dwOwningPid;
        }
    }
    // A program with an IPv6 socket reaches an IPv4 listener by a mapped address.
    const auto mapped = [](const sockaddr_in& in, const UCHAR* address) {
        static const unsigned char prefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
        return std::memcmp(address, prefix, 12) == 0 && std::memcmp(address + 12, &in.sin_addr, 4) == 0;
    };
    std::vector<unsigned char> v6 = owner_table(AF_INET6);
    if (!v6.empty()) {
        const auto* t = reinterpret_cast<const MIB_TCP6TABLE_OWNER_PID*>(v6.data());
        for (DWORD i = 0; i < t->dwNumEntries; ++i) {
            const MIB_TCP6ROW_OWNER_PID& row = t->table[i];
            if (mapped(local, row.ucLocalAddr) && same_port(row.dwLocalPort, local.sin_port) &&
                mapped(remote, row.ucRemoteAddr) && same_port(row.dwRemotePort, remote.sin_port))
                return row.dwOwningPid;
        }
    }
    return 0;
}

// The user of a process's token, or empty when the process or its token cannot be read.
std::vector<unsigned char> process_user(HANDLE process) {
    HANDLE token = nullptr;
    if (!OpenProcessToken(process, TOKEN_QUERY, &token)) return {};
    std::vector<unsigned char> user(256);
    DWORD size = 0;
    if (!GetTokenInformation(token, TokenUser, user.data(), static_cast<DWORD>(user.size()), &size)) {
        user.assign(size, 0);
        if (size == 0 || !GetTokenInformation(token, TokenUser, user.data(), size, &size)) user.clear();
    }
    CloseHandle(token);
    return user;
}

// The process that owns the UDP socket bound to from's port and its address (or every address).
DWORD udp_owning_process(const SockAddr& address) {
    const sockaddr_in& from = as_in(address);
    const auto same_port = [](DWORD field, u_short port) { return static_cast<u_short>(field & 0xFFFF) == port; };
    std::vector<unsigned char> v4 = owner_table(AF_INET, true);
    if (!v4.empty()) {
        const auto* t = reinterpret_cast<const MIB_UDPTABLE_OWNER_PID*>(v4.data());
        for (DWORD i = 0; i < t->dwNumEntries; ++i) {
            const MIB_UDPROW_OWNER_PID& row = t->table[i];
            if (same_port(row.dwLocalPort, from.sin_port) &&
                (row.dwLocalAddr == from.sin_addr.s_addr || row.dwLocalAddr == INADDR_ANY))
                return row.dwOwningPid;
        }
    }
    std::vector<unsigned char> v6 = owner_table(AF_INET6, true);
    if (!v6.empty()) {
        static const unsigned char any[16] = {};
        const auto mapped = v4_mapped(address);
        const auto* t = reinterpret_cast<const MIB_UDP6TABLE_OWNER_PID*>(v6.data());
        for (DWORD i = 0; i < t->dwNumEntries; ++i) {
            const MIB_UDP6ROW_OWNER_PID& row = t->table[i];
            if (same_port(row.dwLocalPort, from.sin_port) &&
                (std::memcmp(row.ucLocalAddr, mapped.data(), 16) == 0 || std::memcmp(row.ucLocalAddr, any, 16) == 0))
                return row.dwOwningPid;
        }
    }
    return 0;
}

bool process_is_same_user(DWORD pid) {
    if (pid == 0) return false;
    if (pid == GetCurrentProcessId()) return true;
    std::vector<unsigned char> theirs_user;
    if (HANDLE process = OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, pid)) {
        theirs_user = process_user(process);
        CloseHandle(process);
    }
    std::vector<unsigned char> own_user = process_user(GetCurrentProcess());
    PeerUser user = PeerUser::Unreadable;
    if (!theirs_user.empty())
        user = !own_user.empty() && EqualSid(reinterpret_cast<TOKEN_USER*>(theirs_user.data())->User.Sid,
                                             reinterpret_cast<TOKEN_USER*>(own_user.data())->User.Sid)
                   ? PeerUser::Same
                   : PeerUser::Other;
    // Read without a handle to the process, so it is known even where the token is not.
    auto session_of = [](DWORD process) -> std::optional<std::uint32_t> {
        DWORD session = 0;
        if (!ProcessIdToSessionId(process, &session)) return std::nullopt;
        return session;
    };
    return serve_local_peer(user, session_of(pid), session_of(GetCurrentProcessId()));
}

}  // namespace

bool peer_is_same_user(Socket s) {
    SockAddr mine, theirs;
    if (!local_address(s, &mine) || !peer_address(s, &theirs)) return false;
    return process_is_same_user(owning_process(as_in(theirs), as_in(mine)));
}

bool datagram_sender_is_same_user(const SockAddr& from) {
    return process_is_same_user(udp_owning_process(from));
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
