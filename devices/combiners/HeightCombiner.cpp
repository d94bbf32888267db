#include "devices/combiners/HeightCombiner.h"

#include "framework/Ramps.h"

namespace basekit {

// Transition 0 is the plain maximum: new devices keep the sharp seam.
static const ParamSpec kParameters[] = {
    {"Keep", kParamChoice, 0, 0, 1, 0, nullptr, {"Higher", "Lower"}},
    {"Transition", kParamReal, 0.0, 0.0, 0.5, 0,
     "The height difference over which the two terrains blend"},
};

HeightCombiner::HeightCombiner() {
    SetPortCount(this, 2, 2, kHeightField);
    inputs[1]->SetName("Secondary Input");
    outputs[1]->SetName("Choice Mask");
    outputs[1]->role = kRoleOptional;
    DeclareParameters(this, kParameters);
}

void ChooseHeights(float* a, const float* b, float* mask, uint64_t begin, uint64_t end,
                   int32_t keep, float k) {
    const bool lower = keep == kKeepLower;
    for (uint64_t i = begin; i < end; ++i) {
        const float x = a[i], y = b[i];
        float w;
        if (k > 0.0f)
            w = RampBetween(lower ? x - y : y - x, -k, k);
        else  // a hard choice: equal heights keep the primary
            w = (lower ? y < x : y > x) ? 1.0f : 0.0f;
        const float bend = k * w * (1.0f - w);
        const float r = lower ? x + (y - x) * w - bend : x + (y - x) * w + bend;
        a[i] = ClampHeight(r);
        mask[i] = ClampHeight(w);
    }
}

bool HeightCombiner::Build(const BuildContext& context) {
    PacketRef a = InputPacket(context, 0);
    PacketRef b = InputPacket(context, 1);
    if (!a || !b) return false;
    a = ConvertPacket(a, kHeightField);
    b = ConvertPacket(b, kHeightField);
    CheckSameShape(*a, *b);
    const int32_t keep = ParamInt(this, "Keep");
    const float transition = ParamFloat(this, "Transition");
    PacketRef mask = NewPacketLike(*a, kHeightField);
    const uint64_t width = RowFloats(*a);
    if (a->PointCount() > 0 &&
        !RunRows(context, this, 0, a->grid.height - 1, [&](int32_t first, int32_t last) {
            ChooseHeights(a->samples, b->samples, mask->samples, first * width,
                          (static_cast<uint64_t>(last) + 1) * width, keep, transition);
        }))
        return false;
    mask->maskFlag = 1;
    StoreOutput(context, a, 0);
    StoreOutput(context, mask, 1);
    return true;
}

}  // namespace basekit
