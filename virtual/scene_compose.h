// Optics of the virtual scanner: what the sensor sees of a finger pose.
//
// Frame exposure (frustrated total internal reflection). The prism reflects
// the light totally wherever air touches the glass, so empty glass and the
// valleys between ridges are bright. Where skin touches, the reflection is
// broken and the ridge shows dark. A firm press flattens the ridges: wider
// dark lines, and moisture pressed out of the skin greys the valleys. A
// light or dry touch reaches the glass only with the ridge crests, and dry
// patches not at all: thin, pale, broken ridges. At the rim of the contact
// the pressure falls off, so the ridges there thin out and fade. A residue
// left by an earlier finger frustrates the reflection only faintly.
//
// ComposeGlass draws this in finished-image coordinates as the grey level
// the finished image should show at the nominal exposure (brightness 40,
// gain 1); the renderer (finger_render.h) turns it into sensor samples.
#ifndef TAVK05_SCENE_COMPOSE_H
#define TAVK05_SCENE_COMPOSE_H

#include <cstdint>

#include "finger_pattern.h"
#include "profile/model_profile.h"
#include "scene_model.h"

namespace tavk05virt {

// Grey levels of the finished image at the nominal exposure.
struct GlassLevels {
    enum {
        kGlass = 232,   // empty glass
        kRidge = 24,    // a ridge at normal pressure
        kHardRidge = 6  // a ridge pressed hard
    };
};

// Fills pGlass (600 x 600) with the finished-image grey of the pose. The
// pattern may be null for a pose without finger and residue.
void ComposeGlass(const CFingerPattern* pPattern, const FingerPose& pose, unsigned char* pGlass);

// Latent exposure. For the latent check the scanner switches the prism light
// off and lights the platen from the side with a row of line lights that
// graze the glass in parallel stripes. The stripes, 51.5 rows of the latent
// image apart, fall on rows 104, 155.5, 207 ... of the 1214 x 616 latent
// image; the rows half way between them (127, 180, 232 ...) get no stripe
// light. A live finger is a rounded, diffusely scattering body: wherever a
// stripe crosses the pad, the skin throws the light back into the camera,
// brightest on the ridges, so the lit rows show a bright, textured band
// across the finger while the unlit rows between them stay dark. A residue
// is a film a few micrometres thick, flat on the glass: the grazing light
// runs through it without being scattered toward the camera, and the
// residue shows only as a faint print in the room light that reaches the
// whole platen alike; empty glass shows nothing but the sensor's noise.
// So a live finger makes each lit row vary far more than the unlit row
// below it, and a residue or empty glass does not.
//
// The latent image is a read-out window of the sensor, 1214 x 616 samples,
// in the same mosaic layout as a frame; it sees the platen at about two
// samples a column and 1.28 samples a row: latent column c shows finished-
// image column (c + 0.5) * 600 / 1214, latent row r shows finished-image
// row 60 + (r + 0.5) * 480 / 616.
constexpr int kLatentWidth = tavk05profile::kLatentWidth;
constexpr int kLatentHeight = tavk05profile::kLatentHeight;

// Row of the latent image lit by the stripe lights with intensity in
// [0, 1] (1 on a stripe centre).
double LatentStripe(int nRow);

// Fills the first kLatentWidth * kLatentHeight bytes of pFrame with the
// latent image of the pose (pattern as for ComposeGlass); pGlass is ComposeGlass of the same pose (the
// contact or residue that room light shows), nNoiseSeed varies the sensor
// noise. Bytes behind the window up to nFrameBytes are zeroed.
void ComposeLatent(const CFingerPattern* pPattern, const FingerPose& pose, const unsigned char* pGlass,
                   uint64_t nNoiseSeed, unsigned char* pFrame, unsigned long nFrameBytes);

}  // namespace tavk05virt

#endif
