// The per-sample loops of Ramp, Expander, Height Splitter, Add Noise,
// Probability and Bias/Gain, written once and compiled for each vector path:
// a file includes this between a path's BEGIN and END lines and instantiates
// the templates with a tag type of its own, so that no instance is shared
// between paths. The compiler vectorises the loops; every lane does what the
// plain loop does, so every path gives the same bits.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>

#include "framework/PortableMath.h"
#include "framework/PowLanes.h"
#include "framework/Ramps.h"
#include "framework/SampleHash.h"

namespace basekit::shaping {

using Orogen::ClampHeight;

// h := clamp(ramp), the choices hoisted out of the loop.
template <class Path, bool kStep, bool kFalling, bool kSmooth>
void RampLoop(float* __restrict s, uint64_t count, float lo, float hi) {
    for (uint64_t i = 0; i < count; ++i) {
        float t = kStep ? Orogen::RampStep(s[i], lo) : Orogen::RisingRamp(s[i], lo, hi);
        if (kFalling) t = 1.0f - t;
        if (kSmooth) t = Orogen::SmoothStep(t);
        s[i] = ClampHeight(t);
    }
}

template <class Path, bool kStep>
void RampShape(float* s, uint64_t count, float lo, float hi, bool falling, bool smooth) {
    if (falling) {
        smooth ? RampLoop<Path, kStep, true, true>(s, count, lo, hi)
               : RampLoop<Path, kStep, true, false>(s, count, lo, hi);
    } else {
        smooth ? RampLoop<Path, kStep, false, true>(s, count, lo, hi)
               : RampLoop<Path, kStep, false, false>(s, count, lo, hi);
    }
}

// The ramp from start to end (falling when end < start), smoothed or not.
template <class Path>
void RampRows(float* s, uint64_t count, float start, float end, bool smooth) {
    const bool falling = end < start;
    const float lo = falling ? end : start, hi = falling ? start : end;
    if (hi > lo)
        RampShape<Path, false>(s, count, lo, hi, falling, smooth);
    else
        RampShape<Path, true>(s, count, lo, hi, falling, smooth);
}

// Least and greatest sample, NaN left out: eight running extremes side by
// side in a vector of the compiler's, whose element-wise selects compile to
// min and max instructions (a select over one running pair would not
// vectorise). Empty or all NaN: lowest +inf, highest -inf.
template <class Path>
void RangeRows(const float* __restrict s, uint64_t count, float& lowest, float& highest) {
    using Lanes = float __attribute__((vector_size(32)));
    constexpr float kInfinity = std::numeric_limits<float>::infinity();
    constexpr uint64_t kLanes = sizeof(Lanes) / sizeof(float);
    Lanes low, high;
    for (uint64_t k = 0; k < kLanes; ++k) low[k] = kInfinity, high[k] = -kInfinity;
    uint64_t i = 0;
    for (; i + kLanes <= count; i += kLanes) {
        Lanes v;
        std::memcpy(&v, s + i, sizeof v);
        low = v < low ? v : low;
        high = v > high ? v : high;
    }
    lowest = kInfinity, highest = -kInfinity;
    for (uint64_t k = 0; k < kLanes; ++k) {
        lowest = low[k] < lowest ? low[k] : lowest;
        highest = high[k] > highest ? high[k] : highest;
    }
    for (; i < count; ++i) {
        lowest = s[i] < lowest ? s[i] : lowest;
        highest = s[i] > highest ? s[i] : highest;
    }
}

// h := clamp(low + ((h - lowest) / size) * span).
template <class Path>
void ExpandRows(float* __restrict s, uint64_t count, float lowest, float size, float low,
                float span) {
    for (uint64_t i = 0; i < count; ++i) s[i] = ClampHeight(low + ((s[i] - lowest) / size) * span);
}

template <class Path, bool kStep>
void SplitLoop(float* __restrict heights, float* __restrict upper, float* __restrict mask,
               uint64_t count, float split, float lo, float hi) {
    for (uint64_t i = 0; i < count; ++i) {
        const float h = heights[i];
        const float up = h - split;
        upper[i] = ClampHeight(up < 0.0f ? 0.0f : up);
        mask[i] = ClampHeight(
            Orogen::SmoothStep(kStep ? Orogen::RampStep(h, lo) : Orogen::RisingRamp(h, lo, hi)));
        heights[i] = ClampHeight(split < h ? split : h);
    }
}

// heights := lower part; upper part and mask beside them.
template <class Path>
void SplitRows(float* heights, float* upper, float* mask, uint64_t count, float split,
               float transition) {
    const float lo = split - transition / 2.0f, hi = split + transition / 2.0f;
    if (hi > lo)
        SplitLoop<Path, false>(heights, upper, mask, count, split, lo, hi);
    else
        SplitLoop<Path, true>(heights, upper, mask, count, split, lo, hi);
}

// row[x] := clamp(row[x] + amount * (2 u(seed, x, y) - 1)).
template <class Path>
void UniformNoiseRow(float* __restrict row, int32_t width, uint32_t y, uint32_t seed,
                     float amount) {
    for (int32_t x = 0; x < width; ++x) {
        const float u = Orogen::SampleUniform(seed, static_cast<uint32_t>(x), y);
        row[x] = ClampHeight(row[x] + amount * (2.0f * u - 1.0f));
    }
}

// row[x] := clamp(row[x] + amount * n), n the Box-Muller normal of the two
// streams' values at (x, y), cut at -3..3 and divided by 3; the logarithm
// and cosine in lanes with the bits of Orogen::Log and Orogen::Cos.
template <class Path>
void GaussianNoiseRow(float* __restrict row, int32_t width, uint32_t y, uint32_t seed,
                      float amount) {
    for (int32_t x = 0; x < width; ++x) {
        const float u1 = Orogen::SampleUniform(seed, static_cast<uint32_t>(x), y);
        const float u2 =
            Orogen::SampleUniform(seed ^ Orogen::kSecondStream, static_cast<uint32_t>(x), y);
        const float ln = static_cast<float>(Orogen::LogLane<Path>(static_cast<double>(1.0f - u1)));
        const float n = std::sqrt(-2.0f * ln) * Orogen::CosLane<Path>(6.2831855f * u2);
        const float cut = n < -3.0f ? -3.0f : (n > 3.0f ? 3.0f : n);
        row[x] = ClampHeight(row[x] + amount * (cut / 3.0f));
    }
}

// row[x] := 1 where u(seed, x, y) < clamp(row[x]) * density, else 0: the
// chances come in and the points go out in one row.
template <class Path>
void ScatterRow(float* __restrict row, int32_t width, uint32_t y, uint32_t seed, float density) {
    for (int32_t x = 0; x < width; ++x) {
        const float u = Orogen::SampleUniform(seed, static_cast<uint32_t>(x), y);
        row[x] = u < ClampHeight(row[x]) * density ? 1.0f : 0.0f;
    }
}

// base^power where PowLane covers it, else Orogen::Pow; 0 stays 0. Lanes
// first, a chunk at a time, then the few pairs they leave.
template <class Path, uint64_t kChunk>
void PowerChunk(const float* __restrict base, float* __restrict out, uint64_t n, float power) {
    int32_t done[kChunk];
    for (uint64_t j = 0; j < n; ++j) {
        bool ok;
        out[j] = Orogen::PowLane<Path>(base[j], power, ok);
        done[j] = ok ? 1 : 0;
    }
    for (uint64_t j = 0; j < n; ++j)
        if (!done[j]) out[j] = base[j] == 0.0f ? 0.0f : Orogen::Pow(base[j], power);
}

// v := clamp(gain(bias(clamp(v)))): bias t^biasPower, gain (2t)^gainPower / 2
// below 0.5 and 1 - (2 - 2t)^gainPower / 2 from 0.5 up; a curve whose
// power is 1 is skipped (Pow(t, 1) is t).
template <class Path>
void BiasGainRows(float* __restrict v, uint64_t count, float biasPower, float gainPower) {
    constexpr uint64_t kChunk = 512;
    const bool bias = biasPower != 1.0f, gain = gainPower != 1.0f;
    float t[kChunk], base[kChunk], power[kChunk];
    for (uint64_t at = 0; at < count; at += kChunk) {
        const uint64_t n = count - at < kChunk ? count - at : kChunk;
        for (uint64_t j = 0; j < n; ++j) t[j] = ClampHeight(v[at + j]);
        if (bias) {
            PowerChunk<Path, kChunk>(t, power, n, biasPower);
            for (uint64_t j = 0; j < n; ++j) t[j] = power[j];
        }
        if (gain) {
            for (uint64_t j = 0; j < n; ++j)
                base[j] = t[j] < 0.5f ? 2.0f * t[j] : 2.0f - 2.0f * t[j];
            PowerChunk<Path, kChunk>(base, power, n, gainPower);
            for (uint64_t j = 0; j < n; ++j)
                t[j] = t[j] < 0.5f ? power[j] / 2.0f : 1.0f - power[j] / 2.0f;
        }
        for (uint64_t j = 0; j < n; ++j) v[at + j] = ClampHeight(t[j]);
    }
}

template <class Path>
void ClampRows(float* __restrict s, uint64_t count) {
    for (uint64_t i = 0; i < count; ++i) s[i] = ClampHeight(s[i]);
}

}  // namespace basekit::shaping
