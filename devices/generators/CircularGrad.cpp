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

namespace {

// The shape's constants, found once for a fill.
struct RadialFill {
    explicit RadialFill(const RadialSetup& s)
        : setup(s),
          r(s.radius * 0.5f),  // "Radius" is in effect a diameter
          r2(r * r),
          q(r > 0.0f ? 1.0f / r : 4000000.0f),
          writeGaussian(s.shape == kRadialGaussian && static_cast<double>(r) >= 1e-8),
          sigma(r / 3.0f),
          inverseSpread(1.0f / (2.0f * sigma * sigma)),
          norm(1.0f / (std::sqrt(6.2831869f) * sigma)) {}

    // Writes the shape at column x, row y into *sample (a Gaussian too small
    // to matter leaves it as it is).
    void Write(int32_t x, int32_t y, float* sample) const {
        const float wx = static_cast<float>(setup.columnX[x]);
        const float ex = wx - setup.anchorX;
        const float wy = static_cast<float>(setup.rowY[y]);
        const float ey = wy - setup.anchorY;
        const float d2 = ex * ex + ey * ey;
        switch (setup.shape) {
            case kRadialSpherical:
                *sample = d2 < r2 ? std::sqrt(r2 - d2) * q : 0.0f;
                break;
            case kRadialGaussian:
                if (writeGaussian) {
                    float e =
                        static_cast<float>(Orogen::Exp(static_cast<double>(-d2 * inverseSpread)));
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
                *sample = setup.anchorX - r < wx && wx < setup.anchorX + r &&
                                  setup.anchorY - r < wy && wy < setup.anchorY + r
                              ? 1.0f
                              : 0.0f;
                break;
            case kRadialCone:
                *sample = d2 < r2 ? 1.0f - std::sqrt(d2) * q : 0.0f;
                break;
            default:
                break;
        }
    }

    const RadialSetup& setup;
    const float r, r2, q;
    const bool writeGaussian;
    const float sigma, inverseSpread, norm;
};

}  // namespace

void FillRadial(const RadialSetup& s, float* out, const std::function<void(int32_t)>& percentDone) {
    if (s.width <= 0 || s.height <= 0) return;
    const RadialFill shape(s);
    const size_t width = static_cast<size_t>(s.width);
    const uint64_t step = static_cast<uint64_t>(s.width) * static_cast<uint64_t>(s.height) / 100;
    uint64_t visited = 0;
    int32_t percent = 0;
    for (int32_t x = 0; x < s.width; ++x) {
        for (int32_t y = 0; y < s.height; ++y) {
            shape.Write(x, y, out + static_cast<size_t>(y) * width + static_cast<size_t>(x));
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

void FillRadialColumns(const RadialSetup& s, int32_t firstColumn, int32_t lastColumn, float* out) {
    if (s.width <= 0 || s.height <= 0) return;
    const RadialFill shape(s);
    const size_t width = static_cast<size_t>(s.width);
    for (int32_t x = firstColumn; x <= lastColumn; ++x) {
        for (int32_t y = 0; y < s.height; ++y) {
            float* sample = out + static_cast<size_t>(y) * width + static_cast<size_t>(x);
            shape.Write(x, y, sample);
            ClampHeights(sample, 1);
        }
    }
}

bool CircularGrad::Build(const BuildContext& context) {
    RadialSetup setup;
    setup.radius = ParamFloat(this, "Radius");
    setup.shape = ParamInt(this, "Type");
    PacketRef field = FreshField(context);
    setup.width = field->grid.width;
    setup.height = field->grid.height;
    const std::vector<double> columnX = ColumnPositions(context, setup.width);
    const std::vector<double> rowY = RowPositions(context, setup.height);
    setup.columnX = columnX.data();
    setup.rowY = rowY.data();
    setup.anchorX = anchor[0];
    setup.anchorY = anchor[1];
    // Bands of whole columns, each visited column by column.
    float* samples = field->samples;
    if (!RunRows(
            context, this, 0, setup.width - 1,
            [&](int32_t first, int32_t last) { FillRadialColumns(setup, first, last, samples); },
            kRowPieces, RowProgress::Percent))
        return false;
    StoreOutput(context, field, 0);
    return true;
}

bool CircularGrad::AfterLoad(uint8_t version) {
    if (version == 1) KeepCentred();
    return true;
}

}  // namespace basekit
