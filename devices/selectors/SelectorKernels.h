// The selectors' per-sample work: facing masks with the direction each slope
// faces, and convexity. Plain functions over arrays; the row forms handle rows
// first..last of a field.
#pragma once

#include <cstdint>

#include "framework/HostServices.h"
#include "framework/VectorDispatch.h"

namespace basekit {

// The unit direction a facing mask looks for, vertical second: heading from
// the north and elevation above the ground, in whole degrees.
struct FacingDirection {
    float d[3];
};
FacingDirection MakeFacingDirection(int32_t heading, int32_t elevation);

// facing = max(0, n . D) and angle = the direction of the slope in 0..1, from
// the slopes of `heights` in world units (`grid`: size, extent, vertical
// scale). Unclamped. Every vector path gives the plain path's bits.
void FacingRows(const float* heights, const Orogen::Grid& grid, const FacingDirection& direction,
                int32_t first, int32_t last, float* facing, float* angle,
                VectorPath path = BestVectorPath());

// out = 0.5 - gain * Laplacian, the neighbours beyond the edge being the
// sample itself; gain is samples per world unit times the strength.
// Unclamped.
void ConvexRows(const float* heights, int32_t width, int32_t height, float gain, int32_t first,
                int32_t last, float* out);

}  // namespace basekit
