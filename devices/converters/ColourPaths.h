// The vector entry points of the colour kernels. Each handles whole groups of
// its width from the start and returns how many samples it did; the plain
// code finishes the rest.
#pragma once

#include <cstdint>

#include "framework/VectorDispatch.h"

namespace basekit::colour {

// HSB planes to interleaved RGB pixels, as HsbToRgb over pixels holding (h, s, v).
BASEKIT_TARGET_AVX2 int64_t CombineHsbAvx2(const float* h, const float* s, const float* v,
                                           int64_t count, float* rgb);
// Interleaved RGB pixels to three planes.
BASEKIT_TARGET_AVX2 int64_t SplitRgbAvx2(const float* rgb, int64_t count, float* r, float* g,
                                         float* b);
// Interleaved RGB pixels to HSB planes, as RgbToHsb.
BASEKIT_TARGET_AVX2 int64_t SplitHsbAvx2(const float* rgb, int64_t count, float* h, float* s,
                                         float* v);
// Slopes to normal colours: the inner loop of NormalRows.
BASEKIT_TARGET_AVX2 int32_t EncodeNormalsAvx2(const float* gx, const float* gy, int32_t count,
                                              float halfX, float halfY, float* rgb);

}  // namespace basekit::colour
