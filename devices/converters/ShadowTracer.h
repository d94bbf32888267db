// Shadows of a terrain under a light: every sample marches toward the light
// one sample along the dominant axis a step, and is shadowed (0) when the
// terrain rises more than a hair above the ray, lit (1) when the ray leaves
// the grid or the unit height range first.
#pragma once

#include <cstdint>
#include <vector>

#include "framework/HostServices.h"

namespace basekit {

// The light in sample units, as the tracer marches it: z divided by the
// samples per world unit and by the vertical scale (when that is not 0), then
// normalised again.
void TracerLight(const float light[3], const Orogen::Grid& grid, float out[3]);

// The march as stated, sample by sample: rows first..last of `shadow` (1 lit,
// 0 shadowed). The reference the fast tracer is held to.
void TraceShadowRowsLiteral(const float* heights, int32_t width, int32_t height,
                            const float light[3], int32_t first, int32_t last, float* shadow);

// The same march, the same bits, skipping the stretches of a ray that a max
// pyramid shows to be clear. A ray's height after k steps is known within the
// rounding of k additions without making them; the additions are made only
// where that band straddles a decision. Lines are rows, or columns when the
// light runs more along y; each line is one piece of work, writing its own
// samples.
class ShadowTracer {
  public:
    ShadowTracer(const float* heights, int32_t width, int32_t height, const float light[3]);
    int32_t LineCount() const;
    void TraceLines(int32_t first, int32_t last, float* shadow) const;

  private:
    enum class Mode { Literal, Rows, Columns };
    template <bool kColumns>
    void TraceLine(int32_t line, float* shadow, std::vector<int32_t>& minorIndex) const;

    const float* heights;
    int32_t width, height;
    float light[3];
    float du = 0, dv = 0, dz = 0;  // steps along the line, across it, up
    Mode mode = Mode::Literal;
    // levels[l]: maxima of 2^l by 2^l blocks, (width >> l rounded up) a row.
    std::vector<std::vector<float>> levels;
    std::vector<int32_t> levelWidth;
};

}  // namespace basekit
