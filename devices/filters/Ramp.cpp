#include "devices/filters/Ramp.h"

#include "devices/filters/shaping/ShapingPaths.h"
#include "devices/filters/shaping/ShapingRows.h"

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
struct Plain {};
}  // namespace

void RampSamples(float* samples, uint64_t count, float start, float end, int32_t shape,
                 VectorPath path) {
    const bool smooth = shape == kRampSmooth;
    if (shaping::UseAvx2(path))
        shaping::RampRowsAvx2(samples, count, start, end, smooth);
    else
        shaping::RampRows<Plain>(samples, count, start, end, smooth);
}

bool Ramp::Build(const BuildContext& context) {
    PacketRef field = WorkingInput(context, kHeightField);
    if (!field) return false;
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
