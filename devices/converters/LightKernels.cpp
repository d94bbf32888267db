#include "devices/converters/LightKernels.h"

#include <cmath>

#include "devices/converters/LightPaths.h"
#include "devices/converters/LightRows.h"
#include "framework/PortableMath.h"

namespace basekit {

constexpr float kDegree = 0.017453292f;

void NormaliseLight(float light[3]) {
    const float length = std::sqrt(light[0] * light[0] + light[1] * light[1] + light[2] * light[2]);
    for (int i = 0; i < 3; ++i) light[i] /= length;
}

void SunDirection(int32_t heading, int32_t altitude, float light[3]) {
    const float h = -static_cast<float>(heading) * kDegree;
    const float a = static_cast<float>(altitude) * kDegree;
    const float ca = Orogen::Cos(a);
    light[0] = ca * Orogen::Cos(h);
    light[1] = ca * Orogen::Sin(h);
    light[2] = Orogen::Sin(a);
    NormaliseLight(light);
}

namespace {
struct Plain {};
}  // namespace

void LightRows(const LightSetup& setup, const float* heights, const Orogen::Grid& grid,
               const float* shadow, int32_t first, int32_t last, float* out, VectorPath path) {
    switch (UsablePath(path)) {
        case VectorPath::Avx512:
            return light::LightRowsAvx512(setup, heights, grid, shadow, first, last, out);
        case VectorPath::Avx2:
            return light::LightRowsAvx2(setup, heights, grid, shadow, first, last, out);
        case VectorPath::Plain:
            break;
    }
    light::LightRowsOf<Plain>(setup, heights, grid, shadow, first, last, out);
}

}  // namespace basekit
