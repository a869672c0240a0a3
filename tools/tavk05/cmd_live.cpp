// tavk05 live and roll: live view with a progress line, and rolled prints.
#include <signal.h>
#include <sys/ioctl.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "cli.h"
#include "term_picture.h"

namespace cli {

namespace {

// Set by Ctrl-C; the next callback stops the acquisition.
volatile sig_atomic_t g_bInterrupted = 0;

void OnInterrupt(int) { g_bInterrupted = 1; }

const long kPictureIntervalMs = 66;  // at most 15 pictures a second

long long NowMs()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// State shared with the driver's callback during one live capture.
struct Progress {
    const unsigned char* pImage = nullptr;  // the frame as the driver delivers it
    bool bPicture = false;                  // draw the picture on the terminal
    int nPictureRows = 0;                   // text rows of the last picture drawn
    long long nLastPictureMs = -kPictureIntervalMs;
    bool bRoll = false;     // ask for rolling once the finger is placed
    bool bRolling = false;  // rolling has been asked for
    int nPlacedFrames = 0;  // consecutive frames showing a finger
    unsigned nFrame = 0;
    unsigned nLastQuality = 0;
    bool bTty = false;
    const char* pszLastState = "";  // for the line-by-line form of the progress
};

const unsigned kPlacedQuality = 25;  // a finger lies on the glass
const int kPlacedFrames = 2;         // ... for this many frames in a row

void ShowProgress(Progress& p, const ISensor::tagCallbackInfo& info)
{
    char szBar[21];
    const unsigned nFill = info.nQuality > 100 ? 20 : info.nQuality / 5;
    for (unsigned i = 0; i < 20; ++i) szBar[i] = i < nFill ? '#' : '.';
    szBar[20] = '\0';
    const char* pszState = info.nStatus != 0 ? "read failed"
                           : p.bRolling      ? "rolling"
                           : p.bRoll         ? "place finger"
                                             : "live";
    if (p.bPicture && NowMs() - p.nLastPictureMs >= kPictureIntervalMs) {
        // Redraw the picture over the last one, fitted to the terminal.
        struct winsize ws = {};
        if (ioctl(STDERR_FILENO, TIOCGWINSZ, &ws) != 0 || ws.ws_col == 0) ws.ws_col = 80, ws.ws_row = 24;
        int nRows = 0;
        const std::string strPicture =
            RenderHalfBlocks(p.pImage, IMG_WIDTH, IMG_HEIGHT, ws.ws_col, ws.ws_row > 3 ? ws.ws_row - 3 : 1, &nRows);
        if (p.nPictureRows > 0) std::fprintf(stderr, "\r\x1b[%dA", p.nPictureRows);
        std::fputs(strPicture.c_str(), stderr);
        p.nPictureRows = nRows;
        p.nLastPictureMs = NowMs();
    }
    if (p.bTty) {
        std::fprintf(stderr, "\rframe %4u  %-12s  quality [%s] %3u\x1b[K", p.nFrame, pszState, szBar, info.nQuality);
        std::fflush(stderr);
    } else if (std::strcmp(pszState, p.pszLastState) != 0 || p.nFrame % 100 == 0) {
        // Not a terminal: one line when the state changes, and now and then.
        std::fprintf(stderr, "frame %4u  %-12s  quality %3u\n", p.nFrame, pszState, info.nQuality);
    }
    p.pszLastState = pszState;
}

unsigned long Callback(void* pContext, void* pInfo)
{
    Progress& p = *static_cast<Progress*>(pContext);
    const ISensor::tagCallbackInfo& info = *static_cast<const ISensor::tagCallbackInfo*>(pInfo);
    ++p.nFrame;
    p.nLastQuality = info.nQuality;
    ShowProgress(p, info);
    if (g_bInterrupted) return TAVK05_CB_STOP;
    if (p.bRoll && !p.bRolling && info.nStatus == 0) {
        p.nPlacedFrames = info.nQuality >= kPlacedQuality ? p.nPlacedFrames + 1 : 0;
        if (p.nPlacedFrames >= kPlacedFrames) {
            p.bRolling = true;
            if (!p.bTty) std::fprintf(stderr, "Roll the finger across the glass now.\n");
            return TAVK05_CB_START_ROLL;
        }
    }
    return TAVK05_CB_CONTINUE;
}

// Quality above which a frame is taken to show a finger: the background must
// stay below it, and the guided capture waits for a live frame above it.
const int kFingerQuality = 25;

// Ctrl-C during a wait for the finger stops it; the live callback's stop.
unsigned long WaitCallback(void* pContext, void* pInfo)
{
    Progress& p = *static_cast<Progress*>(pContext);
    const ISensor::tagCallbackInfo& info = *static_cast<const ISensor::tagCallbackInfo*>(pInfo);
    ++p.nFrame;
    p.nLastQuality = info.nQuality;
    if (p.bTty) {
        std::fprintf(stderr, "\rwaiting for the finger: frame %4u, quality %3u\x1b[K", p.nFrame, info.nQuality);
        std::fflush(stderr);
    }
    return g_bInterrupted ? TAVK05_CB_STOP : TAVK05_CB_CONTINUE;
}

}  // namespace

int TakeBackground(COberin& sensor, unsigned long nDevice)
{
    std::fprintf(stderr, "Keep the glass clear: taking the background...\n");
    const bool bPerson = AskPerson(nDevice, kAskLift);
    const unsigned long nStatus = Traced("DevIoControl(background)",
                                         sensor.DevIoControl(TAVK05_IOCTL_BACKGROUND, nullptr, 0, nullptr, 0, nullptr));
    if (nStatus != TAVK05_OK) return Fail("background capture", nStatus);
    const int nQuality = sensor.m_ImageProc.CheckImageQuality2(IMG_WIDTH, IMG_HEIGHT, sensor.m_ImageProc.m_pBackground);
    if (nQuality >= kFingerQuality) {
        std::fprintf(stderr,
                     "tavk05: something lies on the glass (background quality %d, at most %d expected): "
                     "lift the finger, clean the glass and try again\n",
                     nQuality, kFingerQuality - 1);
        // A virtual unit with a scene of its own puts the finger down at once.
        if (!bPerson && std::getenv("TAVK05_CLI_VIRTUAL") != nullptr) {
            std::fprintf(stderr,
                         "tavk05: on the virtual scanner, leave out scene= (the person at the glass then "
                         "follows the prompts), or give wait=N reads of clear glass first\n");
        }
        return EXIT_DEVICE;
    }
    return EXIT_OK;
}

int WaitForFinger(COberin& sensor, unsigned long nDevice, long nTimeoutMs)
{
    std::fprintf(stderr, "Place your finger on the glass.\n");
    AskPerson(nDevice, kAskPlace);
    Progress progress;
    progress.bTty = isatty(STDERR_FILENO) != 0;
    std::vector<unsigned char> vecImage(IMG_PIXELS, 255);
    sensor.SetCallBackFunction(1, WaitCallback, &progress);
    struct sigaction saInterrupt = {}, saOld = {};
    saInterrupt.sa_handler = OnInterrupt;
    sigemptyset(&saInterrupt.sa_mask);
    sigaction(SIGINT, &saInterrupt, &saOld);
    const unsigned long nStatus = Traced(
        "GetLiveImageEx2",
        sensor.GetLiveImageEx2(vecImage.data(), static_cast<unsigned long>(nTimeoutMs), 0, nullptr, kFingerQuality));
    sigaction(SIGINT, &saOld, nullptr);
    sensor.SetCallBackFunction(1, nullptr, nullptr);
    if (progress.bTty) std::fputc('\n', stderr);
    if (g_bInterrupted) {
        std::fprintf(stderr, "tavk05: interrupted while waiting for the finger; nothing captured\n");
        return 130;
    }
    if (nStatus == TAVK05_E_NO_IMAGE) {
        std::fprintf(stderr, "tavk05: no finger on the glass within %ld ms (best quality %u, %d needed)\n", nTimeoutMs,
                     progress.nLastQuality, kFingerQuality);
        return EXIT_DEVICE;
    }
    if (nStatus != TAVK05_OK) return Fail("waiting for the finger", nStatus);
    return EXIT_OK;
}

namespace {

int RunLive(const Options& opt, bool bRoll)
{
    const std::string strOutput = opt.Value("output");
    const long nTimeoutMs = opt.Number("timeout", 20000);
    if (!strOutput.empty() && !OutputWritable(strOutput)) return EXIT_IO;

    Session session;
    if (!session.Open(opt.nDevice)) return EXIT_DEVICE;
    COberin& sensor = *session.Get();
    // Device types 5 and 6 show the corrected frame itself in live view, not
    // its difference from the background: the ridges fade toward the edge of
    // the contact and the measured ridge area, the quality, runs lower.
    const long nThreshold = opt.Number("threshold", cli::DefaultLiveThreshold(sensor.GetDeviceType(), bRoll));

    // The live conversion subtracts the background: without one the glass's
    // own shading would look like ridges.
    if (const int nExit = TakeBackground(sensor, opt.nDevice)) return nExit;
    std::fprintf(stderr, bRoll ? "Place your finger on the glass; roll it across when asked.\n"
                               : "Place your finger on the glass.\n");
    AskPerson(opt.nDevice, bRoll ? kAskRoll : kAskPlace);
    if (bRoll) {
        sensor.WriteData(155, 1);
        if (sensor.ReadData(155) != 1) {
            std::fprintf(stderr, "tavk05: device type %lu cannot compose rolled prints\n", sensor.GetDeviceType());
            return EXIT_DEVICE;
        }
    }
    std::vector<unsigned char> vecImage(IMG_PIXELS, 255);
    Progress progress;
    progress.bRoll = bRoll;
    progress.bTty = isatty(STDERR_FILENO) != 0;
    progress.bPicture = progress.bTty && !opt.Has("no-picture");
    progress.pImage = vecImage.data();
    sensor.SetCallBackFunction(1, Callback, &progress);

    // Ctrl-C ends the acquisition through the callback, so the driver stops
    // the device and the terminal is put back in order below.
    struct sigaction saInterrupt = {}, saOld = {};
    saInterrupt.sa_handler = OnInterrupt;
    sigemptyset(&saInterrupt.sa_mask);
    sigaction(SIGINT, &saInterrupt, &saOld);
    if (progress.bPicture) std::fputs("\x1b[?25l", stderr);  // no cursor over the picture
    const unsigned long nStatus =
        Traced("GetLiveImageEx2", sensor.GetLiveImageEx2(vecImage.data(), static_cast<unsigned long>(nTimeoutMs), 0,
                                                         nullptr, static_cast<unsigned long>(nThreshold)));
    if (bRoll) sensor.WriteData(155, 0);
    if (progress.bPicture) std::fputs("\x1b[0m\x1b[?25h", stderr);
    if (progress.bTty) std::fputc('\n', stderr);
    sigaction(SIGINT, &saOld, nullptr);
    if (g_bInterrupted) {
        std::fprintf(stderr, "tavk05: interrupted after %u frames; acquisition stopped, nothing written\n",
                     progress.nFrame);
        return 130;
    }

    std::FILE* pInfo = strOutput == "-" ? stderr : stdout;
    const int nQuality = sensor.m_ImageProc.CheckImageQuality2(IMG_WIDTH, IMG_HEIGHT, vecImage.data());
    std::fprintf(pInfo, "%s ended after %u frames: status %lu (%s), quality %d\n",
                 bRoll ? "rolled capture" : "live view", progress.nFrame, nStatus, StatusText(nStatus), nQuality);
    // A weak rolled print (57) or a time-out still leaves an image worth keeping.
    const bool bImage = nStatus == TAVK05_OK || nStatus == TAVK05_E_LATENT || nStatus == TAVK05_E_NO_IMAGE;
    if (!strOutput.empty() && bImage) {
        // The quality the command measured on the accepted frame goes into a record.
        const ImageFacts facts =
            FactsFromOptions(opt, bRoll ? TAVK05_REC_LIVE_ROLLED : TAVK05_REC_LIVE_PLAIN, nQuality);
        if (!SaveImage(strOutput, vecImage.data(), facts)) return EXIT_IO;
        std::fprintf(pInfo, "%s written\n", strOutput.c_str());
    }
    return nStatus == TAVK05_OK ? EXIT_OK : EXIT_DEVICE;
}

}  // namespace

int CmdLive(const Options& opt) { return RunLive(opt, false); }

int CmdRoll(const Options& opt) { return RunLive(opt, true); }

}  // namespace cli
