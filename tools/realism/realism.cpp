// tavk05-realism: how a real matcher sees the virtual scanner's fingers.
//
// Every image is captured through the driver from a virtual unit (GetImage
// for a flat finger, a live capture with rolling for a rolled one) and given
// to libfprint's virtual_image device, whose minutiae detector and bozorth3
// matcher score it. Each finger of the seed range is enrolled from its
// first impressions on a model 7 unit; a later impression of it, captured on
// a model and in a mode that change from finger to finger, is then
//   - verified against its own finger: the genuine score is the comparison
//     with the first enrolled impression (a pair of impressions), and
//   - identified against the gallery of all other fingers: every score the
//     matcher logs is one impostor image pair (probe against one enrolled
//     image); the best of a finger's impressions scores the finger pair.
// The program prints the genuine match rate, the false match rate, both
// score distributions, the pattern classes of the range and the finger pairs
// that came closest to a false match (the ones to look at first when fingers
// are too alike).
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <fprint.h>

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "finger_pattern.h"
#include "scene_image.h"
#include "tavk05/oberin.h"
#include "tavk05/virtual.h"

namespace {

const int kSide = 600;
const int kPixels = kSide * kSide;
const int kThreshold = 40;  // libfprint's bozorth3 threshold for image devices
const unsigned kPlacedQuality = 25;

typedef std::vector<unsigned char> Image;

// ---- Capture through the driver -------------------------------------------

class CSensor {
public:
    CSensor()
    {
        ISensor* pSensor = nullptr;
        if (CreateISensor(nullptr, &pSensor) == 0) m_pSensor = static_cast<COberin*>(pSensor);
        if (m_pSensor && m_pSensor->OpenDevice(0, 0) != TAVK05_OK) {
            DestroyISensor(m_pSensor);
            m_pSensor = nullptr;
        }
    }
    ~CSensor()
    {
        if (m_pSensor) DestroyISensor(m_pSensor);
    }
    CSensor(const CSensor&) = delete;
    CSensor& operator=(const CSensor&) = delete;
    COberin* Get() const { return m_pSensor; }

private:
    COberin* m_pSensor = nullptr;
};

struct RollState {
    unsigned nPlaced = 0;
    bool bRolling = false;
};

unsigned long RollCallback(void* pContext, void* pInfo)
{
    RollState& state = *static_cast<RollState*>(pContext);
    const ISensor::tagCallbackInfo& info = *static_cast<const ISensor::tagCallbackInfo*>(pInfo);
    if (!state.bRolling && info.nStatus == 0) {
        state.nPlaced = info.nQuality >= kPlacedQuality ? state.nPlaced + 1 : 0;
        if (state.nPlaced >= 2) {
            state.bRolling = true;
            return TAVK05_CB_START_ROLL;
        }
    }
    return TAVK05_CB_CONTINUE;
}

// One image of a finger: flat through GetImage, or rolled; false with a
// message on stderr when the driver fails. strExtra adds unit keys.
bool Capture(uint32_t nSeed, unsigned nImpression, int nModel, bool bRolled, Image* pImage,
             const std::string& strExtra = std::string())
{
    std::string strUnit = "0:model=" + std::to_string(nModel) + ",seed=" + std::to_string(nSeed) +
                          ",impression=" + std::to_string(nImpression) +
                          (bRolled ? ",scene=roll,wait=1" : ",scene=flat") + strExtra;
    std::string strError;
    tavk05virt::DetachAll();
    if (!tavk05virt::Attach(strUnit, &strError)) {
        std::fprintf(stderr, "tavk05-realism: %s: %s\n", strUnit.c_str(), strError.c_str());
        return false;
    }
    CSensor sensor;
    COberin* p = sensor.Get();
    if (!p) {
        std::fprintf(stderr, "tavk05-realism: cannot open the virtual unit %s\n", strUnit.c_str());
        return false;
    }
    pImage->assign(kPixels, 255);
    unsigned long nStatus;
    if (!bRolled) {
        nStatus = p->GetImage(pImage->data());
    } else {
        nStatus = p->DevIoControl(TAVK05_IOCTL_BACKGROUND, nullptr, 0, nullptr, 0, nullptr);
        if (nStatus == TAVK05_OK) {
            p->WriteData(155, 1);
            if (p->ReadData(155) != 1) {
                std::fprintf(stderr, "tavk05-realism: model %d cannot roll\n", nModel);
                return false;
            }
            RollState state;
            p->SetCallBackFunction(1, RollCallback, &state);
            nStatus = p->GetLiveImageEx2(pImage->data(), 20000, 0, nullptr, 20);
            p->WriteData(155, 0);
        }
    }
    if (nStatus != TAVK05_OK) {
        std::fprintf(stderr, "tavk05-realism: %s: capture failed with status %lu\n", strUnit.c_str(), nStatus);
        return false;
    }
    return true;
}

// ---- The matcher -----------------------------------------------------------

// Scores the matcher logs while a call runs.
std::mutex g_scoreMutex;
std::vector<int> g_vecScores;

GLogWriterOutput LogWriter(GLogLevelFlags eLevel, const GLogField* pFields, gsize nFields, gpointer)
{
    for (gsize i = 0; i < nFields; ++i) {
        if (std::strcmp(pFields[i].key, "MESSAGE") != 0) continue;
        const char* pszMessage = static_cast<const char*>(pFields[i].value);
        int nScore = 0;
        int nLimit = 0;
        const char* pszScore = pszMessage ? std::strstr(pszMessage, "score ") : nullptr;
        if (pszScore && std::sscanf(pszScore, "score %d/%d", &nScore, &nLimit) == 2) {
            std::lock_guard<std::mutex> lock(g_scoreMutex);
            g_vecScores.push_back(nScore);
            return G_LOG_WRITER_HANDLED;
        }
        if (eLevel & (G_LOG_LEVEL_ERROR | G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_WARNING)) {
            std::fprintf(stderr, "libfprint: %s\n", pszMessage ? pszMessage : "");
        }
    }
    return G_LOG_WRITER_HANDLED;
}

std::vector<int> TakeScores()
{
    std::lock_guard<std::mutex> lock(g_scoreMutex);
    std::vector<int> vec;
    vec.swap(g_vecScores);
    return vec;
}

// Writes queued images to the virtual_image device's socket, one at a time
// as the device asks for them.
class CFeeder {
public:
    bool Connect(const std::string& strPath)
    {
        m_nSocket = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (m_nSocket < 0) return false;
        sockaddr_un addr = {};
        addr.sun_family = AF_UNIX;
        std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", strPath.c_str());
        for (int nTry = 0; nTry < 100; ++nTry) {
            if (connect(m_nSocket, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) {
                m_thread = std::thread(&CFeeder::Run, this);
                return true;
            }
            usleep(20000);
        }
        return false;
    }
    ~CFeeder()
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_bStop = true;
        }
        m_cond.notify_all();
        // A write the device never took blocks no longer.
        if (m_nSocket >= 0) shutdown(m_nSocket, SHUT_RDWR);
        if (m_thread.joinable()) m_thread.join();
        if (m_nSocket >= 0) close(m_nSocket);
    }
    void Send(const Image* pImage)
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_queue.push_back(pImage);
        }
        m_cond.notify_all();
    }

private:
    void Run()
    {
        for (;;) {
            const Image* pImage = nullptr;
            {
                std::unique_lock<std::mutex> lock(m_mutex);
                m_cond.wait(lock, [this] { return m_bStop || !m_queue.empty(); });
                if (m_queue.empty()) return;
                pImage = m_queue.front();
                m_queue.pop_front();
            }
            const int32_t anSize[2] = {kSide, kSide};
            if (!WriteAll(anSize, sizeof anSize) || !WriteAll(pImage->data(), pImage->size())) return;
        }
    }
    bool WriteAll(const void* pData, size_t nBytes)
    {
        const char* p = static_cast<const char*>(pData);
        while (nBytes > 0) {
            const ssize_t n = write(m_nSocket, p, nBytes);
            if (n <= 0) return false;
            p += n;
            nBytes -= static_cast<size_t>(n);
        }
        return true;
    }

    int m_nSocket = -1;
    std::thread m_thread;
    std::mutex m_mutex;
    std::condition_variable m_cond;
    std::deque<const Image*> m_queue;
    bool m_bStop = false;
};

// libfprint's virtual_image device, fed through its socket. libfprint
// models a sensor's temperature: a device busy for a few minutes on end is
// refused as too hot. The measurement keeps going on a fresh device (and
// socket) whenever the current one is no longer cold; enrolled prints stay
// valid on any device of the driver.
class CMatcher {
public:
    explicit CMatcher(const std::string& strDir) : m_strDir(strDir) {}
    ~CMatcher() { Close(); }
    CMatcher(const CMatcher&) = delete;
    CMatcher& operator=(const CMatcher&) = delete;

    bool Open()
    {
        Close();
        m_strSocket = m_strDir + "/image" + std::to_string(m_nGeneration++) + ".sock";
        setenv("FP_VIRTUAL_IMAGE", m_strSocket.c_str(), 1);
        m_pContext = fp_context_new();
        GPtrArray* pDevices = fp_context_get_devices(m_pContext);
        for (guint i = 0; pDevices && i < pDevices->len; ++i) {
            FpDevice* p = FP_DEVICE(g_ptr_array_index(pDevices, i));
            if (std::strcmp(fp_device_get_driver(p), "virtual_image") == 0) m_pDevice = p;
        }
        GError* pError = nullptr;
        if (!m_pDevice || !fp_device_open_sync(m_pDevice, nullptr, &pError)) {
            std::fprintf(stderr, "tavk05-realism: no virtual_image device from libfprint%s%s\n", pError ? ": " : "",
                         pError ? pError->message : "");
            g_clear_error(&pError);
            m_pDevice = nullptr;
            return false;
        }
        m_pFeeder.reset(new CFeeder);
        if (!m_pFeeder->Connect(m_strSocket)) {
            std::fprintf(stderr, "tavk05-realism: cannot connect to %s\n", m_strSocket.c_str());
            return false;
        }
        return true;
    }
    // A fresh device unless the current one is still cold.
    bool KeepCool()
    {
        if (m_pDevice && fp_device_get_temperature(m_pDevice) == FP_TEMPERATURE_COLD) return true;
        return Open();
    }
    void Close()
    {
        m_pFeeder.reset();
        if (m_pDevice) fp_device_close_sync(m_pDevice, nullptr, nullptr);
        m_pDevice = nullptr;
        if (m_pContext) g_object_unref(m_pContext);
        m_pContext = nullptr;
        if (!m_strSocket.empty()) unlink(m_strSocket.c_str());
    }
    FpDevice* Device() const { return m_pDevice; }
    CFeeder& Feeder() const { return *m_pFeeder; }

private:
    const std::string m_strDir;
    std::string m_strSocket;
    int m_nGeneration = 0;
    FpContext* m_pContext = nullptr;
    FpDevice* m_pDevice = nullptr;
    std::unique_ptr<CFeeder> m_pFeeder;
};

struct EnrolFeed {
    CFeeder* pFeeder;
    const std::vector<Image>* pImages;
    size_t nNext;
};

void EnrolProgress(FpDevice*, gint, FpPrint*, gpointer pData, GError*)
{
    EnrolFeed& feed = *static_cast<EnrolFeed*>(pData);
    if (feed.nNext < feed.pImages->size()) feed.pFeeder->Send(&(*feed.pImages)[feed.nNext++]);
}

// Minutiae the detector found in a probe.
void CountMinutiae(FpDevice*, FpPrint*, FpPrint* pProbe, gpointer pData, GError*)
{
    FpImage* pImage = pProbe ? fp_print_get_image(pProbe) : nullptr;
    GPtrArray* pMinutiae = pImage ? fp_image_get_minutiae(pImage) : nullptr;
    if (pMinutiae) static_cast<std::vector<int>*>(pData)->push_back(static_cast<int>(pMinutiae->len));
}

// ---- Statistics --------------------------------------------------------------

void PrintDistribution(const char* pszName, std::vector<int> vec)
{
    if (vec.empty()) {
        std::printf("%s scores: none\n", pszName);
        return;
    }
    std::sort(vec.begin(), vec.end());
    const auto At = [&vec](double f) { return vec[static_cast<size_t>(f * (vec.size() - 1) + 0.5)]; };
    std::printf("%s scores (%zu): min %d, 5%% %d, 25%% %d, median %d, 75%% %d, 95%% %d, max %d\n", pszName, vec.size(),
                vec.front(), At(0.05), At(0.25), At(0.5), At(0.75), At(0.95), vec.back());
    const int anEdge[] = {0, 10, 20, 30, 40, 60, 100, 200, 400, 100000};
    std::printf("  histogram:");
    for (size_t b = 0; b + 1 < sizeof anEdge / sizeof anEdge[0]; ++b) {
        const long n =
            std::count_if(vec.begin(), vec.end(), [&](int s) { return s >= anEdge[b] && s < anEdge[b + 1]; });
        if (anEdge[b + 1] == 100000) {
            std::printf(" %d+: %ld", anEdge[b], n);
        } else {
            std::printf(" %d-%d: %ld", anEdge[b], anEdge[b + 1] - 1, n);
        }
    }
    std::printf("\n");
}

struct PairScore {
    uint32_t nProbe;
    uint32_t nEnrolled;
    int nScore;
};

// Keeps the ten highest scores, one entry per finger pair.
void NoteWorst(std::vector<PairScore>* pvec, const PairScore& pair)
{
    const auto it = std::find_if(pvec->begin(), pvec->end(), [&](const PairScore& p) {
        return p.nProbe == pair.nProbe && p.nEnrolled == pair.nEnrolled;
    });
    if (it == pvec->end()) {
        pvec->push_back(pair);
    } else {
        it->nScore = std::max(it->nScore, pair.nScore);
    }
    std::sort(pvec->begin(), pvec->end(), [](const PairScore& a, const PairScore& b) { return a.nScore > b.nScore; });
    if (pvec->size() > 10) pvec->pop_back();
}

bool ParseRange(const char* psz, uint32_t* pnFirst, uint32_t* pnLast)
{
    unsigned long nFirst = 0;
    unsigned long nLast = 0;
    char chExtra = 0;
    if (std::sscanf(psz, "%lu-%lu%c", &nFirst, &nLast, &chExtra) != 2 || nLast < nFirst || nLast > 0xFFFFFFFFUL ||
        nLast - nFirst > 100000) {
        return false;
    }
    *pnFirst = static_cast<uint32_t>(nFirst);
    *pnLast = static_cast<uint32_t>(nLast);
    return true;
}

// Probe model and mode of a finger: all six models in turn; on the models
// that roll (3, 5, 7) every other round rolled.
void ProbeKind(uint32_t nSeed, int* pnModel, bool* pbRolled)
{
    *pnModel = 3 + static_cast<int>(nSeed % 6);
    *pbRolled = (*pnModel & 1) != 0 && (nSeed / 6) % 2 == 0;
}

// The round trip of a print given with image=: captured on every model, the
// finished image against the print as laid on the glass: mean absolute
// difference over the print, the correlation of the two, and the shift
// (within 4 pixels) at which they correlate best: ridges in place give 0, 0.
int RoundTrip(const std::string& strFile)
{
    std::vector<unsigned char> vecPrint;
    unsigned nWidth = 0;
    unsigned nHeight = 0;
    std::string strError;
    if (!tavk05virt::ReadGreyPng(strFile, &vecPrint, &nWidth, &nHeight, &strError)) {
        std::fprintf(stderr, "tavk05-realism: %s\n", strError.c_str());
        return 1;
    }
    Image vecGlass(kPixels);
    tavk05virt::PlacePrint(vecPrint.data(), nWidth, nHeight, vecGlass.data());
    const int nLeft = std::max(0, (kSide - static_cast<int>(nWidth)) / 2) + 8;
    const int nTop = std::max(0, (kSide - static_cast<int>(nHeight)) / 2) + 8;
    const int nRight = std::min(kSide, nLeft - 16 + static_cast<int>(nWidth)) - 8;
    const int nBottom = std::min(kSide, nTop - 16 + static_cast<int>(nHeight)) - 8;
    std::printf("round trip of %s (%u x %u) through the driver's correction:\n", strFile.c_str(), nWidth, nHeight);
    int nWorst = 0;
    for (int nModel = 3; nModel <= 8; ++nModel) {
        Image vecImage;
        if (!Capture(1, 0, nModel, false, &vecImage, ",image=" + strFile)) return 1;
        // Correlation of the print with the image shifted by (dx, dy).
        const auto Correlate = [&](int dx, int dy, double* pfMad) {
            double fSa = 0, fSb = 0, fSaa = 0, fSbb = 0, fSab = 0, fMad = 0;
            long n = 0;
            for (int y = nTop; y < nBottom; ++y) {
                for (int x = nLeft; x < nRight; ++x) {
                    const double a = vecGlass[y * kSide + x];
                    const double b = vecImage[(y + dy) * kSide + x + dx];
                    fSa += a, fSb += b, fSaa += a * a, fSbb += b * b, fSab += a * b, fMad += a > b ? a - b : b - a;
                    ++n;
                }
            }
            if (pfMad) *pfMad = fMad / n;
            const double fCov = fSab / n - fSa / n * fSb / n;
            return fCov / std::sqrt((fSaa / n - fSa / n * fSa / n) * (fSbb / n - fSb / n * fSb / n) + 1e-9);
        };
        double fMad = 0.0;
        const double fAtZero = Correlate(0, 0, &fMad);
        int nBestX = 0, nBestY = 0;
        double fBest = fAtZero;
        for (int dy = -4; dy <= 4; ++dy) {
            for (int dx = -4; dx <= 4; ++dx) {
                const double f = Correlate(dx, dy, nullptr);
                if (f > fBest) fBest = f, nBestX = dx, nBestY = dy;
            }
        }
        std::printf("  model %d: mean absolute difference %.2f grey levels, correlation %.3f, best at shift (%d, %d)\n",
                    nModel, fMad, fAtZero, nBestX, nBestY);
        nWorst = std::max(nWorst, std::abs(nBestX) + std::abs(nBestY));
    }
    return nWorst <= 1 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv)
{
    uint32_t nFirst = 1;
    uint32_t nLast = 200;
    bool bFlatOnly = false;
    std::string strRoundTrip;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--image") == 0 && i + 1 < argc) {
            strRoundTrip = argv[++i];
        } else if (std::strcmp(argv[i], "--flat") == 0) {
            bFlatOnly = true;
        } else if (!ParseRange(argv[i], &nFirst, &nLast)) {
            std::fprintf(stderr,
                         "usage: tavk05-realism [--flat] [FIRST-LAST] | --image FILE.png\n"
                         "  scores the virtual scanner's fingers FIRST..LAST (default 1-200) with libfprint's\n"
                         "  bozorth3 matcher; --flat probes with flat impressions only; --image measures how\n"
                         "  a 500 ppi print given with image= comes back from the driver on every model\n");
            return 2;
        }
    }
    const size_t nFingers = static_cast<size_t>(nLast - nFirst) + 1;

    // The driver keeps its settings in a file of its own for this run.
    char szDir[] = "/tmp/tavk05-realism-XXXXXX";
    if (!mkdtemp(szDir)) {
        std::perror("tavk05-realism: mkdtemp");
        return 1;
    }
    const std::string strDir = szDir;
    const std::string strConf = strDir + "/tavk05rf.conf";
    setenv("TAVK05_CONF", strConf.c_str(), 1);
    setenv("FP_DEVICE_EMULATION", "1", 1);
    setenv("G_MESSAGES_DEBUG", "all", 1);
    if (!strRoundTrip.empty()) {
        const int nExit = RoundTrip(strRoundTrip);
        tavk05virt::DetachAll();
        unlink(strConf.c_str());
        rmdir(strDir.c_str());
        return nExit;
    }
    g_log_set_writer_func(LogWriter, nullptr, nullptr);

    int anClass[4] = {0, 0, 0, 0};
    for (size_t f = 0; f < nFingers; ++f) ++anClass[tavk05virt::MakeGenome(nFirst + static_cast<uint32_t>(f)).eClass];

    CMatcher matcher(strDir);
    if (!matcher.Open()) return 1;
    GError* pError = nullptr;
    const int nStages = fp_device_get_nr_enroll_stages(matcher.Device());

    // Enrolment: impressions 0 .. nStages - 1 of each finger, flat, model 7.
    std::vector<FpPrint*> vecGallery(nFingers, nullptr);
    std::vector<Image> vecProbe(nFingers);
    std::vector<int> vecGenuine;
    std::vector<int> vecImpostor;
    std::vector<int> vecMinutiae;
    std::vector<int> vecFingerPair;   // best impostor score of a probe against each other finger
    std::vector<PairScore> vecWorst;  // the highest impostor finger pairs
    long nGenuineMatches = 0;
    long nFalseMatches = 0;
    long nImpostorPairs = 0;
    long nFailed = 0;
    for (size_t f = 0; f < nFingers; ++f) {
        const uint32_t nSeed = nFirst + static_cast<uint32_t>(f);
        std::vector<Image> vecEnrol(static_cast<size_t>(nStages));
        bool bOk = true;
        for (int k = 0; k < nStages && bOk; ++k) bOk = Capture(nSeed, static_cast<unsigned>(k), 7, false, &vecEnrol[k]);
        int nModel = 7;
        bool bRolled = false;
        ProbeKind(nSeed, &nModel, &bRolled);
        if (bFlatOnly) bRolled = false;
        if (bOk) bOk = Capture(nSeed, static_cast<unsigned>(nStages), nModel, bRolled, &vecProbe[f]);
        if (!bOk) {
            ++nFailed;
            continue;
        }
        if (!matcher.KeepCool()) return 1;
        FpDevice* pDevice = matcher.Device();
        CFeeder& feeder = matcher.Feeder();
        EnrolFeed feed = {&feeder, &vecEnrol, 1};
        feeder.Send(&vecEnrol[0]);
        FpPrint* pTemplate = fp_print_new(pDevice);
        FpPrint* pEnrolled = fp_device_enroll_sync(pDevice, pTemplate, nullptr, EnrolProgress, &feed, &pError);
        if (!pEnrolled) {
            std::fprintf(stderr, "tavk05-realism: seed %u: enrolment failed: %s\n", nSeed, pError->message);
            g_clear_error(&pError);
            ++nFailed;
            matcher.Open();  // the device may still hold images of this finger
            continue;
        }
        vecGallery[f] = pEnrolled;
        TakeScores();
        // Genuine: the probe against its own finger.
        gboolean bMatch = FALSE;
        feeder.Send(&vecProbe[f]);
        if (!fp_device_verify_sync(pDevice, pEnrolled, nullptr, CountMinutiae, &vecMinutiae, &bMatch, nullptr,
                                   &pError)) {
            std::fprintf(stderr, "tavk05-realism: seed %u: verification failed: %s\n", nSeed, pError->message);
            g_clear_error(&pError);
            ++nFailed;
            matcher.Open();
            continue;
        }
        const std::vector<int> vecScores = TakeScores();
        if (!vecScores.empty()) {
            vecGenuine.push_back(vecScores.front());
            if (vecScores.front() >= kThreshold) ++nGenuineMatches;
        }
        std::fprintf(stderr, "\rfinger %u: genuine score %d (model %d, %s, %d minutiae)%s   ", nSeed,
                     vecScores.empty() ? -1 : vecScores.front(), nModel, bRolled ? "rolled" : "flat",
                     vecMinutiae.empty() ? 0 : vecMinutiae.back(),
                     vecScores.empty() || vecScores.front() >= kThreshold ? "" : "\n");
    }
    std::fprintf(stderr, "\n");

    // Impostors: each probe against the gallery of the other fingers. The
    // matcher stops at the first template that matches; the rest of the
    // gallery is then searched again.
    for (size_t f = 0; f < nFingers; ++f) {
        if (!vecGallery[f]) continue;
        std::vector<FpPrint*> vecRest;
        for (size_t g = 0; g < nFingers; ++g) {
            if (g != f && vecGallery[g]) vecRest.push_back(vecGallery[g]);
        }
        while (!vecRest.empty()) {
            GPtrArray* pArray = g_ptr_array_new();
            for (FpPrint* p : vecRest) g_ptr_array_add(pArray, p);
            FpPrint* pMatch = nullptr;
            if (!matcher.KeepCool()) return 1;
            matcher.Feeder().Send(&vecProbe[f]);
            const gboolean bOk =
                fp_device_identify_sync(matcher.Device(), pArray, nullptr, nullptr, nullptr, &pMatch, nullptr, &pError);
            g_ptr_array_unref(pArray);
            const std::vector<int> vecScores = TakeScores();
            if (!bOk) {
                std::fprintf(stderr, "tavk05-realism: identification failed: %s\n", pError->message);
                g_clear_error(&pError);
                ++nFailed;
                matcher.Open();
                break;
            }
            // The scores come template by template, nStages to a template
            // (fewer for the one that matched); a finger pair matches when
            // any of its enrolled impressions does.
            for (size_t j = 0; j < vecScores.size(); ++j) {
                const int s = vecScores[j];
                vecImpostor.push_back(s);
                ++nImpostorPairs;
                if (s >= kThreshold) ++nFalseMatches;
                if (j % static_cast<size_t>(nStages) == 0) {
                    vecFingerPair.push_back(s);
                } else if (s > vecFingerPair.back()) {
                    vecFingerPair.back() = s;
                }
                const size_t nTemplate = j / static_cast<size_t>(nStages);
                if (nTemplate < vecRest.size()) {
                    const size_t g = static_cast<size_t>(
                        std::find(vecGallery.begin(), vecGallery.end(), vecRest[nTemplate]) - vecGallery.begin());
                    NoteWorst(&vecWorst, {nFirst + static_cast<uint32_t>(f), nFirst + static_cast<uint32_t>(g), s});
                }
            }
            if (!pMatch) break;
            const auto it = std::find(vecRest.begin(), vecRest.end(), pMatch);
            if (it == vecRest.end()) break;
            vecRest.erase(vecRest.begin(), it + 1);
        }
        std::fprintf(stderr, "\rimpostor probes: %zu of %zu   ", f + 1, nFingers);
    }
    std::fprintf(stderr, "\n");

    std::printf(
        "seeds %u-%u: %zu fingers, %d enrolment impressions each (flat, model 7); probes: a later "
        "impression on models 3-8, %s\n",
        nFirst, nLast, nFingers, nStages, bFlatOnly ? "flat" : "a quarter of them rolled");
    std::printf(
        "pattern classes: left loop %d, right loop %d, whorl %d, arch %d (loops %.0f %%, whorls %.0f %%, "
        "arches %.0f %%)\n",
        anClass[0], anClass[1], anClass[2], anClass[3], 100.0 * (anClass[0] + anClass[1]) / nFingers,
        100.0 * anClass[2] / nFingers, 100.0 * anClass[3] / nFingers);
    std::printf("genuine match rate: %ld of %zu pairs (%.2f %%) at threshold %d\n", nGenuineMatches, vecGenuine.size(),
                vecGenuine.empty() ? 0.0 : 100.0 * nGenuineMatches / vecGenuine.size(), kThreshold);
    std::printf("false match rate: %ld of %ld impostor image pairs (%.4f %%)\n", nFalseMatches, nImpostorPairs,
                nImpostorPairs ? 100.0 * nFalseMatches / nImpostorPairs : 0.0);
    const long nFingerMatches =
        std::count_if(vecFingerPair.begin(), vecFingerPair.end(), [](int s) { return s >= kThreshold; });
    std::printf(
        "false match rate: %ld of %zu impostor finger pairs (probe against all %d enrolled impressions of "
        "another finger)\n",
        nFingerMatches, vecFingerPair.size(), nStages);
    PrintDistribution("genuine", vecGenuine);
    PrintDistribution("impostor", vecImpostor);
    PrintDistribution("impostor finger-pair (best of the impressions)", vecFingerPair);
    PrintDistribution("probe minutiae", vecMinutiae);
    std::printf("highest impostor finger pairs (probe seed / enrolled seed: score):");
    for (const PairScore& pair : vecWorst) std::printf(" %u/%u: %d", pair.nProbe, pair.nEnrolled, pair.nScore);
    std::printf("\n");
    if (nFailed) std::printf("failed captures, enrolments or comparisons: %ld\n", nFailed);

    for (FpPrint* p : vecGallery) {
        if (p) g_object_unref(p);
    }
    matcher.Close();
    unlink(strConf.c_str());
    rmdir(strDir.c_str());
    return nFailed ? 1 : 0;
}
