#include "devices/generators/GradGen.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include "framework/PortableMath.h"
#include "framework/Terrain.h"

namespace basekit {

static const ParamSpec kParameters[] = {
    {"Direction", kParamInteger, 0.0, 0.0, 360.0, 0, "The angle of the gradient. 0 is North"},
    {"Width", kParamReal, 1.0, 0.0, 32.0, 513, "The width of the gradient area"},
    {"Tiling", kParamChoice, 0.0, 0.0, 2.0, 0, nullptr, {"None", "Linear", "Discontinuous"}},
};

GradGen::GradGen() {
    SetPortCount(this, 0, 1, kHeightField);
    DeclareParameters(this, kParameters);
}

void GradientSlope(int32_t degrees, float rampWidth, int32_t width, int32_t height, float& dx,
                   float& dy) {
    float a = static_cast<float>(degrees) * 3.1415927f / 180.0f;
    // A zero width climbs one unit per sample of the shorter side; the tiling
    // rule then cuts it.
    float k =
        rampWidth > 0.0f ? 1.0f / rampWidth : static_cast<float>(std::min(width - 1, height - 1));
    // A width too small for its reciprocal (narrower than any sample) is a
    // step: the steepest finite slope, never inf * 0.
    k = std::min(k, std::numeric_limits<float>::max());
    dx = Orogen::Cos(a);
    dy = Orogen::Sin(a);
    float length = std::sqrt(dx * dx + dy * dy);
    if (length > 0.0f) {
        dx /= length;
        dy /= length;
    }
    dx *= k;
    dy *= k;
}

double TileGradient(double t, int32_t tiling) {
    switch (tiling) {
        case kTileNone:
            return std::clamp(t, 0.0, 1.0);
        case kTileLinear: {
            double s = std::fabs(std::fmod(t, 2.0));
            return s > 1.0 ? 2.0 - s : s;
        }
        case kTileDiscontinuous: {
            double s = std::fmod(t, 1.0);
            return s < 0.0 ? s + 1.0 : s;
        }
        default:
            return t;
    }
}

void FillGradientRows(const GradientSetup& s, int32_t firstRow, int32_t lastRow, float* out) {
    if (s.width <= 0 || s.height <= 0) return;
    float dx, dy;
    GradientSlope(s.direction, s.rampWidth, s.width, s.height, dx, dy);
    auto f = [&](double wx, double wy) {
        return (wx - s.anchorX) * dx + (wy - s.anchorY) * dy + 0.5;
    };
    // The ramp is linear, so its corners and a bilinear blend give every sample.
    const double c00 = f(s.left, s.top);
    const double c01 = f(s.left, s.bottom);
    const double c10 = f(s.right, s.top);
    const double c11 = f(s.right, s.bottom);

    std::vector<double> us(static_cast<size_t>(s.width));
    for (int32_t i = 0; i < s.width; ++i)
        us[static_cast<size_t>(i)] = s.width > 1 ? static_cast<double>(i) / (s.width - 1) : 0.0;

    for (int32_t j = firstRow; j <= lastRow; ++j) {
        const double v = s.height > 1 ? static_cast<double>(j) / (s.height - 1) : 0.0;
        const double atLeft = c00 * (1.0 - v) + c01 * v;
        const double atRight = c10 * (1.0 - v) + c11 * v;
        float* row = out + static_cast<size_t>(j) * static_cast<size_t>(s.width);
        for (int32_t i = 0; i < s.width; ++i) {
            const double u = us[static_cast<size_t>(i)];
            const double t = (1.0 - u) * atLeft + u * atRight;
            row[i] = static_cast<float>(TileGradient(t, s.tiling));
        }
    }
}

void FillGradient(const GradientSetup& s, float* out, const std::function<void(int32_t)>& rowDone) {
    if (!rowDone) return FillGradientRows(s, 0, s.height - 1, out);
    for (int32_t j = 0; j < s.height; ++j) {
        FillGradientRows(s, j, j, out);
        rowDone(j);
    }
}

bool GradGen::Build(const BuildContext& context) {
    GradientSetup setup;
    setup.direction = ParamInt(this, "Direction");
    setup.rampWidth = ParamFloat(this, "Width");
    setup.tiling = ParamInt(this, "Tiling");
    PacketRef field = FreshField(context);
    setup.width = field->grid.width;
    setup.height = field->grid.height;
    setup.left = WorldX(context, 0);
    setup.right = WorldX(context, setup.width - 1);
    setup.top = WorldY(context, 0);
    setup.bottom = WorldY(context, setup.height - 1);
    setup.anchorX = anchor[0];
    setup.anchorY = anchor[1];
    float* samples = field->samples;
    if (!RunRows(
            context, this, 0, setup.height - 1,
            [&](int32_t first, int32_t last) { FillGradientRows(setup, first, last, samples); },
            kRowPieces, RowProgress::Rows))
        return false;
    StoreOutput(context, field, 0);
    return true;
}

bool GradGen::AfterLoad(uint8_t version) {
    if (version == 1) KeepCentred();
    return true;
}

}  // namespace basekit
