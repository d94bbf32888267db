#include "devices/generators/CircularGrad.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "framework/PortableMath.h"
#include "framework/Terrain.h"

namespace basekit {

static const ParamSpec kParameters[] = {
    {"Radius", kParamReal, 1.0, 0.0, 64.0, 513, "How large an area the gradient should cover"},
    {"Type", kParamChoice, 1.0, 0.0, 4.0, 0, "The type of radial gradient used",
     {"Spherical", "Gaussian", "Diamond", "Square", "Cone"}},
};

CircularGrad::CircularGrad() {
    SetPortCount(this, 0, 1, kHeightField);
    DeclareParameters(this, kParameters);
}

void FillRadial(const RadialSetup& s, float* out, const std::function<void(int32_t)>& percentDone) {
    if (s.width <= 0 || s.height <= 0) return;
    // "Radius" is in effect a diameter.
    const float r = s.radius * 0.5f;
    const float r2 = r * r;
    const float q = r > 0.0f ? 1.0f / r : 4000000.0f;
    const size_t width = static_cast<size_t>(s.width);

    const bool gaussian = s.shape == kRadialGaussian;
    const bool writeGaussian = gaussian && static_cast<double>(r) >= 1e-8;
    const float sigma = r / 3.0f;
    const float inverseSpread = 1.0f / (2.0f * sigma * sigma);
    const float norm = 1.0f / (std::sqrt(6.2831869f) * sigma);

    const uint64_t step = static_cast<uint64_t>(s.width) * static_cast<uint64_t>(s.height) / 100;
    uint64_t visited = 0;
    int32_t percent = 0;

    for (int32_t x = 0; x < s.width; ++x) {
        const float wx = static_cast<float>(s.columnX[x]);
        const float ex = wx - s.anchorX;
        for (int32_t y = 0; y < s.height; ++y) {
            const float wy = static_cast<float>(s.rowY[y]);
            const float ey = wy - s.anchorY;
            const float d2 = ex * ex + ey * ey;
            float* sample = out + static_cast<size_t>(y) * width + static_cast<size_t>(x);
            switch (s.shape) {
                case kRadialSpherical:
                    *sample = d2 < r2 ? std::sqrt(r2 - d2) * q : 0.0f;
                    break;
                case kRadialGaussian:
                    if (writeGaussian) {
                        float e = static_cast<float>(Orogen::Exp(static_cast<double>(-d2 * inverseSpread)));
                        float v = e * r * norm / 1.1968267f;
                        // Flushes values too small to matter to zero.
                        v = v + 1e-10f;
                        v = v - 1e-10f;
                        *sample = v;
                    }
                    break;
                case kRadialDiamond: {
                    const float m = std::fabs(ex) + std::fabs(ey);
                    *sample = m < r ? (r - m) * q : 0.0f;
                    break;
                }
                case kRadialSquare:
                    *sample = s.anchorX - r < wx && wx < s.anchorX + r && s.anchorY - r < wy &&
                                      wy < s.anchorY + r
                                  ? 1.0f
                                  : 0.0f;
                    break;
                case kRadialCone:
                    *sample = d2 < r2 ? 1.0f - std::sqrt(d2) * q : 0.0f;
                    break;
                default:
                    break;
            }
            if (step > 0 && ++visited == step) {
                visited = 0;
                ++percent;
                if (percentDone) percentDone(percent);
            }
        }
    }
    if (percentDone) percentDone(100);
    ClampHeights(out, static_cast<uint64_t>(s.width) * static_cast<uint64_t>(s.height));
}

bool CircularGrad::Build(const BuildContext& context) {
    RadialSetup setup;
    setup.radius = ParamFloat(this, "Radius");
    setup.shape = ParamInt(this, "Type");
    PacketRef field = TakePrepared(context, 0);
    if (!field) field = NewHeightField(context.grid);
    setup.width = field->grid.width;
    setup.height = field->grid.height;
    std::vector<double> columnX(static_cast<size_t>(std::max(setup.width, 0)));
    std::vector<double> rowY(static_cast<size_t>(std::max(setup.height, 0)));
    for (int32_t i = 0; i < setup.width; ++i) columnX[static_cast<size_t>(i)] = WorldX(context, i);
    for (int32_t j = 0; j < setup.height; ++j) rowY[static_cast<size_t>(j)] = WorldY(context, j);
    setup.columnX = columnX.data();
    setup.rowY = rowY.data();
    setup.anchorX = anchor[0];
    setup.anchorY = anchor[1];
    FillRadial(setup, field->samples,
               [&](int32_t percent) { ReportPercent(context, this, percent); });
    StoreOutput(context, field, 0);
    return true;
}

bool CircularGrad::AfterLoad(uint8_t version) {
    if (version == 1) KeepCentred();
    return true;
}

}  // namespace basekit
