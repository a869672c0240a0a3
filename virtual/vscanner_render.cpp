// Built-in frame sources of the virtual scanner and the frame geometry by
// model and firmware.
#include "vscanner_render.h"

#include "scene_source.h"

#include <cstring>
#include <new>

#include "profile/model_profile.h"

namespace tavk05virt {

namespace {

// The widest mosaic of any model.
const unsigned kMaxWidth = tavk05profile::kLargeWidth;

// "pattern": a diagonal gradient that moves by one grey level per frame,
// byte (x, y) of frame k = (x + y + k) mod 256; the tail behind the mosaic is
// zero. Cheap to render: every row is a slice of one ramp.
class CPatternSource : public CFrameSource {
public:
    unsigned long long FrameKey(const RenderInput& in) const override { return in.nFrame & 0xFFu; }

    void Render(const RenderInput& in, unsigned char* pFrame) const override
    {
        const FrameGeometry& geo = in.geometry;
        unsigned char abyRamp[kMaxWidth + 256];
        for (unsigned i = 0; i < sizeof abyRamp; ++i) {
            abyRamp[i] = static_cast<unsigned char>(i & 0xFFu);
        }
        const unsigned nWidth = geo.nWidth <= kMaxWidth ? geo.nWidth : kMaxWidth;
        unsigned long nMosaic = static_cast<unsigned long>(nWidth) * geo.nHeight;
        if (nMosaic > geo.nFrameBytes) {
            nMosaic = geo.nFrameBytes - geo.nFrameBytes % (nWidth ? nWidth : 1);
        }
        const unsigned long nRows = nWidth ? nMosaic / nWidth : 0;
        for (unsigned long y = 0; y < nRows; ++y) {
            const unsigned nStart = static_cast<unsigned>((y + in.nFrame) & 0xFFu);
            std::memcpy(pFrame + y * nWidth, abyRamp + nStart, nWidth);
        }
        std::memset(pFrame + nMosaic, 0, geo.nFrameBytes - nMosaic);
    }
};

// "levels": every byte of frame k is levels[k mod n]; lets a test predict
// exactly what a driver that combines several frames must produce.
class CLevelsSource : public CFrameSource {
public:
    explicit CLevelsSource(const std::vector<unsigned char>& vecLevels) : m_vecLevels(vecLevels) {}

    unsigned long long FrameKey(const RenderInput& in) const override { return in.nFrame % m_vecLevels.size(); }

    void Render(const RenderInput& in, unsigned char* pFrame) const override
    {
        std::memset(pFrame, m_vecLevels[in.nFrame % m_vecLevels.size()], in.geometry.nFrameBytes);
    }

private:
    const std::vector<unsigned char> m_vecLevels;
};

}  // namespace

int DeviceTypeOf(unsigned short wProduct, unsigned short wBcdDevice)
{
    return tavk05profile::DeviceTypeOf(wProduct, wBcdDevice);
}

FrameGeometry GeometryOf(int nDevType, unsigned short wBcdDevice)
{
    const tavk05profile::ModelProfile& profile =
        tavk05profile::ProfileOf(nDevType, tavk05profile::IsNewFirmware(wBcdDevice));
    FrameGeometry geo;
    geo.nWidth = static_cast<unsigned>(profile.nRawWidth);
    geo.nHeight = static_cast<unsigned>(profile.nRawHeight);
    geo.nFrameBytes = profile.nFrameBytes;
    return geo;
}

bool IsKnownScene(const std::string& strScene)
{
    return strScene == "pattern" || strScene == "levels" || IsFingerScene(strScene);
}

namespace {

bool IsFingerKey(const SceneParams& params, const char* pszKey)
{
    for (const auto& key : params.vecSceneKeys) {
        if (key.first == pszKey) return true;
    }
    return false;
}

// Keys that ask for things a scene cannot show together; false with a
// message naming both.
bool Consistent(const SceneParams& params, const std::string& strScene, std::string* pError)
{
    std::string strClash;
    if (!params.vecLevels.empty() && strScene != "levels") {
        strClash = "levels= and scene=" + strScene +
                   " contradict each other (levels= gives the grey levels of "
                   "scene=levels)";
    } else if ((strScene == "pattern" || strScene == "levels") && !params.vecSceneKeys.empty()) {
        strClash = params.vecSceneKeys.front().first + "= and scene=" + strScene +
                   " contradict each other (scene=" + strScene + " shows no finger)";
    } else if ((strScene == "empty" || strScene == "latent") &&
               (IsFingerKey(params, "image") || IsFingerKey(params, "images"))) {
        strClash = std::string(IsFingerKey(params, "image") ? "image=" : "images=") + " and scene=" + strScene +
                   " contradict each other (scene=" + strScene + " shows no finger)";
    }
    if (strClash.empty()) return true;
    if (pError) *pError = strClash;
    return false;
}

}  // namespace

std::unique_ptr<CFrameSource> MakeFrameSource(const SceneParams& params, std::string* pError)
{
    // Without scene= a unit shows the levels it was given, or else the person.
    const std::string strScene = !params.strScene.empty()   ? params.strScene
                                 : params.vecLevels.empty() ? "person"
                                                            : "levels";
    std::unique_ptr<CFrameSource> pSource;
    if (!Consistent(params, strScene, pError)) return pSource;
    if (strScene == "pattern") {
        pSource.reset(new (std::nothrow) CPatternSource());
    } else if (strScene == "levels") {
        if (params.vecLevels.empty()) {
            if (pError) *pError = "scene 'levels' needs levels=V1/V2/...";
            return pSource;
        }
        pSource.reset(new (std::nothrow) CLevelsSource(params.vecLevels));
    } else if (IsFingerScene(strScene)) {
        FingerSceneSettings settings;
        if (!ParseFingerScene(strScene, params.vecSceneKeys, &settings, pError)) return pSource;
        return MakeFingerSource(settings, pError);
    } else if (pError) {
        *pError = "unknown scene '" + strScene + "'";
    }
    if (!pSource && pError && pError->empty()) {
        *pError = "out of memory";
    }
    return pSource;
}

}  // namespace tavk05virt
