// The shaping loops compiled for AVX2.

#include "devices/filters/shaping/ShapingPaths.h"

BASEKIT_BEGIN_AVX2
#include "devices/filters/shaping/ShapingRows.h"
BASEKIT_END_TARGET

namespace basekit::shaping {

namespace {
struct Avx2 {};
}  // namespace

BASEKIT_TARGET_AVX2 void RampRowsAvx2(float* s, uint64_t count, float start, float end,
                                      bool smooth) {
    RampRows<Avx2>(s, count, start, end, smooth);
}

BASEKIT_TARGET_AVX2 void RangeRowsAvx2(const float* s, uint64_t count, float& lowest,
                                       float& highest) {
    RangeRows<Avx2>(s, count, lowest, highest);
}

BASEKIT_TARGET_AVX2 void ExpandRowsAvx2(float* s, uint64_t count, float lowest, float size,
                                        float low, float span) {
    ExpandRows<Avx2>(s, count, lowest, size, low, span);
}

BASEKIT_TARGET_AVX2 void SplitRowsAvx2(float* heights, float* upper, float* mask, uint64_t count,
                                       float split, float transition) {
    SplitRows<Avx2>(heights, upper, mask, count, split, transition);
}

BASEKIT_TARGET_AVX2 void UniformNoiseRowAvx2(float* row, int32_t width, uint32_t y, uint32_t seed,
                                             float amount) {
    UniformNoiseRow<Avx2>(row, width, y, seed, amount);
}

BASEKIT_TARGET_AVX2 void GaussianNoiseRowAvx2(float* row, int32_t width, uint32_t y, uint32_t seed,
                                              float amount) {
    GaussianNoiseRow<Avx2>(row, width, y, seed, amount);
}

BASEKIT_TARGET_AVX2 void ScatterRowAvx2(float* row, int32_t width, uint32_t y, uint32_t seed,
                                        float density) {
    ScatterRow<Avx2>(row, width, y, seed, density);
}

BASEKIT_TARGET_AVX2 void ClampRowsAvx2(float* s, uint64_t count) {
    ClampRows<Avx2>(s, count);
}

BASEKIT_TARGET_AVX2 void BiasGainRowsAvx2(float* v, uint64_t count, float biasPower,
                                          float gainPower) {
    BiasGainRows<Avx2>(v, count, biasPower, gainPower);
}

}  // namespace basekit::shaping
