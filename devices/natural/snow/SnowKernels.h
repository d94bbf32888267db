// One pass of the snow simulation over a range of rows: snow slides from
// higher to lower neighbours, melts below the snow line and falls afresh.
#pragma once

#include <cstdint>

#include "framework/VectorDispatch.h"

namespace basekit {

// A rate that is either constant or scaled by a map: rate * map[i], or rate
// when there is no map.
struct RateSource {
    const float* map = nullptr;
    float rate = 0.0f;

    float At(uint64_t i) const { return map ? rate * map[i] : rate; }
};

// What one pass reads and writes. Terrain and snow are width * height floats
// in rows; the pass reads `snow` and writes `next`, which must not overlap.
struct SnowPass {
    const float* terrain = nullptr;
    const float* snow = nullptr;
    float* next = nullptr;
    int32_t width = 0;
    int32_t height = 0;
    RateSource fall;
    RateSource evaporation;
    float taper = 0.0f;     // the share of the fall held back this pass
    float snowLine = 0.0f;  // terrain below it melts extra snow
};

// The single-precision 1 / sqrt(2) that weighs the diagonal neighbours.
extern const float kSnowDiagonal;

// Writes next[x, y] for the rows firstRow..lastRow (kept within 1..height-2)
// and the columns 1..width-2; nothing else. Every vector path gives the same
// bits as the plain one.
void SnowPassRows(const SnowPass& pass, int32_t firstRow, int32_t lastRow,
                  VectorPath path = BestVectorPath());

}  // namespace basekit
