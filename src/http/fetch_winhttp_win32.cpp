// The HTTP client on WinHTTP, synchronous. Only the session handle survives a call, and with it
// WinHTTP's connection pool; connection and request handles are made and closed per call.

#include <winsock2.h>
#include <windows.h>
#include <winhttp.h>

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

constexpr DWORD winhttp_timeout = 12002;
constexpr DWORD access_automatic_proxy = 4;
constexpr DWORD option_redirect_policy = 88;
constexpr DWORD raw_headers_crlf = 22;
constexpr DWORD option_receive_response_timeout = 7;

}  // namespace

SessionHandle* open_session() {
    HINTERNET h = WinHttpOpen(L"sarnlink", access_automatic_proxy, WINHTTP_NO_PROXY_NAME, WINHTTP_NO_PROXY_BYPASS, 0);
    if (!h) return nullptr;
    return new SessionHandle{h};
}

void close_session(SessionHandle* session) {
    if (!session) return;
    WinHttpCloseHandle(session->session);
    delete session;
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
    Handle req{WinHttpOpenRequest(connection.h, method.c_str(), object.c_str(), nullptr, WINHTTP_NO_REFERER,
                                  WINHTTP_DEFAULT_ACCEPT_TYPES, secure ? WINHTTP_FLAG_SECURE : 0)};
    if (!req.h) {
        response.error = zq::format_text("open request failed (%lu)", GetLastError());
        return response;
    }

    DWORD never = 0;  // the caller sees a 3xx itself
    WinHttpSetOption(req.h, option_redirect_policy, &never, sizeof never);
    int timeout = static_cast<int>(request.timeout_ms);
    WinHttpSetTimeouts(req.h, timeout, timeout, timeout, timeout);
    // The wait for the response head has its own limit (90 s by default). Where the receive
    // time-out above governs each read it changes nothing; where an implementation applies only
    // this one to the head, it keeps the wait at timeout_ms as well.
    DWORD head_wait = request.timeout_ms;
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
            response.error = zq::format_text("read failed (%lu)", GetLastError());
            break;
        }
        if (available == 0) break;
        std::vector<char> chunk(available, 0);
        DWORD read = 0;
        if (!WinHttpReadData(req.h, chunk.data(), available, &read)) {
            response.error = zq::format_text("read failed (%lu)", GetLastError());
            break;
        }
        response.body.append(chunk.data(), read);
    }
    return response;
}

}  // namespace detail

}  // namespace http
