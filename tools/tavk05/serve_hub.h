// tavk05 serve: the service's state on its I/O thread (scanners, leases,
// pairings, technician sessions) and the WebSocket sessions it talks to.
#ifndef TAVK05_SERVE_HUB_H
#define TAVK05_SERVE_HUB_H

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <boost/asio.hpp>
#include <boost/beast.hpp>
#include <nlohmann/json.hpp>

#include "serve_scanner.h"
#include "serve_store.h"

namespace serve {

namespace asio = boost::asio;
namespace beast = boost::beast;
using Json = nlohmann::json;
using Clock = std::chrono::steady_clock;

// Limits of the service (documented in tavk05-serve(1)).
struct Limits {
    static constexpr size_t kConnections = 64;        // HTTP and WebSocket together
    static constexpr size_t kPerOrigin = 8;           // WebSocket sessions of one origin
    static constexpr size_t kPendingOrigins = 16;     // pairing requests waiting at once
    static constexpr size_t kMessageBytes = 16384;    // largest client message
    static constexpr size_t kQueuedBytes = 32 << 20;  // a client's unsent results and replies
    static constexpr int kMessagesPerSecond = 20;     // sustained rate; bursts up to kBurst
    static constexpr int kBurst = 40;
    static constexpr int kLeaseSeconds = 30;  // a lease outlives its last acquisition this long
    static constexpr long kMaxTimeoutMs = 120000;
};

class Hub;

enum Role { kRoleNone, kRoleClient, kRoleTechnician, kRolePending };

class WsSession : public std::enable_shared_from_this<WsSession> {
public:
    WsSession(Hub& hub, beast::tcp_stream&& stream, std::string strOrigin, bool bTechnician);
    ~WsSession();
    void Start(beast::http::request<beast::http::string_body> req);

    void SendJson(const Json& j);
    void SendBinary(std::shared_ptr<const std::vector<unsigned char>> pBytes);
    // A live frame: replaces one not yet sent (the oldest is dropped).
    void SendFrame(std::shared_ptr<const Frame> pFrame);
    void Close(const std::string& strReason);

    std::uint64_t Id() const { return m_nId; }
    const std::string& Origin() const { return m_strOrigin; }
    Role GetRole() const { return m_eRole; }
    void SetRole(Role e) { m_eRole = e; }
    bool Technician() const { return m_bTechnicianCookie; }
    unsigned long FramesDropped() const { return m_nDropped; }

    // Captures this session made, kept for more formats (the last few).
    struct Capture {
        unsigned nScanner = 0;
        bool bRolled = false;
        int nQuality = 0;
        std::vector<unsigned char> vecPixels;
    };
    std::map<unsigned, Capture> m_mapCaptures;
    unsigned m_nNextCapture = 1;

private:
    struct Out {
        std::shared_ptr<const std::string> pText;
        std::shared_ptr<const std::vector<unsigned char>> pBinary;
    };
    void Read();
    void OnRead(beast::error_code ec, size_t nBytes);
    void Write();
    void OnWrite(beast::error_code ec);
    void Enqueue(Out out, size_t nBytes);
    bool RateAllows();

    Hub& m_hub;
    beast::websocket::stream<beast::tcp_stream> m_ws;
    beast::flat_buffer m_buffer;
    std::string m_strOrigin;
    bool m_bTechnicianCookie;
    Role m_eRole = kRoleNone;
    std::uint64_t m_nId;
    std::deque<Out> m_queOut;
    size_t m_nQueuedBytes = 0;
    std::shared_ptr<const Frame> m_pFrame;  // the newest frame not yet sent
    std::shared_ptr<const Frame> m_pFrameWriting;
    bool m_bWriting = false;
    bool m_bClosing = false;
    unsigned long m_nDropped = 0;
    double m_dTokens = Limits::kBurst;
    Clock::time_point m_tLastRefill = Clock::now();
    int m_nRateErrors = 0;
};

class Hub {
public:
    Hub(asio::io_context& ioc, unsigned short nPort, TokenStore& store);
    ~Hub();

    // Opens every scanner present (0..7); the number found.
    size_t OpenScanners();
    // Stops every acquisition and joins the workers.
    void StopScanners() { m_mapScanners.clear(); }
    unsigned short Port() const { return m_nPort; }
    void SetPort(unsigned short n) { m_nPort = n; }
    asio::io_context& Io() { return m_ioc; }

    // Host and Origin of HTTP requests and upgrades.
    bool HostAllowed(const std::string& strHost) const;
    bool SelfOrigin(const std::string& strOrigin) const;
    bool OriginPaired(const std::string& strOrigin) const;
    // The one-time secret of the technician's URL becomes a cookie value.
    std::string TechnicianUrl() const;
    bool ExchangeSecret(const std::string& strSecret, std::string* pCookie);
    bool CookieValid(const std::string& strCookie) const;

    // Connection counting.
    bool AdmitConnection();
    void ConnectionGone();
    bool AdmitOrigin(const std::string& strOrigin) const;

    void Register(const std::shared_ptr<WsSession>& p);
    void Unregister(WsSession* p);
    void OnMessage(const std::shared_ptr<WsSession>& p, const Json& msg);
    void Audit(const WsSession* p, const std::string& strText);
    std::uint64_t NextId() { return ++m_nLastId; }

private:
    struct Lease {
        std::uint64_t nHolder = 0;  // session id, 0 free
        bool bRunning = false;
        std::uint64_t nJob = 0;
        JobKind eKind = kJobCapture;
        std::string strFormat;  // format of a capture's first result
        Clock::time_point tExpiry;
    };
    struct Scanner {
        std::unique_ptr<ScannerWorker> pWorker;
        Lease lease;
        unsigned long nFramesSent = 0;
    };

    void Hello(const std::shared_ptr<WsSession>& p, const Json& msg);
    void ClientRequest(const std::shared_ptr<WsSession>& p, const std::string& strType, const Json& msg);
    void TechnicianRequest(const std::shared_ptr<WsSession>& p, const std::string& strType, const Json& msg);
    void Acquire(const std::shared_ptr<WsSession>& p, const std::string& strType, const Json& msg);
    void SendResult(WsSession& s, unsigned nCapture, const std::string& strFormat, const Json& jId);
    Json ScannerList() const;
    Json PairingState() const;
    void BroadcastPairings();
    void OnFrame(unsigned nScanner, std::shared_ptr<const Frame> pFrame);
    void OnDone(unsigned nScanner, JobResult result);
    void ReleaseAll(std::uint64_t nSession);
    std::shared_ptr<WsSession> Find(std::uint64_t nId) const;
    void Error(WsSession& s, const std::string& strCode, const std::string& strText, const Json& jId);

    asio::io_context& m_ioc;
    unsigned short m_nPort;
    TokenStore& m_store;
    std::map<unsigned, Scanner> m_mapScanners;
    std::map<std::uint64_t, std::weak_ptr<WsSession>> m_mapSessions;
    std::map<std::string, std::set<std::uint64_t>> m_mapPending;  // origin -> sessions waiting for approval
    std::string m_strSecret;
    std::set<std::string> m_setCookies;
    size_t m_nConnections = 0;
    std::uint64_t m_nLastId = 0;
    std::uint64_t m_nLastJob = 0;
};

// Accepts TCP connections on one loopback address and hands each to an
// HTTP session (which upgrades to WebSocket when asked).
void Listen(Hub& hub, const asio::ip::address& address, unsigned short* pPort, beast::error_code* pError);

}  // namespace serve

#endif
