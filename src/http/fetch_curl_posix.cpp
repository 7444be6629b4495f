// The HTTP client on libcurl. One share handle per session holds the connection cache, the TLS
// sessions and the name look-ups, so connections are reused within a session and nowhere else.
// Each transaction runs its own multi loop, which is what lets the idle time-out count in
// milliseconds: libcurl's own low-speed limit counts in whole seconds.

#include <arpa/inet.h>
#include <curl/curl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <tuple>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "http/fetch.h"
#include "shell/platform.h"
#include "shell/util.h"

namespace http {

struct SessionHandle {
    CURLSH* share = nullptr;
    std::mutex locks[CURL_LOCK_DATA_LAST];
    std::string agent = "sarnlink";
    long connection_max_age = 0;  // seconds; 0 keeps a connection as long as the server does
    // The handles of calls that ended, reset and kept for the next: a new multi handle costs a
    // socket pair and its set-up on every call. Guarded by spare_lock.
    std::mutex spare_lock;
    std::vector<std::pair<CURLM*, CURL*>> spare;
    // The early name look-ups handed to this session's cache already, as "host:port".
    std::mutex lookups_lock;
    std::vector<std::string> looked_up;
};

namespace detail {

namespace {

void lock_share(CURL*, curl_lock_data data, curl_lock_access, void* user) {
    static_cast<SessionHandle*>(user)->locks[data].lock();
}

void unlock_share(CURL*, curl_lock_data data, void* user) { static_cast<SessionHandle*>(user)->locks[data].unlock(); }

// The limits of the fixed buffers that a URL is cracked into on Windows, kept here so that a
// URL is refused the same way on both systems.
constexpr std::size_t max_host = 255;
constexpr std::size_t max_path = 4095;
constexpr std::size_t max_extra = 4095;

// How long a call that can be cancelled waits for the network before it looks at its flag again.
constexpr int cancel_check_ms = 50;

std::string url_part(CURLU* url, CURLUPart part, unsigned int flags = 0) {
    char* text = nullptr;
    std::string out;
    if (curl_url_get(url, part, &text, flags) == CURLUE_OK && text) out = text;
    curl_free(text);
    return out;
}

// The URL parsed, when it is one that WinHTTP would take too; the transfer then reads it from
// this handle instead of parsing the text a second time.
struct ParsedUrl {
    CURLU* handle = curl_url();
    ~ParsedUrl() { curl_url_cleanup(handle); }
    ParsedUrl(const ParsedUrl&) = delete;
    ParsedUrl& operator=(const ParsedUrl&) = delete;
    explicit ParsedUrl(const std::string& text) {
        // As the transfer would parse it: the path goes out as it was given.
        if (!handle || curl_url_set(handle, CURLUPART_URL, text.c_str(), CURLU_PATH_AS_IS) != CURLUE_OK) return;
        std::string scheme = url_part(handle, CURLUPART_SCHEME);
        std::string query = url_part(handle, CURLUPART_QUERY);
        std::string fragment = url_part(handle, CURLUPART_FRAGMENT);
        std::size_t extra = (query.empty() ? 0 : query.size() + 1) + (fragment.empty() ? 0 : fragment.size() + 1);
        secure = iequals(scheme, "https");
        fits = (secure || iequals(scheme, "http")) &&
               url_part(handle, CURLUPART_HOST).size() <= max_host &&
               url_part(handle, CURLUPART_PATH).size() <= max_path && extra <= max_extra;
    }
    bool fits = false;
    bool secure = false;
};

// The authorities that HTTPS connections check servers against, in one store shared by every
// connection. Left to itself libcurl parses the whole bundle for each new connection (tens of
// milliseconds and about a megabyte each), as it caches a store only per multi handle and only
// when no CA folder is set, and Debian's build sets one.
//
// A folder of hashed certificates is read as servers need its authorities: a bridge that talks
// to one service holds one or two of them, where the parsed bundle holds every one (a megabyte,
// most of the idle bridge's own memory). So the folder goes first where there is one: the system
// keeps it with the same authorities as its bundle.
using Authorities = std::shared_ptr<X509_STORE>;

struct TrustSource {
    std::string path;
    bool folder = false;
    bool operator==(const TrustSource&) const = default;
};

// What to trust: a bundle that SSL_CERT_FILE names, else a folder that SSL_CERT_DIR names, else
// the folder that libcurl was built with, else its bundle.
TrustSource trust_source() {
    if (auto bundle = zq::get_env("SSL_CERT_FILE"); bundle && !bundle->empty()) return {*bundle, false};
    if (auto folder = zq::get_env("SSL_CERT_DIR"); folder && !folder->empty()) return {*folder, true};
    const curl_version_info_data* info = curl_version_info(CURLVERSION_NOW);
    if (!info) return {};
    std::error_code ignored;
    if (info->capath && std::filesystem::is_directory(info->capath, ignored)) return {info->capath, true};
    return {info->cainfo ? info->cainfo : "", false};
}

// The last store made, kept until another source is named. Never destroyed: the start's TLS
// work may still be filling it while the program ends.
struct KeptAuthorities {
    std::mutex lock;
    TrustSource made_from;  // guarded by lock
    Authorities kept;       // guarded by lock
};

KeptAuthorities& kept_authorities() {
    static auto* kept = new KeptAuthorities;
    return *kept;
}

// Null when the bundle or folder cannot be read; libcurl then reads it itself and reports what
// it finds.
Authorities authorities(const TrustSource& source) {
    KeptAuthorities& k = kept_authorities();
    std::lock_guard<std::mutex> guard(k.lock);
    if (source == k.made_from && k.kept) return k.kept;
    Authorities store(X509_STORE_new(), X509_STORE_free);
    if (!store || source.path.empty()) return nullptr;
    const int loaded = source.folder ? X509_STORE_load_path(store.get(), source.path.c_str())
                                     : X509_STORE_load_file(store.get(), source.path.c_str());
    if (loaded != 1) return nullptr;
    // What libcurl sets on a store of its own, so that trust does not change with whose store it is.
    X509_STORE_set_flags(store.get(), X509_V_FLAG_TRUSTED_FIRST | X509_V_FLAG_PARTIAL_CHAIN);
    k.made_from = source;
    k.kept = store;
    return k.kept;
}

// Named no bundle and no folder, libcurl puts nothing into the connection's store, whether it
// fills it before this runs or after.
CURLcode use_authorities(CURL*, void* context, void* store) {
    SSL_CTX_set1_cert_store(static_cast<SSL_CTX*>(context), static_cast<X509_STORE*>(store));
    return CURLE_OK;
}

// Where the shared store cannot be had (an unreadable bundle, a libcurl on another TLS library),
// libcurl reads the bundle or folder for each connection, as it would on its own.
void set_trust(CURL* easy, const ParsedUrl& url, Authorities& held) {
    const TrustSource source = trust_source();
    if (url.secure) held = authorities(source);
    if (held && curl_easy_setopt(easy, CURLOPT_SSL_CTX_FUNCTION, use_authorities) == CURLE_OK) {
        curl_easy_setopt(easy, CURLOPT_SSL_CTX_DATA, held.get());
        curl_easy_setopt(easy, CURLOPT_CAINFO, nullptr);
        curl_easy_setopt(easy, CURLOPT_CAPATH, nullptr);
        // libcurl's own cache would hand a later connection the store that it saw first.
        curl_easy_setopt(easy, CURLOPT_CA_CACHE_TIMEOUT, 0L);
    } else if (!source.path.empty()) {
        curl_easy_setopt(easy, source.folder ? CURLOPT_CAPATH : CURLOPT_CAINFO, source.path.c_str());
        if (source.folder) curl_easy_setopt(easy, CURLOPT_CAINFO, nullptr);
    }
}

// The service's addresses, looked up when the program starts, as a proxy server looks up its
// upstream when it reads its settings: the first call then goes straight to its connection, where
// a name server far away would otherwise cost it a round trip of its own. The answer goes into a
// session's cache of look-ups once, and from then on ages there as libcurl's own answers do.
struct EarlyLookup {
    std::string host_port;  // "host:port"
    std::string addresses;  // as CURLOPT_RESOLVE takes them; empty until found, or when not found
    bool done = false;
    double done_at = 0.0;
    bool stale() const;
};

// libcurl's default lifetime of a name look-up; an older answer is not handed on.
constexpr double early_lookup_lifetime = 60.0;

bool EarlyLookup::stale() const { return done && zq::steady_seconds() - done_at > early_lookup_lifetime; }

struct EarlyLookups {
    std::mutex lock;
    std::vector<EarlyLookup> list;
};

// Never destroyed: a look-up that the system keeps waiting may still end after main returns.
EarlyLookups& early_lookups() {
    static auto* lookups = new EarlyLookups;
    return *lookups;
}

// The host without the brackets of an IPv6 address.
std::string url_host(CURLU* url) {
    std::string host = url_part(url, CURLUPART_HOST);
    if (host.size() > 1 && host.front() == '[') host = host.substr(1, host.size() - 2);
    return host;
}

std::string host_port(CURLU* url) { return url_host(url) + ":" + url_part(url, CURLUPART_PORT, CURLU_DEFAULT_PORT); }

bool is_address(const std::string& host) {
    unsigned char bytes[16];
    return inet_pton(AF_INET, host.c_str(), bytes) == 1 || inet_pton(AF_INET6, host.c_str(), bytes) == 1;
}

// The addresses in the system's order, IPv6 ones too where this machine can use IPv6, which is
// what libcurl would ask for.
std::string look_up(const std::string& host) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    const int probe = ::socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    hints.ai_family = probe >= 0 ? AF_UNSPEC : AF_INET;
    if (probe >= 0) ::close(probe);
    addrinfo* found = nullptr;
    if (getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0) return "";
    std::vector<std::string> seen;
    for (const addrinfo* a = found; a; a = a->ai_next) {
        char text[INET6_ADDRSTRLEN] = {};
        const void* bytes = a->ai_family == AF_INET6
                                ? static_cast<const void*>(&reinterpret_cast<const sockaddr_in6*>(a->ai_addr)->sin6_addr)
                                : static_cast<const void*>(&reinterpret_cast<const sockaddr_in*>(a->ai_addr)->sin_addr);
        if ((a->ai_family != AF_INET && a->ai_family != AF_INET6) || !inet_ntop(a->ai_family, bytes, text, sizeof text))
            continue;
        const std::string address = a->ai_family == AF_INET6 ? "[" + std::string(text) + "]" : text;
        if (std::find(seen.begin(), seen.end(), address) == seen.end()) seen.push_back(address);
    }
    freeaddrinfo(found);
    std::string joined;
    for (const auto& address : seen) joined += (joined.empty() ? "" : ",") + address;
    return joined;
}

void start_early_lookup(CURLU* url) {
    const std::string host = url_host(url);
    if (host.empty() || is_address(host)) return;
    const std::string key = host_port(url);
    EarlyLookups& lookups = early_lookups();
    const auto forget = [&] {
        lookups.list.erase(std::remove_if(lookups.list.begin(), lookups.list.end(),
                                          [&](const EarlyLookup& old) { return old.host_port == key; }),
                           lookups.list.end());
    };
    {
        std::lock_guard<std::mutex> guard(lookups.lock);
        for (const auto& known : lookups.list)
            if (known.host_port == key && !known.stale()) return;
        forget();
        lookups.list.push_back(EarlyLookup{key});
    }
    // Left to run on its own: a name server that does not answer must not hold up the start, nor
    // the stop.
    try {
        std::thread([host, key] {
            std::string addresses = look_up(host);
            EarlyLookups& lookups = early_lookups();
            std::lock_guard<std::mutex> guard(lookups.lock);
            for (auto& entry : lookups.list)
                if (entry.host_port == key && !entry.done) {
                    entry.addresses = std::move(addresses);
                    entry.done = true;
                    entry.done_at = zq::steady_seconds();
                }
        }).detach();
    } catch (const std::system_error&) {
        // No thread: the first call looks the name up itself.
        std::lock_guard<std::mutex> guard(lookups.lock);
        forget();
    }
}

// The answer of an early look-up for this session, once: "+host:port:addresses", which libcurl
// keeps in the session's cache as long as an answer of its own. Null where there is none to hand on.
curl_slist* early_answer(SessionHandle* session, CURLU* url) {
    const std::string key = host_port(url);
    std::string addresses;
    {
        EarlyLookups& lookups = early_lookups();
        std::lock_guard<std::mutex> guard(lookups.lock);
        for (const auto& entry : lookups.list)
            if (entry.host_port == key && entry.done && !entry.stale()) addresses = entry.addresses;
    }
    if (addresses.empty()) return nullptr;
    std::lock_guard<std::mutex> guard(session->lookups_lock);
    if (std::find(session->looked_up.begin(), session->looked_up.end(), key) != session->looked_up.end())
        return nullptr;
    session->looked_up.push_back(key);
    return curl_slist_append(nullptr, ("+" + key + ":" + addresses).c_str());
}

struct Transfer {
    std::string head;  // the raw head of the latest response, status line first
    bool head_done = false;  // a final (not 1xx) head has arrived: failures now count as reads
    std::string body;
    bool connected = false;
    double last_activity = 0.0;
    curl_off_t uploaded = 0;
};

std::size_t on_header(char* data, std::size_t size, std::size_t count, void* user) {
    auto* t = static_cast<Transfer*>(user);
    std::string_view line(data, size * count);
    t->last_activity = zq::steady_seconds();
    if (line.starts_with("HTTP/")) {
        // An interim response's head is replaced by the next one.
        t->head.assign(line);
        t->head_done = false;
    } else {
        t->head.append(line);
        if (line == "\r\n" || line == "\n") {
            std::size_t space = t->head.find(' ');
            t->head_done = space == std::string::npos || t->head.compare(space + 1, 1, "1") != 0;
        }
    }
    return size * count;
}

std::size_t on_body(char* data, std::size_t size, std::size_t count, void* user) {
    auto* t = static_cast<Transfer*>(user);
    t->body.append(data, size * count);
    t->last_activity = zq::steady_seconds();
    return size * count;
}

int on_progress(void* user, curl_off_t, curl_off_t, curl_off_t, curl_off_t uploaded) {
    auto* t = static_cast<Transfer*>(user);
    if (uploaded != t->uploaded) {
        t->uploaded = uploaded;
        t->last_activity = zq::steady_seconds();
    }
    return 0;
}

// Called once the connection is up (new or reused): the idle clock starts here.
int on_connected(void* user, char*, char*, int, int) {
    auto* t = static_cast<Transfer*>(user);
    t->connected = true;
    t->last_activity = zq::steady_seconds();
    return CURL_PREREQFUNC_OK;
}

curl_slist* request_headers(const HeaderList& headers) {
    curl_slist* list = nullptr;
    for (const auto& [name, value] : headers)
        list = curl_slist_append(list, (value.empty() ? name + ";" : name + ": " + value).c_str());
    // libcurl adds these on its own; the request goes out with only what it was given.
    // No Expect either: the embedded server does not answer 100-continue.
    for (const char* own : {"Accept", "Expect", "Content-Type"}) {
        bool given = std::any_of(headers.begin(), headers.end(), [&](const auto& h) { return iequals(h.first, own); });
        if (!given) list = curl_slist_append(list, (std::string(own) + ":").c_str());
    }
    return list;
}

bool global_init() {
    static CURLcode global = curl_global_init(CURL_GLOBAL_DEFAULT);
    return global == CURLE_OK;
}

}  // namespace

SessionHandle* open_session(double connection_max_age) {
    if (!global_init()) return nullptr;
    auto* session = new SessionHandle;
    // libcurl gives a connection up once its age in whole seconds is above the limit: 44 ends
    // one at 45.0 seconds.
    if (connection_max_age > 0)
        session->connection_max_age = std::max(1L, static_cast<long>(std::ceil(connection_max_age)) - 1);
    session->share = curl_share_init();
    if (!session->share) {
        delete session;
        return nullptr;
    }
    curl_share_setopt(session->share, CURLSHOPT_LOCKFUNC, lock_share);
    curl_share_setopt(session->share, CURLSHOPT_UNLOCKFUNC, unlock_share);
    curl_share_setopt(session->share, CURLSHOPT_USERDATA, session);
    curl_share_setopt(session->share, CURLSHOPT_SHARE, CURL_LOCK_DATA_CONNECT);
    curl_share_setopt(session->share, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
    curl_share_setopt(session->share, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
    return session;
}

void close_session(SessionHandle* session) {
    if (!session) return;
    // The easy handles first: a share that handles still use is not given up.
    for (auto [multi, easy] : session->spare) {
        curl_easy_cleanup(easy);
        curl_multi_cleanup(multi);
    }
    curl_share_cleanup(session->share);
    delete session;
}

// The share stays, and with it the TLS sessions and name look-ups: the system keeps those for
// WinHTTP across its sessions too. The connections give themselves up at their age.
SessionHandle* renew_session(SessionHandle* session) { return session; }

ClientResponse transact(SessionHandle* session, const ClientRequest& request) {
    ClientResponse response;
    if (!session) {
        response.error = "WinHttpOpen failed";
        return response;
    }
    const ParsedUrl url(request.url);
    if (!url.fits) {
        response.error = "bad url " + request.url;
        return response;
    }
    CURL* easy = nullptr;
    CURLM* multi = nullptr;
    {
        std::lock_guard<std::mutex> guard(session->spare_lock);
        if (!session->spare.empty()) {
            std::tie(multi, easy) = session->spare.back();
            session->spare.pop_back();
        }
    }
    if (easy) {
        curl_easy_reset(easy);
    } else {
        easy = curl_easy_init();
        multi = curl_multi_init();
        // The share's connections are kept up to the limit of the multi handle that returns one,
        // four per transfer by default: after a burst of calls all but four would close.
        if (multi) curl_multi_setopt(multi, CURLMOPT_MAXCONNECTS, 32L);
    }
    if (!easy || !multi) {
        response.error = zq::format_text("open request failed (%d)", errno);
        curl_easy_cleanup(easy);
        curl_multi_cleanup(multi);
        return response;
    }
    Transfer t;
    curl_slist* headers = request_headers(request.headers);
    curl_easy_setopt(easy, CURLOPT_CURLU, url.handle);
    curl_easy_setopt(easy, CURLOPT_SHARE, session->share);
    curl_slist* early = early_answer(session, url.handle);
    if (early) curl_easy_setopt(easy, CURLOPT_RESOLVE, early);
    curl_easy_setopt(easy, CURLOPT_USERAGENT, session->agent.c_str());
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 0L);  // the caller sees a 3xx itself
    curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    curl_easy_setopt(easy, CURLOPT_PATH_AS_IS, 1L);
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(request.timeout_ms));
    Authorities authorities;  // held until the transfer ends
    set_trust(easy, url, authorities);
    if (session->connection_max_age) curl_easy_setopt(easy, CURLOPT_MAXLIFETIME_CONN, session->connection_max_age);
    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, on_header);
    curl_easy_setopt(easy, CURLOPT_HEADERDATA, &t);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, on_body);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, &t);
    curl_easy_setopt(easy, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(easy, CURLOPT_XFERINFOFUNCTION, on_progress);
    curl_easy_setopt(easy, CURLOPT_XFERINFODATA, &t);
    curl_easy_setopt(easy, CURLOPT_PREREQFUNCTION, on_connected);
    curl_easy_setopt(easy, CURLOPT_PREREQDATA, &t);
    if (request.method == "HEAD") {
        curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
    } else if (request.method == "GET" && request.body.empty()) {
        curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
    } else {
        curl_easy_setopt(easy, CURLOPT_POST, 1L);
        curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
        curl_easy_setopt(easy, CURLOPT_POSTFIELDS, request.body.data());
        if (request.method != "POST") curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, request.method.c_str());
    }

    // Before the connection is up, libcurl's connect time-out governs; after it, no phase may
    // stay idle for longer than timeout_ms.
    // The whole call has its own limit (deadline_ms), and a cancel is looked at between short
    // waits, so neither depends on the server sending anything.
    const double idle_limit = request.timeout_ms / 1000.0;
    const double started = zq::steady_seconds();
    const double deadline = request.deadline_ms ? started + request.deadline_ms / 1000.0 : 0.0;
    bool idle_expired = false;
    bool deadline_passed = false;
    bool cancelled = false;
    curl_multi_add_handle(multi, easy);
    for (;;) {
        int running = 0;
        if (curl_multi_perform(multi, &running) != CURLM_OK || running == 0) break;
        if (request.cancel && request.cancel->cancelled()) {
            cancelled = true;
            break;
        }
        int wait_ms = request.cancel ? cancel_check_ms : 1000;
        if (deadline > 0.0) {
            double left = deadline - zq::steady_seconds();
            if (left <= 0) {
                deadline_passed = true;
                break;
            }
            wait_ms = std::min(wait_ms, static_cast<int>(left * 1000.0) + 1);
        }
        if (t.connected) {
            double left = t.last_activity + idle_limit - zq::steady_seconds();
            if (left <= 0) {
                idle_expired = true;
                break;
            }
            wait_ms = std::min(wait_ms, static_cast<int>(left * 1000.0) + 1);
        }
        curl_multi_poll(multi, nullptr, 0, wait_ms, nullptr);
    }
    CURLcode result = CURLE_OK;
    int queued = 0;
    while (CURLMsg* message = curl_multi_info_read(multi, &queued))
        if (message->msg == CURLMSG_DONE) result = message->data.result;
    long status = 0;
    long os_error = 0;
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
    curl_easy_getinfo(easy, CURLINFO_OS_ERRNO, &os_error);
    curl_multi_remove_handle(multi, easy);
    curl_slist_free_all(headers);
    curl_slist_free_all(early);
    {
        // A few calls at once are usual (the pump, the proxies); more handles are not kept.
        constexpr std::size_t keep = 4;
        std::lock_guard<std::mutex> guard(session->spare_lock);
        if (session->spare.size() < keep) {
            session->spare.emplace_back(multi, easy);
            easy = nullptr;
            multi = nullptr;
        }
    }
    curl_easy_cleanup(easy);
    curl_multi_cleanup(multi);

    response.status = static_cast<std::uint32_t>(status);
    response.headers = split_raw_headers(t.head);
    response.body = std::move(t.body);
    if (cancelled || deadline_passed) {
        response.error = cancelled ? "cancelled" : "deadline passed";
        return response;
    }
    bool timed_out = idle_expired || result == CURLE_OPERATION_TIMEDOUT;
    if (!timed_out && result == CURLE_OK) return response;
    if (result == CURLE_URL_MALFORMAT) {
        response.error = "bad url " + request.url;
    } else if (t.head_done) {
        long code = timed_out ? ETIMEDOUT : (os_error ? os_error : static_cast<long>(result));
        response.error = zq::format_text("read failed (%ld)", code);
    } else if (timed_out) {
        response.error = "The read operation timed out";
    } else {
        // Errors of TLS or name look-up carry no system error number; libcurl's code stands in.
        response.error = zq::format_text("request failed (%ld)", os_error ? os_error : static_cast<long>(result));
    }
    return response;
}

// A TLS 1.3 handshake in memory, between a client and a server of our own with a throwaway key.
// The library builds its certificate decoders, curve tables and key schedule on first use: some
// milliseconds that would otherwise fall on the first call to the service, just when the
// server's answer has arrived and the call waits on nothing else.
void handshake_in_memory() {
    EVP_PKEY* key = EVP_EC_gen("P-256");
    X509* certificate = X509_new();
    SSL_CTX* server_context = SSL_CTX_new(TLS_server_method());
    SSL_CTX* client_context = SSL_CTX_new(TLS_client_method());
    X509_STORE* trusted = X509_STORE_new();
    SSL* client = nullptr;
    SSL* server = nullptr;
    BIO* client_end = nullptr;
    BIO* server_end = nullptr;
    X509_NAME* name = certificate ? X509_get_subject_name(certificate) : nullptr;
    const bool made =
        key && name && server_context && client_context && trusted && X509_set_version(certificate, 2) &&
        ASN1_INTEGER_set(X509_get_serialNumber(certificate), 1) &&
        X509_gmtime_adj(X509_getm_notBefore(certificate), -60) &&
        X509_gmtime_adj(X509_getm_notAfter(certificate), 3600) && X509_set_pubkey(certificate, key) &&
        X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("warm-up"), -1,
                                   -1, 0) &&
        X509_set_issuer_name(certificate, name) && X509_sign(certificate, key, EVP_sha256()) &&
        SSL_CTX_use_certificate(server_context, certificate) == 1 &&
        SSL_CTX_use_PrivateKey(server_context, key) == 1 && X509_STORE_add_cert(trusted, certificate) == 1 &&
        BIO_new_bio_pair(&client_end, 0, &server_end, 0) == 1;
    if (made) {
        SSL_CTX_set_min_proto_version(client_context, TLS1_3_VERSION);
        SSL_CTX_set_cert_store(client_context, trusted);  // the context owns it from here
        trusted = nullptr;
        SSL_CTX_set_verify(client_context, SSL_VERIFY_PEER, nullptr);
        client = SSL_new(client_context);
        server = SSL_new(server_context);
    }
    if (client && server) {
        SSL_set_bio(client, client_end, client_end);
        SSL_set_bio(server, server_end, server_end);
        client_end = server_end = nullptr;
        SSL_set_connect_state(client);
        SSL_set_accept_state(server);
        SSL_set_tlsext_host_name(client, "warm-up");
        // Each side moves as far as the other's bytes let it; a handful of turns end a handshake.
        for (int turn = 0; turn < 8 && !(SSL_is_init_finished(client) && SSL_is_init_finished(server)); ++turn) {
            SSL_do_handshake(client);
            SSL_do_handshake(server);
        }
        // A byte each way takes the server's session tickets through the client too.
        char byte = 0;
        if (SSL_write(client, "w", 1) == 1 && SSL_read(server, &byte, 1) == 1 && SSL_write(server, "w", 1) == 1)
            SSL_read(client, &byte, 1);
    }
    SSL_free(client);
    SSL_free(server);
    BIO_free(client_end);
    BIO_free(server_end);
    X509_STORE_free(trusted);
    SSL_CTX_free(client_context);
    SSL_CTX_free(server_context);
    X509_free(certificate);
    EVP_PKEY_free(key);
}

// The start's TLS work, done on a thread of its own so that the start does not wait for it. The
// thread is joined when the program ends, before the TLS library's own clean-up runs: that is
// registered earlier, at the library's set-up, so it runs later.
class TlsWarmUp {
public:
    void start(const TrustSource& source) {
        std::lock_guard<std::mutex> guard(lock_);
        if (started_) return;
        started_ = true;
        try {
            thread_ = std::thread([source] {
                authorities(source);
                handshake_in_memory();
                zq::release_free_memory();
            });
        } catch (const std::system_error&) {
            // No thread: the first call does this work on its way.
        }
    }
    ~TlsWarmUp() {
        if (thread_.joinable()) thread_.join();
    }

private:
    std::mutex lock_;
    bool started_ = false;
    std::thread thread_;
};

bool early_lookup_done(const std::string& url) {
    const ParsedUrl parsed(url);
    if (!parsed.fits) return true;
    const std::string key = host_port(parsed.handle);
    EarlyLookups& lookups = early_lookups();
    std::lock_guard<std::mutex> guard(lookups.lock);
    return std::all_of(lookups.list.begin(), lookups.list.end(),
                       [&](const EarlyLookup& entry) { return entry.host_port != key || entry.done; });
}

}  // namespace detail

void prepare_for(const std::string& url) {
    if (!detail::global_init()) return;
    const detail::ParsedUrl parsed(url);
    if (!parsed.fits) return;
    detail::start_early_lookup(parsed.handle);
    if (!parsed.secure) return;
    static detail::TlsWarmUp warm_up;  // made after the library's set-up, so ended before its clean-up
    warm_up.start(detail::trust_source());
}

}  // namespace http
