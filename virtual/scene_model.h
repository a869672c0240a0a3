// Scenes of the virtual scanner: what lies on the glass at each frame.
//
// A scene is chosen per unit with `scene=NAME`, the finger with `seed=N`.
// Time is counted in reads of the unit since the scene was set, not in wall
// clock time, so every run of a configuration sees the same frames.
//
//   empty      nothing on the glass
//   flat       a finger pressed flat, normal pressure, still
//   latent     the residue an earlier finger left on the glass, nothing else
//   dark       a finger pressed too hard and moist: wide ridges, dark valleys
//   pale       a dry finger barely touching: thin, broken, pale ridges
//   place      3 reads of empty glass, then the finger comes down over 6 reads
//              (growing contact, sliding a few pixels) and stays
//   roll       the finger lies on one side with its contact centre left of
//              column 300 for 6 reads, rolls toward higher columns by 8
//              columns a read for 34 reads, is lifted over 2 reads and is gone
//   roll-left  the same toward lower columns, starting right of column 300
//   roll-fast  as roll, but 120 columns a read for 2 reads (a roll the
//              composition must reject as too fast), then lifted
//   lift       as roll, but the finger is lifted after 14 reads of rolling,
//              half way across
//   person     a person at the scanner who does what the host asks
//              (PersonPoseAt): the finger lies flat on the glass until the
//              host asks to lift it; asked to place it, it comes down as in
//              place; asked to roll, it rolls as in roll and is lifted
//
// Further keys:
//   latent=N   before the scene begins, the glass shows an earlier finger's
//              residue for N reads; the scene's own time starts after them
//   wait=N     N reads of empty glass before the scene begins (after the
//              residue, if any)
//
// Columns and rows are those of the finished 600 x 600 image: the renderer
// places everything so that it comes out of the driver's geometry
// correction (mirror included) where the scene says.
#ifndef TAVK05_SCENE_MODEL_H
#define TAVK05_SCENE_MODEL_H

#include <cstdint>
#include <string>

#include "finger_impression.h"
#include "finger_pattern.h"

namespace tavk05virt {

enum SceneKind {
    kSceneEmpty,
    kSceneFlat,
    kSceneLatent,
    kSceneDark,
    kScenePale,
    kScenePlace,
    kSceneRoll,
    kSceneRollLeft,
    kSceneRollFast,
    kSceneLift,
    kScenePerson
};

// What the person of the person scene is doing: resting the finger on the
// glass (until first asked anything), or the last thing the host asked.
enum PersonState { kPersonResting, kPersonLifted, kPersonPlacing, kPersonRolling };

// Parses a scene name; false for an unknown one.
bool ParseSceneKind(const std::string& strName, SceneKind* pKind);
const char* SceneKindName(SceneKind eKind);
// The names, separated by ", ", for messages.
const char* SceneKindList();

struct SceneConfig {
    SceneKind eKind = kSceneFlat;
    uint32_t nSeed = 1;
    unsigned long nResidueReads = 0;  // latent=N
    unsigned long nWaitReads = 0;     // wait=N
    unsigned long nImpression = 0;    // impression=K
    bool bImpressionFixed = false;    // impression= given: every acquisition shows impression K
};

// Timeline constants of the live scenes (in reads).
struct SceneTiming {
    enum {
        kPlaceEmpty = 3,   // place: empty glass before the finger arrives
        kPlaceArrive = 6,  // place: reads until the finger has settled
        kRollHold = 6,     // roll scenes: reads at the start position
        kRollReads = 34,   // roll, roll-left: reads of rolling
        kRollStep = 8,     // roll, roll-left, lift: columns per read
        kFastReads = 2,    // roll-fast: reads of rolling
        kFastStep = 120,   // roll-fast: columns per read
        kLiftAfter = 14,   // lift: reads of rolling before the finger leaves
        kLiftReads = 2     // reads over which a rolled finger is lifted
    };
};

// The state of the glass at one read.
struct FingerPose {
    bool bFinger = false;   // skin near the glass
    bool bResidue = false;  // an earlier finger's residue on the glass
    // Contact ellipse (finished-image pixels) and its rotation.
    double fCx = 300.0;
    double fCy = 300.0;
    double fA = 0.0;
    double fB = 0.0;
    double fAngle = 0.0;
    // The pad near the glass (semi-axes around the contact centre): it
    // scatters the latent exposure's stripe light even where the contact
    // itself has not spread yet.
    double fBodyA = 0.0;
    double fBodyB = 0.0;
    // How firmly the finger is pressed: 1 normal, below 0.5 light, above 1.2 hard.
    double fPressure = 0.0;
    // Moisture darkens the valleys (over-pressed, wet); dryness breaks ridges.
    double fMoisture = 0.0;
    double fDryness = 0.0;
    // Contact limited to the skin between the nail edges (rolled finger).
    bool bRolled = false;
    // How this impression lays the skin on the glass (see finger_impression.h):
    // turned about (fTurnCx, fTurnCy), dragged over the ellipse fDragA, fDragB
    // at fDragAngle.
    Impression impression;
    double fTurnCx = 300.0;
    double fTurnCy = 300.0;
    double fDragA = 1.0;
    double fDragB = 1.0;
    double fDragAngle = 0.0;
};

// Where a scene stands after nRead reads (0 = the first read of the scene).
FingerPose PoseAt(const SceneConfig& config, const FingerGenome& genome, unsigned long nRead);

// Where the person scene stands at read nRead of the scene, nSince reads
// after the person began doing eState: resting is the flat finger (after
// latent= and wait=, as in the other scenes); placing and rolling play the
// place and roll timelines from the moment they were asked.
FingerPose PersonPoseAt(const SceneConfig& config, const FingerGenome& genome, PersonState eState, unsigned long nRead,
                        unsigned long nSince);

// The pose as impression nNumber lays the finger down. A flat finger moves
// and turns with its contact; a rolled one keeps the scene's contact strip
// (its skin still lies shifted, turned and dragged under it). Impression 0
// leaves the pose as it is.
FingerPose PlaceImpression(FingerPose pose, const FingerGenome& genome, unsigned long nNumber);

// Whether the latent exposure sees a live, three-dimensional finger (as
// opposed to empty glass or a flat residue). A live finger needs a firm
// enough contact; the latent frame is drawn from the same decision.
bool IsLiveFinger(const FingerPose& pose);

// Horizontal span [*pnLeft, *pnRight] of the contact in finished-image
// columns (the pose's ellipse clipped to the finger outline), for tests and
// for hosts that want to predict a roll. False when nothing touches.
bool ContactSpan(const FingerPose& pose, const FingerGenome& genome, int* pnLeft, int* pnRight);

}  // namespace tavk05virt

#endif
