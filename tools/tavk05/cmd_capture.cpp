// tavk05 capture, background and verify.
#include <algorithm>
#include <cstdio>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "cli.h"
#include "profile/model_profile.h"
#include "tavk05/mark.h"

namespace cli {

namespace {

// Settings given for one capture; they are put back afterwards so that the
// settings file keeps what the user configured with `config set`.
struct CaptureSettings {
    bool bNow = false;        // one frame at once, no guidance
    long nTimeoutMs = 20000;  // wait for the finger at most this long
    long nBrightness = -1;
    long nContrast = -1;
    long nGain = -1;
    unsigned long nWidth = 0;
    unsigned long nHeight = 0;
    int nLatentMode = -1;  // register 0: 0 capture only, 1 check and capture, 2 check only
};

class SettingsGuard {
public:
    explicit SettingsGuard(COberin& sensor)
        : m_sensor(sensor),
          m_nBrightness(sensor.m_nBrightness),
          m_nContrast(sensor.m_nContrast),
          m_nGain(sensor.m_nGain)
    {
    }
    ~SettingsGuard()
    {
        m_sensor.SetBrightness(m_nBrightness);
        m_sensor.SetContrast(m_nContrast);
        m_sensor.SetGainValue(m_nGain);
    }

private:
    COberin& m_sensor;
    unsigned long m_nBrightness, m_nContrast, m_nGain;
};

// The capture's options, checked against their ranges when parsed.
void ReadCaptureSettings(const Options& opt, CaptureSettings* pSet)
{
    pSet->bNow = opt.Has("now");
    pSet->nTimeoutMs = opt.Number("timeout", pSet->nTimeoutMs);
    pSet->nBrightness = opt.Number("brightness", -1);
    pSet->nContrast = opt.Number("contrast", -1);
    pSet->nGain = opt.Number("gain", -1);
    if (opt.Has("size")) ParseSizeValue(opt.Value("size"), &pSet->nWidth, &pSet->nHeight);
    if (opt.Has("latent")) pSet->nLatentMode = 1;
    if (opt.Has("latent-only")) pSet->nLatentMode = 2;
}

}  // namespace

bool ParseLong(const std::string& str, long nMin, long nMax, long* pValue)
{
    char* pEnd = nullptr;
    errno = 0;
    const long n = std::strtol(str.c_str(), &pEnd, 10);
    if (str.empty() || errno != 0 || *pEnd != '\0' || n < nMin || n > nMax) {
        return false;
    }
    *pValue = n;
    return true;
}

int CmdCapture(const Options& opt)
{
    const std::string strOutput = opt.Value("output");
    CaptureSettings set;
    ReadCaptureSettings(opt, &set);
    if (strOutput.empty()) return Usage("capture needs -o FILE (" + WriterList() + ")");
    if (!OutputWritable(strOutput)) return EXIT_IO;

    Session session;
    if (!session.Open(opt.nDevice)) return EXIT_DEVICE;
    COberin& sensor = *session.Get();
    SettingsGuard guard(sensor);

    unsigned long nStatus;
    if (set.nWidth != 0 && (nStatus = Traced("SetImageSize", sensor.SetImageSize(set.nWidth, set.nHeight))) != 0) {
        return Fail("SetImageSize", nStatus);
    }
    if (set.nBrightness >= 0 && (nStatus = Traced("SetBrightness", sensor.SetBrightness(set.nBrightness))) != 0) {
        return Fail("SetBrightness", nStatus);
    }
    if (set.nContrast >= 0 && (nStatus = Traced("SetContrast", sensor.SetContrast(set.nContrast))) != 0) {
        return Fail("SetContrast", nStatus);
    }
    if (set.nGain >= 0 && (nStatus = Traced("SetGainValue", sensor.SetGainValue(set.nGain))) != 0) {
        return Fail("SetGainValue", nStatus);
    }
    if (set.nLatentMode >= 0) {
        // The latent phases run only on units declared latent-capable.
        sensor.m_pVxd->SetLatentCapable(true);
        sensor.WriteData(0, static_cast<unsigned long>(set.nLatentMode));
    }

    // Guided: clear glass for the background, then wait for the finger; with
    // --now (or when only the glass is checked) one frame is taken at once.
    if (!set.bNow && set.nLatentMode != 2) {
        if (const int nExit = TakeBackground(sensor, opt.nDevice)) return nExit;
        if (const int nExit = WaitForFinger(sensor, opt.nDevice, set.nTimeoutMs)) return nExit;
    }
    std::vector<unsigned char> vecImage(IMG_PIXELS, 255);
    nStatus = Traced("GetImage", sensor.GetImage(vecImage.data()));
    if (nStatus != TAVK05_OK) {
        return Fail("GetImage", nStatus);
    }
    if (set.nLatentMode == 2) {
        std::printf("no latent print on the glass\n");
        return EXIT_OK;
    }
    // GetImage reports no quality: a record says "not computed".
    if (!SaveImage(strOutput, vecImage.data(), FactsFromOptions(opt, TAVK05_REC_LIVE_PLAIN, -1))) return EXIT_IO;
    const unsigned long nLast = tavk05profile::kImageSizeCodes - 1;
    const tavk05profile::ImageSize& nominal = tavk05profile::kImageSizes[std::min(sensor.m_nImageSize, nLast)];
    std::fprintf(strOutput == "-" ? stderr : stdout, "%s: 600 x 600, marks for %u x %u\n", strOutput.c_str(),
                 nominal.nWidth, nominal.nHeight);
    return EXIT_OK;
}

int CmdBackground(const Options& opt)
{
    const std::string strOutput = opt.Value("output");
    // The person at a virtual scanner keeps the glass clear.
    AskPerson(opt.nDevice, kAskLift);
    if (!strOutput.empty() && !OutputWritable(strOutput)) return EXIT_IO;
    Session session;
    if (!session.Open(opt.nDevice)) return EXIT_DEVICE;
    COberin& sensor = *session.Get();
    const unsigned long nStatus = Traced("DevIoControl(background)",
                                         sensor.DevIoControl(TAVK05_IOCTL_BACKGROUND, nullptr, 0, nullptr, 0, nullptr));
    if (nStatus != TAVK05_OK) {
        return Fail("background capture", nStatus);
    }
    const unsigned char* pBackground = sensor.m_ImageProc.m_pBackground;
    unsigned long long nSum = 0;
    for (int i = 0; i < IMG_PIXELS; ++i) nSum += pBackground[i];
    std::fprintf(strOutput == "-" ? stderr : stdout, "background captured: mean grey level %llu\n", nSum / IMG_PIXELS);
    if (!strOutput.empty()) {
        if (!SaveImage(strOutput, pBackground, ImageFacts())) return EXIT_IO;
        std::fprintf(strOutput == "-" ? stderr : stdout, "%s written\n", strOutput.c_str());
    }
    return EXIT_OK;
}

int CmdVerify(const Options& opt)
{
    const std::string strFile = opt.vecArgs[0];
    unsigned long nW = 0, nH = 0;
    if (opt.Has("size")) ParseSizeValue(opt.Value("size"), &nW, &nH);

    // Marks are exact grey levels: only an image stored losslessly as 8-bit
    // grey at the finished size is checked, never one converted on reading.
    // WSQ keeps the ridges, not the exact grey levels of the corner pixels,
    // so a WSQ file (or a record holding WSQ) is neither passed nor failed.
    LoadedImage image;
    std::string strError;
    if (!LoadImage(strFile, &image, &strError)) {
        std::fprintf(stderr, "tavk05: %s\n", strError.c_str());
        return EXIT_IO;
    }
    if (image.bLossy) {
        std::fprintf(stderr,
                     "tavk05: %s (%s): WSQ is lossy: corner marks are not kept; verify the PNG of the "
                     "capture, or a record written with --compression none or png\n",
                     strFile.c_str(), image.strFormat.c_str());
        return EXIT_LOSSY;
    }
    if (!image.bStoredGrey8 || image.nWidth != IMG_WIDTH || image.nHeight != IMG_HEIGHT) {
        std::fprintf(stderr, "tavk05: %s: not a %d x %d 8-bit grey image\n", strFile.c_str(), IMG_WIDTH, IMG_HEIGHT);
        return EXIT_IO;
    }
    const unsigned nWidth = image.nWidth, nHeight = image.nHeight;
    std::vector<unsigned char>& vecImage = image.vecPixels;
    if (nW == 0) {
        nW = nWidth;
        nH = nHeight;
    }
    // The marks address the buffer as an image of the nominal size, so that
    // size must fit in the file's pixels.
    if (nW < 5 || nH < 5 || nW * nH > static_cast<unsigned long>(nWidth) * nHeight) {
        return Usage("verify: the mark size must be at least 5 x 5 and fit in the image");
    }
    struct Corner {
        const char* pszName;
        int (*pfnGet)(unsigned char*, int, int);
    };
    const Corner aCorners[] = {{"left-top", GetLTWaterM},
                               {"right-top", GetRTWaterM},
                               {"left-bottom", GetLBWaterM},
                               {"right-bottom", GetRBWaterM}};
    int nHeld = 0;
    for (const Corner& c : aCorners) {
        const int bOk = c.pfnGet(vecImage.data(), static_cast<int>(nW), static_cast<int>(nH));
        nHeld += bOk;
        std::printf("%-13s %s\n", c.pszName, bOk ? "mark holds" : "MARK MISSING");
    }
    std::printf("%s: %d of 4 corner marks hold (mark size %lu x %lu)\n", strFile.c_str(), nHeld, nW, nH);
    return nHeld == 4 ? EXIT_OK : EXIT_CHECK;
}

}  // namespace cli
