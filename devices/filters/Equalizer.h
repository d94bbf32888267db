#pragma once

#include <cstdint>

#include "framework/DeviceOf.h"

namespace basekit {

// Histogram equalisation: each height moves toward its rank among all the
// heights, so that they spread evenly over 0..1.
class Equalizer : public DeviceOf<Equalizer, Filter> {
  public:
    static constexpr DeviceInfo kInfo{"EQUA", "Equalizer",
                                      "Spreads the heights evenly over the height range", 1};
    Equalizer();
    // At strength 0 the input comes through as it is.
    bool OptionQuery8() override;
    bool Build(const BuildContext& context) override;
};

// Clamps the samples to 0..1 (NaN to 1), then moves each h to
// h + strength * (q - h), q = (L + (E - 1) / 2) / (count - 1) with L the
// samples strictly below h and E those equal to it. Exact ranks from one
// sort; `count` <= 1 is only clamped.
void EqualizeSamples(float* samples, uint64_t count, float strength);

}  // namespace basekit
