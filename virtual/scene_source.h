// The virtual scanner's frame source for finger scenes: picks the scene's
// state for each read and renders either a frame or a latent image.
//
// Keys (besides scene=, see scene_model.h for the scenes):
//   seed=N          the finger, 0..4294967295 (default 1)
//   impression=K    how the finger lies on the glass (finger_impression.h):
//                   without the key a flat, dark or pale finger is put down
//                   anew for every acquisition (impressions 0, 1, 2 ...);
//                   the scenes with a timeline play impression 0 through
//   image=FILE.png  the host's own 500 ppi grey print stands for the finger
//   images=DIR      the .png prints of DIR, one per acquisition, cycled
//                   (scene_image.h)
//   latent=N        N reads of an earlier finger's residue before the scene
//   wait=N          N reads of empty glass before the scene
//   latentcheck=M   how the host uses latent reads, as the value it writes
//                   to the driver's capture-option register:
//                   0  no latent reads (default)
//                   1  a latent read before each capture: single captures
//                      and live captures start with a latent read; after a
//                      latent read that shows a live finger the next
//                      acquisition is the capture itself, otherwise another
//                      latent read
//                   2  latent reads only (single captures in check-only mode)
//
// Why latentcheck: the device cannot tell a latent read from a frame read:
// the driver brackets both with the same start and stop requests and asks
// for the same length. A real scanner would switch its light for the latent
// exposure on a command this interface does not have, so the host's use is
// declared with the unit instead, and the unit follows the driver's order
// of reads. With latentcheck=1 only the first read of an acquisition can be
// a latent read; any further read of it (the frame stream of a live
// capture, the four averaged reads of models 3 and 4) is a frame. Other
// single-frame acquisitions in between (such as the background capture of
// control code 261) are best made before the key is set.
#ifndef TAVK05_SCENE_SOURCE_H
#define TAVK05_SCENE_SOURCE_H

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "scene_model.h"
#include "vscanner_render.h"

namespace tavk05virt {

// Whether a scene name belongs to the finger scenes.
bool IsFingerScene(const std::string& strScene);
// Whether a key is one of the finger scene keys above (not scene= itself).
bool IsFingerSceneKey(const std::string& strKey);
// Checks one finger scene key; false with a message naming the key.
bool CheckFingerSceneKey(const std::string& strKey, const std::string& strValue, std::string* pError);
// Help lines of the finger scenes for the unit syntax text, as a literal so
// that the text can be put together at compile time.
#define TAVK05_FINGER_SCENE_SYNTAX                                                       \
    "Finger scenes (time counts the unit's reads since the scene was set):\n"            \
    "  scene=empty       nothing on the glass\n"                                         \
    "  scene=flat        a finger pressed flat, still\n"                                 \
    "  scene=latent      an earlier finger's residue on the glass\n"                     \
    "  scene=dark        a finger pressed too hard; scene=pale: too lightly, dry\n"      \
    "  scene=place       3 reads empty, then the finger settles over 6 reads\n"          \
    "  scene=roll        6 reads still, rolled toward higher columns 8 a read for\n"     \
    "                    34 reads, lifted over 2; scene=roll-left: toward lower\n"       \
    "  scene=roll-fast   as roll, 120 columns a read for 2 reads (too fast)\n"           \
    "  scene=lift        as roll, lifted after 14 reads of rolling\n"                    \
    "  scene=person      the default: a finger rests flat on the glass; the host\n"      \
    "                    asks the person to lift, place or roll it (tavk05/virtual.h)\n" \
    "  seed=N            the finger, 0..4294967295 (default 1)\n"                        \
    "  latent=N          N reads of residue before the scene begins\n"                   \
    "  wait=N            N reads of empty glass before the scene begins\n"               \
    "  latentcheck=M     the host's latent reads: 0 none (default), 1 one before\n"      \
    "                    each capture until a live finger passes, 2 latent reads only\n" \
    "  impression=K      how the finger lies: 0 as grown; without the key flat, dark\n"  \
    "                    and pale fingers are put down anew for every acquisition\n"     \
    "  image=FILE.png    a 500 ppi grey print stands for the finger (centred)\n"         \
    "  images=DIR        the .png prints of DIR in name order, one per acquisition\n"
const char* FingerSceneSyntax();

// Settings of a finger scene source.
struct FingerSceneSettings {
    SceneConfig config;
    unsigned nLatentCheck = 0;
    std::string strImage;          // image= or images=: the host's prints
    bool bImageDirectory = false;  // images=
};

// Reads scene= and the finger scene keys (later pairs override earlier
// ones); false with a message for an unknown scene or a bad value.
bool ParseFingerScene(const std::string& strScene, const std::vector<std::pair<std::string, std::string>>& vecKeys,
                      FingerSceneSettings* pSettings, std::string* pError);

// The frame source of a finger scene; null with a message when memory is
// short (the finger's pattern is grown here, once per seed).
std::unique_ptr<CFrameSource> MakeFingerSource(const FingerSceneSettings& settings, std::string* pError);

}  // namespace tavk05virt

#endif
