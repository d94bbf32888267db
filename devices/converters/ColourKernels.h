// The converters' per-sample work: colour models, the colour ramp, channel
// packing and normal encoding. Plain functions over arrays; the row forms
// handle rows first..last of a width-wide field (bitmaps three floats a point).
#pragma once

#include <cstdint>

#include "framework/HostServices.h"
#include "framework/VectorDispatch.h"

namespace basekit {

// Hue, saturation and brightness in 0..1 to red, green and blue, written over
// `pixel`. Hue 1 stays in the last sector; a hue outside the six sectors
// (below 0, above 1.0003, NaN) leaves `pixel` as it is.
void HsbToRgb(float h, float s, float v, float pixel[3]);

// Red, green and blue to hue, saturation and brightness in 0..1. Grey and
// black give hue and saturation 0; a maximum that compares equal to no
// channel (NaN) gives (0, 0, 0).
void RgbToHsb(float r, float g, float b, float hsb[3]);

// rgb := low + (high - low) * h per channel, unclamped.
void ColourRampRows(const float* heights, int32_t width, int32_t first, int32_t last,
                    const float low[3], const float high[3], float* rgb);

// Three channel fields into one bitmap: as red, green and blue, or (hsb) as
// hue, saturation and brightness. Unclamped. Every vector path gives the
// plain path's bits, here and below.
void CombineChannelRows(const float* const channels[3], int32_t width, int32_t first, int32_t last,
                        bool hsb, float* rgb, VectorPath path = BestVectorPath());

// A bitmap into three channel fields: red, green and blue, or (hsb) hue,
// saturation and brightness.
void SplitChannelRows(const float* rgb, int32_t width, int32_t first, int32_t last, bool hsb,
                      float* const channels[3], VectorPath path = BestVectorPath());

// A height field's normals as colours, from its slopes in world units (the
// grid's samples per world unit and vertical scale). Flips are -1 (the
// default: both horizontal components negated) or +1.
struct NormalSetup {
    const float* heights;
    Orogen::Grid grid;  // width, height, extent, vertical scale
    float flipX, flipY;
};
void NormalRows(const NormalSetup& setup, int32_t first, int32_t last, float* rgb,
                VectorPath path = BestVectorPath());

}  // namespace basekit
