// The light-map maker's per-sample work: the light direction and the
// lighting of each sample from its normal, its shadow and the sky. Plain
// functions over arrays; the row form handles rows first..last.
#pragma once

#include <cstdint>

#include "framework/HostServices.h"
#include "framework/VectorDispatch.h"

namespace basekit {

// "Included Lighting" choices.
enum LightTerms : int32_t {
    kLightShadowsOnly = 0,
    kLightIndirectOnly = 1,
    kLightAllTerms = 2,
};

// The unit vector toward the sun from a heading and an altitude in whole
// degrees, or `light` as given (the host's global light), normalised.
void SunDirection(int32_t heading, int32_t altitude, float light[3]);
void NormaliseLight(float light[3]);

struct LightSetup {
    float light[3];  // unit vector
    float diffuse;   // "Diffuse Level"
    float sky;       // "Sky Lighting Level"
    int32_t terms;   // LightTerms
    bool softClip;
    bool colour;  // three floats a sample, tinted by the two colours
    float sunColour[3];
    float skyColour[3];
};

// Rows first..last of the light map of `heights` (`grid`: size, extent,
// vertical scale). `shadow` is the shadow map or null (every sample lit);
// `out` takes one float a sample, or three with `colour`. Every vector path
// gives the plain path's bits.
void LightRows(const LightSetup& setup, const float* heights, const Orogen::Grid& grid,
               const float* shadow, int32_t first, int32_t last, float* out,
               VectorPath path = BestVectorPath());

}  // namespace basekit
