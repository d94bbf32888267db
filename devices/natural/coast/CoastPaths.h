// What the coast's plain code shares with its vector paths.
#pragma once

#include <cstdint>

#include "devices/natural/coast/CoastKernels.h"
#include "framework/VectorDispatch.h"

namespace basekit::coast {

// Depth below the water line at which the water mask reaches 1.
constexpr float kFullWater = 0.0175f;

// The samples of a block whose smooth curve is still to be evaluated: the
// sample, its height above the line d and its share of the beach q = d / b.
// A vector path may write a whole vector past the list's end.
constexpr int32_t kBlock = 256;
constexpr int32_t kSpare = 16;
struct Waiting {
    int32_t count = 0;
    int32_t at[kBlock + kSpare];
    float drop[kBlock + kSpare];
    float share[kBlock + kSpare];
};

// Samples x .. end-1 of a block (at most kBlock) in whole vectors, all but
// the smooth curve, which they leave in `waiting`; returns where they stop.
BASEKIT_TARGET_AVX2 int32_t ErodeVectorsAvx2(const CoastSetup& s, float* heights,
                                             const float* hardness, float* water, float* beach,
                                             int32_t x, int32_t end, Waiting& waiting);
BASEKIT_TARGET_AVX512 int32_t ErodeVectorsAvx512(const CoastSetup& s, float* heights,
                                                 const float* hardness, float* water, float* beach,
                                                 int32_t x, int32_t end, Waiting& waiting);

}  // namespace basekit::coast
