// tavk05 serve: tokens file, secrets and image formats.
#include "serve_store.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <nlohmann/json.hpp>

#include "imagefile/png_grey.h"
#include "tavk05/records.h"

namespace serve {

namespace {

const off_t kMaxTokensFile = 256 * 1024;
const char kTokensName[] = "origins.json";

// A descriptor closed when it goes out of scope.
class Fd {
public:
    explicit Fd(int n = -1) : m_n(n) {}
    ~Fd()
    {
        if (m_n >= 0) close(m_n);
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    int Get() const { return m_n; }

private:
    int m_n;
};

std::string Errno(const std::string& strWhat) { return strWhat + ": " + std::strerror(errno); }

// Opens a folder of ours: created (0700) when missing, never through a link
// in its last component, owned by us; its mode is narrowed to 0700.
int OpenOwnFolder(int nParent, const char* pszName, const std::string& strShown, std::string* pError)
{
    if (mkdirat(nParent, pszName, 0700) != 0 && errno != EEXIST) {
        *pError = Errno("cannot create " + strShown);
        return -1;
    }
    const int n = openat(nParent, pszName, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (n < 0) {
        *pError = Errno(strShown + " is not a folder of its own (a link?)");
        return -1;
    }
    struct stat st;
    if (fstat(n, &st) != 0 || st.st_uid != geteuid()) {
        close(n);
        *pError = strShown + " belongs to another user";
        return -1;
    }
    if ((st.st_mode & 077) != 0) fchmod(n, 0700);
    return n;
}

}  // namespace

bool RandomHex(size_t nBytes, std::string* pHex)
{
    std::vector<unsigned char> vec(nBytes);
    size_t nGot = 0;
    while (nGot < nBytes) {
        const ssize_t n = getrandom(vec.data() + nGot, nBytes - nGot, 0);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        nGot += static_cast<size_t>(n);
    }
    static const char kHex[] = "0123456789abcdef";
    pHex->clear();
    for (const unsigned char b : vec) {
        *pHex += kHex[b >> 4];
        *pHex += kHex[b & 15];
    }
    return true;
}

bool SecretEquals(const std::string& strA, const std::string& strB)
{
    if (strA.size() != strB.size()) return false;
    unsigned char nDiff = 0;
    for (size_t i = 0; i < strA.size(); ++i) nDiff |= static_cast<unsigned char>(strA[i] ^ strB[i]);
    return nDiff == 0;
}

bool PairableOrigin(const std::string& strOrigin)
{
    if (strOrigin.size() > 300) return false;
    std::string strHost;
    bool bHttps = false;
    if (strOrigin.compare(0, 8, "https://") == 0) {
        bHttps = true;
        strHost = strOrigin.substr(8);
    } else if (strOrigin.compare(0, 7, "http://") == 0) {
        strHost = strOrigin.substr(7);
    } else {
        return false;
    }
    // HOST[:PORT], HOST lower-case letters, digits, dots and dashes, or [IPv6].
    std::string strPort;
    const size_t nColon = strHost.rfind(':');
    if (nColon != std::string::npos && strHost.back() != ']') {
        strPort = strHost.substr(nColon + 1);
        strHost.erase(nColon);
        if (strPort.empty() || strPort.size() > 5 || strPort.find_first_not_of("0123456789") != std::string::npos ||
            std::atol(strPort.c_str()) == 0 || std::atol(strPort.c_str()) > 65535) {
            return false;
        }
    }
    if (strHost.empty()) return false;
    const bool bV6 = strHost.front() == '[';
    if (bV6 ? (strHost.back() != ']' || strHost.find_first_not_of("0123456789abcdef:[]") != std::string::npos)
            : strHost.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789.-") != std::string::npos) {
        return false;
    }
    const bool bLoopback = strHost == "localhost" || strHost == "[::1]" || strHost.compare(0, 4, "127.") == 0;
    return bHttps || bLoopback;
}

bool TokenStore::Open(std::string* pError)
{
    std::string strBase;
    if (const char* psz = secure_getenv("XDG_CONFIG_HOME"); psz != nullptr && psz[0] == '/') {
        strBase = psz;
        mkdir(psz, 0700);  // the user's own folder, made when missing (an existing one is taken as it is)
    } else {
        const char* pszHome = secure_getenv("HOME");
        if (pszHome == nullptr || pszHome[0] != '/') {
            const struct passwd* pw = getpwuid(geteuid());
            pszHome = pw != nullptr ? pw->pw_dir : nullptr;
        }
        if (pszHome == nullptr) {
            *pError = "no home folder";
            return false;
        }
        // ~/.config is the user's own; it is made when missing.
        const Fd home(open(pszHome, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (home.Get() < 0) {
            *pError = Errno(std::string("cannot open ") + pszHome);
            return false;
        }
        const int n = OpenOwnFolder(home.Get(), ".config", std::string(pszHome) + "/.config", pError);
        if (n < 0) return false;
        close(n);
        strBase = std::string(pszHome) + "/.config";
    }
    const Fd base(open(strBase.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (base.Get() < 0) {
        *pError = Errno("cannot open " + strBase);
        return false;
    }
    const Fd folder(OpenOwnFolder(base.Get(), "tavk05", strBase + "/tavk05", pError));
    if (folder.Get() < 0) return false;
    m_strFolder = strBase + "/tavk05";
    m_mapTokens.clear();
    const Fd file(openat(folder.Get(), kTokensName, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (file.Get() < 0) {
        if (errno == ENOENT) return true;
        *pError = Errno(m_strFolder + "/" + kTokensName);
        return false;
    }
    struct stat st;
    if (fstat(file.Get(), &st) != 0 || !S_ISREG(st.st_mode) || st.st_uid != geteuid() || st.st_size > kMaxTokensFile) {
        *pError = m_strFolder + "/" + kTokensName + ": not a regular file of ours of at most 256 KiB";
        return false;
    }
    std::string strText(static_cast<size_t>(st.st_size), '\0');
    if (read(file.Get(), &strText[0], strText.size()) != static_cast<ssize_t>(strText.size())) {
        *pError = Errno(m_strFolder + "/" + kTokensName);
        return false;
    }
    const nlohmann::json j = nlohmann::json::parse(strText, nullptr, false);
    if (!j.is_object() || !j.contains("origins") || !j["origins"].is_array()) {
        *pError = m_strFolder + "/" + kTokensName + ": not a list of origins";
        return false;
    }
    for (const auto& entry : j["origins"]) {
        if (!entry.is_object() || !entry.contains("origin") || !entry["origin"].is_string() ||
            !entry.contains("token") || !entry["token"].is_string()) {
            continue;
        }
        const std::string strOrigin = entry["origin"], strToken = entry["token"];
        if (PairableOrigin(strOrigin) && strToken.size() == 64) m_mapTokens[strOrigin] = strToken;
    }
    if ((st.st_mode & 077) != 0) fchmod(file.Get(), 0600);
    return true;
}

bool TokenStore::Set(const std::string& strOrigin, const std::string& strToken, std::string* pError)
{
    m_mapTokens[strOrigin] = strToken;
    return Save(pError);
}

bool TokenStore::Remove(const std::string& strOrigin, std::string* pError)
{
    m_mapTokens.erase(strOrigin);
    return Save(pError);
}

bool TokenStore::Save(std::string* pError)
{
    nlohmann::json j = {{"version", 1}, {"origins", nlohmann::json::array()}};
    for (const auto& [strOrigin, strToken] : m_mapTokens)
        j["origins"].push_back({{"origin", strOrigin}, {"token", strToken}});
    const std::string strText = j.dump(1) + "\n";
    const Fd folder(open(m_strFolder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (folder.Get() < 0) {
        *pError = Errno(m_strFolder);
        return false;
    }
    const std::string strTemp = std::string(kTokensName) + ".tmp." + std::to_string(getpid());
    unlinkat(folder.Get(), strTemp.c_str(), 0);
    {
        const Fd file(
            openat(folder.Get(), strTemp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (file.Get() < 0 ||
            write(file.Get(), strText.data(), strText.size()) != static_cast<ssize_t>(strText.size()) ||
            fsync(file.Get()) != 0) {
            *pError = Errno(m_strFolder + "/" + strTemp);
            unlinkat(folder.Get(), strTemp.c_str(), 0);
            return false;
        }
    }
    if (renameat(folder.Get(), strTemp.c_str(), folder.Get(), kTokensName) != 0) {
        *pError = Errno(m_strFolder + "/" + kTokensName);
        unlinkat(folder.Get(), strTemp.c_str(), 0);
        return false;
    }
    return true;
}

namespace {

// A buffer of the records library, released with it.
struct RecordsBuffer {
    unsigned char* p = nullptr;
    size_t n = 0;
    ~RecordsBuffer() { Tavk05RecordsFree(p); }
};

}  // namespace

const std::vector<std::string>& ImageFormats()
{
    static const std::vector<std::string> kFormats = {"png", "wsq", "fir", "an2"};
    return kFormats;
}

const char* FormatMediaType(const std::string& strFormat)
{
    if (strFormat == "png") return "image/png";
    if (strFormat == "wsq") return "image/x-wsq";
    if (strFormat == "fir") return "application/octet-stream";
    return "application/x-an2";
}

bool EncodeImage(const std::string& strFormat, const std::vector<unsigned char>& vecPixels, bool bRolled, int nQuality,
                 std::vector<unsigned char>* pOut, std::string* pError)
{
    const unsigned kSide = 600;
    pOut->clear();
    if (vecPixels.size() != kSide * kSide) {
        *pError = "no image";
        return false;
    }
    if (strFormat == "png") {
        if (!tavk05png::EncodeGrey(vecPixels.data(), kSide, kSide, pOut)) {
            *pError = "PNG is not available in this build";
            return false;
        }
        return true;
    }
    Tavk05RecFinger finger = {};
    finger.nImpression = bRolled ? TAVK05_REC_LIVE_ROLLED : TAVK05_REC_LIVE_PLAIN;
    finger.nQuality = nQuality >= 0 && nQuality <= 100 ? nQuality : TAVK05_REC_QUALITY_NONE;
    finger.nCompression = TAVK05_REC_COMP_WSQ;
    finger.nPpi = 500;
    finger.nWidth = finger.nHeight = static_cast<int>(kSide);
    finger.pPixels = vecPixels.data();
    RecordsBuffer out;
    int nStatus = TAVK05_REC_UNKNOWN_FORMAT;
    if (strFormat == "wsq") {
        nStatus = Tavk05WsqEncode(vecPixels.data(), finger.nWidth, finger.nHeight, 500, 0.0, &out.p, &out.n);
    } else if (strFormat == "fir") {
        nStatus = Tavk05IsoWrite(2011, &finger, nullptr, &out.p, &out.n);
    } else if (strFormat == "an2") {
        Tavk05NistHeader header = {};
        std::strcpy(header.szVersion, "0500");
        std::strcpy(header.szTot, "CAR");
        const time_t t = time(nullptr);
        struct tm tmNow;
        gmtime_r(&t, &tmNow);
        strftime(header.szDate, sizeof header.szDate, "%Y%m%d", &tmNow);
        std::strcpy(header.szDai, "TAVK05");
        std::strcpy(header.szOri, "TAVK05");
        std::strcpy(header.szTcn, "TAVK05-SERVE");
        Tavk05NistFinger nist = {};
        nist.nRecordType = 14;
        nist.finger = finger;
        nStatus = Tavk05NistWrite(&header, &nist, 1, &out.p, &out.n);
    } else {
        *pError = "unknown format";
        return false;
    }
    if (nStatus != TAVK05_REC_OK) {
        *pError = Tavk05RecordsStatusText(nStatus);
        return false;
    }
    pOut->assign(out.p, out.p + out.n);
    return true;
}

}  // namespace serve
