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

// The choices hoisted out of the loop, so that each variant vectorises.
template <bool kStep, bool kFalling, bool kSmooth>
void RampLoop(float* samples, uint64_t count, float lo, float hi) {
    for (uint64_t i = 0; i < count; ++i) {
        float t = kStep ? RampStep(samples[i], lo) : RisingRamp(samples[i], lo, hi);
        if (kFalling) t = 1.0f - t;
        if (kSmooth) t = SmoothStep(t);
        samples[i] = ClampHeight(t);
    }
}

template <bool kStep>
void RampVariant(float* samples, uint64_t count, float lo, float hi, bool falling, bool smooth) {
    if (falling) {
        smooth ? RampLoop<kStep, true, true>(samples, count, lo, hi)
               : RampLoop<kStep, true, false>(samples, count, lo, hi);
    } else {
        smooth ? RampLoop<kStep, false, true>(samples, count, lo, hi)
               : RampLoop<kStep, false, false>(samples, count, lo, hi);
    }
}

}  // namespace

void RampSamples(float* samples, uint64_t count, float start, float end, int32_t shape) {
    const bool smooth = shape == kRampSmooth, falling = end < start;
    const float lo = falling ? end : start, hi = falling ? start : end;
    if (hi > lo)
        RampVariant<false>(samples, count, lo, hi, falling, smooth);
    else
        RampVariant<true>(samples, count, lo, hi, falling, smooth);
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
