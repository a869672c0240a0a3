// tavk05 serve: one worker thread per scanner. The driver is synchronous and
// its sensor object is used from one thread only: the worker creates, opens,
// drives and destroys its sensor, and hands frames and results to callbacks
// that the service turns into work for its I/O thread.
#ifndef TAVK05_SERVE_SCANNER_H
#define TAVK05_SERVE_SCANNER_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace serve {

// Roll state of a live frame, as the protocol sends it.
enum RollState { kRollLive = 0, kRollPlace = 1, kRollRolling = 2 };

// A live frame as the worker hands it over: header and pixels in one buffer,
// ready to be sent as a binary WebSocket message (layout in tavk05-serve(1)).
struct Frame {
    std::vector<unsigned char> vecBytes;
};
enum { kFrameHeaderBytes = 32 };

// What the scanner is, read once when its worker opened it.
struct ScannerInfo {
    unsigned nIndex = 0;
    unsigned long nDeviceType = 0;
    unsigned nFirmware = 0;
    std::string strDeviceId;
    unsigned nImageWidth = 0;  // nominal size of the marks
    unsigned nImageHeight = 0;
    bool bRoll = false;  // composes rolled prints
};

struct Settings {
    long nBrightness = -1;  // -1: unchanged
    long nContrast = -1;
    long nGain = -1;
};

enum JobKind { kJobSettings, kJobBackground, kJobCapture, kJobLive, kJobRoll };

struct Job {
    JobKind eKind = kJobCapture;
    std::uint64_t nJobId = 0;
    Settings settings;  // kJobSettings
    long nTimeoutMs = 20000;
    long nThreshold = -1;  // -1: the command's defaults
};

struct JobResult {
    std::uint64_t nJobId = 0;
    JobKind eKind = kJobCapture;
    unsigned long nStatus = 0;  // driver status (0 success)
    std::string strError;       // protocol error code when it failed before the driver ("finger-on-glass", ...)
    bool bImage = false;        // vecImage holds a finished 600 x 600 image
    std::vector<unsigned char> vecImage;
    int nQuality = 0;
    unsigned nFrames = 0;
    bool bStopped = false;                           // the client (or its disappearance) stopped it
    long nBrightness = 0, nContrast = 0, nGain = 0;  // the settings now
};

class ScannerWorker {
public:
    using FrameSink = std::function<void(std::shared_ptr<const Frame>)>;
    using DoneSink = std::function<void(JobResult)>;

    ScannerWorker(unsigned nIndex, FrameSink sinkFrame, DoneSink sinkDone);
    ~ScannerWorker();  // stops the acquisition, joins, destroys the sensor

    // Starts the thread and waits until it opened the scanner; false (and
    // the thread ended) when there is none at this index.
    bool Start();
    const ScannerInfo& Info() const { return m_info; }
    Settings CurrentSettings() const;

    // From the I/O thread: queue a job; stop the running one (the driver is
    // told at its next frame through the callback's stop).
    void Submit(const Job& job);
    void RequestStop();

private:
    ScannerWorker(const ScannerWorker&) = delete;
    ScannerWorker& operator=(const ScannerWorker&) = delete;
    void Run();
    JobResult Execute(const Job& job);
    static unsigned long OnFrame(void* pContext, void* pInfo);

    unsigned m_nIndex;
    FrameSink m_sinkFrame;
    DoneSink m_sinkDone;
    ScannerInfo m_info;
    std::thread m_thread;
    mutable std::mutex m_mutex;
    std::condition_variable m_cv;
    std::deque<Job> m_queJobs;
    bool m_bQuit = false;
    int m_nOpened = 0;  // 0 pending, 1 opened, -1 none
    std::atomic<bool> m_bStop{false};
    Settings m_settings;  // guarded by m_mutex

    // State of the acquisition the callback sees (worker thread only).
    void* m_pSensor = nullptr;
    const unsigned char* m_pLiveBuffer = nullptr;
    unsigned m_nFrame = 0;
    bool m_bRoll = false, m_bRolling = false;
    int m_nPlaced = 0;
};

}  // namespace serve

#endif
