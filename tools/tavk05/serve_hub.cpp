// tavk05 serve: the protocol. Everything here runs on the I/O thread; the
// scanner workers reach it only through posted work.
#include "serve_hub.h"

#include <time.h>

#include <cstdio>

#include "cli.h"
#include "tavk05/version.h"

namespace serve {

namespace websocket = beast::websocket;
namespace http = beast::http;

namespace {

const int kProtocol = 1;
const size_t kKeptCaptures = 8;  // one for each scanner

std::string UtcNow()
{
    char sz[32];
    const time_t t = time(nullptr);
    struct tm tmNow;
    gmtime_r(&t, &tmNow);
    strftime(sz, sizeof sz, "%Y-%m-%dT%H:%M:%SZ", &tmNow);
    return sz;
}

const char* KindName(JobKind e)
{
    switch (e) {
        case kJobSettings:
            return "settings";
        case kJobBackground:
            return "background";
        case kJobCapture:
            return "capture";
        case kJobLive:
            return "live";
        case kJobRoll:
            return "roll";
    }
    return "?";
}

// An optional whole number member in [nMin, nMax]: true when absent (value
// unchanged) or valid; false for another type or a value out of range.
bool OptionalNumber(const Json& msg, const char* pszName, long nMin, long nMax, long* pValue)
{
    if (!msg.contains(pszName)) return true;
    const Json& v = msg[pszName];
    if (!v.is_number_integer()) return false;
    const long long n = v.get<long long>();
    if (n < nMin || n > nMax) return false;
    *pValue = static_cast<long>(n);
    return true;
}

}  // namespace

// ---- WebSocket session ----

WsSession::WsSession(Hub& hub, beast::tcp_stream&& stream, std::string strOrigin, bool bTechnician)
    : m_hub(hub),
      m_ws(std::move(stream)),
      m_strOrigin(std::move(strOrigin)),
      m_bTechnicianCookie(bTechnician),
      m_nId(hub.NextId())
{
}

WsSession::~WsSession() { m_hub.ConnectionGone(); }

void WsSession::Start(http::request<http::string_body> req)
{
    beast::get_lowest_layer(m_ws).expires_never();
    m_ws.set_option(websocket::stream_base::timeout::suggested(beast::role_type::server));
    m_ws.read_message_max(Limits::kMessageBytes);
    // A message goes out as one WebSocket frame in one write, not in 4 KiB
    // fragments of a write each (a live frame is 360 kB).
    m_ws.auto_fragment(false);
    m_ws.set_option(websocket::stream_base::decorator([](websocket::response_type& res) {
        res.set(http::field::server, "tavk05-serve");
        res.set(http::field::cache_control, "no-store");
        res.set(http::field::vary, "Origin");
    }));
    auto self = shared_from_this();
    m_ws.async_accept(req, [self](beast::error_code ec) {
        if (ec) return;
        self->m_hub.Register(self);
        self->Read();
    });
}

void WsSession::Read() { m_ws.async_read(m_buffer, beast::bind_front_handler(&WsSession::OnRead, shared_from_this())); }

bool WsSession::RateAllows()
{
    const Clock::time_point tNow = Clock::now();
    const double dSeconds = std::chrono::duration<double>(tNow - m_tLastRefill).count();
    m_tLastRefill = tNow;
    m_dTokens = std::min<double>(Limits::kBurst, m_dTokens + dSeconds * Limits::kMessagesPerSecond);
    if (m_dTokens < 1.0) return false;
    m_dTokens -= 1.0;
    return true;
}

void WsSession::OnRead(beast::error_code ec, size_t)
{
    if (ec) {
        // Gone, closed, or a message over the limit (the stream has closed
        // with 1009); the hub stops whatever the session had running.
        m_hub.Unregister(this);
        return;
    }
    const bool bText = m_ws.got_text();
    const std::string strText = beast::buffers_to_string(m_buffer.data());
    m_buffer.consume(m_buffer.size());
    if (!RateAllows()) {
        if (++m_nRateErrors > 100) {
            Close("too many messages");
            return;
        }
        SendJson({{"type", "error"},
                  {"code", "rate-limited"},
                  {"message", "more than " + std::to_string(Limits::kMessagesPerSecond) + " messages a second"}});
    } else if (!bText) {
        SendJson({{"type", "error"}, {"code", "bad-message"}, {"message", "binary messages are not accepted"}});
    } else {
        const Json msg = Json::parse(strText, nullptr, false);
        if (msg.is_discarded()) {
            SendJson({{"type", "error"}, {"code", "bad-json"}, {"message", "the message is not JSON"}});
        } else {
            m_hub.OnMessage(shared_from_this(), msg);
        }
    }
    if (!m_bClosing) Read();
}

void WsSession::Enqueue(Out out, size_t nBytes)
{
    if (m_bClosing) return;
    if (m_nQueuedBytes + nBytes > Limits::kQueuedBytes) {
        // A client that reads nothing does not make the service hold its data.
        Close("client does not read");
        return;
    }
    m_nQueuedBytes += nBytes;
    m_queOut.push_back(std::move(out));
    Write();
}

void WsSession::SendJson(const Json& j)
{
    auto p = std::make_shared<const std::string>(j.dump(-1, ' ', false, Json::error_handler_t::replace));
    Enqueue({p, nullptr}, p->size());
}

void WsSession::SendBinary(std::shared_ptr<const std::vector<unsigned char>> pBytes)
{
    const size_t n = pBytes->size();
    Enqueue({nullptr, std::move(pBytes)}, n);
}

void WsSession::SendFrame(std::shared_ptr<const Frame> pFrame)
{
    if (m_bClosing) return;
    if (m_pFrame) ++m_nDropped;
    m_pFrame = std::move(pFrame);
    Write();
}

void WsSession::Write()
{
    if (m_bWriting || m_bClosing) return;
    if (!m_queOut.empty()) {
        m_bWriting = true;
        const Out& out = m_queOut.front();
        m_ws.text(out.pText != nullptr);
        auto self = shared_from_this();
        if (out.pText) {
            m_ws.async_write(asio::buffer(*out.pText), [self](beast::error_code ec, size_t) { self->OnWrite(ec); });
        } else {
            m_ws.async_write(asio::buffer(*out.pBinary), [self](beast::error_code ec, size_t) { self->OnWrite(ec); });
        }
        return;
    }
    if (m_pFrame) {
        m_bWriting = true;
        m_pFrameWriting = std::move(m_pFrame);
        m_pFrame.reset();
        m_ws.binary(true);
        auto self = shared_from_this();
        m_ws.async_write(asio::buffer(m_pFrameWriting->vecBytes), [self](beast::error_code ec, size_t) {
            self->m_pFrameWriting.reset();
            self->m_bWriting = false;
            if (ec) return;
            self->Write();
        });
    }
}

void WsSession::OnWrite(beast::error_code ec)
{
    m_bWriting = false;
    const Out& out = m_queOut.front();
    m_nQueuedBytes -= out.pText ? out.pText->size() : out.pBinary->size();
    m_queOut.pop_front();
    if (ec) return;
    Write();
}

void WsSession::Close(const std::string& strReason)
{
    if (m_bClosing) return;
    m_bClosing = true;
    m_hub.Unregister(this);
    auto self = shared_from_this();
    // The stream lets the close wait for a write in flight.
    m_ws.async_close(websocket::close_reason(websocket::close_code::policy_error, strReason),
                     [self](beast::error_code) {});
}

// ---- hub ----

Hub::Hub(asio::io_context& ioc, unsigned short nPort, TokenStore& store) : m_ioc(ioc), m_nPort(nPort), m_store(store)
{
    RandomHex(16, &m_strSecret);
}

Hub::~Hub()
{
    m_mapScanners.clear();  // stops and joins the workers
}

size_t Hub::OpenScanners()
{
    for (unsigned n = 0; n <= 7; ++n) {
        auto pWorker = std::make_unique<ScannerWorker>(
            n, [this, n](std::shared_ptr<const Frame> p) { asio::post(m_ioc, [this, n, p]() { OnFrame(n, p); }); },
            [this, n](JobResult r) {
                asio::post(m_ioc, [this, n, r = std::move(r)]() mutable { OnDone(n, std::move(r)); });
            });
        if (pWorker->Start()) m_mapScanners[n].pWorker = std::move(pWorker);
    }
    return m_mapScanners.size();
}

bool Hub::HostAllowed(const std::string& strHost) const
{
    const std::string strPort = ":" + std::to_string(m_nPort);
    return strHost == "127.0.0.1" + strPort || strHost == "localhost" + strPort || strHost == "[::1]" + strPort;
}

bool Hub::SelfOrigin(const std::string& strOrigin) const
{
    const std::string strPort = ":" + std::to_string(m_nPort);
    return strOrigin == "http://127.0.0.1" + strPort || strOrigin == "http://localhost" + strPort ||
           strOrigin == "http://[::1]" + strPort;
}

bool Hub::OriginPaired(const std::string& strOrigin) const { return m_store.Tokens().count(strOrigin) != 0; }

std::string Hub::TechnicianUrl() const
{
    return "http://127.0.0.1:" + std::to_string(m_nPort) + "/login?secret=" + m_strSecret;
}

bool Hub::ExchangeSecret(const std::string& strSecret, std::string* pCookie)
{
    if (m_strSecret.empty() || !SecretEquals(strSecret, m_strSecret)) return false;
    // One use: the next technician's URL has a secret of its own.
    RandomHex(16, &m_strSecret);
    if (!RandomHex(32, pCookie)) return false;
    m_setCookies.insert(*pCookie);
    if (m_setCookies.size() > 64) m_setCookies.erase(m_setCookies.begin());
    std::fprintf(stderr, "tavk05 serve: %s technician's page opened; next technician's URL: %s\n", UtcNow().c_str(),
                 TechnicianUrl().c_str());
    return true;
}

bool Hub::CookieValid(const std::string& strCookie) const
{
    bool bFound = false;
    for (const std::string& str : m_setCookies) bFound |= SecretEquals(str, strCookie);
    return bFound;
}

bool Hub::AdmitConnection()
{
    if (m_nConnections >= Limits::kConnections) return false;
    ++m_nConnections;
    return true;
}

void Hub::ConnectionGone()
{
    if (m_nConnections > 0) --m_nConnections;
}

bool Hub::AdmitOrigin(const std::string& strOrigin) const
{
    size_t n = 0;
    for (const auto& [nId, wp] : m_mapSessions) {
        if (auto p = wp.lock(); p && p->Origin() == strOrigin) ++n;
    }
    return n < Limits::kPerOrigin;
}

void Hub::Register(const std::shared_ptr<WsSession>& p) { m_mapSessions[p->Id()] = p; }

void Hub::Unregister(WsSession* p)
{
    if (m_mapSessions.erase(p->Id()) == 0) return;
    ReleaseAll(p->Id());
    for (auto it = m_mapPending.begin(); it != m_mapPending.end();) {
        it->second.erase(p->Id());
        it = it->second.empty() ? m_mapPending.erase(it) : std::next(it);
    }
    if (p->GetRole() == kRoleClient || p->GetRole() == kRoleTechnician) {
        Audit(p, "disconnected, " + std::to_string(p->FramesDropped()) + " frames dropped");
    }
    BroadcastPairings();
}

std::shared_ptr<WsSession> Hub::Find(std::uint64_t nId) const
{
    const auto it = m_mapSessions.find(nId);
    return it == m_mapSessions.end() ? nullptr : it->second.lock();
}

void Hub::Audit(const WsSession* p, const std::string& strText)
{
    std::fprintf(stderr, "audit: %s session=%llu origin=%s %s\n", UtcNow().c_str(),
                 static_cast<unsigned long long>(p != nullptr ? p->Id() : 0),
                 p != nullptr ? (p->GetRole() == kRoleTechnician ? "technician" : p->Origin().c_str()) : "-",
                 strText.c_str());
}

void Hub::Error(WsSession& s, const std::string& strCode, const std::string& strText, const Json& jId)
{
    Json j = {{"type", "error"}, {"code", strCode}, {"message", strText}};
    if (!jId.is_null()) j["id"] = jId;
    s.SendJson(j);
}

void Hub::OnMessage(const std::shared_ptr<WsSession>& p, const Json& msg)
{
    if (!msg.is_object() || !msg.contains("type") || !msg["type"].is_string()) {
        Error(*p, "bad-message", "a message is a JSON object with a string \"type\"", nullptr);
        return;
    }
    const Json jId = msg.contains("id") && msg["id"].is_number_integer() ? msg["id"] : Json();
    if (msg.contains("id") && jId.is_null()) {
        Error(*p, "bad-message", "\"id\" must be a whole number", nullptr);
        return;
    }
    const std::string strType = msg["type"];
    if (p->GetRole() == kRoleNone) {
        if (strType != "hello") {
            Error(*p, "hello-first", "the first message must be hello", jId);
            p->Close("hello first");
            return;
        }
        Hello(p, msg);
        return;
    }
    if (p->GetRole() == kRolePending) {
        Error(*p, "not-paired", "waiting for the technician to approve " + p->Origin(), jId);
        return;
    }
    if (p->GetRole() == kRoleTechnician &&
        (strType == "approve" || strType == "deny" || strType == "revoke" || strType == "pairings")) {
        TechnicianRequest(p, strType, msg);
        return;
    }
    ClientRequest(p, strType, msg);
}

void Hub::Hello(const std::shared_ptr<WsSession>& p, const Json& msg)
{
    const Json jId = msg.contains("id") ? msg["id"] : Json();
    if (!msg.contains("version") || !msg["version"].is_number_integer() ||
        msg["version"].get<long long>() != kProtocol) {
        Error(*p, "version", "this service speaks protocol version " + std::to_string(kProtocol), jId);
        p->Close("protocol version");
        return;
    }
    if (msg.contains("token") && !msg["token"].is_string()) {
        Error(*p, "bad-message", "\"token\" must be a string", jId);
        p->Close("bad hello");
        return;
    }
    Json welcome = {{"type", "welcome"},
                    {"protocol", kProtocol},
                    {"service", Tavk05GetVersion()},
                    {"formats", ImageFormats()},
                    {"scanners", ScannerList()}};
    if (!jId.is_null()) welcome["id"] = jId;
    if (SelfOrigin(p->Origin())) {
        // The page the service serves: the technician, by the cookie.
        if (!p->Technician()) {
            Error(*p, "unauthorized", "open the technician's URL that tavk05 serve printed", jId);
            p->Close("no technician cookie");
            return;
        }
        p->SetRole(kRoleTechnician);
        welcome["role"] = "technician";
        p->SendJson(welcome);
        p->SendJson(PairingState());
        Audit(p.get(), "connected");
        return;
    }
    const auto& tokens = m_store.Tokens();
    const auto it = tokens.find(p->Origin());
    if (it != tokens.end()) {
        const std::string strToken = msg.contains("token") ? msg["token"].get<std::string>() : "";
        if (!SecretEquals(strToken, it->second)) {
            Error(*p, "unauthorized", "no valid token for " + p->Origin() + ": ask the technician to pair it again",
                  jId);
            Audit(p.get(), "refused: token missing or wrong");
            p->Close("token");
            return;
        }
        p->SetRole(kRoleClient);
        welcome["role"] = "client";
        p->SendJson(welcome);
        Audit(p.get(), "connected");
        return;
    }
    if (msg.contains("token")) {
        // A token for an origin the technician revoked (or never paired).
        Error(*p, "unauthorized", p->Origin() + " is not paired", jId);
        Audit(p.get(), "refused: origin not paired");
        p->Close("not paired");
        return;
    }
    if (m_mapPending.count(p->Origin()) == 0 && m_mapPending.size() >= Limits::kPendingOrigins) {
        Error(*p, "busy", "too many pairing requests are waiting", jId);
        p->Close("pairing requests");
        return;
    }
    m_mapPending[p->Origin()].insert(p->Id());
    p->SetRole(kRolePending);
    Json j = {{"type", "pairing"}, {"state", "pending"}, {"origin", p->Origin()}};
    if (!jId.is_null()) j["id"] = jId;
    p->SendJson(j);
    Audit(p.get(), "asks to use the scanner");
    BroadcastPairings();
}

Json Hub::PairingState() const
{
    Json j = {{"type", "pairings"}, {"pending", Json::array()}, {"allowed", Json::array()}};
    for (const auto& [strOrigin, setIds] : m_mapPending) j["pending"].push_back(strOrigin);
    for (const auto& [strOrigin, strToken] : m_store.Tokens()) j["allowed"].push_back(strOrigin);
    return j;
}

void Hub::BroadcastPairings()
{
    const Json j = PairingState();
    for (const auto& [nId, wp] : m_mapSessions) {
        if (auto p = wp.lock(); p && p->GetRole() == kRoleTechnician) p->SendJson(j);
    }
}

void Hub::TechnicianRequest(const std::shared_ptr<WsSession>& p, const std::string& strType, const Json& msg)
{
    const Json jId = msg.contains("id") ? msg["id"] : Json();
    if (strType == "pairings") {
        p->SendJson(PairingState());
        return;
    }
    if (!msg.contains("origin") || !msg["origin"].is_string()) {
        Error(*p, "bad-message", strType + " needs \"origin\"", jId);
        return;
    }
    const std::string strOrigin = msg["origin"];
    std::string strError;
    if (strType == "approve") {
        const auto it = m_mapPending.find(strOrigin);
        if (it == m_mapPending.end()) {
            Error(*p, "not-found", strOrigin + " is not asking", jId);
            return;
        }
        std::string strToken;
        if (!RandomHex(32, &strToken) || !m_store.Set(strOrigin, strToken, &strError)) {
            Error(*p, "store", "the pairing could not be saved: " + strError, jId);
            return;
        }
        const std::set<std::uint64_t> setIds = it->second;
        m_mapPending.erase(it);
        Audit(p.get(), "approved " + strOrigin);
        for (const std::uint64_t nId : setIds) {
            if (auto pClient = Find(nId)) {
                pClient->SetRole(kRoleClient);
                pClient->SendJson({{"type", "paired"}, {"origin", strOrigin}, {"token", strToken}});
                pClient->SendJson({{"type", "welcome"},
                                   {"protocol", kProtocol},
                                   {"service", Tavk05GetVersion()},
                                   {"formats", ImageFormats()},
                                   {"scanners", ScannerList()},
                                   {"role", "client"}});
            }
        }
    } else if (strType == "deny") {
        const auto it = m_mapPending.find(strOrigin);
        const std::set<std::uint64_t> setIds = it != m_mapPending.end() ? it->second : std::set<std::uint64_t>();
        m_mapPending.erase(strOrigin);
        Audit(p.get(), "denied " + strOrigin);
        for (const std::uint64_t nId : setIds) {
            if (auto pClient = Find(nId)) {
                Error(*pClient, "denied", "the technician refused " + strOrigin, nullptr);
                pClient->Close("denied");
            }
        }
    } else {  // revoke
        if (!OriginPaired(strOrigin)) {
            Error(*p, "not-found", strOrigin + " is not paired", jId);
            return;
        }
        if (!m_store.Remove(strOrigin, &strError)) {
            Error(*p, "store", "the revocation could not be saved: " + strError, jId);
            return;
        }
        Audit(p.get(), "revoked " + strOrigin);
        std::vector<std::shared_ptr<WsSession>> vecGone;
        for (const auto& [nId, wp] : m_mapSessions) {
            if (auto pClient = wp.lock(); pClient && pClient->Origin() == strOrigin) vecGone.push_back(pClient);
        }
        for (auto& pClient : vecGone) {
            Error(*pClient, "revoked", "the technician revoked " + strOrigin, nullptr);
            pClient->Close("revoked");
        }
    }
    Json j = {{"type", "ok"}, {"request", strType}, {"origin", strOrigin}};
    if (!jId.is_null()) j["id"] = jId;
    p->SendJson(j);
    BroadcastPairings();
}

Json Hub::ScannerList() const
{
    Json j = Json::array();
    for (const auto& [nIndex, scanner] : m_mapScanners) {
        const ScannerInfo& info = scanner.pWorker->Info();
        const Settings set = scanner.pWorker->CurrentSettings();
        j.push_back(
            {{"scanner", nIndex},
             {"deviceType", info.nDeviceType},
             {"firmware", info.nFirmware},
             {"deviceId", info.strDeviceId},
             {"width", 600},
             {"height", 600},
             {"markWidth", info.nImageWidth},
             {"markHeight", info.nImageHeight},
             {"roll", info.bRoll},
             {"busy", scanner.lease.nHolder != 0 && (scanner.lease.bRunning || scanner.lease.tExpiry > Clock::now())},
             {"settings", {{"brightness", set.nBrightness}, {"contrast", set.nContrast}, {"gain", set.nGain}}}});
    }
    return j;
}

void Hub::ClientRequest(const std::shared_ptr<WsSession>& p, const std::string& strType, const Json& msg)
{
    const Json jId = msg.contains("id") ? msg["id"] : Json();
    if (strType == "hello") {
        Error(*p, "bad-message", "hello was already said", jId);
    } else if (strType == "scanners") {
        Json j = {{"type", "scanners"}, {"scanners", ScannerList()}};
        if (!jId.is_null()) j["id"] = jId;
        p->SendJson(j);
    } else if (strType == "result") {
        long nCapture = 0;
        if (!msg.contains("capture") || !OptionalNumber(msg, "capture", 1, 0x7fffffff, &nCapture) ||
            !msg.contains("format") || !msg["format"].is_string()) {
            Error(*p, "bad-message", "result needs \"capture\" (a number) and \"format\" (a string)", jId);
            return;
        }
        SendResult(*p, static_cast<unsigned>(nCapture), msg["format"], jId);
    } else if (strType == "settings" || strType == "background" || strType == "capture" || strType == "live" ||
               strType == "roll" || strType == "stop" || strType == "release") {
        Acquire(p, strType, msg);
    } else {
        Error(*p, "unknown-type", "no message type '" + strType.substr(0, 40) + "'", jId);
    }
}

void Hub::Acquire(const std::shared_ptr<WsSession>& p, const std::string& strType, const Json& msg)
{
    const Json jId = msg.contains("id") ? msg["id"] : Json();
    long nScanner = -1;
    if (!msg.contains("scanner") || !OptionalNumber(msg, "scanner", 0, 7, &nScanner)) {
        Error(*p, "bad-message", strType + " needs \"scanner\", a number 0..7", jId);
        return;
    }
    const auto it = m_mapScanners.find(static_cast<unsigned>(nScanner));
    if (it == m_mapScanners.end()) {
        Error(*p, "no-scanner", "no scanner " + std::to_string(nScanner), jId);
        return;
    }
    Scanner& scanner = it->second;
    Lease& lease = scanner.lease;
    const Clock::time_point tNow = Clock::now();
    // A running acquisition holds the scanner until it has stopped, even when
    // its client is gone; an idle lease lapses with its client or its time.
    const bool bHeld = lease.nHolder != 0 && lease.nHolder != p->Id() &&
                       (lease.bRunning || (lease.tExpiry > tNow && Find(lease.nHolder) != nullptr));
    if (bHeld) {
        Json j = {{"type", "busy"},
                  {"scanner", nScanner},
                  {"message", "another client is using scanner " + std::to_string(nScanner)}};
        if (!lease.bRunning) {
            j["retryMs"] = std::chrono::duration_cast<std::chrono::milliseconds>(lease.tExpiry - tNow).count();
        }
        if (!jId.is_null()) j["id"] = jId;
        p->SendJson(j);
        return;
    }
    if (strType == "stop" || strType == "release") {
        if (lease.nHolder == p->Id()) {
            if (lease.bRunning) scanner.pWorker->RequestStop();
            if (strType == "release") {
                lease.tExpiry = tNow;
                if (!lease.bRunning) lease.nHolder = 0;
            }
        }
        Json j = {{"type", "ok"}, {"request", strType}, {"scanner", nScanner}};
        if (!jId.is_null()) j["id"] = jId;
        p->SendJson(j);
        return;
    }
    if (lease.nHolder == p->Id() && lease.bRunning) {
        Error(*p, "running",
              "scanner " + std::to_string(nScanner) + " is still busy with your " + KindName(lease.eKind) +
                  ": stop it first",
              jId);
        return;
    }
    Job job;
    job.eKind = strType == "settings"     ? kJobSettings
                : strType == "background" ? kJobBackground
                : strType == "capture"    ? kJobCapture
                : strType == "live"       ? kJobLive
                                          : kJobRoll;
    std::string strFormat = "png";
    bool bOk = OptionalNumber(msg, "timeout", 1, Limits::kMaxTimeoutMs, &job.nTimeoutMs) &&
               OptionalNumber(msg, "threshold", 0, 100, &job.nThreshold);
    if (job.eKind == kJobSettings) {
        bOk = bOk && OptionalNumber(msg, "brightness", 0, 100, &job.settings.nBrightness) &&
              OptionalNumber(msg, "contrast", 0, 100, &job.settings.nContrast) &&
              OptionalNumber(msg, "gain", 1, 8, &job.settings.nGain);
        const long g = job.settings.nGain;
        bOk = bOk && (g < 0 || (g & (g - 1)) == 0);
    }
    if (bOk && msg.contains("format")) {
        bOk = msg["format"].is_string();
        if (bOk) strFormat = msg["format"];
        bool bKnown = false;
        for (const std::string& str : ImageFormats()) bKnown |= str == strFormat;
        bOk = bOk && bKnown;
    }
    if (!bOk) {
        Error(*p, "bad-value", strType + ": a value is of the wrong type or out of its range (tavk05-serve(1))", jId);
        return;
    }
    if (job.eKind == kJobRoll && !scanner.pWorker->Info().bRoll) {
        Error(*p, "roll-not-supported", "scanner " + std::to_string(nScanner) + " cannot compose rolled prints", jId);
        return;
    }
    job.nJobId = ++m_nLastJob;
    lease.nHolder = p->Id();
    lease.bRunning = true;
    lease.nJob = job.nJobId;
    lease.eKind = job.eKind;
    lease.strFormat = strFormat;
    lease.tExpiry = tNow + std::chrono::seconds(Limits::kLeaseSeconds);
    scanner.nFramesSent = 0;
    scanner.pWorker->Submit(job);
    Json j = {{"type", "started"},
              {"request", strType},
              {"scanner", nScanner},
              {"job", job.nJobId},
              {"leaseMs", Limits::kLeaseSeconds * 1000}};
    if (!jId.is_null()) j["id"] = jId;
    p->SendJson(j);
    if (job.eKind != kJobSettings)
        Audit(p.get(), std::string(KindName(job.eKind)) + " started on scanner " + std::to_string(nScanner));
}

void Hub::OnFrame(unsigned nScanner, std::shared_ptr<const Frame> pFrame)
{
    Scanner& scanner = m_mapScanners[nScanner];
    if (!scanner.lease.bRunning) return;
    if (auto p = Find(scanner.lease.nHolder)) {
        ++scanner.nFramesSent;
        p->SendFrame(std::move(pFrame));
    } else {
        // The client is gone: the acquisition ends at the next frame.
        scanner.pWorker->RequestStop();
    }
}

void Hub::OnDone(unsigned nScanner, JobResult r)
{
    Scanner& scanner = m_mapScanners[nScanner];
    Lease& lease = scanner.lease;
    if (lease.nJob != r.nJobId) return;
    lease.bRunning = false;
    lease.tExpiry = Clock::now() + std::chrono::seconds(Limits::kLeaseSeconds);
    auto p = Find(lease.nHolder);
    const std::string strOutcome = r.bStopped            ? "stopped"
                                   : !r.strError.empty() ? r.strError
                                   : r.nStatus == 0      ? "ok"
                                                         : "status " + std::to_string(r.nStatus);
    if (!p) {
        lease.nHolder = 0;
        Audit(nullptr, std::string(KindName(r.eKind)) + " on scanner " + std::to_string(nScanner) +
                           " ended without its client: " + strOutcome);
        return;
    }
    Json j = {{"type", "done"},        {"request", KindName(r.eKind)}, {"scanner", nScanner},
              {"job", r.nJobId},       {"status", r.nStatus},          {"statusText", cli::StatusText(r.nStatus)},
              {"stopped", r.bStopped}, {"frames", r.nFrames}};
    if (!r.strError.empty()) j["error"] = r.strError;
    if (r.eKind == kJobSettings) {
        j["settings"] = {{"brightness", r.nBrightness}, {"contrast", r.nContrast}, {"gain", r.nGain}};
    }
    unsigned nCapture = 0;
    if (r.bImage) {
        nCapture = p->m_nNextCapture++;
        j["capture"] = nCapture;
        j["quality"] = r.nQuality;
        WsSession::Capture& c = p->m_mapCaptures[nCapture];
        c.nScanner = nScanner;
        c.bRolled = r.eKind == kJobRoll;
        c.nQuality = r.nQuality;
        c.vecPixels = std::move(r.vecImage);
        while (p->m_mapCaptures.size() > kKeptCaptures) p->m_mapCaptures.erase(p->m_mapCaptures.begin());
    }
    if (r.eKind != kJobSettings) {
        Audit(p.get(),
              std::string(KindName(r.eKind)) + " on scanner " + std::to_string(nScanner) + ": " + strOutcome + ", " +
                  std::to_string(r.nFrames) + " frames, " + std::to_string(scanner.nFramesSent) + " sent" +
                  (nCapture != 0 ? ", capture " + std::to_string(nCapture) + " quality " + std::to_string(r.nQuality)
                                 : ""));
    }
    p->SendJson(j);
    if (nCapture != 0) SendResult(*p, nCapture, lease.strFormat, nullptr);
}

void Hub::SendResult(WsSession& s, unsigned nCapture, const std::string& strFormat, const Json& jId)
{
    const auto it = s.m_mapCaptures.find(nCapture);
    if (it == s.m_mapCaptures.end()) {
        Error(s, "not-found",
              "no capture " + std::to_string(nCapture) + " (the last " + std::to_string(kKeptCaptures) + " are kept)",
              jId);
        return;
    }
    auto pBytes = std::make_shared<std::vector<unsigned char>>();
    std::string strError;
    if (!EncodeImage(strFormat, it->second.vecPixels, it->second.bRolled, it->second.nQuality, pBytes.get(),
                     &strError)) {
        Error(s, "format", strFormat.substr(0, 16) + ": " + strError, jId);
        return;
    }
    Json j = {{"type", "result"},
              {"capture", nCapture},
              {"scanner", it->second.nScanner},
              {"format", strFormat},
              {"mediaType", FormatMediaType(strFormat)},
              {"bytes", pBytes->size()},
              {"quality", it->second.nQuality},
              {"rolled", it->second.bRolled}};
    if (!jId.is_null()) j["id"] = jId;
    Audit(&s, "result of capture " + std::to_string(nCapture) + " as " + strFormat + ", " +
                  std::to_string(pBytes->size()) + " bytes");
    s.SendJson(j);
    s.SendBinary(std::move(pBytes));
}

void Hub::ReleaseAll(std::uint64_t nSession)
{
    for (auto& [nIndex, scanner] : m_mapScanners) {
        if (scanner.lease.nHolder != nSession) continue;
        if (scanner.lease.bRunning) {
            scanner.pWorker->RequestStop();  // the holder's job ends; OnDone frees the lease
        } else {
            scanner.lease.nHolder = 0;
        }
    }
}

}  // namespace serve
