#pragma once

#include <cstdint>

#include "framework/DeviceOf.h"
#include "framework/VectorDispatch.h"

namespace basekit {

// Stretches the heights linearly so that the lowest becomes "Low" and the
// highest "High".
class Expander : public DeviceOf<Expander, Filter> {
  public:
    static constexpr DeviceInfo kInfo{"EXPA", "Expander",
                                      "Stretches the heights of a terrain to fill a range", 1};
    Expander();
    bool OptionQuery8() override { return false; }
    bool Build(const BuildContext& context) override;
};

// The least and greatest of `count` samples, NaN left out; false (and
// lowest > highest) when there are none.
struct HeightRange {
    float lowest = 1.0f;
    float highest = 0.0f;
    bool Found() const { return lowest <= highest; }
    void Add(const HeightRange& other);
};
HeightRange FindHeightRange(const float* samples, uint64_t count,
                            VectorPath path = BestVectorPath());

// h := low + ((h - range.lowest) / (range.highest - range.lowest)) * (high - low),
// or low everywhere when the range is flat or empty; clamped to 0..1.
void ExpandSamples(float* samples, uint64_t count, const HeightRange& range, float low, float high,
                   VectorPath path = BestVectorPath());

}  // namespace basekit
