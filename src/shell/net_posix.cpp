#include "shell/net.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <ifaddrs.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>
#include <utility>

namespace zq {

static_assert(sizeof(sockaddr_in) == sizeof(SockAddr), "SockAddr must hold a sockaddr_in");

namespace {

sockaddr_in& as_in(SockAddr& a) { return *reinterpret_cast<sockaddr_in*>(a.bytes); }
const sockaddr_in& as_in(const SockAddr& a) { return *reinterpret_cast<const sockaddr_in*>(a.bytes); }
int fd(Socket s) { return static_cast<int>(s); }

}  // namespace

bool network_init() { return true; }

SockAddr to_sockaddr(const Endpoint& endpoint) {
    SockAddr out;
    sockaddr_in& in = as_in(out);
    in.sin_family = AF_INET;
    in.sin_port = htons(static_cast<std::uint16_t>(endpoint.port & 0xFFFF));
    inet_pton(AF_INET, endpoint.host.c_str(), &in.sin_addr);
    return out;
}

Endpoint from_sockaddr(const SockAddr& address) {
    char text[22] = {};
    const sockaddr_in& in = as_in(address);
    inet_ntop(AF_INET, &in.sin_addr, text, sizeof text);
    return Endpoint{text, ntohs(in.sin_port)};
}

std::string resolve_ipv4(const std::string& host) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    addrinfo* list = nullptr;
    if (getaddrinfo(host.c_str(), nullptr, &hints, &list) != 0 || !list) return std::string();
    SockAddr address;
    std::memcpy(address.bytes, list->ai_addr, sizeof address.bytes);
    freeaddrinfo(list);
    return from_sockaddr(address).host;
}

Socket open_tcp_socket() {
    int s = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
    return s < 0 ? invalid_socket : s;
}

Socket open_udp_socket() {
    int s = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
    return s < 0 ? invalid_socket : s;
}

void close_socket(Socket s) {
    if (s != invalid_socket) ::close(fd(s));
}

void shutdown_socket(Socket s) {
    if (s != invalid_socket) ::shutdown(fd(s), SHUT_RDWR);
}

int last_socket_error() { return errno; }

void set_exclusive_address(Socket s, bool tcp_listener) {
    if (!tcp_listener) return;
    int one = 1;
    ::setsockopt(fd(s), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
}

void set_tcp_nodelay(Socket s) {
    int one = 1;
    ::setsockopt(fd(s), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

void set_send_timeout(Socket s, int timeout_ms) {
    timeval tv{};
    tv.tv_sec = timeout_ms / 1000;
    tv.tv_usec = (timeout_ms % 1000) * 1000;
    ::setsockopt(fd(s), SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
}

void disable_udp_connreset(Socket) {}

bool bind_socket(Socket s, const SockAddr& address) {
    return ::bind(fd(s), reinterpret_cast<const sockaddr*>(address.bytes), sizeof(sockaddr_in)) == 0;
}

bool listen_socket(Socket s, int backlog) { return ::listen(fd(s), backlog) == 0; }

bool connect_socket(Socket s, const SockAddr& address) {
    return ::connect(fd(s), reinterpret_cast<const sockaddr*>(address.bytes), sizeof(sockaddr_in)) == 0;
}

Socket accept_socket(Socket listener, SockAddr* peer) {
    SockAddr ignored;
    SockAddr* into = peer ? peer : &ignored;
    socklen_t size = sizeof(sockaddr_in);
    int s;
    do {
        s = ::accept4(fd(listener), reinterpret_cast<sockaddr*>(into->bytes), &size, SOCK_CLOEXEC);
    } while (s < 0 && (errno == EINTR || errno == ECONNABORTED));
    return s < 0 ? invalid_socket : s;
}

bool local_address(Socket s, SockAddr* address) {
    socklen_t size = sizeof(sockaddr_in);
    return ::getsockname(fd(s), reinterpret_cast<sockaddr*>(address->bytes), &size) == 0;
}

bool peer_address(Socket s, SockAddr* address) {
    socklen_t size = sizeof(sockaddr_in);
    return ::getpeername(fd(s), reinterpret_cast<sockaddr*>(address->bytes), &size) == 0;
}

int recv_some(Socket s, char* buffer, int size) {
    ssize_t n;
    do {
        n = ::recv(fd(s), buffer, static_cast<std::size_t>(size), 0);
    } while (n < 0 && errno == EINTR);
    return static_cast<int>(n);
}

int send_some(Socket s, const char* data, int size) {
    ssize_t n;
    do {
        // A peer that went away must not kill the process with SIGPIPE.
        n = ::send(fd(s), data, static_cast<std::size_t>(size), MSG_NOSIGNAL);
    } while (n < 0 && errno == EINTR);
    return static_cast<int>(n);
}

int recv_from(Socket s, char* buffer, int size, SockAddr* from) {
    SockAddr ignored;
    SockAddr* into = from ? from : &ignored;
    socklen_t length = sizeof(sockaddr_in);
    ssize_t n;
    do {
        n = ::recvfrom(fd(s), buffer, static_cast<std::size_t>(size), 0, reinterpret_cast<sockaddr*>(into->bytes),
                       &length);
    } while (n < 0 && errno == EINTR);
    return static_cast<int>(n);
}

int send_to(Socket s, const char* data, int size, const SockAddr& to) {
    return static_cast<int>(::sendto(fd(s), data, static_cast<std::size_t>(size), MSG_NOSIGNAL,
                                     reinterpret_cast<const sockaddr*>(to.bytes), sizeof(sockaddr_in)));
}

namespace {
constexpr int kBatchLimit = 64;
}

int udp_batch_limit() { return kBatchLimit; }

int recv_batch(Socket s, UdpMessage* messages, int count) {
    if (count > kBatchLimit) count = kBatchLimit;
    mmsghdr headers[kBatchLimit];
    iovec parts[kBatchLimit];
    for (int i = 0; i < count; ++i) {
        parts[i] = iovec{messages[i].data, static_cast<std::size_t>(messages[i].capacity)};
        headers[i] = mmsghdr{};
        headers[i].msg_hdr.msg_name = messages[i].address.bytes;
        headers[i].msg_hdr.msg_namelen = sizeof(sockaddr_in);
        headers[i].msg_hdr.msg_iov = &parts[i];
        headers[i].msg_hdr.msg_iovlen = 1;
    }
    int n;
    do {
        n = ::recvmmsg(fd(s), headers, static_cast<unsigned>(count), MSG_WAITFORONE, nullptr);
    } while (n < 0 && errno == EINTR);
    for (int i = 0; i < n; ++i) messages[i].size = static_cast<int>(headers[i].msg_len);
    return n;
}

int send_batch(Socket s, const UdpMessage* messages, int count) {
    int sent = 0;
    while (count > 0) {
        const int now = count < kBatchLimit ? count : kBatchLimit;
        mmsghdr headers[kBatchLimit];
        iovec parts[kBatchLimit];
        for (int i = 0; i < now; ++i) {
            parts[i] = iovec{messages[i].data, static_cast<std::size_t>(messages[i].size)};
            headers[i] = mmsghdr{};
            headers[i].msg_hdr.msg_name = const_cast<unsigned char*>(messages[i].address.bytes);
            headers[i].msg_hdr.msg_namelen = sizeof(sockaddr_in);
            headers[i].msg_hdr.msg_iov = &parts[i];
            headers[i].msg_hdr.msg_iovlen = 1;
        }
        int n = ::sendmmsg(fd(s), headers, static_cast<unsigned>(now), MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        // sendmmsg stops at the first datagram that fails; that one is dropped, the rest go on.
        const int done = n > 0 ? n : 1;
        sent += n > 0 ? n : 0;
        messages += done;
        count -= done;
    }
    return sent;
}

void set_receive_buffer(Socket s, int bytes) {
    ::setsockopt(fd(s), SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
}

int interface_prefix_length(const std::string& address) {
    in_addr wanted{};
    if (inet_pton(AF_INET, address.c_str(), &wanted) != 1) return -1;
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0) return -1;
    int prefix = -1;
    for (ifaddrs* i = list; i && prefix < 0; i = i->ifa_next) {
        if (!i->ifa_addr || i->ifa_addr->sa_family != AF_INET || !i->ifa_netmask) continue;
        if (reinterpret_cast<const sockaddr_in*>(i->ifa_addr)->sin_addr.s_addr != wanted.s_addr) continue;
        const std::uint32_t mask = ntohl(reinterpret_cast<const sockaddr_in*>(i->ifa_netmask)->sin_addr.s_addr);
        prefix = 0;
        for (std::uint32_t bit = 0x80000000u; bit && (mask & bit); bit >>= 1) ++prefix;
    }
    ::freeifaddrs(list);
    return prefix;
}

namespace {

// An address and port as the kernel's connection tables print them: each 32-bit word of the
// address as the number that it is in memory, then the port, in upper-case hex.
std::string table_text(const unsigned char* address, std::size_t size, std::uint16_t port) {
    std::string out;
    char word_text[9];
    for (std::size_t at = 0; at < size; at += 4) {
        std::uint32_t word;
        std::memcpy(&word, address + at, 4);
        std::snprintf(word_text, sizeof word_text, "%08X", word);
        out += word_text;
    }
    char port_text[6];
    std::snprintf(port_text, sizeof port_text, ":%04X", port);
    return out + port_text;
}

// The uid column of the row whose two ends are local and remote (any, when empty), or -1. The table is the one
// of this thread's network namespace, where its sockets are (/proc/net is the main thread's).
long table_uid(const char* table, const std::string& local, const std::string& remote) {
    std::ifstream in(std::string("/proc/thread-self/net/") + table);
    if (!in) in.open(std::string("/proc/net/") + table);
    std::string line;
    std::getline(in, line);  // the column names
    char row_local[64], row_remote[64];
    unsigned long uid;
    while (std::getline(in, line)) {
        // sl local_address rem_address st tx_queue:rx_queue tr:tm->when retrnsmt uid ...
        if (std::sscanf(line.c_str(), " %*s %63s %63s %*s %*s %*s %*s %lu", row_local, row_remote, &uid) != 3)
            continue;
        if (local == row_local && (remote.empty() || remote == row_remote)) return static_cast<long>(uid);
    }
    return -1;
}

// The uid of the TCP socket whose own end is `own` and whose other end is `other` (raw addresses
// of the family's size, ports in host order), asked of the kernel's socket diagnostics: one exact
// look-up, where the tables above walk every socket of the system (milliseconds on a busy PC,
// paid on every accept). -1 when it has no such socket or cannot be asked.
long diag_uid(int family, const void* own, std::uint16_t own_port, const void* other, std::uint16_t other_port) {
    const int fd = ::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
    if (fd < 0) return -1;
    struct {
        nlmsghdr header;
        inet_diag_req_v2 request;
    } ask{};
    ask.header.nlmsg_len = sizeof ask;
    ask.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    ask.header.nlmsg_flags = NLM_F_REQUEST;
    ask.request.sdiag_family = static_cast<std::uint8_t>(family);
    ask.request.sdiag_protocol = IPPROTO_TCP;
    ask.request.idiag_states = ~0u;
    const std::size_t size = family == AF_INET ? 4 : 16;
    std::memcpy(ask.request.id.idiag_src, own, size);
    std::memcpy(ask.request.id.idiag_dst, other, size);
    ask.request.id.idiag_sport = htons(own_port);
    ask.request.id.idiag_dport = htons(other_port);
    ask.request.id.idiag_cookie[0] = ask.request.id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
    long uid = -1;
    alignas(nlmsghdr) char answer[1024];
    if (::send(fd, &ask, sizeof ask, 0) == static_cast<ssize_t>(sizeof ask)) {
        const ssize_t n = ::recv(fd, answer, sizeof answer, 0);
        const auto* reply = reinterpret_cast<const nlmsghdr*>(answer);
        if (n > 0 && NLMSG_OK(reply, static_cast<unsigned>(n)) && reply->nlmsg_type == SOCK_DIAG_BY_FAMILY &&
            reply->nlmsg_len >= NLMSG_LENGTH(sizeof(inet_diag_msg)))
            uid = static_cast<long>(static_cast<const inet_diag_msg*>(NLMSG_DATA(reply))->idiag_uid);
    }
    ::close(fd);
    return uid;
}

}  // namespace

bool peer_is_same_user(Socket s) {
    SockAddr mine, theirs;
    if (!local_address(s, &mine) || !peer_address(s, &theirs)) return false;
    const sockaddr_in& a = as_in(mine);
    const sockaddr_in& b = as_in(theirs);
    const auto mapped_a = v4_mapped(mine);
    const auto mapped_b = v4_mapped(theirs);
    // The peer's own socket: its address its own end, ours the other. A program with an IPv6
    // socket reaches an IPv4 listener by a mapped address.
    long uid = diag_uid(AF_INET, &b.sin_addr, ntohs(b.sin_port), &a.sin_addr, ntohs(a.sin_port));
    if (uid < 0) uid = diag_uid(AF_INET6, mapped_b.data(), ntohs(b.sin_port), mapped_a.data(), ntohs(a.sin_port));
    if (uid < 0) {
        // Where the kernel cannot be asked, its tables: the peer's row.
        const auto row = [](const void* address, std::size_t size, const sockaddr_in& in) {
            return table_text(static_cast<const unsigned char*>(address), size, ntohs(in.sin_port));
        };
        uid = table_uid("tcp", row(&b.sin_addr, 4, b), row(&a.sin_addr, 4, a));
        if (uid < 0) uid = table_uid("tcp6", row(mapped_b.data(), 16, b), row(mapped_a.data(), 16, a));
    }
    return uid >= 0 && static_cast<uid_t>(uid) == ::geteuid();
}

bool datagram_sender_is_same_user(const SockAddr& from) {
    const sockaddr_in& in = as_in(from);
    const std::uint16_t port = ntohs(in.sin_port);
    const auto mapped = v4_mapped(from);
    const unsigned char any[16] = {};
    // Bound to the address itself or to every address, as an IPv4 or an IPv6 socket.
    const std::pair<const char*, std::string> rows[] = {
        {"udp", table_text(reinterpret_cast<const unsigned char*>(&in.sin_addr), 4, port)},
        {"udp", table_text(any, 4, port)},
        {"udp6", table_text(mapped.data(), 16, port)},
        {"udp6", table_text(any, 16, port)}};
    for (const auto& [table, local] : rows)
        if (const long uid = table_uid(table, local, ""); uid >= 0) return static_cast<uid_t>(uid) == ::geteuid();
    return false;
}

int wait_readable(const std::vector<Socket>& sockets, int timeout_ms, std::vector<bool>& ready) {
    // Kept between calls, so that a wait in a loop costs no allocation.
    thread_local std::vector<pollfd> fds;
    fds.resize(sockets.size());
    for (std::size_t i = 0; i < sockets.size(); ++i) fds[i] = pollfd{fd(sockets[i]), POLLIN, 0};
    int n = ::poll(fds.data(), fds.size(), timeout_ms);
    ready.assign(sockets.size(), false);
    if (n <= 0) return n;
    for (std::size_t i = 0; i < sockets.size(); ++i)
        ready[i] = (fds[i].revents & (POLLIN | POLLERR | POLLHUP | POLLNVAL)) != 0;
    return n;
}

int wait_readable_pair(Socket a, Socket b, int timeout_ms) {
    // poll skips an entry whose descriptor is negative.
    pollfd fds[2] = {{fd(a), POLLIN, 0}, {fd(b), POLLIN, 0}};
    int n;
    do {
        n = ::poll(fds, 2, timeout_ms);
    } while (n < 0 && errno == EINTR);
    if (n <= 0) return n;
    constexpr short readable = POLLIN | POLLERR | POLLHUP | POLLNVAL;
    return ((fds[0].revents & readable) ? 1 : 0) | ((fds[1].revents & readable) ? 2 : 0);
}

}  // namespace zq
