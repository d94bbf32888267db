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

// The same march, the same bits, faster. The rays of a line (a row, or a
// column when the light runs more along y) step together, eight abreast,
// while most of them are still open; each ray left then skips the stretches
// that a max pyramid shows to be clear. Its height after k steps is known
// within the rounding of k additions without making them; the additions are
// made only where that band straddles a decision. Each line is one piece of
// work, writing its own samples.
class ShadowTracer {
  public:
    ShadowTracer(const float* heights, int32_t width, int32_t height, const float light[3]);
    ShadowTracer(const ShadowTracer&) = delete;
    ShadowTracer& operator=(const ShadowTracer&) = delete;
    // Rows, or columns when the light runs more along y.
    int32_t LineCount() const;
    // False where the march is made as stated: a light too steep or not
    // finite, ground outside 0..1, a light below the horizon.
    bool Skips() const { return mode == Mode::Rows || mode == Mode::Columns; }
    void TraceLines(int32_t first, int32_t last, float* shadow) const;

  private:
    enum class Mode { Literal, AllLit, Rows, Columns };
    struct Line {
        int32_t index = 0;
        int32_t endV = 0;            // the first step off the grid across the line
        std::vector<int32_t> minor;  // the row of `lines` each step reads
        std::vector<float> z;        // each ray's height, marched with the line
        std::vector<int32_t> state;  // each ray's fate so far
    };
    void MarchMinor(int32_t index, Line& line) const;
    void TraceLine(Line& line, float* shadow) const;
    void MarchSpan(float* z, int32_t* state, const float* ground, int32_t lo, int32_t hi) const;
    float TraceFrom(const Line& line, int32_t u0, int32_t k, int32_t steps, float z,
                    int32_t end) const;

    const float* heights;
    int32_t width, height;
    float light[3];
    Mode mode = Mode::Literal;
    float du = 0, dv = 0, dz = 0;  // steps along the line (+-1), across it, up
    // The terrain as lines: the rows, or a copy with the columns as rows.
    const float* lines = nullptr;
    int32_t sizeU = 0, sizeV = 0;
    std::vector<float> transposed;
    // levels[l]: maxima of 2^l by 2^l blocks of `lines`, levelWidth[l] a row;
    // level 0 is `lines` itself.
    std::vector<const float*> levels;
    std::vector<int32_t> levelWidth;
    std::vector<std::vector<float>> maxima;
};

}  // namespace basekit
