#pragma once

#include <cstdint>

#include "framework/DeviceOf.h"
#include "framework/VectorDispatch.h"

namespace basekit {

// Schlick's bias and gain curves on every sample of a height field or every
// channel of a bitmap.
class BiasGain : public DeviceOf<BiasGain, Filter> {
  public:
    static constexpr DeviceInfo kInfo{"BIGA", "Bias/Gain",
                                      "Reshapes values with bias and gain curves", 1};
    BiasGain();
    bool Build(const BuildContext& context) override;
};

// The powers of both curves: t^biasPower for bias, (2t)^gainPower / 2 and its
// mirror for gain. A power of 1 is the identity.
struct BiasGainCurve {
    float biasPower;
    float gainPower;
};
BiasGainCurve MakeBiasGainCurve(float bias, float gain);

// v := gain(bias(v)) after clamping v to 0..1 (NaN to 1).
void BiasGainSamples(float* values, uint64_t count, const BiasGainCurve& curve,
                     VectorPath path = BestVectorPath());

}  // namespace basekit
