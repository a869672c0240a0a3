// Frame sources of the virtual scanner: what a unit's sensor "sees".
//
// A unit asks its frame source for the raw frame of every read. The source
// fills one whole frame (FrameGeometry::nFrameBytes bytes: a row-major colour
// mosaic of nWidth x nHeight samples, one byte each, green where x + y is odd,
// then the unused tail of the transfer). Sources are chosen per unit with the
// `scene=` key; a new one is added by implementing CFrameSource and listing it
// in MakeFrameSource (vscanner_render.cpp) and, if it takes settings of its
// own, in SceneParams and the key table of vscanner_config.cpp.
#ifndef TAVK05_VSCANNER_RENDER_H
#define TAVK05_VSCANNER_RENDER_H

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace tavk05virt {

// Raw frame layout of a model and firmware.
struct FrameGeometry {
    unsigned nWidth;            // mosaic width in samples
    unsigned nHeight;           // mosaic height in samples
    unsigned long nFrameBytes;  // bytes the device sends per frame (mosaic and tail)
};

// Device type the driver derives from idProduct and bcdDevice: 3..8, or 0 for
// a product the driver does not recognise.
int DeviceTypeOf(unsigned short wProduct, unsigned short wBcdDevice);

// Frame layout of a unit: that of its model profile's row for the device
// type and firmware class (types 3, 4 and unrecognised products the small
// sensor's).
FrameGeometry GeometryOf(int nDevType, unsigned short wBcdDevice);

// Everything a source may base a frame on.
struct RenderInput {
    int nIndex;                        // unit index 0..7
    int nModel;                        // model number the unit was configured with
    int nDevType;                      // device type its descriptor implies (0 unrecognised)
    unsigned short wProduct;           // idProduct
    unsigned short wBcdDevice;         // bcdDevice (firmware)
    FrameGeometry geometry;            // layout to fill
    unsigned char byExposure;          // from the last sensor-option block (0 before any)
    unsigned char byGain;              // from the last sensor-option block (0 before any)
    bool bLedOn;                       // last LED request switched the light on
    unsigned long nFrame;              // frames this unit delivered before this one
    unsigned long nAcquisition;        // start-acquisition requests received so far
    unsigned long nReadInAcquisition;  // reads since the last start request (0 = first)
    bool bAcquiring;                   // between a start and a stop request
};

// Settings a scene takes from the unit configuration.
struct SceneParams {
    std::string strScene;                  // "pattern", "levels", a finger scene, or empty: not chosen
    std::vector<unsigned char> vecLevels;  // grey levels of the "levels" scene
    // Keys of the finger scenes (seed=, latent=, wait=, latentcheck=; see
    // scene_source.h), in the order given; a later key overrides an earlier.
    std::vector<std::pair<std::string, std::string>> vecSceneKeys;
};

// What a host asks of the person at the glass (the person scene).
enum PersonAction { kPersonLift, kPersonPlace, kPersonRoll };

class CFrameSource {
public:
    virtual ~CFrameSource() {}
    // The person at the glass does eAction from the read that would be frame
    // nNextFrame on; false for a source without a person.
    virtual bool Person(PersonAction, unsigned long) { return false; }
    // Identity of the frame Render would produce for this input (the geometry
    // aside, which the unit compares itself). The unit keeps its last frame and
    // renders again only when the identity changes, so a read of an unchanged
    // scene is a plain copy.
    virtual unsigned long long FrameKey(const RenderInput& in) const = 0;
    // Fills in.geometry.nFrameBytes bytes at pFrame.
    virtual void Render(const RenderInput& in, unsigned char* pFrame) const = 0;
};

// The source for a scene; null with a message in *pError for an unknown scene
// or settings it cannot use.
std::unique_ptr<CFrameSource> MakeFrameSource(const SceneParams& params, std::string* pError);

// Names of the scenes MakeFrameSource knows, for the syntax check.
bool IsKnownScene(const std::string& strScene);

}  // namespace tavk05virt

#endif
