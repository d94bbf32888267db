#include "devices/filters/Displacement.h"

#include <algorithm>

#include "framework/PortableMath.h"
#include "framework/Terrain.h"

namespace basekit {

static const ParamSpec kParameters[] = {
    {"Direction", kParamInteger, 0, 0, 360, 0, "The angle to displace the terrain at. 0 is North"},
    {"Strength", kParamReal, 0.0, 0.0, 1.0, 0, "The amount of distortion"},
    {"Centered", kParamBoolean, 1, 0, 1, 0,
     "Centering makes all displacements occur from the middle of the heightfield"},
    {"Edge Handling",
     kParamChoice,
     0,
     0,
     1,
     0,
     "For unknown pixels on the edge, we can synthesize them from one of two ways",
     {"Repeat edge values", "Mirror interior values"}},
};

Displacement::Displacement() {
    SetPortCount(this, 2, 1, kHeightField);
    inputs[1]->SetName("Distortion amount");
    DeclareParameters(this, kParameters);
}

const char* Displacement::GetInputName(uint32_t index) {
    return index == 1 ? "Distortion amount" : Device::GetInputName(index);
}

DisplaceShift MakeDisplaceShift(int32_t direction, float strength, bool centered, int32_t edge,
                                double samplesPerUnit) {
    float amount = strength * 0.5f * static_cast<float>(samplesPerUnit);
    // Centred values run -0.5..0.5: twice the amount reaches the same distance.
    if (centered) amount = amount * 2.0f;
    // The angle's constant is not pi, and stays so that builds keep their bits.
    const float angle = static_cast<float>(direction) * 3.1415968f / 180.0f;
    return {Cos(angle) * amount, Sin(angle) * amount, centered, edge};
}

namespace {

// Past this every float is whole, so the bilinear weights are 1 and 0: the
// sample does not change, and the truncation to int32 stays defined. NaN
// lands on the low side.
constexpr float kFar = 16777216.0f;

inline float Bounded(float v) {
    return v > -kFar ? (v < kFar ? v : kFar) : -kFar;
}

// One fold about the border, as the edge rule has it: a position more than
// a field past the far border stays outside and is clamped by the sampler.
inline float Mirror(float v, int32_t size) {
    const float top = static_cast<float>(size - 1);
    if (v < 0.0f) return std::min(-v, top);
    if (v >= static_cast<float>(size)) return std::min(2.0f * static_cast<float>(size) - v, top);
    return v;
}

template <bool Centered, bool Mirrored>
void Displace(const DisplacePlane& p, float dx, float dy, int32_t first, int32_t last) {
    for (int32_t y = first; y <= last; ++y) {
        const float* amount = p.amount + static_cast<int64_t>(y) * p.amountWidth;
        float* out = p.out + static_cast<int64_t>(y) * p.width;
        const float fy = static_cast<float>(y);
        for (int32_t x = 0; x < p.width; ++x) {
            float d = amount[x];
            if (Centered) d = d - 0.5f;
            float sx = static_cast<float>(x) + d * dx;
            float sy = fy + d * dy;
            if (Mirrored) {
                sx = Mirror(sx, p.width);
                sy = Mirror(sy, p.height);
            }
            BilinearSample(p.primary, p.width, p.height, 1, Bounded(sx), Bounded(sy), out + x);
        }
    }
}

}  // namespace

void DisplaceRows(const DisplacePlane& plane, const DisplaceShift& shift, int32_t first,
                  int32_t last) {
    const bool mirror = shift.edge == kEdgeMirror;
    if (shift.centered)
        mirror ? Displace<true, true>(plane, shift.dx, shift.dy, first, last)
               : Displace<true, false>(plane, shift.dx, shift.dy, first, last);
    else
        mirror ? Displace<false, true>(plane, shift.dx, shift.dy, first, last)
               : Displace<false, false>(plane, shift.dx, shift.dy, first, last);
}

bool Displacement::Build(const BuildContext& context) {
    PacketRef primary = TakePrepared(context, 0);
    if (!primary) primary = InputPacket(context, 0);
    PacketRef amount = InputPacket(context, 1);
    if (!primary || !amount) return false;
    primary = ConvertPacket(primary, kHeightField);
    amount = ConvertPacket(amount, kHeightField);
    if (primary->GetKind() != kHeightField || amount->GetKind() != kHeightField) return false;
    // The distortion is read with its own row length over the primary's
    // size: one too small for that counts as missing.
    const Grid& grid = primary->grid;
    if (amount->grid.width < grid.width || amount->grid.height < grid.height) return false;

    PacketRef field = NewPacketLike(*primary, kHeightField);
    const DisplaceShift shift = MakeDisplaceShift(
        ParamInt(this, "Direction"), ParamFloat(this, "Strength"), ParamBool(this, "Centered"),
        ParamInt(this, "Edge Handling"), SamplesPerUnit(grid));
    ReportPercent(context, this, 0);
    if (field->PointCount() > 0) {
        const DisplacePlane plane{primary->samples, amount->samples, field->samples,
                                  grid.width,       grid.height,     amount->grid.width};
        if (!RunRows(
                context, this, 0, grid.height - 1,
                [&](int32_t first, int32_t last) {
                    DisplaceRows(plane, shift, first, last);
                    ClampHeights(plane.out + static_cast<int64_t>(first) * grid.width,
                                 static_cast<uint64_t>(last - first + 1) * grid.width);
                },
                kRowPieces, RowProgress::Rows))
            return false;
    }
    StoreOutput(context, field, 0);
    return true;
}

}  // namespace basekit
