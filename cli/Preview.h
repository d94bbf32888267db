// A colour picture of a height field for people to look at: hypsometric tint,
// water below the water level, hill shading.
#pragma once

#include "framework/HostServices.h"
#include "host/ImageIO.h"

namespace orogen {

// `heights` is one channel on `grid` (its world extent and vertical scale
// give the slopes). `light` points towards the light; straight overhead
// (0, 0, 1), the default of a project, would show no relief, so the picture
// is then lit from the upper left. Returns three channels in 0..1.
basekit::host::Image RenderPreview(const basekit::host::Image& heights, const Orogen::Grid& grid,
                                   float waterLevel, const float light[3]);

}  // namespace orogen
