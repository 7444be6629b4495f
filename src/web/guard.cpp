#include "web/guard.h"

#include "shell/deployment.h"
#include "shell/util.h"
#include "web/paths.h"

namespace zq::web {

namespace {

bool same_name(std::string_view a, std::string_view b) { return !a.empty() && http::iequals(a, b); }

// The name of a Host value without its port and a final dot; false for a port that is not a
// number or a bracketed address, which has a name of its own only as [::1].
bool host_name(std::string_view host, std::string_view& name) {
    name = host;
    if (std::size_t colon = name.rfind(':'); colon != std::string_view::npos && !name.starts_with('[')) {
        std::string_view port = name.substr(colon + 1);
        if (port.empty() || port.find_first_not_of("0123456789") != std::string_view::npos) return false;
        name = name.substr(0, colon);
    }
    // "localhost." is the same name as "localhost".
    if (name.ends_with('.')) name.remove_suffix(1);
    return !name.empty();
}

}  // namespace

bool is_loopback_ipv4(std::string_view text) {
    int parts = 0;
    int first = -1;
    while (!text.empty()) {
        std::size_t dot = text.find('.');
        std::string_view part = text.substr(0, dot);
        if (part.empty() || part.size() > 3) return false;
        int value = 0;
        for (char c : part) {
            if (c < '0' || c > '9') return false;
            value = value * 10 + (c - '0');
        }
        if (value > 255) return false;
        if (parts == 0) first = value;
        ++parts;
        if (dot == std::string_view::npos) break;
        text = text.substr(dot + 1);
        if (text.empty()) return false;
    }
    return parts == 4 && first == 127;
}

bool loopback_host(std::string_view host) {
    if (host.starts_with('[')) {
        std::size_t close = host.find(']');
        if (close == std::string_view::npos) return false;
        std::string_view rest = host.substr(close + 1);
        if (!rest.empty() && (!rest.starts_with(':') || rest.size() == 1 ||
                              rest.find_first_not_of("0123456789", 1) != std::string_view::npos))
            return false;
        return http::iequals(host.substr(1, close - 1), "::1");
    }
    std::string_view name;
    return host_name(host, name) && (is_loopback_ipv4(name) || same_name(name, "localhost"));
}

bool allowed_host(std::string_view host, const std::string& bind_host) {
    if (loopback_host(host)) return true;
    std::string_view name;
    if (host.starts_with('[') || !host_name(host, name)) return false;
    if (same_name(name, bind_host)) return true;
    for (const char* deployment : {kServiceHost, kRetailHost, kPlayLogTestHost, kPlayLogHost, kOakmeshHost})
        if (same_name(name, deployment)) return true;
    return false;
}

std::string foreign_caller(const http::ServerRequest& request, const std::string& bind_host) {
    bool fetch_metadata = false;
    std::string site;
    for (const auto& [name, value] : request.headers) {
        if (http::iequals(name, "Origin")) return "browser page";
        if (name.size() >= 10 && http::iequals(std::string_view(name).substr(0, 10), "Sec-Fetch-")) {
            fetch_metadata = true;
            if (http::iequals(name, "Sec-Fetch-Site")) site = value;
        }
    }
    // A page cannot set these headers itself; "none" is the user's own typing or bookmark.
    if (fetch_metadata && !http::iequals(site, "none")) return "browser page";
    for (const auto& [name, value] : request.headers)
        if (http::iequals(name, "Host") && !value.empty() && !allowed_host(value, bind_host))
            return "host " + printable(value, stranger_text_limit);
    return "";
}

bool safe_target(std::string_view target) {
    if (!target.starts_with('/') || target.starts_with("//")) return false;
    for (char c : target) {
        const unsigned char u = static_cast<unsigned char>(c);
        if (c == '@' || c == '\\' || u < 0x21 || u == 0x7f) return false;
    }
    return true;
}

bool has_dot_segment(std::string_view path) {
    for (const std::string& segment : path_segments(path)) {
        std::string plain;
        for (std::size_t i = 0; i < segment.size(); ++i) {
            if (segment[i] == '%' && i + 2 < segment.size() && segment[i + 1] == '2' &&
                (segment[i + 2] == 'e' || segment[i + 2] == 'E')) {
                plain += '.';
                i += 2;
            } else {
                plain += segment[i];
            }
        }
        if (plain == "." || plain == "..") return true;
    }
    return false;
}

}  // namespace zq::web
