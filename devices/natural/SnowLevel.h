#pragma once

#include <cstdint>

#include "devices/natural/snow/SnowKernels.h"
#include "framework/DeviceOf.h"

namespace basekit {

// Snow falls on the terrain, slides from higher cells to lower ones over many
// passes and melts below the snow line; the settled snow is added to the
// terrain and its depth given out as a mask.
class SnowLevel : public DeviceOf<SnowLevel, NaturalFilter> {
  public:
    static constexpr DeviceInfo kInfo{"SNOW", "Snow", "Simulates snowfall onto the terrain", 1};
    SnowLevel();
    bool Build(const BuildContext& context) override;
};

// The rates and pass count of a terrain `grid` wide: fall = intensity * 0.64 /
// samples per unit, evaporation = fall * balance, passes = amount / 64 world
// units in samples, truncated, at most kMaxSnowPasses.
// Reached only where a world unit holds over 41,943 samples; a world far
// narrower than its samples would otherwise ask for passes without end.
constexpr int32_t kMaxSnowPasses = 1 << 16;

struct SnowScale {
    float fall;
    float evaporation;
    int32_t passes;
};
SnowScale ScaleSnow(const Grid& grid, float intensity, float balance, int32_t amount);

// The terrain under its snow: terrain[i] + clamp(snow[i] - evaporation, 0, 1),
// not yet clamped, for `count` samples.
void AddSnow(float* terrain, const float* snow, uint64_t count, float evaporation);

// Depth mask on a logarithmic scale, in place: clamped snow through
// k * log10(cutoff * s + 1) with k = 4 / log10(cutoff + 1), clamped again.
void LogDepthMask(float* snow, uint64_t count, float cutoff);

}  // namespace basekit
