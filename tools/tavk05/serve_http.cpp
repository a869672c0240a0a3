// tavk05 serve: the HTTP side (Host and Origin checks, the technician's
// login, the page's files, the upgrade to WebSocket), the listeners and the
// command itself.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <memory>
#include <optional>
#include <sstream>

#include "cli.h"
#include "serve_hub.h"
#include "tavk05/version.h"

namespace serve {

namespace http = beast::http;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;

namespace {

const size_t kHeaderLimit = 8192;
const size_t kBodyLimit = 4096;
const std::chrono::seconds kHttpTimeout(20);

// The page's files, read once at start (a fixed list: nothing else is served).
struct WebFile {
    const char* pszPath;
    const char* pszName;
    const char* pszType;
};
const WebFile kWebFiles[] = {
    {"/", "index.html", "text/html; charset=utf-8"},
    {"/index.html", "index.html", "text/html; charset=utf-8"},
    {"/app.js", "app.js", "text/javascript; charset=utf-8"},
    {"/tavk05.js", "tavk05.js", "text/javascript; charset=utf-8"},
};

std::map<std::string, std::string>& WebContent()
{
    static std::map<std::string, std::string> map;
    return map;
}

bool LoadWebFiles(const std::string& strDir, std::string* pError)
{
    for (const WebFile& f : kWebFiles) {
        const std::string strPath = strDir + "/" + f.pszName;
        const int n = open(strPath.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
        struct stat st;
        if (n < 0 || fstat(n, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size > (1 << 20)) {
            if (n >= 0) close(n);
            *pError = strPath + ": not a readable regular file of at most 1 MiB";
            return false;
        }
        std::string str(static_cast<size_t>(st.st_size), '\0');
        const bool bRead = read(n, &str[0], str.size()) == static_cast<ssize_t>(str.size());
        close(n);
        if (!bRead) {
            *pError = strPath + ": cannot be read";
            return false;
        }
        WebContent()[f.pszName] = str;
    }
    return true;
}

std::string QueryValue(const std::string& strTarget, const std::string& strKey)
{
    const size_t nQ = strTarget.find('?');
    if (nQ == std::string::npos) return "";
    std::istringstream in(strTarget.substr(nQ + 1));
    std::string strPair;
    while (std::getline(in, strPair, '&')) {
        if (strPair.compare(0, strKey.size() + 1, strKey + "=") == 0) return strPair.substr(strKey.size() + 1);
    }
    return "";
}

std::string CookieValue(const std::string& strHeader, const std::string& strName)
{
    std::istringstream in(strHeader);
    std::string strPart;
    while (std::getline(in, strPart, ';')) {
        const size_t nStart = strPart.find_first_not_of(' ');
        if (nStart == std::string::npos) continue;
        strPart.erase(0, nStart);
        if (strPart.compare(0, strName.size() + 1, strName + "=") == 0) return strPart.substr(strName.size() + 1);
    }
    return "";
}

class HttpSession : public std::enable_shared_from_this<HttpSession> {
public:
    HttpSession(Hub& hub, tcp::socket&& socket) : m_hub(hub), m_stream(std::move(socket)) {}
    ~HttpSession()
    {
        if (!m_bUpgraded) m_hub.ConnectionGone();
    }
    void Start() { Read(); }

private:
    void Read()
    {
        m_parser.emplace();
        m_parser->header_limit(kHeaderLimit);
        m_parser->body_limit(kBodyLimit);
        m_stream.expires_after(kHttpTimeout);
        http::async_read(m_stream, m_buffer, *m_parser,
                         beast::bind_front_handler(&HttpSession::OnRead, shared_from_this()));
    }

    void OnRead(beast::error_code ec, size_t)
    {
        if (ec == http::error::header_limit || ec == http::error::body_limit) {
            Reply(Plain(http::status::payload_too_large, "request too large\n", ""), false);
            return;
        }
        if (ec) return;
        Handle(m_parser->release());
    }

    http::response<http::string_body> Plain(http::status eStatus, const std::string& strBody,
                                            const std::string& strAllowOrigin)
    {
        http::response<http::string_body> res{eStatus, 11};
        res.set(http::field::content_type, "text/plain; charset=utf-8");
        res.body() = strBody;
        if (!strAllowOrigin.empty()) res.set(http::field::access_control_allow_origin, strAllowOrigin);
        return res;
    }

    void Reply(http::response<http::string_body> res, bool bKeepAlive)
    {
        // Every answer: never cached, varies with the Origin it was given.
        res.set(http::field::server, "tavk05-serve");
        res.set(http::field::cache_control, "no-store");
        res.set(http::field::vary, "Origin");
        res.set("X-Content-Type-Options", "nosniff");
        res.set("Referrer-Policy", "no-referrer");
        res.keep_alive(bKeepAlive);
        res.prepare_payload();
        auto pRes = std::make_shared<http::response<http::string_body>>(std::move(res));
        auto self = shared_from_this();
        http::async_write(m_stream, *pRes, [self, pRes, bKeepAlive](beast::error_code ec, size_t) {
            if (ec || !bKeepAlive) {
                beast::error_code ecIgnored;
                self->m_stream.socket().shutdown(tcp::socket::shutdown_send, ecIgnored);
                return;
            }
            self->Read();
        });
    }

    void Handle(http::request<http::string_body> req)
    {
        const std::string strHost(req[http::field::host]);
        const bool bHasOrigin = req.find(http::field::origin) != req.end();
        const std::string strOrigin(req[http::field::origin]);
        const std::string strTarget(req.target());
        const std::string strPath = strTarget.substr(0, strTarget.find('?'));
        // A name that resolves to this machine but is not the service's own
        // (DNS rebinding) gets nothing.
        if (!m_hub.HostAllowed(strHost)) {
            Reply(Plain(http::status::misdirected_request,
                        "tavk05 serve answers only to 127.0.0.1, [::1] and "
                        "localhost on its own port\n",
                        ""),
                  false);
            return;
        }
        const bool bSelf = bHasOrigin && m_hub.SelfOrigin(strOrigin);
        const bool bPaired = bHasOrigin && m_hub.OriginPaired(strOrigin);
        if (bHasOrigin && (strOrigin == "null" || (!bSelf && !PairableOrigin(strOrigin)))) {
            Reply(Plain(http::status::forbidden, "origin refused\n", ""), false);
            return;
        }
        if (websocket::is_upgrade(req)) {
            Upgrade(std::move(req), bHasOrigin, strOrigin);
            return;
        }
        if (req.method() != http::verb::get && req.method() != http::verb::head) {
            Reply(Plain(http::status::method_not_allowed, "only GET\n", ""), false);
            return;
        }
        if (strPath == "/v1/version") {
            // The one cross-origin HTTP answer: to the service's own pages and
            // to paired origins, by name.
            if (bHasOrigin && !bSelf && !bPaired) {
                Reply(Plain(http::status::forbidden, "origin not paired\n", ""), false);
                return;
            }
            auto res = Plain(http::status::ok, Json({{"protocol", 1}, {"service", Tavk05GetVersion()}}).dump(),
                             bHasOrigin ? strOrigin : "");
            res.set(http::field::content_type, "application/json");
            Reply(std::move(res), req.keep_alive());
            return;
        }
        // The technician's pages belong to no other site.
        if (bHasOrigin && !bSelf) {
            Reply(Plain(http::status::forbidden, "origin refused\n", ""), false);
            return;
        }
        if (strPath == "/login") {
            std::string strCookie;
            if (!m_hub.ExchangeSecret(QueryValue(strTarget, "secret"), &strCookie)) {
                Reply(Plain(http::status::forbidden,
                            "this technician's URL was used already or is wrong: use the "
                            "newest one tavk05 serve printed\n",
                            ""),
                      false);
                return;
            }
            auto res = Plain(http::status::see_other, "", "");
            res.set(http::field::location, "/");
            res.set(http::field::set_cookie, "tavk05_technician=" + strCookie + "; Path=/; HttpOnly; SameSite=Strict");
            Reply(std::move(res), false);
            return;
        }
        for (const WebFile& f : kWebFiles) {
            if (strPath != f.pszPath) continue;
            auto res = Plain(http::status::ok, WebContent()[f.pszName], "");
            res.set(http::field::content_type, f.pszType);
            const std::string strPort = std::to_string(m_hub.Port());
            res.set(
                "Content-Security-Policy",
                "default-src 'none'; script-src 'self'; style-src 'self' 'unsafe-inline'; img-src 'self' blob: data:; "
                "connect-src 'self' ws://127.0.0.1:" +
                    strPort + " ws://localhost:" + strPort + " ws://[::1]:" + strPort +
                    "; frame-ancestors 'none'; base-uri 'none'; form-action 'none'");
            res.set("X-Frame-Options", "DENY");
            if (req.method() == http::verb::head) res.body().clear();
            Reply(std::move(res), req.keep_alive());
            return;
        }
        Reply(Plain(http::status::not_found, "not found\n", ""), req.keep_alive());
    }

    void Upgrade(http::request<http::string_body> req, bool bHasOrigin, const std::string& strOrigin)
    {
        if (req.target() != "/v1/ws") {
            Reply(Plain(http::status::not_found, "the WebSocket is at /v1/ws\n", ""), false);
            return;
        }
        if (!bHasOrigin) {
            Reply(Plain(http::status::forbidden, "a WebSocket client must name its Origin\n", ""), false);
            return;
        }
        if (!m_hub.AdmitOrigin(strOrigin)) {
            Reply(Plain(http::status::too_many_requests, "too many connections from this origin\n", ""), false);
            return;
        }
        const bool bTechnician =
            m_hub.SelfOrigin(strOrigin) &&
            m_hub.CookieValid(CookieValue(std::string(req[http::field::cookie]), "tavk05_technician"));
        m_bUpgraded = true;  // the connection is counted on with the WebSocket session
        auto pWs = std::make_shared<WsSession>(m_hub, std::move(m_stream), strOrigin, bTechnician);
        pWs->Start(std::move(req));
    }

    Hub& m_hub;
    beast::tcp_stream m_stream;
    beast::flat_buffer m_buffer;
    std::optional<http::request_parser<http::string_body>> m_parser;
    bool m_bUpgraded = false;
};

class Listener : public std::enable_shared_from_this<Listener> {
public:
    Listener(Hub& hub, tcp::acceptor&& acceptor) : m_hub(hub), m_acceptor(std::move(acceptor)) {}
    void Accept()
    {
        m_acceptor.async_accept(asio::make_strand(m_hub.Io()),
                                beast::bind_front_handler(&Listener::OnAccept, shared_from_this()));
    }

private:
    void OnAccept(beast::error_code ec, tcp::socket socket)
    {
        if (!ec) {
            if (m_hub.AdmitConnection()) {
                // A live frame goes out the moment it is written, not after
                // the peer acknowledged the one before (Nagle's algorithm
                // with a delayed ACK held frames up to 40 ms).
                beast::error_code ecIgnored;
                socket.set_option(tcp::no_delay(true), ecIgnored);
                std::make_shared<HttpSession>(m_hub, std::move(socket))->Start();
            } else {
                beast::error_code ecIgnored;
                socket.close(ecIgnored);  // over the connection limit
            }
        }
        if (ec != asio::error::operation_aborted) Accept();
    }
    Hub& m_hub;
    tcp::acceptor m_acceptor;
};

std::string WebFolder()
{
    if (const char* psz = secure_getenv("TAVK05_WEB_DIR")) return psz;
    char szSelf[4096];
    const ssize_t nLen = readlink("/proc/self/exe", szSelf, sizeof szSelf - 1);
    if (nLen > 0) {
        szSelf[nLen] = '\0';
        std::string strDir(szSelf);
        strDir.erase(strDir.rfind('/'));
        const std::string strInstalled = strDir + "/../share/tavk05/web";
        if (access((strInstalled + "/index.html").c_str(), R_OK) == 0) return strInstalled;
    }
    return TAVK05_WEB_SOURCE_DIR;  // the build tree's command serves the sources' page
}

}  // namespace

void Listen(Hub& hub, const asio::ip::address& address, unsigned short* pPort, beast::error_code* pError)
{
    tcp::acceptor acceptor(hub.Io());
    const tcp::endpoint endpoint(address, *pPort);
    acceptor.open(endpoint.protocol(), *pError);
    if (*pError) return;
    if (address.is_v6()) acceptor.set_option(asio::ip::v6_only(true), *pError);
    acceptor.set_option(asio::socket_base::reuse_address(true), *pError);
    acceptor.bind(endpoint, *pError);
    if (*pError) return;
    acceptor.listen(asio::socket_base::max_listen_connections, *pError);
    if (*pError) return;
    *pPort = acceptor.local_endpoint().port();
    std::make_shared<Listener>(hub, std::move(acceptor))->Accept();
}

}  // namespace serve

namespace cli {

int CmdServe(const Options& opt)
{
    using namespace serve;
    std::string strError;
    TokenStore store;
    if (!store.Open(&strError)) {
        std::fprintf(stderr, "tavk05: serve: %s\n", strError.c_str());
        return EXIT_IO;
    }
    const std::string strWeb = WebFolder();
    if (!LoadWebFiles(strWeb, &strError)) {
        std::fprintf(stderr, "tavk05: serve: the technician's page: %s\n", strError.c_str());
        return EXIT_IO;
    }
    // The I/O context goes before the hub: its pending sessions refer to the
    // hub, and the scanner workers post into it until the hub joins them.
    auto pIoc = std::make_unique<asio::io_context>(1);
    asio::io_context& ioc = *pIoc;
    unsigned short nPort = static_cast<unsigned short>(opt.Number("port", 7405));
    Hub hub(ioc, nPort, store);
    // Loopback only: 127.0.0.1 must be had; ::1 where the machine has IPv6.
    beast::error_code ec;
    Listen(hub, asio::ip::make_address("127.0.0.1"), &nPort, &ec);
    if (ec) {
        std::fprintf(stderr, "tavk05: serve: cannot listen on 127.0.0.1:%u: %s\n", nPort, ec.message().c_str());
        return EXIT_IO;
    }
    hub.SetPort(nPort);
    Listen(hub, asio::ip::make_address("::1"), &nPort, &ec);
    const bool bV6 = !ec;
    const size_t nScanners = hub.OpenScanners();
    std::printf("%s\n", hub.TechnicianUrl().c_str());
    std::fflush(stdout);
    std::fprintf(stderr,
                 "tavk05 serve: listening on 127.0.0.1:%u%s, %zu scanner%s, paired origins in %s/origins.json\n", nPort,
                 bV6 ? (" and [::1]:" + std::to_string(nPort)).c_str() : " (no IPv6 loopback)", nScanners,
                 nScanners == 1 ? "" : "s", store.Folder().c_str());
    {
        // The signal set goes before the I/O context it belongs to.
        asio::signal_set signals(ioc, SIGINT, SIGTERM);
        signals.async_wait([&ioc](beast::error_code, int) { ioc.stop(); });
        std::signal(SIGPIPE, SIG_IGN);
        ioc.run();
    }
    hub.StopScanners();
    pIoc.reset();
    std::fprintf(stderr, "tavk05 serve: stopped\n");
    return EXIT_OK;
}

}  // namespace cli
