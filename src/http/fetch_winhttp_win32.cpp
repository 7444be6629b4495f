// The HTTP client on WinHTTP, synchronous. Only the session handle survives a call, and with it
// WinHTTP's connection pool; connection and request handles are made and closed per call.

#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>
#include <winhttp.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "http/fetch.h"
#include "shell/platform.h"
#include "shell/util.h"

namespace http {

struct SessionHandle {
    HINTERNET session = nullptr;
};

namespace detail {

namespace {

// Closes a WinHTTP handle at the end of its scope; declared in opening order, so the request
// closes before its connection.
struct Handle {
    HINTERNET h = nullptr;
    ~Handle() {
        if (h) WinHttpCloseHandle(h);
    }
};

// The request handle, which a watchdog may close from its own thread: closing it is what ends
// a synchronous WinHTTP call that waits on the network.
struct RequestHandle {
    HINTERNET h = nullptr;
    std::mutex lock;
    bool closed = false;
    void close() {
        std::lock_guard<std::mutex> guard(lock);
        if (!closed && h) WinHttpCloseHandle(h);
        closed = true;
    }
    ~RequestHandle() { close(); }
};

// Ends a call that is cancelled or runs past its whole-call deadline by closing its request
// handle. Runs only for calls that carry either; finished (joined) before the handle closes.
class Watchdog {
public:
    Watchdog(const ClientRequest& request, RequestHandle& target) : target_(target) {
        if (!request.cancel && request.deadline_ms == 0) return;
        cancel_ = request.cancel;
        deadline_ = std::chrono::steady_clock::now() + std::chrono::milliseconds(request.deadline_ms);
        has_deadline_ = request.deadline_ms != 0;
        thread_ = std::thread(&Watchdog::watch, this);
    }
    ~Watchdog() {
        {
            std::lock_guard<std::mutex> guard(lock_);
            done_ = true;
        }
        wake_.notify_all();
        if (thread_.joinable()) thread_.join();
    }
    // "cancelled" or "deadline passed" once the watchdog ended the call, else empty. A call that
    // fails once its deadline is past failed for that deadline, even where WinHTTP's own
    // time-out (capped at the deadline) came before the watchdog woke. The system's timers tick
    // coarsely (about 16 ms), so that time-out may end a hair before the deadline by our clock.
    std::string reason() {
        std::lock_guard<std::mutex> guard(lock_);
        const auto tick = std::chrono::milliseconds(20);
        if (reason_.empty() && has_deadline_ && std::chrono::steady_clock::now() + tick >= deadline_)
            return "deadline passed";
        return reason_;
    }

private:
    void watch() {
        std::unique_lock<std::mutex> guard(lock_);
        for (;;) {
            if (done_) return;
            if (cancel_ && cancel_->cancelled()) {
                reason_ = "cancelled";
            } else if (has_deadline_ && std::chrono::steady_clock::now() >= deadline_) {
                reason_ = "deadline passed";
            }
            if (!reason_.empty()) {
                target_.close();
                return;
            }
            auto next = std::chrono::steady_clock::now() + std::chrono::milliseconds(50);
            if (has_deadline_ && deadline_ < next) next = deadline_;
            wake_.wait_until(guard, next);
        }
    }

    RequestHandle& target_;
    std::shared_ptr<const CancelFlag> cancel_;
    std::chrono::steady_clock::time_point deadline_;
    bool has_deadline_ = false;
    std::mutex lock_;
    std::condition_variable wake_;
    bool done_ = false;
    std::string reason_;
    std::thread thread_;
};

constexpr DWORD winhttp_timeout = 12002;
constexpr DWORD access_automatic_proxy = 4;
constexpr DWORD option_redirect_policy = 88;
constexpr DWORD raw_headers_crlf = 22;
constexpr DWORD option_receive_response_timeout = 7;

}  // namespace

// The pool of connections goes with the session handle; the system keeps TLS sessions to resume
// and name look-ups beside it, so a session's age is kept by closing and opening its handle.
SessionHandle* open_session(double) {
    HINTERNET h = WinHttpOpen(L"sarnlink", access_automatic_proxy, WINHTTP_NO_PROXY_NAME, WINHTTP_NO_PROXY_BYPASS, 0);
    if (!h) return nullptr;
    return new SessionHandle{h};
}

void close_session(SessionHandle* session) {
    if (!session) return;
    WinHttpCloseHandle(session->session);
    delete session;
}

SessionHandle* renew_session(SessionHandle* session) {
    close_session(session);
    return nullptr;
}

ClientResponse transact(SessionHandle* session, const ClientRequest& request) {
    ClientResponse response;
    if (!session || !session->session) {
        response.error = "WinHttpOpen failed";
        return response;
    }

    std::wstring url = zq::utf8_to_wide(request.url);
    wchar_t host[256] = {};
    wchar_t path[4096] = {};
    wchar_t extra[4096] = {};
    URL_COMPONENTS parts = {};
    parts.dwStructSize = sizeof parts;
    parts.lpszHostName = host;
    parts.dwHostNameLength = 256;
    parts.lpszUrlPath = path;
    parts.dwUrlPathLength = 4096;
    parts.lpszExtraInfo = extra;
    parts.dwExtraInfoLength = 4096;
    if (!WinHttpCrackUrl(url.c_str(), 0, 0, &parts)) {
        response.error = "bad url " + request.url;
        return response;
    }
    bool secure = parts.nScheme == INTERNET_SCHEME_HTTPS;

    Handle connection{WinHttpConnect(session->session, host, parts.nPort, 0)};
    if (!connection.h) {
        response.error = zq::format_text("connect failed (%lu)", GetLastError());
        return response;
    }
    std::wstring method = zq::utf8_to_wide(request.method);
    std::wstring object = std::wstring(path) + extra;
    RequestHandle req;
    req.h = WinHttpOpenRequest(connection.h, method.c_str(), object.c_str(), nullptr, WINHTTP_NO_REFERER,
                               WINHTTP_DEFAULT_ACCEPT_TYPES, secure ? WINHTTP_FLAG_SECURE : 0);
    if (!req.h) {
        response.error = zq::format_text("open request failed (%lu)", GetLastError());
        return response;
    }
    Watchdog watchdog(request, req);

    DWORD never = 0;  // the caller sees a 3xx itself
    WinHttpSetOption(req.h, option_redirect_policy, &never, sizeof never);
    // No phase may outlast the whole call: where closing the handle from the watchdog does not
    // end a wait, this still does.
    std::uint32_t phase_ms = request.timeout_ms;
    if (request.deadline_ms != 0 && request.deadline_ms < phase_ms) phase_ms = request.deadline_ms;
    int timeout = static_cast<int>(phase_ms);
    WinHttpSetTimeouts(req.h, timeout, timeout, timeout, timeout);
    // The wait for the response head has its own limit (90 s by default). Where the receive
    // time-out above governs each read it changes nothing; where an implementation applies only
    // this one to the head, it keeps the wait at timeout_ms as well.
    DWORD head_wait = phase_ms;
    WinHttpSetOption(req.h, option_receive_response_timeout, &head_wait, sizeof head_wait);
    if (!request.headers.empty()) {
        std::string lines;
        for (const auto& [name, value] : request.headers) lines += name + ": " + value + "\r\n";
        // Add and replace: a User-Agent here takes the place of the session's agent.
        std::wstring wide = zq::utf8_to_wide(lines);
        WinHttpAddRequestHeaders(req.h, wide.c_str(), static_cast<DWORD>(-1),
                                 WINHTTP_ADDREQ_FLAG_ADD | WINHTTP_ADDREQ_FLAG_REPLACE);
    }

    DWORD length = static_cast<DWORD>(request.body.size());
    LPVOID body = request.body.empty() ? nullptr : const_cast<char*>(request.body.data());
    if (!WinHttpSendRequest(req.h, WINHTTP_NO_ADDITIONAL_HEADERS, 0, body, length, length, 0) ||
        !WinHttpReceiveResponse(req.h, nullptr)) {
        DWORD error = GetLastError();
        if (std::string reason = watchdog.reason(); !reason.empty()) {
            response.error = reason;
            return response;
        }
        // Some WinHTTP implementations pass the socket's own time-out (WSAETIMEDOUT) through.
        bool timed_out = error == winhttp_timeout || error == WSAETIMEDOUT;
        response.error = timed_out ? std::string("The read operation timed out")
                                                  : zq::format_text("request failed (%lu)", error);
        return response;
    }

    DWORD status = 0;
    DWORD size = sizeof status;
    WinHttpQueryHeaders(req.h, WINHTTP_QUERY_STATUS_CODE | WINHTTP_QUERY_FLAG_NUMBER, WINHTTP_HEADER_NAME_BY_INDEX,
                        &status, &size, WINHTTP_NO_HEADER_INDEX);
    response.status = status;

    DWORD bytes = 0;
    WinHttpQueryHeaders(req.h, raw_headers_crlf, WINHTTP_HEADER_NAME_BY_INDEX, WINHTTP_NO_OUTPUT_BUFFER, &bytes,
                        WINHTTP_NO_HEADER_INDEX);
    if (bytes > 0) {
        std::wstring raw(bytes / sizeof(wchar_t), L'\0');
        if (WinHttpQueryHeaders(req.h, raw_headers_crlf, WINHTTP_HEADER_NAME_BY_INDEX, raw.data(), &bytes,
                                WINHTTP_NO_HEADER_INDEX)) {
            raw.resize(bytes / sizeof(wchar_t));
            response.headers = split_raw_headers(zq::wide_to_utf8(raw));
        }
    }

    for (;;) {
        DWORD available = 0;
        if (!WinHttpQueryDataAvailable(req.h, &available)) {
            DWORD error = GetLastError();
            std::string reason = watchdog.reason();
            response.error = reason.empty() ? zq::format_text("read failed (%lu)", error) : reason;
            break;
        }
        if (available == 0) break;
        std::vector<char> chunk(available, 0);
        DWORD read = 0;
        if (!WinHttpReadData(req.h, chunk.data(), available, &read)) {
            DWORD error = GetLastError();
            std::string reason = watchdog.reason();
            response.error = reason.empty() ? zq::format_text("read failed (%lu)", error) : reason;
            break;
        }
        response.body.append(chunk.data(), read);
    }
    return response;
}

}  // namespace detail

namespace detail {
namespace {

// Names whose early look-up was started, each with whether it has ended. Never destroyed: a
// look-up that the system keeps waiting may still end after main returns.
struct EarlyLookups {
    std::mutex lock;
    std::vector<std::pair<std::wstring, bool>> names;
};

EarlyLookups& early_lookups() {
    static auto* lookups = new EarlyLookups;
    return *lookups;
}

// The host name of a URL; empty where there is none to look up (no URL, an address).
std::wstring name_to_look_up(const std::string& url) {
    const std::wstring wide = zq::utf8_to_wide(url);
    wchar_t host[256] = {};
    URL_COMPONENTS parts = {};
    parts.dwStructSize = sizeof parts;
    parts.lpszHostName = host;
    parts.dwHostNameLength = 256;
    if (!WinHttpCrackUrl(wide.c_str(), 0, 0, &parts)) return L"";
    std::wstring name(host);
    if (name.size() > 1 && name.front() == L'[') name = name.substr(1, name.size() - 2);
    IN_ADDR v4;
    IN6_ADDR v6;
    if (name.empty() || InetPtonW(AF_INET, name.c_str(), &v4) == 1 || InetPtonW(AF_INET6, name.c_str(), &v6) == 1)
        return L"";
    return name;
}

}  // namespace

bool early_lookup_done(const std::string& url) {
    const std::wstring name = name_to_look_up(url);
    EarlyLookups& lookups = early_lookups();
    std::lock_guard<std::mutex> guard(lookups.lock);
    return std::all_of(lookups.names.begin(), lookups.names.end(),
                       [&](const auto& entry) { return entry.first != name || entry.second; });
}

}  // namespace detail

// Windows reads its trusted authorities itself, once for the system. Its resolver keeps what it
// finds for every program: the service's name, looked up now in the background, is in that
// cache by the first call, where a name server far away would otherwise cost it a round trip.
void prepare_for(const std::string& url) {
    const std::wstring name = detail::name_to_look_up(url);
    if (name.empty()) return;
    detail::EarlyLookups& lookups = detail::early_lookups();
    {
        std::lock_guard<std::mutex> guard(lookups.lock);
        auto known = std::find_if(lookups.names.begin(), lookups.names.end(),
                                  [&](const auto& entry) { return entry.first == name; });
        if (known != lookups.names.end() && !known->second) return;  // under way
        if (known != lookups.names.end()) lookups.names.erase(known);
        lookups.names.emplace_back(name, false);
    }
    const auto ended = [name] {
        detail::EarlyLookups& lookups = detail::early_lookups();
        std::lock_guard<std::mutex> guard(lookups.lock);
        for (auto& entry : lookups.names)
            if (entry.first == name) entry.second = true;
    };
    // Left to run on its own: a name server that does not answer must not hold up the start, nor
    // the stop.
    try {
        std::thread([name, ended] {
            WSADATA data;
            const bool started = WSAStartup(MAKEWORD(2, 2), &data) == 0;
            ADDRINFOW hints = {};
            hints.ai_socktype = SOCK_STREAM;
            ADDRINFOW* found = nullptr;
            if (started && GetAddrInfoW(name.c_str(), nullptr, &hints, &found) == 0) FreeAddrInfoW(found);
            if (started) WSACleanup();
            ended();
        }).detach();
    } catch (const std::system_error&) {
        ended();  // no thread: the first call looks the name up itself
    }
}

}  // namespace http
