#pragma once

#include <cstdint>

#include "framework/DeviceOf.h"
#include "framework/VectorDispatch.h"

namespace basekit {

// The network's view: a terrain shaded by the host's light, with an image
// (a splat map, a colour ramp, a mask) laid over it.
class OverlayOutput : public DeviceOf<OverlayOutput, Output> {
  public:
    static constexpr DeviceInfo kInfo{"OLVW", "Overlay View",
                                      "Shows a terrain with an image laid over it", 1};
    OverlayOutput();
    bool OptionQuery3(uint32_t globals) override { return (globals & kGlobalLightDirection) != 0; }
    bool OptionQuery7() override { return false; }
    bool Build(const BuildContext& context) override;
    PacketRef ComposeView(const BuildContext& context) override;

    // The last build's terrain and overlay ("TCP HF", "TCP BMP"; the overlay
    // null when none was linked), kept for the export action.
    PacketRef cachedTerrain;
    PacketRef cachedOverlay;
};

struct OverlaySetup {
    const float* heights;
    Orogen::Grid grid;        // width, height, extent and vertical scale give the slopes
    const float* overlay;     // null: the terrain's grey
    int32_t overlayChannels;  // 1 (read as grey) or 3
    float light[3];           // unit length
    float opacity;
    float shading;
};

// The light of the view: the host's direction normalised, or (-1, -1, 1)
// normalised when it gives none (zero or not finite).
void OverlayLight(const float direction[3], float light[3]);

// Rows first..last of the view, three floats a point, clamped into 0..1.
// Every vector path gives the plain path's bits.
void OverlayRows(const OverlaySetup& setup, int32_t first, int32_t last, float* rgb,
                 VectorPath path = BestVectorPath());

}  // namespace basekit
