#pragma once

#include <cstdint>

#include "framework/DeviceOf.h"
#include "framework/VectorDispatch.h"

namespace basekit {

// Cuts a terrain at a height into the part below and the part above it, whose
// sum is the terrain again, and a mask of where it lies above.
class HeightSplitter : public DeviceOf<HeightSplitter, Filter> {
  public:
    static constexpr DeviceInfo kInfo{
        "HSPL", "Height Splitter", "Splits the terrain at a height into a lower and an upper part",
        1};
    HeightSplitter();
    bool Build(const BuildContext& context) override;
};

// For `count` samples: heights := lower = min(h, split), and beside them
// upper = max(h - split, 0) and mask = the smoothed ramp from
// split - transition/2 to split + transition/2 (a step at split for
// transition 0); each clamped to 0..1. Every path gives the same bits.
void SplitSamples(float* heights, float* upper, float* mask, uint64_t count, float split,
                  float transition, VectorPath path = BestVectorPath());

}  // namespace basekit
