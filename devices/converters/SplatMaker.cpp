#include "devices/converters/SplatMaker.h"

#include <cmath>
#include <vector>

#include "framework/Neighbourhood.h"
#include "framework/PortableMath.h"
#include "framework/Ramps.h"

namespace basekit {

static const ParamSpec kParameters[] = {
    {"Rock Angle", kParamInteger, 35, 0, 90, 0, "Slopes steeper than this many degrees are rock"},
    {"High Level", kParamReal, 0.7, 0.0, 1.0, 0, "Heights above this are high ground"},
    {"Transition", kParamReal, 0.05, 0.0, 0.5, 0,
     "The width of the blend between layers, as a fraction of each range"},
};

SplatMaker::SplatMaker() {
    SetPortCount(this, 1, 1, kHeightField);
    outputs[0]->kind = kBitmap;
    DeclareParameters(this, kParameters);
}

void SplatRows(const SplatSetup& s, int32_t first, int32_t last, float* rgb) {
    const int32_t width = s.grid.width, height = s.grid.height;
    if (width <= 0 || height <= 0) return;
    const Orogen::SlopeScale scale(s.grid);
    std::vector<float> gx(static_cast<size_t>(width)), gy(static_cast<size_t>(width));
    const float half = s.transition / 2.0f;
    const float rock = static_cast<float>(s.rockAngle) / 90.0f;
    const float rockLow = rock - half, rockHigh = rock + half;
    const float highLow = s.highLevel - half, highHigh = s.highLevel + half;
    // Degrees per radian, then a right angle as 1.
    const float toDegrees = static_cast<float>(180.0 / 3.14159265358979323846);
    for (int32_t y = first; y <= last; ++y) {
        scale.SlopeRow(s.heights, width, height, y, gx.data(), gy.data());
        const float* h = s.heights + static_cast<int64_t>(y) * width;
        float* out = rgb + static_cast<int64_t>(y) * width * 3;
        for (int32_t x = 0; x < width; ++x) {
            const float steep = std::sqrt(gx[x] * gx[x] + gy[x] * gy[x]);
            const float angle = Orogen::Atan2(steep, 1.0f) * toDegrees / 90.0f;
            const float r = RampBetween(angle, rockLow, rockHigh);
            const float high = RampBetween(h[x], highLow, highHigh);
            const float soil = 1.0f - r;
            out[3 * x] = ClampHeight(soil * (1.0f - high));
            out[3 * x + 1] = ClampHeight(r);
            out[3 * x + 2] = ClampHeight(soil * high);
        }
    }
}

bool SplatMaker::Build(const BuildContext& context) {
    PacketRef input = InputPacket(context, 0);
    if (!input) return false;
    input = ConvertPacket(input, kHeightField);
    if (input->GetKind() != kHeightField) return false;
    // A NaN height would give NaN weights: clamped first, the three always sum to 1.
    ClampHeights(input.get());
    const SplatSetup setup{input->samples, input->grid, ParamInt(this, "Rock Angle"),
                           ParamFloat(this, "High Level"), ParamFloat(this, "Transition")};
    PacketRef image = NewPacketLike(*input, kBitmap);
    if (input->PointCount() > 0 &&
        !RunRows(context, this, 0, setup.grid.height - 1, [&](int32_t first, int32_t last) {
            SplatRows(setup, first, last, image->samples);
        }))
        return false;
    StoreOutput(context, image, 0);
    return true;
}

}  // namespace basekit
