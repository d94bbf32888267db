#include "devices/filters/HeightSplitter.h"

#include "framework/Ramps.h"

namespace basekit {

static const ParamSpec kParameters[] = {
    {"Split Height", kParamReal, 0.5, 0.0, 1.0, 0, "The height at which the terrain is split"},
    {"Transition", kParamReal, 0.05, 0.0, 0.5, 0, "The width of the soft edge of the split mask"},
};

HeightSplitter::HeightSplitter() {
    SetPortCount(this, 1, 3, kHeightField);
    outputs[0]->SetName("Lower Part");
    outputs[1]->SetName("Upper Part");
    outputs[2]->SetName("Split Mask");
    outputs[2]->role = kRoleOptional;
    DeclareParameters(this, kParameters);
}

namespace {

template <bool kStep>
void SplitLoop(const SplitPlanes& planes, uint64_t count, float split, float lo, float hi) {
    for (uint64_t i = 0; i < count; ++i) {
        const float h = planes.in[i];
        const float up = h - split;
        planes.upper[i] = ClampHeight(up < 0.0f ? 0.0f : up);
        planes.mask[i] = ClampHeight(SmoothStep(kStep ? RampStep(h, lo) : RisingRamp(h, lo, hi)));
        planes.lower[i] = ClampHeight(split < h ? split : h);
    }
}

}  // namespace

void SplitSamples(const SplitPlanes& planes, uint64_t count, float split, float transition) {
    const float lo = split - transition / 2.0f, hi = split + transition / 2.0f;
    if (hi > lo)
        SplitLoop<false>(planes, count, split, lo, hi);
    else
        SplitLoop<true>(planes, count, split, lo, hi);
}

bool HeightSplitter::Build(const BuildContext& context) {
    PacketRef lower = TakePrepared(context, 0);
    if (!lower) lower = InputPacket(context, 0);
    if (!lower) return false;
    lower = ConvertPacket(lower, kHeightField);
    if (lower->GetKind() != kHeightField) return false;
    PacketRef upper = NewPacketLike(*lower, kHeightField);
    PacketRef mask = NewPacketLike(*lower, kHeightField);
    const float split = ParamFloat(this, "Split Height");
    const float transition = ParamFloat(this, "Transition");
    ReportPercent(context, this, 0);
    if (lower->samples && lower->PointCount() > 0) {
        const int32_t width = lower->grid.width;
        const SplitPlanes planes{lower->samples, lower->samples, upper->samples, mask->samples};
        if (!RunRows(
                context, this, 0, lower->grid.height - 1,
                [&](int32_t first, int32_t last) {
                    const int64_t at = static_cast<int64_t>(first) * width;
                    SplitSamples(
                        {planes.in + at, planes.lower + at, planes.upper + at, planes.mask + at},
                        static_cast<uint64_t>(last - first + 1) * width, split, transition);
                },
                kRowPieces, RowProgress::Rows))
            return false;
    }
    upper->maskFlag = lower->maskFlag;
    mask->maskFlag = 1;
    ReportPercent(context, this, 100);
    StoreOutput(context, lower, 0);
    StoreOutput(context, upper, 1);
    StoreOutput(context, mask, 2);
    return true;
}

}  // namespace basekit
