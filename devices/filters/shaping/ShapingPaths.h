// The shaping loops' entry points on the AVX2 path (the AVX-512 machines take
// it too: these loops are bound by memory well before 16 lanes would pay).
#pragma once

#include <cstdint>

#include "framework/PortableMath.h"
#include "framework/PowLanes.h"
#include "framework/Ramps.h"
#include "framework/SampleHash.h"
#include "framework/VectorDispatch.h"

namespace basekit::shaping {

// Whether `path` runs the AVX2 loops on this machine.
inline bool UseAvx2(VectorPath path) {
    return UsablePath(path) != VectorPath::Plain;
}

BASEKIT_TARGET_AVX2 void RampRowsAvx2(float* s, uint64_t count, float start, float end,
                                      bool smooth);
BASEKIT_TARGET_AVX2 void RangeRowsAvx2(const float* s, uint64_t count, float& lowest,
                                       float& highest);
BASEKIT_TARGET_AVX2 void ExpandRowsAvx2(float* s, uint64_t count, float lowest, float size,
                                        float low, float span);
BASEKIT_TARGET_AVX2 void SplitRowsAvx2(float* heights, float* upper, float* mask, uint64_t count,
                                       float split, float transition);
BASEKIT_TARGET_AVX2 void UniformNoiseRowAvx2(float* row, int32_t width, uint32_t y, uint32_t seed,
                                             float amount);
BASEKIT_TARGET_AVX2 void GaussianNoiseRowAvx2(float* row, int32_t width, uint32_t y, uint32_t seed,
                                              float amount);
BASEKIT_TARGET_AVX2 void ScatterRowAvx2(float* row, int32_t width, uint32_t y, uint32_t seed,
                                        float density);
BASEKIT_TARGET_AVX2 void ClampRowsAvx2(float* s, uint64_t count);
BASEKIT_TARGET_AVX2 void BiasGainRowsAvx2(float* v, uint64_t count, float biasPower,
                                          float gainPower);

}  // namespace basekit::shaping
