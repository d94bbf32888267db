// The combine loops, written once and compiled for each vector path: a file
// includes this between a path's BEGIN and END lines and instantiates the
// templates with a tag type of its own, so that no instance is shared between
// paths. The loops vectorise as the compiler sees fit; every lane does what
// the plain loop does, so every path gives the same bits.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "devices/combiners/CombineKernels.h"
#include "framework/PortableMath.h"
#include "framework/PowLanes.h"
#include "framework/Ramps.h"

namespace basekit::combine {

// Clamping rides along in the same pass: heights as ClampHeights does,
// bitmaps only into range (a NaN is left for what reads them).
using Orogen::ClampHeight;
using Orogen::ClampUnit;

// a := clamp(f(a, b)) over the floats of rows first..last, written out per
// method so that the simple ones vectorise.
template <class Path, class Clamp, class SampleFunction>
void Rows(const CombinePlane& plane, int32_t first, int32_t last, Clamp clamp, SampleFunction f) {
    const uint64_t row = static_cast<uint64_t>(plane.width) * static_cast<uint64_t>(plane.channels);
    const uint64_t begin = static_cast<uint64_t>(first) * row;
    const uint64_t end = (static_cast<uint64_t>(last) + 1) * row;
    float* __restrict a = plane.a;
    const float* __restrict b = plane.b;
    for (uint64_t i = begin; i < end; ++i) a[i] = clamp(f(a[i], b[i]));
}

// a := clamp(a ^ exponent(b)): the pairs PowLane covers in vector lanes, the
// rest through Orogen::Pow, a chunk at a time.
template <class Path, class Clamp, class Exponent>
void PowRows(const CombinePlane& plane, int32_t first, int32_t last, Clamp clamp,
             Exponent exponent) {
    constexpr uint64_t kChunk = 512;
    const uint64_t row = static_cast<uint64_t>(plane.width) * static_cast<uint64_t>(plane.channels);
    const uint64_t end = (static_cast<uint64_t>(last) + 1) * row;
    float* __restrict a = plane.a;
    const float* __restrict b = plane.b;
    float lanes[kChunk];
    int32_t done[kChunk];
    for (uint64_t at = static_cast<uint64_t>(first) * row; at < end; at += kChunk) {
        const uint64_t n = std::min(kChunk, end - at);
        for (uint64_t j = 0; j < n; ++j) {
            bool ok;
            lanes[j] = Orogen::PowLane<Path>(a[at + j], exponent(b[at + j]), ok);
            done[j] = ok ? 1 : 0;
        }
        for (uint64_t j = 0; j < n; ++j) {
            const float r = done[j] ? lanes[j] : Orogen::Pow(a[at + j], exponent(b[at + j]));
            a[at + j] = clamp(r);
        }
    }
}

// Methods 0 to 10, shared by both paths.
template <class Path, class Clamp>
bool CommonMethod(const CombinePlane& plane, int32_t method, float s, int32_t first, int32_t last,
                  Clamp clamp) {
    const float keep = 1.0f - s;
    switch (method) {
        case kCombineAverage:
            Rows<Path>(plane, first, last, clamp,
                       [=](float a, float b) { return keep * a + s * b; });
            return true;
        case kCombineAdd:
            Rows<Path>(plane, first, last, clamp, [=](float a, float b) { return a + s * b; });
            return true;
        case kCombineSubtract:
            Rows<Path>(plane, first, last, clamp, [=](float a, float b) { return a - s * b; });
            return true;
        case kCombineMultiply:
            Rows<Path>(plane, first, last, clamp,
                       [=](float a, float b) { return s * a * b + keep * a; });
            return true;
        case kCombineMax:
            Rows<Path>(plane, first, last, clamp, [=](float a, float b) {
                const float m = a > b ? a : b;
                return keep * a + s * m;
            });
            return true;
        case kCombineMin:
            Rows<Path>(plane, first, last, clamp, [=](float a, float b) {
                const float m = b > a ? a : b;
                return keep * a + s * m;
            });
            return true;
        case kCombinePower:
            PowRows<Path>(plane, first, last, clamp, [=](float b) { return 4.0f * s * b + 1.0f; });
            return true;
        case kCombineRoot:
            // 0.999 keeps the exponent above zero at full strength.
            PowRows<Path>(plane, first, last, clamp,
                          [=](float b) { return 1.0f - 0.999f * s * b; });
            return true;
        case kCombineDetail:
            Rows<Path>(plane, first, last, clamp,
                       [=](float a, float b) { return a + s * (b - 0.5f); });
            return true;
        case kCombineDifferences:
            Rows<Path>(plane, first, last, clamp,
                       [=](float a, float b) { return std::fabs(a - s * b); });
            return true;
        case kCombineScreen:
            Rows<Path>(plane, first, last, clamp, [=](float a, float b) {
                return a + s * ((1.0f - (1.0f - b) * (1.0f - a)) - a);
            });
            return true;
        default:
            return false;
    }
}

template <class Path>
void HeightRows(const CombinePlane& plane, int32_t method, float strength, int32_t first,
                int32_t last) {
    const auto clamp = [](float v) { return ClampHeight(v); };
    if (CommonMethod<Path>(plane, method, strength, first, last, clamp)) return;
    if (method == kCombineLogRatio) {
        // b <= 0 (or NaN) never divides: those samples are 1 whatever the strength.
        Rows<Path>(plane, first, last, clamp, [=](float a, float b) {
            if (!(b > 0.0f)) return 1.0f;
            const float q = a / b;
            return q > 1.0f ? strength * (Orogen::Log(q) + 1.0f) : strength * q;
        });
        return;
    }
    // Any other method passes A, clamped as every result is.
    Rows<Path>(plane, first, last, clamp, [](float a, float) { return a; });
}

template <class Path>
void ImageRows(const CombinePlane& plane, int32_t method, float strength, int32_t first,
               int32_t last) {
    const auto clamp = [](float v) { return ClampUnit(v); };
    if (CommonMethod<Path>(plane, method, strength, first, last, clamp)) return;
    Rows<Path>(plane, first, last, clamp, [](float a, float) { return a; });
}

template <class Path>
void ArithmeticRows(const CombinePlane& plane, int32_t operation, float amount, int32_t first,
                    int32_t last) {
    const auto clamp = [](float v) { return ClampHeight(v); };
    switch (operation) {
        case kArithmeticAdd:
            Rows<Path>(plane, first, last, clamp, [=](float a, float b) { return a + amount * b; });
            return;
        case kArithmeticSubtract:
            Rows<Path>(plane, first, last, clamp, [=](float a, float b) { return a - amount * b; });
            return;
        default:
            Rows<Path>(plane, first, last, clamp, [](float a, float) { return a; });
    }
}

}  // namespace basekit::combine
