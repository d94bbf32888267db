#include "devices/filters/Ramp.h"

#include "framework/Ramps.h"

namespace basekit {

static const ParamSpec kParameters[] = {
    {"Start", kParamReal, 0.0, 0.0, 1.0, 0, "Heights at or below this become 0"},
    {"End", kParamReal, 1.0, 0.0, 1.0, 0, "Heights at or above this become 1"},
    {"Shape", kParamChoice, 0, 0, 1, 0, nullptr, {"Linear", "Smooth"}},
};

Ramp::Ramp() {
    SetPortCount(this, 1, 1, kHeightField);
    DeclareParameters(this, kParameters);
}

namespace {

template <bool kFalling, bool kSmooth>
void RampLoop(float* samples, uint64_t count, float lo, float hi) {
    for (uint64_t i = 0; i < count; ++i) {
        float t = RampBetween(samples[i], lo, hi);
        if (kFalling) t = 1.0f - t;
        if (kSmooth) t = SmoothStep(t);
        samples[i] = ClampHeight(t);
    }
}

}  // namespace

void RampSamples(float* samples, uint64_t count, float start, float end, int32_t shape) {
    const bool smooth = shape == kRampSmooth;
    if (end < start) {
        smooth ? RampLoop<true, true>(samples, count, end, start)
               : RampLoop<true, false>(samples, count, end, start);
    } else {
        smooth ? RampLoop<false, true>(samples, count, start, end)
               : RampLoop<false, false>(samples, count, start, end);
    }
}

bool Ramp::Build(const BuildContext& context) {
    PacketRef field = TakePrepared(context, 0);
    if (!field) field = InputPacket(context, 0);
    if (!field) return false;
    field = ConvertPacket(field, kHeightField);
    if (field->GetKind() != kHeightField) return false;
    const float start = ParamFloat(this, "Start");
    const float end = ParamFloat(this, "End");
    const int32_t shape = ParamInt(this, "Shape");
    ReportPercent(context, this, 0);
    if (field->samples && field->PointCount() > 0) {
        const int32_t width = field->grid.width;
        float* samples = field->samples;
        if (!RunRows(
                context, this, 0, field->grid.height - 1,
                [&](int32_t first, int32_t last) {
                    RampSamples(samples + static_cast<int64_t>(first) * width,
                                static_cast<uint64_t>(last - first + 1) * width, start, end, shape);
                },
                kRowPieces, RowProgress::Rows))
            return false;
    }
    ReportPercent(context, this, 100);
    StoreOutput(context, field, 0);
    return true;
}

}  // namespace basekit
