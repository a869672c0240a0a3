// tavk05 serve: the scanner workers. Each owns one sensor object and calls it
// from its own thread only.
#include "serve_scanner.h"

#include <pthread.h>
#include <time.h>
#include <unistd.h>

#include <cstring>

#include "cli.h"
#include "profile/model_profile.h"

namespace serve {

namespace {

const unsigned kFingerQuality = 25;  // a frame shows a finger (as the command's guidance)
const int kPlacedFrames = 2;         // ... this many in a row before rolling is asked for

double RealtimeMs()
{
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<double>(ts.tv_sec) * 1000.0 + static_cast<double>(ts.tv_nsec) / 1e6;
}

void Put16(unsigned char* p, unsigned n)
{
    p[0] = static_cast<unsigned char>(n);
    p[1] = static_cast<unsigned char>(n >> 8);
}

void Put32(unsigned char* p, unsigned long n)
{
    for (int i = 0; i < 4; ++i) p[i] = static_cast<unsigned char>(n >> (8 * i));
}

std::string PrintableId(const unsigned char* p, unsigned long nLen)
{
    std::string str;
    for (unsigned long i = 0; i < nLen && p[i] != 0; ++i) str += (p[i] >= 0x20 && p[i] < 0x7f) ? char(p[i]) : '.';
    return str;
}

}  // namespace

ScannerWorker::ScannerWorker(unsigned nIndex, FrameSink sinkFrame, DoneSink sinkDone)
    : m_nIndex(nIndex), m_sinkFrame(std::move(sinkFrame)), m_sinkDone(std::move(sinkDone))
{
    m_info.nIndex = nIndex;
}

ScannerWorker::~ScannerWorker()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_bQuit = true;
        m_queJobs.clear();
    }
    m_bStop = true;
    m_cv.notify_all();
    if (m_thread.joinable()) m_thread.join();
}

bool ScannerWorker::Start()
{
    m_thread = std::thread(&ScannerWorker::Run, this);
    std::unique_lock<std::mutex> lock(m_mutex);
    m_cv.wait(lock, [this] { return m_nOpened != 0; });
    if (m_nOpened < 0) {
        lock.unlock();
        m_thread.join();
        return false;
    }
    return true;
}

Settings ScannerWorker::CurrentSettings() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_settings;
}

void ScannerWorker::Submit(const Job& job)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_queJobs.push_back(job);
    }
    m_cv.notify_all();
}

void ScannerWorker::RequestStop() { m_bStop = true; }

void ScannerWorker::Run()
{
    // Named for top, a debugger and the measurements (bench/serve-measure.mjs).
    const std::string strName = "tavk05-scan" + std::to_string(m_nIndex);
    pthread_setname_np(pthread_self(), strName.c_str());
    ISensor* pSensor = nullptr;
    bool bOpen = false;
    if (CreateISensor(nullptr, &pSensor) == 0 && pSensor != nullptr) {
        COberin& sensor = *static_cast<COberin*>(pSensor);
        // The sensor writes the settings file when destroyed: start from the
        // file's own values so that serving never changes them by itself.
        if (access(COberin::ConfigPath(), F_OK) == 0) sensor.RetrieveConfig();
        bOpen = sensor.OpenDevice(m_nIndex, 0) == TAVK05_OK;
        if (bOpen) {
            m_info.nDeviceType = sensor.GetDeviceType();
            m_info.nFirmware = static_cast<unsigned>(sensor.m_pVxd->GetFirmwareVersion());
            unsigned char abyId[64] = {};
            unsigned long nLen = 0;
            if (sensor.DevIoControl(TAVK05_IOCTL_GET_DEVICE_ID, nullptr, 0, abyId, sizeof abyId, &nLen) == TAVK05_OK) {
                m_info.strDeviceId = PrintableId(abyId, nLen < sizeof abyId ? nLen : sizeof abyId);
            }
            const unsigned long nLast = tavk05profile::kImageSizeCodes - 1;
            const auto& size = tavk05profile::kImageSizes[sensor.m_nImageSize < nLast ? sensor.m_nImageSize : nLast];
            m_info.nImageWidth = size.nWidth;
            m_info.nImageHeight = size.nHeight;
            sensor.WriteData(155, 1);
            m_info.bRoll = sensor.ReadData(155) == 1;
            sensor.WriteData(155, 0);
            m_settings.nBrightness = static_cast<long>(sensor.m_nBrightness);
            m_settings.nContrast = static_cast<long>(sensor.m_nContrast);
            m_settings.nGain = static_cast<long>(sensor.m_nGain);
        }
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_nOpened = bOpen ? 1 : -1;
    }
    m_cv.notify_all();
    if (!bOpen) {
        if (pSensor != nullptr) DestroyISensor(pSensor);
        return;
    }
    m_pSensor = pSensor;
    for (;;) {
        Job job;
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_cv.wait(lock, [this] { return m_bQuit || !m_queJobs.empty(); });
            if (m_bQuit) break;
            job = m_queJobs.front();
            m_queJobs.pop_front();
            // A stop asked for before this job began was meant for an earlier one.
            m_bStop = false;
        }
        JobResult result = Execute(job);
        if (!m_bQuit) m_sinkDone(std::move(result));
    }
    static_cast<COberin*>(pSensor)->CloseDevice();
    DestroyISensor(pSensor);
}

unsigned long ScannerWorker::OnFrame(void* pContext, void* pInfo)
{
    ScannerWorker& w = *static_cast<ScannerWorker*>(pContext);
    const ISensor::tagCallbackInfo& info = *static_cast<const ISensor::tagCallbackInfo*>(pInfo);
    ++w.m_nFrame;
    int nRoll = kRollLive;
    if (w.m_bRoll && !w.m_bRolling && info.nStatus == 0) {
        w.m_nPlaced = info.nQuality >= kFingerQuality ? w.m_nPlaced + 1 : 0;
        if (w.m_nPlaced >= kPlacedFrames) w.m_bRolling = true;
    }
    if (w.m_bRoll) nRoll = w.m_bRolling ? kRollRolling : kRollPlace;
    auto pFrame = std::make_shared<Frame>();
    pFrame->vecBytes.resize(kFrameHeaderBytes + IMG_PIXELS);
    unsigned char* p = pFrame->vecBytes.data();
    std::memcpy(p, "TVKF", 4);
    Put16(p + 4, 1);
    Put16(p + 6, kFrameHeaderBytes);
    Put32(p + 8, w.m_nFrame);
    Put16(p + 12, w.m_nIndex);
    p[14] = static_cast<unsigned char>(info.nQuality > 100 ? 100 : info.nQuality);
    p[15] = static_cast<unsigned char>(nRoll);
    Put16(p + 16, IMG_WIDTH);
    Put16(p + 18, IMG_HEIGHT);
    Put32(p + 20, info.nStatus);
    const double dMs = RealtimeMs();
    std::memcpy(p + 24, &dMs, sizeof dMs);  // IEEE 754 double, little-endian on both ABIs
    std::memcpy(p + kFrameHeaderBytes, w.m_pLiveBuffer, IMG_PIXELS);
    w.m_sinkFrame(std::move(pFrame));
    if (w.m_bStop) return TAVK05_CB_STOP;
    if (w.m_bRoll && w.m_bRolling && w.m_nPlaced == kPlacedFrames) {
        ++w.m_nPlaced;  // asked once
        return TAVK05_CB_START_ROLL;
    }
    return TAVK05_CB_CONTINUE;
}

JobResult ScannerWorker::Execute(const Job& job)
{
    COberin& sensor = *static_cast<COberin*>(m_pSensor);
    JobResult r;
    r.nJobId = job.nJobId;
    r.eKind = job.eKind;
    if (job.eKind == kJobSettings) {
        if (job.settings.nBrightness >= 0) r.nStatus |= sensor.SetBrightness(job.settings.nBrightness);
        if (job.settings.nContrast >= 0 && r.nStatus == 0) r.nStatus = sensor.SetContrast(job.settings.nContrast);
        if (job.settings.nGain >= 0 && r.nStatus == 0) r.nStatus = sensor.SetGainValue(job.settings.nGain);
        std::lock_guard<std::mutex> lock(m_mutex);
        m_settings.nBrightness = r.nBrightness = static_cast<long>(sensor.m_nBrightness);
        m_settings.nContrast = r.nContrast = static_cast<long>(sensor.m_nContrast);
        m_settings.nGain = r.nGain = static_cast<long>(sensor.m_nGain);
        return r;
    }
    // Every acquisition begins with clear glass: the live conversion
    // subtracts the background, and a background with a finger is refused.
    cli::AskPerson(m_nIndex, cli::kAskLift);
    r.nStatus = sensor.DevIoControl(TAVK05_IOCTL_BACKGROUND, nullptr, 0, nullptr, 0, nullptr);
    if (r.nStatus != TAVK05_OK) return r;
    const int nBackground =
        sensor.m_ImageProc.CheckImageQuality2(IMG_WIDTH, IMG_HEIGHT, sensor.m_ImageProc.m_pBackground);
    if (nBackground >= static_cast<int>(kFingerQuality)) {
        r.strError = "finger-on-glass";
        return r;
    }
    if (job.eKind == kJobBackground) return r;

    const bool bRoll = job.eKind == kJobRoll;
    if (bRoll) {
        sensor.WriteData(155, 1);
        if (sensor.ReadData(155) != 1) {
            r.strError = "roll-not-supported";
            return r;
        }
    }
    cli::AskPerson(m_nIndex, bRoll ? cli::kAskRoll : cli::kAskPlace);
    std::vector<unsigned char> vecLive(IMG_PIXELS, 255);
    m_pLiveBuffer = vecLive.data();
    m_nFrame = 0;
    m_bRoll = bRoll;
    m_bRolling = false;
    m_nPlaced = 0;
    sensor.SetCallBackFunction(1, OnFrame, this);
    long nThreshold = job.nThreshold;
    if (nThreshold < 0) {
        nThreshold =
            job.eKind == kJobCapture ? kFingerQuality : cli::DefaultLiveThreshold(sensor.GetDeviceType(), bRoll);
    }
    r.nStatus = sensor.GetLiveImageEx2(vecLive.data(), static_cast<unsigned long>(job.nTimeoutMs), 0, nullptr,
                                       static_cast<unsigned long>(nThreshold));
    sensor.SetCallBackFunction(1, nullptr, nullptr);
    if (bRoll) sensor.WriteData(155, 0);
    r.nFrames = m_nFrame;
    r.bStopped = m_bStop;
    if (r.bStopped) return r;
    if (job.eKind == kJobCapture) {
        // The finger lies on the glass: the finished, corner-marked image.
        if (r.nStatus != TAVK05_OK) return r;
        r.vecImage.assign(IMG_PIXELS, 255);
        r.nStatus = sensor.GetImage(r.vecImage.data());
        r.bImage = r.nStatus == TAVK05_OK;
    } else {
        // A weak rolled print or a time-out still leaves an image worth keeping.
        r.bImage = r.nStatus == TAVK05_OK || r.nStatus == TAVK05_E_LATENT || r.nStatus == TAVK05_E_NO_IMAGE;
        if (r.bImage) r.vecImage = std::move(vecLive);
    }
    if (r.bImage) r.nQuality = sensor.m_ImageProc.CheckImageQuality2(IMG_WIDTH, IMG_HEIGHT, r.vecImage.data());
    return r;
}

}  // namespace serve
