#include "devices/filters/BiasGain.h"

#include <algorithm>

#include "devices/filters/shaping/ShapingPaths.h"
#include "devices/filters/shaping/ShapingRows.h"
#include "framework/PortableMath.h"

namespace basekit {

static const ParamSpec kParameters[] = {
    {"Bias", kParamReal, 0.5, 0.0, 1.0, 0,
     "Below 0.5 pushes values down, above 0.5 pushes them up"},
    {"Gain", kParamReal, 0.5, 0.0, 1.0, 0, "Below 0.5 flattens the middle, above 0.5 steepens it"},
};

BiasGain::BiasGain() {
    SetPortCount(this, 1, 1, kHeightField | kBitmap);
    DeclareParameters(this, kParameters);
}

namespace {

struct Plain {};

// ln b / ln 0.5 with b kept off 0 and 1, where the power would be 0 or infinite.
float CurvePower(float b) {
    return Log(std::clamp(b, 0.001f, 0.999f)) / Log(0.5f);
}

}  // namespace

BiasGainCurve MakeBiasGainCurve(float bias, float gain) {
    return {CurvePower(bias), CurvePower(1.0f - gain)};
}

void BiasGainSamples(float* values, uint64_t count, const BiasGainCurve& curve, VectorPath path) {
    // Both curves are the identity at power 1: the defaults cost no more than
    // the clamp.
    if (curve.biasPower == 1.0f && curve.gainPower == 1.0f) {
        if (shaping::UseAvx2(path))
            shaping::ClampRowsAvx2(values, count);
        else
            shaping::ClampRows<Plain>(values, count);
    } else if (shaping::UseAvx2(path)) {
        shaping::BiasGainRowsAvx2(values, count, curve.biasPower, curve.gainPower);
    } else {
        shaping::BiasGainRows<Plain>(values, count, curve.biasPower, curve.gainPower);
    }
}

bool BiasGain::Build(const BuildContext& context) {
    PacketRef packet = WorkingInput(context, kHeightField | kBitmap);
    if (!packet) return false;
    const BiasGainCurve curve =
        MakeBiasGainCurve(ParamFloat(this, "Bias"), ParamFloat(this, "Gain"));
    ReportPercent(context, this, 0);
    if (packet->samples && packet->PointCount() > 0) {
        const uint64_t rowFloats = RowFloats(*packet);
        float* values = packet->samples;
        if (!RunRows(
                context, this, 0, packet->grid.height - 1,
                [&](int32_t first, int32_t last) {
                    BiasGainSamples(values + static_cast<uint64_t>(first) * rowFloats,
                                    static_cast<uint64_t>(last - first + 1) * rowFloats, curve);
                },
                kRowPieces, RowProgress::Rows))
            return false;
    }
    ReportPercent(context, this, 100);
    StoreOutput(context, packet, 0);
    return true;
}

}  // namespace basekit
