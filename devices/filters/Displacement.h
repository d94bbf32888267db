#pragma once

#include <cstdint>

#include "framework/DeviceOf.h"

namespace basekit {

// Moves the samples of a height field along one direction by an amount that a
// second height field gives per sample.
class Displacement : public DeviceOf<Displacement, Filter> {
  public:
    static constexpr DeviceInfo kInfo{"WARP", "Simple Displacement",
                                      "Distorts the terrain based in a specified direction", 1};
    Displacement();
    const char* GetInputName(uint32_t index) override;
    bool OptionQuery8() override { return false; }
    bool Build(const BuildContext& context) override;
};

// Choices of "Edge Handling".
enum DisplaceEdge : int32_t { kEdgeRepeat = 0, kEdgeMirror = 1 };

// Source offset, in samples, per unit of distortion value.
struct DisplaceShift {
    float dx;
    float dy;
    bool centered;  // distortion values are taken about 0.5
    int32_t edge;   // DisplaceEdge
};

// The shift of the device's settings on a field of `samplesPerUnit` samples
// per world unit: "Strength"/2 world units at full distortion.
DisplaceShift MakeDisplaceShift(int32_t direction, float strength, bool centered, int32_t edge,
                                double samplesPerUnit);

struct DisplacePlane {
    const float* primary;  // width x height
    const float* amount;   // rows of amountWidth floats, at least width x height
    float* out;            // width x height
    int32_t width;
    int32_t height;
    int32_t amountWidth;
};

// Output rows first..last: each sample is the bilinear sample of the primary
// at its own position moved by the shift times its distortion value, mirrored
// back inside first with kEdgeMirror. Unclamped.
void DisplaceRows(const DisplacePlane& plane, const DisplaceShift& shift, int32_t first,
                  int32_t last);

}  // namespace basekit
