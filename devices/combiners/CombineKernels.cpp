#include "devices/combiners/CombineKernels.h"

#include <cmath>

#include "framework/PortableMath.h"

namespace basekit {

namespace {

// What ClampHeights does to one sample, so that clamping rides along in the
// same pass.
inline float ClampHeight(float v) {
    if (v != v) return 1.0f;
    if (v < 0.0f) return 0.0f;
    if (v > 1.0f) return 1.0f;
    return v;
}

// Bitmaps are only brought into range; a NaN is left for what reads them.
inline float ClampChannel(float v) {
    if (v < 0.0f) return 0.0f;
    if (v > 1.0f) return 1.0f;
    return v;
}

// a := clamp(f(a, b)) over the floats of rows first..last. Written out per
// method so that the simple ones vectorise; every lane does what the plain
// loop does, so the bits are the same.
template <class Clamp, class SampleFunction>
void Rows(const CombinePlane& plane, int32_t first, int32_t last, Clamp clamp, SampleFunction f) {
    const uint64_t row = static_cast<uint64_t>(plane.width) * static_cast<uint64_t>(plane.channels);
    const uint64_t begin = static_cast<uint64_t>(first) * row;
    const uint64_t end = (static_cast<uint64_t>(last) + 1) * row;
    float* __restrict a = plane.a;
    const float* __restrict b = plane.b;
    for (uint64_t i = begin; i < end; ++i) a[i] = clamp(f(a[i], b[i]));
}

// Methods 0 to 10, shared by both paths.
template <class Clamp>
bool CommonMethod(const CombinePlane& plane, int32_t method, float s, int32_t first, int32_t last,
                  Clamp clamp) {
    const float keep = 1.0f - s;
    switch (method) {
        case kCombineAverage:
            Rows(plane, first, last, clamp, [=](float a, float b) { return keep * a + s * b; });
            return true;
        case kCombineAdd:
            Rows(plane, first, last, clamp, [=](float a, float b) { return a + s * b; });
            return true;
        case kCombineSubtract:
            Rows(plane, first, last, clamp, [=](float a, float b) { return a - s * b; });
            return true;
        case kCombineMultiply:
            Rows(plane, first, last, clamp, [=](float a, float b) { return s * a * b + keep * a; });
            return true;
        case kCombineMax:
            Rows(plane, first, last, clamp, [=](float a, float b) {
                const float m = a > b ? a : b;
                return keep * a + s * m;
            });
            return true;
        case kCombineMin:
            Rows(plane, first, last, clamp, [=](float a, float b) {
                const float m = b > a ? a : b;
                return keep * a + s * m;
            });
            return true;
        case kCombinePower:
            Rows(plane, first, last, clamp,
                 [=](float a, float b) { return Orogen::Pow(a, 4.0f * s * b + 1.0f); });
            return true;
        case kCombineRoot:
            // 0.999 keeps the exponent above zero at full strength.
            Rows(plane, first, last, clamp,
                 [=](float a, float b) { return Orogen::Pow(a, 1.0f - 0.999f * s * b); });
            return true;
        case kCombineDetail:
            Rows(plane, first, last, clamp, [=](float a, float b) { return a + s * (b - 0.5f); });
            return true;
        case kCombineDifferences:
            Rows(plane, first, last, clamp, [=](float a, float b) { return std::fabs(a - s * b); });
            return true;
        case kCombineScreen:
            Rows(plane, first, last, clamp,
                 [=](float a, float b) { return a + s * ((1.0f - (1.0f - b) * (1.0f - a)) - a); });
            return true;
        default:
            return false;
    }
}

}  // namespace

void CombineHeightRows(const CombinePlane& plane, int32_t method, float strength, int32_t first,
                       int32_t last) {
    const auto clamp = [](float v) { return ClampHeight(v); };
    if (CommonMethod(plane, method, strength, first, last, clamp)) return;
    if (method == kCombineLogRatio) {
        // b <= 0 (or NaN) never divides: those samples are 1 whatever the strength.
        Rows(plane, first, last, clamp, [=](float a, float b) {
            if (!(b > 0.0f)) return 1.0f;
            const float q = a / b;
            return q > 1.0f ? strength * (Orogen::Log(q) + 1.0f) : strength * q;
        });
        return;
    }
    // Any other method passes A, clamped as every result is.
    Rows(plane, first, last, clamp, [](float a, float) { return a; });
}

void CombineImageRows(const CombinePlane& plane, int32_t method, float strength, int32_t first,
                      int32_t last) {
    const auto clamp = [](float v) { return ClampChannel(v); };
    if (CommonMethod(plane, method, strength, first, last, clamp)) return;
    Rows(plane, first, last, clamp, [](float a, float) { return a; });
}

void ArithmeticRows(const CombinePlane& plane, int32_t operation, float amount, int32_t first,
                    int32_t last) {
    const auto clamp = [](float v) { return ClampHeight(v); };
    switch (operation) {
        case kArithmeticAdd:
            Rows(plane, first, last, clamp, [=](float a, float b) { return a + amount * b; });
            return;
        case kArithmeticSubtract:
            Rows(plane, first, last, clamp, [=](float a, float b) { return a - amount * b; });
            return;
        default:
            Rows(plane, first, last, clamp, [](float a, float) { return a; });
    }
}

}  // namespace basekit
