#pragma once

#include <cstdint>

#include "framework/DeviceOf.h"
#include "framework/VectorDispatch.h"

namespace basekit {

// Adds white noise to every height: uniform, or Gaussian cut at three
// standard deviations. The noise of a sample depends on the seed and the
// sample's place only.
class AddNoise : public DeviceOf<AddNoise, Filter> {
  public:
    static constexpr DeviceInfo kInfo{"ANOI", "Add Noise", "Adds random noise to the heights", 1};
    AddNoise();
    // The randomize operation: a fresh seed.
    bool OptionQuery2() override;
    bool Build(const BuildContext& context) override;
    bool AfterLoad(uint8_t version);
};

// Choices of "Noise Type".
enum NoiseType : int32_t { kNoiseUniform = 0, kNoiseGaussian = 1 };

// Noise in -1..1 of sample (x, y): 2u - 1, or a Box-Muller normal clamped to
// -3..3 and divided by 3.
float SampleNoise(uint32_t seed, uint32_t x, uint32_t y, int32_t type);

// row[x] := row[x] + amount * noise(x, y) for x < width, clamped to 0..1.
// Every path gives the same bits.
void AddNoiseRow(float* row, int32_t width, int32_t y, uint32_t seed, float amount, int32_t type,
                 VectorPath path = BestVectorPath());

}  // namespace basekit
