// Scene timelines of the virtual scanner (see scene_model.h).
#include "scene_model.h"

#include <cmath>

#include "finger_math.h"

namespace tavk05virt {

namespace {

struct SceneName {
    SceneKind eKind;
    const char* pszName;
};

const SceneName kNames[] = {
    {kSceneEmpty, "empty"},        {kSceneFlat, "flat"},   {kSceneLatent, "latent"}, {kSceneDark, "dark"},
    {kScenePale, "pale"},          {kScenePlace, "place"}, {kSceneRoll, "roll"},     {kSceneRollLeft, "roll-left"},
    {kSceneRollFast, "roll-fast"}, {kSceneLift, "lift"},   {kScenePerson, "person"},
};

// The finger pressed flat, as the genome describes it.
FingerPose FlatPose(const FingerGenome& g)
{
    FingerPose pose;
    pose.bFinger = true;
    pose.fCx = g.ptContact.x;
    pose.fCy = g.ptContact.y;
    pose.fA = g.fContactA;
    pose.fB = g.fContactB;
    pose.fAngle = g.fContactAngle;
    pose.fBodyA = 1.2 * g.fContactA;
    pose.fBodyB = 1.2 * g.fContactB;
    pose.fPressure = 1.0;
    return pose;
}

// A finger on its side: a narrower contact strip, upright, limited to the
// skin between the nail edges.
FingerPose RollPose(const FingerGenome& g, double fCx)
{
    FingerPose pose = FlatPose(g);
    pose.fCx = fCx;
    pose.fCy = g.ptOutline.y - 20.0;
    pose.fA = 0.78 * g.fContactA;
    pose.fAngle = 0.0;
    pose.fBodyA = 1.2 * pose.fA;
    pose.bRolled = true;
    return pose;
}

// Contact centre at the start and the end of a full roll toward higher
// columns: the strip touches one nail edge, then the other.
double RollStart(const FingerGenome& g) { return g.ptOutline.x - g.fOutlineA + 0.78 * g.fContactA + 4.0; }

// Lifting: pressure fades over kLiftReads reads, then nothing.
FingerPose Lifting(FingerPose pose, unsigned long nSince)
{
    if (nSince >= SceneTiming::kLiftReads) return FingerPose();
    pose.fPressure *= 1.0 - (nSince + 1.0) / (SceneTiming::kLiftReads + 1.0);
    return pose;
}

// A roll: hold, then nReads steps of nStep columns in direction fSign,
// then lifted.
FingerPose Roll(const FingerGenome& g, unsigned long t, double fSign, unsigned long nReads, double fStep)
{
    const double fStart = fSign > 0 ? RollStart(g) : 2.0 * g.ptOutline.x - RollStart(g);
    if (t < SceneTiming::kRollHold) return RollPose(g, fStart);
    const unsigned long nMoved = t - SceneTiming::kRollHold + 1;
    if (nMoved <= nReads) return RollPose(g, fStart + fSign * fStep * nMoved);
    return Lifting(RollPose(g, fStart + fSign * fStep * nReads), nMoved - nReads - 1);
}

}  // namespace

bool ParseSceneKind(const std::string& strName, SceneKind* pKind)
{
    for (const SceneName& name : kNames) {
        if (strName == name.pszName) {
            *pKind = name.eKind;
            return true;
        }
    }
    return false;
}

const char* SceneKindName(SceneKind eKind)
{
    for (const SceneName& name : kNames) {
        if (name.eKind == eKind) return name.pszName;
    }
    return "?";
}

const char* SceneKindList()
{
    return "empty, flat, latent, dark, pale, place, roll, roll-left, roll-fast, lift, person";
}

FingerPose PoseAt(const SceneConfig& config, const FingerGenome& g, unsigned long nRead)
{
    if (nRead < config.nResidueReads) {
        FingerPose pose;
        pose.bResidue = true;
        return pose;
    }
    nRead -= config.nResidueReads;
    if (nRead < config.nWaitReads) return FingerPose();
    const unsigned long t = nRead - config.nWaitReads;

    switch (config.eKind) {
        case kSceneEmpty:
            return FingerPose();
        case kSceneFlat:
        case kScenePerson:  // resting
            return FlatPose(g);
        case kSceneLatent: {
            FingerPose pose;
            pose.bResidue = true;
            return pose;
        }
        case kSceneDark: {
            // Pressed hard: the pad flattens into a larger contact and the
            // moisture squeezed out fills the valleys.
            FingerPose pose = FlatPose(g);
            pose.fA *= 1.08;
            pose.fB *= 1.06;
            pose.fPressure = 1.45;
            pose.fMoisture = 0.55;
            return pose;
        }
        case kScenePale: {
            FingerPose pose = FlatPose(g);
            pose.fA *= 0.86;
            pose.fB *= 0.9;
            pose.fPressure = 0.4;
            pose.fDryness = 0.8;
            return pose;
        }
        case kScenePlace: {
            if (t < SceneTiming::kPlaceEmpty) return FingerPose();
            FingerPose pose = FlatPose(g);
            const unsigned long nIn = t - SceneTiming::kPlaceEmpty;
            if (nIn + 1 < SceneTiming::kPlaceArrive) {
                // The pad touches first at its centre; the contact grows as the
                // finger settles, and the finger slides a few pixels into place.
                const double f = (nIn + 1.0) / SceneTiming::kPlaceArrive;
                const double fEase = f * (2.0 - f);
                pose.fA *= 0.35 + 0.65 * fEase;
                pose.fB *= 0.35 + 0.65 * fEase;
                pose.fPressure = 0.3 + 0.7 * fEase;
                pose.fCx += 10.0 * (1.0 - fEase);
                pose.fCy -= 14.0 * (1.0 - fEase);
            }
            return pose;
        }
        case kSceneRoll:
            return Roll(g, t, 1.0, SceneTiming::kRollReads, SceneTiming::kRollStep);
        case kSceneRollLeft:
            return Roll(g, t, -1.0, SceneTiming::kRollReads, SceneTiming::kRollStep);
        case kSceneRollFast:
            return Roll(g, t, 1.0, SceneTiming::kFastReads, SceneTiming::kFastStep);
        case kSceneLift: {
            const double fStart = RollStart(g);
            if (t < SceneTiming::kRollHold) return RollPose(g, fStart);
            const unsigned long nMoved = t - SceneTiming::kRollHold + 1;
            if (nMoved <= SceneTiming::kLiftAfter) return RollPose(g, fStart + SceneTiming::kRollStep * nMoved);
            // Gone at once: the finger is pulled off the glass mid-roll.
            return FingerPose();
        }
    }
    return FingerPose();
}

FingerPose PersonPoseAt(const SceneConfig& config, const FingerGenome& g, PersonState eState, unsigned long nRead,
                        unsigned long nSince)
{
    SceneConfig timeline;
    timeline.eKind = eState == kPersonPlacing ? kScenePlace : kSceneRoll;
    switch (eState) {
        case kPersonResting:
            return PoseAt(config, g, nRead);
        case kPersonLifted:
            return FingerPose();
        case kPersonPlacing:
        case kPersonRolling:
            return PoseAt(timeline, g, nSince);
    }
    return FingerPose();
}

FingerPose PlaceImpression(FingerPose pose, const FingerGenome& g, unsigned long nNumber)
{
    if (!pose.bFinger || nNumber == 0) return pose;
    const Impression imp = MakeImpression(g.nSeed, nNumber);
    pose.impression = imp;
    if (pose.bRolled) {
        // The skin turns about the middle of the finger, dragged over its outline.
        pose.fTurnCx = g.ptOutline.x;
        pose.fTurnCy = g.ptOutline.y;
        pose.fDragA = g.fOutlineA;
        pose.fDragB = g.fOutlineB;
        pose.fDragAngle = 0.0;
    } else {
        pose.fTurnCx = pose.fCx;
        pose.fTurnCy = pose.fCy;
        pose.fCx += imp.fShiftX;
        pose.fCy += imp.fShiftY;
        pose.fAngle += imp.fTwist;
        // A firmer press spreads the contact.
        const double fSpread = 0.94 + 0.06 * imp.fPressure;
        pose.fA *= fSpread;
        pose.fB *= fSpread;
        pose.fBodyA *= fSpread;
        pose.fBodyB *= fSpread;
        pose.fDragA = pose.fA;
        pose.fDragB = pose.fB;
        pose.fDragAngle = pose.fAngle;
    }
    // A roll keeps the pressure its scene scripts.
    if (!pose.bRolled) pose.fPressure *= imp.fPressure;
    pose.fMoisture += imp.fMoisture;
    pose.fDryness += imp.fDryness;
    return pose;
}

bool IsLiveFinger(const FingerPose& pose) { return pose.bFinger && pose.fPressure >= 0.25; }

bool ContactSpan(const FingerPose& pose, const FingerGenome& g, int* pnLeft, int* pnRight)
{
    if (!pose.bFinger || pose.fPressure <= 0.0) return false;
    // Extreme columns of the rotated ellipse.
    const double c = fmath::Cos(pose.fAngle);
    const double s = fmath::Sin(pose.fAngle);
    const double fHalf = std::sqrt(pose.fA * pose.fA * c * c + pose.fB * pose.fB * s * s);
    double fLeft = pose.fCx - fHalf;
    double fRight = pose.fCx + fHalf;
    if (pose.bRolled) {
        const double fOutLeft = g.ptOutline.x - g.fOutlineA;
        const double fOutRight = g.ptOutline.x + g.fOutlineA;
        if (fLeft < fOutLeft) fLeft = fOutLeft;
        if (fRight > fOutRight) fRight = fOutRight;
    }
    if (fLeft < 0.0) fLeft = 0.0;
    if (fRight > 599.0) fRight = 599.0;
    if (fRight < fLeft) return false;
    *pnLeft = static_cast<int>(fLeft + 0.5);
    *pnRight = static_cast<int>(fRight + 0.5);
    return true;
}

}  // namespace tavk05virt
