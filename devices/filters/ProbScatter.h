#pragma once

#include <cstdint>

#include "framework/DeviceOf.h"
#include "framework/VectorDispatch.h"

namespace basekit {

// Scatters points over a terrain with the input as the chance of a point:
// white noise at every sample, or with "Spacing" one candidate per cell of a
// world-fixed grid, so that points keep apart and stay put when the
// resolution changes.
class ProbScatter : public DeviceOf<ProbScatter, Filter> {
  public:
    static constexpr DeviceInfo kInfo{"PROB", "Probability",
                                      "Scatters points where a probability map allows", 1};
    ProbScatter();
    bool Build(const BuildContext& context) override;
    bool AfterLoad(uint8_t version);
};

// Spacing 0: out[x] := 1 where u(seed, x, y) < clamp(chance[x], 0, 1) * density,
// else 0, for the `width` samples of row y.
// `out` may be `chance`. Every path gives the same bits.
void ScatterRow(const float* chance, float* out, int32_t width, int32_t y, uint32_t seed,
                float density, VectorPath path = BestVectorPath());

// A grid of chances and its world size.
struct ScatterField {
    const float* chance;
    int32_t width;
    int32_t height;
    float extentX;  // x1 - x0
    float extentY;  // y1 - y0
};

// The candidate of cell (i, j) in world units from the extent's corner, at
// spacing d.
void ScatterCandidate(uint32_t seed, uint32_t i, uint32_t j, float d, float& x, float& y);

// Candidate cells of spacing d over the extent; spacing far below a sample
// makes more than the builder takes (see SpacedScatterFits).
uint64_t ScatterCells(const ScatterField& field, float d);
bool SpacedScatterFits(const ScatterField& field, float d);

// Spacing d > 0: sets out (width x height, zeroed by the caller) to 1 at the
// nearest sample of every candidate inside the extent that its third value
// accepts.
void ScatterSpaced(const ScatterField& field, float* out, float d, uint32_t seed, float density);

}  // namespace basekit
