// Frame source of the finger scenes (see scene_source.h).
#include "scene_source.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "finger_math.h"
#include "finger_render.h"
#include "scene_compose.h"
#include "scene_image.h"

namespace tavk05virt {

namespace {

const char* const kKeys[] = {"seed", "latent", "wait", "latentcheck", "impression", "image", "images"};

bool IsPathKey(const std::string& strKey) { return strKey == "image" || strKey == "images"; }

// Decimal number within [0, nMax]; false for anything else.
bool ParseNumber(const std::string& strValue, unsigned long long nMax, unsigned long long* pnValue)
{
    if (strValue.empty() || strValue.size() > 20) return false;
    unsigned long long n = 0;
    for (char ch : strValue) {
        if (ch < '0' || ch > '9') return false;
        const unsigned nDigit = static_cast<unsigned>(ch - '0');
        if (nDigit > nMax || n > (nMax - nDigit) / 10) return false;
        n = n * 10 + nDigit;
    }
    *pnValue = n;
    return true;
}

unsigned long long KeyLimit(const std::string& strKey)
{
    if (strKey == "seed" || strKey == "impression") return 4294967295ULL;
    if (strKey == "latentcheck") return 2;
    return 1000000000ULL;
}

class CFingerSource : public CFrameSource {
public:
    CFingerSource(const FingerSceneSettings& settings, std::shared_ptr<const CFingerPattern> pPattern,
                  std::shared_ptr<const CPrintImages> pPrints)
        : m_settings(settings),
          m_pPattern(std::move(pPattern)),
          m_pPrints(std::move(pPrints)),
          m_pGlass(new (std::nothrow) unsigned char[360000]),
          m_pSignal(new (std::nothrow) unsigned char[360001])
    {
    }

    bool Usable() const { return m_pGlass && m_pSignal; }

    bool Person(PersonAction eAction, unsigned long nNextFrame) override
    {
        if (m_settings.config.eKind != kScenePerson) return false;
        if (eAction == kPersonPlace) ++m_nPlacements;
        m_ePerson = eAction == kPersonLift ? kPersonLifted : eAction == kPersonPlace ? kPersonPlacing : kPersonRolling;
        m_nPersonFrame = nNextFrame;
        return true;
    }

    unsigned long long FrameKey(const RenderInput& in) const override
    {
        const Read read = Classify(in);
        uint64_t nKey = fmath::Hash(read.nTime, read.bLatent ? 1 : 0);
        nKey = fmath::Hash(nKey, read.nImpression);
        if (m_settings.config.eKind == kScenePerson) {
            nKey = fmath::Hash(nKey, (static_cast<uint64_t>(m_ePerson) << 32) | read.nSince);
        }
        if (m_pPrints) nKey = fmath::Hash(nKey, read.nAcquisition % m_pPrints->Count());
        nKey = fmath::Hash(nKey, (static_cast<uint64_t>(in.byExposure) << 8) | in.byGain);
        return fmath::Hash(nKey, (static_cast<uint64_t>(in.nDevType) << 16) | in.wBcdDevice);
    }

    void Render(const RenderInput& in, unsigned char* pFrame) const override
    {
        const unsigned long nBytes = in.geometry.nFrameBytes;
        const Read read = Classify(in);
        const FingerPose pose = Pose(read);
        const uint64_t nNoiseSeed = fmath::Hash(m_settings.config.nSeed, 2 * read.nTime + (read.bLatent ? 1 : 0));
        const unsigned char* pGlass = m_pGlass.get();
        if (m_pPrints && pose.bFinger) {
            // While a finger lies on the glass, the host's print is shown
            // whole in its place.
            pGlass = m_pPrints->Glass(read.nAcquisition);
        } else {
            ComposeGlass(m_pPattern.get(), pose, m_pGlass.get());
        }
        if (read.bLatent) {
            ComposeLatent(m_pPattern.get(), pose, pGlass, nNoiseSeed, pFrame, nBytes);
            return;
        }
        const RawPath ePath = PathOf(in.nDevType, in.wBcdDevice);
        const std::shared_ptr<const CRawMap> pMap = CRawMap::Get(ePath);
        if (!pMap) {
            // Out of memory: a black frame, as from a sensor without light.
            std::memset(pFrame, 0, nBytes);
            return;
        }
        SensorSettings settings;
        settings.byExposure = in.byExposure;
        settings.byGain = in.byGain;
        SensorResponse(pGlass, ePath, settings, m_pSignal.get());
        RenderMosaic(*pMap, m_pSignal.get(), NoiseDeviation(ePath, settings), nNoiseSeed, pFrame, nBytes);
    }

private:
    struct Read {
        unsigned long nTime;         // reads since the scene was set
        unsigned long nImpression;   // how the finger lies (finger_impression.h)
        unsigned long nAcquisition;  // acquisitions since the scene was set
        unsigned long nSince;        // reads since the person began its present doing
        bool bLatent;                // the driver reads this one as a latent image
    };

    FingerPose Pose(const Read& read) const
    {
        if (!m_pPattern) return FingerPose();
        const FingerGenome& g = m_pPattern->Genome();
        const FingerPose pose = m_settings.config.eKind == kScenePerson
                                    ? PersonPoseAt(m_settings.config, g, m_ePerson, read.nTime, read.nSince)
                                    : PoseAt(m_settings.config, g, read.nTime);
        return PlaceImpression(pose, g, read.nImpression);
    }

    // A finger that just lies on the glass is put down anew for every
    // acquisition; the scenes with a timeline play one placement through.
    bool PlacedPerAcquisition() const
    {
        const SceneKind eKind = m_settings.config.eKind;
        return !m_settings.config.bImpressionFixed &&
               (eKind == kSceneFlat || eKind == kSceneDark || eKind == kScenePale ||
                (eKind == kScenePerson && m_ePerson == kPersonResting));
    }

    // Scene time and kind of a read. The unit calls FrameKey and then Render
    // for the same read; both come here, so the bookkeeping is idempotent
    // per acquisition.
    Read Classify(const RenderInput& in) const
    {
        if (!m_bStarted) {
            m_bStarted = true;
            m_nFirstFrame = in.nFrame;
            m_nFirstAcquisition = in.nAcquisition;
        }
        Read read;
        read.nTime = in.nFrame >= m_nFirstFrame ? in.nFrame - m_nFirstFrame : 0;
        read.nSince = in.nFrame >= m_nPersonFrame ? in.nFrame - m_nPersonFrame : 0;
        read.nImpression = m_settings.config.nImpression;
        // A person who puts the finger down again lays it differently.
        if (m_ePerson == kPersonPlacing && !m_settings.config.bImpressionFixed) read.nImpression = m_nPlacements - 1;
        read.nAcquisition = in.nAcquisition >= m_nFirstAcquisition ? in.nAcquisition - m_nFirstAcquisition : 0;
        if (PlacedPerAcquisition() && in.nAcquisition > m_nFirstAcquisition) {
            read.nImpression = in.nAcquisition - m_nFirstAcquisition;
        }
        read.bLatent = false;
        if (m_settings.nLatentCheck == 0 || !in.bAcquiring || in.nReadInAcquisition != 0) return read;
        if (m_settings.nLatentCheck == 2) {
            read.bLatent = true;
            return read;
        }
        if (m_bMemo && m_nMemoAcquisition == in.nAcquisition) {
            read.bLatent = m_bMemoLatent;
            return read;
        }
        // The driver captures right after a latent read that found a live
        // finger; after anything else its next acquisition is a latent read.
        const bool bPassed = m_bMemo && m_nMemoAcquisition + 1 == in.nAcquisition && m_bMemoLatent && m_bMemoLive;
        read.bLatent = !bPassed;
        m_bMemo = true;
        m_nMemoAcquisition = in.nAcquisition;
        m_bMemoLatent = read.bLatent;
        m_bMemoLive = read.bLatent && IsLiveFinger(Pose(read));
        return read;
    }

    const FingerSceneSettings m_settings;
    const std::shared_ptr<const CFingerPattern> m_pPattern;  // null for plain empty glass
    const std::shared_ptr<const CPrintImages> m_pPrints;     // image= or images=, else null
    const std::unique_ptr<unsigned char[]> m_pGlass;
    const std::unique_ptr<unsigned char[]> m_pSignal;
    // Read bookkeeping (the unit serialises all calls).
    mutable bool m_bStarted = false;
    mutable unsigned long m_nFirstFrame = 0;
    mutable unsigned long m_nFirstAcquisition = 0;
    mutable bool m_bMemo = false;
    mutable unsigned long m_nMemoAcquisition = 0;
    mutable bool m_bMemoLatent = false;
    mutable bool m_bMemoLive = false;
    // The person scene: what the person does since frame m_nPersonFrame, and
    // how often it was asked to put the finger down.
    PersonState m_ePerson = kPersonResting;
    unsigned long m_nPersonFrame = 0;
    unsigned long m_nPlacements = 0;
};

}  // namespace

bool IsFingerScene(const std::string& strScene)
{
    SceneKind eKind;
    return ParseSceneKind(strScene, &eKind);
}

bool IsFingerSceneKey(const std::string& strKey)
{
    for (const char* pszKey : kKeys) {
        if (strKey == pszKey) return true;
    }
    return false;
}

bool CheckFingerSceneKey(const std::string& strKey, const std::string& strValue, std::string* pError)
{
    if (!IsFingerSceneKey(strKey)) {
        if (pError) *pError = "unknown scene key '" + strKey + "'";
        return false;
    }
    if (IsPathKey(strKey)) {
        if (strValue.empty() || strValue.size() > 4095) {
            if (pError) *pError = strKey + ": needs a path";
            return false;
        }
        return true;
    }
    unsigned long long n = 0;
    const unsigned long long nMax = KeyLimit(strKey);
    if (!ParseNumber(strValue, nMax, &n)) {
        if (pError) {
            *pError = strKey + ": '" + strValue + "' is not a number from 0 to " + std::to_string(nMax);
        }
        return false;
    }
    return true;
}

const char* FingerSceneSyntax() { return TAVK05_FINGER_SCENE_SYNTAX; }

bool ParseFingerScene(const std::string& strScene, const std::vector<std::pair<std::string, std::string>>& vecKeys,
                      FingerSceneSettings* pSettings, std::string* pError)
{
    FingerSceneSettings settings;
    if (!ParseSceneKind(strScene, &settings.config.eKind)) {
        if (pError) *pError = "unknown scene '" + strScene + "' (finger scenes: " + SceneKindList() + ")";
        return false;
    }
    for (const std::pair<std::string, std::string>& key : vecKeys) {
        if (!CheckFingerSceneKey(key.first, key.second, pError)) return false;
        if (IsPathKey(key.first)) {
            settings.strImage = key.second;
            settings.bImageDirectory = key.first == "images";
            continue;
        }
        unsigned long long n = 0;
        ParseNumber(key.second, KeyLimit(key.first), &n);
        if (key.first == "seed") {
            settings.config.nSeed = static_cast<uint32_t>(n);
        } else if (key.first == "latent") {
            settings.config.nResidueReads = static_cast<unsigned long>(n);
        } else if (key.first == "impression") {
            settings.config.nImpression = static_cast<unsigned long>(n);
            settings.config.bImpressionFixed = true;
        } else if (key.first == "wait") {
            settings.config.nWaitReads = static_cast<unsigned long>(n);
        } else {
            settings.nLatentCheck = static_cast<unsigned>(n);
        }
    }
    *pSettings = settings;
    return true;
}

std::unique_ptr<CFrameSource> MakeFingerSource(const FingerSceneSettings& settings, std::string* pError)
{
    std::shared_ptr<const CFingerPattern> pPattern;
    const bool bNeedsFinger = settings.config.eKind != kSceneEmpty || settings.config.nResidueReads > 0;
    if (bNeedsFinger) {
        pPattern = GetFingerPattern(settings.config.nSeed);
        if (!pPattern) {
            if (pError) *pError = "out of memory for the finger's pattern";
            return nullptr;
        }
    }
    std::shared_ptr<const CPrintImages> pPrints;
    if (!settings.strImage.empty()) {
        pPrints = CPrintImages::Load(settings.strImage, settings.bImageDirectory, pError);
        if (!pPrints) return nullptr;
    }
    std::unique_ptr<CFingerSource> pSource(new (std::nothrow) CFingerSource(settings, pPattern, pPrints));
    if (!pSource || !pSource->Usable()) {
        if (pError) *pError = "out of memory for the scene";
        return nullptr;
    }
    return std::unique_ptr<CFrameSource>(pSource.release());
}

}  // namespace tavk05virt
